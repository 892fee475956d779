// Kills that run on: every round continues on the file the last kill left,
// with nothing mended by the test. The first open for writing after a kill
// is the library's own recovery; after it the file must check sound, and
// every stream the killed session did not touch must read back exactly.
// Touched streams hold whatever they came to hold (the model takes that
// over), and ordinary writes follow each recovery, so that damage a repair
// missed would spread into later rounds and show there.
//
// TZ_RUNON_KILLS sets the number of kills (40 when unset).
#include <cstdlib>
#include <random>

#include <gtest/gtest.h>

#include "tests/TestUtil.h"
#include "tests/reliability/KillHarness.h"

namespace killtest {
namespace {

constexpr std::uint32_t kNames = 14;

class RunOnWorkload : public Workload {
 public:
  explicit RunOnWorkload(bool batches) : batches_(batches) {}

  void StartLife(const std::string& dir) override {
    path_ = dir + "/runon.cf";
    streams_.clear();
    CompoundFile file;
    ASSERT_EQ(file.Open(path_.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
    for (std::uint32_t i = 0; i < kNames / 2; ++i) Put(file, i, streams_[i] = Content(i, version_++, 1100 * i + 5));
  }

  // New streams and rewrites ("wb"), writes through "r+b" from any offset
  // (appending past the end), deletions, directory flushes, batches begun
  // and ended (when asked for), closes and reopens.
  void RunChild(ProgressLog& log, std::uint64_t seed, int steps) override {
    std::mt19937_64 rng(seed);
    FileEditor editor(path_, false, kNoPassword, [this](FileEditor& e, int roll, ProgressLog& l, std::mt19937_64& r) {
      return batches_ && roll < 96 ? BatchStep(e.file(), l, r) : -1;
    });
    RunEdits(editor, log, rng, steps, {70, 40, 82, 90}, kNames, streams_, version_);
  }

  bool Check(const std::vector<Record>& log, bool killed, Tally& tally) override;

 private:
  // A batch begins, or one level ends.
  static int BatchStep(CompoundFile& file, ProgressLog& log, std::mt19937_64& rng) {
    const bool begin = rng() % 2 == 0;
    const Op op = begin ? Op::kBatchBegin : Op::kBatchEnd;
    log.Begin(op);
    const ZoStreamE::Status result = begin ? file.BeginBatch() : file.EndBatch();
    if (begin && result != ZoStreamE::StatusOk) return log.Fail(7), 0;
    log.Done(op, 0, 0, result == ZoStreamE::StatusOk ? 1 : 0);
    return 1;
  }
  void OrdinaryWrites(std::mt19937_64& rng, Tally& tally);

  bool batches_;
  std::string path_;
  Streams streams_;
  std::uint32_t version_ = 1;
  static constexpr int kNoPassword = 0;
};

bool RunOnWorkload::Check(const std::vector<Record>& log, bool killed, Tally& tally) {
  // Replay: the model after every finished step, and the streams the
  // killed session (the one open at the end) touched.
  // A stream counts as touched from its change until a flush point has
  // written the directory: a finished write outside a batch (its release
  // is one), a flush outside a batch, the end of the outermost batch.
  Streams settled = streams_;
  std::set<std::uint32_t> touched;
  int batch = 0;
  for (const Record& record : log) {
    const bool write = record.op == Op::kRewrite || record.op == Op::kOverwrite;
    if (write) version_ = std::max(version_, record.version + 1);
    if (record.done == 0) {
      if (record.op == Op::kOpen) touched.clear(), batch = 0;
      if (write || record.op == Op::kDelete) touched.insert(record.name);
      continue;
    }
    if (write) ApplyWrite(settled, record);
    if (record.op == Op::kDelete) settled.erase(record.name);
    if (record.op == Op::kBatchBegin) ++batch;
    if (record.op == Op::kBatchEnd && record.offset == 1) --batch;
    const bool ended = record.op == Op::kBatchEnd && record.offset == 1;
    const bool flushed = write || record.op == Op::kFlush || ended;
    if (flushed && batch == 0) touched.clear();
  }
  std::set<std::string> touchedNames;
  for (std::uint32_t t : touched) touchedNames.insert(StreamName(t));
  if (killed && !touched.empty()) tally.Note("kills with streams touched in the killed session");

  // The library's own recovery: one open for writing, then the close.
  {
    CompoundFile file;
    if (!OpensForWriting(file, path_, tally)) return false;
    Streams untouched = settled;
    for (std::uint32_t t : touched) untouched.erase(t);
    const int lost = ExpectSettled(file, untouched, touchedNames, tally.where);
    if (lost != 0) tally.Note("untouched streams lost");
    // Touched streams: whatever they hold now is the model from here on.
    for (std::uint32_t t : touched) {
      std::string content;
      if (ReadStream(file, StreamName(t), &content)) {
        settled[t] = content;
      } else {
        EXPECT_FALSE(file.Exists(StreamName(t).c_str())) << tally.where << ": " << StreamName(t) << " does not read";
        settled.erase(t);
      }
    }
    EXPECT_EQ(ZoStreamE::StatusOk, file.Close()) << tally.where;
  }
  const CheckReport report = CheckCompoundFile(path_.c_str());
  EXPECT_TRUE(report.Sound()) << tally.where << ": not sound after the first open for writing"
                              << (report.problems.empty() ? "" : ": " + report.problems[0].text);
  streams_ = settled;
  std::mt19937_64 rng(version_ * 7919u + static_cast<std::uint64_t>(tally.kills));
  OrdinaryWrites(rng, tally);
  return !::testing::Test::HasFailure();
}

// A few writes of an application that carries on: a new stream, an append,
// a deletion; then everything reads back.
void RunOnWorkload::OrdinaryWrites(std::mt19937_64& rng, Tally& tally) {
  CompoundFile file;
  ASSERT_EQ(file.Open(path_.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk) << tally.where;
  const auto name = static_cast<std::uint32_t>(rng() % kNames);
  Put(file, name, streams_[name] = Content(name, version_++, PickLength(rng)));
  if (!streams_.empty()) {
    const std::uint32_t grown = PickIn(streams_, rng);
    const std::string more = Content(grown, version_++, PickLength(rng));
    ASSERT_TRUE(tztest::Patch(file, StreamName(grown).c_str(), -1, more)) << tally.where;
    streams_[grown] += more;
  }
  if (streams_.size() > kNames / 2) {
    const std::uint32_t gone = PickIn(streams_, rng);
    ASSERT_TRUE(file.DeleteCFFile(StreamName(gone).c_str())) << tally.where;
    streams_.erase(gone);
  }
  ASSERT_EQ(file.Close(), ZoStreamE::StatusOk) << tally.where;
  CompoundFile reader;
  ASSERT_EQ(reader.Open(path_.c_str(), ZoStreamE::OpenReadOnly), ZoStreamE::StatusOk) << tally.where;
  if (ExpectSettled(reader, streams_, {}, tally.where + " (after the ordinary writes)") != 0) {
    tally.Note("streams lost by ordinary writes after a recovery");
  }
}

int RunOnKills() {
  const char* text = std::getenv("TZ_RUNON_KILLS");
  const int kills = text != nullptr ? std::atoi(text) : 0;
  return kills > 0 ? kills : 40;
}

TEST(KillAnyMoment, RunOnWithoutHelp) {
  RunOnWorkload workload(false);
  KillPlan plan{0x72756e6f6e, 16};
  plan.killsPerLife = 1 << 30;  // one file for the whole run
  plan.kills = RunOnKills();
  RunKills(workload, "run-on", plan);
}

// The same with batches begun and ended at random: a stream finished
// before a batch began reads back exactly after a kill inside it.
TEST(KillAnyMoment, RunOnInBatches) {
  RunOnWorkload workload(true);
  KillPlan plan{0x6261746368, 16};
  plan.killsPerLife = 1 << 30;
  plan.kills = RunOnKills();
  RunKills(workload, "run-on in batches", plan);
}

}  // namespace
}  // namespace killtest
