// Fuzz target: the formats that lie inside streams, read from arbitrary
// bytes: the numbered directory, the named directory and the two forms of
// versioned head.
//
// Input layout:
//   byte 0      the position P where the readers start (at most the
//               stream's size)
//   byte 1      flags: bit 0 reads through a stream buffer that cannot tell
//               or change its position, as a pipe
//   bytes 2..3  one more id to look up, little-endian
//   bytes 4..   the stream
//
// Each reader's answer is compared with a reading of the same bytes by the
// rules that its header states, written out again here:
// - a directory opens exactly when the checks of its Open pass (numbered:
//   magic, capacity and count, a whole table; named: magic, a table
//   position neither 0 nor beyond the end, a count whose entries the stream
//   holds), with the stream at the first data byte (numbered) or behind the
//   table (named); a refusal sets badbit; a second Open gives false;
// - each stored id or name is found at one of the positions stored for it
//   (a name also by a 12-character key that starts with it), or gives null
//   and badbit, the stream not moved, when a position stored for it lies
//   beyond the stream's end or the stream cannot seek; numbered ids stored
//   out of order may also give null with the stream untouched; a key that
//   is not stored gives null and leaves the stream where it stood;
// - Close leaves the stream at the end of the directory when that lies
//   within the stream, and otherwise gives failbit without moving it;
// - IsStreamDirectory tells the magic and leaves position and state alone;
// - a head is taken exactly when it matches, with its stored version, and
//   a refused one sets badbit (operators) or leaves the version untouched;
//   a ZStreamLight mismatch stops right behind the first byte that differs;
// - heads written with a magic from the input read back;
// - on a stream that cannot seek, the named directory refuses at Open and
//   the numbered one at the first seek.
// A seek beyond the stream's end stops the run too. The sanitizers and
// libFuzzer's limits catch crashes, hangs and large allocations besides.
//
// The seeds program is StreamFormatsSeeds.cpp; what both know of the input is in
// StreamFormatsInput.h.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/StreamFormatsInput.h"
#include "tesselzostream/OldStreamDirectory.h"
#include "tesselzostream/StreamDirectory.h"
#include "tesselzostream/ZStreamBase.h"
#include "utility/Endian.h"

using namespace tzfuzz::streamformats;

namespace {

constexpr std::uint8_t kForwardOnly = 1 << 0;
constexpr char kNamedMagic[12] = {1, 'S', 't', 'r', 'e', 'a', 'm', 2, 'D', 'i', 'r', 0};

// A fault: said on stderr, and the run ends (libFuzzer keeps the input).
void Expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

// The stream's bytes, read by the format rules without the library.
struct Bytes {
  const unsigned char* data;
  std::uint64_t size;

  bool Has(std::uint64_t at, std::uint64_t n) const { return at <= size && n <= size - at; }
  std::uint16_t U16(std::uint64_t at) const { return tz::DecodeFixed16(data + at); }
  std::uint32_t U32(std::uint64_t at) const { return tz::DecodeFixed32(data + at); }
  // The zero-terminated text in the `n` bytes at `at`.
  std::string Text(std::uint64_t at, std::uint64_t n) const {
    const char* p = reinterpret_cast<const char*>(data + at);
    return std::string(p, strnlen(p, n));
  }
};

// Positions stored for one id or name.
template <typename Key>
struct Table {
  bool sound = false;
  bool sorted = true;          // keys ascend: the search finds each one
  std::uint64_t openedAt = 0;  // where Open leaves the stream
  std::uint64_t end = 0;       // where Close leaves it
  std::vector<std::pair<Key, std::uint32_t>> entries;

  bool Holds(const Key& key) const {
    return std::any_of(entries.begin(), entries.end(), [&](const auto& e) { return e.first == key; });
  }
  bool HoldsAt(const Key& key, std::uint64_t at) const {
    return std::any_of(entries.begin(), entries.end(),
                       [&](const auto& e) { return e.first == key && e.second == at; });
  }
  bool HoldsBeyond(const Key& key, std::uint64_t size) const {
    return std::any_of(entries.begin(), entries.end(),
                       [&](const auto& e) { return e.first == key && e.second > size; });
  }
};

Table<std::uint16_t> ReadNumbered(const Bytes& b, std::uint64_t p) {
  Table<std::uint16_t> t;
  if (!b.Has(p, 6) || b.data[p] != 'x' || b.data[p + 1] != 'A') return t;
  const std::uint64_t n = b.U16(p + 2), count = b.U16(p + 4);
  if (n > OutputStreamDirectory::kMaxSlots || count > n || !b.Has(p, 10 + 6 * n)) return t;
  t.openedAt = p + 10 + 6 * n;
  t.end = b.U32(p + 6 + 6 * n);
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint16_t id = b.U16(p + 6 + 2 * i);
    if (i > 0 && id < t.entries.back().first) t.sorted = false;
    t.entries.emplace_back(id, b.U32(p + 6 + 2 * n + 4 * i));
  }
  t.sound = true;
  return t;
}

