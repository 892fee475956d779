// The library against the storage an application would pick instead, in one
// run: the same workloads, the same bytes, interleaved and repeated.
//
// Systems
//   plain     one file per stream in one folder, POSIX open/write/read/close
//             (one file for W1): the physical limit of the file system.
//   sqlite    one table (name TEXT PRIMARY KEY, data BLOB), PRAGMA
//             synchronous=OFF, every write in one transaction; a stream is an
//             INSERT of zeroblob(size), then sqlite3_blob_write in chunks.
//             Reads look the row up by name and read through one blob handle
//             moved from row to row with sqlite3_blob_reopen, in one
//             transaction.
//   ole2      an OLE2 compound document through libgsf (GsfOutfileMSOle,
//             GsfInfileMSOle, default sector sizes). Reads go through the
//             children by index and check each child's name: libgsf finds a
//             child by name with a linear scan, which at 100,000 streams
//             would measure that scan and nothing else. libgsf's reader
//             recurses through the directory tree, deeper with every stream:
//             a document of 40,000 streams already overflows the default
//             8 MiB stack (SIGSEGV), so the ole2 children raise their stack
//             limit to 512 MiB first. Adding a child costs libgsf time in
//             proportion to the children before it, so W4 takes minutes; a
//             write phase over 60 s is not repeated (the table's n says how
//             many runs a figure has).
//   zip       a ZIP archive through libzip, every entry stored (ZIP_CM_STORE).
//             An entry's bytes come from a callback source that hands out
//             the stream chunk by chunk, so nothing is held in memory;
//             libzip pulls them in its own read size at zip_close, which
//             does all the writing. Reads open entries by name.
//   tz-cf     this library: CompoundFile, GetIOStream "wb" then "rb" (the
//             file opened read-only for reading).
//   tz-pure   this library through PureCompoundFileStreamSource (GetOStream,
//             GetIStream).
//   tz-enc    tz-cf with encryption on. The workload goes into a file that
//             is already encrypted: one empty stream, Encrypt, then every
//             stream, so each data block is enciphered on its way to the file
//             as in an application that keeps its file encrypted; reads open
//             the file, give the password and read. Open, Encrypt and Close
//             count in the time. The reference is Nettle's blowfish_encrypt
//             (and _decrypt for reads) over the same bytes in memory, copied
//             into 1000-byte pieces and enciphered in place ("bf-ecb").
//
// Workloads (pseudo-random bytes, different for every stream and chunk,
// written and read in chunks of 64 KiB or the whole stream when smaller)
//   W1  1 stream of 256 MiB           W3  1,000 streams of 256 KiB
//   W2  10,000 streams of 4 KiB       W4  100,000 streams of 1 KiB
//   W4r 10,000 streams of 1 KiB: the reference for W4's cost per stream.
// Every byte read is checked: each stream's checksum against the one its
// bytes should have, its size, and that no stream is missing or doubled.
//
// After every throughput run, on a W2 store of each system written anew
// (untimed; the plain files reuse the folder of their W2 run, which is kept):
//   edit     change 1% of the streams (new bytes, same size) and save:
//            plain rewrites 100 files; sqlite UPDATEs 100 rows in one
//            transaction; zip replaces 100 entries and closes (libzip
//            rewrites the archive into a new file); ole2 rewrites the
//            document (libgsf cannot change one in place); tz-cf, tz-pure
//            and tz-enc replace the streams in place; tz-folder is the
//            working-folder source (CompoundFileStreamSource: Open, GetOStream
//            100 times, Close with SaveChanges) on a copy of the tz-cf file.
//   compact  half the streams deleted (untimed, except for zip and ole2 where
//            deleting is the rewrite), then: sqlite VACUUM; zip deletes and
//            closes; ole2 rewrites the document without them; tz-folder
//            CompactCompoundFile; plain files have nothing to do (n/a).
// The edited and the compacted files are read back and checked.
//
// Every phase runs in a child process forked for it, so that its peak memory
// (ru_maxrss from wait4) is its own; the child starts from the parent's
// resident set, which an empty child shows in the header. Dirty pages are
// synced before each clock starts; writes end in the page cache (no system
// syncs) and reads find the bytes there. Each repetition runs the systems in
// a rotated order.
//
// Usage: tz_compare_bench [--small] [--repeat N] [--dir FOLDER] [--csv FILE]
//                         [--only SYSTEM,...]
//   --small   W2 at 1,000 and W4 at 5,000 streams (and the edit and the
//             compaction on that W2), once: a smoke run for CI. The exit
//             status is non-zero only for a wrong byte or a failed phase,
//             never for a time.
//   --repeat  repetitions of the full run (default 5).
//   --dir     where the scratch folder goes (default: the system's temp
//             folder). Each system's files are removed after its phase,
//             except the plain files of the many-stream workloads (see
//             RunSystem), about 0.75 GiB a run: 4 GiB at most for 5 runs.
//   --csv     the machine-readable figures (default tz-compare-bench.csv);
//             bench/plot-compare.sh draws them.
//   --only    run only these systems (plain always runs: it is the reference).
//   --workloads  run only these workloads (W1,W2,W3,W4,W4r).
//   --verbose    every phase's figures to stderr as they come.
// The exit status is non-zero when a stream was read back wrong or a phase
// of this library failed; another system's failure is reported in the
// table and leaves the exit status alone.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gsf/gsf-infile-msole.h>
#include <gsf/gsf-infile.h>
#include <gsf/gsf-input-stdio.h>
#include <gsf/gsf-outfile-msole.h>
#include <gsf/gsf-outfile.h>
#include <gsf/gsf-output-stdio.h>
#include <gsf/gsf-utils.h>
#ifdef TZ_HAVE_LMDB
#include <lmdb.h>
#endif
#include <nettle/blowfish.h>
#include <sqlite3.h>
#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "ScratchFolder.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * 1024;
constexpr const char* kPassword = "compare bench";
// A system whose write of a workload took longer runs that workload once.
constexpr double kSlowSeconds = 60.0;
// Creating an empty file slower than this means the file system is busy
// with deletions made before the run (see CreationProbe).
constexpr double kSlowCreationMicros = 40.0;

[[noreturn]] void Fail(const std::string& what) { throw std::runtime_error(what); }

// Lets the main thread's stack grow to `bytes` (or the hard limit).
void RaiseStackLimit(rlim_t bytes) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_STACK, &limit) != 0) return;
  if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < bytes) {
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? bytes : std::min(bytes, limit.rlim_max);
    ::setrlimit(RLIMIT_STACK, &limit);
  }
}

// ---- the bytes ----

// Stream i's chunk k in version v starts at one of kShifts places of a
// pseudo-random buffer, so streams and chunks differ from one another and an
// edit gives a stream new bytes.
class Pattern {
 public:
  static constexpr std::size_t kShifts = 8192;
  Pattern() : bytes_(kChunk + kShifts * 8) {
    std::uint64_t x = 0x9e3779b97f4a7c15ull;
    for (char& b : bytes_) {  // xorshift: cheap, not compressible
      x ^= x << 13;
      x ^= x >> 7;
      x ^= x << 17;
      b = static_cast<char>(x >> 24);
    }
  }
  const char* Chunk(std::size_t stream, std::size_t chunk, int version) const {
    const std::uint64_t h = stream * 2654435761ull + chunk * 40503ull + static_cast<std::uint64_t>(version) * 977ull;
    return bytes_.data() + (h % kShifts) * 8;
  }

 private:
  std::vector<char> bytes_;
};

constexpr std::uint64_t kSumSeed = 0xcbf29ce484222325ull;

// Folds one chunk into a stream's checksum; the sums of 8-byte words
// vectorise, so checking costs little next to the I/O.
std::uint64_t Mix(std::uint64_t state, const char* data, std::size_t n) {
  std::uint64_t sum = 0;
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    std::uint64_t word;
    std::memcpy(&word, data + i, 8);
    sum += word;
  }
  for (; i < n; ++i) sum += static_cast<std::uint64_t>(static_cast<unsigned char>(data[i])) << ((i % 8) * 8);
  return (state ^ (sum + n)) * 0x100000001b3ull;
}

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

std::string StreamName(std::size_t i) {
  char name[32];
  std::snprintf(name, sizeof name, "s%07zu", i);
  return name;
}

// The index in a name StreamName made; SIZE_MAX for any other name.
std::size_t StreamIndex(const char* name) {
  if (name == nullptr || name[0] != 's' || std::strlen(name) != 8) return SIZE_MAX;
  std::size_t i = 0;
  for (const char* c = name + 1; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9') return SIZE_MAX;
    i = i * 10 + static_cast<std::size_t>(*c - '0');
  }
  return i;
}

// ---- what a store should hold ----

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

// Which streams an edit changes: 1 in 100. All of them stay in compaction.
bool Edited(std::size_t i) { return i % 100 == 0; }
// Which streams compaction removes: every odd one.
bool Removed(std::size_t i) { return i % 2 == 1; }

enum class Stage { Written, Edited, Halved };

