#include "ConfinedFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <vector>

#include <boost/filesystem.hpp>

namespace tzcf {

namespace {

std::vector<std::string> Split(const std::string& name) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (;;) {
    const std::size_t slash = name.find('/', start);
    parts.push_back(name.substr(start, slash - start));
    if (slash == std::string::npos) return parts;
    start = slash + 1;
  }
}

std::string Why(int error) {
  switch (error) {
    case ELOOP: return "a symbolic link is in the way";
    case ENOTDIR: return "a file is in the way of a folder";
    case EISDIR: return "a folder is in the way";
    default: return std::generic_category().message(error);  // strerror is not thread-safe
  }
}

}  // namespace

ConfinedFolder::~ConfinedFolder() {
  if (root_ >= 0) ::close(root_);
}

bool ConfinedFolder::Open(const std::string& path, std::string* error) {
  boost::system::error_code ec;
  boost::filesystem::create_directories(path, ec);
  root_ = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (root_ < 0) {
    *error = path + ": " + std::generic_category().message(errno);
    return false;
  }
  return true;
}

std::string ConfinedFolder::NameProblem(const std::string& name) {
  if (name.empty()) return "empty name";
  if (name[0] == '/') return "absolute name";
  for (const std::string& part : Split(name)) {
    if (part.empty()) return "empty name component";
    if (part == "." || part == "..") return "'" + part + "' component";
  }
  return std::string();
}

int ConfinedFolder::ParentOf(const std::string& name, std::string* leaf, int* cause) {
  const std::vector<std::string> parts = Split(name);
  int folder = ::dup(root_);
  if (folder < 0) {
    *cause = errno;
    return -1;
  }
  for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
    if (::mkdirat(folder, parts[i].c_str(), 0777) != 0 && errno != EEXIST) {
      *cause = errno;
      ::close(folder);
      return -1;
    }
    // O_NOFOLLOW: a link where a folder should be fails with ELOOP rather
    // than leading anywhere.
    const int next = ::openat(folder, parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    *cause = errno;
    // Linux answers ENOTDIR for a link here; the report should name the link.
    struct stat info;
    if (next < 0 && ::fstatat(folder, parts[i].c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode)) {
      *cause = ELOOP;
    }
    ::close(folder);
    if (next < 0) return -1;
    folder = next;
  }
  *leaf = parts.back();
  return folder;
}

int ConfinedFolder::Create(const std::string& name, std::string* error, bool* refused) {
  *refused = true;
  *error = NameProblem(name);
  if (!error->empty()) return -1;
  std::string leaf;
  int cause = 0;
  int fd = -1;
  const int folder = ParentOf(name, &leaf, &cause);
  if (folder >= 0) {
    // Whatever has the name goes first, a link or a hard link included; a
    // folder stays and makes the open below fail with EEXIST.
    if (::unlinkat(folder, leaf.c_str(), 0) != 0 && errno != ENOENT && errno != EISDIR) {
      cause = errno;
    } else {
      fd = ::openat(folder, leaf.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
      cause = errno == EEXIST ? EISDIR : errno;
    }
    ::close(folder);
  }
  if (fd >= 0) return fd;
  *refused = cause == ELOOP || cause == ENOTDIR || cause == EISDIR || cause == ENAMETOOLONG;
  *error = Why(cause);
  return -1;
}

void ConfinedFolder::Remove(const std::string& name) {
  std::string leaf;
  int cause = 0;
  const int folder = ParentOf(name, &leaf, &cause);
  if (folder < 0) return;
  ::unlinkat(folder, leaf.c_str(), 0);
  ::close(folder);
}

}  // namespace tzcf
