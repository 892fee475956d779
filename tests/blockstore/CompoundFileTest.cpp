// The handle, the file server, the directory and the saved block map,
// checked against the bytes of real files.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <map>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "blockstore/BlockFileCore.h"
#include "blockstore/FileServer.h"
#include "tests/TestUtil.h"
#include "utility/Endian.h"
#include "utility/MD5.h"

using namespace tztest;
using ZoStreamE::StatusNotOpen;

namespace {

std::string Text(const unsigned char* p) { return reinterpret_cast<const char*>(p); }

// Recomputes the directory digest from the file's bytes alone.
std::vector<unsigned char> DigestOfFile(const FileBytes& file) {
  MD5 md5;
  auto text = [&](std::size_t at, std::size_t width) {
    md5.Update(&file[at], static_cast<unsigned>(strnlen(reinterpret_cast<const char*>(&file[at]), width)));
  };
  for (std::uint32_t n : Chain(file, 1)) {
    const std::size_t b = BlockAt(n);
    md5.Update(&file[b + bf::kOffBlockNumber], 4);
    md5.Update(&file[b + bf::kOffInUse], 1);
    text(b + bf::kOffSignature, bf::kSignatureSize);
    md5.Update(&file[b + bf::kOffNextBlock], 4);
    for (std::uint32_t e = 0; e < bf::kEntriesPerBlock; ++e) {
      const std::size_t entry = b + bf::kOffEntries + e * bf::kEntrySize;
      text(entry + bf::kOffName, DirEntry::kNameSize);
      text(entry + bf::kOffCreated, DirEntry::kTimeSize);
      text(entry + bf::kOffModified, DirEntry::kTimeSize);
      md5.Update(&file[entry + bf::kOffFirstBlock], 8);  // first block, size
    }
    text(b + bf::kOffFileSignature, bf::kFileSignatureSize);
    md5.Update(&file[b + bf::kOffReserved], bf::kReservedSize);
    md5.Update(&file[b + bf::kOffPasswordDigest], bf::kDigestSize);
    md5.Update(&file[b + bf::kOffFlags], 2);
  }
  md5.Finalize();
  return std::vector<unsigned char>(md5.GetRawDigest(), md5.GetRawDigest() + 16);
}

// Checks the saved block map of a cleanly closed file against the block
// heads and the directory: its digest, H, the map bytes, the chain length.
void ExpectSavedMapMatchesHeads(const FileBytes& file) {
  const std::size_t entry = EntryAt(file, bf::kFreeListName);
  const std::vector<std::uint32_t> chain = Chain(file, Get32(file, entry + bf::kOffFirstBlock));
  ASSERT_FALSE(chain.empty());
  const std::size_t payload = BlockAt(chain[0]) + bf::kOffPayload;
  EXPECT_EQ(std::vector<unsigned char>(&file[payload], &file[payload] + 16), DigestOfFile(file));
  const std::uint32_t h = Get32(file, payload + bf::kOffListHighest);
  EXPECT_EQ(h, BlockCount(file));
  EXPECT_EQ(Get32(file, entry + bf::kOffSize), h + 20);
  EXPECT_EQ(chain.size(), (h + 20) / bf::kPayloadSize + 1);
  std::vector<unsigned char> map;
  for (std::uint32_t n : chain) {
    EXPECT_EQ(Get16(file, BlockAt(n) + bf::kOffUsedLength), 0);
    const std::size_t from = BlockAt(n) + bf::kOffPayload + (n == chain[0] ? bf::kOffListMap : 0);
    map.insert(map.end(), file.begin() + from, file.begin() + BlockAt(n) + bf::kBlockSize);
  }
  ASSERT_GE(map.size(), h + 1);
  for (std::uint32_t k = 1; k <= h; ++k) {
    ASSERT_EQ(map[k], file[BlockAt(k) + bf::kOffInUse]) << "block " << k;
  }
}

class CompoundFileTest : public ::testing::Test {
 protected:
  ScratchDir dir_;
  const std::string path = dir_.Path("c.cf");
};

}  // namespace

