// Fuzz target: the saved block map, as an open for writing takes it.
//
// The map is read only when its digest matches the directory, so arbitrary
// file bytes never reach its decoder. Here the input replaces the map's
// payload inside a sound file that the library wrote (one of four, built
// once per process), behind the digest that file's directory already
// matches; the file is then edited, closed, checked and edited once more.
//
// Input layout:
//   byte 0      bits 0-1 the file (kTemplates); bit 2 keeps H as given
//               (else it is taken modulo the file's blocks + 1, so that most
//               inputs are read); bit 3 spoils the digest (the map is then
//               not read and the heads are scanned); bit 4 a second session
//               after the checks; bit 5 Flush after each step; bits 6-7 the
//               number of new streams
//   byte 1      steps: bit 0 append, 1 overwrite, 2 delete, 3 replace ("wb"
//               over an existing name), 4 read every stream first, 5 read
//               every stream before the close, 6 a stream made and deleted
//               again, 7 read one stream while a new one is written
//   byte 2      stream choice: low nibble append and overwrite, high nibble
//               delete and replace
//   byte 3      length unit of the new streams
//   bytes 4..5  offset of the overwrite, little-endian
//   bytes 6..   the map's stream from byte 16 on: H (4 bytes, little-endian)
//               and the map bytes, running on into the chain's next block;
//               bytes the input does not give keep the file's own
//
// The files' heads tell the truth, so the target knows which blocks are
// held. A map "lies" when it calls a held block free. What must hold:
// - the file opens for writing;
// - with a map that does not lie (or one not read), every step succeeds,
//   the close gives StatusOk, the consistency check finds nothing, and every
//   stream reads back exactly as the steps left it;
// - with a lying map, a session may fail (a read meets a link the map calls
//   free, as after a crash), but after a close with StatusOk the file opens,
//   every stream the session did not write to reads back exactly, the bytes
//   it wrote read back, and the check finds no block held twice, no damaged
//   chain or directory; only blocks that nothing reaches and the lie itself,
//   kept in the saved map, may be reported. After a failed session the
//   file still opens and no block is held twice; as after a crash at that
//   point, the heads of a stream it deleted may say free while the
//   directory on disk still names it;
// - a second session after a close with StatusOk gives StatusOk again, and
//   the same checks hold.
//
// The seeds program is BlockMapSeeds.cpp; what both know of the input is in
// BlockMapInput.h.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "blockstore/BlockFormat.h"
#include "fuzz/BlockMapInput.h"
#include "fuzz/FuzzUtil.h"
#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "utility/Endian.h"

using namespace tzfuzz::blockmap;
using tzfuzz::Fail;

