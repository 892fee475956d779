#include "bench/compare/Series.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>

namespace tzcompare {

Usage Measure(const std::filesystem::path& folder) {
  Usage u;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    struct stat st {};
    if (::lstat(entry.path().c_str(), &st) != 0) continue;
    u.size += static_cast<std::uint64_t>(st.st_size);
    u.disk += static_cast<std::uint64_t>(st.st_blocks) * 512;
  }
  return u;
}

double Median(std::vector<double> v) {
  if (v.empty()) return std::nan("");
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

double Min(const std::vector<double>& v) { return v.empty() ? std::nan("") : *std::min_element(v.begin(), v.end()); }

double Max(const std::vector<double>& v) { return v.empty() ? std::nan("") : *std::max_element(v.begin(), v.end()); }

double MedianPeakMiB(const std::vector<long>& v) {
  std::vector<double> d(v.begin(), v.end());
  return Median(d) / 1024.0;
}
}  // namespace tzcompare
