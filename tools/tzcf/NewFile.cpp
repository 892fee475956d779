#include "NewFile.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Common.h"

namespace tzcf {

namespace {

// The temporary file a signal handler removes; empty when there is none.
// Written only while no handler can run on it half-done: the path is put in
// before the handlers, and taken out by its first byte.
char gPending[4096];
bool gHandlersSet = false;

void RemoveAndDie(int signal) {
  if (gPending[0] != '\0') (void)::unlink(gPending);
  (void)::signal(signal, SIG_DFL);
  (void)::raise(signal);
}

// A signal the process was started with ignored (as a shell without job
// control starts background commands with SIGINT) stays ignored.
void SetHandlers() {
  if (gHandlersSet) return;
  gHandlersSet = true;
  struct sigaction action = {};
  action.sa_handler = RemoveAndDie;
  sigemptyset(&action.sa_mask);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction old = {};
    if (sigaction(signal, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
    (void)sigaction(signal, &action, nullptr);
  }
}

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string LeafOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool CopyAll(int from, int to) {
  // copy_file_range shares or clones extents where the file system can.
  for (;;) {
    const ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, std::size_t{1} << 30, 0);
    if (n == 0) return true;
    if (n > 0) continue;
    if (errno == EINTR) continue;
    if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP) return false;
    break;
  }
  std::vector<char> buffer(std::size_t{1} << 20);
  for (;;) {
    const ssize_t got = ::read(from, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) return true;
    for (ssize_t done = 0; done < got;) {
      const ssize_t n = ::write(to, buffer.data() + done, static_cast<std::size_t>(got - done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += n;
    }
  }
}

}  // namespace

NewFile::~NewFile() {
  Abandon();
  if (lockFd_ >= 0) ::close(lockFd_);
}

void NewFile::Abandon() {
  if (path_.empty()) return;
  gPending[0] = '\0';
  (void)::unlink(path_.c_str());
  path_.clear();
}

bool NewFile::Begin(const std::string& target, bool copy, std::string* error) {
  target_ = target;
  // A link to the file stays a link: the file it leads to is replaced.
  struct stat link;
  if (copy && ::lstat(target.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
    char* real = ::realpath(target.c_str(), nullptr);
    if (real != nullptr) {
      target_ = real;
      std::free(real);  // realpath gives a malloc'd name
    }
  }
  const std::string& path = target_;
  const std::string folder = FolderOf(path);
  std::string name = folder + "/." + LeafOf(path) + ".tzcf-XXXXXX";
  if (name.size() >= sizeof gPending) {
    *error = target + ": name too long";
    return false;
  }
  mode_t mode = 0;
  uid_t owner = 0;
  gid_t group = 0;
  if (copy) {
    lockFd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (lockFd_ < 0) {
      *error = target + ": " + SystemText(errno);
      return false;
    }
    if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
      *error = target + ": " + (errno == EWOULDBLOCK ? std::string("in use by another process") : SystemText(errno));
      return false;
    }
    struct stat info;
    mode = 0644;
    if (::fstat(lockFd_, &info) == 0) {
      mode = info.st_mode & 07777;
      owner = info.st_uid;
      group = info.st_gid;
    }
  } else {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    mode = 0666 & ~mask;
  }
  // The handlers come first: a signal after mkstemp finds the path.
  gPending[0] = '\0';
  SetHandlers();
  std::vector<char> buffer(name.begin(), name.end());
  buffer.push_back('\0');
  sigset_t block, old;
  sigemptyset(&block);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&block, signal);
  (void)pthread_sigmask(SIG_BLOCK, &block, &old);
  const int fd = ::mkstemp(buffer.data());
  if (fd >= 0) std::memcpy(gPending, buffer.data(), std::strlen(buffer.data()) + 1);
  (void)pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (fd < 0) {
    *error = "cannot make a temporary file in " + folder + ": " + SystemText(errno);
    return false;
  }
  path_ = buffer.data();
  // The copy keeps the old file's owner where it may (root editing another
  // user's file), and its mode.
  if (copy && (owner != ::geteuid() || group != ::getegid())) (void)::fchown(fd, owner, group);
  bool ok = ::fchmod(fd, mode) == 0;
  if (ok && copy) ok = CopyAll(lockFd_, fd);
  const int cause = errno;
  ::close(fd);
  if (!ok) {
    *error = "cannot copy " + target + " to " + path_ + ": " + SystemText(cause);
    Abandon();
    return false;
  }
  return true;
}

bool NewFile::Commit(std::string* error) {
  const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || ::fsync(fd) != 0) {
    *error = path_ + ": " + SystemText(errno);
    if (fd >= 0) ::close(fd);
    Abandon();
    return false;
  }
  ::close(fd);
  if (::rename(path_.c_str(), target_.c_str()) != 0) {
    *error = "cannot rename " + path_ + " to " + target_ + ": " + SystemText(errno);
    Abandon();
    return false;
  }
  gPending[0] = '\0';
  path_.clear();
  // The rename itself reaches the disk with the folder.
  const int folder = ::open(FolderOf(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder >= 0) {
    (void)::fsync(folder);
    ::close(folder);
  }
  return true;
}

}  // namespace tzcf
