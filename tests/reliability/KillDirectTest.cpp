// Kills during edits that go straight to the compound file: block streams
// of CompoundFile, the direct stream source, and an encrypted file with its
// cipher passes.
//
// What a kill may leave, by the library's rules: a stream deleted, replaced
// or written in the killed session (since its last open) is "unsettled":
// it may read as any version it had in that session, be gone, or hold a
// mix, and its chain may share blocks with another chain the session wrote
// (a freed block keeps its data and link until the session reuses it, and
// the directory on disk may still name the stream). The parent keeps what
// it finds when that is a whole version and deletes the stream otherwise.
// Every stream the killed session did not touch must read back exactly.
// A file killed in the run that created it, before its first directory
// write, may not open at all; a cipher pass cut short leaves a file that
// every open refuses.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>

#include <gtest/gtest.h>

#include "tests/TestUtil.h"
#include "tests/reliability/KillFiles.h"
#include "tests/reliability/KillHarness.h"

namespace killtest {
namespace {

constexpr std::uint32_t kNames = 12;

enum class Backend { kBlockStreams, kPureSource, kEncrypted };

// What a kill may leave on a stream the killed session changed: blocks it
// freed or appended (their heads are written before the directory), a size
// the chain does not reach yet, and a link to a block that had not reached
// the file; and blocks the chain reaches through a link the session wrote
// that the saved map of the last close calls free, since the directory,
// unchanged on disk, names no such block; and a chain that comes back to
// itself through the links of blocks the session freed and wrote again.
const std::set<CheckProblem::Kind> kAllowedOnUnsettled{CheckProblem::kFreeInHead, CheckProblem::kChainShort,
                                                       CheckProblem::kChainLink, CheckProblem::kSavedMap,
                                                       CheckProblem::kChainLoop};

// The child's handle on the file, through the chosen interface.
class Session {
 public:
  Session(Backend backend, const std::string& path, int password)
      : backend_(backend), path_(path), password_(password) {}

  bool Open() {
    if (backend_ == Backend::kPureSource) return source_.Open(path_.c_str(), false);
    if (file_.Open(path_.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk &&
        file_.GetStatus() != ZoStreamE::StatusPasswordNeeded)
      return false;
    return password_ == 0 || file_.SetPassword(PasswordText(password_).c_str());
  }
  void Close() {
    if (backend_ == Backend::kPureSource) {
      source_.Close();
    } else {
      file_.Close();
    }
  }
  std::unique_ptr<std::ostream> Replace(const std::string& name) {
    if (backend_ == Backend::kPureSource) return std::unique_ptr<std::ostream>(source_.GetOStream(name.c_str()));
    return std::unique_ptr<std::ostream>(file_.GetIOStream(name.c_str(), "wb"));
  }
  std::unique_ptr<std::iostream> Update(const std::string& name) {
    if (backend_ == Backend::kPureSource) return std::unique_ptr<std::iostream>(source_.GetIOStream(name.c_str()));
    return std::unique_ptr<std::iostream>(file_.GetIOStream(name.c_str(), "r+b"));
  }
  bool Delete(const std::string& name) {
    if (backend_ != Backend::kPureSource) return file_.DeleteCFFile(name.c_str());
    source_.DeleteSource(name.c_str());
    return !source_.StreamExists(name.c_str());
  }
  bool CanFlush() const { return backend_ != Backend::kPureSource; }
  void Flush() { file_.Flush(); }
  bool Encrypt(int password) {
    password_ = password;
    return file_.Encrypt(PasswordText(password).c_str()) == ZoStreamE::StatusOk;
  }
  bool Decrypt() {
    password_ = 0;
    return file_.Decrypt() == ZoStreamE::StatusOk;
  }

 private:
  Backend backend_;
  std::string path_;
  int password_;
  CompoundFile file_;
  PureCompoundFileStreamSource source_;
};

// What the log says about the streams at the moment of the kill.
struct Replay {
  Streams settled;                 // the model after every finished step
  // Streams the killed session touched, with every whole version each had
  // in it (before the session, after each finished step, after the step
  // under way).
  std::map<std::uint32_t, std::vector<Whole>> touched;
  bool directoryWritten = false;   // a finished step wrote the directory
  const Record* flight = nullptr;  // the step under way
  int password = 0;
  std::uint32_t nextVersion = 1;
};

class DirectWorkload : public Workload {
 public:
  explicit DirectWorkload(Backend backend) : backend_(backend) {}

