#include "tests/reliability/KillHarness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "tests/TestUtil.h"
#include "tesselzostream/Status.h"

namespace fs = boost::filesystem;

namespace killtest {

const char* OpName(Op op) {
  switch (op) {
    case Op::kOpen: return "open";
    case Op::kRewrite: return "write stream";
    case Op::kOverwrite: return "overwrite/append";
    case Op::kDelete: return "delete stream";
    case Op::kFlush: return "flush";
    case Op::kClose: return "close";
    case Op::kCopyBack: return "copy back";
    case Op::kSaveAs: return "save as";
    case Op::kCloseSave: return "close with save";
    case Op::kCompact: return "compact";
    case Op::kEncrypt: return "encrypt pass";
    case Op::kDecrypt: return "decrypt pass";
    case Op::kFail: return "failure";
  }
  return "?";
}

ProgressLog::ProgressLog(const std::string& path)
    : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644)) {}

ProgressLog::~ProgressLog() {
  if (fd_ >= 0) ::close(fd_);
}

void ProgressLog::Put(const Record& record) {
  if (fd_ < 0) return;
  const ssize_t wrote = ::write(fd_, &record, sizeof record);
  (void)wrote;  // a short log shows as a missing step, which the parent tolerates
}

void ProgressLog::Begin(Op op, std::uint32_t name, std::uint32_t version, std::uint32_t offset,
                        std::uint32_t length) {
  Put({0, op, name, version, offset, length});
}

void ProgressLog::Done(Op op, std::uint32_t name, std::uint32_t version, std::uint32_t offset,
                       std::uint32_t length) {
  Put({1, op, name, version, offset, length});
}

std::vector<Record> ProgressLog::ReadAll(const std::string& path) {
  const tztest::FileBytes bytes = tztest::ReadAll(path);
  std::vector<Record> log(bytes.size() / sizeof(Record));
  if (!log.empty()) std::memcpy(log.data(), bytes.data(), log.size() * sizeof(Record));
  return log;
}

const Record* InFlight(const std::vector<Record>& log) {
  if (log.empty() || log.back().done != 0) return nullptr;
  return &log.back();
}

std::string PhaseOf(const std::vector<Record>& log) {
  if (log.empty()) return "before the first step";
  const Record* step = InFlight(log);
  return step == nullptr ? "between steps" : OpName(step->op);
}

std::string StreamName(std::uint32_t index) {
  char text[32];
  std::snprintf(text, sizeof text, "stream-%02u", index);
  return text;
}

std::string Content(std::uint32_t index, std::uint32_t version, std::uint32_t length) {
  std::string bytes(length, '\0');
  std::uint64_t state = (std::uint64_t{index} << 32) ^ version ^ 0x9E3779B97F4A7C15ull;
  for (std::uint32_t i = 0; i < length; i += 8) {
    // splitmix64: every (index, version) gives its own bytes
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    for (std::uint32_t k = 0; k < 8 && i + k < length; ++k) bytes[i + k] = static_cast<char>(z >> (8 * k));
  }
  return bytes;
}

void ApplyWrite(Streams& streams, const Record& record) {
  const std::string piece = Content(record.name, record.version, record.length);
  if (record.op == Op::kRewrite) {
    streams[record.name] = piece;
    return;
  }
  std::string& content = streams[record.name];
  if (content.size() < record.offset + record.length) content.resize(record.offset + record.length);
  content.replace(record.offset, record.length, piece);
}

Workload::~Workload() = default;

int KillPointsPerWorkload() {
  const char* text = std::getenv("TZ_KILL_POINTS");
  const int total = text != nullptr ? std::atoi(text) : 0;
  return total > 0 ? std::max(1, total / 5) : 20;
}

