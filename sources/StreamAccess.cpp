// CompoundFileStreamSource: access to single streams and the list of names.
// The working directory comes first: a working file, where there is one, is
// the stream; only otherwise, and unless the name was deleted, the compound
// file counts.
#include <cstring>

#include <boost/thread/locks.hpp>

#include "sources/FileCalls.h"
#include "sources/SourceImpl.h"
#include "sources/SourceConstants.h"
#include "sources/WorkingPath.h"
#include "tesselzostream/CompoundFileStreamSource.h"
#include "utility/Env.h"

namespace {
// Whether a working file is there (a link followed); a path that cannot be
// examined counts as none, so that the compound file answers for it.
bool PathExists(const std::string& path) {
  boost::system::error_code error;
  return tz::CurrentEnv()->Exists(path, error);
}
}  // namespace

bool CompoundFileStreamSource::WorkingFile(const char* name, std::string* path,
                                           bool* unsure) const {
  const std::string folder(mDirectoryName != nullptr ? mDirectoryName : "");
  if (!tz::IsInsideFolder(folder, name, unsure)) return false;
  *path = folder + name;
  return true;
}

bool CompoundFileStreamSource::JoinedWorkingFile(const char* name, std::string* path) const {
  std::string folder(mDirectoryName != nullptr ? mDirectoryName : "");
  if (!folder.empty() && folder.back() != '/') folder += '/';
  if (!tz::IsInsideFolder(folder, name)) return false;
  *path = folder + name;
  return true;
}

bool CompoundFileStreamSource::StreamExists(const char* name) const {
  if (name == nullptr) return false;
  const std::size_t folderLength = mDirectoryName != nullptr ? std::strlen(mDirectoryName) : 0;
  if (folderLength + std::strlen(name) >= tz::kMaxPath) return false;
  std::string path;
  if (!WorkingFile(name, &path)) return false;
  if (PathExists(path)) return true;
  if (mDeletedFiles->count(name) != 0) return false;
  if (mCompoundFile.GetStatus() != ZoStreamE::StatusOk) return false;
  return mCompoundFile.Exists(name);
}

std::basic_istream<char>* CompoundFileStreamSource::GetIStream(const char* name) const {
  std::string path;
  if (!WorkingFile(name, &path)) return nullptr;
  if (!PathExists(path) && mDeletedFiles->count(name) == 0) {
    if (ExtractFile(name)) mExtractedFiles->insert(name);
  }
  if (!tz::ExistsOrThrow(path)) return nullptr;
  return tz::OpenFileStream<std::ifstream>(path, std::ios::in | std::ios::binary);
}

std::basic_ostream<char>* CompoundFileStreamSource::GetOStream(const char* name) const {
  std::string path;
  if (!WorkingFile(name, &path)) return nullptr;
  mExtractedFiles->erase(name);
  mTempFiles->erase(name);
  mDeletedFiles->erase(name);
  std::ostream* stream =
      tz::OpenFileStream<std::ofstream>(path, std::ios::out | std::ios::trunc | std::ios::binary);
  if (stream == nullptr) return nullptr;
  mIsDirty = true;
  return stream;
}

std::basic_iostream<char>* CompoundFileStreamSource::GetIOStream(const char* name) const {
  std::string path;
  if (!WorkingFile(name, &path)) return nullptr;
  mExtractedFiles->erase(name);
  mTempFiles->erase(name);
  mDeletedFiles->erase(name);
  if (!PathExists(path)) ExtractFile(name);
  std::iostream* stream =
      tz::OpenFileStream<std::fstream>(path, std::ios::in | std::ios::out | std::ios::binary);
  if (stream == nullptr) return nullptr;
  mIsDirty = true;
  return stream;
}

std::basic_ostream<char>* CompoundFileStreamSource::GetTempOStream(const char* name) const {
  const bool wasDirty = mIsDirty;
  std::basic_ostream<char>* stream = GetOStream(name);
  if (stream != nullptr) mTempFiles->insert(name);
  mIsDirty = wasDirty;
  return stream;
}

std::basic_iostream<char>* CompoundFileStreamSource::GetTempIOStream(const char* name) const {
  const bool wasDirty = mIsDirty;
  std::basic_iostream<char>* stream = GetIOStream(name);
  if (stream != nullptr) mTempFiles->insert(name);
  mIsDirty = wasDirty;
  return stream;
}

void CompoundFileStreamSource::DeleteSource(const char* name) const {
  if (!StreamExists(name)) return;
  std::string path;
  if (!JoinedWorkingFile(name, &path)) return;
  boost::system::error_code ignored;
  tz::CurrentEnv()->Remove(path, ignored);
  mDeletedFiles->insert(name);
  mIsDirty = true;
}

std::uint32_t CompoundFileStreamSource::GetStreamSize(const char* name) const {
  std::string path;
  if (!JoinedWorkingFile(name, &path)) return 0;
  if (mDeletedFiles->count(name) != 0) return 0;
  tz::FileInfo info;
  boost::system::error_code error;
  if (tz::CurrentEnv()->Stat(path, true, &info, error)) return static_cast<std::uint32_t>(info.size);
  if (error) tz::ThrowFileError("status", path, error);
  const DirEntry* entry = mCompoundFile.FindDirEntry(name);
  return entry != nullptr ? entry->size : 0;
}

boost::shared_ptr<const std::set<std::string>> CompoundFileStreamSource::GetFileNames() const {
  boost::lock_guard<boost::mutex> lock(mImpl->mFileSetMutex);
  BuildCurrentFileSet();
  return mCurrentFileSet;
}

void CompoundFileStreamSource::BuildCurrentFileSet() const {
  mCurrentFileSet.reset(new std::set<std::string>());
  const std::string folder(mDirectoryName != nullptr ? mDirectoryName : "");
  for (tz::FolderEntry& entry : tz::ListOrThrow(folder)) {
    if (entry.kind == tz::FileKind::kFolder) continue;
    if (mDeletedFiles->count(entry.name) == 0) mCurrentFileSet->insert(std::move(entry.name));
  }
  if (mCompoundFile.GetStatus() != ZoStreamE::StatusOk) return;
  unsigned long cursor = 0;
  for (const char* name = mCompoundFile.GetFirstDirName(&cursor); name != nullptr;
       name = mCompoundFile.GetNextDirName(&cursor)) {
    if (mDeletedFiles->count(name) == 0) mCurrentFileSet->insert(name);
  }
}

ZoStreamSource* CompoundFileStreamSource::GetStreamSource(const char*) const { return nullptr; }
