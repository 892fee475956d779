// The record codec: every byte of a record survives a round trip. (Damage
// to whole files, texts without their zero included, is in DamageTest.)
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "blockstore/BlockFormat.h"

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
