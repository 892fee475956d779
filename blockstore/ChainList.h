// ChainList: the numbers of a stream's blocks in chain order, as a block
// stream learns them.
//
// Chains are mostly runs of consecutive block numbers (a stream written in
// one go on a file without holes is a single run), so the list keeps runs:
// a stream of any length written that way costs a few bytes, and a
// scattered chain costs one run per block. Appending is O(1); looking up
// an index is O(1) in the last run and O(log runs) elsewhere.
//
// Thread safety: none; it belongs to one stream.
#ifndef TESSELZOSTREAM_BLOCKSTORE_CHAINLIST_H_
#define TESSELZOSTREAM_BLOCKSTORE_CHAINLIST_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

class ChainList {
 public:
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  void push_back(std::uint32_t number) {
    if (!runs_.empty()) {
      const Run& last = runs_.back();
      if (static_cast<std::uint64_t>(last.number) + (size_ - last.index) == number) {
        ++size_;
        return;
      }
    }
    runs_.push_back(Run{static_cast<std::uint32_t>(size_), number});
    ++size_;
  }

  // REQUIRES: i < size().
  std::uint32_t operator[](std::size_t i) const {
    const Run* run = &runs_.back();
    if (i < run->index) {
      const auto after = std::upper_bound(
          runs_.begin(), runs_.end(), i,
          [](std::size_t value, const Run& r) { return value < r.index; });
      run = &*(after - 1);
    }
    return static_cast<std::uint32_t>(run->number + (i - run->index));
  }

 private:
  struct Run {
    std::uint32_t index;   // list position of the run's first block
    std::uint32_t number;  // that block's number
  };
  std::vector<Run> runs_;
  std::size_t size_ = 0;
};

#endif  // TESSELZOSTREAM_BLOCKSTORE_CHAINLIST_H_
