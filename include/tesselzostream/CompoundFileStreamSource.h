/// @file
/// CompoundFileStreamSource: a compound file edited as a folder of ordinary
/// files.
///
/// On Open the source gets a private working directory. A stream stays in the
/// compound file until it is first used: reading copies it out unchanged into
/// a working file (extraction), writing creates or replaces the working file.
/// The compound file changes only at a copy back (CopyToBlockFile, or Close
/// with SaveChanges on a dirty source); the working directory goes at Close.
/// The application sees one flat set of names: the compound file's streams and
/// the working directory's files, less the names deleted since the last copy
/// back. Where both hold a name, the working file wins.
///
/// Names on disk (the separator is '/'):
///
///     working directory   GetTempFolderName: base folder '/' "_KV_" md5(name);
///                         after Open its canonical form with a trailing '/'
///     working file        working directory name + stream name, concatenated
///     marker              "CouldNotDelete" in a folder DeleteDirectory could
///                         not remove
///
/// What the source knows of a name: whether a working file exists, whether
/// the compound file holds it, and whether it is in the deleted, extracted or
/// temporary set (byte-exact names). States: absent, stored (compound file
/// only), extracted (working file known equal to the stored stream), changed
/// (a working file in no set), deleted, temporary (a working file that the
/// ordinary copy back leaves out).
///
/// Working files and safety. A stream name whose working file would lie
/// outside the working directory is refused by every operation that touches
/// working files: a name with a ".." component, a name that names the folder
/// itself (empty, or only "/" and "." components), and a name with a
/// component that is a symbolic link leading out of the folder. For such a
/// name streams are null, StreamExists is false, GetStreamSize is 0,
/// DeleteSource does nothing, and no file outside the folder is created,
/// written or removed. ExtractAllFiles passes over such a stored stream, and
/// SaveAs (so compaction too) copies it from the compound file straight into
/// the new file, so a hostile compound file can neither make this library
/// write outside the folder nor lose a stream through a rewrite. Names with
/// '/' that stay inside the folder work as plain concatenation: the folders
/// they imply must exist for an output stream to open.
///
/// Reporting: Error values, bool and null; CompactCompoundFile alone throws
/// Exception with a text. boost::filesystem::filesystem_error passes to the
/// caller where noted. CompoundFile::Open may throw a ZoStreamE::Status out of
/// Open.
///
/// Thread rules: GetFileNames takes mFileSetMutex, so two threads may list at
/// once; the sets and flags are otherwise unprotected, and a source belongs
/// to one thread at a time. A set handed out by GetFileNames never changes.
/// The mutex lives in the source's private part (Impl, behind a pointer), so
/// that this header needs no threading header.
#ifndef TESSELZOSTREAM_COMPOUNDFILESTREAMSOURCE_H_
#define TESSELZOSTREAM_COMPOUNDFILESTREAMSOURCE_H_

#include <cstdint>
#include <istream>
#include <memory>
#include <set>
#include <string>

#include <boost/shared_ptr.hpp>

#include "tesselzostream/CompundFileBase.h"
#include "tesselzostream/Export.h"

/// A compound file edited as a folder of ordinary files. Working directory,
/// names on disk, the states of a name, the safety rule, reporting and
/// thread rules: see CompoundFileStreamSource.h.
class TZ_EXPORT CompoundFileStreamSource : public CompundFileBase {
 public:
  /// How Open treats the working directory.
  enum OpenMode : std::int32_t {
    NewDirectory = 0,       ///< create it; it must not exist
    ExistingDirectory = 1,  ///< take it as it stands; it must exist
    NotOpened = 3           ///< the mode before the first successful Open
  };
  /// Whether Close copies the changes back first.
  enum CloseMode : std::int32_t {
    SaveChanges = 0,    ///< copy back first when the source is dirty
    DiscardChanges = 1  ///< copy nothing back; the changes go with the folder
  };
  /// Result of Open, Close, CopyToBlockFile and SaveAs.
  enum Error : std::int32_t {
    NoError = 0,                   ///< done
    DirectoryExists = 1,           ///< NewDirectory found the folder already there
    CompoundFileNotAvailable = 3,  ///< the compound file cannot be opened or written
    StreamWriteFailed = 4,         ///< a block stream cannot be made or written
    DirectoryMissing = 5,          ///< the folder to take as it stands is missing
    DirectoryNotDeleted = 6,       ///< the working directory could not be removed
    FileOperationFailed = 7,       ///< a file system error, an unreadable file, or
                                   ///< SaveAs asked to write over the open file
  };

