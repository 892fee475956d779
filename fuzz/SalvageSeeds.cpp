// The seeds program of tz_fuzz_salvage: writes a seed
// corpus (a sound file, one with a stream deleted, an encrypted one, one
// with a chain cut and one with a stream whose chain runs beyond its size)
// into the folder given as its argument.
// What it writes follows the input layout of SalvageFuzz.cpp (SalvageInput.h).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "blockstore/BlockFormat.h"
#include "fuzz/FuzzUtil.h"
#include "fuzz/SeedFiles.h"
#include "fuzz/SalvageInput.h"
#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "tesselzostream/Salvage.h"
#include "testsupport/SeedArguments.h"

using namespace tzfuzz::salvage;

int main(int argc, char** argv) {
  tzsupport::SeedArguments args;
  if (!tzsupport::ParseSeedArguments(argc, argv, false, &args)) return 2;
  const std::string& folder = args.corpus;
  auto make = [&](const char* name, bool deleteOne, bool encrypt, bool cut, bool grow) {
    const std::string path = folder + "/" + name;
    tzfuzz::MakeSeedFile(path, {grow, deleteOne, encrypt ? kPassword : nullptr});
    if (cut) {  // the last stream's first block ends its chain
      std::vector<std::uint8_t> bytes = tzfuzz::ReadBytes(path);
      CompoundFile file;
      file.Open(path.c_str(), ZoStreamE::OpenReadOnly);
      const DirEntry* e = file.FindDirEntry("s3");
      const std::size_t at =
          e != nullptr ? (e->firstBlock - 1) * std::size_t{blockformat::kBlockSize} + blockformat::kOffNextBlock : 0;
      file.Close();
      if (at == 0 || at + 4 > bytes.size()) std::exit(1);
      std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), 4, 0);
      tzfuzz::WriteBytes(path, bytes.data(), bytes.size());
    }
  };
  make("sound.cf", false, false, false, false);
  make("deleted.cf", true, false, false, false);
  make("encrypted.cf", true, true, false, false);
  make("cut.cf", false, false, true, false);
  make("grown.cf", false, false, false, true);
  return 0;
}
