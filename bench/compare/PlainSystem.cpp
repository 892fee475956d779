// The plain-files system ("plain"): one file per stream in one folder, POSIX
// open/write/read/close (one file for W1); the reference every other
// system is held against, so it is always built and always runs.
// Registered with System.h's registry; see CompareBench.cpp for what it
// does in each phase.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/compare/System.h"

namespace tzcompare {
namespace {

class PlainFiles : public System {
 public:
  PlainFiles() : System("plain") {}
  fs::path Store(const fs::path& folder) const override { return folder / "streams"; }

  void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const override {
    clock.Start();
    fs::create_directory(store);
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (c.Has(i)) WriteFile(store, p, i, c.version[i], c.size);
    }
    clock.Stop();
  }

  std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const override {
    Tally tally(c);
    std::vector<char> buffer(kChunk);
    clock.Start();
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (!c.Has(i)) continue;
      const std::string path = (store / StreamName(i)).string();
      const int fd = ::open(path.c_str(), O_RDONLY);
      if (fd < 0) {
        Fail("cannot open " + path);
      }
      struct stat st {};
      ::fstat(fd, &st);
      std::uint64_t got = 0;
      const std::uint64_t sum = SumStream(c.size, buffer.data(), [&](char* b, std::size_t n) -> std::size_t {
        const ssize_t r = ::read(fd, b, n);
        return r > 0 ? static_cast<std::size_t>(r) : 0;
      }, &got);
      ::close(fd);
      tally.Found(i, sum, static_cast<std::uint64_t>(st.st_size));
    }
    clock.Stop();
    // A stream that should be gone must be gone (outside the timed span).
    const auto files = static_cast<std::size_t>(std::distance(fs::directory_iterator(store), fs::directory_iterator()));
    for (std::size_t extra = c.Present(); extra < files; ++extra) tally.Unexpected();
    return tally.Finish();
  }

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    const std::vector<std::size_t> changed = Changed(before, after);
    clock.Start();
    for (std::size_t i : changed) WriteFile(store, p, i, after.version[i], after.size);
    clock.Stop();
  }

  // For a compaction check: deleting files is all there is.
  static void RemoveFiles(const fs::path& store, const std::vector<std::size_t>& gone) {
    for (std::size_t i : gone) fs::remove(store / StreamName(i));
  }

 private:
  static void WriteFile(const fs::path& store, const Pattern& p, std::size_t i, int version, std::size_t size) {
    const std::string path = (store / StreamName(i)).string();
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) Fail("cannot create " + path);
    ForEachChunk(size, [&](std::size_t k, std::size_t n) {
      if (::write(fd, p.Chunk(i, k, version), n) != static_cast<ssize_t>(n)) Fail("short write to " + path);
    });
    if (::close(fd) != 0) Fail("close failed for " + path);
  }
};

}  // namespace

const Registration kRegisterPlain(0, [] { return std::unique_ptr<System>(new PlainFiles); });

}  // namespace tzcompare
