// Opening, closing and sharing of a BlockFileCore.
#include "blockstore/BlockFileCore.h"

#include <limits>

#include "blockstore/FileServer.h"
#include "utility/BlowFish.h"
#include "utility/Env.h"
#include "utility/Path.h"
#include "utility/ZoString.h"

using ZoStreamE::Status;

namespace {
// Thrown inside Open to leave its steps; never leaves Open.
struct Error {};
}  // namespace

BlockFileCore::BlockFileCore()
    : fileSize(0),
      fileName(nullptr),
      readOnly(false),
      directoryDirty(false),
      status(ZoStreamE::StatusNotOpen),
      blocksWritten(false),
      refCount(1) {}

BlockFileCore::~BlockFileCore() {
  if (file) Close();
  delete[] fileName;
}

Status BlockFileCore::Open(const char* path, ZoStreamE::OpenMode mode) {
  status = ZoStreamE::StatusOk;
  bool mended = false;
  readOnly = mode != ZoStreamE::OpenReadWrite;
  indexSlots = mode != ZoStreamE::OpenReadOnly;
  try {
    std::unique_ptr<tz::RandomAccessFile> raw;
    if (path != nullptr && *path != '\0') raw = tz::CurrentEnv()->OpenLocked(path, !readOnly);
    if (!raw) throw Error();
    file.reset(new BlockIO(std::move(raw)));
    std::uint64_t size = 0;
    if (!file->DiskSize(&size)) throw Error();
    // Block numbers are compared as signed 32-bit values: a file with more
    // blocks than that cannot be addressed.
    if (size % blockformat::kBlockSize != 0 ||
        size / blockformat::kBlockSize > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) {
      throw Error();
    }
    fileSize = static_cast<std::int64_t>(size);
    if (fileSize != 0) {
      unsigned char raw1[blockformat::kBlockSize];
      blockformat::BlockHead head;
      if (!file->ReadBlock(1, raw1)) throw Error();
      blockformat::DecodeHead(raw1, &head);
      if (!blockformat::HasSignature(head)) throw Error();
    }
    // Whether a block encodes back to the bytes read matters only to a
    // writer (a block that does not counts as changed); a reader takes
    // every block as matching.
    bool exact = readOnly;
    const boost::shared_ptr<DirBlock> first = LoadDirBlock(1, readOnly ? nullptr : &exact);
    if (first == nullptr) {
      if (status != ZoStreamE::StatusPastEnd) return status;
      status = ZoStreamE::StatusOk;  // an empty file: no directory yet
    } else {
      LoadDirectoryChain(first, exact);
    }
    directoryDirty = false;
    if (mode != ZoStreamE::OpenReadOnly) {
      // A list that does not match was left by a session that did not
      // close (or the file is damaged): the scan then records the links,
      // and the chains are mended before anything else is written.
      const bool cleanEnd = ListMatchesDirectory();
      recordLinks = !cleanEnd && !readOnly;
      if (LoadBlockMap() == ZoStreamE::StatusFailed) throw Error();
      recordLinks = false;
      haveOpenDigest = false;
      if (!cleanEnd && !readOnly && !savedMapTaken) {
        DropMark();
        RepairChains();
      }
      mended = !cleanEnd && !readOnly && !dirBlocks.empty();
      scannedLinks.clear();
      scannedLinks.shrink_to_fit();
      DropDanglingEntries();
      CheckDirBlocksAgainstMap();
      StartSession(cleanEnd && !readOnly);
    }
    ZoString::SetStr(fileName, ZoGetCanonicalPath(path).c_str());
    // After an unfinished session (the list out of step) the close saves a
    // map that matches again, repaired or not: later opens trust it.
    blocksWritten = mended;
    return status;
  } catch (const Error&) {
    Close();
    Fail();
    return status;
  }
}

void BlockFileCore::LoadDirectoryChain(const boost::shared_ptr<DirBlock>& first, bool exact) {
  AppendDirBlock(first, exact, 1);  // marks its number in isDirBlock, as each one after it
  for (std::uint32_t next = first->nextBlock; next != 0;) {
    if (next > BlockCount()) {
      // A link to a directory block that never reached the file (a run
      // that failed or was killed as the directory grew): the chain ends
      // here. The record no longer matches the file, so a writer writes it
      // back cut, and the saved map, whose digest covers the link, is not
      // trusted.
      dirBlocks.back()->nextBlock = 0;
      MarkDirBlockChanged(static_cast<std::uint32_t>(dirBlocks.size() - 1));
      break;
    }
    boost::shared_ptr<DirBlock> block;
    const bool seen = next < isDirBlock.size() && isDirBlock[next];
    if (!seen) block = LoadDirBlock(next, readOnly ? nullptr : &exact);
    if (block == nullptr) {
      // An unreadable or looping directory chain: nothing of this file may be
      // written back, and the failure leaves Open as a thrown status.
      Fail();
      throw ZoStreamE::StatusFailed;  // NOLINT(misc-throw-by-value-catch-by-reference): an enumerator is a value; Open is documented to throw this Status
    }
    AppendDirBlock(block, exact, next);
    next = block->nextBlock;
  }
}

