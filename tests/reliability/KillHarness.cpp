#include "tests/reliability/KillHarness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <thread>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "tests/TestUtil.h"

namespace killtest {

namespace {
using tzformat::kFreeListName;
using Clock = std::chrono::steady_clock;

std::string PhaseOf(const std::vector<Record>& log) {
  static const char* const kNames[] = {"?", "open", "write stream", "overwrite/append", "delete stream", "flush",
                                       "close", "copy back", "save as", "close with save", "compact",
                                       "encrypt pass", "decrypt pass", "failure", "begin batch",
                                       "end batch", "scrub"};
  if (log.empty()) return "before the first step";
  const Record* step = InFlight(log);
  return step == nullptr ? "between steps" : kNames[static_cast<int>(step->op)];
}

int KillPointsPerWorkload() {
  const char* text = std::getenv("TZ_KILL_POINTS");
  const int total = text != nullptr ? std::atoi(text) : 0;
  return total > 0 ? std::max(1, total / 5) : 20;
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
  // Emptied here: a child killed before it opens the log must leave an
  // empty log, not its predecessor's.
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
    std::this_thread::sleep_for(std::chrono::duration<double>(delay));
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

void OpenWith(CompoundFile& file, const std::string& path, int password) {
  file.Open(path.c_str(), ZoStreamE::OpenReadWrite);
  if (password != 0) file.SetPassword(PasswordText(password).c_str());
}

// Problems listed in `report` other than blocks no chain holds.
std::uint64_t ListedBeyondLeaks(const CheckReport& report) {
  std::uint64_t n = 0;
  for (const CheckProblem& problem : report.problems) n += problem.kind != CheckProblem::kUnreached ? 1 : 0;
  return n;
}

CheckReport CheckWith(const std::string& path, int password) {
  return CheckCompoundFile(path.c_str(), password != 0 ? PasswordText(password).c_str() : nullptr);
}
}  // namespace

ProgressLog::ProgressLog(const std::string& path)
    : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644)) {}

ProgressLog::~ProgressLog() {
  if (fd_ >= 0) ::close(fd_);
}

void ProgressLog::Put(const Record& record) {
  // A short log shows as a missing step, which the parent tolerates.
  if (fd_ >= 0 && ::write(fd_, &record, sizeof record) < 0) return;
}

std::vector<Record> ProgressLog::ReadAll(const std::string& path) {
  const tztest::FileBytes bytes = tztest::ReadAll(path);
  std::vector<Record> log(bytes.size() / sizeof(Record));
  if (!log.empty()) std::memcpy(log.data(), bytes.data(), log.size() * sizeof(Record));
  return log;
}

const Record* InFlight(const std::vector<Record>& log) {
  return log.empty() || log.back().done != 0 ? nullptr : &log.back();
}

std::string StreamName(std::uint32_t index) {
  char text[32];
  std::snprintf(text, sizeof text, "stream-%02u", index);
  return text;
}

std::uint32_t IndexOf(const std::string& name) {
  return static_cast<std::uint32_t>(std::stoul(name.substr(name.find('-') + 1)));
}

// The bytes of a record: its own for every (stream, version), rebuilt
// from the log after a kill.
std::string Content(std::uint32_t index, std::uint32_t version, std::uint32_t length) {
  return tzsupport::RecordBytes(index, version, length);
}

void ApplyWrite(Streams& streams, const Record& record) {
  const std::string piece = Content(record.name, record.version, record.length);
  std::string& content = streams[record.name];
  if (record.op == Op::kRewrite) content.clear();
  if (content.size() < record.offset + record.length) content.resize(record.offset + record.length);
  content.replace(record.offset, record.length, piece);
}

void Put(CompoundFile& file, std::uint32_t index, const std::string& content) {
  ASSERT_TRUE(tztest::PutStream(file, StreamName(index).c_str(), content));
}

std::string PasswordText(int number) { return "password-" + std::to_string(number); }

