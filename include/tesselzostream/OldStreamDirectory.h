/// @file
/// OldOutputStreamDirectory, OldInputStreamDirectory: sub-streams found by a
/// short name inside one seekable standard stream.
///
/// The writer puts a small head where it starts, lets the caller write the
/// sub-streams one after another and appends a table of names and positions
/// behind them at Close, so the directory has no fixed capacity. The reader
/// finds the table through the head and places the stream at a sub-stream on
/// request. Any seekable stream will do. Sub-streams store no length of their
/// own; each carries the caller's framing.
///
/// Layout from the position P where the writer was constructed (numbers
/// little-endian, four bytes):
///
///     P        12   magic: 01 'S' 't' 'r' 'e' 'a' 'm' 02 'D' 'i' 'r' 00
///     P + 12   4    table position D; 0 until Close
///     P + 16   4    reserved, 0
///     P + 20        the sub-streams, in the order they were written
///     D        4    count
///     D + 4    16   per entry: 4 bytes stream position of the sub-stream's
///                   first byte, 12 bytes name (at most 11 characters,
///                   zero-filled)
///
/// The item ends at D + 4 + 16 * count. Positions are the stream's own
/// (tellp), low 32 bits, not relative to P; beyond the first 4 GiB of a
/// stream they are cut to their low 32 bits and the reader goes where they
/// say. The table is sorted by the 32-bit hash of the name (unsigned), then
/// by the name's bytes (unsigned); the hash is not stored but recomputed.
/// Names longer than 11 characters are cut to 11, when written and when
/// looked up.
///
/// What the reader checks, and where (so a damaged or hostile stream never
/// makes it allocate beyond the stream's size or seek outside the stream;
/// anything else in the table is taken as it stands):
/// - Open: the magic; D, before the seek to it: not 0 and not beyond the
///   stream's end; the count, before room is taken for the table: its
///   entries fit between D + 4 and the stream's end; a short read. Each
///   name in memory is zero-terminated within its 12 bytes (byte 11 of a
///   stored name is taken as 0 whatever it holds).
/// - GetInput: the entry's position against the stream's end (as Open
///   measured it, once), before the seek.
///
/// A table may stand anywhere in the stream, and entries may point anywhere
/// in it, the head and the table included.
///
/// Ownership: neither class owns its stream; the stream must outlive the
/// directory's use of it. Copies of a reader share one table through a
/// shared pointer: closing or destroying one leaves the others working.
///
/// Thread safety: none. A directory and its stream belong to one thread at a
/// time.
///
/// Reporting: bool, null and the stream's state bits; nothing is thrown here
/// beyond std::bad_alloc (and what the stream throws if the caller enabled
/// exceptions on it). A stream buffer that throws from a seek, as a block
/// stream of a failed compound file does, leaves the stream with badbit.
#ifndef TESSELZOSTREAM_OLDSTREAMDIRECTORY_H_
#define TESSELZOSTREAM_OLDSTREAMDIRECTORY_H_

#include <cstdint>
#include <istream>
#include <ostream>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "tesselzostream/Export.h"

/// One table entry in memory.
struct NamedEntry {
  std::uint32_t offset;  ///< stream position of the sub-stream
  std::uint32_t hash;    ///< hash of the name
  char name[12];         ///< at most 11 characters, always zero-terminated
};

/// The writer: sub-streams by a short name, with the table appended behind
/// them at Close. Layout and rules: see OldStreamDirectory.h.
class TZ_EXPORT OldOutputStreamDirectory {
 public:
  /// Writes the head at the stream's position; the stream then stands at the
  /// first data byte.
  /// REQUIRES: `stream` is seekable and outlives the directory and its copies.
  explicit OldOutputStreamDirectory(std::ostream& stream);
  /// A second writer on the same stream and head: each copy closes by itself
  /// and appends its own table, and the head names the last one closed.
  OldOutputStreamDirectory(const OldOutputStreamDirectory&) = default;
  /// Not assignable.
  OldOutputStreamDirectory& operator=(const OldOutputStreamDirectory&) = delete;
  /// Runs Close and never throws: a failure shows in the stream's state
  /// only, also on a stream with exceptions enabled.
  ~OldOutputStreamDirectory();

