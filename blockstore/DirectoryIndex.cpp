#include "blockstore/DirectoryIndex.h"

#include <algorithm>
#include <cstring>

#include "blockstore/BlockFormat.h"
#include "utility/ZoString.h"

namespace {
constexpr std::uint32_t kPerBlock = blockformat::kEntriesPerBlock;
}

std::string DirectoryIndex::Key(const char* name) {
  return ZoString::FoldAscii(name, std::strlen(name));
}

void DirectoryIndex::Clear() {
  byName_.clear();
  freeCount_.clear();
  hasFree_.clear();
  blocksWithFree_ = 0;
  inUse_ = 0;
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
  if (block / 64 >= hasFree_.size()) hasFree_.push_back(0);
  SetHasFree(block, true);
}

void DirectoryIndex::EntryUsed(std::uint32_t slot, const char* name) {
  auto inserted = byName_.emplace(Key(name), Slots{slot, {}});
  if (!inserted.second) {
    Slots& slots = inserted.first->second;
    const std::uint32_t later = std::max(slot, slots.first);
    slots.first = std::min(slot, slots.first);
    slots.more.insert(std::lower_bound(slots.more.begin(), slots.more.end(), later), later);
  }
  const std::uint32_t block = slot / kPerBlock;
  if (--freeCount_[block] == 0) SetHasFree(block, false);
  ++inUse_;
}

void DirectoryIndex::EntryFreed(std::uint32_t slot, const char* name) {
  auto it = byName_.find(Key(name));
  if (it == byName_.end()) return;
  Slots& slots = it->second;
  if (slots.first == slot) {
    if (slots.more.empty()) {
      byName_.erase(it);
    } else {
      slots.first = slots.more.front();
      slots.more.erase(slots.more.begin());
    }
  } else {
    auto pos = std::lower_bound(slots.more.begin(), slots.more.end(), slot);
    if (pos == slots.more.end() || *pos != slot) return;
    slots.more.erase(pos);
  }
  const std::uint32_t block = slot / kPerBlock;
  if (freeCount_[block]++ == 0) SetHasFree(block, true);
  --inUse_;
}

bool DirectoryIndex::Find(const char* name, std::uint32_t* slot) const {
  auto it = byName_.find(Key(name));
  if (it == byName_.end()) return false;
  *slot = it->second.first;
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
