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

const char* FaultName(Fault kind) {
  static const char* const names[] = {"write", "partial write", "read", "flush", "open", "rename", "remove",
                                      "stat", "list", "mkdir"};
  static_assert(sizeof names / sizeof names[0] == sizeof kAllFaults / sizeof kAllFaults[0], "a name for each");
  return names[static_cast<int>(kind)];
}

bool FaultyEnv::Allow(Fault kind) {
  const bool counted = kind == kind_ || (kind == Fault::kWrite && kind_ == Fault::kPartialWrite);
  if (!counted) return true;
  ++calls_;
  return failAt_ == 0 || calls_ < failAt_;
}

namespace {
class FaultyFile : public tz::RandomAccessFile {
 public:
  FaultyFile(std::unique_ptr<tz::RandomAccessFile> base, FaultyEnv* env)
      : base_(std::move(base)), env_(env) {}
  bool ReadAt(std::uint64_t offset, void* buffer, std::size_t n, std::size_t* got) override {
    return env_->Allow(Fault::kRead) && base_->ReadAt(offset, buffer, n, got);
  }
  bool WriteAt(std::uint64_t offset, const void* buffer, std::size_t n) override {
    const std::uint64_t limit = env_->DiskLimit();
    if (limit != 0 && offset + n > limit) {  // the disk fills part-way
      if (offset < limit) base_->WriteAt(offset, buffer, static_cast<std::size_t>(limit - offset));
      return false;
    }
    if (env_->Allow(Fault::kWrite)) return base_->WriteAt(offset, buffer, n);
    // Only a write that needs new space can run out of it part-way.
    std::uint64_t size = 0;
    if (env_->PartNow() && base_->Size(&size) && offset + n > size) base_->WriteAt(offset, buffer, n / 2);
    return false;
  }
  bool Size(std::uint64_t* size) override { return base_->Size(size); }
  bool Truncate(std::uint64_t size) override { return base_->Truncate(size); }
  bool Reserve(std::uint64_t offset, std::uint64_t length) override {
    const std::uint64_t limit = env_->DiskLimit();
    if (limit != 0 && offset + length > limit) return false;
    return base_->Reserve(offset, length);
  }

 private:
  std::unique_ptr<tz::RandomAccessFile> base_;
  FaultyEnv* env_;
};

// A working file's buffer. It keeps no buffer of its own, so every read,
// put and flush of the stream on it reaches the env's count; a failed read
// throws, as the standard file buffer does on a read error.
class FaultyBuffer : public std::streambuf {
 public:
  FaultyBuffer(std::streambuf* base, FaultyEnv* env) : base_(base), env_(env) {}

 protected:
  int_type underflow() override { Read(); return base_->sgetc(); }
  int_type uflow() override { Read(); return base_->sbumpc(); }
  std::streamsize xsgetn(char* s, std::streamsize n) override {
    Read();
    return base_->sgetn(s, n);
  }
  std::streamsize showmanyc() override { return base_->in_avail(); }
  int_type pbackfail(int_type c) override {
    return traits_type::eq_int_type(c, traits_type::eof()) ? base_->sungetc()
                                                           : base_->sputbackc(traits_type::to_char_type(c));
  }
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    if (!env_->Allow(Fault::kWrite)) return traits_type::eof();
    return base_->sputc(traits_type::to_char_type(c));
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    if (env_->Allow(Fault::kWrite)) return base_->sputn(s, n);
    return env_->PartNow() ? base_->sputn(s, n / 2) : 0;
  }
  int sync() override { return env_->Allow(Fault::kSync) ? base_->pubsync() : -1; }
  pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
    return base_->pubseekoff(off, dir, which);
  }
  pos_type seekpos(pos_type pos, std::ios_base::openmode which) override {
    return base_->pubseekpos(pos, which);
  }

 private:
  void Read() {
    if (!env_->Allow(Fault::kRead)) throw std::ios_base::failure("injected read error");
  }

  std::streambuf* base_;  // the file buffer, which outlives this one
  FaultyEnv* env_;
};

// Fills `error` as the file system reports an I/O error.
bool Failed(boost::system::error_code& error) {
  error = boost::system::error_code(EIO, boost::system::system_category());
  return false;
}
}  // namespace

std::unique_ptr<tz::RandomAccessFile> FaultyEnv::OpenLocked(const std::string& path, bool writable) {
  if (!Allow(Fault::kOpen)) return nullptr;
  std::unique_ptr<tz::RandomAccessFile> base = tz::Env::Default()->OpenLocked(path, writable);
  if (!base) return nullptr;
  return std::unique_ptr<tz::RandomAccessFile>(new FaultyFile(std::move(base), this));
}

bool FaultyEnv::OpenFileBuffer(std::filebuf& buffer, const std::string& path,
                               std::ios_base::openmode mode, std::unique_ptr<std::streambuf>* wrapper) {
  if (!Allow(Fault::kOpen) || buffer.open(path, mode) == nullptr) return false;
  wrapper->reset(new FaultyBuffer(&buffer, this));
  return true;
}

bool FaultyEnv::Remove(const std::string& path, boost::system::error_code& error) {
  return Allow(Fault::kRemove) ? tz::Env::Default()->Remove(path, error) : Failed(error);
}

bool FaultyEnv::RemoveAll(const std::string& path, boost::system::error_code& error) {
  return Allow(Fault::kRemove) ? tz::Env::Default()->RemoveAll(path, error) : Failed(error);
}

bool FaultyEnv::Rename(const std::string& from, const std::string& to,
                       boost::system::error_code& error) {
  return Allow(Fault::kRename) ? tz::Env::Default()->Rename(from, to, error) : Failed(error);
}

// Making a folder fails as an open does on a full or read-only disk.
bool FaultyEnv::MakeUniqueFolder(const std::string& prefix, std::string* made,
                                 boost::system::error_code& error) {
  return Allow(Fault::kOpen) ? tz::Env::Default()->MakeUniqueFolder(prefix, made, error)
                             : Failed(error);
}

// A path that cannot be examined, a folder that cannot be read, a folder
// that cannot be made: each as an I/O error reports it.
bool FaultyEnv::Stat(const std::string& path, bool followLinks, tz::FileInfo* info,
                     boost::system::error_code& error) {
  return Allow(Fault::kStat) ? tz::Env::Default()->Stat(path, followLinks, info, error) : Failed(error);
}

bool FaultyEnv::ListFolder(const std::string& path, std::vector<tz::FolderEntry>* entries,
                           boost::system::error_code& error) {
  return Allow(Fault::kList) ? tz::Env::Default()->ListFolder(path, entries, error) : Failed(error);
}

bool FaultyEnv::MakeFolder(const std::string& path, boost::system::error_code& error) {
  return Allow(Fault::kMkdir) ? tz::Env::Default()->MakeFolder(path, error) : Failed(error);
}

}  // namespace tztest
