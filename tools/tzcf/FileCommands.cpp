// check, info, compact --copy, encrypt, decrypt, passwd: the commands on a
// compound file as a whole.
//
// check and info never write: info takes the blocks in use from the
// read-only check. compact --copy refuses an encrypted file, since the
// library's rewrite produces a clear one (compact in place does not).
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>

#include <boost/filesystem.hpp>

#include <tesselzostream/CompoundFileCheck.h>
#include <tesselzostream/CompoundFileStreamSource.h>
#include <tesselzostream/Exception.h>

#include "Commands.h"
#include "ConfinedFolder.h"
#include "Password.h"
#include "Progress.h"
#include "Text.h"

namespace fs = boost::filesystem;

namespace tzcf {

namespace {

// The password for a check, when one was given without asking: a check is
// often run from scripts and can do without one.
bool CheckPassword(const Options& options, std::string* password, bool* given) {
  *given = !options.passwordFile.empty() || std::getenv(kPasswordVariable) != nullptr;
  if (!*given) return true;
  std::string error;
  if (!GetPassword(options.passwordFile, kPasswordVariable, "", false, password, &error)) {
    Report(error);
    return false;
  }
  return true;
}

CheckReport RunCheck(const std::string& file, const std::string* password, bool quiet) {
  boost::system::error_code ec;
  const std::uint64_t size = fs::file_size(file, ec);
  BusyLine busy("checking", ec ? 0 : size, quiet);
  return CheckCompoundFile(file.c_str(), password != nullptr ? password->c_str() : nullptr);
}

const char* SavedMapText(CheckReport::SavedMapState state) {
  switch (state) {
    case CheckReport::kMapMissing: return "missing (rebuilt by the next writable open)";
    case CheckReport::kMapStale: return "stale (rebuilt by the next writable open)";
    case CheckReport::kMapCurrent: return "current";
    case CheckReport::kMapUnread: return "not read (encrypted; no right password given)";
  }
  return "unknown";
}

// A private folder under the system's temporary folder, removed with all it
// holds when this goes.
class ScratchFolder {
 public:
  ScratchFolder() {
    boost::system::error_code ec;
    const fs::path path = fs::temp_directory_path(ec) / fs::unique_path("tzcf-%%%%-%%%%-%%%%", ec);
    if (!ec && fs::create_directory(path, ec) && !ec) path_ = path.string();
  }
  ~ScratchFolder() {
    boost::system::error_code ec;
    if (!path_.empty()) fs::remove_all(path_, ec);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  const std::string& path() const { return path_; }  // empty when it could not be made

 private:
  std::string path_;
};

// What the library's compaction throws when the copy failed and the old file
// is untouched.
constexpr char kCopyFailed[] = "The file could not be copied";

// The files a compaction of `file` may leave beside it: it writes the new
// file under the first free name of kelvoptmpA.zvp to kelvoptmpY.zvp.
std::set<std::string> TemporaryFiles(const std::string& file) {
  std::set<std::string> found;
  const fs::path folder = fs::path(file).parent_path();
  for (char letter = 'A'; letter <= 'Y'; ++letter) {
    const fs::path path = folder / (std::string("kelvoptmp") + letter + ".zvp");
    boost::system::error_code ec;
    if (fs::exists(path, ec)) found.insert(path.string());
  }
  return found;
}

// The compaction copies every stream through a working file named after the
// stream; a name with '/' needs its folders to exist there first. Names that
// could lead out of the working folder are left alone (the library copies
// those without a working file).
void MakeWorkingFolders(const CompoundFileStreamSource& source) {
  const std::string work = source.GetDirectoryName() != nullptr ? source.GetDirectoryName() : "";
  if (work.empty()) return;
  for (const std::string& name : *source.GetFileNames()) {
    const std::size_t slash = name.rfind('/');
    if (slash == std::string::npos || !ConfinedFolder::NameProblem(name).empty()) continue;
    boost::system::error_code ec;
    fs::create_directories(fs::path(work) / name.substr(0, slash), ec);
  }
}

// Closes a file the command wrote; false after a report when the library
// could not write everything.
bool CloseWritten(CompoundFile& file, const std::string& path) {
  errno = 0;
  file.Flush();
  const int error = errno;
  const bool ok = file.GetStatus() == ZoStreamE::StatusOk;
  if (file.Close() == ZoStreamE::StatusOk && ok) return true;
  Report(path + ": could not be written completely" + SpaceText(path, error));
  return false;
}

std::uint64_t FileSize(const std::string& path) {
  boost::system::error_code ec;
  const std::uint64_t size = fs::file_size(path, ec);
  return ec ? 0 : size;
}

}  // namespace

namespace {

// The check's report, or false after a report of why the file cannot be
// checked (in the open's words, with the system's text).
bool CheckedReport(const std::string& file, const Options& options, CheckReport* report) {
  std::string password;
  bool given = false;
  if (!CheckPassword(options, &password, &given)) return false;
  struct stat info;
  if (::stat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    Report(file + ": cannot open: " + WhyNotOpen(file, false));
    return false;
  }
  *report = RunCheck(file, given ? &password : nullptr, options.quiet);
  if (!report->opened) {
    const std::string why = WhyNotOpen(file, false);
    Report(file + ": cannot check: " + (why.rfind("damaged", 0) == 0 ? report->openError : why));
    return false;
  }
  return true;
}

const char* SavedMapWord(CheckReport::SavedMapState state) {
  switch (state) {
    case CheckReport::kMapMissing: return "missing";
    case CheckReport::kMapStale: return "stale";
    case CheckReport::kMapCurrent: return "current";
    case CheckReport::kMapUnread: return "unread";
  }
  return "unknown";
}

const char* PasswordWord(CheckReport::PasswordState state) {
  switch (state) {
    case CheckReport::kNotEncrypted: return "not encrypted";
    case CheckReport::kNoPassword: return "not given";
    case CheckReport::kPasswordWrong: return "wrong";
    case CheckReport::kPasswordRight: return "right";
  }
  return "unknown";
}

}  // namespace

Exit Check(const std::string& file, const Options& options) {
  CheckReport report;
  if (!CheckedReport(file, options, &report)) return kError;
  if (options.json) {
    std::cout << "{" << JsonName("file", file) << ", \"sound\": " << (report.Sound() ? "true" : "false")
              << ", \"blocks\": " << report.blocks << ", \"directory_blocks\": " << report.directoryBlocks
              << ", \"held_blocks\": " << report.heldBlocks << ", \"streams\": " << report.streams
              << ", \"skipped_blocks\": " << report.skippedBlocks << ", \"saved_map\": \""
              << SavedMapWord(report.savedMap) << "\", \"unfinished\": " << (report.unfinished ? "true" : "false")
              << ", \"password\": \"" << PasswordWord(report.password) << "\", \"problem_count\": "
              << report.problemCount << ", \"problems\": [";
    const char* separator = "\n";
    for (const CheckProblem& p : report.problems) {
      std::cout << separator << "  {\"block\": " << p.block << ", " << JsonName("stream", p.stream) << ", "
                << JsonName("text", p.text) << "}";
      separator = ",\n";
    }
    std::cout << (report.problems.empty() ? "]}\n" : "\n]}\n");
    return report.Sound() ? kOk : kProblem;
  }
  // The checker's texts name the block and the stream themselves.
  for (const CheckProblem& p : report.problems) std::cout << p.text << "\n";
  if (report.problemCount > report.problems.size()) {
    std::cout << (report.problemCount - report.problems.size()) << " more problems not listed\n";
  }
  std::cout << file << ": " << report.blocks << " blocks, " << report.directoryBlocks
            << " in the directory, " << report.heldBlocks << " held by " << report.streams
            << " streams, " << report.skippedBlocks << " skipped; saved map "
            << SavedMapText(report.savedMap) << "\n";
  if (report.unfinished) {
    std::cout << file << ": left by a session that did not finish; the next open for writing mends"
              << (report.Sound() ? " it" : " the problems above") << "\n";
  }
  if (report.Sound()) {
    std::cout << file << ": sound\n";
    return kOk;
  }
  std::cout << file << ": " << report.problemCount << (report.problemCount == 1 ? " problem\n" : " problems\n");
  return kProblem;
}

Exit Info(const std::string& file, const Options& options) {
  // One read-only pass gives it all: the check counts the blocks the
  // chains hold (the directory's among them), and every other block of the
  // file is what a compaction gives back.
  CheckReport report;
  if (!CheckedReport(file, options, &report)) return kError;
  std::uint64_t streams = 0;
  {
    CompoundFile reader;
    if (!OpenFile(reader, file, ZoStreamE::OpenReadOnly, true)) return kError;
    unsigned long cursor = 0;
    for (const DirEntry* e = reader.GetFirstDirEntry(&cursor); e != nullptr; e = reader.GetNextDirEntry(&cursor)) {
      if (!IsFreeListName(e->name)) ++streams;
    }
  }
  const bool encrypted = report.password != CheckReport::kNotEncrypted;
  const std::uint64_t length = report.fileLength;
  const std::uint64_t used = report.heldBlocks;
  const std::uint64_t reclaimable = length > used * tzformat::kBlockSize ? length - used * tzformat::kBlockSize : 0;
  if (options.json) {
    std::cout << "{" << JsonName("file", file) << ", \"length\": " << length << ", \"blocks\": " << length / tzformat::kBlockSize
              << ", \"blocks_in_use\": " << used << ", \"streams\": " << streams << ", \"saved_map\": \""
              << SavedMapWord(report.savedMap) << "\", \"reclaimable\": " << reclaimable
              << ", \"encrypted\": " << (encrypted ? "true" : "false") << ", \"sound\": "
              << (report.Sound() ? "true" : "false") << "}\n";
    return kOk;
  }
  std::cout << "file:          " << file << "\n"
            << "length:        " << length << " bytes (" << HumanBytes(length) << ")\n"
            << "blocks:        " << length / tzformat::kBlockSize << "\n"
            << "blocks in use: " << used << "\n"
            << "streams:       " << streams << "\n"
            << "saved map:     " << SavedMapText(report.savedMap) << "\n"
            << "reclaimable:   " << reclaimable << " bytes (" << HumanBytes(reclaimable) << ")\n"
            << "encrypted:     " << (encrypted ? "yes" : "no") << "\n";
  if (!report.Sound()) {
    std::cout << "problems:      " << report.problemCount << " (tzcf check lists them)\n";
  }
  return kOk;
}

Exit CompactByCopy(const std::string& file, const Options& options) {
  {
    CompoundFile reader;
    if (!OpenFile(reader, file, ZoStreamE::OpenReadOnly, true)) return kError;
    if (reader.IsEncrypted()) {
      Report(file + " is encrypted: compact it in place (without --copy)");
      return kError;
    }
  }
  ScratchFolder scratch;
  if (scratch.path().empty()) {
    Report("cannot make a working folder in the temporary folder");
    return kError;
  }
  boost::system::error_code ec;
  const std::uint64_t before = fs::file_size(file, ec);
  const std::string work = CompoundFileStreamSource::GetTempFolderName(scratch.path().c_str(), file.c_str());
  CompoundFileStreamSource source(file.c_str(), work.c_str());
  std::string failure;
  try {
    if (source.Open(CompoundFileStreamSource::NewDirectory, false) != CompoundFileStreamSource::NoError) {
      failure = "cannot open it for writing";
    } else {
      MakeWorkingFolders(source);
      const std::set<std::string> leftBefore = TemporaryFiles(file);
      BusyLine busy("compacting", before, options.quiet, before);
      try {
        source.CompactCompoundFile();
      } catch (const Exception& e) {
        // A copy that failed leaves the old file as it was and the partial
        // new one beside it, which is of no use to anybody.
        if (std::string(e.what()).rfind(kCopyFailed, 0) == 0) {
          for (const std::string& left : TemporaryFiles(file)) {
            if (leftBefore.count(left) == 0) fs::remove(left, ec);
          }
        }
        throw;
      }
    }
  } catch (const Exception& e) {
    failure = e.what();
  } catch (const ZoStreamE::Status&) {
    failure = "cannot open it for writing";
  } catch (const fs::filesystem_error& e) {
    failure = e.what();
  }
  try {
    source.Close(CompoundFileStreamSource::DiscardChanges, false);
  } catch (const fs::filesystem_error&) {
  }
  if (!failure.empty()) {
    for (char& c : failure) {
      if (c == '\n') c = ' ';
    }
    Report(file + ": not compacted: " + failure);
    return kError;
  }
  const std::uint64_t after = fs::file_size(file, ec);
  if (!options.quiet) std::cout << file << ": " << HumanBytes(before) << " -> " << HumanBytes(after) << "\n";
  return kOk;
}

Exit Encrypt(const std::string& file, const Options& options) {
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadWrite, true)) return kError;
  if (archive.IsEncrypted()) {
    Report(file + " is already encrypted (passwd changes its password)");
    return kError;
  }
  std::string password, error;
  if (!GetPassword(options.passwordFile, kPasswordVariable, "New password for " + file + ": ", true,
                   &password, &error)) {
    Report(error);
    return kError;
  }
  ZoStreamE::Status result;
  {
    BusyLine busy("encrypting", FileSize(file), options.quiet, FileSize(file));
    result = archive.Encrypt(password.c_str());
  }
  if (result != ZoStreamE::StatusOk) {
    Report(file + (archive.GetNumDirEntrys() == 0 ? ": has no stream to encrypt" : ": encryption failed"));
    archive.Close();
    return kError;
  }
  return CloseWritten(archive, file) ? kOk : kError;
}

