// PagedArray: a growable array of T kept in fixed pages of 2^kPageBits
// elements.
//
// Growing never moves or copies what is stored, memory is taken one page
// at a time, and only elements the array grows over are written (with the
// fill value), so an array of n elements touches about n elements' worth of
// fresh memory (a vector that doubles touches about three times that, and
// copies as it goes). Indexing costs one extra load.
//
// Invariants: size() <= pages * kPage; every element below size() was
// either set or given the fill value when the array grew over it.
//
// Thread safety: none; like a std::vector.
#ifndef TESSELZOSTREAM_UTILITY_PAGEDARRAY_H_
#define TESSELZOSTREAM_UTILITY_PAGEDARRAY_H_

#include <algorithm>
#include <cstddef>
#include <memory>
#include <vector>

namespace tz {

template <typename T, unsigned kPageBits = 14>
class PagedArray {
 public:
  static constexpr std::size_t kPage = std::size_t{1} << kPageBits;

  explicit PagedArray(T fill = T()) : fill_(fill) {}

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // REQUIRES: i < size().
  T& operator[](std::size_t i) { return pages_[i >> kPageBits][i & (kPage - 1)]; }
  const T& operator[](std::size_t i) const { return pages_[i >> kPageBits][i & (kPage - 1)]; }

  // Grows to n elements, the new ones holding the fill value; a smaller n
  // only lowers the size.
  void resize(std::size_t n) {
    while (pages_.size() * kPage < n) pages_.emplace_back(new T[kPage]);
    for (std::size_t i = size_; i < n; ++i) (*this)[i] = fill_;
    size_ = n;
  }

  void push_back(const T& value) {
    resize(size_ + 1);
    (*this)[size_ - 1] = value;
  }

  void clear() {
    pages_.clear();
    size_ = 0;
  }

 private:
  T fill_;
  std::vector<std::unique_ptr<T[]>> pages_;
  std::size_t size_ = 0;
};

}  // namespace tz

#endif  // TESSELZOSTREAM_UTILITY_PAGEDARRAY_H_
