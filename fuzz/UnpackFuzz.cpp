// Fuzz target: `tzcf unpack` of an archive made of arbitrary bytes.
//
// The input is the archive: the bytes of a compound file, written to a
// scratch folder (under $TZ_FUZZ_DIR, /dev/shm or /tmp, made afresh for
// each input) beside a folder that the unpack writes into and a folder
// "outside" that it must never touch. The tool's own command runs
// (tzcf::Unpack from tools/tzcf, with a password file for an encrypted
// archive). Before it, the target folder is laid with traps: symbolic links
// to the outside folder (relative, absolute, to a file, inside a sub-folder,
// and one to itself), a hard link to a file outside, and a real sub-folder.
//
// The run stops when:
// - the scratch folder holds anything besides the archive, the password
//   file, the target folder and the outside folder;
// - the outside folder holds anything besides its one file, or that file's
//   bytes changed (a link or hard link was written through);
// - a trap link now points elsewhere (a link may only be removed or
//   replaced by a new file);
// - something in the target folder is neither a trap nor a path that some
//   stream name of the archive spells;
// - a name that would lead out of the target folder lexically exists there
//   afterwards and did not before;
// - the command gives an exit status other than 0, 1 and 2, throws, or
//   reports success (0) while some stream was not written, or was written
//   with bytes other than the library reads from it.
// The sanitizers catch crashes and overruns besides.
//
// The seeds program is UnpackSeeds.cpp; what both know of the input is in
// UnpackInput.h.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "Commands.h"
#include "fuzz/FuzzUtil.h"
#include "fuzz/UnpackInput.h"
#include "tesselzostream/CompoundFile.h"
#include "testsupport/FileBytes.h"

namespace fs = boost::filesystem;
using namespace tzfuzz::unpack;

namespace {

const char kVictim[] = "the file outside; never written";

fs::path Root() {
  static const fs::path root = tzfuzz::ScratchPath("tz-unpack-fuzz");
  return root;
}

std::string Resolve(const char* target) {
  return std::strcmp(target, "@outside") == 0 ? (Root() / "outside").string() : target;
}

// Stream names of the archive as the tool lists them (the saved map left
// out); empty when the archive does not open.
std::vector<std::string> StreamNames(CompoundFile& file) {
  std::vector<std::string> names;
  unsigned long cursor = 0;
  for (const DirEntry* e = file.GetFirstDirEntry(&cursor); e != nullptr; e = file.GetNextDirEntry(&cursor)) {
    if (!tzcf::IsFreeListName(e->name)) names.emplace_back(e->name);
  }
  return names;
}

std::string ReadText(const fs::path& path) { return tzsupport::ReadFileText(path.string()); }

void Lay() {
  boost::system::error_code ec;
  fs::remove_all(Root(), ec);
  fs::create_directories(Root() / "out" / "dir");
  fs::create_directories(Root() / "outside");
  std::ofstream(Root() / "outside" / "victim", std::ios::binary) << kVictim;
  std::ofstream(Root() / "password", std::ios::binary) << kPassword << "\n";
  for (const Trap& t : kLinks) fs::create_symlink(Resolve(t.target), Root() / "out" / t.name);
  fs::create_hard_link(Root() / "outside" / "victim", Root() / "out" / kHardLink);
}

// Every path below `folder`, relative to it, without following links.
std::set<std::string> Entries(const fs::path& folder) {
  std::set<std::string> found;
  boost::system::error_code ec;
  for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    found.insert(it->path().lexically_relative(folder).generic_string());
  }
  if (ec) Fail("cannot walk " + folder.string() + ": " + ec.message());
  return found;
}

// Paths a stream name spells below the target folder: the name and each
// folder before its last component.
std::set<std::string> Spelled(const std::vector<std::string>& names) {
  std::set<std::string> paths;
  for (const std::string& name : names) {
    for (std::size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
      paths.insert(name.substr(0, slash));
    }
    paths.insert(name);
  }
  return paths;
}

// Names that lead out of the target folder when taken as paths, with
// whether something is there before the unpack.
std::vector<std::pair<fs::path, bool>> Escapes(const std::vector<std::string>& names) {
  std::vector<std::pair<fs::path, bool>> escapes;
  const fs::path out = Root() / "out";
  for (const std::string& name : names) {
    const fs::path where = name[0] == '/' ? fs::path(name).lexically_normal() : (out / name).lexically_normal();
    const std::string rel = where.lexically_relative(out).generic_string();
    const bool inside = !rel.empty() && rel != ".." && rel.compare(0, 3, "../") != 0;
    if (inside && name[0] != '/') continue;
    boost::system::error_code ec;
    escapes.emplace_back(where, fs::exists(fs::symlink_status(where, ec)));
  }
  return escapes;
}

