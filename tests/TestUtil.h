// Helpers shared by the tests: compound-file shortcuts and raw block
// fields; scratch folders, whole-file bytes, test data and the platform
// layer that fails chosen calls come from the support library
// (testsupport/), under the names the tests have always used.
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
#include "testsupport/FaultEnv.h"

namespace tztest {

using tzsupport::Fault;
using tzsupport::FaultName;
using tzsupport::kAllFaults;
using tzsupport::FaultyEnv;
using tzsupport::FixedClockEnv;
using tzsupport::ScopedEnv;

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

}  // namespace tztest

#endif  // TESSELZOSTREAM_TESTS_TESTUTIL_H_
