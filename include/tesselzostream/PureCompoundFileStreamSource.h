// PureCompoundFileStreamSource: the stream source straight on a compound
// file, without a working directory.
//
// A stream is a block stream on the compound file; a write lands in the file
// and a deletion frees the stream's blocks at once. Nothing can be discarded
// by closing. What was written is in the file when its stream has been
// released (which flushes the directory), and at the latest when the file
// closes.
//
// A source opened read-only refuses silently: the four writing operations
// give null and DeleteSource does nothing. Without an open file StreamExists
// is false, GetFileNames empty, the names null, and streams null.
//
// mTempFiles records the names last opened through a temporary operation,
// one entry for all letter cases of a name; nothing else reads it: a
// temporary stream is an ordinary stream of the file.
//
// Copies share the handle (see CompundFileBase): Close on any copy releases
// the file for all; the file is released once, never twice.
//
// Reporting: null, false or silence; nothing is thrown by this class itself
// (CompoundFile::Open may throw, see CompoundFile). Thread rules: no lock;
// reading different streams from several threads is what the engine allows,
// every other use belongs to one thread at a time.
#ifndef TESSELZOSTREAM_PURECOMPOUNDFILESTREAMSOURCE_H_
#define TESSELZOSTREAM_PURECOMPOUNDFILESTREAMSOURCE_H_

#include <set>
#include <string>

#include "tesselzostream/CompundFileBase.h"
#include "tesselzostream/Export.h"

class TZ_EXPORT PureCompoundFileStreamSource : public CompundFileBase {
 public:
  PureCompoundFileStreamSource();
  PureCompoundFileStreamSource(const PureCompoundFileStreamSource& other);
  PureCompoundFileStreamSource& operator=(const PureCompoundFileStreamSource& other);
  // Closes the file if this is the last copy holding it.
  ~PureCompoundFileStreamSource() override;

  // Stores `readOnly` whatever comes next and opens `name` read-only or
  // read-write; true exactly when the file's status is then StatusOk.
  bool Open(const char* name, bool readOnly);
  // Releases the file; the flag and the temporary names stay.
  void Close();

  void DeleteSource(const char* name) const override;
  bool StreamExists(const char* name) const override;  // any letter case
  std::basic_istream<char>* GetIStream(const char* name) const override;     // "rb"
  std::basic_iostream<char>* GetIOStream(const char* name) const override;   // "r+b"
  bool CleanUp() override;  // false, does nothing
  // A new source on the compound file `name` (a file name, not a stream),
  // opened with this source's read-only flag. Never null, even when that
  // file cannot be opened; the caller owns it.
  ZoStreamSource* GetStreamSource(const char* name) const override;
  std::basic_iostream<char>* GetTempIOStream(const char* name) const override;
  std::basic_ostream<char>* GetTempOStream(const char* name) const override;
  // "wb": replaces a stream of that name from the moment of the call.
  std::basic_ostream<char>* GetOStream(const char* name) const override;
  // Every name of the directory, the saved block map's stream among them.
  boost::shared_ptr<const std::set<std::string>> GetFileNames() const override;
  const char* GetStreamFileName() const override;
  bool IsReadOnly() const override { return mIsReadOnly; }
  void CloseFile() override { Close(); }

 private:
  struct CaseInsensitiveLess {
    bool operator()(const std::string& a, const std::string& b) const;
  };

  bool mIsReadOnly;
  mutable std::set<std::string, CaseInsensitiveLess> mTempFiles;
};

#endif  // TESSELZOSTREAM_PURECOMPOUNDFILESTREAMSOURCE_H_
