#include "blockstore/BlockGraph.h"

#include <algorithm>

namespace bf = blockformat;

BlockGraph::BlockGraph(std::uint32_t blocks)
    : blocks_(blocks),
      state_(static_cast<std::size_t>(blocks) + 1, 0),
      next_(static_cast<std::size_t>(blocks) + 1, 0),
      holder_(static_cast<std::size_t>(blocks) + 1, 0),
      high_(blocks) {}

void BlockGraph::SetHead(std::uint32_t n, const bf::BlockHead& head, bool skipped) {
  std::uint8_t s = state_[n] & (kHeld | kDirectory);
  if (head.inUse != 0) s |= kUsedInHead;
  if (skipped) s |= kSkipped;
  if (head.blockNumber == n && bf::HasSignature(head)) s |= kSoundHead;
  state_[n] = s;
  next_[n] = head.nextBlock;
}

void BlockGraph::Hold(std::uint32_t n, std::uint32_t holder, bool directory) {
  state_[n] |= directory ? (kHeld | kDirectory) : kHeld;
  holder_[n] = holder;
  ++held_;
}

bool BlockGraph::HoldDirectory(const std::vector<std::uint32_t>& chain) {
  std::uint32_t before = 0;
  for (const std::uint32_t n : chain) {
    if (n == 0 || n > blocks_ || Held(n)) return false;
    Hold(n, before, true);
    if (before != 0) next_[before] = n;
    before = n;
  }
  if (before != 0) next_[before] = 0;
  return true;
}

bool BlockGraph::HoldChain(std::uint32_t slot, std::uint32_t first) {
  std::uint32_t holder = kEntryHolder | slot;
  // Each step holds a block not held before, so the walk ends within the
  // file's blocks.
  for (std::uint32_t n = first; n != 0; n = next_[n]) {
    if (n > blocks_ || Held(n) || (state_[n] & kSoundHead) == 0) return false;
    Hold(n, holder, false);
    holder = n;
  }
  return true;
}

void BlockGraph::MarkSavedMap(std::uint32_t first) {
  for (std::uint32_t n = first; n != 0 && n <= blocks_ && (state_[n] & (kHeld | kSavedMap)) == 0; n = next_[n]) {
    state_[n] |= kSavedMap;
  }
}

std::uint32_t BlockGraph::HighestHeld() const {
  std::uint32_t n = std::min(high_, blocks_);
  while (n != 0 && !Held(n)) --n;
  return n;
}

std::uint32_t BlockGraph::CountToMove() const {
  std::uint32_t count = 0;
  for (std::uint32_t n = held_ + 1; n <= blocks_; ++n) count += Held(n) ? 1 : 0;
  return count;
}

std::vector<BlockGraph::Move> BlockGraph::NextMoves(std::uint32_t limit) {
  std::vector<std::uint32_t> from, to;
  std::uint32_t low = low_, high = high_;
  while (from.size() < limit) {
    while (low <= blocks_ && Held(low)) ++low;
    while (high != 0 && !Held(high)) --high;
    if (low >= high) break;
    to.push_back(low++);
    from.push_back(high--);
  }
  low_ = low;
  // Blocks taken as sources stay held until ApplyMoves; the cursor stops
  // below them.
  high_ = high;
  std::vector<Move> moves(from.size());
  // Ascending on both sides, so that a run of a chain stays a run.
  for (std::size_t i = 0; i < from.size(); ++i) {
    moves[i] = Move{from[from.size() - 1 - i], to[i]};
  }
  return moves;
}

std::uint32_t BlockGraph::Destination(const std::vector<Move>& moves, std::uint32_t n) {
  const auto it = std::lower_bound(moves.begin(), moves.end(), n,
                                   [](const Move& m, std::uint32_t v) { return m.from < v; });
  return it != moves.end() && it->from == n ? it->to : n;
}

void BlockGraph::ApplyMoves(const std::vector<Move>& moves) {
  // Where block n goes; a chain's neighbours are mostly the neighbouring
  // moves, asked first.
  auto destination = [&moves](std::uint32_t n, std::size_t near) {
    if (near < moves.size() && moves[near].from == n) return moves[near].to;
    return Destination(moves, n);
  };
  for (std::size_t i = 0; i < moves.size(); ++i) {
    const Move& m = moves[i];
    const std::uint32_t holder = holder_[m.from];
    const bool byBlock = holder != 0 && (holder & kEntryHolder) == 0;
    state_[m.to] = static_cast<std::uint8_t>((state_[m.from] & (kHeld | kDirectory)) | kUsedInHead | kSoundHead);
    next_[m.to] = destination(next_[m.from], i + 1);
    holder_[m.to] = byBlock ? destination(holder, i - 1) : holder;
    // A holder that stays (never a source) links to the copy now.
    if (byBlock && holder_[m.to] == holder) next_[holder] = m.to;
  }
  for (std::size_t i = 0; i < moves.size(); ++i) {
    const Move& m = moves[i];
    const std::uint32_t after = next_[m.from];
    // A successor that stays where it is now has the copy as its holder.
    if (after != 0 && destination(after, i + 1) == after) holder_[after] = m.to;
    // The source is left as a run that did not finish would leave it: in
    // use by its head, held by nothing.
    state_[m.from] = kUsedInHead | kSoundHead;
    holder_[m.from] = 0;
  }
}
