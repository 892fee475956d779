// The seeds program of tz_fuzz_streamformats: writes a seed
// corpus of valid items (with the header in front) and a dictionary.
// What it writes follows the input layout of StreamFormatsFuzz.cpp (StreamFormatsInput.h).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/StreamFormatsInput.h"
#include "tesselzostream/OldStreamDirectory.h"
#include "tesselzostream/StreamDirectory.h"
#include "tesselzostream/ZStreamBase.h"
#include "testsupport/SeedArguments.h"
#include "utility/Endian.h"

using namespace tzfuzz::streamformats;

#include <fstream>

#include <boost/filesystem.hpp>

namespace {

void Seed(const std::string& dir, const char* name, std::uint8_t start, const std::string& stream) {
  const char header[kHeaderSize] = {static_cast<char>(start), 0, 7, 0};
  std::ofstream(dir + "/" + name, std::ios::binary) << std::string(header, kHeaderSize) << stream;
}

}  // namespace

int main(int argc, char** argv) {
  tzsupport::SeedArguments args;
  if (!tzsupport::ParseSeedArguments(argc, argv, true, &args)) return 2;
  const std::string& dir = args.corpus;
  {
    std::stringstream s;
    OutputStreamDirectory numbered(s, 3);
    numbered.GetOutput(7) << "abc";
    numbered.GetOutput(2) << "defgh";
    numbered.Close();
    Seed(dir, "numbered", 0, s.str());
  }
  {
    std::stringstream s;
    s << "lead";  // a directory behind other data, with every slot in use
    OutputStreamDirectory numbered(s, 80);
    for (std::uint16_t i = 0; i < 80; ++i) numbered.GetOutput(static_cast<std::uint16_t>(80 - i)) << i;
    numbered.Close();
    Seed(dir, "numbered-full", 4, s.str());
  }
  {
    std::stringstream s;
    OldOutputStreamDirectory named(s);
    named.GetOutput("abd") << "ABD";
    named.GetOutput("abc") << "ABCDE";
    named.Close();
    Seed(dir, "named", 0, s.str());
  }
  {
    std::stringstream s;
    s << "lead";
    OldOutputStreamDirectory named(s);
    const char* names[] = {"", "elevenchars", "twelve-chars", "\xE9t\xE9", "a", "b", "a"};
    for (const char* name : names) named.GetOutput(name) << name << '.';
    named.Close();
    Seed(dir, "named-mixed", 4, s.str());
  }
  {
    std::stringstream s;
    s << ZStreamBase();
    ZStreamLight::WriteMagicStringAndVersionNumber(s, 7, "abc");
    Seed(dir, "heads", 0, s.str());
    Seed(dir, "light-head", 9, s.str());
  }
  std::ofstream dict(args.dictionary);
  dict << "# Written by tz_fuzz_streamformats_seeds: the fixed texts of the formats.\n";
  dict << "numbered_magic=\"xA\"\n";
  dict << "named_magic=\"\\x01Stream\\x02Dir\\x00\"\n";
  dict << "base_head=\"\\x03\\x00\\x00\\x00ZSB\\x01\\x00\"\n";
  dict << "capacity_80=\"\\x50\\x00\"\n";
  dict << "max_u32=\"\\xFF\\xFF\\xFF\\xFF\"\n";
  return 0;
}
