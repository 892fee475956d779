#include "blockstore/ZoIOStream.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <system_error>

#include <boost/make_shared.hpp>

#include "blockstore/BlockFileCore.h"
#include "utility/Copy.h"
#include "utility/Time.h"

namespace bf = blockformat;
namespace io = boost::iostreams;

namespace {
constexpr std::uint32_t kPayload = bf::kPayloadSize;
constexpr std::int64_t kMaxPosition = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t kAppendRun = BlockFileCore::kMaxAppendRun;  // whole blocks per core call
}  // namespace

ZoIOStreamDevice::ZoIOException::ZoIOException(const std::string& message)
    : std::ios_base::failure(message, std::error_code(1, std::iostream_category())) {}

ZoIOStreamDevice::Data::Data(BlockFileCore* c, DirEntry* e, int m, bf::DataBlock* first)
    : core(c), entry(e), slot(c->SlotOf(e)), mode(m) {
  core->Retain();
  current = first != nullptr ? first : core->LoadDataBlock(entry->firstBlock);
  // Blocks are known by the links that reach them, not by their heads,
  // which a read does not check.
  if (current != nullptr) blockNumbers.push_back(entry->firstBlock);
}

void ZoIOStreamDevice::Data::ClearLeftovers() {
  if (!payloadUnset) return;
  tz::ZeroBytes(current->payload, kPayload);
  payloadUnset = false;
}

ZoIOStreamDevice::Data::~Data() {
  if (dirty && current != nullptr) {
    ClearLeftovers();
    core->WriteDataBlock(*current);
  }
  delete current;
  delete spare;
  core->FlushDirectory(written);
  core->Release(entry->name);  // the engine may be gone after this
}

ZoIOStreamDevice::ZoIOStreamDevice(BlockFileCore* core, DirEntry* entry, int mode, bf::DataBlock* first)
    : data_(boost::make_shared<Data>(core, entry, mode, first)) {}

bool ZoIOStreamDevice::Failed() const {
  return data_->core->status != ZoStreamE::StatusOk;
}

void ZoIOStreamDevice::SaveCurrentBlock() {
  Data& d = *data_;
  if (!d.dirty) return;
  if (d.inWrite) {
    d.stampPending = true;
  } else {
    ZoCurrentTimeText(d.entry->modified);
    d.core->EntryChangedAt(d.slot);
  }
  if (d.directPayload == nullptr) d.ClearLeftovers();
  d.core->WriteDataBlock(*d.current, d.directPayload);
  d.directPayload = nullptr;
  d.dirty = false;
}

