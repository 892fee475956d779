// Cost of a named stream directory as it grows, against a plain reference in
// the same run.
//
// For N named sub-streams of 16 bytes each (N = 1,000 and 10,000):
//   write:   GetOutput and the bytes for every name, then Close (which sorts
//            and writes the table); reference: the same data, each position
//            and name noted in a vector as it is written, and that list
//            written behind the data in writing order, unsorted: the same
//            bytes and memory with no hashing or sorting.
//   look up: Open, then GetInput and a read of 16 bytes for every name in a
//            shuffled order; reference: a seek to each sub-stream's position,
//            known beforehand, and the same read.
// Each runs on a string stream and on a block stream of a compound file.
// The figures are ratios measured in the same run, so the machine's speed
// cancels out:
//   ratio    directory time / reference time, at N = 1,000 and at 10,000:
//            what the directory adds to placing the stream and moving the
//            bytes;
//   growth   ratio at 10,000 / ratio at 1,000: about 1 while the
//            directory's work grows like the reference's, linearly in N
//            (the sort and the binary searches add a factor log N that
//            barely shows); about 10 would mean work quadratic in N.
// The reference shares the costs of the stream itself (a block stream loads
// a block for most random reads once the stream is large) and of fresh
// memory, so they do not show as growth of the directory.
// Every read is checked, so no phase passes with wrong bytes.
//
// Usage: tz_stream_directory_bench [--quick] [--repeat N]
//   --quick     N = 100 and 1,000, for a build-and-smoke run.
//   --repeat N  keep the fastest of N runs of every phase (default 5).
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "testsupport/ScratchFolder.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kItemSize = 16;

struct Items {
  std::vector<std::string> names;   // unique, at most 11 characters
  std::vector<std::size_t> order;   // the shuffled order of look-ups
};

Items MakeItems(std::size_t n) {
  std::mt19937 random(42);
  std::set<std::string> seen;
  Items items;
  while (items.names.size() < n) {
    std::string name(1 + random() % 11, '\0');
    for (char& c : name) c = static_cast<char>('!' + random() % 94);
    if (seen.insert(name).second) items.names.push_back(name);
  }
  items.order.resize(n);
  for (std::size_t i = 0; i < n; ++i) items.order[i] = i;
  std::shuffle(items.order.begin(), items.order.end(), random);
  return items;
}

// The 16 bytes of sub-stream i.
std::string Payload(std::size_t i) {
  char bytes[32];  // room for any size_t; the first kItemSize bytes are used
  std::snprintf(bytes, sizeof bytes, "item%012zu", i);
  return std::string(bytes, kItemSize);
}

void Check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(what);
}

// Where the phases run: a fresh stream for each write.
class Place {
 public:
  virtual ~Place() = default;
  virtual std::iostream& Fresh() = 0;
  virtual const char* Label() const = 0;
};

class StringPlace : public Place {
 public:
  std::iostream& Fresh() override {
    stream_.reset(new std::stringstream(std::ios::in | std::ios::out | std::ios::binary));
    return *stream_;
  }
  const char* Label() const override { return "string"; }

 private:
  std::unique_ptr<std::stringstream> stream_;
};

