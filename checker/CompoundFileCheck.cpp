// The read-only consistency check. It reads the file through its own
// BlockIO (never through an engine, which would repair what it finds) and
// decodes every record with the block format's own functions.
//
// Walks and their bounds: the directory walk and every chain walk stop at
// the first block that some walk already took, so together they take each
// block at most once; the scan of heads reads each block once more, and the
// saved map is read once. Memory: three bits per block, the directory
// blocks, the saved map (at most a byte per block of the file), and the
// block numbers of the chain being walked (each a block the file holds).
#include "tesselzostream/CompoundFileCheck.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "blockstore/DirectoryDigest.h"
#include "blockstore/PayloadCipher.h"
#include "blockstore/BlockFormat.h"
#include "blockstore/BlockIO.h"
#include "checker/ReadOnlyFile.h"
#include "utility/Env.h"

namespace bf = blockformat;

namespace {


std::string Quoted(const std::string& name) { return "\"" + name + "\""; }

class Checker {
 public:
  Checker(BlockIO* io, CheckReport* report) : io_(io), r_(*report) {}

  void Run(const char* password) {
    held_.assign(static_cast<std::size_t>(r_.blocks) + 1, false);
    holder_.assign(static_cast<std::size_t>(r_.blocks) + 1, std::string());
    inChain_.assign(static_cast<std::size_t>(r_.blocks) + 1, false);
    isDir_.assign(static_cast<std::size_t>(r_.blocks) + 1, false);
    if (!WalkDirectory()) return;
    CheckPassword(password);
    for (std::size_t b = 0; b < dir_.size(); ++b) {
      for (std::uint32_t e = 0; e < bf::kEntriesPerBlock; ++e) CheckEntry(b, e);
    }
    ScanHeads();
    CheckSavedMap();
  }

 private:
  void Problem(CheckProblem::Kind kind, std::uint32_t block, const std::string& stream,
               const std::string& text) {
    ++r_.problemCount;
    if (r_.problems.size() < CheckReport::kMaxListedProblems) {
      r_.problems.push_back(CheckProblem{kind, block, stream, text});
    }
  }

  bool Read(std::uint32_t n, unsigned char* raw) {
    if (io_->ReadBlock(n, raw)) return true;
    r_.opened = false;
    r_.openError = "read error at block " + std::to_string(n);
    return false;
  }

  // The directory chain from block 1. A block that is not a directory block
  // ends the walk: its entries would be noise.
  bool WalkDirectory() {
    if (r_.blocks == 0) return true;  // an empty compound file: no directory, no streams
    std::uint32_t from = 0;
    for (std::uint32_t n = 1; n != 0;) {
      if (n > r_.blocks) {
        Problem(CheckProblem::kDirectoryLink, from, "",
                "directory block " + std::to_string(from) + " links to block " + std::to_string(n) +
                    ", past the end of the file");
        break;
      }
      if (held_[n]) {
        Problem(CheckProblem::kDirectoryLoop, from, "",
                "directory block " + std::to_string(from) + " links back to directory block " +
                    std::to_string(n));
        break;
      }
      std::unique_ptr<unsigned char[]> raw(new unsigned char[bf::kBlockSize]);
      if (!Read(n, raw.get())) return false;
      std::unique_ptr<bf::DirBlock> block(new bf::DirBlock);
      bf::InitDirBlock(block.get());
      const bool decoded = bf::DecodeDirBlock(raw.get(), block.get());
      if (block->blockNumber != n || !bf::HasSignature(*block) || !decoded) {
        Problem(CheckProblem::kDirectoryBlock, n, "",
                "block " + std::to_string(n) + " of the directory chain is not a directory block");
        break;
      }
      if (n == 1) r_.unfinished = bf::HasUnfinishedMark(*block);
      held_[n] = true;
      isDir_[n] = true;
      ++r_.heldBlocks;
      ++r_.directoryBlocks;
      from = n;
      n = block->nextBlock;
      dir_.push_back(std::move(block));
      rawDir_.push_back(std::move(raw));
    }
    return true;
  }

  void CheckPassword(const char* password) {
    if (dir_.empty() || (dir_[0]->flags & bf::kFlagEncrypted) == 0) return;
    if (password == nullptr) {
      r_.password = CheckReport::kNoPassword;
      return;
    }
    MD5 digest(password);
    if (std::memcmp(digest.GetRawDigest(), dir_[0]->passwordDigest, bf::kDigestSize) == 0) {
      r_.password = CheckReport::kPasswordRight;
      cipher_ = bf::MakeCipher(password);
    } else {
      r_.password = CheckReport::kPasswordWrong;
      Problem(CheckProblem::kPassword, 1, "", "the password given is not the file's");
    }
  }

