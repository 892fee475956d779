// CompoundFileStreamSource: the save of the working-folder model. Deletions
// reach the compound file, then each working file that may differ from its
// stored stream replaces that stream whole.
#include <memory>

#include <boost/filesystem.hpp>

#include "sources/SourceConstants.h"
#include "tesselzostream/CompoundFileStreamSource.h"
#include "utility/ByteIO.h"
#include "utility/Env.h"
#include "utility/ZoString.h"

namespace fs = boost::filesystem;

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
  const fs::path folder(folderName);

  // Copies one working file; its leaf name is the stream's name.
  auto copyFile = [&](const std::string& path, const std::string& leaf) -> Error {
    std::unique_ptr<std::istream> input(
        tz::OpenFileStream<std::ifstream>(path, std::ios::in | std::ios::binary));
    if (input == nullptr) return FileOperationFailed;
    return CopyToBlockFile(mCompoundFile, *input, leaf.c_str());
  };

  if (copyAll) {
    for (fs::directory_iterator it(folder), end; it != end; ++it) {
      if (fs::is_directory(it->status())) continue;
      const std::string leaf = it->path().filename().string();
      if (IsMarker(leaf)) continue;
      const Error result = copyFile(it->path().string(), leaf);
      if (result != NoError) return result;
    }
  } else {
    for (const std::string& name : *mDeletedFiles) mCompoundFile.DeleteCFFile(name.c_str());
    mDeletedFiles->clear();
    // Full paths as the walk gives them, in ascending order.
    std::set<std::string> changed;
    for (fs::directory_iterator it(folder), end; it != end; ++it) {
      if (fs::is_directory(it->status())) continue;
      const std::string leaf = it->path().filename().string();
      if (mExtractedFiles->count(leaf) != 0 || mTempFiles->count(leaf) != 0 || IsMarker(leaf))
        continue;
      changed.insert(it->path().string());
    }
    for (const std::string& path : changed) {
      const std::string leaf = fs::path(path).filename().string();
      const Error result = copyFile(path, leaf);
      if (result != NoError) return result;
      mExtractedFiles->insert(leaf);
    }
  }
  mIsDirty = false;
  mCompoundFile.Flush();
  return NoError;
}
