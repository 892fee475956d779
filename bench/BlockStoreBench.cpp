// Throughput of the block store against plain files, in one run.
//
// Three workloads, each written and then read back in 64 KiB chunks (or the
// whole stream when it is smaller):
//   (a) one stream of 256 MiB,
//   (b) 10,000 streams of 4 KiB,
//   (c) 100,000 streams of 1 KiB.
// Each goes once through the library (one compound file; streams from
// GetIOStream "wb", then "rb"; the open and the Close of the compound file
// count in the phase's time) and once as plain files, one file per stream in
// one folder, through std::ofstream / std::ifstream with the same chunks.
// The figure that matters is the ratio plain/library measured in the same
// run: above 1 means the library is faster. Every read is checked against a
// checksum of what was written, so no phase can be optimised away or pass
// with wrong bytes.
//
// Usage: tz_block_store_bench [--quick] [--repeat N] [--verbose] [--dir FOLDER]
//   --quick     every workload 16x smaller (also TZ_BENCH_QUICK=1), for a
//               build-and-smoke run; the full size is what is measured.
//   --repeat N  run every phase N times and keep the fastest (default 3, or
//               1 with --quick). Timings on a shared or virtual machine
//               stray by several times from one run to the next (the first
//               touch of page-cache memory is the worst of it); the fastest
//               of a few runs is the figure that repeats.
//   --verbose   print every repetition's wall and processor times to stderr.
//   --dir       where the scratch folder goes (default: the system's temp
//               folder). A fresh folder is made there and removed at the end.
//
// Both sides start every phase from the same state: dirty pages are synced
// before the clock starts, and the reads find the written bytes in the page
// cache. The scratch folder needs about 1.2 GiB per repetition (small files
// take a whole file-system block each).
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "testsupport/Checksum.h"
#include "testsupport/ScratchFolder.h"
#include "testsupport/TestData.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * 1024;
// Stream i's bytes start this far into the source pattern (mod kPatternShift),
// so the streams differ from one another.
constexpr std::size_t kPatternShift = 4096;

struct Workload {
  const char* label;
  std::size_t streams;
  std::size_t streamSize;
};

// Stream i's bytes: the same chunk of one pseudo-random buffer, at a place
// that depends on i, for every chunk of the stream.
class Pattern {
 public:
  Pattern() : bytes_(kChunk + kPatternShift) {}
  // Where stream i's chunks come from; every chunk of a stream is the same.
  const char* For(std::size_t i) const { return bytes_.data() + (i * 8) % kPatternShift; }

 private:
  tzsupport::NoiseBuffer bytes_;
};

// Calls f(length) for each chunk of a stream of `size` bytes, in order.
template <typename F>
void ForEachChunk(std::size_t size, F&& f) {
  for (std::size_t done = 0; done < size;) {
    const std::size_t n = std::min(kChunk, size - done);
    f(n);
    done += n;
  }
}

std::uint64_t ExpectedChecksum(const Pattern& pattern, const Workload& w) {
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < w.streams; ++i) {
    std::uint64_t state = tzsupport::kChecksumSeed;
    const auto* src = reinterpret_cast<const unsigned char*>(pattern.For(i));
    ForEachChunk(w.streamSize, [&](std::size_t n) { state = tzsupport::MixChecksum(state, src, n); });
    total += state;  // order of streams does not matter
  }
  return total;
}

std::string StreamName(std::size_t i) {
  char name[32];
  std::snprintf(name, sizeof name, "s%07zu", i);
  return name;
}

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error(what); }

using Clock = std::chrono::steady_clock;

// Wall seconds of f(); the processor seconds (user + system) it took go to
// *cpu when given, to tell waiting from working.
template <typename F>
double Seconds(F&& f, double* cpu = nullptr) {
  ::sync();  // earlier dirty pages are flushed outside the timed span
  rusage before{};
  ::getrusage(RUSAGE_SELF, &before);
  const auto start = Clock::now();
  f();
  const double wall = std::chrono::duration<double>(Clock::now() - start).count();
  rusage after{};
  ::getrusage(RUSAGE_SELF, &after);
  if (cpu != nullptr) {
    auto sec = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec * 1e-6; };
    *cpu = sec(after.ru_utime) + sec(after.ru_stime) - sec(before.ru_utime) - sec(before.ru_stime);
  }
  return wall;
}

// ---- library side ----

