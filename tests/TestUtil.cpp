#include "tests/TestUtil.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

#include <boost/filesystem.hpp>

namespace tztest {

ScratchDir::ScratchDir() {
  namespace fs = boost::filesystem;
  const fs::path p = fs::temp_directory_path() / fs::unique_path("tztest-%%%%-%%%%-%%%%");
  fs::create_directories(p);
  path_ = p.string();
}

ScratchDir::~ScratchDir() {
  boost::system::error_code ec;
  boost::filesystem::remove_all(path_, ec);
}

std::string ScratchDir::Path(const std::string& name) const { return path_ + "/" + name; }

std::vector<unsigned char> ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

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

std::string Pattern(std::size_t length, std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(length, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

namespace {
class FaultyFile : public tz::RandomAccessFile {
 public:
  FaultyFile(std::unique_ptr<tz::RandomAccessFile> base, FaultyEnv* env)
      : base_(std::move(base)), env_(env) {}
  bool ReadAt(std::uint64_t offset, void* buffer, std::size_t n, std::size_t* got) override {
    return base_->ReadAt(offset, buffer, n, got);
  }
  bool WriteAt(std::uint64_t offset, const void* buffer, std::size_t n) override {
    return env_->WriteAllowed() && base_->WriteAt(offset, buffer, n);
  }
  bool Size(std::uint64_t* size) override { return base_->Size(size); }

 private:
  std::unique_ptr<tz::RandomAccessFile> base_;
  FaultyEnv* env_;
};
}  // namespace

std::unique_ptr<tz::RandomAccessFile> FaultyEnv::OpenLocked(const std::string& path, bool writable) {
  std::unique_ptr<tz::RandomAccessFile> base = tz::Env::Default()->OpenLocked(path, writable);
  if (!base) return nullptr;
  return std::unique_ptr<tz::RandomAccessFile>(new FaultyFile(std::move(base), this));
}

}  // namespace tztest
