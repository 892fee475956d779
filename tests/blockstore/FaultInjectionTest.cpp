// Each operation runs on a fresh copy of a good file with the Nth platform
// write (whole or half), read or open failing, and every later one, for
// N = 1, 2, ... until it runs clean. Reopened, the file holds every other
// stream unchanged and the target old or new, and takes further writes
// without one stream spoiling another; a cipher pass that fails half-way
// may instead leave a file that no open accepts.
#include <gtest/gtest.h>

#include <functional>
#include <cstdio>
#include <map>
#include <random>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tesselzostream/CompoundFileCheck.h"
#include "tests/TestUtil.h"

namespace {

using namespace tztest;

const char kPassword[] = "full disk";
const char kOldPassword[] = "before";
// Far above what any operation needs: reaching it means it never stops.
constexpr int kMaxRounds = 400;

struct Operation {
  const char* label;
  std::function<void(CompoundFile&)> run;
  const char* target;   // the stream the operation changes; null for none
  bool removesTarget;   // the target is gone after success
  std::string after;    // the target's bytes after success, unless removed
  bool mayMarkUnusable; // a failed cipher pass may leave a refused file
  bool inPlace = false;     // changed in place: each byte old or new (no journal)
  std::string midway = "";  // a state the operation saved part-way
};

// `got` is as long as `old` or `now`, each byte that of one of them.
bool OldOrNewByBytes(const std::string& got, const std::string& old, const std::string& now) {
  if (got.size() != old.size() && got.size() != now.size()) return false;
  for (std::size_t i = 0; i < got.size(); ++i) {
    const bool asOld = i < old.size() && got[i] == old[i];
    const bool asNew = i < now.size() && got[i] == now[i];
    if (!asOld && !asNew) return false;
  }
  return true;
}

class FaultInjectionTest : public ::testing::Test {
 protected:
  // A deleted stream leaves free blocks in the middle: new chains land in
  // the hole and at the end, in several platform calls.
  void SetUp() override {
    path_ = dir_.Path("faults.zo");
    streams_ = {{"one", Pattern(5000, 11)}, {"two", Pattern(1200, 12)}, {"hole", Pattern(2100, 13)},
                {"three", Pattern(3, 14)}, {"four", Pattern(2600, 15)}};
    ASSERT_NO_FATAL_FAILURE(MakeFile(path_, streams_));
    {
      OpenedFile f(path_, OpenReadWrite);
      ASSERT_TRUE(f.DeleteCFFile("hole"));
    }
    streams_.erase(streams_.begin() + 2);
    good_ = ReadAll(path_);
  }

  const std::string* OldContent(const char* name) const {
    for (const auto& s : streams_) if (s.first == name) return &s.second;
    return nullptr;
  }

  // One round with call `n` of `kind` failing; true when it was reached.
  bool RunWithFault(const Operation& op, Fault kind, int n) {
    WriteAll(path_, good_);
    FaultyEnv env;
    env.Reset(kind, n);
    ScopedEnv scoped(&env);
    CompoundFile f;
    const OpenResult r = TryOpen(f, path_, OpenReadWrite);
    if (r.threw || r.status != StatusOk) {
      // An open that fails reports it and leaves the file as it was.
      EXPECT_TRUE(env.hit()) << "open failed with nothing failing, status " << r.status;
      EXPECT_TRUE(good_ == ReadAll(path_)) << "a failed open changed the file";
      return env.hit();
    }
    op.run(f);
    f.Flush();
    // A failed call is reported on the handle as StatusFailed, and only then.
    EXPECT_EQ(env.hit() ? ZoStreamE::StatusFailed : StatusOk, f.GetStatus());
    f.Close();
    return env.hit();
  }

  static void Unlock(CompoundFile& f) {
    if (f.IsEncrypted()) {
      ASSERT_TRUE(f.SetPassword(kPassword) || f.SetPassword(kOldPassword));
    }
  }

