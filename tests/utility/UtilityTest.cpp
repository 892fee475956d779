// Byte helpers, digest, cipher, paths and time texts.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "tests/TestUtil.h"
#include "utility/BlowFish.h"
#include "utility/ByteIO.h"
#include "utility/MD5.h"
#include "utility/PagedArray.h"
#include "utility/Path.h"
#include "utility/RecyclingAllocator.h"
#include "utility/ZoString.h"

TEST(ByteIO, NumbersAreLittleEndianAndRoundTrip) {
  std::stringstream s;
  const std::uint16_t two[2] = {0x1234, 0xFFFF};
  const std::uint32_t four[2] = {0x01020304, 0};
  ASSERT_TRUE(WriteTwoBytes(two, 2, s));
  ASSERT_TRUE(WriteFourBytes(four, 2, s));
  EXPECT_EQ(s.str().substr(0, 8), std::string("\x34\x12\xFF\xFF\x04\x03\x02\x01", 8));
  std::uint16_t two2[2];
  std::uint32_t four2[2];
  ASSERT_TRUE(ReadTwoBytes(two2, 2, s));
  ASSERT_TRUE(ReadFourBytes(four2, 2, s));
  EXPECT_EQ(two2[0], 0x1234);
  EXPECT_EQ(four2[0], 0x01020304u);
  EXPECT_FALSE(ReadFourBytes(four2, 1, s));  // nothing left
}

TEST(ByteIO, BinaryStringRoundTripTruncationsAndHostileLengths) {
  std::stringstream s;
  ASSERT_TRUE(WriteBinaryString("hello world", s));
  const std::string whole = s.str();
  EXPECT_EQ(whole.size(), 4u + 11u);  // no terminating zero in the stream
  char* buffer = nullptr;
  std::uint32_t capacity = 0;
  {
    std::istringstream in(whole);
    ASSERT_TRUE(ReadBinaryString(buffer, capacity, in));
    EXPECT_STREQ(buffer, "hello world");
  }
  for (std::size_t cut = 0; cut < whole.size(); ++cut) {
    std::istringstream in(whole.substr(0, cut));
    EXPECT_FALSE(ReadBinaryString(buffer, capacity, in)) << "cut at " << cut;
    EXPECT_TRUE(in.fail());
  }
  delete[] buffer;
  // A hostile length (about 2 GiB) allocates nothing.
  buffer = nullptr;
  capacity = 0;
  std::istringstream hostile(std::string("\xF0\xFF\xFF\x7F" "abc", 7));
  EXPECT_FALSE(ReadBinaryString(buffer, capacity, hostile));
  EXPECT_EQ(buffer, nullptr);
  EXPECT_TRUE(hostile.fail());
}

// Growth across pages keeps what was stored; elements uncovered by growing
// again after a shrink hold the fill value, not what they held before.
TEST(PagedArray, GrowsAcrossPagesAndRefillsAfterShrinking) {
  tz::PagedArray<std::uint32_t, 2> a(7);  // pages of 4
  for (std::uint32_t i = 0; i < 11; ++i) a.push_back(i * 3);
  ASSERT_EQ(a.size(), 11u);
  for (std::uint32_t i = 0; i < 11; ++i) EXPECT_EQ(a[i], i * 3);
  a.resize(2);
  a.resize(13);
  EXPECT_EQ(a[1], 3u);
  for (std::size_t i = 2; i < 13; ++i) EXPECT_EQ(a[i], 7u) << i;
  a.clear();
  EXPECT_TRUE(a.empty());
  a.resize(1);
  EXPECT_EQ(a[0], 7u);
}

