// Which links read from the file a BlockFileCore open for writing follows
// (invariant 6 of BlockFileCore.h), and the census of the file's links
// that decides for the blocks a chain holds beyond its size.
//
// A session that opened with the saved map trusted never looked at the
// chains: the map's digest ties it to the directory, not to the links. Up
// to a stream's size a chain is what its reads return, and damage there is
// the reader's to report. Beyond the size a chain holds blocks no read
// reaches (left by a seek past the end), so damage there shows only when a
// writer steps on: a link into another stream's chain would have the
// writer overwrite that stream, and a loop would walk until the walk's
// bound failed the file. The census counts, once a session and only when a
// writer first follows such a link, what links to each block: a block that
// an entry or a block in use names once is one chain's; named twice, it is
// shared or a loop, and the writer ends its chain before it as at any
// unsound link. In a sound file every block is named once, so the census
// changes no step there.
#include <cstring>
#include <memory>

#include "blockstore/BlockFileCore.h"

namespace bf = blockformat;

bool BlockFileCore::LinkIsSound(std::uint32_t from, std::uint32_t to) const {
  if (readOnly) return true;  // no map to ask, and the file cannot change
  if (to < linkSource.size() && linkSource[to] != kNotAllocated) return linkSource[to] == from;
  // A data chain never runs through the directory.
  if (to < isDirBlock.size() && isDirBlock[to]) return false;
  // Beyond the end, the read itself reports StatusPastEnd.
  if (to > BlockCount()) return true;
  return blockMap.Get(static_cast<std::int32_t>(to)) != 0;
}

bool BlockFileCore::TailLinkIsSound(std::uint32_t from, std::uint32_t to) {
  if (!LinkIsSound(from, to)) return false;
  // A repairing open made every chain sound, and this session's own links
  // are in linkSource.
  if (readOnly || !savedMapTaken || to > BlockCount()) return true;
  if (to < linkSource.size() && linkSource[to] != kNotAllocated) return true;
  if (linkCensus.empty() && !TakeLinkCensus()) return false;
  return to < linkCensus.size() && linkCensus[to] == 1;
}

bool BlockFileCore::TakeLinkCensus() {
  const std::uint32_t count = BlockCount();
  std::vector<std::uint8_t> named(static_cast<std::size_t>(count) + 1, 0);
  auto name = [&](std::uint32_t n) {
    if (n != 0 && n <= count && named[n] < 2) ++named[n];
  };
  const std::uint32_t slots = static_cast<std::uint32_t>(dirBlocks.size()) * bf::kEntriesPerBlock;
  for (std::uint32_t slot = 0; slot < slots; ++slot) name(EntryAt(slot)->firstBlock);
  const bool read = ReadHeadRuns(false, [&](std::uint32_t first, std::uint32_t n, const unsigned char* run) {
    for (std::uint32_t k = 0; k < n; ++k) {
      const std::uint32_t b = first + k;
      if (b < isDirBlock.size() && isDirBlock[b]) continue;
      // A block this session allocated links only to blocks it allocated
      // too, and until a stream writes it the file still holds the head of
      // its earlier life, whose link is stale.
      if (b < linkSource.size() && linkSource[b] != kNotAllocated) continue;
      bf::BlockHead head;
      bf::DecodeHead(run + std::size_t{k} * bf::kBlockSize, &head);
      name(head.nextBlock);
    }
  });
  if (!read) return false;
  linkCensus = std::move(named);
  return true;
}

bool BlockFileCore::ReadHeadRuns(bool full, const RunTaker& take) {
  const std::uint32_t count = BlockCount();
  std::unique_ptr<unsigned char[]> run(new unsigned char[std::size_t{kScanRun} * bf::kBlockSize]);
  auto used = [&](std::uint32_t b) { return full || blockMap.Get(static_cast<std::int32_t>(b)) != 0; };
  for (std::uint32_t first = 1; first <= count;) {
    if (!used(first)) {
      ++first;
      continue;
    }
    std::uint32_t n = 1;
    while (n < kScanRun && first + n <= count && used(first + n)) ++n;
    {
      std::lock_guard<std::recursive_mutex> hold(readLock);
      if (!file->ReadRun(first, n, run.get())) {
        Fail();
        return false;
      }
    }
    take(first, n, run.get());
    first += n;
  }
  return true;
}

bool BlockFileCore::LinksOnInFile(std::uint32_t n) {
  if (readOnly || status != ZoStreamE::StatusOk || n == 0 || n > BlockCount()) return false;
  std::lock_guard<std::recursive_mutex> hold(readLock);
  unsigned char raw[bf::kBlockSize];
  if (!file->ReadBlock(n, raw)) return false;
  bf::BlockHead head;
  bf::DecodeHead(raw, &head);
  return head.nextBlock != 0;
}

bool BlockFileCore::LinkLeavesFile(std::uint32_t to) const {
  return !readOnly && to > BlockCount() && !(to < linkSource.size() && linkSource[to] != kNotAllocated);
}

void BlockFileCore::NoteLink(std::uint32_t from, std::uint32_t to) {
  if (to < linkSource.size()) linkSource[to] = from;
}
