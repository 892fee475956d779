#include "tests/streamformats/StreamKinds.h"

#include <fstream>
#include <sstream>

namespace tztest {

const char* KindName(StreamKind kind) {
  switch (kind) {
    case StreamKind::String: return "string";
    case StreamKind::File: return "file";
    case StreamKind::Block: return "block";
  }
  return "?";
}

AnyStream::AnyStream(StreamKind kind) {
  const std::ios::openmode mode = std::ios::in | std::ios::out | std::ios::binary;
  switch (kind) {
    case StreamKind::String:
      stream_ = StringStream();
      break;
    case StreamKind::File:
      stream_.reset(new std::fstream(dir_.Path("plain.bin"), mode | std::ios::trunc));
      break;
    case StreamKind::Block:
      if (file_.Open(dir_.Path("c.cf").c_str(), ZoStreamE::OpenReadWrite) == ZoStreamE::StatusOk) {
        stream_.reset(file_.GetIOStream("items", "wb"));
      }
      break;
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
  stream.seekg(0, std::ios::end);
  const std::streamoff size = stream.tellg();
  stream.seekg(0);
  std::string bytes(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
  stream.read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
  stream.clear();
  stream.seekg(0);
  return bytes;
}

std::unique_ptr<std::stringstream> StringStream(const std::string& bytes) {
  return std::unique_ptr<std::stringstream>(
      new std::stringstream(bytes, std::ios::in | std::ios::out | std::ios::binary));
}

}  // namespace tztest
