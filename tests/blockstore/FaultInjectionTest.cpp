// Injected write failures. Each operation runs on a fresh copy of a known
// good file with the platform's Nth write failing, as on a full disk, for
// N = 1, 2, 3, ... until the operation completes without reaching the
// fault. After every round the file, reopened with the real platform, must
// hold what the last clean close saved: every stream the operation did not
// target reads back unchanged, the target holds its old or its new bytes,
// and the file takes further writes without one stream spoiling another.
//
// A "write" is one platform call; the engine gathers consecutive blocks
// into one call, so N counts calls, not blocks.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "blockstore/BlockFormat.h"
#include "tests/TestUtil.h"

namespace {

using namespace tztest;
using ZoStreamE::OpenReadOnly;
using ZoStreamE::OpenReadWrite;

const char kPassword[] = "full disk";
// Upper bound on the rounds of one operation; far above what any of them
// needs, so reaching it means the operation never stops writing.
constexpr int kMaxRounds = 400;

struct Operation {
  const char* label;
  std::function<void(CompoundFile&)> run;
  const char* target;   // the stream the operation changes; null for none
  bool removesTarget;   // the target is gone after success
  std::string after;    // the target's bytes after success, unless removed
  bool mayMarkUnusable; // a failed cipher pass may leave a refused file
};

// Writes `bytes` at `at` of stream `name` ("r+b"); -1 appends.
void Patch(CompoundFile& f, const char* name, std::streamoff at, const std::string& bytes) {
  std::unique_ptr<std::iostream> s(f.GetIOStream(name, "r+b"));
  if (!s) return;
  if (at < 0) s->seekp(0, std::ios_base::end);
  else s->seekp(at);
  s->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

class FaultInjectionTest : public ::testing::Test {
 protected:
  // Five streams, one of them deleted again so that the file has free
  // blocks in its middle: new chains then land in the hole and at the end,
  // which splits their writes into several platform calls.
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
    for (const auto& s : streams_) {
      if (s.first == name) return &s.second;
    }
    return nullptr;
  }

  // One round: the operation with write `n` failing. True when a write
  // failed, false when the operation finished before write `n`.
  bool RunWithFault(const Operation& op, int n) {
    WriteAll(path_, good_);
    FaultyEnv env;
    env.Reset(n);
    ScopedEnv scoped(&env);
    OpenedFile f(path_, OpenReadWrite);
    op.run(f);
    f.Flush();
    // A failed write is reported on the handle as StatusFailed, and only then.
    EXPECT_EQ(env.writes() >= n ? ZoStreamE::StatusFailed : ZoStreamE::StatusOk, f.GetStatus());
    f.Close();
    return env.writes() >= n;
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
      EXPECT_TRUE(asBefore || asAfter) << op.target << " holds neither its old nor its new bytes";
      EXPECT_TRUE(hit || asAfter) << op.target << " not updated by a clean run";
    } else {
      EXPECT_TRUE(old == nullptr || op.removesTarget) << op.target << " lost";
      EXPECT_TRUE(hit || op.removesTarget) << op.target << " missing after a clean run";
    }
  }

  // Reopens with the real platform and checks the file; then writes one
  // more stream and checks again, so that a block map that disagrees with
  // the directory shows as one stream overwriting another.
  void CheckSurvivor(const Operation& op, bool hit) {
    {
      CompoundFile f;
      const OpenResult r = TryOpen(f, path_, OpenReadWrite);
      ASSERT_FALSE(r.threw) << "open threw status " << r.status;
      if (r.status == ZoStreamE::StatusNotOpen && hit && op.mayMarkUnusable) return;
      ASSERT_EQ(ZoStreamE::StatusOk, r.status);
      if (f.IsEncrypted()) {
        ASSERT_TRUE(f.SetPassword(kPassword));
      }
      CheckStreams(f, op, hit, "");
      ASSERT_TRUE(PutStream(f, "later", Pattern(3500, 99)));
      ASSERT_EQ(ZoStreamE::StatusOk, f.Close());
    }
    OpenedFile f(path_, OpenReadOnly);
    if (f.IsEncrypted()) {
      ASSERT_TRUE(f.SetPassword(kPassword));
    }
    CheckStreams(f, op, hit, "later");
    EXPECT_TRUE(GetStream(f, "later") == Pattern(3500, 99));
  }

  void RunUntilClean(const Operation& op) {
    for (int n = 1; n <= kMaxRounds; ++n) {
      SCOPED_TRACE(std::string(op.label) + ", failing write " + std::to_string(n));
      const bool hit = RunWithFault(op, n);
      CheckSurvivor(op, hit);
      if (!hit) return;
      if (::testing::Test::HasFailure()) return;  // one broken round tells enough
    }
    ADD_FAILURE() << op.label << " still writing after " << kMaxRounds << " rounds";
  }

  ScratchDir dir_;
  std::string path_;
  StreamList streams_;
  FileBytes good_;
};

// Growing a stream ("two") takes blocks from the hole and from the end of
// the file. Encrypting and decrypting runs both passes, so that the failing
// write lands in the deciphering one too.
TEST_F(FaultInjectionTest, EveryOperationSurvivesAFullDisk) {
  const std::string fresh = Pattern(5000, 21), patch = Pattern(3000, 22), tail = Pattern(4000, 23);
  const std::string patched = std::string(*OldContent("one")).replace(1500, patch.size(), patch);
  const Operation operations[] = {
      {"new stream", [&](CompoundFile& f) { PutStream(f, "fresh", fresh); }, "fresh", false, fresh, false},
      {"overwrite with r+b", [&](CompoundFile& f) { Patch(f, "one", 1500, patch); }, "one", false, patched, false},
      {"append with r+b", [&](CompoundFile& f) { Patch(f, "two", -1, tail); }, "two", false,
       *OldContent("two") + tail, false},
      {"delete", [](CompoundFile& f) { f.DeleteCFFile("four"); }, "four", true, "", false},
      {"encrypt", [](CompoundFile& f) { f.Encrypt(kPassword); }, nullptr, false, "", true},
      {"encrypt, then decrypt",
       [](CompoundFile& f) {
         if (f.Encrypt(kPassword) == ZoStreamE::StatusOk) f.Decrypt();
       },
       nullptr, false, "", true},
  };
  for (const Operation& op : operations) RunUntilClean(op);
}

}  // namespace
