// What a BlockFileCore does so that a session that ends without closing
// (killed, or failed on a full disk) cannot cost streams saved before it:
// the mark of an unfinished session, and the repair that an open for
// writing makes of a file such a session left.
//
// The saved block map is trusted at an open for writing when its digest
// matches the directory. A session that writes blocks but dies before the
// directory reaches the file leaves that digest matching, while its blocks
// (new chains, chains it lengthened or freed) disagree with the map. So
// before such a session's first block write reaches the file, the first
// directory block goes out with a mark in its reserved bytes: the digest,
// which covers them, no longer matches, and the next open scans the heads
// and repairs. The mark is taken away at every point where the directory
// is written, so that the file's bytes there are what they would be
// without it.
#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "blockstore/BlockFileCore.h"

namespace bf = blockformat;

namespace {

std::uint64_t HashBlock(const unsigned char* raw) {
  std::uint64_t h = 14695981039346656037ull;
  for (std::size_t i = 0; i < bf::kBlockSize; ++i) {
    h ^= raw[i];
    h *= 1099511628211ull;
  }
  return h;
}

}  // namespace

bool BlockFileCore::ListMatchesDirectory() {
  std::uint32_t cursor = ~0u;
  DirEntry* entry = nullptr;
  while ((entry = NextDirEntry(cursor)) != nullptr) {
    if (std::strcmp(entry->name, bf::kFreeListName) == 0) break;
  }
  if (entry == nullptr || entry->firstBlock == 0 || entry->firstBlock > BlockCount()) return false;
  unsigned char raw[bf::kBlockSize];
  {
    std::lock_guard<std::recursive_mutex> hold(readLock);
    if (!file->ReadBlock(entry->firstBlock, raw)) return false;
  }
  // The list's payloads are never enciphered, so this needs no password.
  unsigned char saved[bf::kDigestSize];
  std::uint32_t h = 0;
  bf::DecodeFreeListHead(raw + bf::kOffPayload, saved, &h);
  ComputeDirectoryDigest(openDigest);  // ReadFreeList takes it from here
  haveOpenDigest = true;
  return std::memcmp(saved, openDigest, bf::kDigestSize) == 0;
}

void BlockFileCore::StartSession(bool cleanEnd) {
  cleanAtOpen = cleanEnd;
  markOnDisk = false;
  dirOpenCount = static_cast<std::uint32_t>(dirBlocks.size());
  dirOpenHash.assign(dirBlocks.size(), 0);
  dirHashState.assign(dirBlocks.size(), kHashUnknown);
  dirDiffering = 0;
  if (cleanEnd && !dirBlocks.empty()) {
    // Block 1 is the one the mark goes to: its bytes at open are taken now,
    // from the file, before anything is written.
    unsigned char raw[bf::kBlockSize];
    std::lock_guard<std::recursive_mutex> hold(readLock);
    if (file->ReadBlock(1, raw)) {
      dirOpenHash[0] = HashBlock(raw);
      dirHashState[0] = kHashSame;
    } else {
      Fail();
    }
  }
}

void BlockFileCore::ArmMark() {
  if (!MayTrustSavedList() || markOnDisk || writingMark || dirBlocks.empty()) return;
  writingMark = true;
  // Block 1 as the file holds it now (the record may be ahead of it), with
  // the mark.
  unsigned char raw[bf::kBlockSize];
  bool read = false;
  {
    std::lock_guard<std::recursive_mutex> hold(readLock);
    read = ReadBlockBytes(1, raw);
  }
  if (!read) {  // the file fails reads: the status says so
    writingMark = false;
    return;
  }
  std::memcpy(raw + bf::kOffReserved, bf::kUnfinishedMark, bf::kUnfinishedMarkSize);
  // On the disk before any write of the session that it covers.
  if (WriteRawBlock(1, dirBlocks[0]->inUse, raw) == ZoStreamE::StatusOk && FlushFile()) {
    markOnDisk = true;
    MarkDirBlockChanged(0);  // the file no longer holds the record's bytes
  }
  writingMark = false;
}

void BlockFileCore::ClearMark() {
  if (!markOnDisk || status != ZoStreamE::StatusOk) return;
  // Everything the mark covers goes first, then block 1 as the record has it.
  if (!FlushFile()) return;
  WriteDirBlock(*dirBlocks[0]);
}

