// Numbered stream directories: the worked byte layout on every kind of
// stream, round trips of many items, the edges of the writer and reader,
// and damaged or hostile tables.
#include <tesselzostream/StreamDirectory.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "tests/streamformats/StreamKinds.h"

using tztest::AnyStream;
using tztest::Contents;
using tztest::StreamKind;

namespace {

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) s.push_back(static_cast<char>(b));
  return s;
}

// Capacity 3; id 7 with "abc", then id 2 with "defgh".
void WriteExample(std::ostream& out) {
  OutputStreamDirectory dir(out, 3);
  dir.GetOutput(7) << "abc";
  dir.GetOutput(2) << "defgh";
  dir.Close();
}

const std::string kExample = Bytes({'x', 'A', 3, 0, 2, 0,              // magic, capacity, count
                                    2, 0, 7, 0, 0, 0,                  // ids, free slot
                                    31, 0, 0, 0, 28, 0, 0, 0, 0, 0, 0, 0,  // offsets
                                    36, 0, 0, 0}) +                    // end position
                             "abcdefgh";

std::string ReadN(std::istream& in, std::size_t n) {
  std::string s(n, '\0');
  in.read(&s[0], static_cast<std::streamsize>(n));
  s.resize(static_cast<std::size_t>(in.gcount()));
  return s;
}

// A stream holding `bytes`, as a reader finds it.
std::unique_ptr<std::stringstream> Damaged(std::string bytes, std::size_t at, std::initializer_list<int> put) {
  for (int b : put) bytes[at++] = static_cast<char>(b);
  return tztest::StringStream(bytes);
}

}  // namespace

TEST(StreamDirectory, WorkedExampleOnEveryKindOfStream) {
  for (StreamKind kind : {StreamKind::String, StreamKind::File, StreamKind::Block}) {
    SCOPED_TRACE(tztest::KindName(kind));
    AnyStream any(kind);
    std::iostream& s = any.stream();
    WriteExample(s);
    EXPECT_EQ(s.tellp(), 36);
    EXPECT_EQ(Contents(s), kExample);

    InputStreamDirectory dir(s);
    ASSERT_TRUE(s.good());
    EXPECT_EQ(s.tellg(), 28);  // the first data byte
    ASSERT_NE(dir.GetInput(2), nullptr);
    EXPECT_EQ(ReadN(s, 5), "defgh");
    ASSERT_NE(dir.GetInput(7), nullptr);
    EXPECT_EQ(ReadN(s, 3), "abc");
    EXPECT_EQ(dir.GetInput(3), nullptr);
    dir.Close();
    EXPECT_EQ(s.tellg(), 36);
  }
}

TEST(StreamDirectory, ManyItemsRoundTripOnStringAndBlockStreams) {
  for (StreamKind kind : {StreamKind::String, StreamKind::Block}) {
    SCOPED_TRACE(tztest::KindName(kind));
    AnyStream any(kind);
    std::iostream& s = any.stream();
    std::mt19937 random(5);
    struct Item {
      std::vector<std::uint16_t> ids;
      std::vector<std::string> data;
    };
    std::vector<Item> items(12);
    s << "lead";  // directories need not start at 0
    for (Item& item : items) {
      const std::uint16_t capacity = static_cast<std::uint16_t>(random() % 81);
      std::vector<std::uint16_t> pool(65536);
      std::iota(pool.begin(), pool.end(), 0);
      std::shuffle(pool.begin(), pool.end(), random);
      item.ids.assign(pool.begin(), pool.begin() + random() % (capacity + 1));
      OutputStreamDirectory dir(s, capacity);
      for (std::uint16_t id : item.ids) {
        // Lengths cross the 1003-byte payload of a block.
        item.data.push_back(tztest::Pattern(1 + random() % 2500, id));
        dir.GetOutput(id) << item.data.back();
      }
    }
    ASSERT_TRUE(s.good());

    s.seekg(4);
    for (const Item& item : items) {
      InputStreamDirectory dir(s);
      ASSERT_TRUE(s.good());
      std::vector<std::size_t> order(item.ids.size());
      std::iota(order.begin(), order.end(), 0);
      std::shuffle(order.begin(), order.end(), random);
      for (std::size_t i : order) {
        ASSERT_NE(dir.GetInput(item.ids[i]), nullptr);
        ASSERT_EQ(ReadN(s, item.data[i].size()), item.data[i]);
      }
    }
    EXPECT_EQ(s.peek(), std::char_traits<char>::eof());
  }
}