TEST_F(CompoundFileTest, WorkedByteMap) {
  ASSERT_NO_FATAL_FAILURE(MakeFile(path, {{"a", "12345"}}));
  const FileBytes f = ReadAll(path);
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
  CompoundFile file;
  ASSERT_EQ(file.Open(path.c_str(), OpenReadOnly), StatusOk);  // created, empty
  EXPECT_TRUE(file.IsReadOnly());
  unsigned long cursor = 0;
  EXPECT_EQ(file.GetFirstDirEntry(&cursor), nullptr);
  EXPECT_EQ(file.GetNumDirEntrys(), 0);
  EXPECT_EQ(file.Close(), StatusOk);
  EXPECT_EQ(file.Close(), StatusNotOpen);
  EXPECT_EQ(ReadAll(path).size(), 0u);
  ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
  EXPECT_EQ(file.Close(), StatusOk);
  EXPECT_EQ(ReadAll(path).size(), 0u);  // nothing written, nothing saved
  EXPECT_EQ(file.Open(dir_.Path("no/such/dir.cf").c_str(), OpenReadWrite), StatusNotOpen);
  EXPECT_EQ(file.Open(dir_.path().c_str(), OpenReadWrite), StatusNotOpen);  // a folder
  const std::string fifo = dir_.Path("fifo");
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  EXPECT_EQ(file.Open(fifo.c_str(), OpenReadOnly), StatusNotOpen);  // no wait for a writer
  EXPECT_EQ(file.Open(nullptr, OpenReadWrite), StatusNotOpen);
  EXPECT_EQ(file.GetStatus(), StatusNotOpen);
  EXPECT_FALSE(file.Exists("a"));
  EXPECT_EQ(file.GetIOStream("a", "wb"), nullptr);
  EXPECT_TRUE(file.SetPassword("x"));
  EXPECT_EQ(file.Encrypt("x"), StatusNotOpen);
}

TEST_F(CompoundFileTest, HandlesOnOnePathShareOneEngine) {
  CompoundFile first, second;
  ASSERT_EQ(first.Open(path.c_str(), OpenReadWrite), StatusOk);
  ASSERT_TRUE(PutStream(first, "s", "shared"));
  // Another spelling of the same path, asking for read-only: joins the
  // engine, which stays writable.
  const std::string other = dir_.path() + "/./sub/../c.cf";
  ASSERT_EQ(second.Open(other.c_str(), OpenReadOnly), StatusOk);
  EXPECT_FALSE(second.IsReadOnly());
  EXPECT_STREQ(first.GetCompoundFileName(), second.GetCompoundFileName());
  EXPECT_EQ(GetStream(second, "s"), "shared");
  first.Close();
  EXPECT_EQ(ReadAll(path).size() / 1024, 2u);  // not closed: no saved map yet
  EXPECT_TRUE(second.Exists("S"));
  second.Close();
  ExpectSavedMapMatchesHeads(ReadAll(path));

  // Reopening a handle that holds a file releases it first, even if the new
  // open fails.
  OpenedFile h(path, OpenReadOnly);
  EXPECT_EQ(h.Open(dir_.Path("no/such.cf").c_str(), OpenReadWrite), StatusNotOpen);
  EXPECT_FALSE(OpenedFile(path, OpenReadWrite).IsReadOnly());
}

TEST_F(CompoundFileTest, LockKeepsOutAnotherProcessAndADirectOpen) {
  OpenedFile file(path, OpenReadWrite);
  ASSERT_TRUE(PutStream(file, "s", "x"));
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
  OpenedFile file(path, OpenReadWrite);
  for (const char* name : {"a", "b", "c", "d"}) ASSERT_TRUE(PutStream(file, name, name));
  file.Flush();
  // The fourth stream opened a second directory block, linked from block 1.
  FileBytes f = ReadAll(path);
  const std::uint32_t second = Get32(f, bf::kOffNextBlock);
  ASSERT_NE(second, 0u);
  EXPECT_EQ(Text(&f[BlockAt(second) + bf::kOffEntries]), "d");
  // A free slot in each block: a new entry goes to the later block.
  ASSERT_TRUE(file.DeleteCFFile("B"));
  EXPECT_FALSE(file.DeleteCFFile("b"));
  ASSERT_TRUE(PutStream(file, "e", "e"));
  file.Flush();
  f = ReadAll(path);
  EXPECT_EQ(Text(&f[BlockAt(second) + bf::kOffEntries + bf::kEntrySize]), "e");
  // With the later block full, the first free slot of block 1 is taken; the
  // freed entry kept its old texts until then.
  ASSERT_TRUE(PutStream(file, "f", "f"));
  ASSERT_TRUE(PutStream(file, "g", "g"));
  file.Close();
  f = ReadAll(path);
  EXPECT_EQ(Text(&f[BlockAt(1) + bf::kOffEntries + bf::kEntrySize]), "g");
  ASSERT_EQ(file.Open(path.c_str(), OpenReadOnly), StatusOk);
  EXPECT_EQ(ListNames(file), (std::vector<std::string>{"a", "g", "c", "d", "e", "f", bf::kFreeListName}));
  EXPECT_EQ(file.GetNumDirEntrys(), 7);
}

