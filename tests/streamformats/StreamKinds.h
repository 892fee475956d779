// Helpers of the stream format tests: seekable streams of the three kinds
// that the formats must lay out alike, and byte-string shorthands.
#ifndef TESSELZOSTREAM_TESTS_STREAMFORMATS_STREAMKINDS_H_
#define TESSELZOSTREAM_TESTS_STREAMFORMATS_STREAMKINDS_H_

#include <initializer_list>
#include <memory>
#include <sstream>
#include <string>

#include <tesselzostream/tesselzostream.h>

#include "tests/TestUtil.h"

namespace tztest {

enum class StreamKind { String, File, Block };
constexpr StreamKind kAllKinds[] = {StreamKind::String, StreamKind::File, StreamKind::Block};
const char* KindName(StreamKind kind);

// One empty read-write stream of the given kind (a block stream is a "wb"
// stream of a compound file), alive as long as this object.
class AnyStream {
 public:
  explicit AnyStream(StreamKind kind);
  ~AnyStream();
  std::iostream& stream() { return *stream_; }

 private:
  ScratchDir dir_;
  CompoundFile file_;
  std::unique_ptr<std::iostream> stream_;
};

// Every byte of the stream, read through it; its state is cleared and its
// position left at the start.
std::string Contents(std::iostream& stream);

inline std::unique_ptr<std::stringstream> StringStream(const std::string& bytes) {
  return std::make_unique<std::stringstream>(bytes, std::ios::in | std::ios::out | std::ios::binary);
}
inline std::string Bytes(std::initializer_list<int> bytes) {
  return std::string(bytes.begin(), bytes.end());
}
// `bytes` with `put` written over them from offset `at`.
inline std::string Patched(std::string bytes, std::size_t at, std::initializer_list<int> put) {
  return bytes.replace(at, put.size(), Bytes(put));
}
// Up to `n` bytes read from the stream.
inline std::string ReadN(std::istream& in, std::size_t n) {
  std::string s(n, '\0');
  s.resize(static_cast<std::size_t>(in.read(&s[0], static_cast<std::streamsize>(n)).gcount()));
  return s;
}

}  // namespace tztest

#endif  // TESSELZOSTREAM_TESTS_STREAMFORMATS_STREAMKINDS_H_
