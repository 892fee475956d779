// A compound file rewritten whole or in part without risk to the old one:
// the work goes to a temporary file beside the target, which takes the
// target's name only once it is complete and on disk. A failure, or the
// process's end by SIGINT, SIGTERM or SIGHUP, removes the temporary file
// and leaves the target as it was.
//
// Ownership: the object owns the temporary file until it is renamed into
// place or removed. Thread safety: one NewFile at a time in a process (the
// signal handlers know one temporary file).
#ifndef TESSELZOSTREAM_TOOLS_TZCF_NEWFILE_H_
#define TESSELZOSTREAM_TOOLS_TZCF_NEWFILE_H_

#include <string>

namespace tzcf {

class NewFile {
 public:
  NewFile() = default;
  ~NewFile();  // removes the temporary file unless committed
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  // Makes the temporary file beside `target`: empty, or with `copy` a copy
  // of the target, whose lock is then held until this goes so that no other
  // process writes the target meanwhile. False with a one-line reason in
  // `error` (with the system's text).
  bool Begin(const std::string& target, bool copy, std::string* error);
  // The temporary file's path.
  const std::string& path() const { return path_; }
  // Writes the temporary file to disk and renames it to the target. False
  // with a reason in `error`; the target is then as it was.
  bool Commit(std::string* error);
  // Removes the temporary file now.
  void Abandon();

 private:
  std::string target_;
  std::string path_;
  int lockFd_ = -1;
};

}  // namespace tzcf

#endif  // TESSELZOSTREAM_TOOLS_TZCF_NEWFILE_H_
