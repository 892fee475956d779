// The platform layer: the few calls to the operating system that the block
// store makes, behind one small interface so that tests can make them fail.
//
// RandomAccessFile is one open file: positional reads and writes and its
// size. Env opens such files (creating and locking them), opens ordinary
// files as stream buffers (the working folder's files), examines paths
// (Stat, Exists), lists folders, makes and removes folders, removes and
// renames files, and reads the clock. Every file-system call of the block
// store and of the working-folder source goes through it; path arithmetic
// (joining, taking a leaf) is no call and stays with the callers.
// CurrentEnv() is the process-wide instance; SetEnv() lets a test put its
// own in place (for instance one that fails the Nth write, read, sync,
// open, rename, remove, stat, listing or folder creation) and put the
// default back with null.
//
// How failures show, so that a test's Env can imitate the real one:
// - RandomAccessFile: false from ReadAt, WriteAt or Size.
// - a stream buffer: a read error throws from the buffer's read functions
//   (the standard streams turn that into badbit, as they do for the
//   standard file buffer's own read errors); a write error is a short put
//   or eof from overflow; a failed sync returns -1.
// - OpenLocked: null; OpenFileBuffer: false.
// - Stat, ListFolder, MakeFolder, Remove, RemoveAll, MakeUniqueFolder and
//   Rename: false, with the reason in `error`. Stat alone also gives false
//   with `error` clear: nothing is at the path.
//
// Thread safety: the default Env and its files may be used from several
// threads; a RandomAccessFile itself is used by one thread at a time (the
// block store serialises its reads). SetEnv is for tests, between runs.
#ifndef TESSELZOSTREAM_UTILITY_ENV_H_
#define TESSELZOSTREAM_UTILITY_ENV_H_

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <ios>
#include <istream>
#include <memory>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include <boost/system/error_code.hpp>

namespace tz {

class RandomAccessFile {
 public:
  virtual ~RandomAccessFile();
  // Reads up to n bytes at offset. *got receives the count read, which is
  // short only at the end of the file. False on an I/O error.
  virtual bool ReadAt(std::uint64_t offset, void* buffer, std::size_t n,
                      std::size_t* got) = 0;
  // Writes all n bytes at offset; false when not all of them went out.
  virtual bool WriteAt(std::uint64_t offset, const void* buffer,
                       std::size_t n) = 0;
  // The file's current length in bytes; false on an I/O error.
  virtual bool Size(std::uint64_t* size) = 0;
  // Cuts the file to `size` bytes (no more than its length); false on an
  // I/O error. A file that cannot be cut keeps this default.
  virtual bool Truncate(std::uint64_t size);
  // Makes sure that writes of `length` bytes from `offset` on will find
  // room on the disk, without changing the file's length or content: false
  // when the disk has no such room. A file system that cannot promise room
  // ahead gives true (the write itself may then still run out of space).
  virtual bool Reserve(std::uint64_t offset, std::uint64_t length);
};

// What a path leads to.
enum class FileKind { kRegular, kFolder, kLink, kOther };

// What Stat tells of a path. `device` and `node` together name the file
// itself: two paths with equal pairs are two names of one file.
struct FileInfo {
  FileKind kind = FileKind::kOther;
  std::uint64_t size = 0;       // bytes (of the link itself when not followed)
  std::int64_t modified = 0;    // seconds since the epoch
  std::uint64_t device = 0;
  std::uint64_t node = 0;
};

// One entry of a folder: its leaf name and the kind of what it leads to
// (a symbolic link is followed; one that leads nowhere is kOther).
struct FolderEntry {
  std::string name;
  FileKind kind = FileKind::kOther;
};

class Env {
 public:
  virtual ~Env();
  static Env* Default();

  // Opens the regular file at path for reading, and for writing too when
  // `writable`. A missing file is first created empty, with read and write
  // permission, in either mode. The open holds an exclusive lock on the file
  // for its whole life, so a second open of the same file, from this process
  // or another, is refused while the first lasts. Null on any failure (no
  // such directory, no permission, not a regular file, already locked).
  virtual std::unique_ptr<RandomAccessFile> OpenLocked(const std::string& path,
                                                       bool writable) = 0;

