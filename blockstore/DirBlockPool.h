// DirBlockPool: the memory of an engine's directory blocks.
//
// A directory of 100,000 streams has 33,334 blocks, all loaded at open and
// all kept until the file is released. One allocation each (with a second
// for a shared pointer's count) made the open spend a third of its time in
// the allocator, and the release as long again. The pool hands out blocks
// from chunks that double in size up to kMaxChunk, and each block's shared
// pointer shares its chunk's count (the aliasing constructor), so a block
// costs no allocation of its own.
//
// Ownership: a chunk lives while the pool or any pointer handed out from it
// does; a block never moves (entries handed out stay valid).
//
// Thread safety: none; used by the engine's writer or its open only.
#ifndef TESSELZOSTREAM_BLOCKSTORE_DIRBLOCKPOOL_H_
#define TESSELZOSTREAM_BLOCKSTORE_DIRBLOCKPOOL_H_

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstddef>

#include "blockstore/BlockFormat.h"

class DirBlockPool {
 public:
  // A directory block set up by blockformat::InitDirBlock.
  boost::shared_ptr<blockformat::DirBlock> Take() {
    if (!chunk_ || used_ == size_) NewChunk();
    blockformat::DirBlock* block = chunk_.get() + used_++;
    blockformat::InitDirBlock(block);
    return boost::shared_ptr<blockformat::DirBlock>(chunk_, block);
  }
  // Gives back the block Take handed out last, when the caller drops it
  // unused (a failed read). REQUIRES: no copy of its pointer is kept.
  void GiveBackLast() {
    if (used_ > 0) --used_;
  }

 private:
  static constexpr std::size_t kMaxChunk = 256;
  void NewChunk() {
    size_ = size_ == 0 ? 1 : (size_ < kMaxChunk ? size_ * 2 : kMaxChunk);
    chunk_.reset(new blockformat::DirBlock[size_], [](blockformat::DirBlock* p) { delete[] p; });
    used_ = 0;
  }

  boost::shared_ptr<blockformat::DirBlock> chunk_;
  std::size_t size_ = 0;
  std::size_t used_ = 0;
};

#endif  // TESSELZOSTREAM_BLOCKSTORE_DIRBLOCKPOOL_H_
