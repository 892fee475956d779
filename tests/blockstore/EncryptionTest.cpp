// Encryption: cipher lengths, what stays clear in the file, the lock
// states, and round trips through close and open.
#include <cstring>

#include <gtest/gtest.h>

#include "blockstore/BlockFileCore.h"
#include "blockstore/PayloadCipher.h"
#include "tests/TestUtil.h"
#include "utility/BlowFish.h"
#include "utility/Endian.h"
#include "utility/MD5.h"

using namespace tztest;
using ZoStreamE::StatusPasswordNeeded;

namespace {

class EncryptionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.Path("e.cf");
    ASSERT_NO_FATAL_FAILURE(MakeFile(path_, {{"full", full_}, {"short", "abcdefghi"}, {"empty", ""}}));
    clear_ = ReadAll(path_);
  }
  // Payload of block n of the file on disk.
  static const unsigned char* Payload(const FileBytes& f, std::uint32_t n) {
    return &f[BlockAt(n) + bf::kOffPayload];
  }

  ScratchDir dir_;
  std::string path_;
  const std::string full_ = Pattern(1003 * 2 + 100, 5);
  FileBytes clear_;
};

}  // namespace

TEST(CipherLength, RoundsUpToEightAndStopsAtOneThousand) {
  const std::pair<int, int> cases[] = {{0, 0},       {1, 8},       {8, 8},       {9, 16},
                                       {1000, 1000}, {1001, 1000}, {1002, 1000}, {1003, 1000}};
  for (const auto& c : cases) EXPECT_EQ(blockformat::CipherLength(c.first), c.second) << c.first;
}

TEST_F(EncryptionTest, HeadsDirectoryAndTailsStayClear) {
  {
    OpenedFile file(path_, OpenReadWrite);
    ASSERT_EQ(file.Encrypt("pw"), StatusOk);
    ASSERT_TRUE(PutStream(file, "after", "written while unlocked"));
    file.Close();
  }
  const FileBytes f = ReadAll(path_);
  ASSERT_GE(f.size(), clear_.size());
  // First directory block: flag and digest of the password.
  EXPECT_EQ(tz::DecodeFixed16(f.data() + bf::kOffFlags) & bf::kFlagEncrypted, 1);
  EXPECT_EQ(std::memcmp(f.data() + bf::kOffPasswordDigest, MD5("pw").GetRawDigest(), 16), 0);
  // Stream "full" has blocks 2, 3, 4 (block 1 is the directory).
  const std::uint32_t fullBlocks[] = {2, 3, 4};
  BlowFish::Context cipher("pw", 2);
  for (std::uint32_t n : fullBlocks) {
    EXPECT_EQ(std::memcmp(&f[BlockAt(n)], &clear_[BlockAt(n)], bf::kOffPayload), 0) << "head and usedLength stay clear";
    const std::uint16_t used = Get16(f, BlockAt(n) + bf::kOffUsedLength);
    const int length = blockformat::CipherLength(used);
    std::vector<unsigned char> plain(Payload(f, n), Payload(f, n) + bf::kPayloadSize);
    cipher.Decrypt(plain.data(), static_cast<unsigned>(length));
    EXPECT_EQ(std::memcmp(plain.data(), Payload(clear_, n), bf::kPayloadSize), 0) << "block " << n;
    if (used == bf::kPayloadSize) {
      EXPECT_EQ(std::memcmp(Payload(f, n) + 1000, Payload(clear_, n) + 1000, 3), 0);  // last 3 bytes clear
      EXPECT_NE(std::memcmp(Payload(f, n), Payload(clear_, n), 1000), 0);
    }
  }
  OpenedFile file(path_, OpenReadWrite);  // scans: the list can't be read locked
  ASSERT_TRUE(file.SetPassword("pw"));
  EXPECT_EQ(GetStream(file, "after"), "written while unlocked");
}

