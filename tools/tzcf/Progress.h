// Progress of long work, on stderr, for a person watching.
//
// Nothing is drawn unless stderr is a terminal and the command was not
// asked to be quiet, so scripts and pipes see no control characters. The
// line appears only once the work has run for half a second (short work
// stays silent), is redrawn at most ten times a second, and is wiped when
// the work ends, so later messages start on a clean line.
#ifndef TESSELZOSTREAM_TOOLS_TZCF_PROGRESS_H_
#define TESSELZOSTREAM_TOOLS_TZCF_PROGRESS_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace tzcf {

// "1.5 MiB" and the like.
std::string HumanBytes(std::uint64_t bytes);

// A bar for work of a known number of bytes: bytes done, rate, time left.
class Progress {
 public:
  Progress(const std::string& label, std::uint64_t total, bool quiet);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Add(std::uint64_t bytes);
  // Wipes the line so that a message can be written; the next Add draws it
  // again.
  void Clear();
  // Wipes the line; later calls draw nothing.
  void Done();

 private:
  using Clock = std::chrono::steady_clock;
  bool enabled_;
  bool drawn_ = false;
  std::string label_;
  std::uint64_t total_;
  std::uint64_t done_ = 0;
  Clock::time_point start_;
  Clock::time_point last_;
};

// For work that gives no account of itself while it runs (a compaction, a
// check, a cipher pass): a thread shows the size of the job and the time
// spent on it. When the work is known to write about `writes` bytes, the
// thread draws a Progress bar instead, from the bytes this process has
// written so far (wchar of /proc/self/io), where the system tells them.
class BusyLine {
 public:
  BusyLine(const std::string& label, std::uint64_t total, bool quiet, std::uint64_t writes = 0);
  ~BusyLine();  // stops the thread and wipes the line
  BusyLine(const BusyLine&) = delete;
  BusyLine& operator=(const BusyLine&) = delete;

 private:
  void Run(const std::string& label, std::uint64_t total, std::uint64_t writes);
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace tzcf

#endif  // TESSELZOSTREAM_TOOLS_TZCF_PROGRESS_H_
