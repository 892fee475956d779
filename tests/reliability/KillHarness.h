// Kill-at-any-moment harness. A workload runs in a forked child that logs
// each step it begins and completes to a progress file (one O_APPEND
// write(2) per record: the parent sees only whole records, and the page
// cache keeps them when the child dies). The parent sends SIGKILL after a
// seeded delay drawn across the measured length of the run; the workload
// then checks the files left behind and brings file and model to a known
// state for the next child, which starts from a copy of the parent's
// model. Runs of different sizes (levels) spread the kills over the phases
// of a workload.
#ifndef TESSELZOSTREAM_TESTS_RELIABILITY_KILLHARNESS_H_
#define TESSELZOSTREAM_TESTS_RELIABILITY_KILLHARNESS_H_

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <tesselzostream/CompoundFileCheck.h>
#include <tesselzostream/tesselzostream.h>

namespace killtest {

// The steps a child logs; a step is in flight between its begin and its
// done record.
enum class Op : std::uint16_t {
  kOpen = 1, kRewrite, kOverwrite, kDelete, kFlush, kClose, kCopyBack, kSaveAs, kCloseSave, kCompact,
  kEncrypt,  // version: the new password
  kDecrypt,
  kFail,     // the child met an unexpected result (offset: a code)
  kBatchBegin,
  kBatchEnd,
  kScrub,
};

struct Record {
  std::uint16_t done;  // 0 begin, 1 done
  Op op;
  std::uint32_t name, version, offset, length;
};

class ProgressLog {
 public:
  explicit ProgressLog(const std::string& path);  // appends; the parent empties it
  ~ProgressLog();
  ProgressLog(const ProgressLog&) = delete;
  ProgressLog& operator=(const ProgressLog&) = delete;
  void Begin(Op op, std::uint32_t name = 0, std::uint32_t version = 0, std::uint32_t offset = 0,
             std::uint32_t length = 0) { Put({0, op, name, version, offset, length}); }
  void Done(Op op, std::uint32_t name = 0, std::uint32_t version = 0, std::uint32_t offset = 0,
            std::uint32_t length = 0) { Put({1, op, name, version, offset, length}); }
  void Begin(Record r) { r.done = 0; Put(r); }
  void Done(Record r) { r.done = 1; Put(r); }
  void Fail(std::uint32_t code) { Begin(Op::kFail, 0, 0, code); }
  static std::vector<Record> ReadAll(const std::string& path);

 private:
  void Put(const Record& record);
  int fd_;
};

// The last begin record when no done record follows it; null when the log
// ends between steps.
const Record* InFlight(const std::vector<Record>& log);

// Streams of a model by index. Names and bytes follow from index and
// version, so the parent can make them again from the log.
using Streams = std::map<std::uint32_t, std::string>;
std::string StreamName(std::uint32_t index);
std::uint32_t IndexOf(const std::string& name);
std::string Content(std::uint32_t index, std::uint32_t version, std::uint32_t length);
// Applies a kRewrite or kOverwrite record.
void ApplyWrite(Streams& streams, const Record& record);
// Puts `content` as stream `index` ("wb"), for a life's first file.
void Put(CompoundFile& file, std::uint32_t index, const std::string& content);
std::string PasswordText(int number);  // 0 is "no password"

// What a workload's kills found, for the report.
struct Tally {
  int kills = 0, completed = 0, lives = 0;
  std::map<std::string, int> phases;    // kills by the step they cut
  std::map<std::string, int> findings;  // observations worth reporting
  std::string where;                    // context of the current check
  void Note(const std::string& what) { ++findings[what]; }
};

class Workload {
 public:
  virtual ~Workload() = default;
  // Parent: a fresh file (or none) and model in `dir`.
  virtual void StartLife(const std::string& dir) = 0;
  // Child: `steps` steps from the model's state.
  virtual void RunChild(ProgressLog& log, std::uint64_t seed, int steps) = 0;
  // Parent: checks what the child left (killed, or run to its end) and
  // brings file and model to a known state. False starts a new life.
  virtual bool Check(const std::vector<Record>& log, bool killed, Tally& tally) = 0;
};

struct KillPlan {
  std::uint64_t seed;
  int baseSteps;          // steps of a level-1 run; levels 1..4
  int killsPerLife = 25;  // a fresh file after this many
  int kills = 0;          // kill points; 0: KillPointsPerWorkload()
};

// Runs KillPointsPerWorkload() kill points of `workload` and prints a
// summary. The kill points are TZ_KILL_POINTS divided among the five
// workloads, 20 each when unset.
void RunKills(Workload& workload, const char* name, const KillPlan& plan);

// Child helpers: writes in pieces of varied sizes (crossing the payload and
// the stream buffer at odd places), and lengths mostly small, some across
// many blocks and buffers.
bool WriteInPieces(std::ostream& out, const std::string& bytes, std::mt19937_64& rng);
std::uint32_t PickLength(std::mt19937_64& rng);
// A write step on stream `name` of `size` bytes: replaced whole, or
// overwritten from a random offset (appending past its end).
Record PlanWrite(std::mt19937_64& rng, bool replace, std::uint32_t name, std::uint32_t version, std::size_t size);
// Writes what `record` plans through `out` (taken over; null fails) and
// releases the stream; false when anything failed.
bool WriteRecord(std::ostream* out, const Record& record, std::mt19937_64& rng);

// The child's editing loop for workloads that write through an interface
// of compound-file streams. An Editor is that interface; Other may take a
// step of the workload's own for a roll the shared steps leave.
class Editor {
 public:
  virtual ~Editor() = default;
  virtual bool Open() = 0;
  virtual void Close() = 0;
  virtual std::ostream* Stream(std::uint32_t index, bool replace) = 0;  // "wb", or "r+b"
  virtual bool Delete(std::uint32_t index) = 0;
  virtual bool CanFlush() const = 0;
  virtual void Flush() = 0;
  // 1 taken, 0 failed (logged), -1 not taken: the step closes and reopens.
  virtual int Other(int roll, ProgressLog& log, std::mt19937_64& rng) = 0;
};
// Bounds of a step's roll of 0..99: below `write` a write (a whole
// replacement below `replace`), then a deletion below `remove`, a flush
// below `flush` (where the interface has one); Other or a reopen for the
// rest.
struct Odds {
  int write, replace, remove, flush;
};
// Opens, takes `steps` steps and closes, logging each; `streams` and
// `version` follow every finished step. Stops at the first failure.
void RunEdits(Editor& editor, ProgressLog& log, std::mt19937_64& rng, int steps, const Odds& odds,
              std::uint32_t names, Streams& streams, std::uint32_t& version);
// An Editor on the compound file at `path`: through CompoundFile's block
// streams, opened with `password` (0: none) as it stands at each open, or
// through the direct stream source, which has no flush. `other` takes the
// workload's own steps (null: none).
class FileEditor : public Editor {
 public:
  using OtherStep = std::function<int(FileEditor&, int roll, ProgressLog&, std::mt19937_64&)>;
  FileEditor(const std::string& path, bool pure, const int& password, OtherStep other = nullptr)
      : pure_(pure), path_(path), password_(password), other_(std::move(other)) {}
  bool Open() override;
  void Close() override;
  std::ostream* Stream(std::uint32_t index, bool replace) override;
  bool Delete(std::uint32_t index) override;
  bool CanFlush() const override { return !pure_; }
  void Flush() override { file_.Flush(); }
  int Other(int roll, ProgressLog& log, std::mt19937_64& rng) override {
    return other_ ? other_(*this, roll, log, rng) : -1;
  }
  CompoundFile& file() { return file_; }

