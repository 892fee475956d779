#include "testsupport/FaultEnv.h"

#include <algorithm>
#include <ios>
#include <streambuf>

namespace tzsupport {

const char* FaultName(Fault kind) {
  static const char* const names[] = {"write", "partial write", "read", "flush", "open", "rename", "remove",
                                      "stat", "list", "mkdir", "canonical path"};
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

// A path whose canonical form cannot be worked out, as when one of its
// folders cannot be examined.
std::string FaultyEnv::CanonicalPath(const std::string& path) {
  return Allow(Fault::kCanonical) ? tz::Env::Default()->CanonicalPath(path) : std::string();
}

}  // namespace tzsupport
