// BlockGraph: which blocks of a compound file the directory holds, and
// what links to each, as the heads and the directory tell. It is the model
// that compaction in place plans its moves with, and that scrubbing asks
// which blocks nothing holds.
//
// It is built in three steps: SetHead for every block of the file, then
// HoldDirectory with the directory chain, then HoldChain for every entry
// in use. A block is held when the directory chain or an entry's chain
// reaches it, following links to the end of the chain (beyond what the
// entry's size needs: those blocks are the stream's too). Every other
// block is free to reuse, whatever its head says: a block whose head says
// in use that no chain reaches was left by a run that did not finish.
//
// Invariants:
// (1) Every held block has one holder: the block whose link names it (a
//     data block, or the directory block before it in the directory chain),
//     an entry slot for a chain's first block, or none for block 1.
// (2) No block is held twice: HoldChain refuses a chain that reaches a held
//     block (two chains sharing one, or a loop), a block past the end, or a
//     block whose head does not carry its own number and the signature. A
//     graph with a refused chain is not to be planned with.
// (3) After a batch of moves (NextMoves, then ApplyMoves), the graph says
//     what the file says once the batch has been copied and relinked: the
//     destinations are held with the links and holders of the blocks they
//     copy, the sources are free.
//
// Costs: 9 bytes per block; building is linear in the blocks; the move
// cursors only move one way, so planning every batch of a whole compaction
// together is linear too.
//
// Thread safety: none.
#ifndef TESSELZOSTREAM_BLOCKSTORE_BLOCKGRAPH_H_
#define TESSELZOSTREAM_BLOCKSTORE_BLOCKGRAPH_H_

#include <cstdint>
#include <vector>

#include "blockstore/BlockFormat.h"

class BlockGraph {
 public:
  // A holder that is an entry slot rather than a block carries this bit.
  static constexpr std::uint32_t kEntryHolder = 0x80000000u;

  struct Move {
    std::uint32_t from;  // a held block
    std::uint32_t to;    // the free block below it that takes its bytes
  };

  // A graph of a file of `blocks` blocks, every one free and unseen.
  explicit BlockGraph(std::uint32_t blocks);

  std::uint32_t blocks() const { return blocks_; }

  // What block n's head says; `skipped`: the block holds exactly the bytes
  // of a skipped block (nothing to scrub). REQUIRES: 1 <= n <= blocks().
  void SetHead(std::uint32_t n, const blockformat::BlockHead& head, bool skipped);

  // Holds the directory chain, in chain order. False when a number lies
  // past the end or comes twice.
  bool HoldDirectory(const std::vector<std::uint32_t>& chain);
  // Holds the chain of the entry in `slot` from `first` on. False, with
  // the blocks it reached still held, at a block past the end, one held
  // already, or one whose head is not its own (see invariant 2).
  bool HoldChain(std::uint32_t slot, std::uint32_t first);

  bool Held(std::uint32_t n) const { return (state_[n] & kHeld) != 0; }
  bool IsDirectory(std::uint32_t n) const { return (state_[n] & kDirectory) != 0; }
  bool UsedInHead(std::uint32_t n) const { return (state_[n] & kUsedInHead) != 0; }
  bool Skipped(std::uint32_t n) const { return (state_[n] & kSkipped) != 0; }
  std::uint32_t Next(std::uint32_t n) const { return next_[n]; }
  // The holder of a held block (invariant 1); 0 for block 1.
  std::uint32_t Holder(std::uint32_t n) const { return holder_[n]; }

  // Marks the chain from `first` on, as far as no chain holds its blocks,
  // as the saved block map's (held by nothing: it is written anew).
  void MarkSavedMap(std::uint32_t first);
  bool InSavedMap(std::uint32_t n) const { return (state_[n] & kSavedMap) != 0; }
  // Block n, held by nothing, now holds the bytes of a skipped block.
  void MarkSkipped(std::uint32_t n) { state_[n] = kSkipped; }

  std::uint32_t HeldCount() const { return held_; }
  // The highest held block; 0 when none is.
  std::uint32_t HighestHeld() const;
  // Held blocks above HeldCount(): what a whole compaction moves.
  std::uint32_t CountToMove() const;

  // The next at most `limit` moves: the highest held blocks, paired in
  // ascending order with the lowest free blocks below them, sorted by
  // `from`. Empty when no held block lies above a free one.
  std::vector<Move> NextMoves(std::uint32_t limit);
  // Where `n` goes in `moves` (sorted by from), or n itself.
  static std::uint32_t Destination(const std::vector<Move>& moves, std::uint32_t n);
  // Records `moves`, as NextMoves gave them, as made (invariant 3).
  void ApplyMoves(const std::vector<Move>& moves);

 private:
  static constexpr std::uint8_t kHeld = 1, kDirectory = 2, kUsedInHead = 4, kSkipped = 8,
                                kSoundHead = 16, kSavedMap = 32;
  void Hold(std::uint32_t n, std::uint32_t holder, bool directory);

  std::uint32_t blocks_;
  std::uint32_t held_ = 0;
  std::vector<std::uint8_t> state_;     // by block number, 0 unused
  std::vector<std::uint32_t> next_;     // the link each head carries
  std::vector<std::uint32_t> holder_;   // see Holder
  std::uint32_t low_ = 1;               // no free block lies below it
  std::uint32_t high_;                  // no held block lies above it
};

#endif  // TESSELZOSTREAM_BLOCKSTORE_BLOCKGRAPH_H_
