// Stream helpers shared by the stream formats: positions as the formats
// store and check them, magic tests, and the way a format refuses a stream.
//
// The formats keep stream positions in 32 bits and refuse a stream by
// setting badbit; these helpers are the one place that does either, so the
// directories read the same way on files, string streams and block streams.
//
// Thread safety: no state of their own; a stream belongs to one thread at
// a time.
#ifndef TESSELZOSTREAM_STREAMFORMATS_FORMATIO_H_
#define TESSELZOSTREAM_STREAMFORMATS_FORMATIO_H_

#include <cstddef>
#include <cstdint>
#include <istream>
#include <ostream>

namespace tz {

// The get position; false for a stream with a state bit set (tellg would
// add failbit to a stream at its end) or one that cannot tell it. The
// stream's state is not changed.
bool GetPosition(std::istream& in, std::uint64_t* position);

// The put position in its low 32 bits, as the formats store it; all ones
// when the stream cannot tell it. The standard output stream passes on what
// its buffer throws from a seek (a block stream of a failed compound file
// does); that becomes badbit here, so writers report by the stream's state
// alone and may close from destructors.
std::uint32_t PutPosition32(std::ostream& out);

// seekp to `position`, with a throw of the stream's buffer turned into
// badbit as above.
void SeekPut(std::ostream& out, std::uint32_t position);

// The position one behind the last byte of the stream, from the get
// position `here` (which must be the current one); false when the stream
// cannot tell its size.
bool StreamEnd(std::istream& in, std::uint64_t here, std::uint64_t* end);

// The position one behind the stream's last byte, measured from its
// current position (which stays), or kUnknownEnd when the stream cannot
// tell its position or size.
constexpr std::uint64_t kUnknownEnd = ~std::uint64_t{0};
std::uint64_t EndOf(std::istream& in);

// seekg to `target` when the stream holds it, that is when `target` is not
// beyond `end` (the stream's EndOf, measured once by the caller), so bad
// input never makes a stream seek outside itself (on a block stream such a
// seek would grow the file). Like seekg, it first clears eofbit and then
// does nothing when failbit or badbit is set. A target beyond `end` gets
// failbit as a failed seek would, and the stream does not move; with
// kUnknownEnd the seek itself decides (a stream that cannot tell its size
// cannot seek either). True when the stream then stands at `target` with
// failbit and badbit clear.
bool SeekWithin(std::istream& in, std::uint64_t target, std::uint64_t end);

// True when the stream has no state bit set and its next `size` bytes are
// those of `magic`; the bytes are consumed either way. REQUIRES: size <= 16
// (a longer magic never matches).
bool ReadMagic(std::istream& in, const char* magic, std::size_t size);

// Sets badbit and gives false: how a stream format refuses a stream.
bool RefuseStream(std::ios& stream);

}  // namespace tz

#endif  // TESSELZOSTREAM_STREAMFORMATS_FORMATIO_H_
