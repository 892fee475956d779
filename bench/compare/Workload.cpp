#include "bench/compare/Workload.h"

#include <cstdio>
#include <cstring>

namespace tzcompare {

namespace {
// Which streams an edit changes: 1 in 100. All of them stay in compaction.
bool Edited(std::size_t i) { return i % 100 == 0; }
// Which streams compaction removes: every odd one.
bool Removed(std::size_t i) { return i % 2 == 1; }
}  // namespace

std::string StreamName(std::size_t i) {
  char name[32];
  std::snprintf(name, sizeof name, "s%07zu", i);
  return name;
}

std::size_t StreamIndex(const char* name) {
  if (name == nullptr || name[0] != 's' || std::strlen(name) != 8) return SIZE_MAX;
  std::size_t i = 0;
  for (const char* c = name + 1; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9') return SIZE_MAX;
    i = i * 10 + static_cast<std::size_t>(*c - '0');
  }
  return i;
}

Contents MakeContents(const Pattern& pattern, const Workload& w, Stage stage) {
  Contents c;
  c.streams = w.streams;
  c.size = w.size;
  c.version.assign(w.streams, 0);
  c.sum.assign(w.streams, 0);
  for (std::size_t i = 0; i < w.streams; ++i) {
    if (stage != Stage::Written && Edited(i)) c.version[i] = 1;
    if (stage == Stage::Halved && Removed(i)) c.version[i] = -1;
    if (c.version[i] < 0) continue;
    std::uint64_t state = tzsupport::kChecksumSeed;
    ForEachChunk(w.size, [&](std::size_t k, std::size_t n) {
      state = tzsupport::MixChecksum(state, pattern.Chunk(i, k, c.version[i]), n);
    });
    c.sum[i] = state;
  }
  return c;
}

std::vector<std::size_t> Changed(const Contents& before, const Contents& after) {
  std::vector<std::size_t> out;
  for (std::size_t i = 0; i < after.streams; ++i) {
    if (after.Has(i) && before.version[i] != after.version[i]) out.push_back(i);
  }
  return out;
}

std::vector<std::size_t> Gone(const Contents& before, const Contents& after) {
  std::vector<std::size_t> out;
  for (std::size_t i = 0; i < after.streams; ++i) {
    if (before.Has(i) && !after.Has(i)) out.push_back(i);
  }
  return out;
}

}  // namespace tzcompare
