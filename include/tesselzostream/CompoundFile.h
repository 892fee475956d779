/// @file
/// CompoundFile: the application's handle on a compound file.
///
/// A compound file keeps many named byte streams in one file of 1024-byte
/// blocks. A handle holds one reference on the process-wide engine object of
/// its path: two handles opened on one path share one engine, and the file
/// stays open until the last handle and the last stream on it have gone. The
/// last holder's release writes the directory and the saved block map.
///
/// Ownership: streams returned by GetIOStream belong to the caller, who
/// deletes them; deleting a stream closes it. DirEntry pointers and names
/// handed out stay valid until the last holder of the file has gone.
///
/// Copying: the copy constructor and operator= copy the pointer only, without
/// a new reference; of a handle and its copies only one may be closed or
/// destroyed with the file in it (the others must be reopened or left alone).
///
/// Thread safety: several threads may read different streams of one file at
/// once. Every write, open, close and delete on one file, each handle and
/// each stream, belongs to one thread at a time; that is the caller's duty.
///
/// Reporting: Status values, bool and null. Open may also throw two things
/// out of the engine: a ZoStreamE::Status (value StatusFailed) when a
/// directory block after the first cannot be read, and a
/// boost::filesystem::filesystem_error if the size of the file cannot be had.
#ifndef TESSELZOSTREAM_COMPOUNDFILE_H_
#define TESSELZOSTREAM_COMPOUNDFILE_H_

#include <cstddef>
#include <istream>
#include <string>

#include "tesselzostream/Compaction.h"
#include "tesselzostream/DirEntry.h"
#include "tesselzostream/Export.h"
#include "tesselzostream/Status.h"

class BlockFileCore;

/// The application's handle on a compound file. Sharing, ownership,
/// copying, thread rules and reporting: see CompoundFile.h.
class TZ_EXPORT CompoundFile {
 public:
  /// A handle without a file.
  CompoundFile();
  /// A handle on the file of `other`, without a new reference (see
  /// CompoundFile.h on copying).
  /// REQUIRES: of `other` and its copies, only one is closed or destroyed
  /// while it holds the file.
  CompoundFile(const CompoundFile& other);
  /// Gives up the handle's reference, if it has a file; the last holder's
  /// release closes the file.
  ~CompoundFile();
  /// Takes the file of `other` without a new reference, and without giving
  /// up the reference of the file this handle held before.
  /// REQUIRES: as for the copy constructor.
  CompoundFile& operator=(const CompoundFile& other);

  /// Opens or creates the file at `name`. A missing file is created empty.
  /// A handle that already has a file releases it first, also when the new
  /// open fails. If another handle of this process holds the path, this
  /// handle joins it and the first open's mode stands (see IsReadOnly).
  /// Returns the file's status, or StatusNotOpen when the file cannot be
  /// opened, is locked by anybody else, or is no compound file.
  ZoStreamE::Status Open(const char* name, ZoStreamE::OpenMode mode);

  /// Gives up this handle's reference and returns the status the file had at
  /// the call. StatusNotOpen without a file. The file itself is closed, with
  /// its directory and saved block map written, when its last holder goes.
  ZoStreamE::Status Close();

  /// The file's status; StatusNotOpen without a file.
  ZoStreamE::Status GetStatus() const;
  /// True when the file was opened read-only (by the first open of its path
  /// in this process); false without a file.
  bool IsReadOnly() const;
  /// Canonical path of the file; null without a file.
  const char* GetCompoundFileName() const;

  /// @name Iteration
  /// Iteration over every stream in use, in directory order, the saved
  /// block-map stream among them. Null at the end and without a file.
  /// @{

  /// The first entry in use; `cursor` then marks it for the next call. Null
  /// also for a null `cursor`.
  const DirEntry* GetFirstDirEntry(unsigned long* cursor) const;
  /// The next entry in use after the one `cursor` marks; `cursor` moves on
  /// to it. Null also for a null `cursor`.
  const DirEntry* GetNextDirEntry(unsigned long* cursor) const;
  /// As GetFirstDirEntry, but gives the entry's name.
  const char* GetFirstDirName(unsigned long* cursor) const;
  /// As GetNextDirEntry, but gives the entry's name.
  const char* GetNextDirName(unsigned long* cursor) const;
  /// @}