void LibraryWrite(const fs::path& file, const Pattern& pattern, const Workload& w) {
  CompoundFile cf;
  if (cf.Open(file.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) {
    Fail("cannot create compound file " + file.string());
  }
  for (std::size_t i = 0; i < w.streams; ++i) {
    const std::string name = StreamName(i);
    std::unique_ptr<std::iostream> out(cf.GetIOStream(name.c_str(), "wb"));
    if (!out) Fail("GetIOStream wb failed for " + name);
    const char* src = pattern.For(i);
    ForEachChunk(w.streamSize, [&](std::size_t n) {
      out->write(src, static_cast<std::streamsize>(n));
    });
    out->flush();
    if (!out->good()) Fail("library write failed for " + name);
  }
  if (cf.Close() != ZoStreamE::StatusOk) Fail("compound file closed with an error");
}

std::uint64_t LibraryRead(const fs::path& file, const Workload& w, std::vector<char>& buffer) {
  CompoundFile cf;
  if (cf.Open(file.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) {
    Fail("cannot open compound file " + file.string());
  }
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < w.streams; ++i) {
    const std::string name = StreamName(i);
    std::unique_ptr<std::iostream> in(cf.GetIOStream(name.c_str(), "rb"));
    if (!in) Fail("GetIOStream rb failed for " + name);
    std::uint64_t state = tzsupport::kChecksumSeed;
    ForEachChunk(w.streamSize, [&](std::size_t n) {
      in->read(buffer.data(), static_cast<std::streamsize>(n));
      if (static_cast<std::size_t>(in->gcount()) != n) Fail("library short read of " + name);
      state = tzsupport::MixChecksum(state, buffer.data(), n);
    });
    total += state;
  }
  if (cf.Close() != ZoStreamE::StatusOk) Fail("compound file closed with an error");
  return total;
}

// ---- plain-file side ----

void PlainWrite(const fs::path& folder, const Pattern& pattern, const Workload& w) {
  for (std::size_t i = 0; i < w.streams; ++i) {
    const fs::path path = folder / StreamName(i);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) Fail("cannot create " + path.string());
    const char* src = pattern.For(i);
    ForEachChunk(w.streamSize, [&](std::size_t n) {
      out.write(src, static_cast<std::streamsize>(n));
    });
    out.close();
    if (!out) Fail("plain write failed for " + path.string());
  }
}

std::uint64_t PlainRead(const fs::path& folder, const Workload& w, std::vector<char>& buffer) {
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < w.streams; ++i) {
    const fs::path path = folder / StreamName(i);
    std::ifstream in(path, std::ios::binary);
    if (!in) Fail("cannot open " + path.string());
    std::uint64_t state = tzsupport::kChecksumSeed;
    ForEachChunk(w.streamSize, [&](std::size_t n) {
      in.read(buffer.data(), static_cast<std::streamsize>(n));
      if (static_cast<std::size_t>(in.gcount()) != n) Fail("plain short read of " + path.string());
      state = tzsupport::MixChecksum(state, buffer.data(), n);
    });
    total += state;
  }
  return total;
}

// ---- driver ----

struct Timing {
  double libWrite = std::numeric_limits<double>::infinity();
  double libRead = std::numeric_limits<double>::infinity();
  double plainWrite = std::numeric_limits<double>::infinity();
  double plainRead = std::numeric_limits<double>::infinity();
};

void Check(std::uint64_t got, std::uint64_t want, const char* side, const Workload& w) {
  if (got != want) {
    Fail(std::string(side) + " read back wrong bytes in case " + w.label);
  }
}

// Every repetition writes new files under new names and nothing of the
// many-stream workloads is deleted before the end of the run: creating files right after many were deleted
// costs the file system extra (it avoids reusing fresh inodes), and that
// cost belongs to the benchmark's clean-up, not to either side. The side
// that goes first alternates between repetitions, so neither always meets
// the machine in the same state.
Timing RunWorkload(const fs::path& scratch, const Pattern& pattern, const Workload& w, int repeat,
                   bool verbose) {
  const std::uint64_t want = ExpectedChecksum(pattern, w);
  std::vector<char> buffer(kChunk);
  Timing best;
  for (int r = 0; r < repeat; ++r) {
    const std::string tag = std::string(w.label).substr(1, 1) + std::to_string(r);
    const fs::path compound = scratch / ("bench-" + tag + ".tzcf");
    const fs::path folder = scratch / ("plain-" + tag);
    Timing now;
    Timing cpu;
    auto library = [&] {
      now.libWrite = Seconds([&] { LibraryWrite(compound, pattern, w); }, &cpu.libWrite);
      std::uint64_t got = 0;
      now.libRead = Seconds([&] { got = LibraryRead(compound, w, buffer); }, &cpu.libRead);
      Check(got, want, "library", w);
    };
    auto plain = [&] {
      fs::create_directory(folder);
      now.plainWrite = Seconds([&] { PlainWrite(folder, pattern, w); }, &cpu.plainWrite);
      std::uint64_t got = 0;
      now.plainRead = Seconds([&] { got = PlainRead(folder, w, buffer); }, &cpu.plainRead);
      Check(got, want, "plain", w);
    };
    if (r % 2 == 0) {
      library();
      plain();
    } else {
      plain();
      library();
    }
    if (verbose) {
      std::fprintf(stderr,
                   "%s #%d wall (cpu) s: library write %.4f (%.3f) read %.4f (%.3f), "
                   "plain write %.4f (%.3f) read %.4f (%.3f)\n",
                   w.label, r + 1, now.libWrite, cpu.libWrite, now.libRead, cpu.libRead, now.plainWrite,
                   cpu.plainWrite, now.plainRead, cpu.plainRead);
    }
    if (w.streams == 1) {
      // One large file per side: removing it is cheap and keeps every
      // repetition's writes from meeting a page cache grown by the last.
      fs::remove(compound);
      fs::remove_all(folder);
    }
    best.libWrite = std::min(best.libWrite, now.libWrite);
    best.libRead = std::min(best.libRead, now.libRead);
    best.plainWrite = std::min(best.plainWrite, now.plainWrite);
    best.plainRead = std::min(best.plainRead, now.plainRead);
  }
  return best;
}

