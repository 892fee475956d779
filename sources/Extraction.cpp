// CompoundFileStreamSource: copying stored streams out into working files.
#include <cstring>
#include <memory>

#include <boost/filesystem.hpp>

#include "sources/SourceConstants.h"
#include "tesselzostream/CompoundFileStreamSource.h"
#include "utility/Env.h"

namespace fs = boost::filesystem;

bool CompoundFileStreamSource::ExtractFile(const char* name) const {
  if (mCompoundFile->GetStatus() != ZoStreamE::StatusOk) return false;
  std::string path;
  if (!WorkingFile(name, &path) || path.size() >= tz::kMaxPath) return false;
  std::unique_ptr<std::basic_iostream<char>> input(mCompoundFile->GetIOStream(name, "rb"));
  if (input == nullptr) return false;

  // The copy is made beside the working folder and renamed into it when
  // whole. Every file inside the folder counts as a changed stream when a
  // folder left by a crash is taken over, so a fragment must never lie
  // there under the stream's name: it would replace the stored stream.
  // Without a folder name (no folder to stand beside) it goes beside the
  // working file itself.
  const std::string folder(mDirectoryName != nullptr ? mDirectoryName : "");
  const std::string partial = folder.size() > 1 && folder.back() == '/'
                                  ? folder.substr(0, folder.size() - 1) + ".extracting"
                                  : path + ".extracting";
  bool complete = false;
  {
    std::unique_ptr<std::ostream> opened(tz::OpenFileStream<std::ostream>(
        partial, std::ios::out | std::ios::trunc | std::ios::binary));
    if (opened == nullptr) return false;  // nothing was created or truncated
    std::ostream& output = *opened;
    const DirEntry* entry = mCompoundFile->FindDirEntry(name);
    const std::size_t chunk = tz::CopyChunkFor(entry != nullptr ? entry->size : ~std::uint64_t{0});
    std::unique_ptr<char[]> buffer(new char[chunk]);
    std::streamsize count;
    do {
      input->read(buffer.get(), static_cast<std::streamsize>(chunk));
      count = input->gcount();
      output.write(buffer.get(), count);
    } while (count == static_cast<std::streamsize>(chunk));
    // Flushed here so that a failure of the last bytes is seen too.
    output.flush();
    complete = !input->bad() && output.good();
  }
  boost::system::error_code error;
  if (complete) complete = tz::CurrentEnv()->Rename(partial, path, error);
  if (!complete) {
    tz::CurrentEnv()->Remove(partial, error);
    return false;
  }
  return true;
}

bool CompoundFileStreamSource::ExtractAllFiles() const {
  const boost::shared_ptr<const std::set<std::string>> names = GetFileNames();
  for (const std::string& name : *names) {
    std::string path;
    // A stored stream whose working file would lie outside the folder stays
    // where it is, in the compound file.
    if (!WorkingFile(name.c_str(), &path)) continue;
    if (!ExtractFile(name.c_str())) return false;
  }
  return true;
}
