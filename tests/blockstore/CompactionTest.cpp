// Compaction in place and scrubbing: the move model first, then the passes
// on real files (every stream back, the check sound, the length the used
// blocks need), bounded steps, encrypted files, refusals, a large file.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "blockstore/BlockGraph.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "tests/TestUtil.h"

namespace {

using namespace tztest;
using Move = BlockGraph::Move;

// --- The model ---

// A graph of `blocks` blocks whose heads are all sound, with `links`
// (from, to) and the heads in use for `used`.
BlockGraph Graph(std::uint32_t blocks, const std::vector<std::uint32_t>& used,
                 const std::vector<std::pair<std::uint32_t, std::uint32_t>>& links) {
  BlockGraph g(blocks);
  for (std::uint32_t n = 1; n <= blocks; ++n) {
    bf::BlockHead head{};
    head.blockNumber = n;
    head.inUse = std::count(used.begin(), used.end(), n) != 0 ? 1 : 0;
    std::copy(bf::kSignature, bf::kSignature + bf::kSignatureSize, head.signature);
    for (const auto& l : links) {
      if (l.first == n) head.nextBlock = l.second;
    }
    g.SetHead(n, head, false);
  }
  return g;
}

bool SameMoves(const std::vector<Move>& a, const std::vector<Move>& b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](const Move& x, const Move& y) {
           return x.from == y.from && x.to == y.to;
         });
}

// Directory 1 -> 4; stream A in slot 0: 2 -> 7 -> 8; stream B in slot 1:
// 9 -> 3. Blocks 5 and 6 are free, 10 is in use by its head only.
TEST(BlockGraphModel, MovesTheHighestIntoTheLowestAndRelinks) {
  BlockGraph g = Graph(10, {1, 2, 3, 4, 7, 8, 9, 10}, {{1, 4}, {2, 7}, {7, 8}, {9, 3}});
  ASSERT_TRUE(g.HoldDirectory({1, 4}));
  ASSERT_TRUE(g.HoldChain(0, 2));
  ASSERT_TRUE(g.HoldChain(1, 9));
  EXPECT_FALSE(g.Held(10));  // in use by its head, reached by nothing
  EXPECT_EQ(7u, g.HeldCount());
  EXPECT_EQ(2u, g.CountToMove());  // 8 and 9 lie above block 7
  EXPECT_EQ(BlockGraph::kEntryHolder | 1, g.Holder(9));
  EXPECT_EQ(7u, g.Holder(8));

  // Ascending on both sides: 8 -> 5, 9 -> 6.
  const std::vector<Move> moves = g.NextMoves(10);
  ASSERT_TRUE(SameMoves(moves, {{8, 5}, {9, 6}}));
  EXPECT_EQ(5u, BlockGraph::Destination(moves, 8));
  EXPECT_EQ(7u, BlockGraph::Destination(moves, 7));
  g.ApplyMoves(moves);
  EXPECT_TRUE(g.Held(5) && g.Held(6));
  EXPECT_FALSE(g.Held(8) || g.Held(9));
  EXPECT_EQ(7u, g.Holder(5));   // a holder that stays is relinked
  EXPECT_EQ(BlockGraph::kEntryHolder | 1, g.Holder(6));
  EXPECT_EQ(6u, g.Holder(3));   // the successor that stays names the copy
  EXPECT_EQ(3u, g.Next(6));
  EXPECT_EQ(7u, g.HighestHeld());
  EXPECT_EQ(0u, g.CountToMove());
  EXPECT_TRUE(g.NextMoves(10).empty());
}

// A run of a chain and a directory block move together: links inside the
// batch name the copies, and the next batch resumes below.
TEST(BlockGraphModel, BatchesKeepRunsAndResume) {
  // Directory 1 -> 8; stream in slot 0: 6 -> 7 -> 9 -> 10. Free: 2..5.
  BlockGraph g = Graph(10, {1, 6, 7, 8, 9, 10}, {{1, 8}, {6, 7}, {7, 9}, {9, 10}});
  ASSERT_TRUE(g.HoldDirectory({1, 8}));
  ASSERT_TRUE(g.HoldChain(0, 6));
  std::vector<Move> first = g.NextMoves(2);
  ASSERT_TRUE(SameMoves(first, {{9, 2}, {10, 3}}));
  g.ApplyMoves(first);
  EXPECT_EQ(3u, g.Next(2));  // moved with its successor
  EXPECT_EQ(7u, g.Holder(2));
  std::vector<Move> second = g.NextMoves(5);
  ASSERT_TRUE(SameMoves(second, {{7, 4}, {8, 5}}));
  g.ApplyMoves(second);
  EXPECT_TRUE(g.IsDirectory(5));
  EXPECT_EQ(1u, g.Holder(5));  // the directory block before it
  EXPECT_EQ(5u, g.Next(1));
  EXPECT_EQ(4u, g.Holder(2));
  EXPECT_EQ(6u, g.Holder(4));
  EXPECT_EQ(4u, g.Next(6));    // the holder that stays links to the copy
  EXPECT_EQ(6u, g.HighestHeld());
  EXPECT_EQ(0u, g.CountToMove());
}

