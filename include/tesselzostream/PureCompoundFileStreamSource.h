/// @file
/// PureCompoundFileStreamSource: the stream source straight on a compound
/// file, without a working directory.
///
/// A stream is a block stream on the compound file; a write lands in the file
/// and a deletion frees the stream's blocks at once. Nothing can be discarded
/// by closing. What was written is in the file when its stream has been
/// released (which flushes the directory), and at the latest when the file
/// closes.
///
/// A source opened read-only refuses silently: the four writing operations
/// give null and DeleteSource does nothing. Without an open file StreamExists
/// is false, GetFileNames empty, the names null, and streams null.
///
/// mTempFiles records the names last opened through a temporary operation,
/// one entry for all letter cases of a name; nothing else reads it: a
/// temporary stream is an ordinary stream of the file.
///
/// Each copy holds the file with a reference of its own (see
/// CompundFileBase): Close on a copy releases that copy's reference, and the
/// file closes when the last copy has closed or gone.
///
/// Reporting: null, false or silence; nothing is thrown by this class itself
/// (CompoundFile::Open may throw, see CompoundFile). Thread rules: no lock;
/// reading different streams from several threads is what the engine allows,
/// every other use belongs to one thread at a time.
#ifndef TESSELZOSTREAM_PURECOMPOUNDFILESTREAMSOURCE_H_
#define TESSELZOSTREAM_PURECOMPOUNDFILESTREAMSOURCE_H_

#include <set>
#include <string>

#include "tesselzostream/CompundFileBase.h"
#include "tesselzostream/Export.h"

/// The stream source straight on a compound file, without a working
/// directory. Read-only refusals, copies, reporting and thread rules: see
/// PureCompoundFileStreamSource.h.
class TZ_EXPORT PureCompoundFileStreamSource : public CompundFileBase {
 public:
  /// A source without a file, not read-only.
  PureCompoundFileStreamSource();
  /// Holds the file of `other` with a reference of its own and copies its
  /// read-only flag and temporary names.
  PureCompoundFileStreamSource(const PureCompoundFileStreamSource& other);
  /// Gives up the reference held before, holds the file of `other` with a
  /// reference of its own and copies its read-only flag and temporary names.
  PureCompoundFileStreamSource& operator=(const PureCompoundFileStreamSource& other);
  /// Releases this copy's reference; the last one closes the file.
  ~PureCompoundFileStreamSource() override;

  /// Stores `readOnly` whatever comes next and opens `name` read-only or
  /// read-write; true exactly when the file's status is then StatusOk.
  bool Open(const char* name, bool readOnly);
  /// Releases the file; the flag and the temporary names stay.
  void Close();

  /// Deletes the stream from the compound file at once (see
  /// CompoundFile::DeleteCFFile); does nothing for a read-only source.
  void DeleteSource(const char* name) const override;
  bool StreamExists(const char* name) const override;  ///< any letter case
  /// A block stream opened with "rb" (see CompoundFile::GetIOStream).
  std::basic_istream<char>* GetIStream(const char* name) const override;
  /// A block stream opened with "r+b" (see CompoundFile::GetIOStream); the
  /// name leaves the temporary names.
  std::basic_iostream<char>* GetIOStream(const char* name) const override;
  bool CleanUp() override;  ///< false, does nothing
  /// A new source on the compound file `name` (a file name, not a stream),
  /// opened with this source's read-only flag. Never null, even when that
  /// file cannot be opened; the caller owns it.
  ZoStreamSource* GetStreamSource(const char* name) const override;
  /// As GetIOStream, but the name enters the temporary names.
  std::basic_iostream<char>* GetTempIOStream(const char* name) const override;
  /// As GetOStream, but the name enters the temporary names.
  std::basic_ostream<char>* GetTempOStream(const char* name) const override;
  /// "wb": replaces a stream of that name from the moment of the call.
  std::basic_ostream<char>* GetOStream(const char* name) const override;
  /// Every name of the directory, the saved block map's stream among them.
  boost::shared_ptr<const std::set<std::string>> GetFileNames() const override;
  /// The compound file's canonical path; null without a file.
  const char* GetStreamFileName() const override;
  /// The read-only flag the last Open stored (or a copy took over).
  bool IsReadOnly() const override { return mIsReadOnly; }
  void CloseFile() override { Close(); }  ///< Close()

 private:
  struct CaseInsensitiveLess {
    bool operator()(const std::string& a, const std::string& b) const;
  };

  bool mIsReadOnly;
  mutable std::set<std::string, CaseInsensitiveLess> mTempFiles;
};

#endif  // TESSELZOSTREAM_PURECOMPOUNDFILESTREAMSOURCE_H_
