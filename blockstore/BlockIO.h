// BlockIO: whole-block reads and writes of one open compound file, with a
// write-behind buffer and sequential read-ahead.
//
// Writes of consecutive blocks are gathered and go to the file in one call
// at Flush (or when the buffer fills); a rewrite of a block that is still
// buffered replaces it there. Reads are always coherent with writes that
// have not reached the file yet: a block still buffered is served from the
// buffer, and the read-ahead copy is updated by every write.
//
// What reaches the disk at Flush is exactly the sequence of block writes
// made since the previous Flush, applied in order; after a failed write,
// nothing more reaches it.
//
// Ownership: owns the platform file; destroying a BlockIO does not flush
// (the engine decides what reaches the disk). Thread safety: one caller at
// a time (the engine serialises reads under its readLock; writes are the
// writer's, never beside a read).
#ifndef TESSELZOSTREAM_BLOCKSTORE_BLOCKIO_H_
#define TESSELZOSTREAM_BLOCKSTORE_BLOCKIO_H_

#include <cstdint>
#include <memory>

#include "utility/Env.h"

class BlockIO {
 public:
  explicit BlockIO(std::unique_ptr<tz::RandomAccessFile> file);
  // Gives back the room reserved beyond the file's end (the file keeps its
  // length and every byte).
  ~BlockIO();
  BlockIO(const BlockIO&) = delete;
  BlockIO& operator=(const BlockIO&) = delete;

  // Length of the file on disk; false on an I/O error.
  bool DiskSize(std::uint64_t* size);

  // Block n (from 1) into out[1024]. False on an I/O error or when the
  // block is not wholly in the file or the write-behind buffer.
  bool ReadBlock(std::uint32_t n, unsigned char* out);
  // The same, split: the first `headLength` bytes into head, the rest into
  // tail, so that a payload can go straight to where it is wanted.
  bool ReadBlockSplit(std::uint32_t n, unsigned char* head, std::size_t headLength,
                      unsigned char* tail);

  // Blocks first .. first + count - 1 into out[count * 1024], in one read
  // of the file (queued writes included). False on an I/O error or when a
  // block is not wholly there. For a scan of the whole file.
  bool ReadRun(std::uint32_t first, std::uint32_t count, unsigned char* out);

  // Queues block n (in[1024]) for writing. False, with nothing queued, when
  // an earlier queued write had to be flushed to make room and failed, or
  // any write has failed before.
  bool WriteBlock(std::uint32_t n, const unsigned char* in);
  // The same, from a head of `headLength` bytes and the rest in tail.
  bool WriteBlockSplit(std::uint32_t n, const unsigned char* head, std::size_t headLength,
                       const unsigned char* tail);

  // Queues blocks first .. first + count - 1 as WriteBlockSplit would, one
  // after the other: block k's head is the headLength bytes at
  // heads + k * headLength, the rest of it the next bytes from `tails` on.
  // Returns the index of the first block whose write failed (not queued,
  // nor any after it), or `count`.
  std::uint32_t WriteRun(std::uint32_t first, std::uint32_t count, const unsigned char* heads,
                         std::size_t headLength, const unsigned char* tails);

  // Sends queued writes to the file, all or none of them when they grow
  // it (the room is reserved first). False when they failed; the queue is
  // emptied either way. After a failed write the object writes nothing any
  // more: every later write and flush is refused.
  bool Flush();

  // Sends queued writes, then cuts the file to its first `blocks` blocks.
  // False when either failed; a failed cut, like a failed write, ends all
  // writing.
  bool Truncate(std::uint32_t blocks);

 private:
  // After a failed write: cuts a part-block at the end of the file.
  void CutTornTail();
  static std::uint64_t Offset(std::uint32_t n);
  bool ReadAhead(std::uint64_t offset);
  void OverlayPending(std::uint64_t start, unsigned char* data, std::size_t length) const;

  std::unique_ptr<tz::RandomAccessFile> file_;
  // Queued writes, contiguous, pendingLength_ bytes from file offset
  // pendingStart_; uninitialised beyond pendingLength_.
  std::unique_ptr<unsigned char[]> pending_;
  std::size_t pendingLength_ = 0;
  std::uint64_t pendingStart_ = 0;
  // Read-ahead copy, kAheadBlocks blocks; left uninitialised so that a file
  // read only a little touches only that much of it.
  std::unique_ptr<unsigned char[]> ahead_;
  std::uint64_t aheadStart_ = 0;
  std::size_t aheadLength_ = 0;
  std::uint64_t lastRead_ = ~std::uint64_t{0};  // offset of the last block read
  std::uint64_t diskSize_ = 0;  // the file's length on disk, as this object wrote it
  std::uint64_t reservedEnd_ = 0;  // room is reserved up to here (at least diskSize_)
  bool failed_ = false;         // a write has failed: nothing more is written
};

#endif  // TESSELZOSTREAM_BLOCKSTORE_BLOCKIO_H_
