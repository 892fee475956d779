// Byte and number helpers on standard streams.
//
// Numbers are written little-endian, two or four bytes each, whatever the
// machine. Every helper returns false when the stream did not take or give
// all the bytes; the stream's state bits then tell the cause.
//
// Thread safety: no state of their own; a stream belongs to one thread at
// a time.
#ifndef TESSELZOSTREAM_UTILITY_BYTEIO_H_
#define TESSELZOSTREAM_UTILITY_BYTEIO_H_

#include <cstddef>
#include <cstdint>
#include <istream>
#include <ostream>

bool ReadBytes(void* buffer, std::size_t count, std::istream& in);
bool WriteBytes(const void* buffer, std::size_t count, std::ostream& out);

// `count` numbers of two or four bytes each.
bool ReadTwoBytes(std::uint16_t* items, std::size_t count, std::istream& in);
bool ReadFourBytes(std::uint32_t* items, std::size_t count, std::istream& in);
bool WriteTwoBytes(const std::uint16_t* items, std::size_t count,
                   std::ostream& out);
bool WriteFourBytes(const std::uint32_t* items, std::size_t count,
                    std::ostream& out);

// How many bytes a seekable stream still holds after its get position, or
// the largest value when that cannot be told. The stream is seeked to its
// end and back (which clears eofbit); its position stays. Callers bound a
// count or position read from a stream by it before they allocate or seek.
std::uint64_t BytesLeft(std::istream& in);

// Writes the text's length (four bytes), then its characters without the
// terminating zero. REQUIRES: text is not null.
bool WriteBinaryString(const char* text, std::ostream& out);

// Reads what WriteBinaryString wrote into `buffer`, zero-terminated.
// `capacity` is the size of `buffer` in bytes (0 when there is none); when
// the text does not fit, the buffer is replaced by one from new[] (the old
// one is freed with delete[]) and `capacity` updated; a text that fits is
// read with no allocation at all. The caller frees the buffer with
// delete[]; after false its contents mean nothing. A length that the stream cannot hold (more bytes
// than remain in a seekable stream, or a read that comes up short) gives
// false with the stream's failbit set, and no huge allocation.
bool ReadBinaryString(char*& buffer, std::uint32_t& capacity,
                      std::istream& in);

#endif  // TESSELZOSTREAM_UTILITY_BYTEIO_H_
