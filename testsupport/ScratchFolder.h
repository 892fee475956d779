// A scratch folder: a new, empty folder made for one test, fuzz run or
// benchmark run, and removed with all it holds when the object goes.
//
// Invariants:
// (1) path() names a folder this object made (mkdtemp), so two objects,
//     in one process or in two, never share a folder.
// (2) Unless Keep() was called, the folder and everything below it are
//     gone once the destructor has run; a failure to remove is ignored
//     (a scratch folder left behind is no error of the code under test).
// Ownership: the object owns the folder; it cannot be copied.
// Thread safety: distinct objects may be made and destroyed on any threads;
// one object's Keep() must not race with its destructor.
#ifndef TESSELZOSTREAM_TESTSUPPORT_SCRATCHFOLDER_H_
#define TESSELZOSTREAM_TESTSUPPORT_SCRATCHFOLDER_H_

#include <string>

namespace tzsupport {

class ScratchFolder {
 public:
  // A folder named "tztest-" plus six random characters in the system's
  // temporary folder. Throws std::runtime_error when it cannot be made.
  ScratchFolder();
  // A folder named `prefix` plus six random characters inside `parent`.
  // REQUIRES: `parent` is an existing folder. Throws std::runtime_error
  // when the folder cannot be made.
  ScratchFolder(const std::string& parent, const std::string& prefix);
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  // The folder, without a trailing slash.
  const std::string& path() const { return path_; }
  // `name` inside the folder (the file need not exist).
  std::string Path(const std::string& name) const { return path_ + "/" + name; }
  // Leaves the folder in place at destruction, for a look after a failure.
  void Keep() { keep_ = true; }

 private:
  std::string path_;
  bool keep_ = false;
};

}  // namespace tzsupport

#endif  // TESSELZOSTREAM_TESTSUPPORT_SCRATCHFOLDER_H_
