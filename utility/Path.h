// Canonical paths: one text for all the forms of a path to one file.
//
// Thread safety: no state of its own; any thread may call it.
#ifndef TESSELZOSTREAM_UTILITY_PATH_H_
#define TESSELZOSTREAM_UTILITY_PATH_H_

#include <string>

// The absolute path with "." and ".." removed and symbolic links resolved
// as far as the path exists, as the platform layer in place works it out
// (tz::Env::CanonicalPath). Empty for a null, empty or unusable path.
// Never throws.
std::string ZoGetCanonicalPath(const char* path);

#endif  // TESSELZOSTREAM_UTILITY_PATH_H_
