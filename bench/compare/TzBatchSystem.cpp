// This library's batches: streams written and read in one batch through
// GetIOStream ("tz-batch") or the whole-stream calls ("tz-whole").
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "bench/compare/TzCompoundFile.h"
#include "bench/compare/System.h"

namespace tzcompare {
namespace {

// The same streams written inside one batch (BeginBatch after the open,
// EndBatch before the close): the flush points of the stream closes wait
// for its end. With `whole`, through WriteStream and ReadStream instead of
// block streams.
class BatchedCompoundFiles : public CompoundFiles {
 public:
  explicit BatchedCompoundFiles(bool whole) : CompoundFiles(whole ? "tz-whole" : "tz-batch"), whole_(whole) {}

  void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const override {
    std::string bytes;
    clock.Start();
    CompoundFile cf;
    OpenFile(cf, store, ZoStreamE::OpenReadWrite);
    if (cf.BeginBatch() != ZoStreamE::StatusOk) Fail("BeginBatch failed");
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (c.Has(i)) Put(cf, p, i, c.version[i], c.size, bytes);
    }
    if (cf.EndBatch() != ZoStreamE::StatusOk) Fail("EndBatch failed");
    CloseFile(cf);
    clock.Stop();
  }

  std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const override {
    if (!whole_) return CompoundFiles::Read(store, c, clock);
    Tally tally(c);
    std::vector<char> buffer(kChunk);
    std::string bytes;
    clock.Start();
    CompoundFile cf;
    OpenFile(cf, store, ZoStreamE::OpenReadOnly);
    for (std::size_t i = 0; i < c.streams; ++i) {
      const std::string name = StreamName(i);
      if (!cf.ReadStream(name.c_str(), bytes)) {
        if (c.Has(i)) tally.Unexpected();
        continue;
      }
      if (!c.Has(i)) {
        tally.Unexpected();
        continue;
      }
      std::size_t at = 0;
      std::uint64_t got = 0;
      const std::uint64_t sum = SumStream(c.size, buffer.data(), [&](char* b, std::size_t n) -> std::size_t {
        const std::size_t k = std::min(n, bytes.size() - at);
        std::memcpy(b, bytes.data() + at, k);
        at += k;
        return k;
      }, &got);
      tally.Found(i, sum, got + (bytes.size() > got ? 1 : 0));
    }
    CloseFile(cf);
    clock.Stop();
    return tally.Finish();
  }

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    const std::vector<std::size_t> changed = Changed(before, after);
    std::string bytes;
    clock.Start();
    CompoundFile cf;
    OpenFile(cf, store, ZoStreamE::OpenReadWrite);
    if (cf.BeginBatch() != ZoStreamE::StatusOk) Fail("BeginBatch failed");
    for (std::size_t i : changed) Put(cf, p, i, after.version[i], after.size, bytes);
    if (cf.EndBatch() != ZoStreamE::StatusOk) Fail("EndBatch failed");
    CloseFile(cf);
    clock.Stop();
  }

 private:
  // One stream: a block stream, or its bytes gathered for WriteStream.
  void Put(CompoundFile& cf, const Pattern& p, std::size_t i, int version, std::size_t size,
           std::string& bytes) const {
    if (!whole_) return WriteStream(cf, p, i, version, size);
    const char* data = nullptr;
    if (size <= kChunk) {
      data = p.Chunk(i, 0, version);
    } else {
      bytes.clear();
      ForEachChunk(size, [&](std::size_t k, std::size_t n) { bytes.append(p.Chunk(i, k, version), n); });
      data = bytes.data();
    }
    if (!cf.WriteStream(StreamName(i).c_str(), data, size)) Fail("WriteStream failed for " + StreamName(i));
  }

  bool whole_;
};

}  // namespace

const Registration kRegisterBatch(6, [] { return std::unique_ptr<System>(new BatchedCompoundFiles(false)); });
const Registration kRegisterWhole(7, [] { return std::unique_ptr<System>(new BatchedCompoundFiles(true)); });

}  // namespace tzcompare
