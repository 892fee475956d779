/// @file
/// The facts of the compound-file format that callers may rely on: sizes of
/// blocks and payloads, entries per directory block, the longest stream
/// name, and the name the library keeps for its saved block map.
///
/// The block store's codec checks at compile time that it lays blocks out
/// by these very numbers, so they cannot drift apart.
#ifndef TESSELZOSTREAM_FORMATFACTS_H_
#define TESSELZOSTREAM_FORMATFACTS_H_

#include <cstdint>

/// Facts of the compound-file format.
namespace tzformat {

/// Bytes of every block; a compound file's length is a whole number of them.
constexpr std::uint32_t kBlockSize = 1024;
/// Stream bytes a data block holds.
constexpr std::uint32_t kPayloadSize = 1003;
/// Directory entries a directory block holds.
constexpr std::uint32_t kEntriesPerDirBlock = 3;
/// The longest stream name, in bytes, without its terminating zero.
constexpr std::uint32_t kMaxNameLength = 256;
/// The stream in which a close saves the block map. It is listed among a
/// file's streams and rewritten at every close that wrote anything; a
/// caller's stream of that name is overwritten.
constexpr char kFreeListName[] = "zorvanet_block_file_free_list";

/// What every block carries at kBlockSignatureOffset, and the first block
/// of every compound file at kFileSignatureOffset too, each with a zero
/// after it: enough to recognise a compound file without opening it.
constexpr char kBlockSignature[] = "BlockFile";
/// Where kBlockSignature lies in every block.
constexpr std::uint32_t kBlockSignatureOffset = 5;
/// What every directory block carries, the first block of the file among them.
constexpr char kFileSignature[] = "ZoCompoundFile";
/// Where kFileSignature lies in a directory block.
constexpr std::uint32_t kFileSignatureOffset = 970;

/// Blocks of the chain of a stream of `size` bytes: every stream has one
/// block even when empty, and a chain may hold more than this.
constexpr std::uint64_t ChainBlocks(std::uint64_t size) { return size / kPayloadSize + 1; }

}  // namespace tzformat

#endif  // TESSELZOSTREAM_FORMATFACTS_H_
