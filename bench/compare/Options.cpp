#include "bench/compare/Options.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace tzcompare {

namespace {

std::vector<std::string> SplitList(const std::string& list) {
  std::vector<std::string> out;
  for (std::size_t at = 0; at <= list.size();) {
    const std::size_t comma = std::min(list.find(',', at), list.size());
    if (comma > at) out.push_back(list.substr(at, comma - at));
    at = comma + 1;
  }
  return out;
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
  Options o;
  bool repeatGiven = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--small") {
      o.small = true;
    } else if (a == "--repeat" && i + 1 < argc) {
      o.repeat = std::max(1, std::atoi(argv[++i]));
      repeatGiven = true;
    } else if (a == "--dir" && i + 1 < argc) {
      o.dir = argv[++i];
    } else if (a == "--csv" && i + 1 < argc) {
      o.csv = argv[++i];
    } else if (a == "--only" && i + 1 < argc) {
      o.only = SplitList(argv[++i]);
    } else if (a == "--workloads" && i + 1 < argc) {
      o.workloads = SplitList(argv[++i]);
    } else if (a == "--verbose") {
      o.verbose = true;
    } else {
      std::fprintf(stderr,
                   "usage: %s [--small] [--repeat N] [--dir FOLDER] [--csv FILE] [--only SYSTEM,...]\n"
                   "systems: plain sqlite lmdb ole2 zip tz-cf tz-batch tz-whole tz-pure tz-enc tz-folder\n",
                   argv[0]);
      std::exit(2);
    }
  }
  if (o.small && !repeatGiven) o.repeat = 1;
  return o;
}
}  // namespace tzcompare
