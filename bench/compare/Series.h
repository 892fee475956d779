// The figures the compare benchmark keeps: what a store takes on disk, and
// the times, peaks and failures of one (workload, system, phase) over the
// repetitions, with the statistics the report prints of them.
// Thread safety: plain values, owned by the harness's one thread.
#ifndef TESSELZOSTREAM_BENCH_COMPARE_SERIES_H_
#define TESSELZOSTREAM_BENCH_COMPARE_SERIES_H_

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tzcompare {

struct Usage {
  std::uint64_t size = 0;  // bytes the files hold
  std::uint64_t disk = 0;  // bytes the file system gives them
};

// The sizes of every file and folder below `folder` (lstat: links are
// not followed).
Usage Measure(const std::filesystem::path& folder);

// The figures of one (workload, system, phase), over the repetitions.
struct Series {
  std::vector<double> seconds;
  std::vector<double> cpu;
  std::vector<long> peakKiB;
  Usage usage;        // the store after the phase
  Usage before;       // the store before it (compaction)
  std::size_t streams = 0;    // streams the phase handles
  std::uint64_t payload = 0;  // bytes of those streams
  std::uint64_t wrong = 0;
  int failures = 0;
  std::string error;
};

// NaN for an empty series.
double Median(std::vector<double> v);
double Min(const std::vector<double>& v);
double Max(const std::vector<double>& v);
// The median peak resident set in MiB.
double MedianPeakMiB(const std::vector<long>& v);

}  // namespace tzcompare

#endif  // TESSELZOSTREAM_BENCH_COMPARE_SERIES_H_
