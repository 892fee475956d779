#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "bench/compare/Bench.h"

namespace tzcompare {

std::string Bench::Spread(const Series& s) {
  char text[64];
  std::snprintf(text, sizeof text, "%.3f [%.3f-%.3f]", Median(s.seconds), Min(s.seconds), Max(s.seconds));
  return text;
}

std::string Bench::Payload(const Workload& w) {
  char text[96];
  if (w.streams == 1) {
    std::snprintf(text, sizeof text, "1 stream of %zu MiB", w.size / kMiB);
  } else if (w.size >= kMiB) {
    std::snprintf(text, sizeof text, "%zu streams of %zu MiB", w.streams, w.size / kMiB);
  } else {
    std::snprintf(text, sizeof text, "%zu streams of %zu KiB", w.streams, w.size / kKiB);
  }
  return text;
}

void Bench::PrintTables() const {
  static const char* const kSystems[] = {"plain",    "sqlite",   "lmdb",    "ole2",   "zip",   "tz-cf",
                                         "tz-batch", "tz-whole", "tz-pure", "tz-enc", "bf-ecb"};
  for (const Workload& w : workloads_) {
    const double mb = static_cast<double>(w.streams * w.size) / 1e6;
    std::printf("\n%s: %s (%.1f MB)\n", w.key.c_str(), Payload(w).c_str(), mb);
    std::printf("%-8s %-5s %2s %-26s %10s %8s %8s %8s %8s | %7s %6s %6s\n", "system", "phase", "n",
                "seconds [min-max]", "streams/s", "MB/s", "size/pl", "disk/pl", "peak MiB", "x plain", "disk", "mem");
    for (const char* phase : {"write", "read"}) {
      const Series* plain = Find(w.key, "plain", phase);
      for (const char* system : kSystems) {
        const Series* s = Find(w.key, system, phase);
        if (s == nullptr) {
          const auto it = series_.find(Key(w.key, system, phase));
          if (it != series_.end()) std::printf("%-8s %-5s FAILED: %s\n", system, phase, it->second.error.c_str());
          continue;
        }
        const double t = Median(s->seconds);
        const bool bare = std::strcmp(system, "bf-ecb") == 0;
        std::printf("%-8s %-5s %2zu %-26s %10.0f %8.1f ", system, phase, s->seconds.size(), Spread(*s).c_str(),
                    static_cast<double>(s->streams) / t, static_cast<double>(s->payload) / 1e6 / t);
        if (bare) {
          std::printf("%8s %8s %8.1f | %7s %6s %6s  (the cipher alone, in memory)\n", "-", "-",
                      MedianPeakMiB(s->peakKiB), "-", "-", "-");
          continue;
        }
        const double sizeRatio = static_cast<double>(s->usage.size) / static_cast<double>(s->payload);
        const double diskRatio = static_cast<double>(s->usage.disk) / static_cast<double>(s->payload);
        std::printf("%8.3f %8.3f %8.1f | %7.2f %6.2f %6.2f%s\n", sizeRatio, diskRatio, MedianPeakMiB(s->peakKiB),
                    plain ? Median(plain->seconds) / t : std::nan(""),
                    plain ? static_cast<double>(s->usage.disk) / static_cast<double>(plain->usage.disk) : std::nan(""),
                    plain ? MedianPeakMiB(s->peakKiB) / MedianPeakMiB(plain->peakKiB) : std::nan(""),
                    s->wrong > 0 ? "  WRONG BYTES" : "");
      }
    }
  }
  PrintOpens();
  for (const Workload& w : workloads_) {
    if (!w.edit) continue;
    const std::size_t changed = (w.streams + 99) / 100;
    std::printf("\nedit: %zu of the %zu streams of %s get new bytes, then the store is saved\n", changed, w.streams,
                w.key.c_str());
    std::printf("%-9s %-26s %9s %8s %-17s | %7s  %s\n", "system", "seconds [min-max]", "streams/s", "peak MiB",
                "disk/pl bef->aft", "x plain", "what it does");
    static const struct {
      const char* system;
      const char* how;
    } kEdits[] = {{"plain", "rewrites the files"},
                  {"sqlite", "UPDATE of each row, one transaction"},
                  {"lmdb", "mdb_put MDB_RESERVE of each, one transaction"},
                  {"ole2", "writes a new document, renames it over the old"},
                  {"zip", "zip_file_replace, zip_close rewrites the archive"},
                  {"tz-cf", "GetIOStream \"wb\" on each, in place"},
                  {"tz-batch", "GetIOStream \"wb\" on each, in place, in one batch"},
                  {"tz-whole", "WriteStream on each, in place, in one batch"},
                  {"tz-pure", "GetOStream on each, in place"},
                  {"tz-enc", "GetIOStream \"wb\" on each, in place, enciphered"},
                  {"tz-folder", "working folder: GetOStream on each, Close(SaveChanges)"}};
    const Series* plain = Find(w.key, "plain", "edit");
    const double payload = static_cast<double>(w.streams * w.size);
    for (const auto& e : kEdits) {
      const Series* s = Find(w.key, e.system, "edit");
      if (s == nullptr) continue;
      const double t = Median(s->seconds);
      std::printf("%-9s %-26s %9.0f %8.1f %7.3f -> %7.3f | %7.2f  %s%s\n", e.system, Spread(*s).c_str(),
                  static_cast<double>(s->streams) / t, MedianPeakMiB(s->peakKiB),
                  static_cast<double>(s->before.disk) / payload, static_cast<double>(s->usage.disk) / payload,
                  plain ? Median(plain->seconds) / t : std::nan(""), e.how, s->wrong > 0 ? "  WRONG BYTES" : "");
    }
    std::printf("\ncompaction: the edited %s store with every second stream deleted (disk/pl: over the kept bytes)\n",
                w.key.c_str());
    std::printf("%-9s %-26s %9s %8s %-17s | %s\n", "system", "seconds [min-max]", "MB/s kept", "peak MiB",
                "disk/pl bef->aft", "what it does");
    std::printf("%-9s %-26s %9s %8s %-17s | %s\n", "plain", "n/a", "", "", "",
                "nothing to do: a deleted file gives its room back");
    for (const char* system : {"sqlite", "lmdb", "ole2", "zip", "tz-folder"}) {
      const Series* s = Find(w.key, system, "compact");
      if (s == nullptr) continue;
      const double t = Median(s->seconds);
      const double kept = static_cast<double>(s->payload);
      const System* sys = SystemByKey(system);
      std::printf("%-9s %-26s %9.1f %8.1f %7.3f -> %7.3f | %s%s\n", system, Spread(*s).c_str(), kept / 1e6 / t,
                  MedianPeakMiB(s->peakKiB), static_cast<double>(s->before.disk) / kept,
                  static_cast<double>(s->usage.disk) / kept, sys ? sys->CompactHow() : "",
                  s->wrong > 0 ? "  WRONG BYTES" : "");
    }
  }
}

// Open the store, find the middle stream and read its first byte.
void Bench::PrintOpens() const {
  std::printf("\nopen: the store opened, the middle stream found and its first byte read (ms, median [min-max])\n");
  std::printf("%-9s %-8s %-30s %-30s\n", "workload", "system", "read-only", "read-write");
  for (const Workload& w : workloads_) {
    for (const char* system : {"sqlite", "lmdb", "tz-cf"}) {
      const Series* ro = Find(w.key, system, "open-ro");
      const Series* rw = Find(w.key, system, "open-rw");
      if (ro == nullptr && rw == nullptr) continue;
      const auto ms = [](const Series* x) {
        char text[64];
        if (x == nullptr) return std::string("-");
        std::snprintf(text, sizeof text, "%.3f [%.3f-%.3f]", Median(x->seconds) * 1e3, Min(x->seconds) * 1e3,
                      Max(x->seconds) * 1e3);
        return std::string(text);
      };
      std::printf("%-9s %-8s %-30s %-30s\n", w.key.c_str(), system, ms(ro).c_str(), ms(rw).c_str());
    }
  }
}

const System* Bench::SystemByKey(const std::string& key) const {
  for (const System* s : Systems()) {
    if (key == s->Key()) return s;
  }
  return nullptr;
}

// One goal line: the figure, what it is held against, met or MISSED.
void Bench::Goal(const std::string& text, double figure, bool met) {
  if (std::isnan(figure)) {
    std::printf("  %-72s %8s  not measured\n", text.c_str(), "-");
    goals_.push_back({text, figure, "not measured"});
    return;
  }
  std::printf("  %-72s %8.3f  %s\n", text.c_str(), figure, met ? "met" : "MISSED");
  goals_.push_back({text, figure, met ? "met" : "MISSED"});
}

double Bench::Seconds(const std::string& workload, const std::string& system, const std::string& phase) const {
  const Series* s = Find(workload, system, phase);
  return s ? Median(s->seconds) : std::nan("");
}

double Bench::Peak(const std::string& workload, const std::string& system, const std::string& phase) const {
  const Series* s = Find(workload, system, phase);
  return s ? MedianPeakMiB(s->peakKiB) : std::nan("");
}

void Bench::PrintGoals() {
  std::printf("\ngoals%s (figure: a ratio; speed ratios are the other's time over the library's)\n",
              o_.small ? " (a --small run: one run of small counts, not to be judged)" : "");
  const bool full = !o_.small;
  for (const char* lib : {"tz-cf", "tz-pure"}) {
    for (const char* phase : {"write", "read"}) {
      if (!full) continue;
      Goal(std::string("W1 ") + phase + ", " + lib + " at >= 0.85x plain files",
           Seconds("W1", "plain", phase) / Seconds("W1", lib, phase),
           Seconds("W1", "plain", phase) / Seconds("W1", lib, phase) >= 0.85);
    }
  }
  for (const Workload& w : workloads_) {
    if (w.key != "W2" && w.key != "W3" && w.key != "W4") continue;
    for (const char* lib : {"tz-cf", "tz-pure"}) {
      for (const char* phase : {"write", "read"}) {
        // The fastest of the others sets the bar.
        double best = std::nan("");
        std::string who;
        for (const char* other : {"plain", "sqlite", "lmdb", "ole2", "zip"}) {
          const double t = Seconds(w.key, other, phase);
          if (!std::isnan(t) && (std::isnan(best) || t < best)) {
            best = t;
            who = other;
          }
        }
        const double ratio = best / Seconds(w.key, lib, phase);
        Goal(w.key + " " + phase + ", " + lib + " faster than every other system (fastest: " + who + ")",
             ratio, ratio > 1.0);
      }
    }
  }
  if (full) {
    for (const char* lib : {"tz-cf", "tz-pure"}) {
      for (const char* phase : {"write", "read"}) {
        const double per100k = Seconds("W4", lib, phase) / 100000.0;
        const double per10k = Seconds("W4r", lib, phase) / 10000.0;
        Goal(std::string("W4 ") + phase + ", " + lib + " cost per stream at 100,000 <= 1.5x at 10,000",
             per100k / per10k, per100k / per10k <= 1.5);
      }
    }
    for (const char* lib : {"tz-batch", "tz-whole"}) {
      for (const char* phase : {"write", "read"}) {
        const double per100k = Seconds("W4", lib, phase) / 100000.0;
        const double per10k = Seconds("W4r", lib, phase) / 10000.0;
        Goal(std::string("W4 ") + phase + ", " + lib + " cost per stream at 100,000 <= 1.2x at 10,000",
             per100k / per10k, per100k / per10k <= 1.2);
      }
    }
    for (const char* w : {"W1", "W3"}) {
      for (const char* phase : {"write", "read"}) {
        const double ratio = Seconds(w, "plain", phase) / Seconds(w, "tz-cf", phase);
        Goal(std::string(w) + " " + phase + ", tz-cf at >= 0.9x plain files", ratio, ratio >= 0.9);
      }
    }
    for (const char* phase : {"open-ro", "open-rw"}) {
      const double ratio = Seconds("W4", "sqlite", phase) / Seconds("W4", "tz-cf", phase);
      Goal(std::string("W4 ") + phase + " and first look-up, tz-cf against sqlite", ratio, ratio > 1.0);
    }
  }
  // Batches and the whole-stream calls against the systems built for many
  // small values.
  for (const Workload& w : workloads_) {
    if (w.key != "W2" && w.key != "W4") continue;
    const double batch = Seconds(w.key, "sqlite", "write") / Seconds(w.key, "tz-batch", "write");
    Goal(w.key + " write, tz-batch faster than sqlite", batch, batch > 1.0);
    const double read = Seconds(w.key, "sqlite", "read") / Seconds(w.key, "tz-cf", "read");
    Goal(w.key + " read, tz-cf faster than sqlite", read, read > 1.0);
    const double whole = Seconds(w.key, "lmdb", "read") / Seconds(w.key, "tz-whole", "read");
    Goal(w.key + " read, tz-whole faster than lmdb", whole, whole > 1.0);
  }
  if (full) {
    for (const char* phase : {"write", "read"}) {
      const double ratio = Seconds("W1", "bf-ecb", phase) / Seconds("W1", "tz-enc", phase);
      Goal(std::string("W1 ") + phase + ", tz-enc at >= 0.8x bare Blowfish-ECB (" +
               (std::strcmp(phase, "write") == 0 ? "encrypt" : "decrypt") + ")",
           ratio, ratio >= 0.8);
    }
    for (const char* lib : {"tz-cf", "tz-pure", "tz-enc"}) {
      for (const char* phase : {"write", "read"}) {
        const double ratio = Peak("W1", lib, phase) / Peak("W3", lib, phase);
        Goal(std::string("peak memory, ") + lib + " " + phase + ": W1 (256 MiB stream) <= 1.25x W3 (256 KiB)",
             ratio, ratio <= 1.25);
      }
    }
  }
}

void Bench::WriteCsv() const {
  std::FILE* f = std::fopen(o_.csv.c_str(), "w");
  if (f == nullptr) {
    std::fprintf(stderr, "cannot write %s\n", o_.csv.c_str());
    return;
  }
  char when[64];
  const std::time_t now = std::time(nullptr);
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
  std::fprintf(f, "# tz_compare_bench%s, %d run(s), %s\n", o_.small ? " --small" : "", o_.repeat, when);
  std::fprintf(f, "# empty child peak %.1f MiB, file creation probe %.1f us per file\n", baselineMiB_, probeMicros_);
  std::fprintf(f,
               "workload,system,phase,runs,median_s,min_s,max_s,streams,payload_bytes,streams_per_s,mb_per_s,"
               "size_bytes,disk_bytes,size_per_payload,disk_per_payload,before_disk_bytes,peak_mib,"
               "speed_x_plain,disk_x_plain,peak_x_plain,wrong_streams,failures\n");
  for (const auto& [key, s] : series_) {
    const std::size_t a = key.find('/');
    const std::size_t b = key.rfind('/');
    const std::string workload = key.substr(0, a);
    const std::string system = key.substr(a + 1, b - a - 1);
    const std::string phase = key.substr(b + 1);
    const Series* plain = Find(workload, "plain", phase);
    const double t = Median(s.seconds);
    const double payload = static_cast<double>(s.payload);
    const double peak = MedianPeakMiB(s.peakKiB);
    const bool sized = s.usage.disk > 0;
    std::fprintf(f, "%s,%s,%s,%zu,%.6f,%.6f,%.6f,%zu,%llu,%.1f,%.2f,%llu,%llu,%.4f,%.4f,%llu,%.1f,%.4f,%.4f,%.4f,%llu,%d\n",
                 workload.c_str(), system.c_str(), phase.c_str(), s.seconds.size(), t, Min(s.seconds),
                 Max(s.seconds), s.streams, static_cast<unsigned long long>(s.payload),
                 static_cast<double>(s.streams) / t, payload / 1e6 / t,
                 static_cast<unsigned long long>(s.usage.size), static_cast<unsigned long long>(s.usage.disk),
                 sized ? static_cast<double>(s.usage.size) / payload : std::nan(""),
                 sized ? static_cast<double>(s.usage.disk) / payload : std::nan(""),
                 static_cast<unsigned long long>(s.before.disk), peak,
                 plain ? Median(plain->seconds) / t : std::nan(""),
                 plain && sized ? static_cast<double>(s.usage.disk) / static_cast<double>(plain->usage.disk)
                                : std::nan(""),
                 plain ? peak / MedianPeakMiB(plain->peakKiB) : std::nan(""),
                 static_cast<unsigned long long>(s.wrong), s.failures);
  }
  for (const auto& g : goals_) {
    std::fprintf(f, "# goal,\"%s\",%.4f,%s\n", g.text.c_str(), g.figure, g.verdict.c_str());
  }
  std::fclose(f);
  std::printf("\nfigures written to %s\n", o_.csv.c_str());
}

}  // namespace tzcompare
