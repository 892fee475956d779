// MD5: the published message digest, over the Nettle implementation.
//
// Use: construct, Update as often as needed, Finalize, then read the digest.
// The constructor that takes a text digests it and finalizes at once.
// Update after Finalize is ignored. Not thread-safe; one object per digest.
#ifndef TESSELZOSTREAM_UTILITY_MD5_H_
#define TESSELZOSTREAM_UTILITY_MD5_H_

#include <nettle/md5.h>

class MD5 {
 public:
  static constexpr unsigned kDigestSize = 16;

  MD5();
  explicit MD5(const char* text);  // finished on return

  void Update(const void* data, unsigned length);
  // Feeds the characters of a zero-terminated text, without the zero.
  void Update(const char* text);
  void Finalize();

  // 16 raw bytes; meaningful after Finalize.
  const unsigned char* GetRawDigest() const { return raw_; }
  // 32 lower-case hexadecimal digits and a zero; meaningful after Finalize.
  const char* GetDigest() const { return hex_; }

 private:
  md5_ctx context_;
  bool finished_;
  unsigned char raw_[kDigestSize];
  char hex_[2 * kDigestSize + 1];
};

#endif  // TESSELZOSTREAM_UTILITY_MD5_H_
