// Small pieces the fuzz targets and their seeds programs share: where a
// run keeps its files, whole-file bytes, the stop on a finding, and the
// quoting of libFuzzer's dictionary files.
// Thread safety: no state; libFuzzer runs inputs on one thread.
#ifndef TESSELZOSTREAM_FUZZ_FUZZUTIL_H_
#define TESSELZOSTREAM_FUZZ_FUZZUTIL_H_

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "testsupport/FileBytes.h"

namespace tzfuzz {

// `$TZ_FUZZ_DIR`, else /dev/shm (memory-backed: runs write files thousands
// of times a second), else /tmp; followed by "/<stem>-<pid>".
inline std::string ScratchPath(const std::string& stem) {
  const char* dir = std::getenv("TZ_FUZZ_DIR");
  std::string base;
  if (dir != nullptr && *dir != '\0') {
    base = dir;
  } else if (::access("/dev/shm", W_OK) == 0) {
    base = "/dev/shm";
  } else {
    base = "/tmp";
  }
  return base + "/" + stem + "-" + std::to_string(static_cast<long>(::getpid()));
}

// A finding: said on stderr, and the run ends (libFuzzer keeps the input).
[[noreturn]] inline void Fail(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::abort();
}

// Whole-file bytes (testsupport/FileBytes.h); a write that fails is a
// finding, as the target cannot go on without its file.
inline std::vector<std::uint8_t> ReadBytes(const std::string& path) { return tzsupport::ReadFileBytes(path); }

inline void WriteBytes(const std::string& path, const std::uint8_t* data, std::size_t size) {
  if (!tzsupport::WriteFileBytes(path, data, size)) Fail("cannot write " + path);
}

// A dictionary entry: "\xNN" for every byte that is not plain.
inline std::string Quoted(const std::string& bytes) {
  std::string out = "\"";
  for (const char c : bytes) {
    const unsigned char ch = static_cast<unsigned char>(c);
    if (ch >= 0x20 && ch < 0x7F && ch != '"' && ch != '\\') {
      out += c;
    } else {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02X", ch);
      out += hex;
    }
  }
  return out + "\"";
}

}  // namespace tzfuzz

#endif  // TESSELZOSTREAM_FUZZ_FUZZUTIL_H_
