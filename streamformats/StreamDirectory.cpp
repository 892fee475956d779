#include "tesselzostream/StreamDirectory.h"

#include <algorithm>
#include <utility>

#include "streamformats/FormatIO.h"
#include "utility/ByteIO.h"

namespace {

constexpr char kMagic[2] = {'x', 'A'};

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
    : stream(nullptr), endPosition(0), count(0), ids(), offsets(), isOpen(false), streamEnd(0) {
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
  // The arrays hold kMaxSlots; a count above the capacity would make the
  // search look at slots that were not read.
  if (slots > OutputStreamDirectory::kMaxSlots || count > slots) return false;
  return ReadTwoBytes(ids, slots, in) && ReadFourBytes(offsets, slots, in);
}

bool InputStreamDirectory::Open(std::istream& in) {
  if (isOpen) return false;
  std::uint16_t slots;
  if (!CheckMagicString(in) || !ReadOffsetIDVector(in, slots) ||
      !ReadFourBytes(&endPosition, 1, in)) {
    return tz::RefuseStream(in);
  }
  streamEnd = tz::EndOf(in);
  stream = &in;
  isOpen = true;
  return true;
}

std::istream* InputStreamDirectory::GetInput(std::uint16_t id) {
  if (!isOpen || stream->rdstate() != std::ios::goodbit) return nullptr;
  // The first slot whose id is not below `id`, by halving. The ids come from
  // the stream and need not ascend; the search then may miss an id, but it
  // stays within the first count slots.
  std::uint16_t low = 0;
  std::uint16_t high = count;
  while (low < high) {
    const std::uint16_t middle = static_cast<std::uint16_t>(low + (high - low) / 2);
    if (ids[middle] < id) {
      low = static_cast<std::uint16_t>(middle + 1);
    } else {
      high = middle;
    }
  }
  if (low == count || ids[low] != id) return nullptr;
  const std::uint32_t target = offsets[low];
  std::uint64_t here;
  if (!tz::GetPosition(*stream, &here) || here != target) {
    // An offset beyond the stream's end is refused as a failed seek.
    if (!tz::SeekWithin(*stream, target, streamEnd)) {
      tz::RefuseStream(*stream);
      return nullptr;
    }
  }
  return stream;
}

void InputStreamDirectory::Close() {
  if (!isOpen) return;
  std::uint64_t here;
  // SeekWithin clears eofbit as seekg does, so a caller who read the last
  // sub-stream to its end still gets a stream placed behind the directory.
  // An end position beyond the stream's end leaves failbit and the stream
  // where it stood.
  if (!tz::GetPosition(*stream, &here) || here != endPosition) tz::SeekWithin(*stream, endPosition, streamEnd);
  stream = nullptr;
  isOpen = false;
}
