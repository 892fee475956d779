#include "utility/ByteIO.h"

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "utility/Endian.h"

std::uint64_t BytesLeft(std::istream& in) {
  const std::istream::pos_type here = in.tellg();
  if (here == std::istream::pos_type(-1)) {
    in.clear(in.rdstate() & ~std::ios::failbit);
    return std::numeric_limits<std::uint64_t>::max();
  }
  in.seekg(0, std::ios::end);
  const std::istream::pos_type end = in.tellg();
  in.seekg(here);
  if (end == std::istream::pos_type(-1) || end < here) {
    in.clear(in.rdstate() & ~std::ios::failbit);
    in.seekg(here);
    return std::numeric_limits<std::uint64_t>::max();
  }
  return static_cast<std::uint64_t>(end - here);
}

bool ReadBytes(void* buffer, std::size_t count, std::istream& in) {
  if (count == 0) return static_cast<bool>(in);
  in.read(static_cast<char*>(buffer), static_cast<std::streamsize>(count));
  return static_cast<std::size_t>(in.gcount()) == count && !in.fail();
}

bool WriteBytes(const void* buffer, std::size_t count, std::ostream& out) {
  if (count == 0) return static_cast<bool>(out);
  out.write(static_cast<const char*>(buffer),
            static_cast<std::streamsize>(count));
  return !out.fail();
}

bool ReadTwoBytes(std::uint16_t* items, std::size_t count, std::istream& in) {
  unsigned char raw[2];
  for (std::size_t i = 0; i < count; ++i) {
    if (!ReadBytes(raw, sizeof raw, in)) return false;
    items[i] = tz::DecodeFixed16(raw);
  }
  return true;
}

bool ReadFourBytes(std::uint32_t* items, std::size_t count, std::istream& in) {
  unsigned char raw[4];
  for (std::size_t i = 0; i < count; ++i) {
    if (!ReadBytes(raw, sizeof raw, in)) return false;
    items[i] = tz::DecodeFixed32(raw);
  }
  return true;
}

bool WriteTwoBytes(const std::uint16_t* items, std::size_t count,
                   std::ostream& out) {
  unsigned char raw[2];
  for (std::size_t i = 0; i < count; ++i) {
    tz::EncodeFixed16(raw, items[i]);
    if (!WriteBytes(raw, sizeof raw, out)) return false;
  }
  return true;
}

bool WriteFourBytes(const std::uint32_t* items, std::size_t count,
                    std::ostream& out) {
  unsigned char raw[4];
  for (std::size_t i = 0; i < count; ++i) {
    tz::EncodeFixed32(raw, items[i]);
    if (!WriteBytes(raw, sizeof raw, out)) return false;
  }
  return true;
}

bool WriteBinaryString(const char* text, std::ostream& out) {
  const std::string::size_type n = std::char_traits<char>::length(text);
  if (n > std::numeric_limits<std::uint32_t>::max()) {
    out.setstate(std::ios::failbit);
    return false;
  }
  const std::uint32_t length = static_cast<std::uint32_t>(n);
  return WriteFourBytes(&length, 1, out) && WriteBytes(text, n, out);
}

namespace {

// Makes `buffer` hold at least `size` bytes; its contents are not kept.
void Reserve(char*& buffer, std::uint32_t& capacity, std::uint32_t size) {
  if (buffer != nullptr && capacity >= size) return;
  delete[] buffer;
  buffer = new char[size];
  capacity = size;
}

// For a stream that cannot tell its size: read in bounded steps, so a
// hostile length costs no more memory than the bytes that really arrive.
bool ReadInSteps(char*& buffer, std::uint32_t& capacity, std::uint32_t length,
                 std::istream& in) {
  std::vector<char> text;
  constexpr std::uint32_t kStep = 1u << 16;
  for (std::uint32_t done = 0; done < length;) {
    const std::uint32_t step = std::min(kStep, length - done);
    text.resize(done + step);
    if (!ReadBytes(text.data() + done, step, in)) return false;
    done += step;
  }
  Reserve(buffer, capacity, length + 1);
  std::copy(text.begin(), text.end(), buffer);
  buffer[length] = '\0';
  return true;
}

}  // namespace

bool ReadBinaryString(char*& buffer, std::uint32_t& capacity,
                      std::istream& in) {
  std::uint32_t length = 0;
  if (!ReadFourBytes(&length, 1, in)) return false;
  const std::uint64_t left = BytesLeft(in);
  if (length == std::numeric_limits<std::uint32_t>::max() || length > left) {
    in.setstate(std::ios::failbit);
    return false;
  }
  if (left == std::numeric_limits<std::uint64_t>::max()) {
    return ReadInSteps(buffer, capacity, length, in);
  }
  // The stream holds the whole text, so the length is bounded by its size:
  // read straight into the caller's buffer, which a caller reading many
  // short texts reuses without any allocation.
  Reserve(buffer, capacity, length + 1);
  if (!ReadBytes(buffer, length, in)) return false;
  buffer[length] = '\0';
  return true;
}
