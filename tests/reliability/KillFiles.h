// File helpers of the kill workloads: chunked writes in the child, whole
// reads and checks of streams in the parent.
#ifndef TESSELZOSTREAM_TESTS_RELIABILITY_KILLFILES_H_
#define TESSELZOSTREAM_TESTS_RELIABILITY_KILLFILES_H_

#include <cstdint>
#include <iosfwd>
#include <random>
#include <set>
#include <string>
#include <map>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "tests/reliability/KillHarness.h"

namespace killtest {

// The name of the saved block map's stream, which every close rewrites.
extern const char kFreeListName[];

// Writes `bytes` in pieces of varied sizes (crossing the 1003-byte payload
// and the 10240-byte buffer at odd places); false when the stream failed.
bool WriteInPieces(std::ostream& out, const std::string& bytes, std::mt19937_64& rng);

// Lengths for new content and overwrites: mostly small, some across many
// blocks and buffers.
std::uint32_t PickLength(std::mt19937_64& rng);

// The whole stream `name` of `file`; false when it is missing or the read
// failed.
bool ReadStream(CompoundFile& file, const std::string& name, std::string* out);

// The names in the file's directory, the saved block map's left out.
std::set<std::string> NamesIn(const CompoundFile& file);

// Reports every stream of `expected` that does not read back from `file`
// exactly, and every name in the file that is neither expected nor in
// `unsettled`. Returns the number of faults.
int ExpectSettled(CompoundFile& file, const Streams& expected,
                  const std::set<std::string>& unsettled, const std::string& where);

// A password of the encrypted workloads; 0 is "no password".
std::string PasswordText(int number);

// A whole version an unsettled stream may hold, labelled for the report.
struct Whole {
  std::string label;
  std::string content;
};
using Wholes = std::map<std::uint32_t, std::vector<Whole>>;

// Brings each stream of `wholes` (by index) to a known state: when the file
// holds one of its whole versions, that becomes its content in `settled`;
// when it holds anything else it is deleted, and when it is gone it stays
// gone. Notes each outcome. False when a stream's chain links past the end
// of the file, so that it cannot be deleted and the file is given up; any
// other stream that cannot be deleted is a failure.
bool SettleStreams(const std::string& path, int password, const Wholes& wholes, Streams& settled,
                   Tally& tally);

// The index of a name made by StreamName.
std::uint32_t IndexOf(const std::string& name);

}  // namespace killtest

#endif  // TESSELZOSTREAM_TESTS_RELIABILITY_KILLFILES_H_
