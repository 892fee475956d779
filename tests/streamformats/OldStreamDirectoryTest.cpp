// Named stream directories: the worked layout on every kind of stream, the
// hash and the cut of names, round trips, the edges of writer and reader,
// IsStreamDirectory, damaged and hostile tables.
#include <tesselzostream/OldStreamDirectory.h>

#include <map>
#include <random>

#include <gtest/gtest.h>

#include "streamformats/NamedTable.h"
#include "tests/streamformats/StreamKinds.h"

using namespace tztest;

namespace {

const std::string kMagic = Bytes({1, 'S', 't', 'r', 'e', 'a', 'm', 2, 'D', 'i', 'r', 0});

// "abd" with 3 bytes, then "abc" with 5; abc hashes lower and comes first.
void WriteExample(std::ostream& out) {
  OldOutputStreamDirectory dir(out);
  dir.GetOutput("abd") << "ABD";
  dir.GetOutput("abc") << "ABCDE";
}

const std::string kExample = kMagic + Bytes({28, 0, 0, 0, 0, 0, 0, 0}) + "ABDABCDE" +
                             Bytes({2, 0, 0, 0, 23, 0, 0, 0}) + "abc" + std::string(9, '\0') +
                             Bytes({20, 0, 0, 0}) + "abd" + std::string(9, '\0');

}  // namespace

