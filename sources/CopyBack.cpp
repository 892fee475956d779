// CompoundFileStreamSource: the save of the working-folder model. Deletions
// reach the compound file, then each working file that may differ from its
// stored stream replaces that stream whole.
#include <map>
#include <memory>

#include "sources/FileCalls.h"
#include "sources/SourceConstants.h"
#include "tesselzostream/CompoundFileStreamSource.h"
#include "utility/ByteIO.h"
#include "utility/Env.h"
#include "utility/ZoString.h"

namespace {
bool IsMarker(const std::string& leaf) {
  return ZoString::StrICmp(leaf.c_str(), tz::kMarkerName) == 0;
}
}  // namespace

CompoundFileStreamSource::Error CompoundFileStreamSource::CopyToBlockFile(
    CompoundFile& target, std::istream& input, const char* name) {
  const std::size_t chunk = tz::CopyChunkFor(BytesLeft(input));
  std::unique_ptr<char[]> buffer(new char[chunk]);
  // Released on every way out; its release writes the last block and
  // flushes the directory.
  std::unique_ptr<std::basic_iostream<char>> output(target.GetIOStream(name, "wb"));
  if (output == nullptr) return StreamWriteFailed;
  for (;;) {
    input.read(buffer.get(), static_cast<std::streamsize>(chunk));
    const std::streamsize count = input.gcount();
    output->write(buffer.get(), count);
    if (output->fail()) break;
    if (count < static_cast<std::streamsize>(chunk)) break;
  }
  if (output->rdstate() != std::ios::goodbit) return StreamWriteFailed;
  if (input.bad()) return FileOperationFailed;
  return NoError;
}

CompoundFileStreamSource::Error CompoundFileStreamSource::CopyToBlockFile(bool copyAll) {
  if (mIsReadOnly) return CompoundFileNotAvailable;
  if (mCompoundFile.GetStatus() != ZoStreamE::StatusOk) return CompoundFileNotAvailable;
  const std::string folderName(mDirectoryName != nullptr ? mDirectoryName : "");

  // Copies one working file; its leaf name is the stream's name.
  auto copyFile = [&](const std::string& path, const std::string& leaf) -> Error {
    std::unique_ptr<std::istream> input(
        tz::OpenFileStream<std::ifstream>(path, std::ios::in | std::ios::binary));
    if (input == nullptr) return FileOperationFailed;
    return CopyToBlockFile(mCompoundFile, *input, leaf.c_str());
  };

  if (copyAll) {
    for (const tz::FolderEntry& entry : tz::ListOrThrow(folderName)) {
      if (entry.kind == tz::FileKind::kFolder) continue;
      const std::string& leaf = entry.name;
      if (IsMarker(leaf)) continue;
      const Error result = copyFile(tz::JoinLeaf(folderName, leaf), leaf);
      if (result != NoError) return result;
    }
  } else {
    for (const std::string& name : *mDeletedFiles) mCompoundFile.DeleteCFFile(name.c_str());
    mDeletedFiles->clear();
    // Full paths, in ascending order, to their leaf names.
    std::map<std::string, std::string> changed;
    for (tz::FolderEntry& entry : tz::ListOrThrow(folderName)) {
      if (entry.kind == tz::FileKind::kFolder) continue;
      const std::string& leaf = entry.name;
      if (mExtractedFiles->count(leaf) != 0 || mTempFiles->count(leaf) != 0 || IsMarker(leaf))
        continue;
      changed.emplace(tz::JoinLeaf(folderName, leaf), std::move(entry.name));
    }
    for (const auto& file : changed) {
      const std::string& leaf = file.second;
      const Error result = copyFile(file.first, leaf);
      if (result != NoError) return result;
      mExtractedFiles->insert(leaf);
    }
  }
  mIsDirty = false;
  mCompoundFile.Flush();
  return NoError;
}
