// Block reads, writes and allocation of a BlockFileCore.
#include <cstring>

#include "blockstore/BlockFileCore.h"
#include "blockstore/PayloadCipher.h"
#include "utility/BlowFish.h"

using ZoStreamE::Status;
namespace bf = blockformat;

namespace {
const unsigned char* SkippedBlockBytes(std::uint32_t n, unsigned char* buffer) {
  bf::EncodeSkippedBlock(n, buffer);
  return buffer;
}
}  // namespace

// The file's bytes of block n, for both block reads (the caller holds
// readLock). A block beyond the engine's file size sets StatusPastEnd;
// block 0 or an I/O failure sets StatusFailed.
bool BlockFileCore::ReadBlockBytes(std::uint32_t n, unsigned char* out, unsigned char* tail) {
  if (static_cast<std::int64_t>(n) * bf::kBlockSize > fileSize) {
    Fail(ZoStreamE::StatusPastEnd);
    return false;
  }
  if (n == 0 || !(tail == nullptr ? file->ReadBlock(n, out)
                                   : file->ReadBlockSplit(n, out, bf::kOffPayload, tail))) {
    Fail();
    return false;
  }
  return true;
}

// A read takes the head as the file holds it: a block's own number and
// signature are not compared with anything. But a block read for writing
// goes back to the place its record names, and a torn head naming another
// block would send the rewrite there, over some other stream's data. So in
// a file open for writing the record names the block it was read from, with
// the signature every block carries; a rewrite then heals the head. It is
// marked in use as well: every block read this way belongs to a chain or to
// the directory, and a rewrite that kept a torn "free" flag would record the
// block as free in the map, to be handed to a second stream while the first
// still holds it. On a sound file all three already hold, and nothing
// changes.
void BlockFileCore::RepairHeadForWriting(std::uint32_t n, bf::BlockHead* head) const {
  if (readOnly) return;
  head->blockNumber = n;
  head->inUse = 1;
  if (!bf::HasSignature(*head)) std::memcpy(head->signature, bf::kSignature, bf::kSignatureSize);
}

Status BlockFileCore::ReadDataBlock(std::uint32_t n, DataBlock& block, unsigned char* payload) {
  if (status != ZoStreamE::StatusOk) return status;
  std::lock_guard<std::recursive_mutex> hold(readLock);
  return ReadDataBlockHeld(n, block, payload);
}

Status BlockFileCore::ReadDataBlockHeld(std::uint32_t n, DataBlock& block, unsigned char* payload) {
  if (status != ZoStreamE::StatusOk) return status;
  unsigned char scratch[bf::kBlockSize];
  unsigned char* target = bf::DataBlockTarget(&block, scratch);
  if (!ReadBlockBytes(n, target, payload)) return status;
  if (payload == nullptr) {
    bf::FinishDataBlock(target, &block);
  } else {
    bf::FinishDataHead(target, &block);
  }
  RepairHeadForWriting(n, &block);
  if (IsEncrypted() && !verbatimPayloads) {
    if (cipher) {
      cipher->Decrypt(payload != nullptr ? payload : block.payload,
                      static_cast<unsigned>(bf::CipherLength(block.usedLength)));
    } else {
      Fail(ZoStreamE::StatusPasswordNeeded);
    }
  }
  return status;
}

DataBlock* BlockFileCore::LoadDataBlock(std::uint32_t n) {
  DataBlock* block = new DataBlock;
  bf::InitDataBlock(block);
  if (ReadDataBlock(n, *block) != ZoStreamE::StatusOk) {
    delete block;
    return nullptr;
  }
  return block;
}

Status BlockFileCore::WriteDataBlock(const DataBlock& block, const unsigned char* payload) {
  if (status == ZoStreamE::StatusOk && IsEncrypted() && !verbatimPayloads) {
    if (!cipher) {
      Fail(ZoStreamE::StatusPasswordNeeded);
      return status;
    }
    DataBlock copy = block;
    if (payload != nullptr) std::memcpy(copy.payload, payload, bf::kPayloadSize);
    cipher->Encrypt(copy.payload, static_cast<unsigned>(bf::CipherLength(copy.usedLength)));
    return WriteRawDataBlock(copy);
  }
  return WriteRawDataBlock(block, payload);
}

// The steps shared by both block writes: refusals, growth of the file with
// skipped blocks, the block map, the file size. `encoded` holds the block's
// 1024 bytes.
namespace {
struct BlockWrite {
  std::uint32_t number;
  std::uint8_t inUse;
  const unsigned char* encoded;
  const unsigned char* payload;  // non-null: the bytes from kOffPayload on
};
}  // namespace

