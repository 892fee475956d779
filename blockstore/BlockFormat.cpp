#include "blockstore/BlockFormat.h"

#include <cstring>

#include "utility/Copy.h"
#include "utility/Endian.h"

namespace blockformat {

const char kSignature[kSignatureSize] = "BlockFile";
const char kFileSignature[kFileSignatureSize] = "ZoCompoundFile";
const unsigned char kUnfinishedMark[kUnfinishedMarkSize] = {'t', 'z', 'o', 'p', 'e', 'n', 0x5a, 0xa5};

bool HasUnfinishedMark(const DirBlock& block) {
  return std::memcmp(block.reserved, kUnfinishedMark, kUnfinishedMarkSize) == 0;
}

namespace {

void CopyText(char* dst, const unsigned char* src, std::uint32_t width) {
  std::memcpy(dst, src, width);
  dst[width - 1] = '\0';
}

}  // namespace

void InitDataBlock(DataBlock* block) {
  tz::ZeroBytes(block, sizeof *block);
  std::memcpy(block->signature, kSignature, kSignatureSize);
}

void InitDataHead(DataBlock* block) {
  std::memset(block, 0, kOffPayload);  // a few stores, not a call
  std::memcpy(block->signature, kSignature, kSignatureSize);
}

void InitDirBlock(DirBlock* block) {
  tz::ZeroBytes(block, sizeof *block);
  std::memcpy(block->signature, kSignature, kSignatureSize);
  std::memcpy(block->fileSignature, kFileSignature, kFileSignatureSize);
}

void EncodeHead(const BlockHead& head, unsigned char* out) {
  tz::EncodeFixed32(out + kOffBlockNumber, head.blockNumber);
  out[kOffInUse] = head.inUse;
  std::memcpy(out + kOffSignature, head.signature, kSignatureSize);
  tz::EncodeFixed32(out + kOffNextBlock, head.nextBlock);
}

void DecodeHead(const unsigned char* in, BlockHead* head) {
  head->blockNumber = tz::DecodeFixed32(in + kOffBlockNumber);
  head->inUse = in[kOffInUse];
  std::memcpy(head->signature, in + kOffSignature, kSignatureSize);
  head->nextBlock = tz::DecodeFixed32(in + kOffNextBlock);
}

bool HasSignature(const BlockHead& head) {
  return std::memcmp(head.signature, kSignature, kSignatureSize) == 0;
}

namespace {
constexpr bool kFileLayoutInMemory = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
}  // namespace

void EncodeDataBlock(const DataBlock& block, unsigned char* out) {
  EncodeHead(block, out);
  tz::EncodeFixed16(out + kOffUsedLength, block.usedLength);
  std::memcpy(out + kOffPayload, block.payload, kPayloadSize);
}

void EncodeDataHead(const DataBlock& block, unsigned char* out) {
  EncodeHead(block, out);
  tz::EncodeFixed16(out + kOffUsedLength, block.usedLength);
}

void DecodeDataBlock(const unsigned char* in, DataBlock* block) {
  DecodeHead(in, block);
  block->usedLength = tz::DecodeFixed16(in + kOffUsedLength);
  std::memcpy(block->payload, in + kOffPayload, kPayloadSize);
}

unsigned char* DataBlockTarget(DataBlock* block, unsigned char* scratch) {
  return kFileLayoutInMemory ? reinterpret_cast<unsigned char*>(block) : scratch;
}

void FinishDataBlock(const unsigned char* target, DataBlock* block) {
  if (target != reinterpret_cast<const unsigned char*>(block)) DecodeDataBlock(target, block);
}

void FinishDataHead(const unsigned char* target, DataBlock* block) {
  if (target == reinterpret_cast<const unsigned char*>(block)) return;
  DecodeHead(target, block);
  block->usedLength = tz::DecodeFixed16(target + kOffUsedLength);
}

const unsigned char* DataBlockBytes(const DataBlock& block, unsigned char* scratch) {
  if (kFileLayoutInMemory) return reinterpret_cast<const unsigned char*>(&block);
  EncodeDataBlock(block, scratch);
  return scratch;
}

void EncodeDirEntry(const DirEntry& entry, unsigned char* out) {
  std::memcpy(out + kOffName, entry.name, DirEntry::kNameSize);
  std::memcpy(out + kOffCreated, entry.created, DirEntry::kTimeSize);
  std::memcpy(out + kOffModified, entry.modified, DirEntry::kTimeSize);
  tz::EncodeFixed32(out + kOffFirstBlock, entry.firstBlock);
  tz::EncodeFixed32(out + kOffSize, entry.size);
}

void DecodeDirEntry(const unsigned char* in, DirEntry* entry) {
  CopyText(entry->name, in + kOffName, DirEntry::kNameSize);
  CopyText(entry->created, in + kOffCreated, DirEntry::kTimeSize);
  CopyText(entry->modified, in + kOffModified, DirEntry::kTimeSize);
  entry->firstBlock = tz::DecodeFixed32(in + kOffFirstBlock);
  entry->size = tz::DecodeFixed32(in + kOffSize);
}

void EncodeDirBlock(const DirBlock& block, unsigned char* out) {
  EncodeHead(block, out);
  for (std::uint32_t i = 0; i < kEntriesPerBlock; ++i) {
    EncodeDirEntry(block.entries[i], out + kOffEntries + std::size_t{i} * kEntrySize);
  }
  std::memcpy(out + kOffFileSignature, block.fileSignature, kFileSignatureSize);
  std::memcpy(out + kOffReserved, block.reserved, kReservedSize);
  std::memcpy(out + kOffPasswordDigest, block.passwordDigest, kDigestSize);
  tz::EncodeFixed16(out + kOffFlags, block.flags);
}

bool DecodeDirBlock(const unsigned char* in, DirBlock* block) {
  DecodeHead(in, block);
  for (std::uint32_t i = 0; i < kEntriesPerBlock; ++i) {
    DecodeDirEntry(in + kOffEntries + std::size_t{i} * kEntrySize, &block->entries[i]);
  }
  std::memcpy(block->fileSignature, in + kOffFileSignature, kFileSignatureSize);
  if (std::memcmp(block->fileSignature, kFileSignature, kFileSignatureSize) != 0) {
    return false;
  }
  std::memcpy(block->reserved, in + kOffReserved, kReservedSize);
  std::memcpy(block->passwordDigest, in + kOffPasswordDigest, kDigestSize);
  block->flags = tz::DecodeFixed16(in + kOffFlags);
  return true;
}

void EncodeFreeListHead(const unsigned char digest[kDigestSize], std::uint32_t highest,
                        unsigned char* payload) {
  std::memcpy(payload + kOffListDigest, digest, kDigestSize);
  tz::EncodeFixed32(payload + kOffListHighest, highest);
}

void DecodeFreeListHead(const unsigned char* payload, unsigned char digest[kDigestSize],
                        std::uint32_t* highest) {
  std::memcpy(digest, payload + kOffListDigest, kDigestSize);
  *highest = tz::DecodeFixed32(payload + kOffListHighest);
}

void EncodeSkippedBlock(std::uint32_t n, unsigned char* out) {
  std::memset(out, 0, kBlockSize);
  BlockHead head{};
  head.blockNumber = n;
  std::memcpy(head.signature, kSignature, kSignatureSize);
  EncodeHead(head, out);
}

std::uint32_t FieldLength(const char* text, std::uint32_t width) {
  const void* zero = std::memchr(text, 0, width);
  return zero == nullptr ? width
                         : static_cast<std::uint32_t>(static_cast<const char*>(zero) - text);
}

}  // namespace blockformat
