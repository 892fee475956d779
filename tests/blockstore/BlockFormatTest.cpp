// The record codec: round trips, field places, texts without their zero,
// and every truncation of a real file.
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "blockstore/BlockFormat.h"
#include "tests/TestUtil.h"
#include "utility/Endian.h"

namespace bf = blockformat;

namespace {

void Fill(std::mt19937& rng, void* p, std::size_t n) {
  auto* bytes = static_cast<unsigned char*>(p);
  for (std::size_t i = 0; i < n; ++i) bytes[i] = static_cast<unsigned char>(rng());
}

void Terminate(DirEntry& e) {
  e.name[DirEntry::kNameSize - 1] = '\0';
  e.created[DirEntry::kTimeSize - 1] = '\0';
  e.modified[DirEntry::kTimeSize - 1] = '\0';
}

}  // namespace

TEST(BlockFormat, RecordsRoundTripThroughTheirBytes) {
  std::mt19937 rng(7);
  for (int round = 0; round < 50; ++round) {
    bf::DataBlock data;
    Fill(rng, &data, sizeof data);
    unsigned char raw[bf::kBlockSize];
    bf::EncodeDataBlock(data, raw);
    bf::DataBlock back;
    bf::DecodeDataBlock(raw, &back);
    unsigned char again[bf::kBlockSize];
    bf::EncodeDataBlock(back, again);
    ASSERT_EQ(std::memcmp(raw, again, bf::kBlockSize), 0);
    EXPECT_EQ(+back.blockNumber, +data.blockNumber);  // packed fields: compare values
    EXPECT_EQ(+back.usedLength, +data.usedLength);

    bf::DirBlock dir;
    bf::InitDirBlock(&dir);
    Fill(rng, &dir.entries, sizeof dir.entries);
    for (DirEntry& e : dir.entries) Terminate(e);
    Fill(rng, dir.reserved, sizeof dir.reserved);
    dir.flags = static_cast<std::uint16_t>(rng());
    bf::EncodeDirBlock(dir, raw);
    bf::DirBlock dirBack;
    ASSERT_TRUE(bf::DecodeDirBlock(raw, &dirBack));
    bf::EncodeDirBlock(dirBack, again);
    ASSERT_EQ(std::memcmp(raw, again, bf::kBlockSize), 0);
  }
}

TEST(BlockFormat, TextsWithoutTheirZeroAreCut) {
  unsigned char raw[bf::kBlockSize];
  bf::DirBlock dir;
  bf::InitDirBlock(&dir);
  bf::EncodeDirBlock(dir, raw);
  std::memset(raw + bf::kOffEntries, 'x', bf::kEntrySize - 8);  // name and both times
  bf::DirBlock back;
  ASSERT_TRUE(bf::DecodeDirBlock(raw, &back));
  EXPECT_EQ(std::strlen(back.entries[0].name), bf::kMaxNameLength);
  EXPECT_EQ(std::strlen(back.entries[0].created), 25u);
  EXPECT_EQ(std::strlen(back.entries[0].modified), 25u);

  raw[bf::kOffFileSignature + 2] = 'X';
  EXPECT_FALSE(bf::DecodeDirBlock(raw, &back));
}

// Cutting a real file anywhere leaves either a file that is refused or one
// that opens and reports its missing blocks by status, never a crash.
TEST(BlockFormat, EveryTruncationOfAFileIsRefusedOrReportsMissingBlocks) {
  tztest::ScratchDir dir;
  const std::string path = dir.Path("whole.cf");
  {
    CompoundFile file;
    ASSERT_EQ(file.Open(path.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
    for (int i = 0; i < 4; ++i) {
      const std::string name = "s" + std::to_string(i);
      ASSERT_TRUE(tztest::PutStream(file, name.c_str(), tztest::Pattern(1500 * i, i)));
    }
    file.Close();
  }
  const std::vector<unsigned char> whole = tztest::ReadAll(path);
  ASSERT_EQ(whole.size() % bf::kBlockSize, 0u);
  for (std::size_t cut = 1; cut < whole.size(); cut += (cut % bf::kBlockSize == 0) ? 1 : 97) {
    const std::string cutPath = dir.Path("cut.cf");
    tztest::WriteAll(cutPath, std::vector<unsigned char>(whole.begin(), whole.begin() + cut));
    for (ZoStreamE::OpenMode mode : {ZoStreamE::OpenReadOnly, ZoStreamE::OpenReadWrite}) {
      CompoundFile file;
      ZoStreamE::Status status;
      try {
        status = file.Open(cutPath.c_str(), mode);
      } catch (ZoStreamE::Status thrown) {
        EXPECT_EQ(thrown, ZoStreamE::StatusFailed);
        continue;
      }
      if (cut % bf::kBlockSize != 0) {
        EXPECT_EQ(status, ZoStreamE::StatusNotOpen) << cut;
        continue;
      }
      if (status != ZoStreamE::StatusOk) continue;
      for (int i = 0; i < 4; ++i) {
        const std::string name = "s" + std::to_string(i);
        bool ok = false;
        const std::string got = tztest::GetStream(file, name.c_str(), &ok);
        if (ok) {
          EXPECT_EQ(got, tztest::Pattern(1500 * i, i)) << cut;
        }
      }
      const ZoStreamE::Status after = file.GetStatus();
      EXPECT_TRUE(after == ZoStreamE::StatusOk || after == ZoStreamE::StatusPastEnd ||
                  after == ZoStreamE::StatusFailed);
    }
  }
}
