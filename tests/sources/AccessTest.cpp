// Single streams of a working-folder source: the six states of a name, the
// moves between them, listing and sizes, and names that must not leave the
// working directory.
#include <unistd.h>

#include "tests/sources/SourceFixture.h"

namespace {

class AccessTest : public SourceFixture {
 protected:
  void SetUp() override {
    Store({{"stored", "stored bytes"}, {"Other", "other bytes"}});
    source = Opened();
  }
  void TearDown() override { source->Close(Source::DiscardChanges, false); }
  std::set<std::string> Names() { return *source->GetFileNames(); }
  std::unique_ptr<Source> source;
};

TEST_F(AccessTest, ReadingExtractsAndKeepsTheSourceClean) {
  EXPECT_TRUE(source->StreamExists("stored"));
  EXPECT_TRUE(source->StreamExists("STORED"));  // the compound file ignores case
  EXPECT_FALSE(InWork("stored"));
  EXPECT_EQ("stored bytes", Drain(source->GetIStream("stored")));
  EXPECT_TRUE(InWork("stored"));
  EXPECT_FALSE(source->IsDirty());
  EXPECT_EQ(12u, source->GetStreamSize("stored"));
  EXPECT_EQ(11u, source->GetStreamSize("OTHER"));
  EXPECT_EQ("<null>", Drain(source->GetIStream("absent")));
  EXPECT_FALSE(InWork("absent"));
  // Extracted: nothing to copy back.
  EXPECT_EQ(Source::NoError, source->CopyToBlockFile(false));
  EXPECT_EQ("stored bytes", Stored().at("stored"));
}

TEST_F(AccessTest, WritingMakesChangedStreams) {
  EXPECT_TRUE(Fill(source->GetOStream("stored"), ""));
  EXPECT_TRUE(source->IsDirty());
  EXPECT_EQ("", Drain(source->GetIStream("stored")));
  EXPECT_EQ("stored bytes", Stored().at("stored"));  // untouched until the save

  std::unique_ptr<std::iostream> io(source->GetIOStream("Other"));
  ASSERT_TRUE(io);
  EXPECT_EQ('o', io->get());
  io->seekp(0);
  *io << "O";
  io.reset();
  EXPECT_EQ("<null>", Drain(source->GetIOStream("absent")));
  EXPECT_FALSE(InWork("absent"));

  EXPECT_TRUE(Fill(source->GetOStream("new"), "fresh"));
  EXPECT_EQ(1u, Names().count("new"));
  EXPECT_FALSE(tztest::OpenedFile(file, ZoStreamE::OpenReadOnly).Exists("new"));  // joins the source's engine
  ASSERT_EQ(Source::NoError, source->Close(Source::SaveChanges, false));
  const auto stored = Stored();
  EXPECT_EQ("", stored.at("stored"));
  EXPECT_EQ("Other bytes", stored.at("Other"));
  EXPECT_EQ("fresh", stored.at("new"));
}

TEST_F(AccessTest, DeletionAndWhatBringsANameBack) {
  source->DeleteSource("unknown");
  EXPECT_FALSE(source->IsDirty());
  const auto before = source->GetFileNames();

  EXPECT_EQ("stored bytes", Drain(source->GetIStream("stored")));
  source->DeleteSource("stored");
  EXPECT_TRUE(source->IsDirty());
  EXPECT_FALSE(InWork("stored"));
  EXPECT_FALSE(source->StreamExists("stored"));
  EXPECT_TRUE(source->StreamExists("STORED"));  // the set holds exact bytes
  EXPECT_EQ("<null>", Drain(source->GetIStream("stored")));
  EXPECT_EQ(0u, source->GetStreamSize("stored"));
  EXPECT_EQ(0u, Names().count("stored"));
  EXPECT_EQ(1u, before->count("stored"));  // a set once handed out stays

  // GetIOStream takes the name out of the deleted set: stored content back.
  EXPECT_EQ("stored bytes", Drain(source->GetIOStream("stored")));
  source->DeleteSource("Other");
  EXPECT_TRUE(Fill(source->GetOStream("Other"), "replaced"));
  ASSERT_EQ(Source::NoError, source->Close(Source::SaveChanges, false));
  const auto stored = Stored();
  EXPECT_EQ("stored bytes", stored.at("stored"));
  EXPECT_EQ("replaced", stored.at("Other"));
}

TEST_F(AccessTest, TemporaryStreamsStayOutOfTheOrdinarySave) {
  EXPECT_TRUE(Fill(source->GetTempOStream("scratch"), "tmp"));
  EXPECT_FALSE(source->IsDirty());
  std::unique_ptr<std::iostream> io(source->GetTempIOStream("stored"));
  ASSERT_TRUE(io);
  *io << "XX";
  io.reset();
  EXPECT_FALSE(source->IsDirty());
  EXPECT_EQ(1u, Names().count("scratch"));
  source->SetIsDirty(true);
  ASSERT_EQ(Source::NoError, source->CopyToBlockFile(false));
  auto stored = Stored();
  EXPECT_EQ(0u, stored.count("scratch"));
  EXPECT_EQ("stored bytes", stored.at("stored"));
  // copyAll copies everything in the folder, temporary streams too.
  ASSERT_EQ(Source::NoError, source->CopyToBlockFile(true));
  stored = Stored();
  EXPECT_EQ("tmp", stored.at("scratch"));
  EXPECT_EQ("XXored bytes", stored.at("stored"));
}

TEST_F(AccessTest, PathLengthLimit) {
  // 260 characters of folder and name together are refused, 259 are not.
  const std::size_t folder = std::strlen(source->GetDirectoryName());
  ASSERT_LT(folder, 200u);
  const std::string at259(259 - folder, 'n');
  const std::string at260(260 - folder, 'n');
  tztest::MakeFile(file, {{at259, "x"}, {at260, "y"}});
  EXPECT_TRUE(source->StreamExists(at259.c_str()));
  EXPECT_FALSE(source->StreamExists(at260.c_str()));
  EXPECT_EQ("x", Drain(source->GetIStream(at259.c_str())));
  EXPECT_EQ("<null>", Drain(source->GetIStream(at260.c_str())));
}

TEST_F(AccessTest, NamesNeverLeaveTheWorkingDirectory) {
  const std::string outside = dir.Path("outside");
  fs::create_directory(outside);
  tztest::WriteAll(outside + "/victim", {'v'});
  ASSERT_EQ(0, ::symlink(outside.c_str(), (std::string(source->GetDirectoryName()) + "link").c_str()));
  for (const char* name : {"../victim", "link/victim", "a/../../victim", "", "/", ".", "./"}) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(source->StreamExists(name));
    EXPECT_EQ(nullptr, source->GetOStream(name));
    EXPECT_EQ(nullptr, source->GetIOStream(name));
    EXPECT_EQ(nullptr, source->GetTempOStream(name));
    EXPECT_EQ("<null>", Drain(source->GetIStream(name)));
    source->DeleteSource(name);
    EXPECT_EQ(0u, source->GetStreamSize(name));
  }
  EXPECT_FALSE(source->IsDirty());
  EXPECT_EQ(std::vector<unsigned char>{'v'}, tztest::ReadAll(outside + "/victim"));
  EXPECT_TRUE(fs::is_directory(source->GetDirectoryName()));
  // A sub-folder inside the working directory keeps working.
  fs::create_directory(std::string(source->GetDirectoryName()) + "sub");
  EXPECT_TRUE(Fill(source->GetOStream("sub/inner"), "in"));
  EXPECT_EQ("in", Drain(source->GetIStream("sub/inner")));
  EXPECT_EQ(0u, Names().count("sub"));
}

TEST_F(AccessTest, HostileStoredNamesAreNeitherExtractedNorLost) {
  source->Close(Source::DiscardChanges, false);
  Store({{"../escaped", "e"}, {"plain", "p"}});
  ASSERT_EQ(Source::NoError, source->Open(Source::NewDirectory, false));
  EXPECT_TRUE(source->ExtractAllFiles());
  EXPECT_TRUE(InWork("plain"));
  EXPECT_FALSE(fs::exists(dir.Path("escaped")));
  // A rewrite of the file keeps the stream.
  source->CompactCompoundFile();
  EXPECT_FALSE(fs::exists(dir.Path("escaped")));
  source->Close(Source::DiscardChanges, false);
  EXPECT_EQ("e", Stored().at("../escaped"));
  ASSERT_EQ(Source::NoError, source->Open(Source::NewDirectory, false));
}

}  // namespace