Contents MakeContents(const Pattern& pattern, const Workload& w, Stage stage) {
  Contents c;
  c.streams = w.streams;
  c.size = w.size;
  c.version.assign(w.streams, 0);
  c.sum.assign(w.streams, 0);
  for (std::size_t i = 0; i < w.streams; ++i) {
    if (stage != Stage::Written && Edited(i)) c.version[i] = 1;
    if (stage == Stage::Halved && Removed(i)) c.version[i] = -1;
    if (c.version[i] < 0) continue;
    std::uint64_t state = kSumSeed;
    ForEachChunk(w.size, [&](std::size_t k, std::size_t n) { state = Mix(state, pattern.Chunk(i, k, c.version[i]), n); });
    c.sum[i] = state;
  }
  return c;
}

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
template <typename Read>
std::uint64_t SumStream(std::size_t size, char* buffer, Read&& read, std::uint64_t* got) {
  std::uint64_t state = kSumSeed;
  std::size_t done = 0;
  while (done < size) {
    const std::size_t want = std::min(kChunk, size - done);
    std::size_t have = 0;
    while (have < want) {
      const std::size_t n = read(buffer + have, want - have);
      if (n == 0) break;
      have += n;
    }
    state = Mix(state, buffer, have);
    done += have;
    if (have < want) break;
  }
  *got = done;
  return state;
}

// ---- timing a phase in a child ----

double CpuSeconds() {
  rusage r{};
  ::getrusage(RUSAGE_SELF, &r);
  auto sec = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6; };
  return sec(r.ru_utime) + sec(r.ru_stime);
}

// The timed span of a phase: what comes before Start is preparation.
class Clock {
 public:
  void Start() {
    ::sync();  // earlier dirty pages go to disk outside the timed span
    cpu_ = CpuSeconds();
    start_ = std::chrono::steady_clock::now();
    started_ = true;
  }
  void Stop() {
    if (!started_) Fail("a phase stopped a clock it never started");
    wall_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    cpu_ = CpuSeconds() - cpu_;
    stopped_ = true;
  }
  bool Done() const { return stopped_; }
  double Wall() const { return wall_; }
  double Cpu() const { return cpu_; }

 private:
  std::chrono::steady_clock::time_point start_;
  double wall_ = 0;
  double cpu_ = 0;
  bool started_ = false;
  bool stopped_ = false;
};

struct Outcome {
  bool ok = false;  // the phase ran to its end
  double seconds = 0;
  double cpu = 0;
  long peakKiB = 0;
  std::uint64_t wrong = 0;  // streams read back wrong
  std::string error;
};

// What the child sends back through its pipe.
struct Report {
  double seconds;
  double cpu;
  std::uint64_t wrong;
  int ok;
  char error[240];
};