void RunKills(Workload& workload, const char* name, const KillPlan& plan) {
  constexpr int kLevels = 4;
  const int kills = plan.kills > 0 ? plan.kills : KillPointsPerWorkload();
  Tally tally;
  tztest::ScratchDir scratch;
  const std::string logPath = scratch.Path("progress.log");
  const Clock::time_point start = Clock::now();
  std::mt19937_64 rng(plan.seed);
  int life = 0, killsThisLife = 0;
  auto freshLife = [&]() {
    const std::string dir = scratch.Path("life" + std::to_string(life++));
    boost::filesystem::create_directories(dir);
    workload.StartLife(dir);
    killsThisLife = 0;
    ++tally.lives;
  };
  // One child at `level`, killed after `delay` unless negative; false ends
  // the run on a failure.
  auto runOne = [&](int level, double delay, const std::string& label, double* seconds) {
    const ChildResult run = RunChild(workload, logPath, rng(), plan.baseSteps * level, delay);
    if (seconds != nullptr) *seconds = run.seconds;
    const std::vector<Record> log = ProgressLog::ReadAll(logPath);
    ++(run.killed ? tally.kills : tally.completed);
    if (run.killed) ++killsThisLife, ++tally.phases[PhaseOf(log)];
    tally.where = std::string(name) + " " + label + " (level " + std::to_string(level) + "), phase " + PhaseOf(log);
    if (!run.killed && run.exitCode != 0) ADD_FAILURE() << tally.where << ": the child exited with " << run.exitCode;
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
      scratch.Keep();
      std::printf("  evidence of %s kept in %s\n", tally.where.c_str(), scratch.path().c_str());
      return false;
    }
    if (!goOn) freshLife();
    return true;
  };

  // Calibration: one unkilled run per level gives the length of that run.
  freshLife();
  double lengths[kLevels];
  for (int level = 1; level <= kLevels; ++level) {
    if (!runOne(level, -1, "calibration", &lengths[level - 1])) return;
  }
  std::uniform_int_distribution<int> pickLevel(1, kLevels);
  for (int attempts = 0; tally.kills < kills && attempts < kills * 4; ++attempts) {
    if (killsThisLife >= plan.killsPerLife) freshLife();
    const int level = pickLevel(rng);
    // Up to 10% beyond the measured length: a few runs finish, which checks
    // the clean end as well.
    std::uniform_real_distribution<double> pickDelay(0, 1.1 * lengths[level - 1]);
    if (!runOne(level, pickDelay(rng), "kill " + std::to_string(tally.kills + 1), nullptr)) break;
  }
  std::printf("[kill] %s: %d kill points, %d runs to the end, %d lives, %.1f s\n", name, tally.kills,
              tally.completed, tally.lives, std::chrono::duration<double>(Clock::now() - start).count());
  for (const auto& phase : tally.phases) std::printf("[kill]   phase %-22s %d\n", phase.first.c_str(), phase.second);
  for (const auto& finding : tally.findings) std::printf("[kill]   found: %s: %d\n", finding.first.c_str(), finding.second);
  std::fflush(stdout);
}

bool WriteInPieces(std::ostream& out, const std::string& bytes, std::mt19937_64& rng) {
  static const std::size_t kPieces[] = {1, 59, 1003, 1004, 4096, 10240, 10241, 23, 65536};
  for (std::size_t done = 0; done < bytes.size() && out.good();) {
    const std::size_t piece = std::min(kPieces[rng() % (sizeof kPieces / sizeof kPieces[0])], bytes.size() - done);
    out.write(bytes.data() + done, static_cast<std::streamsize>(piece));
    done += piece;
  }
  out.flush();
  return out.good();
}

std::uint32_t PickLength(std::mt19937_64& rng) {
  const std::uint32_t kind = static_cast<std::uint32_t>(rng() % 20);
  return static_cast<std::uint32_t>(rng() % (kind < 14 ? 6000 : kind < 19 ? 40000 : 200000));
}

