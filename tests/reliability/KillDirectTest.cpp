// Kills during edits that go straight to the compound file: block streams
// of CompoundFile, the direct stream source, and an encrypted file with its
// cipher passes.
//
// A stream deleted, replaced or written in the killed session (since its
// last open) is touched: it may read as any version it had in that
// session, be gone, or hold a mix, and its chain may share blocks with
// another chain of the session. The parent keeps it when it is a whole
// version and deletes it otherwise. Every untouched stream must read back
// exactly. A file killed in its creating run before its first directory
// write may not open at all; a cipher pass cut short leaves a file that
// every open refuses.
#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "tests/TestUtil.h"
#include "tests/reliability/KillHarness.h"

namespace killtest {
namespace {

constexpr std::uint32_t kNames = 12;

enum class Backend { kBlockStreams, kPureSource, kEncrypted };

// What the log says about the streams at the moment of the kill.
struct Replay {
  Streams settled;  // the model after every finished step
  // Streams the killed session touched, with every whole version each had
  // in it (before the session, after each finished step, after the step
  // under way).
  Wholes touched;
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
    for (std::uint32_t i = 0; i < kNames / 2; ++i) Put(file, i, streams_[i] = Content(i, nextVersion_++, 1500 * i + 7));
    if (backend_ == Backend::kEncrypted) {
      password_ = nextPassword_++;
      ASSERT_EQ(file.Encrypt(PasswordText(password_).c_str()), ZoStreamE::StatusOk);
    }
  }

  // Writes, deletions, flushes (not on the direct source), cipher passes
  // (encrypted lives), closes and reopens.
  void RunChild(ProgressLog& log, std::uint64_t seed, int steps) override {
    std::mt19937_64 rng(seed);
    FileEditor editor(path_, backend_ == Backend::kPureSource, password_,
                      [this](FileEditor& e, int roll, ProgressLog& l, std::mt19937_64& r) {
                        return roll < 93 && backend_ == Backend::kEncrypted ? PassStep(e.file(), l, r) : -1;
                      });
    RunEdits(editor, log, rng, steps, {70, 45, 80, 88}, kNames, streams_, nextVersion_);
  }

  bool Check(const std::vector<Record>& log, bool killed, Tally& tally) override;

 private:
  int PassStep(CompoundFile& file, ProgressLog& log, std::mt19937_64& rng);
  Replay ReplayLog(const std::vector<Record>& log) const;
  bool OpenChecked(CompoundFile& file, const Replay& replay, int* password, Tally& tally);