static Status WriteBlockBytes(BlockFileCore& core, const BlockWrite& w) {
  if (core.status != ZoStreamE::StatusOk) return core.status;
  if (core.readOnly) {
    core.Fail();
    return core.status;
  }
  core.ArmMark();
  if (core.status != ZoStreamE::StatusOk) return core.status;
  core.blocksWritten = true;
  // A legitimate write targets a block of the file or one the map handed
  // out; any other number came from a damaged head.
  const std::uint32_t n = w.number;
  const std::int64_t limit = std::max<std::int64_t>(core.blockMap.highest(), core.BlockCount());
  if (n == 0 || static_cast<std::int64_t>(n) > limit) {
    core.Fail();
    return core.status;
  }
  bool ok = true;
  unsigned char skipped[bf::kBlockSize];
  for (std::uint32_t k = core.BlockCount() + 1; k < n && ok; ++k) {
    ok = core.file->WriteBlock(k, SkippedBlockBytes(k, skipped));
  }
  if (!ok) {
    core.Fail();
    return core.status;
  }
  core.blockMap.SetBlock(static_cast<std::int32_t>(n), w.inUse);
  ok = w.payload == nullptr ? core.file->WriteBlock(n, w.encoded)
                            : core.file->WriteBlockSplit(n, w.encoded, bf::kOffPayload, w.payload);
  core.fileSize = std::max<std::int64_t>(core.fileSize, static_cast<std::int64_t>(n) * bf::kBlockSize);
  if (!ok) core.Fail();
  return core.status;
}

Status BlockFileCore::WriteRawDataBlock(const DataBlock& block, const unsigned char* payload) {
  unsigned char scratch[bf::kBlockSize];
  const Status result = WriteBlockBytes(
      *this, {block.blockNumber, block.inUse, bf::DataBlockBytes(block, scratch), payload});
  if (result == ZoStreamE::StatusOk) MarkIfDirBlock(block.blockNumber);
  return result;
}

Status BlockFileCore::WriteDirBlock(const DirBlock& block) {
  unsigned char raw[bf::kBlockSize];
  bf::EncodeDirBlock(block, raw);
  const std::uint32_t index = DirIndexOf(block.blockNumber);
  const bool known = index != kNoDirBlock && dirBlocks[index].get() == &block;
  if (known) BeforeDirBlockWrite(index);
  const Status result = WriteBlockBytes(*this, {block.blockNumber, block.inUse, raw, nullptr});
  if (result == ZoStreamE::StatusOk) {
    DirBlockWritten(block);
    if (known) AfterDirBlockWrite(index, raw);
  }
  return result;
}

Status BlockFileCore::WriteRawBlock(std::uint32_t n, std::uint8_t inUse, const unsigned char* raw) {
  const Status result = WriteBlockBytes(*this, {n, inUse, raw, nullptr});
  if (result == ZoStreamE::StatusOk) MarkIfDirBlock(n);
  return result;
}

// The saved map's digest ties it to the directory, not to the chains: a
// file changed by another writer since (or made to fool the digest) can
// hold a chain through a block the map calls free, and handing that block
// out would give it to two streams. So a block the map offers inside the
// file, which this session has not allocated before, is taken only when its
// own head says free. One whose head says in use stays marked used, as a
// scan of the heads would have it, and the next number is tried; a block
// costs at most one such read a session.
std::uint32_t BlockFileCore::AllocBlockNumber() {
  for (;;) {
    const auto n = static_cast<std::uint32_t>(blockMap.AllocBlock());
    BeforeHandingOut(n);
    if (!savedMapTaken || n > BlockCount() || (n < linkSource.size() && linkSource[n] != kNotAllocated)) {
      return n;
    }
    std::lock_guard<std::recursive_mutex> hold(readLock);
    unsigned char raw[bf::kBlockSize];
    if (!ReadBlockBytes(n, raw)) return n;  // the status has failed: nothing more is written
    bf::BlockHead head;
    bf::DecodeHead(raw, &head);
    if (head.inUse == 0) return n;
  }
}

DataBlock* BlockFileCore::AllocDataBlock(DataBlock* reuse, bool clearPayload) {
  DataBlock* block = reuse != nullptr ? reuse : new DataBlock;
  if (clearPayload || reuse == nullptr) {
    bf::InitDataBlock(block);
  } else {
    bf::InitDataHead(block);
  }
  block->blockNumber = AllocBlockNumber();
  block->inUse = 1;
  const std::uint32_t n = block->blockNumber;
  if (n >= linkSource.size()) linkSource.resize(n + 1);
  linkSource[n] = 0;
  MarkIfDirBlock(n);
  return block;
}

