// ZoIOStream: a seekable binary iostream on one stream of a compound file.
//
// The device turns one flat 32-bit position into a place in the stream's
// chain of data blocks. It keeps exactly one block in memory (`current`),
// walks and extends the chain through the engine, and keeps the stream's
// size in its DirEntry. One position serves reading and writing.
//
// Invariants (between operations):
// (1) position == (blockIndex - 1) * 1003 + blockOffset, 0 <= blockOffset
//     < 1003. Block k of a chain holds the bytes (k-1)*1003 .. k*1003-1.
// (2) blockNumbers[k-1] is the number of the k-th block, for every block
//     the device has walked; it only grows.
// (3) A chain holds at least size/1003 + 1 blocks: a write that fills a
//     block links the next one at once.
// (4) usedLength of a block is the highest payload offset written in it.
// (5) A fresh block's payload is zero wherever it was not written, in the
//     file and whenever current->payload is read (see payloadUnset).
//
// Failures: the device throws ZoIOException with one of four fixed texts,
// which the standard stream layer turns into badbit; the cause stays in the
// engine's status (CompoundFile::GetStatus). Where the chain ends before the
// stream's size says, or loops, a read sets StatusFailed rather than
// extending the chain or walking forever. A seek to a negative target or
// beyond 32 bits fails (the stream's seek reports -1) and changes nothing;
// a read while the position lies beyond the size gives end of stream; a
// write that would take the position beyond 32 bits takes only the bytes
// that fit.
//
// Ownership: the stream holds one reference on its engine from construction
// to destruction, so the file stays open while the stream lives. The caller
// who got the stream deletes it; that writes what is pending and, if the
// stream was written, the directory.
//
// Thread safety: one stream belongs to one thread at a time. Streams on
// different names of one file may be read on different threads.
#ifndef TESSELZOSTREAM_BLOCKSTORE_ZOIOSTREAM_H_
#define TESSELZOSTREAM_BLOCKSTORE_ZOIOSTREAM_H_

#include <cstdint>
#include <ios>
#include <istream>
#include <string>
#include <vector>

#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/positioning.hpp>
#include <boost/iostreams/stream_buffer.hpp>
#include <boost/shared_ptr.hpp>

#include "blockstore/BlockFormat.h"
#include "blockstore/ChainList.h"
#include "tesselzostream/DirEntry.h"
#include "utility/RecyclingAllocator.h"

class BlockFileCore;

// Open-mode bits of a block stream.
constexpr int kModeIn = 1;
constexpr int kModeOut = 2;
constexpr int kModeBinary = 32;

class ZoIOStreamDevice {
 public:
  typedef char char_type;
  struct category : boost::iostreams::seekable_device_tag,
                    boost::iostreams::flushable_tag {};

  class ZoIOException : public std::ios_base::failure {
   public:
    explicit ZoIOException(const std::string& message);
  };

  struct Data {
    // `first`, when given, is the stream's first block as the file holds it
    // (a new stream's, just written); the object takes it over instead of
    // reading it.
    Data(BlockFileCore* core, DirEntry* entry, int mode, blockformat::DataBlock* first = nullptr);
    ~Data();
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;

    bool dirty = false;
    bool written = false;
    BlockFileCore* core;
    DirEntry* entry;
    std::uint32_t slot;  // the entry's place in the directory
    blockformat::DataBlock* current = nullptr;
    blockformat::DataBlock* spare = nullptr;
    std::uint32_t position = 0;
    std::uint32_t blockIndex = 1;
    std::uint32_t blockOffset = 0;
    ChainList blockNumbers;
    // Within one write call only: the caller's bytes that are the current
    // block's whole payload, written from there by SaveCurrentBlock.
    const unsigned char* directPayload = nullptr;
    // current->payload still holds leftovers of an earlier block where a
    // fresh block's zeros belong. A block written whole never needs the
    // zeros; any other use of the payload clears it first.
    bool payloadUnset = false;
    // Inside a write call the entry's stamp and its directory block's
    // change mark are settled once, when the call ends: only their last
    // values can be seen, and nothing reads them while the call runs.
    bool inWrite = false;
    bool stampPending = false;
    bool entryPending = false;
    void ClearLeftovers();
    int mode;
  };

  ZoIOStreamDevice(BlockFileCore* core, DirEntry* entry, int mode,
                   blockformat::DataBlock* first = nullptr);

  std::streamsize read(char* s, std::streamsize n);
  std::streamsize write(const char* s, std::streamsize n);
  boost::iostreams::stream_offset seek(boost::iostreams::stream_offset off,
                                       std::ios_base::seekdir way);
  bool flush();

  const Data& data() const { return *data_; }

 private:
  void SaveCurrentBlock();
  // Ends a write call: stamps the entry and marks its directory block
  // changed if the call saved a block or grew the stream.
  void SettleEntry();
  // The body of write: `count` bytes from s, block by block.
  std::int64_t WriteInBlocks(const char* s, std::int64_t count);
  void NextBlock(bool mayGrow, unsigned char* payloadTo = nullptr);
  // `count` reading steps, NextBlock(false, to + k * payload size) for each
  // k, under one hold of the engine's read lock. Returns the steps taken
  // before one failed (`count` when none did).
  std::uint32_t StepWhole(unsigned char* to, std::uint32_t count);
  void GoToBlock(std::uint32_t n);
  bool Failed() const;

  boost::shared_ptr<Data> data_;
};

// The stream buffer of a block stream: the library's seekable buffer of
// 10240 bytes with a putback of 4, except that a read or write of at least a
// whole buffer moves the bytes that the buffered path would pass through the
// buffer whole straight between the caller's memory and the device. The
// device sees the same reads and writes at the same moments (merged where
// nothing comes between them), and what stays buffered, the putback and
// every stream state are the buffered path's; only copies are saved.
// Its memory comes from a per-thread cache of freed buffers, since streams
// are often opened and closed by the thousand.
class ZoIOStreamBuffer
    : public boost::iostreams::stream_buffer<ZoIOStreamDevice, std::char_traits<char>,
                                             tz::RecyclingAllocator<char>> {
 protected:
  std::streamsize xsgetn(char* s, std::streamsize n) override;
  std::streamsize xsputn(const char* s, std::streamsize n) override;
};

class ZoIOStream : public std::basic_iostream<char> {
 public:
  static constexpr std::streamsize kBufferSize = 10240;
  static constexpr std::streamsize kPutbackSize = 4;

  // `first`: as for ZoIOStreamDevice::Data.
  ZoIOStream(BlockFileCore* core, DirEntry* entry, int mode, blockformat::DataBlock* first = nullptr);
  ~ZoIOStream() override;

  const char* GetStreamName() const;

 private:
  ZoIOStreamBuffer buffer_;
  DirEntry* entry_;
};

#endif  // TESSELZOSTREAM_BLOCKSTORE_ZOIOSTREAM_H_
