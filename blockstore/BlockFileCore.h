// BlockFileCore: the engine of one open compound file.
//
// It owns the open file, the directory held in memory, the block map, the
// cipher and a sticky status; it reads and writes whole blocks, allocates
// them and keeps the directory. Nothing above it touches the file.
//
// Invariants:
// (1) Directory blocks are never released while the object lives, so a
//     DirEntry* handed out stays valid until the last holder has gone.
// (2) The status is sticky: once it is not StatusOk, no block is read or
//     written any more (but for the one mark of a failed cipher pass), until
//     Close sets StatusNotOpen. Only SetPassword (out of
//     StatusPasswordNeeded), the scan of block heads at open and Close
//     change it back.
// (3) A directory block that is not marked changed encodes to exactly the
//     bytes the file holds for it, and its block-map byte equals its inUse
//     byte. So writing only the changed blocks leaves the same bytes on disk
//     as rewriting the whole directory.
// (4) The name index holds exactly the entries in use, keyed by the
//     ASCII-folded name, each key's slots in directory order.
// (5) Every walk of a chain read from the file is bounded by the number of
//     blocks in the file; a longer walk is a loop and sets StatusFailed.
// (6) In a file open for writing, a link read from the file is followed only
//     when it can still belong to its chain (LinkIsSound): never to a block
//     the map calls free, nor to a block this session allocated for another
//     chain. A run that crashed can leave such links behind (blocks it
//     appended or released without writing the directory); following them
//     would free or overwrite another stream's blocks. Writes and deletions
//     treat such a link as the end of the chain; reads report StatusFailed.
//     A writer stepping on also ends the chain at a link beyond the end of
//     the file that this session did not make (LinkLeavesFile); a read
//     reports StatusPastEnd there. Beyond the blocks its size needs, where
//     no read has looked, a writer ends the chain at a block the file names
//     twice (TailLinkIsSound). For the same reason an open for writing frees
//     every entry whose first block lies beyond the end of the file, is free
//     in the map, is a directory block, or is the first block of an earlier
//     entry.
// (7) A block is handed out only when no chain holds it, as far as the
//     file's heads tell: a map taken from the saved list is checked against
//     the head of each block it offers (AllocBlockNumber), since its digest
//     ties it to the directory but not to the chains.
//
// Ownership: refCount counts the CompoundFile handles and block streams
// that hold the object; the last Release destroys it, which closes the file.
//
// Thread safety: block reads (ReadDataBlock, ReadDirBlock, LoadDataBlock)
// may run on several threads at once; readLock serialises them. SetPassword
// may run beside them (it changes the cipher only under readLock).
// Everything else, every write, allocation and directory change, needs the
// caller's exclusive use of the file.
#ifndef TESSELZOSTREAM_BLOCKSTORE_BLOCKFILECORE_H_
#define TESSELZOSTREAM_BLOCKSTORE_BLOCKFILECORE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "blockstore/BlockFormat.h"
#include "blockstore/BlockIO.h"
#include "utility/BlowFish.h"
#include "utility/MD5.h"
#include "utility/PagedArray.h"
#include "utility/RecyclingAllocator.h"
#include "blockstore/BlockGraph.h"
#include "blockstore/BlockMap.h"
#include "blockstore/DirBlockPool.h"
#include "blockstore/DirectoryIndex.h"
#include "tesselzostream/Compaction.h"
#include "tesselzostream/Status.h"

namespace BlowFish {
class Context;
}
class ZoIOStream;

using blockformat::DataBlock;
using blockformat::DirBlock;

// Open block streams by name, as DirEntry holds it (compared with case).
// Each stream's open and close enter and erase a node; the nodes come from
// a per-thread cache of freed ones.
using StreamTable =
    std::map<std::string, std::int32_t, std::less<std::string>,
             tz::RecyclingAllocator<std::pair<const std::string, std::int32_t>>>;

class BlockFileCore {
 public:
  BlockFileCore();
  ~BlockFileCore();  // closes the file if it is open
  BlockFileCore(const BlockFileCore&) = delete;
  BlockFileCore& operator=(const BlockFileCore&) = delete;

