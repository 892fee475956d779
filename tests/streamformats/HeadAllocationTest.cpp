// Reading versioned heads one after another reuses the one buffer of the
// stored magic: after the first head, no read allocates. This program
// replaces the global operator new to count, so it is a program of its own.
#include <tesselzostream/ZStreamBase.h>

#include <cstdlib>
#include <new>
#include <sstream>

#include <gtest/gtest.h>

namespace {
int allocations = 0;
}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size != 0 ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

TEST(ZStreamBase, HeadsAreReadWithoutAllocating) {
  std::stringstream s;
  for (int i = 0; i < 4; ++i) s << ZStreamBase();
  ZStreamBase head;
  s >> head;  // may size the buffer
  const int before = allocations;
  s >> head >> head >> head;
  EXPECT_EQ(allocations - before, 0);
  EXPECT_TRUE(s.good());
}
