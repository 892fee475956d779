// Pieces every tzcf command shares: exit codes, the one-line error report,
// the names the tool keeps its hands off, and opening a compound file with
// each way that can fail turned into one message on stderr.
#ifndef TESSELZOSTREAM_TOOLS_TZCF_COMMON_H_
#define TESSELZOSTREAM_TOOLS_TZCF_COMMON_H_

#include <cstdint>
#include <string>

#include <tesselzostream/FormatFacts.h>
#include <tesselzostream/CompoundFile.h>

namespace tzcf {

// 0: done; 1: the command ran to its end but found or left problems (a
// damaged file, a refused or skipped name); 2: it could not do what was
// asked (usage, a missing or unreadable file, a wrong password, I/O).
enum Exit { kOk = 0, kProblem = 1, kError = 2 };

inline Exit Worse(Exit a, Exit b) { return a > b ? a : b; }

// A longer name could only be stored cut short.
using tzformat::kMaxNameLength;
// The stream in which the library saves its block map. The tool never lists,
// unpacks, writes or deletes it.
using tzformat::kFreeListName;

// Stream names compare without regard to ASCII case, as the library's
// lookup does.
bool SameName(const std::string& a, const std::string& b);
// `name` with ASCII capitals made small: equal for names SameName pairs.
std::string FoldCase(const std::string& name);
bool IsFreeListName(const std::string& name);

// Options that several commands take.
struct Options {
  bool quiet = false;
  bool json = false;            // ls, check, info, salvage: JSON for scripts
  bool details = false;         // ls -l
  bool human = false;           // ls -l --human: sizes as 1.5 MiB
  bool dereference = false;     // pack, add: follow symbolic links
  bool copy = false;            // compact: through a copy, not in place
  std::string passwordFile;     // the password, or the old one for passwd
  std::string newPasswordFile;  // the new password for passwd
};

// Writes "tzcf: " and `text` as one line on stderr.
void Report(const std::string& text);
// As Report, for the problems of one item among many (a file skipped, a
// stream refused or damaged): the first kMaxItemReports are written, the
// rest only counted, and FinishReports says how many went unwritten.
constexpr unsigned kMaxItemReports = 20;
void ReportItem(const std::string& text);
// Writes the count of the item reports left out, if any; main calls it
// once the command has ended.
void FinishReports();

// The system's own text for an errno value ("No such file or directory").
std::string SystemText(int error);
// ": No space left on device" (or the quota's text) when a write to the
// file system holding `path` (a file or a folder) failed for want of room,
// else empty. The library gives no errno: `error` is errno as the failure
// left it (the system call's, when nothing reset it), and the room left is
// compared with `wanted` bytes (at least 256 KiB).
std::string SpaceText(const std::string& path, int error, std::uint64_t wanted = 0);
// Why the compound file at `path` cannot be opened (for writing when
// `writable`), in a few words with the system's text; tried after the
// library's open failed.
std::string WhyNotOpen(const std::string& path, bool writable);

// A text quoted for a message, so that spaces and empty names show.
std::string Quote(const std::string& text);

// Opens the compound file at `path`. With `mustExist` a missing path is
// reported instead of being created empty, as the library would. False
// (after a report) when the file cannot be opened; exceptions out of the
// library's open are caught here.
bool OpenFile(CompoundFile& file, const std::string& path, ZoStreamE::OpenMode mode, bool mustExist);

// Gives an encrypted file its password, read as Password.h describes; true
// at once for a clear file. False after a report when no password can be
// had or it is wrong.
// `password`, when not null, receives the password given (for a later
// reopen); empty for a clear file.
bool Unlock(CompoundFile& file, const std::string& path, const Options& options,
            std::string* password = nullptr);

using tzformat::ChainBlocks;

}  // namespace tzcf

#endif  // TESSELZOSTREAM_TOOLS_TZCF_COMMON_H_
