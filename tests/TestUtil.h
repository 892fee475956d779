// Helpers shared by the tests: compound-file shortcuts, raw block fields,
// and a platform layer that fails chosen calls; scratch folders, whole-file
// bytes and test data come from the support library (testsupport/).
#ifndef TESSELZOSTREAM_TESTS_TESTUTIL_H_
#define TESSELZOSTREAM_TESTS_TESTUTIL_H_

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "blockstore/BlockFormat.h"
#include "testsupport/FileBytes.h"
#include "testsupport/ScratchFolder.h"
#include "testsupport/TestData.h"
#include "utility/Env.h"

namespace tztest {

// Names nearly every test uses.
namespace bf = blockformat;
using ZoStreamE::OpenReadOnly;
using ZoStreamE::OpenReadWrite;
using ZoStreamE::StatusOk;

// The scratch folders, whole-file bytes and test data of the support
// library, under the names the tests use.
using ScratchDir = tzsupport::ScratchFolder;
using FileBytes = tzsupport::FileBytes;
// Streams by name and content, in the order they were written.
using StreamList = std::vector<std::pair<std::string, std::string>>;

inline FileBytes ReadAll(const std::string& path) { return tzsupport::ReadFileBytes(path); }
inline void WriteAll(const std::string& path, const FileBytes& bytes) { tzsupport::WriteFileBytes(path, bytes); }

// Writes `content` to a new stream `name` of `file` ("wb"); true when the
// stream reported no failure.
bool PutStream(CompoundFile& file, const char* name, const std::string& content);
// The whole content of stream `name` ("rb"); `ok` false when it could not be
// opened or reading failed.
std::string GetStream(CompoundFile& file, const char* name, bool* ok = nullptr);
// Writes `bytes` at `at` of stream `name` ("r+b"; -1 appends); true when
// the stream opened and reported no failure, the flush included.
bool Patch(CompoundFile& file, const char* name, std::streamoff at, const std::string& bytes);
// Opens (or creates) the compound file at `path` for writing, puts every
// stream of `streams` in it and closes it; failures are test failures.
void MakeFile(const std::string& path, const StreamList& streams);
// Every stream but `except` reads back from `file` as listed.
void ExpectStreams(CompoundFile& file, const StreamList& streams, const std::string& except = "");
// The names of the directory in order, the saved block map's included;
// each must end within the name field.
std::vector<std::string> ListNames(const CompoundFile& file);

// A handle opened on `path` in `mode`; an open that fails is a test failure.
class OpenedFile : public CompoundFile {
 public:
  OpenedFile(const std::string& path, ZoStreamE::OpenMode mode);
};

// What Open gave: its result, or the status it threw.
struct OpenResult {
  bool threw;
  ZoStreamE::Status status;
};
OpenResult TryOpen(CompoundFile& file, const std::string& path, ZoStreamE::OpenMode mode);

// Raw fields of a file's bytes. Blocks are numbered from 1.
std::size_t BlockAt(std::uint32_t n);
std::uint32_t BlockCount(const FileBytes& b);
std::uint16_t Get16(const FileBytes& b, std::size_t at);
std::uint32_t Get32(const FileBytes& b, std::size_t at);
void Put32(FileBytes& b, std::size_t at, std::uint32_t v);
// Block numbers of a chain as the file links them, cut at the file's block
// count so that a looping chain still gives a finite list.
std::vector<std::uint32_t> Chain(const FileBytes& b, std::uint32_t first);
// File offset of the entry in use named `name` (compared with case);
// throws std::logic_error when there is none.
std::size_t EntryAt(const FileBytes& b, const char* name);
std::uint32_t FirstBlockOf(const FileBytes& b, const char* name);

// Deterministic bytes for a seed.
inline std::string Pattern(std::size_t length, std::uint32_t seed) { return tzsupport::RandomBytes(length, seed); }

// The platform calls a FaultyEnv can make fail. kWrite and kPartialWrite
// count block-file writes and working-file puts; under kPartialWrite the
// failing call puts half of its bytes first, as a disk filling up part-way
// (a block-file write only when it grows the file). kSync is a working
// file's flush; kOpen counts opens of block and working files alike, and
// MakeUniqueFolder. kRemove counts Remove and RemoveAll; kStat counts Stat
// (so Exists too); kList counts ListFolder; kMkdir counts MakeFolder.
enum class Fault { kWrite, kPartialWrite, kRead, kSync, kOpen, kRename, kRemove, kStat, kList, kMkdir };
const char* FaultName(Fault kind);
constexpr Fault kAllFaults[] = {Fault::kWrite,  Fault::kPartialWrite, Fault::kRead,
                                Fault::kSync,   Fault::kOpen,         Fault::kRename,
                                Fault::kRemove, Fault::kStat,         Fault::kList,
                                Fault::kMkdir};

// The default Env, but failing call number `failAt` (from 1 since the last
// Reset) of the armed kind and every later one, as a full disk or a dead
// device would; 0 fails nothing.
class FaultyEnv : public tz::Env {
 public:
  std::unique_ptr<tz::RandomAccessFile> OpenLocked(const std::string& path,
                                                   bool writable) override;
  bool OpenFileBuffer(std::filebuf& buffer, const std::string& path, std::ios_base::openmode mode,
                      std::unique_ptr<std::streambuf>* wrapper) override;
  bool Remove(const std::string& path, boost::system::error_code& error) override;
  bool RemoveAll(const std::string& path, boost::system::error_code& error) override;
  bool Rename(const std::string& from, const std::string& to,
              boost::system::error_code& error) override;
  bool MakeUniqueFolder(const std::string& prefix, std::string* made,
                        boost::system::error_code& error) override;
  bool Stat(const std::string& path, bool followLinks, tz::FileInfo* info,
            boost::system::error_code& error) override;
  bool ListFolder(const std::string& path, std::vector<tz::FolderEntry>* entries,
                  boost::system::error_code& error) override;
  bool MakeFolder(const std::string& path, boost::system::error_code& error) override;
  std::int64_t Now() override { return tz::Env::Default()->Now(); }

  void Reset(Fault kind, int failAt) { kind_ = kind; failAt_ = failAt; calls_ = 0; }
  // A disk that holds files of at most `bytes`: room reserved or written
  // beyond it is refused, a write across it lands up to it. 0 lifts it.
  void SetDiskLimit(std::uint64_t bytes) { diskLimit_ = bytes; }
  std::uint64_t DiskLimit() const { return diskLimit_; }
  void Reset(int failAt) { Reset(Fault::kWrite, failAt); }
  // True once the armed call has been reached.
  bool hit() const { return failAt_ != 0 && calls_ >= failAt_; }

  // Counts a call of `kind`; false when it is to fail.
  bool Allow(Fault kind);
  // The failing call itself under kPartialWrite (the later ones put nothing).
  bool PartNow() const { return kind_ == Fault::kPartialWrite && calls_ == failAt_; }

 private:
  Fault kind_ = Fault::kWrite;
  int failAt_ = 0;
  int calls_ = 0;
  std::uint64_t diskLimit_ = 0;
};

// The FaultyEnv with a clock that stands still, so that two runs of the
// same calls stamp the same times and leave the same bytes.
class FixedClockEnv : public FaultyEnv {
 public:
  std::int64_t Now() override { return 1700000000; }
};

// Puts an Env in place for its lifetime.
class ScopedEnv {
 public:
  explicit ScopedEnv(tz::Env* env) { tz::SetEnv(env); }
  ~ScopedEnv() { tz::SetEnv(nullptr); }
};

}  // namespace tztest

#endif  // TESSELZOSTREAM_TESTS_TESTUTIL_H_