TEST(StreamDirectory, SlotsWithoutDataAreDropped) {
  std::stringstream s;
  {
    OutputStreamDirectory dir(s, 4);  // closed by the destructor
  }
  EXPECT_EQ(s.str(), Bytes({'x', 'A', 4, 0, 0, 0}) + std::string(24, '\0') + Bytes({34, 0, 0, 0}));
  {
    InputStreamDirectory dir(s);
    EXPECT_TRUE(s.good());
    EXPECT_EQ(dir.GetInput(0), nullptr);
  }

  s.str("");
  {
    OutputStreamDirectory dir(s, 4);
    dir.GetOutput(1);
    dir.GetOutput(2) << "two";  // takes over the slot of 1
    dir.GetOutput(3);           // nothing follows: dropped at Close
  }
  InputStreamDirectory dir(s);
  EXPECT_EQ(dir.GetInput(1), nullptr);
  EXPECT_EQ(dir.GetInput(3), nullptr);
  ASSERT_NE(dir.GetInput(2), nullptr);
  EXPECT_EQ(ReadN(s, 3), "two");
}

TEST(StreamDirectory, ReaderPlacesTheStreamAndCloseLeavesItBehindTheData) {
  std::stringstream s;
  WriteExample(s);
  s << "next";
  InputStreamDirectory dir(s);
  ASSERT_NE(dir.GetInput(7), nullptr);
  EXPECT_EQ(ReadN(s, 3), "abc");
  ASSERT_NE(dir.GetInput(7), nullptr);  // back to the start of the same data
  EXPECT_EQ(ReadN(s, 3), "abc");
  ASSERT_NE(dir.GetInput(2), nullptr);
  EXPECT_EQ(ReadN(s, 99), "defghnext");  // ends at the stream's end: eofbit
  EXPECT_TRUE(s.eof());
  EXPECT_EQ(dir.GetInput(7), nullptr);  // a state bit is set
  s.clear(std::ios::eofbit);
  dir.Close();
  EXPECT_FALSE(s.fail());
  EXPECT_EQ(ReadN(s, 4), "next");

  // A second Open of an open reader changes nothing.
  s.clear();
  s.seekg(0);
  InputStreamDirectory again(s);
  EXPECT_FALSE(again.Open(s));
  EXPECT_TRUE(s.good());
  EXPECT_NE(again.GetInput(2), nullptr);
}

TEST(StreamDirectory, WriterClosesOnceAndLeavesTheStreamBehindTheData) {
  std::stringstream s;
  OutputStreamDirectory dir(s, 3);
  dir.GetOutput(7) << "abc";
  dir.GetOutput(2) << "defgh";
  dir.Close();
  s << "tail";
  dir.Close();  // no second table: "tail" would end up in it
  EXPECT_EQ(s.str(), kExample + "tail");
}

TEST(StreamDirectory, WriterRefusesWhatItCannotHold) {
  std::stringstream tooLarge;
  { OutputStreamDirectory dir(tooLarge, 81); }
  EXPECT_TRUE(tooLarge.bad());
  EXPECT_EQ(tooLarge.str(), "");

  std::stringstream full;
  OutputStreamDirectory dir(full, 1);
  dir.GetOutput(1) << "a";
  EXPECT_TRUE(full.good());
  dir.GetOutput(2) << "b";
  EXPECT_TRUE(full.bad());

  std::stringstream closed;
  OutputStreamDirectory done(closed, 1);
  done.Close();
  done.GetOutput(1);
  EXPECT_TRUE(closed.bad());
}

