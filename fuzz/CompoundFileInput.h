// What the compound file fuzz target and its seeds program share: the
// size of the header in front of every input, the password, the scratch
// file both write, and how both open it.
#ifndef TESSELZOSTREAM_FUZZ_COMPOUNDFILEINPUT_H_
#define TESSELZOSTREAM_FUZZ_COMPOUNDFILEINPUT_H_

#include <cstdio>
#include <cstdlib>
#include <string>

#include <boost/filesystem.hpp>

#include "blockstore/BlockFormat.h"
#include "fuzz/FuzzUtil.h"
#include "tesselzostream/CompoundFile.h"
#include "testsupport/TestData.h"

namespace tzfuzz::compoundfile {

namespace bf = blockformat;

constexpr std::size_t kHeaderSize = 8;

// The password the seed corpus encrypts with.
const char kPassword[] = "pw";

inline const std::string& Path() {
  static const std::string path = tzfuzz::ScratchPath("tz-fuzz") + ".cf";
  return path;
}

void RemoveTemp() { std::remove(Path().c_str()); }

// Opens, catching what Open is documented to throw.
inline ZoStreamE::Status OpenFile(CompoundFile& file, ZoStreamE::OpenMode mode) {
  try {
    return file.Open(Path().c_str(), mode);
  } catch (ZoStreamE::Status thrown) {
    if (thrown != ZoStreamE::StatusFailed) {
      std::fprintf(stderr, "Open threw status %d\n", static_cast<int>(thrown));
      std::abort();
    }
    return thrown;
  } catch (const boost::filesystem::filesystem_error&) {
    return ZoStreamE::StatusFailed;
  }
}

// The bytes of a seed stream: `seed`, seed+7, seed+14, ...
std::string Text(std::size_t length, char seed) { return tzsupport::StepBytes(length, seed); }

}  // namespace tzfuzz::compoundfile

#endif  // TESSELZOSTREAM_FUZZ_COMPOUNDFILEINPUT_H_
