// Opening and closing a working-folder source: folder names, modes, flags
// and what each failure leaves behind.
#include "tests/sources/SourceFixture.h"
#include "utility/MD5.h"

namespace {

class LifecycleTest : public SourceFixture {};

TEST_F(LifecycleTest, TempFolderNameIsBaseSlashDigest) {
  const std::string expected = dir.path() + "/_KV_" + MD5("doc.tzcf").GetDigest();
  EXPECT_EQ(expected, work);
  EXPECT_EQ(expected, Source::GetTempFolderName((dir.path() + "/").c_str(), "doc.tzcf"));
  EXPECT_EQ(std::string("_KV_") + MD5("x").GetDigest(), Source::GetTempFolderName("", "x"));
  // No case folding and no canonical form of the name.
  EXPECT_NE(work, Source::GetTempFolderName(dir.path().c_str(), "DOC.tzcf"));
}

TEST_F(LifecycleTest, OpenCloseNamesAndModes) {
  Store({{"a", "alpha"}});
  Source source(file.c_str(), work.c_str());  // no trailing '/'
  EXPECT_EQ(Source::NotOpened, source.GetOpenMode());
  EXPECT_EQ("", source.GetCompoundFileNameString());
  EXPECT_FALSE(fs::exists(work));

  ASSERT_EQ(Source::NoError, source.Open(Source::NewDirectory, false));
  EXPECT_TRUE(fs::is_directory(work));
  EXPECT_EQ(work + "/", source.GetDirectoryName());
  EXPECT_EQ(file, source.GetCompoundFileNameString());
  EXPECT_EQ(Source::NewDirectory, source.GetOpenMode());

  // A second NewDirectory open finds the folder; only the read-only flag
  // changes, the open file and the folder stay.
  EXPECT_EQ(Source::DirectoryExists, source.Open(Source::NewDirectory, true));
  EXPECT_TRUE(source.IsReadOnly());
  EXPECT_TRUE(source.StreamExists("a"));

  // ExistingDirectory reopens and forgets what the sets knew.
  source.DeleteSource("a");
  EXPECT_TRUE(source.IsDirty());
  ASSERT_EQ(Source::NoError, source.Open(Source::ExistingDirectory, false));
  EXPECT_FALSE(source.IsDirty());
  EXPECT_TRUE(source.StreamExists("a"));

  EXPECT_EQ(Source::NoError, source.Close(Source::SaveChanges, false));
  EXPECT_FALSE(fs::exists(work));
  EXPECT_EQ("", source.GetCompoundFileNameString());

  // Open and Close repeat on one object.
  ASSERT_EQ(Source::NoError, source.Open(Source::NewDirectory, false));
  EXPECT_EQ(Source::NoError, source.Close(Source::DiscardChanges, false));
}

TEST_F(LifecycleTest, FailuresLeaveWhatTheyShould) {
  // Missing folder with ExistingDirectory: the file stays open.
  Store({{"a", "alpha"}});
  {
    Source source(file.c_str(), work.c_str());
    EXPECT_EQ(Source::DirectoryMissing, source.Open(Source::ExistingDirectory, false));
    EXPECT_EQ(file, source.GetCompoundFileNameString());  // still held
    EXPECT_EQ(Source::NotOpened, source.GetOpenMode());
  }
  // A compound file that cannot be opened: the new folder stays.
  const std::string missing = dir.Path("no/such/file");
  Source source(missing.c_str(), work.c_str());
  EXPECT_EQ(Source::CompoundFileNotAvailable, source.Open(Source::NewDirectory, false));
  EXPECT_TRUE(fs::is_directory(work));
  EXPECT_EQ(Source::DirectoryExists, source.Open(Source::NewDirectory, false));
  // A folder that cannot be created (its parent is missing).
  Source deep(file.c_str(), dir.Path("x/y").c_str());
  EXPECT_EQ(Source::FileOperationFailed, deep.Open(Source::NewDirectory, false));
}

TEST_F(LifecycleTest, LeftoverFolderIsTakenOverAsChanged) {
  Store({{"a", "old"}});
  fs::create_directory(work);
  tztest::WriteAll(work + "/a", {'n', 'e', 'w'});
  tztest::WriteAll(work + "/CouldNotDelete", {});
  EXPECT_TRUE(Source::PreviousDeleteOfTempDirUnsuccessfull(work.c_str()));
  EXPECT_TRUE(Source::PreviousDeleteOfTempDirUnsuccessfull((work + "/").c_str()));
  EXPECT_FALSE(Source::PreviousDeleteOfTempDirUnsuccessfull(dir.path().c_str()));

  Source source(file.c_str(), work.c_str());
  EXPECT_EQ(Source::DirectoryExists, source.Open(Source::NewDirectory, false));
  ASSERT_EQ(Source::NoError, source.Open(Source::ExistingDirectory, false));
  EXPECT_FALSE(source.IsDirty());
  EXPECT_EQ("new", Drain(source.GetIStream("a")));
  // Clean: Close copies nothing unless told the source is dirty.
  source.SetIsDirty(true);
  ASSERT_EQ(Source::NoError, source.Close(Source::SaveChanges, false));
  const auto stored = Stored();
  EXPECT_EQ("new", stored.at("a"));
  EXPECT_EQ(0u, stored.count("CouldNotDelete"));  // the marker is never a stream
}

}  // namespace
