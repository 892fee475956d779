// Block streams: the chains they leave in the file, a model test against a
// std::string, and the edges of reading, writing and seeking.
#include <algorithm>
#include <memory>
#include <locale>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "blockstore/BlockFileCore.h"
#include "blockstore/FileServer.h"
#include "tests/TestUtil.h"

using namespace tztest;

namespace {

// The used lengths along the chain of stream `name` as the closed file
// holds it, and the size its entry gives.
std::vector<std::uint16_t> UsedLengths(const std::string& path, const char* name, std::uint32_t* size) {
  const FileBytes b = ReadAll(path);
  *size = Get32(b, EntryAt(b, name) + bf::kOffSize);
  std::vector<std::uint16_t> used;
  for (std::uint32_t n : Chain(b, FirstBlockOf(b, name))) used.push_back(Get16(b, BlockAt(n) + bf::kOffUsedLength));
  return used;
}

class StreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.Path("s.cf");
    ASSERT_EQ(file_.Open(path_.c_str(), OpenReadWrite), StatusOk);
  }
  std::unique_ptr<std::iostream> Get(const char* name, const char* mode) {
    return std::unique_ptr<std::iostream>(file_.GetIOStream(name, mode));
  }

  ScratchDir dir_;
  std::string path_;
  CompoundFile file_;
};

}  // namespace

