// Whole-file bytes: a file read into memory at once, or written from memory
// at once, for tests that damage files on purpose, fuzz targets that hand
// their input to the library as a file, and benchmarks that copy files.
//
// Contract: a file that cannot be read reads as empty (callers that must
// tell the two apart check the file's existence themselves); a write
// reports its failure through its result. Neither keeps a handle open past
// the call. Thread safety: the functions share no state.
#ifndef TESSELZOSTREAM_TESTSUPPORT_FILEBYTES_H_
#define TESSELZOSTREAM_TESTSUPPORT_FILEBYTES_H_

#include <cstddef>
#include <string>
#include <vector>

namespace tzsupport {

using FileBytes = std::vector<unsigned char>;

// Every byte of the file at `path`; empty when it cannot be opened.
FileBytes ReadFileBytes(const std::string& path);
// The same as text (the bytes unchanged).
std::string ReadFileText(const std::string& path);

// Makes the file at `path` hold exactly `size` bytes from `data`, replacing
// what it held. True when every byte was written and the file closed.
// REQUIRES: `data` points at `size` readable bytes (or size is 0).
bool WriteFileBytes(const std::string& path, const void* data, std::size_t size);
inline bool WriteFileBytes(const std::string& path, const FileBytes& bytes) {
  return WriteFileBytes(path, bytes.data(), bytes.size());
}

}  // namespace tzsupport

#endif  // TESSELZOSTREAM_TESTSUPPORT_FILEBYTES_H_
