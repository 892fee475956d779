// Salvage: a sound file comes out whole; each kind of damage gives the
// streams whole, in part (a true prefix) or in lost+found (a true piece)
// as expected; the new file is always sound and the damaged one unchanged;
// encryption needs the password and carries over; OUT is never replaced.
#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "tests/TestUtil.h"

using namespace tztest;

namespace {

const std::string kBig = Pattern(20 * 1003 + 5, 2);
const StreamList kStreams = {
    {"empty", ""},
    {"exact", Pattern(1003, 1)},
    {"big", kBig},
    {"small", Pattern(40, 3)},
};
const std::string kGone = Pattern(5000, 4);  // written and deleted: free blocks among used ones

using Streams = std::map<std::string, std::string>;

class Salvage : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeFile(path, kStreams);
    {
      OpenedFile file(path, ZoStreamE::OpenReadWrite);
      ASSERT_TRUE(PutStream(file, "gone", kGone));
      ASSERT_TRUE(file.DeleteCFFile("gone"));
      ASSERT_EQ(ZoStreamE::StatusOk, file.Close());
    }
    sound = ReadAll(path);
  }

  // Salvages `bytes` into a fresh OUT. The damaged file must keep every
  // byte, and a new file must be sound and hold exactly the streams the
  // report names; `got` receives them (the saved map left out).
  SalvageReport Run(const FileBytes& bytes, const char* password, Streams* got) {
    WriteAll(path, bytes);
    std::filesystem::remove(out);
    const SalvageReport r = SalvageCompoundFile(path.c_str(), out.c_str(), password);
    EXPECT_EQ(ReadAll(path), bytes);
    EXPECT_EQ(r.opened, std::filesystem::exists(out)) << r.openError;
    if (!r.opened) return r;
    const CheckReport check = CheckCompoundFile(out.c_str(), password);
    EXPECT_TRUE(check.Sound()) << (check.problems.empty() ? check.openError : check.problems[0].text);
    OpenedFile file(out, ZoStreamE::OpenReadOnly);
    if (password != nullptr && r.Encrypted()) {
      EXPECT_TRUE(file.SetPassword(password));
    }
    std::set<std::string> named(r.whole.begin(), r.whole.end());
    for (const auto& s : r.damaged) named.insert(s.savedAs);
    for (const auto& s : r.lostAndFound) named.insert(s.savedAs);
    for (const std::string& name : ListNames(file)) {
      if (name == bf::kFreeListName) continue;
      bool ok = false;
      (*got)[name] = GetStream(file, name.c_str(), &ok);
      EXPECT_TRUE(ok) << name;
      EXPECT_EQ(named.erase(name), 1u) << "not in the report: " << name;
    }
    EXPECT_TRUE(named.empty()) << "reported, not in the file: " << *named.begin();
    return r;
  }

  ScratchDir dir;
  const std::string path = dir.Path("damaged.cf");
  const std::string out = dir.Path("out.cf");
  FileBytes sound;
};

std::uint32_t Nth(const FileBytes& b, const char* name, std::size_t k) {
  return Chain(b, FirstBlockOf(b, name)).at(k);
}

// A lost+found chain holds whole payloads of one stream from a block
// boundary on (the last one cut at its used length).
bool IsPiece(const std::string& piece) {
  for (const std::string& whole : {kStreams[1].second, kBig, kStreams[3].second, kGone}) {
    for (std::size_t at = 0; at <= whole.size(); at += bf::kPayloadSize) {
      if (whole.compare(at, piece.size(), piece) == 0 && piece.size() <= whole.size() - at) return true;
    }
  }
  return false;
}

}  // namespace