Record PlanWrite(std::mt19937_64& rng, bool replace, std::uint32_t name, std::uint32_t version, std::size_t size) {
  const std::uint32_t length = replace ? PickLength(rng) : 1 + PickLength(rng) / 4;
  const std::uint32_t offset = replace ? 0 : static_cast<std::uint32_t>(rng() % (size + 1));
  return {0, replace ? Op::kRewrite : Op::kOverwrite, name, version, offset, length};
}

bool WriteRecord(std::ostream* out, const Record& record, std::mt19937_64& rng) {
  const std::unique_ptr<std::ostream> stream(out);
  return out != nullptr && (record.op == Op::kRewrite || out->seekp(record.offset)) &&
         WriteInPieces(*out, Content(record.name, record.version, record.length), rng);
}

std::uint32_t PickIn(const Streams& streams, std::mt19937_64& rng) {
  return std::next(streams.begin(), static_cast<long>(rng() % streams.size()))->first;
}

namespace {
bool Reopen(Editor& editor, ProgressLog& log, bool close) {
  if (close) {
    log.Begin(Op::kClose);
    editor.Close();
    log.Done(Op::kClose);
  }
  log.Begin(Op::kOpen);
  if (!editor.Open()) return log.Fail(1), false;
  log.Done(Op::kOpen);
  return true;
}

bool EditStep(Editor& editor, ProgressLog& log, std::mt19937_64& rng, const Odds& odds, std::uint32_t names,
              Streams& streams, std::uint32_t& version) {
  const int roll = static_cast<int>(rng() % 100);
  if (roll < odds.write || streams.empty()) {
    const bool replace = roll < odds.replace || streams.empty();
    const std::uint32_t name = replace ? static_cast<std::uint32_t>(rng() % names) : PickIn(streams, rng);
    const Record write = PlanWrite(rng, replace, name, version++, streams[name].size());
    log.Begin(write);
    if (!WriteRecord(editor.Stream(name, replace), write, rng)) return log.Fail(2), false;
    ApplyWrite(streams, write);  // the stream was released before the step counts as done
    log.Done(write);
    return true;
  }
  if (roll < odds.remove) {
    const std::uint32_t name = PickIn(streams, rng);
    log.Begin(Op::kDelete, name);
    if (!editor.Delete(name)) return log.Fail(4), false;
    streams.erase(name);
    log.Done(Op::kDelete, name);
    return true;
  }
  if (roll < odds.flush && editor.CanFlush()) {
    log.Begin(Op::kFlush);
    editor.Flush();
    log.Done(Op::kFlush);
    return true;
  }
  const int other = editor.Other(roll, log, rng);
  return other < 0 ? Reopen(editor, log, true) : other > 0;
}
}  // namespace

void RunEdits(Editor& editor, ProgressLog& log, std::mt19937_64& rng, int steps, const Odds& odds,
              std::uint32_t names, Streams& streams, std::uint32_t& version) {
  if (!Reopen(editor, log, false)) return;
  for (int step = 0; step < steps; ++step) {
    if (!EditStep(editor, log, rng, odds, names, streams, version)) return;
  }
  log.Begin(Op::kClose);
  editor.Close();
  log.Done(Op::kClose);
}

