#include "bench/compare/Child.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>

#include <tesselzostream/tesselzostream.h>

#include "bench/compare/Workload.h"

namespace tzcompare {

namespace {

double CpuSeconds() {
  rusage r{};
  ::getrusage(RUSAGE_SELF, &r);
  auto sec = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; };
  return sec(r.ru_utime) + sec(r.ru_stime);
}

// What the child sends back through its pipe.
struct Report {
  double seconds;
  double cpu;
  std::uint64_t wrong;
  int ok;
  char error[240];
};

}  // namespace

void Clock::Start() {
  ::sync();  // earlier dirty pages go to disk outside the timed span
  cpu_ = CpuSeconds();
  start_ = std::chrono::steady_clock::now();
  started_ = true;
}

void Clock::Stop() {
  if (!started_) Fail("a phase stopped a clock it never started");
  wall_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  cpu_ = CpuSeconds() - cpu_;
  stopped_ = true;
}

Outcome InChild(const std::function<std::uint64_t(Clock&)>& phase) {
  std::fflush(stdout);
  std::fflush(stderr);
  int fds[2];
  if (::pipe(fds) != 0) Fail("pipe failed");
  const pid_t pid = ::fork();
  if (pid < 0) Fail("fork failed");
  if (pid == 0) {
    ::close(fds[0]);
    Report report{};
    try {
      Clock clock;
      report.wrong = phase(clock);
      if (!clock.Done()) Fail("a phase ended without stopping its clock");
      report.seconds = clock.Wall();
      report.cpu = clock.Cpu();
      report.ok = 1;
    } catch (const std::exception& e) {
      std::snprintf(report.error, sizeof report.error, "%s", e.what());
    } catch (const ZoStreamE::Status& status) {  // Open's report of a damaged directory
      std::snprintf(report.error, sizeof report.error, "compound file status %d", static_cast<int>(status));
    } catch (...) {
      std::snprintf(report.error, sizeof report.error, "unknown exception");
    }
    const char* p = reinterpret_cast<const char*>(&report);
    for (std::size_t left = sizeof report; left > 0;) {
      const ssize_t n = ::write(fds[1], p, left);
      if (n <= 0) break;
      p += n;
      left -= static_cast<std::size_t>(n);
    }
    ::_exit(0);
  }
  ::close(fds[1]);
  Report report{};
  char* p = reinterpret_cast<char*>(&report);
  std::size_t got = 0;
  while (got < sizeof report) {
    const ssize_t n = ::read(fds[0], p + got, sizeof report - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  ::close(fds[0]);
  int status = 0;
  rusage usage{};
  while (::wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  Outcome o;
  o.peakKiB = usage.ru_maxrss;
  if (got != sizeof report) {
    o.error = WIFSIGNALED(status) ? "child killed by signal " + std::to_string(WTERMSIG(status)) : "child sent no report";
    return o;
  }
  o.ok = report.ok != 0;
  o.seconds = report.seconds;
  o.cpu = report.cpu;
  o.wrong = report.wrong;
  o.error = report.error;
  return o;
}
}  // namespace tzcompare
