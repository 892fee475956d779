// Whole-stream calls: a stream written or read in one call, without a
// standard stream in between.
#include <algorithm>
#include <cstring>
#include <limits>

#include "blockstore/BlockFileCore.h"
#include "blockstore/ZoIOStream.h"
#include "tesselzostream/CompoundFile.h"

namespace bf = blockformat;

// What GetIOStream(name, "wb"), one write of the bytes and the stream's
// release do, with the device alone: the stream's buffer would hand the
// device the same bytes (one write, or whole buffers and then the rest,
// which the device takes alike) before the release.
bool BlockFileCore::WriteWhole(const char* name, const char* data, std::size_t size) {
  if (readOnly || name == nullptr || *name == '\0' || (data == nullptr && size != 0)) return false;
  if (size > std::numeric_limits<std::uint32_t>::max()) return false;  // no stream holds more
  DirEntry* entry = FindDirEntry(name);
  if (entry != nullptr) FreeChain(entry);
  DataBlock* first = nullptr;
  entry = AddDirEntry(name, &first);
  if (entry == nullptr) return false;
  ++openStreams[entry->name];  // as OpenStream counts it; the device's release lowers it
  bool ok = status == ZoStreamE::StatusOk;
  {
    ZoIOStreamDevice device(this, entry, kModeOut | kModeBinary, first);
    try {
      if (ok && size != 0) ok = device.write(data, static_cast<std::streamsize>(size)) == static_cast<std::streamsize>(size);
      if (ok) device.flush();
    } catch (const ZoIOStreamDevice::ZoIOException&) {
      ok = false;
    }
  }  // the release writes the last block and flushes the directory
  return ok && status == ZoStreamE::StatusOk;
}

// The chain walked as a reading block stream walks it, each block's
// payload read straight into `out`. Only reads: it may run beside other
// reads, as block reads may.
bool BlockFileCore::ReadWhole(const char* name, std::string& out) {
  if (status != ZoStreamE::StatusOk) return false;
  const DirEntry* entry = FindDirEntry(name);
  if (entry == nullptr) return false;
  const std::uint32_t size = entry->size;
  out.resize(size);
  unsigned char* to = reinterpret_cast<unsigned char*>(&out[0]);
  DataBlock block;
  unsigned char last[bf::kPayloadSize];
  std::uint32_t n = entry->firstBlock;
  const std::uint32_t limit = BlockCount();
  for (std::uint32_t done = 0, walked = 0;; ++walked) {
    const std::uint32_t chunk = std::min<std::uint32_t>(size - done, bf::kPayloadSize);
    const bool whole = chunk == bf::kPayloadSize;
    if (ReadDataBlock(n, block, whole ? to + done : last) != ZoStreamE::StatusOk) return false;
    if (!whole) std::memcpy(to + done, last, chunk);
    done += chunk;
    if (done == size) return true;
    const std::uint32_t next = block.nextBlock;
    if (next == 0 || !LinkIsSound(n, next) || walked + 1 >= limit) {
      Fail();  // the chain ends short of its size: damage
      return false;
    }
    n = next;
  }
}

bool CompoundFile::WriteStream(const char* name, const void* data, std::size_t size) {
  return core_ != nullptr && core_->WriteWhole(name, static_cast<const char*>(data), size);
}

bool CompoundFile::ReadStream(const char* name, std::string& out) {
  return core_ != nullptr && core_->ReadWhole(name, out);
}
