// Files damaged on purpose at offsets taken from the format's table. Each
// case must end in the status the engine documents for it. Random damage is
// the fuzz targets' (fuzz/CompoundFileFuzz.cpp runs the same read-only,
// read-write, read-only rounds on arbitrary bytes).
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tesselzostream/CompoundFileCheck.h"
#include "tests/TestUtil.h"

namespace {

using namespace tztest;
using Bytes = FileBytes;
using ZoStreamE::Status;

// Where the saved block map's fields lie in the file.
std::size_t ListPayload(const Bytes& b) {
  return BlockAt(FirstBlockOf(b, bf::kFreeListName)) + bf::kOffPayload;
}

class DamageTest : public ::testing::Test {
 protected:
  // Four streams and the saved map: two directory blocks, chains of one to
  // three blocks, the last block of the file holding the saved map.
  void SetUp() override {
    path_ = dir_.Path("damaged.zo");
    streams_ = {{"alpha", Pattern(5, 1)}, {"beta", Pattern(3000, 2)},
                {"gamma", Pattern(1200, 3)}, {"delta", Pattern(10, 4)}};
    ASSERT_NO_FATAL_FAILURE(MakeFile(path_, streams_));
    good_ = ReadAll(path_);
    ASSERT_EQ(2u, Chain(good_, 1).size());
    beta_ = Chain(good_, FirstBlockOf(good_, "beta"));
    ASSERT_EQ(3u, beta_.size());
  }

  // A copy of the good file with `damage` applied.
  Bytes With(const std::function<void(Bytes&)>& damage) const {
    Bytes b = good_;
    damage(b);
    return b;
  }
  void Install(const Bytes& bytes) { WriteAll(path_, bytes); }

  // The installed file takes a new stream on an open for writing, sharing
  // no block with another chain, and then reads back every stream.
  void ExpectTakesAStream() {
    {
      OpenedFile f(path_, OpenReadWrite);
      ASSERT_TRUE(PutStream(f, "epsilon", Pattern(4000, 6)));
      EXPECT_EQ(StatusOk, f.Close());
    }
    for (const CheckProblem& p : CheckCompoundFile(path_.c_str()).problems) {
      EXPECT_NE(CheckProblem::kClaimedTwice, p.kind) << p.text;
    }
    OpenedFile f(path_, OpenReadOnly);
    ExpectStreams(f, streams_);
    EXPECT_EQ(Pattern(4000, 6), GetStream(f, "epsilon"));
  }

  // In both modes, reading `name` fails with `expected`, and neither the
  // failed read nor the close after it changes a byte of the file. With
  // `mended`, an open for writing (whose saved map no longer matches the
  // directory) mends the chain instead: the stream reads `mended` and the
  // file is sound after the close.
  void ExpectReadFails(const Bytes& damaged, const char* name, Status expected,
                       const std::string* mended = nullptr) {
    for (ZoStreamE::OpenMode mode : {OpenReadOnly, OpenReadWrite}) {
      SCOPED_TRACE(mode == OpenReadOnly ? "read-only" : "read-write");
      Install(damaged);
      OpenedFile f(path_, mode);
      bool ok = true;
      const std::string got = GetStream(f, name, &ok);
      if (mode == OpenReadWrite && mended != nullptr) {
        EXPECT_TRUE(ok && got == *mended);
        EXPECT_EQ(StatusOk, f.Close());
        EXPECT_TRUE(CheckCompoundFile(path_.c_str()).Sound());
        continue;
      }
      EXPECT_FALSE(ok);
      EXPECT_EQ(expected, f.GetStatus());
      f.Close();
      EXPECT_TRUE(ReadAll(path_) == damaged);
    }
  }

  ScratchDir dir_;
  std::string path_;
  StreamList streams_;
  Bytes good_;
  std::vector<std::uint32_t> beta_;  // the chain of "beta" in good_
};

}  // namespace