TEST(BlockGraphModel, RefusesChainsThatCannotBeMoved) {
  struct Case {
    const char* what;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> links;
    std::uint32_t second;  // first block of a second chain, 0 for none
  } cases[] = {
      {"a loop", {{2, 3}, {3, 2}}, 0},
      {"a link past the end", {{2, 3}, {3, 9}}, 0},
      {"a link into the directory", {{2, 1}}, 0},
      {"two chains sharing a block", {{2, 3}, {4, 3}}, 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    BlockGraph g = Graph(5, {1, 2, 3, 4}, c.links);
    ASSERT_TRUE(g.HoldDirectory({1}));
    EXPECT_FALSE(g.HoldChain(0, 2) && (c.second == 0 || g.HoldChain(1, c.second)));
  }
  // A head that names another block.
  BlockGraph g(3);
  bf::BlockHead head{};
  std::copy(bf::kSignature, bf::kSignature + bf::kSignatureSize, head.signature);
  for (std::uint32_t n = 1; n <= 3; ++n) {
    head.blockNumber = n == 3 ? 2 : n;
    g.SetHead(n, head, false);
  }
  ASSERT_TRUE(g.HoldDirectory({1}));
  EXPECT_TRUE(g.HoldChain(0, 2));
  EXPECT_FALSE(g.HoldChain(1, 3));
}

// --- The passes on files ---

class Compaction : public ::testing::Test {
 protected:
  // Streams of one to six blocks; every other one deleted, so that free
  // blocks lie all through the file.
  void MakeHoled(int count) {
    path_ = dir_.Path("holed.zo");
    StreamList all;
    for (int i = 0; i < count; ++i) {
      all.emplace_back("s" + std::to_string(i), Pattern(static_cast<std::size_t>(i % 6) * 1003 + 17, i));
    }
    MakeFile(path_, all);
    OpenedFile f(path_, OpenReadWrite);
    kept_.clear();
    for (int i = 0; i < count; ++i) {
      if (i % 2 == 0) {
        ASSERT_TRUE(f.DeleteCFFile(all[i].first.c_str()));
      } else {
        kept_.push_back(all[i]);
      }
    }
  }

  // The file is sound and holds every kept stream.
  void ExpectIntact(const char* password = nullptr) {
    const CheckReport report = CheckCompoundFile(path_.c_str(), password);
    EXPECT_TRUE(report.Sound()) << (report.problems.empty() ? report.openError : report.problems[0].text);
    EXPECT_EQ(CheckReport::kMapCurrent, report.savedMap);
    OpenedFile f(path_, OpenReadOnly);
    if (password != nullptr) {
      ASSERT_TRUE(f.SetPassword(password));
    }
    ExpectStreams(f, kept_);
    EXPECT_EQ(kept_.size() + 1, static_cast<std::size_t>(f.GetNumDirEntrys()));
  }

  // Blocks held by some chain, from a check of the file.
  std::uint32_t HeldBlocks() { return CheckCompoundFile(path_.c_str()).heldBlocks; }

  ScratchDir dir_;
  std::string path_;
  StreamList kept_;
};

TEST_F(Compaction, PacksEveryUsedBlockAndKeepsEveryStream) {
  ASSERT_NO_FATAL_FAILURE(MakeHoled(300));
  const std::size_t before = ReadAll(path_).size();
  CompactProgress p;
  {
    OpenedFile f(path_, OpenReadWrite);
    ASSERT_EQ(StatusOk, f.CompactInPlace(&p));
    EXPECT_TRUE(p.finished);
    EXPECT_GT(p.moved, 0u);
    EXPECT_EQ(p.moved, p.toMove);
    EXPECT_EQ(before, p.lengthBefore);
    ExpectStreams(f, kept_);  // the handle reads on after the moves
    EXPECT_EQ(StatusOk, f.Close());
  }
  ExpectIntact();
  const FileBytes after = ReadAll(path_);
  EXPECT_EQ(after.size(), p.length);
  // No free block is left: every block is held by a chain.
  EXPECT_EQ(BlockCount(after), HeldBlocks());
  EXPECT_LT(after.size(), before * 2 / 3);

  // A second run finds nothing to do and writes nothing.
  {
    OpenedFile f(path_, OpenReadWrite);
    ASSERT_EQ(StatusOk, f.CompactInPlace(&p));
    EXPECT_TRUE(p.finished);
    EXPECT_EQ(0u, p.moved);
  }
  EXPECT_TRUE(after == ReadAll(path_));
}

// Bounded calls, each a step the file is sound after, reach the length of
// one whole run; the callback can stop a run after its first batch.
TEST_F(Compaction, BoundedStepsResumeWhereTheyStopped) {
  ASSERT_NO_FATAL_FAILURE(MakeHoled(3000));
  const FileBytes start = ReadAll(path_);
  {
    OpenedFile f(path_, OpenReadWrite);
    ASSERT_EQ(StatusOk, f.CompactInPlace());
  }
  const std::size_t whole = ReadAll(path_).size();

  WriteAll(path_, start);
  int calls = 0;
  CompactProgress p;
  {
    OpenedFile f(path_, OpenReadWrite);
    const CompactCallback stop = [](const CompactProgress&, void* context) {
      ++*static_cast<int*>(context);
      return false;
    };
    ASSERT_EQ(StatusOk, f.CompactInPlace(&p, 0, stop, &calls));
  }
  EXPECT_EQ(1, calls);
  EXPECT_FALSE(p.finished);
  EXPECT_LT(p.moved, p.toMove);
  ExpectIntact();

  for (int step = 0; step < 100 && !p.finished; ++step) {
    {
      OpenedFile f(path_, OpenReadWrite);
      ASSERT_EQ(StatusOk, f.CompactInPlace(&p, 700));
      EXPECT_LE(p.moved, 700u);
      EXPECT_TRUE(PutStream(f, "between", Pattern(3000, step)));  // ordinary use between steps
      EXPECT_TRUE(f.DeleteCFFile("between"));
    }
    ASSERT_NO_FATAL_FAILURE(ExpectIntact());
  }
  EXPECT_TRUE(p.finished);
  OpenedFile f(path_, OpenReadWrite);
  ASSERT_EQ(StatusOk, f.CompactInPlace(&p));
  f.Close();
  EXPECT_EQ(whole, ReadAll(path_).size());
}

// Without the password the blocks move as they lie; the file stays
// encrypted and reads back under its password.
TEST_F(Compaction, EncryptedFileCompactsWithoutItsPassword) {
  ASSERT_NO_FATAL_FAILURE(MakeHoled(200));
  {
    OpenedFile f(path_, OpenReadWrite);
    ASSERT_EQ(StatusOk, f.Encrypt("secret"));
  }
  CompactProgress p;
  {
    OpenedFile f(path_, OpenReadWrite);
    bool ok = true;
    GetStream(f, kept_[0].first.c_str(), &ok);  // a read without the password
    EXPECT_FALSE(ok);
    ASSERT_EQ(ZoStreamE::StatusPasswordNeeded, f.GetStatus());
    EXPECT_EQ(ZoStreamE::StatusPasswordNeeded, f.CompactInPlace(&p));
    EXPECT_TRUE(p.finished);
    EXPECT_GT(p.moved, 0u);
    ASSERT_TRUE(f.SetPassword("secret"));
    ExpectStreams(f, kept_);
  }
  ExpectIntact("secret");
  std::uint32_t scrubbed = 1;
  OpenedFile f(path_, OpenReadWrite);
  EXPECT_EQ(StatusOk, f.ScrubFreeBlocks(&scrubbed));
  EXPECT_EQ(0u, scrubbed);  // a compact file has no free block
  EXPECT_TRUE(f.IsEncrypted() || f.GetStatus() == StatusOk);
}

TEST_F(Compaction, RefusalsChangeNothing) {
  ASSERT_NO_FATAL_FAILURE(MakeHoled(30));
  const FileBytes start = ReadAll(path_);
  {
    OpenedFile f(path_, OpenReadOnly);
    EXPECT_EQ(ZoStreamE::StatusFailed, f.CompactInPlace());
    EXPECT_EQ(ZoStreamE::StatusFailed, f.ScrubFreeBlocks());
    EXPECT_EQ(StatusOk, f.GetStatus());
  }
  {
    OpenedFile f(path_, OpenReadWrite);
    std::unique_ptr<std::iostream> open(f.GetIOStream(kept_[0].first.c_str(), "rb"));
    EXPECT_EQ(ZoStreamE::StatusFailed, f.CompactInPlace());
    open.reset();
    ASSERT_EQ(StatusOk, f.BeginBatch());
    EXPECT_EQ(ZoStreamE::StatusFailed, f.ScrubFreeBlocks());
    ASSERT_EQ(StatusOk, f.EndBatch());
    EXPECT_EQ(StatusOk, f.GetStatus());
  }
  CompoundFile none;
  EXPECT_EQ(ZoStreamE::StatusNotOpen, none.CompactInPlace());
  EXPECT_TRUE(start == ReadAll(path_));

  // Two chains sharing a block: refused before anything is written.
  FileBytes bytes = start;
  const std::uint32_t a = FirstBlockOf(bytes, kept_[4].first.c_str());
  const std::uint32_t b = FirstBlockOf(bytes, kept_[5].first.c_str());
  Put32(bytes, BlockAt(a) + bf::kOffNextBlock, b);
  WriteAll(path_, bytes);
  {
    OpenedFile f(path_, OpenReadWrite);
    const FileBytes opened = ReadAll(path_);  // the open may mend what it can
    EXPECT_EQ(ZoStreamE::StatusFailed, f.CompactInPlace());
    EXPECT_EQ(StatusOk, f.GetStatus());
    EXPECT_TRUE(opened == ReadAll(path_));
  }
}

// Deleted content is gone from the file's bytes after a scrub, and after
// a whole compaction too; what is kept reads back.
TEST_F(Compaction, DeletedContentLeavesNoTrace) {
  const std::string secret = "do-not-keep-this-text-";
  std::string body;
  while (body.size() < 5000) body += secret;
  auto holds = [&](const FileBytes& bytes) {
    return std::string(bytes.begin(), bytes.end()).find(secret) != std::string::npos;
  };
  for (const bool compact : {false, true}) {
    SCOPED_TRACE(compact ? "compaction" : "scrub");
    ASSERT_NO_FATAL_FAILURE(MakeHoled(60));
    {
      OpenedFile f(path_, OpenReadWrite);
      ASSERT_TRUE(PutStream(f, "secret", body));
      ASSERT_TRUE(PutStream(f, "later", Pattern(4000, 7)));
    }
    kept_.emplace_back("later", Pattern(4000, 7));
    {
      OpenedFile f(path_, OpenReadWrite);
      ASSERT_TRUE(f.DeleteCFFile("secret"));
    }
    ASSERT_TRUE(holds(ReadAll(path_)));
    std::uint32_t scrubbed = 0;
    {
      OpenedFile f(path_, OpenReadWrite);
      ASSERT_EQ(StatusOk, compact ? f.CompactInPlace() : f.ScrubFreeBlocks(&scrubbed));
    }
    EXPECT_FALSE(holds(ReadAll(path_)));
    ExpectIntact();
    if (compact) continue;
    EXPECT_GT(scrubbed, 5u);
    const CheckReport report = CheckCompoundFile(path_.c_str());
    EXPECT_EQ(report.blocks, report.heldBlocks + report.skippedBlocks);
  }
}

// 100,000 streams, half of them deleted: no step may grow with the square
// of the streams (this would run for minutes).
TEST_F(Compaction, HundredThousandStreams) {
  path_ = dir_.Path("large.zo");
  {
    OpenedFile f(path_, OpenReadWrite);
    ASSERT_EQ(StatusOk, f.BeginBatch());
    for (int i = 0; i < 100000; ++i) {
      const std::string name = "n" + std::to_string(i);
      ASSERT_TRUE(f.WriteStream(name.c_str(), name.data(), name.size()));
    }
    ASSERT_EQ(StatusOk, f.EndBatch());
  }
  {
    OpenedFile f(path_, OpenReadWrite);
    ASSERT_EQ(StatusOk, f.BeginBatch());
    for (int i = 0; i < 100000; i += 2) ASSERT_TRUE(f.DeleteCFFile(("n" + std::to_string(i)).c_str()));
    ASSERT_EQ(StatusOk, f.EndBatch());
  }
  CompactProgress p;
  {
    OpenedFile f(path_, OpenReadWrite);
    ASSERT_EQ(StatusOk, f.CompactInPlace(&p));
    EXPECT_TRUE(p.finished);
  }
  const CheckReport report = CheckCompoundFile(path_.c_str());
  EXPECT_TRUE(report.Sound());
  EXPECT_EQ(report.blocks, report.heldBlocks);
  OpenedFile f(path_, OpenReadOnly);
  EXPECT_EQ(50001, f.GetNumDirEntrys());
  std::string got;
  for (int i = 1; i < 100000; i += 998) {
    const std::string name = "n" + std::to_string(i);
    ASSERT_TRUE(f.ReadStream(name.c_str(), got));
    EXPECT_EQ(name, got);
  }
}

}  // namespace
