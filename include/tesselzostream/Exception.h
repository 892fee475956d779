/// @file
/// Exception: the library's exception with a text for the application.
///
/// Thrown by value where an operation reports in words rather than by a
/// status. what() gives the text. Copyable and assignable; no other state.
///
/// Thread safety: not changed after it is made; any thread may read it.
#ifndef TESSELZOSTREAM_EXCEPTION_H_
#define TESSELZOSTREAM_EXCEPTION_H_

#include <stdexcept>
#include <string>

#include "tesselzostream/Export.h"

/// The library's exception with a text for the application; what() gives
/// the text (see Exception.h).
class TZ_EXPORT Exception : public std::runtime_error {
 public:
  /// An exception with an empty text.
  Exception();
  /// An exception whose what() gives `text`.
  explicit Exception(const std::string& text);
  /// Copies the text.
  Exception(const Exception&) = default;
  /// Takes over the text of the other exception.
  Exception& operator=(const Exception&) = default;
  /// Destroys the exception; it holds nothing but its text.
  ~Exception() override;
};

#endif  // TESSELZOSTREAM_EXCEPTION_H_
