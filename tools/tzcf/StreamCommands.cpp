// pack, add, unpack, ls, cat, put, rm: the commands that move streams in
// and out.
//
// Every copy goes through a fixed buffer, so no stream size, true or claimed
// by a damaged file, makes the tool allocate more. The saved block map's
// stream is neither listed, unpacked, written nor deleted. pack, add and put
// work on a new file beside the compound file (NewFile.h), so that a failure
// or an interruption never costs what the file held.
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include <boost/filesystem.hpp>

#include "Commands.h"
#include "ConfinedFolder.h"
#include "NewFile.h"
#include "Password.h"
#include "Progress.h"
#include "Text.h"

namespace fs = boost::filesystem;

namespace tzcf {

namespace {

constexpr std::size_t kChunk = std::size_t{64} * 1024;
// A stream's size is kept in 32 bits.
constexpr std::uint64_t kMaxStreamSize = 0xFFFFFFFFu;

// One stream of a file, as its directory lists it.
struct Listed {
  std::string name;
  std::uint32_t size;
  std::string created;
  std::string modified;
};

// A time text of the directory without the line end asctime leaves on it.
std::string TimeText(const char* text) {
  std::string time = text;
  while (!time.empty() && (time.back() == '\n' || time.back() == ' ')) time.pop_back();
  return time;
}

// The directory's streams in its order, the saved block map left out.
std::vector<Listed> ListStreams(const CompoundFile& file) {
  std::vector<Listed> streams;
  unsigned long cursor = 0;
  for (const DirEntry* e = file.GetFirstDirEntry(&cursor); e != nullptr; e = file.GetNextDirEntry(&cursor)) {
    if (IsFreeListName(e->name)) continue;
    streams.push_back({e->name, e->size, TimeText(e->created), TimeText(e->modified)});
  }
  return streams;
}

bool Matches(const std::string& pattern, const std::string& name) {
  if (SameName(pattern, name) || ::fnmatch(pattern.c_str(), name.c_str(), FNM_CASEFOLD) == 0) return true;
  // A folder: every stream below it.
  const std::string folder = FoldCase(pattern) + (pattern.empty() || pattern.back() != '/' ? "/" : "");
  return FoldCase(name).compare(0, folder.size(), folder) == 0;
}

// The streams `patterns` select (all for none). A pattern that matches
// nothing is reported and makes `exit` 1.
std::vector<Listed> Select(const std::vector<Listed>& streams, const std::vector<std::string>& patterns,
                           const std::string& file, Exit* exit) {
  if (patterns.empty()) return streams;
  std::vector<Listed> chosen;
  std::vector<bool> used(patterns.size(), false);
  for (const Listed& s : streams) {
    bool any = false;
    for (std::size_t i = 0; i < patterns.size(); ++i) {
      if (Matches(patterns[i], s.name)) {
        any = true;
        used[i] = true;
      }
    }
    if (any) chosen.push_back(s);
  }
  for (std::size_t i = 0; i < patterns.size(); ++i) {
    if (!used[i]) {
      ReportItem(file + ": no stream matches " + Quote(patterns[i]));
      *exit = Worse(*exit, kProblem);
    }
  }
  return chosen;
}

// Copies the rest of `in` to `out` through one buffer; false when a read
// fails (badbit, which is how a stream reports damage) or `out` refuses.
// `write` returns false when it could not take the bytes.
template <typename Write>
bool CopyOut(std::istream& in, Progress* progress, Write write) {
  std::vector<char> buffer(kChunk);
  for (;;) {
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    const std::size_t got = static_cast<std::size_t>(in.gcount());
    if (got > 0 && !write(buffer.data(), got)) return false;
    if (progress != nullptr) progress->Add(got);
    if (in.bad()) return false;
    if (!in) return true;  // end of input
  }
}

// Writes all of `data`; 0 when done, else the errno of the failure.
int WriteFd(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) return EIO;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return 0;
}

bool DiskFull(int error) { return error == ENOSPC || error == EDQUOT; }

// Why `name` cannot be a stream the user writes; empty when it can.
std::string StreamNameProblem(const std::string& name) {
  if (name.empty()) return "empty stream name";
  if (name.size() > kMaxNameLength) return "name longer than " + std::to_string(kMaxNameLength) + " characters";
  if (IsFreeListName(name)) return "the name of the saved block map, which the library keeps";
  return std::string();
}

// A regular file found on the command line or below a folder being packed.
struct Found {
  std::string name;  // the stream's name, '/'-separated
  fs::path path;
  std::uint64_t size;
};

// Collects the regular files below `dir`; symbolic links are followed only
// with `follow`. What is neither a folder nor a regular file is reported and
// makes `exit` 1; a folder that cannot be read makes it 2.
void Walk(const fs::path& dir, const std::string& prefix, bool follow, std::vector<Found>* found, Exit* exit) {
  boost::system::error_code ec;
  fs::directory_iterator it(dir, ec), end;
  if (ec) {
    ReportItem(dir.string() + ": " + ec.message());
    *exit = Worse(*exit, kError);
    return;
  }
  for (; it != end; it.increment(ec)) {
    if (ec) {
      ReportItem(dir.string() + ": " + ec.message());
      *exit = Worse(*exit, kError);
      return;
    }
    const fs::path path = it->path();
    const std::string name = prefix + path.filename().string();
    const fs::file_status link = fs::symlink_status(path, ec);
    const fs::file_status status = follow && fs::is_symlink(link) ? fs::status(path, ec) : link;
    if (fs::is_directory(status)) {
      if (fs::is_symlink(link) && follow && fs::equivalent(path, dir, ec)) continue;  // a link to itself
      Walk(path, name + "/", follow, found, exit);
    } else if (fs::is_regular_file(status)) {
      const std::uint64_t size = fs::file_size(path, ec);
      if (ec) {
        ReportItem(path.string() + ": " + ec.message());
        *exit = Worse(*exit, kError);
        continue;
      }
      found->push_back({name, path, size});
    } else {
      ReportItem("skipped " + Quote(name) + ": " +
                 (fs::is_symlink(link) ? (follow ? "a symbolic link that leads nowhere"
                                                 : "a symbolic link (--dereference follows it)")
                                       : "not a regular file"));
      *exit = Worse(*exit, kProblem);
    }
  }
}

// Drops from `found` what cannot be stored faithfully, reporting each: too
// long, too large, or the same name apart from case as another (`stored`
// holds the names already in the file, by folded name). Returns the bytes
// left to store.
std::uint64_t Screen(std::vector<Found>* found, const std::map<std::string, std::string>& stored, Exit* exit) {
  std::sort(found->begin(), found->end(), [](const Found& a, const Found& b) { return a.name < b.name; });
  std::vector<Found> accepted;
  std::map<std::string, std::string> byFoldedName;
  std::uint64_t total = 0;
  for (const Found& f : *found) {
    std::string problem = StreamNameProblem(f.name);
    if (problem.empty() && f.size > kMaxStreamSize) problem = "larger than 4 GiB - 1 byte";
    if (problem.empty()) {
      // Names that differ only in case would land on one stream.
      const auto first = byFoldedName.emplace(FoldCase(f.name), f.name);
      if (!first.second) problem = "same name as " + Quote(first.first->second) + " apart from case";
    }
    if (!problem.empty()) {
      ReportItem("skipped " + Quote(f.name) + ": " + problem);
      *exit = Worse(*exit, kProblem);
      continue;
    }
    const auto old = stored.find(FoldCase(f.name));
    if (old != stored.end()) {
      ReportItem("replacing " + Quote(old->second) +
                 (old->second == f.name ? std::string() : " with " + Quote(f.name) + " (same name apart from case)"));
    }
    accepted.push_back(f);
    total += f.size;
  }
  found->swap(accepted);
  return total;
}

// Stores each of `found` as a stream of `archive` (the file `path`, which
// becomes `target`). False
// after a report when the compound file cannot take more (the caller then
// gives the whole file up); files that cannot be read are reported and
// make `exit` 2.
bool Store(CompoundFile& archive, const std::string& path, const std::string& target,
           const std::vector<Found>& found, Progress* progress, Exit* exit) {
  for (const Found& f : found) {
    std::ifstream in(f.path.string(), std::ios::binary);
    if (!in) {
      progress->Clear();
      ReportItem(f.path.string() + ": cannot read: " + SystemText(errno));
      *exit = Worse(*exit, kError);
      continue;
    }
    errno = 0;
    std::unique_ptr<std::iostream> out(archive.GetIOStream(f.name.c_str(), "wb"));
    bool written = out != nullptr;
    bool readFailed = false;
    if (written) {
      readFailed = !CopyOut(in, progress, [&](const char* data, std::size_t size) {
        out->write(data, static_cast<std::streamsize>(size));
        return static_cast<bool>(*out);
      });
      written = static_cast<bool>(out->flush());
      out.reset();
    }
    if (!written || archive.GetStatus() != ZoStreamE::StatusOk) {
      const int error = errno;
      progress->Clear();
      Report(target + ": cannot write stream " + Quote(f.name) + SpaceText(path, error, f.size) +
             "; left as it was");
      return false;
    }
    if (readFailed) {
      progress->Clear();
      ReportItem(f.path.string() + ": read failed; its stream is left out");
      archive.DeleteCFFile(f.name.c_str());
      *exit = Worse(*exit, kError);
    }
  }
  return true;
}

// Writes the directory of `archive`, the new file at `path`, and closes it;
// false after a report when any of it failed.
bool Finish(CompoundFile& archive, const std::string& path, const std::string& target) {
  errno = 0;
  archive.Flush();
  const int error = errno;
  const bool ok = archive.GetStatus() == ZoStreamE::StatusOk;
  const std::string full = ok ? std::string() : SpaceText(path, error);
  archive.Close();
  if (!ok) Report(target + ": could not be written completely" + full + "; left as it was");
  return ok;
}

// The stream names of `archive` by folded name.
std::map<std::string, std::string> StoredNames(const CompoundFile& archive) {
  std::map<std::string, std::string> names;
  for (const Listed& s : ListStreams(archive)) names.emplace(FoldCase(s.name), s.name);
  return names;
}

// The password of `file` when it is encrypted (asked once, checked on a
// read-only open); empty for a clear or missing file. False after a report.
bool PasswordOf(const std::string& file, const Options& options, std::string* password) {
  password->clear();
  struct stat info;
  if (::stat(file.c_str(), &info) != 0) return true;
  CompoundFile reader;
  if (!OpenFile(reader, file, ZoStreamE::OpenReadOnly, true)) return false;
  return Unlock(reader, file, options, password);
}

// Opens the new file `work` for writing, with the password when the file is
// encrypted.
bool OpenWork(CompoundFile& archive, const std::string& work, const std::string& password) {
  if (!OpenFile(archive, work, ZoStreamE::OpenReadWrite, false)) return false;
  if (archive.IsEncrypted() && !archive.SetPassword(password.c_str())) {
    Report(work + ": wrong password");
    return false;
  }
  return true;
}

}  // namespace