Table<std::string> ReadNamed(const Bytes& b, std::uint64_t p) {
  Table<std::string> t;
  if (!b.Has(p, 16) || std::memcmp(b.data + p, kNamedMagic, sizeof kNamedMagic) != 0) return t;
  const std::uint64_t table = b.U32(p + 12);
  if (table == 0 || !b.Has(table, 4)) return t;
  const std::uint64_t count = b.U32(table);
  if (!b.Has(table + 4, 16 * count)) return t;
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t at = table + 4 + 16 * i;
    t.entries.emplace_back(b.Text(at + 4, 11), b.U32(at));
  }
  t.openedAt = t.end = table + 4 + 16 * count;
  t.sound = true;
  return t;
}

// A read-only stream buffer that cannot tell or change its position.
class ForwardOnly : public std::streambuf {
 public:
  explicit ForwardOnly(const std::string& bytes) : bytes_(bytes) {
    setg(&bytes_[0], &bytes_[0], &bytes_[0] + bytes_.size());
  }

 private:
  std::string bytes_;
};

// A string stream buffer on which a seek beyond the end stops the run: the
// readers check stored positions before they seek, and on a file or a
// block stream such a seek would be followed.
class Bounded : public std::stringbuf {
 public:
  explicit Bounded(const std::string& bytes)
      : std::stringbuf(bytes, std::ios::in), size_(static_cast<std::streamoff>(bytes.size())) {}

 protected:
  pos_type seekpos(pos_type to, std::ios_base::openmode which) override {
    Expect(static_cast<std::streamoff>(to) <= size_, "a seek beyond the stream's end");
    return std::stringbuf::seekpos(to, which);
  }
  pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode which) override {
    Expect(dir != std::ios::beg || off <= size_, "a seek beyond the stream's end");
    return std::stringbuf::seekoff(off, dir, which);
  }

 private:
  std::streamoff size_;
};

// A fresh stream on the bytes, standing at P.
class Source {
 public:
  Source(const Bytes& b, std::uint64_t p, bool seekable) : seekable_(seekable) {
    const std::string all(reinterpret_cast<const char*>(b.data), b.size);
    if (seekable) {
      bounded_ = std::make_unique<Bounded>(all);
      stream_ = std::make_unique<std::istream>(bounded_.get());
      stream_->seekg(static_cast<std::streamoff>(p));
    } else {
      forward_ = std::make_unique<ForwardOnly>(all.substr(p));
      stream_ = std::make_unique<std::istream>(forward_.get());
    }
  }
  std::istream& stream() { return *stream_; }
  bool seekable() const { return seekable_; }
  // The position, or -1 where the stream cannot tell it.
  std::int64_t Where() { return seekable_ ? static_cast<std::int64_t>(stream_->tellg()) : -1; }
  // Reads up to 16 bytes, never past the end (which would set eofbit).
  void Taste(std::uint64_t size) {
    char bytes[16];
    const auto left = size - static_cast<std::uint64_t>(Where());
    stream_->read(bytes, static_cast<std::streamsize>(std::min<std::uint64_t>(16, left)));
  }

 private:
  bool seekable_;
  std::unique_ptr<ForwardOnly> forward_;
  std::unique_ptr<Bounded> bounded_;
  std::unique_ptr<std::istream> stream_;
};

