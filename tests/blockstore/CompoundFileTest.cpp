// The handle, the file server, the directory and the saved block map,
// checked against the bytes of real files.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "blockstore/BlockFileCore.h"
#include "blockstore/BlockFormat.h"
#include "blockstore/FileServer.h"
#include "tests/TestUtil.h"
#include "utility/Endian.h"
#include "utility/MD5.h"

namespace bf = blockformat;
using ZoStreamE::OpenReadOnly;
using ZoStreamE::OpenReadWrite;
using ZoStreamE::StatusNotOpen;
using ZoStreamE::StatusOk;

namespace {

const unsigned char* Block(const std::vector<unsigned char>& file, std::uint32_t n) {
  return file.data() + (n - 1) * bf::kBlockSize;
}

std::string Text(const unsigned char* p) { return reinterpret_cast<const char*>(p); }

// The directory blocks of a closed file, in chain order.
std::vector<std::uint32_t> DirChain(const std::vector<unsigned char>& file) {
  std::vector<std::uint32_t> chain;
  for (std::uint32_t n = file.empty() ? 0 : 1; n != 0; n = tz::DecodeFixed32(Block(file, n) + bf::kOffNextBlock)) {
    chain.push_back(n);
  }
  return chain;
}

// Recomputes the directory digest from the file's bytes alone.
std::vector<unsigned char> DigestOfFile(const std::vector<unsigned char>& file) {
  MD5 md5;
  auto text = [&](const unsigned char* p, std::size_t width) { md5.Update(p, static_cast<unsigned>(strnlen(reinterpret_cast<const char*>(p), width))); };
  for (std::uint32_t n : DirChain(file)) {
    const unsigned char* b = Block(file, n);
    md5.Update(b + bf::kOffBlockNumber, 4);
    md5.Update(b + bf::kOffInUse, 1);
    text(b + bf::kOffSignature, bf::kSignatureSize);
    md5.Update(b + bf::kOffNextBlock, 4);
    for (std::uint32_t e = 0; e < bf::kEntriesPerBlock; ++e) {
      const unsigned char* entry = b + bf::kOffEntries + e * bf::kEntrySize;
      text(entry + bf::kOffName, DirEntry::kNameSize);
      text(entry + bf::kOffCreated, DirEntry::kTimeSize);
      text(entry + bf::kOffModified, DirEntry::kTimeSize);
      md5.Update(entry + bf::kOffFirstBlock, 4);
      md5.Update(entry + bf::kOffSize, 4);
    }
    text(b + bf::kOffFileSignature, bf::kFileSignatureSize);
    md5.Update(b + bf::kOffReserved, bf::kReservedSize);
    md5.Update(b + bf::kOffPasswordDigest, bf::kDigestSize);
    md5.Update(b + bf::kOffFlags, 2);
  }
  md5.Finalize();
  return std::vector<unsigned char>(md5.GetRawDigest(), md5.GetRawDigest() + 16);
}

// Checks the saved block map of a cleanly closed file against the block
// heads and the directory: its digest, H, the map bytes, the chain length.
void ExpectSavedMapMatchesHeads(const std::vector<unsigned char>& file) {
  const std::uint32_t blocks = static_cast<std::uint32_t>(file.size() / bf::kBlockSize);
  const unsigned char* entry = nullptr;
  for (std::uint32_t n : DirChain(file)) {
    for (std::uint32_t e = 0; e < bf::kEntriesPerBlock; ++e) {
      const unsigned char* p = Block(file, n) + bf::kOffEntries + e * bf::kEntrySize;
      if (Text(p) == bf::kFreeListName && tz::DecodeFixed32(p + bf::kOffFirstBlock) != 0) entry = p;
    }
  }
  ASSERT_NE(entry, nullptr);
  std::uint32_t n = tz::DecodeFixed32(entry + bf::kOffFirstBlock);
  const unsigned char* payload = Block(file, n) + bf::kOffPayload;
  EXPECT_EQ(std::vector<unsigned char>(payload, payload + 16), DigestOfFile(file));
  const std::uint32_t h = tz::DecodeFixed32(payload + bf::kOffListHighest);
  EXPECT_EQ(h, blocks);
  EXPECT_EQ(tz::DecodeFixed32(entry + bf::kOffSize), h + 20);
  std::vector<unsigned char> map;
  std::uint32_t chainLength = 0;
  for (std::uint32_t offset = bf::kOffListMap; n != 0; offset = 0) {
    ++chainLength;
    const unsigned char* block = Block(file, n);
    EXPECT_EQ(tz::DecodeFixed16(block + bf::kOffUsedLength), 0);
    map.insert(map.end(), block + bf::kOffPayload + offset, block + bf::kOffPayload + bf::kPayloadSize);
    n = tz::DecodeFixed32(block + bf::kOffNextBlock);
  }
  std::uint32_t expectLength = 1;
  while (!(h + 20 < expectLength * bf::kPayloadSize)) ++expectLength;
  EXPECT_EQ(chainLength, expectLength);
  ASSERT_GE(map.size(), h + 1);
  for (std::uint32_t k = 1; k <= h; ++k) {
    ASSERT_EQ(map[k], Block(file, k)[bf::kOffInUse]) << "block " << k;
  }
}

class CompoundFileTest : public ::testing::Test {
 protected:
  std::string Path(const char* name = "c.cf") { return dir_.Path(name); }
  tztest::ScratchDir dir_;
};

}  // namespace

