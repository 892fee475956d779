// The seeds program of tz_fuzz_blockmap: writes a seed
// corpus (each file's own map, with several step choices) and a dictionary.
// What it writes follows the input layout of BlockMapFuzz.cpp (BlockMapInput.h).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "blockstore/BlockFormat.h"
#include "fuzz/BlockMapInput.h"
#include "fuzz/FuzzUtil.h"
#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "testsupport/SeedArguments.h"
#include "utility/Endian.h"

using namespace tzfuzz::blockmap;

int main(int argc, char** argv) {
  tzsupport::SeedArguments args;
  if (!tzsupport::ParseSeedArguments(argc, argv, true, &args)) return 2;
  const std::string& dir = args.corpus;
  // Step choices: everything with a second session; reads around new
  // streams; a stale digest (the scan); deletions and replacements.
  const std::uint8_t headers[][2] = {{0x50, 0x2F}, {0x80, 0xB0}, {0x48, 0x4D}, {0x20, 0x0C}};
  std::string dict = "# Written by tz_fuzz_blockmap_seeds: map bytes and each file's H.\n";
  dict += "used_run=" + tzfuzz::Quoted(std::string(8, '\x01')) + "\nfree_run=" +
          tzfuzz::Quoted(std::string(8, '\0')) + "\nmax_u32=" + tzfuzz::Quoted("\xFF\xFF\xFF\xFF") + "\n";
  for (unsigned which = 0; which < kTemplates; ++which) {
    const Template& t = Templates()[which];
    const std::uint32_t h = tz::DecodeFixed32(&t.bytes[t.MapByte(kOffH)]);
    std::string map;
    for (std::size_t p = kOffH; p < kOffTable + h + 1; ++p) map += static_cast<char>(t.bytes[t.MapByte(p)]);
    for (unsigned k = 0; k < sizeof headers / sizeof headers[0]; ++k) {
      const std::uint8_t header[kHeaderSize] = {static_cast<std::uint8_t>(headers[k][0] | which), headers[k][1],
                                                static_cast<std::uint8_t>(0x31 * (k + 1)), 20, 0x90, 0x01};
      std::string seed(reinterpret_cast<const char*>(header), kHeaderSize);
      // The big file's map is long: one seed with all of it, the others
      // with the first bytes only (the rest stays the file's own).
      seed += which == 3 && k != 0 ? map.substr(0, 200) : map;
      const std::string path = dir + "/map-" + std::to_string(which) + "-" + std::to_string(k);
      tzfuzz::WriteBytes(path, reinterpret_cast<const std::uint8_t*>(seed.data()), seed.size());
    }
    dict += "h_" + std::to_string(which) + "=" + tzfuzz::Quoted(map.substr(0, 4)) + "\n";
  }
  std::ofstream(args.dictionary) << dict;
  RemoveTemp();
  return 0;
}
