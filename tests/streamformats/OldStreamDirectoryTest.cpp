// Named stream directories: the worked byte layout on every kind of stream,
// the name hash and table order, round trips of many names, the edges of
// the writer and reader, IsStreamDirectory, and damaged or hostile tables.
#include <tesselzostream/OldStreamDirectory.h>

#include <algorithm>
#include <map>
#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "streamformats/NamedTable.h"
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

std::string NameField(const char* name) {
  std::string field(name);
  field.resize(12, '\0');
  return field;
}

const std::string kMagic = Bytes({1, 'S', 't', 'r', 'e', 'a', 'm', 2, 'D', 'i', 'r', 0});

// "abd" with 3 bytes, then "abc" with 5.
void WriteExample(std::ostream& out) {
  OldOutputStreamDirectory dir(out);
  dir.GetOutput("abd") << "ABD";
  dir.GetOutput("abc") << "ABCDE";
  dir.Close();
}

const std::string kExample = kMagic + Bytes({28, 0, 0, 0, 0, 0, 0, 0}) + "ABDABCDE" +
                             Bytes({2, 0, 0, 0, 23, 0, 0, 0}) + NameField("abc") +
                             Bytes({20, 0, 0, 0}) + NameField("abd");

std::string ReadN(std::istream& in, std::size_t n) {
  std::string s(n, '\0');
  in.read(&s[0], static_cast<std::streamsize>(n));
  s.resize(static_cast<std::size_t>(in.gcount()));
  return s;
}

std::unique_ptr<std::stringstream> Damaged(std::string bytes, std::size_t at, std::initializer_list<int> put) {
  for (int b : put) bytes[at++] = static_cast<char>(b);
  return tztest::StringStream(bytes);
}

// A random name of 0 to 14 bytes from 1 to 255, so names are cut and use
// bytes above 127.
std::string RandomName(std::mt19937& random) {
  std::string name(random() % 15, '\0');
  for (char& c : name) c = static_cast<char>(1 + random() % 255);
  return name;
}

}  // namespace

TEST(OldStreamDirectory, WorkedExampleOnEveryKindOfStream) {
  for (StreamKind kind : {StreamKind::String, StreamKind::File, StreamKind::Block}) {
    SCOPED_TRACE(tztest::KindName(kind));
    AnyStream any(kind);
    std::iostream& s = any.stream();
    WriteExample(s);
    EXPECT_EQ(s.tellp(), 64);
    EXPECT_EQ(Contents(s), kExample);

    EXPECT_TRUE(OldInputStreamDirectory::IsStreamDirectory(s));
    OldInputStreamDirectory dir(s);
    ASSERT_TRUE(s.good());
    ASSERT_NE(dir.GetInput("abc"), nullptr);
    EXPECT_EQ(ReadN(s, 5), "ABCDE");
    ASSERT_NE(dir.GetInput("abd"), nullptr);
    EXPECT_EQ(ReadN(s, 3), "ABD");
    EXPECT_EQ(dir.GetInput("ab"), nullptr);
    EXPECT_EQ(dir.GetInput(nullptr), nullptr);
    dir.Close();
    EXPECT_EQ(s.tellg(), 64);
  }
}

TEST(OldStreamDirectory, HashIsFnv1WithSignExtendedCharacters) {
  EXPECT_EQ(tz::NameHash(""), 2166136261u);
  EXPECT_EQ(tz::NameHash("a"), 0x050C5D7Eu);  // the published FNV-1 value
  EXPECT_EQ(tz::NameHash("abc"), 0x439C2F4Bu);
  // 0xE9 goes in as 0xFFFFFFE9; the published FNV-1 gives 0x050C5DF6.
  EXPECT_EQ(tz::NameHash("\xE9"), 0xFAF3A2F6u);
}

TEST(OldStreamDirectory, NamesAreCutToElevenCharacters) {
  std::stringstream s;
  {
    OldOutputStreamDirectory dir(s);
    dir.GetOutput("elevenchars") << "11";
    dir.GetOutput("twelve-chars") << "12";
    dir.GetOutput("") << "empty";
  }
  OldInputStreamDirectory dir(s);
  ASSERT_NE(dir.GetInput("elevenchars"), nullptr);
  EXPECT_EQ(ReadN(s, 2), "11");
  ASSERT_NE(dir.GetInput("twelve-chars"), nullptr);
  EXPECT_EQ(ReadN(s, 2), "12");
  ASSERT_NE(dir.GetInput("twelve-char"), nullptr);
  EXPECT_EQ(ReadN(s, 2), "12");
  EXPECT_EQ(dir.GetInput("twelve-chars and more"), dir.GetInput("twelve-char"));
  ASSERT_NE(dir.GetInput(""), nullptr);
  EXPECT_EQ(ReadN(s, 5), "empty");
  EXPECT_EQ(s.str().find("twelve-chars"), std::string::npos);
}

