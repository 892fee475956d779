#include "utility/MD5.h"

#include <cstdint>
#include <cstring>

MD5::MD5() : finished_(false), raw_{}, hex_{} { md5_init(&context_); }

MD5::MD5(const char* text) : MD5() {
  Update(text);
  Finalize();
}

void MD5::Update(const void* data, unsigned length) {
  if (finished_ || length == 0) return;
  md5_update(&context_, length, static_cast<const std::uint8_t*>(data));
}

void MD5::Update(const char* text) {
  if (text != nullptr) Update(text, static_cast<unsigned>(std::strlen(text)));
}

void MD5::Finalize() {
  if (finished_) return;
  finished_ = true;
  md5_digest(&context_, kDigestSize, raw_);
  static const char kHex[] = "0123456789abcdef";
  for (std::size_t i = 0; i < kDigestSize; ++i) {
    hex_[2 * i] = kHex[raw_[i] >> 4];
    hex_[2 * i + 1] = kHex[raw_[i] & 0xF];
  }
  hex_[std::size_t{2} * kDigestSize] = '\0';
}