// Stores `found` into the work file, closes it and renames it over `file`;
// the exit status so far, or kError when any of it failed.
Exit StoreAndCommit(CompoundFile& archive, NewFile& work, const std::string& file, const std::vector<Found>& found,
                    Progress* progress, Exit exit) {
  if (!Store(archive, work.path(), file, found, progress, &exit) || !Finish(archive, work.path(), file)) return kError;
  progress->Done();
  std::string error;
  if (!work.Commit(&error)) {
    Report(error);
    return kError;
  }
  return exit;
}

Exit Pack(const std::string& folder, const std::string& file, bool force, const Options& options) {
  struct stat info;
  if (::stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    Report(folder + ": cannot pack: " + SystemText(::stat(folder.c_str(), &info) != 0 ? errno : ENOTDIR));
    return kError;
  }
  if (::lstat(file.c_str(), &info) == 0) {
    if (!force || S_ISDIR(info.st_mode)) {
      Report(file + (S_ISDIR(info.st_mode) ? ": " + SystemText(EISDIR) : ": exists (--force replaces it)"));
      return kError;
    }
  }
  // The walk ends before the compound file exists, so it never packs itself.
  std::vector<Found> found;
  Exit exit = kOk;
  Walk(folder, "", options.dereference, &found, &exit);
  const std::uint64_t total = Screen(&found, {}, &exit);

  NewFile work;
  std::string error;
  if (!work.Begin(file, false, &error)) {
    Report(error);
    return kError;
  }
  CompoundFile archive;
  if (!OpenFile(archive, work.path(), ZoStreamE::OpenReadWrite, false)) return kError;
  Progress progress("packing", total, options.quiet);
  return StoreAndCommit(archive, work, file, found, &progress, exit);
}

