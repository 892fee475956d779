// Costs of the working-folder source, in one run.
//
//   save scaling   a compound file with 1,000 and one with 10,000 streams of
//                  4 KiB: open a source, change 10 streams, save and close.
//                  The ratio of the two times shows whether a save follows
//                  the amount of change or the size of the file.
//   linearity      GetFileNames, GetUnUsedFileSpace (100 deletions and 100
//                  changed files pending) and ExtractAllFiles at 10,000 and
//                  100,000 streams of 1 KiB, as cost per stream; a ratio near
//                  1 is linear, near 10 would be quadratic.
//   whole file     SaveAs and CompactCompoundFile of a 1 GiB compound file
//                  (64 streams of 16 MiB) against `cp` of the same file.
//   in place       CompactInPlace of a 1 GiB compound file (4,096 streams
//                  of 256 KiB, every second one deleted, so the free blocks
//                  lie all through it), open to close, against `cp` of as
//                  many bytes as it moved: moving a block costs at least a
//                  read and a write of it, so that copy is the floor; and
//                  against that copy plus the cut alone (resizing the holed
//                  file to the compacted length), which gives the tail's
//                  room back to the file system, a cost cp does not have.
//                  Also against CompactCompoundFile and SQLite's VACUUM of
//                  the same streams. Each run starts from a fresh copy of the
//                  holed file; the result is checked (sound, no free block
//                  left, the length reported, sample streams read back).
//
// Usage: tz_source_bench [--quick] [--repeat N] [--dir FOLDER] [--only SECTION]
//   --quick     sizes and counts 16x smaller, for a smoke run.
//   --repeat N  keep the fastest of N runs of each timing (default 3, 1 with
//               --quick).
//   --dir       where the scratch folder goes (default: the system's temp
//               folder); it needs about 4 GiB at full size.
//   --only      one section: save, linearity, whole or inplace.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "SourceBenchInPlace.h"
#include "SourceBenchVacuum.h"
#include "testsupport/ScratchFolder.h"

namespace fs = std::filesystem;
using Source = CompoundFileStreamSource;

namespace {

struct Options {
  bool quick = false;
  int repeat = 3;
  std::string dir;
  std::string only;  // one section's name, or empty for all
};

Options ParseOptions(int argc, char** argv) {
  Options o;
  bool repeatGiven = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--quick") {
      o.quick = true;
    } else if (a == "--repeat" && i + 1 < argc) {
      o.repeat = std::max(1, std::atoi(argv[++i]));
      repeatGiven = true;
    } else if (a == "--dir" && i + 1 < argc) {
      o.dir = argv[++i];
    } else if (a == "--only" && i + 1 < argc) {
      o.only = argv[++i];
    } else {
      std::fprintf(stderr,
                   "usage: %s [--quick] [--repeat N] [--dir FOLDER] "
                   "[--only save|linearity|whole|inplace]\n",
                   argv[0]);
      std::exit(2);
    }
  }
  const char* env = std::getenv("TZ_BENCH_QUICK");
  if (env != nullptr && *env == '1') o.quick = true;
  if (o.quick && !repeatGiven) o.repeat = 1;
  return o;
}

double Seconds(const std::function<void()>& run) {
  const auto start = std::chrono::steady_clock::now();
  run();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Fastest of `repeat` runs; `prepare` runs untimed before each.
double Best(int repeat, const std::function<void()>& prepare, const std::function<void()>& run) {
  double best = 1e30;
  for (int i = 0; i < repeat; ++i) {
    prepare();
    ::sync();
    best = std::min(best, Seconds(run));
  }
  return best;
}

void Check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
}

std::string Bytes(std::size_t n, unsigned seed) {
  std::string s(n, '\0');
  unsigned x = seed * 2654435761u + 1;
  for (char& c : s) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 24);
  }
  return s;
}

std::string Name(int i) { return "stream" + std::to_string(i); }

void MakeCompoundFile(const std::string& path, int count, std::size_t size) {
  fs::remove(path);
  CompoundFile cf;
  Check(cf.Open(path.c_str(), ZoStreamE::OpenReadWrite) == ZoStreamE::StatusOk, "create");
  const std::string data = Bytes(size, 1);
  for (int i = 0; i < count; ++i) {
    std::unique_ptr<std::iostream> out(cf.GetIOStream(Name(i).c_str(), "wb"));
    Check(out != nullptr, "stream");
    out->write(data.data(), static_cast<std::streamsize>(data.size()));
    Check(out->good(), "write");
  }
}

