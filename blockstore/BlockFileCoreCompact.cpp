// Compaction in place and scrubbing of a BlockFileCore: the two passes
// that work on blocks nothing holds.
//
// Compaction moves the highest held blocks into the lowest free ones, a
// batch at a time, and then cuts the file behind them. Each batch goes to
// the file in two steps, each ended by a flush, and the cut comes after the
// last, so that a run killed at any moment leaves every stream readable:
//   1. copies: each moved block is written to its new place with its new
//      number and, where its successor moves in the same batch, the
//      successor's new number. Nothing names the copies yet.
//   2. links: the holders of the moved blocks (entries, directory blocks,
//      data blocks that stay) are rewritten to name the copies. A holder
//      names the old block or its copy, and both hold the same bytes.
//   3. the cut, once, when the run ends or stops: nothing names a block
//      above the highest held one any more.
// A run that stops between two steps leaves copies or old blocks that no
// chain holds but whose heads say in use; the next open for writing finds
// the directory out of step with the saved map and frees them, and the
// next compaction or scrub takes them as free.
//
// A moved block's bytes go verbatim: the cipher of a payload does not
// depend on the block's number, so an encrypted file compacts without its
// password. The saved map's own chain is given up before the first batch
// (its blocks become room to move into) and written again at the end, as
// a close writes it.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "blockstore/BlockFileCore.h"
#include "blockstore/BlockGraph.h"

using ZoStreamE::Status;
namespace bf = blockformat;

namespace {
constexpr std::uint32_t kMoveBatch = 1024;   // moves between the flushes of a batch
constexpr std::uint32_t kMoveRun = 256;      // blocks copied by one read and one write

// The heads of blocks first .. first + count - 1, read into `run`, into
// the graph.
void SetHeads(BlockGraph& graph, std::uint32_t first, std::uint32_t count, const unsigned char* run) {
  unsigned char skipped[bf::kBlockSize];
  for (std::uint32_t k = 0; k < count; ++k) {
    const unsigned char* raw = run + std::size_t{k} * bf::kBlockSize;
    bf::BlockHead head;
    bf::DecodeHead(raw, &head);
    bool isSkipped = false;
    if (head.inUse == 0) {
      bf::EncodeSkippedBlock(first + k, skipped);
      isSkipped = std::memcmp(raw, skipped, bf::kBlockSize) == 0;
    }
    graph.SetHead(first + k, head, isSkipped);
  }
}

}  // namespace

Status BlockFileCore::BeginMaintenance(Status* before) {
  if (!file) return ZoStreamE::StatusNotOpen;
  if (status != ZoStreamE::StatusOk && status != ZoStreamE::StatusPasswordNeeded) return status;
  if (readOnly || batchDepth > 0 || !openStreams.empty()) return ZoStreamE::StatusFailed;
  *before = status;
  status = ZoStreamE::StatusOk;
  verbatimPayloads = true;
  // The directory in the file must be the one in memory: a block freed in
  // memory only may still be named there.
  if (directoryDirty) {
    WriteChangedDirBlocks();
    directoryDirty = false;
  }
  FlushFile();
  return status;
}

Status BlockFileCore::EndMaintenance(Status before) {
  verbatimPayloads = false;
  if (status == ZoStreamE::StatusOk) status = before;
  return status;
}

// With `full` false only the blocks the map calls used are read: a chain
// through any other block then fails to hold, and the caller scans again
// in full. Blocks not read count as free and unused by their heads.
bool BlockFileCore::BuildBlockGraph(BlockGraph& graph, const DirEntry* skip, bool full) {
  const bool read = ReadHeadRuns(full, [&](std::uint32_t first, std::uint32_t n, const unsigned char* run) {
    SetHeads(graph, first, n, run);
  });
  if (!read) return false;
  if (!graph.HoldDirectory(dirBlockNumberAt)) return false;
  const std::uint32_t slots = static_cast<std::uint32_t>(dirBlocks.size()) * bf::kEntriesPerBlock;
  for (std::uint32_t slot = 0; slot < slots; ++slot) {
    const DirEntry* entry = EntryAt(slot);
    if (entry->firstBlock == 0 || entry == skip) continue;
    if (!graph.HoldChain(slot, entry->firstBlock)) return false;
  }
  return true;
}