TEST_F(CompoundFileTest, WorkedByteMap) {
  const std::string path = Path();
  {
    CompoundFile file;
    ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
    ASSERT_TRUE(tztest::PutStream(file, "a", "12345"));
    ASSERT_EQ(file.Close(), StatusOk);
  }
  const std::vector<unsigned char> f = tztest::ReadAll(path);
  ASSERT_EQ(f.size(), 3072u);
  std::vector<unsigned char> expect(3072, 0);
  auto put32 = [&](std::size_t at, std::uint32_t v) { tz::EncodeFixed32(&expect[at], v); };
  auto putText = [&](std::size_t at, const char* s) { std::memcpy(&expect[at], s, std::strlen(s)); };
  for (std::uint32_t n = 1; n <= 3; ++n) {
    put32((n - 1) * 1024, n);
    expect[(n - 1) * 1024 + 4] = 1;
    putText((n - 1) * 1024 + 5, "BlockFile");
  }
  putText(19, "a");
  std::memcpy(&expect[276], &f[276], 52);  // the two time texts of `a`
  put32(328, 2);
  put32(332, 5);
  putText(336, "zorvanet_block_file_free_list");
  std::memcpy(&expect[593], &f[593], 52);
  put32(645, 3);
  put32(649, 23);
  putText(970, "ZoCompoundFile");
  expect[1043] = 5;
  putText(1045, "12345");
  const std::vector<unsigned char> digest = DigestOfFile(f);
  std::memcpy(&expect[2069], digest.data(), 16);
  put32(2085, 3);
  expect[2090] = expect[2091] = expect[2092] = 1;
  EXPECT_EQ(f, expect);
  EXPECT_EQ(f[2089], 0);  // byte 0 of the map has no meaning; we write 0
  EXPECT_EQ(Text(&f[276]).size(), 25u);
  EXPECT_EQ(Text(&f[276]), Text(&f[302]));  // modified starts equal to created
}

