// Constants shared by the parts of CompoundFileStreamSource.
#ifndef TESSELZOSTREAM_SOURCES_SOURCECONSTANTS_H_
#define TESSELZOSTREAM_SOURCES_SOURCECONSTANTS_H_

#include <cstddef>

namespace tz {

// The file DeleteDirectory leaves in a working directory it could not
// remove. Copy back never takes it for a stream (compared without regard to
// ASCII case).
constexpr char kMarkerName[] = "CouldNotDelete";

// Chunk in which streams move between the compound file and working files;
// the block stream's buffer has the same size.
constexpr std::size_t kCopyChunk = 10240;

// A working file's full path must stay below this many characters.
constexpr std::size_t kMaxPath = 260;

}  // namespace tz

#endif  // TESSELZOSTREAM_SOURCES_SOURCECONSTANTS_H_
