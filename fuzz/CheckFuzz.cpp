// Fuzz target: the consistency check on a file of arbitrary bytes.
//
// The input is the file, written to a temporary path. The check runs once
// without a password and once with the seeds' password. It must end with a
// report whose counts fit the file (held and used blocks within the block
// count, at most the listed number of problems, every listed problem
// counted), and it must leave every byte of the file as it was.
//
// Built with -DTZ_FUZZ_SEEDS, the same file is a program that writes a seed
// corpus (a sound file, one with a stream deleted, an encrypted one) into
// the folder given as its argument.
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

#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "tesselzostream/FormatFacts.h"

namespace {

const char kPassword[] = "pw";

#ifndef TZ_FUZZ_SEEDS
std::string TempPath() {
  const char* dir = std::getenv("TZ_FUZZ_DIR");
  std::string base = dir != nullptr && *dir != '\0' ? dir : (::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
  return base + "/tz-check-fuzz-" + std::to_string(static_cast<long>(::getpid())) + ".cf";
}

std::vector<char> ReadBack(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

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
#endif

}  // namespace

#ifndef TZ_FUZZ_SEEDS

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path = TempPath();
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  Expect(CheckCompoundFile(path.c_str()), size);
  Expect(CheckCompoundFile(path.c_str(), kPassword), size);
  const std::vector<char> after = ReadBack(path);
  if (after.size() != size || !std::equal(after.begin(), after.end(), reinterpret_cast<const char*>(data))) {
    Stop("the check changed the file");
  }
  return 0;
}

#else

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s CORPUS_FOLDER\n", argv[0]);
    return 2;
  }
  const std::string folder = argv[1];
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

#endif
