// The compare benchmark's harness: runs every (workload, system, phase) in
// a child, repeated in rotated orders, files the outcomes, checks every
// store it reads, and reports tables, goal lines and a CSV file.
//
// Invariants:
// (1) Every phase runs in a child (Child.h): a system that crashes fails
//     its phase and nothing else.
// (2) Every byte read back is checked: a wrong stream is counted in its
//     series and makes the exit status non-zero; a failure of another
//     system is reported and leaves the exit status alone.
// (3) Systems come from the registry (System.h) in its order; a system
//     that this build lacks has no rows, and a goal that needs it says
//     "not measured".
// Ownership: the harness owns its figures; the systems are the registry's.
// Thread safety: one thread (it forks).
//
// Harness.cpp holds the runs, Report.cpp the tables, goals and CSV.
#ifndef TESSELZOSTREAM_BENCH_COMPARE_BENCH_H_
#define TESSELZOSTREAM_BENCH_COMPARE_BENCH_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "bench/compare/Child.h"
#include "bench/compare/Options.h"
#include "bench/compare/Series.h"
#include "bench/compare/System.h"
#include "bench/compare/Workload.h"

namespace tzcompare {

class Bench {
 public:
  // REQUIRES: `o` outlives the Bench.
  explicit Bench(const Options& o);
  // Runs everything and prints the report; the exit status of the program.
  int Run();

 private:
  // Microseconds to create one empty file, over 2,000 in a new folder; the
  // files stay until the end (deleting them would slow the next creations).
  static double CreationProbe(const fs::path& folder);

  bool Wanted(const std::string& key) const;

  static std::string Key(const std::string& workload, const std::string& system, const std::string& phase);

  // Files one outcome under its key; false when the phase failed.
  bool Record(const std::string& key, const Outcome& out, std::size_t streams, std::uint64_t payload);

  // A read whose time is not reported: it only checks the store.
  void Verify(const std::string& key, const System& reader, const fs::path& store, const Contents& c);

  void Cipher(const Workload& w, const Contents& c);

  static fs::path Folder(const fs::path& scratch, const System& s, const Workload& w, int r);

  static bool KeepsFiles(const System& s, const Workload& w);

  void RunSystem(const fs::path& scratch, const Workload& w, const System& s, int r, const Contents& written);

  // The edit and the compaction on a fresh store of workload w: written again
  // (untimed), except the plain files, whose folder of the throughput run is
  // still there.
  void EditRound(const fs::path& scratch, const Workload& w, const System& s, int r, const Contents& written,
                 const Contents& edited, const Contents& halved, bool withFolder);

  void EditAndCompact(const Workload& w, const System& s, const fs::path& folder, const Contents& written,
                      const Contents& edited, const Contents& halved);

  const Series* Find(const std::string& workload, const std::string& system, const std::string& phase) const;

  // The report (Report.cpp).
  static std::string Spread(const Series& s);

  static std::string Payload(const Workload& w);

  void PrintTables() const;

  // Open the store, find the middle stream and read its first byte.
  void PrintOpens() const;

  const System* SystemByKey(const std::string& key) const;

  // One goal line: the figure, what it is held against, met or MISSED.
  void Goal(const std::string& text, double figure, bool met);

  double Seconds(const std::string& workload, const std::string& system, const std::string& phase) const;

  double Peak(const std::string& workload, const std::string& system, const std::string& phase) const;

  void PrintGoals();

  void WriteCsv() const;

  struct GoalLine {
    std::string text;
    double figure;
    std::string verdict;
  };

  const Options& o_;
  const Pattern pattern_;
  std::vector<const System*> systems_;  // the registry's, but the edits-only one
  const System* folder_ = nullptr;      // the edits-only one (tz-folder)
  std::vector<Workload> workloads_;
  std::map<std::string, Series> series_;
  std::vector<GoalLine> goals_;
  double baselineMiB_ = 0;
  double probeMicros_ = 0;
};

}  // namespace tzcompare

#endif  // TESSELZOSTREAM_BENCH_COMPARE_BENCH_H_