// Runs phase(clock), which returns the number of wrong streams, in a forked
// child; the peak resident set is the child's.
template <typename Phase>
Outcome InChild(Phase&& phase) {
  std::fflush(stdout);
  std::fflush(stderr);
  int fds[2];
  if (::pipe(fds) != 0) Fail("pipe failed");
  const pid_t pid = ::fork();
  if (pid < 0) Fail("fork failed");
  if (pid == 0) {
    ::close(fds[0]);
    Report report{};
    try {
      Clock clock;
      report.wrong = phase(clock);
      if (!clock.Done()) Fail("a phase ended without stopping its clock");
      report.seconds = clock.Wall();
      report.cpu = clock.Cpu();
      report.ok = 1;
    } catch (const std::exception& e) {
      std::snprintf(report.error, sizeof report.error, "%s", e.what());
    } catch (const ZoStreamE::Status& status) {  // Open's report of a damaged directory
      std::snprintf(report.error, sizeof report.error, "compound file status %d", static_cast<int>(status));
    } catch (...) {
      std::snprintf(report.error, sizeof report.error, "unknown exception");
    }
    const char* p = reinterpret_cast<const char*>(&report);
    for (std::size_t left = sizeof report; left > 0;) {
      const ssize_t n = ::write(fds[1], p, left);
      if (n <= 0) break;
      p += n;
      left -= static_cast<std::size_t>(n);
    }
    ::_exit(0);
  }
  ::close(fds[1]);
  Report report{};
  char* p = reinterpret_cast<char*>(&report);
  std::size_t got = 0;
  while (got < sizeof report) {
    const ssize_t n = ::read(fds[0], p + got, sizeof report - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  ::close(fds[0]);
  int status = 0;
  rusage usage{};
  while (::wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  Outcome o;
  o.peakKiB = usage.ru_maxrss;
  if (got != sizeof report) {
    o.error = WIFSIGNALED(status) ? "child killed by signal " + std::to_string(WTERMSIG(status)) : "child sent no report";
    return o;
  }
  o.ok = report.ok != 0;
  o.seconds = report.seconds;
  o.cpu = report.cpu;
  o.wrong = report.wrong;
  o.error = report.error;
  return o;
}

// ---- the systems ----

class System {
 public:
  explicit System(const char* key) : key_(key) {}
  virtual ~System() = default;
  const char* Key() const { return key_; }
  // Where the streams go inside the system's own folder.
  virtual fs::path Store(const fs::path& folder) const = 0;
  virtual void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const = 0;
  // Reads and checks every stream; the number of wrong ones.
  virtual std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const = 0;
  // Turns a store holding `before` into one holding `after`, where some
  // streams have a new version, and saves it.
  virtual void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
                    Clock& clock) const = 0;
  // What compaction means here; null when the system has none.
  virtual const char* CompactHow() const { return nullptr; }
  // Removes the streams `after` lacks and gives their room back.
  virtual void Compact(const fs::path&, const Pattern&, const Contents&, const Contents&, Clock&) const {}
  // Opens the store (for writing when `write`), finds stream i and reads its
  // first byte: the wait before an application's first look-up. Only
  // systems for which Opens() is true have this phase.
  virtual bool Opens() const { return false; }
  virtual void OpenAndFind(const fs::path&, std::size_t /*i*/, bool /*write*/, Clock&) const {}

 private:
  const char* key_;
};

// The streams of `after` whose bytes differ from `before`, and the ones gone.
std::vector<std::size_t> Changed(const Contents& before, const Contents& after) {
  std::vector<std::size_t> out;
  for (std::size_t i = 0; i < after.streams; ++i) {
    if (after.Has(i) && before.version[i] != after.version[i]) out.push_back(i);
  }
  return out;
}
std::vector<std::size_t> Gone(const Contents& before, const Contents& after) {
  std::vector<std::size_t> out;
  for (std::size_t i = 0; i < after.streams; ++i) {
    if (before.Has(i) && !after.Has(i)) out.push_back(i);
  }
  return out;
}

// -- plain files --

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

// -- SQLite --

class Sqlite : public System {
 public:
  Sqlite() : System("sqlite") {}
  fs::path Store(const fs::path& folder) const override { return folder / "streams.sqlite"; }

  void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const override {
    clock.Start();
    Db db(store);
    db.Exec("CREATE TABLE streams(name TEXT PRIMARY KEY, data BLOB)");
    db.Exec("BEGIN");
    Statement insert(db, "INSERT INTO streams(name, data) VALUES(?1, zeroblob(?2))");
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (!c.Has(i)) continue;
      const std::string name = StreamName(i);
      sqlite3_bind_text(insert.s, 1, name.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_int64(insert.s, 2, static_cast<sqlite3_int64>(c.size));
      insert.Step();
      sqlite3_blob* blob = nullptr;
      db.Check(sqlite3_blob_open(db.db, "main", "streams", "data", sqlite3_last_insert_rowid(db.db), 1, &blob),
               "blob open");
      std::size_t offset = 0;
      ForEachChunk(c.size, [&](std::size_t k, std::size_t n) {
        db.Check(sqlite3_blob_write(blob, p.Chunk(i, k, c.version[i]), static_cast<int>(n), static_cast<int>(offset)),
                 "blob write");
        offset += n;
      });
      db.Check(sqlite3_blob_close(blob), "blob close");
    }
    insert.Finish();
    db.Exec("COMMIT");
    db.Close();
    clock.Stop();
  }

  std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const override {
    Tally tally(c);
    std::vector<char> buffer(kChunk);
    clock.Start();
    Db db(store);
    db.Exec("BEGIN");
    {
      Statement find(db, "SELECT rowid FROM streams WHERE name = ?1");
      sqlite3_blob* blob = nullptr;
      for (std::size_t i = 0; i < c.streams; ++i) {
        if (!c.Has(i)) continue;
        const std::string name = StreamName(i);
        sqlite3_bind_text(find.s, 1, name.c_str(), -1, SQLITE_STATIC);
        if (!find.Step()) Fail("sqlite: no row for " + name);
        const sqlite3_int64 rowid = sqlite3_column_int64(find.s, 0);
        find.Reset();
        if (blob == nullptr) {
          db.Check(sqlite3_blob_open(db.db, "main", "streams", "data", rowid, 0, &blob), "blob open");
        } else {
          db.Check(sqlite3_blob_reopen(blob, rowid), "blob reopen");
        }
        const int bytes = sqlite3_blob_bytes(blob);
        std::size_t offset = 0;
        std::uint64_t got = 0;
        const std::uint64_t sum = SumStream(c.size, buffer.data(), [&](char* b, std::size_t n) -> std::size_t {
          const std::size_t take = std::min(n, static_cast<std::size_t>(bytes) - std::min(offset, static_cast<std::size_t>(bytes)));
          if (take == 0) return 0;
          db.Check(sqlite3_blob_read(blob, b, static_cast<int>(take), static_cast<int>(offset)), "blob read");
          offset += take;
          return take;
        }, &got);
        tally.Found(i, sum, static_cast<std::uint64_t>(bytes));
      }
      if (blob != nullptr) sqlite3_blob_close(blob);
    }
    db.Exec("COMMIT");
    db.Close();
    clock.Stop();
    // A stream that should be gone must be gone (outside the timed span).
    Db again(store);
    Statement count(again, "SELECT count(*) FROM streams");
    count.Step();
    for (auto extra = static_cast<sqlite3_int64>(c.Present()); extra < sqlite3_column_int64(count.s, 0); ++extra) {
      tally.Unexpected();
    }
    return tally.Finish();
  }

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    const std::vector<std::size_t> changed = Changed(before, after);
    std::vector<char> bytes(after.size);
    clock.Start();
    Db db(store);
    db.Exec("BEGIN");
    {
      Statement update(db, "UPDATE streams SET data = ?2 WHERE name = ?1");
      for (std::size_t i : changed) {
        // The whole stream in one value: the edited streams are 4 KiB.
        ForEachChunk(after.size, [&](std::size_t k, std::size_t n) {
          std::memcpy(bytes.data() + k * kChunk, p.Chunk(i, k, after.version[i]), n);
        });
        const std::string name = StreamName(i);
        sqlite3_bind_text(update.s, 1, name.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_blob(update.s, 2, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
        update.Step();
        if (sqlite3_changes(db.db) != 1) Fail("sqlite: UPDATE missed " + name);
        update.Reset();
      }
    }
    db.Exec("COMMIT");
    db.Close();
    clock.Stop();
  }

  void OpenAndFind(const fs::path& store, std::size_t i, bool write, Clock& clock) const override {
    const std::string name = StreamName(i);
    clock.Start();
    Db db(store);
    if (write) db.Exec("BEGIN IMMEDIATE");
    {
      Statement find(db, "SELECT substr(data, 1, 1) FROM streams WHERE name = ?1");
      sqlite3_bind_text(find.s, 1, name.c_str(), -1, SQLITE_STATIC);
      if (!find.Step() || sqlite3_column_bytes(find.s, 0) != 1) Fail("sqlite: no row for " + name);
    }
    clock.Stop();
    if (write) db.Exec("COMMIT");
    db.Close();
  }
  bool Opens() const override { return true; }

  const char* CompactHow() const override { return "DELETE (untimed), then VACUUM"; }
  void Compact(const fs::path& store, const Pattern&, const Contents& before, const Contents& after,
               Clock& clock) const override {
    {
      Db db(store);
      db.Exec("BEGIN");
      Statement remove(db, "DELETE FROM streams WHERE name = ?1");
      for (std::size_t i : Gone(before, after)) {
        const std::string name = StreamName(i);
        sqlite3_bind_text(remove.s, 1, name.c_str(), -1, SQLITE_STATIC);
        remove.Step();
        remove.Reset();
      }
      remove.Finish();
      db.Exec("COMMIT");
      db.Close();
    }
    clock.Start();
    Db db(store);
    db.Exec("VACUUM");
    db.Close();
    clock.Stop();
  }

 private:
  struct Db {
    sqlite3* db = nullptr;
    explicit Db(const fs::path& path) {
      if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
        Fail("sqlite: cannot open " + path.string());
      }
      Exec("PRAGMA synchronous=OFF");
    }
    ~Db() {
      if (db != nullptr) sqlite3_close_v2(db);
    }
    Db(const Db&) = delete;
    Db& operator=(const Db&) = delete;
    void Close() {
      if (db != nullptr && sqlite3_close(db) != SQLITE_OK) Fail(std::string("sqlite: close: ") + sqlite3_errmsg(db));
      db = nullptr;
    }
    void Check(int rc, const char* what) const {
      if (rc != SQLITE_OK) Fail(std::string("sqlite: ") + what + ": " + sqlite3_errmsg(db));
    }
    void Exec(const char* sql) const { Check(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), sql); }
  };
  struct Statement {
    const Db& db;
    sqlite3_stmt* s = nullptr;
    Statement(const Db& d, const char* sql) : db(d) { db.Check(sqlite3_prepare_v2(db.db, sql, -1, &s, nullptr), sql); }
    ~Statement() { sqlite3_finalize(s); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    // True for a row, false when done.
    bool Step() {
      const int rc = sqlite3_step(s);
      if (rc == SQLITE_ROW) return true;
      if (rc == SQLITE_DONE) {
        if (sqlite3_stmt_readonly(s) == 0) Reset();
        return false;
      }
      Fail(std::string("sqlite: step: ") + sqlite3_errmsg(db.db));
    }
    void Reset() {
      sqlite3_reset(s);
      sqlite3_clear_bindings(s);
    }
    void Finish() {
      sqlite3_finalize(s);
      s = nullptr;
    }
  };
};

// -- LMDB --

#ifdef TZ_HAVE_LMDB
// One environment in one file (MDB_NOSUBDIR), MDB_NOSYNC: every write in one
// transaction, each value reserved with MDB_RESERVE and filled in place;
// reads take each value zero-copy from the memory map in one read
// transaction.
class Lmdb : public System {
 public:
  Lmdb() : System("lmdb") {}
  fs::path Store(const fs::path& folder) const override { return folder / "streams.lmdb"; }

  void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const override {
    clock.Start();
    Env env(store);
    Txn txn(env, 0);
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (c.Has(i)) Put(txn, p, i, c.version[i], c.size);
    }
    txn.Commit();
    env.Close();
    clock.Stop();
  }

  std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const override {
    Tally tally(c);
    std::vector<char> buffer(kChunk);
    std::size_t entries = 0;
    clock.Start();
    {
      Env env(store);
      Txn txn(env, MDB_RDONLY);
      for (std::size_t i = 0; i < c.streams; ++i) {
        if (!c.Has(i)) continue;
        const std::string name = StreamName(i);
        MDB_val key{name.size(), const_cast<char*>(name.data())};
        MDB_val data{};
        const int rc = mdb_get(txn.txn, txn.dbi, &key, &data);
        if (rc == MDB_NOTFOUND) {
          tally.Unexpected();
          continue;
        }
        Check(rc, "get");
        const char* bytes = static_cast<const char*>(data.mv_data);
        std::size_t at = 0;
        std::uint64_t got = 0;
        const std::uint64_t sum = SumStream(c.size, buffer.data(), [&](char* b, std::size_t n) -> std::size_t {
          const std::size_t k = std::min(n, data.mv_size - at);
          std::memcpy(b, bytes + at, k);
          at += k;
          return k;
        }, &got);
        tally.Found(i, sum, data.mv_size);
      }
      MDB_stat st{};
      Check(mdb_stat(txn.txn, txn.dbi, &st), "stat");
      entries = st.ms_entries;
    }
    clock.Stop();
    for (std::size_t extra = c.Present(); extra < entries; ++extra) tally.Unexpected();
    return tally.Finish();
  }

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    const std::vector<std::size_t> changed = Changed(before, after);
    clock.Start();
    Env env(store);
    Txn txn(env, 0);
    for (std::size_t i : changed) Put(txn, p, i, after.version[i], after.size);
    txn.Commit();
    env.Close();
    clock.Stop();
  }

  void OpenAndFind(const fs::path& store, std::size_t i, bool write, Clock& clock) const override {
    const std::string name = StreamName(i);
    clock.Start();
    Env env(store);
    Txn txn(env, write ? 0U : static_cast<unsigned>(MDB_RDONLY));
    MDB_val key{name.size(), const_cast<char*>(name.data())};
    MDB_val data{};
    Check(mdb_get(txn.txn, txn.dbi, &key, &data), "get");
    if (data.mv_size == 0) Fail("lmdb: empty value for " + name);
    volatile char first = *static_cast<const char*>(data.mv_data);
    static_cast<void>(first);
    clock.Stop();
  }
  bool Opens() const override { return true; }

  const char* CompactHow() const override {
    return "mdb_del (untimed), then mdb_env_copy2 MDB_CP_COMPACT, renamed over the old";
  }
  void Compact(const fs::path& store, const Pattern&, const Contents& before, const Contents& after,
               Clock& clock) const override {
    {
      Env env(store);
      Txn txn(env, 0);
      for (std::size_t i : Gone(before, after)) {
        const std::string name = StreamName(i);
        MDB_val key{name.size(), const_cast<char*>(name.data())};
        Check(mdb_del(txn.txn, txn.dbi, &key, nullptr), "del");
      }
      txn.Commit();
      env.Close();
    }
    clock.Start();
    const fs::path copy = store.string() + ".compact";
    {
      Env env(store);
      Check(mdb_env_copy2(env.env, copy.c_str(), MDB_CP_COMPACT), "copy");
      env.Close();
    }
    fs::rename(copy, store);
    clock.Stop();
  }

 private:
  static void Check(int rc, const char* what) {
    if (rc != MDB_SUCCESS) Fail(std::string("lmdb: ") + what + ": " + mdb_strerror(rc));
  }
  struct Env {
    MDB_env* env = nullptr;
    explicit Env(const fs::path& path) {
      Check(mdb_env_create(&env), "env create");
      Check(mdb_env_set_mapsize(env, std::size_t{16} << 30), "set mapsize");
      Check(mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0644), "env open");
    }
    ~Env() { Close(); }
    Env(const Env&) = delete;
    Env& operator=(const Env&) = delete;
    void Close() {
      if (env != nullptr) mdb_env_close(env);
      env = nullptr;
    }
  };
  struct Txn {
    MDB_txn* txn = nullptr;
    MDB_dbi dbi = 0;
    Txn(const Env& e, unsigned flags) {
      Check(mdb_txn_begin(e.env, nullptr, flags, &txn), "txn begin");
      Check(mdb_dbi_open(txn, nullptr, 0, &dbi), "dbi open");
    }
    ~Txn() {
      if (txn != nullptr) mdb_txn_abort(txn);
    }
    Txn(const Txn&) = delete;
    Txn& operator=(const Txn&) = delete;
    void Commit() {
      const int rc = mdb_txn_commit(txn);
      txn = nullptr;
      Check(rc, "commit");
    }
  };
  static void Put(Txn& txn, const Pattern& p, std::size_t i, int version, std::size_t size) {
    const std::string name = StreamName(i);
    MDB_val key{name.size(), const_cast<char*>(name.data())};
    MDB_val data{size, nullptr};
    Check(mdb_put(txn.txn, txn.dbi, &key, &data, MDB_RESERVE), "put");
    char* out = static_cast<char*>(data.mv_data);
    ForEachChunk(size, [&](std::size_t k, std::size_t n) { std::memcpy(out + k * kChunk, p.Chunk(i, k, version), n); });
  }
};
#endif

