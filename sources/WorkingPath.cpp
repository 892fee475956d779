#include "sources/WorkingPath.h"

#include <cstring>
#include <vector>

#include "utility/Env.h"
#include "utility/Path.h"

namespace tz {
namespace {

// True when `path` is `root` or lies below it; both canonical.
bool IsWithin(const std::string& path, const std::string& root) {
  if (path.size() < root.size() || path.compare(0, root.size(), root) != 0) return false;
  return path.size() == root.size() || root.back() == '/' || path[root.size()] == '/';
}

}  // namespace

bool IsInsideFolder(const std::string& folder, const char* name, bool* unsure) {
  if (unsure != nullptr) *unsure = false;
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
  Env* env = CurrentEnv();
  boost::system::error_code error;
  // A path that cannot be examined is refused: it might hold a link.
  auto cannotTell = [&]() {
    if (unsure != nullptr) *unsure = true;
    return false;
  };
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) prefix += '/';
    prefix += parts[i];
    FileInfo info;
    if (!env->Stat(prefix, false, &info, error)) {
      if (error) return cannotTell();
      return true;  // nothing below exists
    }
    if (info.kind != FileKind::kLink) continue;
    if (root.empty()) {
      root = ZoGetCanonicalPath(folder.c_str());
      if (root.empty()) return cannotTell();
    }
    // A link leads out unless its fully resolved target lies inside the
    // folder; a dangling link could make a file anywhere, so it is refused.
    FileInfo target;
    if (!env->Stat(prefix, true, &target, error)) return error ? cannotTell() : false;
    const std::string resolved = ZoGetCanonicalPath(prefix.c_str());
    if (resolved.empty()) return cannotTell();
    if (!IsWithin(resolved, root)) return false;
    if (resolved == root && i + 1 == parts.size()) return false;  // the folder
  }
  return true;
}

}  // namespace tz
