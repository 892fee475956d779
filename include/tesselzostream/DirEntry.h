/// @file
/// DirEntry: one stream of a compound file's directory, as held in memory.
///
/// Every text is zero-terminated within its array. An entry is in use exactly
/// when firstBlock is not 0. Pointers handed out by CompoundFile stay valid
/// until the last holder of the file has gone: directory blocks are never
/// released while a file is open.
///
/// Thread safety: a plain record, changed by the file's writes; read it
/// while no write of the file runs (see CompoundFile.h).
#ifndef TESSELZOSTREAM_DIRENTRY_H_
#define TESSELZOSTREAM_DIRENTRY_H_

#include <cstdint>

/// One stream of a compound file's directory, as held in memory. In use
/// exactly when firstBlock is not 0; see DirEntry.h for how long a pointer
/// to it stays valid.
struct DirEntry {
  static constexpr int kNameSize = 257;  ///< 256 characters and the zero
  static constexpr int kTimeSize = 26;   ///< text of asctime_r with the zero

  char name[kNameSize];      ///< first member: the name iteration hands out
                             ///< the same address as the entry iteration
  char created[kTimeSize];   ///< local time the entry was made
  char modified[kTimeSize];  ///< local time of the last write into the stream
  std::uint32_t firstBlock;  ///< first data block; 0 marks a free entry
  std::uint32_t size;        ///< stream length in bytes
};

#endif  // TESSELZOSTREAM_DIRENTRY_H_
