// Seekable streams of the three kinds the stream formats must lay out alike:
// a string stream, a plain file and a block stream of a compound file.
#ifndef TESSELZOSTREAM_TESTS_STREAMFORMATS_STREAMKINDS_H_
#define TESSELZOSTREAM_TESTS_STREAMFORMATS_STREAMKINDS_H_

#include <iosfwd>
#include <memory>
#include <string>

#include <tesselzostream/tesselzostream.h>

#include "tests/TestUtil.h"

namespace tztest {

enum class StreamKind { String, File, Block };
const char* KindName(StreamKind kind);

// One empty read-write stream of the given kind, alive as long as this.
class AnyStream {
 public:
  explicit AnyStream(StreamKind kind);
  ~AnyStream();
  std::iostream& stream() { return *stream_; }
  // The block stream's compound file; closed for the other kinds.
  CompoundFile& file() { return file_; }

 private:
  ScratchDir dir_;
  CompoundFile file_;
  std::unique_ptr<std::iostream> stream_;
};

// Every byte of the stream, read through it; its state is cleared and its
// position left at the start.
std::string Contents(std::iostream& stream);

// A string stream opened for reading and writing binary data.
std::unique_ptr<std::stringstream> StringStream(const std::string& bytes = std::string());

}  // namespace tztest

#endif  // TESSELZOSTREAM_TESTS_STREAMFORMATS_STREAMKINDS_H_