// What both directories share once their model says how Open went.
template <typename Key, typename Directory, typename Lookup>
void CheckDirectory(Source& src, Directory& dir, const Table<Key>& model,
                    const std::vector<Key>& absent, const Bytes& b, Lookup lookup) {
  std::istream& s = src.stream();
  if (!model.sound) {
    Expect(s.bad(), "a refused directory leaves no badbit");
    for (const auto& e : model.entries) Expect(lookup(dir, e.first) == nullptr, "a refused directory finds");
    for (const Key& key : absent) Expect(lookup(dir, key) == nullptr, "a refused directory finds");
    return;
  }
  Expect(s.good() && (!src.seekable() || src.Where() == static_cast<std::int64_t>(model.openedAt)),
         "Open leaves the stream elsewhere");
  Expect(!dir.Open(s) && s.good(), "a second Open is taken or changes the stream");
  for (const auto& e : model.entries) {
    const std::int64_t before = src.Where();
    std::istream* found = lookup(dir, e.first);
    if (found != nullptr) {
      const std::int64_t at = src.Where();
      Expect(found == &s && s.good() && at >= 0 && static_cast<std::uint64_t>(at) <= b.size &&
                 model.HoldsAt(e.first, static_cast<std::uint64_t>(at)),
             "a key is found elsewhere");
      src.Taste(b.size);
    } else if (s.bad()) {
      Expect(!src.seekable() || model.HoldsBeyond(e.first, b.size), "a key within the stream is refused");
      s.clear();
      Expect(src.Where() == before, "a refused seek moves the stream");
    } else {
      Expect(!model.sorted, "a stored key is not found");
      Expect(s.good() && src.Where() == before, "a key not found moves the stream");
    }
  }
  for (const Key& key : absent) {
    if (model.Holds(key)) continue;
    const std::int64_t before = src.Where();
    Expect(lookup(dir, key) == nullptr, "a key not stored is found");
    Expect(s.good() && src.Where() == before, "a missing key moves the stream");
  }
  const std::int64_t before = src.Where();
  dir.Close();
  if (src.seekable() && model.end <= b.size) {
    Expect(s.good() && src.Where() == static_cast<std::int64_t>(model.end), "Close leaves the stream elsewhere");
  } else {
    Expect(s.fail(), "Close beyond the stream's end leaves no failbit");
    s.clear();
    Expect(src.Where() == before, "Close beyond the stream's end moves it");
  }
}

void CheckNumbered(const Bytes& b, std::uint64_t p, bool seekable, std::uint16_t extraId) {
  const Table<std::uint16_t> model = ReadNumbered(b, p);
  Source src(b, p, seekable);
  InputStreamDirectory dir(src.stream());
  Expect(src.stream().good() == model.sound, "numbered: Open disagrees with the table");
  std::vector<std::uint16_t> absent = {extraId, 0, 0xFFFF};
  for (const auto& e : model.entries) absent.push_back(static_cast<std::uint16_t>(e.first + 1));
  CheckDirectory(src, dir, model, absent, b,
                 [](InputStreamDirectory& d, std::uint16_t id) { return d.GetInput(id); });
}

void CheckNamed(const Bytes& b, std::uint64_t p, bool seekable) {
  Table<std::string> model = seekable ? ReadNamed(b, p) : Table<std::string>();
  Source src(b, p, seekable);
  std::istream& s = src.stream();
  const bool magic = seekable && b.Has(p, 12) && std::memcmp(b.data + p, kNamedMagic, 12) == 0;
  const std::int64_t before = src.Where();
  Expect(OldInputStreamDirectory::IsStreamDirectory(s) == magic, "IsStreamDirectory is wrong");
  Expect(s.good() && src.Where() == before, "IsStreamDirectory changes the stream");

  OldInputStreamDirectory dir(s);
  Expect(s.good() == model.sound, "named: Open disagrees with the table");
  // Keys that are not stored as such: each name with a byte changed, and
  // the empty name. A key of 12 characters must find the name of its first
  // 11, so those go in as stored keys.
  std::vector<std::string> absent = {""};
  for (const auto& e : model.entries) {
    std::string other = e.first;
    if (other.empty()) continue;
    other.back() = static_cast<char>(other.back() == 'z' ? 'y' : 'z');
    absent.push_back(other);
  }
  CheckDirectory(src, dir, model, absent, b, [](OldInputStreamDirectory& d, const std::string& name) {
    return d.GetInput(name.size() == 11 ? (name + "+").c_str() : name.c_str());
  });
}

