// FileServer: the process-wide table of open compound files.
//
// One path has one BlockFileCore in a process: the file is opened with an
// exclusive lock, so a second engine on it could never open. The table maps
// canonical paths (compared byte by byte: file names on this platform are
// case-sensitive) to engines. It owns nothing: an engine enters when it has
// opened and leaves when its last holder goes.
//
// Thread safety: Find, Register and Unregister each hold the table's mutex.
// The server itself is created once, on first use, under a second mutex,
// and lives to the end of the process; nothing left in it is closed then.
#ifndef TESSELZOSTREAM_BLOCKSTORE_FILESERVER_H_
#define TESSELZOSTREAM_BLOCKSTORE_FILESERVER_H_

#include <map>
#include <mutex>
#include <string>

#include "tesselzostream/Status.h"

class BlockFileCore;

class FileServer {
 public:
  static FileServer* Instance();

  void Register(BlockFileCore* core);    // under its fileName
  void Unregister(BlockFileCore* core);  // only if the entry is this engine
  BlockFileCore* Find(const std::string& canonicalPath);

 private:
  FileServer() = default;

  std::mutex mutex_;
  std::map<std::string, BlockFileCore*> files_;
};

// The engine for `path`, with one reference on it for the caller: the one
// already open in this process (whatever mode it was opened in), or a new
// one. Null when the file cannot be opened. May throw what the engine's
// Open lets pass (see BlockFileCore::Open).
BlockFileCore* OpenShared(const char* path, ZoStreamE::OpenMode mode);

#endif  // TESSELZOSTREAM_BLOCKSTORE_FILESERVER_H_
