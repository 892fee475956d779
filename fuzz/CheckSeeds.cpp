// The seeds program of tz_fuzz_check: writes a seed
// corpus (a sound file, one with a stream deleted, an encrypted one) into
// the folder given as its argument.
// What it writes follows the input layout of CheckFuzz.cpp (CheckInput.h).
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/CheckInput.h"
#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "tesselzostream/FormatFacts.h"
#include "testsupport/SeedArguments.h"

using namespace tzfuzz::check;

int main(int argc, char** argv) {
  tzsupport::SeedArguments args;
  if (!tzsupport::ParseSeedArguments(argc, argv, false, &args)) return 2;
  const std::string& folder = args.corpus;
  auto make = [&](const char* name, bool deleteOne, bool encrypt) {
    const std::string path = folder + "/" + name;
    std::remove(path.c_str());
    CompoundFile file;
    if (file.Open(path.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) std::exit(1);
    for (int i = 0; i < 4; ++i) {
      std::unique_ptr<std::iostream> s(file.GetIOStream(("s" + std::to_string(i)).c_str(), "wb"));
      *s << std::string(static_cast<std::size_t>(i) * 700, static_cast<char>('a' + i));
    }
    if (deleteOne) file.DeleteCFFile("s2");
    if (encrypt && file.Encrypt(kPassword) != ZoStreamE::StatusOk) std::exit(1);
    file.Close();
  };
  make("sound.cf", false, false);
  make("deleted.cf", true, false);
  make("encrypted.cf", true, true);
  return 0;
}
