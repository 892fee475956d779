#include "sources/WorkingPath.h"

#include <sys/stat.h>

#include <cstring>
#include <vector>

#include "utility/Path.h"

namespace tz {
namespace {

// True when `path` is `root` or lies below it; both canonical.
bool IsWithin(const std::string& path, const std::string& root) {
  if (path.size() < root.size() || path.compare(0, root.size(), root) != 0) return false;
  return path.size() == root.size() || root.back() == '/' || path[root.size()] == '/';
}

}  // namespace

bool IsInsideFolder(const std::string& folder, const char* name) {
  if (name == nullptr) return false;
  // Lexical test: the components of the name, without "" and ".".
  std::vector<std::string> parts;
  const char* p = name;
  while (*p != '\0') {
    const char* end = std::strchr(p, '/');
    if (end == nullptr) end = p + std::strlen(p);
    const std::string part(p, end);
    if (part == "..") return false;
    if (!part.empty() && part != ".") parts.push_back(part);
    p = *end == '/' ? end + 1 : end;
  }
  if (parts.empty()) return false;  // the folder itself

  // Symbolic links: walk the existing prefix of the path.
  std::string root;  // canonical folder, computed at the first link
  std::string prefix = folder;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) prefix += '/';
    prefix += parts[i];
    struct stat info;
    if (::lstat(prefix.c_str(), &info) != 0) return true;  // nothing below exists
    if (!S_ISLNK(info.st_mode)) continue;
    if (root.empty()) {
      root = ZoGetCanonicalPath(folder.c_str());
      if (root.empty()) return false;
    }
    // A link leads out unless its fully resolved target lies inside the
    // folder; a dangling link could make a file anywhere, so it is refused.
    struct stat target;
    if (::stat(prefix.c_str(), &target) != 0) return false;
    const std::string resolved = ZoGetCanonicalPath(prefix.c_str());
    if (resolved.empty() || !IsWithin(resolved, root)) return false;
    if (resolved == root && i + 1 == parts.size()) return false;  // the folder
  }
  return true;
}

}  // namespace tz
