/// @file
/// What CompoundFile::CompactInPlace reports as it runs, and the callback
/// that may stop it.
#ifndef TESSELZOSTREAM_COMPACTION_H_
#define TESSELZOSTREAM_COMPACTION_H_

#include <cstdint>

#include "tesselzostream/Export.h"

/// How far a compaction in place has come.
struct TZ_EXPORT CompactProgress {
  std::uint32_t moved = 0;         ///< blocks this call has moved so far
  std::uint32_t toMove = 0;        ///< blocks this call set out to move
  std::uint64_t lengthBefore = 0;  ///< the file's length in bytes when the call began
  std::uint64_t length = 0;        ///< the file's length in bytes now
  /// No used block lies above a free one any more: the file is as short as
  /// a compaction makes it.
  bool finished = false;
};

/// Called after each batch of moves with the progress so far and the
/// caller's `context`. Returning false stops the compaction after that
/// batch; the file is then left as after a bounded call (see
/// CompactInPlace). Runs on the caller's thread, inside CompactInPlace: it
/// must not use the file.
using CompactCallback = bool (*)(const CompactProgress& progress, void* context);

#endif  // TESSELZOSTREAM_COMPACTION_H_