  Backend backend_;
  std::string path_;
  Streams streams_;
  int password_ = 0;
  bool fileHasDirectory_ = false;  // a directory write has reached the file
  int nextPassword_ = 1;
  std::uint32_t nextVersion_ = 1;
};

// Encrypt under a new password (from a clear file, or a password change,
// which is a decrypt pass and an encrypt pass), or decrypt.
int DirectWorkload::PassStep(CompoundFile& file, ProgressLog& log, std::mt19937_64& rng) {
  const auto old = static_cast<std::uint32_t>(password_);
  if (password_ != 0 && rng() % 3 == 0) {
    log.Begin(Op::kDecrypt, 0, 0, old);
    if (file.Decrypt() != ZoStreamE::StatusOk) return log.Fail(5), 0;
    log.Done(Op::kDecrypt, 0, 0, old);
    password_ = 0;
    return 1;
  }
  const int next = nextPassword_++;
  log.Begin(Op::kEncrypt, 0, static_cast<std::uint32_t>(next), old);
  if (file.Encrypt(PasswordText(next).c_str()) != ZoStreamE::StatusOk) return log.Fail(6), 0;
  log.Done(Op::kEncrypt, 0, static_cast<std::uint32_t>(next), old);
  password_ = next;
  return 1;
}

Replay DirectWorkload::ReplayLog(const std::vector<Record>& log) const {
  Replay replay;
  replay.settled = streams_;
  replay.password = password_;
  replay.nextVersion = nextVersion_;
  for (const Record& record : log) {
    const bool write = record.op == Op::kRewrite || record.op == Op::kOverwrite;
    if (write) replay.nextVersion = std::max(replay.nextVersion, record.version + 1);
    if (record.done == 0) {
      if (record.op == Op::kOpen) replay.touched.clear();  // a new session
      if ((write || record.op == Op::kDelete) && replay.touched.count(record.name) == 0) {
        std::vector<Whole>& versions = replay.touched[record.name];
        auto before = replay.settled.find(record.name);
        if (before != replay.settled.end()) versions.push_back({"content before the session", before->second});
      }
      continue;
    }
    if (write) {
      ApplyWrite(replay.settled, record);
      replay.touched[record.name].push_back({"a version of the session", replay.settled[record.name]});
    }
    if (record.op == Op::kDelete) replay.settled.erase(record.name);
    // The release of a written stream writes the directory.
    if (write || record.op == Op::kFlush || record.op == Op::kClose) replay.directoryWritten = true;
    if (record.op == Op::kEncrypt) replay.password = static_cast<int>(record.version);
    if (record.op == Op::kDecrypt) replay.password = 0;
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
  if (passCut) candidates.push_back(0);
  if (passCut && flight->op == Op::kEncrypt) candidates.push_back(static_cast<int>(flight->version));
  const ZoStreamE::Status status = file.Open(path_.c_str(), ZoStreamE::OpenReadWrite);
  if (status != ZoStreamE::StatusOk && status != ZoStreamE::StatusPasswordNeeded) {
    if (!passCut) {
      ADD_FAILURE() << tally.where << ": the file does not open read-write (status " << status << ")";
      return false;
    }
    // A pass rewrites payloads in place; cut short, it leaves a file that
    // no open takes for a whole one, read-only included.
    CompoundFile reader;
    const ZoStreamE::Status readOnly = reader.Open(path_.c_str(), ZoStreamE::OpenReadOnly);
    EXPECT_TRUE(readOnly != ZoStreamE::StatusOk && readOnly != ZoStreamE::StatusPasswordNeeded)
        << tally.where << ": a cut cipher pass left a file refused read-write but opened read-only";
    tally.Note("cipher pass cut short: file refused by every open");
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
    ADD_FAILURE() << tally.where << ": the file opens with password state " << *password << ", expected "
                  << replay.password;
    return false;
  }
  if (passCut) tally.Note(*password == replay.password ? "cipher pass cut: old state" : "cipher pass cut: new state");
  return true;
}

bool DirectWorkload::Check(const std::vector<Record>& log, bool killed, Tally& tally) {
  const Replay replay = ReplayLog(log);
  const Record* flight = replay.flight;
  std::set<std::string> touched;
  for (const auto& stream : replay.touched) touched.insert(StreamName(stream.first));
  if (!killed && flight != nullptr) ADD_FAILURE() << tally.where << ": a run that ended left a step under way";
  if (log.empty() || (log.size() == 1 && flight != nullptr && flight->op == Op::kOpen)) {
    tally.Note("killed before or during the first open");
  }
  if (killed && !touched.empty()) tally.Note("kills with streams touched in the killed session");

  // The run that creates the file writes block 1 with its first directory
  // write; killed before that, the file need not open.
  const bool empty = tztest::ReadAll(path_).empty();
  if (!fileHasDirectory_ && !replay.directoryWritten && !empty) {
    CompoundFile probe;
    if (probe.Open(path_.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) {
      tally.Note("killed in the creating run before its first directory write: file does not open");
      return false;  // a fresh file
    }
  }
  if (replay.directoryWritten) fileHasDirectory_ = true;

  const bool passCut = flight != nullptr && (flight->op == Op::kEncrypt || flight->op == Op::kDecrypt);
  const bool mapTouched = flight != nullptr && (flight->op == Op::kClose || flight->op == Op::kOpen);
  KillReport report;
  if (!empty || backend_ != Backend::kBlockStreams) {
    report = CheckKilled(path_, replay.password, touched, mapTouched, !passCut, tally);
  }
  int password = 0;
  {
    CompoundFile file;
    if (!OpenChecked(file, replay, &password, tally)) return false;
    fileHasDirectory_ = true;
    Streams untouched = replay.settled;
    for (const auto& stream : replay.touched) untouched.erase(stream.first);
    if (ExpectSettled(file, untouched, touched, tally.where) != 0) return false;
  }
  Streams settled = replay.settled;
  if (!Recover(path_, password, report, replay.touched, settled, tally)) return false;
  streams_ = settled;
  if (tztest::ReadAll(path_).empty()) {  // created, nothing written yet: what Open makes
    tally.Note("empty file after recovery");
    return true;
  }
  ExpectSound(path_, password, tally.where + ": after recovery");
  password_ = password;
  nextVersion_ = replay.nextVersion;
  nextPassword_ = std::max(nextPassword_, password_ + 1);
  if (passCut && flight->op == Op::kEncrypt) nextPassword_ = std::max<int>(nextPassword_, static_cast<int>(flight->version) + 1);
  return !::testing::Test::HasFailure();
}

TEST(KillAnyMoment, BlockStreams) {
  DirectWorkload workload(Backend::kBlockStreams);
  RunKills(workload, "block streams", {0x6b696c6c01, 8});
}

TEST(KillAnyMoment, DirectSource) {
  DirectWorkload workload(Backend::kPureSource);
  RunKills(workload, "direct source", {0x6b696c6c02, 8});
}

TEST(KillAnyMoment, Encrypted) {
  DirectWorkload workload(Backend::kEncrypted);
  RunKills(workload, "encrypted", {0x6b696c6c05, 8});
}

}  // namespace
}  // namespace killtest
