// The block map: growth steps, cursor rules, and a model test against a
// plain vector; the run-compressed list of a chain's block numbers against a
// plain vector too.
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "blockstore/BlockMap.h"
#include "blockstore/ChainList.h"

// Capacity doubles up to 10000 (exactly 10000 still doubles), then grows
// by 10000, or to the request + 10 where the step falls short.
TEST(BlockMap, GrowthSteps) {
  BlockMap map, exact;
  EXPECT_EQ(map.capacity(), 110);  // doubling 0 falls short of 100
  for (const auto& step : {std::make_pair(5000, 5010), {5011, 10020}, {10021, 20020}}) {
    map.Grow(step.first);
    EXPECT_EQ(map.capacity(), step.second) << step.first;
  }
  exact.Grow(10000 - 10);
  ASSERT_EQ(exact.capacity(), 10000);
  exact.Grow(10001);
  EXPECT_EQ(exact.capacity(), 20000);
}

TEST(BlockMap, AdoptedTables) {
  BlockMap map;
  std::unique_ptr<std::uint8_t[]> full(new std::uint8_t[5]{0, 1, 1, 1, 1});
  map.AdoptTable(std::move(full), 4);
  EXPECT_EQ(map.nextFree(), 5);
  EXPECT_EQ(map.capacity(), 4);
  EXPECT_EQ(map.AllocBlock(), 5);  // widens highest and grows the table
  EXPECT_EQ(map.highest(), 5);
  EXPECT_GE(map.capacity(), 5);

  BlockMap holes;
  holes.AdoptTable(std::unique_ptr<std::uint8_t[]>(new std::uint8_t[4]{7, 1, 0, 1}), 3);
  EXPECT_EQ(holes.nextFree(), 2);
  EXPECT_EQ(holes.CountUsed(), 2);

  BlockMap empty;
  empty.AdoptTable(std::unique_ptr<std::uint8_t[]>(new std::uint8_t[1]{0}), 0);
  EXPECT_EQ(empty.nextFree(), 1);
  EXPECT_EQ(empty.CountUsed(), 0);
}

// Random allocations, frees and marks against a plain vector whose rule is
// "the lowest free number, else one past the highest". The cursor must name
// that number at every step: frees below it pull it down, frees above it
// and marks above the highest leave it, taking its block moves it on.
TEST(BlockMap, ModelAgainstVector) {
  std::mt19937 rng(20261123);
  BlockMap map;
  std::vector<std::uint8_t> model(1, 0);  // index 0 unused
  for (int step = 0; step < 100000; ++step) {
    int lowest = 1;
    while (lowest < static_cast<int>(model.size()) && model[lowest] != 0) ++lowest;
    const bool anyFree = lowest < static_cast<int>(model.size());
    ASSERT_TRUE(anyFree ? map.nextFree() == lowest : map.nextFree() > map.highest()) << "step " << step;
    const int op = static_cast<int>(rng() % 10);
    if (op < 5) {
      ASSERT_EQ(map.AllocBlock(), lowest) << "step " << step;
      if (!anyFree) model.push_back(0);
      model[lowest] = 1;
    } else {
      const int n = 1 + static_cast<int>(rng() % (model.size() + 30));
      const std::uint8_t value = op < 8 ? 0 : 1;
      map.SetBlock(n, value);
      if (n >= static_cast<int>(model.size())) model.resize(n + 1, 0);
      model[n] = value;
    }
    ASSERT_EQ(map.highest(), static_cast<int>(model.size()) - 1);
    ASSERT_LE(map.highest(), map.capacity());
  }
  int used = 0;
  for (std::size_t i = 1; i < model.size(); ++i) {
    ASSERT_EQ(map.Get(static_cast<int>(i)) != 0, model[i] != 0) << i;
    used += model[i] != 0;
  }
  EXPECT_EQ(map.CountUsed(), used);
}

// Runs, single scattered blocks, a run that restarts at a lower number and
// numbers near the 32-bit limit: every index reads back what was appended.
TEST(ChainList, MatchesAPlainVector) {
  std::mt19937 rng(4099);
  std::vector<std::uint32_t> model;
  ChainList list;
  std::uint32_t next = 5;
  for (int i = 0; i < 5000; ++i) {
    const int kind = static_cast<int>(rng() % 10);
    if (kind == 0) next = rng() % 1000;                 // a jump back
    if (kind == 1) next = 0xFFFFFFF0u + rng() % 16;     // near the limit
    if (kind == 2) next += 1 + rng() % 3;               // a hole
    model.push_back(next);
    list.push_back(next);
    ++next;
  }
  ASSERT_EQ(list.size(), model.size());
  for (std::size_t i = 0; i < model.size(); ++i) ASSERT_EQ(list[i], model[i]) << i;
}
