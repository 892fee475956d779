// Fuzz target: the consistency check on a file of arbitrary bytes.
//
// The input is the file, written to a temporary path. The check runs once
// without a password and once with the seeds' password. It must end with a
// report whose counts fit the file (held and used blocks within the block
// count, at most the listed number of problems, every listed problem
// counted), and it must leave every byte of the file as it was.
//
// The seeds program is CheckSeeds.cpp; what both know of the input is in
// CheckInput.h.
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
#include "fuzz/FuzzUtil.h"
#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "tesselzostream/FormatFacts.h"
#include "testsupport/FileBytes.h"

using namespace tzfuzz::check;

namespace {

[[noreturn]] void Stop(const char* what) {
  std::fprintf(stderr, "check fuzz: %s\n", what);
  std::abort();
}

void Expect(const CheckReport& r, std::size_t length) {
  if (!r.opened) Stop("a regular file could not be checked");
  if (r.blocks != length / tzformat::kBlockSize) Stop("block count is not the file's");
  if (r.heldBlocks > r.blocks || r.usedInHeads > r.blocks || r.skippedBlocks > r.blocks) {
    Stop("a count exceeds the blocks of the file");
  }
  if (r.problems.size() > CheckReport::kMaxListedProblems || r.problems.size() > r.problemCount) {
    Stop("problem list and count disagree");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path = tzfuzz::ScratchPath("tz-check-fuzz") + ".cf";
  tzsupport::WriteFileBytes(path, data, size);  // a failed write leaves nothing to check, as before
  Expect(CheckCompoundFile(path.c_str()), size);
  Expect(CheckCompoundFile(path.c_str(), kPassword), size);
  const tzsupport::FileBytes after = tzsupport::ReadFileBytes(path);
  if (after.size() != size || !std::equal(after.begin(), after.end(), data)) {
    Stop("the check changed the file");
  }
  return 0;
}
