#include "streamformats/FormatIO.h"

#include <algorithm>
#include <limits>

#include "utility/ByteIO.h"

namespace tz {

bool GetPosition(std::istream& in, std::uint64_t* position) {
  if (!in.good()) return false;
  const std::istream::pos_type here = in.tellg();
  if (here == std::istream::pos_type(-1)) return false;
  *position = static_cast<std::uint64_t>(static_cast<std::streamoff>(here));
  return true;
}

std::uint32_t PutPosition32(std::ostream& out) {
  std::ostream::pos_type here(-1);
  try {
    here = out.tellp();
  } catch (const std::ios_base::failure&) {
    out.setstate(std::ios::badbit);
  }
  return static_cast<std::uint32_t>(static_cast<std::streamoff>(here));
}

void SeekPut(std::ostream& out, std::uint32_t position) {
  try {
    out.seekp(position);
  } catch (const std::ios_base::failure&) {
    out.setstate(std::ios::badbit);
  }
}

bool StreamEnd(std::istream& in, std::uint64_t here, std::uint64_t* end) {
  const std::uint64_t left = BytesLeft(in);
  if (left == std::numeric_limits<std::uint64_t>::max()) return false;
  *end = here + left;
  return true;
}

std::uint64_t EndOf(std::istream& in) {
  std::uint64_t here;
  std::uint64_t end;
  if (!GetPosition(in, &here) || !StreamEnd(in, here, &end)) return kUnknownEnd;
  return end;
}

bool SeekWithin(std::istream& in, std::uint64_t target, std::uint64_t end) {
  in.clear(in.rdstate() & ~std::ios::eofbit);
  if (in.fail()) return false;
  if (target > end) {
    in.setstate(std::ios::failbit);
    return false;
  }
  in.seekg(static_cast<std::streamoff>(target));
  return !in.fail();
}

bool ReadMagic(std::istream& in, const char* magic, std::size_t size) {
  char stored[16];
  if (in.rdstate() != std::ios::goodbit || size > sizeof stored) return false;
  return ReadBytes(stored, size, in) && std::equal(stored, stored + size, magic);
}

bool RefuseStream(std::ios& stream) {
  stream.setstate(std::ios::badbit);
  return false;
}

}  // namespace tz
