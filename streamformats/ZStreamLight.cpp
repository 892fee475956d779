#include "tesselzostream/ZStreamBase.h"

#include <cstring>

#include "utility/ByteIO.h"

bool ZStreamLight::WriteMagicStringAndVersionNumber(std::ostream& stream, std::uint16_t version,
                                                    const char* magic) {
  if (magic == nullptr) magic = "";
  const std::uint16_t length = static_cast<std::uint16_t>(std::strlen(magic));
  WriteTwoBytes(&length, 1, stream);
  WriteBytes(magic, length, stream);
  WriteTwoBytes(&version, 1, stream);
  return stream.rdstate() == std::ios::goodbit;
}

bool ZStreamLight::CheckMagicStringAndVersionNumber(std::istream& stream, std::uint16_t& version,
                                                    const char* magic) {
  if (magic == nullptr) magic = "";
  std::uint16_t length;
  if (!ReadTwoBytes(&length, 1, stream) || stream.rdstate() != std::ios::goodbit) return false;
  std::uint16_t i = 0;
  for (; i < length && magic[i] != '\0'; ++i) {
    char stored;
    if (!ReadBytes(&stored, 1, stream) || stored != magic[i]) return false;
  }
  if (stream.rdstate() != std::ios::goodbit || magic[i] != '\0' || i != length) return false;
  std::uint16_t stored;
  if (!ReadTwoBytes(&stored, 1, stream)) return false;
  version = stored;
  return stream.rdstate() == std::ios::goodbit;
}