TEST_F(CompoundFileTest, EmptyAndNewFiles) {
  const std::string path = Path();
  CompoundFile file;
  ASSERT_EQ(file.Open(path.c_str(), OpenReadOnly), StatusOk);  // created, empty
  EXPECT_TRUE(file.IsReadOnly());
  unsigned long cursor = 0;
  EXPECT_EQ(file.GetFirstDirEntry(&cursor), nullptr);
  EXPECT_EQ(file.GetNumDirEntrys(), 0);
  EXPECT_EQ(file.Close(), StatusOk);
  EXPECT_EQ(file.Close(), StatusNotOpen);
  EXPECT_EQ(tztest::ReadAll(path).size(), 0u);
  ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
  EXPECT_EQ(file.Close(), StatusOk);
  EXPECT_EQ(tztest::ReadAll(path).size(), 0u);  // nothing written, nothing saved
  EXPECT_EQ(file.Open(dir_.Path("no/such/dir.cf").c_str(), OpenReadWrite), StatusNotOpen);
  EXPECT_EQ(file.Open(dir_.path().c_str(), OpenReadWrite), StatusNotOpen);  // a folder
  EXPECT_EQ(file.Open(nullptr, OpenReadWrite), StatusNotOpen);
  EXPECT_EQ(file.GetStatus(), StatusNotOpen);
  EXPECT_FALSE(file.Exists("a"));
  EXPECT_EQ(file.GetIOStream("a", "wb"), nullptr);
  EXPECT_TRUE(file.SetPassword("x"));
  EXPECT_EQ(file.Encrypt("x"), StatusNotOpen);
}

TEST_F(CompoundFileTest, HandlesOnOnePathShareOneEngine) {
  const std::string path = Path();
  CompoundFile first, second;
  ASSERT_EQ(first.Open(path.c_str(), OpenReadWrite), StatusOk);
  ASSERT_TRUE(tztest::PutStream(first, "s", "shared"));
  // Another spelling of the same path, asking for read-only: joins the
  // engine, which stays writable.
  const std::string other = dir_.path() + "/./sub/../c.cf";
  ASSERT_EQ(second.Open(other.c_str(), OpenReadOnly), StatusOk);
  EXPECT_FALSE(second.IsReadOnly());
  EXPECT_STREQ(first.GetCompoundFileName(), second.GetCompoundFileName());
  EXPECT_EQ(tztest::GetStream(second, "s"), "shared");
  first.Close();
  EXPECT_EQ(tztest::ReadAll(path).size() / 1024, 2u);  // not closed: no saved map yet
  EXPECT_TRUE(second.Exists("S"));
  second.Close();
  ExpectSavedMapMatchesHeads(tztest::ReadAll(path));

  // Reopening a handle that holds a file releases it first, even if the new
  // open fails.
  CompoundFile h;
  ASSERT_EQ(h.Open(path.c_str(), OpenReadOnly), StatusOk);
  EXPECT_EQ(h.Open(dir_.Path("no/such.cf").c_str(), OpenReadWrite), StatusNotOpen);
  CompoundFile w;
  ASSERT_EQ(w.Open(path.c_str(), OpenReadWrite), StatusOk);
  EXPECT_FALSE(w.IsReadOnly());
}