// -- OLE2 through libgsf --

class Ole2 : public System {
 public:
  Ole2() : System("ole2") {}
  fs::path Store(const fs::path& folder) const override { return folder / "streams.ole2"; }

  void Write(const fs::path& store, const Pattern& p, const Contents& c, Clock& clock) const override {
    Start();
    clock.Start();
    GsfOutfile* ole = NewDocument(store);
    for (std::size_t i = 0; i < c.streams; ++i) {
      if (c.Has(i)) WriteChild(ole, p, i, c.version[i], c.size);
    }
    CloseDocument(ole);
    clock.Stop();
  }

  std::uint64_t Read(const fs::path& store, const Contents& c, Clock& clock) const override {
    Start();
    Tally tally(c);
    std::vector<char> buffer(kChunk);
    clock.Start();
    GsfInfile* ole = OpenDocument(store);
    const int children = gsf_infile_num_children(ole);
    for (int j = 0; j < children; ++j) {
      GsfInput* child = gsf_infile_child_by_index(ole, j);
      if (child == nullptr) Fail("libgsf: child " + std::to_string(j) + " cannot be opened");
      const std::size_t i = StreamIndex(gsf_input_name(child));
      if (i == SIZE_MAX) {
        tally.Unexpected();
      } else {
        const auto size = static_cast<std::uint64_t>(gsf_input_size(child));
        std::uint64_t got = 0;
        const std::uint64_t sum = SumStream(c.size, buffer.data(), [&](char* b, std::size_t n) -> std::size_t {
          const std::size_t take = static_cast<std::size_t>(std::min<gsf_off_t>(static_cast<gsf_off_t>(n), gsf_input_remaining(child)));
          if (take == 0) return 0;
          if (gsf_input_read(child, take, reinterpret_cast<guint8*>(b)) == nullptr) Fail("libgsf: read failed");
          return take;
        }, &got);
        tally.Found(i, sum, size);
      }
      g_object_unref(child);
    }
    g_object_unref(ole);
    clock.Stop();
    return tally.Finish();
  }

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    Start();
    clock.Start();
    Rewrite(store, p, before, after);
    clock.Stop();
  }

  const char* CompactHow() const override { return "rewrite the document without the deleted streams"; }
  void Compact(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
               Clock& clock) const override {
    Start();
    clock.Start();
    Rewrite(store, p, before, after);
    clock.Stop();
  }

 private:
  // Every ole2 phase runs in its own child: see the head of this file on the stack.
  static void Start() {
    RaiseStackLimit(rlim_t(512) * kMiB);
    gsf_init();
  }
  static std::string Message(GError* err) {
    std::string text = err != nullptr ? err->message : "unknown error";
    if (err != nullptr) g_error_free(err);
    return text;
  }
  static GsfOutfile* NewDocument(const fs::path& path) {
    GError* err = nullptr;
    GsfOutput* sink = gsf_output_stdio_new(path.c_str(), &err);
    if (sink == nullptr) Fail("libgsf: cannot create " + path.string() + ": " + Message(err));
    GsfOutfile* ole = gsf_outfile_msole_new(sink);
    g_object_unref(sink);
    if (ole == nullptr) Fail("libgsf: no OLE2 writer");
    return ole;
  }
  static void CloseDocument(GsfOutfile* ole) {
    const bool ok = gsf_output_close(GSF_OUTPUT(ole));
    g_object_unref(ole);
    if (!ok) Fail("libgsf: the document could not be closed");
  }
  static GsfInfile* OpenDocument(const fs::path& path) {
    GError* err = nullptr;
    GsfInput* input = gsf_input_stdio_new(path.c_str(), &err);
    if (input == nullptr) Fail("libgsf: cannot open " + path.string() + ": " + Message(err));
    GsfInfile* ole = gsf_infile_msole_new(input, &err);
    g_object_unref(input);
    if (ole == nullptr) Fail("libgsf: not an OLE2 document: " + Message(err));
    return ole;
  }
  static void WriteChild(GsfOutfile* ole, const Pattern& p, std::size_t i, int version, std::size_t size) {
    GsfOutput* child = gsf_outfile_new_child(ole, StreamName(i).c_str(), FALSE);
    if (child == nullptr) Fail("libgsf: cannot add a stream");
    ForEachChunk(size, [&](std::size_t k, std::size_t n) {
      if (!gsf_output_write(child, n, reinterpret_cast<const guint8*>(p.Chunk(i, k, version)))) {
        Fail("libgsf: write failed");
      }
    });
    const bool ok = gsf_output_close(child);
    g_object_unref(child);
    if (!ok) Fail("libgsf: a stream could not be closed");
  }
  // libgsf writes a document once: a change is a new document, written
  // beside the old one and renamed over it.
  static void Rewrite(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after) {
    const fs::path next = store.string() + ".new";
    GsfInfile* in = OpenDocument(store);
    GsfOutfile* out = NewDocument(next);
    std::vector<char> buffer(kChunk);
    const int children = gsf_infile_num_children(in);
    for (int j = 0; j < children; ++j) {
      const std::size_t i = StreamIndex(gsf_infile_name_by_index(in, j));
      if (i >= after.streams || !after.Has(i)) continue;
      if (after.version[i] != before.version[i]) {
        WriteChild(out, p, i, after.version[i], after.size);
        continue;
      }
      GsfInput* from = gsf_infile_child_by_index(in, j);
      GsfOutput* to = gsf_outfile_new_child(out, StreamName(i).c_str(), FALSE);
      if (from == nullptr || to == nullptr) Fail("libgsf: cannot copy a stream");
      for (gsf_off_t left = gsf_input_size(from); left > 0;) {
        const auto n = static_cast<std::size_t>(std::min<gsf_off_t>(left, static_cast<gsf_off_t>(kChunk)));
        const guint8* bytes = gsf_input_read(from, n, reinterpret_cast<guint8*>(buffer.data()));
        if (bytes == nullptr || !gsf_output_write(to, n, bytes)) Fail("libgsf: copy failed");
        left -= static_cast<gsf_off_t>(n);
      }
      const bool ok = gsf_output_close(to);
      g_object_unref(to);
      g_object_unref(from);
      if (!ok) Fail("libgsf: a stream could not be closed");
    }
    CloseDocument(out);
    g_object_unref(in);
    fs::rename(next, store);
  }
};

// -- ZIP through libzip --

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

// -- this library --

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
    for (std::size_t i = 0; i < c.streams; ++i) {
      const std::string name = StreamName(i);
      if (!c.Has(i)) {
        if (cf.Exists(name.c_str())) tally.Unexpected();
        continue;
      }
      std::unique_ptr<std::iostream> in(cf.GetIOStream(name.c_str(), "rb"));
      if (!in) {
        tally.Unexpected();
        continue;
      }
      ReadStream(*in, i, c, buffer, tally);
    }
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
    for (std::size_t i = 0; i < c.streams; ++i) {
      const std::string name = StreamName(i);
      if (!c.Has(i)) {
        if (source.StreamExists(name.c_str())) tally.Unexpected();
        continue;
      }
      std::unique_ptr<std::istream> in(source.GetIStream(name.c_str()));
      if (!in) {
        tally.Unexpected();
        continue;
      }
      ReadStream(*in, i, c, buffer, tally);
    }
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

