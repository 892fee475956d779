/// @file
/// CompoundFileCheck: a read-only consistency check of a compound file.
///
/// CheckCompoundFile opens the file for reading, reads every block at most
/// a fixed number of times and reports what it finds, with block numbers.
/// It never writes, creates or truncates anything: a missing path is
/// reported, not created.
///
/// What it looks at:
///   - the file's length (a whole number of 1024-byte blocks);
///   - the directory chain from block 1: block numbers, signatures, links
///     past the end, loops;
///   - every entry in use: its name, and its stream's chain: heads whose
///     number or signature is wrong, blocks whose head calls them free,
///     links past the end, loops, blocks another chain already holds, and a
///     chain shorter than the entry's size needs (a chain holds at least
///     floor(size / 1003) + 1 blocks; a longer one is allowed);
///   - blocks whose head says "in use" that no chain reaches, and skipped
///     blocks (the filler written when a write lands beyond the end);
///   - the saved block map (the free-list stream): present or not, whether
///     its digest matches the directory (only then does an open for writing
///     trust it), and, when it does, whether it calls any block free that a
///     chain holds, which would let that block be handed out twice;
///   - the mark of a session that did not finish (`unfinished`), whose
///     traces the next open for writing mends;
///   - the encrypted flag, and whether `password` (when given) matches the
///     digest the file keeps. The saved map of an encrypted file is read
///     only under the right password.
///
/// Guarantees: it never crashes, hangs or allocates without bound on any
/// input. Time is linear in the file's length; memory is a few bits per
/// block of the file plus at most kMaxListedProblems problems (the rest are
/// counted, not listed).
///
/// Thread safety: calls on different files may run at once. The check holds
/// the file's lock while it runs, as any open does, so the file cannot be
/// opened elsewhere meanwhile (and a file open elsewhere cannot be checked).
#ifndef TESSELZOSTREAM_COMPOUNDFILECHECK_H_
#define TESSELZOSTREAM_COMPOUNDFILECHECK_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tesselzostream/Export.h"

/// One problem CheckCompoundFile found.
struct TZ_EXPORT CheckProblem {
  /// What is wrong.
  enum Kind {
    kFileLength,       ///< the length is not a whole number of blocks
    kDirectoryBlock,   ///< a directory block with a wrong number or signature
    kDirectoryLink,    ///< the directory chain links past the end of the file
    kDirectoryLoop,    ///< the directory chain comes back to one of its blocks
    kEntryName,        ///< an entry in use whose name is empty or unterminated
    kHead,             ///< a stream block whose number or signature is wrong
    kFreeInHead,       ///< a stream block whose head says it is free
    kUsedLength,       ///< a stream block whose used length exceeds 1003
    kChainLink,        ///< a stream chain links past the end of the file
    kChainLoop,        ///< a stream chain comes back to one of its blocks
    kClaimedTwice,     ///< a block held by two chains
    kChainShort,       ///< a chain with fewer blocks than its size needs
    kUnreached,        ///< a block whose head says in use, that no chain holds
    kSavedMap,         ///< the trusted saved map calls a held block free
    kPassword          ///< the password given does not match the file's
  };
  Kind kind;            ///< what is wrong
  std::uint32_t block;  ///< the block concerned, 0 when none
  std::string stream;   ///< the stream concerned, empty when none
  std::string text;     ///< one line, for people
};

/// What CheckCompoundFile found in one file.
struct TZ_EXPORT CheckReport {
  /// The state of the saved block map (the free-list stream).
  enum SavedMapState {
    kMapMissing,  ///< no free-list stream: the next open rebuilds the map
    kMapStale,    ///< its digest does not match the directory: rebuilt too
    kMapCurrent,  ///< its digest matches: an open for writing trusts it
    kMapUnread    ///< encrypted, and no right password to read it with
  };
  /// The encrypted flag, and how the password given compares with it.
  enum PasswordState {
    kNotEncrypted,   ///< the file is not encrypted
    kNoPassword,     ///< encrypted, and no password given
    kPasswordWrong,  ///< encrypted, and the password given is not the file's
    kPasswordRight   ///< encrypted, and the password given is the file's
  };
  /// The most problems listed in `problems`; the rest are only counted.
  static constexpr std::size_t kMaxListedProblems = 1000;

  bool opened = false;     ///< false: the file could not be opened or read
  std::string openError;   ///< why not, when !opened
  std::uint64_t fileLength = 0;       ///< the file's length in bytes
  std::uint32_t blocks = 0;           ///< whole blocks in the file
  std::uint32_t directoryBlocks = 0;  ///< blocks of the directory chain
  std::uint32_t streams = 0;          ///< entries in use, the free list too
  std::uint32_t heldBlocks = 0;       ///< blocks held by some chain
  std::uint32_t usedInHeads = 0;      ///< blocks whose head says in use
  /// Blocks that no chain holds, whose head says free, and that hold exactly
  /// the filler written when a write lands beyond the end.
  std::uint32_t skippedBlocks = 0;
  /// Blocks whose head says in use that no chain holds (each one is also a
  /// kUnreached problem): what a run that did not finish leaves, and the
  /// next open for writing frees.
  std::uint32_t unreachedBlocks = 0;
  SavedMapState savedMap = kMapMissing;     ///< the saved block map's state
  /// The file carries the mark of a session that wrote to it and did not
  /// finish (killed before it wrote its directory): what that session left
  /// out of step (blocks it freed or took, links it wrote) is listed among
  /// the problems, and the next open for writing mends it.
  bool unfinished = false;
  PasswordState password = kNotEncrypted;  ///< the encrypted flag and password
  std::vector<CheckProblem> problems;  ///< in the order found
  std::uint64_t problemCount = 0;      ///< listed and unlisted

  /// True when the file was opened and read and no problem was found.
  bool Sound() const { return opened && problemCount == 0; }
};

/// Checks the compound file at `path`; `password` may be null.
TZ_EXPORT CheckReport CheckCompoundFile(const char* path, const char* password = nullptr);

#endif  // TESSELZOSTREAM_COMPOUNDFILECHECK_H_
