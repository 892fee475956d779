// Little-endian encoding of fixed-width numbers in memory buffers.
//
// Every number this library puts in a file goes through these, so files move
// between machines. Callers guarantee the buffer has room for the width.
//
// Thread safety: no state; any thread may call them.
#ifndef TESSELZOSTREAM_UTILITY_ENDIAN_H_
#define TESSELZOSTREAM_UTILITY_ENDIAN_H_

#include <cstdint>

namespace tz {

inline void EncodeFixed16(unsigned char* dst, std::uint16_t v) {
  dst[0] = static_cast<unsigned char>(v);
  dst[1] = static_cast<unsigned char>(v >> 8);
}

inline void EncodeFixed32(unsigned char* dst, std::uint32_t v) {
  dst[0] = static_cast<unsigned char>(v);
  dst[1] = static_cast<unsigned char>(v >> 8);
  dst[2] = static_cast<unsigned char>(v >> 16);
  dst[3] = static_cast<unsigned char>(v >> 24);
}

inline std::uint16_t DecodeFixed16(const unsigned char* src) {
  return static_cast<std::uint16_t>(src[0] | (src[1] << 8));
}

inline std::uint32_t DecodeFixed32(const unsigned char* src) {
  return static_cast<std::uint32_t>(src[0]) |
         (static_cast<std::uint32_t>(src[1]) << 8) |
         (static_cast<std::uint32_t>(src[2]) << 16) |
         (static_cast<std::uint32_t>(src[3]) << 24);
}

}  // namespace tz

#endif  // TESSELZOSTREAM_UTILITY_ENDIAN_H_
