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
  const std::map<std::string, std::string> expected = {{"a", "1"}, {"b", "22"}, {"tmp", "t"}};
  EXPECT_EQ(expected, Stored(copy));
  EXPECT_FALSE(tztest::OpenedFile(copy, ZoStreamE::OpenReadOnly).IsEncrypted());
  source->Close(Source::DiscardChanges, false);
}

TEST_F(WholeFileTest, CompactionShrinksAndKeepsPendingChanges) {
  std::map<std::string, std::string> streams;
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
  for (char c = 'A'; c <= 'Y'; ++c) tztest::WriteAll(dir.Path(std::string("kelvoptmp") + c + ".zvp"), {});
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

}  // namespace