std::vector<std::string> ForbiddenProblems(const CheckReport& report,
                                           const std::set<std::string>& unsettled,
                                           const std::set<CheckProblem::Kind>& allowedOnUnsettled,
                                           std::uint32_t* leaked) {
  std::vector<std::string> bad;
  *leaked = 0;
  if (!report.opened) bad.push_back("checker could not read the file: " + report.openError);
  for (const CheckProblem& problem : report.problems) {
    if (problem.kind == CheckProblem::kUnreached) {
      ++*leaked;
      continue;
    }
    if (unsettled.count(problem.stream) != 0 && allowedOnUnsettled.count(problem.kind) != 0) continue;
    bad.push_back(problem.text);
  }
  if (report.problemCount > report.problems.size()) bad.push_back("more problems than listed");
  return bad;
}

std::size_t SetAsideSharedBlocks(CheckReport& report, const std::set<std::string>& touched, Tally& tally) {
  auto shared = [&touched](const CheckProblem& problem) {
    return problem.kind == CheckProblem::kClaimedTwice && touched.count(problem.stream) != 0;
  };
  const auto count = std::count_if(report.problems.begin(), report.problems.end(), shared);
  if (count == 0) return 0;
  tally.Note("block claimed twice by a chain the killed session changed (files with some)");
  report.problems.erase(std::remove_if(report.problems.begin(), report.problems.end(), shared),
                        report.problems.end());
  report.problemCount -= static_cast<std::uint64_t>(count);
  return static_cast<std::size_t>(count);
}

std::set<std::string> StreamsWithProblems(const CheckReport& report) {
  std::set<std::string> streams;
  for (const CheckProblem& problem : report.problems) {
    if (problem.kind != CheckProblem::kUnreached && !problem.stream.empty()) streams.insert(problem.stream);
  }
  return streams;
}

std::string KeepEvidence(const std::string& dir, const std::string& label) {
  const fs::path target = fs::temp_directory_path() / ("tz-kill-evidence-" + label);
  boost::system::error_code ignored;
  fs::remove_all(target, ignored);
  fs::create_directories(target, ignored);
  for (fs::recursive_directory_iterator it(dir, ignored), end; it != end; it.increment(ignored)) {
    const fs::path relative = fs::relative(it->path(), dir, ignored);
    if (fs::is_directory(it->status())) {
      fs::create_directories(target / relative, ignored);
    } else {
      fs::copy_file(it->path(), target / relative, fs::copy_option::overwrite_if_exists, ignored);
    }
  }
  return target.string();
}

