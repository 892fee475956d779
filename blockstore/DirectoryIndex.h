// DirectoryIndex: fast answers about a directory held in memory.
//
// Slots number the entries across the directory: slot = 3 * (index of the
// block in the chain) + (entry within the block). The index answers, in
// O(1) on average:
//   - the first slot in use, in directory order, under an ASCII-folded name;
//   - the block the next new entry goes to: the last block (in chain order)
//     that still has a free entry;
//   - how many entries are in use.
// It knows nothing of the records themselves; the engine tells it every
// change of an entry between free and in use.
//
// Thread safety: none; it changes only with the directory, under the
// writer's exclusive use.
#ifndef TESSELZOSTREAM_BLOCKSTORE_DIRECTORYINDEX_H_
#define TESSELZOSTREAM_BLOCKSTORE_DIRECTORYINDEX_H_

#include <cstdint>
#include <string>
#include <unordered_map>
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
  // The slots of one key in directory order: the first inline (most keys
  // have one), any others in `more`, ascending.
  struct Slots {
    std::uint32_t first;
    std::vector<std::uint32_t> more;
  };
  static std::string Key(const char* name);
  void SetHasFree(std::uint32_t block, bool hasFree);

  std::unordered_map<std::string, Slots> byName_;
  std::vector<std::uint8_t> freeCount_;  // per block
  std::vector<std::uint64_t> hasFree_;   // bit per block: a free entry left
  std::uint32_t blocksWithFree_ = 0;     // bits set in hasFree_
  std::uint32_t inUse_ = 0;
};

#endif  // TESSELZOSTREAM_BLOCKSTORE_DIRECTORYINDEX_H_
