#include "streamformats/NamedTable.h"

#include <cstring>

#include "utility/Endian.h"

namespace tz {

std::uint32_t NameHash(const char* name) {
  std::uint32_t hash = 2166136261u;
  for (const char* c = name; *c != '\0'; ++c) {
    hash *= 16777619u;
    hash ^= static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<signed char>(*c)));
  }
  return hash;
}

NamedEntry MakeNamedEntry(const char* name, std::uint32_t offset) {
  NamedEntry entry{};
  entry.offset = offset;
  std::strncpy(entry.name, name, kMaxNameLength);
  entry.hash = NameHash(entry.name);
  return entry;
}

bool NamedEntryBefore(const NamedEntry& a, const NamedEntry& b) {
  if (a.hash != b.hash) return a.hash < b.hash;
  return std::strcmp(a.name, b.name) < 0;  // compares as unsigned char
}

void EncodeNamedEntry(const NamedEntry& entry, unsigned char* stored) {
  EncodeFixed32(stored, entry.offset);
  std::memcpy(stored + 4, entry.name, kNameField);
}

NamedEntry DecodeNamedEntry(const unsigned char* stored) {
  NamedEntry entry{};
  entry.offset = DecodeFixed32(stored);
  std::memcpy(entry.name, stored + 4, kMaxNameLength);
  entry.hash = NameHash(entry.name);
  return entry;
}

}  // namespace tz
