// The command line of tz_compare_bench (see CompareBench.cpp for what each
// option means).
#ifndef TESSELZOSTREAM_BENCH_COMPARE_OPTIONS_H_
#define TESSELZOSTREAM_BENCH_COMPARE_OPTIONS_H_

#include <string>
#include <vector>

namespace tzcompare {

struct Options {
  bool small = false;
  int repeat = 5;
  std::string dir;
  std::string csv = "tz-compare-bench.csv";
  std::vector<std::string> only;
  std::vector<std::string> workloads;
  bool verbose = false;
};

// The options of argv; an unknown option prints the usage and exits with
// status 2.
Options ParseOptions(int argc, char** argv);

}  // namespace tzcompare

#endif  // TESSELZOSTREAM_BENCH_COMPARE_OPTIONS_H_