TEST(OldStreamDirectory, WorkedExampleOnEveryKindOfStream) {
  for (StreamKind kind : kAllKinds) {
    SCOPED_TRACE(KindName(kind));
    AnyStream any(kind);
    std::iostream& s = any.stream();
    WriteExample(s);
    EXPECT_EQ(s.tellp(), 64);  // behind the table: another item may follow
    EXPECT_EQ(Contents(s), kExample);

    OldInputStreamDirectory dir(s);
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

TEST(OldStreamDirectory, HashAndCutOfNames) {
  EXPECT_EQ(tz::NameHash(""), 2166136261u);
  EXPECT_EQ(tz::NameHash("a"), 0x050C5D7Eu);  // as the published FNV-1
  EXPECT_EQ(tz::NameHash("\xE9"), 0xFAF3A2F6u);  // 0xE9 goes in as 0xFFFFFFE9

  std::stringstream s;
  {
    OldOutputStreamDirectory dir(s);
    dir.GetOutput("elevenchars") << "11";
    dir.GetOutput("twelve-chars") << "12";
    dir.GetOutput("") << "empty";
  }
  EXPECT_EQ(s.str().find("twelve-chars"), std::string::npos);
  OldInputStreamDirectory dir(s);
  const std::pair<const char*, const char*> lookups[] = {
      {"elevenchars", "11"}, {"twelve-chars", "12"}, {"twelve-char", "12"}, {"", "em"}};
  for (const auto& [name, data] : lookups) {
    ASSERT_NE(dir.GetInput(name), nullptr) << name;
    EXPECT_EQ(ReadN(s, 2), data) << name;
  }
}

TEST(OldStreamDirectory, ManyNamesRoundTripOnStringAndBlockStreams) {
  for (StreamKind kind : {StreamKind::String, StreamKind::Block}) {
    SCOPED_TRACE(KindName(kind));
    AnyStream any(kind);
    std::iostream& s = any.stream();
    std::mt19937 random(3);
    // Names of 0 to 14 bytes from 1 to 255: some are cut, some hash bytes
    // above 127.
    const auto randomName = [&random] {
      std::string name(random() % 15, '\0');
      for (char& c : name) c = static_cast<char>(1 + random() % 255);
      return name;
    };
    std::vector<std::map<std::string, std::string>> items(3);  // by cut name
    s << "lead";
    for (auto& item : items) {
      OldOutputStreamDirectory dir(s);
      for (int i = 0; i < 400; ++i) {
        const std::string name = randomName();
        auto [entry, added] = item.emplace(name.substr(0, 11), Pattern(1 + random() % 1500, i));
        if (added) dir.GetOutput(name.c_str()) << entry->second;
      }
    }
    s.seekg(4);
    for (const auto& item : items) {
      ASSERT_TRUE(OldInputStreamDirectory::IsStreamDirectory(s));
      OldInputStreamDirectory dir(s);
      for (const auto& [name, data] : item) {
        ASSERT_NE(dir.GetInput(name.c_str()), nullptr);
        ASSERT_EQ(ReadN(s, data.size()), data);
      }
      for (int i = 0; i < 50; ++i) {
        const std::string name = randomName().substr(0, 11);
        EXPECT_EQ(dir.GetInput(name.c_str()) != nullptr, item.count(name) == 1);
      }
    }
    EXPECT_EQ(s.peek(), std::char_traits<char>::eof());
  }
}

TEST(OldStreamDirectory, EdgesOfWriterAndReader) {
  std::stringstream s;
  { OldOutputStreamDirectory empty(s); }
  EXPECT_EQ(s.str(), kMagic + Bytes({20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  OldOutputStreamDirectory dir(s);
  dir.GetOutput("one");
  dir.GetOutput("two") << "2";  // takes over the entry of "one"
  OldOutputStreamDirectory copy(dir);
  dir.GetOutput("three");  // nothing follows: dropped at Close
  dir.Close();
  s << "next";
  dir.Close();  // writes nothing more
  EXPECT_EQ(s.str().size(), 24 + 20 + 1 + 20 + 4u);
  dir.GetOutput("late");
  EXPECT_TRUE(s.bad());
  s.clear();
  copy.Close();  // its own table behind "next", and the head names it

  OldInputStreamDirectory empty(s);
  EXPECT_EQ(empty.GetInput(""), nullptr);
  empty.Close();
  OldInputStreamDirectory reader(s), shared;
  shared = reader;
  EXPECT_FALSE(reader.Open(s));  // already open: nothing changes
  EXPECT_EQ(reader.GetInput("one"), nullptr);
  EXPECT_EQ(reader.GetInput("three"), nullptr);
  ASSERT_NE(reader.GetInput("two"), nullptr);
  EXPECT_EQ(ReadN(s, 1), "2");
  reader.Close();  // behind the copy's table, at the end of the stream
  EXPECT_EQ(s.tellg(), static_cast<std::streamoff>(s.str().size()));
  ASSERT_NE(shared.GetInput("two"), nullptr);  // the copy keeps the table
}

TEST(OldStreamDirectory, IsStreamDirectoryLeavesTheStreamAsItWas) {
  auto s = StringStream("xyz" + kExample);
  for (int at : {3, 4, 63}) {  // the magic, inside it, 4 bytes before the end
    s->seekg(at);
    EXPECT_EQ(OldInputStreamDirectory::IsStreamDirectory(*s), at == 3);
    EXPECT_TRUE(s->good());
    EXPECT_EQ(s->tellg(), at);
  }
  s->seekg(3);
  s->setstate(std::ios::eofbit);
  EXPECT_FALSE(OldInputStreamDirectory::IsStreamDirectory(*s));
  EXPECT_EQ(s->rdstate(), std::ios::eofbit);
}

TEST(OldStreamDirectory, TruncatedOrDamagedTables) {
  // Refused at Open: badbit, and GetInput gives null.
  std::vector<std::pair<std::string, std::string>> refused;
  for (std::size_t cut = 0; cut < kExample.size(); ++cut) {
    refused.emplace_back("cut at " + std::to_string(cut), kExample.substr(0, cut));
  }
  refused.emplace_back("wrong magic", Patched(kExample, 11, {'x'}));
  refused.emplace_back("never closed: table at 0", Patched(kExample, 12, {0}));
  refused.emplace_back("table runs beyond the stream", Patched(kExample, 12, {61}));
  refused.emplace_back("table far beyond", Patched(kExample, 12, {0xFF, 0xFF, 0xFF, 0x7F}));
  refused.emplace_back("count one too many", Patched(kExample, 28, {3}));
  refused.emplace_back("count of four billion", Patched(kExample, 28, {0xFF, 0xFF, 0xFF, 0xFF}));
  for (const auto& [what, bytes] : refused) {
    auto s = StringStream(bytes);
    OldInputStreamDirectory dir(*s);
    EXPECT_TRUE(s->bad()) << what;
    EXPECT_EQ(dir.GetInput("abd"), nullptr) << what;
  }

  // Opened; the stream's end bounds each seek. `at` is where GetInput(name)
  // places the stream, kMissing for null with the stream untouched,
  // kBeyond for null and badbit with the stream not moved; `end` is where
  // Open and Close leave it.
  constexpr std::streamoff kMissing = -1, kBeyond = -2;
  struct Opened {
    std::string what, bytes;
    const char* name;
    std::streamoff at, end;
  };
  const Opened cases[] = {
      {"table on the reserved field: empty", Patched(kExample, 12, {16}), "abd", kMissing, 20},
      {"entry in the head", Patched(kExample, 32, {19}), "abc", 19, 64},
      {"entry behind the table", Patched(kExample, 48, {29}), "abd", 29, 64},
      {"entry at the end", Patched(kExample, 48, {64}), "abd", 64, 64},
      {"entry behind the end", Patched(kExample, 48, {65}), "abd", kBeyond, 64},
      {"entry far beyond", Patched(kExample, 51, {0x7F}), "abd", kBeyond, 64},
  };
  for (const Opened& c : cases) {
    auto s = StringStream(c.bytes);
    OldInputStreamDirectory dir(*s);
    ASSERT_TRUE(s->good()) << c.what;
    EXPECT_EQ(s->tellg(), c.end) << c.what;
    std::istream* found = dir.GetInput(c.name);
    EXPECT_EQ(found != nullptr, c.at >= 0) << c.what;
    EXPECT_EQ(s->bad(), c.at == kBeyond) << c.what;
    s->clear();
    EXPECT_EQ(s->tellg(), c.at >= 0 ? c.at : c.end) << c.what;
    dir.Close();
    EXPECT_EQ(s->tellg(), c.end) << c.what;
  }

  // On a block stream a seek far beyond the end would grow the file.
  AnyStream any(StreamKind::Block);
  any.stream() << Patched(kExample, 32, {0xF0, 0xFF, 0xFF, 0x7F});
  OldInputStreamDirectory dir(any.stream().seekg(0));
  EXPECT_EQ(dir.GetInput("abc"), nullptr);
  EXPECT_TRUE(any.stream().bad());
  EXPECT_EQ(Contents(any.stream()).size(), kExample.size());
}

TEST(OldStreamDirectory, StoredOrderAndUnterminatedNamesAreNotTrusted) {
  // The entries swapped, and the name at offset 20 filled to all 12 bytes.
  std::string bytes = kExample;
  std::swap_ranges(bytes.begin() + 32, bytes.begin() + 48, bytes.begin() + 48);
  auto s = StringStream(bytes.replace(36, 12, "abcdefghijkl"));
  OldInputStreamDirectory dir(*s);
  ASSERT_NE(dir.GetInput("abcdefghijk"), nullptr);
  EXPECT_EQ(ReadN(*s, 3), "ABD");
  ASSERT_NE(dir.GetInput("abc"), nullptr);
  EXPECT_EQ(ReadN(*s, 5), "ABCDE");
}