TEST_F(CompoundFileTest, LockKeepsOutAnotherProcessAndADirectOpen) {
  const std::string path = Path();
  CompoundFile file;
  ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
  ASSERT_TRUE(tztest::PutStream(file, "s", "x"));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // A fresh engine, as another process would have.
    BlockFileCore core;
    const ZoStreamE::Status readOnly = core.Open(path.c_str(), OpenReadOnly);
    _exit(readOnly == ZoStreamE::StatusFailed ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  BlockFileCore direct;  // in this process, without the file server
  EXPECT_EQ(direct.Open(path.c_str(), OpenReadWrite), ZoStreamE::StatusFailed);
  file.Close();
  BlockFileCore after;
  EXPECT_EQ(after.Open(path.c_str(), OpenReadOnly), StatusOk);
}

TEST_F(CompoundFileTest, DirectoryGrowsAndFillsSlots) {
  const std::string path = Path();
  CompoundFile file;
  ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
  for (const char* name : {"a", "b", "c", "d"}) ASSERT_TRUE(tztest::PutStream(file, name, name));
  file.Flush();
  // The fourth stream opened a second directory block, linked from block 1.
  std::vector<unsigned char> f = tztest::ReadAll(path);
  const std::uint32_t second = tz::DecodeFixed32(Block(f, 1) + bf::kOffNextBlock);
  ASSERT_NE(second, 0u);
  EXPECT_EQ(Text(Block(f, second) + bf::kOffEntries), "d");
  // A free slot in each block: a new entry goes to the later block.
  ASSERT_TRUE(file.DeleteCFFile("B"));
  EXPECT_FALSE(file.DeleteCFFile("b"));
  ASSERT_TRUE(tztest::PutStream(file, "e", "e"));
  file.Flush();
  f = tztest::ReadAll(path);
  EXPECT_EQ(Text(Block(f, second) + bf::kOffEntries + bf::kEntrySize), "e");
  // With the later block full, the first free slot of block 1 is taken; the
  // freed entry kept its old texts until then.
  ASSERT_TRUE(tztest::PutStream(file, "f", "f"));
  ASSERT_TRUE(tztest::PutStream(file, "g", "g"));
  file.Close();
  f = tztest::ReadAll(path);
  EXPECT_EQ(Text(Block(f, 1) + bf::kOffEntries + bf::kEntrySize), "g");
  unsigned long cursor = 0;
  std::vector<std::string> names;
  ASSERT_EQ(file.Open(path.c_str(), OpenReadOnly), StatusOk);
  for (const char* n = file.GetFirstDirName(&cursor); n != nullptr; n = file.GetNextDirName(&cursor)) names.push_back(n);
  EXPECT_EQ(file.GetNextDirName(&cursor), nullptr);
  EXPECT_EQ(names, (std::vector<std::string>{"a", "g", "c", "d", "e", "f", bf::kFreeListName}));
  EXPECT_EQ(file.GetNumDirEntrys(), 7);
}

// Random creates, rewrites and deletes with flushes and reopenings: after
// every flush the file holds exactly what the whole directory encodes to,
// and after every close the saved map matches the block heads.
TEST_F(CompoundFileTest, DirectoryOnDiskMatchesMemoryAtEveryFlush) {
  const std::string path = Path();
  std::mt19937 rng(314);
  std::map<std::string, std::string> model;
  for (int session = 0; session < 6; ++session) {
    BlockFileCore* core = OpenShared(path.c_str(), OpenReadWrite);
    ASSERT_NE(core, nullptr);
    CompoundFile file;
    ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
    for (int step = 0; step < 60; ++step) {
      const std::string name = "n" + std::to_string(rng() % 25);
      if (rng() % 4 == 0) {
        EXPECT_EQ(file.DeleteCFFile(name.c_str()), model.erase(name) == 1);
      } else {
        const std::string content = tztest::Pattern(rng() % 4000, rng());
        ASSERT_TRUE(tztest::PutStream(file, name.c_str(), content));
        model[name] = content;
      }
      if (step % 7 == 0) {
        file.Flush();
        core->FlushDirectory(true);
        const std::vector<unsigned char> f = tztest::ReadAll(path);
        for (const auto& block : core->dirBlocks) {
          unsigned char raw[bf::kBlockSize];
          bf::EncodeDirBlock(*block, raw);
          ASSERT_EQ(std::memcmp(raw, Block(f, block->blockNumber), bf::kBlockSize), 0)
              << "session " << session << " step " << step << " block " << block->blockNumber;
          ASSERT_EQ(core->blockMap.Get(static_cast<std::int32_t>(block->blockNumber)), block->inUse);
        }
      }
    }
    core->Release(nullptr);
    file.Close();
    ExpectSavedMapMatchesHeads(tztest::ReadAll(path));
    ASSERT_EQ(file.Open(path.c_str(), OpenReadOnly), StatusOk);
    for (const auto& kv : model) ASSERT_EQ(tztest::GetStream(file, kv.first.c_str()), kv.second);
    EXPECT_EQ(file.GetNumDirEntrys(), static_cast<int>(model.size()) + 1);
    file.Close();
  }
}

TEST_F(CompoundFileTest, SavedMapIsTakenOnlyWhileTheDirectoryIsUnchanged) {
  const std::string path = Path();
  {
    CompoundFile file;
    ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
    ASSERT_TRUE(tztest::PutStream(file, "keep", std::string(3000, 'k')));
    ASSERT_TRUE(tztest::PutStream(file, "gone", std::string(3000, 'g')));
    ASSERT_TRUE(file.DeleteCFFile("gone"));
    ASSERT_TRUE(tztest::PutStream(file, "late", "1"));  // takes a freed block
    file.Close();
  }
  std::vector<unsigned char> f = tztest::ReadAll(path);
  ExpectSavedMapMatchesHeads(f);
  // Tear the head of a free block: a scan would refuse the file, the saved
  // map never reads it.
  std::uint32_t freeBlock = 0;
  for (std::uint32_t n = 1; n <= f.size() / 1024 && freeBlock == 0; ++n) {
    if (Block(f, n)[bf::kOffInUse] == 0) freeBlock = n;
  }
  ASSERT_NE(freeBlock, 0u);
  f[(freeBlock - 1) * 1024 + bf::kOffSignature] = 'X';
  tztest::WriteAll(path, f);
  CompoundFile file;
  ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
  EXPECT_EQ(file.GetNumUsedBlocks(), static_cast<int>(f.size() / 1024) - 1);
  file.Close();  // wrote nothing: the file is unchanged
  EXPECT_EQ(tztest::ReadAll(path), f);
  // One byte of a creation time changed: the digest fails and the scan
  // meets the torn head.
  f[bf::kOffEntries + bf::kOffCreated] ^= 1;
  tztest::WriteAll(path, f);
  EXPECT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusNotOpen);
  EXPECT_EQ(file.Open(path.c_str(), OpenReadOnly), StatusOk);
  EXPECT_EQ(tztest::GetStream(file, "keep"), std::string(3000, 'k'));
}

