// Batches: the flush points of stream closes and Flush wait for the end of
// the batch, and the file then holds exactly what the same calls leave
// without one. The clock is fixed, so that two runs stamp the same times.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>

#include "blockstore/BlockFormat.h"
#include "tests/TestUtil.h"

namespace {

namespace bf = blockformat;
using namespace tztest;
using ZoStreamE::OpenReadOnly;
using ZoStreamE::OpenReadWrite;

// Streams written, replaced, grown and deleted, with a flush between;
// `afterPuts` runs once the first streams are written.
void Edits(CompoundFile& f, const std::function<void()>& afterPuts = [] {}) {
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(PutStream(f, ("s" + std::to_string(i)).c_str(), Pattern(100 + 997 * (i % 7), i)));
  }
  afterPuts();
  for (int i = 0; i < 40; i += 5) ASSERT_TRUE(f.DeleteCFFile(("s" + std::to_string(i)).c_str()));
  f.Flush();
  ASSERT_TRUE(PutStream(f, "s1", Pattern(5000, 99)));
  std::unique_ptr<std::iostream> s(f.GetIOStream("s2", "r+b"));
  ASSERT_TRUE(s != nullptr);
  s->seekp(0, std::ios_base::end);
  s->write(Pattern(3000, 98).data(), 3000);
}

class BatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    plain_ = dir_.Path("plain.cf");
    batched_ = dir_.Path("batched.cf");
    MakeFile(plain_, {{"before", Pattern(2500, 1)}});
    WriteAll(batched_, ReadAll(plain_));
  }
  // The edits without a batch; the file's bytes after them, then after the
  // close.
  void Plain(FileBytes* afterEdits, FileBytes* afterClose) {
    CompoundFile f;
    ASSERT_EQ(ZoStreamE::StatusOk, f.Open(plain_.c_str(), OpenReadWrite));
    ASSERT_NO_FATAL_FAILURE(Edits(f));
    *afterEdits = ReadAll(plain_);
    f.Close();
    *afterClose = ReadAll(plain_);
  }

  FixedClockEnv clock_;
  ScopedEnv scoped_{&clock_};
  ScratchDir dir_;
  std::string plain_, batched_;
};

TEST_F(BatchTest, EndBatchLeavesWhatTheLastFlushPointWould) {
  FileBytes afterEdits, afterClose;
  ASSERT_NO_FATAL_FAILURE(Plain(&afterEdits, &afterClose));
  CompoundFile f;
  ASSERT_EQ(ZoStreamE::StatusOk, f.Open(batched_.c_str(), OpenReadWrite));
  ASSERT_EQ(ZoStreamE::StatusOk, f.BeginBatch());
  ASSERT_EQ(ZoStreamE::StatusOk, f.BeginBatch());  // nested
  // Forty streams closed: their blocks wait in memory with the directory;
  // all that has reached the file is the mark of an unfinished session.
  FileBytes marked = ReadAll(batched_);
  std::copy(bf::kUnfinishedMark, bf::kUnfinishedMark + bf::kUnfinishedMarkSize, &marked[bf::kOffReserved]);
  ASSERT_NO_FATAL_FAILURE(Edits(f, [&] { EXPECT_TRUE(marked == ReadAll(batched_)); }));
  EXPECT_EQ(ZoStreamE::StatusOk, f.EndBatch());  // the inner level: still deferred
  EXPECT_EQ(ZoStreamE::StatusOk, f.EndBatch());
  EXPECT_TRUE(afterEdits == ReadAll(batched_)) << "the bytes after EndBatch differ";
  EXPECT_EQ(ZoStreamE::StatusFailed, f.EndBatch());  // no batch left
  EXPECT_EQ(ZoStreamE::StatusOk, f.GetStatus());
  f.Close();
  EXPECT_TRUE(afterClose == ReadAll(batched_)) << "the bytes after the close differ";
}

// A batch belongs to the file: one handle begins it, another's stream is
// deferred by it, and the other ends it. The close of the last holder
// inside a batch ends it too.
TEST_F(BatchTest, HandlesShareTheBatchAndTheCloseEndsIt) {
  FileBytes afterEdits, afterClose;
  ASSERT_NO_FATAL_FAILURE(Plain(&afterEdits, &afterClose));
  CompoundFile first, second;
  ASSERT_EQ(ZoStreamE::StatusOk, first.Open(batched_.c_str(), OpenReadWrite));
  ASSERT_EQ(ZoStreamE::StatusOk, second.Open(batched_.c_str(), OpenReadWrite));
  ASSERT_EQ(ZoStreamE::StatusOk, first.BeginBatch());
  ASSERT_NO_FATAL_FAILURE(Edits(second));
  EXPECT_EQ(ZoStreamE::StatusOk, second.EndBatch());
  EXPECT_TRUE(afterEdits == ReadAll(batched_));
  ASSERT_EQ(ZoStreamE::StatusOk, second.BeginBatch());
  first.Close();
  second.Close();  // the last holder, inside a batch
  EXPECT_TRUE(afterClose == ReadAll(batched_));

  std::remove(batched_.c_str());
  MakeFile(batched_, {{"before", Pattern(2500, 1)}});
  CompoundFile only;
  ASSERT_EQ(ZoStreamE::StatusOk, only.Open(batched_.c_str(), OpenReadWrite));
  ASSERT_EQ(ZoStreamE::StatusOk, only.BeginBatch());
  ASSERT_TRUE(PutStream(only, "late", "in the batch"));
  only.Close();
  OpenedFile reader(batched_, OpenReadOnly);
  EXPECT_EQ("in the batch", GetStream(reader, "late"));
}

TEST_F(BatchTest, RefusedWithoutAFileOrForReading) {
  CompoundFile none;
  EXPECT_EQ(ZoStreamE::StatusNotOpen, none.BeginBatch());
  EXPECT_EQ(ZoStreamE::StatusNotOpen, none.EndBatch());
  OpenedFile reader(plain_, OpenReadOnly);
  EXPECT_EQ(ZoStreamE::StatusFailed, reader.BeginBatch());
  EXPECT_EQ(ZoStreamE::StatusFailed, reader.EndBatch());
  EXPECT_EQ(ZoStreamE::StatusOk, reader.GetStatus());
}

}  // namespace
