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
#include "fuzz/SeedFiles.h"

using namespace tzfuzz::check;

int main(int argc, char** argv) {
  tzsupport::SeedArguments args;
  if (!tzsupport::ParseSeedArguments(argc, argv, false, &args)) return 2;
  const std::string& folder = args.corpus;
  auto make = [&](const char* name, bool deleteOne, bool encrypt) {
    tzfuzz::MakeSeedFile(folder + "/" + name, {false, deleteOne, encrypt ? kPassword : nullptr});
  };
  make("sound.cf", false, false);
  make("deleted.cf", true, false);
  make("encrypted.cf", true, true);
  return 0;
}
