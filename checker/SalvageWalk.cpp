// The walks of a salvage; their order and bounds are in SalvageWalk.h.
#include "checker/SalvageWalk.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include "blockstore/DirectoryDigest.h"
#include "blockstore/PayloadCipher.h"
#include "utility/MD5.h"

namespace bf = blockformat;

namespace {

constexpr std::uint32_t kNobody = 0;
constexpr std::uint32_t kDirectory = 1;
constexpr std::uint32_t kFirstEntry = 2;
constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

// Names compare as the engine's lookup compares them: ASCII case aside.
std::string Fold(const std::string& name) {
  std::string folded = name;
  for (char& c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return folded;
}

std::string Quoted(const std::string& name) { return "\"" + name + "\""; }
std::string Num(std::uint64_t n) { return std::to_string(n); }
std::string Blocks(std::uint64_t n) { return Num(n) + (n == 1 ? " block" : " blocks"); }

}  // namespace

const char SalvageWalk::kPlaceholder[] = "lost+found/.salvage-in-progress";

SalvageWalk::SalvageWalk(BlockIO* io, std::uint32_t blocks, SalvageReport* report)
    : io_(io), blocks_(blocks), r_(*report) {
  names_.insert(Fold(kPlaceholder));
}

bool SalvageWalk::Read(std::uint32_t n, unsigned char* raw) {
  if (io_->ReadBlock(n, raw)) return true;
  r_.openError = "read error at block " + Num(n);
  return false;
}

bool SalvageWalk::TakeName(const std::string& name) { return names_.insert(Fold(name)).second; }

std::string SalvageWalk::LostName(std::uint32_t first) {
  char base[40];
  (void)std::snprintf(base, sizeof base, "lost+found/block-%06u", static_cast<unsigned>(first));
  std::string name = base;
  // Each try that fails is a name already given: the loop ends within
  // their number.
  for (std::uint64_t k = 2; !TakeName(name); ++k) name = std::string(base) + "-" + Num(k);
  return name;
}

std::string SalvageWalk::HolderText(std::uint32_t n) const {
  const std::uint32_t id = owner_[n];
  if (id == kDirectory) return "the directory";
  if (id - kFirstEntry < entries_.size()) return "stream " + Quoted(entries_[id - kFirstEntry].name);
  return "another chain";
}

// The encrypted flag of block 1 and the password: false, with the report
// saying why, when the file is encrypted and the password is missing or
// wrong.
bool SalvageWalk::Unlock(const bf::DirBlock& first, const char* password) {
  if ((first.flags & bf::kFlagEncrypted) == 0) return true;
  if (password == nullptr) {
    r_.password = CheckReport::kNoPassword;
    r_.openError = "encrypted; a password is needed";
    return false;
  }
  MD5 digest(password);
  if (std::memcmp(digest.GetRawDigest(), first.passwordDigest, bf::kDigestSize) != 0) {
    r_.password = CheckReport::kPasswordWrong;
    r_.openError = "encrypted; the password given is not the file's";
    return false;
  }
  r_.password = CheckReport::kPasswordRight;
  cipher_ = bf::MakeCipher(password);
  return true;
}

bool SalvageWalk::ReadDirectory(const char* password) {
  owner_.assign(static_cast<std::size_t>(blocks_) + 1, kNobody);
  copied_.assign(static_cast<std::size_t>(blocks_) + 1, false);
  if (blocks_ == 0) return true;
  unsigned char raw[bf::kBlockSize];
  bf::DirBlock block;
  for (std::uint32_t n = 1; n != 0 && n <= blocks_ && owner_[n] == kNobody; n = block.nextBlock) {
    if (!Read(n, raw)) return false;
    bf::InitDirBlock(&block);
    const bool decoded = bf::DecodeDirBlock(raw, &block);
    if (block.blockNumber != n || !bf::HasSignature(block)) break;
    if (!decoded) {
      // Block 1 with a sound head and only its file signature spoilt still
      // holds the flag and the first entries: read as if the signature
      // were right, its entries taken as those of a found block (step 4).
      if (n != 1) break;
      std::memcpy(raw + bf::kOffFileSignature, bf::kFileSignature, bf::kFileSignatureSize);
      bf::DecodeDirBlock(raw, &block);
      firstFound_ = true;
      owner_[1] = kDirectory;
      return Unlock(block, password);
    }
    if (n == 1 && !Unlock(block, password)) return false;
    owner_[n] = kDirectory;
    ++r_.directoryBlocks;
    AddEntries(raw, false);
  }
  owner_[1] = kDirectory;  // whatever block 1 holds, it is no stream's
  return true;
}

// The entries in use of one directory block. Those of a block found by the
// scan count only when they look whole: a complete name, and a first block
// in use that no walk has taken.
void SalvageWalk::AddEntries(const unsigned char* raw, bool found) {
  for (std::uint32_t e = 0; e < bf::kEntriesPerBlock; ++e) {
    const unsigned char* at = raw + bf::kOffEntries + std::size_t{e} * bf::kEntrySize;
    DirEntry entry;
    bf::DecodeDirEntry(at, &entry);
    if (entry.firstBlock == 0) continue;
    const bool cut = std::memchr(at + bf::kOffName, 0, DirEntry::kNameSize) == nullptr;
    const std::string name = entry.name;
    const std::uint32_t first = entry.firstBlock;
    if (found && (cut || name.empty() || first > blocks_ || owner_[first] != kNobody || !inUse_[first])) continue;
    const bool taken = !name.empty() && !TakeName(name);
    entries_.push_back(Entry{name, first, entry.size, cut, taken});
  }
}

// Takes the chain from block n for walk `id` as long as it holds, copying
// up to `limit` bytes into `out` (null: taken, not copied): 1003 from a
// block that links on or is not the last the limit needs, its used length
// (at most 1003) from a block that ends the chain short of the limit. With
// `inUseOnly` the walk ends silently at a block whose head says free.
// False only on a read error.
bool SalvageWalk::Follow(std::uint32_t n, std::uint32_t id, std::uint64_t limit, bool inUseOnly,
                         std::ostream* out, Walked* w) {
  unsigned char raw[bf::kBlockSize];
  bf::DataBlock block;
  std::uint32_t from = 0;
  const auto where = [&from] { return from == 0 ? std::string("the entry") : "block " + Num(from); };
  for (; n != 0; from = n, n = block.nextBlock) {
    if (w->bytes >= limit && w->blocks > 0) {
      w->next = n;
      return true;
    }
    if (n > blocks_) {
      w->why = where() + " links to block " + Num(n) + ", past the end of the file";
      return true;
    }
    if (owner_[n] != kNobody) {
      w->why = owner_[n] == id ? where() + " links back to block " + Num(n) + " of the same chain"
                               : "block " + Num(n) + " is held by " + HolderText(n);
      const std::uint32_t holder = owner_[n] - kFirstEntry;
      if (out != nullptr && owner_[n] != id && owner_[n] >= kFirstEntry && holder < entries_.size() &&
          copied_[n] && id >= kFirstEntry && id - kFirstEntry < entries_.size()) {
        crossings_.push_back(Crossing{holder, n, id - kFirstEntry});
      }
      return true;
    }
    if (!Read(n, raw)) return false;
    bf::DecodeDataBlock(raw, &block);
    const bool numberRight = block.blockNumber == n, signatureRight = bf::HasSignature(block);
    if (!numberRight || !signatureRight) {
      bool bridged = false;
      if (!inUseOnly && (numberRight || signatureRight) && !Bridges(block.nextBlock, limit - w->bytes, &bridged)) {
        return false;
      }
      if (!bridged) {
        w->why = "block " + Num(n) + " has a wrong number or signature in its head";
        return true;
      }
      w->doubt = "block " + Num(n) + " has a wrong " + (numberRight ? "signature" : "number") +
                 " in its head; its payload is kept as read";
    }
    if (inUseOnly && block.inUse == 0) return true;
    owner_[n] = id;
    ++w->blocks;
    const std::uint64_t remaining = limit - w->bytes;
    std::uint64_t chunk = std::min<std::uint64_t>(remaining, bf::kPayloadSize);
    if (block.nextBlock == 0 && remaining > bf::kPayloadSize) {
      chunk = std::min<std::uint32_t>(block.usedLength, bf::kPayloadSize);
    }
    copied_[n] = out != nullptr && chunk != 0;
    if (out != nullptr && chunk != 0) {
      if (cipher_) {
        cipher_->Decrypt(block.payload, static_cast<unsigned>(bf::CipherLength(block.usedLength)));
      }
      out->write(reinterpret_cast<const char*>(block.payload), static_cast<std::streamsize>(chunk));
    }
    w->bytes += chunk;
  }
  return true;
}

// Whether a stream's walk may take a block whose head has one of its
// number and signature wrong, linking to `next`, with `remaining` bytes of
// the stream still to take: when the link ends the stream where its size
// says, or leads to a block with a sound head that no walk has taken, the
// damage most likely stayed in the head. False only on a read error.
bool SalvageWalk::Bridges(std::uint32_t next, std::uint64_t remaining, bool* bridged) {
  *bridged = false;
  if (next == 0 || next > blocks_ || owner_[next] != kNobody) {
    *bridged = next == 0 && remaining <= bf::kPayloadSize;
    return true;
  }
  unsigned char raw[bf::kBlockSize];
  if (!Read(next, raw)) return false;
  bf::BlockHead head;
  bf::DecodeHead(raw, &head);
  *bridged = head.blockNumber == next && bf::HasSignature(head);
  return true;
}

// Follow into a new stream `savedAs` of the new file. False on a read error
// or when the new file could not take the bytes.
bool SalvageWalk::Copy(const std::string& savedAs, std::uint32_t first, std::uint32_t id, std::uint64_t limit,
                       bool inUseOnly, Walked* w) {
  std::unique_ptr<std::iostream> stream(out_->GetIOStream(savedAs.c_str(), "wb"));
  if (stream == nullptr || !Follow(first, id, limit, inUseOnly, stream.get(), w)) {
    if (stream == nullptr) r_.openError = "cannot make stream " + Quoted(savedAs) + " in the new file";
    return false;
  }
  stream->flush();
  const bool ok = !stream->fail();
  stream.reset();
  if (ok && out_->GetStatus() == ZoStreamE::StatusOk) return true;
  r_.openError = "cannot write stream " + Quoted(savedAs) + " into the new file";
  return false;
}

void SalvageWalk::ReportEntry(const Entry& e, const std::string& savedAs, const std::string& nameWhy,
                              const Walked& w) {
  r_.recoveredBytes += w.bytes;
  if (w.bytes >= e.size && nameWhy.empty() && w.doubt.empty()) {
    r_.whole.push_back(e.name);
    return;
  }
  SalvagedStream s;
  s.name = e.name;
  s.savedAs = savedAs;
  s.firstBlock = e.first;
  s.recovered = w.bytes;
  s.lost = e.size > w.bytes ? e.size - w.bytes : 0;
  r_.lostBytes += s.lost;
  std::string chain;
  if (s.lost != 0) chain = w.why.empty() ? "the chain ends after " + Blocks(w.blocks) : w.why;
  if (!w.doubt.empty()) chain = chain.empty() ? w.doubt : w.doubt + "; " + chain;
  s.why = nameWhy.empty() ? chain : chain.empty() ? nameWhy : nameWhy + "; " + chain;
  r_.damaged.push_back(std::move(s));
}

// A stream reported whole whose copied chain runs through a block that a
// later stream's chain reaches too is listed as damaged instead: one of the
// two chains took a wrong link, and its bytes from that block on may be the
// other stream's. Nothing more is lost by it; its bytes stay as copied.
void SalvageWalk::ReportCrossings() {
  for (const Crossing& c : crossings_) {
    const Entry& holder = entries_[c.holder];
    auto it = std::find(r_.whole.begin(), r_.whole.end(), holder.name);
    if (it == r_.whole.end()) continue;
    r_.whole.erase(it);
    SalvagedStream s;
    s.name = holder.name;
    s.savedAs = holder.name;
    s.firstBlock = holder.first;
    s.recovered = holder.size;
    s.why = "its chain runs through block " + Num(c.block) + ", which the chain of " +
            Quoted(entries_[c.other].name) + " reaches too; its bytes from there may be that stream's";
    r_.damaged.push_back(std::move(s));
  }
  crossings_.clear();
}

// Step 2 (or 4) for entries_[from...]: each stream copied up to its size,
// then the rest of each whole chain taken.
bool SalvageWalk::CopyEntries(std::size_t from) {
  std::vector<Walked> walked(entries_.size() - from);
  for (std::size_t i = from; i < entries_.size(); ++i) {
    const Entry& e = entries_[i];
    const std::uint32_t id = kFirstEntry + static_cast<std::uint32_t>(i);
    Walked& w = walked[i - from];
    // The engine takes the first entry of the exact name as its saved map.
    if (!freeListSeen_ && e.name == bf::kFreeListName) {
      freeListSeen_ = true;
      if (!Follow(e.first, id, e.size, false, nullptr, &w)) return false;
      continue;
    }
    std::string nameWhy;
    if (e.name.empty()) {
      nameWhy = "an entry without a name";
    } else if (Fold(e.name) == Fold(bf::kFreeListName)) {
      nameWhy = "the saved block map's name";
    } else if (e.taken) {
      nameWhy = "a name an earlier entry has";
    }
    std::string savedAs = e.name;
    if (!nameWhy.empty()) {
      savedAs = LostName(e.first);
      nameWhy += ", saved as " + Quoted(savedAs);
    } else if (e.nameCut) {
      nameWhy = "a name without its end, kept cut to its field";
    }
    if (!Copy(savedAs, e.first, id, e.size, false, &w)) return false;
    ReportEntry(e, savedAs, nameWhy, w);
  }
  ReportCrossings();
  for (std::size_t i = from; i < entries_.size(); ++i) {
    Walked& w = walked[i - from];
    if (w.next == 0) continue;
    Walked tail;
    if (!Follow(w.next, kFirstEntry + static_cast<std::uint32_t>(i), kNoLimit, true, nullptr, &tail)) return false;
  }
  return true;
}

// Step 3: every block once, as the walks left it.
bool SalvageWalk::Scan() {
  inUse_.assign(static_cast<std::size_t>(blocks_) + 1, false);
  next_.assign(static_cast<std::size_t>(blocks_) + 1, 0);
  unsigned char raw[bf::kBlockSize];
  for (std::uint32_t n = 1; n <= blocks_; ++n) {
    if (owner_[n] != kNobody) continue;
    if (!Read(n, raw)) return false;
    bf::BlockHead head;
    bf::DecodeHead(raw, &head);
    if (head.blockNumber != n || !bf::HasSignature(head)) continue;
    if (std::memcmp(raw + bf::kOffFileSignature, bf::kFileSignature, bf::kFileSignatureSize) == 0) {
      found_.push_back(n);
    } else if (head.inUse != 0) {
      inUse_[n] = true;
      next_[n] = head.nextBlock;
    }
  }
  return true;
}

// Step 4: the directory blocks the chain no longer reaches, each on its own.
bool SalvageWalk::ReadFoundDirectories() {
  unsigned char raw[bf::kBlockSize];
  const std::size_t from = entries_.size();
  if (firstFound_) {
    if (!Read(1, raw)) return false;
    ++r_.directoryBlocks;
    AddEntries(raw, true);
  }
  for (const std::uint32_t n : found_) {
    if (!Read(n, raw)) return false;
    owner_[n] = kDirectory;
    ++r_.directoryBlocks;
    AddEntries(raw, true);
  }
  return CopyEntries(from);
}

// Step 5: chains without an entry, first those with a first block (no
// block in use that nobody holds links to it), then whatever is left in
// use (chains that run in a circle), each from its lowest block.
bool SalvageWalk::CopyOrphans() {
  std::vector<bool> linked(static_cast<std::size_t>(blocks_) + 1, false);
  for (std::uint32_t n = 1; n <= blocks_; ++n) {
    if (inUse_[n] && owner_[n] == kNobody && next_[n] <= blocks_) linked[next_[n]] = true;
  }
  std::uint32_t id = kFirstEntry + static_cast<std::uint32_t>(entries_.size());
  for (int pass = 0; pass < 2; ++pass) {
    for (std::uint32_t n = 1; n <= blocks_; ++n) {
      if (!inUse_[n] || owner_[n] != kNobody || (pass == 0 && linked[n])) continue;
      SalvagedStream s;
      s.savedAs = LostName(n);
      s.firstBlock = n;
      Walked w;
      if (!Copy(s.savedAs, n, id++, kNoLimit, true, &w)) return false;
      s.recovered = w.bytes;
      s.why = "no entry reaches its chain of " + Blocks(w.blocks);
      r_.recoveredBytes += w.bytes;
      r_.lostAndFound.push_back(std::move(s));
    }
  }
  return true;
}

bool SalvageWalk::CopyAll(CompoundFile* out) {
  out_ = out;
  return CopyEntries(0) && Scan() && ReadFoundDirectories() && CopyOrphans();
}