  /// Starts the sub-stream `name` (cut to 11 characters) at the stream's
  /// position and gives the stream to write it to. If nothing was written
  /// since the last GetOutput, that entry is taken over (its old name is
  /// dropped). A null name, or a call after Close, sets badbit on the stream
  /// and makes no entry. Two entries may share a name; GetInput then finds
  /// either.
  std::ostream& GetOutput(const char* name);

  /// Drops a last sub-stream that has no bytes, appends the sorted table,
  /// points the head at it and leaves the stream behind the table, so
  /// another item may follow. Runs once; later calls do nothing. The state
  /// of the stream is not looked at: a failed write shows in its bits.
  void Close();

 private:
  std::uint32_t tablePosition;  // of the head's table-position field
  std::ostream* stream;
  bool closed;
  std::vector<NamedEntry> entries;
};

/// The reader of what OldOutputStreamDirectory writes. Checks and rules:
/// see OldStreamDirectory.h.
class TZ_EXPORT OldInputStreamDirectory {
 public:
  /// Closed; Open gives it a stream.
  OldInputStreamDirectory();
  /// Runs Open; its result shows in the stream's state and in what GetInput
  /// gives.
  /// REQUIRES: `stream` is seekable and outlives the directory and its copies.
  explicit OldInputStreamDirectory(std::istream& stream);
  /// Copies share the stream and the table.
  OldInputStreamDirectory(const OldInputStreamDirectory&) = default;
  /// Shares the stream and the table of the other reader.
  OldInputStreamDirectory& operator=(const OldInputStreamDirectory&) = default;
  /// Runs Close and never throws: a failure shows in the stream's state
  /// only, also on a stream with exceptions enabled.
  ~OldInputStreamDirectory();

  /// Reads the head and the table at the stream's position. True when the
  /// table was taken, with the stream behind it. False when already open
  /// (nothing changes); false with badbit set for a state bit set on entry,
  /// a wrong magic, a short read, a stream that cannot tell its position or
  /// size, a table position beyond the stream's end or of 0, and a count
  /// whose entries the stream cannot hold (refused rather than allocated).
  /// A table position of 0 is left by a writer that never closed; no table
  /// can stand there, since a table follows a head of 20 bytes, and what
  /// stands at 0 is refused rather than read as one. After false the object
  /// is closed. Costs one read of the table and a sort: O(count log count).
  bool Open(std::istream& stream);

  /// The stream, placed at the first byte of sub-stream `name` (cut to 11
  /// characters), or null when the directory is not open, the name is null,
  /// the stream has a state bit set, or the table has no such name (the
  /// stream is then untouched). The seek is always made; a failed one, an
  /// entry's position beyond the stream's end, or a stream that cannot tell
  /// its position or size, gives badbit and null (the stream not moved in
  /// the last two cases). Of two entries with one name, either may be found.
  /// A binary search on the hashes: O(log count).
  std::istream* GetInput(const char* name);

  /// Places the stream behind the table, so the next item can be read, and
  /// drops this object's hold on the table. Does nothing when not open.
  void Close();

  /// True when the stream holds the magic at its position. The stream's
  /// position and state are as they were, whatever it holds (also when it is
  /// shorter than the magic). False for a stream with a state bit set.
  /// REQUIRES: the stream object itself is not const (it is read and
  /// seeked back).
  static bool IsStreamDirectory(const std::istream& stream);

 private:
  static bool CheckMagicString(std::istream& stream);
  // Seeks to D = `tableAt` and reads the table there, sorted; null when D
  // or the count fails the checks of Open or the read comes up short.
  // `streamEnd` is the position one behind the stream's last byte.
  static boost::shared_ptr<std::vector<NamedEntry>> ReadTable(
      std::istream& stream, std::uint64_t streamEnd, std::uint32_t tableAt);

  std::istream* stream;
  std::uint32_t endPosition;  // behind the table
  boost::shared_ptr<std::vector<NamedEntry>> entries;  // non-null while open
  std::uint64_t end;  // the stream's end as Open found it; seeks stay below
};

#endif  // TESSELZOSTREAM_OLDSTREAMDIRECTORY_H_