  // The streams of the reopened file against what the round may leave.
  void CheckStreams(CompoundFile& f, const Operation& op, bool hit, const std::string& later) {
    const std::string target = op.target != nullptr ? op.target : "";
    ExpectStreams(f, streams_, target);
    std::set<std::string> allowed = {blockformat::kFreeListName, later, target};
    for (const auto& s : streams_) allowed.insert(s.first);
    for (const std::string& n : ListNames(f)) EXPECT_EQ(1u, allowed.count(n)) << "unexpected stream " << n;
    if (op.target == nullptr) return;
    const std::string* old = OldContent(op.target);
    if (f.Exists(op.target)) {
      bool ok = false;
      const std::string got = GetStream(f, op.target, &ok);
      EXPECT_TRUE(ok);
      const bool asBefore = old != nullptr && got == *old;
      const bool asAfter = !op.removesTarget && got == op.after;
      const bool mixed = op.inPlace && old != nullptr && OldOrNewByBytes(got, *old, op.after);
      const bool midway = !op.midway.empty() && got == op.midway;
      EXPECT_TRUE(asBefore || asAfter || mixed || midway)
          << op.target << " holds neither its old nor its new bytes";
      EXPECT_TRUE(hit || asAfter) << op.target << " not updated by a clean run";
    } else {
      EXPECT_TRUE(old == nullptr || op.removesTarget) << op.target << " lost";
      EXPECT_TRUE(hit || op.removesTarget) << op.target << " missing after a clean run";
    }
  }

  // Checks the file reopened with the real platform, then again after one
  // more stream, which would overwrite another where the map is wrong.
  void CheckSurvivor(const Operation& op, bool hit) {
    {
      CompoundFile f;
      const OpenResult r = TryOpen(f, path_, OpenReadWrite);
      ASSERT_FALSE(r.threw) << "open threw status " << r.status;
      if (r.status == ZoStreamE::StatusNotOpen && hit && op.mayMarkUnusable) return;
      ASSERT_EQ(StatusOk, r.status);
      ASSERT_NO_FATAL_FAILURE(Unlock(f));
      CheckStreams(f, op, hit, "");
      ASSERT_TRUE(PutStream(f, "later", Pattern(3500, 99)));
      ASSERT_EQ(StatusOk, f.Close());
    }
    OpenedFile f(path_, OpenReadOnly);
    ASSERT_NO_FATAL_FAILURE(Unlock(f));
    CheckStreams(f, op, hit, "later");
    EXPECT_TRUE(GetStream(f, "later") == Pattern(3500, 99));
  }

  void RunUntilClean(const Operation& op, Fault kind) {
    for (int n = 1; n <= kMaxRounds; ++n) {
      SCOPED_TRACE(std::string(op.label) + ", failing " + FaultName(kind) + " " + std::to_string(n));
      const bool hit = RunWithFault(op, kind, n);
      CheckSurvivor(op, hit);
      if (!hit) return;
      if (::testing::Test::HasFailure()) return;  // one broken round tells enough
    }
    ADD_FAILURE() << op.label << " still calling after " << kMaxRounds << " rounds";
  }

