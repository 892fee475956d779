#include "blockstore/PayloadCipher.h"

#include <cstring>

namespace blockformat {

namespace {
constexpr std::int32_t kCipherBlock = 8;
constexpr std::int32_t kMaxCipher = 1000;  // the payload has no room for 1008
}  // namespace

std::int32_t CipherLength(std::int32_t usedLength) {
  if (usedLength <= 0) return 0;
  if (usedLength > kMaxCipher) return kMaxCipher;
  return (usedLength + kCipherBlock - 1) / kCipherBlock * kCipherBlock;
}

std::unique_ptr<BlowFish::Context> MakeCipher(const char* password) {
  return std::unique_ptr<BlowFish::Context>(
      new BlowFish::Context(password, static_cast<unsigned>(std::strlen(password))));
}

}  // namespace blockformat
