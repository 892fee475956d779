// Fuzz target: the salvage of a file of arbitrary bytes.
//
// The input is the damaged file, written to a temporary path; it is
// salvaged into a scratch new file, once without a password and once with
// the seeds' password. The target stops when the damaged file's bytes
// change; when a salvage of a regular file reports it could not be read
// although it is no encrypted file refused for its password; when a
// refused salvage leaves a new file behind; and when the new file of one
// that succeeded is not sound by the consistency check, does not hold
// exactly the streams the report names (the saved map aside), or a stream
// does not read back with the bytes the report says were recovered.
//
// Built with -DTZ_FUZZ_SEEDS, the same file is a program that writes a seed
// corpus (a sound file, one with a stream deleted, an encrypted one, one
// with a chain cut and one with a stream whose chain runs beyond its size)
// into the folder given as its argument.
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
#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "tesselzostream/Salvage.h"

namespace {

const char kPassword[] = "pw";

#ifndef TZ_FUZZ_SEEDS
void CheckNewFile(const SalvageReport& r, const std::string& out, const char* password) {
  const CheckReport check = CheckCompoundFile(out.c_str(), password);
  if (!check.Sound()) {
    tzfuzz::Fail("salvage fuzz: the new file is not sound: " +
                 (check.problems.empty() ? check.openError : check.problems[0].text));
  }
  std::map<std::string, std::uint64_t> named;
  for (const std::string& name : r.whole) named[name] = ~std::uint64_t{0};
  for (const SalvagedStream& s : r.damaged) named[s.savedAs] = s.recovered;
  for (const SalvagedStream& s : r.lostAndFound) named[s.savedAs] = s.recovered;
  CompoundFile file;
  if (file.Open(out.c_str(), ZoStreamE::OpenReadOnly) != ZoStreamE::StatusOk) {
    tzfuzz::Fail("salvage fuzz: the new file does not open");
  }
  if (r.Encrypted() && !file.SetPassword(password)) tzfuzz::Fail("salvage fuzz: the new file's password");
  std::size_t streams = 0;
  unsigned long cursor = 0;
  for (const DirEntry* e = file.GetFirstDirEntry(&cursor); e != nullptr; e = file.GetNextDirEntry(&cursor)) {
    const std::string name = e->name;
    if (name == blockformat::kFreeListName) continue;
    ++streams;
    const auto it = named.find(name);
    if (it == named.end()) tzfuzz::Fail("salvage fuzz: a stream the report does not name: " + name);
    std::string bytes;
    if (!file.ReadStream(name.c_str(), bytes)) tzfuzz::Fail("salvage fuzz: a stream does not read: " + name);
    if (it->second != ~std::uint64_t{0} && bytes.size() != it->second) {
      tzfuzz::Fail("salvage fuzz: a stream holds other than the recovered bytes: " + name);
    }
  }
  if (streams != named.size()) tzfuzz::Fail("salvage fuzz: the report names streams the file lacks");
  file.Close();
}

void SalvageOnce(const std::string& path, const std::string& out, const char* password) {
  std::remove(out.c_str());
  const SalvageReport r = SalvageCompoundFile(path.c_str(), out.c_str(), password);
  std::FILE* left = std::fopen(out.c_str(), "rb");
  if (left != nullptr) std::fclose(left);
  if (!r.opened) {
    if (left != nullptr) tzfuzz::Fail("salvage fuzz: a refused salvage left a new file");
    const bool refusedForPassword =
        r.password == CheckReport::kNoPassword || r.password == CheckReport::kPasswordWrong;
    if (!refusedForPassword) tzfuzz::Fail("salvage fuzz: not salvaged: " + r.openError);
    return;
  }
  if (left == nullptr) tzfuzz::Fail("salvage fuzz: no new file");
  CheckNewFile(r, out, password);
}
#endif

}  // namespace

#ifndef TZ_FUZZ_SEEDS

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path = tzfuzz::ScratchPath("tz-salvage-fuzz") + ".cf";
  static const std::string out = tzfuzz::ScratchPath("tz-salvage-fuzz-out") + ".cf";
  tzfuzz::WriteBytes(path, data, size);
  SalvageOnce(path, out, nullptr);
  SalvageOnce(path, out, kPassword);
  std::remove(out.c_str());
  const std::vector<std::uint8_t> after = tzfuzz::ReadBytes(path);
  if (after.size() != size || !std::equal(after.begin(), after.end(), data)) {
    tzfuzz::Fail("salvage fuzz: the salvage changed the damaged file");
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
  auto make = [&](const char* name, bool deleteOne, bool encrypt, bool cut, bool grow) {
    const std::string path = folder + "/" + name;
    std::remove(path.c_str());
    {
      CompoundFile file;
      if (file.Open(path.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) std::exit(1);
      for (int i = 0; i < 4; ++i) {
        std::unique_ptr<std::iostream> s(file.GetIOStream(("s" + std::to_string(i)).c_str(), "wb"));
        *s << std::string(static_cast<std::size_t>(i) * 700, static_cast<char>('a' + i));
      }
      if (grow) {
        std::unique_ptr<std::iostream> s(file.GetIOStream("s1", "r+b"));
        s->seekp(3000);
      }
      if (deleteOne) file.DeleteCFFile("s2");
      if (encrypt && file.Encrypt(kPassword) != ZoStreamE::StatusOk) std::exit(1);
      file.Close();
    }
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

#endif
