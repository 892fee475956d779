// What the stream formats fuzz target and its seeds program share: the
// size of the header in front of every input.
#ifndef TESSELZOSTREAM_FUZZ_STREAMFORMATSINPUT_H_
#define TESSELZOSTREAM_FUZZ_STREAMFORMATSINPUT_H_

#include <cstddef>

namespace tzfuzz::streamformats {

constexpr std::size_t kHeaderSize = 4;

}  // namespace tzfuzz::streamformats

#endif  // TESSELZOSTREAM_FUZZ_STREAMFORMATSINPUT_H_