  // Opens `buffer`, the standard file buffer of a file stream that the
  // caller owns, on the file at path, with `mode` as
  // std::basic_filebuf::open takes it (in|binary reads an existing file,
  // out|trunc|binary creates or empties one, in|out|binary updates an
  // existing one). The stream then runs on `buffer`, or on `*wrapper` when
  // the Env sets one (a test's Env that watches the calls; it forwards to
  // `buffer` and must go before it). False when the open fails.
  virtual bool OpenFileBuffer(std::filebuf& buffer, const std::string& path,
                              std::ios_base::openmode mode,
                              std::unique_ptr<std::streambuf>* wrapper);

  // Examines path, following a symbolic link at its end when `followLinks`.
  // True with `info` filled when something is there; false with `error`
  // clear when nothing is (no such entry, or a component that is no
  // folder); false with the reason in `error` when the path cannot be
  // examined (no permission, an I/O error, a loop of links).
  // REQUIRES: info != nullptr.
  virtual bool Stat(const std::string& path, bool followLinks, FileInfo* info,
                    boost::system::error_code& error);
  // Stat with links followed, for the answer alone: a link that leads
  // nowhere does not exist. False with `error` clear: nothing is there;
  // with `error` set: the path could not be examined.
  bool Exists(const std::string& path, boost::system::error_code& error) {
    FileInfo info;
    return Stat(path, true, &info, error);
  }
  // The entries of the folder at path, without "." and "..", in the order
  // the file system gives them; `entries` is replaced. False, with the
  // reason in `error`, when the folder cannot be read to its end (or an
  // entry's kind cannot be taken); `entries` is then unspecified.
  // REQUIRES: entries != nullptr.
  virtual bool ListFolder(const std::string& path, std::vector<FolderEntry>* entries,
                          boost::system::error_code& error);
  // The absolute form of path with "." and ".." taken out and symbolic
  // links resolved as far as the path exists: one text for all the ways of
  // naming one file. Empty when it cannot be worked out (an empty path, a
  // component that cannot be examined).
  virtual std::string CanonicalPath(const std::string& path);
  // Makes the folder at path (one level, its parent must exist). True when
  // it was made or a folder was there already; false, with the reason in
  // `error`, otherwise (a file in its place among them).
  virtual bool MakeFolder(const std::string& path, boost::system::error_code& error);

  // True when a file exists at path and an open of it holds its lock (see
  // OpenLocked), in this process or another.
  virtual bool IsLocked(const std::string& path);

  // Removes the file or empty folder at path. True when it was removed or
  // did not exist; false, with the reason in `error`, otherwise.
  virtual bool Remove(const std::string& path, boost::system::error_code& error);
  // Removes the folder at path with everything in it (or the file). True
  // when nothing is left; false, with the reason in `error`, otherwise
  // (what was removed by then stays removed).
  virtual bool RemoveAll(const std::string& path, boost::system::error_code& error);
  // Makes a new folder named `prefix` followed by six characters chosen to
  // make the name one that did not exist, open to its owner only; `made`
  // receives its path. False, with the reason in `error`, when none can be
  // made.
  virtual bool MakeUniqueFolder(const std::string& prefix, std::string* made,
                                boost::system::error_code& error);
  // Renames `from` to `to`, replacing a file there. False, with the reason
  // in `error`, when it fails; both names are then as they were.
  virtual bool Rename(const std::string& from, const std::string& to,
                      boost::system::error_code& error);

  // Seconds since the epoch.
  virtual std::int64_t Now() = 0;
};

Env* CurrentEnv();  // the Env in place; Env::Default() unless a test set one

// A standard file stream (std::ifstream, std::ofstream or std::fstream)
// opened through CurrentEnv(); closing it, at its destruction, writes its
// output. A wrapper the Env set goes first, the file buffer after it.
template <class FileStream>
class EnvFileStream : public FileStream {
 public:
  bool Open(const std::string& path, std::ios_base::openmode mode) {
    if (!CurrentEnv()->OpenFileBuffer(*this->rdbuf(), path, mode, &wrapper_)) return false;
    if (wrapper_) this->std::basic_ios<char>::rdbuf(wrapper_.get());
    return true;
  }

 private:
  std::unique_ptr<std::streambuf> wrapper_;
};

// The file stream on the file at path, or null when it cannot be opened.
template <class FileStream>
FileStream* OpenFileStream(const std::string& path, std::ios_base::openmode mode) {
  std::unique_ptr<EnvFileStream<FileStream>> stream(new EnvFileStream<FileStream>);
  if (!stream->Open(path, mode)) return nullptr;
  return stream.release();
}

void SetEnv(Env* env);  // null restores Env::Default()

}  // namespace tz

#endif  // TESSELZOSTREAM_UTILITY_ENV_H_
