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
  // By slot; empty: free. The index keeps the pointers it is given, so the
  // names are the array's, which never move.
  std::vector<std::string> used;
  std::vector<const char*> given;
  auto fold = [](std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
  };
  for (int step = 0; step < 20000; ++step) {
    if (used.empty() || rng() % 50 == 0) {
      index.AddBlock();
      used.resize(used.size() + 3);
      given.resize(given.size() + 3, nullptr);
    }
    const std::uint32_t slot = rng() % used.size();
    if (used[slot].empty()) {
      given[slot] = names[rng() % 6];
      used[slot] = given[slot];
      index.EntryUsed(slot, given[slot]);
    } else {
      index.EntryFreed(slot, given[slot]);
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

// Many distinct names, in two letter cases, used and freed at random: long
// probe runs, and cells moved back as others leave them.
TEST(DirectoryIndex, ManyNamesComeAndGo) {
  std::vector<std::string> pool;
  for (int k = 0; k < 3000; ++k) {
    pool.push_back("name-" + std::to_string(k));
    pool.push_back("NAME-" + std::to_string(k));
  }
  std::mt19937 rng(777);
  DirectoryIndex index;
  std::vector<int> used;  // by slot: index into pool, -1 free
  for (int b = 0; b < 1500; ++b) {
    index.AddBlock();
    used.insert(used.end(), 3, -1);
  }
  auto fold = [](std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
  };
  for (int step = 0; step < 60000; ++step) {
    const std::uint32_t slot = rng() % used.size();
    if (used[slot] < 0) {
      used[slot] = static_cast<int>(rng() % pool.size());
      index.EntryUsed(slot, pool[static_cast<std::size_t>(used[slot])].c_str());
    } else {
      index.EntryFreed(slot, pool[static_cast<std::size_t>(used[slot])].c_str());
      used[slot] = -1;
    }
    if (step % 5000 != 4999) continue;
    std::map<std::string, std::uint32_t> first;  // folded name -> lowest slot
    for (std::uint32_t s = static_cast<std::uint32_t>(used.size()); s-- > 0;) {
      if (used[s] >= 0) first[fold(pool[static_cast<std::size_t>(used[s])])] = s;
    }
    for (std::size_t k = 0; k < pool.size(); k += 7) {
      std::uint32_t got = ~0u;
      const auto want = first.find(fold(pool[k]));
      ASSERT_EQ(want != first.end(), index.Find(pool[k].c_str(), &got)) << pool[k];
      if (want != first.end()) {
        ASSERT_EQ(want->second, got) << pool[k];
      }
    }
  }
}