// A file whose length is no whole number of blocks or whose first block is
// no directory block is refused as not open. A directory chain that cannot
// be followed to its end leaves Open as a thrown StatusFailed. Either way,
// in both modes, the handle has no file, nothing was written, and the file
// is not left locked (a second attempt meets the same damage).
TEST_F(DamageTest, OpenRefusesWhatIsNoBlockFile) {
  const std::vector<std::uint32_t> dir = Chain(good_, 1);
  const std::size_t link1 = BlockAt(dir[0]) + bf::kOffNextBlock;
  const std::size_t link2 = BlockAt(dir[1]) + bf::kOffNextBlock;
  const struct {
    const char* label;
    bool threw;  // else returned StatusNotOpen
    Bytes bytes;
  } cases[] = {
      {"one byte too long", false, With([](Bytes& b) { b.push_back(0); })},
      {"one byte short", false, With([](Bytes& b) { b.pop_back(); })},
      {"no BlockFile at offset 5", false, With([](Bytes& b) { b[bf::kOffSignature + 2] = 'X'; })},
      {"no ZoCompoundFile in block 1", false, With([](Bytes& b) { b[bf::kOffFileSignature + 1] = 'X'; })},
      {"link to a data block", true, With([&](Bytes& b) { Put32(b, link1, FirstBlockOf(good_, "beta")); })},
      {"second block without file signature", true,
       With([&](Bytes& b) { b[BlockAt(dir[1]) + bf::kOffFileSignature] = 'z'; })},
      {"block 1 links to itself", true, With([&](Bytes& b) { Put32(b, link1, 1); })},
      {"second block links back to block 1", true, With([&](Bytes& b) { Put32(b, link2, 1); })},
  };
  for (const auto& c : cases) {
    for (ZoStreamE::OpenMode mode : {OpenReadOnly, OpenReadWrite}) {
      SCOPED_TRACE(c.label);
      Install(c.bytes);
      for (int attempt = 0; attempt < 2; ++attempt) {
        CompoundFile f;
        const OpenResult r = TryOpen(f, path_, mode);
        EXPECT_EQ(c.threw, r.threw);
        EXPECT_EQ(c.threw ? ZoStreamE::StatusFailed : ZoStreamE::StatusNotOpen, r.status);
        EXPECT_EQ(ZoStreamE::StatusNotOpen, f.GetStatus());
        EXPECT_EQ(nullptr, f.GetCompoundFileName());
      }
      EXPECT_TRUE(ReadAll(path_) == c.bytes);
    }
  }
}

// Cutting the file anywhere leaves either a file that is refused or one
// that opens and reports its missing blocks by status, never a crash.
TEST_F(DamageTest, EveryTruncationIsRefusedOrReportsMissingBlocks) {
  for (std::size_t cut = 1; cut < good_.size(); cut += (cut % bf::kBlockSize == 0) ? 1 : 97) {
    SCOPED_TRACE(cut);
    Install(Bytes(good_.begin(), good_.begin() + cut));
    for (ZoStreamE::OpenMode mode : {OpenReadOnly, OpenReadWrite}) {
      CompoundFile f;
      const OpenResult r = TryOpen(f, path_, mode);
      if (r.threw) {
        EXPECT_EQ(ZoStreamE::StatusFailed, r.status);
      } else if (cut % bf::kBlockSize != 0) {
        EXPECT_EQ(ZoStreamE::StatusNotOpen, r.status);
      }
      if (r.threw || r.status != StatusOk) continue;
      for (const auto& s : streams_) {
        bool ok = false;
        const std::string got = GetStream(f, s.first.c_str(), &ok);
        EXPECT_TRUE(!ok || got == s.second) << s.first;
      }
      const Status after = f.GetStatus();
      EXPECT_TRUE(after == StatusOk || after == ZoStreamE::StatusPastEnd ||
                  after == ZoStreamE::StatusFailed);
    }
  }
}

