// How much of a damaged compound file the salvage gives back, against what
// `tzcf unpack` gives back from the same file, in the same run.
//
// Usage: tz_salvage_bench [--copies N] [--streams N] [--dir FOLDER]
//   --copies   damaged copies of the large file (default 1000)
//   --streams  streams of the large file (default 14000)
//   --dir      where the scratch folder goes (default: the system's temp folder)
//
// (a) The kinds of damage of the check's tests, each on its own small file:
//     the streams each way gives back byte for byte.
// (b) A file of --streams streams of 0 to 20 KiB (60 % below 2 KiB; fixed
//     seed), and --copies copies of it, each damaged in one of five ways in
//     turn (random places and extent, fixed seed): byte runs overwritten,
//     whole blocks zeroed, the tail cut off, bits flipped in link fields,
//     directory blocks overwritten in part. For each copy, the share of the
//     streams that come back byte for byte under their own name from
//     SalvageCompoundFile, and from what unpack does: open read-only, read
//     every stream the directory lists (the saved map aside) through a
//     block stream to its end, a stream counting when it reads without
//     failure and equals the original, and after a failed one the file
//     opened afresh. Streams that come back whole only under lost+found/
//     (their entry lost) are counted apart, and so are streams the salvage
//     reports whole that hold other bytes (damage inside a payload, which
//     no head or link shows; "false whole", per copy). Times are the salvage's and the
//     unpack reads' (no files written for unpack, so its time is a floor).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "blockstore/BlockFormat.h"
#include "testsupport/FileBytes.h"
#include "testsupport/ScratchFolder.h"
#include "testsupport/TestData.h"
#include "utility/Endian.h"

namespace bf = blockformat;