// The first block (`current`) goes out by the ordinary write. Its
// successors, fresh blocks whose heads differ only in their numbers, are
// gathered while their numbers run on consecutively inside or just past
// the file, and go to the block queue in one call. Nothing can tell the
// difference: no step in between reads the file or the map's record of
// them, except the check of a free block's head when the map came from
// the saved list, and the gathered blocks are sent before any such check.
std::uint32_t BlockFileCore::AppendWholeBlocks(DataBlock& current, const unsigned char* payloads,
                                               std::uint32_t count, std::uint32_t* taken) {
  ArmMark();  // its runs go to the file without the steps of a single write
  constexpr std::size_t kHead = bf::kOffPayload;
  unsigned char heads[kMaxAppendRun * kHead];
  std::uint32_t runFirst = 0;  // number of the first gathered block
  std::uint32_t runCount = 0;  // blocks gathered
  std::uint32_t runStep = 0;   // the step that gathered the first
  // A successor's head: in use, the signature, its link, a full payload.
  bf::DataBlock fresh;
  bf::InitDataHead(&fresh);
  fresh.inUse = 1;
  fresh.usedLength = bf::kPayloadSize;
  std::uint32_t k = 0;
  // Sends the gathered blocks; false when a write failed. That fails the
  // status at that block, and the steps end there, as they would have
  // without gathering.
  auto sendRun = [&]() -> bool {
    if (runCount == 0) return true;
    const std::uint32_t sent = file->WriteRun(runFirst, runCount, heads, kHead,
                                              payloads + std::size_t{runStep} * bf::kPayloadSize);
    const std::uint32_t reached = sent < runCount ? sent + 1 : runCount;
    const std::int64_t end = static_cast<std::int64_t>(runFirst + reached - 1) * bf::kBlockSize;
    fileSize = std::max<std::int64_t>(fileSize, end);
    for (std::uint32_t j = 0; j < sent; ++j) MarkIfDirBlock(runFirst + j);
    const bool all = sent == runCount;
    if (!all) {
      Fail();
      k = runStep + sent + 1;
    }
    runCount = 0;
    return all;
  };
  while (k < count) {
    // A number that the saved map offers inside the file has its head read
    // first, and that read must see every block written before it.
    if (savedMapTaken && static_cast<std::uint32_t>(blockMap.nextFree()) <= BlockCount()) sendRun();
    if (k == count || (k != 0 && status != ZoStreamE::StatusOk)) break;
    const std::uint32_t n = AllocBlockNumber();
    if (n >= linkSource.size()) linkSource.resize(n + 1);
    const std::uint32_t from = k == 0 ? current.blockNumber : taken[k - 1];
    linkSource[n] = from;
    MarkIfDirBlock(n);
    const bool gather = k != 0 && status == ZoStreamE::StatusOk &&
                        (runCount == 0 ? from <= BlockCount() + 1 : from == runFirst + runCount);
    if (gather) {
      if (runCount == 0) {
        runFirst = from;
        runStep = k;
      }
      fresh.blockNumber = from;
      fresh.nextBlock = n;
      bf::EncodeDataHead(fresh, heads + std::size_t{runCount} * kHead);
      blockMap.SetBlock(static_cast<std::int32_t>(from), 1);
      ++runCount;
    } else {
      if (!sendRun()) break;
      const unsigned char* payload = payloads + std::size_t{k} * bf::kPayloadSize;
      if (k == 0) {
        current.nextBlock = n;
        current.usedLength = bf::kPayloadSize;
        WriteRawDataBlock(current, payload);
      } else {
        fresh.blockNumber = from;
        fresh.nextBlock = n;
        WriteRawDataBlock(fresh, payload);
      }
    }
    taken[k++] = n;
  }
  sendRun();
  if (k != 0) {
    bf::InitDataHead(&current);
    current.blockNumber = taken[k - 1];
    current.inUse = 1;
  }
  return k;
}

Status BlockFileCore::ReadDirBlock(std::uint32_t n, DirBlock& block, bool* exact) {
  if (status != ZoStreamE::StatusOk) return status;
  std::lock_guard<std::recursive_mutex> hold(readLock);
  unsigned char raw[bf::kBlockSize];
  if (!ReadBlockBytes(n, raw)) return status;
  if (!bf::DecodeDirBlock(raw, &block)) {
    Fail();
    return status;
  }
  if (exact != nullptr) {
    unsigned char encoded[bf::kBlockSize];
    bf::EncodeDirBlock(block, encoded);
    *exact = std::memcmp(encoded, raw, bf::kBlockSize) == 0;
  }
  return status;
}

boost::shared_ptr<DirBlock> BlockFileCore::LoadDirBlock(std::uint32_t n, bool* exact) {
  boost::shared_ptr<DirBlock> block = dirBlockPool.Take();
  if (ReadDirBlock(n, *block, exact) != ZoStreamE::StatusOk) {
    block.reset();
    dirBlockPool.GiveBackLast();
  }
  return block;
}

boost::shared_ptr<DirBlock> BlockFileCore::AllocDirBlock() {
  boost::shared_ptr<DirBlock> block = dirBlockPool.Take();
  block->blockNumber = AllocBlockNumber();
  block->inUse = 1;
  return block;
}
