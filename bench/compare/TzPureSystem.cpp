// This library through PureCompoundFileStreamSource ("tz-pure").
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "bench/compare/TzCompoundFile.h"
#include "bench/compare/System.h"

namespace tzcompare {
namespace {

class PureSource : public CompoundFiles {
 public:
  PureSource() : CompoundFiles("tz-pure") {}

  void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const override {
    clock.Start();
    PureCompoundFileStreamSource source;
    if (!source.Open(store.c_str(), false)) Fail("cannot open source on " + store.string());
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (c.Has(i)) WriteStream(source, p, i, c.version[i], c.size);
    }
    source.Close();
    clock.Stop();
  }

  std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const override {
    Tally tally(c);
    std::vector<char> buffer(kChunk);
    clock.Start();
    PureCompoundFileStreamSource source;
    if (!source.Open(store.c_str(), true)) Fail("cannot open source on " + store.string());
    ReadEach(c, buffer, tally, [&](const std::string& name) { return source.StreamExists(name.c_str()); },
             [&](const std::string& name) { return std::unique_ptr<std::istream>(source.GetIStream(name.c_str())); });
    source.Close();
    clock.Stop();
    return tally.Finish();
  }

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    const std::vector<std::size_t> changed = Changed(before, after);
    clock.Start();
    PureCompoundFileStreamSource source;
    if (!source.Open(store.c_str(), false)) Fail("cannot open source on " + store.string());
    for (std::size_t i : changed) WriteStream(source, p, i, after.version[i], after.size);
    source.Close();
    clock.Stop();
  }

 private:
  static void WriteStream(const ZoStreamSource& source, const Pattern& p, std::size_t i, int version, std::size_t size) {
    std::unique_ptr<std::ostream> out(source.GetOStream(StreamName(i).c_str()));
    if (!out) Fail("GetOStream failed for " + StreamName(i));
    WriteChunks(*out, p, i, version, size);
  }
};

}  // namespace

const Registration kRegisterPure(8, [] { return std::unique_ptr<System>(new PureSource); });

}  // namespace tzcompare