void SaveScaling(const Options& o, const std::string& dir) {
  const int scale = o.quick ? 16 : 1;
  const std::string change = Bytes(4096, 7);
  // Per count: the whole run, then its phases (each the fastest seen).
  double total[2], phase[2][4];
  const int counts[2] = {1000 / scale, 10000 / scale};
  for (int k = 0; k < 2; ++k) {
    const std::string file = dir + "/save" + std::to_string(k) + ".tzcf";
    MakeCompoundFile(file, counts[k], 4096);
    const std::string work = Source::GetTempFolderName(dir.c_str(), file.c_str());
    for (double& p : phase[k]) p = 1e30;
    total[k] = Best(o.repeat, [] {}, [&] {
      Source source(file.c_str(), work.c_str());
      double t[4];
      t[0] = Seconds([&] {
        Check(source.Open(Source::NewDirectory, false) == Source::NoError, "open source");
      });
      t[1] = Seconds([&] {
        for (int i = 0; i < 10; ++i) {
          std::unique_ptr<std::ostream> out(source.GetOStream(Name(i * 37 % counts[k]).c_str()));
          out->write(change.data(), static_cast<std::streamsize>(change.size()));
        }
      });
      t[2] = Seconds([&] { Check(source.CopyToBlockFile(false) == Source::NoError, "save"); });
      t[3] = Seconds([&] {
        Check(source.Close(Source::SaveChanges, false) == Source::NoError, "close");
      });
      for (int j = 0; j < 4; ++j) phase[k][j] = std::min(phase[k][j], t[j]);
    });
  }
  std::printf("save scaling: open, change 10, save, close: %d streams %.2f ms, %d streams "
              "%.2f ms, ratio %.2f (goal <= 1.5)\n",
              counts[0], total[0] * 1e3, counts[1], total[1] * 1e3, total[1] / total[0]);
  const char* names[4] = {"open", "change 10", "save (copy back)", "close"};
  for (int j = 0; j < 4; ++j) {
    std::printf("  %-17s %8.2f ms %8.2f ms  ratio %.2f\n", names[j], phase[0][j] * 1e3,
                phase[1][j] * 1e3, phase[1][j] / phase[0][j]);
  }
}

void Linearity(const Options& o, const std::string& dir) {
  const int scale = o.quick ? 16 : 1;
  const int counts[2] = {10000 / scale, 100000 / scale};
  double perStream[3][2];
  for (int k = 0; k < 2; ++k) {
    const int n = counts[k];
    const std::string file = dir + "/list" + std::to_string(k) + ".tzcf";
    MakeCompoundFile(file, n, 1024);
    const std::string work = Source::GetTempFolderName(dir.c_str(), file.c_str());
    Source source(file.c_str(), work.c_str());
    Check(source.Open(Source::NewDirectory, false) == Source::NoError, "open source");
    const std::string change = Bytes(2000, 3);
    for (int i = 0; i < 100; ++i) {
      source.DeleteSource(Name(2 * i).c_str());
      std::unique_ptr<std::ostream> out(source.GetOStream(Name(2 * i + 1).c_str()));
      out->write(change.data(), static_cast<std::streamsize>(change.size()));
    }
    std::size_t listed = 0;
    perStream[0][k] = Best(o.repeat, [] {}, [&] { listed = source.GetFileNames()->size(); }) / n;
    Check(listed == static_cast<std::size_t>(n) - 100 + 1, "listing");
    unsigned long unused = 0;
    perStream[1][k] = Best(o.repeat, [] {}, [&] { unused = source.GetUnUsedFileSpace(); }) / n;
    Check(unused > 0, "unused space");
    // ExtractAllFiles fails at the first name only in the folder, so the
    // pending changes go first.
    Check(source.Close(Source::DiscardChanges, false) == Source::NoError, "close");
    perStream[2][k] = Best(
        o.repeat,
        [&] {
          source.Close(Source::DiscardChanges, false);
          Check(source.Open(Source::NewDirectory, false) == Source::NoError, "reopen");
        },
        [&] { Check(source.ExtractAllFiles(), "extract all"); }) / n;
    source.Close(Source::DiscardChanges, false);
  }
  const char* names[3] = {"GetFileNames", "GetUnUsedFileSpace", "ExtractAllFiles"};
  for (int j = 0; j < 3; ++j) {
    std::printf("linearity: %-18s per stream %.2f us at %d, %.2f us at %d, ratio %.2f "
                "(linear: about 1)\n",
                names[j], perStream[j][0] * 1e6, counts[0], perStream[j][1] * 1e6, counts[1],
                perStream[j][1] / perStream[j][0]);
  }
}