// With `partial`, only the blocks the map calls used are read at first; a
// chain through a block the map calls free, or damage, then has every
// block read, which tells which.
bool BlockFileCore::GraphOfFile(BlockGraph& graph, const DirEntry* list, bool partial) {
  if (partial && BuildBlockGraph(graph, list, false)) return true;
  if (partial) graph = BlockGraph(BlockCount());
  return status == ZoStreamE::StatusOk && BuildBlockGraph(graph, list, true);
}

// Directory block `index` now lies at `to`.
void BlockFileCore::MoveDirBlockNumber(std::uint32_t index, std::uint32_t from, std::uint32_t to) {
  dirIndexByNumber[from] = kNoDirBlock;
  dirIndexByNumber[to] = index;  // to < from: inside the array
  dirBlockNumberAt[index] = to;
  isDirBlock[from] = false;
  isDirBlock[to] = true;
}

// The moves go by runs of consecutive sources to consecutive places: one
// read of the run, its heads rewritten in the buffer, one write.
void BlockFileCore::CopyMovedBlocks(const BlockGraph& graph, const std::vector<BlockGraph::Move>& moves) {
  if (moveBuffer.empty()) moveBuffer.resize(std::size_t{kMoveRun} * bf::kBlockSize);
  unsigned char* const buffer = moveBuffer.data();
  std::vector<std::pair<std::uint32_t, std::uint32_t>> movedDirBlocks;  // (index, from)
  for (std::size_t i = 0; i < moves.size() && status == ZoStreamE::StatusOk;) {
    std::uint32_t k = 1;
    while (i + k < moves.size() && k < kMoveRun && moves[i + k].from == moves[i].from + k &&
           moves[i + k].to == moves[i].to + k) {
      ++k;
    }
    {
      std::lock_guard<std::recursive_mutex> hold(readLock);
      if (!file->ReadRun(moves[i].from, k, buffer)) {
        Fail();
        return;
      }
    }
    movedDirBlocks.clear();
    RewriteMovedHeads(graph, moves, i, k, buffer, &movedDirBlocks);
    if (WriteRawRun(moves[i].to, k, buffer) == ZoStreamE::StatusOk) {
      for (const auto& moved : movedDirBlocks) {
        MoveDirBlockNumber(moved.first, moved.second, dirBlocks[moved.first]->blockNumber);
      }
    }
    i += k;
  }
  FlushFile();
}

// The heads of moves[first .. first + count) as their copies carry them,
// in `buffer`, which holds the blocks as read; a directory block is encoded
// from its record, renumbered, and noted in `movedDirBlocks` as
// (index, old number).
void BlockFileCore::RewriteMovedHeads(const BlockGraph& graph, const std::vector<BlockGraph::Move>& moves,
                                      std::size_t first, std::uint32_t count, unsigned char* buffer,
                                      std::vector<std::pair<std::uint32_t, std::uint32_t>>* movedDirBlocks) {
  for (std::uint32_t j = 0; j < count; ++j) {
    const BlockGraph::Move& m = moves[first + j];
    unsigned char* raw = buffer + std::size_t{j} * bf::kBlockSize;
    const std::uint32_t after = graph.Next(m.from);
    // Mostly the next block of the run, which moves along.
    const std::uint32_t next =
        j + 1 < count && after == m.from + 1 ? m.to + 1 : BlockGraph::Destination(moves, after);
    if (graph.IsDirectory(m.from)) {
      const std::uint32_t index = DirIndexOf(m.from);
      DirBlock& block = *dirBlocks[index];
      block.blockNumber = m.to;
      block.nextBlock = next;
      bf::EncodeDirBlock(block, raw);
      movedDirBlocks->emplace_back(index, m.from);
      continue;
    }
    bf::BlockHead head;
    bf::DecodeHead(raw, &head);
    head.blockNumber = m.to;
    head.inUse = 1;
    head.nextBlock = next;
    bf::EncodeHead(head, raw);
  }
}

// The steps of WriteRawBlock for `count` blocks inside the file, from
// data[count * 1024], each in use.
Status BlockFileCore::WriteRawRun(std::uint32_t first, std::uint32_t count, const unsigned char* data) {
  if (status != ZoStreamE::StatusOk) return status;
  if (readOnly || first == 0 || first + count - 1 > BlockCount()) return Fail();
  ArmMark();
  if (status != ZoStreamE::StatusOk) return status;
  blocksWritten = true;
  for (std::uint32_t k = 0; k < count; ++k) blockMap.SetBlock(static_cast<std::int32_t>(first + k), 1);
  if (!file->WriteBlocks(first, count, data)) Fail();
  return status;
}

