// The working-folder source's file-system calls, made through the platform
// layer (tz::CurrentEnv()), for the places where a file-system error passes
// to the source's caller: there the error leaves as the file system's own
// exception (boost::filesystem::filesystem_error), which callers of the
// source already catch. Where an error is an answer instead (a stream that
// cannot be seen does not exist), the callers use the Env directly.
//
// Thread rules: as the Env in place; these helpers keep no state.
#ifndef TESSELZOSTREAM_SOURCES_FILECALLS_H_
#define TESSELZOSTREAM_SOURCES_FILECALLS_H_

#include <string>
#include <vector>

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/path.hpp>

#include "utility/Env.h"

namespace tz {

[[noreturn]] inline void ThrowFileError(const char* what, const std::string& path,
                                        const boost::system::error_code& error) {
  throw boost::filesystem::filesystem_error(what, boost::filesystem::path(path), error);
}

// True when something is at path (a link followed); throws when the path
// cannot be examined.
inline bool ExistsOrThrow(const std::string& path, bool followLinks = true) {
  boost::system::error_code error;
  FileInfo info;
  if (CurrentEnv()->Stat(path, followLinks, &info, error)) return true;
  if (error) ThrowFileError("status", path, error);
  return false;
}

// The entries of `folder`; throws when it cannot be read to its end.
inline std::vector<FolderEntry> ListOrThrow(const std::string& folder) {
  boost::system::error_code error;
  std::vector<FolderEntry> entries;
  if (!CurrentEnv()->ListFolder(folder, &entries, error))
    ThrowFileError("directory_iterator", folder, error);
  return entries;
}

// `folder` joined with the leaf `name`: one '/' between them, none added
// after an empty folder or one that ends in '/'.
inline std::string JoinLeaf(const std::string& folder, const std::string& name) {
  if (folder.empty() || folder.back() == '/') return folder + name;
  return folder + '/' + name;
}

}  // namespace tz

#endif  // TESSELZOSTREAM_SOURCES_FILECALLS_H_
