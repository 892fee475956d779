// DirectoryIndex: fast answers about a directory held in memory.
//
// Slots number the entries across the directory: slot = 3 * (index of the
// block in the chain) + (entry within the block). The index answers, in
// O(1) on average:
//   - the first slot in use, in directory order, under an ASCII-folded name;
//   - the block the next new entry goes to: the last block (in chain order)
//     that still has a free entry;
//   - how many entries are in use.
// It keeps no copy of a name: it holds the pointer it was given with each
// slot in use, and hashes of the folded names in an open-addressed table
// (linear probing, at most half full), so that a look-up allocates nothing
// and a directory costs a few bytes a slot. The engine tells it every
// change of an entry between free and in use.
//
// REQUIRES: the name given with EntryUsed stays valid, with the same
// folded text, until EntryFreed of that slot (the directory's records never
// move while the file is open).
//
// Thread safety: none; it changes only with the directory, under the
// writer's exclusive use.
#ifndef TESSELZOSTREAM_BLOCKSTORE_DIRECTORYINDEX_H_
#define TESSELZOSTREAM_BLOCKSTORE_DIRECTORYINDEX_H_

#include <cstdint>
#include <vector>

class DirectoryIndex {
 public:
  void Clear();

  // A block joins the end of the chain with all its entries free.
  void AddBlock();
  void EntryUsed(std::uint32_t slot, const char* name);
  void EntryFreed(std::uint32_t slot, const char* name);

  // The first slot in use under `name` (compared without ASCII case).
  bool Find(const char* name, std::uint32_t* slot) const;
  // The index of the last block with a free entry; false when none has one.
  bool LastBlockWithFree(std::uint32_t* block) const;
  std::uint32_t InUse() const { return inUse_; }

 private:
  // A slot in use (slot + 1; 0 marks an empty cell) and the low 32 bits of
  // its folded name's hash, which also pick the cell a probe starts at.
  struct Cell {
    std::uint32_t slotPlusOne;
    std::uint32_t hash;
  };
  static std::uint32_t Hash(const char* name);
  std::uint32_t Mask() const { return static_cast<std::uint32_t>(cells_.size() - 1); }
  void Insert(Cell cell);
  void Grow();
  void SetHasFree(std::uint32_t block, bool hasFree);

  std::vector<Cell> cells_;              // a power of two, or empty
  std::vector<const char*> names_;       // by slot: the name of a slot in use
  std::vector<std::uint8_t> freeCount_;  // per block
  std::vector<std::uint64_t> hasFree_;   // bit per block: a free entry left
  std::uint32_t blocksWithFree_ = 0;     // bits set in hasFree_
  std::uint32_t inUse_ = 0;
};

#endif  // TESSELZOSTREAM_BLOCKSTORE_DIRECTORYINDEX_H_
