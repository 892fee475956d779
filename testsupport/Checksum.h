// The benchmarks' stream checksum: a stream's bytes folded chunk by chunk
// into one 64-bit state, so that every byte read back is checked at little
// cost next to the I/O (the sums of 8-byte words vectorise).
//
// Contract: a stream's checksum is MixChecksum applied to its chunks in
// order, starting from kChecksumSeed. The result depends on where the
// chunks are cut, so a writer and its reader must cut alike. Not a
// cryptographic hash: it finds wrong, missing and moved bytes, no more.
// Inline, so that the fold stays in the benchmark's own loop.
#ifndef TESSELZOSTREAM_TESTSUPPORT_CHECKSUM_H_
#define TESSELZOSTREAM_TESTSUPPORT_CHECKSUM_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tzsupport {

constexpr std::uint64_t kChecksumSeed = 0xcbf29ce484222325ull;

// Folds `n` bytes at `data` into `state`.
// REQUIRES: `data` points at `n` readable bytes.
inline std::uint64_t MixChecksum(std::uint64_t state, const void* data, std::size_t n) {
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  std::uint64_t sum = 0;
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    std::uint64_t word;
    std::memcpy(&word, bytes + i, 8);
    sum += word;
  }
  for (; i < n; ++i) sum += static_cast<std::uint64_t>(bytes[i]) << ((i % 8) * 8);
  return (state ^ (sum + n)) * 0x100000001b3ull;
}

}  // namespace tzsupport

#endif  // TESSELZOSTREAM_TESTSUPPORT_CHECKSUM_H_
