// This library's compound file with encryption on ("tz-enc").
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "bench/compare/TzCompoundFile.h"
#include "bench/compare/System.h"

namespace tzcompare {
namespace {

class EncryptedCompoundFiles : public CompoundFiles {
 public:
  EncryptedCompoundFiles() : CompoundFiles("tz-enc") {}

 protected:
  // Encrypt needs a directory to hold its flag: one empty stream first, the
  // first of the workload, which is written over like the others.
  void BeforeWrite(CompoundFile& cf, const Contents& c) const override {
    std::size_t first = 0;
    while (first < c.streams && !c.Has(first)) ++first;
    { std::unique_ptr<std::iostream> empty(cf.GetIOStream(StreamName(first).c_str(), "wb")); }
    if (cf.Encrypt(kPassword) != ZoStreamE::StatusOk || !cf.IsEncrypted()) Fail("Encrypt failed");
  }
};

}  // namespace

const Registration kRegisterEncrypted(9, [] { return std::unique_ptr<System>(new EncryptedCompoundFiles); });

}  // namespace tzcompare
