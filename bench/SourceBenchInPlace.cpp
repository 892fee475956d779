// Compaction in place for tz_source_bench (see SourceBenchInPlace.h).
//
// Stream i holds bytes of its own, so that a block moved into another
// stream's place, or linked into the wrong chain, shows at the read back.
#include "SourceBenchInPlace.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

void Check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
}

std::string Name(int i) { return "stream" + std::to_string(i); }

double Since(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double>(b - a).count();
}

// User and system time this process has used so far.
double ProcessorSeconds() {
  rusage u{};
  ::getrusage(RUSAGE_SELF, &u);
  const timeval& a = u.ru_utime;
  const timeval& b = u.ru_stime;
  return static_cast<double>(a.tv_sec + b.tv_sec) + static_cast<double>(a.tv_usec + b.tv_usec) * 1e-6;
}

bool RecordBatch(const CompactProgress&, void* context) {
  static_cast<std::vector<Clock::time_point>*>(context)->push_back(Clock::now());
  return true;
}

}  // namespace

void MakeHoledCompoundFile(const std::string& path, int count,
                           const std::function<std::string(int)>& bytesOf) {
  fs::remove(path);
  CompoundFile cf;
  Check(cf.Open(path.c_str(), ZoStreamE::OpenReadWrite) == ZoStreamE::StatusOk, "create");
  for (int i = 0; i < count; ++i) {
    const std::string data = bytesOf(i);
    Check(cf.WriteStream(Name(i).c_str(), data.data(), data.size()), "write stream");
  }
  for (int i = 1; i < count; i += 2) Check(cf.DeleteCFFile(Name(i).c_str()), "delete");
  Check(cf.Close() == ZoStreamE::StatusOk, "close");
}

InPlaceRun CompactInPlaceOnce(const std::string& path) {
  std::vector<Clock::time_point> batchEnds;
  batchEnds.reserve(1 << 16);  // no allocation inside the timed callback
  InPlaceRun r;
  const double processorBefore = ProcessorSeconds();
  const Clock::time_point start = Clock::now();
  CompoundFile cf;
  Check(cf.Open(path.c_str(), ZoStreamE::OpenReadWrite) == ZoStreamE::StatusOk, "open to compact");
  const Clock::time_point opened = Clock::now();
  Check(cf.CompactInPlace(&r.progress, 0, RecordBatch, &batchEnds) == ZoStreamE::StatusOk,
        "compact in place");
  const Clock::time_point compacted = Clock::now();
  Check(cf.Close() == ZoStreamE::StatusOk, "close after compaction");
  const Clock::time_point closed = Clock::now();
  r.processor = ProcessorSeconds() - processorBefore;
  r.total = Since(start, closed);
  r.open = Since(start, opened);
  r.close = Since(compacted, closed);
  r.batches = static_cast<int>(batchEnds.size());
  const Clock::time_point first = batchEnds.empty() ? opened : batchEnds.front();
  const Clock::time_point last = batchEnds.empty() ? opened : batchEnds.back();
  r.firstBatch = Since(opened, first);
  r.otherBatches = Since(first, last);
  r.finish = Since(last, compacted);
  return r;
}

void CheckCompacted(const std::string& path, const InPlaceRun& run, int count,
                    const std::function<std::string(int)>& bytesOf) {
  const CompactProgress& p = run.progress;
  Check(p.finished && p.moved == p.toMove && p.moved > 0, "compaction did not finish");
  Check(fs::file_size(path) == p.length && p.length < p.lengthBefore, "length after compaction");
  const CheckReport report = CheckCompoundFile(path.c_str());
  Check(report.Sound(), "compacted file not sound");
  Check(report.heldBlocks == report.blocks, "free blocks left after compaction");
  CompoundFile cf;
  Check(cf.Open(path.c_str(), ZoStreamE::OpenReadOnly) == ZoStreamE::StatusOk, "reopen");
  std::string got;
  for (int i = 0; i < count; i += std::max(2, count / 32 & ~1)) {
    Check(cf.ReadStream(Name(i).c_str(), got) && got == bytesOf(i), "stream read back");
    Check(!cf.Exists(Name(i + 1).c_str()), "deleted stream back");
  }
  Check(cf.ReadStream(Name(count - 2).c_str(), got) && got == bytesOf(count - 2),
        "last stream read back");
}
