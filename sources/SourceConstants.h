// Constants shared by the parts of CompoundFileStreamSource.
//
// Thread safety: constants only.
#ifndef TESSELZOSTREAM_SOURCES_SOURCECONSTANTS_H_
#define TESSELZOSTREAM_SOURCES_SOURCECONSTANTS_H_

#include <cstddef>
#include <cstdint>

namespace tz {

// The file DeleteDirectory leaves in a working directory it could not
// remove. Copy back never takes it for a stream (compared without regard to
// ASCII case).
constexpr char kMarkerName[] = "CouldNotDelete";

// Chunk in which streams move between the compound file and working files
// (extraction, copy back, SaveAs). The copy loops end at the first read
// that delivers less than a chunk, which only the end of the data or a
// failure gives, so what they leave in either file does not depend on this
// size; a large chunk only means fewer system calls (a megabyte halves the
// time of a SaveAs against 10240 bytes). Each copy holds one such buffer
// for its duration.
constexpr std::size_t kCopyChunk = 1 << 20;

// The chunk for copying `left` bytes: a whole chunk for a large or unknown
// length, else one byte more than the data, so that the first read already
// comes up short and a small stream costs no megabyte of memory.
inline std::size_t CopyChunkFor(std::uint64_t left) {
  return left < kCopyChunk ? static_cast<std::size_t>(left) + 1 : kCopyChunk;
}

// Extraction writes a new working file into a private folder of this name
// (and six characters more) inside the working folder first.
constexpr char kStagingPrefix[] = ".tzextract-";

// A working file's full path must stay below this many characters.
constexpr std::size_t kMaxPath = 260;

}  // namespace tz

#endif  // TESSELZOSTREAM_SOURCES_SOURCECONSTANTS_H_