// The working-folder source: only the edit and the compaction, on a copy of
// the tz-cf file.
class FolderSource : public CompoundFiles {
 public:
  FolderSource() : CompoundFiles("tz-folder") {}

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    const std::vector<std::size_t> changed = Changed(before, after);
    const std::string work = WorkFolder(store);
    clock.Start();
    CompoundFileStreamSource source(store.c_str(), work.c_str());
    Check(source.Open(CompoundFileStreamSource::NewDirectory, false), "Open");
    for (std::size_t i : changed) {
      std::unique_ptr<std::ostream> out(source.GetOStream(StreamName(i).c_str()));
      if (!out) Fail("GetOStream failed for " + StreamName(i));
      WriteChunks(*out, p, i, after.version[i], after.size);
    }
    Check(source.Close(CompoundFileStreamSource::SaveChanges, false), "Close");
    clock.Stop();
  }

  const char* CompactHow() const override { return "DeleteCFFile (untimed), then CompactCompoundFile"; }
  void Compact(const fs::path& store, const Pattern&, const Contents& before, const Contents& after,
               Clock& clock) const override {
    {
      CompoundFile cf;
      OpenFile(cf, store, ZoStreamE::OpenReadWrite);
      for (std::size_t i : Gone(before, after)) {
        if (!cf.DeleteCFFile(StreamName(i).c_str())) Fail("DeleteCFFile failed");
      }
      CloseFile(cf);
    }
    const std::string work = WorkFolder(store);
    clock.Start();
    CompoundFileStreamSource source(store.c_str(), work.c_str());
    Check(source.Open(CompoundFileStreamSource::NewDirectory, false), "Open");
    source.CompactCompoundFile();
    Check(source.Close(CompoundFileStreamSource::SaveChanges, false), "Close");
    clock.Stop();
  }

 private:
  static std::string WorkFolder(const fs::path& store) {
    return CompoundFileStreamSource::GetTempFolderName(store.parent_path().c_str(), store.c_str());
  }
  static void Check(CompoundFileStreamSource::Error e, const char* what) {
    if (e != CompoundFileStreamSource::NoError) {
      Fail(std::string("working-folder source: ") + what + " failed with " + std::to_string(static_cast<int>(e)));
    }
  }
};

// -- the cipher alone --

// Nettle's Blowfish over the bytes of a workload, copied into 1000-byte
// pieces (the share of a block's payload the library enciphers) and
// enciphered in place. Gives a fold of the output so that nothing is skipped.
std::uint64_t BareCipher(const Pattern& p, const Contents& c, bool encrypt) {
  blowfish_ctx key;
  blowfish_set_key(&key, std::strlen(kPassword), reinterpret_cast<const std::uint8_t*>(kPassword));
  constexpr std::size_t kPiece = 1000;
  std::uint8_t piece[kPiece];
  std::size_t filled = 0;
  std::uint64_t fold = 0;
  auto cipher = [&](std::size_t n) {
    const std::size_t whole = n - n % BLOWFISH_BLOCK_SIZE;
    if (encrypt) {
      blowfish_encrypt(&key, whole, piece, piece);
    } else {
      blowfish_decrypt(&key, whole, piece, piece);
    }
    std::uint64_t word;
    std::memcpy(&word, piece, 8);
    fold += word;
  };
  for (std::size_t i = 0; i < c.streams; ++i) {
    if (!c.Has(i)) continue;
    ForEachChunk(c.size, [&](std::size_t k, std::size_t n) {
      const char* src = p.Chunk(i, k, c.version[i]);
      while (n > 0) {
        const std::size_t take = std::min(n, kPiece - filled);
        std::memcpy(piece + filled, src, take);
        filled += take;
        src += take;
        n -= take;
        if (filled == kPiece) {
          cipher(kPiece);
          filled = 0;
        }
      }
    });
    if (filled > 0) cipher(filled);
    filled = 0;
  }
  return fold;
}

// ---- the run ----

struct Usage {
  std::uint64_t size = 0;  // bytes the files hold
  std::uint64_t disk = 0;  // bytes the file system gives them
};

// Every file and folder below `folder`.
Usage Measure(const fs::path& folder) {
  Usage u;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    struct stat st {};
    if (::lstat(entry.path().c_str(), &st) != 0) continue;
    u.size += static_cast<std::uint64_t>(st.st_size);
    u.disk += static_cast<std::uint64_t>(st.st_blocks) * 512;
  }
  return u;
}

// The figures of one (workload, system, phase), over the repetitions.
struct Series {
  std::vector<double> seconds;
  std::vector<double> cpu;
  std::vector<long> peakKiB;
  Usage usage;        // the store after the phase
  Usage before;       // the store before it (compaction)
  std::size_t streams = 0;    // streams the phase handles
  std::uint64_t payload = 0;  // bytes of those streams
  std::uint64_t wrong = 0;
  int failures = 0;
  std::string error;
};

double Median(std::vector<double> v) {
  if (v.empty()) return std::nan("");
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}
double Min(const std::vector<double>& v) { return v.empty() ? std::nan("") : *std::min_element(v.begin(), v.end()); }
double Max(const std::vector<double>& v) { return v.empty() ? std::nan("") : *std::max_element(v.begin(), v.end()); }
double MedianPeakMiB(const std::vector<long>& v) {
  std::vector<double> d(v.begin(), v.end());
  return Median(d) / 1024.0;
}

struct Options {
  bool small = false;
  int repeat = 5;
  std::string dir;
  std::string csv = "tz-compare-bench.csv";
  std::vector<std::string> only;
  std::vector<std::string> workloads;
  bool verbose = false;
};

std::vector<std::string> SplitList(const std::string& list) {
  std::vector<std::string> out;
  for (std::size_t at = 0; at <= list.size();) {
    const std::size_t comma = std::min(list.find(',', at), list.size());
    if (comma > at) out.push_back(list.substr(at, comma - at));
    at = comma + 1;
  }
  return out;
}

Options ParseOptions(int argc, char** argv) {
  Options o;
  bool repeatGiven = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--small") {
      o.small = true;
    } else if (a == "--repeat" && i + 1 < argc) {
      o.repeat = std::max(1, std::atoi(argv[++i]));
      repeatGiven = true;
    } else if (a == "--dir" && i + 1 < argc) {
      o.dir = argv[++i];
    } else if (a == "--csv" && i + 1 < argc) {
      o.csv = argv[++i];
    } else if (a == "--only" && i + 1 < argc) {
      o.only = SplitList(argv[++i]);
    } else if (a == "--workloads" && i + 1 < argc) {
      o.workloads = SplitList(argv[++i]);
    } else if (a == "--verbose") {
      o.verbose = true;
    } else {
      std::fprintf(stderr,
                   "usage: %s [--small] [--repeat N] [--dir FOLDER] [--csv FILE] [--only SYSTEM,...]\n"
                   "systems: plain sqlite lmdb ole2 zip tz-cf tz-batch tz-whole tz-pure tz-enc tz-folder\n",
                   argv[0]);
      std::exit(2);
    }
  }
  if (o.small && !repeatGiven) o.repeat = 1;
  return o;
}

class Bench {
 public:
  explicit Bench(const Options& o) : o_(o) {
    systems_.emplace_back(new PlainFiles);
    systems_.emplace_back(new Sqlite);
#ifdef TZ_HAVE_LMDB
    systems_.emplace_back(new Lmdb);
#endif
    systems_.emplace_back(new Ole2);
    systems_.emplace_back(new Zip);
    systems_.emplace_back(new CompoundFiles);
    systems_.emplace_back(new BatchedCompoundFiles(false));
    systems_.emplace_back(new BatchedCompoundFiles(true));
    systems_.emplace_back(new PureSource);
    systems_.emplace_back(new EncryptedCompoundFiles);
    folder_.reset(new FolderSource);
    std::vector<Workload> all;
    if (o.small) {
      all = {{"W2", 1000, 4 * kKiB, true}, {"W4", 5000, 1 * kKiB, false}};
    } else {
      all = {{"W1", 1, 256 * kMiB, false},
             {"W2", 10000, 4 * kKiB, true},
             {"W3", 1000, 256 * kKiB, false},
             {"W4", 100000, 1 * kKiB, false},
             {"W4r", 10000, 1 * kKiB, false}};
    }
    for (const Workload& w : all) {
      if (o.workloads.empty() || std::find(o.workloads.begin(), o.workloads.end(), w.key) != o.workloads.end()) {
        workloads_.push_back(w);
      }
    }
  }