// Damage met while walking a stream's chain fails the read with a status,
// in both modes, and leaves the file as it was: a read never grows a chain.
// Where the directory is untouched the read-write open takes the saved map
// without a scan, so the check has to happen in the read itself.
TEST_F(DamageTest, DamagedDataChainFailsTheRead) {
  const std::vector<std::uint32_t>& beta = beta_;
  const std::size_t entry = EntryAt(good_, "beta");
  // Where the damage is in the entry, the directory no longer matches the
  // saved map, and an open for writing cuts the size to what the chain
  // holds (three blocks, one byte short of their payloads).
  const std::string cut = Pattern(3000, 2) + std::string(3 * bf::kPayloadSize - 1 - 3000, '\0');
  const struct {
    const char* label;
    Status expected;
    Bytes bytes;
    const std::string* mended;
  } cases[] = {
      {"link past the end", ZoStreamE::StatusPastEnd,
       With([&](Bytes& b) { Put32(b, BlockAt(beta[0]) + bf::kOffNextBlock, BlockCount(b) + 9); }), nullptr},
      {"size beyond what the chain holds", ZoStreamE::StatusFailed,
       With([&](Bytes& b) { Put32(b, entry + bf::kOffSize, 10 * bf::kPayloadSize); }), &cut},
      {"chain loops, size asks for more", ZoStreamE::StatusFailed, With([&](Bytes& b) {
         Put32(b, BlockAt(beta.back()) + bf::kOffNextBlock, beta[0]);
         Put32(b, entry + bf::kOffSize, 0x7FFFFFFF);
       }), &cut},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    ExpectReadFails(c.bytes, "beta", c.expected, c.mended);
  }

  // A first block past the end: the stream comes back already failed.
  Install(With([&](Bytes& b) { Put32(b, entry + bf::kOffFirstBlock, BlockCount(b) + 1); }));
  OpenedFile f(path_, OpenReadOnly);
  std::unique_ptr<std::iostream> s(f.GetIOStream("beta", "rb"));
  ASSERT_NE(nullptr, s);
  EXPECT_TRUE(s->bad());
  EXPECT_EQ(ZoStreamE::StatusPastEnd, f.GetStatus());
}

// A read does not compare a block's head with anything: a torn head (its
// own number or signature) still reads, in a read-only open and in an open
// for writing that takes the saved map. A rewrite through such a block
// lands where the block was read, never where its head points, and puts
// the head right. A deletion of a chain that loops must end.
TEST_F(DamageTest, TornDataHeadReadsAndRewritesInPlace) {
  const std::vector<std::uint32_t>& beta = beta_;
  const std::size_t torn = BlockAt(beta[1]);
  const std::vector<std::pair<const char*, Bytes>> cases = {
      {"head names another block", With([&](Bytes& b) { Put32(b, torn + bf::kOffBlockNumber, beta[0]); })},
      {"head without signature", With([&](Bytes& b) { b[torn + bf::kOffSignature] = 'b'; })},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    for (ZoStreamE::OpenMode mode : {OpenReadOnly, OpenReadWrite}) {
      Install(c.second);
      OpenedFile f(path_, mode);
      ExpectStreams(f, streams_);
      EXPECT_EQ(StatusOk, f.GetStatus());
      f.Close();
      EXPECT_TRUE(ReadAll(path_) == c.second);  // reading wrote nothing
    }
    {
      OpenedFile f(path_, OpenReadWrite);
      ASSERT_TRUE(Patch(f, "beta", bf::kPayloadSize + 10, "xyz"));
      EXPECT_EQ(StatusOk, f.Close());
    }
    const Bytes after = ReadAll(path_);
    EXPECT_EQ(beta[1], Get32(after, torn + bf::kOffBlockNumber));
    EXPECT_EQ(0, std::memcmp(&after[torn + bf::kOffSignature], bf::kSignature, bf::kSignatureSize));
    std::string expected = streams_[1].second;
    expected.replace(bf::kPayloadSize + 10, 3, "xyz");
    OpenedFile f(path_, OpenReadWrite);  // the heads are whole again: a scan would pass
    EXPECT_EQ(expected, GetStream(f, "beta"));
    ExpectStreams(f, streams_, "beta");
  }

  // The saved map's own first block calling itself block 1: the map is
  // taken all the same (its digest matches), and the close that replaces
  // the list frees that block in its place, not over the directory.
  Install(With([](Bytes& b) {
    Put32(b, BlockAt(FirstBlockOf(b, bf::kFreeListName)) + bf::kOffBlockNumber, 1);
  }));
  ExpectTakesAStream();

  Install(With([&](Bytes& b) { Put32(b, BlockAt(beta.back()) + bf::kOffNextBlock, beta[0]); }));
  {
    OpenedFile f(path_, OpenReadWrite);
    // The link back names a block this deletion has just freed: the walk
    // ends there, having freed each block of the stream once.
    EXPECT_TRUE(f.DeleteCFFile("beta"));
    EXPECT_EQ(StatusOk, f.GetStatus());
  }
  {
    OpenedFile f(path_, OpenReadWrite);  // the heads agree with the directory: a scan accepts it
    EXPECT_FALSE(f.Exists("beta"));
  }
  OpenedFile f(path_, OpenReadOnly);
  ExpectStreams(f, streams_, "beta");
}

