#include "checker/ReadOnlyFile.h"

#include "blockstore/BlockFormat.h"
#include "utility/Env.h"

namespace checker {

namespace {
constexpr std::uint64_t kMaxBlocks = 0x7fffffff;  // block numbers are signed 32-bit
}  // namespace

std::unique_ptr<BlockIO> OpenForReading(const char* path, std::string* error, std::uint64_t* length) {
  *length = 0;
  if (path == nullptr || *path == '\0') {
    *error = "no file name";
    return nullptr;
  }
  boost::system::error_code ec;
  tz::FileInfo info;
  if (!tz::CurrentEnv()->Stat(path, true, &info, ec) || info.kind != tz::FileKind::kRegular) {
    *error = std::string("not a regular file: ") + path;
    return nullptr;
  }
  std::unique_ptr<tz::RandomAccessFile> file = tz::CurrentEnv()->OpenLocked(path, false);
  if (!file) {
    *error = std::string("cannot open (missing, no permission, or open elsewhere): ") + path;
    return nullptr;
  }
  std::unique_ptr<BlockIO> io(new BlockIO(std::move(file)));
  if (!io->DiskSize(length)) {
    *error = std::string("cannot tell the length of ") + path;
    return nullptr;
  }
  if (*length / blockformat::kBlockSize > kMaxBlocks) {
    *error = "more blocks than a compound file can number";
    return nullptr;
  }
  return io;
}

}  // namespace checker
