#include "utility/BlowFish.h"

#include <cstdint>

namespace BlowFish {

Context::Context(const void* key, unsigned keyLength) {
  static const std::uint8_t kZero = 0;
  // The return value only flags keys with a weak S-box; such a key still
  // gives a working context, and a password is the user's choice.
  if (keyLength == 0) {
    blowfish_set_key(&context_, 1, &kZero);
  } else {
    blowfish_set_key(&context_, keyLength,
                     static_cast<const std::uint8_t*>(key));
  }
}

void Context::Encrypt(void* data, unsigned length) const {
  const unsigned whole = length - length % BLOWFISH_BLOCK_SIZE;
  auto* bytes = static_cast<std::uint8_t*>(data);
  if (whole != 0) blowfish_encrypt(&context_, whole, bytes, bytes);
}

void Context::Decrypt(void* data, unsigned length) const {
  const unsigned whole = length - length % BLOWFISH_BLOCK_SIZE;
  auto* bytes = static_cast<std::uint8_t*>(data);
  if (whole != 0) blowfish_decrypt(&context_, whole, bytes, bytes);
}

}  // namespace BlowFish