  // --- Opening and closing (BlockFileCore.cpp) ---
  // Opens or creates the file; returns the status. A failure to open, a
  // length not a multiple of 1024, no "BlockFile" at offset 5, or a failed
  // block map give StatusFailed with the file closed again. An unreadable
  // first directory block returns its status with the file still open.
  // A later directory block that cannot be read, or a directory chain that
  // loops, throws ZoStreamE::StatusFailed by value.
  // REQUIRES: called once, before the object is shared.
  ZoStreamE::Status Open(const char* path, ZoStreamE::OpenMode mode);
  // Writes what is pending (directory, saved block map) when the status is
  // StatusOk, closes the file and returns the status as it was at the call.
  ZoStreamE::Status Close();
  ZoStreamE::Status LoadBlockMap();

  // --- Sharing ---
  void Retain() { ++refCount; }
  // Ends one hold; a non-null name also lowers that name's open count.
  // The last release unregisters the object and destroys it.
  void Release(const char* streamName);

  // --- Blocks (BlockFileCoreBlocks.cpp) ---
  // A non-null `payload` names the block's 1003 payload bytes elsewhere:
  // a read delivers them there (deciphered) and leaves block.payload as it
  // was; a write takes them from there instead of block.payload.
  ZoStreamE::Status ReadDataBlock(std::uint32_t n, DataBlock& block,
                                  unsigned char* payload = nullptr);
  // The same for a caller that holds readLock already (a run of reads).
  ZoStreamE::Status ReadDataBlockHeld(std::uint32_t n, DataBlock& block, unsigned char* payload);
  DataBlock* LoadDataBlock(std::uint32_t n);  // caller owns; null on failure
  ZoStreamE::Status WriteDataBlock(const DataBlock& block,
                                   const unsigned char* payload = nullptr);
  ZoStreamE::Status WriteRawDataBlock(const DataBlock& block,
                                      const unsigned char* payload = nullptr);
  // Caller owns the result. Without `clearPayload` the payload keeps what
  // `reuse` held and the caller must clear or overwrite it before use.
  DataBlock* AllocDataBlock(DataBlock* reuse, bool clearPayload = true);
  // A growing writer's steps past `count` blocks written whole, on a file
  // that is not encrypted: each block in turn takes the map's lowest free
  // number for its successor, links to it and goes to the file with its
  // payload (back to back from `payloads`); the same effects, in the same
  // order, as AllocDataBlock, the link, NoteLink and WriteDataBlock for
  // each. `current` is reused as each fresh successor in turn: on
  // return it is the fresh successor of the last block handled, and
  // taken[0..k) holds the successors' numbers. Returns k: `count`, or
  // fewer when a block write failed (k counts that block; the status says
  // it failed). REQUIRES: the file is not encrypted; taken has count places;
  // count <= kMaxAppendRun.
  static constexpr std::uint32_t kMaxAppendRun = 64;
  std::uint32_t AppendWholeBlocks(DataBlock& current, const unsigned char* payloads,
                                  std::uint32_t count, std::uint32_t* taken);
  // `exact`, when given, tells whether the block encodes back to the very
  // bytes read (false for a text without its zero, which decoding cuts).
  ZoStreamE::Status ReadDirBlock(std::uint32_t n, DirBlock& block, bool* exact = nullptr);
  boost::shared_ptr<DirBlock> LoadDirBlock(std::uint32_t n, bool* exact = nullptr);  // null on failure
  ZoStreamE::Status WriteDirBlock(const DirBlock& block);
  boost::shared_ptr<DirBlock> AllocDirBlock();
  // Every failure of the file goes through here: `status` takes `why` and
  // keeps it (block traffic stops at a non-zero status) until SetPassword,
  // a new scan of the heads or the close. Returns the new status.
  ZoStreamE::Status Fail(ZoStreamE::Status why = ZoStreamE::StatusFailed) {
    status = why;
    return status;
  }
  // Blocks the file holds, by the engine's count.
  std::uint32_t BlockCount() const {
    return static_cast<std::uint32_t>(fileSize / blockformat::kBlockSize);
  }