Exit Add(const std::string& file, const std::vector<std::string>& paths, const Options& options) {
  std::string password;
  if (!PasswordOf(file, options, &password)) return kError;
  struct stat info;
  if (::stat(file.c_str(), &info) != 0) {
    Report(file + ": cannot open: " + SystemText(errno) + " (pack makes a new file)");
    return kError;
  }
  std::vector<Found> found;
  Exit exit = kOk;
  for (const std::string& given : paths) {
    // The name is the path as given, made relative: no leading '/' or
    // "./", no "." or ".." component.
    std::string name = fs::path(given).lexically_normal().generic_string();
    while (!name.empty() && name[0] == '/') name.erase(0, 1);
    while (name.size() > 1 && name.back() == '/') name.pop_back();
    if (name == "." || name.empty()) name.clear();
    if (name == ".." || name.rfind("../", 0) == 0) {
      ReportItem("skipped " + Quote(given) + ": leads out of the current folder");
      exit = Worse(exit, kProblem);
      continue;
    }
    const int got = options.dereference ? ::stat(given.c_str(), &info) : ::lstat(given.c_str(), &info);
    if (got != 0) {
      ReportItem(given + ": " + SystemText(errno));
      exit = Worse(exit, kError);
    } else if (S_ISDIR(info.st_mode)) {
      Walk(given, name.empty() ? "" : name + "/", options.dereference, &found, &exit);
    } else if (S_ISREG(info.st_mode)) {
      found.push_back({name, given, static_cast<std::uint64_t>(info.st_size)});
    } else {
      ReportItem("skipped " + Quote(given) + ": " +
                 (S_ISLNK(info.st_mode) ? "a symbolic link (--dereference follows it)" : "not a regular file"));
      exit = Worse(exit, kProblem);
    }
  }

  NewFile work;
  std::string error;
  if (!work.Begin(file, true, &error)) {
    Report(error);
    return kError;
  }
  CompoundFile archive;
  if (!OpenWork(archive, work.path(), password)) return kError;
  const std::uint64_t total = Screen(&found, StoredNames(archive), &exit);
  Progress progress("adding", total, options.quiet);
  return StoreAndCommit(archive, work, file, found, &progress, exit);
}