TEST_F(StreamTest, ChainsLeftByWrites) {
  struct Case {
    const char* name;
    std::int64_t seekTo;
    std::size_t bytes;
    std::vector<std::uint16_t> used;
    std::uint32_t size;
  };
  const Case cases[] = {
      {"nothing", -1, 0, {0}, 0},
      {"one-block", -1, 1003, {1003, 0}, 1003},
      {"three", -1, 2500, {1003, 1003, 494}, 2500},
      {"gap", 5000, 1, {0, 0, 0, 0, 989}, 5001},
  };
  for (const Case& c : cases) {
    auto out = Get(c.name, "wb");
    ASSERT_TRUE(out);
    if (c.seekTo >= 0) out->seekp(c.seekTo);
    const std::string bytes = Pattern(c.bytes, 1);
    out->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  // Overwriting in the middle keeps the size and the full blocks full.
  std::string three = Pattern(2500, 1);
  three.replace(1500, 3, "XYZ");
  Get("three", "r+b")->seekp(1500).write("XYZ", 3);
  EXPECT_EQ(GetStream(file_, "three"), three);
  file_.Close();
  for (const Case& c : cases) {
    std::uint32_t size = 0;
    EXPECT_EQ(UsedLengths(path_, c.name, &size), c.used) << c.name;
    EXPECT_EQ(size, c.size) << c.name;
  }
  ASSERT_EQ(file_.Open(path_.c_str(), OpenReadOnly), StatusOk);
  const std::string gap = GetStream(file_, "gap");
  ASSERT_EQ(gap.size(), 5001u);
  EXPECT_EQ(gap.substr(0, 5000), std::string(5000, '\0'));
  file_.Close();

  // Blocks that a seek steps over after whole blocks were written hold
  // zeros, not what the stream's block buffers held before.
  ASSERT_EQ(file_.Open(path_.c_str(), OpenReadWrite), StatusOk);
  const std::string head = Pattern(10240, 2);
  {
    auto out = Get("skipped", "wb");
    out->write(head.data(), static_cast<std::streamsize>(head.size()));
    out->seekp(20 * 1003);
    out->put('y');
  }
  const std::string skipped = GetStream(file_, "skipped");
  EXPECT_EQ(skipped, head + std::string(20 * 1003 - head.size(), '\0') + "y");
  EXPECT_EQ(GetStream(file_, "three"), three);
}

// Large writes send runs of whole blocks to the file in one step; writes of
// a few hundred bytes, each flushed, fill every block piece by piece. Both
// must leave the same blocks, also while a second writer takes blocks in
// between and one stream grows over a block the other released, with the
// block map from a scan of the heads or from its saved copy.
TEST(StreamWrites, WholeBlockRunsLeaveTheBlocksPieceByPieceWritesLeave) {
  for (const bool reopen : {false, true}) {
    SCOPED_TRACE(reopen ? "saved map" : "scanned map");
    ScratchDir dir;
    const std::string big = Pattern(300 * 1003 + 17, 3);
    const std::string small = Pattern(5 * 1003, 4);
    auto build = [&](const std::string& path, std::size_t piece) {
      CompoundFile file;
      ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
      ASSERT_TRUE(PutStream(file, "gone", Pattern(3000, 5)));
      ASSERT_TRUE(file.DeleteCFFile("gone"));
      if (reopen) {
        ASSERT_EQ(file.Close(), StatusOk);
        ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
      }
      std::unique_ptr<std::iostream> a(file.GetIOStream("a", "wb"));
      std::unique_ptr<std::iostream> b(file.GetIOStream("b", "wb"));
      auto put = [&](std::iostream& s, const std::string& bytes, std::size_t from, std::size_t n) {
        for (std::size_t at = from; at < from + n; at += piece) {
          s.write(bytes.data() + at, static_cast<std::streamsize>(std::min(piece, from + n - at)));
          s.flush();
        }
      };
      put(*a, big, 0, 100 * 1003 + 5);
      put(*b, small, 0, small.size());
      put(*a, big, 100 * 1003 + 5, big.size() - 100 * 1003 - 5);
      ASSERT_TRUE(a->good() && b->good());
      a.reset();
      b.reset();
      ASSERT_EQ(file.Close(), StatusOk);
    };
    const std::string runs = dir.Path("runs.cf");
    const std::string pieces = dir.Path("pieces.cf");
    build(runs, big.size());
    build(pieces, 500);
    const FileBytes r = ReadAll(runs);
    const FileBytes p = ReadAll(pieces);
    ASSERT_EQ(r.size(), p.size());
    // The directory differs only in its time stamps, and so does the saved
    // map through the directory's digest; every other block must be the
    // same byte for byte.
    std::vector<bool> directory(BlockCount(r) + 1, false);
    for (std::uint32_t n : Chain(r, 1)) directory[n] = true;
    for (std::uint32_t n : Chain(r, FirstBlockOf(r, bf::kFreeListName))) directory[n] = true;
    for (std::uint32_t n = 1; n <= BlockCount(r); ++n) {
      if (directory[n]) continue;
      EXPECT_TRUE(std::equal(r.begin() + BlockAt(n), r.begin() + BlockAt(n) + bf::kBlockSize,
                             p.begin() + BlockAt(n)))
          << "block " << n;
    }
    for (const char* name : {"a", "b"}) {
      EXPECT_EQ(FirstBlockOf(r, name), FirstBlockOf(p, name)) << name;
      EXPECT_EQ(Get32(r, EntryAt(r, name) + bf::kOffSize), Get32(p, EntryAt(p, name) + bf::kOffSize));
    }
  }
}

// Random seeks, reads and writes with chunk sizes that straddle the 1003-byte
// payload and the 10240-byte stream buffer, mirrored on a std::string. A
// third of the steps go on from where the last one stopped (switching
// between reading and writing without a seek), and some reads put their last
// character back and take it again.
TEST_F(StreamTest, ModelAgainstString) {
  std::mt19937 rng(59023);
  const std::size_t chunks[] = {1, 23, 59, 1002, 1003, 1004, 10239, 10240, 10241, 30000};
  std::string model;
  auto stream = Get("model", "wb");
  std::size_t pos = 0;
  bool placed = true;  // the stream stands at pos
  for (int step = 0; step < 3000; ++step) {
    const int op = static_cast<int>(rng() % 10);
    const std::size_t n = chunks[rng() % (sizeof chunks / sizeof chunks[0])];
    if (op < 4) {
      const std::string bytes = Pattern(n, static_cast<std::uint32_t>(step));
      if (!placed || rng() % 3 != 0) stream->seekp(static_cast<std::streamoff>(pos));
      stream->write(bytes.data(), static_cast<std::streamsize>(n));
      if (model.size() < pos + n) model.resize(pos + n, '\0');
      model.replace(pos, n, bytes);
      pos += n;
      placed = true;
    } else if (op < 7) {
      std::string got(n, '\0');
      if (!placed || rng() % 3 != 0) stream->seekg(static_cast<std::streamoff>(pos));
      stream->read(&got[0], static_cast<std::streamsize>(n));
      const std::size_t expect = pos < model.size() ? std::min(n, model.size() - pos) : 0;
      ASSERT_EQ(static_cast<std::size_t>(stream->gcount()), expect) << "step " << step;
      ASSERT_EQ(got.substr(0, expect), model.substr(pos, expect)) << "step " << step;
      pos += expect;
      stream->clear();
      if (expect > 0 && rng() % 4 == 0) {
        ASSERT_TRUE(stream->unget()) << "step " << step;
        ASSERT_EQ(stream->get(), static_cast<unsigned char>(model[pos - 1])) << "step " << step;
      }
      ASSERT_EQ(static_cast<std::size_t>(stream->tellg()), pos) << "step " << step;
      placed = true;
    } else if (op < 9) {
      pos = model.empty() ? 0 : rng() % (model.size() + 1);
      placed = false;
    } else {
      stream.reset();  // closing and reopening keeps every byte
      stream = Get("model", "r+b");
      ASSERT_TRUE(stream);
      placed = false;
    }
    ASSERT_FALSE(stream->bad()) << "step " << step;
  }
  stream->seekg(0, std::ios::end);
  EXPECT_EQ(static_cast<std::size_t>(stream->tellg()), model.size());
  stream.reset();
  file_.Close();
  ASSERT_EQ(file_.Open(path_.c_str(), OpenReadWrite), StatusOk);
  EXPECT_EQ(GetStream(file_, "model"), model);
}

// Two streams on one entry share its size but not their blocks in memory.
// A reader whose copy of the last block is older than the chain another
// stream has grown goes on as a writer would: it grows the chain
// from its own copy (losing the other's bytes past it), and the file's
// status stays good.
TEST_F(StreamTest, StaleCopyOfASharedChainGrowsIt) {
  Get("x", "wb")->write(Pattern(500, 1).data(), 500);
  auto reader = Get("x", "rb");
  char c[10];
  ASSERT_TRUE(reader->read(c, sizeof c));
  {
    auto writer = Get("x", "r+b");
    writer->seekp(500);
    writer->write(Pattern(1000, 2).data(), 1000);
    ASSERT_TRUE(writer->flush());
  }
  std::string got(1000, '\0');
  reader->read(&got[0], 1000);
  EXPECT_EQ(1000, reader->gcount());
  EXPECT_EQ(StatusOk, file_.GetStatus());
  reader.reset();
  file_.Close();
  ASSERT_EQ(file_.Open(path_.c_str(), OpenReadWrite), StatusOk);
  EXPECT_EQ(1500u, file_.FindDirEntry("x")->size);
}

// A write of a buffer's worth or more leaves in the stream's buffer what
// the buffered path leaves there: the entry's size counts only what went to
// the device (the buffer holds 10244 bytes).
TEST_F(StreamTest, LargeWritesLeaveWhatABufferHolds) {
  auto s = Get("big", "wb");
  const std::string bytes = Pattern(30240, 3);
  s->write(bytes.data(), 10240);
  EXPECT_EQ(0u, file_.FindDirEntry("big")->size);
  s->write(bytes.data() + 10240, 20000);
  EXPECT_EQ(2u * 10244, file_.FindDirEntry("big")->size);
  s->write(bytes.data(), 1);
  s.reset();
  EXPECT_EQ(30241u, file_.FindDirEntry("big")->size);
}

// Reads at and across the end are in the model test; seeks it never makes:
// beyond the size (nothing to read, nothing grows) and before the start.
TEST_F(StreamTest, SeeksBeyondEitherEnd) {
  auto s = Get("new", "wb");
  s->write("abcdef", 6);
  char buf[6];
  s->seekg(100);
  EXPECT_FALSE(s->read(buf, 1));
  s->clear();
  s->seekg(-1, std::ios::beg);
  EXPECT_TRUE(s->fail());
  s->clear();
  s->seekg(0);
  EXPECT_TRUE(s->read(buf, 6));
  EXPECT_EQ(std::string(buf, 6), "abcdef");
  s->seekg(0, std::ios::end);
  EXPECT_EQ(s->tellg(), 6);
}

TEST_F(StreamTest, ModesNamesAndOpenCounts) {
  ASSERT_TRUE(PutStream(file_, "Mixed.Case", "data"));
  EXPECT_EQ(GetStream(file_, "mIXED.cASE"), "data");
  EXPECT_EQ(file_.GetIOStream("missing", "rb"), nullptr);
  EXPECT_EQ(file_.GetIOStream("", "wb"), nullptr);
  EXPECT_EQ(file_.GetIOStream(nullptr, "wb"), nullptr);
  EXPECT_EQ(file_.GetIOStream("x", "a+b"), nullptr);
  EXPECT_EQ(file_.GetIOStream(std::string(257, 'n').c_str(), "wb"), nullptr);
  EXPECT_TRUE(PutStream(file_, std::string(256, 'n').c_str(), "longest name"));

  auto text = Get("Mixed.Case", "r");  // no "b": a stream in a failed state
  ASSERT_TRUE(text);
  EXPECT_TRUE(text->bad());

  auto a = Get("mixed.case", "rb");
  auto b = Get("MIXED.CASE", "rb");
  // Both streams count under the name as the directory holds it.
  BlockFileCore* core = OpenShared(path_.c_str(), OpenReadWrite);
  ASSERT_NE(core, nullptr);
  EXPECT_EQ(core->refCount, 5);  // handle, three streams, this probe
  EXPECT_EQ(core->openStreams["Mixed.Case"], 3);  // the failed text stream too
  core->Release(nullptr);
  char first[2] = {}, second[4] = {};
  a->read(first, 2);
  b->read(second, 4);
  EXPECT_EQ(std::string(first, 2), "da");
  EXPECT_EQ(std::string(second, 4), "data");
}

// A block stream starts as a freshly made standard stream does, whatever
// was done to the streams before it, and with the global locale in force
// when it opens (its number formatting included).
TEST_F(StreamTest, StartsLikeAFreshStandardStream) {
  struct Thousands : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
  };
  auto expectFresh = [this](const char* name) {
    const std::iostream fresh(nullptr);
    auto s = Get(name, "wb");
    ASSERT_TRUE(s);
    EXPECT_TRUE(s->good());
    EXPECT_EQ(fresh.flags(), s->flags());
    EXPECT_EQ(fresh.precision(), s->precision());
    EXPECT_EQ(fresh.width(), s->width());
    EXPECT_EQ(fresh.fill(), s->fill());
    EXPECT_EQ(fresh.exceptions(), s->exceptions());
    EXPECT_EQ(nullptr, s->tie());
    EXPECT_EQ(0, s->iword(0));
    EXPECT_TRUE(s->getloc() == std::locale());
    *s << 1234567 << ' ' << 2.5;
    s.reset();
    std::ostringstream want;
    want << 1234567 << ' ' << 2.5;
    EXPECT_EQ(want.str(), GetStream(file_, name));
  };
  {
    auto used = Get("used", "wb");
    used->iword(0) = 7;
    used->precision(2);
    used->setf(std::ios_base::hex | std::ios_base::showpos, std::ios_base::basefield | std::ios_base::showpos);
    used->fill('*');
    used->exceptions(std::ios_base::badbit);
  }
  expectFresh("after-used");
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Thousands));
  expectFresh("grouped");
  EXPECT_EQ("1,234,567 2.5", GetStream(file_, "grouped"));
  std::locale::global(before);
  expectFresh("classic-again");
  EXPECT_EQ("1234567 2.5", GetStream(file_, "classic-again"));
}

