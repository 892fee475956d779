#include "blockstore/DirectoryIndex.h"

#include <algorithm>
#include <cstring>

#include "blockstore/BlockFormat.h"

namespace {
constexpr std::uint32_t kPerBlock = blockformat::kEntriesPerBlock;
}

// FNV-1a over the ASCII-folded bytes.
std::uint32_t DirectoryIndex::Hash(const char* name) {
  std::uint64_t h = 14695981039346656037ull;
  for (const char* p = name; *p != '\0'; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    if (c >= 'A' && c <= 'Z') c = static_cast<unsigned char>(c - 'A' + 'a');
    h = (h ^ c) * 1099511628211ull;
  }
  return static_cast<std::uint32_t>(h ^ (h >> 32));
}

namespace {
// Equal without regard to ASCII case; bytes that are equal as they stand
// (the common case: a name looked up as it was stored) cost no folding.
bool FoldEqual(const char* a, const char* b) {
  for (;; ++a, ++b) {
    if (*a == *b) {
      if (*a == '\0') return true;
      continue;
    }
    auto fold = [](char c) {
      const auto u = static_cast<unsigned char>(c);
      return u >= 'A' && u <= 'Z' ? u - 'A' + 'a' : u;
    };
    if (fold(*a) != fold(*b)) return false;
  }
}
}  // namespace

void DirectoryIndex::Clear() {
  cells_.clear();
  names_.clear();
  freeCount_.clear();
  hasFree_.clear();
  blocksWithFree_ = 0;
  inUse_ = 0;
}

void DirectoryIndex::Insert(Cell cell) {
  std::uint32_t i = cell.hash & Mask();
  while (cells_[i].slotPlusOne != 0) i = (i + 1) & Mask();
  cells_[i] = cell;
}

// Twice the room; every cell goes in again.
void DirectoryIndex::Grow() {
  std::vector<Cell> old;
  old.swap(cells_);
  cells_.assign(old.empty() ? 64 : old.size() * 2, Cell{0, 0});
  for (const Cell& cell : old) {
    if (cell.slotPlusOne != 0) Insert(cell);
  }
}

void DirectoryIndex::SetHasFree(std::uint32_t block, bool hasFree) {
  const std::uint64_t bit = std::uint64_t{1} << (block % 64);
  std::uint64_t& word = hasFree_[block / 64];
  if (((word & bit) != 0) == hasFree) return;
  word ^= bit;
  if (hasFree) {
    ++blocksWithFree_;
  } else {
    --blocksWithFree_;
  }
}

void DirectoryIndex::AddBlock() {
  const std::uint32_t block = static_cast<std::uint32_t>(freeCount_.size());
  freeCount_.push_back(kPerBlock);
  names_.resize(names_.size() + kPerBlock, nullptr);
  if (block / 64 >= hasFree_.size()) hasFree_.push_back(0);
  SetHasFree(block, true);
}

void DirectoryIndex::EntryUsed(std::uint32_t slot, const char* name) {
  if (2 * (static_cast<std::size_t>(inUse_) + 1) > cells_.size()) Grow();
  names_[slot] = name;
  Insert(Cell{slot + 1, Hash(name)});
  const std::uint32_t block = slot / kPerBlock;
  if (--freeCount_[block] == 0) SetHasFree(block, false);
  ++inUse_;
}

// The cell leaves its probe run, and the cells after it in the run move
// back where their own probes would still find them.
void DirectoryIndex::EntryFreed(std::uint32_t slot, const char* name) {
  if (cells_.empty()) return;
  std::uint32_t i = Hash(name) & Mask();
  while (cells_[i].slotPlusOne != 0 && cells_[i].slotPlusOne != slot + 1) i = (i + 1) & Mask();
  if (cells_[i].slotPlusOne == 0) return;  // not in use
  for (std::uint32_t j = (i + 1) & Mask(); cells_[j].slotPlusOne != 0; j = (j + 1) & Mask()) {
    const std::uint32_t home = cells_[j].hash & Mask();
    // Cell j may move to i unless its home lies cyclically in (i, j].
    const bool stays = i <= j ? (home > i && home <= j) : (home > i || home <= j);
    if (stays) continue;
    cells_[i] = cells_[j];
    i = j;
  }
  cells_[i] = Cell{0, 0};
  names_[slot] = nullptr;
  const std::uint32_t block = slot / kPerBlock;
  if (freeCount_[block]++ == 0) SetHasFree(block, true);
  --inUse_;
}

// Every slot under the name lies in the probe run from its hash; the lowest
// of them is the first in directory order.
bool DirectoryIndex::Find(const char* name, std::uint32_t* slot) const {
  if (cells_.empty()) return false;
  const std::uint32_t hash = Hash(name);
  std::uint32_t best = 0;
  for (std::uint32_t i = hash & Mask(); cells_[i].slotPlusOne != 0; i = (i + 1) & Mask()) {
    const Cell& cell = cells_[i];
    if (cell.hash != hash || (best != 0 && cell.slotPlusOne > best)) continue;
    if (FoldEqual(names_[cell.slotPlusOne - 1], name)) best = cell.slotPlusOne;
  }
  if (best == 0) return false;
  *slot = best - 1;
  return true;
}

// The highest set bit, from the top word down: a word covers 64 blocks, so
// even a directory of 100,000 streams takes at most some 500 word tests.
// A directory without a free entry (a file that only grows) answers at
// once, so that adding streams costs the same at any size.
bool DirectoryIndex::LastBlockWithFree(std::uint32_t* block) const {
  if (blocksWithFree_ == 0) return false;
  for (std::size_t w = hasFree_.size(); w-- > 0;) {
    if (hasFree_[w] != 0) {
      *block = static_cast<std::uint32_t>(w * 64 + 63 - static_cast<unsigned>(__builtin_clzll(hasFree_[w])));
      return true;
    }
  }
  return false;
}