// Name and time fields without their zero are cut to 256 and 25 characters:
// listing gives a terminated text, the stream is reachable by it, and the
// file stays usable.
TEST_F(DamageTest, UnterminatedTextsAreCut) {
  const std::size_t texts = DirEntry::kNameSize + 2 * DirEntry::kTimeSize;
  Install(With([&](Bytes& b) { std::memset(&b[EntryAt(b, "alpha") + bf::kOffName], 'n', texts); }));
  const std::string cut(bf::kMaxNameLength, 'n');
  streams_[0].first = cut;
  for (ZoStreamE::OpenMode mode : {OpenReadOnly, OpenReadWrite}) {
    OpenedFile f(path_, mode);
    EXPECT_EQ(cut, ListNames(f).at(0));
    ASSERT_TRUE(f.Exists(cut.c_str()));
    EXPECT_EQ(std::string(DirEntry::kTimeSize - 1, 'n'), f.FindDirEntry(cut.c_str())->created);
    EXPECT_EQ(std::string(DirEntry::kTimeSize - 1, 'n'), f.FindDirEntry(cut.c_str())->modified);
    ExpectStreams(f, streams_);
  }
  ExpectTakesAStream();
}

// A saved map that the open cannot trust is thrown away for a scan. Each
// damaged list also claims that every block is free: a map taken anyway
// would hand out blocks of live streams to the next writer.
TEST_F(DamageTest, UntrustworthySavedMapFallsBackToScan) {
  const std::size_t list = ListPayload(good_);
  const std::uint32_t count = BlockCount(good_);
  const std::vector<std::pair<const char*, Bytes>> cases = {
      {"H of all ones", With([&](Bytes& b) { Put32(b, list + bf::kOffListHighest, 0xFFFFFFFF); })},
      {"H far beyond", With([&](Bytes& b) { Put32(b, list + bf::kOffListHighest, 0x7FFFFFF0); })},
      {"digest mismatch", With([&](Bytes& b) { b[list + bf::kOffListDigest + 5] ^= 0x40; })},
  };
  for (auto c : cases) {
    SCOPED_TRACE(c.first);
    std::memset(&c.second[list + bf::kOffListMap], 0, count + 1);
    Install(c.second);
    EXPECT_EQ(static_cast<int>(count), OpenedFile(path_, OpenReadWrite).GetNumUsedBlocks());  // none free
    ExpectTakesAStream();
  }
}

// A scan stops at a torn head: the file can no longer be opened for
// writing, but a read-only open, which scans nothing, still reads every
// stream the damage did not touch.
TEST_F(DamageTest, TornHeadFailsTheScanOnly) {
  const struct {
    const char* label;
    const char* touched;  // the stream whose block is torn, if any
    Bytes bytes;
  } cases[] = {
      {"data block torn, saved map stale", "gamma", With([](Bytes& b) {
         b[BlockAt(FirstBlockOf(b, "gamma")) + bf::kOffSignature + 4] ^= 0x20;
         b[ListPayload(b) + bf::kOffListDigest] ^= 1;
       })},
      // The directory digest takes the number as read, so the map is stale.
      {"block 1 calls itself block 3", "", With([](Bytes& b) { Put32(b, bf::kOffBlockNumber, 3); })},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    Install(c.bytes);
    {
      CompoundFile f;
      EXPECT_EQ(ZoStreamE::StatusNotOpen, f.Open(path_.c_str(), OpenReadWrite));
    }
    OpenedFile f(path_, OpenReadOnly);
    ExpectStreams(f, streams_, c.touched);
    f.Close();
    EXPECT_TRUE(ReadAll(path_) == c.bytes);
  }
}

// A file cut at a block boundary lost the tail block with the saved map.
// The scan finds every block that is left, and the streams still work.
// The directory still names the lost block, so a later write that grows
// the file must not end up sharing blocks with that stale entry.
TEST_F(DamageTest, FileCutAtBlockBoundaryStaysUsable) {
  ASSERT_EQ(BlockCount(good_), FirstBlockOf(good_, bf::kFreeListName));
  Install(Bytes(good_.begin(), good_.end() - bf::kBlockSize));
  ExpectTakesAStream();
  OpenedFile f(path_, OpenReadWrite);
  ExpectStreams(f, streams_);
}