// Random creates, rewrites and deletes with flushes and reopenings: after
// every flush the file holds exactly what the whole directory encodes to,
// and after every close the saved map matches the block heads.
TEST_F(CompoundFileTest, DirectoryOnDiskMatchesMemoryAtEveryFlush) {
  std::mt19937 rng(314);
  std::map<std::string, std::string> model;
  for (int session = 0; session < 6; ++session) {
    BlockFileCore* core = OpenShared(path.c_str(), OpenReadWrite);
    ASSERT_NE(core, nullptr);
    OpenedFile file(path, OpenReadWrite);
    for (int step = 0; step < 60; ++step) {
      const std::string name = "n" + std::to_string(rng() % 25);
      if (rng() % 4 == 0) {
        EXPECT_EQ(file.DeleteCFFile(name.c_str()), model.erase(name) == 1);
      } else {
        const std::string content = Pattern(rng() % 4000, rng());
        ASSERT_TRUE(PutStream(file, name.c_str(), content));
        model[name] = content;
      }
      if (step % 7 == 0) {
        file.Flush();
        core->FlushDirectory(true);
        const FileBytes f = ReadAll(path);
        for (const auto& block : core->dirBlocks) {
          unsigned char raw[bf::kBlockSize];
          bf::EncodeDirBlock(*block, raw);
          ASSERT_EQ(std::memcmp(raw, &f[BlockAt(block->blockNumber)], bf::kBlockSize), 0)
              << "session " << session << " step " << step << " block " << block->blockNumber;
          ASSERT_EQ(core->blockMap.Get(static_cast<std::int32_t>(block->blockNumber)), block->inUse);
        }
      }
    }
    core->Release(nullptr);
    file.Close();
    ExpectSavedMapMatchesHeads(ReadAll(path));
    ASSERT_EQ(file.Open(path.c_str(), OpenReadOnly), StatusOk);
    for (const auto& kv : model) ASSERT_EQ(GetStream(file, kv.first.c_str()), kv.second);
    EXPECT_EQ(file.GetNumDirEntrys(), static_cast<int>(model.size()) + 1);
    file.Close();
  }
}

// A saved map that matches the directory is taken without a scan. (One
// that does not is in DamageTest.)
TEST_F(CompoundFileTest, SavedMapIsTakenWithoutAScan) {
  {
    OpenedFile file(path, OpenReadWrite);
    ASSERT_TRUE(PutStream(file, "keep", std::string(3000, 'k')));
    ASSERT_TRUE(PutStream(file, "gone", std::string(3000, 'g')));
    ASSERT_TRUE(file.DeleteCFFile("gone"));
    ASSERT_TRUE(PutStream(file, "late", "1"));  // takes a freed block
    file.Close();
  }
  FileBytes f = ReadAll(path);
  ExpectSavedMapMatchesHeads(f);
  // Tear the head of a free block: a scan would refuse the file, the saved
  // map never reads it.
  std::uint32_t freeBlock = 1;
  while (freeBlock <= BlockCount(f) && f[BlockAt(freeBlock) + bf::kOffInUse] != 0) ++freeBlock;
  ASSERT_LE(freeBlock, BlockCount(f));
  f[BlockAt(freeBlock) + bf::kOffSignature] = 'X';
  WriteAll(path, f);
  OpenedFile file(path, OpenReadWrite);
  EXPECT_EQ(file.GetNumUsedBlocks(), static_cast<int>(f.size() / 1024) - 1);
  file.Close();  // wrote nothing: the file is unchanged
  EXPECT_EQ(ReadAll(path), f);
  EXPECT_EQ(file.Open(path.c_str(), OpenReadOnly), StatusOk);
  EXPECT_EQ(GetStream(file, "keep"), std::string(3000, 'k'));
}

TEST_F(CompoundFileTest, FreeListOneBlockUpToH982) {
  // Streams of one block each raise H one at a time; the saved map's chain
  // takes one more block exactly when H + 20 reaches 1003.
  ASSERT_NO_FATAL_FAILURE(MakeFile(path, {{"big", std::string(1003 * 975, 'b')}}));  // 976 blocks
  CompoundFile file;
  for (int extra = 0; extra < 6; ++extra) {
    ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
    ASSERT_TRUE(PutStream(file, ("x" + std::to_string(extra)).c_str(), "x"));
    file.Close();
    ExpectSavedMapMatchesHeads(ReadAll(path));
  }
}
