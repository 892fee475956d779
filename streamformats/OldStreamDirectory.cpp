#include "tesselzostream/OldStreamDirectory.h"

#include <algorithm>
#include <cstring>

#include <boost/make_shared.hpp>

#include "streamformats/NamedTable.h"
#include "streamformats/FormatIO.h"
#include "utility/ByteIO.h"

namespace {

constexpr char kMagic[12] = {1, 'S', 't', 'r', 'e', 'a', 'm', 2, 'D', 'i', 'r', 0};
// The table position, the reserved field and the count: four bytes each.
constexpr std::uint64_t kField = 4;

}  // namespace

OldOutputStreamDirectory::OldOutputStreamDirectory(std::ostream& out)
    : tablePosition(0), stream(&out), closed(false) {
  WriteBytes(kMagic, sizeof kMagic, out);
  tablePosition = tz::PutPosition32(out);
  const std::uint32_t zeros[2] = {0, 0};  // table position, reserved
  WriteFourBytes(zeros, 2, out);
}

OldOutputStreamDirectory::~OldOutputStreamDirectory() {
  try {
    Close();
  } catch (const std::ios_base::failure&) {
    // Only from a stream whose caller enabled exceptions; its state keeps
    // the failure.
  }
}

std::ostream& OldOutputStreamDirectory::GetOutput(const char* name) {
  if (closed || name == nullptr) {
    tz::RefuseStream(*stream);
    return *stream;
  }
  const NamedEntry entry = tz::MakeNamedEntry(name, tz::PutPosition32(*stream));
  if (!entries.empty() && entries.back().offset == entry.offset) {
    entries.back() = entry;  // nothing written since: the new name takes it over
  } else {
    entries.push_back(entry);
  }
  return *stream;
}

void OldOutputStreamDirectory::Close() {
  if (closed) return;
  closed = true;
  const std::uint32_t tableAt = tz::PutPosition32(*stream);
  if (!entries.empty() && entries.back().offset == tableAt) entries.pop_back();
  std::sort(entries.begin(), entries.end(), tz::NamedEntryBefore);
  const std::uint32_t count = static_cast<std::uint32_t>(entries.size());
  WriteFourBytes(&count, 1, *stream);
  unsigned char chunk[tz::kEntriesPerChunk * tz::kNamedEntrySize];
  for (std::size_t done = 0; done < entries.size();) {
    const std::size_t n = std::min(tz::kEntriesPerChunk, entries.size() - done);
    for (std::size_t i = 0; i < n; ++i) {
      tz::EncodeNamedEntry(entries[done + i], chunk + i * tz::kNamedEntrySize);
    }
    WriteBytes(chunk, n * tz::kNamedEntrySize, *stream);
    done += n;
  }
  const std::uint32_t end = tz::PutPosition32(*stream);
  tz::SeekPut(*stream, tablePosition);
  WriteFourBytes(&tableAt, 1, *stream);
  tz::SeekPut(*stream, end);
}

OldInputStreamDirectory::OldInputStreamDirectory() : stream(nullptr), endPosition(0), end(0) {}

OldInputStreamDirectory::OldInputStreamDirectory(std::istream& in)
    : OldInputStreamDirectory() {
  Open(in);
}

OldInputStreamDirectory::~OldInputStreamDirectory() {
  try {
    Close();
  } catch (const std::ios_base::failure&) {
    // Only from a stream whose caller enabled exceptions; its state keeps
    // the failure.
  }
}

bool OldInputStreamDirectory::CheckMagicString(std::istream& in) {
  return tz::ReadMagic(in, kMagic, sizeof kMagic);
}

bool OldInputStreamDirectory::IsStreamDirectory(const std::istream& constStream) {
  // Read and seeked back: the stream is the same afterwards.
  std::istream& in = const_cast<std::istream&>(constStream);
  std::uint64_t here;
  if (!tz::GetPosition(in, &here)) return false;
  const bool result = CheckMagicString(in);
  in.clear();
  in.seekg(static_cast<std::streamoff>(here));
  return result;
}

boost::shared_ptr<std::vector<NamedEntry>> OldInputStreamDirectory::ReadTable(
    std::istream& in, std::uint64_t streamEnd, std::uint32_t tableAt) {
  // 0 is left by a writer that never closed: no table can stand there.
  // Beyond the stream's end there is nothing to seek to.
  if (tableAt == 0 || tableAt > streamEnd) return {};
  in.seekg(tableAt);
  std::uint32_t count;
  // The count is bounded by the bytes behind it before any room is taken.
  if (!ReadFourBytes(&count, 1, in) || tableAt + kField > streamEnd ||
      count > (streamEnd - tableAt - kField) / tz::kNamedEntrySize) {
    return {};
  }
  auto table = boost::make_shared<std::vector<NamedEntry>>();
  table->reserve(count);
  unsigned char chunk[tz::kEntriesPerChunk * tz::kNamedEntrySize];
  while (table->size() < count) {
    const std::size_t n = std::min<std::size_t>(tz::kEntriesPerChunk, count - table->size());
    if (!ReadBytes(chunk, n * tz::kNamedEntrySize, in)) return {};
    for (std::size_t i = 0; i < n; ++i) {
      table->push_back(tz::DecodeNamedEntry(chunk + i * tz::kNamedEntrySize));
    }
  }
  if (in.rdstate() != std::ios::goodbit) return {};
  // Tables written here are sorted already, which costs one pass to see;
  // the search must not depend on it.
  if (!std::is_sorted(table->begin(), table->end(), tz::NamedEntryBefore)) {
    std::sort(table->begin(), table->end(), tz::NamedEntryBefore);
  }
  return table;
}

bool OldInputStreamDirectory::Open(std::istream& in) {
  if (entries) return false;
  std::uint64_t afterMagic;
  std::uint32_t tableAt;
  std::uint64_t streamEnd;
  if (!CheckMagicString(in) || !tz::GetPosition(in, &afterMagic) ||
      !ReadFourBytes(&tableAt, 1, in) || !tz::StreamEnd(in, afterMagic + kField, &streamEnd)) {
    return tz::RefuseStream(in);
  }
  boost::shared_ptr<std::vector<NamedEntry>> table = ReadTable(in, streamEnd, tableAt);
  if (!table) return tz::RefuseStream(in);
  entries = table;
  endPosition = static_cast<std::uint32_t>(tableAt + kField + entries->size() * tz::kNamedEntrySize);
  end = streamEnd;
  stream = &in;
  return true;
}

std::istream* OldInputStreamDirectory::GetInput(const char* name) {
  if (!entries || name == nullptr || stream->rdstate() != std::ios::goodbit) return nullptr;
  const NamedEntry key = tz::MakeNamedEntry(name, 0);
  const auto found = std::lower_bound(entries->begin(), entries->end(), key, tz::NamedEntryBefore);
  if (found == entries->end() || std::strcmp(found->name, key.name) != 0) return nullptr;
  // An offset beyond the stream's end is refused as a failed seek.
  if (!tz::SeekWithin(*stream, found->offset, end)) {
    tz::RefuseStream(*stream);
    return nullptr;
  }
  return stream;
}

void OldInputStreamDirectory::Close() {
  if (!entries) return;
  // Within the stream: Open took the table only when it ended there.
  stream->seekg(endPosition);
  entries.reset();
  stream = nullptr;
}