  // --- Directory (BlockFileCoreDirectory.cpp) ---
  // `matchesFile`: the block was just read and encodes to
  // exactly the bytes the file holds (else it counts as changed).
  // `readFrom`: the number of the block it was read from (0: a new block,
  // known by its own number).
  void AppendDirBlock(boost::shared_ptr<DirBlock> block, bool matchesFile = false, std::uint32_t readFrom = 0);
  // First entry in use, in directory order, whose name equals `name` without
  // regard to ASCII case; null when none (also for null or over-long names).
  DirEntry* FindDirEntry(const char* name);
  // A new entry for `name` with its first data block written; null for a
  // null, empty or over-long name (nothing changes) or a failed write.
  // With `firstOut`, the caller takes over that block's record (as the file
  // holds it) on success.
  DirEntry* AddDirEntry(const char* name, DataBlock** firstOut = nullptr);
  // Releases the stream's blocks and frees the entry. False on a read-only
  // file (status unchanged) or when a block cannot be read or written.
  bool FreeChain(DirEntry* entry);
  // Writes the changed directory blocks when the directory is dirty or
  // `force` is set, and flushes the file: a flush point. Inside a batch the
  // flush point is only noted, and made by the batch's end.
  void FlushDirectory(bool force);
  // Batches (nested by count): flush points wait for the outermost end, or
  // for the file's close. BeginBatch is refused (StatusFailed, the status
  // unchanged) on a read-only file, EndBatch without a batch.
  ZoStreamE::Status BeginBatch();
  ZoStreamE::Status EndBatch();
  void FinishBatch();
  DirEntry* NextDirEntry(std::uint32_t& cursor);
  bool HasEntries() const { return index.InUse() != 0; }
  std::int32_t CountDirEntries() const { return static_cast<std::int32_t>(index.InUse()); }
  // True when following the link from block `from` to block `to` (read from
  // the file) stays inside the chain of `from`; see invariant (6).
  bool LinkIsSound(std::uint32_t from, std::uint32_t to) const;
  // LinkIsSound for a writer stepping from `from`, a block beyond those its
  // stream's size needs: in a session that trusted the saved map, also false
  // when the file names `to` more than once (another chain's block, or a
  // loop). The first such step of a session reads the head of every block
  // the map calls used (BlockFileCoreLinks.cpp); a failed read fails the
  // status.
  bool TailLinkIsSound(std::uint32_t from, std::uint32_t to);
  // True in a file open for writing when block `to` lies beyond the end of
  // the file and this session did not allocate it: no stream's bytes can
  // lie there, so a writer ends the chain at such a link.
  bool LinkLeavesFile(std::uint32_t to) const;
  // True in a file open for writing when block n, as the file holds it now,
  // links on to a next block (a stream whose copy of n ends there holds a
  // stale copy). Reads the head; changes nothing.
  bool LinksOnInFile(std::uint32_t n);
  // Block `from` now links to `to`, which this session allocated.
  void NoteLink(std::uint32_t from, std::uint32_t to);
  // The stream device changed size or modified of this entry in place;
  // the slot form saves the look-up for a caller that knows it.
  void EntryChanged(const DirEntry* entry);
  void EntryChangedAt(std::uint32_t slot) {
    if (slot / blockformat::kEntriesPerBlock < dirBlockChanged.size()) MarkDirBlockChanged(slot / blockformat::kEntriesPerBlock);
  }
  std::uint32_t SlotOf(const DirEntry* entry) const;

  // --- Whole streams (WholeStream.cpp) ---
  // What GetIOStream(name, "wb"), one write and the stream's release do;
  // false where that would fail.
  bool WriteWhole(const char* name, const char* data, std::size_t size);
  // The whole stream into `out`; false when it is missing or a read fails.
  // Reads only: may run beside other reads.
  bool ReadWhole(const char* name, std::string& out);

  // --- Streams (BlockFileCoreStreams.cpp) ---
  ZoIOStream* OpenStream(const char* name, int modeBits);
  ZoIOStream* OpenExisting(const char* name, int modeBits);
  ZoIOStream* ReplaceStream(const char* name, int modeBits);

