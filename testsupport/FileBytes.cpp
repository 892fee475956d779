#include "testsupport/FileBytes.h"

#include <cstdio>
#include <fstream>
#include <iterator>

namespace tzsupport {

FileBytes ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return FileBytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string ReadFileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool WriteFileBytes(const std::string& path, const void* data, std::size_t size) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool written = size == 0 || std::fwrite(data, 1, size, f) == size;
  return std::fclose(f) == 0 && written;
}

}  // namespace tzsupport