void BlockFileCore::BeforeDirBlockWrite(std::uint32_t index) {
  if (!cleanAtOpen || index >= dirOpenCount || dirHashState[index] != kHashUnknown) return;
  // Until its first write in this session the file holds the block as it
  // was at open.
  unsigned char raw[bf::kBlockSize];
  std::lock_guard<std::recursive_mutex> hold(readLock);
  if (!ReadBlockBytes(dirBlocks[index]->blockNumber, raw)) return;  // the status says so
  dirOpenHash[index] = HashBlock(raw);
  dirHashState[index] = kHashSame;
}

void BlockFileCore::AfterDirBlockWrite(std::uint32_t index, const unsigned char* raw) {
  if (index == 0) markOnDisk = false;  // the record never holds the mark
  if (!cleanAtOpen) return;
  if (index >= dirHashState.size()) {
    dirHashState.resize(index + 1, kHashUnknown);
    dirOpenHash.resize(index + 1, 0);
  }
  // A block of the open directory whose bytes at open are unknown counts
  // as the same: the mark then goes on being set, which is always safe.
  const bool differs = index >= dirOpenCount ||
                       (dirHashState[index] != kHashUnknown && HashBlock(raw) != dirOpenHash[index]);
  const bool was = dirHashState[index] == kHashDiffers;
  if (differs && !was) ++dirDiffering;
  if (!differs && was) --dirDiffering;
  if (dirHashState[index] != kHashUnknown || index >= dirOpenCount) {
    dirHashState[index] = differs ? kHashDiffers : kHashSame;
  }
}

