#include "Common.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <system_error>

#include <boost/filesystem.hpp>

#include "Password.h"

namespace fs = boost::filesystem;

namespace tzcf {

namespace {
char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
}  // namespace

bool SameName(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (Lower(a[i]) != Lower(b[i])) return false;
  }
  return true;
}

std::string FoldCase(const std::string& name) {
  std::string folded = name;
  for (char& c : folded) c = Lower(c);
  return folded;
}

bool IsFreeListName(const std::string& name) { return SameName(name, kFreeListName); }

void Report(const std::string& text) { std::cerr << "tzcf: " << text << std::endl; }

namespace {
unsigned long gItemReports = 0;
}  // namespace

void ReportItem(const std::string& text) {
  if (++gItemReports <= kMaxItemReports) Report(text);
}

void FinishReports() {
  if (gItemReports <= kMaxItemReports) return;
  const unsigned long left = gItemReports - kMaxItemReports;
  Report(std::to_string(left) + (left == 1 ? " more problem" : " more problems") +
         " like the above not shown (" + std::to_string(gItemReports) + " in all)");
  gItemReports = 0;
}

std::string SystemText(int error) { return std::generic_category().message(error); }

std::string SpaceText(const std::string& path, int error, std::uint64_t wanted) {
  if (error == ENOSPC || error == EDQUOT) return ": " + SystemText(error);
  struct statvfs info;
  if (::statvfs(path.c_str(), &info) != 0) {
    const fs::path parent = fs::path(path).parent_path();
    if (::statvfs(parent.empty() ? "." : parent.c_str(), &info) != 0) return std::string();
  }
  const std::uint64_t room = static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize;
  return room < std::max<std::uint64_t>(wanted, std::uint64_t{256} * 1024) ? ": " + SystemText(ENOSPC) : std::string();
}

namespace {

// The signatures every first block of a compound file carries.
using tzformat::kBlockSignature;
constexpr std::size_t kBlockSignatureAt = tzformat::kBlockSignatureOffset;
using tzformat::kFileSignature;
constexpr std::size_t kFileSignatureAt = tzformat::kFileSignatureOffset;
constexpr std::size_t kBlockSize = tzformat::kBlockSize;

}  // namespace

std::string WhyNotOpen(const std::string& path, bool writable) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) {
    const int error = errno;
    if (error == ENOENT && writable) {
      // The open would have created it: the folder is what failed.
      const fs::path parent = fs::path(path).parent_path();
      const std::string folder = parent.empty() ? std::string(".") : parent.string();
      if (::access(folder.c_str(), W_OK) != 0) return "cannot create it: " + folder + ": " + SystemText(errno);
    }
    return SystemText(error);
  }
  if (S_ISDIR(info.st_mode)) return SystemText(EISDIR);
  if (!S_ISREG(info.st_mode)) return "not a regular file";
  const int fd = ::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
  if (fd < 0) return SystemText(errno);
  std::string why;
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    why = "in use by another process (it holds the file's lock)";
  } else {
    char block[kBlockSize];
    ssize_t got = 0;
    do {
      got = ::pread(fd, block, sizeof block, 0);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
      why = SystemText(errno);
    } else if (static_cast<std::size_t>(got) < kBlockSize ||
               std::memcmp(block + kBlockSignatureAt, kBlockSignature, sizeof kBlockSignature) != 0 ||
               std::memcmp(block + kFileSignatureAt, kFileSignature, sizeof kFileSignature) != 0) {
      why = "not a compound file";
    } else if (info.st_size % static_cast<off_t>(kBlockSize) != 0) {
      why = "damaged: its length is no whole number of blocks (tzcf check tells more)";
    } else {
      why = "damaged (tzcf check tells more)";
    }
  }
  ::close(fd);  // drops the lock taken above
  return why;
}

std::string Quote(const std::string& text) { return "'" + text + "'"; }

bool OpenFile(CompoundFile& file, const std::string& path, ZoStreamE::OpenMode mode, bool mustExist) {
  struct stat info;
  if (::stat(path.c_str(), &info) == 0 ? !S_ISREG(info.st_mode) : mustExist || errno != ENOENT) {
    // Not a regular file, or not there when it must be: the library would
    // refuse the one and create the other.
    Report(path + ": cannot open: " + WhyNotOpen(path, mode == ZoStreamE::OpenReadWrite));
    return false;
  }
  ZoStreamE::Status result;
  try {
    result = file.Open(path.c_str(), mode);
  } catch (const ZoStreamE::Status&) {
    result = ZoStreamE::StatusFailed;
  } catch (const fs::filesystem_error&) {
    result = ZoStreamE::StatusFailed;
  }
  if (result != ZoStreamE::StatusOk) {
    file.Close();
    Report(path + ": cannot open: " + WhyNotOpen(path, mode == ZoStreamE::OpenReadWrite));
    return false;
  }
  return true;
}

bool Unlock(CompoundFile& file, const std::string& path, const Options& options, std::string* given) {
  if (given != nullptr) given->clear();
  if (!file.IsEncrypted()) return true;
  std::string password;
  std::string error;
  if (!GetPassword(options.passwordFile, kPasswordVariable, "Password for " + path + ": ", false,
                   &password, &error)) {
    Report(path + " is encrypted: " + error);
    return false;
  }
  if (!file.SetPassword(password.c_str())) {
    Report(path + ": wrong password");
    return false;
  }
  if (given != nullptr) *given = password;
  return true;
}

}  // namespace tzcf
