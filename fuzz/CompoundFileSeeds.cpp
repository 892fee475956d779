// The seeds program of tz_fuzz_compoundfile: writes a seed
// corpus of valid files (already prefixed with a header) and a dictionary.
// What it writes follows the input layout of CompoundFileFuzz.cpp (CompoundFileInput.h).
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "blockstore/BlockFormat.h"
#include "blockstore/FileServer.h"
#include "fuzz/CompoundFileInput.h"
#include "fuzz/FuzzUtil.h"
#include "tesselzostream/CompoundFile.h"
#include "testsupport/FileBytes.h"
#include "testsupport/SeedArguments.h"
#include "utility/Env.h"
#include "utility/Path.h"

using namespace tzfuzz::compoundfile;

namespace {

bool Put(CompoundFile& file, const std::string& name, std::size_t length) {
  std::unique_ptr<std::iostream> out(file.GetIOStream(name.c_str(), "wb"));
  if (!out) return false;
  const std::string text = Text(length, static_cast<char>('a' + name.size()));
  out->write(text.data(), static_cast<std::streamsize>(text.size()));
  return static_cast<bool>(*out);
}

// Builds one file through the library and saves it with a header in front.
template <typename Fill>
void Seed(const std::string& dir, const std::string& name, const std::uint8_t header[kHeaderSize],
          Fill fill) {
  RemoveTemp();
  {
    CompoundFile file;
    if (OpenFile(file, ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk || !fill(file)) {
      std::fprintf(stderr, "seed %s: building failed\n", name.c_str());
      std::exit(1);
    }
    if (file.Close() != ZoStreamE::StatusOk) {
      std::fprintf(stderr, "seed %s: close failed\n", name.c_str());
      std::exit(1);
    }
  }
  std::vector<std::uint8_t> bytes(header, header + kHeaderSize);
  const tzsupport::FileBytes body = tzsupport::ReadFileBytes(Path());
  bytes.insert(bytes.end(), body.begin(), body.end());
  std::ofstream out(dir + "/" + name, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  std::printf("%s: %zu bytes\n", name.c_str(), bytes.size());
}

// libFuzzer dictionary syntax for `n` bytes.
std::string Quoted(const char* bytes, std::size_t n) { return tzfuzz::Quoted(std::string(bytes, n)); }

}  // namespace

int main(int argc, char** argv) {
  tzsupport::SeedArguments args;
  if (!tzsupport::ParseSeedArguments(argc, argv, true, &args)) return 2;
  const std::string& dir = args.corpus;
  std::atexit(RemoveTemp);

  const std::uint8_t everything[kHeaderSize] = {0xFF, 0x3C, 0x21, 12, 0x10, 0x02, 0xF0, 0x03};
  const std::uint8_t readOnly[kHeaderSize] = {0x00, 0x00, 0x00, 0, 0, 0, 0, 0};
  const std::uint8_t writes[kHeaderSize] = {0x1F, 0x18, 0x10, 30, 0xE8, 0x03, 0x00, 0x00};
  const std::uint8_t encrypt[kHeaderSize] = {0x21, 0x00, 0x00, 0, 0, 0, 0, 0};

  // An empty file: no directory at all.
  RemoveTemp();
  {
    std::ofstream(dir + "/empty", std::ios::binary)
        .write(reinterpret_cast<const char*>(writes), kHeaderSize);
  }
  // A directory whose only stream was deleted again.
  Seed(dir, "deleted", writes, [](CompoundFile& f) {
    return Put(f, "gone", 10) && f.DeleteCFFile("gone");
  });
  Seed(dir, "one-stream", everything, [](CompoundFile& f) { return Put(f, "readme.txt", 40); });
  Seed(dir, "one-stream-ro", readOnly, [](CompoundFile& f) { return Put(f, "readme.txt", 40); });
  // A stream of three blocks: the chain is walked and seeked.
  Seed(dir, "long-stream", writes, [](CompoundFile& f) { return Put(f, "data/long", 2500); });
  // Seven streams: three directory blocks (the saved block map is one more entry).
  Seed(dir, "many-streams", everything, [](CompoundFile& f) {
    for (int i = 0; i < 7; ++i) {
      if (!Put(f, "dir/stream-" + std::to_string(i), static_cast<std::size_t>(i) * 150)) return false;
    }
    return true;
  });
  Seed(dir, "encrypted", everything, [](CompoundFile& f) {
    return Put(f, "secret", 1200) && Put(f, "other", 30) && f.Encrypt(kPassword) == ZoStreamE::StatusOk;
  });
  Seed(dir, "encrypted-ro", encrypt, [](CompoundFile& f) {
    return Put(f, "secret", 300) && f.Encrypt(kPassword) == ZoStreamE::StatusOk;
  });

  std::ofstream dict(args.dictionary);
  dict << "# Written by tz_fuzz_seeds: the fixed texts of the block format.\n";
  dict << "block_signature=" << Quoted(bf::kSignature, bf::kSignatureSize) << "\n";
  dict << "file_signature=" << Quoted(bf::kFileSignature, bf::kFileSignatureSize) << "\n";
  dict << "block_map_name=" << Quoted(bf::kFreeListName, std::strlen(bf::kFreeListName) + 1) << "\n";
  dict << "in_use_head=" << Quoted("\x01" "BlockFile", bf::kSignatureSize + 1) << "\n";
  dict << "encrypted_flag=\"\\x01\\x00\"\n";
  dict << "max_u32=\"\\xFF\\xFF\\xFF\\xFF\"\n";
  dict << "payload_full=\"\\xEB\\x03\"\n";  // usedLength 1003
  return 0;
}
