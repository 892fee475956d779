// Fuzz target: a compound file made of arbitrary bytes, driven through the
// public API in three rounds (read-only, read-write, read-only again).
//
// Input layout:
//   byte 0      flags (kRw... below): which read-write operations run
//   byte 1      more flags (kMore... below)
//   byte 2      stream choice: low nibble for the overwrite, high nibble for
//               the append, the replacement and the delete
//   byte 3      length of the new stream's text, in units of 97 bytes
//   bytes 4..5  offset for the overwrite, little-endian
//   bytes 6..7  offset for the seek-and-read check, little-endian
//   bytes 8..   the file; cut to a whole number of 1024-byte blocks unless
//               kMoreRawLength says to keep its length as given
//
// Whatever the file holds, the library must not crash, hang, overrun a
// buffer, throw where it is not documented to, or grow memory or the file
// without bound; after each round no engine of the path may be left; a
// session that ends with StatusOk leaves a file that opens again and holds
// the stream that session wrote. fuzz/README.md lists every check.
//
// The seeds program is CompoundFileSeeds.cpp; what both know of the input is in
// CompoundFileInput.h.
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "blockstore/BlockFormat.h"
#include "blockstore/FileServer.h"
#include "fuzz/CompoundFileInput.h"
#include "tesselzostream/CompoundFile.h"
#include "testsupport/FileBytes.h"
#include "utility/Env.h"
#include "utility/Path.h"

using namespace tzfuzz::compoundfile;

