/// @file
/// OutputStreamDirectory, InputStreamDirectory: sub-streams found by a 16-bit
/// id inside one seekable standard stream.
///
/// The writer reserves a table of fixed capacity N where it starts, notes
/// where each sub-stream begins while the caller writes, and fills the table
/// in at Close. The reader reads the table and places the stream at the start
/// of a sub-stream on request. Any seekable stream will do: a file, a string
/// stream, a block stream of a compound file. Sub-streams store no length of
/// their own; each carries the caller's framing.
///
/// Layout from the position P where the writer was constructed (numbers
/// little-endian, two or four bytes):
///
///     P            2    the bytes "xA", no terminator
///     P + 2        2    capacity N, at most kMaxSlots
///     P + 4        2    count: slots in use
///     P + 6        2N   ids, ascending (equal ids allowed) in the first count
///     P + 6 + 2N   4N   offsets: stream positions, offsets[i] belongs to ids[i]
///     P + 6 + 6N   4    end position: the stream position behind the last
///                       sub-stream
///     P + 10 + 6N       the sub-streams, in the order they were written
///
/// Positions are the stream's own (tellp), low 32 bits, not relative to P, so
/// a directory may follow other data; beyond the first 4 GiB of a stream the
/// stored positions are cut to their low 32 bits and the reader goes where
/// they say. The slots from count to N - 1 mean nothing. Until Close the head
/// reads count = N, zero ids and offsets, and end position P + 2.
///
/// What the reader checks, and where (so a damaged or hostile stream never
/// makes it overrun its arrays or seek outside the stream; anything else in
/// the table is taken as it stands):
/// - Open: the magic; a short read; N <= kMaxSlots, before the ids and
///   offsets are read into the arrays; count <= N, since the slots beyond N
///   were not read and hold nothing of this table. A table that was never
///   closed passes all of these and opens.
/// - GetInput: the offset against the stream's end (as Open measured it,
///   once), before the seek.
/// - Close: the end position against the stream's end, before the seek.
///
/// Ids that do not ascend are not refused; the search over them is defined,
/// but it may miss an id that is stored.
///
/// Ownership: neither class owns its stream; the stream must outlive the
/// directory's use of it (until Close or the destructor).
///
/// Thread safety: none. A directory and its stream belong to one thread at a
/// time.
///
/// Reporting: bool, null and the stream's state bits; nothing is thrown here
/// (the stream itself may throw if the caller enabled exceptions on it). A
/// stream buffer that throws from a seek, as a block stream of a failed
/// compound file does, leaves the stream with badbit.
#ifndef TESSELZOSTREAM_STREAMDIRECTORY_H_
#define TESSELZOSTREAM_STREAMDIRECTORY_H_

#include <cstdint>
#include <istream>
#include <ostream>

#include "tesselzostream/Export.h"

/// The writer: sub-streams by a 16-bit id, with a table of fixed capacity
/// in front of them. Layout and rules: see StreamDirectory.h.
class TZ_EXPORT OutputStreamDirectory {
 public:
  /// The most slots a numbered directory holds.
  static constexpr std::uint16_t kMaxSlots = 80;

  /// Writes the head and an empty table of `capacity` slots at the stream's
  /// position; the stream then stands at the first data byte.
  /// A capacity above kMaxSlots is refused: nothing is written, badbit is set
  /// on the stream, and the directory counts as closed.
  /// REQUIRES: `stream` is seekable and outlives the directory.
  OutputStreamDirectory(std::ostream& stream, std::uint16_t capacity);
  /// Runs Close and never throws: a failure shows in the stream's state
  /// only, also on a stream with exceptions enabled.
  ~OutputStreamDirectory();
  /// Not copyable.
  OutputStreamDirectory(const OutputStreamDirectory&) = delete;
  /// Not assignable.
  OutputStreamDirectory& operator=(const OutputStreamDirectory&) = delete;

