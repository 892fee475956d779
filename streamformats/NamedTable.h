// The table of a named stream directory: its entry record, its order and
// the hash that orders it. The one place that knows the table's layout.
//
// A stored entry is 16 bytes: the sub-stream's position (four bytes,
// little-endian) and the name field of 12 bytes. The table is sorted by
// NamedEntryBefore, so a name is found by a binary search on its hash with
// byte compares only among equal hashes.
//
// Thread safety: the functions keep no state; any thread may call them.
#ifndef TESSELZOSTREAM_STREAMFORMATS_NAMEDTABLE_H_
#define TESSELZOSTREAM_STREAMFORMATS_NAMEDTABLE_H_

#include <cstddef>
#include <cstdint>

#include "tesselzostream/OldStreamDirectory.h"

namespace tz {

constexpr std::size_t kNamedEntrySize = 16;
constexpr std::size_t kNameField = sizeof(NamedEntry::name);
constexpr std::size_t kMaxNameLength = kNameField - 1;

// 32-bit FNV-1 over the characters up to the terminating zero, each XORed in
// as a signed 8-bit value widened to 32 bits (so characters of 128 and above
// hash differently from the published FNV-1). The empty name hashes to
// 2166136261.
std::uint32_t NameHash(const char* name);

// An entry for `name` cut to kMaxNameLength characters, zero-filled, with
// its hash. REQUIRES: name is not null.
NamedEntry MakeNamedEntry(const char* name, std::uint32_t offset);

// The table order: hash ascending (unsigned), then name bytes ascending
// (unsigned) up to the terminating zero.
bool NamedEntryBefore(const NamedEntry& a, const NamedEntry& b);

// Tables move in chunks of this many entries (4 KiB), so neither side holds
// a second copy of a large table.
constexpr std::size_t kEntriesPerChunk = 256;

// The stored form of one entry, kNamedEntrySize bytes at `stored`.
void EncodeNamedEntry(const NamedEntry& entry, unsigned char* stored);

// One stored entry of kNamedEntrySize bytes; the name is terminated at its
// last byte whatever that byte holds, and its hash recomputed.
NamedEntry DecodeNamedEntry(const unsigned char* stored);

}  // namespace tz

#endif  // TESSELZOSTREAM_STREAMFORMATS_NAMEDTABLE_H_
