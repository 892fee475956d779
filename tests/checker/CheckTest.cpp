// The consistency check: sound files pass with the right counts, and each
// kind of damage it reports is found, with its block, in a file damaged in
// exactly that way. The check never changes a byte.
#include <algorithm>
#include <filesystem>
#include <functional>

#include <gtest/gtest.h>

#include "tests/TestUtil.h"

using namespace tztest;

namespace {

const StreamList kStreams = {
    {"empty", ""},
    {"exact", Pattern(1003, 1)},
    {"big", Pattern(20 * 1003 + 5, 2)},
    {"small", Pattern(40, 3)},
};

// A sound file: the streams above, one more written and deleted (so free
// blocks lie among used ones), closed cleanly.
class Check : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeFile(path, kStreams);
    {
      OpenedFile file(path, ZoStreamE::OpenReadWrite);
      ASSERT_TRUE(PutStream(file, "gone", Pattern(5000, 4)));
      ASSERT_TRUE(file.DeleteCFFile("gone"));
      ASSERT_EQ(ZoStreamE::StatusOk, file.Close());
    }
    sound = ReadAll(path);
  }
  // The report on `bytes` written to the file.
  CheckReport On(const FileBytes& bytes) {
    WriteAll(path, bytes);
    return CheckCompoundFile(path.c_str());
  }

  ScratchDir dir;
  const std::string path = dir.Path("sound.cf");
  FileBytes sound;
};

bool Has(const CheckReport& r, CheckProblem::Kind kind, std::uint32_t block) {
  return std::any_of(r.problems.begin(), r.problems.end(), [&](const CheckProblem& p) {
    return p.kind == kind && (block == 0 || p.block == block);
  });
}

std::uint32_t Nth(const FileBytes& b, const char* name, std::size_t k) {
  return Chain(b, FirstBlockOf(b, name)).at(k);
}

}  // namespace

TEST_F(Check, SoundFileIsSoundAndUnchanged) {
  const CheckReport r = CheckCompoundFile(path.c_str());
  EXPECT_TRUE(r.Sound()) << (r.problems.empty() ? "" : r.problems[0].text);
  EXPECT_EQ(r.blocks, BlockCount(sound));
  EXPECT_EQ(r.streams, kStreams.size() + 1);  // the saved map is a stream too
  EXPECT_EQ(r.heldBlocks, r.usedInHeads);
  EXPECT_LT(r.heldBlocks, r.blocks);  // the deleted stream's blocks are free
  EXPECT_EQ(r.savedMap, CheckReport::kMapCurrent);
  EXPECT_EQ(r.password, CheckReport::kNotEncrypted);
  EXPECT_EQ(ReadAll(path), sound);
}