  ScratchDir dir_;
  std::string path_;
  StreamList streams_;
  FileBytes good_;
};

// Appending takes blocks from the hole and the end; encrypt-then-decrypt
// puts the failing call in the deciphering pass too.
TEST_F(FaultInjectionTest, EveryOperationSurvivesAFullDisk) {
  const std::string fresh = Pattern(5000, 21), patch = Pattern(3000, 22), tail = Pattern(4000, 23);
  const std::string patched = std::string(*OldContent("one")).replace(1500, patch.size(), patch);
  const Operation operations[] = {
      {"new stream", [&](CompoundFile& f) { PutStream(f, "fresh", fresh); }, "fresh", false, fresh, false},
      {"overwrite with r+b", [&](CompoundFile& f) { Patch(f, "one", 1500, patch); }, "one", false, patched, false,
       true},
      {"append with r+b", [&](CompoundFile& f) { Patch(f, "two", -1, tail); }, "two", false,
       *OldContent("two") + tail, false, true},
      {"delete", [](CompoundFile& f) { f.DeleteCFFile("four"); }, "four", true, "", false},
      {"encrypt", [](CompoundFile& f) { f.Encrypt(kPassword); }, nullptr, false, "", true},
      {"encrypt, then decrypt",
       [](CompoundFile& f) {
         if (f.Encrypt(kPassword) == StatusOk) f.Decrypt();
       },
       nullptr, false, "", true},
      {"change the password",
       [](CompoundFile& f) {
         if (f.Encrypt(kOldPassword) == StatusOk) f.Encrypt(kPassword);
       },
       nullptr, false, "", true},
      {"write, flush, write on",
       [&](CompoundFile& f) {
         std::unique_ptr<std::iostream> s(f.GetIOStream("fresh", "wb"));
         if (!s) return;
         s->write(fresh.data(), 2500);
         s->flush();
         f.Flush();
         s->write(fresh.data() + 2500, static_cast<std::streamsize>(fresh.size() - 2500));
       },
       "fresh", false, fresh, false, false, fresh.substr(0, 2500)},
      {"compact in place", [](CompoundFile& f) { f.CompactInPlace(); }, nullptr, false, "", false},
      {"compact in place a step at a time",
       [](CompoundFile& f) {
         CompactProgress p;
         while (f.CompactInPlace(&p, 1) == StatusOk && !p.finished) {
         }
       },
       nullptr, false, "", false},
      {"encrypt, then compact in place",
       [](CompoundFile& f) {
         if (f.Encrypt(kPassword) == StatusOk) f.CompactInPlace();
       },
       nullptr, false, "", true},
      {"scrub", [](CompoundFile& f) { f.ScrubFreeBlocks(); }, nullptr, false, "", false},
  };
  for (const Fault kind : {Fault::kWrite, Fault::kPartialWrite, Fault::kRead, Fault::kOpen}) {
    for (const Operation& op : operations) RunUntilClean(op, kind);
  }
}

// Streams written and closed one after another on a disk that fills: the
// directory grows a block every third stream, and wherever the disk runs
// out (in a stream's blocks, a new directory block, the link to it), the
// file opens afterwards and every stream closed before holds its bytes.
TEST(FullDisk, StreamsClosedBeforeTheDiskFilledAllSurvive) {
  ScratchDir dir;
  const std::string path = dir.Path("full.cf");
  for (std::uint64_t limit = 60 * 1024; limit <= 140 * 1024; limit += 3 * 1024 + 512) {
    SCOPED_TRACE("disk of " + std::to_string(limit) + " bytes");
    std::remove(path.c_str());
    StreamList closed;
    {
      FaultyEnv env;
      env.SetDiskLimit(limit);
      ScopedEnv scoped(&env);
      CompoundFile f;
      ASSERT_EQ(StatusOk, f.Open(path.c_str(), OpenReadWrite));
      for (int i = 0; i < 100; ++i) {
        const std::string name = "s" + std::to_string(i);
        const std::string bytes = Pattern(4171, static_cast<std::uint32_t>(i));
        if (!PutStream(f, name.c_str(), bytes) || f.GetStatus() != StatusOk) break;
        closed.emplace_back(name, bytes);
      }
      ASSERT_NE(StatusOk, f.GetStatus()) << "the disk never filled";
    }
    ASSERT_FALSE(closed.empty());
    OpenedFile f(path, OpenReadWrite);
    ASSERT_EQ(StatusOk, f.GetStatus());
    ExpectStreams(f, closed);
  }
}

// Appends `bytes` to stream `name` through "r+b", in its own session.
void Append(const std::string& path, const char* name, const std::string& bytes) {
  CompoundFile f;
  if (f.Open(path.c_str(), OpenReadWrite) != StatusOk) return;
  Patch(f, name, -1, bytes);
}

// Ordinary work after a failed or cut session: the damaged stream removed,
// new streams put, the other stream grown. None of it may touch a stream
// it does not name, and the file stays sound throughout.
// A session cut short (killed) leaves the file to be mended by the first
// open for writing (`cut`); one that failed mends it at its own close.
void OrdinaryWorkAfterwards(const std::string& path, const char* damaged, const char* grown,
                            const StreamList& untouched, bool cut) {
  if (cut) OpenedFile(path, OpenReadWrite).Close();
  const CheckReport mended = CheckCompoundFile(path.c_str());
  ASSERT_TRUE(mended.Sound()) << "before the ordinary work";
  EXPECT_FALSE(mended.unfinished);
  if (cut) {
    EXPECT_EQ(CheckReport::kMapCurrent, mended.savedMap) << "the mending open saved no map";
  }
  const std::string x = Pattern(4000, 31), y = Pattern(5000, 32), more = Pattern(6000, 33);
  {
    OpenedFile f(path, OpenReadWrite);
    ASSERT_TRUE(PutStream(f, "X", x));
  }
  {
    OpenedFile f(path, OpenReadWrite);
    f.DeleteCFFile(damaged);
    ASSERT_TRUE(PutStream(f, "Y", y));
  }
  if (grown != nullptr) Append(path, grown, more);
  EXPECT_TRUE(CheckCompoundFile(path.c_str()).Sound()) << "after the ordinary work";
  OpenedFile f(path, OpenReadOnly);
  ExpectStreams(f, untouched);
  EXPECT_EQ(x, GetStream(f, "X"));
  EXPECT_EQ(y, GetStream(f, "Y"));
}

// An append that runs out of disk part-way (some of its blocks landed, the
// last link names a block that never did): the file is sound as soon as
// the failed session has closed, and later work costs no other stream.
TEST(FullDisk, AFailedAppendCostsNoOtherStream) {
  ScratchDir dir;
  const std::string path = dir.Path("append.cf");
  const StreamList kept = {{"keep", Pattern(3000, 1)}};
  const std::string big = Pattern(700 * 1024, 2);
  for (std::uint64_t room = 16 * 1024; room <= 760 * 1024; room += 93 * 1024) {
    SCOPED_TRACE("room for " + std::to_string(room) + " bytes more");
    std::remove(path.c_str());
    ASSERT_NO_FATAL_FAILURE(MakeFile(path, {{"keep", kept[0].second}, {"B", Pattern(2000, 3)}}));
    {
      FaultyEnv env;
      env.SetDiskLimit(ReadAll(path).size() + room);
      ScopedEnv scoped(&env);
      Append(path, "B", big);
    }
    OrdinaryWorkAfterwards(path, "B", nullptr, kept, false);
  }
}

// A session that deletes A and then appends to B, which takes A's freed
// blocks, cut short after any of its writes (every later write fails, as
// after a kill): A's blocks never end up shared, and a new stream put
// afterwards survives a later append to B.
TEST(CutSession, ADeletionThenAnAppendCostNoOtherStream) {
  ScratchDir dir;
  const std::string path = dir.Path("cut.cf");
  const StreamList kept = {{"steady", Pattern(1000, 4)}};
  for (int n = 1; n <= 60; ++n) {
    SCOPED_TRACE("writes fail from the " + std::to_string(n) + "th on");
    std::remove(path.c_str());
    ASSERT_NO_FATAL_FAILURE(MakeFile(path, {{"A", Pattern(3000, 5)}, {"B", Pattern(2000, 6)},
                                            {"steady", kept[0].second}}));
    bool hit = false;
    {
      FaultyEnv env;
      env.Reset(Fault::kWrite, n);
      ScopedEnv scoped(&env);
      {
        CompoundFile f;
        ASSERT_EQ(StatusOk, f.Open(path.c_str(), OpenReadWrite));
        f.DeleteCFFile("A");
        Patch(f, "B", -1, Pattern(3500, 7));
      }
      hit = env.hit();
    }
    // Cut after its first write (the mark) and before any directory write,
    // the session left its mark, which the checker reports.
    if (n == 2) {
      EXPECT_TRUE(CheckCompoundFile(path.c_str()).unfinished);
    }
    {
      // A is gone, or back whole: its freed blocks went to nobody before
      // the directory that drops it was in the file.
      OpenedFile f(path, OpenReadWrite);
      if (f.Exists("A")) {
        EXPECT_EQ(Pattern(3000, 5), GetStream(f, "A"));
      }
    }
    OrdinaryWorkAfterwards(path, "A", "B", kept, true);
    if (!hit) return;
    if (::testing::Test::HasFailure()) return;
  }
  ADD_FAILURE() << "the session never ran clean";
}

// Rounds of a writing workload on a disk of 1 to 4 MiB already partly
// filled: new streams, rewrites, appends and deletions until a write fails
// for want of room; then ordinary work on the file. Every file opens, every
// stream closed before the failure reads back, and the file is sound.
// TZ_DISKFULL_ROUNDS sets the rounds (10 unless set). With TZ_DISKFULL_DIR
// naming a folder on a small file system of its own (a tmpfs mount of a
// few MiB) the rounds run there on the real platform, filler files and all;
// otherwise the platform layer plays a disk of that size.
TEST(FullDisk, RandomRoundsLoseNothingClosed) {
  const char* rounds = std::getenv("TZ_DISKFULL_ROUNDS");
  const char* realDir = std::getenv("TZ_DISKFULL_DIR");
  const int count = rounds != nullptr && std::atoi(rounds) > 0 ? std::atoi(rounds) : 10;
  ScratchDir scratch;
  const std::string dir = realDir != nullptr ? std::string(realDir) : scratch.path();
  const std::string path = dir + "/disk.cf", filler = dir + "/filler";
  std::mt19937_64 rng(0x66756c6c);
  int failedRounds = 0;
  for (int round = 0; round < count && !::testing::Test::HasFailure(); ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    std::remove(path.c_str());
    std::remove(filler.c_str());
    const std::uint64_t disk = (1u << 20) + rng() % (3u << 20);
    const std::uint64_t fill = rng() % (disk / 2);
    std::map<std::string, std::string> closed;  // what every finished step left
    {
      FaultyEnv env;
      if (realDir == nullptr) env.SetDiskLimit(disk - fill);  // the filler's share is gone
      else WriteAll(filler, FileBytes(static_cast<std::size_t>(fill), 'f'));
      ScopedEnv scoped(&env);
      CompoundFile f;
      ASSERT_EQ(StatusOk, f.Open(path.c_str(), OpenReadWrite));
      for (int step = 0; step < 100000 && f.GetStatus() == StatusOk; ++step) {
        const std::string name = "s" + std::to_string(rng() % 400);
        const int roll = static_cast<int>(rng() % 10);
        const std::string bytes = Pattern(rng() % 60000, static_cast<std::uint32_t>(step));
        if (roll < 6 || closed.count(name) == 0) {
          if (PutStream(f, name.c_str(), bytes) && f.GetStatus() == StatusOk) closed[name] = bytes;
          else closed.erase(name);  // replaced: its old chain went first
        } else if (roll < 9) {
          Patch(f, name.c_str(), -1, bytes);
          if (f.GetStatus() == StatusOk) closed[name] += bytes;
          else closed.erase(name);
        } else if (f.DeleteCFFile(name.c_str())) {
          closed.erase(name);
        }
      }
      if (f.GetStatus() != StatusOk) ++failedRounds;
    }
    std::remove(filler.c_str());
    CompoundFile f;
    ASSERT_EQ(StatusOk, f.Open(path.c_str(), OpenReadOnly)) << "the file does not open";
    StreamList untouched(closed.begin(), closed.end());
    ExpectStreams(f, untouched);
    f.Close();
    const CheckReport report = CheckCompoundFile(path.c_str());
    EXPECT_TRUE(report.Sound()) << "not sound after the failed session: "
                                << (report.problems.empty() ? report.openError : report.problems[0].text);
    if (!untouched.empty()) {
      const std::string victim = untouched.back().first;
      untouched.pop_back();
      OrdinaryWorkAfterwards(path, victim.c_str(), nullptr, untouched, false);
    }
  }
  EXPECT_EQ(count, failedRounds) << "rounds whose disk never filled";
  std::printf("[full disk] %d rounds, %d filled the disk\n", count, failedRounds);
}

}  // namespace