TEST_F(StreamTest, StreamKeepsTheFileOpenAfterItsHandleCloses) {
  auto out = Get("late", "wb");
  EXPECT_EQ(file_.Close(), StatusOk);
  out->write("still here", 10);
  out.reset();  // the last holder: the file closes now
  OpenedFile again(path_, OpenReadOnly);
  EXPECT_EQ(GetStream(again, "late"), "still here");
}

TEST_F(StreamTest, ReadOnlyFileRefusesWrites) {
  ASSERT_TRUE(PutStream(file_, "s", "abc"));
  file_.Close();
  ASSERT_EQ(file_.Open(path_.c_str(), OpenReadOnly), StatusOk);
  EXPECT_EQ(file_.GetIOStream("s", "wb"), nullptr);
  EXPECT_EQ(file_.GetStatus(), StatusOk);
  EXPECT_FALSE(file_.DeleteCFFile("s"));
  {
    auto io = Get("s", "r+b");
    io->write("X", 1);
    io->flush();  // the engine refuses the block
    EXPECT_TRUE(io->bad());
  }
  EXPECT_EQ(file_.GetStatus(), ZoStreamE::StatusFailed);
  file_.Close();
  ASSERT_EQ(file_.Open(path_.c_str(), OpenReadOnly), StatusOk);
  {
    // A seek beyond the end grows the chain, whose first new block the
    // engine refuses; no further block numbers are taken after that failure.
    auto in = Get("s", "rb");
    in->seekg(5 * 1003);
    EXPECT_TRUE(in->fail());
    EXPECT_EQ(1, file_.GetNumUsedBlocks());
  }
  file_.Close();
  ASSERT_EQ(file_.Open(path_.c_str(), OpenReadOnly), StatusOk);
  EXPECT_EQ(GetStream(file_, "s"), "abc");
}