Exit Unpack(const std::string& file, const std::string& folder, const std::vector<std::string>& patterns,
            const Options& options) {
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadOnly, true)) return kError;
  std::string password;
  if (!Unlock(archive, file, options, &password)) return kError;
  ConfinedFolder target;
  std::string error;
  if (!target.Open(folder, &error)) {
    Report(error);
    return kError;
  }
  Exit exit = kOk;
  const std::vector<Listed> streams = Select(ListStreams(archive), patterns, file, &exit);
  std::uint64_t total = 0;
  for (const Listed& s : streams) total += s.size;

  Progress progress("unpacking", total, options.quiet);
  for (const Listed& s : streams) {
    const std::string problem = ConfinedFolder::NameProblem(s.name);
    if (!problem.empty()) {
      progress.Clear();
      ReportItem("refused " + Quote(s.name) + ": " + problem);
      exit = Worse(exit, kProblem);
      continue;
    }
    bool refused = false;
    const int fd = target.Create(s.name, &error, &refused);
    if (fd < 0) {
      progress.Clear();
      if (error == SystemText(ENOSPC) || error == SystemText(EDQUOT)) {
        Report(folder + "/" + s.name + ": " + error + "; unpack stopped");
        return kError;
      }
      ReportItem((refused ? "refused " : "cannot write ") + Quote(s.name) + ": " + error);
      exit = Worse(exit, refused ? kProblem : kError);
      continue;
    }
    int writeError = 0;
    std::unique_ptr<std::iostream> in(archive.GetIOStream(s.name.c_str(), "rb"));
    const bool copied = in != nullptr && CopyOut(*in, &progress, [&](const char* data, std::size_t size) {
      writeError = WriteFd(fd, data, size);
      return writeError == 0;
    });
    in.reset();
    if (::close(fd) != 0 && writeError == 0) writeError = errno == 0 ? EIO : errno;
    if (copied && writeError == 0) continue;
    target.Remove(s.name);
    progress.Clear();
    if (writeError != 0) {
      if (DiskFull(writeError)) {
        Report(folder + "/" + s.name + ": " + SystemText(writeError) + "; unpack stopped");
        return kError;
      }
      ReportItem(folder + "/" + s.name + ": " + SystemText(writeError));
      exit = Worse(exit, kError);
      continue;
    }
    // A damaged stream stops all block traffic of the open file; the next
    // stream reads on a fresh open.
    ReportItem(file + ": stream " + Quote(s.name) + " is damaged; not unpacked");
    exit = Worse(exit, kProblem);
    archive.Close();
    if (!OpenFile(archive, file, ZoStreamE::OpenReadOnly, true)) return kError;
    if (!password.empty() && !archive.SetPassword(password.c_str())) {
      Report(file + ": wrong password");
      return kError;
    }
  }
  return exit;
}