namespace {

struct Control {
  unsigned which;
  bool rawH, staleDigest, second, flushEach;
  unsigned newStreams;
  std::uint8_t steps;
  unsigned pickA, pickB;
  std::size_t unit;
  std::size_t offset;
};

constexpr std::uint8_t kAppend = 1 << 0;
constexpr std::uint8_t kOverwrite = 1 << 1;
constexpr std::uint8_t kDelete = 1 << 2;
constexpr std::uint8_t kReplace = 1 << 3;
constexpr std::uint8_t kReadFirst = 1 << 4;
constexpr std::uint8_t kReadLast = 1 << 5;
constexpr std::uint8_t kTemporary = 1 << 6;
constexpr std::uint8_t kReadWhileWriting = 1 << 7;

Control Parse(const std::uint8_t* data) {
  Control c;
  c.which = data[0] & 3;
  c.rawH = (data[0] & 4) != 0;
  c.staleDigest = (data[0] & 8) != 0;
  c.second = (data[0] & 16) != 0;
  c.flushEach = (data[0] & 32) != 0;
  c.newStreams = data[0] >> 6;
  c.steps = data[1];
  c.pickA = data[2] & 15;
  c.pickB = data[2] >> 4;
  c.unit = data[3];
  c.offset = static_cast<std::size_t>(data[4] | (data[5] << 8));
  return c;
}

// The whole stream; false in `ok` when it cannot be opened or a read fails.
std::string Get(CompoundFile& file, const std::string& name, bool* ok) {
  std::string bytes;
  std::unique_ptr<std::iostream> in(file.GetIOStream(name.c_str(), "rb"));
  *ok = in != nullptr;
  if (!in) return bytes;
  char buffer[8192];
  for (;;) {
    in->read(buffer, sizeof buffer);
    const std::streamsize got = in->gcount();
    if (got > 0) bytes.append(buffer, static_cast<std::size_t>(got));
    if (!*in) break;
  }
  *ok = !in->bad();
  return bytes;
}

// What a stream must hold: its length, and the bytes marked sure (all of
// them unless `partly`).
struct Expect {
  std::string bytes;
  std::vector<bool> sure;
  bool partly = false;
};
using Model = std::map<std::string, Expect>;

Expect Sure(const std::string& bytes) { return Expect{bytes, std::vector<bool>(bytes.size(), true)}; }

void Compare(const std::string& name, const Expect& e, const std::string& got, const char* when) {
  bool same = got.size() == e.bytes.size();
  if (same && !e.partly) same = got == e.bytes;
  for (std::size_t i = 0; same && e.partly && i < got.size(); ++i) same = !e.sure[i] || got[i] == e.bytes[i];
  if (same) return;
  std::size_t at = 0;
  while (at < got.size() && at < e.bytes.size() && got[at] == e.bytes[at]) ++at;
  Fail("stream '" + name + "' reads back different " + when + ": " + std::to_string(got.size()) + " bytes for " +
       std::to_string(e.bytes.size()) + ", first difference at " + std::to_string(at));
}

// The streams of the file, the saved map left out.
std::vector<std::string> Names(const CompoundFile& file) {
  std::vector<std::string> names;
  unsigned long cursor = 0;
  for (const DirEntry* e = file.GetFirstDirEntry(&cursor); e != nullptr; e = file.GetNextDirEntry(&cursor)) {
    if (std::strcmp(e->name, bf::kFreeListName) != 0) names.emplace_back(e->name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Problems the check may report: with a lying map, blocks that nothing
// reaches (links the session cut) and blocks the lie called free that are
// still called free.
void Check(const std::vector<bool>& lied, bool lie, const char* when) {
  const CheckReport r = CheckCompoundFile(Path().c_str());
  if (!r.opened) Fail(std::string("the check cannot open the file ") + when + ": " + r.openError);
  for (const CheckProblem& p : r.problems) {
    const bool allowed = lie && (p.kind == CheckProblem::kUnreached ||
                                 (p.kind == CheckProblem::kSavedMap && p.block < lied.size() && lied[p.block]));
    if (!allowed) Fail(std::string("check ") + when + ": " + p.text);
  }
  if (!lie && r.problemCount != 0) Fail(std::string("check ") + when + ": unlisted problems");
}

// After a close with StatusOk: the file opens, holds exactly the model's
// streams, and they read back.
void Verify(const Model& model, const std::vector<bool>& lied, bool lie, const char* when) {
  Check(lied, lie, when);
  CompoundFile file;
  if (OpenFile(file, ZoStreamE::OpenReadOnly) != ZoStreamE::StatusOk) {
    Fail(std::string("the file does not open ") + when);
  }
  std::vector<std::string> expected;
  for (const auto& m : model) expected.push_back(m.first);
  if (Names(file) != expected) Fail(std::string("the file holds other streams ") + when);
  for (const auto& m : model) {
    bool ok = false;
    const std::string got = Get(file, m.first, &ok);
    if (!ok) Fail("stream '" + m.first + "' cannot be read " + when);
    Compare(m.first, m.second, got, when);
  }
  file.Close();
}

// Reads every stream in the session. A read may fail only where the map
// lies; it then fails the file's status for good.
void ReadAll(CompoundFile& file, const Model& model, bool lie) {
  for (const auto& m : model) {
    bool ok = false;
    const std::string got = Get(file, m.first, &ok);
    if (ok && file.GetStatus() == ZoStreamE::StatusOk) {
      Compare(m.first, m.second, got, "in the session");
      continue;
    }
    if (!lie) Fail("stream '" + m.first + "' cannot be read although the map tells the truth");
    return;
  }
}

// A step that wrote or deleted while the file's status stayed StatusOk must
// have succeeded.
void StepDone(bool ok, const CompoundFile& file, const char* step) {
  if (!ok && file.GetStatus() == ZoStreamE::StatusOk) Fail(std::string(step) + " failed on a sound file");
}

// Writes `text` at `offset` of an existing stream ("r+b"); the seek throws
// once the file's status has failed (see CompoundFile.h).
bool WriteAt(CompoundFile& file, const std::string& name, std::size_t offset, bool atEnd, const std::string& text) {
  std::unique_ptr<std::iostream> io(file.GetIOStream(name.c_str(), "r+b"));
  if (!io) return false;
  try {
    if (atEnd) {
      io->seekp(0, std::ios_base::end);
    } else {
      io->seekp(static_cast<std::streamoff>(offset));
    }
  } catch (const std::ios_base::failure&) {
    return false;
  }
  io->write(text.data(), static_cast<std::streamsize>(text.size()));
  io->flush();
  return static_cast<bool>(*io);
}

void Written(Model* model, const std::string& name, std::size_t offset, const std::string& text, bool lie) {
  Expect& e = (*model)[name];
  if (lie) {  // a link the map calls free ends the chain for a writer: later blocks may be replaced
    std::fill(e.sure.begin(), e.sure.end(), false);
    e.partly = true;
  }
  if (e.bytes.size() < offset + text.size()) {
    e.bytes.resize(offset + text.size(), '\0');
    e.sure.resize(offset + text.size(), !lie);
  }
  std::copy(text.begin(), text.end(), e.bytes.begin() + static_cast<std::ptrdiff_t>(offset));
  std::fill(e.sure.begin() + static_cast<std::ptrdiff_t>(offset),
            e.sure.begin() + static_cast<std::ptrdiff_t>(offset + text.size()), true);
}

bool RunSession(const Control& c, Model* model, bool lie) {
  CompoundFile file;
  if (OpenFile(file, ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) {
    Fail("a sound file does not open for writing with this saved map");
  }
  std::vector<std::string> names;
  for (const auto& m : *model) names.push_back(m.first);
  auto flush = [&] {
    if (c.flushEach) file.Flush();
  };
  if ((c.steps & kReadFirst) != 0) ReadAll(file, *model, lie);

  for (unsigned k = 0; k < c.newStreams; ++k) {
    const std::string name = "new/" + std::to_string(k);
    const std::string text = Text(c.unit * 53 + k * bf::kPayloadSize, Seed(name));
    std::unique_ptr<std::iostream> reader;
    if ((c.steps & kReadWhileWriting) != 0 && !names.empty()) {
      reader.reset(file.GetIOStream(names[c.pickA % names.size()].c_str(), "rb"));
    }
    const bool ok = Put(file, name, text);
    if (reader) {
      char buffer[2048];
      reader->read(buffer, sizeof buffer);
    }
    StepDone(ok, file, "a new stream");
    if (ok) (*model)[name] = Sure(text);
    flush();
  }
  if ((c.steps & kTemporary) != 0) {
    const bool ok = Put(file, "temporary", Text(2500, 7)) && file.DeleteCFFile("temporary");
    StepDone(ok, file, "a temporary stream");
    flush();
  }
  if (!names.empty() && (c.steps & (kAppend | kOverwrite)) != 0) {
    const std::string& name = names[c.pickA % names.size()];
    if ((c.steps & kAppend) != 0 && model->count(name) != 0) {
      const std::string text = Text(1500 + c.unit, Seed(name) + 1);
      const std::size_t end = (*model)[name].bytes.size();
      const bool ok = WriteAt(file, name, 0, true, text);
      StepDone(ok, file, "an append");
      if (ok) Written(model, name, end, text, lie);
      flush();
    }
    if ((c.steps & kOverwrite) != 0 && model->count(name) != 0) {
      const std::string text = Text(40, Seed(name) + 2);
      const std::size_t at = c.offset % ((*model)[name].bytes.size() + 1);
      const bool ok = WriteAt(file, name, at, false, text);
      StepDone(ok, file, "an overwrite");
      if (ok) Written(model, name, at, text, lie);
      flush();
    }
  }
  if (!names.empty() && (c.steps & (kDelete | kReplace)) != 0) {
    const std::string& name = names[c.pickB % names.size()];
    if ((c.steps & kDelete) != 0) {
      const bool ok = file.DeleteCFFile(name.c_str());
      StepDone(ok, file, "a deletion");
      if (ok) model->erase(name);
      flush();
    }
    if ((c.steps & kReplace) != 0) {
      const std::string text = Text(c.unit * 29 + 100, Seed(name) + 3);
      const bool ok = Put(file, name, text);
      StepDone(ok, file, "a replacement");
      if (ok) (*model)[name] = Sure(text);
      flush();
    }
  }
  if ((c.steps & kReadLast) != 0) ReadAll(file, *model, lie);
  const ZoStreamE::Status closed = file.Close();
  if (closed != ZoStreamE::StatusOk && !lie) Fail("a session failed although the map tells the truth");
  return closed == ZoStreamE::StatusOk;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kHeaderSize) return 0;
  const Control c = Parse(data);
  const Template& t = Templates()[c.which];

  // The input over the map's stream, from H on.
  std::vector<std::uint8_t> bytes = t.bytes;
  const std::size_t given = std::min(size - kHeaderSize, t.MapRoom() - kOffH);
  for (std::size_t i = 0; i < given; ++i) bytes[t.MapByte(kOffH + i)] = data[kHeaderSize + i];
  std::uint8_t raw[4];
  for (std::size_t i = 0; i < 4; ++i) raw[i] = bytes[t.MapByte(kOffH + i)];
  std::uint32_t h = tz::DecodeFixed32(raw);
  if (!c.rawH) {
    h %= t.Blocks() + 1;
    tz::EncodeFixed32(raw, h);
    for (std::size_t i = 0; i < 4; ++i) bytes[t.MapByte(kOffH + i)] = raw[i];
  }
  if (c.staleDigest) bytes[t.MapByte(0)] ^= 1;

  // Whether an open for writing reads this map, and which held blocks it
  // calls free.
  const bool read = !c.staleDigest && h <= t.Blocks() && std::size_t{h} + 1 <= t.MapRoom() - kOffTable;
  std::vector<bool> lied(t.Blocks() + 1, false);
  bool lie = false;
  for (std::uint32_t n = 1; read && n <= t.Blocks(); ++n) {
    lied[n] = t.held[n] && (n > h || bytes[t.MapByte(kOffTable + n)] == 0);
    lie = lie || lied[n];
  }
  tzfuzz::WriteBytes(Path(), bytes.data(), bytes.size());

  Model model;
  for (const auto& s : t.streams) model[s.first] = Sure(s.second);
  if (RunSession(c, &model, lie)) {
    Verify(model, lied, lie, "after the session");
    if (c.second) {
      CompoundFile file;
      if (OpenFile(file, ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) {
        Fail("the file does not open for writing after a session that ended well");
      }
      const std::string text = Text(c.unit * 37 + 500, 11);
      if (!Put(file, "after", text)) Fail("a write in the second session failed");
      if (file.Close() != ZoStreamE::StatusOk) Fail("the second session failed");
      model["after"] = Sure(text);
      Verify(model, lied, lie, "after the second session");
    }
  } else {
    // A failed session leaves what a crash at that point would: what it
    // wrote may be lost, and the heads of a stream it deleted say free
    // while the directory on disk still names it. But the file opens and no
    // block went to two chains.
    const CheckReport r = CheckCompoundFile(Path().c_str());
    if (!r.opened) Fail("the check cannot open the file after a failed session");
    for (const CheckProblem& p : r.problems) {
      if (p.kind != CheckProblem::kUnreached && p.kind != CheckProblem::kSavedMap &&
          p.kind != CheckProblem::kFreeInHead) {
        Fail("check after a failed session: " + p.text);
      }
    }
    CompoundFile file;
    if (OpenFile(file, ZoStreamE::OpenReadOnly) != ZoStreamE::StatusOk) {
      Fail("the file does not open after a failed session");
    }
  }
  RemoveTemp();
  return 0;
}
