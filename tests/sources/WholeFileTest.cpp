// Save as, compaction and the unused-space estimate.
#include "tests/sources/SourceFixture.h"

namespace {

class WholeFileTest : public SourceFixture {};

TEST_F(WholeFileTest, SaveAsWritesTheCurrentStreams) {
  Store({{"a", "1"}, {"b", "2"}, {"gone", "3"}});
  // An encrypted source gives a clear copy.
  ASSERT_EQ(ZoStreamE::StatusOk, tztest::OpenedFile(file, ZoStreamE::OpenReadWrite).Encrypt("pw"));

  auto source = Opened();
  ASSERT_TRUE(source->GetCompoundFileName() != nullptr);
  {
    CompoundFile same;  // joins the source's engine to give the password
    same.Open(file.c_str(), ZoStreamE::OpenReadWrite);
    ASSERT_TRUE(same.SetPassword("pw"));
  }
  EXPECT_TRUE(Fill(source->GetOStream("b"), "22"));
  EXPECT_TRUE(Fill(source->GetTempOStream("tmp"), "t"));
  source->DeleteSource("gone");
  const std::string copy = dir.Path("copy.tzcf");
  tztest::WriteAll(copy, {'o', 'l', 'd'});
  const auto original = tztest::ReadAll(file);

  EXPECT_EQ(Source::FileOperationFailed, source->SaveAs(file.c_str()));  // itself
  EXPECT_EQ(original, tztest::ReadAll(file));
  ASSERT_EQ(Source::NoError, source->SaveAs(copy.c_str()));
  EXPECT_FALSE(source->IsDirty());
  EXPECT_EQ(original, tztest::ReadAll(file));  // the old file gets nothing
  EXPECT_EQ((Streams{{"a", "1"}, {"b", "22"}, {"tmp", "t"}}), Stored(copy));
  EXPECT_FALSE(tztest::OpenedFile(copy, ZoStreamE::OpenReadOnly).IsEncrypted());
  source->Close(Source::DiscardChanges, false);
}

TEST_F(WholeFileTest, CompactionShrinksAndKeepsPendingChanges) {
  Streams streams;
  for (int i = 0; i < 40; ++i) streams["s" + std::to_string(i)] = tztest::Pattern(3000, i);
  Store(streams);
  auto source = Opened();
  EXPECT_EQ(0u, source->GetUnUsedFileSpace());
  for (int i = 0; i < 30; ++i) source->DeleteSource(("s" + std::to_string(i)).c_str());
  // Each deleted stream of 3000 bytes frees 3 blocks; 30 entries free 10
  // directory blocks.
  EXPECT_EQ((30u * 3 + 10) * 1024, source->GetUnUsedFileSpace());
  EXPECT_TRUE(Fill(source->GetOStream("s39"), "short"));
  EXPECT_EQ((30u * 3 + 10 + 2) * 1024, source->GetUnUsedFileSpace());
  const auto sizeBefore = fs::file_size(file);

  tztest::WriteAll(dir.Path("kelvoptmpA.zvp"), {});  // taken: B is used
  source->CompactCompoundFile();
  EXPECT_TRUE(fs::exists(dir.Path("kelvoptmpA.zvp")));
  EXPECT_FALSE(fs::exists(dir.Path("kelvoptmpB.zvp")));
  EXPECT_LT(fs::file_size(file), sizeBefore);
  EXPECT_EQ(Source::NewDirectory, source->GetOpenMode());
  EXPECT_FALSE(source->IsDirty());
  EXPECT_TRUE(fs::is_directory(work));
  EXPECT_EQ("short", Drain(source->GetIStream("s39")));
  EXPECT_FALSE(source->StreamExists("s0"));
  source->Close(Source::DiscardChanges, false);
  auto expected = streams;
  for (int i = 0; i < 30; ++i) expected.erase("s" + std::to_string(i));
  expected["s39"] = "short";
  EXPECT_EQ(expected, Stored());
}

TEST_F(WholeFileTest, CompactionRefusalsAndFailures) {
  Store({{"a", "1"}});
  const auto original = tztest::ReadAll(file);
  for (char c = 'A'; c <= 'Y'; ++c) tztest::WriteAll(dir.Path(std::string("kelvoptmp") + c + ".zvp"), {});  // all taken
  auto source = Opened();
  auto expectThrows = [&](const char* what) {
    try {
      source->CompactCompoundFile();
      ADD_FAILURE() << "no exception";
    } catch (const Exception& e) {
      EXPECT_STREQ(what, e.what());
    }
  };
  expectThrows("Temporary file name could not be generated.");
  fs::remove(dir.Path("kelvoptmpC.zvp"));

  // Every write to the new file fails: the old one stays as it was.
  tztest::FaultyEnv env;
  env.Reset(1);
  {
    tztest::ScopedEnv scoped(&env);
    expectThrows("The file could not be copied");
  }
  EXPECT_EQ(original, tztest::ReadAll(file));
  EXPECT_EQ("1", Drain(source->GetIStream("a")));
  source->Close(Source::DiscardChanges, false);
}

// A working path of 260 characters or more limits StreamExists and
// extraction only: SaveAs reads a working file through GetIStream whatever
// its length, so neither it nor compaction loses a change to such a name,
// and a stored stream that cannot be extracted is copied as it is stored.
TEST_F(WholeFileTest, LongWorkingPathsLoseNothing) {
  const std::size_t folder = work.size() + 1;
  ASSERT_LT(folder, 200u);
  const std::string changed(265 - folder, 'c'), added(266 - folder, 'a'), kept(267 - folder, 'k');
  Store({{changed, "old"}, {kept, "stored"}});
  auto source = Opened();
  EXPECT_TRUE(Fill(source->GetOStream(changed.c_str()), "NEW CONTENT"));
  EXPECT_TRUE(Fill(source->GetOStream(added.c_str()), "added"));
  EXPECT_EQ("NEW CONTENT", Drain(source->GetIStream(changed.c_str())));
  const Streams expected = {{changed, "NEW CONTENT"}, {added, "added"}, {kept, "stored"}};

  const std::string copy = dir.Path("b.tzcf");
  ASSERT_EQ(Source::NoError, source->SaveAs(copy.c_str()));
  EXPECT_EQ(expected, Stored(copy));
  source->SetIsDirty(true);
  source->CompactCompoundFile();
  EXPECT_FALSE(fs::exists(dir.Path("kelvoptmpA.zvp")));
  EXPECT_FALSE(source->IsDirty());
  source->Close(Source::DiscardChanges, false);
  EXPECT_EQ(expected, Stored());
}

// Names that differ only in letter case are two working files but one
// stream: SaveAs writes them in ascending order, so "foo" replaces "FOO",
// and compaction goes through with it.
TEST_F(WholeFileTest, CompactionTakesNamesThatDifferInCase) {
  Store({{"FOO", "12345"}});
  auto source = Opened();
  EXPECT_TRUE(Fill(source->GetOStream("foo"), "123456789"));
  source->CompactCompoundFile();
  EXPECT_FALSE(fs::exists(dir.Path("kelvoptmpA.zvp")));
  EXPECT_FALSE(source->IsDirty());
  EXPECT_EQ("123456789", Drain(source->GetIStream("FOO")));
  source->Close(Source::DiscardChanges, false);
  EXPECT_EQ((Streams{{"foo", "123456789"}}), Stored());
}

// SaveAs refuses only the open file's own name. A name set for the next
// Open, another link to the open file, and an empty name go the way of the
// steps: replaced, replaced, and no file to open.
TEST_F(WholeFileTest, SaveAsTargetsOtherThanTheOpenFile) {
  Store({{"a", "1"}});
  auto source = Opened();
  const auto original = tztest::ReadAll(file);
  const std::string next = dir.Path("next.tzcf");
  tztest::WriteAll(next, {'x'});
  source->SetCompoundFileName(next.c_str());
  ASSERT_EQ(Source::NoError, source->SaveAs(next.c_str()));
  EXPECT_EQ("1", Stored(next).at("a"));

  const std::string link = dir.Path("link.tzcf");
  ASSERT_EQ(0, ::link(file.c_str(), link.c_str()));
  ASSERT_EQ(Source::NoError, source->SaveAs(link.c_str()));
  EXPECT_EQ(original, tztest::ReadAll(file));
  EXPECT_FALSE(fs::equivalent(file, link));  // a new file under that name
  EXPECT_EQ("1", Stored(link).at("a"));

  // A file another source holds stays as it was.
  const std::string held = dir.Path("held.tzcf");
  tztest::MakeFile(held, {{"h", "held"}});
  const auto heldBytes = tztest::ReadAll(held);
  Source other(held.c_str(), (work + "-other").c_str());
  ASSERT_EQ(Source::NoError, other.Open(Source::NewDirectory, false));
  EXPECT_EQ(Source::FileOperationFailed, source->SaveAs(held.c_str()));
  EXPECT_EQ(heldBytes, tztest::ReadAll(held));
  EXPECT_EQ(Source::NoError, other.Close(Source::DiscardChanges, false));

  const std::string spelled = dir.path() + "/./doc.tzcf";
  EXPECT_EQ(Source::FileOperationFailed, source->SaveAs(spelled.c_str()));
  EXPECT_EQ(Source::CompoundFileNotAvailable, source->SaveAs(""));
  EXPECT_EQ(Source::CompoundFileNotAvailable, source->SaveAs(nullptr));
  EXPECT_EQ(original, tztest::ReadAll(file));
  source->Close(Source::DiscardChanges, false);
}

// A compound file opened read-only has no block map to count from, and
// cannot be compacted: it reports nothing to gain.
TEST_F(WholeFileTest, ReadOnlyFileReportsNoUnusedSpace) {
  Store({{"a", tztest::Pattern(5000, 1)}, {"b", "2"}});
  {
    tztest::OpenedFile cf(file, ZoStreamE::OpenReadWrite);
    ASSERT_TRUE(cf.DeleteCFFile("a"));
  }
  auto source = Opened(true);
  EXPECT_EQ(0u, source->GetUnUsedFileSpace());
  source->Close(Source::DiscardChanges, false);
  source = Opened(false);
  EXPECT_LT(0u, source->GetUnUsedFileSpace());
  source->Close(Source::DiscardChanges, false);
}

}  // namespace