  int GetNumDirEntrys() const;   ///< streams in use; 0 without a file
  int GetNumUsedBlocks() const;  ///< 0 for a file opened read-only and without a file

  /// True when a stream of that name exists; names compare without regard to
  /// ASCII case. False for null or over-long names and without a file.
  bool Exists(const char* name) const;
  /// The first entry in use, in directory order, whose name equals `name`
  /// without regard to ASCII case: what a walk with GetFirstDirEntry would
  /// find first, through the name index. Null when there is none.
  const DirEntry* FindDirEntry(const char* name) const;

  /// Writes the directory if it changed since it was last written. Inside a
  /// batch, waits for its end.
  void Flush();

  /// @name Whole streams
  /// @{

  /// Writes `size` bytes from `data` as stream `name`: what
  /// GetIOStream(name, "wb"), one write of the bytes and deleting the stream
  /// do, with the same bytes on disk, and false where that would fail (no
  /// file, read-only, a null or over-long name, a failed write, more bytes
  /// than a stream holds).
  /// REQUIRES: `data` points to `size` bytes (it may be null for 0).
  bool WriteStream(const char* name, const void* data, std::size_t size);
  /// The whole of stream `name` into `out`; false when it is missing or a
  /// read fails (the file's status then says why). Several threads may read
  /// streams of one file this way at once, as with block streams.
  bool ReadStream(const char* name, std::string& out);
  /// @}

  /// @name Batches
  /// A batch defers the flush points of stream closes and of Flush: between
  /// BeginBatch and the matching EndBatch nothing need reach the file, and
  /// EndBatch (or the file's close) makes the last of them. The file's bytes
  /// after EndBatch are those the same calls leave without a batch after
  /// their last flush point. A batch belongs to the file: all handles on one
  /// path share it, and calls nest by count. A process killed inside a
  /// batch leaves a file that opens (the next open for writing mends it), in
  /// which every stream finished before BeginBatch reads back as it was;
  /// streams finished inside it may be missing or old.
  /// @{

  /// Begins a batch (or one more level of it) and returns the file's
  /// status. StatusFailed, with the status unchanged, on a file opened
  /// read-only; the status, and no batch, when it is not StatusOk;
  /// StatusNotOpen without a file.
  ZoStreamE::Status BeginBatch();
  /// Ends one level; the outermost end makes the deferred flush point.
  /// Returns the file's status; StatusFailed, with the status unchanged,
  /// when no batch is open; StatusNotOpen without a file.
  ZoStreamE::Status EndBatch();
  /// @}

  /// Releases the stream's blocks and frees its entry. False when the name
  /// is missing, the file is read-only, or a block cannot be freed.
  bool DeleteCFFile(const char* name);

  /// A seekable, binary iostream on the named stream, or null.
  /// mode "rb": an existing stream, read; "r+b": an existing stream, read and
  /// overwrite or grow; "wb": a new empty stream, replacing one of that name.
  /// Null for a missing name with "r", for a null, empty or over-long name,
  /// for "w" on a read-only file, for any other mode text, and without a
  /// file. A mode text without "b" gives a stream with badbit set.
  /// The mode texts "rb" and "r+b" give the same stream: both may write.
  /// A seek beyond the end extends the stream's chain with zero-filled
  /// blocks at once (its size changes only when something is written).
  /// Failures show as badbit; the cause is in GetStatus(). One exception:
  /// once the file's status has failed, a seek throws std::ios_base::failure
  /// from the stream's device, which seekg and tellg turn into badbit but
  /// this standard library's seekp and tellp pass on to the caller.
  std::basic_iostream<char>* GetIOStream(const char* name, const char* mode);

  /// @name Compaction in place and scrubbing
  /// Two passes over the blocks that no stream holds. Both need a file
  /// opened for writing, with no stream of it open and no batch running;
  /// otherwise they return StatusFailed and change nothing, not even the
  /// file's status (StatusNotOpen without a file, the status when it has
  /// failed; StatusPasswordNeeded is no failure here, and stays). Neither
  /// needs the password of an encrypted file: a payload's
  /// cipher does not depend on the block it lies in, so blocks move
  /// verbatim, and the file stays encrypted. Both first walk every chain
  /// from the directory; a chain that leaves the file, loops, shares a block
  /// with another or runs through a block whose head is not its own is
  /// refused in the same way, before anything is written. Like every write,
  /// neither may run beside any other call on the file, reads included:
  /// blocks change their numbers under them.
  ///
  /// Both end by writing the directory and the saved block map as a close
  /// writes them: a process that ends right after needs no repair at its
  /// next open. A process killed while either runs leaves a file that opens
  /// and in which every stream reads back as before; at worst copies of
  /// moved blocks are left that no chain holds, which the next open for
  /// writing frees.
  /// @{