  // --- Saved block map (SavedBlockMap.cpp) ---
  bool ReadFreeList();
  void ComputeDirectoryDigest(unsigned char out[blockformat::kDigestSize]) const;
  void WriteFreeList();

  // --- Unfinished sessions (BlockFileCoreRepair.cpp) ---
  // True when the free-list stream's digest matches the directory in
  // memory (no password needed: the list is never enciphered).
  bool ListMatchesDirectory();
  // Called once the directory and the map are loaded at an open for
  // writing; `cleanEnd`: the saved list matched the directory as read.
  void StartSession(bool cleanEnd);
  // While the saved list still matches the directory in the file, puts the
  // mark of an unfinished session into block 1 on the disk, before the
  // write that calls it; nothing when it is there already.
  void ArmMark();
  // At a point where the directory is written: block 1 goes out as the
  // record holds it (without the mark), after every write before it.
  void ClearMark();
  // Bookkeeping of which directory blocks on the disk differ from the file
  // as it was opened (only while the saved list matched at open).
  void BeforeDirBlockWrite(std::uint32_t index);
  void AfterDirBlockWrite(std::uint32_t index, const unsigned char* raw);
  bool MayTrustSavedList() const { return cleanAtOpen && dirDiffering == 0; }
  // True when block 1 as read carries the mark; DropMark takes it out of
  // the record (the directory then counts as changed).
  bool HasMark() const;
  void DropMark();
  // Mends the chains after a scan of the heads (see the file); true when
  // anything changed.
  bool RepairChains();
  // After the close of a session whose writes failed: opens the file for
  // writing once more, which mends what the session left, and closes it.
  static void MendAfterFailure(const std::string& path);
  // Block n was freed (its head written free) and may still be named by
  // the directory in the file, until the next directory write.
  void NoteFreed(std::uint32_t n);
  // The directory in memory has reached the file whole.
  void DirectoryReachedFile();
  // Before block n is handed out: the directory goes first when it still
  // names n in the file.
  void BeforeHandingOut(std::uint32_t n);
  // Writes block n's 1024 bytes as given, with the steps of every block
  // write (refusals, growth, the block map).
  ZoStreamE::Status WriteRawBlock(std::uint32_t n, std::uint8_t inUse, const unsigned char* raw);

  // --- Compaction in place and scrubbing (BlockFileCoreCompact.cpp) ---
  // What CompoundFile::CompactInPlace and ScrubFreeBlocks do; see there.
  ZoStreamE::Status CompactInPlace(std::uint32_t maxMoves, CompactCallback callback, void* context,
                                   CompactProgress* progress);
  ZoStreamE::Status ScrubFreeBlocks(std::uint32_t* scrubbed);

  // --- Cipher (BlockFileCipher.cpp) ---
  // Encrypt and Decrypt rewrite every chain in place. Chains that leave the
  // file, loop or share blocks are refused (StatusFailed) before anything
  // changes. While a pass runs, the file on disk carries a mark that makes
  // every open refuse it; a pass that completes removes the mark with its
  bool IsEncrypted() const;
  bool SetPassword(const char* password);
  ZoStreamE::Status Encrypt(const char* password);
  ZoStreamE::Status Decrypt();

  // Fields, in the order the engine's description gives them.
  std::int64_t fileSize;
  char* fileName;                  // canonical path; owned
  std::unique_ptr<BlockIO> file;   // null when closed
  BlockMap blockMap;
  bool readOnly;
  std::vector<boost::shared_ptr<DirBlock>> dirBlocks;
  bool directoryDirty;
  std::unique_ptr<BlowFish::Context> cipher;
  ZoStreamE::Status status;
  bool blocksWritten;
  std::recursive_mutex readLock;
  std::int32_t refCount;
  StreamTable openStreams;
  std::int32_t batchDepth = 0;  // open batches
  bool batchFlushDue = false;   // a flush point waits for the batch's end

