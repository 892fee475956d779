// The on-disk records of a compound file, and the one place that knows
// their offsets, widths and byte order. Every number is little-endian.
//
// A compound file is an array of 1024-byte blocks numbered from 1; block n
// lies at byte offset (n-1)*1024, and number 0 means "no block". Every block
// begins with the same 19-byte head:
//
//   offset width field        meaning
//   0      4     blockNumber  the block's own number
//   4      1     inUse        1 used, 0 free (what the block map records)
//   5      10    signature    "BlockFile" and a zero
//   15     4     nextBlock    next block of the same chain, 0 at its end
//
// Data block (a chain of them holds a stream's bytes):
//   19     2     usedLength   highest payload offset written, 0..1003
//   21     1003  payload      stream bytes
//
// Directory block (the directory is the chain that starts at block 1):
//   19     317   entries[0]   DirEntry records, below
//   336    317   entries[1]
//   653    317   entries[2]
//   970    15    fileSignature  "ZoCompoundFile" and a zero
//   985    21    reserved     zero when new; written back as read
//   1006   16    passwordDigest MD5 of the password (first block only)
//   1022   2     flags        bit 0: payloads enciphered (first block only)
//
// DirEntry, relative to the record:
//   0      257   name         zero-terminated, at most 256 characters
//   257    26    created      asctime text of the entry's creation
//   283    26    modified     asctime text of the last write
//   309    4     firstBlock   first data block; 0 marks a free entry
//   313    4     size         stream length in bytes
//
// Skipped block: what fills the gap when a block is written beyond the end
// of the file: own number, inUse 0, signature, nextBlock 0, 1005 zeros.
//
// Saved block map (the stream kFreeListName), through its payloads:
//   first block payload 0   16   directory digest at the close that wrote it
//   first block payload 16  4    H, the highest block number of the map
//   first block payload 20  983  map bytes 0.. (byte i = inUse of block i)
//   each further payload 0  1003 the following map bytes
//
// The mark of an unfinished session: the first 8 bytes of block 1's
// reserved field hold kUnfinishedMark while a session that may leave the
// file out of step with its saved map is writing (see BlockFileCoreRepair).
// Every write of the directory takes it away again.
//
// Decoding never trusts a text to be terminated: each text field is cut at
// its last byte, so an in-memory text always ends within its array.
//
// Thread safety: the codec keeps no state; any thread may call it.
#ifndef TESSELZOSTREAM_BLOCKSTORE_BLOCKFORMAT_H_
#define TESSELZOSTREAM_BLOCKSTORE_BLOCKFORMAT_H_

#include <cstdint>

#include "tesselzostream/DirEntry.h"
#include "tesselzostream/FormatFacts.h"