Exit List(const std::string& file, const std::vector<std::string>& patterns, const Options& options) {
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadOnly, true)) return kError;
  Exit exit = kOk;
  const std::vector<Listed> streams = Select(ListStreams(archive), patterns, file, &exit);
  if (options.json) {
    std::cout << "[";
    const char* separator = "\n";
    for (const Listed& s : streams) {
      std::cout << separator << "  {" << JsonName("name", s.name) << ", \"size\": " << s.size
                << ", \"blocks\": " << ChainBlocks(s.size) << ", \"created\": " << JsonString(s.created)
                << ", \"created_iso\": " << JsonIsoTime(s.created) << ", \"modified\": " << JsonString(s.modified)
                << ", \"modified_iso\": " << JsonIsoTime(s.modified) << "}";
      separator = ",\n";
    }
    std::cout << (streams.empty() ? "]\n" : "\n]\n");
  } else {
    const bool terminal = ::isatty(STDOUT_FILENO) == 1;
    if (options.details && terminal) {
      std::cout << "      SIZE  BLOCKS  CREATED                   MODIFIED                  NAME\n";
    }
    for (const Listed& s : streams) {
      if (options.details) {
        char columns[64];  // two numbers of at most 20 digits: snprintf cannot fail or cut
        const std::string size = options.human ? HumanBytes(s.size) : std::to_string(s.size);
        (void)std::snprintf(columns, sizeof columns, "%10s %7lu  ", size.c_str(),
                            static_cast<unsigned long>(ChainBlocks(s.size)));
        std::cout << columns << s.created << "  " << s.modified << "  ";
      }
      std::cout << (options.details || terminal ? ShowName(s.name) : s.name) << "\n";
    }
  }
  std::cout.flush();
  if (!std::cout) {
    Report("cannot write the listing");
    return kError;
  }
  return exit;
}

Exit Cat(const std::string& file, const std::vector<std::string>& names, const Options& options) {
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadOnly, true)) return kError;
  for (const std::string& name : names) {
    if (!archive.Exists(name.c_str())) {
      Report(file + ": no stream " + Quote(name));
      return kError;
    }
  }
  if (!Unlock(archive, file, options)) return kError;
  for (const std::string& name : names) {
    std::unique_ptr<std::iostream> in(archive.GetIOStream(name.c_str(), "rb"));
    int writeError = 0;
    const bool copied = in != nullptr && CopyOut(*in, nullptr, [&](const char* data, std::size_t size) {
      writeError = WriteFd(STDOUT_FILENO, data, size);
      return writeError == 0;
    });
    if (!copied) {
      Report(writeError != 0 ? "cannot write to standard output: " + SystemText(writeError)
                             : file + ": stream " + Quote(name) + " cannot be read; it may be damaged");
      return kError;
    }
  }
  return kOk;
}

