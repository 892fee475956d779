// CompoundFileStreamSource: copying stored streams out into working files.
#include <cstring>
#include <memory>

#include "sources/SourceConstants.h"
#include "tesselzostream/CompoundFileStreamSource.h"
#include "utility/Env.h"

namespace {

// Copies the rest of `input` into the file at `path` (created or emptied)
// in one buffer of `chunk` bytes; true when every byte got there, flushed.
// `opened` tells whether the file was opened (and so created or emptied).
bool CopyOut(std::istream& input, const std::string& path, std::size_t chunk, bool* opened) {
  std::unique_ptr<std::ostream> output(
      tz::OpenFileStream<std::ofstream>(path, std::ios::out | std::ios::trunc | std::ios::binary));
  *opened = output != nullptr;
  if (output == nullptr) return false;
  std::unique_ptr<char[]> buffer(new char[chunk]);
  std::streamsize count;
  do {
    input.read(buffer.get(), static_cast<std::streamsize>(chunk));
    count = input.gcount();
    output->write(buffer.get(), count);
  } while (count == static_cast<std::streamsize>(chunk));
  // Flushed here so that a failure of the last bytes is seen too.
  output->flush();
  return !input.bad() && output->good();
}

// Whether anything, a link that leads nowhere included, is at path; false
// when the path cannot be examined, with the reason in `error`.
bool IsPresent(const std::string& path, boost::system::error_code& error) {
  tz::FileInfo info;
  return tz::CurrentEnv()->Stat(path, false, &info, error);
}

}  // namespace

// A working file in no set counts as a changed stream, also in a folder
// taken over after a crash, so a fragment must never lie in the folder
// under the stream's name: a copy back would put it in place of the stored
// stream. A new working file is therefore written into a private folder
// made inside the working folder (no other name is touched, and folders
// there are never taken for streams) and renamed into place when whole;
// a kill leaves at most that folder behind, which Close removes. A working
// file that exists already (ExtractAllFiles rewriting it) is rewritten in
// place, keeping what it is (its permissions, a link to it), and removed if
// the copy fails, so that the stored stream stands again.
bool CompoundFileStreamSource::ExtractFile(const char* name) const {
  if (mCompoundFile.GetStatus() != ZoStreamE::StatusOk) return false;
  std::string path;
  if (!WorkingFile(name, &path) || path.size() >= tz::kMaxPath) return false;
  std::unique_ptr<std::basic_iostream<char>> input(mCompoundFile.GetIOStream(name, "rb"));
  if (input == nullptr) return false;
  const DirEntry* entry = mCompoundFile.FindDirEntry(name);
  const std::size_t chunk = tz::CopyChunkFor(entry != nullptr ? entry->size : ~std::uint64_t{0});
  tz::Env* env = tz::CurrentEnv();
  boost::system::error_code error;

  const std::string folder(mDirectoryName != nullptr ? mDirectoryName : "");
  bool opened = false;
  const bool present = IsPresent(path, error);
  if (error) return false;  // unknown whether there is a file to keep
  if (present || folder.empty()) {
    if (CopyOut(*input, path, chunk, &opened)) return true;
    if (opened) env->Remove(path, error);  // what could not be opened stays as it was
    return false;
  }
  std::string staging;
  const std::string inside = folder.back() == '/' ? folder : folder + '/';
  if (!env->MakeUniqueFolder(inside + tz::kStagingPrefix, &staging, error)) return false;
  const std::string staged = staging + "/s";
  const bool complete = CopyOut(*input, staged, chunk, &opened) && env->Rename(staged, path, error);
  env->RemoveAll(staging, error);
  return complete;
}

bool CompoundFileStreamSource::ExtractAllFiles() const {
  const boost::shared_ptr<const std::set<std::string>> names = GetFileNames();
  for (const std::string& name : *names) {
    std::string path;
    bool unsure = false;
    // A stored stream whose working file would lie outside the folder stays
    // where it is, in the compound file; one whose path could not be
    // examined is a stream that could not be extracted.
    if (!WorkingFile(name.c_str(), &path, &unsure)) {
      if (unsure) return false;
      continue;
    }
    if (!ExtractFile(name.c_str())) return false;
  }
  return true;
}
