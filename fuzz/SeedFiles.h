// The small compound file the check and the salvage seed programs start
// from: four streams "s0".."s3" of 0, 700, 1400 and 2100 bytes, one of
// them perhaps grown past its size or deleted, perhaps encrypted.
// Thread safety: none needed; seed programs run on one thread.
#ifndef TESSELZOSTREAM_FUZZ_SEEDFILES_H_
#define TESSELZOSTREAM_FUZZ_SEEDFILES_H_

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "tesselzostream/CompoundFile.h"

namespace tzfuzz {

struct SeedFile {
  bool grow = false;       // "s1" extended by a seek past its end (its chain runs beyond its size)
  bool deleteOne = false;  // "s2" deleted: free blocks among used ones
  const char* password = nullptr;  // encrypted under it when not null
};

// Writes the file at `path` afresh; the program ends with 1 when it cannot.
inline void MakeSeedFile(const std::string& path, const SeedFile& how) {
  std::remove(path.c_str());
  CompoundFile file;
  if (file.Open(path.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) std::exit(1);
  for (int i = 0; i < 4; ++i) {
    std::unique_ptr<std::iostream> s(file.GetIOStream(("s" + std::to_string(i)).c_str(), "wb"));
    *s << std::string(static_cast<std::size_t>(i) * 700, static_cast<char>('a' + i));
  }
  if (how.grow) {
    std::unique_ptr<std::iostream> s(file.GetIOStream("s1", "r+b"));
    s->seekp(3000);
  }
  if (how.deleteOne) file.DeleteCFFile("s2");
  if (how.password != nullptr && file.Encrypt(how.password) != ZoStreamE::StatusOk) std::exit(1);
  file.Close();
}

}  // namespace tzfuzz

#endif  // TESSELZOSTREAM_FUZZ_SEEDFILES_H_