namespace {

using Bytes = std::vector<unsigned char>;
using Streams = std::vector<std::pair<std::string, std::string>>;
using Clock = std::chrono::steady_clock;

double Since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

Bytes ReadFile(const std::string& path) { return tzsupport::ReadFileBytes(path); }
void WriteFile(const std::string& path, const Bytes& bytes) { tzsupport::WriteFileBytes(path, bytes); }

std::size_t BlockAt(std::uint32_t n) { return std::size_t{n - 1} * bf::kBlockSize; }
std::uint32_t BlockCount(const Bytes& b) { return static_cast<std::uint32_t>(b.size() / bf::kBlockSize); }

// Block numbers of a chain, cut at the file's block count and at a repeat.
std::vector<std::uint32_t> Chain(const Bytes& b, std::uint32_t first) {
  std::vector<std::uint32_t> chain;
  std::vector<bool> seen(BlockCount(b) + 1, false);
  for (std::uint32_t n = first; n != 0 && n <= BlockCount(b) && !seen[n];) {
    seen[n] = true;
    chain.push_back(n);
    n = tz::DecodeFixed32(&b[BlockAt(n) + bf::kOffNextBlock]);
  }
  return chain;
}

std::uint32_t FirstBlockOf(const Bytes& b, const std::string& name) {
  for (const std::uint32_t d : Chain(b, 1)) {
    for (std::uint32_t e = 0; e < bf::kEntriesPerBlock; ++e) {
      const std::size_t at = BlockAt(d) + bf::kOffEntries + std::size_t{e} * bf::kEntrySize;
      if (std::strcmp(reinterpret_cast<const char*>(&b[at + bf::kOffName]), name.c_str()) == 0) {
        return tz::DecodeFixed32(&b[at + bf::kOffFirstBlock]);
      }
    }
  }
  return 0;
}

void MakeFile(const std::string& path, const Streams& streams) {
  std::remove(path.c_str());
  CompoundFile file;
  if (file.Open(path.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) std::exit(1);
  file.BeginBatch();
  for (const auto& s : streams) {
    if (!file.WriteStream(s.first.c_str(), s.second.data(), s.second.size())) std::exit(1);
  }
  file.EndBatch();
  if (file.Close() != ZoStreamE::StatusOk) std::exit(1);
}

struct Score {
  std::size_t byName = 0;     // whole under its own name
  std::size_t lostFound = 0;  // whole only under another name
  std::size_t falseWhole = 0; // reported whole by the salvage, yet other bytes
  double seconds = 0;
};

// The salvage of `damaged`, judged against `streams`.
Score BySalvage(const std::string& damaged, const std::string& out, const Streams& streams) {
  Score score;
  std::remove(out.c_str());
  const Clock::time_point start = Clock::now();
  const SalvageReport r = SalvageCompoundFile(damaged.c_str(), out.c_str());
  score.seconds = Since(start);
  if (!r.opened) return score;
  CompoundFile file;
  if (file.Open(out.c_str(), ZoStreamE::OpenReadOnly) != ZoStreamE::StatusOk) return score;
  std::vector<bool> back(streams.size(), false);
  std::unordered_map<std::string, std::size_t> byContent;
  std::unordered_map<std::string, bool> reportedWhole;
  for (const std::string& name : r.whole) reportedWhole[name] = true;
  for (std::size_t i = 0; i < streams.size(); ++i) {
    std::string got;
    back[i] = file.FindDirEntry(streams[i].first.c_str()) != nullptr &&
              file.ReadStream(streams[i].first.c_str(), got) && got == streams[i].second;
    score.byName += back[i];
    score.falseWhole += !back[i] && reportedWhole.count(streams[i].first) != 0;
    if (!back[i] && !streams[i].second.empty()) byContent.emplace(streams[i].second, i);
  }
  std::vector<std::string> others;
  for (const SalvagedStream& s : r.damaged) others.push_back(s.savedAs);
  for (const SalvagedStream& s : r.lostAndFound) others.push_back(s.savedAs);
  for (const std::string& name : others) {
    std::string got;
    if (!file.ReadStream(name.c_str(), got)) continue;
    const auto it = byContent.find(got);
    if (it == byContent.end()) continue;
    ++score.lostFound;
    byContent.erase(it);
  }
  file.Close();
  return score;
}

bool OpenForUnpack(CompoundFile& file, const std::string& path) {
  try {
    return file.Open(path.c_str(), ZoStreamE::OpenReadOnly) == ZoStreamE::StatusOk;
  } catch (...) {  // what tzcf's OpenFile catches: the open failed
    return false;
  }
}

bool IsFreeList(const char* name) {
  const std::string a = name, b = bf::kFreeListName;
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

// What tzcf unpack does with `damaged` (tools/tzcf/StreamCommands.cpp),
// reading instead of writing files.
Score ByUnpack(const std::string& damaged, const Streams& streams) {
  Score score;
  const Clock::time_point start = Clock::now();
  std::unordered_map<std::string, const std::string*> original;
  for (const auto& s : streams) original.emplace(s.first, &s.second);
  CompoundFile file;
  if (!OpenForUnpack(file, damaged)) {
    file.Close();
    score.seconds = Since(start);
    return score;
  }
  std::vector<std::string> names;
  unsigned long cursor = 0;
  for (const DirEntry* e = file.GetFirstDirEntry(&cursor); e != nullptr; e = file.GetNextDirEntry(&cursor)) {
    if (!IsFreeList(e->name)) names.emplace_back(e->name);
  }
  std::vector<char> buffer(1 << 16);
  for (const std::string& name : names) {
    std::unique_ptr<std::iostream> in(file.GetIOStream(name.c_str(), "rb"));
    std::string got;
    bool copied = in != nullptr;
    while (copied) {
      in->read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
      got.append(buffer.data(), static_cast<std::size_t>(in->gcount()));
      if (in->bad()) copied = false;
      if (!*in) break;
    }
    in.reset();
    if (copied) {
      const auto it = original.find(name);
      if (it != original.end() && *it->second == got) {
        ++score.byName;
        original.erase(it);
      }
      continue;
    }
    file.Close();  // a damaged stream stops the file's block traffic: open afresh
    if (!OpenForUnpack(file, damaged)) break;
  }
  file.Close();
  score.seconds = Since(start);
  return score;
}

// (a) -------------------------------------------------------------------

std::string Pattern(std::size_t length, std::uint32_t seed) { return tzsupport::RandomBytes(length, seed); }

void CheckKinds(const std::string& folder) {
  const Streams streams = {{"empty", ""}, {"exact", Pattern(1003, 1)}, {"big", Pattern(20 * 1003 + 5, 2)},
                           {"small", Pattern(40, 3)}};
  const std::string path = folder + "/kinds.cf", damaged = folder + "/kinds-damaged.cf", out = folder + "/kinds-out.cf";
  Streams withGone = streams;
  withGone.insert(withGone.begin() + 3, {"gone", Pattern(5000, 4)});
  MakeFile(path, withGone);
  {
    CompoundFile file;
    file.Open(path.c_str(), ZoStreamE::OpenReadWrite);
    file.DeleteCFFile("gone");
    file.Close();
  }
  const Bytes sound = ReadFile(path);
  const std::vector<std::uint32_t> big = Chain(sound, FirstBlockOf(sound, "big"));
  const std::uint32_t small0 = FirstBlockOf(sound, "small"), count = BlockCount(sound);
  std::uint32_t freeBlock = 0;
  for (std::uint32_t n = 2; n <= count && freeBlock == 0; ++n) {
    if (sound[BlockAt(n) + bf::kOffInUse] == 0) freeBlock = n;
  }
  const auto put = [](Bytes& b, std::size_t at, std::uint32_t v) { tz::EncodeFixed32(&b[at], v); };
  const std::size_t next = bf::kOffNextBlock;
  const std::vector<std::pair<const char*, std::function<void(Bytes&)>>> kinds = {
      {"head number", [&](Bytes& b) { put(b, BlockAt(big[5]), big[5] + 1); }},
      {"head signature", [&](Bytes& b) { b[BlockAt(big[5]) + bf::kOffSignature] = 'X'; }},
      {"link past the end", [&](Bytes& b) { put(b, BlockAt(big[1]) + next, count + 7); }},
      {"loop", [&](Bytes& b) { put(b, BlockAt(big[5]) + next, big[1]); }},
      {"shared block", [&](Bytes& b) { put(b, BlockAt(small0) + next, big[5]); }},
      {"free by its head", [&](Bytes& b) { b[BlockAt(big[5]) + bf::kOffInUse] = 0; }},
      {"used length", [&](Bytes& b) { b[BlockAt(big[5]) + bf::kOffUsedLength + 1] = 0x10; }},
      {"chain cut short", [&](Bytes& b) { put(b, BlockAt(big[5]) + next, 0); }},
      {"used, but no chain's", [&](Bytes& b) { b[BlockAt(freeBlock) + bf::kOffInUse] = 1; }},
      {"stray bytes", [&](Bytes& b) { b[BlockAt(freeBlock)] ^= 0x40; }},
      {"directory signature", [&](Bytes& b) { b[BlockAt(1) + bf::kOffFileSignature] = 'Q'; }},
      {"directory link past the end", [&](Bytes& b) { put(b, BlockAt(1) + next, count + 1); }},
      {"directory loop", [&](Bytes& b) { put(b, BlockAt(1) + next, 1); }},
      {"length", [&](Bytes& b) { b.resize(b.size() - 100); }},
  };
  std::printf("(a) the check's kinds of damage, %zu streams each: whole by salvage (+ whole in lost+found) / by unpack\n",
              streams.size());
  for (const auto& kind : kinds) {
    Bytes bytes = sound;
    kind.second(bytes);
    WriteFile(damaged, bytes);
    const Score s = BySalvage(damaged, out, streams);
    const Score u = ByUnpack(damaged, streams);
    std::printf("  %-28s %zu (+%zu) / %zu\n", kind.first, s.byName, s.lostFound, u.byName);
  }
}

// (b) -------------------------------------------------------------------

const char* const kKinds[] = {"byte runs", "zeroed blocks", "cut tail", "flipped links", "directory blocks"};

void Damage(Bytes& b, int kind, std::mt19937& rng, const std::vector<std::uint32_t>& directory) {
  const auto pick = [&rng](std::uint64_t below) { return static_cast<std::uint64_t>(rng() % below); };
  const std::uint32_t blocks = BlockCount(b);
  const int times = 1 + static_cast<int>(pick(8));
  switch (kind) {
    case 0:  // byte runs of 1 B to 2 KiB overwritten with noise
      for (int i = 0; i < times; ++i) {
        const std::size_t at = pick(b.size()), length = std::min<std::size_t>(1 + pick(2048), b.size() - at);
        for (std::size_t k = 0; k < length; ++k) b[at + k] = static_cast<unsigned char>(rng());
      }
      break;
    case 1:  // whole blocks zeroed
      for (int i = 0; i < times; ++i) std::fill_n(b.begin() + BlockAt(1 + pick(blocks)), bf::kBlockSize, 0);
      break;
    case 2:  // the tail cut off: up to a tenth of the file, at any byte
      b.resize(b.size() - pick(b.size() / 10 + 1));
      break;
    case 3:  // one bit flipped in the link field of blocks
      for (int i = 0; i < times; ++i) b[BlockAt(1 + pick(blocks)) + bf::kOffNextBlock + pick(4)] ^= 1u << pick(8);
      break;
    default:  // directory blocks: a run of up to 64 bytes overwritten, 1 to 3 blocks
      for (int i = 0; i < 1 + static_cast<int>(pick(3)); ++i) {
        const std::size_t at = BlockAt(directory[pick(directory.size())]) + pick(bf::kBlockSize);
        const std::size_t length = std::min<std::size_t>(1 + pick(64), b.size() - at);
        for (std::size_t k = 0; k < length; ++k) b[at + k] = static_cast<unsigned char>(rng());
      }
  }
}

struct Tally {
  double salvage = 0, unpack = 0, found = 0, falseWhole = 0;
  double minSalvage = 1, minUnpack = 1;
  double salvageSeconds = 0, unpackSeconds = 0;
  int copies = 0;
};

void LargeFile(const std::string& folder, int copies, int count) {
  std::mt19937 rng(20261124);
  Streams streams;
  std::uint64_t total = 0;
  for (int i = 0; i < count; ++i) {
    const std::size_t size = rng() % 100 < 60 ? rng() % 2048 : rng() % 20481;
    char name[64];
    std::snprintf(name, sizeof name, "folder%02d/stream-%05d.bin", i % 50, i);
    streams.emplace_back(name, Pattern(size, static_cast<std::uint32_t>(i)));
    total += size;
  }
  const std::string path = folder + "/large.cf", damaged = folder + "/large-damaged.cf", out = folder + "/large-out.cf";
  MakeFile(path, streams);
  const Bytes sound = ReadFile(path);
  const std::vector<std::uint32_t> directory = Chain(sound, 1);
  std::printf("(b) %d streams, %.1f MB of bytes, file %.1f MB (%zu directory blocks); %d damaged copies\n", count,
              total / 1e6, sound.size() / 1e6, directory.size(), copies);
  std::map<int, Tally> tallies;
  for (int c = 0; c < copies; ++c) {
    std::mt19937 damageRng(1000u + static_cast<unsigned>(c));
    const int kind = c % 5;
    Bytes bytes = sound;
    Damage(bytes, kind, damageRng, directory);
    WriteFile(damaged, bytes);
    const Score s = BySalvage(damaged, out, streams);
    const Score u = ByUnpack(damaged, streams);
    for (Tally* t : {&tallies[kind], &tallies[-1]}) {
      const double shareS = static_cast<double>(s.byName) / count, shareU = static_cast<double>(u.byName) / count;
      t->salvage += shareS;
      t->unpack += shareU;
      t->found += static_cast<double>(s.lostFound) / count;
      t->falseWhole += static_cast<double>(s.falseWhole);
      t->minSalvage = std::min(t->minSalvage, shareS);
      t->minUnpack = std::min(t->minUnpack, shareU);
      t->salvageSeconds += s.seconds;
      t->unpackSeconds += u.seconds;
      ++t->copies;
    }
  }
  std::printf("  %-18s %6s %23s %23s %12s %11s %16s\n", "damage", "copies", "salvage mean / min",
              "unpack mean / min", "+lost+found", "false whole", "s per copy S / U");
  for (const auto& [kind, t] : tallies) {
    std::printf("  %-18s %6d %14.3f%% / %5.1f%% %14.3f%% / %5.1f%% %11.3f%% %11.2f %8.3f / %.3f\n",
                kind < 0 ? "all" : kKinds[kind], t.copies, 100 * t.salvage / t.copies, 100 * t.minSalvage,
                100 * t.unpack / t.copies, 100 * t.minUnpack, 100 * t.found / t.copies, t.falseWhole / t.copies,
                t.salvageSeconds / t.copies, t.unpackSeconds / t.copies);
  }
}

}  // namespace

int main(int argc, char** argv) {
  int copies = 1000, count = 14000;
  std::string dir;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--copies" && i + 1 < argc) {
      copies = std::max(1, std::atoi(argv[++i]));
    } else if (a == "--streams" && i + 1 < argc) {
      count = std::max(1, std::atoi(argv[++i]));
    } else if (a == "--dir" && i + 1 < argc) {
      dir = argv[++i];
    } else {
      std::fprintf(stderr, "usage: %s [--copies N] [--streams N] [--dir FOLDER]\n", argv[0]);
      return 2;
    }
  }
  tzsupport::ScratchFolder scratch(dir.empty() ? std::filesystem::temp_directory_path().string() : dir,
                                   "tz-salvage-bench-");
  CheckKinds(scratch.path());
  LargeFile(scratch.path(), copies, count);
  return 0;
}
