// The directory of a BlockFileCore: look-up, new entries, release of
// chains, and writing the directory back.
#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>

#include "blockstore/BlockFileCore.h"
#include "utility/Time.h"

namespace bf = blockformat;

namespace {
constexpr std::uint32_t kPerBlock = bf::kEntriesPerBlock;

bool NameFits(const char* name) {
  return name != nullptr && strnlen(name, bf::kMaxNameLength + 1) <= bf::kMaxNameLength;
}
}  // namespace

DirEntry* BlockFileCore::EntryAt(std::uint32_t slot) const {
  return &dirBlocks[slot / kPerBlock]->entries[slot % kPerBlock];
}

std::uint32_t BlockFileCore::SlotOf(const DirEntry* entry) const {
  if (entry == lastSlotEntry && entry != nullptr) return lastSlot;  // a new stream asks twice
  const auto at = reinterpret_cast<std::uintptr_t>(entry);
  auto it = blockByEntries.upper_bound(at);
  if (it == blockByEntries.begin()) return ~0u;
  --it;
  const std::uintptr_t offset = at - it->first;
  if (offset % sizeof(DirEntry) != 0 || offset / sizeof(DirEntry) >= kPerBlock) return ~0u;
  lastSlotEntry = entry;
  lastSlot = it->second * kPerBlock + static_cast<std::uint32_t>(offset / sizeof(DirEntry));
  return lastSlot;
}

void BlockFileCore::AppendDirBlock(boost::shared_ptr<DirBlock> block, bool matchesFile, std::uint32_t readFrom) {
  directoryDirty = true;
  const std::uint32_t number = readFrom != 0 ? readFrom : block->blockNumber;
  dirBlocks.push_back(std::move(block));
  IndexBlock(static_cast<std::uint32_t>(dirBlocks.size() - 1), matchesFile, number);
}

// Registers a block just appended to dirBlocks with every piece of
// bookkeeping, under the number of the place it lies (a head read from the
// file is not trusted for that). It counts as changed unless the file
// holds exactly its bytes.
void BlockFileCore::IndexBlock(std::uint32_t blockIndex, bool matchesFile, std::uint32_t number) {
  DirBlock& block = *dirBlocks[blockIndex];
  index.AddBlock();
  dirBlockChanged.push_back(false);
  if (number >= dirIndexByNumber.size()) dirIndexByNumber.resize(static_cast<std::size_t>(number) + 1);
  dirIndexByNumber[number] = blockIndex;
  dirBlockNumberAt.push_back(number);
  // Grown by at least the file's block count, so that loading a long chain
  // resizes it a few times, not at every block.
  if (number >= isDirBlock.size()) {
    isDirBlock.resize(std::max<std::size_t>({number + std::size_t{1}, 2 * isDirBlock.size(), BlockCount() + std::size_t{1}}),
                      false);
  }
  isDirBlock[number] = true;
  // An entry's slot is asked for only where entries change (a file open
  // for writing, or a read-only one whose open mends entries).
  if (indexSlots) blockByEntries[reinterpret_cast<std::uintptr_t>(&block.entries[0])] = blockIndex;
  for (std::uint32_t e = 0; e < kPerBlock; ++e) {
    const std::uint32_t slot = blockIndex * kPerBlock + e;
    if (block.entries[e].firstBlock != 0) index.EntryUsed(slot, block.entries[e].name);
  }
  if (!matchesFile) MarkDirBlockChanged(blockIndex);
}

void BlockFileCore::MarkDirBlockChanged(std::uint32_t blockIndex) {
  if (dirBlockChanged[blockIndex]) return;
  dirBlockChanged[blockIndex] = true;
  changedDirBlocks.push_back(blockIndex);
}

void BlockFileCore::MarkDirBlockNumberChanged(std::uint32_t blockNumber) {
  const std::uint32_t index = DirIndexOf(blockNumber);
  if (index != kNoDirBlock) MarkDirBlockChanged(index);
}

void BlockFileCore::EntryChanged(const DirEntry* entry) {
  const std::uint32_t slot = SlotOf(entry);
  if (slot != ~0u) MarkDirBlockChanged(slot / kPerBlock);
}

