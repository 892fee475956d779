// BlockMap: which blocks of a compound file are in use, one byte a block.
//
// All allocation goes through the map; it never touches the file. Numbers
// handed out are always the lowest free ones, so a file fills its holes
// before it grows.
//
// Invariants:
// (1) 0 <= highest <= capacity; the table holds capacity + 1 bytes and its
//     bytes above highest are 0. Index 0 stands for no block.
// (2) nextFree >= 1, and every block from 1 to nextFree - 1 is in use or
//     lies above highest: nextFree is the lowest free number, or beyond
//     highest when no known block is free.
// (3) Capacity doubles up to 10000 and grows by 10000 above that, or to a
//     request + 10 when the step falls short.
// (4) The storage behind the table (room_ bytes) is at least capacity + 1
//     and grows geometrically, so that a file of n blocks costs O(n) copying
//     whatever steps the capacity takes; bytes above highest are 0 in all of
//     it.
//
// Thread safety: none; the engine's writer owns it.
#ifndef TESSELZOSTREAM_BLOCKSTORE_BLOCKMAP_H_
#define TESSELZOSTREAM_BLOCKSTORE_BLOCKMAP_H_

#include <cstdint>
#include <memory>

class BlockMap {
 public:
  BlockMap();  // as Reset()

  // Back to a new map: highest 0, nextFree 1, capacity 110.
  void Reset();

  // Widens the table so that it holds index n.
  void Grow(std::int32_t n);
  // Steps nextFree to the next free number (or highest + 1).
  void AdvanceCursor() {
    ++nextFree_;
    while (nextFree_ <= highest_ && table_[nextFree_] != 0) ++nextFree_;
  }
  // Records the inUse byte of block n (n >= 1); 0 frees it.
  void SetBlock(std::int32_t n, std::uint8_t value) {
    if (n > capacity_) Grow(n);
    if (n > highest_) highest_ = n;
    table_[n] = value;
    if (n < nextFree_ && value == 0) nextFree_ = n;
    if (n == nextFree_ && value != 0) AdvanceCursor();
  }
  // Takes the lowest free number and marks it used.
  std::int32_t AllocBlock() {
    const std::int32_t n = nextFree_;
    if (n > highest_) {
      if (n > capacity_) Grow(n);
      highest_ = n;
    }
    AdvanceCursor();
    SetBlock(n, 1);
    return n;
  }
  // Takes over `table`, h + 1 bytes read from a saved map (h >= 0).
  void AdoptTable(std::unique_ptr<std::uint8_t[]> table, std::int32_t h);
  // Blocks from 1 to highest whose byte is not 0.
  std::int32_t CountUsed() const;

  std::int32_t capacity() const { return capacity_; }
  std::int32_t highest() const { return highest_; }
  std::int32_t nextFree() const { return nextFree_; }
  // The byte of block n; 0 above highest. REQUIRES: n >= 0.
  std::uint8_t Get(std::int32_t n) const { return n <= highest_ ? table_[n] : 0; }
  // Bytes 0..highest, for saving.
  const std::uint8_t* table() const { return table_.get(); }

 private:
  std::unique_ptr<std::uint8_t[]> table_;
  std::size_t room_ = 0;  // bytes allocated behind table_
  std::int32_t capacity_;
  std::int32_t highest_;
  std::int32_t nextFree_;
};

#endif  // TESSELZOSTREAM_BLOCKSTORE_BLOCKMAP_H_
