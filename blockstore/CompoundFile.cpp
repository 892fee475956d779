#include "tesselzostream/CompoundFile.h"

#include <cstring>

#include "blockstore/BlockFileCore.h"
#include "blockstore/FileServer.h"
#include "blockstore/ZoIOStream.h"

using ZoStreamE::Status;

namespace {
// The iteration cursor is 32 bits wide whatever the width of unsigned long;
// "all ones" starts a walk.
DirEntry* Step(BlockFileCore* core, unsigned long* cursor) {
  std::uint32_t c = static_cast<std::uint32_t>(*cursor);
  DirEntry* entry = core->NextDirEntry(c);
  *cursor = c;
  return entry;
}
}  // namespace

CompoundFile::CompoundFile() : core_(nullptr) {}

CompoundFile::CompoundFile(const CompoundFile& other) : core_(other.core_) {}

CompoundFile::~CompoundFile() {
  if (core_ != nullptr) core_->Release(nullptr);
}

CompoundFile& CompoundFile::operator=(const CompoundFile& other) {  // NOLINT(bugprone-unhandled-self-assignment): copies one pointer, so a self-assignment changes nothing
  core_ = other.core_;
  return *this;
}

void CompoundFile::ShareFrom(const CompoundFile& other) {
  BlockFileCore* old = core_;
  core_ = other.core_;
  if (core_ != nullptr) core_->Retain();  // before the release: the two may be one file
  if (old != nullptr) old->Release(nullptr);
}

Status CompoundFile::Open(const char* name, ZoStreamE::OpenMode mode) {
  if (core_ != nullptr) {
    BlockFileCore* old = core_;
    core_ = nullptr;
    old->Release(nullptr);
  }
  core_ = OpenShared(name, mode);
  return core_ != nullptr ? core_->status : ZoStreamE::StatusNotOpen;
}

Status CompoundFile::Close() {
  if (core_ == nullptr) return ZoStreamE::StatusNotOpen;
  const Status result = core_->status;
  BlockFileCore* old = core_;
  core_ = nullptr;
  old->Release(nullptr);
  return result;
}

Status CompoundFile::GetStatus() const {
  return core_ != nullptr ? core_->status : ZoStreamE::StatusNotOpen;
}

bool CompoundFile::IsReadOnly() const { return core_ != nullptr && core_->readOnly; }

const char* CompoundFile::GetCompoundFileName() const {
  return core_ != nullptr ? core_->fileName : nullptr;
}

const DirEntry* CompoundFile::GetFirstDirEntry(unsigned long* cursor) const {
  if (core_ == nullptr || cursor == nullptr) return nullptr;
  *cursor = 0xFFFFFFFFul;
  return Step(core_, cursor);
}

const DirEntry* CompoundFile::GetNextDirEntry(unsigned long* cursor) const {
  if (core_ == nullptr || cursor == nullptr) return nullptr;
  return Step(core_, cursor);
}

const char* CompoundFile::GetFirstDirName(unsigned long* cursor) const {
  const DirEntry* entry = GetFirstDirEntry(cursor);
  return entry != nullptr ? entry->name : nullptr;
}

const char* CompoundFile::GetNextDirName(unsigned long* cursor) const {
  const DirEntry* entry = GetNextDirEntry(cursor);
  return entry != nullptr ? entry->name : nullptr;
}

int CompoundFile::GetNumDirEntrys() const {
  return core_ != nullptr ? core_->CountDirEntries() : 0;
}

int CompoundFile::GetNumUsedBlocks() const {
  return core_ != nullptr ? core_->blockMap.CountUsed() : 0;
}

bool CompoundFile::Exists(const char* name) const {
  return core_ != nullptr && core_->FindDirEntry(name) != nullptr;
}

const DirEntry* CompoundFile::FindDirEntry(const char* name) const {
  return core_ != nullptr ? core_->FindDirEntry(name) : nullptr;
}

void CompoundFile::Flush() {
  if (core_ != nullptr) core_->FlushDirectory(false);
}

Status CompoundFile::BeginBatch() {
  return core_ != nullptr ? core_->BeginBatch() : ZoStreamE::StatusNotOpen;
}

Status CompoundFile::EndBatch() {
  return core_ != nullptr ? core_->EndBatch() : ZoStreamE::StatusNotOpen;
}

bool CompoundFile::DeleteCFFile(const char* name) {
  if (core_ == nullptr) return false;
  DirEntry* entry = core_->FindDirEntry(name);
  return entry != nullptr && core_->FreeChain(entry);
}

std::basic_iostream<char>* CompoundFile::GetIOStream(const char* name, const char* mode) {
  if (core_ == nullptr || mode == nullptr) return nullptr;
  int bits = 0;
  if (std::strchr(mode, 'b') != nullptr) bits |= kModeBinary;
  if (mode[0] == 'r') bits |= kModeIn;
  if (mode[0] == 'w') {
    if (core_->readOnly) return nullptr;
    bits |= kModeOut;
  }
  return core_->OpenStream(name, bits);
}

Status CompoundFile::CompactInPlace(CompactProgress* progress, std::uint32_t maxMoves,
                                    CompactCallback callback, void* context) {
  if (core_ == nullptr) {
    if (progress != nullptr) *progress = CompactProgress();
    return ZoStreamE::StatusNotOpen;
  }
  return core_->CompactInPlace(maxMoves, callback, context, progress);
}

Status CompoundFile::ScrubFreeBlocks(std::uint32_t* scrubbed) {
  if (scrubbed != nullptr) *scrubbed = 0;
  return core_ != nullptr ? core_->ScrubFreeBlocks(scrubbed) : ZoStreamE::StatusNotOpen;
}

Status CompoundFile::Encrypt(const char* password) {
  return core_ != nullptr ? core_->Encrypt(password) : ZoStreamE::StatusNotOpen;
}

Status CompoundFile::Decrypt() {
  return core_ != nullptr ? core_->Decrypt() : ZoStreamE::StatusNotOpen;
}

bool CompoundFile::SetPassword(const char* password) {
  return core_ == nullptr || core_->SetPassword(password);
}

bool CompoundFile::IsEncrypted() const { return core_ != nullptr && core_->IsEncrypted(); }
