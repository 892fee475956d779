// The ZIP system ("zip"): an archive through libzip, every entry stored,
// fed from a callback source chunk by chunk. Built only where pkg-config
// finds libzip.
// Registered with System.h's registry; see CompareBench.cpp for what it
// does in each phase.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <zip.h>

#include "bench/compare/System.h"

namespace tzcompare {
namespace {

class Zip : public System {
 public:
  Zip() : System("zip") {}
  fs::path Store(const fs::path& folder) const override { return folder / "streams.zip"; }

  void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const override {
    std::vector<Feed> feeds;
    feeds.reserve(c.Present());
    clock.Start();
    zip_t* za = Open(store, ZIP_CREATE | ZIP_TRUNCATE);
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (!c.Has(i)) continue;
      feeds.push_back(Feed{&p, i, c.version[i], c.size, 0});
      zip_source_t* source = NewSource(za, &feeds.back());
      const zip_int64_t index = zip_file_add(za, StreamName(i).c_str(), source, ZIP_FL_ENC_UTF_8);
      if (index < 0) {
        zip_source_free(source);
        Fail(std::string("libzip: add: ") + zip_strerror(za));
      }
      Store(za, static_cast<zip_uint64_t>(index));
    }
    Close(za);
    clock.Stop();
  }

  std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const override {
    Tally tally(c);
    std::vector<char> buffer(kChunk);
    clock.Start();
    zip_t* za = Open(store, ZIP_RDONLY);
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (!c.Has(i)) continue;
      const zip_int64_t index = zip_name_locate(za, StreamName(i).c_str(), 0);
      zip_stat_t st;
      if (index < 0 || zip_stat_index(za, static_cast<zip_uint64_t>(index), 0, &st) != 0) {
        tally.Unexpected();
        continue;
      }
      zip_file_t* file = zip_fopen_index(za, static_cast<zip_uint64_t>(index), 0);
      if (file == nullptr) Fail(std::string("libzip: open: ") + zip_strerror(za));
      std::uint64_t got = 0;
      const std::uint64_t sum = SumStream(c.size, buffer.data(), [&](char* b, std::size_t n) -> std::size_t {
        const zip_int64_t r = zip_fread(file, b, n);
        if (r < 0) Fail(std::string("libzip: read: ") + zip_file_strerror(file));
        return static_cast<std::size_t>(r);
      }, &got);
      if (zip_fclose(file) != 0) Fail("libzip: a stream's check failed at its end");
      tally.Found(i, sum, st.size);
    }
    for (auto extra = static_cast<zip_int64_t>(c.Present()); extra < zip_get_num_entries(za, 0); ++extra) {
      tally.Unexpected();
    }
    zip_discard(za);
    clock.Stop();
    return tally.Finish();
  }

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    const std::vector<std::size_t> changed = Changed(before, after);
    std::vector<Feed> feeds;
    feeds.reserve(changed.size());
    clock.Start();
    zip_t* za = Open(store, 0);
    for (std::size_t i : changed) {
      const zip_int64_t index = zip_name_locate(za, StreamName(i).c_str(), 0);
      if (index < 0) Fail("libzip: no entry " + StreamName(i));
      feeds.push_back(Feed{&p, i, after.version[i], after.size, 0});
      zip_source_t* source = NewSource(za, &feeds.back());
      if (zip_file_replace(za, static_cast<zip_uint64_t>(index), source, 0) != 0) {
        zip_source_free(source);
        Fail(std::string("libzip: replace: ") + zip_strerror(za));
      }
      Store(za, static_cast<zip_uint64_t>(index));
    }
    Close(za);
    clock.Stop();
  }

  const char* CompactHow() const override { return "zip_delete each, then zip_close rewrites the archive"; }
  void Compact(const fs::path& store, const Pattern&, const Contents& before, const Contents& after,
               Clock& clock) const override {
    const std::vector<std::size_t> gone = Gone(before, after);
    clock.Start();
    zip_t* za = Open(store, 0);
    for (std::size_t i : gone) {
      const zip_int64_t index = zip_name_locate(za, StreamName(i).c_str(), 0);
      if (index < 0 || zip_delete(za, static_cast<zip_uint64_t>(index)) != 0) Fail("libzip: delete failed");
    }
    Close(za);
    clock.Stop();
  }

 private:
  // A stream handed to libzip chunk by chunk as it asks.
  struct Feed {
    const Pattern* pattern;
    std::size_t stream;
    int version;
    std::size_t size;
    std::size_t at;
  };
  static zip_int64_t Supply(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    Feed& f = *static_cast<Feed*>(state);
    switch (command) {
      case ZIP_SOURCE_OPEN:
        f.at = 0;
        return 0;
      case ZIP_SOURCE_READ: {
        if (f.at >= f.size) return 0;
        const std::size_t inChunk = f.at % kChunk;
        const std::size_t chunkLength = std::min(kChunk, f.size - (f.at - inChunk));
        const std::size_t n = std::min<std::size_t>(static_cast<std::size_t>(length), chunkLength - inChunk);
        std::memcpy(data, f.pattern->Chunk(f.stream, f.at / kChunk, f.version) + inChunk, n);
        f.at += n;
        return static_cast<zip_int64_t>(n);
      }
      case ZIP_SOURCE_CLOSE:
      case ZIP_SOURCE_FREE:
        return 0;
      case ZIP_SOURCE_STAT: {
        auto* st = static_cast<zip_stat_t*>(data);
        zip_stat_init(st);
        st->size = f.size;
        st->valid |= ZIP_STAT_SIZE;
        return sizeof(zip_stat_t);
      }
      case ZIP_SOURCE_ERROR: {
        zip_error_t none;
        zip_error_init(&none);
        const zip_int64_t n = zip_error_to_data(&none, data, length);
        zip_error_fini(&none);
        return n;
      }
      case ZIP_SOURCE_SUPPORTS:
        return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT,
                                              ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, -1);
      default:
        return -1;
    }
  }
  static zip_source_t* NewSource(zip_t* za, Feed* feed) {
    zip_source_t* source = zip_source_function(za, &Zip::Supply, feed);
    if (source == nullptr) Fail(std::string("libzip: source: ") + zip_strerror(za));
    return source;
  }
  static zip_t* Open(const fs::path& path, int flags) {
    int error = 0;
    zip_t* za = zip_open(path.c_str(), flags, &error);
    if (za == nullptr) Fail("libzip: cannot open " + path.string() + ": error " + std::to_string(error));
    return za;
  }
  static void Store(zip_t* za, zip_uint64_t index) {
    if (zip_set_file_compression(za, index, ZIP_CM_STORE, 0) != 0) Fail(std::string("libzip: ") + zip_strerror(za));
  }
  static void Close(zip_t* za) {
    if (zip_close(za) != 0) {
      const std::string text = zip_strerror(za);
      zip_discard(za);
      Fail("libzip: close: " + text);
    }
  }
};

}  // namespace

const Registration kRegisterZip(4, [] { return std::unique_ptr<System>(new Zip); });

}  // namespace tzcompare
