#include "blockstore/BlockMap.h"

#include <algorithm>
#include <cstring>

namespace {
constexpr std::int32_t kLinearStep = 10000;
constexpr std::int32_t kInitialRequest = 100;
}  // namespace

BlockMap::BlockMap() { Reset(); }

void BlockMap::Reset() {
  table_.reset();
  room_ = 0;
  capacity_ = 0;
  highest_ = 0;
  nextFree_ = 1;
  Grow(kInitialRequest);
}

void BlockMap::Grow(std::int32_t n) {
  std::int64_t grown = capacity_ > kLinearStep
                           ? static_cast<std::int64_t>(capacity_) + kLinearStep
                           : static_cast<std::int64_t>(capacity_) * 2;
  if (grown < n) grown = static_cast<std::int64_t>(n) + 10;
  const std::int32_t newCapacity = static_cast<std::int32_t>(grown);
  const std::size_t needed = static_cast<std::size_t>(newCapacity) + 1;
  if (needed > room_) {
    const std::size_t room = std::max(needed, 2 * room_);
    std::unique_ptr<std::uint8_t[]> table(new std::uint8_t[room]);
    std::size_t kept = 0;
    if (table_) {
      kept = static_cast<std::size_t>(highest_) + 1;
      std::memcpy(table.get(), table_.get(), kept);
    }
    std::memset(table.get() + kept, 0, room - kept);
    table_ = std::move(table);
    room_ = room;
  }
  capacity_ = newCapacity;
}

void BlockMap::AdoptTable(std::unique_ptr<std::uint8_t[]> table, std::int32_t h) {
  table_ = std::move(table);
  room_ = static_cast<std::size_t>(h) + 1;
  capacity_ = h;
  highest_ = h;
  nextFree_ = 1;
  while (nextFree_ <= h && table_[nextFree_] != 0) ++nextFree_;
}

std::int32_t BlockMap::CountUsed() const {
  std::int32_t used = 0;
  for (std::int32_t i = 1; i <= highest_; ++i) used += table_[i] != 0;
  return used;
}