TEST_F(Salvage, SoundFileComesOutWhole) {
  Streams got;
  const SalvageReport r = Run(sound, nullptr, &got);
  ASSERT_TRUE(r.Complete()) << r.openError;
  EXPECT_EQ(r.password, CheckReport::kNotEncrypted);
  EXPECT_EQ(got, Streams(kStreams.begin(), kStreams.end()));
  EXPECT_EQ(r.lostBytes, 0u);

  // A seek past the end grows a chain beyond its size: still whole, and
  // the blocks beyond are no chain without an entry.
  {
    OpenedFile file(path, ZoStreamE::OpenReadWrite);
    std::unique_ptr<std::iostream> s(file.GetIOStream("small", "r+b"));
    s->seekp(5 * bf::kPayloadSize);
    ASSERT_TRUE(s->good());
    s.reset();
    ASSERT_EQ(file.Close(), ZoStreamE::StatusOk);
  }
  const FileBytes grown = ReadAll(path);
  ASSERT_GT(Chain(grown, FirstBlockOf(grown, "small")).size(), 2u);
  got.clear();
  EXPECT_TRUE(Run(grown, nullptr, &got).Complete());
  EXPECT_EQ(got, Streams(kStreams.begin(), kStreams.end()));
}

// Each case damages the sound file in one way and says which streams must
// come out whole, how many bytes of `big` (the only stream cut) must, and
// how many chains land in lost+found. Whatever comes out is checked
// against the original bytes.
TEST_F(Salvage, EachDamageGivesWhatStillReads) {
  const std::uint32_t big1 = Nth(sound, "big", 1);
  const std::uint32_t big5 = Nth(sound, "big", 5);
  const std::uint32_t small0 = Nth(sound, "small", 0);
  const std::uint32_t count = BlockCount(sound);
  std::uint32_t freeBlock = 0;
  for (std::uint32_t n = 2; n <= count && freeBlock == 0; ++n) {
    if (sound[BlockAt(n) + bf::kOffInUse] == 0) freeBlock = n;
  }
  ASSERT_NE(freeBlock, 0u);
  const std::size_t next = bf::kOffNextBlock;
  const std::uint64_t p = bf::kPayloadSize;
  const std::uint64_t all = kBig.size();
  ASSERT_EQ(Nth(sound, "big", 6), big5 + 1);
  struct Case {
    const char* what;
    std::function<void(FileBytes&)> damage;
    std::uint64_t bigBytes;  // recovered under the name "big"
    std::size_t lost;        // lost+found chains
    std::uint64_t foundFrom = 0;  // where big's rest, found again, starts
    bool kept = false;  // big whole, but listed as damaged: a block taken across a spoilt head
  };
  const Case cases[] = {
      // A head with one of number and signature spoilt, between sound
      // blocks, is crossed; a block without either is lost with its payload.
      {"head number", [&](FileBytes& b) { Put32(b, BlockAt(big5), big5 + 1); }, all, 0, 0, true},
      {"head signature", [&](FileBytes& b) { b[BlockAt(big5) + bf::kOffSignature] = 'X'; }, all, 0, 0, true},
      {"zeroed block", [&](FileBytes& b) { std::fill_n(b.begin() + BlockAt(big5), bf::kBlockSize, 0); }, 5 * p, 1,
       6 * p},
      {"spoilt head before a spoilt head",
       [&](FileBytes& b) {
         b[BlockAt(big5) + bf::kOffSignature] = 'X';
         b[BlockAt(big5 + 1) + bf::kOffSignature] = 'X';
       },
       5 * p, 1, 7 * p},
      {"link past the end", [&](FileBytes& b) { Put32(b, BlockAt(big1) + next, count + 7); }, 2 * p, 1, 2 * p},
      {"loop", [&](FileBytes& b) { Put32(b, BlockAt(big5) + next, big1); }, 6 * p, 1, 6 * p},
      {"chain cut short", [&](FileBytes& b) { Put32(b, BlockAt(big5) + next, 0); }, 6 * p, 1, 6 * p},
      {"shared block", [&](FileBytes& b) { Put32(b, BlockAt(small0) + next, big5); }, all, 0},
      {"free by its head", [&](FileBytes& b) { b[BlockAt(big5) + bf::kOffInUse] = 0; }, all, 0},
      {"used length", [&](FileBytes& b) { b[BlockAt(big5) + bf::kOffUsedLength + 1] = 0x10; }, all, 0},
      {"used, but no chain's", [&](FileBytes& b) { b[BlockAt(freeBlock) + bf::kOffInUse] = 1; }, all, 1},
      {"stray bytes", [&](FileBytes& b) { b[BlockAt(freeBlock)] ^= 0x40; }, all, 0},
      {"directory link past the end", [&](FileBytes& b) { Put32(b, BlockAt(1) + next, count + 1); }, all, 0},
      {"directory loop", [&](FileBytes& b) { Put32(b, BlockAt(1) + next, 1); }, all, 0},
      // Block 1 is read still when only its file signature is spoilt; with
      // its head spoilt too, its three streams lose their names (the empty
      // one is found as a chain of 0 bytes).
      {"directory signature", [&](FileBytes& b) { b[BlockAt(1) + bf::kOffFileSignature] = 'Q'; }, all, 0},
      {"directory signature and head",
       [&](FileBytes& b) {
         b[BlockAt(1) + bf::kOffFileSignature] = 'Q';
         b[BlockAt(1) + bf::kOffSignature] = 'Q';
       },
       0, 3},
      {"length", [&](FileBytes& b) { b.resize(b.size() - 100); }, all, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    FileBytes bytes = sound;
    c.damage(bytes);
    Streams got;
    const SalvageReport r = Run(bytes, nullptr, &got);
    ASSERT_TRUE(r.opened) << r.openError;
    EXPECT_EQ(r.lostAndFound.size(), c.lost);
    EXPECT_EQ(r.Complete(), c.bigBytes == all && c.lost == 0 && !c.kept);
    if (c.kept) {
      ASSERT_EQ(r.damaged.size(), 1u);
      EXPECT_EQ(r.damaged[0].lost, 0u);
      EXPECT_NE(r.damaged[0].why.find("kept"), std::string::npos) << r.damaged[0].why;
    }
    for (const auto& s : kStreams) {
      if (s.first == "big" && c.bigBytes != all) continue;
      if (c.bigBytes == 0) break;  // the names of block 1 are gone
      EXPECT_EQ(got[s.first], s.second) << s.first;
    }
    if (c.bigBytes != 0 && c.bigBytes != all) {
      ASSERT_EQ(r.damaged.size(), 1u);
      EXPECT_EQ(r.damaged[0].recovered, c.bigBytes);
      EXPECT_EQ(r.damaged[0].lost, all - c.bigBytes);
      EXPECT_FALSE(r.damaged[0].why.empty());
      EXPECT_EQ(got["big"], kBig.substr(0, c.bigBytes));
      // The rest of the chain, past the break, is found again.
      EXPECT_EQ(got[r.lostAndFound.at(0).savedAs], kBig.substr(c.foundFrom)) << r.lostAndFound[0].savedAs;
    }
    for (const auto& s : r.lostAndFound) EXPECT_TRUE(IsPiece(got[s.savedAs])) << s.savedAs;
  }
}

// A name without its end is kept cut; names an earlier entry has and the
// saved map's go to lost+found. Nothing is lost, but nothing is whole.
TEST_F(Salvage, NamesThatCannotStay) {
  FileBytes bytes = sound;
  std::fill_n(bytes.begin() + EntryAt(bytes, "small") + bf::kOffName, DirEntry::kNameSize, 'n');
  const std::size_t exact = EntryAt(bytes, "exact");
  std::copy_n("EMPTY", 6, bytes.begin() + exact + bf::kOffName);  // "empty" comes first
  Streams got;
  const SalvageReport r = Run(bytes, nullptr, &got);
  ASSERT_TRUE(r.opened) << r.openError;
  ASSERT_EQ(r.damaged.size(), 2u);
  EXPECT_EQ(r.lostBytes, 0u);
  const std::string firstOfExact = "lost+found/block-" + std::string(6 - std::to_string(FirstBlockOf(sound, "exact")).size(), '0') +
                                   std::to_string(FirstBlockOf(sound, "exact"));
  EXPECT_EQ(r.damaged[0].savedAs, firstOfExact);
  EXPECT_EQ(got[firstOfExact], kStreams[1].second);
  EXPECT_EQ(got[std::string(bf::kMaxNameLength, 'n')], kStreams[3].second);
}

TEST_F(Salvage, EncryptedNeedsItsPasswordAndStaysEncrypted) {
  {
    OpenedFile file(path, ZoStreamE::OpenReadWrite);
    ASSERT_EQ(file.Encrypt("secret"), ZoStreamE::StatusOk);
    ASSERT_EQ(file.Close(), ZoStreamE::StatusOk);
  }
  FileBytes bytes = ReadAll(path);
  Put32(bytes, BlockAt(Nth(bytes, "big", 5)) + bf::kOffNextBlock, 0);
  bytes[BlockAt(1) + bf::kOffFileSignature] = 'Q';  // the flag is still read
  Streams got;
  for (const char* wrong : {static_cast<const char*>(nullptr), "guess"}) {
    const SalvageReport r = Run(bytes, wrong, &got);
    EXPECT_FALSE(r.opened);
    EXPECT_EQ(r.password, wrong == nullptr ? CheckReport::kNoPassword : CheckReport::kPasswordWrong);
  }
  const SalvageReport r = Run(bytes, "secret", &got);
  ASSERT_TRUE(r.opened) << r.openError;
  EXPECT_EQ(r.password, CheckReport::kPasswordRight);
  EXPECT_EQ(got["big"], kBig.substr(0, 6 * bf::kPayloadSize));
  EXPECT_EQ(got[r.lostAndFound.at(0).savedAs], kBig.substr(6 * bf::kPayloadSize));
  EXPECT_EQ(got["exact"], kStreams[1].second);
  EXPECT_EQ(CheckCompoundFile(out.c_str(), "secret").password, CheckReport::kPasswordRight);
  // No payload went to the new file in clear.
  const FileBytes written = ReadAll(out);
  const std::string clear = kBig.substr(100, 64);
  EXPECT_EQ(std::search(written.begin(), written.end(), clear.begin(), clear.end()), written.end());
}

TEST_F(Salvage, RefusesWhatItMustNotWrite) {
  WriteAll(out, FileBytes{'x'});
  for (const std::string& target : {out, path}) {
    const SalvageReport r = SalvageCompoundFile(path.c_str(), target.c_str());
    EXPECT_FALSE(r.opened);
    EXPECT_FALSE(r.openError.empty());
  }
  EXPECT_EQ(ReadAll(out), FileBytes{'x'});
  EXPECT_EQ(ReadAll(path), sound);
  const std::string missing = dir.Path("missing.cf"), fresh = dir.Path("fresh.cf");
  EXPECT_FALSE(SalvageCompoundFile(missing.c_str(), fresh.c_str()).opened);
  EXPECT_FALSE(std::filesystem::exists(missing));
  EXPECT_FALSE(std::filesystem::exists(fresh));
  EXPECT_FALSE(SalvageCompoundFile(path.c_str(), dir.Path("no/such/folder.cf").c_str()).opened);
}

// A link of big's flipped, within its size, to small's first block: big
// reads to its size, its last bytes small's. It is not vouched for as
// whole once small's chain is found to reach the same block.
TEST_F(Salvage, AChainThatRunsIntoAnotherIsNotCalledWhole) {
  FileBytes bytes = sound;
  Put32(bytes, BlockAt(Nth(sound, "big", 19)) + bf::kOffNextBlock, FirstBlockOf(sound, "small"));
  Streams got;
  const SalvageReport r = Run(bytes, nullptr, &got);
  ASSERT_TRUE(r.opened) << r.openError;
  EXPECT_EQ(r.whole, (std::vector<std::string>{"empty", "exact"}));
  ASSERT_EQ(r.damaged.size(), 2u);
  EXPECT_EQ(r.damaged[0].name, "small");
  EXPECT_EQ(r.damaged[1].name, "big");
  EXPECT_EQ(r.damaged[1].lost, 0u);
  EXPECT_NE(r.damaged[1].why.find("\"small\" reaches too"), std::string::npos) << r.damaged[1].why;
  EXPECT_EQ(got["big"].substr(0, 20 * bf::kPayloadSize), kBig.substr(0, 20 * bf::kPayloadSize));
}