// A run that crashed after appending to a stream leaves its old last block
// linked to a block the saved map calls free. While that block's head says
// in use this session leaves it alone; once its head says free (the run
// released it again) it goes to a new stream. Either way neither deleting
// nor growing the old stream may then reach into the new one.
TEST_F(DamageTest, LinkLeftByACrashedRunNeverReachesANewStream) {
  const std::vector<std::uint32_t>& beta = beta_;
  const std::uint32_t lost = BlockCount(good_) + 1;
  Bytes crashed = good_;
  crashed.resize(crashed.size() + bf::kBlockSize, 0);  // the lost run's block
  Put32(crashed, BlockAt(lost) + bf::kOffBlockNumber, lost);
  std::memcpy(&crashed[BlockAt(lost) + bf::kOffSignature], bf::kSignature, bf::kSignatureSize);
  Put32(crashed, BlockAt(beta.back()) + bf::kOffNextBlock, lost);  // directory unchanged
  const std::string fresh = Pattern(2500, 99);
  for (const int inUse : {1, 0}) {
    for (const bool grow : {false, true}) {
      SCOPED_TRACE(std::string(grow ? "grow" : "delete") + (inUse != 0 ? ", head in use" : ", head free"));
      crashed[BlockAt(lost) + bf::kOffInUse] = static_cast<unsigned char>(inUse);
      Install(crashed);
      {
        OpenedFile f(path_, OpenReadWrite);
        ASSERT_TRUE(PutStream(f, "fresh", fresh));  // takes the lost block when its head says free
        if (grow) {
          EXPECT_TRUE(Patch(f, "beta", -1, Pattern(3000, 5)));
        } else {
          EXPECT_TRUE(f.DeleteCFFile("beta"));
        }
        EXPECT_EQ(StatusOk, f.GetStatus());
        EXPECT_EQ(fresh, GetStream(f, "fresh"));
      }
      OpenedFile f(path_, OpenReadWrite);  // heads agree: scan passes
      EXPECT_EQ(fresh, GetStream(f, "fresh"));
      ExpectStreams(f, streams_, "beta");
      EXPECT_EQ(grow, f.Exists("beta"));
    }
  }
}

// A run that crashed after writing a link but before the block it names
// leaves a link beyond the end of the file. Appending to the stream ends
// its chain there with a fresh block, and the file stays sound.
TEST_F(DamageTest, LinkBeyondTheFileEndsTheChainForAWriter) {
  Install(With([&](Bytes& b) { Put32(b, BlockAt(beta_.back()) + bf::kOffNextBlock, BlockCount(b) + 5); }));
  const std::string more = Pattern(3000, 5);
  {
    OpenedFile f(path_, OpenReadWrite);
    EXPECT_TRUE(Patch(f, "beta", -1, more));
    EXPECT_EQ(StatusOk, f.Close());
  }
  EXPECT_TRUE(CheckCompoundFile(path_.c_str()).Sound());
  OpenedFile f(path_, OpenReadOnly);
  EXPECT_EQ(Pattern(3000, 2) + more, GetStream(f, "beta"));
  ExpectStreams(f, streams_, "beta");
}

// A saved map whose digest matches but that calls blocks free which chains
// hold did not come from the close of this directory. One that calls a
// first block free is not taken (the heads are scanned); a later block of a
// chain that it calls free is handed out only once the block's own head
// says free. Either way a new stream takes no block of another.
TEST_F(DamageTest, SavedMapCallingHeldBlocksFreeHandsNoneOut) {
  const std::size_t map = ListPayload(good_) + bf::kOffListMap;
  const std::vector<std::pair<const char*, Bytes>> cases = {
      {"first block free", With([&](Bytes& b) { b[map + beta_[0]] = 0; })},
      {"later blocks free", With([&](Bytes& b) { b[map + beta_[1]] = b[map + beta_[2]] = 0; })},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    Install(c.second);
    ExpectTakesAStream();
  }
}