namespace blockformat {

constexpr std::uint32_t kBlockSize = 1024;
constexpr std::uint32_t kHeadSize = 19;
constexpr std::uint32_t kPayloadSize = 1003;
constexpr std::uint32_t kEntriesPerBlock = 3;
constexpr std::uint32_t kEntrySize = 317;
constexpr std::uint32_t kSignatureSize = 10;
constexpr std::uint32_t kFileSignatureSize = 15;
constexpr std::uint32_t kReservedSize = 21;
constexpr std::uint32_t kDigestSize = 16;

// Head.
constexpr std::uint32_t kOffBlockNumber = 0;
constexpr std::uint32_t kOffInUse = 4;
constexpr std::uint32_t kOffSignature = 5;
constexpr std::uint32_t kOffNextBlock = 15;
// Data block.
constexpr std::uint32_t kOffUsedLength = 19;
constexpr std::uint32_t kOffPayload = 21;
// Directory block.
constexpr std::uint32_t kOffEntries = 19;
constexpr std::uint32_t kOffFileSignature = 970;
constexpr std::uint32_t kOffReserved = 985;
constexpr std::uint32_t kOffPasswordDigest = 1006;
constexpr std::uint32_t kOffFlags = 1022;
// DirEntry.
constexpr std::uint32_t kOffName = 0;
constexpr std::uint32_t kOffCreated = 257;
constexpr std::uint32_t kOffModified = 283;
constexpr std::uint32_t kOffFirstBlock = 309;
constexpr std::uint32_t kOffSize = 313;
// Saved block map, inside the payloads of its chain.
constexpr std::uint32_t kOffListDigest = 0;
constexpr std::uint32_t kOffListHighest = 16;
constexpr std::uint32_t kOffListMap = 20;
constexpr std::uint32_t kListMapRoomFirst = kPayloadSize - kOffListMap;  // 983
// The saved map's stream size is H + 20, the offset of its map bytes: the
// chain is long enough once its payloads exceed that.
constexpr std::uint32_t kListSizeOverHighest = kOffListMap;

constexpr std::uint16_t kFlagEncrypted = 1;
constexpr std::uint32_t kMaxNameLength = DirEntry::kNameSize - 1;  // 256

extern const char kSignature[kSignatureSize];          // "BlockFile"
extern const char kFileSignature[kFileSignatureSize];  // "ZoCompoundFile"
using tzformat::kFreeListName;  // the saved block map's stream
constexpr std::uint32_t kUnfinishedMarkSize = 8;
extern const unsigned char kUnfinishedMark[kUnfinishedMarkSize];

// The head and the data block are packed: in memory they have the file's
// layout, so on a little-endian host a data block goes to and from the file
// as its own 1024 bytes, with no conversion (the hot path of every stream).
// What callers are told of the layout is what this codec writes.
static_assert(tzformat::kBlockSize == kBlockSize && tzformat::kPayloadSize == kPayloadSize &&
                  tzformat::kEntriesPerDirBlock == kEntriesPerBlock && tzformat::kMaxNameLength == kMaxNameLength,
              "format facts");
static_assert(tzformat::kBlockSignatureOffset == kOffSignature && sizeof tzformat::kBlockSignature == kSignatureSize &&
                  tzformat::kFileSignatureOffset == kOffFileSignature &&
                  sizeof tzformat::kFileSignature == kFileSignatureSize,
              "format facts");

#pragma pack(push, 1)
struct BlockHead {
  std::uint32_t blockNumber;
  std::uint8_t inUse;
  char signature[kSignatureSize];
  std::uint32_t nextBlock;
};

struct DataBlock : BlockHead {
  std::uint16_t usedLength;
  unsigned char payload[kPayloadSize];
};
#pragma pack(pop)
static_assert(sizeof(BlockHead) == kHeadSize, "head layout");
static_assert(sizeof(DataBlock) == kBlockSize, "data block layout");

struct DirBlock : BlockHead {
  DirEntry entries[kEntriesPerBlock];
  char fileSignature[kFileSignatureSize];
  unsigned char reserved[kReservedSize];
  unsigned char passwordDigest[kDigestSize];
  std::uint16_t flags;
};

// A zeroed data block with the signature set (what the engine starts from).
void InitDataBlock(DataBlock* block);
// The same for the head and usedLength only; the payload keeps whatever it
// held, for a caller that overwrites or clears it before use.
void InitDataHead(DataBlock* block);
// A zeroed directory block with both signatures set.
void InitDirBlock(DirBlock* block);

void EncodeHead(const BlockHead& head, unsigned char* out);
void DecodeHead(const unsigned char* in, BlockHead* head);
bool HasSignature(const BlockHead& head);

void EncodeDataBlock(const DataBlock& block, unsigned char* out);
// The first kOffPayload bytes only: the head and usedLength.
void EncodeDataHead(const DataBlock& block, unsigned char* out);
void DecodeDataBlock(const unsigned char* in, DataBlock* block);

// Zero-copy forms of the two above. DataBlockTarget gives the 1024 bytes to
// read a block's file bytes into: the block itself where its layout is the
// file's, else `scratch`; FinishDataBlock then completes `block` from them.
// DataBlockBytes gives the block's file bytes: the block itself, or its
// encoding in `scratch`.
unsigned char* DataBlockTarget(DataBlock* block, unsigned char* scratch);
void FinishDataBlock(const unsigned char* target, DataBlock* block);
// As FinishDataBlock for a read whose payload went elsewhere: completes the
// head and usedLength only (the first kOffPayload bytes of `target`).
void FinishDataHead(const unsigned char* target, DataBlock* block);
const unsigned char* DataBlockBytes(const DataBlock& block, unsigned char* scratch);

void EncodeDirEntry(const DirEntry& entry, unsigned char* out);
void DecodeDirEntry(const unsigned char* in, DirEntry* entry);

// True when a directory block's reserved field begins with the mark.
bool HasUnfinishedMark(const DirBlock& block);

void EncodeDirBlock(const DirBlock& block, unsigned char* out);
// False when the file signature is not "ZoCompoundFile"; the fields after
// it are then left as they were.
bool DecodeDirBlock(const unsigned char* in, DirBlock* block);

// The head of the saved block map, at the start of its first payload: the
// directory digest and H; the map bytes follow at kOffListMap.
void EncodeFreeListHead(const unsigned char digest[kDigestSize], std::uint32_t highest,
                        unsigned char* payload);
void DecodeFreeListHead(const unsigned char* payload, unsigned char digest[kDigestSize],
                        std::uint32_t* highest);

// The 1024 bytes of a skipped block with number n.
void EncodeSkippedBlock(std::uint32_t n, unsigned char* out);

// Length of a text field: up to its zero, at most the field's width.
std::uint32_t FieldLength(const char* text, std::uint32_t width);

}  // namespace blockformat

#endif  // TESSELZOSTREAM_BLOCKSTORE_BLOCKFORMAT_H_
