// This library's compound file as a compared system ("tz-cf"), and the base
// of its other ways in (batches, whole streams, encryption, the pure and
// the working-folder sources), which share its opening, closing and
// stream loops.
// Thread safety: as every System, one phase in one process at a time.
#ifndef TESSELZOSTREAM_BENCH_COMPARE_TZCOMPOUNDFILE_H_
#define TESSELZOSTREAM_BENCH_COMPARE_TZCOMPOUNDFILE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "bench/compare/System.h"

namespace tzcompare {

class CompoundFiles : public System {
 public:
  CompoundFiles() : System("tz-cf") {}
  explicit CompoundFiles(const char* key) : System(key) {}
  fs::path Store(const fs::path& folder) const override { return folder / "streams.tzcf"; }

  void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const override {
    clock.Start();
    CompoundFile cf;
    OpenFile(cf, store, ZoStreamE::OpenReadWrite);
    BeforeWrite(cf, c);
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (c.Has(i)) WriteStream(cf, p, i, c.version[i], c.size);
    }
    CloseFile(cf);
    clock.Stop();
  }

  std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const override {
    Tally tally(c);
    std::vector<char> buffer(kChunk);
    clock.Start();
    CompoundFile cf;
    OpenFile(cf, store, ZoStreamE::OpenReadOnly);
    ReadEach(c, buffer, tally, [&](const std::string& name) { return cf.Exists(name.c_str()); },
             [&](const std::string& name) { return std::unique_ptr<std::istream>(cf.GetIOStream(name.c_str(), "rb")); });
    CloseFile(cf);
    clock.Stop();
    return tally.Finish();
  }

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    const std::vector<std::size_t> changed = Changed(before, after);
    clock.Start();
    CompoundFile cf;
    OpenFile(cf, store, ZoStreamE::OpenReadWrite);
    for (std::size_t i : changed) WriteStream(cf, p, i, after.version[i], after.size);
    CloseFile(cf);
    clock.Stop();
  }

  void OpenAndFind(const fs::path& store, std::size_t i, bool write, Clock& clock) const override {
    const std::string name = StreamName(i);
    clock.Start();
    CompoundFile cf;
    OpenFile(cf, store, write ? ZoStreamE::OpenReadWrite : ZoStreamE::OpenReadOnly);
    std::unique_ptr<std::iostream> in(cf.GetIOStream(name.c_str(), "rb"));
    if (!in || in->get() == std::char_traits<char>::eof()) Fail("cannot read " + name);
    clock.Stop();
    in.reset();
    CloseFile(cf);
  }
  // The other columns of this library open the file the same way.
  bool Opens() const override { return std::strcmp(Key(), "tz-cf") == 0; }

 protected:
  // Opens `store`; an encrypted file is unlocked.
  static void OpenFile(CompoundFile& cf, const fs::path& store, ZoStreamE::OpenMode mode) {
    if (cf.Open(store.c_str(), mode) != ZoStreamE::StatusOk) Fail("cannot open compound file " + store.string());
    if (!cf.SetPassword(kPassword)) Fail("the password was refused");
  }
  static void CloseFile(CompoundFile& cf) {
    if (cf.Close() != ZoStreamE::StatusOk) Fail("compound file closed with an error");
  }
  virtual void BeforeWrite(CompoundFile&, const Contents&) const {}
  static void WriteStream(CompoundFile& cf, const Pattern& p, std::size_t i, int version, std::size_t size) {
    const std::string name = StreamName(i);
    std::unique_ptr<std::iostream> out(cf.GetIOStream(name.c_str(), "wb"));
    if (!out) Fail("GetIOStream wb failed for " + name);
    WriteChunks(*out, p, i, version, size);
  }
  static void WriteChunks(std::ostream& out, const Pattern& p, std::size_t i, int version, std::size_t size) {
    ForEachChunk(size, [&](std::size_t k, std::size_t n) {
      out.write(p.Chunk(i, k, version), static_cast<std::streamsize>(n));
    });
    out.flush();
    if (!out.good()) Fail("write failed for " + StreamName(i));
  }
  // Every stream `c` holds, through `open` (null when it cannot be had);
  // a name `c` does not hold must not `exist`.
  template <typename Exists, typename Open>
  static void ReadEach(const Contents& c, std::vector<char>& buffer, Tally& tally, Exists exists, Open open) {
    for (std::size_t i = 0; i < c.streams; ++i) {
      const std::string name = StreamName(i);
      if (!c.Has(i)) {
        if (exists(name)) tally.Unexpected();
        continue;
      }
      std::unique_ptr<std::istream> in = open(name);
      if (!in) {
        tally.Unexpected();
        continue;
      }
      ReadStream(*in, i, c, buffer, tally);
    }
  }
  static void ReadStream(std::istream& in, std::size_t i, const Contents& c, std::vector<char>& buffer, Tally& tally) {
    std::uint64_t got = 0;
    const std::uint64_t sum = SumStream(c.size, buffer.data(), [&](char* b, std::size_t n) -> std::size_t {
      in.read(b, static_cast<std::streamsize>(n));
      return static_cast<std::size_t>(in.gcount());
    }, &got);
    // One byte more than the stream should have means a wrong size.
    const bool more = got == c.size && in.peek() != std::char_traits<char>::eof();
    tally.Found(i, sum, got + (more ? 1 : 0));
  }
};

}  // namespace tzcompare

#endif  // TESSELZOSTREAM_BENCH_COMPARE_TZCOMPOUNDFILE_H_
