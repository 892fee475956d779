#include "tests/reliability/KillFiles.h"

#include <algorithm>
#include <memory>
#include <ostream>

#include <gtest/gtest.h>

namespace killtest {

const char kFreeListName[] = "zorvanet_block_file_free_list";

bool WriteInPieces(std::ostream& out, const std::string& bytes, std::mt19937_64& rng) {
  static const std::size_t kPieces[] = {1, 59, 1003, 1004, 4096, 10240, 10241, 23, 65536};
  std::size_t done = 0;
  while (done < bytes.size() && out.good()) {
    const std::size_t piece = std::min(kPieces[rng() % (sizeof kPieces / sizeof kPieces[0])],
                                       bytes.size() - done);
    out.write(bytes.data() + done, static_cast<std::streamsize>(piece));
    done += piece;
  }
  out.flush();
  return out.good();
}

std::uint32_t PickLength(std::mt19937_64& rng) {
  const std::uint32_t kind = static_cast<std::uint32_t>(rng() % 20);
  if (kind < 14) return static_cast<std::uint32_t>(rng() % 6000);
  if (kind < 19) return static_cast<std::uint32_t>(rng() % 40000);
  return static_cast<std::uint32_t>(rng() % 200000);
}

bool ReadStream(CompoundFile& file, const std::string& name, std::string* out) {
  std::unique_ptr<std::basic_iostream<char>> in(file.GetIOStream(name.c_str(), "rb"));
  if (in == nullptr) return false;
  out->clear();
  char buffer[8192];
  while (in->read(buffer, sizeof buffer) || in->gcount() > 0) out->append(buffer, static_cast<std::size_t>(in->gcount()));
  return !in->bad() && file.GetStatus() == ZoStreamE::StatusOk;
}

std::set<std::string> NamesIn(const CompoundFile& file) {
  std::set<std::string> names;
  unsigned long cursor = 0;
  for (const char* name = file.GetFirstDirName(&cursor); name != nullptr; name = file.GetNextDirName(&cursor)) {
    if (std::string(name) != kFreeListName) names.insert(name);
  }
  return names;
}

int ExpectSettled(CompoundFile& file, const Streams& expected,
                  const std::set<std::string>& unsettled, const std::string& where) {
  int faults = 0;
  std::set<std::string> known(unsettled);
  for (const auto& stream : expected) {
    const std::string name = StreamName(stream.first);
    known.insert(name);
    if (unsettled.count(name) != 0) continue;
    std::string got;
    if (!ReadStream(file, name, &got)) {
      ADD_FAILURE() << where << ": saved stream " << name << " cannot be read (status "
                    << file.GetStatus() << ")";
      ++faults;
    } else if (got != stream.second) {
      ADD_FAILURE() << where << ": saved stream " << name << " reads back " << got.size()
                    << " bytes, not the " << stream.second.size() << " bytes last written";
      ++faults;
    }
  }
  for (const std::string& name : NamesIn(file)) {
    if (known.count(name) == 0) {
      ADD_FAILURE() << where << ": stream " << name << " is in the file, but was deleted for good";
      ++faults;
    }
  }
  return faults;
}

std::string PasswordText(int number) { return "password-" + std::to_string(number); }

std::uint32_t IndexOf(const std::string& name) {
  return static_cast<std::uint32_t>(std::stoul(name.substr(name.find('-') + 1)));
}

namespace {
void OpenWith(CompoundFile& file, const std::string& path, int password) {
  file.Open(path.c_str(), ZoStreamE::OpenReadWrite);
  if (password != 0) file.SetPassword(PasswordText(password).c_str());
}
}  // namespace

bool SettleStreams(const std::string& path, int password, const Wholes& wholes, Streams& settled,
                   Tally& tally) {
  for (const auto& stream : wholes) {
    const std::string name = StreamName(stream.first);
    settled.erase(stream.first);
    CompoundFile file;
    OpenWith(file, path, password);
    if (!file.Exists(name.c_str())) {
      tally.Note("unsettled stream: gone");
      continue;
    }
    std::string got;
    const bool read = ReadStream(file, name, &got);
    const Whole* match = nullptr;
    for (const Whole& whole : stream.second) {
      if (read && got == whole.content) match = &whole;
    }
    if (match != nullptr) {
      tally.Note("unsettled stream: " + match->label);
      settled[stream.first] = got;
      continue;
    }
    tally.Note(read ? "unsettled stream: partial, deleted" : "unsettled stream: unreadable, deleted");
    if (!read) {  // a failed read stops the handle; a fresh one deletes
      file.Close();
      OpenWith(file, path, password);
    }
    // A deletion follows the chain as the file holds it; a link past the
    // end, left by a cut write, stops it, and nothing mends such a file.
    if (!file.DeleteCFFile(name.c_str()) && file.GetStatus() == ZoStreamE::StatusPastEnd) {
      tally.Note("unsettled stream links past the end: cannot be deleted, file given up");
      return false;
    }
    EXPECT_EQ(file.GetStatus(), ZoStreamE::StatusOk) << tally.where << ": unsettled " << name << " cannot be deleted";
    EXPECT_EQ(file.Close(), ZoStreamE::StatusOk) << tally.where << ": closing after deleting " << name;
  }
  return true;
}

}  // namespace killtest
