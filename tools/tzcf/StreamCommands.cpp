// pack, unpack, ls, cat, put, rm: the commands that move streams in and out.
//
// Every copy goes through a fixed buffer, so no stream size, true or claimed
// by a damaged file, makes the tool allocate more. The saved block map's
// stream is neither listed, unpacked, written nor deleted.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <vector>

#include <boost/filesystem.hpp>

#include "Commands.h"
#include "ConfinedFolder.h"
#include "Progress.h"

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

bool WriteFd(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// Why `name` cannot be a stream the user writes; empty when it can.
std::string StreamNameProblem(const std::string& name) {
  if (name.empty()) return "empty stream name";
  if (name.size() > kMaxNameLength) return "name longer than 256 characters";
  if (IsFreeListName(name)) return "the name of the saved block map, which the library keeps";
  return std::string();
}

// A regular file found under the folder being packed.
struct Found {
  std::string name;  // relative path, '/'-separated
  fs::path path;
  std::uint64_t size;
};

// Collects the regular files below `dir`, not following links. What is
// neither a folder nor a regular file is reported and makes `exit` 1; a
// folder that cannot be read makes it 2.
void Walk(const fs::path& dir, const std::string& prefix, std::vector<Found>* found, Exit* exit) {
  boost::system::error_code ec;
  fs::directory_iterator it(dir, ec), end;
  if (ec) {
    Report(dir.string() + ": " + ec.message());
    *exit = Worse(*exit, kError);
    return;
  }
  for (; it != end; it.increment(ec)) {
    if (ec) {
      Report(dir.string() + ": " + ec.message());
      *exit = Worse(*exit, kError);
      return;
    }
    const fs::path path = it->path();
    const std::string name = prefix + path.filename().string();
    const fs::file_status status = fs::symlink_status(path, ec);
    if (fs::is_directory(status)) {
      Walk(path, name + "/", found, exit);
    } else if (fs::is_regular_file(status)) {
      const std::uint64_t size = fs::file_size(path, ec);
      if (ec) {
        Report(path.string() + ": " + ec.message());
        *exit = Worse(*exit, kError);
        continue;
      }
      found->push_back({name, path, size});
    } else {
      Report("skipped " + Quote(name) + ": not a regular file");
      *exit = Worse(*exit, kProblem);
    }
  }
}

}  // namespace

Exit Pack(const std::string& folder, const std::string& file, bool force, const Options& options) {
  boost::system::error_code ec;
  if (!fs::is_directory(folder, ec)) {
    Report(folder + ": not a folder");
    return kError;
  }
  if (fs::exists(fs::symlink_status(file, ec))) {
    if (!force) {
      Report(file + ": exists (--force replaces it)");
      return kError;
    }
    if (!fs::remove(file, ec)) {
      Report(file + ": cannot remove: " + ec.message());
      return kError;
    }
  }

  // The walk ends before the compound file exists, so it never packs itself.
  std::vector<Found> found;
  Exit exit = kOk;
  Walk(folder, "", &found, &exit);
  std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) { return a.name < b.name; });

  std::vector<Found> accepted;
  std::map<std::string, std::string> byFoldedName;
  std::uint64_t total = 0;
  for (const Found& f : found) {
    std::string problem = StreamNameProblem(f.name);
    if (problem.empty() && f.size > kMaxStreamSize) problem = "larger than 4 GiB - 1 byte";
    if (problem.empty()) {
      // Names that differ only in case would land on one stream.
      const auto first = byFoldedName.emplace(FoldCase(f.name), f.name);
      if (!first.second) problem = "same name as " + Quote(first.first->second) + " apart from case";
    }
    if (!problem.empty()) {
      Report("skipped " + Quote(f.name) + ": " + problem);
      exit = Worse(exit, kProblem);
      continue;
    }
    accepted.push_back(f);
    total += f.size;
  }

  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadWrite, false)) return kError;
  Progress progress("packing", total, options.quiet);
  for (const Found& f : accepted) {
    std::ifstream in(f.path.string(), std::ios::binary);
    if (!in) {
      Report(f.path.string() + ": cannot read");
      exit = Worse(exit, kError);
      continue;
    }
    std::unique_ptr<std::iostream> out(archive.GetIOStream(f.name.c_str(), "wb"));
    bool written = out != nullptr;
    bool readFailed = false;
    if (written) {
      readFailed = !CopyOut(in, &progress, [&](const char* data, std::size_t size) {
        out->write(data, static_cast<std::streamsize>(size));
        return static_cast<bool>(*out);
      });
      written = static_cast<bool>(out->flush());
      out.reset();
    }
    if (!written) {
      progress.Clear();
      Report(file + ": cannot write stream " + Quote(f.name));
      archive.Close();
      return kError;
    }
    if (readFailed) {
      Report(f.path.string() + ": read failed; its stream is left out");
      archive.DeleteCFFile(f.name.c_str());
      exit = Worse(exit, kError);
    }
  }
  progress.Done();
  if (archive.Close() != ZoStreamE::StatusOk) {
    Report(file + ": could not be written completely");
    return kError;
  }
  return exit;
}