// One step along the chain. Reading never extends a chain: a chain that
// ends where the size says more bytes follow is damaged, as is one that
// runs longer than the file has blocks (a loop).
//
// At the end of the chain a dirty block would be saved and then written once
// more with its new link; the next block is allocated first instead, so the
// block goes out once, link and all. The file holds the same bytes either
// way: nothing reaches the disk between the two writes.
//
// A non-null `payloadTo` (reading only) receives the next block's payload
// in place of current->payload, which then still holds the previous one:
// the caller must consume the whole block and step on before it returns.
void ZoIOStreamDevice::NextBlock(bool mayGrow, unsigned char* payloadTo) {
  Data& d = *data_;
  // A link that cannot belong to this chain any more ends it: a writer
  // replaces it with a fresh block, a reader has met damage. A writer also
  // ends the chain at a link beyond the end of the file that this session
  // did not make (a run that crashed after writing a link but before the
  // block it names leaves one): following it could only fail, and a seek
  // or write past the stream's end would break a sound file. A reader
  // still meets such a link as StatusPastEnd. Beyond the blocks the size
  // needs, where no read has looked, a writer also ends the chain at a block
  // the file names twice (a loop, or another stream's block).
  const std::uint32_t next = d.current->nextBlock;
  const bool pastSize = mayGrow && d.blockIndex > d.entry->size / kPayload;
  const bool sound = next != 0 &&
                     (pastSize ? d.core->TailLinkIsSound(d.current->blockNumber, next)
                               : d.core->LinkIsSound(d.current->blockNumber, next)) &&
                     !(mayGrow && d.core->LinkLeavesFile(next));
  if (Failed()) return;  // the census could not read the file
  if (!sound) {
    // A reader at the end of its copy of the chain grows it as a writer
    // does only where that copy is older than the file's block: another
    // stream on the same entry has grown the chain since. Elsewhere the size
    // asks for more than the chain holds, or the link cannot belong to the
    // chain: damage, which a read reports rather than mends.
    if (!mayGrow && !(next == 0 && d.core->LinksOnInFile(d.blockNumbers[d.blockIndex - 1]))) {
      SaveCurrentBlock();
      d.core->Fail();
      return;
    }
    // The fresh block's payload is cleared only if it is not written whole.
    // A stream that only reads never needs the spare record.
    if (d.spare == nullptr) {
      d.spare = new bf::DataBlock;
      bf::InitDataBlock(d.spare);
    }
    d.core->AllocDataBlock(d.spare, false);
    d.current->nextBlock = d.spare->blockNumber;
    d.core->NoteLink(d.current->blockNumber, d.spare->blockNumber);
    if (d.dirty) {
      SaveCurrentBlock();
    } else {
      d.ClearLeftovers();
      d.core->WriteDataBlock(*d.current);
    }
    std::swap(d.current, d.spare);
    d.dirty = true;
    d.payloadUnset = true;
  } else {
    SaveCurrentBlock();
    if (d.blockIndex >= d.core->BlockCount()) {
      d.core->Fail();
      return;
    }
    d.core->ReadDataBlock(next, *d.current, payloadTo);
    d.payloadUnset = false;
  }
  ++d.blockIndex;
  if (d.blockNumbers.size() < d.blockIndex) d.blockNumbers.push_back(sound ? next : d.current->blockNumber);
}

void ZoIOStreamDevice::GoToBlock(std::uint32_t n) {
  Data& d = *data_;
  if (n == d.blockIndex) return;
  SaveCurrentBlock();
  if (n == 1) {
    d.core->ReadDataBlock(d.entry->firstBlock, *d.current);
    d.payloadUnset = false;
    if (d.blockNumbers.empty()) d.blockNumbers.push_back(d.entry->firstBlock);
    d.dirty = false;
    d.blockIndex = 1;
  } else if (n <= d.blockNumbers.size()) {
    d.core->ReadDataBlock(d.blockNumbers[n - 1], *d.current);
    d.payloadUnset = false;
    d.blockIndex = n;
  } else {
    // A chain holds every block its size needs; only steps beyond those
    // may grow it. A chain that ends sooner is damaged.
    const std::uint32_t needed = d.entry->size / kPayload + 1;
    GoToBlock(static_cast<std::uint32_t>(d.blockNumbers.size()));
    while (d.blockIndex < n && !Failed()) NextBlock(d.blockIndex >= needed);
  }
}

