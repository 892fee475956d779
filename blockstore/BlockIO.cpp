#include "blockstore/BlockIO.h"

#include <algorithm>
#include <cstring>

#include "blockstore/BlockFormat.h"
#include "utility/Copy.h"

namespace {
constexpr std::size_t kBlock = blockformat::kBlockSize;
// Bytes gathered before a flush. Each write call into the page cache has a
// fixed cost; at 512 KiB a large stream is written about as fast as a plain
// file, and the buffer is only touched as far as it is used.
constexpr std::size_t kMaxPending = 512u << 10;
constexpr std::size_t kAheadBlocks = 256;     // one read-ahead run
// Room reserved beyond a growing write, so that a file growing a stream at
// a time reserves once in many writes rather than at each.
constexpr std::uint64_t kReserveAhead = 64 * kBlock;
}  // namespace

BlockIO::BlockIO(std::unique_ptr<tz::RandomAccessFile> file)
    : file_(std::move(file)),
      pending_(new unsigned char[kMaxPending]),
      ahead_(new unsigned char[kAheadBlocks * kBlock]) {
  if (!file_->Size(&diskSize_)) diskSize_ = 0;
  reservedEnd_ = diskSize_;
}

// Cutting a file to the length it has keeps every byte and frees what was
// reserved beyond it.
BlockIO::~BlockIO() {
  std::uint64_t size = 0;
  if (reservedEnd_ > diskSize_ && file_->Size(&size)) file_->Truncate(size);
}

std::uint64_t BlockIO::Offset(std::uint32_t n) {
  return (static_cast<std::uint64_t>(n) - 1) * kBlock;
}

bool BlockIO::DiskSize(std::uint64_t* size) { return file_->Size(size); }

void BlockIO::OverlayPending(std::uint64_t start, unsigned char* data,
                             std::size_t length) const {
  if (pendingLength_ == 0) return;
  const std::uint64_t end = start + length;
  const std::uint64_t pendingEnd = pendingStart_ + pendingLength_;
  const std::uint64_t from = std::max(start, pendingStart_);
  const std::uint64_t to = std::min(end, pendingEnd);
  if (from >= to) return;
  std::memcpy(data + (from - start), pending_.get() + (from - pendingStart_),
              static_cast<std::size_t>(to - from));
}

bool BlockIO::ReadAhead(std::uint64_t offset) {
  std::size_t got = 0;
  aheadLength_ = 0;
  if (!file_->ReadAt(offset, ahead_.get(), kAheadBlocks * kBlock, &got)) return false;
  aheadStart_ = offset;
  aheadLength_ = got - got % kBlock;
  OverlayPending(aheadStart_, ahead_.get(), aheadLength_);
  return true;
}

namespace {
constexpr std::size_t kHead = blockformat::kOffPayload;

// Copies `n` bytes; a data block's head has a fixed size, and its copy is
// left to the compiler (a few moves) rather than to a call.
void CopyPart(unsigned char* to, const unsigned char* from, std::size_t n) {
  if (n == kHead) {
    std::memcpy(to, from, kHead);
  } else {
    tz::CopyBytes(to, from, n);
  }
}

// Copies one block's 1024 bytes from `from` into a split destination.
void Split(const unsigned char* from, unsigned char* head, std::size_t headLength,
           unsigned char* tail) {
  CopyPart(head, from, headLength);
  if (headLength < kBlock) tz::CopyBytes(tail, from + headLength, kBlock - headLength);
}

// Copies a split block into 1024 bytes at `to`.
void Join(const unsigned char* head, std::size_t headLength, const unsigned char* tail,
          unsigned char* to) {
  CopyPart(to, head, headLength);
  if (headLength < kBlock) tz::CopyBytes(to + headLength, tail, kBlock - headLength);
}
}  // namespace

bool BlockIO::ReadBlock(std::uint32_t n, unsigned char* out) {
  return ReadBlockSplit(n, out, kBlock, nullptr);
}

bool BlockIO::ReadBlockSplit(std::uint32_t n, unsigned char* head, std::size_t headLength,
                             unsigned char* tail) {
  if (n == 0) return false;
  const std::uint64_t offset = Offset(n);
  const bool sequential = offset == lastRead_ + kBlock;
  lastRead_ = offset;
  if (pendingLength_ != 0 && offset >= pendingStart_ &&
      offset + kBlock <= pendingStart_ + pendingLength_) {
    Split(pending_.get() + (offset - pendingStart_), head, headLength, tail);
    return true;
  }
  const bool cached = offset >= aheadStart_ &&
                      offset + kBlock <= aheadStart_ + aheadLength_;
  if (!cached && sequential) {
    if (!ReadAhead(offset)) return false;
  }
  if (offset >= aheadStart_ && offset + kBlock <= aheadStart_ + aheadLength_) {
    Split(ahead_.get() + (offset - aheadStart_), head, headLength, tail);
    return true;
  }
  unsigned char block[kBlock];
  std::size_t got = 0;
  if (!file_->ReadAt(offset, block, kBlock, &got)) return false;
  OverlayPending(offset, block, got);
  // A block (partly) beyond the disk's end is whole only in the queue.
  const bool whole = got == kBlock || (pendingLength_ != 0 && offset >= pendingStart_ &&
                                       offset + kBlock <= pendingStart_ + pendingLength_);
  if (whole) Split(block, head, headLength, tail);
  return whole;
}

