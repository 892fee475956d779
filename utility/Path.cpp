#include "utility/Path.h"

#include "utility/Env.h"

std::string ZoGetCanonicalPath(const char* path) {
  if (path == nullptr || *path == '\0') return std::string();
  return tz::CurrentEnv()->CanonicalPath(path);
}