std::streamsize ZoIOStreamDevice::read(char* s, std::streamsize n) {
  Data& d = *data_;
  // A stream whose first block could not be read has no block to read
  // from, even once the file's status has been cleared (by a password).
  if (Failed() || d.current == nullptr) throw ZoIOException("Error in ZoIOStreamDevice::read");
  if (d.position >= d.entry->size) return -1;
  if (static_cast<std::int64_t>(d.position) + n > d.entry->size) n = d.entry->size - d.position;
  if (n == 0) return 0;
  std::streamsize done = 0;
  bool delivered = false;  // the current block's payload is already in s
  while (done < n) {
    const auto chunk = static_cast<std::uint32_t>(
        std::min<std::streamsize>(n - done, kPayload - d.blockOffset));
    if (!delivered) {
      d.ClearLeftovers();
      std::memcpy(s + done, d.current->payload + d.blockOffset, chunk);
    }
    delivered = false;
    d.blockOffset += chunk;
    if (d.blockOffset == kPayload) {
      // Blocks wanted whole are read straight into the caller's memory; the
      // last of them is then consumed as the current block.
      const std::streamsize rest = n - done - chunk;
      if (rest >= kPayload) {
        const auto whole = static_cast<std::uint32_t>(
            std::min<std::streamsize>(rest / kPayload, std::numeric_limits<std::uint32_t>::max()));
        const std::uint32_t stepped = StepWhole(reinterpret_cast<unsigned char*>(s + done + chunk), whole);
        if (stepped != whole) throw ZoIOException("Error in ZoIOStreamDevice::read");
        const std::streamsize skipped = static_cast<std::streamsize>(whole - 1) * kPayload;
        d.position += static_cast<std::uint32_t>(chunk + skipped);
        done += chunk + skipped;
        d.blockOffset = 0;
        delivered = true;
        continue;
      }
      NextBlock(false);
      if (Failed()) throw ZoIOException("Error in ZoIOStreamDevice::read");
      d.blockOffset = 0;
    }
    d.position += chunk;
    done += chunk;
  }
  return n;
}

// The checks and effects of NextBlock(false, ...) for each step; a step
// from a clean block along a sound link takes them inline, any other the
// general way.
std::uint32_t ZoIOStreamDevice::StepWhole(unsigned char* to, std::uint32_t count) {
  Data& d = *data_;
  std::lock_guard<std::recursive_mutex> hold(d.core->readLock);
  for (std::uint32_t k = 0; k < count; ++k) {
    unsigned char* payloadTo = to + std::size_t{k} * kPayload;
    const std::uint32_t next = d.current->nextBlock;
    if (d.dirty || next == 0 || !d.core->LinkIsSound(d.current->blockNumber, next) ||
        d.blockIndex >= d.core->BlockCount()) {
      NextBlock(false, payloadTo);
    } else {
      d.core->ReadDataBlockHeld(next, *d.current, payloadTo);
      d.payloadUnset = false;
      ++d.blockIndex;
      if (d.blockNumbers.size() < d.blockIndex) d.blockNumbers.push_back(next);
    }
    if (Failed()) return k;
  }
  return count;
}

void ZoIOStreamDevice::SettleEntry() {
  Data& d = *data_;
  d.inWrite = false;
  if (d.stampPending) ZoCurrentTimeText(d.entry->modified);
  if (d.stampPending || d.entryPending) d.core->EntryChangedAt(d.slot);
  d.stampPending = false;
  d.entryPending = false;
}

std::streamsize ZoIOStreamDevice::write(const char* s, std::streamsize n) {
  Data& d = *data_;
  d.written = true;
  // Only the low 32 bits of a count are meaningful, and no byte may land
  // beyond the largest position a stream can have.
  std::int64_t count = static_cast<std::uint32_t>(n);
  count = std::min<std::int64_t>(count, kMaxPosition - d.position);
  if (count == 0) return 0;
  d.inWrite = true;
  std::int64_t done = 0;
  try {
    done = WriteInBlocks(s, count);
  } catch (...) {
    SettleEntry();
    throw;
  }
  SettleEntry();
  return done;
}