  /// Stores copies of the two names; opens nothing, touches no file. Null
  /// names are kept as null and make Open fail.
  CompoundFileStreamSource(const char* compoundFileName, const char* directoryName);
  /// Copies nothing back and removes nothing: a source destroyed without
  /// Close leaves its working directory on disk.
  ~CompoundFileStreamSource() override;

  /// Not copyable.
  CompoundFileStreamSource(const CompoundFileStreamSource&) = delete;
  /// Not assignable.
  CompoundFileStreamSource& operator=(const CompoundFileStreamSource&) = delete;

  /// @name Lifecycle
  /// @{

  /// NewDirectory (0): the working directory must not exist and is created
  /// (one level); then the compound file is opened (read-write unless
  /// readOnly). Any other value: the compound file is opened, then the folder
  /// must exist and is taken as it stands. On success the dirty flag and the
  /// deleted and extracted sets are cleared and `mode` is stored. On every
  /// way out both names become canonical (the folder's with a trailing '/'),
  /// and mIsReadOnly takes `readOnly`. Results: NoError, DirectoryExists,
  /// DirectoryMissing (the compound file then stays open),
  /// CompoundFileNotAvailable (any status but 0), FileOperationFailed (a file
  /// system error). A folder made before the compound file failed stays.
  Error Open(OpenMode mode, bool readOnly);
  /// Copies back first when `mode` is SaveChanges and the source is dirty,
  /// and returns that failure at once if there is one (nothing else
  /// happens). Then removes the working directory (DirectoryNotDeleted if
  /// that fails, the file staying open), clears the flag and the sets and
  /// releases the compound file. Names, read-only flag and open mode stay.
  /// A file system error from the copy back passes to the caller.
  Error Close(CloseMode mode, bool copyAll);
  /// Removes the working directory with all it holds; a missing folder is no
  /// failure. On a file system error it leaves an empty "CouldNotDelete" in
  /// what remains (through GetOStream, which sets the dirty flag) and
  /// returns false.
  bool DeleteDirectory();
  /// @}

  /// @name Names and flags
  /// @{
  void SetCompoundFileName(const char* name);  ///< a copy, used by the next Open
  void SetDirectoryName(const char* name);     ///< a copy; nothing is moved
  /// The working directory's name as given; after Open its canonical form
  /// with a trailing '/'.
  const char* GetDirectoryName() const { return mDirectoryName; }
  /// The dirty flag: set by writes and deletions, cleared by a successful
  /// Open, Close, copy back or SaveAs. Close with SaveChanges copies back
  /// only when it is set.
  bool IsDirty() const { return mIsDirty; }
  /// Sets or clears the dirty flag.
  void SetIsDirty(bool dirty) { mIsDirty = dirty; }
  /// Sets the read-only flag, until the next Open sets it from its argument.
  void SetIsReadOnly(bool readOnly) { mIsReadOnly = readOnly; }
  /// The mode of the last successful Open; NotOpened before one.
  OpenMode GetOpenMode() const { return mOpenMode; }

  /// The working directory for a compound file called `name` under
  /// `baseFolder`: baseFolder '/' "_KV_" followed by the MD5 digest of `name`
  /// as it stands. No '/' is added after an empty base or one ending in '/'.
  /// Null texts count as empty.
  static std::string GetTempFolderName(const char* baseFolder, const char* name);
  /// True when `folder` holds a "CouldNotDelete" marker (existence only).
  /// False for a null or empty folder name.
  static bool PreviousDeleteOfTempDirUnsuccessfull(const char* folder);
  /// @}

  /// @name Streams
  /// @{