Exit Unpack(const std::string& file, const std::string& folder, const Options& options) {
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadOnly, true)) return kError;
  if (!Unlock(archive, file, options)) return kError;
  ConfinedFolder target;
  std::string error;
  if (!target.Open(folder, &error)) {
    Report(error);
    return kError;
  }
  const std::vector<Listed> streams = ListStreams(archive);
  std::uint64_t total = 0;
  for (const Listed& s : streams) total += s.size;

  Progress progress("unpacking", total, options.quiet);
  Exit exit = kOk;
  for (const Listed& s : streams) {
    const std::string problem = ConfinedFolder::NameProblem(s.name);
    if (!problem.empty()) {
      progress.Clear();
      Report("refused " + Quote(s.name) + ": " + problem);
      exit = Worse(exit, kProblem);
      continue;
    }
    std::unique_ptr<std::iostream> in(archive.GetIOStream(s.name.c_str(), "rb"));
    if (!in) {
      progress.Clear();
      Report(file + ": cannot read stream " + Quote(s.name));
      exit = Worse(exit, kError);
      continue;
    }
    bool refused = false;
    const int fd = target.Create(s.name, &error, &refused);
    if (fd < 0) {
      progress.Clear();
      Report((refused ? "refused " : "cannot write ") + Quote(s.name) + ": " + error);
      exit = Worse(exit, refused ? kProblem : kError);
      continue;
    }
    bool writeFailed = false;
    const bool copied = CopyOut(*in, &progress, [&](const char* data, std::size_t size) {
      writeFailed = !WriteFd(fd, data, size);
      return !writeFailed;
    });
    const bool closed = ::close(fd) == 0;
    if (!copied || !closed) {
      target.Remove(s.name);
      progress.Clear();
      Report(writeFailed || !closed ? folder + ": cannot write " + Quote(s.name)
                                    : file + ": stream " + Quote(s.name) + " is damaged; not unpacked");
      exit = Worse(exit, kError);
    }
  }
  return exit;
}

namespace {

std::string Json(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char escape[8];  // six characters and the zero: snprintf cannot fail or cut
      (void)std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
      out += escape;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

}  // namespace

Exit List(const std::string& file, bool details, bool json) {
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadOnly, true)) return kError;
  const std::vector<Listed> streams = ListStreams(archive);
  if (json) {
    std::cout << "[";
    const char* separator = "\n";
    for (const Listed& s : streams) {
      std::cout << separator << "  {\"name\": " << Json(s.name) << ", \"size\": " << s.size
                << ", \"blocks\": " << ChainBlocks(s.size) << ", \"created\": " << Json(s.created)
                << ", \"modified\": " << Json(s.modified) << "}";
      separator = ",\n";
    }
    std::cout << (streams.empty() ? "]\n" : "\n]\n");
  } else {
    for (const Listed& s : streams) {
      if (details) {
        char columns[64];  // two numbers of at most 20 digits: snprintf cannot fail or cut
        (void)std::snprintf(columns, sizeof columns, "%10lu %7lu  ", static_cast<unsigned long>(s.size),
                      static_cast<unsigned long>(ChainBlocks(s.size)));
        std::cout << columns << s.created << "  " << s.modified << "  ";
      }
      std::cout << s.name << "\n";
    }
  }
  std::cout.flush();
  if (!std::cout) {
    Report("cannot write the listing");
    return kError;
  }
  return kOk;
}

