// BlowFish::Context: the published Blowfish cipher, over the Nettle
// implementation, applied to each 8-byte block on its own (ECB).
//
// Each call depends only on the key and the bytes given, so any block of a
// file can be deciphered alone and in any order. Data is changed in place;
// only whole 8-byte blocks are touched, a tail shorter than 8 bytes is left
// as it is (callers pass multiples of 8).
//
// Keys: the key bytes as given. Blowfish's key schedule uses at most 72
// bytes, so bytes beyond that have no effect. An empty key is taken as one
// zero byte, which the key schedule treats exactly as "no key bytes mixed
// in": an empty password is a valid, if weak, password.
//
// Thread safety: a Context is read-only after its construction, so
// several threads may cipher with one Context at once.
#ifndef TESSELZOSTREAM_UTILITY_BLOWFISH_H_
#define TESSELZOSTREAM_UTILITY_BLOWFISH_H_

#include <nettle/blowfish.h>

namespace BlowFish {

class Context {
 public:
  Context(const void* key, unsigned keyLength);
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  void Encrypt(void* data, unsigned length) const;
  void Decrypt(void* data, unsigned length) const;

 private:
  blowfish_ctx context_;
};

}  // namespace BlowFish

#endif  // TESSELZOSTREAM_UTILITY_BLOWFISH_H_