TEST(StreamDirectory, DuplicateIdsStillClose) {
  std::stringstream s;
  {
    OutputStreamDirectory dir(s, 3);
    dir.GetOutput(5) << "first";
    dir.GetOutput(5) << "again";
  }
  InputStreamDirectory dir(s);
  ASSERT_NE(dir.GetInput(5), nullptr);
  const std::string found = ReadN(s, 5);
  EXPECT_TRUE(found == "first" || found == "again") << found;
}

TEST(StreamDirectory, EveryTruncationIsRefused) {
  for (std::size_t cut = 0; cut < kExample.size(); ++cut) {
    auto s = tztest::StringStream(kExample.substr(0, cut));
    InputStreamDirectory dir(*s);
    EXPECT_TRUE(s->bad()) << "cut at " << cut;
    EXPECT_EQ(dir.GetInput(2), nullptr);
  }
}

TEST(StreamDirectory, DamagedTablesAreRefused) {
  struct Case {
    const char* what;
    std::size_t at;
    std::initializer_list<int> bytes;
  };
  const Case cases[] = {
      {"wrong magic", 1, {'a'}},
      {"capacity above 80", 2, {81, 0}},
      {"count above capacity", 4, {4, 0}},
      {"ids descending", 6, {9}},
      {"offset inside the table", 12, {27}},
      {"offset behind the end", 16, {37}},
      {"end beyond the stream", 24, {37}},
      {"end before the data", 24, {27}},
      {"offset far beyond the stream", 15, {0xFF}},
  };
  for (const Case& c : cases) {
    auto s = Damaged(kExample, c.at, c.bytes);
    InputStreamDirectory dir(*s);
    EXPECT_TRUE(s->bad()) << c.what;
    EXPECT_EQ(dir.GetInput(2), nullptr) << c.what;
    EXPECT_EQ(dir.GetInput(7), nullptr) << c.what;
  }

  // A writer that never closed leaves count = N and the end at P + 2.
  std::stringstream open;
  OutputStreamDirectory unfinished(open, 3);
  unfinished.GetOutput(1) << "data";
  auto copy = tztest::StringStream(open.str());
  InputStreamDirectory dir(*copy);
  EXPECT_TRUE(copy->bad());
}

TEST(StreamDirectory, HostileOffsetNeverGrowsABlockStream) {
  AnyStream any(StreamKind::Block);
  std::iostream& s = any.stream();
  s << Damaged(kExample, 12, {0xF0, 0xFF, 0xFF, 0x7F})->str();
  s.seekg(0);
  InputStreamDirectory dir(s);
  EXPECT_TRUE(s.bad());
  EXPECT_EQ(dir.GetInput(2), nullptr);
  EXPECT_EQ(Contents(s).size(), kExample.size());
}

TEST(StreamDirectory, RandomDamageGivesRefusalOrPositionsInsideTheStream) {
  std::mt19937 random(11);
  std::stringstream good;
  {
    OutputStreamDirectory dir(good, 6);
    for (std::uint16_t id : {4, 1, 9, 2}) dir.GetOutput(id) << tztest::Pattern(40, id);
  }
  const std::string valid = good.str();
  for (int round = 0; round < 3000; ++round) {
    std::string bytes = valid;
    for (int flips = 1 + random() % 3; flips > 0; --flips) {
      bytes[random() % 70] = static_cast<char>(random());  // in the table
    }
    auto s = tztest::StringStream(bytes);
    InputStreamDirectory dir(*s);
    for (std::uint16_t id = 0; id < 12; ++id) {
      if (dir.GetInput(id) == nullptr) continue;
      const std::streamoff at = s->tellg();
      EXPECT_GE(at, 0);
      EXPECT_LE(at, static_cast<std::streamoff>(bytes.size()));
    }
  }
}