 private:
  // Bookkeeping behind the directory (BlockFileCoreDirectory.cpp).
  void IndexBlock(std::uint32_t blockIndex, bool matchesFile, std::uint32_t number);
  void MarkEntryUsed(DirEntry* entry);
  void MarkEntryFree(DirEntry* entry);
  void MarkDirBlockChanged(std::uint32_t blockIndex);
  // Marks the directory block numbered blockNumber, if it is one, as
  // changed. Most blocks are not, and are turned away here cheaply.
  void MarkIfDirBlock(std::uint32_t blockNumber) {
    if (blockNumber < isDirBlock.size() && isDirBlock[blockNumber]) MarkDirBlockNumberChanged(blockNumber);
  }
  void MarkDirBlockNumberChanged(std::uint32_t blockNumber);
  void DirBlockWritten(const DirBlock& block);
  void CheckDirBlocksAgainstMap();
  void DropDanglingEntries();
  void WriteChangedDirBlocks();
  DirEntry* EntryAt(std::uint32_t slot) const;

  // In a file open for writing, makes a block record read from block n
  // name block n, carry the signature and say it is in use, so that a
  // rewrite lands where the block was read and keeps it held (see
  // ReadDataBlock).
  void RepairHeadForWriting(std::uint32_t n, blockformat::BlockHead* head) const;

  // Block n's bytes; with a non-null `tail`, bytes from kOffPayload on go
  // there instead.
  bool ReadBlockBytes(std::uint32_t n, unsigned char* out, unsigned char* tail = nullptr);

  // The number for a new block: the map's lowest free one, confirmed by
  // the block's head when the map came from the saved list.
  std::uint32_t AllocBlockNumber();

  // Helpers of compaction and scrubbing (BlockFileCoreCompact.cpp).
  // BeginMaintenance refuses (StatusNotOpen, the failed status, or
  // StatusFailed with the status unchanged for a read-only file, a batch or
  // an open stream), else runs with the status Ok and payloads verbatim,
  // the one it had in *before, until EndMaintenance.
  ZoStreamE::Status BeginMaintenance(ZoStreamE::Status* before);
  ZoStreamE::Status EndMaintenance(ZoStreamE::Status before);
  bool BuildBlockGraph(BlockGraph& graph, const DirEntry* skip, bool full);
  // The graph for a pass, `list` (the saved map's entry) left out; false
  // when a chain cannot be held.
  bool GraphOfFile(BlockGraph& graph, const DirEntry* list, bool partial);
  ZoStreamE::Status WriteRawRun(std::uint32_t first, std::uint32_t count, const unsigned char* data);
  bool OnlySavedMapPast(const BlockGraph& graph, const DirEntry* list) const;
  void GiveUpSavedMap(DirEntry* list);
  void MoveDirBlockNumber(std::uint32_t index, std::uint32_t from, std::uint32_t to);
  void MoveInBatches(BlockGraph& graph, CompactProgress* p, CompactCallback callback, void* context);
  void CopyMovedBlocks(const BlockGraph& graph, const std::vector<BlockGraph::Move>& moves);
  void RewriteMovedHeads(const BlockGraph& graph, const std::vector<BlockGraph::Move>& moves, std::size_t first,
                         std::uint32_t count, unsigned char* buffer,
                         std::vector<std::pair<std::uint32_t, std::uint32_t>>* movedDirBlocks);
  void RelinkMovedBlocks(const BlockGraph& graph, const std::vector<BlockGraph::Move>& moves);
  void CutFile(std::uint32_t blocks);
  void SettleAsAtClose(const BlockGraph& graph);
  // While set, payloads go to and from the file as they lie there, without
  // the cipher: compaction moves ciphertext verbatim.
  bool verbatimPayloads = false;
  std::vector<unsigned char> moveBuffer;  // a run of blocks being moved

  // Helpers of Open and the passes.
  void LoadDirectoryChain(const boost::shared_ptr<DirBlock>& first, bool exact);
  ZoStreamE::Status ScanBlockHeads();
  bool FlushFile();
  bool ChainsAreSound();
  std::uint32_t ChainNext(const blockformat::BlockHead& head) const;
  ZoStreamE::Status RunMarkedPass(bool encrypt);
  void RunCipherPass(bool encrypt);
  void FinishPass();
  void MarkUnusable();

