/// @file
/// SalvageCompoundFile: copies what can still be read out of a damaged
/// compound file into a new, sound one.
///
/// The damaged file is only read, block by block through the library's own
/// block reader (never opened by the engine, which would mend it in place):
/// its bytes are the same after the call. The new file is made by the
/// public CompoundFile API, so it is sound whatever the input was.
///
/// What goes into the new file:
///   - every stream whose chain holds together as far as its size reaches:
///     whole, byte for byte, under its own name (listed in `whole`);
///   - every other stream with a usable name: the bytes of the part of its
///     chain that holds together (blocks in the file, with their own number
///     and signature in the head, held by no other chain, no loop), cut to
///     the entry's size (listed in `damaged`, with what was lost and why).
///     One exception to "holds together": a block whose head has one of
///     its own number and signature wrong is taken, payload as read, when
///     it links on to a block with a sound head that no chain holds, or
///     ends the stream where its size says; the damage most likely stayed
///     in the head, but as the payload cannot be vouched for, the stream
///     is listed in `damaged` (with nothing lost) and not in `whole`.
///     Nor is a stream whose copied chain runs through a block that a later
///     stream's chain reaches within its size: one of the two took a wrong
///     link, and its bytes from there may be the other's (listed in
///     `damaged` with nothing lost, the other stream named in `why`);
///   - the chains that no entry reaches: a block whose head says in use,
///     with its own number and signature, held by no chain, to which no
///     other such block links, starts one; it is followed as long as it
///     runs through such blocks. Each is stored as
///     "lost+found/block-NNNNNN", NNNNNN its first block's number in at least
///     six decimal digits (listed in `lostAndFound`). Its length is 1003
///     bytes per block but the last, which gives its used length.
///   - not the saved block map: the new file's close writes its own.
///
/// The directory is the chain from block 1, walked as far as it holds (a
/// block without both signatures or with a wrong number ends it); blocks
/// that the walk does not reach but that look like directory blocks (own
/// number, both signatures) are read as directory blocks too, so a broken
/// directory link loses no streams; so is block 1 when its head is sound
/// and only its file signature is spoilt (its encrypted flag is read as
/// well). Their entries are taken only when the name is complete and the
/// first block is a block in use held by no chain.
///
/// Names: a stream keeps its name unless it has none, or one that an
/// earlier entry already has (names compare without regard to ASCII case),
/// or the saved map's: such a stream goes to lost+found under its first
/// block, and is listed in `damaged` with the name it is saved under. A
/// lost+found name that is taken already gets "-2", "-3", ... appended.
///
/// Encryption: an encrypted file is read only with its password (`password`
/// must match the digest the file keeps); without it nothing is written and
/// `openError` says why. The new file is encrypted under the same password,
/// and no payload reaches it in clear: the cipher is switched on while the
/// file holds only an empty placeholder stream, which is deleted at the end.
///
/// The new file: `out` must not exist (a file, folder or link of that name
/// is refused, and so is the damaged file itself); the call creates it and
/// removes it again when it fails half-way. It is built under its final
/// name: a caller that wants no half-built file under that name at any
/// moment builds it under a temporary name and renames it (as tzcf does).
///
/// Bounds: each block of the damaged file is read at most five times; the
/// memory is a few bytes per block (which chain holds it), the directory
/// blocks, the names, and one block buffer; a stream's entry size is never
/// used to size anything. Time is linear in the file's length.
///
/// Reporting: the report, never an exception from the damaged file's bytes.
/// Thread safety: calls on different files may run at once; the damaged
/// file is locked while it is read, as by any open.
#ifndef TESSELZOSTREAM_SALVAGE_H_
#define TESSELZOSTREAM_SALVAGE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tesselzostream/CompoundFileCheck.h"
#include "tesselzostream/Export.h"

/// A stream that the salvage could not copy whole, or a chain it found
/// without an entry.
struct TZ_EXPORT SalvagedStream {
  std::string name;         ///< the entry's name; empty for a lost+found chain
  std::string savedAs;      ///< its name in the new file
  std::uint32_t firstBlock = 0;  ///< the first block of its chain
  std::uint64_t recovered = 0;   ///< bytes written to the new file
  std::uint64_t lost = 0;        ///< bytes of the entry's size not recovered
  std::string why;               ///< one line, for people
};

/// What SalvageCompoundFile did.
struct TZ_EXPORT SalvageReport {
  /// False: the damaged file could not be read (missing, locked, a wrong or
  /// missing password) or the new file could not be written; `openError`
  /// says which, and no new file is left behind.
  bool opened = false;
  std::string openError;  ///< why not, when !opened
  /// The encrypted flag of the damaged file, and the password given.
  CheckReport::PasswordState password = CheckReport::kNotEncrypted;
  std::uint32_t blocks = 0;           ///< whole blocks of the damaged file
  std::uint32_t directoryBlocks = 0;  ///< directory blocks read, chained or found
  std::vector<std::string> whole;     ///< streams copied whole, in directory order
  std::vector<SalvagedStream> damaged;       ///< streams copied in part or renamed
  std::vector<SalvagedStream> lostAndFound;  ///< chains without an entry
  std::uint64_t recoveredBytes = 0;  ///< bytes written, all streams together
  std::uint64_t lostBytes = 0;       ///< bytes the damaged streams' sizes claim beyond those

  /// True when the file was read, the new one written, every entry's stream
  /// copied whole under its own name and no chain was found without an entry.
  bool Complete() const { return opened && damaged.empty() && lostAndFound.empty(); }
  /// True when the damaged file's flag says encrypted.
  bool Encrypted() const { return password != CheckReport::kNotEncrypted; }
};

/// Copies what reads out of the compound file `damaged` into a new compound
/// file `out`, with `password` (may be null) for an encrypted one.
/// REQUIRES: nothing exists at `out` (else refused, nothing written).
TZ_EXPORT SalvageReport SalvageCompoundFile(const char* damaged, const char* out,
                                           const char* password = nullptr);

#endif  // TESSELZOSTREAM_SALVAGE_H_