  void CheckEntry(std::size_t b, std::uint32_t e) {
    const DirEntry& entry = dir_[b]->entries[e];
    if (entry.firstBlock == 0 || !r_.opened) return;
    ++r_.streams;
    const unsigned char* rawName = rawDir_[b].get() + bf::kOffEntries + std::size_t{e} * bf::kEntrySize + bf::kOffName;
    const std::string name = entry.name;
    const std::uint32_t dirBlock = dir_[b]->blockNumber;
    if (std::memchr(rawName, 0, DirEntry::kNameSize) == nullptr) {
      Problem(CheckProblem::kEntryName, dirBlock, name,
              "an entry of directory block " + std::to_string(dirBlock) + " has a name without its end");
    } else if (name.empty()) {
      Problem(CheckProblem::kEntryName, dirBlock, name,
              "an entry of directory block " + std::to_string(dirBlock) + " is in use without a name");
    }
    // The engine takes the first entry under the free list's exact name.
    const bool freeList = !freeListSeen_ && std::strcmp(entry.name, bf::kFreeListName) == 0;
    freeListSeen_ = freeListSeen_ || freeList;
    WalkChain(name, entry.firstBlock, entry.size, freeList);
  }

  // One stream's chain. Each block it takes is marked held; the walk stops
  // at the first block it cannot take.
  void WalkChain(const std::string& name, std::uint32_t first, std::uint32_t size, bool freeList) {
    unsigned char raw[bf::kBlockSize];
    chain_.clear();
    std::uint32_t from = 0;
    bool ended = false;
    // Where the link being followed was read; only built for a problem.
    auto where = [&from] { return from == 0 ? std::string("the entry") : "block " + std::to_string(from); };
    for (std::uint32_t n = first; n != 0;) {
      if (n > r_.blocks) {
        Problem(CheckProblem::kChainLink, from, name,
                "stream " + Quoted(name) + ": " + where() + " links to block " + std::to_string(n) +
                    ", past the end of the file");
        break;
      }
      if (inChain_[n]) {
        Problem(CheckProblem::kChainLoop, from, name,
                "stream " + Quoted(name) + ": " + where() + " links back to block " + std::to_string(n) +
                    " of the same chain");
        break;
      }
      if (held_[n]) {
        Problem(CheckProblem::kClaimedTwice, n, name,
                "stream " + Quoted(name) + ": block " + std::to_string(n) +
                    " is held by another chain too");
        break;
      }
      if (!Read(n, raw)) return;
      bf::DataBlock block;
      bf::DecodeDataBlock(raw, &block);
      if (block.blockNumber != n || !bf::HasSignature(block)) {
        Problem(CheckProblem::kHead, n, name,
                "stream " + Quoted(name) + ": block " + std::to_string(n) +
                    " has a wrong number or signature in its head");
        break;
      }
      if (block.inUse == 0) {
        Problem(CheckProblem::kFreeInHead, n, name,
                "stream " + Quoted(name) + ": block " + std::to_string(n) + " is free by its head");
      }
      if (block.usedLength > bf::kPayloadSize) {
        Problem(CheckProblem::kUsedLength, n, name,
                "stream " + Quoted(name) + ": block " + std::to_string(n) + " has a used length of " +
                    std::to_string(block.usedLength));
      }
      held_[n] = true;
      holder_[n] = name;
      inChain_[n] = true;
      ++r_.heldBlocks;
      chain_.push_back(n);
      from = n;
      n = block.nextBlock;
      ended = n == 0;
    }
    for (std::uint32_t n : chain_) inChain_[n] = false;
    const std::uint64_t needed = size / bf::kPayloadSize + 1;
    if (ended && chain_.size() < needed) {
      Problem(CheckProblem::kChainShort, chain_.empty() ? 0 : chain_.back(), name,
              "stream " + Quoted(name) + ": " + std::to_string(chain_.size()) +
                  " blocks hold fewer than the " + std::to_string(needed) + " its size of " +
                  std::to_string(size) + " bytes needs");
    }
    if (freeList && ended) freeListChain_ = chain_;
  }

  // Every block once more, in order: heads that say "in use" where no chain
  // holds the block, heads that are not heads at all, and skipped blocks.
  void ScanHeads() {
    unsigned char raw[bf::kBlockSize];
    unsigned char skipped[bf::kBlockSize];
    for (std::uint32_t n = 1; n <= r_.blocks && r_.opened; ++n) {
      if (!Read(n, raw)) return;
      bf::BlockHead head;
      bf::DecodeHead(raw, &head);
      const bool sound = head.blockNumber == n && bf::HasSignature(head);
      if (sound && head.inUse != 0) ++r_.usedInHeads;
      if (held_[n]) continue;
      if (!sound) {
        Problem(CheckProblem::kHead, n, "",
                "block " + std::to_string(n) + " has a wrong number or signature in its head");
      } else if (head.inUse != 0) {
        ++r_.unreachedBlocks;
        Problem(CheckProblem::kUnreached, n, "",
                "block " + std::to_string(n) + " is in use by its head, but no chain holds it");
      } else {
        bf::EncodeSkippedBlock(n, skipped);
        if (std::memcmp(raw, skipped, bf::kBlockSize) == 0) ++r_.skippedBlocks;
      }
    }
  }

