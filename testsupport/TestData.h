// Test data: the deterministic bytes the tests, the fuzz seed programs and
// the benchmarks write and expect back. Each generator is fixed for good:
// committed seed corpora, kill-test regressions and benchmark checksums
// depend on the exact bytes, so a change here is a change of those.
//
// Which one to use:
//   RandomBytes  mt19937 bytes for a seed: streams of the tests and of the
//                salvage benchmark.
//   RecordBytes  splitmix64 bytes for (index, version): the kill harness's
//                records, which it rebuilds from a log after a kill.
//   NoiseBuffer  one xorshift buffer a benchmark cuts its streams from
//                (cheap to make, not compressible, read at offsets).
//   LcgBytes     a linear congruential sequence for a seed: the block-map
//                fuzz target's streams.
//   StepBytes    `first`, first+7, first+14, ... (mod 256): the compound
//                file fuzz target's streams.
// Thread safety: the functions share no state; a NoiseBuffer is read-only
// after construction.
#ifndef TESSELZOSTREAM_TESTSUPPORT_TESTDATA_H_
#define TESSELZOSTREAM_TESTSUPPORT_TESTDATA_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tzsupport {

// `length` bytes of std::mt19937 seeded with `seed`, one byte per draw.
std::string RandomBytes(std::size_t length, std::uint32_t seed);

// `length` bytes of splitmix64 started from (index, version): every pair
// gives its own bytes, and a shorter length gives a prefix of a longer one.
std::string RecordBytes(std::uint32_t index, std::uint32_t version, std::uint32_t length);

// `length` bytes of x = x * 1103515245 + 12345 (top byte), started from
// seed * 2654435761 + 1.
std::string LcgBytes(std::size_t length, std::uint32_t seed);

// `length` bytes: byte i is first + 7 * i, modulo 256.
std::string StepBytes(std::size_t length, char first);

// `size` bytes of a 64-bit xorshift (13, 7, 17) from a fixed start, one
// byte (bits 24..31) per step. The bytes never change from run to run.
class NoiseBuffer {
 public:
  explicit NoiseBuffer(std::size_t size);
  const char* data() const { return bytes_.data(); }
  std::size_t size() const { return bytes_.size(); }

 private:
  std::vector<char> bytes_;
};

}  // namespace tzsupport

#endif  // TESSELZOSTREAM_TESTSUPPORT_TESTDATA_H_