void BlockFileCore::RelinkMovedBlocks(const BlockGraph& graph, const std::vector<BlockGraph::Move>& moves) {
  unsigned char raw[bf::kBlockSize];
  for (const BlockGraph::Move& m : moves) {
    if (status != ZoStreamE::StatusOk) return;
    const std::uint32_t holder = graph.Holder(m.from);
    if ((holder & BlockGraph::kEntryHolder) != 0) {
      const std::uint32_t slot = holder & ~BlockGraph::kEntryHolder;
      EntryAt(slot)->firstBlock = m.to;
      EntryChangedAt(slot);
      continue;
    }
    // Block 1 has no holder; a holder that moved too carries the link in
    // its copy already.
    if (holder == 0 || BlockGraph::Destination(moves, holder) != holder) continue;
    if (graph.IsDirectory(holder)) {
      const std::uint32_t index = DirIndexOf(holder);
      dirBlocks[index]->nextBlock = m.to;
      MarkDirBlockChanged(index);
      continue;
    }
    {
      std::lock_guard<std::recursive_mutex> hold(readLock);
      if (!ReadBlockBytes(holder, raw)) return;
    }
    bf::BlockHead head;
    bf::DecodeHead(raw, &head);
    head.nextBlock = m.to;
    bf::EncodeHead(head, raw);
    WriteRawBlock(holder, 1, raw);
  }
  WriteChangedDirBlocks();
  FlushFile();
}

void BlockFileCore::CutFile(std::uint32_t blocks) {
  if (status != ZoStreamE::StatusOk || blocks >= BlockCount()) return;
  if (!file->Truncate(blocks)) {
    Fail();
    return;
  }
  fileSize = static_cast<std::int64_t>(blocks) * bf::kBlockSize;
}

// Blocks that no chain holds but whose heads say in use (left by a run
// that stopped, or the saved map's old chain) are written as skipped
// blocks; the map is then exactly the held blocks, and the saved map,
// the directory and block 1 go out as a close writes them. The session
// then goes on as after a fresh open of the file.
void BlockFileCore::SettleAsAtClose(const BlockGraph& graph) {
  const std::uint32_t count = BlockCount();
  unsigned char raw[bf::kBlockSize];
  for (std::uint32_t n = 1; n <= count && status == ZoStreamE::StatusOk; ++n) {
    if (graph.Held(n) || !graph.UsedInHead(n)) continue;
    bf::EncodeSkippedBlock(n, raw);
    WriteRawBlock(n, 0, raw);
  }
  if (status != ZoStreamE::StatusOk) return;
  std::unique_ptr<std::uint8_t[]> table(new std::uint8_t[static_cast<std::size_t>(count) + 1]);
  table[0] = 0;
  for (std::uint32_t n = 1; n <= count; ++n) table[n] = graph.Held(n) ? 1 : 0;
  blockMap.AdoptTable(std::move(table), static_cast<std::int32_t>(count));
  savedMapTaken = false;  // the map is exact: no head needs asking
  WriteFreeList();
  ClearMark();
  FlushFile();
  if (status != ZoStreamE::StatusOk) return;
  // What this session allocated is on the disk as a close leaves it.
  directoryDirty = false;
  blocksWritten = false;
  linkSource.clear();
  linkCensus = {};
  DirectoryReachedFile();
  StartSession(true);
}

bool BlockFileCore::OnlySavedMapPast(const BlockGraph& graph, const DirEntry* list) const {
  const std::uint32_t highest = graph.HighestHeld();
  const std::uint32_t tail = graph.blocks() - highest;
  if (tail == 0) return true;
  if (list == nullptr) return false;
  std::vector<bool> seen(tail, false);
  std::uint32_t found = 0;
  for (std::uint32_t n = list->firstBlock; n > highest && n <= graph.blocks() && !seen[n - highest - 1];
       n = graph.Next(n)) {
    seen[n - highest - 1] = true;
    ++found;
  }
  return found == tail;
}

