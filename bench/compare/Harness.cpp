#include "bench/compare/Bench.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "bench/compare/BareCipher.h"
#include "testsupport/ScratchFolder.h"

namespace tzcompare {

namespace {
// A system whose write of a workload took longer runs that workload once.
constexpr double kSlowSeconds = 60.0;
// Creating an empty file slower than this means the file system is busy
// with deletions made before the run (see CreationProbe).
constexpr double kSlowCreationMicros = 40.0;
}  // namespace

Bench::Bench(const Options& o) : o_(o) {
  for (const System* s : Systems()) {
    if (!s->EditsOnly()) {
      systems_.push_back(s);
    } else if (folder_ == nullptr) {
      folder_ = s;
    }
  }
  std::vector<Workload> all;
  if (o.small) {
    all = {{"W2", 1000, 4 * kKiB, true}, {"W4", 5000, 1 * kKiB, false}};
  } else {
    all = {{"W1", 1, 256 * kMiB, false},
           {"W2", 10000, 4 * kKiB, true},
           {"W3", 1000, 256 * kKiB, false},
           {"W4", 100000, 1 * kKiB, false},
           {"W4r", 10000, 1 * kKiB, false}};
  }
  for (const Workload& w : all) {
    if (o.workloads.empty() || std::find(o.workloads.begin(), o.workloads.end(), w.key) != o.workloads.end()) {
      workloads_.push_back(w);
    }
  }
}

int Bench::Run() {
  const tzsupport::ScratchFolder folder(o_.dir.empty() ? fs::temp_directory_path().string() : o_.dir, "tz-compare-");
  const fs::path scratch = folder.path();
  const Outcome empty = InChild([](Clock& clock) -> std::uint64_t {
    clock.Start();
    clock.Stop();
    return 0;
  });
  baselineMiB_ = static_cast<double>(empty.peakKiB) / 1024.0;
  std::printf("tz_compare_bench%s: %d run%s, scratch %s; an empty child peaks at %.1f MiB\n",
              o_.small ? " --small" : "", o_.repeat, o_.repeat == 1 ? "" : "s", scratch.c_str(), baselineMiB_);
  probeMicros_ = CreationProbe(scratch / "probe");
  std::printf("file creation probe: %.1f us per empty file%s\n", probeMicros_,
              probeMicros_ > kSlowCreationMicros
                  ? " -- SLOW: this file system was probably told to delete many files in the last minutes "
                    "(ext4 then passes over their inodes on every new file); plain-file figures will suffer"
                  : "");
  std::printf("times are medians [min-max] in seconds; x plain: speed is plain's time over the system's "
              "(> 1: faster), size and memory are the system's over plain's\n");

  std::map<std::string, Contents> contents[3];
  for (const Workload& w : workloads_) {
    contents[0][w.key] = MakeContents(pattern_, w, Stage::Written);
    if (w.edit) {
      contents[1][w.key] = MakeContents(pattern_, w, Stage::Edited);
      contents[2][w.key] = MakeContents(pattern_, w, Stage::Halved);
    }
  }

  std::vector<const System*> active;
  for (const System* s : systems_) {
    if (Wanted(s->Key())) active.push_back(s);
  }
  const bool withFolder = folder_ != nullptr && Wanted(folder_->Key());
  for (int r = 0; r < o_.repeat; ++r) {
    const auto runStart = std::chrono::steady_clock::now();
    for (const Workload& w : workloads_) {
      std::vector<const System*> order = active;
      std::rotate(order.begin(), order.begin() + static_cast<long>(static_cast<std::size_t>(r) % order.size()),
                  order.end());
      if (w.key == "W1" && Wanted("tz-enc")) Cipher(w, contents[0][w.key]);
      for (const System* s : order) {
        const Series* written = Find(w.key, s->Key(), "write");
        if (written != nullptr && Max(written->seconds) > kSlowSeconds) continue;  // once is enough
        RunSystem(scratch, w, *s, r, contents[0][w.key]);
      }
    }
    std::fprintf(stderr, "run %d of %d done in %.0f s\n", r + 1, o_.repeat,
                 std::chrono::duration<double>(std::chrono::steady_clock::now() - runStart).count());
  }
  // The edits and compactions come after every throughput run: the
  // working-folder source deletes its working files, and deletions slow
  // the creation of new files for a while (see RunSystem).
  for (int r = 0; r < o_.repeat; ++r) {
    const auto runStart = std::chrono::steady_clock::now();
    for (const Workload& w : workloads_) {
      if (!w.edit) continue;
      std::vector<const System*> order = active;
      std::rotate(order.begin(), order.begin() + static_cast<long>(static_cast<std::size_t>(r) % order.size()),
                  order.end());
      for (const System* s : order) {
        EditRound(scratch, w, *s, r, contents[0][w.key], contents[1][w.key], contents[2][w.key],
                  withFolder && s->Key() == std::string("tz-cf"));
      }
    }
    std::fprintf(stderr, "edit run %d of %d done in %.0f s\n", r + 1, o_.repeat,
                 std::chrono::duration<double>(std::chrono::steady_clock::now() - runStart).count());
  }
  PrintTables();
  PrintGoals();
  WriteCsv();
  std::uint64_t wrong = 0;
  int failures = 0;
  for (const auto& [key, s] : series_) wrong += s.wrong;
  int others = 0;
  for (const auto& [key, s] : series_) {
    if (s.failures == 0) continue;
    if (key.find("/tz-") != std::string::npos) {
      failures += s.failures;
    } else {
      ++others;
      std::printf("\nnot measured: %s failed (%s)", key.c_str(), s.error.c_str());
    }
  }
  if (others > 0) std::printf("\n");
  if (wrong > 0 || failures > 0) {
    std::printf("\nFAILED: %llu stream(s) read back wrong, %d phase(s) of this library failed\n",
                static_cast<unsigned long long>(wrong), failures);
    return 1;
  }
  std::printf("\nevery byte read back as written\n");
  return 0;
}

// Microseconds to create one empty file, over 2,000 in a new folder; the
// files stay until the end (deleting them would slow the next creations).
double Bench::CreationProbe(const fs::path& folder) {
  fs::create_directory(folder);
  const auto start = std::chrono::steady_clock::now();
  constexpr int kFiles = 2000;
  for (int i = 0; i < kFiles; ++i) {
    const int fd = ::open((folder / StreamName(static_cast<std::size_t>(i))).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) Fail("cannot create a file in " + folder.string());
    ::close(fd);
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() * 1e6 / kFiles;
}

bool Bench::Wanted(const std::string& key) const {
  return key == "plain" || o_.only.empty() || std::find(o_.only.begin(), o_.only.end(), key) != o_.only.end();
}

std::string Bench::Key(const std::string& workload, const std::string& system, const std::string& phase) {
  return workload + "/" + system + "/" + phase;
}

// Files one outcome under its key; false when the phase failed.
bool Bench::Record(const std::string& key, const Outcome& out, std::size_t streams, std::uint64_t payload) {
  Series& s = series_[key];
  s.streams = streams;
  s.payload = payload;
  if (!out.ok) {
    ++s.failures;
    s.error = out.error;
    std::fprintf(stderr, "FAILED %s: %s\n", key.c_str(), out.error.c_str());
    return false;
  }
  s.seconds.push_back(out.seconds);
  s.cpu.push_back(out.cpu);
  s.peakKiB.push_back(out.peakKiB);
  if (o_.verbose) {
    std::fprintf(stderr, "%-22s %9.4f s wall %9.4f s cpu %8.1f MiB peak\n", key.c_str(), out.seconds, out.cpu,
                 static_cast<double>(out.peakKiB) / 1024.0);
  }
  if (out.wrong > 0) {
    s.wrong += out.wrong;
    std::fprintf(stderr, "WRONG BYTES %s: %llu stream(s)\n", key.c_str(), static_cast<unsigned long long>(out.wrong));
  }
  return true;
}

// A read whose time is not reported: it only checks the store.
void Bench::Verify(const std::string& key, const System& reader, const fs::path& store, const Contents& c) {
  const Outcome out = InChild([&](Clock& clock) { return reader.Read(store, c, clock); });
  Series& s = series_[key];
  if (!out.ok) {
    ++s.failures;
    s.error = "check: " + out.error;
    std::fprintf(stderr, "FAILED %s check: %s\n", key.c_str(), out.error.c_str());
  } else if (out.wrong > 0) {
    s.wrong += out.wrong;
    std::fprintf(stderr, "WRONG BYTES %s: %llu stream(s)\n", key.c_str(), static_cast<unsigned long long>(out.wrong));
  }
}

void Bench::Cipher(const Workload& w, const Contents& c) {
  const std::uint64_t payload = static_cast<std::uint64_t>(w.streams) * w.size;
  for (const bool encrypt : {true, false}) {
    const Outcome out = InChild([&](Clock& clock) -> std::uint64_t {
      clock.Start();
      const std::uint64_t fold = BareCipher(pattern_, c, encrypt);
      clock.Stop();
      return fold == 0x5eed ? 1 : 0;  // uses the fold; never true in practice
    });
    Record(Key(w.key, "bf-ecb", encrypt ? "write" : "read"), out, w.streams, payload);
  }
}

fs::path Bench::Folder(const fs::path& scratch, const System& s, const Workload& w, int r) {
  return scratch / (std::string(s.Key()) + "-" + w.key + "-" + std::to_string(r));
}

bool Bench::KeepsFiles(const System& s, const Workload& w) {
  return std::string(s.Key()) == "plain" && w.streams > 1;
}

void Bench::RunSystem(const fs::path& scratch, const Workload& w, const System& s, int r, const Contents& written) {
  const fs::path folder = Folder(scratch, s, w, r);
  fs::create_directories(folder);
  const fs::path store = s.Store(folder);
  const std::uint64_t payload = static_cast<std::uint64_t>(w.streams) * w.size;

  const std::string wkey = Key(w.key, s.Key(), "write");
  if (Record(wkey, InChild([&](Clock& clock) -> std::uint64_t {
               s.Write(store, pattern_, written, clock);
               return 0;
             }),
             w.streams, payload)) {
    series_[wkey].usage = Measure(folder);
    const std::string rkey = Key(w.key, s.Key(), "read");
    if (Record(rkey, InChild([&](Clock& clock) { return s.Read(store, written, clock); }), w.streams, payload)) {
      series_[rkey].usage = series_[wkey].usage;
    }
    if (s.Opens()) {
      for (const bool write : {false, true}) {
        Record(Key(w.key, s.Key(), write ? "open-rw" : "open-ro"), InChild([&](Clock& clock) -> std::uint64_t {
                 s.OpenAndFind(store, w.streams / 2, write, clock);
                 return 0;
               }),
               1, 1);
      }
    }
  }
  // Each system's files go after its phase, but for the plain files of the
  // many-stream workloads, which stay until the end of the run: for about a
  // minute after many files were deleted, ext4 passes over their inodes one
  // by one (recently_deleted) on every new file, which would charge the
  // next plain-file phase for this one's clean-up.
  if (!KeepsFiles(s, w)) fs::remove_all(folder);
}

// The edit and the compaction on a fresh store of workload w: written again
// (untimed), except the plain files, whose folder of the throughput run is
// still there.
void Bench::EditRound(const fs::path& scratch, const Workload& w, const System& s, int r, const Contents& written,
               const Contents& edited, const Contents& halved, bool withFolder) {
  const bool kept = KeepsFiles(s, w);
  const fs::path folder = kept ? Folder(scratch, s, w, r) : scratch / (std::string(s.Key()) + "-edit-" + w.key);
  const fs::path store = s.Store(folder);
  if (!kept) {
    fs::create_directories(folder);
    const Outcome made = InChild([&](Clock& clock) -> std::uint64_t {
      s.Write(store, pattern_, written, clock);
      return 0;
    });
    if (!made.ok) {
      Record(Key(w.key, s.Key(), "edit"), made, 0, 0);
      fs::remove_all(folder);
      return;
    }
  } else if (!fs::exists(store)) {
    return;  // its write failed in the throughput run
  }
  if (withFolder) {
    const fs::path copyFolder = scratch / (std::string(folder_->Key()) + "-edit-" + w.key);
    fs::create_directories(copyFolder);
    fs::copy_file(store, folder_->Store(copyFolder));
    EditAndCompact(w, *folder_, copyFolder, written, edited, halved);
    fs::remove_all(copyFolder);
  }
  EditAndCompact(w, s, folder, written, edited, halved);
  if (!kept) fs::remove_all(folder);
}

void Bench::EditAndCompact(const Workload& w, const System& s, const fs::path& folder, const Contents& written,
                    const Contents& edited, const Contents& halved) {
  const fs::path store = s.Store(folder);
  const std::vector<std::size_t> changed = Changed(written, edited);
  const std::string ekey = Key(w.key, s.Key(), "edit");
  const Usage before = Measure(folder);
  if (!Record(ekey, InChild([&](Clock& clock) -> std::uint64_t {
                s.Edit(store, pattern_, written, edited, clock);
                return 0;
              }),
              changed.size(), changed.size() * w.size)) {
    return;
  }
  series_[ekey].before = before;
  series_[ekey].usage = Measure(folder);
  Verify(ekey, s, store, edited);
  if (s.CompactHow() == nullptr) return;
  const std::string ckey = Key(w.key, s.Key(), "compact");
  const Usage full = Measure(folder);
  const std::size_t kept = halved.Present();
  if (!Record(ckey, InChild([&](Clock& clock) -> std::uint64_t {
                s.Compact(store, pattern_, edited, halved, clock);
                return 0;
              }),
              kept, kept * w.size)) {
    return;
  }
  series_[ckey].before = full;
  series_[ckey].usage = Measure(folder);
  Verify(ckey, s, store, halved);
}

const Series* Bench::Find(const std::string& workload, const std::string& system, const std::string& phase) const {
  const auto it = series_.find(Key(workload, system, phase));
  return it == series_.end() || it->second.seconds.empty() ? nullptr : &it->second;
}

}  // namespace tzcompare
