// Helpers shared by the tests: scratch folders, whole-file bytes, and a
// platform layer that fails chosen writes.
#ifndef TESSELZOSTREAM_TESTS_TESTUTIL_H_
#define TESSELZOSTREAM_TESTS_TESTUTIL_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "utility/Env.h"

namespace tztest {

// A fresh folder under the system's temporary folder, removed on
// destruction.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  std::string Path(const std::string& name) const;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::vector<unsigned char> ReadAll(const std::string& path);
void WriteAll(const std::string& path, const std::vector<unsigned char>& bytes);

// Writes `content` to a new stream `name` of `file` ("wb"); true when the
// stream reported no failure.
bool PutStream(CompoundFile& file, const char* name, const std::string& content);
// The whole content of stream `name` ("rb"); `ok` false when it could not be
// opened or reading failed.
std::string GetStream(CompoundFile& file, const char* name, bool* ok = nullptr);

// Deterministic bytes for a seed.
std::string Pattern(std::size_t length, std::uint32_t seed);

// An Env that passes everything to the default one, but fails the write
// with number `failAt` (counted from 1 since the last Reset) and every
// write after it, as a full disk would. 0 fails nothing.
class FaultyEnv : public tz::Env {
 public:
  std::unique_ptr<tz::RandomAccessFile> OpenLocked(const std::string& path,
                                                   bool writable) override;
  std::int64_t Now() override { return tz::Env::Default()->Now(); }

  void Reset(int failAt) { failAt_ = failAt; writes_ = 0; }
  int writes() const { return writes_; }
  bool WriteAllowed() { ++writes_; return failAt_ == 0 || writes_ < failAt_; }

 private:
  int failAt_ = 0;
  int writes_ = 0;
};

// Puts an Env in place for its lifetime.
class ScopedEnv {
 public:
  explicit ScopedEnv(tz::Env* env) { tz::SetEnv(env); }
  ~ScopedEnv() { tz::SetEnv(nullptr); }
};

}  // namespace tztest

#endif  // TESSELZOSTREAM_TESTS_TESTUTIL_H_