  int Run() {
    const ScratchFolder scratch(o_.dir.empty() ? fs::temp_directory_path() : fs::path(o_.dir), "tz-compare-");
    const Outcome empty = InChild([](Clock& clock) -> std::uint64_t {
      clock.Start();
      clock.Stop();
      return 0;
    });
    baselineMiB_ = static_cast<double>(empty.peakKiB) / 1024.0;
    std::printf("tz_compare_bench%s: %d run%s, scratch %s; an empty child peaks at %.1f MiB\n",
                o_.small ? " --small" : "", o_.repeat, o_.repeat == 1 ? "" : "s", scratch.path().c_str(), baselineMiB_);
    probeMicros_ = CreationProbe(scratch.path() / "probe");
    std::printf("file creation probe: %.1f us per empty file%s\n", probeMicros_,
                probeMicros_ > kSlowCreationMicros
                    ? " -- SLOW: this file system was probably told to delete many files in the last minutes "
                      "(ext4 then passes over their inodes on every new file); plain-file figures will suffer"
                    : "");
    std::printf("times are medians [min-max] in seconds; x plain: speed is plain's time over the system's "
                "(> 1: faster), size and memory are the system's over plain's\n");

    std::map<std::string, Contents> contents[3];
    for (const Workload& w : workloads_) {
      contents[0][w.key] = MakeContents(pattern_, w, Stage::Written);
      if (w.edit) {
        contents[1][w.key] = MakeContents(pattern_, w, Stage::Edited);
        contents[2][w.key] = MakeContents(pattern_, w, Stage::Halved);
      }
    }

    std::vector<const System*> active;
    for (const auto& s : systems_) {
      if (Wanted(s->Key())) active.push_back(s.get());
    }
    const bool withFolder = Wanted(folder_->Key());
    for (int r = 0; r < o_.repeat; ++r) {
      const auto runStart = std::chrono::steady_clock::now();
      for (const Workload& w : workloads_) {
        std::vector<const System*> order = active;
        std::rotate(order.begin(), order.begin() + static_cast<long>(static_cast<std::size_t>(r) % order.size()),
                    order.end());
        if (w.key == "W1" && Wanted("tz-enc")) Cipher(w, contents[0][w.key]);
        for (const System* s : order) {
          const Series* written = Find(w.key, s->Key(), "write");
          if (written != nullptr && Max(written->seconds) > kSlowSeconds) continue;  // once is enough
          RunSystem(scratch.path(), w, *s, r, contents[0][w.key]);
        }
      }
      std::fprintf(stderr, "run %d of %d done in %.0f s\n", r + 1, o_.repeat,
                   std::chrono::duration<double>(std::chrono::steady_clock::now() - runStart).count());
    }
    // The edits and compactions come after every throughput run: the
    // working-folder source deletes its working files, and deletions slow
    // the creation of new files for a while (see RunSystem).
    for (int r = 0; r < o_.repeat; ++r) {
      const auto runStart = std::chrono::steady_clock::now();
      for (const Workload& w : workloads_) {
        if (!w.edit) continue;
        std::vector<const System*> order = active;
        std::rotate(order.begin(), order.begin() + static_cast<long>(static_cast<std::size_t>(r) % order.size()),
                    order.end());
        for (const System* s : order) {
          EditRound(scratch.path(), w, *s, r, contents[0][w.key], contents[1][w.key], contents[2][w.key],
                    withFolder && s->Key() == std::string("tz-cf"));
        }
      }
      std::fprintf(stderr, "edit run %d of %d done in %.0f s\n", r + 1, o_.repeat,
                   std::chrono::duration<double>(std::chrono::steady_clock::now() - runStart).count());
    }
    PrintTables();
    PrintGoals();
    WriteCsv();
    std::uint64_t wrong = 0;
    int failures = 0;
    for (const auto& [key, s] : series_) wrong += s.wrong;
    int others = 0;
    for (const auto& [key, s] : series_) {
      if (s.failures == 0) continue;
      if (key.find("/tz-") != std::string::npos) {
        failures += s.failures;
      } else {
        ++others;
        std::printf("\nnot measured: %s failed (%s)", key.c_str(), s.error.c_str());
      }
    }
    if (others > 0) std::printf("\n");
    if (wrong > 0 || failures > 0) {
      std::printf("\nFAILED: %llu stream(s) read back wrong, %d phase(s) of this library failed\n",
                  static_cast<unsigned long long>(wrong), failures);
      return 1;
    }
    std::printf("\nevery byte read back as written\n");
    return 0;
  }

