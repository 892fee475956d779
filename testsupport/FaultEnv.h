// The fault environments of the tests: the platform layer with one kind of
// call made to fail from its Nth use on, as a full disk or a dead device
// would, and a clock that stands still. A test puts one in place with
// ScopedEnv for its lifetime.
//
// Ownership: a FaultyEnv owns nothing but its counts; the files and stream
// buffers it hands out wrap the default Env's and own them.
// Thread safety: one test thread at a time; SetEnv is for tests, between
// runs.
#ifndef TESSELZOSTREAM_TESTSUPPORT_FAULTENV_H_
#define TESSELZOSTREAM_TESTSUPPORT_FAULTENV_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "utility/Env.h"

namespace tzsupport {

// The platform calls a FaultyEnv can make fail. kWrite and kPartialWrite
// count block-file writes and working-file puts; under kPartialWrite the
// failing call puts half of its bytes first, as a disk filling up part-way
// (a block-file write only when it grows the file). kSync is a working
// file's flush; kOpen counts opens of block and working files alike, and
// MakeUniqueFolder. kRemove counts Remove and RemoveAll; kStat counts Stat
// (so Exists too); kList counts ListFolder; kMkdir counts MakeFolder;
// kCanonical counts CanonicalPath.
enum class Fault { kWrite, kPartialWrite, kRead, kSync, kOpen, kRename, kRemove, kStat, kList, kMkdir, kCanonical };
const char* FaultName(Fault kind);
constexpr Fault kAllFaults[] = {Fault::kWrite,  Fault::kPartialWrite, Fault::kRead,
                                Fault::kSync,   Fault::kOpen,         Fault::kRename,
                                Fault::kRemove, Fault::kStat,         Fault::kList,
                                Fault::kMkdir,  Fault::kCanonical};

// The default Env, but failing call number `failAt` (from 1 since the last
// Reset) of the armed kind and every later one, as a full disk or a dead
// device would; 0 fails nothing.
class FaultyEnv : public tz::Env {
 public:
  std::unique_ptr<tz::RandomAccessFile> OpenLocked(const std::string& path,
                                                   bool writable) override;
  bool OpenFileBuffer(std::filebuf& buffer, const std::string& path, std::ios_base::openmode mode,
                      std::unique_ptr<std::streambuf>* wrapper) override;
  bool Remove(const std::string& path, boost::system::error_code& error) override;
  bool RemoveAll(const std::string& path, boost::system::error_code& error) override;
  bool Rename(const std::string& from, const std::string& to,
              boost::system::error_code& error) override;
  bool MakeUniqueFolder(const std::string& prefix, std::string* made,
                        boost::system::error_code& error) override;
  bool Stat(const std::string& path, bool followLinks, tz::FileInfo* info,
            boost::system::error_code& error) override;
  bool ListFolder(const std::string& path, std::vector<tz::FolderEntry>* entries,
                  boost::system::error_code& error) override;
  bool MakeFolder(const std::string& path, boost::system::error_code& error) override;
  std::string CanonicalPath(const std::string& path) override;
  std::int64_t Now() override { return tz::Env::Default()->Now(); }

  void Reset(Fault kind, int failAt) { kind_ = kind; failAt_ = failAt; calls_ = 0; }
  // A disk that holds files of at most `bytes`: room reserved or written
  // beyond it is refused, a write across it lands up to it. 0 lifts it.
  void SetDiskLimit(std::uint64_t bytes) { diskLimit_ = bytes; }
  std::uint64_t DiskLimit() const { return diskLimit_; }
  void Reset(int failAt) { Reset(Fault::kWrite, failAt); }
  // True once the armed call has been reached.
  bool hit() const { return failAt_ != 0 && calls_ >= failAt_; }

  // Counts a call of `kind`; false when it is to fail.
  bool Allow(Fault kind);
  // The failing call itself under kPartialWrite (the later ones put nothing).
  bool PartNow() const { return kind_ == Fault::kPartialWrite && calls_ == failAt_; }

 private:
  Fault kind_ = Fault::kWrite;
  int failAt_ = 0;
  int calls_ = 0;
  std::uint64_t diskLimit_ = 0;
};

// The FaultyEnv with a clock that stands still, so that two runs of the
// same calls stamp the same times and leave the same bytes.
class FixedClockEnv : public FaultyEnv {
 public:
  std::int64_t Now() override { return 1700000000; }
};

// Puts an Env in place for its lifetime.
class ScopedEnv {
 public:
  explicit ScopedEnv(tz::Env* env) { tz::SetEnv(env); }
  ~ScopedEnv() { tz::SetEnv(nullptr); }
};

}  // namespace tzsupport

#endif  // TESSELZOSTREAM_TESTSUPPORT_FAULTENV_H_