  DirBlockPool dirBlockPool;  // the memory of dirBlocks
  DirectoryIndex index;
  std::vector<bool> dirBlockChanged;   // by chain index
  std::vector<std::uint32_t> changedDirBlocks;
  std::vector<std::uint32_t> spareDirBlockList;  // empty; its room is reused
  // By block number: the chain index of the directory block read from (or
  // written to) it, kNoDirBlock for any other block.
  static constexpr std::uint32_t kNoDirBlock = 0xFFFFFFFFu;
  tz::PagedArray<std::uint32_t> dirIndexByNumber{kNoDirBlock};
  std::vector<std::uint32_t> dirBlockNumberAt;  // by chain index: that number
  // The chain index of directory block `number`, or kNoDirBlock.
  std::uint32_t DirIndexOf(std::uint32_t number) const {
    return number < dirIndexByNumber.size() ? dirIndexByNumber[number] : kNoDirBlock;
  }
  // The last entry SlotOf answered for (entries never move).
  mutable const DirEntry* lastSlotEntry = nullptr;
  mutable std::uint32_t lastSlot = 0;
  // Address of each directory block's first entry -> its chain index, so
  // that an entry's slot follows from its address (one node per block).
  std::map<std::uintptr_t, std::uint32_t> blockByEntries;
  bool indexSlots = true;  // blockByEntries is kept (not in a plain read-only open)
  // By block number: kNotAllocated for blocks not allocated since open,
  // else the block whose link names it (0 while only a directory entry or
  // nothing names it). One number a block, like the block map's byte.
  static constexpr std::uint32_t kNotAllocated = 0xFFFFFFFFu;
  tz::PagedArray<std::uint32_t> linkSource{kNotAllocated};
  std::vector<bool> isDirBlock;  // by block number
  bool savedMapTaken = false;    // the map came from the saved list at open
  // By block number, how often the file named the block (capped at 2) when
  // a writer first stepped beyond a stream's size; empty until then, and
  // again after a close or compaction. See TailLinkIsSound.
  std::vector<std::uint8_t> linkCensus;
  bool TakeLinkCensus();
  // Reads the blocks in runs of up to kScanRun, every block with `full`,
  // else only those the map calls used, and hands each run to `take` with
  // its first number and length. False, with the status failed, when a
  // read fails.
  static constexpr std::uint32_t kScanRun = 1024;
  using RunTaker = std::function<void(std::uint32_t first, std::uint32_t count, const unsigned char* run)>;
  bool ReadHeadRuns(bool full, const RunTaker& take);
  // Links of every block, recorded by the scan at an open that repairs.
  std::vector<std::uint32_t> scannedLinks;
  bool recordLinks = false;
  // The unfinished-session mark (BlockFileCoreRepair.cpp).
  bool cleanAtOpen = false;  // the saved list matched the directory at open
  bool markOnDisk = false;   // block 1 on the disk carries the mark
  bool writingMark = false;
  bool mending = false;      // this object mends after a failed session
  // The directory's digest as read at open, once ListMatchesDirectory has
  // computed it (ReadFreeList needs the same one).
  unsigned char openDigest[blockformat::kDigestSize] = {};
  bool haveOpenDigest = false;
  static constexpr std::uint8_t kHashUnknown = 0, kHashSame = 1, kHashDiffers = 2;
  std::vector<std::uint64_t> dirOpenHash;   // by chain index: the block's bytes at open
  std::vector<std::uint8_t> dirHashState;   // by chain index: as the disk holds it now
  std::uint32_t dirDiffering = 0;           // blocks on the disk that differ from open
  std::uint32_t dirOpenCount = 0;           // directory blocks at open
  // Blocks freed since the directory was last written (NoteFreed).
  std::vector<bool> freedSinceDirWrite;
  std::vector<std::uint32_t> freedSince;
};

#endif  // TESSELZOSTREAM_BLOCKSTORE_BLOCKFILECORE_H_