TEST(MD5, PublishedVectors) {
  EXPECT_STREQ(MD5("").GetDigest(), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_STREQ(MD5("abc").GetDigest(), "900150983cd24fb0d6963f7d28e17f72");
  MD5 pieces;
  pieces.Update("a");
  pieces.Update("bc", 2);
  pieces.Finalize();
  EXPECT_EQ(std::memcmp(pieces.GetRawDigest(), MD5("abc").GetRawDigest(), 16), 0);
}

TEST(BlowFish, PublishedVectorInverseAndEmptyKey) {
  const unsigned char key[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  BlowFish::Context context(key, 8);
  unsigned char block[16] = {};
  context.Encrypt(block, 8);
  const unsigned char expected[8] = {0x4E, 0xF9, 0x97, 0x45, 0x61, 0x98, 0xDD, 0x78};
  EXPECT_EQ(std::memcmp(block, expected, 8), 0);
  for (int i = 8; i < 16; ++i) EXPECT_EQ(block[i], 0) << "only the given length is touched";
  context.Decrypt(block, 8);
  for (unsigned char b : block) EXPECT_EQ(b, 0);
  // The empty key is usable and equals one zero byte.
  const unsigned char zero = 0;
  BlowFish::Context empty("", 0), one(&zero, 1);
  unsigned char a[8] = {1, 2, 3, 4, 5, 6, 7, 8}, b[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  empty.Encrypt(a, 8);
  one.Encrypt(b, 8);
  EXPECT_EQ(std::memcmp(a, b, 8), 0);
}

TEST(Path, CanonicalFormsOfOneFile) {
  tztest::ScratchDir dir;
  const std::string file = dir.Path("f.cf");
  tztest::WriteAll(file, {});
  const std::string canonical = ZoGetCanonicalPath(file.c_str());
  EXPECT_EQ(ZoGetCanonicalPath((dir.path() + "/./sub/../f.cf").c_str()), canonical);
  ASSERT_EQ(::symlink(file.c_str(), dir.Path("link.cf").c_str()), 0);
  EXPECT_EQ(ZoGetCanonicalPath(dir.Path("link.cf").c_str()), canonical);
  EXPECT_EQ(ZoGetCanonicalPath((dir.path() + "/").c_str()), ZoGetCanonicalPath(dir.path().c_str()));
  EXPECT_EQ(ZoGetCanonicalPath(""), "");
  EXPECT_EQ(ZoGetCanonicalPath(nullptr), "");
  EXPECT_EQ(ZoGetCanonicalPath(dir.Path("missing/x.cf").c_str()), canonical.substr(0, canonical.size() - 4) + "missing/x.cf");
}

TEST(ZoString, FoldingIsAsciiOnly) {
  EXPECT_EQ(ZoString::StrICmp("ABC.txt", "abc.TXT"), 0);
  EXPECT_NE(ZoString::StrICmp("\xC4", "\xE4"), 0);  // bytes above 127 are not letters here
}

// Freed arrays of the cached length come back, last freed first, up to the
// number kept; other lengths and the surplus go back to the heap (which
// the sanitizer builds would report as leaks if they were lost).
TEST(RecyclingAllocator, ReusesArraysOfOneLengthUpToItsLimit) {
  tz::RecyclingAllocator<char> alloc;
  constexpr int kMore = tz::RecyclingAllocator<char>::kKeep + 2;
  std::vector<char*> arrays;
  for (int i = 0; i < kMore; ++i) arrays.push_back(alloc.allocate(777));
  for (char* p : arrays) alloc.deallocate(p, 777);
  char* other = alloc.allocate(55);  // another length: never from the cache
  EXPECT_TRUE(std::find(arrays.begin(), arrays.end(), other) == arrays.end());
  alloc.deallocate(other, 55);
  for (int i = 0; i < tz::RecyclingAllocator<char>::kKeep; ++i) {
    char* again = alloc.allocate(777);
    EXPECT_EQ(again, arrays[tz::RecyclingAllocator<char>::kKeep - 1 - i]);
    again[776] = 'x';
    arrays.push_back(again);
  }
  for (int i = kMore; i < static_cast<int>(arrays.size()); ++i) alloc.deallocate(arrays[i], 777);
}
