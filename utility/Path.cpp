#include "utility/Path.h"

#include <boost/filesystem.hpp>

std::string ZoGetCanonicalPath(const char* path) {
  namespace fs = boost::filesystem;
  if (path == nullptr || *path == '\0') return std::string();
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
