// Numbered stream directories: the worked layout on every kind of stream,
// round trips, the edges of writer and reader, damaged tables.
#include <tesselzostream/OldStreamDirectory.h>
#include <tesselzostream/StreamDirectory.h>

#include <algorithm>
#include <numeric>
#include <random>

#include <gtest/gtest.h>

#include "tests/streamformats/StreamKinds.h"

using namespace tztest;

namespace {

// Capacity 3; id 7 with "abc", then id 2 with "defgh".
void WriteExample(std::ostream& out) {
  OutputStreamDirectory dir(out, 3);
  dir.GetOutput(7) << "abc";
  dir.GetOutput(2) << "defgh";
}

const std::string kExample = Bytes({'x', 'A', 3, 0, 2, 0,                      // capacity, count
                                    2, 0, 7, 0, 0, 0,                          // ids, free slot
                                    31, 0, 0, 0, 28, 0, 0, 0, 0, 0, 0, 0,      // offsets
                                    36, 0, 0, 0}) + "abcdefgh";               // end position

}  // namespace

TEST(StreamDirectory, WorkedExampleOnEveryKindOfStream) {
  for (StreamKind kind : kAllKinds) {
    SCOPED_TRACE(KindName(kind));
    AnyStream any(kind);
    std::iostream& s = any.stream();
    WriteExample(s);
    EXPECT_EQ(s.tellp(), 36);  // behind the data: another item may follow
    EXPECT_EQ(Contents(s), kExample);

    InputStreamDirectory dir(s);
    EXPECT_EQ(s.tellg(), 28);
    ASSERT_NE(dir.GetInput(2), nullptr);
    EXPECT_EQ(ReadN(s, 5), "defgh");
    ASSERT_NE(dir.GetInput(7), nullptr);
    EXPECT_EQ(ReadN(s, 3), "abc");
    EXPECT_EQ(dir.GetInput(3), nullptr);
    dir.Close();
    EXPECT_EQ(s.tellg(), 36);
  }
}

TEST(StreamDirectory, ItemsAfterOneAnotherRoundTripOnStringAndBlockStreams) {
  for (StreamKind kind : {StreamKind::String, StreamKind::Block}) {
    SCOPED_TRACE(KindName(kind));
    AnyStream any(kind);
    std::iostream& s = any.stream();
    std::mt19937 random(5);
    std::vector<std::vector<std::pair<std::uint16_t, std::string>>> items(12);
    s << "lead";  // offsets are absolute: a directory need not start at 0
    for (auto& item : items) {
      const auto capacity = static_cast<std::uint16_t>(random() % 81);
      std::vector<std::uint16_t> ids(65536);
      std::iota(ids.begin(), ids.end(), 0);
      std::shuffle(ids.begin(), ids.end(), random);
      OutputStreamDirectory dir(s, capacity);
      for (std::size_t i = random() % (capacity + 1); i > 0; --i) {
        // Lengths cross the 1003-byte payload of a block.
        item.emplace_back(ids[i], Pattern(1 + random() % 2500, ids[i]));
        dir.GetOutput(ids[i]) << item.back().second;
      }
    }
    s.seekg(4);
    for (auto& item : items) {
      InputStreamDirectory dir(s);
      ASSERT_TRUE(s.good());
      std::shuffle(item.begin(), item.end(), random);
      for (const auto& [id, data] : item) {
        ASSERT_NE(dir.GetInput(id), nullptr);
        ASSERT_EQ(ReadN(s, data.size()), data);
      }
    }
    EXPECT_EQ(s.peek(), std::char_traits<char>::eof());
  }
}

TEST(StreamDirectory, EdgesOfWriterAndReader) {
  std::stringstream s;
  { OutputStreamDirectory empty(s, 4); }
  // Slots without data are dropped: taken over, or empty at Close.
  {
    OutputStreamDirectory dir(s, 4);
    dir.GetOutput(1);
    dir.GetOutput(2) << "two";
    dir.GetOutput(3);
    dir.Close();
    s << "next";
    dir.Close();  // writes nothing more
  }
  const std::string emptyDirectory = Bytes({'x', 'A', 4, 0, 0, 0}) + std::string(24, '\0');
  EXPECT_EQ(s.str().substr(0, 34), emptyDirectory + Bytes({34, 0, 0, 0}));

  InputStreamDirectory empty(s);
  EXPECT_EQ(empty.GetInput(0), nullptr);
  empty.Close();
  InputStreamDirectory dir(s);
  EXPECT_FALSE(dir.Open(s));  // already open: nothing changes
  EXPECT_EQ(dir.GetInput(1), nullptr);
  EXPECT_EQ(dir.GetInput(3), nullptr);
  ASSERT_NE(dir.GetInput(2), nullptr);
  EXPECT_EQ(ReadN(s, 99), "twonext");  // to the stream's end
  EXPECT_EQ(dir.GetInput(2), nullptr);  // a state bit is set
  s.clear(std::ios::eofbit);
  dir.Close();  // behind the data even from the end of the stream
  EXPECT_EQ(ReadN(s, 4), "next");
}