namespace {

// Byte 0.
constexpr std::uint8_t kRwPhase = 1 << 0;      // run the read-write round at all
constexpr std::uint8_t kRwWriteNew = 1 << 1;   // "wb" a new stream
constexpr std::uint8_t kRwOverwrite = 1 << 2;  // "r+b", seek, write a few bytes
constexpr std::uint8_t kRwDelete = 1 << 3;     // DeleteCFFile
constexpr std::uint8_t kRwFlush = 1 << 4;      // Flush between the steps
constexpr std::uint8_t kRwEncrypt = 1 << 5;    // SetPassword("x"), Encrypt("pw")
constexpr std::uint8_t kRwDecrypt = 1 << 6;    // Decrypt after unlocking
constexpr std::uint8_t kRwReplace = 1 << 7;    // "wb" over an existing name
// Byte 1.
constexpr std::uint8_t kMoreRawLength = 1 << 0;   // keep a length that is no multiple of 1024
constexpr std::uint8_t kMoreWrongPw = 1 << 1;     // unlock with a wrong password first
constexpr std::uint8_t kMoreSecondHandle = 1 << 2;  // a second handle joins the open file
constexpr std::uint8_t kMoreReaderOpen = 1 << 3;  // keep a reader open across the writes
constexpr std::uint8_t kMoreAppend = 1 << 4;      // append at the end of a stream
constexpr std::uint8_t kMoreFoldedName = 1 << 5;  // look names up in upper case

// Bytes read from streams in one run, over all rounds: keeps a run fast
// whatever sizes the directory claims.
constexpr std::size_t kReadBudget = 1u << 20;

// Seeks past the end go at most this far: a writable stream extends its
// chain up to the target, so every run stays small.
constexpr std::uint32_t kSeekCap = 64u << 10;

struct Control {
  std::uint8_t rw = 0;
  std::uint8_t more = 0;
  std::uint8_t choice = 0;
  std::uint8_t newLength = 0;
  std::uint16_t overwriteAt = 0;
  std::uint16_t readAt = 0;
};

// A fault: said on stderr, and the run ends (libFuzzer keeps the input).
using tzfuzz::Fail;

void WriteFile(const std::string& path, const std::uint8_t* data, std::size_t size) {
  if (!tzsupport::WriteFileBytes(path, data, size)) {
    std::perror(path.c_str());
    std::abort();
  }
}

// Every handle and stream of a run has gone: nobody holds the engine of the
// path any more. A leftover registration would make the next open join a
// stale engine instead of reading the new bytes.
void CheckReleased() {
  const std::string canonical = ZoGetCanonicalPath(Path().c_str());
  if (FileServer::Instance()->Find(canonical) != nullptr) {
    Fail("the engine of the path is still registered after every handle closed");
  }
}

void CheckStatus(ZoStreamE::Status s) {
  switch (s) {
    case ZoStreamE::StatusOk:
    case ZoStreamE::StatusFailed:
    case ZoStreamE::StatusNotOpen:
    case ZoStreamE::StatusPastEnd:
    case ZoStreamE::StatusPasswordNeeded:
      return;
  }
  std::fprintf(stderr, "undocumented status %d\n", static_cast<int>(s));
  std::abort();
}

std::vector<std::string> ListNames(const CompoundFile& file) {
  std::vector<std::string> names;
  unsigned long cursor = 0;
  int count = 0;
  for (const DirEntry* e = file.GetFirstDirEntry(&cursor); e != nullptr;
       e = file.GetNextDirEntry(&cursor)) {
    // Texts are documented to end within their arrays.
    if (std::memchr(e->name, 0, DirEntry::kNameSize) == nullptr ||
        std::memchr(e->created, 0, DirEntry::kTimeSize) == nullptr ||
        std::memchr(e->modified, 0, DirEntry::kTimeSize) == nullptr || e->firstBlock == 0) {
      Fail("directory entry breaks its documented shape");
    }
    names.emplace_back(e->name);
    ++count;
  }
  if (count != file.GetNumDirEntrys()) {
    std::fprintf(stderr, "iteration gave %d entries, GetNumDirEntrys %d\n", count,
                 file.GetNumDirEntrys());
    std::abort();
  }
  // The name iteration walks the same entries.
  std::size_t i = 0;
  for (const char* n = file.GetFirstDirName(&cursor); n != nullptr; n = file.GetNextDirName(&cursor)) {
    if (i >= names.size() || names[i] != n) {
      Fail("name iteration differs from entry iteration");
    }
    ++i;
  }
  return names;
}

std::string Folded(const std::string& name) {
  std::string up = name;
  for (char& c : up) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return up;
}

// No run may make the file grow beyond this: the input is at most a few
// blocks and the writes of a run add well under a megabyte. A write past it
// means the library's growth is driven by some number read from the file.
constexpr std::uint64_t kWriteCap = 4u << 20;

// The platform's files, with a write past kWriteCap reported as a fault.
class CappedFile : public tz::RandomAccessFile {
 public:
  explicit CappedFile(std::unique_ptr<tz::RandomAccessFile> file) : file_(std::move(file)) {}
  bool ReadAt(std::uint64_t offset, void* buffer, std::size_t n, std::size_t* got) override {
    return file_->ReadAt(offset, buffer, n, got);
  }
  bool WriteAt(std::uint64_t offset, const void* buffer, std::size_t n) override {
    if (offset + n > kWriteCap) Fail("a write would take the file past 4 MiB: growth not bounded by the input");
    return file_->WriteAt(offset, buffer, n);
  }
  bool Size(std::uint64_t* size) override { return file_->Size(size); }

