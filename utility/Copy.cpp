#include "utility/Copy.h"

#include <cstring>

namespace tz {

void CopyBytes(void* to, const void* from, std::size_t n) {
  if (n != 0) std::memcpy(to, from, n);
}

void ZeroBytes(void* to, std::size_t n) {
  if (n != 0) std::memset(to, 0, n);
}

}  // namespace tz