TEST(StreamDirectory, WriterRefusesWhatItCannotHold) {
  std::stringstream tooLarge, full, closed;
  { OutputStreamDirectory dir(tooLarge, 81); }
  EXPECT_TRUE(tooLarge.bad());
  EXPECT_EQ(tooLarge.str(), "");

  OutputStreamDirectory dir(full, 1);
  dir.GetOutput(1) << "a";
  EXPECT_TRUE(full.good());
  dir.GetOutput(2);
  EXPECT_TRUE(full.bad());

  OutputStreamDirectory done(closed, 1);
  done.Close();
  done.GetOutput(1);
  EXPECT_TRUE(closed.bad());
}

TEST(StreamDirectory, TruncatedOrDamagedTables) {
  // Refused at Open: badbit, and GetInput gives null.
  std::vector<std::pair<std::string, std::string>> refused;
  for (std::size_t cut = 0; cut < 28; ++cut) {
    refused.emplace_back("cut at " + std::to_string(cut), kExample.substr(0, cut));
  }
  refused.emplace_back("wrong magic", Patched(kExample, 1, {'a'}));
  refused.emplace_back("capacity above 80", Patched(kExample, 2, {81}));
  refused.emplace_back("count above capacity", Patched(kExample, 4, {4}));
  for (const auto& [what, bytes] : refused) {
    auto s = StringStream(bytes);
    InputStreamDirectory dir(*s);
    EXPECT_TRUE(s->bad()) << what;
    EXPECT_EQ(dir.GetInput(2), nullptr) << what;
  }

  // Opened; the stream's end bounds each seek. `at` is where GetInput(id)
  // places the stream, kMissing for null with the stream untouched,
  // kBeyond for null and badbit; `end` is where Close leaves it, kBeyond
  // for failbit with the stream not moved.
  constexpr std::streamoff kMissing = -1, kBeyond = -2;
  struct Opened {
    std::string what, bytes;
    std::uint16_t id;
    std::streamoff at, end;
  };
  std::stringstream unfinished;  // count = N, zero slots, the end at P + 2
  OutputStreamDirectory never(unfinished, 3);
  never.GetOutput(2) << "data";
  const Opened cases[] = {
      {"never closed", unfinished.str(), 0, 0, 2},
      {"never closed, id not in the zero slots", unfinished.str(), 2, kMissing, 2},
      {"data cut", kExample.substr(0, 30), 2, kBeyond, kBeyond},
      {"ids out of order", Patched(kExample, 6, {9}), 7, kMissing, 36},
      {"offset in the table", Patched(kExample, 12, {27}), 2, 27, 36},
      {"offset at the end", Patched(kExample, 12, {36}), 2, 36, 36},
      {"offset behind the end", Patched(kExample, 12, {37}), 2, kBeyond, 36},
      {"offset far beyond", Patched(kExample, 15, {0xFF}), 2, kBeyond, 36},
      {"end beyond the stream", Patched(kExample, 24, {37}), 2, 31, kBeyond},
      {"end before the data", Patched(kExample, 24, {2}), 7, 28, 2},
  };
  for (const Opened& c : cases) {
    auto s = StringStream(c.bytes);
    InputStreamDirectory dir(*s);
    ASSERT_TRUE(s->good()) << c.what;
    std::istream* found = dir.GetInput(c.id);
    EXPECT_EQ(found != nullptr, c.at >= 0) << c.what;
    EXPECT_EQ(s->bad(), c.at == kBeyond) << c.what;
    s->clear();
    EXPECT_EQ(s->tellg(), c.at >= 0 ? c.at : 28) << c.what;
    dir.Close();
    EXPECT_EQ(s->fail(), c.end == kBeyond) << c.what;
    s->clear();
    EXPECT_EQ(s->tellg(), c.end >= 0 ? c.end : std::max<std::streamoff>(c.at, 28)) << c.what;
  }

  // On a block stream a seek far beyond the end would grow the file.
  AnyStream any(StreamKind::Block);
  any.stream() << Patched(Patched(kExample, 12, {0xF0, 0xFF, 0xFF, 0x7F}), 24, {0, 0, 0, 0x7F});
  InputStreamDirectory dir(any.stream().seekg(0));
  EXPECT_EQ(dir.GetInput(2), nullptr);
  EXPECT_TRUE(any.stream().bad());
  any.stream().clear();
  dir.Close();
  EXPECT_TRUE(any.stream().fail());
  EXPECT_EQ(Contents(any.stream()).size(), kExample.size());
}

TEST(StreamDirectory, WritersSurviveABlockStreamWhoseFileFailed) {
  ScratchDir dir;
  FaultyEnv env;
  ScopedEnv scoped(&env);
  CompoundFile file;
  ASSERT_EQ(file.Open(dir.Path("full.cf").c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
  std::unique_ptr<std::iostream> s(file.GetIOStream("items", "wb"));
  std::unique_ptr<std::iostream> other(file.GetIOStream("other", "wb"));
  {
    OutputStreamDirectory numbered(*s, 2);
    OldOutputStreamDirectory named(*s);
    numbered.GetOutput(1) << "one";
    named.GetOutput("a") << "a";
    env.Reset(1);  // from now on every platform write fails, as on a full disk
    *other << Pattern(2000000, 1) << std::flush;
    ASSERT_NE(file.GetStatus(), ZoStreamE::StatusOk);
    numbered.GetOutput(2) << "two";
  }  // both close on a stream whose device now throws on every seek
  EXPECT_TRUE(s->bad());
  other.reset();
  s.reset();
  file.Close();
}