// Locked until the password is given, the old one refused after a change
// of password (two passes), and Decrypt gives back the clear file.
TEST_F(EncryptionTest, LockStatesPasswordChangeAndDecrypt) {
  OpenedFile file(path_, OpenReadWrite);
  ASSERT_EQ(file.Encrypt("one"), StatusOk);
  EXPECT_TRUE(file.IsEncrypted());
  EXPECT_EQ(GetStream(file, "full"), full_);  // the cipher stays set
  ASSERT_EQ(file.Encrypt("two"), StatusOk);
  file.Close();
  ASSERT_EQ(file.Open(path_.c_str(), OpenReadOnly), StatusOk);
  EXPECT_TRUE(file.IsEncrypted());
  bool ok = true;
  GetStream(file, "full", &ok);  // locked: the first data block read fails
  EXPECT_FALSE(ok);
  EXPECT_EQ(file.GetStatus(), StatusPasswordNeeded);
  // A stream opened while locked has no first block; once unlocked, it
  // still refuses every operation rather than touch a block it never had.
  std::unique_ptr<std::iostream> early(file.GetIOStream("full", "rb"));
  ASSERT_NE(nullptr, early);
  EXPECT_TRUE(early->bad());
  EXPECT_FALSE(file.IsEncrypted());
  EXPECT_FALSE(file.SetPassword("one"));
  EXPECT_EQ(file.GetStatus(), StatusPasswordNeeded);
  EXPECT_TRUE(file.SetPassword("two"));
  EXPECT_EQ(file.GetStatus(), StatusOk);
  early->clear();
  char c[8];
  EXPECT_FALSE(early->read(c, sizeof c));
  early->clear();
  EXPECT_FALSE(early->seekg(2000));
  early.reset();
  EXPECT_TRUE(file.IsEncrypted());
  EXPECT_EQ(GetStream(file, "full"), full_);
  EXPECT_EQ(GetStream(file, "short"), "abcdefghi");
  EXPECT_EQ(GetStream(file, "empty"), "");
  file.Close();
  ASSERT_EQ(file.Open(path_.c_str(), OpenReadWrite), StatusOk);
  EXPECT_EQ(file.Decrypt(), StatusPasswordNeeded);  // nothing given yet
  file.Close();
  ASSERT_EQ(file.Open(path_.c_str(), OpenReadWrite), StatusOk);
  ASSERT_TRUE(file.SetPassword("two"));
  ASSERT_EQ(file.Decrypt(), StatusOk);
  EXPECT_FALSE(file.IsEncrypted());
  file.Close();
  const FileBytes f = ReadAll(path_);
  EXPECT_EQ(tz::DecodeFixed16(f.data() + bf::kOffFlags), 0);
  EXPECT_EQ(FileBytes(bf::kDigestSize, 0), FileBytes(&f[bf::kOffPasswordDigest], &f[bf::kOffPasswordDigest + 16]));
  for (std::uint32_t n : {2u, 3u, 4u, 5u}) {
    EXPECT_EQ(std::memcmp(Payload(f, n), Payload(clear_, n), bf::kPayloadSize), 0) << "block " << n;
  }
  ASSERT_EQ(file.Open(path_.c_str(), OpenReadOnly), StatusOk);
  EXPECT_TRUE(file.SetPassword("anything"));  // clear file: nothing to unlock
  EXPECT_EQ(GetStream(file, "full"), full_);
}

TEST_F(EncryptionTest, RefusalsLeaveTheFileAsItWas) {
  OpenedFile file(path_, OpenReadOnly);
  EXPECT_EQ(file.Encrypt("pw"), ZoStreamE::StatusFailed);
  file.Close();
  EXPECT_EQ(ReadAll(path_), clear_);

  // A stream without entries counts as clear, whatever the flag says.
  const std::string empty = dir_.Path("none.cf");
  ASSERT_EQ(file.Open(empty.c_str(), OpenReadWrite), StatusOk);
  EXPECT_EQ(file.Encrypt("pw"), ZoStreamE::StatusFailed);  // no directory to hold the flag
  EXPECT_EQ(file.GetStatus(), StatusOk);
  ASSERT_TRUE(PutStream(file, "a", "a"));
  ASSERT_EQ(file.Encrypt(""), StatusOk);  // the empty password is a password
  ASSERT_TRUE(file.DeleteCFFile("a"));
  EXPECT_FALSE(file.IsEncrypted());
  file.Close();
}
