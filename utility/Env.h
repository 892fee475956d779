// The platform layer: the few calls to the operating system that the block
// store makes, behind one small interface so that tests can make them fail.
//
// RandomAccessFile is one open file: positional reads and writes and its
// size. Env opens such files (creating and locking them) and reads the
// clock. CurrentEnv() is the process-wide instance; SetEnv() lets a test put
// its own in place (for instance one that fails the Nth write) and put the
// default back with null.
//
// Thread safety: the default Env and its files may be used from several
// threads; a RandomAccessFile itself is used by one thread at a time (the
// block store serialises its reads). SetEnv is for tests, between runs.
#ifndef TESSELZOSTREAM_UTILITY_ENV_H_
#define TESSELZOSTREAM_UTILITY_ENV_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

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

  // Seconds since the epoch.
  virtual std::int64_t Now() = 0;
};

Env* CurrentEnv();
void SetEnv(Env* env);  // null restores Env::Default()

}  // namespace tz

#endif  // TESSELZOSTREAM_UTILITY_ENV_H_