Exit Put(const std::string& file, const std::string& name, const std::string& source, const Options& options) {
  const std::string problem = StreamNameProblem(name);
  if (!problem.empty()) {
    Report(Quote(name) + ": " + problem);
    return kError;
  }
  // The source first: nothing is touched for one that cannot be read.
  std::ifstream sourceFile;
  std::istream* in = &std::cin;
  if (!source.empty() && source != "-") {
    struct stat info;
    if (::stat(source.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) {
      Report(source + ": cannot read: " + SystemText(::stat(source.c_str(), &info) != 0 ? errno : EISDIR) +
             "; " + file + " left as it was");
      return kError;
    }
    sourceFile.open(source, std::ios::binary);
    if (!sourceFile) {
      Report(source + ": cannot read: " + SystemText(errno));
      return kError;
    }
    in = &sourceFile;
  }
  std::string password;
  if (!PasswordOf(file, options, &password)) return kError;
  struct stat info;
  const bool exists = ::stat(file.c_str(), &info) == 0;
  NewFile work;
  std::string error;
  if (!work.Begin(file, exists, &error)) {
    Report(error);
    return kError;
  }
  CompoundFile archive;
  if (!OpenWork(archive, work.path(), password)) return kError;
  std::unique_ptr<std::iostream> out(archive.GetIOStream(name.c_str(), "wb"));
  if (!out) {
    Report(file + ": cannot create stream " + Quote(name));
    return kError;
  }
  std::uint64_t total = 0;
  bool tooLarge = false;
  int writeError = 0;
  const bool copied = CopyOut(*in, nullptr, [&](const char* data, std::size_t size) {
    total += size;
    if (total > kMaxStreamSize) {
      tooLarge = true;
      return false;
    }
    errno = 0;
    out->write(data, static_cast<std::streamsize>(size));
    writeError = errno;
    return static_cast<bool>(*out);
  });
  errno = 0;
  const bool flushed = copied && static_cast<bool>(out->flush());
  if (copied && !flushed) writeError = errno;
  out.reset();
  if (!flushed) {
    archive.Close();
    if (tooLarge) {
      Report(Quote(name) + ": input larger than 4 GiB - 1 byte; " + file + " left as it was");
    } else if (in->bad()) {
      Report((source.empty() || source == "-" ? std::string("standard input") : source) +
             ": read failed; " + file + " left as it was");
    } else {
      Report(file + ": cannot write stream " + Quote(name) + SpaceText(work.path(), writeError) + "; left as it was");
    }
    return kError;
  }
  if (!Finish(archive, work.path(), file)) return kError;
  if (!work.Commit(&error)) {
    Report(error);
    return kError;
  }
  return kOk;
}

Exit Remove(const std::string& file, const std::vector<std::string>& patterns, const Options& options) {
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadWrite, true)) return kError;
  if (!Unlock(archive, file, options)) return kError;
  Exit exit = kOk;
  std::vector<std::string> names;
  const std::vector<Listed> streams = ListStreams(archive);
  for (const std::string& pattern : patterns) {
    if (IsFreeListName(pattern)) {
      Report(Quote(pattern) + ": the saved block map is kept by the library; not removed");
      exit = Worse(exit, kError);
      continue;
    }
    std::size_t matched = 0;
    for (const Listed& s : streams) {
      if (Matches(pattern, s.name)) {
        names.push_back(s.name);
        ++matched;
      }
    }
    if (matched == 0) {
      ReportItem(file + ": no stream " + Quote(pattern));
      exit = Worse(exit, kProblem);
    }
  }
  std::set<std::string> removed;
  for (const std::string& name : names) {
    if (!removed.insert(name).second) continue;
    if (!archive.DeleteCFFile(name.c_str())) {
      ReportItem(file + ": cannot remove " + Quote(name));
      exit = Worse(exit, kError);
    }
  }
  errno = 0;
  archive.Flush();
  const int error = errno;
  const bool ok = archive.GetStatus() == ZoStreamE::StatusOk;
  if (archive.Close() != ZoStreamE::StatusOk || !ok) {
    Report(file + ": could not be written completely" + SpaceText(file, error));
    return kError;
  }
  return exit;
}

}  // namespace tzcf
