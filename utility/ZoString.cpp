#include "utility/ZoString.h"

#include <cstring>

namespace ZoString {
namespace {

inline unsigned char Fold(unsigned char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + ('a' - 'A'))
                                : c;
}

}  // namespace

char* zostrdup(const char* text) {
  if (text == nullptr) return nullptr;
  const std::size_t n = std::strlen(text);
  char* copy = new char[n + 1];
  std::memcpy(copy, text, n + 1);
  return copy;
}

void SetStr(char*& owned, const char* text) {
  char* copy = zostrdup(text);
  delete[] owned;
  owned = copy;
}

int StrICmp(const char* a, const char* b) {
  const auto* x = reinterpret_cast<const unsigned char*>(a);
  const auto* y = reinterpret_cast<const unsigned char*>(b);
  for (;; ++x, ++y) {
    const int d = Fold(*x) - Fold(*y);
    if (d != 0 || *x == 0) return d;
  }
}

std::string FoldAscii(const char* text, std::size_t length) {
  std::string out(text, length);
  for (char& c : out) c = static_cast<char>(Fold(static_cast<unsigned char>(c)));
  return out;
}

}  // namespace ZoString