class BlockPlace : public Place {
 public:
  explicit BlockPlace(const fs::path& file) {
    if (file_.Open(file.string().c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) {
      throw std::runtime_error("cannot open the compound file");
    }
  }
  ~BlockPlace() override {
    stream_.reset();
    file_.Close();
  }
  std::iostream& Fresh() override {
    stream_.reset();
    stream_.reset(file_.GetIOStream("directory", "wb"));
    Check(stream_ != nullptr, "no block stream");
    return *stream_;
  }
  const char* Label() const override { return "block"; }

 private:
  CompoundFile file_;
  std::unique_ptr<std::iostream> stream_;
};

double Seconds(const std::function<void()>& f) {
  const auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Fastest(int repeat, const std::function<double()>& run) {
  double best = 1e300;
  for (int r = 0; r < repeat; ++r) best = std::min(best, run());
  return best;
}

struct Times {
  double write, writeRef, lookUp, lookUpRef;
};

// One repetition of all four phases at one size; the fastest of `repeat`
// is kept for each phase.
Times Measure(Place& place, const Items& items, int repeat) {
  const std::size_t n = items.names.size();
  Times t{};
  std::vector<std::uint32_t> offsets(n);
  t.writeRef = Fastest(repeat, [&] {
    std::iostream& s = place.Fresh();
    return Seconds([&] {
      std::vector<std::array<char, 16>> list;
      for (std::size_t i = 0; i < n; ++i) {
        std::array<char, 16> record{};
        const std::uint32_t at = static_cast<std::uint32_t>(s.tellp());
        std::memcpy(record.data(), &at, 4);
        std::memcpy(record.data() + 4, items.names[i].data(), items.names[i].size());
        list.push_back(record);
        s.write(Payload(i).data(), kItemSize);
      }
      s.write(list.front().data(), static_cast<std::streamsize>(list.size() * 16));
      s.flush();
      Check(s.good(), "reference write");
    });
  });
  t.write = Fastest(repeat, [&] {
    std::iostream& s = place.Fresh();
    return Seconds([&] {
      OldOutputStreamDirectory dir(s);
      for (std::size_t i = 0; i < n; ++i) {
        offsets[i] = static_cast<std::uint32_t>(s.tellp());
        dir.GetOutput(items.names[i].c_str()).write(Payload(i).data(), kItemSize);
      }
      dir.Close();
      s.flush();
      Check(s.good(), "directory write");
    });
  });
  std::iostream& s = place.Fresh();  // the directory that both reads use
  {
    OldOutputStreamDirectory dir(s);
    for (std::size_t i = 0; i < n; ++i) {
      dir.GetOutput(items.names[i].c_str()).write(Payload(i).data(), kItemSize);
    }
  }
  s.flush();
  char buffer[kItemSize];
  t.lookUpRef = Fastest(repeat, [&] {
    return Seconds([&] {
      for (std::size_t i : items.order) {
        s.seekg(offsets[i]);
        s.read(buffer, kItemSize);
        Check(std::memcmp(buffer, Payload(i).data(), kItemSize) == 0, "reference read");
      }
    });
  });
  t.lookUp = Fastest(repeat, [&] {
    s.clear();
    s.seekg(0);
    return Seconds([&] {
      OldInputStreamDirectory dir(s);
      for (std::size_t i : items.order) {
        std::istream* in = dir.GetInput(items.names[i].c_str());
        Check(in != nullptr, "name not found");
        in->read(buffer, kItemSize);
        Check(std::memcmp(buffer, Payload(i).data(), kItemSize) == 0, "directory read");
      }
    });
  });
  return t;
}

}  // namespace

int main(int argc, char** argv) {
  bool quick = false;
  int repeat = 5;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) {
      quick = true;
    } else if (std::strcmp(argv[i], "--repeat") == 0 && i + 1 < argc) {
      repeat = std::max(1, std::atoi(argv[++i]));
    } else {
      std::fprintf(stderr, "usage: %s [--quick] [--repeat N]\n", argv[0]);
      return 2;
    }
  }
  const std::size_t small = quick ? 100 : 1000;
  const std::size_t large = small * 10;
  const Items smallItems = MakeItems(small);
  const Items largeItems = MakeItems(large);

  int status = 0;
  try {
    const tzsupport::ScratchFolder scratch(fs::temp_directory_path().string(), "tz-dirbench-");
    const fs::path folder = scratch.path();
    StringPlace stringPlace;
    BlockPlace blockPlace(folder / "bench.cf");
    std::printf("named stream directory: %zu and %zu sub-streams of %zu bytes, fastest of %d runs\n",
                small, large, kItemSize, repeat);
    std::printf("%-7s %-8s %14s %14s %8s %8s %7s\n", "stream", "phase", "directory", "reference",
                "ratio", "ratio", "growth");
    std::printf("%-7s %-8s %14s %14s %8zu %8zu\n", "", "", "(largest N)", "(largest N)", small, large);
    for (Place* place : {static_cast<Place*>(&stringPlace), static_cast<Place*>(&blockPlace)}) {
      const Times a = Measure(*place, smallItems, repeat);
      const Times b = Measure(*place, largeItems, repeat);
      const auto row = [&](const char* phase, double dirSmall, double refSmall, double dirLarge,
                           double refLarge) {
        const double ratioSmall = dirSmall / refSmall;
        const double ratioLarge = dirLarge / refLarge;
        std::printf("%-7s %-8s %11.2f ms %11.2f ms %8.2f %8.2f %7.2f\n", place->Label(), phase,
                    dirLarge * 1e3, refLarge * 1e3, ratioSmall, ratioLarge, ratioLarge / ratioSmall);
      };
      row("write", a.write, a.writeRef, b.write, b.writeRef);
      row("look up", a.lookUp, a.lookUpRef, b.lookUp, b.lookUpRef);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "failed: %s\n", e.what());
    status = 1;
  }
  return status;
}
