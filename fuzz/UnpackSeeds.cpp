// The seeds program of tz_fuzz_unpack: writes a seed
// corpus of archives whose names hold '/', "..", ".", absolute names, empty
// components, long names and the trap names, and a dictionary.
// What it writes follows the input layout of UnpackFuzz.cpp (UnpackInput.h).
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "Commands.h"
#include "fuzz/FuzzUtil.h"
#include "fuzz/UnpackInput.h"
#include "tesselzostream/CompoundFile.h"
#include "testsupport/SeedArguments.h"

namespace fs = boost::filesystem;
using namespace tzfuzz::unpack;

int main(int argc, char** argv) {
  tzsupport::SeedArguments args;
  if (!tzsupport::ParseSeedArguments(argc, argv, true, &args)) return 2;
  const fs::path dir = args.corpus;
  const std::string work = tzfuzz::ScratchPath("tz-unpack-seeds") + ".cf";
  auto make = [&](const char* seed, const std::vector<std::string>& names, bool encrypt) {
    std::remove(work.c_str());
    {
      CompoundFile file;
      if (file.Open(work.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) Fail("cannot make an archive");
      for (const std::string& name : names) {
        std::unique_ptr<std::iostream> out(file.GetIOStream(name.c_str(), "wb"));
        if (!out) Fail("the library refused the name '" + name + "'");
        *out << "bytes of " << name.substr(0, 20) << "\n";
      }
      if (encrypt && file.Encrypt(kPassword) != ZoStreamE::StatusOk) Fail("cannot encrypt");
      if (file.Close() != ZoStreamE::StatusOk) Fail("cannot close an archive");
    }
    const std::vector<std::uint8_t> bytes = tzfuzz::ReadBytes(work);
    tzfuzz::WriteBytes((dir / seed).string(), bytes.data(), bytes.size());
  };
  const std::string longName(256, 'n');
  const std::string longComponent = "long/" + std::string(251, 'c');
  make("plain", {"readme.txt", "docs/guide.txt", "docs/deep/er/file"}, false);
  make("escapes", {"../escape", "a/../../b", "/abs/name", "..", "."}, false);
  make("empty-components", {"a//b", "trailing/", "./here", "x/./y"}, false);
  std::vector<std::string> traps = {kHardLink, "dir", "dir/file"};
  for (const Trap& t : kLinks) traps.insert(traps.end(), {t.name, std::string(t.name) + "/below"});
  make("traps", traps, false);
  make("long-names", {longName, longComponent, std::string(255, 'm')}, false);
  make("conflicts", {"same", "SAME", "same/below", "file", "file/under"}, false);
  make("encrypted", {"secret/one", "../two"}, true);
  std::remove(work.c_str());

  std::ofstream dict(args.dictionary);
  dict << "# Written by tz_fuzz_unpack_seeds: path pieces, trap names, block format texts.\n";
  std::vector<std::string> words = {"/", "..", "../", "./", "//", "dir/", kHardLink};
  for (const Trap& t : kLinks) words.push_back(std::string(t.name) + "/");
  int k = 0;
  for (const std::string& w : words) dict << "path_" << k++ << "=" << tzfuzz::Quoted(w) << "\n";
  dict << "block_signature=" << tzfuzz::Quoted(std::string("BlockFile", 10)) << "\n";
  dict << "file_signature=" << tzfuzz::Quoted(std::string("ZoCompoundFile", 15)) << "\n";
  return 0;
}
