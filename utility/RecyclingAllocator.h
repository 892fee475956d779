// RecyclingAllocator: a standard allocator that keeps, per thread, up to
// kKeep arrays of one length that were given back, and hands them out again
// for the same length.
//
// Every block stream allocates a buffer of about 10 KiB when it opens and
// frees it when it closes. The C library serves that size from its general
// bins (a free there also merges neighbouring chunks), which is a fair part
// of the cost of opening and closing a small stream; a program that opens
// thousands of streams one after the other reuses the same few buffers
// instead. Arrays of other lengths, and those beyond kKeep, go to the
// standard allocator.
//
// Memory: at most kKeep arrays per thread stay held, and a thread's arrays
// are freed when it exits. Thread safety: each thread has its own cache, so
// an array freed on another thread than the one that allocated it simply
// joins that thread's cache. All instances are interchangeable.
#ifndef TESSELZOSTREAM_UTILITY_RECYCLINGALLOCATOR_H_
#define TESSELZOSTREAM_UTILITY_RECYCLINGALLOCATOR_H_

#include <cstddef>
#include <memory>

namespace tz {

template <typename T>
class RecyclingAllocator {
 public:
  using value_type = T;
  static constexpr int kKeep = 4;

  RecyclingAllocator() noexcept = default;
  template <typename U>
  RecyclingAllocator(const RecyclingAllocator<U>&) noexcept {}  // NOLINT: rebinding converts implicitly

  T* allocate(std::size_t n) {
    Cache& cache = ThreadCache();
    if (cache.count > 0 && cache.length == n) return cache.arrays[--cache.count];
    return std::allocator<T>().allocate(n);
  }

  void deallocate(T* p, std::size_t n) noexcept {
    Cache& cache = ThreadCache();
    if (cache.count == 0) cache.length = n;
    if (cache.length == n && cache.count < kKeep) {
      cache.arrays[cache.count++] = p;
      return;
    }
    std::allocator<T>().deallocate(p, n);
  }

  template <typename U>
  bool operator==(const RecyclingAllocator<U>&) const noexcept { return true; }
  template <typename U>
  bool operator!=(const RecyclingAllocator<U>&) const noexcept { return false; }

 private:
  struct Cache {
    std::size_t length = 0;  // of every array held
    int count = 0;
    T* arrays[kKeep] = {};
    ~Cache() {
      for (int i = 0; i < count; ++i) std::allocator<T>().deallocate(arrays[i], length);
    }
  };
  static Cache& ThreadCache() {
    thread_local Cache cache;
    return cache;
  }
};

}  // namespace tz

#endif  // TESSELZOSTREAM_UTILITY_RECYCLINGALLOCATOR_H_