namespace {

using Clock = std::chrono::steady_clock;

void SleepSeconds(double seconds) {
  if (seconds <= 0) return;
  timespec span;
  span.tv_sec = static_cast<time_t>(seconds);
  span.tv_nsec = static_cast<long>((seconds - static_cast<double>(span.tv_sec)) * 1e9);
  while (nanosleep(&span, &span) != 0) {
  }
}

struct ChildResult {
  bool killed = false;
  int exitCode = 0;
  double seconds = 0;
};

// Forks a child that runs `steps` steps; kills it after `delay` seconds
// unless `delay` is negative.
ChildResult RunChild(Workload& workload, const std::string& logPath, std::uint64_t seed, int steps,
                     double delay) {
  std::fflush(nullptr);
  // Emptied here, not in the child: a child killed before it opens the log
  // must leave an empty log, not its predecessor's.
  tztest::WriteAll(logPath, {});
  const Clock::time_point start = Clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    int code = 0;
    {
      ProgressLog log(logPath);
      try {
        workload.RunChild(log, seed, steps);
      } catch (...) {
        code = 3;
      }
    }
    _exit(code);
  }
  ChildResult result;
  if (pid < 0) {
    ADD_FAILURE() << "fork failed";
    return result;
  }
  if (delay >= 0) {
    SleepSeconds(delay);
    ::kill(pid, SIGKILL);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
  }
  result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  result.killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace

Tally RunKills(Workload& workload, const char* name, const KillPlan& plan) {
  Tally tally;
  tztest::ScratchDir scratch;
  const std::string logPath = scratch.Path("progress.log");
  const Clock::time_point start = Clock::now();
  std::mt19937_64 rng(plan.seed);
  int life = 0;
  int killsThisLife = 0;
  auto freshLife = [&]() {
    const std::string dir = scratch.Path("life" + std::to_string(life++));
    fs::create_directories(dir);
    workload.StartLife(dir);
    killsThisLife = 0;
    ++tally.lives;
  };
  auto check = [&](const ChildResult& run, const std::string& label) {
    const std::vector<Record> log = ProgressLog::ReadAll(logPath);
    tally.where = std::string(name) + " " + label + ", phase " + PhaseOf(log);
    if (!run.killed && run.exitCode != 0) {
      ADD_FAILURE() << tally.where << ": the child exited with " << run.exitCode;
    }
    for (const Record& record : log) {
      if (record.op == Op::kFail) ADD_FAILURE() << tally.where << ": child failure " << record.offset;
    }
    bool goOn = false;
    try {
      goOn = workload.Check(log, run.killed, tally);
    } catch (const std::exception& e) {
      ADD_FAILURE() << tally.where << ": the check met an exception: " << e.what();
    } catch (ZoStreamE::Status status) {  // what Open throws for a broken directory chain
      ADD_FAILURE() << tally.where << ": an open threw status " << status;
    }
    if (::testing::Test::HasFailure()) {
      std::printf("  evidence of %s kept in %s\n", tally.where.c_str(),
                  KeepEvidence(scratch.path(), name).c_str());
    }
    return goOn && !::testing::Test::HasFailure();
  };

  // Calibration: one unkilled run per level gives the length of that run.
  freshLife();
  std::vector<double> lengths(static_cast<std::size_t>(plan.levels));
  for (int level = 1; level <= plan.levels; ++level) {
    const ChildResult run = RunChild(workload, logPath, rng(), plan.baseSteps * level, -1);
    lengths[static_cast<std::size_t>(level - 1)] = run.seconds;
    ++tally.completed;
    if (!check(run, "calibration level " + std::to_string(level))) {
      if (::testing::Test::HasFailure()) return tally;
      freshLife();
    }
  }

  std::uniform_int_distribution<int> pickLevel(1, plan.levels);
  int attempts = 0;
  while (tally.kills < plan.kills && attempts < plan.kills * 4) {
    ++attempts;
    if (killsThisLife >= plan.killsPerLife) freshLife();
    const int level = pickLevel(rng);
    // Up to 10% beyond the measured length: a few runs finish, which checks
    // the clean end as well.
    std::uniform_real_distribution<double> pickDelay(0, 1.1 * lengths[static_cast<std::size_t>(level - 1)]);
    const double delay = pickDelay(rng);
    const ChildResult run = RunChild(workload, logPath, rng(), plan.baseSteps * level, delay);
    if (run.killed) {
      ++tally.kills;
      ++killsThisLife;
    } else {
      ++tally.completed;
    }
    const std::vector<Record> log = ProgressLog::ReadAll(logPath);
    if (run.killed) ++tally.phases[PhaseOf(log)];
    if (!check(run, "kill " + std::to_string(tally.kills) + " (level " + std::to_string(level) + ")")) {
      if (::testing::Test::HasFailure()) break;
      freshLife();
    }
  }
  tally.seconds = std::chrono::duration<double>(Clock::now() - start).count();

  std::printf("[kill] %s: %d kill points, %d runs to the end, %d lives, %.1f s\n", name, tally.kills,
              tally.completed, tally.lives, tally.seconds);
  for (const auto& phase : tally.phases) std::printf("[kill]   phase %-22s %d\n", phase.first.c_str(), phase.second);
  for (const auto& finding : tally.findings) std::printf("[kill]   found: %s: %d\n", finding.first.c_str(), finding.second);
  std::fflush(stdout);
  return tally;
}

}  // namespace killtest
