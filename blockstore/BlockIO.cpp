#include "blockstore/BlockIO.h"

#include <algorithm>
#include <cstring>

#include "blockstore/BlockFormat.h"
#include "utility/Copy.h"

namespace {
constexpr std::size_t kBlock = blockformat::kBlockSize;
// Bytes gathered before a flush. Larger single writes into the page cache
// gain nothing and were seen to slow down badly on some kernels.
constexpr std::size_t kMaxPending = 128u << 10;
constexpr std::size_t kAheadBlocks = 256;     // one read-ahead run
}  // namespace

BlockIO::BlockIO(std::unique_ptr<tz::RandomAccessFile> file)
    : file_(std::move(file)), ahead_(new unsigned char[kAheadBlocks * kBlock]) {
  pending_.reserve(kMaxPending);
}

std::uint64_t BlockIO::Offset(std::uint32_t n) {
  return (static_cast<std::uint64_t>(n) - 1) * kBlock;
}

bool BlockIO::DiskSize(std::uint64_t* size) { return file_->Size(size); }

void BlockIO::OverlayPending(std::uint64_t start, unsigned char* data,
                             std::size_t length) const {
  if (pending_.empty()) return;
  const std::uint64_t end = start + length;
  const std::uint64_t pendingEnd = pendingStart_ + pending_.size();
  const std::uint64_t from = std::max(start, pendingStart_);
  const std::uint64_t to = std::min(end, pendingEnd);
  if (from >= to) return;
  std::memcpy(data + (from - start), pending_.data() + (from - pendingStart_),
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
// Copies one block's 1024 bytes from `from` into a split destination.
void Split(const unsigned char* from, unsigned char* head, std::size_t headLength,
           unsigned char* tail) {
  tz::CopyBytes(head, from, headLength);
  if (headLength < kBlock) tz::CopyBytes(tail, from + headLength, kBlock - headLength);
}

// Copies a split block into 1024 bytes at `to`.
void Join(const unsigned char* head, std::size_t headLength, const unsigned char* tail,
          unsigned char* to) {
  tz::CopyBytes(to, head, headLength);
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
  if (!pending_.empty() && offset >= pendingStart_ &&
      offset + kBlock <= pendingStart_ + pending_.size()) {
    Split(pending_.data() + (offset - pendingStart_), head, headLength, tail);
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
  const bool whole = got == kBlock || (!pending_.empty() && offset >= pendingStart_ &&
                                       offset + kBlock <= pendingStart_ + pending_.size());
  if (whole) Split(block, head, headLength, tail);
  return whole;
}

bool BlockIO::WriteBlock(std::uint32_t n, const unsigned char* in) {
  return WriteBlockSplit(n, in, kBlock, nullptr);
}

bool BlockIO::WriteBlockSplit(std::uint32_t n, const unsigned char* head, std::size_t headLength,
                              const unsigned char* tail) {
  const std::size_t tailLength = kBlock - headLength;
  const std::uint64_t offset = Offset(n);
  if (offset >= aheadStart_ && offset < aheadStart_ + aheadLength_) {
    Join(head, headLength, tail, ahead_.get() + (offset - aheadStart_));
  }
  const std::uint64_t pendingEnd = pendingStart_ + pending_.size();
  if (!pending_.empty() && offset >= pendingStart_ && offset + kBlock <= pendingEnd) {
    Join(head, headLength, tail, pending_.data() + (offset - pendingStart_));
    return true;
  }
  bool ok = true;
  if (!pending_.empty() && (offset != pendingEnd || pending_.size() >= kMaxPending)) {
    ok = Flush();
  }
  if (pending_.empty()) pendingStart_ = offset;
  pending_.insert(pending_.end(), head, head + headLength);
  if (tailLength > 0) pending_.insert(pending_.end(), tail, tail + tailLength);
  return ok;
}

bool BlockIO::Flush() {
  if (pending_.empty()) return true;
  const bool ok = file_->WriteAt(pendingStart_, pending_.data(), pending_.size());
  pending_.clear();
  return ok;
}