bool BlockIO::ReadRun(std::uint32_t first, std::uint32_t count, unsigned char* out) {
  if (first == 0) return false;
  const std::uint64_t offset = Offset(first);
  const std::size_t length = std::size_t{count} * kBlock;
  std::size_t got = 0;
  if (!file_->ReadAt(offset, out, length, &got)) return false;
  OverlayPending(offset, out, length);
  const std::uint64_t pendingEnd = pendingStart_ + pendingLength_;
  return got == length || (pendingLength_ != 0 && offset + got >= pendingStart_ &&
                           offset + length <= pendingEnd);
}

bool BlockIO::WriteBlock(std::uint32_t n, const unsigned char* in) {
  return WriteBlockSplit(n, in, kBlock, nullptr);
}

bool BlockIO::WriteBlockSplit(std::uint32_t n, const unsigned char* head, std::size_t headLength,
                              const unsigned char* tail) {
  const std::uint64_t offset = Offset(n);
  if (offset >= aheadStart_ && offset < aheadStart_ + aheadLength_) {
    Join(head, headLength, tail, ahead_.get() + (offset - aheadStart_));
  }
  const std::uint64_t pendingEnd = pendingStart_ + pendingLength_;
  if (pendingLength_ != 0 && offset >= pendingStart_ && offset + kBlock <= pendingEnd) {
    Join(head, headLength, tail, pending_.get() + (offset - pendingStart_));
    return true;
  }
  if (failed_) return false;
  if (pendingLength_ != 0 && (offset != pendingEnd || pendingLength_ + kBlock > kMaxPending)) {
    if (!Flush()) return false;
  }
  if (pendingLength_ == 0) pendingStart_ = offset;
  Join(head, headLength, tail, pending_.get() + pendingLength_);
  pendingLength_ += kBlock;
  return true;
}

std::uint32_t BlockIO::WriteRun(std::uint32_t first, std::uint32_t count,
                                const unsigned char* heads, std::size_t headLength,
                                const unsigned char* tails) {
  const std::size_t tailLength = kBlock - headLength;
  const std::uint64_t aheadEnd = aheadStart_ + aheadLength_;
  for (std::uint32_t k = 0; k < count; ++k) {
    const unsigned char* head = heads + std::size_t{k} * headLength;
    const unsigned char* tail = tails + std::size_t{k} * tailLength;
    const std::uint64_t offset = Offset(first + k);
    // The common case, a block that extends the queue and fits, without the
    // steps of a single write; anything else takes them.
    const bool extends = pendingLength_ != 0 && offset == pendingStart_ + pendingLength_ &&
                         pendingLength_ + kBlock <= kMaxPending &&
                         !(offset >= aheadStart_ && offset < aheadEnd);
    if (extends) {
      Join(head, headLength, tail, pending_.get() + pendingLength_);
      pendingLength_ += kBlock;
    } else if (!WriteBlockSplit(first + k, head, headLength, tail)) {
      return k;
    }
  }
  return count;
}

// A write that failed part-way at the end of the file (a full disk on a
// file system that cannot reserve room ahead) may have left a length that
// is no whole number of blocks, and such a file would no longer open. The
// part-block goes; whole blocks that landed stay, as blocks that no
// directory entry names yet.
void BlockIO::CutTornTail() {
  std::uint64_t size = 0;
  if (file_->Size(&size) && size % kBlock != 0) file_->Truncate(size - size % kBlock);
  if (file_->Size(&size)) diskSize_ = size;
  reservedEnd_ = std::min(reservedEnd_, diskSize_);
}

// A run that grows the file first has its room reserved, so that a full
// disk refuses it whole rather than let part of it land: blocks that link
// to blocks later in the run never reach the disk without them. After a
// failure nothing more is written, so no write made after a failed one can
// land (a link to a block that never got there).
bool BlockIO::Truncate(std::uint32_t blocks) {
  if (!Flush()) return false;
  const std::uint64_t size = std::uint64_t{blocks} * kBlock;
  if (!file_->Truncate(size)) {
    failed_ = true;
    return false;
  }
  diskSize_ = size;
  reservedEnd_ = size;
  aheadLength_ = 0;
  lastRead_ = ~std::uint64_t{0};
  return true;
}

bool BlockIO::Flush() {
  if (failed_) {
    pendingLength_ = 0;
    return false;
  }
  if (pendingLength_ == 0) return true;
  const std::uint64_t end = pendingStart_ + pendingLength_;
  bool ok = true;
  if (end > reservedEnd_) {
    // Some room beyond what this write needs, or, on a disk too full for
    // that, exactly what it needs.
    const std::uint64_t from = std::max(pendingStart_, reservedEnd_);
    if (file_->Reserve(from, end + kReserveAhead - from)) {
      reservedEnd_ = end + kReserveAhead;
    } else if (file_->Reserve(from, end - from)) {
      reservedEnd_ = end;
    } else {
      ok = false;
    }
  }
  if (ok) ok = file_->WriteAt(pendingStart_, pending_.get(), pendingLength_);
  pendingLength_ = 0;
  if (ok) {
    diskSize_ = std::max(diskSize_, end);
    return true;
  }
  failed_ = true;
  CutTornTail();
  return false;
}
