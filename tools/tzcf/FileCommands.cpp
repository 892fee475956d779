// check, info, compact, encrypt, decrypt, passwd: the commands on a
// compound file as a whole.
//
// check never writes. info only reads, though it opens the file for
// writing: the library measures reclaimable space only on a writable open,
// and an open that changes nothing writes nothing back. compact refuses an
// encrypted file, since the library's rewrite produces a clear one.
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
  if (file.Close() == ZoStreamE::StatusOk) return true;
  Report(path + ": could not be written completely");
  return false;
}

}  // namespace

Exit Check(const std::string& file, const Options& options) {
  std::string password;
  bool given = false;
  if (!CheckPassword(options, &password, &given)) return kError;
  const CheckReport report = RunCheck(file, given ? &password : nullptr, options.quiet);
  if (!report.opened) {
    Report(file + ": cannot check: " + report.openError);
    return kError;
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
  std::string password;
  bool given = false;
  if (!CheckPassword(options, &password, &given)) return kError;
  // The check runs first: it needs the file's lock, which the opens below
  // hold.
  const CheckReport report = RunCheck(file, given ? &password : nullptr, options.quiet);

  CompoundFile reader;
  if (!OpenFile(reader, file, ZoStreamE::OpenReadOnly, true)) return kError;
  std::uint64_t streams = 0;
  unsigned long cursor = 0;
  for (const DirEntry* e = reader.GetFirstDirEntry(&cursor); e != nullptr; e = reader.GetNextDirEntry(&cursor)) {
    if (!IsFreeListName(e->name)) ++streams;
  }
  const bool encrypted = reader.IsEncrypted();
  reader.Close();

  // Blocks in use and reclaimable space come from a writable open through a
  // working-folder source; a file that cannot be opened so leaves them
  // unknown.
  std::string used = "unknown (the file cannot be opened for writing)";
  std::string reclaimable = used;
  ScratchFolder scratch;
  if (!scratch.path().empty()) {
    const std::string work = CompoundFileStreamSource::GetTempFolderName(scratch.path().c_str(), file.c_str());
    CompoundFileStreamSource source(file.c_str(), work.c_str());
    try {
      if (source.Open(CompoundFileStreamSource::NewDirectory, false) == CompoundFileStreamSource::NoError) {
        CompoundFile joined;  // shares the source's open file
        if (joined.Open(file.c_str(), ZoStreamE::OpenReadWrite) == ZoStreamE::StatusOk) {
          used = std::to_string(joined.GetNumUsedBlocks());
        }
        joined.Close();
        const unsigned long gain = source.GetUnUsedFileSpace();
        reclaimable = std::to_string(gain) + " bytes (" + HumanBytes(gain) + ")";
      }
    } catch (const ZoStreamE::Status&) {
    } catch (const fs::filesystem_error&) {
    }
    try {
      source.Close(CompoundFileStreamSource::DiscardChanges, false);
    } catch (const fs::filesystem_error&) {
    }
  }

  boost::system::error_code ec;
  const std::uint64_t length = fs::file_size(file, ec);
  std::cout << "file:          " << file << "\n"
            << "length:        " << length << " bytes (" << HumanBytes(length) << ")\n"
            << "blocks:        " << length / 1024 << "\n"
            << "blocks in use: " << used << "\n"
            << "streams:       " << streams << "\n"
            << "saved map:     "
            << (report.opened ? std::string(SavedMapText(report.savedMap)) : "unknown (" + report.openError + ")")
            << "\n"
            << "reclaimable:   " << reclaimable << "\n"
            << "encrypted:     " << (encrypted ? "yes" : "no") << "\n";
  return kOk;
}

Exit Compact(const std::string& file, const Options& options) {
  {
    CompoundFile reader;
    if (!OpenFile(reader, file, ZoStreamE::OpenReadOnly, true)) return kError;
    if (reader.IsEncrypted()) {
      Report(file + " is encrypted: decrypt it, compact it and encrypt it again");
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
      BusyLine busy("compacting", before, options.quiet);
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
  if (archive.Encrypt(password.c_str()) != ZoStreamE::StatusOk) {
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
  if (archive.Decrypt() != ZoStreamE::StatusOk) {
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
  if (archive.Encrypt(password.c_str()) != ZoStreamE::StatusOk) {
    Report(file + ": the password could not be changed");
    archive.Close();
    return kError;
  }
  return CloseWritten(archive, file) ? kOk : kError;
}

}  // namespace tzcf