// A directory block is in use whatever its head or a saved map says: were
// the map to call it free, its number would be handed out to a stream and
// the directory overwritten. A block whose head or map byte says otherwise
// is set right in memory and counts as changed, so the next directory
// write repairs the file too.
//
// A directory block's head is not compared at reading, and its number and
// signature enter the directory digest as read; so a torn head fails the
// scan that a mismatched digest brings. Where the saved map is taken all
// the same, the head is set right here: a directory write goes to the
// number its record names.
void BlockFileCore::CheckDirBlocksAgainstMap() {
  for (std::uint32_t i = 0; i < dirBlocks.size(); ++i) {
    DirBlock& block = *dirBlocks[i];
    const std::uint32_t at = dirBlockNumberAt[i];
    if (block.blockNumber == at && bf::HasSignature(block)) continue;
    RepairHeadForWriting(at, &block);
    MarkDirBlockChanged(i);
    directoryDirty = true;
  }
  for (std::uint32_t i = 0; i < dirBlocks.size(); ++i) {
    DirBlock& block = *dirBlocks[i];
    const auto n = static_cast<std::int32_t>(block.blockNumber);
    if (block.inUse != 1 || n > blockMap.highest() || blockMap.Get(n) != 1) {
      block.inUse = 1;
      blockMap.SetBlock(n, 1);
      MarkDirBlockChanged(i);
      directoryDirty = true;
    }
  }
}

// An entry whose first block is beyond the end of the file or free in the
// map names blocks that this session may hand out to another stream; its
// stream was lost (a cut file) or released by a run that did not finish. An
// entry whose first block is a directory block, or the first block of an
// earlier entry, would have a deletion free blocks that are not its own.
// Such entries are freed as a deletion would, and the change reaches the
// file with the next directory write.
void BlockFileCore::DropDanglingEntries() {
  std::vector<bool> isFirstBlock(static_cast<std::size_t>(BlockCount()) + 1, false);
  for (const auto& block : dirBlocks) {
    for (DirEntry& entry : block->entries) {
      const std::uint32_t first = entry.firstBlock;
      if (first == 0) continue;
      const bool owned = first <= BlockCount() &&
                         blockMap.Get(static_cast<std::int32_t>(first)) != 0 &&
                         !(first < isDirBlock.size() && isDirBlock[first]) && !isFirstBlock[first];
      if (owned) isFirstBlock[first] = true;
      if (owned) continue;
      MarkEntryFree(&entry);
      entry.firstBlock = 0;
      entry.size = 0;
      directoryDirty = true;
    }
  }
}

void BlockFileCore::MarkEntryUsed(DirEntry* entry) {
  const std::uint32_t slot = SlotOf(entry);
  index.EntryUsed(slot, entry->name);
  MarkDirBlockChanged(slot / kPerBlock);
}

void BlockFileCore::MarkEntryFree(DirEntry* entry) {
  const std::uint32_t slot = SlotOf(entry);
  index.EntryFreed(slot, entry->name);
  MarkDirBlockChanged(slot / kPerBlock);
}

DirEntry* BlockFileCore::FindDirEntry(const char* name) {
  if (!NameFits(name)) return nullptr;
  std::uint32_t slot = 0;
  return index.Find(name, &slot) ? EntryAt(slot) : nullptr;
}

DirEntry* BlockFileCore::AddDirEntry(const char* name, DataBlock** firstOut) {
  if (!NameFits(name) || *name == '\0') return nullptr;
  directoryDirty = true;
  DirEntry* entry = nullptr;
  std::uint32_t blockIndex = 0;
  if (index.LastBlockWithFree(&blockIndex)) {
    for (DirEntry& candidate : dirBlocks[blockIndex]->entries) {
      if (candidate.firstBlock == 0) {
        entry = &candidate;
        break;
      }
    }
  }
  if (entry == nullptr) {  // no block has a free entry: the directory grows
    const boost::shared_ptr<DirBlock> block = AllocDirBlock();
    if (!dirBlocks.empty()) {
      dirBlocks.back()->nextBlock = block->blockNumber;
      MarkDirBlockChanged(static_cast<std::uint32_t>(dirBlocks.size() - 1));
    }
    AppendDirBlock(block);
    entry = &block->entries[0];
  }
  // The name is copied with its zero only: the bytes behind it keep
  // whatever an older, longer name left there.
  std::memcpy(entry->name, name, std::strlen(name) + 1);
  entry->size = 0;  // a free entry has size 0; a damaged one may not
  ZoCurrentTimeText(entry->created);
  std::memcpy(entry->modified, entry->created, DirEntry::kTimeSize);
  std::unique_ptr<DataBlock> first(AllocDataBlock(nullptr));
  entry->firstBlock = first->blockNumber;
  MarkEntryUsed(entry);
  if (WriteDataBlock(*first) != ZoStreamE::StatusOk) return nullptr;
  if (firstOut != nullptr) *firstOut = first.release();  // what the file now holds
  return entry;
}

