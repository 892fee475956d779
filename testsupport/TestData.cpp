#include "testsupport/TestData.h"

#include <random>

namespace tzsupport {

std::string RandomBytes(std::size_t length, std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(length, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

std::string RecordBytes(std::uint32_t index, std::uint32_t version, std::uint32_t length) {
  std::string bytes(length, '\0');
  std::uint64_t state = (std::uint64_t{index} << 32) ^ version ^ 0x9E3779B97F4A7C15ull;
  for (std::uint32_t i = 0; i < length; i += 8) {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    for (std::uint32_t k = 0; k < 8 && i + k < length; ++k) bytes[i + k] = static_cast<char>(z >> (8 * k));
  }
  return bytes;
}

std::string LcgBytes(std::size_t length, std::uint32_t seed) {
  std::string text(length, '\0');
  std::uint32_t x = seed * 2654435761u + 1;
  for (char& c : text) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 24);
  }
  return text;
}

std::string StepBytes(std::size_t length, char first) {
  std::string text(length, '\0');
  for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>(first + i * 7);
  return text;
}

NoiseBuffer::NoiseBuffer(std::size_t size) : bytes_(size) {
  std::uint64_t x = 0x9e3779b97f4a7c15ull;
  for (char& b : bytes_) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    b = static_cast<char>(x >> 24);
  }
}

}  // namespace tzsupport