Status BlockFileCore::LoadBlockMap() {
  savedMapTaken = ReadFreeList();
  if (savedMapTaken) return ZoStreamE::StatusOk;
  status = ZoStreamE::StatusOk;
  return ScanBlockHeads();
}

Status BlockFileCore::ScanBlockHeads() {
  blockMap.Reset();
  unsigned char raw[blockformat::kBlockSize];
  const std::uint32_t count = BlockCount();
  if (recordLinks) scannedLinks.assign(static_cast<std::size_t>(count) + 1, 0);
  for (std::uint32_t k = 1; k <= count; ++k) {
    blockformat::BlockHead head;
    if (!file->ReadBlock(k, raw)) {
      Fail();
      return status;
    }
    blockformat::DecodeHead(raw, &head);
    if (head.blockNumber != k || !blockformat::HasSignature(head)) {
      Fail();
      return status;
    }
    blockMap.SetBlock(static_cast<std::int32_t>(k), head.inUse);
    if (recordLinks) scannedLinks[k] = head.nextBlock;
  }
  return status;
}

bool BlockFileCore::FlushFile() {
  if (file && !file->Flush()) {
    Fail();
    return false;
  }
  return true;
}

Status BlockFileCore::Close() {
  const Status result = status;
  // A session whose writes failed (a full disk, an I/O error) writes no
  // directory at its close; what it did write is mended as soon as the
  // file is closed, by an open for writing of its own (see MendAfterFailure).
  std::string mendPath;
  if (status == ZoStreamE::StatusFailed && !readOnly && blocksWritten && fileName != nullptr &&
      !mending) {
    mendPath = fileName;
  }
  // A batch still open ends with the file: its deferred flush point first,
  // as the close of the last holder would have found it made.
  if (batchDepth > 0 && status == ZoStreamE::StatusOk) FinishBatch();
  batchDepth = 0;
  batchFlushDue = false;
  if (status == ZoStreamE::StatusOk) {
    if (!readOnly && directoryDirty) {
      WriteChangedDirBlocks();
      directoryDirty = false;
      if (status == ZoStreamE::StatusOk) FlushFile();
    }
    if (blocksWritten) WriteFreeList();
    ClearMark();
  }
  // Whatever was queued goes out as the file closes, as a buffered file
  // stream would do at its destruction.
  if (file) file->Flush();
  file.reset();
  fileSize = 0;
  status = ZoStreamE::StatusNotOpen;
  blockMap.Reset();
  delete[] fileName;
  fileName = nullptr;
  cipher.reset();
  blocksWritten = false;
  linkSource.clear();
  linkCensus = {};
  savedMapTaken = false;
  cleanAtOpen = false;
  markOnDisk = false;
  DirectoryReachedFile();
  if (!mendPath.empty()) MendAfterFailure(mendPath);
  return result;
}

// The failed session left its mark (or a directory that no longer matches
// the saved map), so an open for writing scans the heads and mends the
// chains, and its close writes the directory and a saved map that match
// again. On a full disk these writes land in place and need no new room.
// If the file cannot be opened or written now, the next open for writing
// does the same.
void BlockFileCore::MendAfterFailure(const std::string& path) {
  BlockFileCore mender;
  mender.mending = true;
  try {
    if (mender.Open(path.c_str(), ZoStreamE::OpenReadWrite) == ZoStreamE::StatusOk) mender.Close();
  } catch (...) {  // a directory that cannot be read: left for the next open
  }
}

void BlockFileCore::Release(const char* streamName) {
  if (streamName != nullptr) {
    auto it = openStreams.find(streamName);
    if (it != openStreams.end() && --it->second == 0) openStreams.erase(it);
  }
  if (--refCount != 0) return;
  FileServer::Instance()->Unregister(this);
  openStreams.clear();
  delete this;
}
