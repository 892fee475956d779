#include "tesselzostream/StreamDirectory.h"

#include <algorithm>
#include <utility>

#include "streamformats/FormatIO.h"
#include "utility/ByteIO.h"

namespace {

constexpr char kMagic[2] = {'x', 'A'};
constexpr std::uint64_t kMagicSize = sizeof kMagic;

// Bytes from P to the first data byte for a capacity of n slots: magic,
// capacity, count, n ids, n offsets, end position.
std::uint64_t HeadSize(std::uint16_t n) { return kMagicSize + 2 + 2 + 6u * n + 4; }

}  // namespace

OutputStreamDirectory::OutputStreamDirectory(std::ostream& out, std::uint16_t slots)
    : directoryPosition(0), stream(&out), closed(false), count(0), capacity(slots),
      offsets(), ids() {
  if (capacity > kMaxSlots) {
    closed = true;
    tz::RefuseStream(out);
    return;
  }
  WriteBytes(kMagic, sizeof kMagic, out);
  directoryPosition = tz::PutPosition32(out);
  // Until Close the count field holds the capacity and the end position
  // points at the capacity field: a reader sees a directory never closed.
  const std::uint16_t sizes[2] = {capacity, capacity};
  WriteTwoBytes(sizes, 2, out);
  WriteTwoBytes(ids, capacity, out);
  WriteFourBytes(offsets, capacity, out);
  WriteFourBytes(&directoryPosition, 1, out);
}

OutputStreamDirectory::~OutputStreamDirectory() {
  try {
    Close();
  } catch (const std::ios_base::failure&) {
    // Only from a stream whose caller enabled exceptions; its state keeps
    // the failure.
  }
}

std::ostream& OutputStreamDirectory::GetOutput(std::uint16_t id) {
  if (closed) {
    tz::RefuseStream(*stream);
    return *stream;
  }
  const std::uint32_t here = tz::PutPosition32(*stream);
  std::uint16_t slot;
  if (count != 0 && offsets[count - 1] == here) {
    slot = count - 1;  // nothing written since: the new id takes it over
  } else if (count < capacity) {
    slot = count++;
  } else {
    tz::RefuseStream(*stream);
    return *stream;
  }
  ids[slot] = id;
  offsets[slot] = here;
  return *stream;
}

void OutputStreamDirectory::Close() {
  if (closed) return;
  closed = true;
  const std::uint32_t end = tz::PutPosition32(*stream);
  if (count > 0 && offsets[count - 1] == end) --count;  // empty last sub-stream
  tz::SeekPut(*stream, directoryPosition);
  WriteDirectory(*stream);
  WriteFourBytes(&end, 1, *stream);
  tz::SeekPut(*stream, end);
}

void OutputStreamDirectory::WriteDirectory(std::ostream& out) {
  // Stable, so two slots with one id keep their writing order.
  std::pair<std::uint16_t, std::uint32_t> slots[kMaxSlots];
  for (std::uint16_t i = 0; i < count; ++i) slots[i] = {ids[i], offsets[i]};
  std::stable_sort(slots, slots + count,
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  for (std::uint16_t i = 0; i < count; ++i) {
    ids[i] = slots[i].first;
    offsets[i] = slots[i].second;
  }
  const std::uint16_t sizes[2] = {capacity, count};
  WriteTwoBytes(sizes, 2, out);
  WriteTwoBytes(ids, capacity, out);
  WriteFourBytes(offsets, capacity, out);
}

InputStreamDirectory::InputStreamDirectory(std::istream& in)
    : stream(nullptr), endPosition(0), count(0), ids(), offsets(), isOpen(false) {
  Open(in);
}

InputStreamDirectory::~InputStreamDirectory() {
  try {
    Close();
  } catch (const std::ios_base::failure&) {
    // Only from a stream whose caller enabled exceptions; its state keeps
    // the failure.
  }
}

bool InputStreamDirectory::CheckMagicString(std::istream& in) {
  return tz::ReadMagic(in, kMagic, sizeof kMagic);
}

bool InputStreamDirectory::ReadOffsetIDVector(std::istream& in, std::uint16_t& slots) {
  if (!ReadTwoBytes(&slots, 1, in) || !ReadTwoBytes(&count, 1, in)) return false;
  if (slots > OutputStreamDirectory::kMaxSlots || count > slots) return false;
  return ReadTwoBytes(ids, slots, in) && ReadFourBytes(offsets, slots, in);
}

bool InputStreamDirectory::TableIsSound(std::istream& in, std::uint64_t tableStart,
                                        std::uint16_t slots) const {
  const std::uint64_t dataStart = tableStart + HeadSize(slots);
  std::uint64_t streamEnd;
  if (!tz::StreamEnd(in, dataStart, &streamEnd)) return false;
  if (endPosition < dataStart || endPosition > streamEnd) return false;
  for (std::uint16_t i = 0; i < count; ++i) {
    if (i > 0 && ids[i] < ids[i - 1]) return false;
    if (offsets[i] < dataStart || offsets[i] > endPosition) return false;
  }
  return true;
}

bool InputStreamDirectory::Open(std::istream& in) {
  if (isOpen) return false;
  std::uint64_t afterMagic;
  std::uint16_t slots;
  if (!CheckMagicString(in) || !tz::GetPosition(in, &afterMagic) ||
      !ReadOffsetIDVector(in, slots) || !ReadFourBytes(&endPosition, 1, in) ||
      !TableIsSound(in, afterMagic - kMagicSize, slots)) {
    return tz::RefuseStream(in);
  }
  stream = &in;
  isOpen = true;
  return true;
}

std::istream* InputStreamDirectory::GetInput(std::uint16_t id) {
  if (!isOpen || stream->rdstate() != std::ios::goodbit) return nullptr;
  const std::uint16_t* slot = std::lower_bound(ids, ids + count, id);
  if (slot == ids + count || *slot != id) return nullptr;
  const std::uint32_t target = offsets[slot - ids];
  std::uint64_t here;
  if (!tz::GetPosition(*stream, &here) || here != target) {
    stream->seekg(target);
    if (stream->fail()) {
      tz::RefuseStream(*stream);
      return nullptr;
    }
  }
  return stream;
}

void InputStreamDirectory::Close() {
  if (!isOpen) return;
  std::uint64_t here;
  // seekg clears eofbit, so a caller who read the last sub-stream to its end
  // still gets a stream placed behind the directory.
  if (!tz::GetPosition(*stream, &here) || here != endPosition) stream->seekg(endPosition);
  stream = nullptr;
  isOpen = false;
}