 private:
  bool pure_;
  std::string path_;
  const int& password_;
  OtherStep other_;
  CompoundFile file_;
  PureCompoundFileStreamSource source_;
};
// A stream of `streams` at random; there must be one.
std::uint32_t PickIn(const Streams& streams, std::mt19937_64& rng);

// Parent helpers. Opens `file` at `path` for writing; a failure to do so
// is a test failure.
bool OpensForWriting(CompoundFile& file, const std::string& path, const Tally& tally);
// The whole stream; false when missing or the read failed.
bool ReadStream(CompoundFile& file, const std::string& name, std::string* out);
// The names in the directory, the saved block map's left out.
std::set<std::string> NamesIn(const CompoundFile& file);
// Fails for every stream of `expected` that does not read back exactly and
// every name that is neither expected nor in `touched`; the number of them.
int ExpectSettled(CompoundFile& file, const Streams& expected, const std::set<std::string>& touched,
                  const std::string& where);

// The checker's view of a file right after a kill.
struct KillReport {
  bool shared = false;            // chains of touched streams share blocks
  bool looping = false;           // a touched stream's chain comes back to itself
  std::set<std::string> damaged;  // streams with any problem
};
// Checks the file at `path` after a kill. Blocks no chain holds are leaked
// by the lost run and allowed. On the streams of `touched` (and the saved
// map's, which every close rewrites, when `mapTouched`) so are: blocks the
// session freed or appended (their heads are written before the
// directory), a size the chain does not reach yet, a link to a block that
// had not reached the file, blocks reached through a link the session
// wrote that the saved map calls free, a loop through blocks the session
// freed and wrote again, and blocks shared with another chain of the
// session (a freed block keeps its data and link until reused, and the
// directory on disk still names the stream). Anything else fails when
// `judge`; a file cut in a cipher pass is not judged.
KillReport CheckKilled(const std::string& path, int password, const std::set<std::string>& touched,
                       bool mapTouched, bool judge, Tally& tally);

// A whole version a touched stream may hold, labelled for the report.
struct Whole {
  std::string label, content;
};
using Wholes = std::map<std::uint32_t, std::vector<Whole>>;

// Brings the streams of `wholes` to a known state: one that reads as a
// whole version over a sound chain is kept in `settled` (a chain with freed
// blocks would be overwritten by the next writer, and of chains that share
// blocks neither can be kept); any other is deleted, and one that is gone
// stays gone. False gives the file up: a touched chain loops, or links past
// the end, and a deletion cannot follow it.
bool Recover(const std::string& path, int password, const KillReport& report, Wholes wholes,
             Streams& settled, Tally& tally);

// Fails for every problem of the file at `path` but leaked blocks.
void ExpectSound(const std::string& path, int password, const std::string& where);

}  // namespace killtest

#endif  // TESSELZOSTREAM_TESTS_RELIABILITY_KILLHARNESS_H_