bool BlockFileCore::FreeChain(DirEntry* entry) {
  if (readOnly) return false;
  std::unique_ptr<DataBlock> block(LoadDataBlock(entry->firstBlock));
  if (!block) return false;
  const std::uint32_t limit = BlockCount();
  for (std::uint32_t walked = 1;; ++walked) {
    block->inUse = 0;
    if (WriteDataBlock(*block) != ZoStreamE::StatusOk) return false;
    NoteFreed(block->blockNumber);
    if (block->nextBlock == 0 || !LinkIsSound(block->blockNumber, block->nextBlock)) break;
    if (walked >= limit) {  // longer than the file: the chain loops
      Fail();
      return false;
    }
    ReadDataBlock(block->nextBlock, *block);
  }
  MarkEntryFree(entry);
  entry->firstBlock = 0;
  entry->size = 0;
  directoryDirty = true;
  return true;
}

void BlockFileCore::WriteChangedDirBlocks() {
  if (status != ZoStreamE::StatusOk || dirBlocks.empty()) return;
  // Rewriting the whole directory would count as written blocks; so does
  // writing only the changed ones.
  blocksWritten = true;
  // The list goes back empty with its room, so that the next flush does
  // not allocate it again.
  std::vector<std::uint32_t> todo(std::move(spareDirBlockList));
  todo.clear();
  todo.swap(changedDirBlocks);
  // Last in the chain first: a new directory block reaches the file before
  // the block whose link names it, so that a write that fails (a full disk)
  // never leaves a link to a block that is not there.
  std::sort(todo.begin(), todo.end(), std::greater<std::uint32_t>());
  for (std::uint32_t i : todo) {
    if (dirBlockChanged[i] && status == ZoStreamE::StatusOk) WriteDirBlock(*dirBlocks[i]);
  }
  for (std::uint32_t i : todo) dirBlockChanged[i] = false;
  todo.clear();
  spareDirBlockList = std::move(todo);
  ClearMark();
  if (status == ZoStreamE::StatusOk) DirectoryReachedFile();
}

void BlockFileCore::FlushDirectory(bool force) {
  if (readOnly) return;
  if (!directoryDirty && !force) return;
  if (batchDepth > 0) {  // the flush point waits for the end of the batch
    batchFlushDue = true;
    return;
  }
  WriteChangedDirBlocks();
  directoryDirty = false;
  if (status == ZoStreamE::StatusOk) FlushFile();
}

ZoStreamE::Status BlockFileCore::BeginBatch() {
  if (readOnly) return ZoStreamE::StatusFailed;  // refused; the status stays
  if (status != ZoStreamE::StatusOk) return status;
  ++batchDepth;
  return status;
}

ZoStreamE::Status BlockFileCore::EndBatch() {
  if (batchDepth == 0) return ZoStreamE::StatusFailed;  // no batch to end; the status stays
  if (--batchDepth == 0) FinishBatch();
  return status;
}

// The last of the flush points the batch deferred: every change since its
// start goes to the file as that flush point would have written it (the
// changed directory blocks; nothing else is pending).
void BlockFileCore::FinishBatch() {
  batchDepth = 0;
  if (!batchFlushDue) return;
  batchFlushDue = false;
  FlushDirectory(true);
}

DirEntry* BlockFileCore::NextDirEntry(std::uint32_t& cursor) {
  ++cursor;
  const std::uint64_t slots = static_cast<std::uint64_t>(dirBlocks.size()) * kPerBlock;
  for (std::uint64_t slot = cursor; slot < slots; ++slot) {
    DirEntry* entry = EntryAt(static_cast<std::uint32_t>(slot));
    if (entry->firstBlock != 0) {
      cursor = static_cast<std::uint32_t>(slot);
      return entry;
    }
  }
  return nullptr;
}

// A directory block that reached the file (or its queue) now matches it,
// and the block map holds its inUse byte.
void BlockFileCore::DirBlockWritten(const DirBlock& block) {
  const std::uint32_t index = DirIndexOf(block.blockNumber);
  if (index != kNoDirBlock && dirBlocks[index].get() == &block) dirBlockChanged[index] = false;
}