// The repair, after a scan of the heads (which recorded every block's
// link). Each chain keeps the blocks its size needs, first come first
// served in directory order; then the blocks beyond its size, as far as
// they are nobody else's. A chain is cut where it goes wrong (a link past
// the end, into the directory, to a block already taken, or, beyond its
// size, to a block its head calls free), its size cut to what it keeps; a
// stream whose first block is wrong is dropped, and so is the second entry
// of a name. A block a chain keeps whose head calls it free (freed by a run
// whose directory never reached the file) is marked used again; a block
// whose head says used but that no chain keeps is freed. Returns true when
// anything changed.
bool BlockFileCore::RepairChains() {
  const std::uint32_t count = BlockCount();
  if (scannedLinks.size() != static_cast<std::size_t>(count) + 1) return false;
  constexpr std::uint32_t kNone = 0, kDirectory = ~0u;
  std::vector<std::uint32_t> owner(static_cast<std::size_t>(count) + 1, kNone);
  for (const std::uint32_t at : dirBlockNumberAt) {
    if (at <= count) owner[at] = kDirectory;
  }
  std::vector<std::uint32_t> restore, cut;
  bool changed = false;
  const std::uint32_t slots = static_cast<std::uint32_t>(dirBlocks.size()) * bf::kEntriesPerBlock;
  // One stream a name: a replaced stream whose new entry reached the file
  // in one directory block while its old one was still in use in another
  // stands twice. The first in directory order (what a look-up finds) is
  // kept; its blocks were not handed out before the directory that drops
  // it was written.
  std::set<std::string> names;
  for (std::uint32_t slot = 0; slot < slots; ++slot) {
    DirEntry* entry = EntryAt(slot);
    if (entry->firstBlock == 0) continue;
    std::string folded(entry->name, strnlen(entry->name, DirEntry::kNameSize));
    for (char& c : folded) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');  // as the directory compares
    }
    if (names.insert(std::move(folded)).second) continue;
    MarkEntryFree(entry);
    entry->firstBlock = 0;
    entry->size = 0;
    changed = true;
  }
  std::vector<std::uint32_t> lastKept(slots, 0);  // the last block a chain keeps
  auto usedInHead = [&](std::uint32_t n) { return blockMap.Get(static_cast<std::int32_t>(n)) != 0; };

  // Blocks the sizes need.
  for (std::uint32_t slot = 0; slot < slots; ++slot) {
    DirEntry* entry = EntryAt(slot);
    if (entry->firstBlock == 0) continue;
    const std::uint64_t needed = entry->size / bf::kPayloadSize + 1;
    std::uint32_t b = entry->firstBlock;
    std::uint64_t kept = 0;
    while (kept < needed && b != 0 && b <= count && owner[b] == kNone) {
      owner[b] = slot + 1;
      if (!usedInHead(b)) restore.push_back(b);
      lastKept[slot] = b;
      ++kept;
      if (kept < needed) b = scannedLinks[b];
    }
    if (kept == needed) continue;
    changed = true;
    if (kept == 0) {  // its first block is not its own
      MarkEntryFree(entry);
      entry->firstBlock = 0;
      entry->size = 0;
      continue;
    }
    if (scannedLinks[lastKept[slot]] != 0) cut.push_back(lastKept[slot]);
    entry->size = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(entry->size, kept * bf::kPayloadSize - 1));
    EntryChanged(entry);
    lastKept[slot] = 0;  // cut already: nothing beyond it to walk
  }
  // Blocks beyond the sizes, as far as they are free to take.
  for (std::uint32_t slot = 0; slot < slots; ++slot) {
    if (lastKept[slot] == 0 || EntryAt(slot)->firstBlock == 0) continue;
    std::uint32_t b = lastKept[slot];
    for (std::uint32_t n = scannedLinks[b]; n != 0; b = n, n = scannedLinks[n]) {
      if (n > count || owner[n] != kNone || !usedInHead(n)) {
        cut.push_back(b);
        changed = true;
        break;
      }
      owner[n] = slot + 1;
    }
  }
  std::vector<std::uint32_t> unreached;
  for (std::uint32_t n = 1; n <= count; ++n) {
    if (owner[n] == kNone && usedInHead(n)) unreached.push_back(n);
  }
  changed = changed || !restore.empty() || !unreached.empty();
  if (!changed) return false;

  // Blocks kept are marked used, and chains cut, before the directory that
  // names them changes; blocks nobody keeps go free last.
  auto rewriteHead = [&](std::uint32_t n, int inUse, bool endChain) {
    unsigned char raw[bf::kBlockSize];
    {
      std::lock_guard<std::recursive_mutex> hold(readLock);
      if (!ReadBlockBytes(n, raw)) return;
    }
    bf::BlockHead head;
    bf::DecodeHead(raw, &head);
    if (inUse >= 0) head.inUse = static_cast<std::uint8_t>(inUse);
    if (endChain) head.nextBlock = 0;
    bf::EncodeHead(head, raw);
    WriteRawBlock(n, head.inUse, raw);
  };
  for (std::uint32_t n : restore) rewriteHead(n, 1, false);
  for (std::uint32_t n : cut) rewriteHead(n, -1, true);
  directoryDirty = true;
  WriteChangedDirBlocks();
  for (std::uint32_t n : unreached) rewriteHead(n, 0, false);
  FlushFile();
  return true;
}

bool BlockFileCore::HasMark() const {
  return !dirBlocks.empty() && bf::HasUnfinishedMark(*dirBlocks[0]);
}

// The bytes the mark covered were zero in every file this library wrote.
void BlockFileCore::DropMark() {
  if (!HasMark()) return;
  std::memset(dirBlocks[0]->reserved, 0, bf::kUnfinishedMarkSize);
  MarkDirBlockChanged(0);
  directoryDirty = true;
}

void BlockFileCore::NoteFreed(std::uint32_t n) {
  if (n >= freedSinceDirWrite.size()) freedSinceDirWrite.resize(static_cast<std::size_t>(n) + 1, false);
  if (freedSinceDirWrite[n]) return;
  freedSinceDirWrite[n] = true;
  freedSince.push_back(n);
}

void BlockFileCore::DirectoryReachedFile() {
  for (std::uint32_t n : freedSince) freedSinceDirWrite[n] = false;
  freedSince.clear();
}

// A block freed since the directory was last written may still be named
// by the directory in the file: a session that ended before writing it
// again would leave that stream naming blocks another now holds. So before
// such a block is handed out, the directory that drops it goes to the disk.
void BlockFileCore::BeforeHandingOut(std::uint32_t n) {
  if (freedSince.empty() || n >= freedSinceDirWrite.size() || !freedSinceDirWrite[n]) return;
  WriteChangedDirBlocks();
  if (status == ZoStreamE::StatusOk) FlushFile();
}

