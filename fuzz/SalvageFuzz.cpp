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
// The seeds program is SalvageSeeds.cpp; what both know of the input is in
// SalvageInput.h.
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
#include "fuzz/SalvageInput.h"
#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "tesselzostream/Salvage.h"

using namespace tzfuzz::salvage;

namespace {

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

}  // namespace

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