Exit Decrypt(const std::string& file, const Options& options) {
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadWrite, true)) return kError;
  if (!archive.IsEncrypted()) {
    Report(file + " is not encrypted");
    return kError;
  }
  if (!Unlock(archive, file, options)) return kError;
  ZoStreamE::Status result;
  {
    BusyLine busy("decrypting", FileSize(file), options.quiet, FileSize(file));
    result = archive.Decrypt();
  }
  if (result != ZoStreamE::StatusOk) {
    Report(file + ": decryption failed");
    archive.Close();
    return kError;
  }
  return CloseWritten(archive, file) ? kOk : kError;
}

Exit ChangePassword(const std::string& file, const Options& options) {
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadWrite, true)) return kError;
  if (!archive.IsEncrypted()) {
    Report(file + " is not encrypted (encrypt gives it a password)");
    return kError;
  }
  if (!Unlock(archive, file, options)) return kError;
  std::string password, error;
  if (!GetPassword(options.newPasswordFile, kNewPasswordVariable, "New password for " + file + ": ", true,
                   &password, &error)) {
    Report(error);
    return kError;
  }
  ZoStreamE::Status result;
  {
    // Deciphering and enciphering again: two passes over the file.
    BusyLine busy("changing the password", FileSize(file), options.quiet, 2 * FileSize(file));
    result = archive.Encrypt(password.c_str());
  }
  if (result != ZoStreamE::StatusOk) {
    Report(file + ": the password could not be changed");
    archive.Close();
    return kError;
  }
  return CloseWritten(archive, file) ? kOk : kError;
}

}  // namespace tzcf