// CompactCompoundFile of `file` through a working-folder source, the
// fastest of --repeat runs; `restore` (untimed) puts the file back first.
double TimeCompactCompoundFile(const Options& o, const std::string& dir, const std::string& file,
                               const std::function<void()>& restore) {
  const std::string work = Source::GetTempFolderName(dir.c_str(), file.c_str());
  std::unique_ptr<Source> source;
  auto reopen = [&] {
    if (source) source->Close(Source::DiscardChanges, false);
    restore();
    source.reset(new Source(file.c_str(), work.c_str()));
    Check(source->Open(Source::NewDirectory, false) == Source::NoError, "open source");
  };
  const double best = Best(o.repeat, reopen, [&] { source->CompactCompoundFile(); });
  source->Close(Source::DiscardChanges, false);
  return best;
}

// `cp` of `from` to a new file, the fastest of --repeat runs, the copy of
// the last run removed before the clock starts.
double TimeCp(const Options& o, const std::string& from, const std::string& to) {
  const std::string command = "cp '" + from + "' '" + to + "'";
  const double best = Best(o.repeat, [&] { fs::remove(to); },
                           [&] { Check(std::system(command.c_str()) == 0, "cp"); });
  fs::remove(to);
  return best;
}

void WholeFile(const Options& o, const std::string& dir) {
  const std::size_t size = (o.quick ? 1 : 16) * std::size_t(1) << 20;  // per stream
  const std::string file = dir + "/whole.tzcf";
  MakeCompoundFile(file, 64, size);
  const double cp = TimeCp(o, file, dir + "/whole-copy.tzcf");
  const std::string work = Source::GetTempFolderName(dir.c_str(), file.c_str());
  std::unique_ptr<Source> source;
  auto reopen = [&] {
    if (source) source->Close(Source::DiscardChanges, false);
    source.reset(new Source(file.c_str(), work.c_str()));
    Check(source->Open(Source::NewDirectory, false) == Source::NoError, "open source");
  };
  const std::string saved = dir + "/whole-saved.tzcf";
  // Like cp's copy, the target of the last run is removed before the clock
  // starts (SaveAs would otherwise spend its first moments deleting 1 GiB).
  const double saveAs = Best(
      o.repeat, [&] { fs::remove(saved); reopen(); },
      [&] { Check(source->SaveAs(saved.c_str()) == Source::NoError, "save as"); });
  fs::remove(saved);
  source->Close(Source::DiscardChanges, false);
  source.reset();
  const double compact = TimeCompactCompoundFile(o, dir, file, [] {});
  const double mib = static_cast<double>(fs::file_size(file)) / (1 << 20);
  fs::remove(file);
  std::printf("whole file (%.0f MiB): cp %.2f s, SaveAs %.2f s (%.2fx cp), "
              "CompactCompoundFile %.2f s (%.2fx cp) (goal <= 3x)\n",
              mib, cp, saveAs, saveAs / cp, compact, compact / cp);
}

// A plain file of exactly `bytes` bytes.
void MakePlainFile(const std::string& path, std::uint64_t bytes) {
  const std::string chunk = Bytes(1 << 20, 5);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  for (std::uint64_t left = bytes; left > 0;) {
    const std::uint64_t n = std::min<std::uint64_t>(left, chunk.size());
    out.write(chunk.data(), static_cast<std::streamsize>(n));
    left -= n;
  }
  out.close();
  Check(out.good() && fs::file_size(path) == bytes, "plain file");
}

double MiB(std::uint64_t bytes) { return static_cast<double>(bytes) / (1 << 20); }

// The figures of the in-place section, each the fastest of --repeat runs.
struct InPlaceFigures {
  int count = 0;
  std::size_t size = 0;
  InPlaceRun inPlace;
  double saveAs = 0;  // CompactCompoundFile
  std::uint64_t saveAsLength = 0;
  double cut = 0;  // resizing a fresh copy to the compacted length
  double cp = 0;   // cp of a plain file of the moved blocks' bytes
  VacuumResult vacuum;
};