  /// Moves the used blocks at the end of the file into the lowest free
  /// blocks, relinks them, and cuts the file after its last used block.
  /// Extra disk space: none beyond the saved block map's chain, which
  /// goes after the last used block.
  ///
  /// `maxMoves` bounds the blocks moved by this call (0: no bound), so that
  /// an application may compact a little at a time; a later call goes on
  /// where this one stopped. `callback`, when given, is called with
  /// `context` after each batch of moves and may stop the run by returning
  /// false. `progress`, when given, receives the final count (`finished`
  /// tells whether the file is now compact). A run that stops early leaves
  /// the free blocks it did not reach as they were, old bytes included (see
  /// ScrubFreeBlocks); a run that finishes leaves no free block in the
  /// file. Returns the file's status.
  /// REQUIRES: no other call on this file runs meanwhile, on any thread;
  /// `callback` does not use the file.
  ZoStreamE::Status CompactInPlace(CompactProgress* progress = nullptr, std::uint32_t maxMoves = 0,
                                   CompactCallback callback = nullptr, void* context = nullptr);

  /// Overwrites every block that no stream holds with the bytes of a
  /// skipped block (its head, in use 0, no link, length and payload zero),
  /// so that deleted content cannot be read back from the file; blocks
  /// that hold those bytes already are left alone. Used blocks are not
  /// touched, and every stream reads back as before. `scrubbed`, when
  /// given, receives the number of free blocks overwritten (the saved block
  /// map's old chain, cleared too and written anew, is not counted).
  /// Returns the file's status.
  /// REQUIRES: no other call on this file runs meanwhile, on any thread.
  ZoStreamE::Status ScrubFreeBlocks(std::uint32_t* scrubbed = nullptr);
  /// @}

  /// @name Encryption
  /// Encryption under a password. Encrypt enciphers every stream (after
  /// deciphering it first if the file is already encrypted, which needs the
  /// old password given); Decrypt turns the file clear again; SetPassword
  /// unlocks an encrypted file after Open, false for a wrong password.
  /// Encrypt on a file that has no stream yet (no directory to hold the
  /// flag), or with a null password, returns StatusFailed and changes
  /// nothing, not even the file's status. Streams are enciphered in place;
  /// a pass that fails half-way marks the file so that no open accepts it.
  /// The scheme keeps casual readers out and nothing more: an unsalted digest
  /// of the password is stored in the file and the cipher runs in ECB mode.
  /// @{

  /// Enciphers every stream under `password` and returns the file's status.
  /// A file opened read-only gets the status StatusFailed. StatusNotOpen
  /// without a file.
  ZoStreamE::Status Encrypt(const char* password);
  /// Turns an encrypted file clear again and returns the file's status. A
  /// clear file is left as it is. An encrypted file opened read-only gets
  /// the status StatusFailed; without the password given, the status becomes
  /// StatusPasswordNeeded. StatusNotOpen without a file.
  ZoStreamE::Status Decrypt();
  /// Unlocks an encrypted file after Open with `password`. False for a
  /// wrong or null password and for a file whose status has failed; true
  /// for a file that is not encrypted and for a handle without a file.
  bool SetPassword(const char* password);
  /// True when the file's status is StatusOk, it holds a stream and its
  /// flag says encrypted (so false once the status is StatusPasswordNeeded).
  bool IsEncrypted() const;
  /// @}

 private:
  friend class CompundFileBase;
  // Makes this handle hold the file of `other` with a reference of its own
  // (none without a file), giving up the one it held. Safe when both are
  // one handle or hold one file.
  void ShareFrom(const CompoundFile& other);

  BlockFileCore* core_;
};

#endif  // TESSELZOSTREAM_COMPOUNDFILE_H_
