// The reference of the encrypted runs: the cipher alone, in memory.
#ifndef TESSELZOSTREAM_BENCH_COMPARE_BARECIPHER_H_
#define TESSELZOSTREAM_BENCH_COMPARE_BARECIPHER_H_

#include <cstdint>

#include "bench/compare/Workload.h"

namespace tzcompare {

// Nettle's Blowfish over the bytes of a workload, copied into 1000-byte
// pieces (the share of a block's payload the library enciphers) and
// enciphered in place. Gives a fold of the output so that nothing is skipped.
std::uint64_t BareCipher(const Pattern& p, const Contents& c, bool encrypt);

}  // namespace tzcompare

#endif  // TESSELZOSTREAM_BENCH_COMPARE_BARECIPHER_H_
