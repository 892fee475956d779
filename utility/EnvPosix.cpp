// Env on POSIX: pread/pwrite, an advisory flock held while the file is open.
#include <errno.h>
#include <fcntl.h>
#include <linux/falloc.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <fstream>

#include <boost/filesystem.hpp>

#include "utility/Env.h"

namespace tz {
namespace {

class PosixFile : public RandomAccessFile {
 public:
  explicit PosixFile(int fd) : fd_(fd) {}
  ~PosixFile() override { ::close(fd_); }  // closing drops the lock

  bool ReadAt(std::uint64_t offset, void* buffer, std::size_t n,
              std::size_t* got) override {
    auto* out = static_cast<char*>(buffer);
    std::size_t done = 0;
    while (done < n) {
      const ssize_t r = ::pread(fd_, out + done, n - done,
                                static_cast<off_t>(offset + done));
      if (r < 0 && errno == EINTR) continue;
      if (r < 0) return false;
      if (r == 0) break;
      done += static_cast<std::size_t>(r);
    }
    *got = done;
    return true;
  }

  bool WriteAt(std::uint64_t offset, const void* buffer,
               std::size_t n) override {
    const auto* in = static_cast<const char*>(buffer);
    std::size_t done = 0;
    while (done < n) {
      const ssize_t w = ::pwrite(fd_, in + done, n - done,
                                 static_cast<off_t>(offset + done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) return false;
      done += static_cast<std::size_t>(w);
    }
    return true;
  }

  bool Truncate(std::uint64_t size) override {
    int r;
    do {
      r = ::ftruncate(fd_, static_cast<off_t>(size));
    } while (r != 0 && errno == EINTR);
    return r == 0;
  }

  bool Reserve(std::uint64_t offset, std::uint64_t length) override {
    for (;;) {
      if (::fallocate(fd_, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                      static_cast<off_t>(length)) == 0) {
        return true;
      }
      if (errno == EINTR) continue;
      // No way to reserve here: the write will tell.
      return errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL;
    }
  }

  bool Size(std::uint64_t* size) override {
    struct stat st;
    if (::fstat(fd_, &st) != 0) return false;
    *size = static_cast<std::uint64_t>(st.st_size);
    return true;
  }

 private:
  int fd_;
};

class PosixEnv : public Env {
 public:
  std::unique_ptr<RandomAccessFile> OpenLocked(const std::string& path,
                                               bool writable) override {
    if (::access(path.c_str(), F_OK) != 0) {
      const int made = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0666);
      if (made < 0) return nullptr;
      ::close(made);
    }
    // Without waiting: a FIFO would block a read-only open until a writer
    // came. Nothing but regular files is taken, on which the flag is moot.
    const int fd = ::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return nullptr;
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) ||
        ::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      ::close(fd);
      return nullptr;
    }
    return std::unique_ptr<RandomAccessFile>(new PosixFile(fd));
  }

  std::int64_t Now() override { return static_cast<std::int64_t>(std::time(nullptr)); }
};

std::atomic<Env*> g_env{nullptr};

}  // namespace

RandomAccessFile::~RandomAccessFile() = default;
bool RandomAccessFile::Truncate(std::uint64_t) { return false; }
bool RandomAccessFile::Reserve(std::uint64_t, std::uint64_t) { return true; }
Env::~Env() = default;

bool Env::OpenFileBuffer(std::filebuf& buffer, const std::string& path,
                         std::ios_base::openmode mode, std::unique_ptr<std::streambuf>*) {
  return buffer.open(path, mode) != nullptr;
}

bool Env::IsLocked(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  const bool held = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd);  // gives back the lock if this open took it
  return held;
}

namespace {
boost::system::error_code LastError() {
  return boost::system::error_code(errno, boost::system::system_category());
}

FileKind KindOf(mode_t mode) {
  if (S_ISREG(mode)) return FileKind::kRegular;
  if (S_ISDIR(mode)) return FileKind::kFolder;
  if (S_ISLNK(mode)) return FileKind::kLink;
  return FileKind::kOther;
}
}  // namespace

