#include "testsupport/ScratchFolder.h"

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace tzsupport {

ScratchFolder::ScratchFolder() : ScratchFolder(std::filesystem::temp_directory_path().string(), "tztest-") {}

ScratchFolder::ScratchFolder(const std::string& parent, const std::string& prefix) {
  std::string pattern = (std::filesystem::path(parent) / (prefix + "XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot make a scratch folder in " + parent);
  }
  path_ = pattern;
}

ScratchFolder::~ScratchFolder() {
  if (keep_) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace tzsupport