  /// Starts sub-stream `id` at the stream's position and gives the stream to
  /// write it to. If nothing was written since the last GetOutput, that slot
  /// is taken over (its old id is dropped). When all N slots hold data (the
  /// caller asked for more than the capacity) or the directory is closed,
  /// badbit is set on the stream and no slot is taken.
  std::ostream& GetOutput(std::uint16_t id);

  /// Drops a last sub-stream that has no bytes, sorts the slots by id,
  /// rewrites the table and leaves the stream behind the last sub-stream, so
  /// another item may follow. Runs once; later calls do nothing. The state of
  /// the stream is not looked at: a failed write shows in the stream's bits.
  void Close();

 private:
  void WriteDirectory(std::ostream& stream);

  std::uint32_t directoryPosition;  // right behind the magic
  std::ostream* stream;
  bool closed;
  std::uint16_t count;
  std::uint16_t capacity;
  std::uint32_t offsets[kMaxSlots];
  std::uint16_t ids[kMaxSlots];
};

/// The reader of what OutputStreamDirectory writes. Checks and rules: see
/// StreamDirectory.h.
class TZ_EXPORT InputStreamDirectory {
 public:
  /// Clears the fields and runs Open; its result shows in the stream's state
  /// and in what GetInput gives.
  /// REQUIRES: `stream` is seekable and outlives the directory and its copies.
  explicit InputStreamDirectory(std::istream& stream);
  /// Runs Close and never throws: a failure shows in the stream's state
  /// only, also on a stream with exceptions enabled.
  ~InputStreamDirectory();
  /// Copies work on the same stream; Close of either moves it.
  InputStreamDirectory(const InputStreamDirectory&) = default;
  /// Takes over the other reader's table and stream; both then work on the
  /// same stream.
  InputStreamDirectory& operator=(const InputStreamDirectory&) = default;

  /// Reads the head and the table at the stream's position. True with the
  /// stream at the first data byte. False when already open (nothing
  /// changes); false with badbit set for a state bit set on entry, a wrong
  /// magic, a short read, a stored capacity above kMaxSlots, or a count
  /// above the capacity (slots beyond it were not read); these two are
  /// refused the way a short read is. Offsets, the end position and the
  /// order of the ids are not looked at here, so a directory that was never
  /// closed opens (with the zero slots that the writer here leaves: N ids 0
  /// at offset 0). After false, GetInput gives null. Needs no seek and no
  /// size of the stream.
  bool Open(std::istream& stream);

  /// The stream, placed at the first byte of sub-stream `id`, or null when
  /// the directory is not open, the stream has a state bit set, or the
  /// search over the first count ids (by halving) finds no slot with the id
  /// (the stream is then untouched). Seeks only when the stream stands
  /// elsewhere; an offset beyond the stream's end, or a stream that cannot
  /// tell its position or size, counts as a failed seek: badbit and null,
  /// the stream not moved. Of two slots with one id, either may be found;
  /// of ids stored out of order, some may not be found.
  std::istream* GetInput(std::uint16_t id);

  /// Places the stream at the end position, behind the directory's data,
  /// so the next item can be read (eofbit is cleared first, as seekg does).
  /// An end position beyond the stream's end gets failbit, as a failed seek
  /// would, and the stream is not moved. Does nothing when not open.
  void Close();

 private:
  static bool CheckMagicString(std::istream& stream);
  // Reads capacity, count, ids and offsets; false when the read came up
  // short, the capacity is above kMaxSlots or the count above the capacity.
  bool ReadOffsetIDVector(std::istream& stream, std::uint16_t& capacity);

  std::istream* stream;
  std::uint32_t endPosition;
  std::uint16_t count;
  std::uint16_t ids[OutputStreamDirectory::kMaxSlots];
  std::uint32_t offsets[OutputStreamDirectory::kMaxSlots];
  bool isOpen;
  // The stream's end as Open found it, or the largest value when the stream
  // could not tell; every seek of the reader stays at or below it.
  std::uint64_t streamEnd;
};

#endif  // TESSELZOSTREAM_STREAMDIRECTORY_H_