// Entries that name blocks not their own are dropped at an open for
// writing: one whose first block is a directory block, one that shares its
// first block with an earlier entry. Deleting what is left never touches the
// directory or another stream.
TEST_F(DamageTest, EntriesNamingBlocksNotTheirOwnAreDropped) {
  Install(With([](Bytes& b) {
    Put32(b, EntryAt(b, "gamma") + bf::kOffFirstBlock, FirstBlockOf(b, "beta"));  // shares beta's chain
    Put32(b, EntryAt(b, "delta") + bf::kOffFirstBlock, Chain(b, 1)[1]);  // a directory block
  }));
  {
    OpenedFile f(path_, OpenReadWrite);
    EXPECT_FALSE(f.Exists("gamma"));
    EXPECT_FALSE(f.Exists("delta"));
    EXPECT_TRUE(f.DeleteCFFile("alpha"));
    ASSERT_TRUE(PutStream(f, "epsilon", Pattern(4000, 8)));
    EXPECT_EQ(StatusOk, f.Close());
  }
  OpenedFile f(path_, OpenReadWrite);
  EXPECT_EQ(Pattern(3000, 2), GetStream(f, "beta"));
  EXPECT_EQ(Pattern(4000, 8), GetStream(f, "epsilon"));
  EXPECT_EQ(3, f.GetNumDirEntrys());  // beta, epsilon, the saved map
}

// A directory block whose head calls it free, in a file whose saved map is
// stale (so the heads are scanned), is set right at an open for writing:
// no stream is given its number, and the next directory write marks it
// used again. A free entry that holds a size gives a new stream in its
// slot none of it.
TEST_F(DamageTest, DirectoryBlockCalledFreeIsSetRight) {
  const std::uint32_t last = Chain(good_, 1).back();
  std::size_t slot = 0;
  for (std::uint32_t i = 0; i < bf::kEntriesPerBlock && slot == 0; ++i) {
    const std::size_t at = BlockAt(last) + bf::kOffEntries + std::size_t{i} * bf::kEntrySize;
    if (Get32(good_, at + bf::kOffFirstBlock) == 0) slot = at;
  }
  ASSERT_NE(0u, slot);
  Install(With([&](Bytes& b) {
    b[bf::kOffInUse] = 0;
    b[ListPayload(b) + bf::kOffListDigest] ^= 1;
    Put32(b, slot + bf::kOffSize, 77);
  }));
  {
    OpenedFile f(path_, OpenReadWrite);
    ASSERT_TRUE(PutStream(f, "e", "1"));
    EXPECT_EQ(1u, f.FindDirEntry("e")->size);
    EXPECT_NE(1u, f.FindDirEntry("e")->firstBlock);
    EXPECT_EQ(StatusOk, f.Close());
  }
  EXPECT_EQ(1, ReadAll(path_)[bf::kOffInUse]);
  OpenedFile f(path_, OpenReadOnly);
  ExpectStreams(f, streams_);
  EXPECT_EQ("1", GetStream(f, "e"));
}

// A directory chain that links past the end of the file (a block that a
// failed or killed run never wrote as the directory grew) ends there: both
// opens read the directory up to it, and an open for writing writes it back
// cut and frees the blocks of the streams that only the missing block named.
TEST_F(DamageTest, DirectoryLinkPastTheEndEndsTheDirectory) {
  const std::vector<std::uint32_t> dir = Chain(good_, 1);
  const Bytes damaged = With([&](Bytes& b) { Put32(b, BlockAt(dir[0]) + bf::kOffNextBlock, BlockCount(b) + 1); });
  StreamList first;  // the streams of directory block 1
  for (const auto& s : streams_) {
    if (EntryAt(good_, s.first.c_str()) < BlockAt(dir[0]) + bf::kBlockSize) first.push_back(s);
  }
  ASSERT_FALSE(first.empty());
  Install(damaged);
  {
    OpenedFile f(path_, OpenReadOnly);
    ExpectStreams(f, first);
    f.Close();
    EXPECT_TRUE(ReadAll(path_) == damaged);
  }
  {
    OpenedFile f(path_, OpenReadWrite);
    ExpectStreams(f, first);
  }
  EXPECT_TRUE(CheckCompoundFile(path_.c_str()).Sound());
  streams_ = first;
  ExpectTakesAStream();
}

// A name that stands twice in the directory (a replaced stream whose new
// entry reached the file while the old one was still in use) keeps its
// first entry at an open for writing; the second goes, with its blocks.
TEST_F(DamageTest, ANameThatStandsTwiceKeepsItsFirstEntry) {
  const Bytes twice = With([](Bytes& b) {
    std::memcpy(&b[EntryAt(b, "delta") + bf::kOffName], "ALPHA", 6);  // after alpha in the directory
  });
  Install(twice);
  {
    OpenedFile f(path_, OpenReadWrite);
    EXPECT_EQ(streams_[0].second, GetStream(f, "alpha"));
    EXPECT_EQ(4, f.GetNumDirEntrys());  // alpha, beta, gamma, the saved map
  }
  EXPECT_TRUE(CheckCompoundFile(path_.c_str()).Sound());
  streams_.pop_back();  // delta's entry is the one that went
  ExpectTakesAStream();
}

