// Kill-at-any-moment harness.
//
// A workload runs in a forked child and logs every step it begins and
// completes to a progress file (one write(2) per record, O_APPEND, so the
// parent only ever sees whole records, and the page cache keeps them when
// the child dies). The parent kills the child with SIGKILL after a delay
// drawn from a seeded generator across the measured length of the run, then
// hands the log to the workload, which checks the files left behind and
// brings file and model to a known state for the next child.
//
// The child never pauses at a chosen step: the real workload runs, and the
// kill lands wherever the delay puts it. Runs of different sizes (levels)
// spread the kills over the phases of a workload.
//
// Thread rule: single-threaded parent; the child is a copy of the parent's
// memory at the fork, so it starts from the parent's model.
#ifndef TESSELZOSTREAM_TESTS_RELIABILITY_KILLHARNESS_H_
#define TESSELZOSTREAM_TESTS_RELIABILITY_KILLHARNESS_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <tesselzostream/CompoundFileCheck.h>

namespace killtest {

// The steps a child logs. A step is in flight between its begin record and
// its done record.
enum class Op : std::uint16_t {
  kOpen = 1,
  kRewrite,        // a stream written anew ("wb" or GetOStream)
  kOverwrite,      // bytes of a stream overwritten or appended ("r+b")
  kDelete,         // a stream deleted
  kFlush,          // the directory flushed
  kClose,          // the file or source closed
  kCopyBack,       // CopyToBlockFile
  kSaveAs,         // SaveAs to a second file
  kCloseSave,      // Close with SaveChanges
  kCompact,        // CompactCompoundFile
  kEncrypt,        // Encrypt under a new password (version: its number)
  kDecrypt,        // Decrypt
  kFail,           // the child met an unexpected result (offset: a code)
};
const char* OpName(Op op);

struct Record {
  std::uint16_t done;  // 0 begin, 1 done
  Op op;
  std::uint32_t name;
  std::uint32_t version;
  std::uint32_t offset;
  std::uint32_t length;
};

// The child's log.
class ProgressLog {
 public:
  explicit ProgressLog(const std::string& path);  // appends; the parent empties it
  ~ProgressLog();
  ProgressLog(const ProgressLog&) = delete;
  ProgressLog& operator=(const ProgressLog&) = delete;
  void Begin(Op op, std::uint32_t name = 0, std::uint32_t version = 0,
             std::uint32_t offset = 0, std::uint32_t length = 0);
  void Done(Op op, std::uint32_t name = 0, std::uint32_t version = 0,
            std::uint32_t offset = 0, std::uint32_t length = 0);
  void Fail(std::uint32_t code) { Begin(Op::kFail, 0, 0, code); }
  static std::vector<Record> ReadAll(const std::string& path);

 private:
  void Put(const Record& record);
  int fd_;
};

// The step in flight at the end of a log: the last begin record not
// followed by its done record; null when the log ends between steps.
const Record* InFlight(const std::vector<Record>& log);
// The phase a kill landed in, by the log: the step in flight, or
// "between steps" / "before the first step".
std::string PhaseOf(const std::vector<Record>& log);

// Streams of a model: index -> content. A stream's name and bytes follow
// from its index and a version number, so the parent can regenerate them.
using Streams = std::map<std::uint32_t, std::string>;
std::string StreamName(std::uint32_t index);
std::string Content(std::uint32_t index, std::uint32_t version, std::uint32_t length);
// Applies a done kRewrite or kOverwrite record to `streams`.
void ApplyWrite(Streams& streams, const Record& record);

// What a workload's kills found, for the report.
struct Tally {
  int kills = 0;       // children that died by the kill
  int completed = 0;   // children that finished before it
  int lives = 0;       // fresh files started
  double seconds = 0;  // wall time of the whole case
  std::map<std::string, int> phases;    // kills by phase
  std::map<std::string, int> findings;  // observations worth reporting
  std::string where;                    // context of the current check
  void Note(const std::string& what) { ++findings[what]; }
};

class Workload {
 public:
  virtual ~Workload();
  // Parent: a fresh file (or none) and model in `dir`.
  virtual void StartLife(const std::string& dir) = 0;
  // Child: `steps` steps of the workload from the model's state.
  virtual void RunChild(ProgressLog& log, std::uint64_t seed, int steps) = 0;
  // Parent: checks what the child left (it was killed, or ran to its end)
  // and brings file and model to a known state. Failures are reported
  // through the test framework; false ends the life.
  virtual bool Check(const std::vector<Record>& log, bool killed, Tally& tally) = 0;
};

struct KillPlan {
  std::uint64_t seed = 1;
  int kills = 20;         // kill points wanted
  int killsPerLife = 25;  // a fresh file after this many
  int baseSteps = 6;      // steps of a level-1 run
  int levels = 4;         // runs of baseSteps * 1 .. * levels steps
};

// Runs `plan.kills` kill points of `workload` in a fresh scratch folder,
// prints a summary, and returns the tally.
Tally RunKills(Workload& workload, const char* name, const KillPlan& plan);

// Kill points per workload: TZ_KILL_POINTS (for all five workloads together)
// divided by five; 20 each when unset.
int KillPointsPerWorkload();

// Problems of a checker report that a crash must never leave, as text; a
// block that no chain holds (leaked by the lost run) is allowed, and so are
// the listed kinds on the streams named in `unsettled`, which the run was
// changing. Leaked blocks are counted into `leaked`.
std::vector<std::string> ForbiddenProblems(const CheckReport& report,
                                           const std::set<std::string>& unsettled,
                                           const std::set<CheckProblem::Kind>& allowedOnUnsettled,
                                           std::uint32_t* leaked);

// A stream deleted, replaced or grown in the killed session may have its
// chain on disk run into blocks that the same session freed and wrote
// again for another of its chains: a freed block keeps its data and its
// link until the session reuses it, and the directory on disk still names
// the stream. Takes the "claimed twice" findings on the streams of
// `touched` out of `report`, counts them, and returns how many there were;
// the caller deletes such streams and makes sure the file is whole after.
std::size_t SetAsideSharedBlocks(CheckReport& report, const std::set<std::string>& touched, Tally& tally);

// The streams that problems of `report` concern (leaked blocks aside).
std::set<std::string> StreamsWithProblems(const CheckReport& report);

// Copies `dir` to a folder under the system's temporary folder for a look
// after a failure; returns that folder.
std::string KeepEvidence(const std::string& dir, const std::string& label);

}  // namespace killtest

#endif  // TESSELZOSTREAM_TESTS_RELIABILITY_KILLHARNESS_H_