Exit Cat(const std::string& file, const std::string& name, const Options& options) {
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadOnly, true)) return kError;
  if (!archive.Exists(name.c_str())) {
    Report(file + ": no stream " + Quote(name));
    return kError;
  }
  if (!Unlock(archive, file, options)) return kError;
  std::unique_ptr<std::iostream> in(archive.GetIOStream(name.c_str(), "rb"));
  bool writeFailed = false;
  const bool copied = in != nullptr && CopyOut(*in, nullptr, [&](const char* data, std::size_t size) {
    writeFailed = !WriteFd(STDOUT_FILENO, data, size);
    return !writeFailed;
  });
  if (!copied) {
    Report(writeFailed ? std::string("cannot write to standard output")
                       : file + ": stream " + Quote(name) + " cannot be read; it may be damaged");
    return kError;
  }
  return kOk;
}

Exit Put(const std::string& file, const std::string& name, const std::string& source, const Options& options) {
  const std::string problem = StreamNameProblem(name);
  if (!problem.empty()) {
    Report(Quote(name) + ": " + problem);
    return kError;
  }
  std::ifstream sourceFile;
  std::istream* in = &std::cin;
  if (!source.empty() && source != "-") {
    sourceFile.open(source, std::ios::binary);
    if (!sourceFile) {
      Report(source + ": cannot read");
      return kError;
    }
    in = &sourceFile;
  }
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadWrite, false)) return kError;
  if (!Unlock(archive, file, options)) return kError;
  std::unique_ptr<std::iostream> out(archive.GetIOStream(name.c_str(), "wb"));
  if (!out) {
    Report(file + ": cannot create stream " + Quote(name));
    return kError;
  }
  std::uint64_t total = 0;
  bool tooLarge = false;
  const bool copied = CopyOut(*in, nullptr, [&](const char* data, std::size_t size) {
    total += size;
    if (total > kMaxStreamSize) {
      tooLarge = true;
      return false;
    }
    out->write(data, static_cast<std::streamsize>(size));
    return static_cast<bool>(*out);
  });
  const bool flushed = copied && static_cast<bool>(out->flush());
  out.reset();
  if (!flushed) {
    // The stream was replaced when it was opened: what it holds now is
    // partial, so it goes rather than pass for the whole input.
    archive.DeleteCFFile(name.c_str());
    archive.Close();
    Report(tooLarge ? Quote(name) + ": input larger than 4 GiB - 1 byte; stream removed"
                    : file + ": cannot write stream " + Quote(name) + "; stream removed");
    return kError;
  }
  if (archive.Close() != ZoStreamE::StatusOk) {
    Report(file + ": could not be written completely");
    return kError;
  }
  return kOk;
}

Exit Remove(const std::string& file, const std::vector<std::string>& names) {
  CompoundFile archive;
  if (!OpenFile(archive, file, ZoStreamE::OpenReadWrite, true)) return kError;
  Exit exit = kOk;
  for (const std::string& name : names) {
    if (IsFreeListName(name)) {
      Report(Quote(name) + ": the saved block map is kept by the library; not removed");
      exit = Worse(exit, kError);
    } else if (!archive.Exists(name.c_str())) {
      Report(file + ": no stream " + Quote(name));
      exit = Worse(exit, kProblem);
    } else if (!archive.DeleteCFFile(name.c_str())) {
      Report(file + ": cannot remove " + Quote(name));
      exit = Worse(exit, kError);
    }
  }
  if (archive.Close() != ZoStreamE::StatusOk) {
    Report(file + ": could not be written completely");
    return kError;
  }
  return exit;
}

}  // namespace tzcf
