/// @file
/// ZoStreamError: the exception class of the stream classes, for the
/// application.
///
/// The library itself never throws it; applications throw it from their own
/// stream code and catch it as Exception or std::exception as well. It adds
/// no state to Exception: what() gives the text.
///
/// Thread safety: as Exception's: not changed after it is made.
#ifndef TESSELZOSTREAM_ZOSTREAMERROR_H_
#define TESSELZOSTREAM_ZOSTREAMERROR_H_

#include <string>

#include "tesselzostream/Exception.h"
#include "tesselzostream/Export.h"

/// The exception class of the stream classes, for the application's own
/// stream code; the library never throws it (see ZoStreamError.h).
class TZ_EXPORT ZoStreamError : public Exception {
 public:
  /// An error with an empty text.
  ZoStreamError();
  /// An error whose what() gives `text`.
  explicit ZoStreamError(const std::string& text);
  /// Copies the text.
  ZoStreamError(const ZoStreamError& other);
  /// Takes over the text of `other`.
  ZoStreamError& operator=(const ZoStreamError& other);
  /// Destroys the error; it holds nothing but its text.
  ~ZoStreamError() override;

  /// A copy on the heap, of the most derived class that overrides Clone,
  /// owned by the caller (delete); null when no memory could be had.
  virtual ZoStreamError* Clone() const;
};

#endif  // TESSELZOSTREAM_ZOSTREAMERROR_H_