// The saved map's chain is given up in the file before any of its blocks
// takes other bytes: its blocks are then held by nothing, and its entry is
// free in the directory on the disk. SettleAsAtClose writes it again.
void BlockFileCore::GiveUpSavedMap(DirEntry* list) {
  if (list == nullptr || status != ZoStreamE::StatusOk) return;
  MarkEntryFree(list);
  list->firstBlock = 0;
  list->size = 0;
  WriteChangedDirBlocks();
  FlushFile();
}

// Batches of moves until p->toMove are made, the status fails or the
// callback asks to stop.
void BlockFileCore::MoveInBatches(BlockGraph& graph, CompactProgress* p, CompactCallback callback, void* context) {
  while (status == ZoStreamE::StatusOk && p->moved < p->toMove) {
    const std::vector<BlockGraph::Move> moves = graph.NextMoves(std::min(kMoveBatch, p->toMove - p->moved));
    if (moves.empty()) break;
    CopyMovedBlocks(graph, moves);
    RelinkMovedBlocks(graph, moves);
    if (status != ZoStreamE::StatusOk) break;
    graph.ApplyMoves(moves);
    p->moved += static_cast<std::uint32_t>(moves.size());
    p->length = static_cast<std::uint64_t>(fileSize);
    if (callback != nullptr && !callback(*p, context)) break;
  }
}

Status BlockFileCore::CompactInPlace(std::uint32_t maxMoves, CompactCallback callback, void* context,
                                     CompactProgress* progress) {
  CompactProgress p;
  p.lengthBefore = p.length = static_cast<std::uint64_t>(fileSize);
  if (progress != nullptr) *progress = p;
  Status before = status;
  const Status begun = BeginMaintenance(&before);
  if (begun != ZoStreamE::StatusOk) return begun;

  DirEntry* list = FindDirEntry(bf::kFreeListName);
  BlockGraph graph(BlockCount());
  if (!GraphOfFile(graph, list, true)) {
    EndMaintenance(before);
    return ZoStreamE::StatusFailed;  // damaged chains: refused, nothing written
  }
  const std::uint32_t toMove = graph.CountToMove();
  p.toMove = maxMoves == 0 ? toMove : std::min(toMove, maxMoves);
  if (toMove == 0 && OnlySavedMapPast(graph, list)) {
    // Compact already; the saved map's chain past the held blocks is
    // what a close writes there again.
    p.finished = true;
    if (progress != nullptr) *progress = p;
    return EndMaintenance(before);
  }
  GiveUpSavedMap(list);
  MoveInBatches(graph, &p, callback, context);
  if (status == ZoStreamE::StatusOk) {
    CutFile(graph.HighestHeld());
    SettleAsAtClose(graph);
  }
  p.length = static_cast<std::uint64_t>(fileSize);
  p.finished = status == ZoStreamE::StatusOk && graph.CountToMove() == 0;
  if (progress != nullptr) *progress = p;
  return EndMaintenance(before);
}

Status BlockFileCore::ScrubFreeBlocks(std::uint32_t* scrubbed) {
  if (scrubbed != nullptr) *scrubbed = 0;
  Status before = status;
  const Status begun = BeginMaintenance(&before);
  if (begun != ZoStreamE::StatusOk) return begun;
  DirEntry* list = FindDirEntry(bf::kFreeListName);
  BlockGraph graph(BlockCount());
  // Every block is read: a free block that holds a skipped block's bytes
  // already is left alone.
  if (!GraphOfFile(graph, list, false)) {
    EndMaintenance(before);
    return ZoStreamE::StatusFailed;
  }
  if (list != nullptr) graph.MarkSavedMap(list->firstBlock);
  GiveUpSavedMap(list);
  unsigned char raw[bf::kBlockSize];
  std::uint32_t written = 0;
  for (std::uint32_t n = 1; n <= graph.blocks() && status == ZoStreamE::StatusOk; ++n) {
    if (graph.Held(n) || graph.Skipped(n)) continue;
    // The saved map's old blocks are cleared too, as the new map may go
    // elsewhere, but they held no stream's bytes and are not counted.
    const bool counted = !graph.InSavedMap(n);
    bf::EncodeSkippedBlock(n, raw);
    if (WriteRawBlock(n, 0, raw) == ZoStreamE::StatusOk) {
      graph.MarkSkipped(n);
      written += counted ? 1 : 0;
    }
  }
  if (status == ZoStreamE::StatusOk) SettleAsAtClose(graph);
  if (scrubbed != nullptr) *scrubbed = written;
  return EndMaintenance(before);
}