void CheckAfter(const std::vector<std::string>& names, const std::vector<std::pair<fs::path, bool>>& escapes) {
  // The scratch folder: nothing new beside the four things laid there.
  for (fs::directory_iterator it(Root()), end; it != end; ++it) {
    const std::string name = it->path().filename().string();
    if (name != "archive" && name != "password" && name != "out" && name != "outside") {
      Fail("the unpack created '" + name + "' beside the target folder");
    }
  }
  const std::set<std::string> outside = Entries(Root() / "outside");
  if (outside != std::set<std::string>{"victim"}) Fail("the unpack wrote into the folder outside");
  if (ReadText(Root() / "outside" / "victim") != kVictim) Fail("the unpack wrote through a link to a file outside");
  for (const Trap& t : kLinks) {
    boost::system::error_code ec;
    const fs::path link = Root() / "out" / t.name;
    if (fs::is_symlink(fs::symlink_status(link, ec)) && fs::read_symlink(link, ec).string() != Resolve(t.target)) {
      Fail(std::string("the trap link ") + t.name + " points elsewhere");
    }
  }
  const std::set<std::string> spelled = Spelled(names);
  for (const std::string& path : Entries(Root() / "out")) {
    bool trap = path == kHardLink || path == "dir";
    for (const Trap& t : kLinks) trap = trap || path == t.name;
    if (!trap && spelled.count(path) == 0) Fail("the unpack made '" + path + "', which no stream name spells");
  }
  for (const auto& e : escapes) {
    boost::system::error_code ec;
    if (!e.second && fs::exists(fs::symlink_status(e.first, ec))) {
      Fail("the unpack made " + e.first.string() + ", outside the target folder");
    }
  }
}

// After a report of success every stream is a file of the bytes the library
// reads from it.
void CheckComplete(CompoundFile& archive, const std::vector<std::string>& names) {
  if (archive.IsEncrypted() && !archive.SetPassword(kPassword)) Fail("the archive unpacked but does not unlock");
  for (const std::string& name : names) {
    const fs::path file = Root() / "out" / name;
    boost::system::error_code ec;
    if (!fs::is_regular_file(fs::symlink_status(file, ec))) Fail("unpack reported success but '" + name + "' is missing");
    std::unique_ptr<std::iostream> in(archive.GetIOStream(name.c_str(), "rb"));
    if (!in) Fail("unpack reported success but '" + name + "' does not open");
    const std::string bytes((std::istreambuf_iterator<char>(*in)), std::istreambuf_iterator<char>());
    if (in->bad()) Fail("unpack reported success but '" + name + "' is damaged");
    if (ReadText(file) != bytes) Fail("'" + name + "' was unpacked with other bytes");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = [] {
    std::cerr.rdbuf(nullptr);  // the tool's one-line reports, thousands a second
    return true;
  }();
  (void)quiet;
  Lay();
  const std::string archivePath = (Root() / "archive").string();
  tzfuzz::WriteBytes(archivePath, data, size);

  // The names as the library lists them, for the checks afterwards.
  std::vector<std::string> names;
  {
    CompoundFile archive;
    try {
      if (archive.Open(archivePath.c_str(), ZoStreamE::OpenReadOnly) == ZoStreamE::StatusOk) {
        names = StreamNames(archive);
      }
    } catch (ZoStreamE::Status) {
    } catch (const fs::filesystem_error&) {
    }
  }
  const auto escapes = Escapes(names);

  tzcf::Options options;
  options.quiet = true;
  options.passwordFile = (Root() / "password").string();
  tzcf::Exit exit = tzcf::kOk;
  try {
    exit = tzcf::Unpack(archivePath, (Root() / "out").string(), options);
  } catch (const std::exception& e) {
    Fail(std::string("unpack threw: ") + e.what());
  }
  if (exit != tzcf::kOk && exit != tzcf::kProblem && exit != tzcf::kError) Fail("unpack gave an unknown exit status");
  CheckAfter(names, escapes);
  if (exit == tzcf::kOk) {
    CompoundFile archive;
    if (archive.Open(archivePath.c_str(), ZoStreamE::OpenReadOnly) != ZoStreamE::StatusOk) {
      Fail("unpack reported success on an archive that does not open");
    }
    CheckComplete(archive, names);
  }
  boost::system::error_code ec;
  fs::remove_all(Root(), ec);
  return 0;
}
