// SalvageCompoundFile: the damaged file read through its own BlockIO, the
// new file made through the public API. The walks are SalvageWalk's.
#include "tesselzostream/Salvage.h"

#include <cstdio>
#include <memory>
#include <string>

#include "blockstore/BlockFormat.h"
#include "blockstore/BlockIO.h"
#include "checker/ReadOnlyFile.h"
#include "checker/SalvageWalk.h"
#include "utility/Env.h"

namespace bf = blockformat;

namespace {


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
  std::uint64_t length = 0;
  const std::unique_ptr<BlockIO> io = checker::OpenForReading(damaged, &report.openError, &length);
  if (!io) return report;
  if (Exists(out)) {
    report.openError = std::string("exists already: ") + out;
    return report;
  }
  report.blocks = static_cast<std::uint32_t>(length / bf::kBlockSize);
  SalvageWalk walk(io.get(), report.blocks, &report);
  if (!walk.ReadDirectory(password)) return report;
  bool created = false;
  if (!Build(&walk, out, password, &report, &created)) {
    boost::system::error_code error;
    if (created) tz::CurrentEnv()->Remove(out, error);
    return report;
  }
  report.opened = true;
  return report;
}