// Long reads step along many blocks at once. A link into the directory in
// the middle of the chain must stop them where reads of a few bytes at a
// time stop, in a file open for writing (whose map can tell such a link).
TEST(StreamReads, ALongReadMeetsABadLinkWhereShortReadsDo) {
  ScratchDir dir;
  const std::string path = dir.Path("bad-link.cf");
  const std::string content = Pattern(40 * 1003, 6);
  MakeFile(path, {{"long", content}});
  FileBytes bytes = ReadAll(path);
  const std::vector<std::uint32_t> chain = Chain(bytes, FirstBlockOf(bytes, "long"));
  ASSERT_GT(chain.size(), 20u);
  Put32(bytes, BlockAt(chain[19]) + bf::kOffNextBlock, 1);  // block 1 is the directory's
  WriteAll(path, bytes);
  for (const std::size_t piece : {std::size_t{100}, content.size()}) {
    SCOPED_TRACE(piece);
    CompoundFile file;
    ASSERT_EQ(file.Open(path.c_str(), OpenReadWrite), StatusOk);
    std::unique_ptr<std::iostream> in(file.GetIOStream("long", "rb"));
    std::string got(content.size(), '\0');
    std::size_t at = 0;
    while (at < got.size() && in->read(&got[at], static_cast<std::streamsize>(std::min(piece, got.size() - at)))) {
      at += static_cast<std::size_t>(in->gcount());
    }
    at += static_cast<std::size_t>(in->gcount());
    EXPECT_TRUE(in->bad());
    EXPECT_EQ(file.GetStatus(), ZoStreamE::StatusFailed);
    // What arrived is right, and nothing from beyond the bad link reached
    // the caller's memory.
    EXPECT_LE(at, 20u * 1003);
    EXPECT_EQ(got.substr(0, at), content.substr(0, at));
    EXPECT_EQ(got.find_first_not_of('\0', 20 * 1003), std::string::npos);
  }
}
