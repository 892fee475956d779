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
  blocksWithFree_.clear();
  inUse_ = 0;
}

void DirectoryIndex::AddBlock() {
  const std::uint32_t block = static_cast<std::uint32_t>(freeCount_.size());
  freeCount_.push_back(kPerBlock);
  blocksWithFree_.insert(block);
}

void DirectoryIndex::EntryUsed(std::uint32_t slot, const char* name) {
  std::vector<std::uint32_t>& slots = byName_[Key(name)];
  slots.insert(std::lower_bound(slots.begin(), slots.end(), slot), slot);
  const std::uint32_t block = slot / kPerBlock;
  if (--freeCount_[block] == 0) blocksWithFree_.erase(block);
  ++inUse_;
}

void DirectoryIndex::EntryFreed(std::uint32_t slot, const char* name) {
  auto it = byName_.find(Key(name));
  if (it == byName_.end()) return;
  std::vector<std::uint32_t>& slots = it->second;
  auto pos = std::lower_bound(slots.begin(), slots.end(), slot);
  if (pos == slots.end() || *pos != slot) return;
  slots.erase(pos);
  if (slots.empty()) byName_.erase(it);
  const std::uint32_t block = slot / kPerBlock;
  if (freeCount_[block]++ == 0) blocksWithFree_.insert(block);
  --inUse_;
}

bool DirectoryIndex::Find(const char* name, std::uint32_t* slot) const {
  auto it = byName_.find(Key(name));
  if (it == byName_.end()) return false;
  *slot = it->second.front();
  return true;
}

bool DirectoryIndex::LastBlockWithFree(std::uint32_t* block) const {
  if (blocksWithFree_.empty()) return false;
  *block = *blocksWithFree_.rbegin();
  return true;
}
