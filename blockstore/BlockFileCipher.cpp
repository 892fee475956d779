// Encryption of a BlockFileCore: payloads of data blocks enciphered under
// a password whose digest the first directory block keeps.
#include <cstring>
#include <vector>

#include "blockstore/BlockFileCore.h"
#include "blockstore/PayloadCipher.h"
#include "utility/BlowFish.h"
#include "utility/MD5.h"

using ZoStreamE::Status;
namespace bf = blockformat;

bool BlockFileCore::IsEncrypted() const {
  return status == ZoStreamE::StatusOk && !dirBlocks.empty() &&
         (dirBlocks[0]->flags & bf::kFlagEncrypted) != 0 && HasEntries();
}

bool BlockFileCore::SetPassword(const char* password) {
  if (status != ZoStreamE::StatusOk && status != ZoStreamE::StatusPasswordNeeded) return false;
  if (dirBlocks.empty() || (dirBlocks[0]->flags & bf::kFlagEncrypted) == 0) return true;
  if (password == nullptr) return false;
  MD5 digest(password);
  if (std::memcmp(digest.GetRawDigest(), dirBlocks[0]->passwordDigest, bf::kDigestSize) != 0) {
    return false;
  }
  // Every handle on the path shares this engine, and each may unlock it
  // after its open while other threads read streams deciphered by the
  // cipher in place: the digest matched, so a cipher already there has this
  // very key and stays, and a new one is put in under readLock, which every
  // read holds while it deciphers.
  std::lock_guard<std::recursive_mutex> hold(readLock);
  if (!cipher) cipher = bf::MakeCipher(password);
  if (status == ZoStreamE::StatusPasswordNeeded) status = ZoStreamE::StatusOk;
  return true;
}

// Before a pass rewrites every chain, each chain is walked once by its heads:
// a chain that leaves the file, loops, or shares a block with another would
// make the pass encipher some block twice or never end. Such a file is
// refused before anything changes.
bool BlockFileCore::ChainsAreSound() {
  std::vector<bool> seen(static_cast<std::size_t>(BlockCount()) + 1, false);
  unsigned char raw[bf::kBlockSize];
  std::lock_guard<std::recursive_mutex> hold(readLock);
  for (const auto& dirBlock : dirBlocks) {
    for (const DirEntry& entry : dirBlock->entries) {
      for (std::uint32_t n = entry.firstBlock; n != 0;) {
        if (n > BlockCount() || seen[n] || !file->ReadBlock(n, raw)) return false;
        seen[n] = true;
        bf::BlockHead head;
        bf::DecodeHead(raw, &head);
        n = ChainNext(head);
      }
    }
  }
  return true;
}

// One pass over every block of every chain in use, with one cipher call per
// block. Deciphering reads a block clear (the read path deciphers while the
// flag is set) and writes it raw, past the write path's encipherment.
// Enciphering runs with the flag clear, so neither path acts and the pass
// enciphers itself.
void BlockFileCore::RunCipherPass(bool encrypt) {
  DataBlock block;
  for (const auto& dirBlock : dirBlocks) {
    for (const DirEntry& entry : dirBlock->entries) {
      for (std::uint32_t n = entry.firstBlock; n != 0; n = ChainNext(block)) {
        if (ReadDataBlock(n, block) != ZoStreamE::StatusOk) throw status;
        if (encrypt) {
          cipher->Encrypt(block.payload, static_cast<unsigned>(bf::CipherLength(block.usedLength)));
        }
        if (WriteRawDataBlock(block) != ZoStreamE::StatusOk) throw status;
      }
    }
  }
}

std::uint32_t BlockFileCore::ChainNext(const bf::BlockHead& head) const {
  return head.nextBlock != 0 && LinkIsSound(head.blockNumber, head.nextBlock) ? head.nextBlock : 0;
}

// A pass rewrites blocks in place, so a pass cut short leaves a file that
// the flag cannot describe. Before the first block changes, the file on
// disk is marked: the first directory block without its signature, which
// no open accepts. The pass's last write puts the signature back with the
// new flag, and goes to disk at once. If the mark cannot be written, the
// pass does not start.
Status BlockFileCore::RunMarkedPass(bool encrypt) {
  // A pass writes the first directory block: inside a batch, the flush
  // points it waited for come first, so that the directory goes out whole.
  if (batchFlushDue && batchDepth > 0) {
    const std::int32_t depth = batchDepth;
    FinishBatch();
    batchDepth = depth;
  }
  if (!ChainsAreSound()) return Fail(ZoStreamE::StatusFailed);
  directoryDirty = true;
  DirBlock marked = *dirBlocks[0];
  marked.signature[0] = '\0';
  if (WriteDirBlock(marked) != ZoStreamE::StatusOk || !FlushFile()) return status;
  try {
    RunCipherPass(encrypt);
  } catch (Status) {
    MarkUnusable();
  }
  return status;
}

void BlockFileCore::FinishPass() {
  MarkDirBlockChanged(0);
  WriteDirBlock(*dirBlocks[0]);
  if (status == ZoStreamE::StatusOk) FlushFile();
}

// A pass that failed half-way: the first directory block loses its
// signature in memory too, and is written again; this one write goes out
// although the status is set.
void BlockFileCore::MarkUnusable() {
  Fail();
  DirBlock& first = *dirBlocks[0];
  first.signature[0] = '\0';
  unsigned char raw[bf::kBlockSize];
  bf::EncodeDirBlock(first, raw);
  file->WriteBlock(first.blockNumber, raw);
  file->Flush();
}

Status BlockFileCore::Decrypt() {
  if (status != ZoStreamE::StatusOk || !IsEncrypted()) return status;
  if (readOnly) return Fail(ZoStreamE::StatusFailed);
  if (!cipher) return Fail(ZoStreamE::StatusPasswordNeeded);
  if (RunMarkedPass(false) != ZoStreamE::StatusOk) return status;
  cipher.reset();
  DirBlock& first = *dirBlocks[0];
  first.flags = static_cast<std::uint16_t>(first.flags & ~bf::kFlagEncrypted);
  std::memset(first.passwordDigest, 0, bf::kDigestSize);
  FinishPass();
  return status;
}

Status BlockFileCore::Encrypt(const char* password) {
  if (password == nullptr) return status == ZoStreamE::StatusOk ? ZoStreamE::StatusFailed : status;
  if (status == ZoStreamE::StatusOk && IsEncrypted()) {
    const Status result = Decrypt();
    if (result != ZoStreamE::StatusOk) return result;
  }
  if (status != ZoStreamE::StatusOk) return status;
  if (readOnly) return Fail(ZoStreamE::StatusFailed);
  // A file without a directory block has no place for the flag: refused,
  // without making the refusal sticky.
  if (dirBlocks.empty()) return ZoStreamE::StatusFailed;
  cipher = bf::MakeCipher(password);
  if (RunMarkedPass(true) != ZoStreamE::StatusOk) return status;
  DirBlock& first = *dirBlocks[0];
  first.flags = static_cast<std::uint16_t>(first.flags | bf::kFlagEncrypted);
  MD5 digest(password);
  std::memcpy(first.passwordDigest, digest.GetRawDigest(), bf::kDigestSize);
  FinishPass();
  return status;
}
