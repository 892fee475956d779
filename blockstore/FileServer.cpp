#include "blockstore/FileServer.h"

#include <atomic>
#include <memory>

#include "blockstore/BlockFileCore.h"
#include "utility/Path.h"

namespace {
// Thrown when a new engine fails to open; caught in OpenShared.
struct CompoundFileServerError {};
}  // namespace

FileServer* FileServer::Instance() {
  static std::atomic<FileServer*> instance{nullptr};
  static std::mutex creation;
  FileServer* server = instance.load(std::memory_order_acquire);
  if (server == nullptr) {
    std::lock_guard<std::mutex> hold(creation);
    server = instance.load(std::memory_order_relaxed);
    if (server == nullptr) {
      server = new FileServer;  // lives to process exit
      instance.store(server, std::memory_order_release);
    }
  }
  return server;
}

void FileServer::Register(BlockFileCore* core) {
  std::lock_guard<std::mutex> hold(mutex_);
  files_[core->fileName] = core;
}

void FileServer::Unregister(BlockFileCore* core) {
  if (core->fileName == nullptr) return;
  std::lock_guard<std::mutex> hold(mutex_);
  auto it = files_.find(core->fileName);
  if (it != files_.end() && it->second == core) files_.erase(it);
}

BlockFileCore* FileServer::Find(const std::string& canonicalPath) {
  std::lock_guard<std::mutex> hold(mutex_);
  auto it = files_.find(canonicalPath);
  return it == files_.end() ? nullptr : it->second;
}

BlockFileCore* OpenShared(const char* path, ZoStreamE::OpenMode mode) {
  const std::string canonical = ZoGetCanonicalPath(path);
  if (!canonical.empty()) {
    if (BlockFileCore* core = FileServer::Instance()->Find(canonical)) {
      core->Retain();
      return core;
    }
  }
  try {
    std::unique_ptr<BlockFileCore> core(new BlockFileCore);
    if (core->Open(path, mode) != ZoStreamE::StatusOk) throw CompoundFileServerError();
    FileServer::Instance()->Register(core.get());
    return core.release();
  } catch (const CompoundFileServerError&) {
    return nullptr;
  }
}