  // The payload of a block of the free-list chain, deciphered if need be.
  bool ReadMapPayload(std::uint32_t n, bf::DataBlock* block) {
    unsigned char raw[bf::kBlockSize];
    if (!Read(n, raw)) return false;
    bf::DecodeDataBlock(raw, block);
    if (cipher_) {
      cipher_->Decrypt(block->payload,
                       static_cast<unsigned>(bf::CipherLength(block->usedLength)));
    }
    return true;
  }

  void CheckSavedMap() {
    if (!r_.opened || freeListChain_.empty()) return;
    if (r_.password == CheckReport::kNoPassword || r_.password == CheckReport::kPasswordWrong) {
      r_.savedMap = CheckReport::kMapUnread;
      return;
    }
    bf::DataBlock block;
    if (!ReadMapPayload(freeListChain_[0], &block)) return;
    unsigned char saved[bf::kDigestSize];
    std::uint32_t highest = 0;
    bf::DecodeFreeListHead(block.payload, saved, &highest);
    MD5 md5;
    for (const auto& dirBlock : dir_) bf::FeedDirectoryDigest(md5, *dirBlock);
    md5.Finalize();
    // An open for writing trusts the map only under a matching digest and a
    // highest block within the file; otherwise it rebuilds the map.
    if (std::memcmp(saved, md5.GetRawDigest(), bf::kDigestSize) != 0 || highest > r_.blocks) {
      r_.savedMap = CheckReport::kMapStale;
      return;
    }
    r_.savedMap = CheckReport::kMapCurrent;
    // Map byte i lies in the chain's k-th payload: the first holds bytes
    // 0..982 from offset 20, each further one 1003 bytes.
    std::vector<bool> used(static_cast<std::size_t>(highest) + 1, false);
    std::uint32_t next = 0;
    for (std::size_t k = 0; k < freeListChain_.size() && next <= highest; ++k) {
      if (k != 0 && !ReadMapPayload(freeListChain_[k], &block)) return;
      const std::uint32_t offset = k == 0 ? bf::kOffListMap : 0;
      for (std::uint32_t at = offset; at < bf::kPayloadSize && next <= highest; ++at) {
        used[next++] = block.payload[at] != 0;
      }
    }
    // Directory blocks are set right by every open for writing, whatever
    // the map says; a stream's block is not.
    for (std::uint32_t n = 1; n <= r_.blocks; ++n) {
      if (held_[n] && !isDir_[n] && (n > highest || n >= next || !used[n])) {
        Problem(CheckProblem::kSavedMap, n, holder_[n],
                "block " + std::to_string(n) +
                    " is held by a chain but free in the saved block map, which the next writer trusts");
      }
    }
  }

  BlockIO* io_;
  CheckReport& r_;
  std::vector<bool> held_;     // taken by the directory or a chain
  std::vector<std::string> holder_;  // the stream whose chain took the block
  std::vector<bool> inChain_;  // taken by the chain being walked
  std::vector<bool> isDir_;    // a block of the directory chain
  bool freeListSeen_ = false;
  std::vector<std::uint32_t> chain_;
  std::vector<std::uint32_t> freeListChain_;
  std::vector<std::unique_ptr<bf::DirBlock>> dir_;
  std::vector<std::unique_ptr<unsigned char[]>> rawDir_;
  std::unique_ptr<BlowFish::Context> cipher_;
};

}  // namespace

CheckReport CheckCompoundFile(const char* path, const char* password) {
  CheckReport report;
  std::uint64_t length = 0;
  const std::unique_ptr<BlockIO> io = checker::OpenForReading(path, &report.openError, &length);
  report.fileLength = length;
  if (!io) return report;
  report.opened = true;
  report.blocks = static_cast<std::uint32_t>(length / bf::kBlockSize);
  if (length % bf::kBlockSize != 0) {
    ++report.problemCount;
    report.problems.push_back(CheckProblem{
        CheckProblem::kFileLength, 0, "",
        "the file's length, " + std::to_string(length) + " bytes, is not a whole number of blocks"});
  }
  Checker(io.get(), &report).Run(password);
  return report;
}
