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
//
// Usage: tz_source_bench [--quick] [--repeat N] [--dir FOLDER]
//   --quick     sizes and counts 16x smaller, for a smoke run.
//   --repeat N  keep the fastest of N runs of each timing (default 3, 1 with
//               --quick).
//   --dir       where the scratch folder goes (default: the system's temp
//               folder); it needs about 4 GiB at full size.
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

#include <tesselzostream/tesselzostream.h>

namespace fs = std::filesystem;
using Source = CompoundFileStreamSource;

namespace {

struct Options {
  bool quick = false;
  int repeat = 3;
  std::string dir;
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
    } else {
      std::fprintf(stderr, "usage: %s [--quick] [--repeat N] [--dir FOLDER]\n", argv[0]);
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

void WholeFile(const Options& o, const std::string& dir) {
  const std::size_t size = (o.quick ? 1 : 16) * std::size_t(1) << 20;  // per stream
  const std::string file = dir + "/whole.tzcf";
  MakeCompoundFile(file, 64, size);
  const std::string copy = dir + "/whole-copy.tzcf";
  const std::string cpCommand = "cp '" + file + "' '" + copy + "'";
  const double cp = Best(o.repeat, [&] { fs::remove(copy); },
                         [&] { Check(std::system(cpCommand.c_str()) == 0, "cp"); });
  fs::remove(copy);
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
  const double compact = Best(o.repeat, reopen, [&] { source->CompactCompoundFile(); });
  source->Close(Source::DiscardChanges, false);
  const double mib = static_cast<double>(fs::file_size(file)) / (1 << 20);
  std::printf("whole file (%.0f MiB): cp %.2f s, SaveAs %.2f s (%.2fx cp), "
              "CompactCompoundFile %.2f s (%.2fx cp) (goal <= 3x)\n",
              mib, cp, saveAs, saveAs / cp, compact, compact / cp);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each figure as soon as it is known
  const fs::path base = options.dir.empty() ? fs::temp_directory_path() : fs::path(options.dir);
  const fs::path dir = base / ("tz-source-bench-" + std::to_string(::getpid()));
  try {
    fs::create_directories(dir);
    SaveScaling(options, dir.string());
    Linearity(options, dir.string());
    WholeFile(options, dir.string());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "benchmark failed: %s\n", e.what());
    fs::remove_all(dir);
    return 1;
  }
  fs::remove_all(dir);
  return 0;
}
