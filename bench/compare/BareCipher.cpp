#include "bench/compare/BareCipher.h"

#include <nettle/blowfish.h>

#include <algorithm>
#include <cstring>

namespace tzcompare {

std::uint64_t BareCipher(const Pattern& p, const Contents& c, bool encrypt) {
  blowfish_ctx key;
  blowfish_set_key(&key, std::strlen(kPassword), reinterpret_cast<const std::uint8_t*>(kPassword));
  constexpr std::size_t kPiece = 1000;
  std::uint8_t piece[kPiece];
  std::size_t filled = 0;
  std::uint64_t fold = 0;
  auto cipher = [&](std::size_t n) {
    const std::size_t whole = n - n % BLOWFISH_BLOCK_SIZE;
    if (encrypt) {
      blowfish_encrypt(&key, whole, piece, piece);
    } else {
      blowfish_decrypt(&key, whole, piece, piece);
    }
    std::uint64_t word;
    std::memcpy(&word, piece, 8);
    fold += word;
  };
  for (std::size_t i = 0; i < c.streams; ++i) {
    if (!c.Has(i)) continue;
    ForEachChunk(c.size, [&](std::size_t k, std::size_t n) {
      const char* src = p.Chunk(i, k, c.version[i]);
      while (n > 0) {
        const std::size_t take = std::min(n, kPiece - filled);
        std::memcpy(piece + filled, src, take);
        filled += take;
        src += take;
        n -= take;
        if (filled == kPiece) {
          cipher(kPiece);
          filled = 0;
        }
      }
    });
    if (filled > 0) cipher(filled);
    filled = 0;
  }
  return fold;
}

}  // namespace tzcompare
