// The reference for compaction in place in tz_source_bench: SQLite's VACUUM
// of the same streams as rows of one table, with every second row deleted.
#ifndef TESSELZOSTREAM_BENCH_SOURCEBENCHVACUUM_H_
#define TESSELZOSTREAM_BENCH_SOURCEBENCHVACUUM_H_

#include <cstdint>
#include <functional>
#include <string>

struct VacuumResult {
  bool measured = false;  // false: built without SQLite
  double seconds = 0;     // open, VACUUM, close: the fastest run
  std::uint64_t lengthBefore = 0;
  std::uint64_t length = 0;  // after VACUUM
};

// Writes `count` rows (name "stream<i>", blob bytesOf(i)) into a database in
// `dir`, deletes the odd ones, then times VACUUM on `repeat` fresh copies of
// it (each copied untimed) and keeps the fastest. The database and its
// copies are removed before the return. Throws std::runtime_error when
// SQLite fails.
VacuumResult TimeVacuum(const std::string& dir, int count, int repeat,
                        const std::function<std::string(int)>& bytesOf);

#endif  // TESSELZOSTREAM_BENCH_SOURCEBENCHVACUUM_H_