std::int64_t ZoIOStreamDevice::WriteInBlocks(const char* s, std::int64_t count) {
  Data& d = *data_;
  std::int64_t done = 0;
  while (done < count) {
    if (d.current == nullptr) break;
    if (d.blockOffset == 0 && count - done >= kPayload && d.current->nextBlock == 0 &&
        !Failed() && !d.core->IsEncrypted()) {
      // A run of whole blocks at the end of the chain goes out in one call.
      // Each block is the one the block-by-block steps below would write.
      const auto whole = static_cast<std::uint32_t>(
          std::min<std::int64_t>((count - done) / kPayload, kAppendRun));
      std::uint32_t taken[kAppendRun];
      const std::uint32_t handled = d.core->AppendWholeBlocks(
          *d.current, reinterpret_cast<const unsigned char*>(s + done), whole, taken);
      for (std::uint32_t k = 0; k < handled; ++k) {
        ++d.blockIndex;
        if (d.blockNumbers.size() < d.blockIndex) d.blockNumbers.push_back(taken[k]);
      }
      d.stampPending = true;
      d.dirty = true;
      d.payloadUnset = true;
      if (Failed()) throw ZoIOException("Error in ZoIOStreamDevice::write");
      d.position += handled * kPayload;
      done += static_cast<std::int64_t>(handled) * kPayload;
      if (d.position > d.entry->size) {
        d.entry->size = d.position;
        d.entryPending = true;
      }
      continue;
    }
    const auto chunk = static_cast<std::uint32_t>(
        std::min<std::int64_t>(count - done, kPayload - d.blockOffset));
    if (chunk == kPayload) {
      // A whole block goes to the file from the caller's memory.
      d.directPayload = reinterpret_cast<const unsigned char*>(s + done);
    } else {
      d.ClearLeftovers();
      std::memcpy(d.current->payload + d.blockOffset, s + done, chunk);
    }
    d.dirty = true;
    d.blockOffset += chunk;
    if (d.blockOffset > d.current->usedLength) {
      d.current->usedLength = static_cast<std::uint16_t>(d.blockOffset);
    }
    if (d.blockOffset == kPayload) {
      NextBlock(true);
      d.directPayload = nullptr;  // written by the step, or refused with it
      if (Failed()) throw ZoIOException("Error in ZoIOStreamDevice::write");
      d.blockOffset = 0;
    }
    d.position += chunk;
    done += chunk;
    if (d.position > d.entry->size) {
      d.entry->size = d.position;
      d.entryPending = true;
    }
  }
  return done;
}

io::stream_offset ZoIOStreamDevice::seek(io::stream_offset off, std::ios_base::seekdir way) {
  Data& d = *data_;
  if (Failed() || d.current == nullptr) throw ZoIOException("Error in ZoIOStreamDevice::seek");
  std::int64_t base = 0;
  if (way == std::ios_base::cur) base = d.position;
  if (way == std::ios_base::end) base = d.entry->size;
  // Offsets near the 64-bit limits cannot make a valid target; refusing
  // them before adding keeps the sum defined.
  if (off < -kMaxPosition - 1 || off > kMaxPosition) return -1;
  const std::int64_t target = base + off;
  if (target == d.position) return target;
  if (target < 0 || target > kMaxPosition) return -1;
  const auto index = static_cast<std::uint32_t>(target / kPayload);
  GoToBlock(index + 1);
  if (Failed()) throw ZoIOException("Error in ZoIOStreamDevice::seek");
  d.blockOffset = static_cast<std::uint32_t>(target - static_cast<std::int64_t>(index) * kPayload);
  d.position = static_cast<std::uint32_t>(target);
  return target;
}

bool ZoIOStreamDevice::flush() {
  if (Failed() || data_->current == nullptr) throw ZoIOException("Error in ZoIOStreamDevice::flush");
  SaveCurrentBlock();
  if (Failed()) throw ZoIOException("Error in ZoIOStreamDevice::flush");
  return true;
}

