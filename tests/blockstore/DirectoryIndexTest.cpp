// The directory index against a plain model: random entries used and freed
// under names that collide without case, over a directory that grows.
#include <algorithm>
#include <cctype>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "blockstore/DirectoryIndex.h"

TEST(DirectoryIndex, ModelAgainstPlainVectors) {
  const char* names[] = {"a", "A", "b", "longer name than sixteen", "LONGER NAME THAN SIXTEEN", "c"};
  std::mt19937 rng(4242);
  DirectoryIndex index;
  std::vector<std::string> used;  // by slot; empty: free
  auto fold = [](std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
  };
  for (int step = 0; step < 20000; ++step) {
    if (used.empty() || rng() % 50 == 0) {
      index.AddBlock();
      used.resize(used.size() + 3);
    }
    const std::uint32_t slot = rng() % used.size();
    if (used[slot].empty()) {
      used[slot] = names[rng() % 6];
      index.EntryUsed(slot, used[slot].c_str());
    } else {
      index.EntryFreed(slot, used[slot].c_str());
      used[slot].clear();
    }
    if (step % 97 != 0) continue;
    std::uint32_t inUse = 0;
    for (const std::string& n : used) inUse += !n.empty();
    ASSERT_EQ(index.InUse(), inUse) << "step " << step;
    for (const char* name : names) {
      std::uint32_t want = ~0u;
      for (std::uint32_t s = 0; s < used.size() && want == ~0u; ++s) {
        if (!used[s].empty() && fold(used[s]) == fold(name)) want = s;
      }
      std::uint32_t got = ~0u;
      const bool found = index.Find(name, &got);
      ASSERT_EQ(found, want != ~0u) << name << " step " << step;
      if (found) {
        ASSERT_EQ(got, want) << name << " step " << step;
      }
    }
    std::uint32_t last = ~0u;
    for (std::uint32_t b = 0; b * 3 < used.size(); ++b) {
      if (used[3 * b].empty() || used[3 * b + 1].empty() || used[3 * b + 2].empty()) last = b;
    }
    std::uint32_t got = ~0u;
    ASSERT_EQ(index.LastBlockWithFree(&got), last != ~0u) << "step " << step;
    if (last != ~0u) {
      ASSERT_EQ(got, last) << "step " << step;
    }
  }
}
