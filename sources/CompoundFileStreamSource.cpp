// Lifecycle of a CompoundFileStreamSource: construction, Open and Close, the
// working directory's name, creation and removal.
#include "tesselzostream/CompoundFileStreamSource.h"

#include <memory>

#include "sources/FileCalls.h"
#include "sources/SourceConstants.h"
#include "sources/SourceImpl.h"
#include "utility/Env.h"
#include "utility/MD5.h"
#include "utility/Path.h"
#include "utility/ZoString.h"

namespace fs = boost::filesystem;

CompoundFileStreamSource::CompoundFileStreamSource(const char* compoundFileName,
                                                   const char* directoryName)
    : mCompoundFileName(ZoString::zostrdup(compoundFileName)),
      mDirectoryName(nullptr),
      mIsDirty(false),
      mIsReadOnly(false),
      mDeletedFiles(new std::set<std::string>()),
      mExtractedFiles(new std::set<std::string>()),
      mTempFiles(new std::set<std::string>()),
      mImpl(new Impl),
      mOpenMode(NotOpened) {
  SetDirectoryName(directoryName);
}

CompoundFileStreamSource::~CompoundFileStreamSource() {
  delete[] mCompoundFileName;
  delete[] mDirectoryName;
  delete mDeletedFiles;
  delete mExtractedFiles;
  delete mTempFiles;
}

void CompoundFileStreamSource::SetCompoundFileName(const char* name) {
  ZoString::SetStr(mCompoundFileName, name);
}

void CompoundFileStreamSource::SetDirectoryName(const char* name) {
  delete[] mDirectoryName;
  mDirectoryName = ZoString::zostrdup(name);
}

CompoundFileStreamSource::Error CompoundFileStreamSource::Open(OpenMode mode, bool readOnly) {
  Error result = NoError;
  const std::string folder(mDirectoryName != nullptr ? mDirectoryName : "");
  mIsReadOnly = readOnly;
  const ZoStreamE::OpenMode fileMode = readOnly ? ZoStreamE::OpenReadOnly
                                                : ZoStreamE::OpenReadWrite;
  try {
    if (mode == NewDirectory) {
      boost::system::error_code error;
      if (tz::ExistsOrThrow(folder)) {
        result = DirectoryExists;
      } else {
        if (!tz::CurrentEnv()->MakeFolder(folder, error)) tz::ThrowFileError("create_directory", folder, error);
        if (mCompoundFile.Open(mCompoundFileName, fileMode) != ZoStreamE::StatusOk)
          result = CompoundFileNotAvailable;
      }
    } else {
      if (mCompoundFile.Open(mCompoundFileName, fileMode) != ZoStreamE::StatusOk)
        result = CompoundFileNotAvailable;
      else if (!tz::ExistsOrThrow(folder))
        result = DirectoryMissing;
    }
    if (result == NoError) {
      mIsDirty = false;
      mDeletedFiles->clear();
      mExtractedFiles->clear();
      mOpenMode = mode;
    }
  } catch (const fs::filesystem_error&) {
    result = FileOperationFailed;
  }
  // Both names become canonical on every way out, failures included.
  std::string canonical = ZoGetCanonicalPath(mDirectoryName);
  if (!canonical.empty()) {
    if (canonical.back() != '/') canonical += '/';
    ZoString::SetStr(mDirectoryName, canonical.c_str());
  }
  canonical = ZoGetCanonicalPath(mCompoundFileName);
  if (!canonical.empty()) ZoString::SetStr(mCompoundFileName, canonical.c_str());
  return result;
}

CompoundFileStreamSource::Error CompoundFileStreamSource::Close(CloseMode mode, bool copyAll) {
  if (mode == SaveChanges && mIsDirty) {
    const Error copied = CopyToBlockFile(copyAll);
    if (copied != NoError) return copied;
  }
  if (!DeleteDirectory()) return DirectoryNotDeleted;
  mIsDirty = false;
  mDeletedFiles->clear();
  mExtractedFiles->clear();
  mTempFiles->clear();
  mCompoundFile.Close();
  return NoError;
}

void CompoundFileStreamSource::CloseFile() { Close(SaveChanges, false); }

bool CompoundFileStreamSource::CleanUp() { return DeleteDirectory(); }

bool CompoundFileStreamSource::DeleteDirectory() {
  // An empty name names no folder: nothing to remove.
  if (mDirectoryName == nullptr || *mDirectoryName == '\0') return true;
  boost::system::error_code error;
  if (tz::CurrentEnv()->RemoveAll(mDirectoryName, error)) return true;
  delete GetOStream(tz::kMarkerName);
  return false;
}

std::string CompoundFileStreamSource::GetTempFolderName(const char* baseFolder,
                                                        const char* name) {
  const MD5 digest(name != nullptr ? name : "");
  const std::string leaf = std::string("_KV_") + digest.GetDigest();
  return (fs::path(baseFolder != nullptr ? baseFolder : "") / leaf).string();
}

bool CompoundFileStreamSource::PreviousDeleteOfTempDirUnsuccessfull(const char* folder) {
  if (folder == nullptr || *folder == '\0') return false;
  std::string marker(folder);
  if (marker.back() != '/') marker += '/';
  marker += tz::kMarkerName;
  boost::system::error_code error;
  return tz::CurrentEnv()->Exists(marker, error);
}
