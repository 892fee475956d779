// SalvageCompoundFile: the damaged file read through its own BlockIO, the
// new file made through the public API. The walks are SalvageWalk's.
#include "tesselzostream/Salvage.h"

#include <cstdio>
#include <memory>
#include <string>

#include "blockstore/BlockFormat.h"
#include "blockstore/BlockIO.h"
#include "checker/SalvageWalk.h"
#include "utility/Env.h"

namespace bf = blockformat;

namespace {

constexpr std::uint64_t kMaxBlocks = 0x7fffffff;  // block numbers are signed 32-bit

// Anything at `path`, a dangling link too; a path that cannot be examined
// counts as taken.
bool Exists(const char* path) {
  boost::system::error_code error;
  tz::FileInfo info;
  return tz::CurrentEnv()->Stat(path, false, &info, error) || error;
}

// The new file, written; false with the report's openError. When `created`
// comes back true the file is this call's (the caller removes it on failure).
bool Build(SalvageWalk* walk, const char* out, const char* password, SalvageReport* report,
           bool* created) {
  CompoundFile file;
  // Made here and now, or refused: a file that appeared since the first
  // look is somebody else's.
  std::FILE* made = std::fopen(out, "wbx");
  if (made == nullptr) {
    report->openError = std::string(Exists(out) ? "exists already: " : "cannot create ") + out;
    return false;
  }
  (void)std::fclose(made);
  *created = true;
  ZoStreamE::Status opened = ZoStreamE::StatusFailed;
  try {
    opened = file.Open(out, ZoStreamE::OpenReadWrite);
  } catch (...) {  // a new, empty file gives the open nothing to throw about; kept total
  }
  if (opened != ZoStreamE::StatusOk) {
    report->openError = std::string("cannot create ") + out;
    return false;
  }
  // The cipher goes on while the file holds one empty stream, so that no
  // salvaged byte is ever written in clear.
  const bool encrypted = report->password == CheckReport::kPasswordRight;
  bool ok = !encrypted || (file.WriteStream(SalvageWalk::kPlaceholder, "", 0) &&
                           file.Encrypt(password) == ZoStreamE::StatusOk);
  if (!ok) report->openError = std::string("cannot encrypt ") + out;
  ok = ok && walk->CopyAll(&file);
  if (ok && encrypted && !file.DeleteCFFile(SalvageWalk::kPlaceholder)) {
    report->openError = std::string("cannot write ") + out;
    ok = false;
  }
  if (ok) file.Flush();
  ok = ok && file.GetStatus() == ZoStreamE::StatusOk;
  if (file.Close() != ZoStreamE::StatusOk && ok) {
    report->openError = std::string("cannot write ") + out;
    ok = false;
  }
  return ok;
}

}  // namespace

SalvageReport SalvageCompoundFile(const char* damaged, const char* out, const char* password) {
  SalvageReport report;
  if (damaged == nullptr || *damaged == '\0' || out == nullptr || *out == '\0') {
    report.openError = "no file name";
    return report;
  }
  boost::system::error_code error;
  tz::FileInfo info;
  if (!tz::CurrentEnv()->Stat(damaged, true, &info, error) || info.kind != tz::FileKind::kRegular) {
    report.openError = std::string("not a regular file: ") + damaged;
    return report;
  }
  if (Exists(out)) {
    report.openError = std::string("exists already: ") + out;
    return report;
  }
  std::unique_ptr<tz::RandomAccessFile> file = tz::CurrentEnv()->OpenLocked(damaged, false);
  if (!file) {
    report.openError = std::string("cannot open (missing, no permission, or open elsewhere): ") + damaged;
    return report;
  }
  BlockIO io(std::move(file));
  std::uint64_t length = 0;
  if (!io.DiskSize(&length)) {
    report.openError = std::string("cannot tell the length of ") + damaged;
    return report;
  }
  if (length / bf::kBlockSize > kMaxBlocks) {
    report.openError = "more blocks than a compound file can number";
    return report;
  }
  report.blocks = static_cast<std::uint32_t>(length / bf::kBlockSize);
  SalvageWalk walk(&io, report.blocks, &report);
  if (!walk.ReadDirectory(password)) return report;
  bool created = false;
  if (!Build(&walk, out, password, &report, &created)) {
    if (created) tz::CurrentEnv()->Remove(out, error);
    return report;
  }
  report.opened = true;
  return report;
}
