// CompoundFileStreamSource: operations on the file as a whole: SaveAs,
// GetUnUsedFileSpace and CompactCompoundFile.
#include <cstdint>
#include <memory>

#include "sources/FileCalls.h"
#include "sources/SourceConstants.h"
#include "tesselzostream/CompoundFileStreamSource.h"
#include "tesselzostream/Exception.h"
#include "utility/Env.h"
#include "utility/Path.h"
#include "tesselzostream/FormatFacts.h"
#include "utility/ZoString.h"

namespace fs = boost::filesystem;  // paths and their exception only

namespace {

constexpr std::uint32_t kPayload = tzformat::kPayloadSize;
constexpr std::uint32_t kEntriesPerBlock = tzformat::kEntriesPerDirBlock;
constexpr std::uint32_t kBlockSize = tzformat::kBlockSize;

std::uint32_t CeilDiv(std::uint32_t n, std::uint32_t d) { return n / d + (n % d != 0 ? 1 : 0); }

// Size by stat, cut to 32 bits; 0 when the file cannot be examined.
std::uint32_t StatSize32(const std::string& path) {
  tz::FileInfo info;
  boost::system::error_code error;
  return tz::CurrentEnv()->Stat(path, true, &info, error) ? static_cast<std::uint32_t>(info.size) : 0;
}

// True when `name` is the directory entry of the open file `openName`
// (canonical): the same folder and the same leaf. Another link to that
// file, hard or symbolic, is another entry: removing it leaves the open
// file alone.
bool IsOpenFile(const char* name, const char* openName) {
  if (openName == nullptr || *name == '\0') return false;
  const fs::path path(name);
  const std::string leaf = path.filename().string();
  std::string entry;
  // A name whose canonical form cannot be worked out may be the open file:
  // it counts as that file, and the copy is refused.
  if (leaf.empty() || leaf == "." || leaf == "..") {
    entry = ZoGetCanonicalPath(name);
    if (entry.empty()) return true;
  } else {
    const fs::path parent = path.has_parent_path() ? path.parent_path() : fs::path(".");
    entry = ZoGetCanonicalPath(parent.string().c_str());
    if (entry.empty()) return true;
    if (entry.back() != '/') entry += '/';
    entry += leaf;
  }
  return entry == openName;
}

// True when `name` is another link to the open file `openName`.
bool IsOtherNameOf(const char* name, const char* openName) {
  if (openName == nullptr) return false;
  tz::Env* env = tz::CurrentEnv();
  boost::system::error_code error;
  tz::FileInfo one, other;
  return env->Stat(name, true, &one, error) && env->Stat(openName, true, &other, error) &&
         one.device == other.device && one.node == other.node;
}

// Removes the file at path through the platform layer; a failure throws
// as the file system's own remove does, so that one handler covers both.
void RemoveOrThrow(const std::string& path) {
  boost::system::error_code error;
  if (!tz::CurrentEnv()->Remove(path, error))
    tz::ThrowFileError("remove", path, error);
}

}  // namespace

CompoundFileStreamSource::Error CompoundFileStreamSource::SaveAs(const char* newName) {
  bool sound = false;
  return WriteCopy(newName, &sound);
}

std::istream* CompoundFileStreamSource::OpenForCopy(const char* name) {
  std::string path;
  bool unsure = false;
  if (WorkingFile(name, &path, &unsure)) {
    if (std::istream* input = GetIStream(name)) return input;
    if (tz::ExistsOrThrow(path, false)) return nullptr;
  } else if (unsure) {
    // Not known to be refused: the working file may hold changes that the
    // stored stream lacks.
    tz::ThrowFileError("status", name, boost::system::error_code(EIO, boost::system::system_category()));
  }
  // No working file can serve: the stored stream, straight from the file.
  return mCompoundFile.GetIOStream(name, "rb");
}

