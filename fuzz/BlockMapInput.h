// What the block-map fuzz target and its seeds program share: the input's
// header size, where the input lands in the saved map's stream, the scratch
// file both use, and the four sound files (templates) the inputs are put
// into, built by the library once per process.
//
// Invariants of a Template: its bytes are a file the library wrote and
// closed with StatusOk; every head in it is sound and says in use exactly
// for the blocks its saved map marks held; mapChain lists the map stream's
// blocks in chain order.
// Thread safety: Templates() builds them on first use; call it from one
// thread (libFuzzer runs inputs on one).
#ifndef TESSELZOSTREAM_FUZZ_BLOCKMAPINPUT_H_
#define TESSELZOSTREAM_FUZZ_BLOCKMAPINPUT_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "blockstore/BlockFormat.h"
#include "tesselzostream/CompoundFile.h"

namespace tzfuzz::blockmap {

namespace bf = blockformat;

constexpr std::size_t kHeaderSize = 6;
constexpr unsigned kTemplates = 4;
// Where the input starts in the map's stream: behind the digest.
constexpr std::size_t kOffH = bf::kOffListHighest;
constexpr std::size_t kOffTable = bf::kOffListMap;

// The scratch file the library writes, and its removal.
const std::string& Path();
void RemoveTemp();
// Bytes that differ from stream to stream and block to block.
std::string Text(std::size_t length, std::uint32_t seed);
// The seed of a stream's Text: a hash of its name.
std::uint32_t Seed(const std::string& name);
// Opens Path(), giving the status Open returns or throws.
ZoStreamE::Status OpenFile(CompoundFile& file, ZoStreamE::OpenMode mode);
// A new stream `name` ("wb") holding `text`; true when the stream reported
// no failure.
bool Put(CompoundFile& file, const std::string& name, const std::string& text);

// One of the sound files the inputs are put into, as the library wrote it.
struct Template {
  std::vector<std::uint8_t> bytes;
  std::vector<std::uint32_t> mapChain;  // the free-list stream's blocks
  std::vector<bool> held;               // by block number: its head says in use
  std::map<std::string, std::string> streams;

  std::uint32_t Blocks() const { return static_cast<std::uint32_t>(bytes.size() / bf::kBlockSize); }
  std::size_t MapRoom() const { return mapChain.size() * bf::kPayloadSize; }
  // Offset in the file of byte `p` of the free-list stream.
  std::size_t MapByte(std::size_t p) const {
    return std::size_t{mapChain[p / bf::kPayloadSize] - 1} * bf::kBlockSize + bf::kOffPayload +
           p % bf::kPayloadSize;
  }
};
// The kTemplates files, built on first use (a failure stops the run).
const std::vector<Template>& Templates();

}  // namespace tzfuzz::blockmap

#endif  // TESSELZOSTREAM_FUZZ_BLOCKMAPINPUT_H_