  /// Working file first, then (unless deleted) the compound file. False when
  /// the working directory's name and `name` together have 260 characters or
  /// more, and for a name refused by the safety rule.
  bool StreamExists(const char* name) const override;
  /// A binary input file stream (a std::ifstream) on the working file,
  /// extracting the stored stream first when there is no working file and
  /// the name isn't deleted; a name extracted here counts as extracted. Null
  /// when there is no such stream or the extraction failed. A folder of that
  /// name opens, and its first read sets badbit. A file system error from
  /// the existence test passes to the caller.
  std::basic_istream<char>* GetIStream(const char* name) const override;
  /// A truncating output file stream (a std::ofstream); the name leaves all three sets (even
  /// if the open then fails) and the source becomes dirty on success.
  std::basic_ostream<char>* GetOStream(const char* name) const override;
  /// A read-write file stream (a std::fstream) at position 0 on the working
  /// file, extracting the stored stream first if there is no working file
  /// (also for a deleted name, whose stored content thus comes back). The
  /// name leaves all three sets; dirty on success; null when there is
  /// nothing to open.
  std::basic_iostream<char>* GetIOStream(const char* name) const override;
  /// As GetOStream, but the name enters the temporary set and the dirty flag
  /// stays as it was.
  std::basic_ostream<char>* GetTempOStream(const char* name) const override;
  /// As GetIOStream, but the name enters the temporary set and the dirty
  /// flag stays as it was.
  std::basic_iostream<char>* GetTempIOStream(const char* name) const override;
  /// Removes the working file (a failure to remove is ignored) and records
  /// the name as deleted; dirty. Nothing happens for a name that doesn't
  /// exist.
  void DeleteSource(const char* name) const override;
  /// Size of the working file, else of the first stored stream whose name
  /// matches without regard to case; 0 for a deleted or unknown name. A
  /// size over 4 GiB is cut to its low 32 bits, as the stat field of the
  /// format's width would be. A file system error passes to the caller.
  std::uint32_t GetStreamSize(const char* name) const;
  /// The working directory's files (not its subfolders) and the compound
  /// file's streams, less the deleted names. Temporary streams, the saved
  /// block map's stream and a marker are listed. A missing or unreadable
  /// working directory throws boost::filesystem::filesystem_error.
  boost::shared_ptr<const std::set<std::string>> GetFileNames() const override;
  /// Always null.
  ZoStreamSource* GetStreamSource(const char* name) const override;
  /// @}

  /// @name Extraction
  /// @{

  /// Extracts every listed name. Ends with false at the first name that
  /// cannot be extracted (a name only in the working directory, the marker,
  /// a stream that fails to read); what was extracted stays. A stored
  /// stream refused by the safety rule is passed over. Changes in working
  /// files of stored streams are overwritten. Enters nothing in the sets and
  /// leaves the dirty flag alone.
  bool ExtractAllFiles() const;
  /// @}

  /// @name Copy back
  /// @{

  /// copyAll false: deletes the recorded deletions from the compound file,
  /// then copies every working file that is in no set (changed) into it in
  /// ascending path order and marks it extracted. copyAll true: copies every
  /// working file in directory order and reads no set. Subfolders and the
  /// marker are skipped. Then the dirty flag goes down and the directory is
  /// flushed. Stops at the first failure with nothing rolled back:
  /// CompoundFileNotAvailable (read-only source, or a file status other than
  /// 0), FileOperationFailed (a working file can't be opened or read),
  /// StreamWriteFailed (the block stream can't be made or written). A file
  /// system error from the directory walk passes to the caller.
  Error CopyToBlockFile(bool copyAll);
  /// @}

  /// @name Whole file
  /// @{