  void StartLife(const std::string& dir) override {
    path_ = dir + "/direct.cf";
    streams_.clear();
    password_ = 0;
    // Block-stream lives start without a file: the first child creates it.
    fileHasDirectory_ = backend_ != Backend::kBlockStreams;
    if (backend_ == Backend::kBlockStreams) return;
    CompoundFile file;
    ASSERT_EQ(file.Open(path_.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
    for (std::uint32_t i = 0; i < kNames / 2; ++i) {
      const std::string content = Content(i, nextVersion_, 1500 * i + 7);
      std::unique_ptr<std::iostream> out(file.GetIOStream(StreamName(i).c_str(), "wb"));
      out->write(content.data(), static_cast<std::streamsize>(content.size()));
      streams_[i] = content;
      ++nextVersion_;
    }
    if (backend_ == Backend::kEncrypted) {
      password_ = nextPassword_++;
      ASSERT_EQ(file.Encrypt(PasswordText(password_).c_str()), ZoStreamE::StatusOk);
    }
    file.Close();
  }

  void RunChild(ProgressLog& log, std::uint64_t seed, int steps) override {
    std::mt19937_64 rng(seed);
    Session session(backend_, path_, password_);
    log.Begin(Op::kOpen);
    if (!session.Open()) return log.Fail(1);
    log.Done(Op::kOpen);
    for (int step = 0; step < steps; ++step) {
      if (!Step(session, log, rng)) return;
    }
    log.Begin(Op::kClose);
    session.Close();
    log.Done(Op::kClose);
  }

  bool Check(const std::vector<Record>& log, bool killed, Tally& tally) override;

 private:
  bool Step(Session& session, ProgressLog& log, std::mt19937_64& rng);
  bool WriteStep(Session& session, ProgressLog& log, std::mt19937_64& rng, bool replace);
  bool PassStep(Session& session, ProgressLog& log, std::mt19937_64& rng);
  Replay ReplayLog(const std::vector<Record>& log) const;
  bool OpenChecked(CompoundFile& file, const Replay& replay, int* password, Tally& tally);
  std::uint32_t PickExisting(std::mt19937_64& rng) const {
    auto it = streams_.begin();
    std::advance(it, static_cast<long>(rng() % streams_.size()));
    return it->first;
  }

  Backend backend_;
  std::string path_;
  Streams streams_;
  int password_ = 0;
  bool fileHasDirectory_ = false;  // a directory write has reached the file
  int nextPassword_ = 1;
  std::uint32_t nextVersion_ = 1;
};

bool DirectWorkload::Step(Session& session, ProgressLog& log, std::mt19937_64& rng) {
  const int roll = static_cast<int>(rng() % 100);
  if (roll < 45 || streams_.empty()) return WriteStep(session, log, rng, true);
  if (roll < 70) return WriteStep(session, log, rng, false);
  if (roll < 80) {
    const std::uint32_t name = PickExisting(rng);
    log.Begin(Op::kDelete, name);
    if (!session.Delete(StreamName(name))) {
      log.Fail(4);
      return false;
    }
    streams_.erase(name);
    log.Done(Op::kDelete, name);
    return true;
  }
  if (roll < 88 && session.CanFlush()) {
    log.Begin(Op::kFlush);
    session.Flush();
    log.Done(Op::kFlush);
    return true;
  }
  if (roll < 93 && backend_ == Backend::kEncrypted) return PassStep(session, log, rng);
  log.Begin(Op::kClose);
  session.Close();
  log.Done(Op::kClose);
  log.Begin(Op::kOpen);
  if (!session.Open()) {
    log.Fail(1);
    return false;
  }
  log.Done(Op::kOpen);
  return true;
}

bool DirectWorkload::WriteStep(Session& session, ProgressLog& log, std::mt19937_64& rng, bool replace) {
  const std::uint32_t name = replace ? static_cast<std::uint32_t>(rng() % kNames) : PickExisting(rng);
  const std::uint32_t version = nextVersion_++;
  const std::uint32_t length = replace ? PickLength(rng) : 1 + PickLength(rng) / 4;
  const std::uint32_t offset = replace ? 0 : static_cast<std::uint32_t>(rng() % (streams_[name].size() + 1));
  const Op op = replace ? Op::kRewrite : Op::kOverwrite;
  log.Begin(op, name, version, offset, length);
  const std::string bytes = Content(name, version, length);
  bool good = false;
  if (replace) {
    std::unique_ptr<std::ostream> out = session.Replace(StreamName(name));
    good = out != nullptr && WriteInPieces(*out, bytes, rng);
  } else {
    std::unique_ptr<std::iostream> out = session.Update(StreamName(name));
    good = out != nullptr && out->seekp(offset) && WriteInPieces(*out, bytes, rng);
  }
  // The stream is released here, before the step counts as done.
  if (!good) {
    log.Fail(2);
    return false;
  }
  ApplyWrite(streams_, {1, op, name, version, offset, length});
  log.Done(op, name, version, offset, length);
  return true;
}

// Encrypt under a new password (from a clear file, or a password change,
// which is a decrypt pass and an encrypt pass), or decrypt.
bool DirectWorkload::PassStep(Session& session, ProgressLog& log, std::mt19937_64& rng) {
  if (password_ != 0 && rng() % 3 == 0) {
    log.Begin(Op::kDecrypt, 0, 0, static_cast<std::uint32_t>(password_));
    if (!session.Decrypt()) return log.Fail(5), false;
    log.Done(Op::kDecrypt, 0, 0, static_cast<std::uint32_t>(password_));
    password_ = 0;
    return true;
  }
  const int next = nextPassword_++;
  log.Begin(Op::kEncrypt, 0, static_cast<std::uint32_t>(next), static_cast<std::uint32_t>(password_));
  if (!session.Encrypt(next)) return log.Fail(6), false;
  log.Done(Op::kEncrypt, 0, static_cast<std::uint32_t>(next), static_cast<std::uint32_t>(password_));
  password_ = next;
  return true;
}

Replay DirectWorkload::ReplayLog(const std::vector<Record>& log) const {
  Replay replay;
  replay.settled = streams_;
  replay.password = password_;
  replay.nextVersion = nextVersion_;
  for (const Record& record : log) {
    const bool streamStep = record.op == Op::kRewrite || record.op == Op::kOverwrite || record.op == Op::kDelete;
    if (record.op == Op::kRewrite || record.op == Op::kOverwrite)
      replay.nextVersion = std::max(replay.nextVersion, record.version + 1);
    if (record.done == 0) {
      if (record.op == Op::kOpen) replay.touched.clear();  // a new session
      if (streamStep && replay.touched.count(record.name) == 0) {
        std::vector<Whole>& versions = replay.touched[record.name];
        auto before = replay.settled.find(record.name);
        if (before != replay.settled.end()) versions.push_back({"content before the session", before->second});
      }
      continue;
    }
    switch (record.op) {
      case Op::kRewrite:
      case Op::kOverwrite:
        ApplyWrite(replay.settled, record);
        replay.touched[record.name].push_back({"a version of the session", replay.settled[record.name]});
        replay.directoryWritten = true;  // the release wrote the directory
        break;
      case Op::kDelete:
        replay.settled.erase(record.name);
        break;
      case Op::kFlush:
      case Op::kClose:
        replay.directoryWritten = true;
        break;
      case Op::kEncrypt:
        replay.password = static_cast<int>(record.version);
        break;
      case Op::kDecrypt:
        replay.password = 0;
        break;
      default:
        break;
    }
  }
  replay.flight = InFlight(log);
  if (replay.flight != nullptr && replay.flight->op != Op::kDelete && replay.touched.count(replay.flight->name) != 0) {
    Streams after = replay.settled;
    ApplyWrite(after, *replay.flight);
    replay.touched[replay.flight->name].push_back({"content of the step under way", after[replay.flight->name]});
  }
  return replay;
}

// Opens the file as the parent must be able to, and finds its password
// state: the one of the log, or, while a cipher pass was under way, the one
// before, between (clear) or after the pass. False when the file may not
// be used (reported, or a pass cut short, which the library marks).
bool DirectWorkload::OpenChecked(CompoundFile& file, const Replay& replay, int* password, Tally& tally) {
  const Record* flight = replay.flight;
  const bool passCut = flight != nullptr && (flight->op == Op::kEncrypt || flight->op == Op::kDecrypt);
  std::vector<int> candidates{replay.password};
  if (passCut) {
    candidates.push_back(0);
    if (flight->op == Op::kEncrypt) candidates.push_back(static_cast<int>(flight->version));
  }
  const ZoStreamE::Status status = file.Open(path_.c_str(), ZoStreamE::OpenReadWrite);
  if (status != ZoStreamE::StatusOk && status != ZoStreamE::StatusPasswordNeeded) {
    // A pass rewrites payloads in place; cut short, it leaves a file that no
    // open takes for a whole one, read-only included.
    if (passCut) {
      CompoundFile reader;
      const ZoStreamE::Status readOnly = reader.Open(path_.c_str(), ZoStreamE::OpenReadOnly);
      if (readOnly == ZoStreamE::StatusOk || readOnly == ZoStreamE::StatusPasswordNeeded) {
        ADD_FAILURE() << tally.where << ": a cut cipher pass left a file refused read-write but opened read-only";
        return false;
      }
      tally.Note("cipher pass cut short: file refused by every open");
      return false;
    }
    ADD_FAILURE() << tally.where << ": the file does not open read-write (status " << status << ")";
    return false;
  }
  *password = 0;
  if (file.GetStatus() == ZoStreamE::StatusPasswordNeeded || file.IsEncrypted()) {
    *password = -1;
    for (int candidate : candidates) {
      if (candidate != 0 && file.SetPassword(PasswordText(candidate).c_str())) *password = candidate;
    }
  }
  if (std::find(candidates.begin(), candidates.end(), *password) == candidates.end()) {
    ADD_FAILURE() << tally.where << ": the file opens with password state " << *password
                  << ", expected " << replay.password;
    return false;
  }
  if (passCut) tally.Note(*password == replay.password ? "cipher pass cut: old state" : "cipher pass cut: new state");
  return true;
}

bool DirectWorkload::Check(const std::vector<Record>& log, bool killed, Tally& tally) {
  Replay replay = ReplayLog(log);
  const Record* flight = replay.flight;
  std::set<std::string> unsettled;
  for (const auto& stream : replay.touched) unsettled.insert(StreamName(stream.first));
  if (!killed && flight != nullptr) ADD_FAILURE() << tally.where << ": a run that ended left a step under way";
  if (log.empty() || (log.size() == 1 && flight != nullptr && flight->op == Op::kOpen)) {
    tally.Note("killed before or during the first open");
  }
  if (killed && !unsettled.empty()) tally.Note("kills with streams touched in the killed session");

  // The run that creates the file writes block 1 with its first directory
  // write; killed before that, the file need not open.
  if (!fileHasDirectory_ && !replay.directoryWritten && !tztest::ReadAll(path_).empty()) {
    CompoundFile probe;
    if (probe.Open(path_.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) {
      tally.Note("killed in the creating run before its first directory write: file does not open");
      return false;  // a fresh file
    }
  }
  if (replay.directoryWritten) fileHasDirectory_ = true;

  const bool passCut = flight != nullptr && (flight->op == Op::kEncrypt || flight->op == Op::kDecrypt);
  bool shared = false;
  bool looping = false;  // a touched stream's chain comes back to itself
  std::set<std::string> damaged;  // touched streams whose chains have problems
  if (!tztest::ReadAll(path_).empty() || backend_ != Backend::kBlockStreams) {
    std::uint32_t leaked = 0;
    CheckReport report = CheckCompoundFile(path_.c_str(), replay.password != 0 ? PasswordText(replay.password).c_str() : nullptr);
    // Every close rewrites the saved map's stream: old chain freed, new one
    // written, directory last.
    std::set<std::string> unsettledNow(unsettled);
    if (flight != nullptr && (flight->op == Op::kClose || flight->op == Op::kOpen)) unsettledNow.insert(kFreeListName);
    damaged = StreamsWithProblems(report);
    for (const CheckProblem& problem : report.problems) {
      if (problem.kind == CheckProblem::kChainLoop && unsettled.count(problem.stream) != 0) looping = true;
    }
    if (!passCut) {
      shared = SetAsideSharedBlocks(report, unsettledNow, tally) != 0;
      for (const std::string& problem : ForbiddenProblems(report, unsettledNow, kAllowedOnUnsettled, &leaked)) {
        ADD_FAILURE() << tally.where << ": after the kill: " << problem;
      }
    }
    if (leaked != 0) tally.Note("leaked blocks after the kill (files with some)");
  }

  int password = 0;
  {
    CompoundFile file;
    if (!OpenChecked(file, replay, &password, tally)) return false;
    fileHasDirectory_ = true;
    Streams untouched = replay.settled;
    for (const auto& stream : replay.touched) untouched.erase(stream.first);
    if (ExpectSettled(file, untouched, unsettled, tally.where) != 0) return false;
  }
  // A deletion follows the links as they are, round a loop without end:
  // such a file cannot be brought back and is given up.
  if (looping) {
    tally.Note("touched stream's chain loops: file given up");
    return false;
  }
  replay.password = password;
  Wholes wholes;
  // A stream is kept only when it reads as a whole version over a sound
  // chain: a chain with freed blocks would be overwritten by the next
  // writer, and of chains that share blocks neither can be kept.
  for (const auto& stream : replay.touched) {
    const bool keep = !shared && damaged.count(StreamName(stream.first)) == 0;
    if (!keep && !shared) tally.Note("touched stream with a damaged chain: deleted");
    wholes[stream.first] = keep ? stream.second : std::vector<Whole>{};
  }
  if (!SettleStreams(path_, replay.password, wholes, replay.settled, tally)) return false;

  std::uint32_t leaked = 0;
  if (tztest::ReadAll(path_).empty()) {  // created, nothing written yet: what Open makes
    tally.Note("empty file after recovery");
    streams_ = replay.settled;
    return true;
  }
  const CheckReport after = CheckCompoundFile(path_.c_str(), password != 0 ? PasswordText(password).c_str() : nullptr);
  for (const std::string& problem : ForbiddenProblems(after, {}, {}, &leaked)) {
    ADD_FAILURE() << tally.where << ": after recovery: " << problem;
  }
  streams_ = replay.settled;
  password_ = password;
  nextVersion_ = replay.nextVersion;
  if (password_ >= nextPassword_) nextPassword_ = password_ + 1;
  if (flight != nullptr && flight->op == Op::kEncrypt) nextPassword_ = std::max<int>(nextPassword_, static_cast<int>(flight->version) + 1);
  return !::testing::Test::HasFailure();
}

KillPlan Plan(std::uint64_t seed) {
  KillPlan plan;
  plan.seed = seed;
  plan.kills = KillPointsPerWorkload();
  plan.baseSteps = 8;
  return plan;
}

TEST(KillAnyMoment, BlockStreams) {
  DirectWorkload workload(Backend::kBlockStreams);
  RunKills(workload, "block streams", Plan(0x6b696c6c01));
}

TEST(KillAnyMoment, DirectSource) {
  DirectWorkload workload(Backend::kPureSource);
  RunKills(workload, "direct source", Plan(0x6b696c6c02));
}

TEST(KillAnyMoment, Encrypted) {
  DirectWorkload workload(Backend::kEncrypted);
  RunKills(workload, "encrypted", Plan(0x6b696c6c05));
}

}  // namespace
}  // namespace killtest
