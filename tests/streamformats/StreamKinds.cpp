#include "tests/streamformats/StreamKinds.h"

#include <fstream>

namespace tztest {

const char* KindName(StreamKind kind) {
  return kind == StreamKind::String ? "string" : kind == StreamKind::File ? "file" : "block";
}

AnyStream::AnyStream(StreamKind kind) {
  if (kind == StreamKind::String) {
    stream_ = StringStream("");
  } else if (kind == StreamKind::File) {
    stream_.reset(new std::fstream(dir_.Path("plain.bin"), std::ios::in | std::ios::out |
                                                               std::ios::binary | std::ios::trunc));
  } else if (file_.Open(dir_.Path("c.cf").c_str(), ZoStreamE::OpenReadWrite) == ZoStreamE::StatusOk) {
    stream_.reset(file_.GetIOStream("items", "wb"));
  }
  if (!stream_) stream_.reset(new std::stringstream(std::ios::in));  // fails every test
}

AnyStream::~AnyStream() {
  stream_.reset();
  file_.Close();
}

std::string Contents(std::iostream& stream) {
  stream.clear();
  stream.flush();
  const std::streamoff size = stream.seekg(0, std::ios::end).tellg();
  const std::string bytes = ReadN(stream.seekg(0), static_cast<std::size_t>(size));
  stream.clear();
  stream.seekg(0);
  return bytes;
}

}  // namespace tztest
