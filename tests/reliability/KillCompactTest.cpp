// Kills during compaction in place and scrubbing. Each life's file holds a
// few hundred streams with every other one deleted (encrypted in every
// second life); a child opens it without a password and runs bounded
// compactions and scrubs, with deletions between them in clear lives.
// Neither pass changes a stream, so after any kill every stream the model
// holds must read back exactly, from a read-only open (no repair) and from
// an open for writing; the check may find blocks no chain holds (copies or
// old places of moved blocks), nothing else. After each child the parent
// punches new holes into the file.
#include <algorithm>
#include <cstdlib>
#include <random>

#include <gtest/gtest.h>

#include "tests/TestUtil.h"
#include "tests/reliability/KillHarness.h"

namespace killtest {
namespace {

constexpr std::uint32_t kNames = 1000;

class CompactWorkload : public Workload {
 public:
  void StartLife(const std::string& dir) override {
    path_ = dir + "/compact.cf";
    streams_.clear();
    password_ = ++lives_ % 2 == 0 ? 1 : 0;
    CompoundFile file;
    ASSERT_EQ(file.Open(path_.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
    for (std::uint32_t i = 0; i < kNames; ++i) Put(file, i, streams_[i] = Content(i, version_++, Length(i)));
    if (password_ != 0) {
      ASSERT_EQ(file.Encrypt(PasswordText(password_).c_str()), ZoStreamE::StatusOk);
    }
    file.Close();
    ASSERT_NO_FATAL_FAILURE(PunchHoles());
  }

  void RunChild(ProgressLog& log, std::uint64_t seed, int steps) override {
    std::mt19937_64 rng(seed);
    CompoundFile file;
    log.Begin(Op::kOpen);
    if (file.Open(path_.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) return log.Fail(1);
    log.Done(Op::kOpen);
    for (int step = 0; step < steps; ++step) {
      const int roll = static_cast<int>(rng() % 100);
      if (roll < 60) {
        const auto moves = static_cast<std::uint32_t>(rng() % 8 == 0 ? 0 : 1 + rng() % 200);
        log.Begin(Op::kCompact, 0, moves);
        if (file.CompactInPlace(nullptr, moves) != file.GetStatus() || !Usable(file)) return log.Fail(2);
        log.Done(Op::kCompact, 0, moves);
      } else if (roll < 75) {
        log.Begin(Op::kScrub);
        if (file.ScrubFreeBlocks() != file.GetStatus() || !Usable(file)) return log.Fail(3);
        log.Done(Op::kScrub);
      } else if (password_ == 0 && !streams_.empty()) {
        const std::uint32_t name = PickIn(streams_, rng);
        log.Begin(Op::kDelete, name);
        if (!file.DeleteCFFile(StreamName(name).c_str())) return log.Fail(4);
        streams_.erase(name);
        log.Done(Op::kDelete, name);
      }
    }
    log.Begin(Op::kClose);
    file.Close();
    log.Done(Op::kClose);
  }

  bool Check(const std::vector<Record>& log, bool killed, Tally& tally) override {
    // The model after every finished step. A stream deleted in the killed
    // session may stand again, whole, until a directory write has followed
    // its deletion (the next open for writing takes back its blocks).
    Streams settled = streams_;
    std::set<std::string> touched;
    for (const Record& record : log) {
      if (record.op != Op::kDelete) continue;
      touched.insert(StreamName(record.name));
      if (record.done == 1) settled.erase(record.name);
    }
    const Record* flight = InFlight(log);
    if (flight != nullptr && (flight->op == Op::kCompact || flight->op == Op::kScrub)) {
      tally.Note(flight->op == Op::kCompact ? "killed in a compaction" : "killed in a scrub");
    }
    if (!killed && flight != nullptr) ADD_FAILURE() << tally.where << ": a run that ended left a step under way";
    CheckKilled(path_, password_, touched, true, true, tally);
    {
      // Read-only: what the kill left, unrepaired.
      CompoundFile reader;
      if (reader.Open(path_.c_str(), ZoStreamE::OpenReadOnly) != ZoStreamE::StatusOk) {
        ADD_FAILURE() << tally.where << ": the file does not open read-only";
        return false;
      }
      if (password_ != 0 && !reader.SetPassword(PasswordText(password_).c_str())) {
        ADD_FAILURE() << tally.where << ": the password no longer opens the file";
        return false;
      }
      if (ExpectSettled(reader, settled, touched, tally.where + ", read-only") != 0) return false;
    }
    {
      CompoundFile file;
      if (!OpensForWriting(file, path_, tally)) return false;
      if (password_ != 0) file.SetPassword(PasswordText(password_).c_str());
      if (ExpectSettled(file, settled, touched, tally.where + ", read-write") != 0) return false;
      for (const std::string& name : touched) {
        std::string got;
        const std::uint32_t index = IndexOf(name);
        if (ReadStream(file, name, &got)) {
          EXPECT_EQ(got, streams_[index]) << tally.where << ": " << name << " is neither old nor gone";
          tally.Note("a stream deleted in the killed session stands again");
          settled[index] = got;
        }
      }
    }
    ExpectSound(path_, password_, tally.where + ": after reopening");
    streams_ = settled;
    // Holes for the next child to fill, so that every child finds about as
    // much to move as the calibration runs did (kills are drawn across the
    // length of those).
    PunchHoles();
    return !::testing::Test::HasFailure();
  }

 private:
  static std::uint32_t Length(std::uint32_t i) { return (i * 2654435761u) % 24000; }
  static bool Usable(const CompoundFile& file) {
    return file.GetStatus() == ZoStreamE::StatusOk || file.GetStatus() == ZoStreamE::StatusPasswordNeeded;
  }

  // Deletes every other stream the model holds and writes some new ones,
  // so that free blocks lie all through the file.
  void PunchHoles() {
    CompoundFile file;
    ASSERT_EQ(file.Open(path_.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
    if (password_ != 0) {
      ASSERT_TRUE(file.SetPassword(PasswordText(password_).c_str()));
    }
    bool drop = true;
    for (auto it = streams_.begin(); it != streams_.end(); drop = !drop) {
      if (!drop) {
        ++it;
        continue;
      }
      ASSERT_TRUE(file.DeleteCFFile(StreamName(it->first).c_str()));
      it = streams_.erase(it);
    }
    for (std::uint32_t i = 0; i < kNames && streams_.size() < kNames / 2 + 40; i += 7) {
      if (streams_.count(i) != 0) continue;
      const std::uint32_t version = version_++;
      Put(file, i, streams_[i] = Content(i, version, Length(i + version)));
    }
    ASSERT_EQ(file.Close(), ZoStreamE::StatusOk);
  }

  std::string path_;
  Streams streams_;
  int password_ = 0;
  int lives_ = 0;
  std::uint32_t version_ = 1;
};

int CompactKills() {
  const char* text = std::getenv("TZ_COMPACT_KILLS");
  const int kills = text != nullptr ? std::atoi(text) : 0;
  return kills > 0 ? kills : 40;
}

TEST(KillAnyMoment, CompactionInPlaceAndScrub) {
  CompactWorkload workload;
  KillPlan plan{0x636f6d70616374, 6};
  plan.killsPerLife = 20;
  plan.kills = CompactKills();
  RunKills(workload, "compaction in place", plan);
}

}  // namespace
}  // namespace killtest