bool Env::Stat(const std::string& path, bool followLinks, FileInfo* info,
               boost::system::error_code& error) {
  struct stat st;
  const int r = followLinks ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st);
  if (r != 0) {
    // Absence is an answer, not a failure: as the file system's own
    // existence test takes it.
    if (errno == ENOENT || errno == ENOTDIR) error.clear();
    else error = LastError();
    return false;
  }
  info->kind = KindOf(st.st_mode);
  info->size = static_cast<std::uint64_t>(st.st_size);
  info->modified = static_cast<std::int64_t>(st.st_mtime);
  info->device = static_cast<std::uint64_t>(st.st_dev);
  info->node = static_cast<std::uint64_t>(st.st_ino);
  error.clear();
  return true;
}

bool Env::ListFolder(const std::string& path, std::vector<FolderEntry>* entries,
                     boost::system::error_code& error) {
  namespace fs = boost::filesystem;
  entries->clear();
  fs::directory_iterator it(fs::path(path), error), end;
  if (error) return false;
  for (; it != end; it.increment(error)) {
    boost::system::error_code kindError;
    const fs::file_status status = it->status(kindError);
    // A link that leads nowhere is an entry all the same.
    if (kindError && status.type() != fs::file_not_found) {
      error = kindError;
      return false;
    }
    FolderEntry entry;
    entry.name = it->path().filename().string();
    switch (status.type()) {
      case fs::regular_file: entry.kind = FileKind::kRegular; break;
      case fs::directory_file: entry.kind = FileKind::kFolder; break;
      default: entry.kind = FileKind::kOther; break;
    }
    entries->push_back(std::move(entry));
  }
  if (error) return false;
  error.clear();
  return true;
}

std::string Env::CanonicalPath(const std::string& path) {
  namespace fs = boost::filesystem;
  if (path.empty()) return std::string();
  try {
    boost::system::error_code ec;
    const fs::path absolute = fs::absolute(fs::path(path));
    fs::path result = fs::weakly_canonical(absolute, ec);
    if (ec) return std::string();
    result = result.lexically_normal();
    // "dir/" normalises to "dir/."; both name the directory itself.
    if (result.filename_is_dot()) result = result.parent_path();
    std::string text = result.string();
    if (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
  } catch (const std::exception&) {
    return std::string();
  }
}

bool Env::MakeFolder(const std::string& path, boost::system::error_code& error) {
  boost::filesystem::create_directory(boost::filesystem::path(path), error);
  return !error;
}

bool Env::Remove(const std::string& path, boost::system::error_code& error) {
  boost::filesystem::remove(boost::filesystem::path(path), error);
  return !error;
}

bool Env::RemoveAll(const std::string& path, boost::system::error_code& error) {
  boost::filesystem::remove_all(boost::filesystem::path(path), error);
  return !error;
}

bool Env::MakeUniqueFolder(const std::string& prefix, std::string* made,
                           boost::system::error_code& error) {
  std::string name = prefix + "XXXXXX";
  if (::mkdtemp(&name[0]) == nullptr) {
    error = boost::system::error_code(errno, boost::system::system_category());
    return false;
  }
  *made = name;
  error.clear();
  return true;
}

bool Env::Rename(const std::string& from, const std::string& to,
                 boost::system::error_code& error) {
  boost::filesystem::rename(boost::filesystem::path(from), boost::filesystem::path(to), error);
  return !error;
}

Env* Env::Default() {
  static PosixEnv* env = new PosixEnv;  // lives to process exit
  return env;
}

Env* CurrentEnv() {
  Env* env = g_env.load(std::memory_order_acquire);
  return env != nullptr ? env : Env::Default();
}

void SetEnv(Env* env) { g_env.store(env, std::memory_order_release); }

}  // namespace tz
