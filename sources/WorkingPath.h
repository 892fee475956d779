// Working-file paths that cannot leave their folder.
//
// A working file is the plain concatenation of the working directory's name
// and a stream name. Stream names come from callers and from compound files,
// which may be hostile, so every operation on a working file first asks
// IsInsideFolder: the name must not climb out with "..", must name
// something below the folder rather than the folder itself, and must not
// pass through a symbolic link that leads out of the folder.
//
// Thread safety: no state of its own; the file system may change between
// the check and the use, which the folder's owner rules out by owning it.
#ifndef TESSELZOSTREAM_SOURCES_WORKINGPATH_H_
#define TESSELZOSTREAM_SOURCES_WORKINGPATH_H_

#include <string>

namespace tz {

// True when `folder` + `name` names a file strictly inside `folder`, as told
// above. `folder` ends in '/'. Looks at the disk (through the platform
// layer) only for the components of the path that exist, one Stat each,
// and resolves a symbolic link only when it meets one. A component that
// cannot be examined (no permission, an I/O error) makes the answer false
// too, since it might be a link leading out; `*unsure`, when given, then
// becomes true (false otherwise), so that a caller can tell a name the
// rule refuses from one that could not be checked. Never throws.
bool IsInsideFolder(const std::string& folder, const char* name, bool* unsure = nullptr);

}  // namespace tz

#endif  // TESSELZOSTREAM_SOURCES_WORKINGPATH_H_
