// Exception: the library's exception with a text for the application.
//
// Thrown by value where an operation reports in words rather than by a
// status. what() gives the text. Copyable and assignable; no other state.
#ifndef TESSELZOSTREAM_EXCEPTION_H_
#define TESSELZOSTREAM_EXCEPTION_H_

#include <stdexcept>
#include <string>

#include "tesselzostream/Export.h"

class TZ_EXPORT Exception : public std::runtime_error {
 public:
  Exception();
  explicit Exception(const std::string& text);
  Exception(const Exception&) = default;
  Exception& operator=(const Exception&) = default;
  ~Exception() override;
};

#endif  // TESSELZOSTREAM_EXCEPTION_H_