TEST_F(CompoundFileTest, FreeListOneBlockUpToH982) {
  // Streams of one block each raise H one at a time; the saved map's chain
  // takes one more block exactly when H + 20 reaches 1003.
  const std::string path = Path();
  CompoundFile file;
  ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
  {
    auto big = std::unique_ptr<std::iostream>(file.GetIOStream("big", "wb"));
    const std::string bytes(1003 * 975, 'b');  // 976 blocks
    big->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  file.Close();
  for (int extra = 0; extra < 6; ++extra) {
    ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
    ASSERT_TRUE(tztest::PutStream(file, ("x" + std::to_string(extra)).c_str(), "x"));
    file.Close();
    ExpectSavedMapMatchesHeads(tztest::ReadAll(path));
  }
}

// Names that fold to the same text: look-up gives the first entry in
// directory order, and the next one once the first is gone.
TEST_F(CompoundFileTest, CollidingNamesResolveInDirectoryOrder) {
  const std::string path = Path();
  BlockFileCore* core = OpenShared(path.c_str(), OpenReadWrite);
  ASSERT_NE(core, nullptr);
  DirEntry* first = core->AddDirEntry("Dup");
  DirEntry* filler = core->AddDirEntry("x");
  DirEntry* second = core->AddDirEntry("dUP");
  ASSERT_TRUE(first && filler && second);
  EXPECT_EQ(core->FindDirEntry("DUP"), first);
  ASSERT_TRUE(core->FreeChain(first));
  EXPECT_EQ(core->FindDirEntry("dup"), second);
  DirEntry* third = core->AddDirEntry("DUP");  // reuses the freed first slot
  EXPECT_EQ(third, first);
  EXPECT_EQ(core->FindDirEntry("dup"), third);
  core->Release(nullptr);
}
