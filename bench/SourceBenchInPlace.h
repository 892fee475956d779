// Compaction in place for tz_source_bench: the holed compound file it
// works on, one timed run with the moments its phases end, and the check
// of what that run left. Failures throw std::runtime_error.
#ifndef TESSELZOSTREAM_BENCH_SOURCEBENCHINPLACE_H_
#define TESSELZOSTREAM_BENCH_SOURCEBENCHINPLACE_H_

#include <cstdint>
#include <functional>
#include <string>

#include <tesselzostream/tesselzostream.h>

// One run of CompactInPlace, open to close, in seconds.
struct InPlaceRun {
  CompactProgress progress;
  double total = 1e30;
  double open = 0;
  double firstBatch = 0;  // the walk of every block's head, then the first batch of moves
  double otherBatches = 0;
  int batches = 0;
  double finish = 0;     // from the last batch to CompactInPlace's return
  double close = 0;
  double processor = 0;  // user and system time of the whole run
};

// A compound file of `count` streams "stream<i>" holding bytesOf(i), then
// every second one (the odd numbers) deleted: free blocks lie all through
// the file.
void MakeHoledCompoundFile(const std::string& path, int count,
                           const std::function<std::string(int)>& bytesOf);

// Opens the file for writing, compacts it in place and closes it.
InPlaceRun CompactInPlaceOnce(const std::string& path);

// What a finished compaction of MakeHoledCompoundFile's file must leave: the
// length it reported, a sound file without a free block, the kept streams'
// bytes (a sample, the moved ones at the end among them) and no deleted
// stream.
void CheckCompacted(const std::string& path, const InPlaceRun& run, int count,
                    const std::function<std::string(int)>& bytesOf);

#endif  // TESSELZOSTREAM_BENCH_SOURCEBENCHINPLACE_H_