const char* Verdict(bool met) { return met ? "met" : "MISSED"; }

struct Options {
  bool quick = false;
  int repeat = 0;  // 0: the default for the size
  bool verbose = false;
  std::string dir;
};

Options ParseOptions(int argc, char** argv) {
  Options o;
  if (const char* env = std::getenv("TZ_BENCH_QUICK")) o.quick = *env != '\0' && std::strcmp(env, "0") != 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--quick") {
      o.quick = true;
    } else if (arg == "--verbose") {
      o.verbose = true;
    } else if (arg == "--repeat" && i + 1 < argc) {
      o.repeat = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--dir" && i + 1 < argc) {
      o.dir = argv[++i];
    } else {
      std::fprintf(stderr, "usage: %s [--quick] [--repeat N] [--verbose] [--dir FOLDER]\n", argv[0]);
      std::exit(2);
    }
  }
  if (o.repeat == 0) o.repeat = o.quick ? 1 : 3;
  return o;
}

int Run(const Options& o) {
  // --quick divides the bytes of every workload by 16: the size of the one
  // big stream, and the number of small streams (their size stays, so the
  // per-stream cost keeps its meaning).
  const std::size_t scale = o.quick ? 16 : 1;
  const Workload a{"(a)", 1, 256 * kMiB / scale};
  const Workload b{"(b)", 10000 / scale, 4 * kKiB};
  const Workload c{"(c)", 100000 / scale, 1 * kKiB};

  const tzsupport::ScratchFolder folder(o.dir.empty() ? fs::temp_directory_path().string() : o.dir, "tz-bench-");
  const fs::path scratch = folder.path();
  std::printf("block store vs plain files%s, best of %d, scratch %s\n", o.quick ? " (quick: 1/16 size)" : "",
              o.repeat, scratch.c_str());
  std::printf("ratio = plain seconds / library seconds (> 1: library faster)\n\n");
  std::fflush(stdout);  // before any --verbose lines on stderr

  const Pattern pattern;
  const Workload workloads[] = {a, b, c};
  Timing t[3];
  for (int k = 0; k < 3; ++k) {
    t[k] = RunWorkload(scratch, pattern, workloads[k], o.repeat, o.verbose);
  }

  std::printf("%-4s %-28s %-6s %10s %10s %8s  %s\n", "case", "workload", "phase", "library s", "plain s", "ratio",
              "goal");
  for (int k = 0; k < 3; ++k) {
    const Workload& w = workloads[k];
    char desc[64];
    if (w.streams == 1) {
      std::snprintf(desc, sizeof desc, "1 stream of %zu MiB", w.streamSize / kMiB);
    } else {
      std::snprintf(desc, sizeof desc, "%zu streams of %zu KiB", w.streams, w.streamSize / kKiB);
    }
    const double threshold = k == 0 ? 0.85 : 1.0;
    const struct {
      const char* phase;
      double lib, plain;
    } rows[] = {{"write", t[k].libWrite, t[k].plainWrite}, {"read", t[k].libRead, t[k].plainRead}};
    for (const auto& row : rows) {
      const double ratio = row.plain / row.lib;
      const bool met = k == 0 ? ratio >= threshold : ratio > threshold;
      std::printf("%-4s %-28s %-6s %10.4f %10.4f %8.3f  %s %.2f: %s\n", w.label, desc, row.phase, row.lib,
                  row.plain, ratio, k == 0 ? ">=" : ">", threshold, Verdict(met));
    }
  }

  // Per-stream cost of the library: each phase's time over the number of
  // streams. Growing the file tenfold should not make a stream dearer.
  std::printf("\nlibrary cost per stream (microseconds)\n");
  std::printf("%-6s %12s %12s %10s  %s\n", "phase", "(b)", "(c)", "(c)/(b)", "goal");
  const struct {
    const char* phase;
    double b, c;
  } costs[] = {{"write", t[1].libWrite, t[2].libWrite},
               {"read", t[1].libRead, t[2].libRead},
               {"both", t[1].libWrite + t[1].libRead, t[2].libWrite + t[2].libRead}};
  for (const auto& row : costs) {
    const double perB = row.b / static_cast<double>(b.streams) * 1e6;
    const double perC = row.c / static_cast<double>(c.streams) * 1e6;
    const double ratio = perC / perB;
    std::printf("%-6s %12.2f %12.2f %10.3f  <= 1.50: %s\n", row.phase, perB, perC, ratio, Verdict(ratio <= 1.5));
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  try {
    return Run(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "benchmark failed: %s\n", e.what());
    return 1;
  } catch (const ZoStreamE::Status& status) {  // Open's report of a damaged directory
    std::fprintf(stderr, "benchmark failed: compound file status %d\n", static_cast<int>(status));
    return 1;
  }
}