// The buffered path asks the device for one buffer's worth at each refill
// and keeps what the caller did not take as read-ahead. The same reads are
// made here, but those whose bytes all go to the caller land there
// straight: every refill but the last. The last refill and the putback of
// the characters before it are the buffered path's own.
std::streamsize ZoIOStreamBuffer::xsgetn(char* s, std::streamsize n) {
  if (n < ZoIOStream::kBufferSize) return stream_buffer::xsgetn(s, n);
  // Enter reading the buffered way: pending output goes out, and the first
  // refill is made.
  if (gptr() == nullptr && traits_type::eq_int_type(underflow(), traits_type::eof())) return 0;
  std::streamsize done = std::min<std::streamsize>(n, egptr() - gptr());
  traits_type::copy(s, gptr(), static_cast<std::size_t>(done));
  gbump(static_cast<int>(done));
  if (done == n) return done;
  const std::streamsize fill = ZoIOStream::kBufferSize;  // one refill
  const std::streamsize straight = (n - done - 1) / fill * fill;
  if (straight > 0) {
    const std::streamsize got = (**this).read(s + done, straight);
    if (got > 0) done += got;
    // The last characters read, for the refill below to keep for putback
    // (it copies them into the buffer, so none of the caller's memory stays
    // in the get area). After a short read the refill finds the end, as the
    // buffered path's next refill does.
    setg(s + done - std::min(done, ZoIOStream::kPutbackSize), s + done, s + done);
  }
  if (traits_type::eq_int_type(underflow(), traits_type::eof())) return done;
  const std::streamsize last = std::min<std::streamsize>(n - done, egptr() - gptr());
  traits_type::copy(s + done, gptr(), static_cast<std::size_t>(last));
  gbump(static_cast<int>(last));
  return done + last;
}

// The buffered path fills the buffer and hands it to the device whole each
// time it is full and more is to come, so that at the end 1 to a buffer's
// worth of bytes stays buffered. The same writes are made here, those from
// the caller's memory straight from there.
std::streamsize ZoIOStreamBuffer::xsputn(const char* s, std::streamsize n) {
  if (n < ZoIOStream::kBufferSize) return stream_buffer::xsputn(s, n);
  // Enter writing the buffered way (a pending read position is given back
  // to the device).
  overflow(traits_type::eof());
  const std::streamsize room = epptr() - pbase();
  const std::streamsize pending = pptr() - pbase();
  if (room <= 0 || pending + n <= room) return stream_buffer::xsputn(s, n);  // all fits
  const std::streamsize straight = (pending + n - 1) / room * room - pending;
  if (pending > 0) {
    if ((**this).write(pbase(), pending) != pending) return 0;
    setp(pbase(), epptr());
  }
  if (straight > 0) {
    const std::streamsize taken = (**this).write(s, straight);
    if (taken != straight) return std::max<std::streamsize>(taken, 0);
  }
  const std::streamsize rest = n - straight;
  traits_type::copy(pptr(), s + straight, static_cast<std::size_t>(rest));
  pbump(static_cast<int>(rest));
  return n;
}

namespace {
// Setting up a standard stream (std::basic_ios::init) looks up the
// stream's locale facets, and a std::basic_iostream does it twice, once
// for each of its two halves: about a fifth of the cost of opening and
// closing a small stream. Moving from a stream already set up looks them up
// once and leaves the rest as init would: default flags, precision and
// width, no tie, no exceptions, no words. So each thread keeps one stream
// that nothing reads or writes, made for the global locale in force, and
// every block stream is moved from it; when the global locale changes, the
// model is brought in line before the next move, so a new block stream
// always carries the locale a fresh one would.
std::basic_iostream<char>& FreshStreamModel() {
  thread_local std::basic_iostream<char> model(nullptr);
  const std::locale global;
  if (model.getloc() != global) model.imbue(global);
  return model;
}
}  // namespace

// The model's state is bad (it has no buffer); rdbuf() below clears it.
ZoIOStream::ZoIOStream(BlockFileCore* core, DirEntry* entry, int mode, bf::DataBlock* first)
    : std::basic_iostream<char>(std::move(FreshStreamModel())), entry_(entry) {
  buffer_.open(ZoIOStreamDevice(core, entry, mode, first), kBufferSize, kPutbackSize);
  rdbuf(&buffer_);
  if ((mode & kModeBinary) == 0 || core->status != ZoStreamE::StatusOk) {
    setstate(std::ios_base::badbit);
  }
}

ZoIOStream::~ZoIOStream() = default;

const char* ZoIOStream::GetStreamName() const { return entry_->name; }