 private:
  std::unique_ptr<tz::RandomAccessFile> file_;
};

class CappedEnv : public tz::Env {
 public:
  std::unique_ptr<tz::RandomAccessFile> OpenLocked(const std::string& path, bool writable) override {
    std::unique_ptr<tz::RandomAccessFile> file = tz::Env::Default()->OpenLocked(path, writable);
    if (!file) return nullptr;
    return std::unique_ptr<tz::RandomAccessFile>(new CappedFile(std::move(file)));
  }
  std::int64_t Now() override { return tz::Env::Default()->Now(); }
};

// Size in the directory of the stream a look-up of `look` finds: the first
// entry, in directory order, whose name is the same but for ASCII case.
std::uint32_t ClaimedSize(const CompoundFile& file, const std::string& look) {
  const std::string key = Folded(look);
  unsigned long cursor = 0;
  for (const DirEntry* e = file.GetFirstDirEntry(&cursor); e != nullptr;
       e = file.GetNextDirEntry(&cursor)) {
    if (Folded(e->name) == key) return e->size;
  }
  return 0;
}

// Reads the stream to its end (or the budget's), then seeks and reads once
// more. Streams report trouble through their state, never by throwing. A
// seek within the stream allocates no block. A seek beyond the end extends
// the chain by design (whatever the mode text, as a later write there would
// need it); in a file open for writing that leaves the file sound.
void ReadStream(CompoundFile& file, const std::string& name, std::size_t* budget,
                std::uint16_t readAt) {
  file.Flush();  // the directory goes out first, so that the count below holds still
  const int usedBefore = file.GetNumUsedBlocks();
  const std::uint32_t size = ClaimedSize(file, name);
  bool readToEnd = false;
  ZoStreamE::Status beforeSeek = ZoStreamE::StatusNotOpen;
  const std::uint32_t target = readAt % kSeekCap;
  {
    std::unique_ptr<std::iostream> in(file.GetIOStream(name.c_str(), "rb"));
    if (!in) return;
    // Its length first, as a reader sizing a buffer would find it.
    in->seekg(0, std::ios_base::end);
    (void)in->tellg();
    in->clear();
    in->seekg(0);
    char buffer[4096];
    while (*budget != 0 && in->good()) {
      in->read(buffer, static_cast<std::streamsize>(std::min(sizeof buffer, *budget)));
      const std::streamsize got = in->gcount();
      if (got <= 0) break;
      *budget -= static_cast<std::size_t>(got);
    }
    readToEnd = in->eof() && !in->bad();
    in->clear();
    beforeSeek = file.GetStatus();
    in->seekg(target);
    if (*in && *budget != 0) {
      in->read(buffer, static_cast<std::streamsize>(std::min<std::size_t>(64, *budget)));
      *budget -= static_cast<std::size_t>(std::max<std::streamsize>(in->gcount(), 0));
    }
  }
  CheckStatus(file.GetStatus());
  if (target <= size && file.GetNumUsedBlocks() != usedBefore) {
    Fail("a seek within a stream allocated blocks");
  }
  if (readToEnd && beforeSeek == ZoStreamE::StatusOk && !file.IsReadOnly() &&
      file.GetStatus() != ZoStreamE::StatusOk) {
    Fail("a seek past the end of a sound stream broke a writable file");
  }
}

// On a file whose status has failed the stream device throws from its seek;
// seekg turns that into badbit, but this standard library's seekp (and
// tellp) let the std::ios_base::failure through to the caller, as the
// library's header says. A careful caller catches it, as here.
void SeekP(std::iostream& io, std::streamoff off, std::ios_base::seekdir way) {
  try {
    io.seekp(off, way);
  } catch (const std::ios_base::failure&) {
    io.setstate(std::ios_base::badbit);
  }
}

void Unlock(CompoundFile& file, const Control& c) {
  if ((c.more & kMoreWrongPw) != 0) (void)file.SetPassword("wrong");
  (void)file.SetPassword(kPassword);
}

const char kNewName[] = "fuzz/new stream";

// What the read-write round leaves for the last round to find: the new
// stream, when it was written in a session that ended with StatusOk.
struct Expected {
  bool check = false;
  std::string text;
};

// Numbers of the directory blocks in the file on disk, by the links from
// block 1 (at most one walk's worth of blocks).
std::vector<std::uint32_t> DirectoryBlocksOnDisk() {
  const tzsupport::FileBytes bytes = tzsupport::ReadFileBytes(Path());
  const std::size_t count = bytes.size() / bf::kBlockSize;
  std::vector<std::uint32_t> blocks;
  for (std::uint32_t n = 1; n != 0 && n <= count && blocks.size() < count;) {
    blocks.push_back(n);
    bf::BlockHead head;
    bf::DecodeHead(&bytes[(n - 1) * bf::kBlockSize], &head);
    n = head.nextBlock;
  }
  return blocks;
}

// The stream written in the read-write round reads back as written.
void VerifyNewStream(CompoundFile& file, const std::string& text) {
  std::unique_ptr<std::iostream> in(file.GetIOStream(kNewName, "rb"));
  if (!in) Fail("the stream written in a session that ended well is missing");
  std::string got(text.size() + 1, '\0');
  in->read(&got[0], static_cast<std::streamsize>(got.size()));
  got.resize(static_cast<std::size_t>(std::max<std::streamsize>(in->gcount(), 0)));
  if (got == text) return;
  // Say whether the stream was given a directory block: the directory
  // would then have overwritten its bytes.
  unsigned long cursor = 0;
  std::uint32_t first = 0;
  for (const DirEntry* e = file.GetFirstDirEntry(&cursor); e != nullptr; e = file.GetNextDirEntry(&cursor)) {
    if (std::strcmp(e->name, kNewName) == 0) first = e->firstBlock;
  }
  const std::vector<std::uint32_t> dir = DirectoryBlocksOnDisk();
  const bool onDirectory = std::find(dir.begin(), dir.end(), first) != dir.end();
  std::fprintf(stderr, "wrote %zu bytes, read back %zu (status %d), first block %u%s\n", text.size(),
               got.size(), static_cast<int>(file.GetStatus()), first,
               onDirectory ? " (a directory block)" : "");
  Fail(onDirectory ? "a stream was given a directory block"
                   : "the stream written in a session that ended well reads back different");
}

void ReadOnlyRound(const Control& c, std::size_t* budget, const Expected* expected = nullptr) {
  CompoundFile file;
  const ZoStreamE::Status opened = OpenFile(file, ZoStreamE::OpenReadOnly);
  CheckStatus(opened);
  if (expected != nullptr && expected->check && opened != ZoStreamE::StatusOk) {
    Fail("a file closed after a session that ended well does not open again");
  }
  if (opened == ZoStreamE::StatusOk) {
    (void)file.GetCompoundFileName();
    (void)file.IsReadOnly();
    (void)file.GetNumUsedBlocks();
    if (file.IsEncrypted()) Unlock(file, c);
    // First, before a read of some damaged stream makes the file's status stick.
    if (expected != nullptr && expected->check) VerifyNewStream(file, expected->text);
    const std::vector<std::string> names = ListNames(file);
    for (const std::string& name : names) {
      const std::string look = (c.more & kMoreFoldedName) != 0 ? Folded(name) : name;
      (void)file.Exists(look.c_str());
      ReadStream(file, look, budget, c.readAt);
    }
    // Writes on a read-only file are refused without harm.
    std::unique_ptr<std::iostream> out(file.GetIOStream("refused", "wb"));
    if (out) Fail("\"wb\" on a read-only file gave a stream");
    if (!names.empty()) (void)file.DeleteCFFile(names[0].c_str());
    file.Flush();
  }
  CheckStatus(file.Close());
}

Expected ReadWriteRound(const Control& c, std::size_t* budget) {
  Expected expected;
  CompoundFile file;
  const ZoStreamE::Status opened = OpenFile(file, ZoStreamE::OpenReadWrite);
  CheckStatus(opened);
  if (opened != ZoStreamE::StatusOk) {
    CheckStatus(file.Close());
    return expected;
  }
  CompoundFile second;
  if ((c.more & kMoreSecondHandle) != 0) CheckStatus(OpenFile(second, ZoStreamE::OpenReadOnly));
  (void)file.GetNumUsedBlocks();
  if (file.IsEncrypted()) Unlock(file, c);

  std::vector<std::string> names = ListNames(file);
  std::unique_ptr<std::iostream> reader;
  if (!names.empty()) {
    ReadStream(file, names[0], budget, c.readAt);
    if ((c.more & kMoreReaderOpen) != 0) reader.reset(file.GetIOStream(names.back().c_str(), "rb"));
  }

  if ((c.rw & kRwWriteNew) != 0) {
    // The later steps pick streams from the list made before; one of them
    // could be this one under another case.
    bool nameTaken = false;
    for (const std::string& name : names) nameTaken = nameTaken || Folded(name) == Folded(kNewName);
    expected.text = Text(static_cast<std::size_t>(c.newLength) * 97, 'a');
    std::unique_ptr<std::iostream> out(file.GetIOStream(kNewName, "wb"));
    if (out) {
      if (!nameTaken && ClaimedSize(file, kNewName) != 0) Fail("a new \"wb\" stream does not start empty");
      out->write(expected.text.data(), static_cast<std::streamsize>(expected.text.size()));
      out->flush();
      expected.check = out->good() && !nameTaken;
      out.reset();
    }
  }
  if ((c.rw & kRwFlush) != 0) file.Flush();

  if ((c.rw & kRwOverwrite) != 0 && !names.empty()) {
    const std::string& name = names[(c.choice & 0x0F) % names.size()];
    std::unique_ptr<std::iostream> io(file.GetIOStream(name.c_str(), "r+b"));
    if (io) {
      // Only up to a little past the claimed size, and never far: see kSeekCap.
      io->seekg(0, std::ios_base::end);
      const std::streamoff end = io->tellg();
      io->clear();
      const std::uint32_t limit =
          static_cast<std::uint32_t>(std::min<std::streamoff>(std::max<std::streamoff>(end, 0), kSeekCap));
      SeekP(*io, static_cast<std::streamoff>(c.overwriteAt % (limit + 16)), std::ios_base::beg);
      io->write("OVERWRITE", 9);
      io->flush();
      io->seekg(0);
      char head[16];
      io->read(head, sizeof head);
    }
  }

  if ((c.more & kMoreAppend) != 0 && !names.empty()) {
    const std::string& name = names[(c.choice >> 4) % names.size()];
    std::unique_ptr<std::iostream> io(file.GetIOStream(name.c_str(), "r+b"));
    if (io) {
      SeekP(*io, 0, std::ios_base::end);
      const std::string text = Text(1500, 'A');
      io->write(text.data(), static_cast<std::streamsize>(text.size()));
    }
  }

  if ((c.rw & kRwReplace) != 0 && !names.empty()) {
    const std::string& name = names[(c.choice >> 4) % names.size()];
    const std::string look = (c.more & kMoreFoldedName) != 0 ? Folded(name) : name;
    std::unique_ptr<std::iostream> out(file.GetIOStream(look.c_str(), "wb"));
    if (out) *out << "replaced";
  }

  if ((c.rw & kRwDelete) != 0 && !names.empty()) {
    const std::string& name = names[(c.choice >> 4) % names.size()];
    (void)file.DeleteCFFile(name.c_str());
  }
  if ((c.rw & kRwFlush) != 0) file.Flush();

  if ((c.rw & kRwEncrypt) != 0) {
    (void)file.SetPassword("x");
    CheckStatus(file.Encrypt(kPassword));
  }
  if ((c.rw & kRwDecrypt) != 0) {
    if (file.IsEncrypted()) (void)file.SetPassword(kPassword);
    CheckStatus(file.Decrypt());
  }

  ListNames(file);
  reader.reset();
  if (file.GetStatus() != ZoStreamE::StatusOk) expected.check = false;
  CheckStatus(second.Close());
  CheckStatus(file.Close());
  return expected;
}

Control ParseControl(const std::uint8_t* data) {
  Control c;
  c.rw = data[0];
  c.more = data[1];
  c.choice = data[2];
  c.newLength = data[3];
  c.overwriteAt = static_cast<std::uint16_t>(data[4] | (data[5] << 8));
  c.readAt = static_cast<std::uint16_t>(data[6] | (data[7] << 8));
  return c;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static CappedEnv env;
  tz::SetEnv(&env);
  std::atexit(RemoveTemp);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kHeaderSize) return 0;
  const Control c = ParseControl(data);
  std::size_t fileSize = size - kHeaderSize;
  if ((c.more & kMoreRawLength) == 0) fileSize -= fileSize % bf::kBlockSize;
  WriteFile(Path(), data + kHeaderSize, fileSize);

  std::size_t budget = kReadBudget;
  ReadOnlyRound(c, &budget);
  CheckReleased();
  if ((c.rw & kRwPhase) != 0) {
    const Expected expected = ReadWriteRound(c, &budget);
    CheckReleased();
    ReadOnlyRound(c, &budget, &expected);
    CheckReleased();
  }
  // libFuzzer's worker processes end without running atexit handlers: each
  // run removes its file, so that only a failing run leaves one behind.
  RemoveTemp();
  return 0;
}