TEST_F(Check, FilesThatCannotBeCheckedAreNotCreated) {
  const std::string missing = dir.Path("missing.cf");
  EXPECT_FALSE(CheckCompoundFile(missing.c_str()).opened);
  EXPECT_FALSE(CheckCompoundFile(nullptr).opened);
  EXPECT_FALSE(CheckCompoundFile(dir.Path("").c_str()).opened);  // a folder
  EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(Check, PasswordAndTheEncryptedSavedMap) {
  {
    OpenedFile file(path, ZoStreamE::OpenReadWrite);
    ASSERT_EQ(file.Encrypt("secret"), ZoStreamE::StatusOk);
    ASSERT_EQ(file.Close(), ZoStreamE::StatusOk);
  }
  CheckReport r = CheckCompoundFile(path.c_str(), "secret");
  EXPECT_TRUE(r.Sound());
  EXPECT_EQ(r.password, CheckReport::kPasswordRight);
  EXPECT_EQ(r.savedMap, CheckReport::kMapCurrent);

  r = CheckCompoundFile(path.c_str());
  EXPECT_TRUE(r.Sound());
  EXPECT_EQ(r.password, CheckReport::kNoPassword);
  EXPECT_EQ(r.savedMap, CheckReport::kMapUnread);

  r = CheckCompoundFile(path.c_str(), "guess");
  EXPECT_EQ(r.password, CheckReport::kPasswordWrong);
  EXPECT_TRUE(Has(r, CheckProblem::kPassword, 0));
}

// Each case damages a copy of one sound file and names the problem the
// check must report and the block it must name (0: any block).
TEST_F(Check, EachDamageIsFoundWhereItIs) {
  const std::uint32_t big1 = Nth(sound, "big", 1);
  const std::uint32_t big5 = Nth(sound, "big", 5);
  const std::uint32_t small0 = Nth(sound, "small", 0);
  const std::uint32_t count = BlockCount(sound);
  std::uint32_t freeBlock = 0;  // one the deleted stream left behind
  for (std::uint32_t n = 2; n <= count && freeBlock == 0; ++n) {
    if (sound[BlockAt(n) + bf::kOffInUse] == 0) freeBlock = n;
  }
  ASSERT_NE(freeBlock, 0u);

  struct Case {
    const char* what;
    std::function<void(FileBytes&)> damage;
    CheckProblem::Kind kind;
    std::uint32_t block;
  };
  const std::size_t next = bf::kOffNextBlock;
  const Case cases[] = {
      {"head number", [&](FileBytes& b) { Put32(b, BlockAt(big5), big5 + 1); }, CheckProblem::kHead, big5},
      {"head signature", [&](FileBytes& b) { b[BlockAt(big5) + bf::kOffSignature] = 'X'; },
       CheckProblem::kHead, big5},
      {"link past the end", [&](FileBytes& b) { Put32(b, BlockAt(big1) + next, count + 7); },
       CheckProblem::kChainLink, big1},
      {"loop", [&](FileBytes& b) { Put32(b, BlockAt(big5) + next, big1); }, CheckProblem::kChainLoop, big5},
      {"shared block", [&](FileBytes& b) { Put32(b, BlockAt(small0) + next, big5); },
       CheckProblem::kClaimedTwice, big5},
      {"free by its head", [&](FileBytes& b) { b[BlockAt(big5) + bf::kOffInUse] = 0; },
       CheckProblem::kFreeInHead, big5},
      {"used length", [&](FileBytes& b) { b[BlockAt(big5) + bf::kOffUsedLength + 1] = 0x10; },
       CheckProblem::kUsedLength, big5},
      {"chain cut short", [&](FileBytes& b) { Put32(b, BlockAt(big5) + next, 0); },
       CheckProblem::kChainShort, big5},
      {"blocks left unreached", [&](FileBytes& b) { Put32(b, BlockAt(big5) + next, 0); },
       CheckProblem::kUnreached, Nth(sound, "big", 6)},
      {"used, but no chain's", [&](FileBytes& b) { b[BlockAt(freeBlock) + bf::kOffInUse] = 1; },
       CheckProblem::kUnreached, freeBlock},
      {"stray bytes", [&](FileBytes& b) { b[BlockAt(freeBlock)] ^= 0x40; }, CheckProblem::kHead, freeBlock},
      {"directory signature", [&](FileBytes& b) { b[BlockAt(1) + bf::kOffFileSignature] = 'Q'; },
       CheckProblem::kDirectoryBlock, 1},
      {"directory link past the end", [&](FileBytes& b) { Put32(b, BlockAt(1) + next, count + 1); },
       CheckProblem::kDirectoryLink, 1},
      {"directory loop", [&](FileBytes& b) { Put32(b, BlockAt(1) + next, 1); }, CheckProblem::kDirectoryLoop, 1},
      {"name without end",
       [&](FileBytes& b) {
         std::fill_n(b.begin() + EntryAt(b, "small") + bf::kOffName, DirEntry::kNameSize, 'n');
       },
       CheckProblem::kEntryName, static_cast<std::uint32_t>(EntryAt(sound, "small") / bf::kBlockSize + 1)},
      {"length", [&](FileBytes& b) { b.resize(b.size() - 100); }, CheckProblem::kFileLength, 0},
  };
  for (const Case& c : cases) {
    FileBytes bytes = sound;
    c.damage(bytes);
    const CheckReport r = On(bytes);
    EXPECT_TRUE(r.opened) << c.what;
    EXPECT_TRUE(Has(r, c.kind, c.block)) << c.what << ": " << r.problems.size() << " problems, first: "
                                         << (r.problems.empty() ? "none" : r.problems[0].text);
    EXPECT_EQ(ReadAll(path), bytes) << c.what;
  }
}

// A stale saved map (the directory changed after it was written) is no
// damage: the next open for writing rebuilds it. A current one that calls a
// stream's block free is, since the next writer would hand it out again.
TEST_F(Check, SavedMapStaleOrWrong) {
  FileBytes stale = sound;
  stale[EntryAt(stale, "small") + bf::kOffModified] ^= 1;
  CheckReport r = On(stale);
  EXPECT_TRUE(r.Sound());
  EXPECT_EQ(r.savedMap, CheckReport::kMapStale);

  FileBytes wrong = sound;
  const std::uint32_t held = Nth(sound, "big", 3);
  const std::uint32_t mapFirst = FirstBlockOf(wrong, bf::kFreeListName);
  ASSERT_LT(held, bf::kListMapRoomFirst);  // the byte lies in the first payload
  wrong[BlockAt(mapFirst) + bf::kOffPayload + bf::kOffListMap + held] = 0;
  r = On(wrong);
  EXPECT_EQ(r.savedMap, CheckReport::kMapCurrent);
  EXPECT_TRUE(Has(r, CheckProblem::kSavedMap, held));
}
