// A fresh scratch folder for a benchmark run, removed with all it holds when
// the object goes. Failing to make it throws std::runtime_error.
#ifndef TESSELZOSTREAM_BENCH_SCRATCHFOLDER_H_
#define TESSELZOSTREAM_BENCH_SCRATCHFOLDER_H_

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

class ScratchFolder {
 public:
  // A folder named `prefix` plus six random characters inside `parent`.
  ScratchFolder(const std::filesystem::path& parent, const std::string& prefix) {
    std::string tmpl = (parent / (prefix + "XXXXXX")).string();
    if (::mkdtemp(tmpl.data()) == nullptr) {
      throw std::runtime_error("cannot make a scratch folder in " + parent.string());
    }
    path_ = tmpl;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

#endif  // TESSELZOSTREAM_BENCH_SCRATCHFOLDER_H_
