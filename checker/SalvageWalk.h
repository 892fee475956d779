// SalvageWalk: the reading half of SalvageCompoundFile (see Salvage.h for
// what is taken and how it is named). It walks the damaged file through a
// BlockIO, never writing it, and writes what it takes into a CompoundFile.
//
// Order of the walks, each block taken by the first that reaches it:
//   1. the directory chain from block 1 (block 1 is never data, whatever
//      it holds; when only its file signature is spoilt, its flag is read
//      and its entries wait for step 4);
//   2. the streams of its entries, up to their sizes, in directory order;
//      then the rest of each whole stream's chain (taken, not copied), so
//      that the blocks a chain holds beyond its size are not found again
//      as chains without an entry;
//   3. one scan of every block: heads in use, their links, and blocks the
//      directory chain did not reach that look like directory blocks;
//   4. the entries of those blocks (and of such a block 1), as in 2;
//   5. the chains without an entry, by their first blocks in file order.
//
// Invariants: (1) owner_[n] is 0 until one walk takes block n, and never
// changes afterwards, so every walk ends within the file's block count and
// each block is copied at most once. (2) Every block is read at most once
// by walks 1, 2 and 4 together, once by the scan, once by step 5 and once
// more when it looks like a directory block.
//
// Ownership: borrows the BlockIO and the report for its life. Thread
// safety: one thread.
#ifndef TESSELZOSTREAM_CHECKER_SALVAGEWALK_H_
#define TESSELZOSTREAM_CHECKER_SALVAGEWALK_H_

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <unordered_set>
#include <vector>

#include "blockstore/BlockFormat.h"
#include "blockstore/BlockIO.h"
#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/Salvage.h"
#include "utility/BlowFish.h"

class SalvageWalk {
 public:
  // The name of the empty stream an encrypted new file holds while the
  // cipher is switched on; no salvaged stream is saved under it.
  static const char kPlaceholder[];

  // REQUIRES: `io` reads a file of `blocks` whole blocks.
  SalvageWalk(BlockIO* io, std::uint32_t blocks, SalvageReport* report);

  // Step 1 and the password. False, with the report's openError, when the
  // file cannot be read or is encrypted and `password` (may be null) is not
  // its password.
  bool ReadDirectory(const char* password);
  // Steps 2 to 5 into `out`. False, with openError, on a read error of the
  // damaged file or a failed write of `out`.
  // REQUIRES: ReadDirectory gave true.
  bool CopyAll(CompoundFile* out);

 private:
  struct Entry {
    std::string name;
    std::uint32_t first;
    std::uint32_t size;
    bool nameCut;  // the name had no end within its field
    bool taken;    // an earlier entry has the name already
  };
  struct Walked {
    std::uint64_t bytes = 0;
    std::uint32_t blocks = 0;
    std::uint32_t next = 0;  // where the walk stopped with its bytes all taken
    std::string why;         // why it stopped short, empty at a chain's end
    std::string doubt;       // a block taken across a damaged head
  };

  bool Read(std::uint32_t n, unsigned char* raw);
  bool Unlock(const blockformat::DirBlock& first, const char* password);
    void AddEntries(const unsigned char* raw, bool found);
  bool CopyEntries(std::size_t from);
  bool Scan();
  bool ReadFoundDirectories();
  bool CopyOrphans();
  bool Follow(std::uint32_t n, std::uint32_t id, std::uint64_t limit, bool inUseOnly, std::ostream* out,
              Walked* w);
  bool Bridges(std::uint32_t next, std::uint64_t remaining, bool* bridged);
  bool Copy(const std::string& savedAs, std::uint32_t first, std::uint32_t id, std::uint64_t limit,
            bool inUseOnly, Walked* w);
  void ReportEntry(const Entry& e, const std::string& savedAs, const std::string& nameWhy, const Walked& w);
  std::string HolderText(std::uint32_t n) const;
  std::string LostName(std::uint32_t first);
  bool TakeName(const std::string& name);

  BlockIO* io_;
  std::uint32_t blocks_;
  SalvageReport& r_;
  CompoundFile* out_ = nullptr;
  std::unique_ptr<BlowFish::Context> cipher_;
  // Which walk took each block: 0 none, 1 the directory, 2 + k entry k.
  std::vector<std::uint32_t> owner_;
  std::vector<bool> copied_;         // taken by an entry's walk within its size
  // Entries whose copied blocks the walk of a later entry reached within
  // its size: (entry index, the block, the later entry's index). A link of
  // either chain went wrong, so the first cannot be vouched for as whole.
  struct Crossing {
    std::size_t holder;
    std::uint32_t block;
    std::size_t other;
  };
  std::vector<Crossing> crossings_;
  void ReportCrossings();
  std::vector<std::uint32_t> next_;  // links of heads in use (step 3)
  std::vector<bool> inUse_;          // own number, signature, in use
  std::vector<Entry> entries_;
  std::vector<std::uint32_t> found_;  // unreached blocks that look like directory blocks
  std::unordered_set<std::string> names_;  // names given so far, case folded
  bool freeListSeen_ = false;
  bool firstFound_ = false;  // block 1 is read in step 4: only its file signature is spoilt
};

#endif  // TESSELZOSTREAM_CHECKER_SALVAGEWALK_H_
