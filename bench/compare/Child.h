// Timing a phase in a child process: every phase of the compare benchmark
// runs in a child forked for it, so that its peak memory (ru_maxrss from
// wait4) is its own, and a crash of another system's library ends only
// that phase.
//
// Invariants:
// (1) A phase's time is the span between its Clock's Start and Stop; what
//     comes before Start is preparation and is not counted.
// (2) Dirty pages are synced before the clock starts, so that one phase's
//     writes are not charged to the next.
// Thread safety: call from the benchmark's one thread (fork).
#ifndef TESSELZOSTREAM_BENCH_COMPARE_CHILD_H_
#define TESSELZOSTREAM_BENCH_COMPARE_CHILD_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace tzcompare {

// The timed span of a phase.
class Clock {
 public:
  void Start();
  // REQUIRES: Start was called; otherwise throws (the phase fails).
  void Stop();
  bool Done() const { return stopped_; }
  double Wall() const { return wall_; }
  double Cpu() const { return cpu_; }

 private:
  std::chrono::steady_clock::time_point start_;
  double wall_ = 0;
  double cpu_ = 0;
  bool started_ = false;
  bool stopped_ = false;
};

struct Outcome {
  bool ok = false;  // the phase ran to its end
  double seconds = 0;
  double cpu = 0;
  long peakKiB = 0;
  std::uint64_t wrong = 0;  // streams read back wrong
  std::string error;
};

// Runs phase(clock), which returns the number of wrong streams, in a forked
// child; the peak resident set is the child's. A phase that throws, ends
// without stopping its clock or dies gives an Outcome with ok false and the
// reason in `error`.
Outcome InChild(const std::function<std::uint64_t(Clock&)>& phase);

}  // namespace tzcompare

#endif  // TESSELZOSTREAM_BENCH_COMPARE_CHILD_H_
