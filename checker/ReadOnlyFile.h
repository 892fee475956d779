// The damaged or suspect file the check and the salvage read: opened
// through the platform layer for reading only, with its lock held, and
// never written.
//
// Ownership: the BlockIO returned owns the open file; the lock goes with it.
// Thread safety: one caller at a time per file, as BlockIO.
#ifndef TESSELZOSTREAM_CHECKER_READONLYFILE_H_
#define TESSELZOSTREAM_CHECKER_READONLYFILE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "blockstore/BlockIO.h"

namespace checker {

// The file at `path` for reading, with its length in bytes. Null, with one
// line in *error, for a null or empty path, anything but a regular file, a
// file that cannot be opened or locked, one whose length cannot be had, and
// one with more blocks than a compound file can number (its length is then
// still given). REQUIRES: error and length are not null.
std::unique_ptr<BlockIO> OpenForReading(const char* path, std::string* error, std::uint64_t* length);

}  // namespace checker

#endif  // TESSELZOSTREAM_CHECKER_READONLYFILE_H_
