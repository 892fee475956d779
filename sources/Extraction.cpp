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

  bool complete = false;
  {
    std::unique_ptr<std::ostream> opened(tz::OpenFileStream<std::ostream>(
        path, std::ios::out | std::ios::trunc | std::ios::binary));
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
  // A fragment must never pass for the stream's new content.
  if (!complete) {
    boost::system::error_code ignored;
    tz::CurrentEnv()->Remove(path, ignored);
  }
  return complete;
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