 private:
  // Microseconds to create one empty file, over 2,000 in a new folder; the
  // files stay until the end (deleting them would slow the next creations).
  static double CreationProbe(const fs::path& folder) {
    fs::create_directory(folder);
    const auto start = std::chrono::steady_clock::now();
    constexpr int kFiles = 2000;
    for (int i = 0; i < kFiles; ++i) {
      const int fd = ::open((folder / StreamName(static_cast<std::size_t>(i))).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd < 0) Fail("cannot create a file in " + folder.string());
      ::close(fd);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() * 1e6 / kFiles;
  }

  bool Wanted(const std::string& key) const {
    return key == "plain" || o_.only.empty() || std::find(o_.only.begin(), o_.only.end(), key) != o_.only.end();
  }

  static std::string Key(const std::string& workload, const std::string& system, const std::string& phase) {
    return workload + "/" + system + "/" + phase;
  }

  // Files one outcome under its key; false when the phase failed.
  bool Record(const std::string& key, const Outcome& out, std::size_t streams, std::uint64_t payload) {
    Series& s = series_[key];
    s.streams = streams;
    s.payload = payload;
    if (!out.ok) {
      ++s.failures;
      s.error = out.error;
      std::fprintf(stderr, "FAILED %s: %s\n", key.c_str(), out.error.c_str());
      return false;
    }
    s.seconds.push_back(out.seconds);
    s.cpu.push_back(out.cpu);
    s.peakKiB.push_back(out.peakKiB);
    if (o_.verbose) {
      std::fprintf(stderr, "%-22s %9.4f s wall %9.4f s cpu %8.1f MiB peak\n", key.c_str(), out.seconds, out.cpu,
                   static_cast<double>(out.peakKiB) / 1024.0);
    }
    if (out.wrong > 0) {
      s.wrong += out.wrong;
      std::fprintf(stderr, "WRONG BYTES %s: %llu stream(s)\n", key.c_str(), static_cast<unsigned long long>(out.wrong));
    }
    return true;
  }

  // A read whose time is not reported: it only checks the store.
  void Verify(const std::string& key, const System& reader, const fs::path& store, const Contents& c) {
    const Outcome out = InChild([&](Clock& clock) { return reader.Read(store, c, clock); });
    Series& s = series_[key];
    if (!out.ok) {
      ++s.failures;
      s.error = "check: " + out.error;
      std::fprintf(stderr, "FAILED %s check: %s\n", key.c_str(), out.error.c_str());
    } else if (out.wrong > 0) {
      s.wrong += out.wrong;
      std::fprintf(stderr, "WRONG BYTES %s: %llu stream(s)\n", key.c_str(), static_cast<unsigned long long>(out.wrong));
    }
  }

  void Cipher(const Workload& w, const Contents& c) {
    const std::uint64_t payload = static_cast<std::uint64_t>(w.streams) * w.size;
    for (const bool encrypt : {true, false}) {
      const Outcome out = InChild([&](Clock& clock) -> std::uint64_t {
        clock.Start();
        const std::uint64_t fold = BareCipher(pattern_, c, encrypt);
        clock.Stop();
        return fold == 0x5eed ? 1 : 0;  // uses the fold; never true in practice
      });
      Record(Key(w.key, "bf-ecb", encrypt ? "write" : "read"), out, w.streams, payload);
    }
  }

  static fs::path Folder(const fs::path& scratch, const System& s, const Workload& w, int r) {
    return scratch / (std::string(s.Key()) + "-" + w.key + "-" + std::to_string(r));
  }

  static bool KeepsFiles(const System& s, const Workload& w) {
    return std::string(s.Key()) == "plain" && w.streams > 1;
  }

  void RunSystem(const fs::path& scratch, const Workload& w, const System& s, int r, const Contents& written) {
    const fs::path folder = Folder(scratch, s, w, r);
    fs::create_directories(folder);
    const fs::path store = s.Store(folder);
    const std::uint64_t payload = static_cast<std::uint64_t>(w.streams) * w.size;

    const std::string wkey = Key(w.key, s.Key(), "write");
    if (Record(wkey, InChild([&](Clock& clock) -> std::uint64_t {
                 s.Write(store, pattern_, written, clock);
                 return 0;
               }),
               w.streams, payload)) {
      series_[wkey].usage = Measure(folder);
      const std::string rkey = Key(w.key, s.Key(), "read");
      if (Record(rkey, InChild([&](Clock& clock) { return s.Read(store, written, clock); }), w.streams, payload)) {
        series_[rkey].usage = series_[wkey].usage;
      }
      if (s.Opens()) {
        for (const bool write : {false, true}) {
          Record(Key(w.key, s.Key(), write ? "open-rw" : "open-ro"), InChild([&](Clock& clock) -> std::uint64_t {
                   s.OpenAndFind(store, w.streams / 2, write, clock);
                   return 0;
                 }),
                 1, 1);
        }
      }
    }
    // Each system's files go after its phase, but for the plain files of the
    // many-stream workloads, which stay until the end of the run: for about a
    // minute after many files were deleted, ext4 passes over their inodes one
    // by one (recently_deleted) on every new file, which would charge the
    // next plain-file phase for this one's clean-up.
    if (!KeepsFiles(s, w)) fs::remove_all(folder);
  }

  // The edit and the compaction on a fresh store of workload w: written again
  // (untimed), except the plain files, whose folder of the throughput run is
  // still there.
  void EditRound(const fs::path& scratch, const Workload& w, const System& s, int r, const Contents& written,
                 const Contents& edited, const Contents& halved, bool withFolder) {
    const bool kept = KeepsFiles(s, w);
    const fs::path folder = kept ? Folder(scratch, s, w, r) : scratch / (std::string(s.Key()) + "-edit-" + w.key);
    const fs::path store = s.Store(folder);
    if (!kept) {
      fs::create_directories(folder);
      const Outcome made = InChild([&](Clock& clock) -> std::uint64_t {
        s.Write(store, pattern_, written, clock);
        return 0;
      });
      if (!made.ok) {
        Record(Key(w.key, s.Key(), "edit"), made, 0, 0);
        fs::remove_all(folder);
        return;
      }
    } else if (!fs::exists(store)) {
      return;  // its write failed in the throughput run
    }
    if (withFolder) {
      const fs::path copyFolder = scratch / (std::string(folder_->Key()) + "-edit-" + w.key);
      fs::create_directories(copyFolder);
      fs::copy_file(store, folder_->Store(copyFolder));
      EditAndCompact(w, *folder_, copyFolder, written, edited, halved);
      fs::remove_all(copyFolder);
    }
    EditAndCompact(w, s, folder, written, edited, halved);
    if (!kept) fs::remove_all(folder);
  }

  void EditAndCompact(const Workload& w, const System& s, const fs::path& folder, const Contents& written,
                      const Contents& edited, const Contents& halved) {
    const fs::path store = s.Store(folder);
    const std::vector<std::size_t> changed = Changed(written, edited);
    const std::string ekey = Key(w.key, s.Key(), "edit");
    const Usage before = Measure(folder);
    if (!Record(ekey, InChild([&](Clock& clock) -> std::uint64_t {
                  s.Edit(store, pattern_, written, edited, clock);
                  return 0;
                }),
                changed.size(), changed.size() * w.size)) {
      return;
    }
    series_[ekey].before = before;
    series_[ekey].usage = Measure(folder);
    Verify(ekey, s, store, edited);
    if (s.CompactHow() == nullptr) return;
    const std::string ckey = Key(w.key, s.Key(), "compact");
    const Usage full = Measure(folder);
    const std::size_t kept = halved.Present();
    if (!Record(ckey, InChild([&](Clock& clock) -> std::uint64_t {
                  s.Compact(store, pattern_, edited, halved, clock);
                  return 0;
                }),
                kept, kept * w.size)) {
      return;
    }
    series_[ckey].before = full;
    series_[ckey].usage = Measure(folder);
    Verify(ckey, s, store, halved);
  }

  const Series* Find(const std::string& workload, const std::string& system, const std::string& phase) const {
    const auto it = series_.find(Key(workload, system, phase));
    return it == series_.end() || it->second.seconds.empty() ? nullptr : &it->second;
  }

  static std::string Spread(const Series& s) {
    char text[64];
    std::snprintf(text, sizeof text, "%.3f [%.3f-%.3f]", Median(s.seconds), Min(s.seconds), Max(s.seconds));
    return text;
  }

  static std::string Payload(const Workload& w) {
    char text[96];
    if (w.streams == 1) {
      std::snprintf(text, sizeof text, "1 stream of %zu MiB", w.size / kMiB);
    } else if (w.size >= kMiB) {
      std::snprintf(text, sizeof text, "%zu streams of %zu MiB", w.streams, w.size / kMiB);
    } else {
      std::snprintf(text, sizeof text, "%zu streams of %zu KiB", w.streams, w.size / kKiB);
    }
    return text;
  }

  void PrintTables() const {
    static const char* const kSystems[] = {"plain",    "sqlite",   "lmdb",    "ole2",   "zip",   "tz-cf",
                                           "tz-batch", "tz-whole", "tz-pure", "tz-enc", "bf-ecb"};
    for (const Workload& w : workloads_) {
      const double mb = static_cast<double>(w.streams * w.size) / 1e6;
      std::printf("\n%s: %s (%.1f MB)\n", w.key.c_str(), Payload(w).c_str(), mb);
      std::printf("%-8s %-5s %2s %-26s %10s %8s %8s %8s %8s | %7s %6s %6s\n", "system", "phase", "n",
                  "seconds [min-max]", "streams/s", "MB/s", "size/pl", "disk/pl", "peak MiB", "x plain", "disk", "mem");
      for (const char* phase : {"write", "read"}) {
        const Series* plain = Find(w.key, "plain", phase);
        for (const char* system : kSystems) {
          const Series* s = Find(w.key, system, phase);
          if (s == nullptr) {
            const auto it = series_.find(Key(w.key, system, phase));
            if (it != series_.end()) std::printf("%-8s %-5s FAILED: %s\n", system, phase, it->second.error.c_str());
            continue;
          }
          const double t = Median(s->seconds);
          const bool bare = std::strcmp(system, "bf-ecb") == 0;
          std::printf("%-8s %-5s %2zu %-26s %10.0f %8.1f ", system, phase, s->seconds.size(), Spread(*s).c_str(),
                      static_cast<double>(s->streams) / t, static_cast<double>(s->payload) / 1e6 / t);
          if (bare) {
            std::printf("%8s %8s %8.1f | %7s %6s %6s  (the cipher alone, in memory)\n", "-", "-",
                        MedianPeakMiB(s->peakKiB), "-", "-", "-");
            continue;
          }
          const double sizeRatio = static_cast<double>(s->usage.size) / static_cast<double>(s->payload);
          const double diskRatio = static_cast<double>(s->usage.disk) / static_cast<double>(s->payload);
          std::printf("%8.3f %8.3f %8.1f | %7.2f %6.2f %6.2f%s\n", sizeRatio, diskRatio, MedianPeakMiB(s->peakKiB),
                      plain ? Median(plain->seconds) / t : std::nan(""),
                      plain ? static_cast<double>(s->usage.disk) / static_cast<double>(plain->usage.disk) : std::nan(""),
                      plain ? MedianPeakMiB(s->peakKiB) / MedianPeakMiB(plain->peakKiB) : std::nan(""),
                      s->wrong > 0 ? "  WRONG BYTES" : "");
        }
      }
    }
    PrintOpens();
    for (const Workload& w : workloads_) {
      if (!w.edit) continue;
      const std::size_t changed = (w.streams + 99) / 100;
      std::printf("\nedit: %zu of the %zu streams of %s get new bytes, then the store is saved\n", changed, w.streams,
                  w.key.c_str());
      std::printf("%-9s %-26s %9s %8s %-17s | %7s  %s\n", "system", "seconds [min-max]", "streams/s", "peak MiB",
                  "disk/pl bef->aft", "x plain", "what it does");
      static const struct {
        const char* system;
        const char* how;
      } kEdits[] = {{"plain", "rewrites the files"},
                    {"sqlite", "UPDATE of each row, one transaction"},
                    {"lmdb", "mdb_put MDB_RESERVE of each, one transaction"},
                    {"ole2", "writes a new document, renames it over the old"},
                    {"zip", "zip_file_replace, zip_close rewrites the archive"},
                    {"tz-cf", "GetIOStream \"wb\" on each, in place"},
                    {"tz-batch", "GetIOStream \"wb\" on each, in place, in one batch"},
                    {"tz-whole", "WriteStream on each, in place, in one batch"},
                    {"tz-pure", "GetOStream on each, in place"},
                    {"tz-enc", "GetIOStream \"wb\" on each, in place, enciphered"},
                    {"tz-folder", "working folder: GetOStream on each, Close(SaveChanges)"}};
      const Series* plain = Find(w.key, "plain", "edit");
      const double payload = static_cast<double>(w.streams * w.size);
      for (const auto& e : kEdits) {
        const Series* s = Find(w.key, e.system, "edit");
        if (s == nullptr) continue;
        const double t = Median(s->seconds);
        std::printf("%-9s %-26s %9.0f %8.1f %7.3f -> %7.3f | %7.2f  %s%s\n", e.system, Spread(*s).c_str(),
                    static_cast<double>(s->streams) / t, MedianPeakMiB(s->peakKiB),
                    static_cast<double>(s->before.disk) / payload, static_cast<double>(s->usage.disk) / payload,
                    plain ? Median(plain->seconds) / t : std::nan(""), e.how, s->wrong > 0 ? "  WRONG BYTES" : "");
      }
      std::printf("\ncompaction: the edited %s store with every second stream deleted (disk/pl: over the kept bytes)\n",
                  w.key.c_str());
      std::printf("%-9s %-26s %9s %8s %-17s | %s\n", "system", "seconds [min-max]", "MB/s kept", "peak MiB",
                  "disk/pl bef->aft", "what it does");
      std::printf("%-9s %-26s %9s %8s %-17s | %s\n", "plain", "n/a", "", "", "",
                  "nothing to do: a deleted file gives its room back");
      for (const char* system : {"sqlite", "lmdb", "ole2", "zip", "tz-folder"}) {
        const Series* s = Find(w.key, system, "compact");
        if (s == nullptr) continue;
        const double t = Median(s->seconds);
        const double kept = static_cast<double>(s->payload);
        const System* sys = SystemByKey(system);
        std::printf("%-9s %-26s %9.1f %8.1f %7.3f -> %7.3f | %s%s\n", system, Spread(*s).c_str(), kept / 1e6 / t,
                    MedianPeakMiB(s->peakKiB), static_cast<double>(s->before.disk) / kept,
                    static_cast<double>(s->usage.disk) / kept, sys ? sys->CompactHow() : "",
                    s->wrong > 0 ? "  WRONG BYTES" : "");
      }
    }
  }

  // Open the store, find the middle stream and read its first byte.
  void PrintOpens() const {
    std::printf("\nopen: the store opened, the middle stream found and its first byte read (ms, median [min-max])\n");
    std::printf("%-9s %-8s %-30s %-30s\n", "workload", "system", "read-only", "read-write");
    for (const Workload& w : workloads_) {
      for (const char* system : {"sqlite", "lmdb", "tz-cf"}) {
        const Series* ro = Find(w.key, system, "open-ro");
        const Series* rw = Find(w.key, system, "open-rw");
        if (ro == nullptr && rw == nullptr) continue;
        const auto ms = [](const Series* x) {
          char text[64];
          if (x == nullptr) return std::string("-");
          std::snprintf(text, sizeof text, "%.3f [%.3f-%.3f]", Median(x->seconds) * 1e3, Min(x->seconds) * 1e3,
                        Max(x->seconds) * 1e3);
          return std::string(text);
        };
        std::printf("%-9s %-8s %-30s %-30s\n", w.key.c_str(), system, ms(ro).c_str(), ms(rw).c_str());
      }
    }
  }

  const System* SystemByKey(const std::string& key) const {
    if (key == folder_->Key()) return folder_.get();
    for (const auto& s : systems_) {
      if (key == s->Key()) return s.get();
    }
    return nullptr;
  }

  // One goal line: the figure, what it is held against, met or MISSED.
  void Goal(const std::string& text, double figure, bool met) {
    if (std::isnan(figure)) {
      std::printf("  %-72s %8s  not measured\n", text.c_str(), "-");
      goals_.push_back({text, figure, "not measured"});
      return;
    }
    std::printf("  %-72s %8.3f  %s\n", text.c_str(), figure, met ? "met" : "MISSED");
    goals_.push_back({text, figure, met ? "met" : "MISSED"});
  }

  double Seconds(const std::string& workload, const std::string& system, const std::string& phase) const {
    const Series* s = Find(workload, system, phase);
    return s ? Median(s->seconds) : std::nan("");
  }
  double Peak(const std::string& workload, const std::string& system, const std::string& phase) const {
    const Series* s = Find(workload, system, phase);
    return s ? MedianPeakMiB(s->peakKiB) : std::nan("");
  }

  void PrintGoals() {
    std::printf("\ngoals%s (figure: a ratio; speed ratios are the other's time over the library's)\n",
                o_.small ? " (a --small run: one run of small counts, not to be judged)" : "");
    const bool full = !o_.small;
    for (const char* lib : {"tz-cf", "tz-pure"}) {
      for (const char* phase : {"write", "read"}) {
        if (!full) continue;
        Goal(std::string("W1 ") + phase + ", " + lib + " at >= 0.85x plain files",
             Seconds("W1", "plain", phase) / Seconds("W1", lib, phase),
             Seconds("W1", "plain", phase) / Seconds("W1", lib, phase) >= 0.85);
      }
    }
    for (const Workload& w : workloads_) {
      if (w.key != "W2" && w.key != "W3" && w.key != "W4") continue;
      for (const char* lib : {"tz-cf", "tz-pure"}) {
        for (const char* phase : {"write", "read"}) {
          // The fastest of the others sets the bar.
          double best = std::nan("");
          std::string who;
          for (const char* other : {"plain", "sqlite", "lmdb", "ole2", "zip"}) {
            const double t = Seconds(w.key, other, phase);
            if (!std::isnan(t) && (std::isnan(best) || t < best)) {
              best = t;
              who = other;
            }
          }
          const double ratio = best / Seconds(w.key, lib, phase);
          Goal(w.key + " " + phase + ", " + lib + " faster than every other system (fastest: " + who + ")",
               ratio, ratio > 1.0);
        }
      }
    }
    if (full) {
      for (const char* lib : {"tz-cf", "tz-pure"}) {
        for (const char* phase : {"write", "read"}) {
          const double per100k = Seconds("W4", lib, phase) / 100000.0;
          const double per10k = Seconds("W4r", lib, phase) / 10000.0;
          Goal(std::string("W4 ") + phase + ", " + lib + " cost per stream at 100,000 <= 1.5x at 10,000",
               per100k / per10k, per100k / per10k <= 1.5);
        }
      }
      for (const char* lib : {"tz-batch", "tz-whole"}) {
        for (const char* phase : {"write", "read"}) {
          const double per100k = Seconds("W4", lib, phase) / 100000.0;
          const double per10k = Seconds("W4r", lib, phase) / 10000.0;
          Goal(std::string("W4 ") + phase + ", " + lib + " cost per stream at 100,000 <= 1.2x at 10,000",
               per100k / per10k, per100k / per10k <= 1.2);
        }
      }
      for (const char* w : {"W1", "W3"}) {
        for (const char* phase : {"write", "read"}) {
          const double ratio = Seconds(w, "plain", phase) / Seconds(w, "tz-cf", phase);
          Goal(std::string(w) + " " + phase + ", tz-cf at >= 0.9x plain files", ratio, ratio >= 0.9);
        }
      }
      for (const char* phase : {"open-ro", "open-rw"}) {
        const double ratio = Seconds("W4", "sqlite", phase) / Seconds("W4", "tz-cf", phase);
        Goal(std::string("W4 ") + phase + " and first look-up, tz-cf against sqlite", ratio, ratio > 1.0);
      }
    }
    // Batches and the whole-stream calls against the systems built for many
    // small values.
    for (const Workload& w : workloads_) {
      if (w.key != "W2" && w.key != "W4") continue;
      const double batch = Seconds(w.key, "sqlite", "write") / Seconds(w.key, "tz-batch", "write");
      Goal(w.key + " write, tz-batch faster than sqlite", batch, batch > 1.0);
      const double read = Seconds(w.key, "sqlite", "read") / Seconds(w.key, "tz-cf", "read");
      Goal(w.key + " read, tz-cf faster than sqlite", read, read > 1.0);
      const double whole = Seconds(w.key, "lmdb", "read") / Seconds(w.key, "tz-whole", "read");
      Goal(w.key + " read, tz-whole faster than lmdb", whole, whole > 1.0);
    }
    if (full) {
      for (const char* phase : {"write", "read"}) {
        const double ratio = Seconds("W1", "bf-ecb", phase) / Seconds("W1", "tz-enc", phase);
        Goal(std::string("W1 ") + phase + ", tz-enc at >= 0.8x bare Blowfish-ECB (" +
                 (std::strcmp(phase, "write") == 0 ? "encrypt" : "decrypt") + ")",
             ratio, ratio >= 0.8);
      }
      for (const char* lib : {"tz-cf", "tz-pure", "tz-enc"}) {
        for (const char* phase : {"write", "read"}) {
          const double ratio = Peak("W1", lib, phase) / Peak("W3", lib, phase);
          Goal(std::string("peak memory, ") + lib + " " + phase + ": W1 (256 MiB stream) <= 1.25x W3 (256 KiB)",
               ratio, ratio <= 1.25);
        }
      }
    }
  }

  void WriteCsv() const {
    std::FILE* f = std::fopen(o_.csv.c_str(), "w");
    if (f == nullptr) {
      std::fprintf(stderr, "cannot write %s\n", o_.csv.c_str());
      return;
    }
    char when[64];
    const std::time_t now = std::time(nullptr);
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
    std::fprintf(f, "# tz_compare_bench%s, %d run(s), %s\n", o_.small ? " --small" : "", o_.repeat, when);
    std::fprintf(f, "# empty child peak %.1f MiB, file creation probe %.1f us per file\n", baselineMiB_, probeMicros_);
    std::fprintf(f,
                 "workload,system,phase,runs,median_s,min_s,max_s,streams,payload_bytes,streams_per_s,mb_per_s,"
                 "size_bytes,disk_bytes,size_per_payload,disk_per_payload,before_disk_bytes,peak_mib,"
                 "speed_x_plain,disk_x_plain,peak_x_plain,wrong_streams,failures\n");
    for (const auto& [key, s] : series_) {
      const std::size_t a = key.find('/');
      const std::size_t b = key.rfind('/');
      const std::string workload = key.substr(0, a);
      const std::string system = key.substr(a + 1, b - a - 1);
      const std::string phase = key.substr(b + 1);
      const Series* plain = Find(workload, "plain", phase);
      const double t = Median(s.seconds);
      const double payload = static_cast<double>(s.payload);
      const double peak = MedianPeakMiB(s.peakKiB);
      const bool sized = s.usage.disk > 0;
      std::fprintf(f, "%s,%s,%s,%zu,%.6f,%.6f,%.6f,%zu,%llu,%.1f,%.2f,%llu,%llu,%.4f,%.4f,%llu,%.1f,%.4f,%.4f,%.4f,%llu,%d\n",
                   workload.c_str(), system.c_str(), phase.c_str(), s.seconds.size(), t, Min(s.seconds),
                   Max(s.seconds), s.streams, static_cast<unsigned long long>(s.payload),
                   static_cast<double>(s.streams) / t, payload / 1e6 / t,
                   static_cast<unsigned long long>(s.usage.size), static_cast<unsigned long long>(s.usage.disk),
                   sized ? static_cast<double>(s.usage.size) / payload : std::nan(""),
                   sized ? static_cast<double>(s.usage.disk) / payload : std::nan(""),
                   static_cast<unsigned long long>(s.before.disk), peak,
                   plain ? Median(plain->seconds) / t : std::nan(""),
                   plain && sized ? static_cast<double>(s.usage.disk) / static_cast<double>(plain->usage.disk)
                                  : std::nan(""),
                   plain ? peak / MedianPeakMiB(plain->peakKiB) : std::nan(""),
                   static_cast<unsigned long long>(s.wrong), s.failures);
    }
    for (const auto& g : goals_) {
      std::fprintf(f, "# goal,\"%s\",%.4f,%s\n", g.text.c_str(), g.figure, g.verdict.c_str());
    }
    std::fclose(f);
    std::printf("\nfigures written to %s\n", o_.csv.c_str());
  }

  struct GoalLine {
    std::string text;
    double figure;
    std::string verdict;
  };

  const Options& o_;
  const Pattern pattern_;
  std::vector<std::unique_ptr<System>> systems_;
  std::unique_ptr<System> folder_;
  std::vector<Workload> workloads_;
  std::map<std::string, Series> series_;
  std::vector<GoalLine> goals_;
  double baselineMiB_ = 0;
  double probeMicros_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseOptions(argc, argv);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    Bench bench(options);
    return bench.Run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "benchmark failed: %s\n", e.what());
    return 1;
  }
}