TEST(OldStreamDirectory, EntriesWithoutDataAreDropped) {
  std::stringstream s;
  { OldOutputStreamDirectory dir(s); }
  EXPECT_EQ(s.str(), kMagic + Bytes({20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  {
    OldInputStreamDirectory dir(s);
    EXPECT_TRUE(s.good());
    EXPECT_EQ(dir.GetInput(""), nullptr);
  }

  s.str("");
  {
    OldOutputStreamDirectory dir(s);
    dir.GetOutput("one");
    dir.GetOutput("two") << "2";  // takes over the entry of "one"
    dir.GetOutput("three");       // nothing follows: dropped at Close
  }
  OldInputStreamDirectory dir(s);
  EXPECT_EQ(dir.GetInput("one"), nullptr);
  EXPECT_EQ(dir.GetInput("three"), nullptr);
  ASSERT_NE(dir.GetInput("two"), nullptr);
  EXPECT_EQ(ReadN(s, 1), "2");
}

TEST(OldStreamDirectory, ManyNamesRoundTripOnStringAndBlockStreams) {
  for (StreamKind kind : {StreamKind::String, StreamKind::Block}) {
    SCOPED_TRACE(tztest::KindName(kind));
    AnyStream any(kind);
    std::iostream& s = any.stream();
    std::mt19937 random(3);
    std::vector<std::map<std::string, std::string>> items(3);
    s << "lead";
    for (auto& item : items) {
      OldOutputStreamDirectory dir(s);
      for (int i = 0; i < 400; ++i) {
        const std::string full = RandomName(random);
        const std::string name = full.substr(0, 11);  // as the table keeps it
        if (item.count(name)) continue;
        item[name] = tztest::Pattern(1 + random() % 1500, random());
        dir.GetOutput(full.c_str()) << item[name];
      }
    }
    ASSERT_TRUE(s.good());

    s.seekg(4);
    for (const auto& item : items) {
      ASSERT_TRUE(OldInputStreamDirectory::IsStreamDirectory(s));
      OldInputStreamDirectory dir(s);
      ASSERT_TRUE(s.good());
      for (const auto& entry : item) {
        ASSERT_NE(dir.GetInput(entry.first.c_str()), nullptr);
        ASSERT_EQ(ReadN(s, entry.second.size()), entry.second);
      }
      for (int i = 0; i < 50; ++i) {
        const std::string name = RandomName(random).substr(0, 11);
        if (!item.count(name)) {
          EXPECT_EQ(dir.GetInput(name.c_str()), nullptr);
        }
      }
    }
    EXPECT_EQ(s.peek(), std::char_traits<char>::eof());
  }
}

TEST(OldStreamDirectory, IsStreamDirectoryLeavesTheStreamAsItWas) {
  std::stringstream s;
  s << "xyz";
  WriteExample(s);
  s.seekg(3);
  EXPECT_TRUE(OldInputStreamDirectory::IsStreamDirectory(s));
  EXPECT_EQ(s.tellg(), 3);

  s.seekg(4);  // inside the magic
  EXPECT_FALSE(OldInputStreamDirectory::IsStreamDirectory(s));
  EXPECT_TRUE(s.good());
  EXPECT_EQ(s.tellg(), 4);

  auto shortStream = tztest::StringStream(kMagic.substr(0, 5));
  EXPECT_FALSE(OldInputStreamDirectory::IsStreamDirectory(*shortStream));
  EXPECT_TRUE(shortStream->good());
  EXPECT_EQ(ReadN(*shortStream, 5), kMagic.substr(0, 5));

  s.seekg(3);
  s.setstate(std::ios::eofbit);
  EXPECT_FALSE(OldInputStreamDirectory::IsStreamDirectory(s));
  EXPECT_EQ(s.rdstate(), std::ios::eofbit);
}

TEST(OldStreamDirectory, WriterClosesOnceAndCopiesCloseByThemselves) {
  std::stringstream s;
  OldOutputStreamDirectory dir(s);
  dir.GetOutput("abd") << "ABD";
  dir.GetOutput("abc") << "ABCDE";
  OldOutputStreamDirectory copy(dir);
  dir.Close();
  s << "tail";
  dir.Close();  // no second table
  EXPECT_EQ(s.str(), kExample + "tail");
  dir.GetOutput("late");
  EXPECT_TRUE(s.bad());

  // The copy appends its own table, and the head now names it.
  s.clear();
  copy.Close();
  EXPECT_EQ(s.str().substr(12, 4), Bytes({68, 0, 0, 0}));
  OldInputStreamDirectory reader(s);
  ASSERT_NE(reader.GetInput("abc"), nullptr);
  EXPECT_EQ(ReadN(s, 5), "ABCDE");
  reader.Close();
  EXPECT_EQ(s.tellg(), 68 + 4 + 2 * 16);
}

TEST(OldStreamDirectory, ReaderCopiesShareOneTable) {
  std::stringstream s;
  WriteExample(s);
  s << "next";
  OldInputStreamDirectory first(s);
  OldInputStreamDirectory second;
  EXPECT_EQ(second.GetInput("abc"), nullptr);  // closed
  second = first;
  EXPECT_FALSE(first.Open(s));  // already open: nothing changes
  ASSERT_NE(first.GetInput("abd"), nullptr);
  EXPECT_EQ(ReadN(s, 3), "ABD");
  first.Close();
  EXPECT_EQ(ReadN(s, 4), "next");
  ASSERT_NE(second.GetInput("abc"), nullptr);  // still holds the table
  EXPECT_EQ(ReadN(s, 5), "ABCDE");
}

TEST(OldStreamDirectory, EveryTruncationIsRefused) {
  for (std::size_t cut = 0; cut < kExample.size(); ++cut) {
    auto s = tztest::StringStream(kExample.substr(0, cut));
    OldInputStreamDirectory dir(*s);
    EXPECT_TRUE(s->bad()) << "cut at " << cut;
    EXPECT_EQ(dir.GetInput("abc"), nullptr);
  }
}

TEST(OldStreamDirectory, DamagedTablesAreRefused) {
  struct Case {
    const char* what;
    std::size_t at;
    std::initializer_list<int> bytes;
  };
  const Case cases[] = {
      {"wrong magic", 11, {'x'}},
      {"table position 0, never closed", 12, {0}},
      {"table inside the head", 12, {19}},
      {"table beyond the stream", 12, {61}},
      {"count one too many", 28, {3}},
      {"count of four billion", 28, {0xFF, 0xFF, 0xFF, 0xFF}},
      {"entry inside the head", 32, {19}},
      {"entry behind the table", 48, {29}},
      {"entry far beyond the stream", 51, {0x7F}},
  };
  for (const Case& c : cases) {
    auto s = Damaged(kExample, c.at, c.bytes);
    OldInputStreamDirectory dir(*s);
    EXPECT_TRUE(s->bad()) << c.what;
    EXPECT_EQ(dir.GetInput("abc"), nullptr) << c.what;
    EXPECT_EQ(dir.GetInput("abd"), nullptr) << c.what;
  }
}

TEST(OldStreamDirectory, StoredOrderAndUnterminatedNamesAreNotTrusted) {
  // The two entries swapped, and the second name filled to all 12 bytes.
  std::string bytes = kExample;
  std::swap_ranges(bytes.begin() + 32, bytes.begin() + 48, bytes.begin() + 48);
  bytes.replace(36, 12, "abcdefghijkl");
  auto s = tztest::StringStream(bytes);
  OldInputStreamDirectory dir(*s);
  ASSERT_TRUE(s->good());
  ASSERT_NE(dir.GetInput("abcdefghijk"), nullptr);
  EXPECT_EQ(ReadN(*s, 3), "ABD");
  ASSERT_NE(dir.GetInput("abc"), nullptr);
  EXPECT_EQ(ReadN(*s, 5), "ABCDE");
}

TEST(OldStreamDirectory, HostileOffsetNeverGrowsABlockStream) {
  AnyStream any(StreamKind::Block);
  std::iostream& s = any.stream();
  s << Damaged(kExample, 32, {0xF0, 0xFF, 0xFF, 0x7F})->str();
  s.seekg(0);
  OldInputStreamDirectory dir(s);
  EXPECT_TRUE(s.bad());
  EXPECT_EQ(dir.GetInput("abc"), nullptr);
  EXPECT_EQ(Contents(s).size(), kExample.size());
}

TEST(OldStreamDirectory, RandomDamageGivesRefusalOrPositionsInsideTheStream) {
  std::mt19937 random(13);
  std::stringstream good;
  {
    OldOutputStreamDirectory dir(good);
    for (const char* name : {"d", "a", "c", "b"}) dir.GetOutput(name) << tztest::Pattern(20, *name);
  }
  const std::string valid = good.str();
  for (int round = 0; round < 3000; ++round) {
    std::string bytes = valid;
    for (int flips = 1 + random() % 3; flips > 0; --flips) {
      const std::size_t at = random() % 2 ? 12 + random() % 8 : 100 + random() % (valid.size() - 100);
      bytes[at] = static_cast<char>(random());  // head and table
    }
    auto s = tztest::StringStream(bytes);
    OldInputStreamDirectory dir(*s);
    for (const char* name : {"a", "b", "c", "d"}) {
      if (dir.GetInput(name) == nullptr) continue;
      const std::streamoff at = s->tellg();
      EXPECT_GE(at, 20);
      EXPECT_LE(at, static_cast<std::streamoff>(bytes.size()));
    }
  }
}