// The head of ZStreamBase and ZStreamableData: a four-byte length, the
// magic, two bytes of version.
void CheckBaseHead(const Bytes& b, std::uint64_t p, bool seekable) {
  const bool whole = b.Has(p, 4) && b.Has(p + 4, b.U32(p)) && b.Has(p + 4 + b.U32(p), 2);
  const std::string stored = whole ? b.Text(p + 4, b.U32(p)) : std::string();
  const std::uint64_t after = whole ? p + 6 + b.U32(p) : 0;
  const auto version = static_cast<std::int16_t>(whole ? b.U16(after - 2) : 0);
  {
    Source src(b, p, seekable);
    ZStreamBase head;
    const std::int16_t earlier = head.GetZStreamVersionNumber();
    const bool match = whole && stored == "ZSB";
    src.stream() >> head;
    Expect(src.stream().good() == match && src.stream().bad() != match, ">> of ZStreamBase is wrong");
    Expect(head.GetZStreamVersionNumber() == (match ? version : earlier), "ZStreamBase version is wrong");
    if (match && seekable) Expect(src.Where() == static_cast<std::int64_t>(after), ">> stops elsewhere");
  }
  // The stored magic itself, and one that differs from it.
  for (const std::string& magic : {stored, stored + "?"}) {
    Source src(b, p, seekable);
    ZStreamableData data(1, magic.c_str());
    const bool match = whole && magic == stored;
    Expect(data.Check(src.stream()) == match, "ZStreamableData::Check is wrong");
    Expect(data.GetZStreamVersionNumber() == (match ? version : 0), "ZStreamableData version is wrong");
  }
}

// The head of ZStreamLight: a two-byte length, the magic, two bytes of
// version.
void CheckLightHead(const Bytes& b, std::uint64_t p, bool seekable) {
  const std::uint64_t length = b.Has(p, 2) ? b.U16(p) : 0;
  const std::string stored = b.Has(p, 2) ? b.Text(p + 2, std::min(length, b.size - p - 2)) : std::string();
  for (const std::string& magic : {std::string("abc"), std::string(), stored, stored + "?"}) {
    Source src(b, p, seekable);
    // The model walks as the function does: byte by byte while both last;
    // the first byte that differs is read, nothing behind it.
    bool sound = b.Has(p, 2), differs = false;
    std::uint64_t at = p + 2, i = 0;
    while (sound && !differs && i < length && i < magic.size()) {
      sound = b.Has(at, 1);
      differs = sound && b.data[at++] != static_cast<unsigned char>(magic[i++]);
    }
    const bool sameLength = i == length && i == magic.size();
    const bool match = sound && !differs && sameLength && b.Has(at, 2);
    const bool mismatch = sound && (differs || !sameLength);
    std::uint16_t version = 0x5A5A;
    const bool result = ZStreamLight::CheckMagicStringAndVersionNumber(src.stream(), version, magic.c_str());
    Expect(result == match, "ZStreamLight check is wrong");
    Expect(version == (match ? b.U16(at) : 0x5A5A), "ZStreamLight version is wrong");
    if (seekable && (match || mismatch)) {
      Expect(src.Where() == static_cast<std::int64_t>(match ? at + 2 : at), "ZStreamLight stops elsewhere");
    }
  }
}

// Heads written with a magic from the input read back.
void CheckHeadsRoundTrip(const Bytes& b, std::uint64_t p) {
  const std::string magic = b.Text(p, std::min<std::uint64_t>(b.size - p, 300));
  const std::uint16_t version = b.Has(p, 2) ? b.U16(p) : 7;
  std::stringstream s;
  Expect(ZStreamLight::WriteMagicStringAndVersionNumber(s, version, magic.c_str()), "light write fails");
  Expect(ZStreamableData(static_cast<std::int16_t>(version), magic.c_str()).Write(s), "head write fails");
  std::uint16_t light = 0;
  ZStreamableData data(0, magic.c_str());
  Expect(ZStreamLight::CheckMagicStringAndVersionNumber(s, light, magic.c_str()) && light == version,
         "light head does not read back");
  Expect(data.Check(s) && data.GetZStreamVersionNumber() == static_cast<std::int16_t>(version),
         "head does not read back");
  Expect(s.peek() == std::char_traits<char>::eof(), "heads leave bytes unread");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kHeaderSize) return 0;
  const Bytes b{data + kHeaderSize, size - kHeaderSize};
  const std::uint64_t p = std::min<std::uint64_t>(data[0], b.size);
  const bool seekable = (data[1] & kForwardOnly) == 0;
  const std::uint16_t extraId = tz::DecodeFixed16(data + 2);
  CheckNumbered(b, p, seekable, extraId);
  CheckNamed(b, p, seekable);
  CheckBaseHead(b, p, seekable);
  CheckLightHead(b, p, seekable);
  CheckHeadsRoundTrip(b, p);
  return 0;
}
