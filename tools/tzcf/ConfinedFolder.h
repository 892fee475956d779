// Files written below one folder and nowhere else, whatever their names say.
//
// The names come from a compound file, which anybody may have made. A name
// is refused when it is empty, absolute, has an empty component ("a//b",
// "a/"), or a "." or ".." component. Every other name is followed component
// by component from an open handle on the folder, and no symbolic link is
// ever followed on the way, not even one that leads back inside: a link met
// where a folder or the file should be is refused. An existing file in the
// way is replaced by a new one (its old name removed first, so a hard link
// to a file elsewhere is cut, never written through). Missing folders
// between are created.
//
// Ownership: the object owns its open handle on the folder and closes it
// when destroyed. Thread safety: one thread at a time per object.
#ifndef TESSELZOSTREAM_TOOLS_TZCF_CONFINEDFOLDER_H_
#define TESSELZOSTREAM_TOOLS_TZCF_CONFINEDFOLDER_H_

#include <string>

namespace tzcf {

class ConfinedFolder {
 public:
  ConfinedFolder() = default;
  ~ConfinedFolder();
  ConfinedFolder(const ConfinedFolder&) = delete;
  ConfinedFolder& operator=(const ConfinedFolder&) = delete;

  // Opens `path`, creating it and its parents when missing (this path is
  // the user's own choice, so a link in it is followed). False with a
  // reason in `error`.
  bool Open(const std::string& path, std::string* error);

  // Why `name` can never be written below a folder; empty when it can be
  // tried.
  static std::string NameProblem(const std::string& name);

  // A new file for `name`, open for writing, as the class comment says; -1
  // with a reason in `error`, and `refused` true when the name or what lies
  // in the folder forbids the file (rather than a failing disk or a
  // permission). The caller closes the descriptor.
  int Create(const std::string& name, std::string* error, bool* refused);
  // Removes the file `name` made by Create (after a failed copy); errors are
  // ignored.
  void Remove(const std::string& name);

 private:
  // A handle on the folder that holds the last component of `name`,
  // creating the folders before it; the leaf goes to `leaf`. -1 on failure.
  int ParentOf(const std::string& name, std::string* leaf, int* cause);

  int root_ = -1;
};

}  // namespace tzcf

#endif  // TESSELZOSTREAM_TOOLS_TZCF_CONFINEDFOLDER_H_
