#include "tests/TestUtil.h"

#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "blockstore/BlockFormat.h"
#include "utility/Endian.h"

namespace tztest {

bool PutStream(CompoundFile& file, const char* name, const std::string& content) {
  std::unique_ptr<std::iostream> out(file.GetIOStream(name, "wb"));
  if (!out) return false;
  out->write(content.data(), static_cast<std::streamsize>(content.size()));
  out->flush();
  return !out->fail();
}

std::string GetStream(CompoundFile& file, const char* name, bool* ok) {
  std::unique_ptr<std::iostream> in(file.GetIOStream(name, "rb"));
  if (!in) {
    if (ok) *ok = false;
    return std::string();
  }
  std::ostringstream text;
  char buffer[4096];
  while (in->read(buffer, sizeof buffer) || in->gcount() > 0) {
    text.write(buffer, in->gcount());
  }
  if (ok) *ok = !in->bad();
  return text.str();
}

bool Patch(CompoundFile& file, const char* name, std::streamoff at, const std::string& bytes) {
  std::unique_ptr<std::iostream> s(file.GetIOStream(name, "r+b"));
  if (!s) return false;
  try {  // a failing seek for writing throws through seekp (see GetIOStream)
    if (at < 0) s->seekp(0, std::ios_base::end);
    else s->seekp(at);
  } catch (const std::ios_base::failure&) {
    return false;
  }
  s->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  s->flush();
  return !s->fail();
}

void MakeFile(const std::string& path, const StreamList& streams) {
  CompoundFile file;
  ASSERT_EQ(ZoStreamE::StatusOk, file.Open(path.c_str(), ZoStreamE::OpenReadWrite));
  for (const auto& s : streams) ASSERT_TRUE(PutStream(file, s.first.c_str(), s.second)) << s.first;
  EXPECT_EQ(ZoStreamE::StatusOk, file.Close());
}

void ExpectStreams(CompoundFile& file, const StreamList& streams, const std::string& except) {
  for (const auto& s : streams) {
    if (s.first == except) continue;
    bool ok = false;
    EXPECT_TRUE(GetStream(file, s.first.c_str(), &ok) == s.second) << s.first << " changed";
    EXPECT_TRUE(ok) << s.first;
  }
}

std::vector<std::string> ListNames(const CompoundFile& file) {
  std::vector<std::string> names;
  unsigned long cursor = 0;
  for (const char* n = file.GetFirstDirName(&cursor); n != nullptr; n = file.GetNextDirName(&cursor)) {
    EXPECT_LE(strnlen(n, DirEntry::kNameSize), blockformat::kMaxNameLength);
    names.emplace_back(n, strnlen(n, DirEntry::kNameSize));
  }
  EXPECT_EQ(nullptr, file.GetNextDirName(&cursor));  // the end stays the end
  return names;
}

OpenedFile::OpenedFile(const std::string& path, ZoStreamE::OpenMode mode) {
  EXPECT_EQ(ZoStreamE::StatusOk, Open(path.c_str(), mode)) << path;
}

OpenResult TryOpen(CompoundFile& file, const std::string& path, ZoStreamE::OpenMode mode) {
  try {
    return {false, file.Open(path.c_str(), mode)};
  } catch (ZoStreamE::Status thrown) {
    return {true, thrown};
  }
}

std::size_t BlockAt(std::uint32_t n) { return (static_cast<std::size_t>(n) - 1) * blockformat::kBlockSize; }
std::uint32_t BlockCount(const FileBytes& b) { return static_cast<std::uint32_t>(b.size() / blockformat::kBlockSize); }
std::uint16_t Get16(const FileBytes& b, std::size_t at) { return tz::DecodeFixed16(&b.at(at)); }
std::uint32_t Get32(const FileBytes& b, std::size_t at) { return tz::DecodeFixed32(&b.at(at)); }
void Put32(FileBytes& b, std::size_t at, std::uint32_t v) { tz::EncodeFixed32(&b.at(at), v); }

std::vector<std::uint32_t> Chain(const FileBytes& b, std::uint32_t first) {
  std::vector<std::uint32_t> chain;
  for (std::uint32_t n = first; n != 0 && n <= BlockCount(b) && chain.size() < BlockCount(b);
       n = Get32(b, BlockAt(n) + blockformat::kOffNextBlock)) {
    chain.push_back(n);
  }
  return chain;
}

std::size_t EntryAt(const FileBytes& b, const char* name) {
  namespace bf = blockformat;
  for (std::uint32_t n : Chain(b, 1)) {
    for (std::uint32_t e = 0; e < bf::kEntriesPerBlock; ++e) {
      const std::size_t at = BlockAt(n) + bf::kOffEntries + e * bf::kEntrySize;
      const char* stored = reinterpret_cast<const char*>(&b[at + bf::kOffName]);
      if (Get32(b, at + bf::kOffFirstBlock) != 0 && std::strncmp(name, stored, DirEntry::kNameSize) == 0) {
        return at;
      }
    }
  }
  throw std::logic_error(std::string("no entry ") + name);
}

std::uint32_t FirstBlockOf(const FileBytes& b, const char* name) {
  return Get32(b, EntryAt(b, name) + blockformat::kOffFirstBlock);
}

}  // namespace tztest
