// Block reads, writes and allocation of a BlockFileCore.
#include <cstring>

#include "blockstore/BlockFileCore.h"
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
    status = ZoStreamE::StatusPastEnd;
    return false;
  }
  if (n == 0 || !(tail == nullptr ? file->ReadBlock(n, out)
                                   : file->ReadBlockSplit(n, out, bf::kOffPayload, tail))) {
    status = ZoStreamE::StatusFailed;
    return false;
  }
  return true;
}

Status BlockFileCore::ReadDataBlock(std::uint32_t n, DataBlock& block, unsigned char* payload) {
  if (status != ZoStreamE::StatusOk) return status;
  std::lock_guard<std::recursive_mutex> hold(readLock);
  unsigned char scratch[bf::kBlockSize];
  unsigned char* target = bf::DataBlockTarget(&block, scratch);
  if (!ReadBlockBytes(n, target, payload)) return status;
  if (payload == nullptr) {
    bf::FinishDataBlock(target, &block);
  } else {
    bf::FinishDataHead(target, &block);
  }
  // A head that names another block, or has no signature, is damage: a
  // rewrite of it would land on some other block.
  if (block.blockNumber != n || !bf::HasSignature(block)) {
    status = ZoStreamE::StatusFailed;
    return status;
  }
  if (IsEncrypted()) {
    if (cipher) {
      cipher->Decrypt(payload != nullptr ? payload : block.payload,
                      static_cast<unsigned>(CipherLength(block.usedLength)));
    } else {
      status = ZoStreamE::StatusPasswordNeeded;
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
  if (status == ZoStreamE::StatusOk && IsEncrypted()) {
    if (!cipher) {
      status = ZoStreamE::StatusPasswordNeeded;
      return status;
    }
    DataBlock copy = block;
    if (payload != nullptr) std::memcpy(copy.payload, payload, bf::kPayloadSize);
    cipher->Encrypt(copy.payload, static_cast<unsigned>(CipherLength(copy.usedLength)));
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
    core.status = ZoStreamE::StatusFailed;
    return core.status;
  }
  core.blocksWritten = true;
  // A legitimate write targets a block of the file or one the map handed
  // out; any other number came from a damaged head.
  const std::uint32_t n = w.number;
  const std::int64_t limit = std::max<std::int64_t>(core.blockMap.highest(), core.BlockCount());
  if (n == 0 || static_cast<std::int64_t>(n) > limit) {
    core.status = ZoStreamE::StatusFailed;
    return core.status;
  }
  bool ok = true;
  unsigned char skipped[bf::kBlockSize];
  for (std::uint32_t k = core.BlockCount() + 1; k < n && ok; ++k) {
    ok = core.file->WriteBlock(k, SkippedBlockBytes(k, skipped));
  }
  if (!ok) {
    core.status = ZoStreamE::StatusFailed;
    return core.status;
  }
  core.blockMap.SetBlock(static_cast<std::int32_t>(n), w.inUse);
  ok = w.payload == nullptr ? core.file->WriteBlock(n, w.encoded)
                            : core.file->WriteBlockSplit(n, w.encoded, bf::kOffPayload, w.payload);
  core.fileSize = std::max<std::int64_t>(core.fileSize, static_cast<std::int64_t>(n) * bf::kBlockSize);
  if (!ok) core.status = ZoStreamE::StatusFailed;
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
  const Status result = WriteBlockBytes(*this, {block.blockNumber, block.inUse, raw, nullptr});
  if (result == ZoStreamE::StatusOk) DirBlockWritten(block);
  return result;
}

DataBlock* BlockFileCore::AllocDataBlock(DataBlock* reuse, bool clearPayload) {
  DataBlock* block = reuse != nullptr ? reuse : new DataBlock;
  if (clearPayload || reuse == nullptr) {
    bf::InitDataBlock(block);
  } else {
    bf::InitDataHead(block);
  }
  block->blockNumber = static_cast<std::uint32_t>(blockMap.AllocBlock());
  block->inUse = 1;
  const std::uint32_t n = block->blockNumber;
  if (n >= linkSource.size()) linkSource.resize(n + 1);
  linkSource[n] = 0;
  MarkIfDirBlock(n);
  return block;
}

std::uint32_t BlockFileCore::AppendWholeBlocks(DataBlock& current, const unsigned char* payloads,
                                               std::uint32_t count, std::uint32_t* taken) {
  std::uint32_t k = 0;
  while (k < count) {
    const auto n = static_cast<std::uint32_t>(blockMap.AllocBlock());
    if (n >= linkSource.size()) linkSource.resize(n + 1);
    linkSource[n] = current.blockNumber;
    MarkIfDirBlock(n);
    current.nextBlock = n;
    current.usedLength = bf::kPayloadSize;
    const Status result = WriteRawDataBlock(current, payloads + std::size_t{k} * bf::kPayloadSize);
    bf::InitDataHead(&current);
    current.blockNumber = n;
    current.inUse = 1;
    taken[k++] = n;
    if (result != ZoStreamE::StatusOk) break;
  }
  return k;
}

Status BlockFileCore::ReadDirBlock(std::uint32_t n, DirBlock& block, bool* exact) {
  if (status != ZoStreamE::StatusOk) return status;
  std::lock_guard<std::recursive_mutex> hold(readLock);
  unsigned char raw[bf::kBlockSize];
  if (!ReadBlockBytes(n, raw)) return status;
  if (!bf::DecodeDirBlock(raw, &block) || block.blockNumber != n) {
    status = ZoStreamE::StatusFailed;
    return status;
  }
  if (exact != nullptr) {
    unsigned char encoded[bf::kBlockSize];
    bf::EncodeDirBlock(block, encoded);
    *exact = std::memcmp(encoded, raw, bf::kBlockSize) == 0;
  }
  return status;
}

DirBlock* BlockFileCore::LoadDirBlock(std::uint32_t n, bool* exact) {
  DirBlock* block = new DirBlock;
  bf::InitDirBlock(block);
  if (ReadDirBlock(n, *block, exact) != ZoStreamE::StatusOk) {
    delete block;
    return nullptr;
  }
  return block;
}

DirBlock* BlockFileCore::AllocDirBlock() {
  DirBlock* block = new DirBlock;
  bf::InitDirBlock(block);
  block->blockNumber = static_cast<std::uint32_t>(blockMap.AllocBlock());
  block->inUse = 1;
  return block;
}

void BlockFileCore::NoteLink(std::uint32_t from, std::uint32_t to) {
  if (to < linkSource.size()) linkSource[to] = from;
}

bool BlockFileCore::LinkIsSound(std::uint32_t from, std::uint32_t to) const {
  if (readOnly) return true;  // no map to ask, and the file cannot change
  if (to < linkSource.size() && linkSource[to] != kNotAllocated) return linkSource[to] == from;
  // A data chain never runs through the directory.
  if (to < isDirBlock.size() && isDirBlock[to]) return false;
  // Beyond the end, the read itself reports StatusPastEnd.
  if (to > BlockCount()) return true;
  return blockMap.Get(static_cast<std::int32_t>(to)) != 0;
}