void PrintInPlace(const InPlaceFigures& f) {
  const CompactProgress& p = f.inPlace.progress;
  const InPlaceRun& r = f.inPlace;
  const std::uint64_t movedBytes = std::uint64_t{p.moved} * tzformat::kBlockSize;
  std::printf("compaction in place (%d streams of %zu KiB, every second deleted): "
              "%.1f MiB -> %.1f MiB, moved %u blocks (%.1f MiB)\n",
              f.count, f.size >> 10, MiB(p.lengthBefore), MiB(p.length), p.moved, MiB(movedBytes));
  std::printf("  CompactInPlace %.3f s, cp of the moved bytes %.3f s: %.2fx cp (goal <= 1.5)\n",
              r.total, f.cp, r.total / f.cp);
  std::printf("  cut of the holed file to that length alone %.3f s: in place %.2fx cp and cut\n",
              f.cut, r.total / (f.cp + f.cut));
  std::printf("  CompactCompoundFile %.3f s (%.1f MiB -> %.1f MiB): in place %.2fx of it\n",
              f.saveAs, MiB(p.lengthBefore), MiB(f.saveAsLength), r.total / f.saveAs);
  if (f.vacuum.measured) {
    std::printf("  SQLite VACUUM %.3f s (%.1f MiB -> %.1f MiB): in place %.2fx of it\n",
                f.vacuum.seconds, MiB(f.vacuum.lengthBefore), MiB(f.vacuum.length),
                r.total / f.vacuum.seconds);
  } else {
    std::printf("  SQLite VACUUM n/a (built without SQLite)\n");
  }
  const double perBatch = r.batches > 1 ? r.otherBatches / (r.batches - 1) : 0;
  std::printf("  in place, fastest run: open %.1f ms, head walk and first batch %.1f ms, "
              "%d more batches %.1f ms (%.2f ms each), to the return %.1f ms, close %.1f ms; "
              "processor time %.3f s of %.3f s\n",
              r.open * 1e3, r.firstBatch * 1e3, r.batches - 1, r.otherBatches * 1e3,
              perBatch * 1e3, r.finish * 1e3, r.close * 1e3, r.processor, r.total);
}

void CompactionInPlace(const Options& o, const std::string& dir) {
  InPlaceFigures f;
  f.count = o.quick ? 256 : 4096;
  f.size = std::size_t(256) << 10;  // per stream
  const std::function<std::string(int)> bytesOf = [&](int i) {
    return Bytes(f.size, static_cast<unsigned>(i) + 1);  // each stream its own bytes
  };
  const std::string holed = dir + "/holed.tzcf";
  const std::string work = dir + "/holed-work.tzcf";
  MakeHoledCompoundFile(holed, f.count, bytesOf);
  auto restore = [&] { fs::copy_file(holed, work, fs::copy_options::overwrite_existing); };
  for (int i = 0; i < o.repeat; ++i) {
    restore();
    ::sync();
    const InPlaceRun r = CompactInPlaceOnce(work);
    if (r.total < f.inPlace.total) f.inPlace = r;
  }
  CheckCompacted(work, f.inPlace, f.count, bytesOf);
  const CompactProgress& p = f.inPlace.progress;

  f.saveAs = TimeCompactCompoundFile(o, dir, work, restore);
  f.saveAsLength = fs::file_size(work);
  // Cutting the file gives back its tail's extents, a cost cp does not
  // have; what the file system takes for that one cut, on the same file.
  f.cut = Best(o.repeat, restore, [&] { fs::resize_file(work, p.length); });
  fs::remove(work);

  const std::string moved = dir + "/moved.bin";
  MakePlainFile(moved, std::uint64_t{p.moved} * tzformat::kBlockSize);
  f.cp = TimeCp(o, moved, dir + "/moved-copy.bin");
  fs::remove(moved);
  fs::remove(holed);  // before the database: the run stays within 4 GiB
  f.vacuum = TimeVacuum(dir, f.count, o.repeat, bytesOf);
  PrintInPlace(f);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each figure as soon as it is known
  const std::string base = options.dir.empty() ? fs::temp_directory_path().string() : options.dir;
  try {
    const tzsupport::ScratchFolder dir(base, "tz-source-bench-");
    const std::pair<const char*, void (*)(const Options&, const std::string&)> sections[] = {
        {"save", SaveScaling},
        {"linearity", Linearity},
        {"whole", WholeFile},
        {"inplace", CompactionInPlace}};
    int ran = 0;
    for (const auto& section : sections) {
      if (!options.only.empty() && options.only != section.first) continue;
      section.second(options, dir.path());
      ++ran;
    }
    Check(ran > 0, "no section of that name");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "benchmark failed: %s\n", e.what());
    return 1;
  }
  return 0;
}