CompoundFileStreamSource::Error CompoundFileStreamSource::WriteCopy(const char* newName,
                                                                    bool* sound) {
  *sound = false;
  const char* targetName = newName != nullptr ? newName : "";
  if (IsOpenFile(targetName, mCompoundFile.GetCompoundFileName())) return FileOperationFailed;
  CompoundFile target;
  const boost::shared_ptr<const std::set<std::string>> names = GetFileNames();
  try {
    // A file that another open holds is not removed: the holder would go
    // on writing into a file without a name (a file held in this process
    // would even be joined, not made anew). Another name of the file this
    // source holds is no such case: removing it leaves the open file alone.
    if (*targetName != '\0' && tz::CurrentEnv()->IsLocked(targetName) &&
        !IsOtherNameOf(targetName, mCompoundFile.GetCompoundFileName()))
      return FileOperationFailed;
    if (*targetName != '\0') RemoveOrThrow(targetName);
    if (target.Open(targetName, ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk)
      return CompoundFileNotAvailable;
    for (const std::string& name : *names) {
      std::unique_ptr<std::istream> input(OpenForCopy(name.c_str()));
      if (input == nullptr) return FileOperationFailed;
      const Error result = CopyToBlockFile(target, *input, name.c_str());
      if (result != NoError) return result;
    }
  } catch (const fs::filesystem_error&) {
    return FileOperationFailed;
  }
  mIsDirty = false;
  // Each stream's release has written its blocks and the directory; what
  // the target's close adds is the saved map, which a new open can do
  // without.
  *sound = target.GetStatus() == ZoStreamE::StatusOk;
  return NoError;
}

unsigned long CompoundFileStreamSource::GetUnUsedFileSpace() const {
  if (mCompoundFile.IsReadOnly()) return 0;
  // Unsigned 32-bit arithmetic throughout, wrap-around included.
  std::uint32_t liveEntries = static_cast<std::uint32_t>(mCompoundFile.GetNumDirEntrys());
  std::uint32_t dataBlocks = static_cast<std::uint32_t>(mCompoundFile.GetNumUsedBlocks()) -
                             CeilDiv(liveEntries, kEntriesPerBlock);
  auto forgetStored = [&](const char* name) {
    const DirEntry* entry = mCompoundFile.FindDirEntry(name);
    if (entry == nullptr) return;
    dataBlocks -= CeilDiv(entry->size, kPayload);
    liveEntries -= 1;
  };
  for (const std::string& name : *mDeletedFiles) forgetStored(name.c_str());

  const std::string folderName(mDirectoryName != nullptr ? mDirectoryName : "");
  for (const tz::FolderEntry& entry : tz::ListOrThrow(folderName)) {
    const std::string& leaf = entry.name;
    if (mExtractedFiles->count(leaf) != 0 || mTempFiles->count(leaf) != 0 ||
        ZoString::StrICmp(leaf.c_str(), tz::kMarkerName) == 0)
      continue;
    dataBlocks += CeilDiv(StatSize32(tz::JoinLeaf(folderName, leaf)), kPayload);
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
  if (mCompoundFile.GetStatus() != ZoStreamE::StatusOk || mCompoundFile.IsReadOnly()) return;

  fs::path tempPath;
  for (char letter = 'A';;) {
    const std::string stem = std::string("kelvoptmp") + letter;
    ++letter;
    if (letter == 'Z' + 1) throw Exception("Temporary file name could not be generated.");
    tempPath = folder / (stem + ".zvp");
    if (!tz::ExistsOrThrow(tempPath.string())) break;
  }
  const std::string tempName = tempPath.string();

  bool oldGone = false;
  try {
    // A copy whose writes failed somewhere (a full disk) must not take the
    // old file's place, and the changes it did not get stay pending.
    const bool wasDirty = mIsDirty;
    bool sound = false;
    if (WriteCopy(tempName.c_str(), &sound) != NoError) throw Exception("The file could not be copied");
    if (!sound) {
      mIsDirty = wasDirty;
      throw Exception("The file could not be copied");
    }
    if (Close(DiscardChanges, false) != NoError) throw Exception("The old file could not be closed");
    RemoveOrThrow(filePath.string());
    oldGone = true;
    boost::system::error_code error;
    if (!tz::CurrentEnv()->Rename(tempName, filePath.string(), error))
      throw fs::filesystem_error("rename", tempPath, filePath, error);  // as the file system's own
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