  /// Writes the current streams, as GetFileNames lists them, into a new
  /// unencrypted compound file `newName`, reading each through GetIStream
  /// (so each is extracted if need be), in ascending order; of two names
  /// that differ only in letter case the later replaces the earlier. The
  /// source stays on its own file and is clean afterwards. A listed stream
  /// that no working file can serve (a name the safety rule refuses, a path
  /// of 260 characters or more that extraction refuses) is copied straight
  /// from the compound file, so that no rewrite loses it. A file `newName`
  /// is removed first, so a later failure has destroyed it. Results:
  /// CompoundFileNotAvailable when the new file can't be opened (an empty
  /// or null name among them); FileOperationFailed for a file system error,
  /// a stream that cannot be read, and for `newName` naming the directory
  /// entry of the open compound file itself (checked before anything is
  /// touched, so that file stays as it was; another link to it is another
  /// name, which is replaced) and for a file that another open holds (in
  /// this process or another; it stays as it was); the copy's failure
  /// otherwise. The outcome of
  /// closing the new file is not examined.
  Error SaveAs(const char* newName);
  /// How many bytes a rewrite would gain: the file's size less the blocks the
  /// streams need, counting the deletions and changed working files still
  /// pending. 0 when nothing is to be gained, when the file's size cannot be
  /// read, and for a compound file opened read-only (whose block map is not
  /// loaded and which cannot be compacted anyway). A file system error from
  /// the folder walk passes to the caller.
  unsigned long GetUnUsedFileSpace() const;
  /// Rewrites the file through SaveAs into "kelvoptmpA.zvp" (B, C ... Y: the
  /// first free name) beside it, closes the source (discarding, since the
  /// changes are in the new file), removes the file, renames the new one to
  /// its name and opens it again with a new working directory. Does nothing
  /// for a handle with a bad status or opened read-only. A new file that met
  /// a failed write anywhere (a full disk) does not replace the old one: the
  /// compaction then throws "The file could not be copied" with the dirty
  /// flag as it was before, so no pending change is lost. Throws Exception
  /// with one of: "Temporary file name could not be generated.", "The file
  /// could not be copied", "The old file could not be closed", "The
  /// compacted file could not be opened", "The file could not be
  /// compacted." (a file system error while the old file is still there),
  /// or "The temporary file could not be renamed." followed by `"\nThe new
  /// file name is "` and the temporary file's leaf name when the source
  /// could be reopened on it.
  void CompactCompoundFile();
  /// @}

  /// @name Interface
  /// @{
  bool CleanUp() override;  ///< DeleteDirectory
  void CloseFile() override;  ///< Close(SaveChanges, false), result dropped
  /// The compound file's name: as given, canonical after Open.
  const char* GetStreamFileName() const override { return mCompoundFileName; }
  /// The compound file's name: as given, canonical after Open.
  const char* GetCompoundFileName() const override { return mCompoundFileName; }
  /// The read-only flag: what the last Open was given, or SetIsReadOnly.
  bool IsReadOnly() const override { return mIsReadOnly; }
  /// @}

 private:
  // Full path of the working file of `name`, or false for a name refused by
  // the safety rule.
  // `*unsure`, when given, tells a name the rule refuses (false) from one
  // whose path could not be examined (true).
  bool WorkingFile(const char* name, std::string* path, bool* unsure = nullptr) const;
  // The same, with the folder and the name joined as paths: a separator
  // between them even where the folder's name lacks its trailing '/'.
  bool JoinedWorkingFile(const char* name, std::string* path) const;
  // Copies the stored stream `name` into its working file; true when the
  // file now holds the whole stream. A failed extraction leaves no working
  // file behind.
  bool ExtractFile(const char* name) const;
  void BuildCurrentFileSet() const;
  // SaveAs, telling in `sound` whether every write into the new file went
  // well (compaction replaces the old file only then).
  Error WriteCopy(const char* newName, bool* sound);
  // The stream `name` as SaveAs copies it: GetIStream, or the stored stream
  // itself when no working file can serve it (a name the safety rule
  // refuses, a path too long to extract to). Null when there is none.
  std::istream* OpenForCopy(const char* name);
  // Creates or replaces stream `name` in `target` with the rest of `input`,
  // copied in large chunks until the first short read.
  static Error CopyToBlockFile(CompoundFile& target, std::istream& input, const char* name);

  char* mCompoundFileName;
  char* mDirectoryName;
  mutable bool mIsDirty;
  bool mIsReadOnly;
  std::set<std::string>* mDeletedFiles;
  std::set<std::string>* mExtractedFiles;
  mutable boost::shared_ptr<std::set<std::string>> mCurrentFileSet;
  std::set<std::string>* mTempFiles;
  struct Impl;                  // the mutex of GetFileNames (mFileSetMutex)
  std::unique_ptr<Impl> mImpl;  // owned; never null
  OpenMode mOpenMode;
};

#endif  // TESSELZOSTREAM_COMPOUNDFILESTREAMSOURCE_H_
