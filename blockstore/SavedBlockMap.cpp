// The saved block map: the free-list stream written at close and read at
// an open for writing, tied to the directory by a digest.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "blockstore/BlockFileCore.h"
#include "blockstore/DirectoryDigest.h"
#include "utility/Endian.h"
#include "utility/MD5.h"

namespace bf = blockformat;


namespace {

// Bytes of the map held by the chain's k-th block (from 0).
std::uint32_t MapRoom(std::size_t k) {
  return k == 0 ? bf::kListMapRoomFirst : bf::kPayloadSize;
}

std::uint32_t MapOffset(std::size_t k) { return k == 0 ? bf::kOffListMap : 0; }

}  // namespace

void BlockFileCore::ComputeDirectoryDigest(unsigned char out[bf::kDigestSize]) const {
  MD5 md5;
  for (const auto& block : dirBlocks) bf::FeedDirectoryDigest(md5, *block);
  md5.Finalize();
  std::memcpy(out, md5.GetRawDigest(), bf::kDigestSize);
}

bool BlockFileCore::ReadFreeList() {
  std::uint32_t cursor = ~0u;
  DirEntry* entry = nullptr;
  while ((entry = NextDirEntry(cursor)) != nullptr) {
    if (std::strcmp(entry->name, bf::kFreeListName) == 0) break;
  }
  if (entry == nullptr) return false;
  DataBlock block;
  if (ReadDataBlock(entry->firstBlock, block) != ZoStreamE::StatusOk) return false;
  unsigned char digest[bf::kDigestSize], saved[bf::kDigestSize];
  std::uint32_t h = 0;
  bf::DecodeFreeListHead(block.payload, saved, &h);
  if (haveOpenDigest) {
    std::memcpy(digest, openDigest, bf::kDigestSize);
  } else {
    ComputeDirectoryDigest(digest);
  }
  if (std::memcmp(saved, digest, bf::kDigestSize) != 0) return false;
  // A writer's H never exceeds the blocks of the file it closed; anything
  // larger is damage, and no table is sized by it.
  if (h > BlockCount()) return false;
  std::unique_ptr<std::uint8_t[]> table(new std::uint8_t[static_cast<std::size_t>(h) + 1]);
  std::uint32_t remaining = h + 1;
  std::uint32_t done = 0;
  for (std::size_t k = 0; remaining != 0; ++k) {
    if (k != 0) {
      if (ReadDataBlock(block.nextBlock, block) != ZoStreamE::StatusOk) return false;
    }
    const std::uint32_t chunk = std::min(remaining, MapRoom(k));
    std::memcpy(table.get() + done, block.payload + MapOffset(k), chunk);
    done += chunk;
    remaining -= chunk;
  }
  // The close that wrote the map held every directory block and every
  // entry's first block in use. A map that calls one of them free did not
  // come from that close, whatever its digest says; taking it would drop
  // those entries or hand their blocks out again, so the heads are scanned
  // instead.
  auto free = [&](std::uint32_t n) { return n > h || table[n] == 0; };
  for (const auto& dir : dirBlocks) {
    if (free(dir->blockNumber)) return false;
    for (const DirEntry& e : dir->entries) {
      if (e.firstBlock != 0 && free(e.firstBlock)) return false;
    }
  }
  blockMap.AdoptTable(std::move(table), static_cast<std::int32_t>(h));
  return true;
}

void BlockFileCore::WriteFreeList() {
  DirEntry* entry = FindDirEntry(bf::kFreeListName);
  if (entry != nullptr) {
    FreeChain(entry);
  } else {
    entry = AddDirEntry(bf::kFreeListName);
  }
  if (status != ZoStreamE::StatusOk || entry == nullptr) return;
  // The name in its own case (the look-up ignores case); a constant far
  // shorter than the name field.
  std::memcpy(entry->name, bf::kFreeListName, std::strlen(bf::kFreeListName) + 1);

  std::vector<std::unique_ptr<DataBlock>> chain;
  if (entry->firstBlock != 0) {
    chain.emplace_back(LoadDataBlock(entry->firstBlock));
    if (!chain.back()) return;
  } else {
    chain.emplace_back(AllocDataBlock(nullptr));
    entry->firstBlock = chain.back()->blockNumber;
    MarkEntryUsed(entry);
  }
  while (static_cast<std::int64_t>(blockMap.highest()) + bf::kListSizeOverHighest >=
         static_cast<std::int64_t>(chain.size()) * bf::kPayloadSize) {
    chain.emplace_back(AllocDataBlock(nullptr));
    chain[chain.size() - 2]->nextBlock = chain.back()->blockNumber;
    NoteLink(chain[chain.size() - 2]->blockNumber, chain.back()->blockNumber);
  }
  if (status != ZoStreamE::StatusOk) return;

  const auto h = static_cast<std::uint32_t>(blockMap.highest());
  entry->size = h + bf::kListSizeOverHighest;
  EntryChanged(entry);
  unsigned char digest[bf::kDigestSize];
  ComputeDirectoryDigest(digest);
  bf::EncodeFreeListHead(digest, h, chain[0]->payload);
  std::uint32_t remaining = h + 1;
  const std::uint8_t* source = blockMap.table();
  for (std::size_t k = 0; k < chain.size() && remaining != 0; ++k) {
    const std::uint32_t chunk = std::min(remaining, MapRoom(k));
    std::memcpy(chain[k]->payload + MapOffset(k), source, chunk);
    source += chunk;
    remaining -= chunk;
  }
  for (const auto& block : chain) WriteDataBlock(*block);

  const std::uint32_t blockIndex = SlotOf(entry) / bf::kEntriesPerBlock;
  WriteDirBlock(*dirBlocks[blockIndex]);
  if (blockIndex > 0) WriteDirBlock(*dirBlocks[blockIndex - 1]);
}
