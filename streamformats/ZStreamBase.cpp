#include "tesselzostream/ZStreamBase.h"

#include <cstring>

#include "utility/ByteIO.h"

namespace {

const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

// The buffer in which Check reads stored magics, reused from call to call
// and freed when the process ends. Constant-initialised, so it is ready
// before any static initialiser of the application reads a head.
struct MagicBuffer {
  char* text = nullptr;
  std::uint32_t capacity = 0;
  ~MagicBuffer() { delete[] text; }
};
MagicBuffer magicBuffer;

}  // namespace

bool ZStreamableData::Write(std::ostream& stream) const {
  if (!WriteBinaryString(TextOrEmpty(magicString), stream)) return false;
  const std::uint16_t version = static_cast<std::uint16_t>(myVersion);
  WriteTwoBytes(&version, 1, stream);
  return stream.rdstate() == std::ios::goodbit;
}

bool ZStreamableData::Check(std::istream& stream) {
  if (!ReadBinaryString(magicBuffer.text, magicBuffer.capacity, stream)) return false;
  if (std::strcmp(magicBuffer.text, TextOrEmpty(magicString)) != 0) return false;
  std::uint16_t version;
  if (!ReadTwoBytes(&version, 1, stream)) return false;
  readVersion = static_cast<std::int16_t>(version);
  return true;
}

ZStreamBase::DerivedStreamableData ZStreamBase::MyStreamableData;

ZStreamBase& ZStreamBase::operator=(const ZStreamBase& other) {
  started = other.started;
  return *this;
}

ZStreamBase::~ZStreamBase() = default;

std::int16_t ZStreamBase::GetZStreamVersionNumber() const {
  return MyStreamableData.GetZStreamVersionNumber();
}

std::int16_t ZStreamBase::GetMyZStreamVersionNumber() const {
  return MyStreamableData.GetMyZStreamVersionNumber();
}

bool ZStreamBase::ZStreamableStartWrite(std::ostream& stream) {
  if (started) return true;
  started = true;
  return MyStreamableData.Write(stream);
}

bool ZStreamBase::ZStreamableStartRead(std::istream& stream) {
  if (started) return true;
  started = true;
  return MyStreamableData.Check(stream);
}

void ZStreamBase::ZStreamableReset() { started = false; }

bool ZStreamBase::ZStreamableWrite(std::ostream&) { return true; }

bool ZStreamBase::ZStreamableRead(std::istream&) { return true; }

std::ostream& operator<<(std::ostream& stream, const ZStreamBase& constObject) {
  // `started` is mutable; the start operations change nothing else of the base.
  ZStreamBase& object = const_cast<ZStreamBase&>(constObject);
  object.ZStreamableReset();
  const bool written = object.ZStreamableStartWrite(stream);
  object.ZStreamableReset();
  if (!written) stream.setstate(std::ios::badbit);
  return stream;
}

std::istream& operator>>(std::istream& stream, ZStreamBase& object) {
  object.ZStreamableReset();
  if (!object.ZStreamableStartRead(stream)) stream.setstate(std::ios::badbit);
  object.ZStreamableReset();
  return stream;
}