bool FileEditor::Open() {
  if (pure_) return source_.Open(path_.c_str(), false);
  if (file_.Open(path_.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk &&
      file_.GetStatus() != ZoStreamE::StatusPasswordNeeded)
    return false;
  return password_ == 0 || file_.SetPassword(PasswordText(password_).c_str());
}

void FileEditor::Close() { pure_ ? source_.Close() : static_cast<void>(file_.Close()); }

std::ostream* FileEditor::Stream(std::uint32_t index, bool replace) {
  const std::string name = StreamName(index);
  if (!pure_) return file_.GetIOStream(name.c_str(), replace ? "wb" : "r+b");
  return replace ? source_.GetOStream(name.c_str()) : source_.GetIOStream(name.c_str());
}

bool FileEditor::Delete(std::uint32_t index) {
  const std::string name = StreamName(index);
  if (!pure_) return file_.DeleteCFFile(name.c_str());
  source_.DeleteSource(name.c_str());
  return !source_.StreamExists(name.c_str());
}

bool OpensForWriting(CompoundFile& file, const std::string& path, const Tally& tally) {
  const ZoStreamE::Status status = file.Open(path.c_str(), ZoStreamE::OpenReadWrite);
  if (status == ZoStreamE::StatusOk) return true;
  ADD_FAILURE() << tally.where << ": the file does not open for writing (status " << status << ")";
  return false;
}

bool ReadStream(CompoundFile& file, const std::string& name, std::string* out) {
  bool ok = false;
  *out = tztest::GetStream(file, name.c_str(), &ok);
  return ok && file.GetStatus() == ZoStreamE::StatusOk;
}

std::set<std::string> NamesIn(const CompoundFile& file) {
  std::set<std::string> names;
  unsigned long cursor = 0;
  for (const char* name = file.GetFirstDirName(&cursor); name != nullptr; name = file.GetNextDirName(&cursor)) {
    if (std::string(name) != kFreeListName) names.insert(name);
  }
  return names;
}

int ExpectSettled(CompoundFile& file, const Streams& expected, const std::set<std::string>& touched,
                  const std::string& where) {
  int faults = 0;
  std::set<std::string> known(touched);
  for (const auto& stream : expected) {
    const std::string name = StreamName(stream.first);
    known.insert(name);
    std::string got;
    if (touched.count(name) != 0) continue;
    if (!ReadStream(file, name, &got)) {
      ADD_FAILURE() << where << ": saved stream " << name << " cannot be read (status " << file.GetStatus() << ")";
      ++faults;
    } else if (got != stream.second) {
      ADD_FAILURE() << where << ": saved stream " << name << " reads back " << got.size() << " bytes, not the "
                    << stream.second.size() << " bytes last written";
      ++faults;
    }
  }
  for (const std::string& name : NamesIn(file)) {
    if (known.count(name) != 0) continue;
    ADD_FAILURE() << where << ": stream " << name << " is in the file, but was deleted for good";
    ++faults;
  }
  return faults;
}

namespace {
// Whether the chain of one of the `touched` streams, as the file's bytes
// hold it (heads are never enciphered), passes through `block`.
bool TouchedChainsReach(const tztest::FileBytes& bytes, const std::set<std::string>& touched, std::uint32_t block) {
  for (const std::string& name : touched) {
    std::uint32_t first = 0;
    try {
      first = tztest::FirstBlockOf(bytes, name.c_str());
    } catch (const std::logic_error&) {
      continue;  // not in the directory on disk
    }
    const auto chain = tztest::Chain(bytes, first);
    if (std::find(chain.begin(), chain.end(), block) != chain.end()) return true;
  }
  return false;
}
}  // namespace

KillReport CheckKilled(const std::string& path, int password, const std::set<std::string>& touched,
                       bool mapTouched, bool judge, Tally& tally) {
  static const std::set<CheckProblem::Kind> kAllowed{CheckProblem::kFreeInHead, CheckProblem::kChainShort,
                                                     CheckProblem::kChainLink, CheckProblem::kSavedMap,
                                                     CheckProblem::kChainLoop};
  const CheckReport report = CheckWith(path, password);
  KillReport result;
  bool leaked = false;
  tztest::FileBytes fileBytes;  // read at the first shared block, if any
  bool fileRead = false;
  auto bytes = [&]() -> const tztest::FileBytes& {
    if (!fileRead) fileBytes = tztest::ReadAll(path), fileRead = true;
    return fileBytes;
  };
  if (judge && !report.opened) ADD_FAILURE() << tally.where << ": checker could not read the file: " << report.openError;
  for (const CheckProblem& problem : report.problems) {
    if (problem.kind == CheckProblem::kUnreached) {
      leaked = true;
      continue;
    }
    if (!problem.stream.empty()) result.damaged.insert(problem.stream);
    // A shared block is named for the second chain that reaches it; it is
    // the killed session's doing when a chain it changed reaches it too.
    const bool mine = touched.count(problem.stream) != 0 ||
                      (problem.kind == CheckProblem::kClaimedTwice && TouchedChainsReach(bytes(), touched, problem.block));
    if (mine && touched.count(problem.stream) == 0) tally.Note("shared block named for a settled stream, reached by a changed chain");
    const bool allowed = mine || (mapTouched && problem.stream == kFreeListName);
    if (mine && problem.kind == CheckProblem::kChainLoop) result.looping = true;
    if (!judge) continue;
    if (allowed && problem.kind == CheckProblem::kClaimedTwice) {
      result.shared = true;
    } else if (!allowed || kAllowed.count(problem.kind) == 0) {
      ADD_FAILURE() << tally.where << ": after the kill: " << problem.text;
    }
  }
  // Blocks no chain holds may be more than the report lists (a compaction
  // killed after a batch of copies); any other problem left unlisted fails.
  if (judge && report.problemCount - report.unreachedBlocks > ListedBeyondLeaks(report)) {
    ADD_FAILURE() << tally.where << ": more problems than listed";
  }
  if (result.shared) tally.Note("block claimed twice by a chain the killed session changed (files with some)");
  if (leaked) tally.Note("leaked blocks after the kill (files with some)");
  return result;
}

bool Recover(const std::string& path, int password, const KillReport& report, Wholes wholes,
             Streams& settled, Tally& tally) {
  if (report.looping) {
    tally.Note("touched stream's chain loops: file given up");
    return false;
  }
  for (auto& stream : wholes) {
    const std::string name = StreamName(stream.first);
    settled.erase(stream.first);
    if (!report.shared && report.damaged.count(name) != 0) tally.Note("touched stream with a damaged chain: deleted");
    if (report.shared || report.damaged.count(name) != 0) stream.second.clear();
    CompoundFile file;
    OpenWith(file, path, password);
    if (!file.Exists(name.c_str())) {
      tally.Note("touched stream: gone");
      continue;
    }
    std::string got;
    const bool read = ReadStream(file, name, &got);
    const auto match = std::find_if(stream.second.begin(), stream.second.end(),
                                    [&](const Whole& whole) { return read && got == whole.content; });
    if (match != stream.second.end()) {
      tally.Note("touched stream: " + match->label);
      settled[stream.first] = got;
      continue;
    }
    tally.Note(read ? "touched stream: partial, deleted" : "touched stream: unreadable, deleted");
    if (!read) {  // a failed read stops the handle; a fresh one deletes
      file.Close();
      OpenWith(file, path, password);
    }
    // A link past the end, left by a cut write, stops a deletion, and
    // nothing mends such a file.
    if (!file.DeleteCFFile(name.c_str()) && file.GetStatus() == ZoStreamE::StatusPastEnd) {
      tally.Note("touched stream links past the end: cannot be deleted, file given up");
      return false;
    }
    EXPECT_EQ(file.GetStatus(), ZoStreamE::StatusOk) << tally.where << ": touched " << name << " cannot be deleted";
    EXPECT_EQ(file.Close(), ZoStreamE::StatusOk) << tally.where << ": closing after deleting " << name;
  }
  return true;
}

void ExpectSound(const std::string& path, int password, const std::string& where) {
  const CheckReport report = CheckWith(path, password);
  if (!report.opened) ADD_FAILURE() << where << ": checker could not read the file: " << report.openError;
  for (const CheckProblem& problem : report.problems) {
    if (problem.kind != CheckProblem::kUnreached) ADD_FAILURE() << where << ": " << problem.text;
  }
  if (report.problemCount - report.unreachedBlocks > ListedBeyondLeaks(report)) {
    ADD_FAILURE() << where << ": more problems than listed";
  }
}

}  // namespace killtest
