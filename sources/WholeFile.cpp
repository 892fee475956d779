// CompoundFileStreamSource: operations on the file as a whole: SaveAs,
// GetUnUsedFileSpace and CompactCompoundFile.
#include <sys/stat.h>

#include <cstdint>
#include <memory>

#include <boost/filesystem.hpp>

#include "sources/SourceConstants.h"
#include "tesselzostream/CompoundFileStreamSource.h"
#include "tesselzostream/Exception.h"
#include "utility/Path.h"
#include "utility/ZoString.h"

namespace fs = boost::filesystem;

namespace {

constexpr std::uint32_t kPayload = 1003;      // stream bytes in one data block
constexpr std::uint32_t kEntriesPerBlock = 3;  // directory entries in one block
constexpr std::uint32_t kBlockSize = 1024;
constexpr char kFreeListName[] = "zorvanet_block_file_free_list";

std::uint32_t CeilDiv(std::uint32_t n, std::uint32_t d) { return n / d + (n % d != 0 ? 1 : 0); }

// Size by stat, cut to 32 bits; 0 when the file cannot be examined.
std::uint32_t StatSize32(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 ? static_cast<std::uint32_t>(info.st_size) : 0;
}

// True when `a` and `b` name one file (by canonical path, or by identity for
// two links to one file).
bool SameFile(const char* a, const char* b) {
  const std::string ca = ZoGetCanonicalPath(a);
  if (!ca.empty() && ca == ZoGetCanonicalPath(b)) return true;
  boost::system::error_code error;
  return fs::equivalent(fs::path(a), fs::path(b), error) && !error;
}

}  // namespace

CompoundFileStreamSource::Error CompoundFileStreamSource::SaveAs(const char* newName) {
  if (newName == nullptr || *newName == '\0') return FileOperationFailed;
  const char* openName = mCompoundFile->GetCompoundFileName();
  if ((openName != nullptr && SameFile(newName, openName)) ||
      (mCompoundFileName != nullptr && SameFile(newName, mCompoundFileName)))
    return FileOperationFailed;

  CompoundFile target;
  const boost::shared_ptr<const std::set<std::string>> names = GetFileNames();
  try {
    fs::remove(fs::path(newName));
    if (target.Open(newName, ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk)
      return CompoundFileNotAvailable;
    for (const std::string& name : *names) {
      std::unique_ptr<std::basic_istream<char>> input;
      std::string path;
      if (!WorkingFile(name.c_str(), &path) || path.size() >= tz::kMaxPath) {
        // No working file can exist for this name: copy it straight from
        // the compound file, so that a rewrite never loses it.
        input.reset(mCompoundFile->GetIOStream(name.c_str(), "rb"));
      } else {
        input.reset(GetIStream(name.c_str()));
      }
      if (input == nullptr) return FileOperationFailed;
      const Error result = CopyToBlockFile(target, *input, name.c_str());
      if (result != NoError) return result;
    }
  } catch (const fs::filesystem_error&) {
    return FileOperationFailed;
  }
  mIsDirty = false;
  return NoError;
}

unsigned long CompoundFileStreamSource::GetUnUsedFileSpace() const {
  if (mCompoundFile->IsReadOnly()) return 0;
  // Unsigned 32-bit arithmetic throughout, wrap-around included.
  std::uint32_t liveEntries = static_cast<std::uint32_t>(mCompoundFile->GetNumDirEntrys());
  std::uint32_t dataBlocks = static_cast<std::uint32_t>(mCompoundFile->GetNumUsedBlocks()) -
                             CeilDiv(liveEntries, kEntriesPerBlock);
  auto forgetStored = [&](const char* name) {
    const DirEntry* entry = mCompoundFile->FindDirEntry(name);
    if (entry == nullptr) return;
    dataBlocks -= CeilDiv(entry->size, kPayload);
    liveEntries -= 1;
  };
  for (const std::string& name : *mDeletedFiles) forgetStored(name.c_str());

  const std::string folderName(mDirectoryName != nullptr ? mDirectoryName : "");
  for (fs::directory_iterator it{fs::path(folderName)}, end; it != end; ++it) {
    const std::string leaf = it->path().filename().string();
    if (mExtractedFiles->count(leaf) != 0 || mTempFiles->count(leaf) != 0 ||
        ZoString::StrICmp(leaf.c_str(), tz::kMarkerName) == 0)
      continue;
    dataBlocks += CeilDiv(StatSize32(folderName + leaf), kPayload);
    liveEntries += 1;
    forgetStored(leaf.c_str());
  }

  const std::uint32_t needed =
      (dataBlocks + CeilDiv(liveEntries, kEntriesPerBlock)) * kBlockSize;
  const std::uint32_t fileSize =
      mCompoundFileName != nullptr ? StatSize32(mCompoundFileName) : 0;
  return fileSize > needed ? fileSize - needed : 0;
}

void CompoundFileStreamSource::CompactCompoundFile() {
  const fs::path filePath(mCompoundFileName != nullptr ? mCompoundFileName : "");
  const fs::path folder = filePath.parent_path();
  if (mCompoundFile->GetStatus() != ZoStreamE::StatusOk || mCompoundFile->IsReadOnly()) return;

  fs::path tempPath;
  for (char letter = 'A';;) {
    const std::string stem = std::string("kelvoptmp") + letter;
    ++letter;
    if (letter == 'Z' + 1) throw Exception("Temporary file name could not be generated.");
    tempPath = folder / (stem + ".zvp");
    if (!fs::exists(tempPath)) break;
  }
  const std::string tempName = tempPath.string();

  bool oldGone = false;
  try {
    if (SaveAs(tempName.c_str()) != NoError) throw Exception("The file could not be copied");
    // The old file goes only once the new one is known to be complete: it
    // opens cleanly and holds every stream the source lists, at its size.
    {
      CompoundFile check;
      bool complete = check.Open(tempName.c_str(), ZoStreamE::OpenReadOnly) ==
                      ZoStreamE::StatusOk;
      if (complete) {
        const boost::shared_ptr<const std::set<std::string>> names = GetFileNames();
        for (const std::string& name : *names) {
          if (name == kFreeListName) continue;  // rewritten by every close
          const DirEntry* entry = check.FindDirEntry(name.c_str());
          std::string path;
          const bool viaFolder = WorkingFile(name.c_str(), &path) && path.size() < tz::kMaxPath;
          const DirEntry* stored = mCompoundFile->FindDirEntry(name.c_str());
          const std::uint32_t size = viaFolder ? GetStreamSize(name.c_str())
                                               : (stored != nullptr ? stored->size : 0);
          if (entry == nullptr || entry->size != size) {
            complete = false;
            break;
          }
        }
      }
      if (!complete) throw Exception("The file could not be copied");
    }
    if (Close(DiscardChanges, false) != NoError) throw Exception("The old file could not be closed");
    fs::remove(filePath);
    oldGone = true;
    fs::rename(tempPath, filePath);
    if (Open(NewDirectory, false) != NoError) throw Exception("The compacted file could not be opened");
  } catch (const fs::filesystem_error&) {
    std::string text = oldGone ? "The temporary file could not be renamed."
                               : "The file could not be compacted.";
    if (oldGone) ZoString::SetStr(mCompoundFileName, tempName.c_str());
    if (Open(NewDirectory, false) != NoError) throw Exception(text);
    if (oldGone) text += "\nThe new file name is " + tempPath.filename().string();
    throw Exception(text);
  }
}