// Beyond a stream's size its chain holds the blocks a seek past the end
// left, which no read looks at. A writer stepping there follows a link the
// file names once, as in a sound file (no block is added), but ends the
// chain before a block named twice: another stream's, the saved map's, or
// one of its own (a loop, which would otherwise walk until the file fails).
TEST_F(DamageTest, WriterBeyondTheSizeFollowsOnlyTheStreamsOwnTail) {
  const std::string expected = Pattern(3000, 2) + std::string(57000, '\0') + "xyz";
  auto seekAndWrite = [&](CompoundFile& f) {
    std::unique_ptr<std::iostream> s(f.GetIOStream("beta", "rb"));
    ASSERT_TRUE(s != nullptr);
    s->seekg(60000);
    s->write("xyz", 3);
    s->flush();
    EXPECT_TRUE(s->good());
  };
  {
    SCOPED_TRACE("a tail left by a seek in an earlier session");
    Install(good_);
    {
      OpenedFile f(path_, OpenReadWrite);
      std::unique_ptr<std::iostream> s(f.GetIOStream("beta", "rb"));
      s->seekg(60000);
      EXPECT_TRUE(s->good());
    }
    const std::size_t withTail = ReadAll(path_).size();
    {
      OpenedFile f(path_, OpenReadWrite);
      seekAndWrite(f);
      EXPECT_EQ(StatusOk, f.Close());
    }
    EXPECT_EQ(withTail, ReadAll(path_).size());
    EXPECT_TRUE(CheckCompoundFile(path_.c_str()).Sound());
    OpenedFile f(path_, OpenReadOnly);
    EXPECT_EQ(expected, GetStream(f, "beta"));
  }
  {
    // A free block keeps the link of its earlier life, which may name a
    // block of the tail now; it is not counted.
    SCOPED_TRACE("a stale link in a free block");
    Install(good_);
    {
      OpenedFile f(path_, OpenReadWrite);
      std::unique_ptr<std::iostream> s(f.GetIOStream("beta", "rb"));
      s->seekg(60000);
      s.reset();
      EXPECT_TRUE(f.DeleteCFFile("gamma"));
    }
    Bytes bytes = ReadAll(path_);
    std::uint32_t freed = 0;
    for (std::uint32_t n = 1; n <= BlockCount(bytes) && freed == 0; ++n) {
      if (bytes[BlockAt(n) + bf::kOffInUse] == 0) freed = n;
    }
    ASSERT_NE(0u, freed);
    Put32(bytes, BlockAt(freed) + bf::kOffNextBlock, Chain(bytes, FirstBlockOf(bytes, "beta"))[3]);
    Install(bytes);
    {
      OpenedFile f(path_, OpenReadWrite);
      seekAndWrite(f);
      EXPECT_EQ(StatusOk, f.Close());
    }
    EXPECT_EQ(bytes.size(), ReadAll(path_).size());
    EXPECT_TRUE(CheckCompoundFile(path_.c_str()).Sound());
    OpenedFile f(path_, OpenReadOnly);
    EXPECT_EQ(expected, GetStream(f, "beta"));
  }
  const std::uint32_t last = beta_.back();
  const std::vector<std::pair<const char*, std::uint32_t>> cases = {
      {"into another stream", FirstBlockOf(good_, "gamma")},
      {"into another stream's second block", Chain(good_, FirstBlockOf(good_, "gamma"))[1]},
      {"into the saved map", FirstBlockOf(good_, bf::kFreeListName)},
      {"to itself", last},
      {"back to its first block", beta_[0]},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    Install(With([&](Bytes& b) { Put32(b, BlockAt(last) + bf::kOffNextBlock, c.second); }));
    {
      OpenedFile f(path_, OpenReadWrite);
      seekAndWrite(f);
      EXPECT_EQ(StatusOk, f.Close());
    }
    EXPECT_TRUE(CheckCompoundFile(path_.c_str()).Sound());
    OpenedFile f(path_, OpenReadOnly);
    EXPECT_EQ(expected, GetStream(f, "beta"));
    ExpectStreams(f, streams_, "beta");
  }
}
