// Opening block streams on a BlockFileCore.
#include "blockstore/BlockFileCore.h"
#include "blockstore/ZoIOStream.h"

ZoIOStream* BlockFileCore::OpenStream(const char* name, int modeBits) {
  if (name == nullptr || *name == '\0') return nullptr;
  ZoIOStream* stream = nullptr;
  if (modeBits & kModeIn) {
    stream = OpenExisting(name, modeBits);
  } else if (modeBits & kModeOut) {
    stream = ReplaceStream(name, modeBits);
  }
  if (stream != nullptr) ++openStreams[stream->GetStreamName()];
  return stream;
}

ZoIOStream* BlockFileCore::OpenExisting(const char* name, int modeBits) {
  DirEntry* entry = FindDirEntry(name);
  return entry == nullptr ? nullptr : new ZoIOStream(this, entry, modeBits);
}

ZoIOStream* BlockFileCore::ReplaceStream(const char* name, int modeBits) {
  DirEntry* entry = FindDirEntry(name);
  if (entry != nullptr) FreeChain(entry);
  DataBlock* first = nullptr;
  entry = AddDirEntry(name, &first);
  return entry == nullptr ? nullptr : new ZoIOStream(this, entry, modeBits, first);
}
