// Extraction and copy back: chunk boundaries, order, refusals and a damaged
// stored stream (injected failures are in SourceFaultTest).
#include <sys/stat.h>

#include "tests/sources/SourceFixture.h"

namespace {

class CopyBackTest : public SourceFixture {};

// The same edits, discarded and then saved: discarding leaves the file byte
// for byte, saving writes what changed and keeps the rest, and both remove
// the working folder.
TEST_F(CopyBackTest, EditingRunEndToEnd) {
  const std::string big = tztest::Pattern(100000, 7);
  Store({{"keep", "k"}, {"edit", "e0"}, {"drop", "d"}, {"big", big}});
  const auto before = tztest::ReadAll(file);
  for (const auto close : {Source::DiscardChanges, Source::SaveChanges}) {
    auto source = Opened();
    EXPECT_EQ(big, Drain(source->GetIStream("big")));
    EXPECT_TRUE(Fill(source->GetOStream("edit"), "e1"));
    source->DeleteSource("drop");
    EXPECT_TRUE(Fill(source->GetOStream("added"), tztest::Pattern(10241, 3)));
    EXPECT_TRUE(Fill(source->GetOStream("exact"), tztest::Pattern(10240, 4)));
    EXPECT_TRUE(Fill(source->GetOStream("empty"), ""));
    ASSERT_EQ(Source::NoError, source->Close(close, false));
    EXPECT_FALSE(fs::exists(work));
    if (close == Source::DiscardChanges) {
      EXPECT_EQ(before, tztest::ReadAll(file));
    }
  }
  const Streams expected = {
      {"keep", "k"}, {"edit", "e1"}, {"big", big}, {"added", tztest::Pattern(10241, 3)},
      {"exact", tztest::Pattern(10240, 4)}, {"empty", ""}};
  EXPECT_EQ(expected, Stored());
}

TEST_F(CopyBackTest, ChangedFilesGoInAscendingOrderAndOnlyOnce) {
  Store({});
  auto source = Opened();
  // "b" replaces "B" in the compound file, whose names ignore case.
  for (const char* name : {"c", "a", "B", "b"}) EXPECT_TRUE(Fill(source->GetOStream(name), name));
  EXPECT_TRUE(Fill(source->GetOStream("couldnotdelete"), "marker"));
  fs::create_directory(std::string(source->GetDirectoryName()) + "folder");
  ASSERT_EQ(Source::NoError, source->CopyToBlockFile(false));
  EXPECT_FALSE(source->IsDirty());
  // New entries take directory slots in the order the streams were written.
  EXPECT_EQ((std::vector<std::string>{"b", "a", "c"}), StoredNames());
  // Copied files count as extracted: a second run copies nothing.
  tztest::WriteAll(std::string(source->GetDirectoryName()) + "a", {'z'});
  ASSERT_EQ(Source::NoError, source->CopyToBlockFile(false));
  source->Close(Source::DiscardChanges, false);
  EXPECT_EQ("a", Stored().at("a"));
}

// A read-only source refuses to copy back, and a compaction does nothing.
TEST_F(CopyBackTest, ReadOnlySourceRefusesTheSave) {
  Store({{"a", "1"}});
  auto source = Opened(true);
  EXPECT_EQ(Source::CompoundFileNotAvailable, source->CopyToBlockFile(false));
  EXPECT_TRUE(Fill(source->GetOStream("a"), "2"));
  const auto original = tztest::ReadAll(file);
  source->CompactCompoundFile();
  EXPECT_EQ(original, tztest::ReadAll(file));
  EXPECT_EQ(Source::CompoundFileNotAvailable, source->Close(Source::SaveChanges, false));
  EXPECT_TRUE(fs::exists(work));
  EXPECT_EQ(Source::NoError, source->Close(Source::DiscardChanges, false));
  EXPECT_EQ("1", Stored().at("a"));
}

TEST_F(CopyBackTest, ExtractAllFilesAndItsFailures) {
  Store({{"a", "1"}, {"b", tztest::Pattern(20480, 9)}});
  auto source = Opened();
  EXPECT_TRUE(Fill(source->GetOStream("a"), "changed"));
  EXPECT_TRUE(source->ExtractAllFiles());  // rewrites "a" with its stored content
  EXPECT_EQ("1", Drain(source->GetIStream("a")));
  EXPECT_EQ(20480u, source->GetStreamSize("b"));
  EXPECT_TRUE(Fill(source->GetOStream("new"), "n"));
  EXPECT_FALSE(source->ExtractAllFiles());
  EXPECT_EQ("n", Drain(source->GetIStream("new")));
}

TEST_F(CopyBackTest, DamagedStoredStreamLeavesNoFragment) {
  Store({{"s", tztest::Pattern(5000, 1)}});
  // The stream's blocks follow the first directory block; the third links
  // past the end of the file.
  auto bytes = tztest::ReadAll(file);
  tztest::Put32(bytes, 3 * 1024 + 15, 999);  // the link of block 4
  tztest::WriteAll(file, bytes);
  auto source = Opened(true);
  EXPECT_EQ("<null>", Drain(source->GetIStream("s")));
  EXPECT_FALSE(InWork("s"));
  source->Close(Source::DiscardChanges, false);
}

// Extraction touches nothing beside the working folder, keeps a working
// file it rewrites what it was (its permissions, a link to it), and a
// failed extraction leaves nothing in the folder: neither a fragment under
// the stream's name nor its private staging folder.
TEST_F(CopyBackTest, ExtractionStaysInsideItsFolder) {
  Store({{"a", "stored a"}, {"b", tztest::Pattern(5000, 2)}, {"c", "stored c"}});
  const std::string beside = work + ".extracting";
  tztest::WriteAll(beside, {'m', 'i', 'n', 'e'});
  auto source = Opened();
  EXPECT_EQ("stored a", Drain(source->GetIStream("a")));
  EXPECT_EQ((std::vector<unsigned char>{'m', 'i', 'n', 'e'}), tztest::ReadAll(beside));

  const std::string folder = source->GetDirectoryName();
  ASSERT_EQ(0, ::chmod((folder + "a").c_str(), 0600));
  ASSERT_EQ(0, ::symlink("a", (folder + "c").c_str()));
  EXPECT_TRUE(Fill(source->GetOStream("a"), "changed"));
  EXPECT_TRUE(source->ExtractAllFiles());
  struct stat info;
  ASSERT_EQ(0, ::stat((folder + "a").c_str(), &info));
  EXPECT_EQ(0600u, info.st_mode & 0777u);
  ASSERT_EQ(0, ::lstat((folder + "c").c_str(), &info));
  EXPECT_TRUE(S_ISLNK(info.st_mode));  // written through, as a plain open does
  EXPECT_EQ("stored c", Drain(source->GetIStream("a")));
  source->Close(Source::DiscardChanges, false);

  // An empty folder of a stored stream's name stays; reading it fails.
  source = Opened();
  fs::create_directory(folder + "b");
  EXPECT_FALSE(source->ExtractAllFiles());
  EXPECT_TRUE(fs::is_directory(folder + "b"));
  std::unique_ptr<std::istream> in(source->GetIStream("b"));
  ASSERT_NE(nullptr, in);
  in->get();
  EXPECT_TRUE(in->bad());
  in.reset();
  source->Close(Source::DiscardChanges, false);

  // A folder of the old staging name does not get in the way.
  fs::remove(beside);
  fs::create_directory(beside);
  source = Opened();
  tztest::FaultyEnv env;
  {
    tztest::ScopedEnv scoped(&env);
    env.Reset(tztest::Fault::kWrite, 1);
    EXPECT_EQ("<null>", Drain(source->GetIStream("b")));
  }
  EXPECT_TRUE(fs::is_empty(folder));
  EXPECT_EQ(tztest::Pattern(5000, 2), Drain(source->GetIStream("b")));
  source->Close(Source::DiscardChanges, false);
}

// A working directory named without its trailing '/' (as GetTempFolderName
// gives it) still has its files copied from where the walk finds them.
TEST_F(CopyBackTest, FolderNameWithoutTrailingSlash) {
  Store({{"a", "1"}});
  auto source = Opened();
  EXPECT_TRUE(Fill(source->GetOStream("b"), "22"));
  source->SetDirectoryName(work.c_str());
  EXPECT_EQ(2u, source->GetStreamSize("b"));
  EXPECT_EQ(Source::NoError, source->CopyToBlockFile(false));
  source->DeleteSource("b");
  EXPECT_FALSE(InWork("b"));
  source->Close(Source::DiscardChanges, false);
  EXPECT_EQ("22", Stored().at("b"));
}

}  // namespace
