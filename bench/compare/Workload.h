// What the compare benchmark writes and expects back: the workloads, the
// bytes of every stream (cut from one pseudo-random buffer), what a store
// should hold after each stage, and the tally of what a reader found.
//
// Invariants:
// (1) A stream's bytes depend only on (stream, chunk, version): every
//     system writes and reads exactly the same bytes.
// (2) Contents::sum[i] is the checksum (testsupport/Checksum.h) of stream
//     i's bytes cut in kChunk pieces, as SumStream computes it on reading.
// Thread safety: a Pattern and a Contents are read-only once made; a Tally
// belongs to one reader.
#ifndef TESSELZOSTREAM_BENCH_COMPARE_WORKLOAD_H_
#define TESSELZOSTREAM_BENCH_COMPARE_WORKLOAD_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "testsupport/Checksum.h"
#include "testsupport/TestData.h"

namespace tzcompare {

namespace fs = std::filesystem;

constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * 1024;
constexpr const char* kPassword = "compare bench";

// A failed phase: the child reports the text and the phase counts as failed.
[[noreturn]] inline void Fail(const std::string& what) { throw std::runtime_error(what); }

// Stream i's chunk k in version v starts at one of kShifts places of a
// pseudo-random buffer, so streams and chunks differ from one another and an
// edit gives a stream new bytes.
class Pattern {
 public:
  static constexpr std::size_t kShifts = 8192;
  Pattern() : bytes_(kChunk + kShifts * 8) {}
  const char* Chunk(std::size_t stream, std::size_t chunk, int version) const {
    const std::uint64_t h = stream * 2654435761ull + chunk * 40503ull + static_cast<std::uint64_t>(version) * 977ull;
    return bytes_.data() + (h % kShifts) * 8;
  }

 private:
  tzsupport::NoiseBuffer bytes_;
};

// Calls f(chunk index, length) for each chunk of a stream of `size` bytes.
template <typename F>
void ForEachChunk(std::size_t size, F&& f) {
  std::size_t k = 0;
  for (std::size_t done = 0; done < size; ++k) {
    const std::size_t n = std::min(kChunk, size - done);
    f(k, n);
    done += n;
  }
}

// "s" and seven digits: names that sort as their numbers.
std::string StreamName(std::size_t i);
// The index in a name StreamName made; SIZE_MAX for any other name.
std::size_t StreamIndex(const char* name);

struct Workload {
  std::string key;
  std::size_t streams;
  std::size_t size;
  bool edit;  // the edit and the compaction run on this workload's files
};

// Which streams a store holds and in which version; -1: none of that name.
struct Contents {
  std::size_t streams = 0;  // names s0 .. s(streams-1) can occur
  std::size_t size = 0;     // bytes of every stream
  std::vector<signed char> version;
  std::vector<std::uint64_t> sum;  // the checksum each present stream must have

  bool Has(std::size_t i) const { return version[i] >= 0; }
  std::size_t Present() const {
    return static_cast<std::size_t>(std::count_if(version.begin(), version.end(), [](signed char v) { return v >= 0; }));
  }
};

// Written: every stream in version 0. Edited: 1 in 100 in version 1.
// Halved: the edited store without every odd stream.
enum class Stage { Written, Edited, Halved };

Contents MakeContents(const Pattern& pattern, const Workload& w, Stage stage);

// The streams of `after` whose bytes differ from `before`, and the ones gone.
std::vector<std::size_t> Changed(const Contents& before, const Contents& after);
std::vector<std::size_t> Gone(const Contents& before, const Contents& after);

// Counts what a reader found against what should be there.
class Tally {
 public:
  explicit Tally(const Contents& c) : c_(c), seen_(c.streams, 0) {}
  // A stream the reader found: its index, the checksum of the bytes read and
  // the size the store gives for it.
  void Found(std::size_t i, std::uint64_t sum, std::uint64_t size) {
    if (i >= c_.streams || !c_.Has(i) || seen_[i] != 0) {
      ++wrong_;
      return;
    }
    seen_[i] = 1;
    if (size != c_.size || sum != c_.sum[i]) ++wrong_;
  }
  void Unexpected() { ++wrong_; }
  // Wrong streams: bad bytes or size, unexpected or doubled names, and the
  // present streams never found.
  std::uint64_t Finish() {
    for (std::size_t i = 0; i < c_.streams; ++i) {
      if (c_.Has(i) && seen_[i] == 0) ++wrong_;
    }
    return wrong_;
  }

 private:
  const Contents& c_;
  std::vector<char> seen_;
  std::uint64_t wrong_ = 0;
};

// Reads up to `size` bytes in chunks through read(buffer, n), which gives
// how many bytes it produced (0 at the end), and returns their checksum;
// *got gets how many came.
// REQUIRES: `buffer` holds kChunk bytes.
template <typename Read>
std::uint64_t SumStream(std::size_t size, char* buffer, Read&& read, std::uint64_t* got) {
  std::uint64_t state = tzsupport::kChecksumSeed;
  std::size_t done = 0;
  while (done < size) {
    const std::size_t want = std::min(kChunk, size - done);
    std::size_t have = 0;
    while (have < want) {
      const std::size_t n = read(buffer + have, want - have);
      if (n == 0) break;
      have += n;
    }
    state = tzsupport::MixChecksum(state, buffer, have);
    done += have;
    if (have < want) break;
  }
  *got = done;
  return state;
}

}  // namespace tzcompare

#endif  // TESSELZOSTREAM_BENCH_COMPARE_WORKLOAD_H_
