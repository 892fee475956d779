// The direct source: writes land in the compound file at once, read-only
// refusals are silent, and copies release the file exactly once.
#include "tests/sources/SourceFixture.h"

namespace {

class PureSourceTest : public SourceFixture {};

TEST_F(PureSourceTest, WorksStraightOnTheFile) {
  Store({{"a", "1"}});
  PureCompoundFileStreamSource source;
  EXPECT_EQ(nullptr, source.GetCompoundFileName());
  EXPECT_FALSE(source.StreamExists("a"));
  EXPECT_TRUE(source.GetFileNames()->empty());
  ASSERT_TRUE(source.Open(file.c_str(), false));
  EXPECT_STREQ(file.c_str(), source.GetStreamFileName());
  EXPECT_TRUE(source.StreamExists("A"));
  EXPECT_EQ("1", Drain(source.GetIStream("a")));
  EXPECT_TRUE(Fill(source.GetOStream("a"), "new"));
  EXPECT_TRUE(Fill(source.GetTempOStream("Tmp"), "t"));
  EXPECT_EQ(nullptr, source.GetIOStream("missing"));
  EXPECT_EQ(nullptr, source.GetTempIOStream("missing"));
  std::unique_ptr<std::iostream> io(source.GetIOStream("a"));
  ASSERT_TRUE(io);
  io->seekp(0);
  *io << "N";
  io.reset();
  source.DeleteSource("tmp");
  EXPECT_FALSE(source.CleanUp());
  const std::set<std::string> names = {"a", "zorvanet_block_file_free_list"};
  source.Close();
  source.Open(file.c_str(), false);
  EXPECT_EQ(names, *source.GetFileNames());
  EXPECT_EQ("New", Drain(source.GetIStream("a")));
}

TEST_F(PureSourceTest, ReadOnlyRefusesSilently) {
  Store({{"a", "1"}});
  PureCompoundFileStreamSource source;
  ASSERT_TRUE(source.Open(file.c_str(), true));
  EXPECT_TRUE(source.IsReadOnly());
  EXPECT_EQ(nullptr, source.GetOStream("a"));
  EXPECT_EQ(nullptr, source.GetIOStream("a"));
  EXPECT_EQ(nullptr, source.GetTempOStream("a"));
  EXPECT_EQ(nullptr, source.GetTempIOStream("a"));
  source.DeleteSource("a");
  EXPECT_EQ("1", Drain(source.GetIStream("a")));
  // A further source opens its file with the same flag, and is never null.
  std::unique_ptr<ZoStreamSource> other(source.GetStreamSource(file.c_str()));
  ASSERT_TRUE(other);
  EXPECT_TRUE(other->IsReadOnly());
  std::unique_ptr<ZoStreamSource> none(source.GetStreamSource(dir.Path("no/file").c_str()));
  ASSERT_TRUE(none);
  EXPECT_EQ(nullptr, none->GetCompoundFileName());
}

// Each copy holds the file with a reference of its own: closing or
// destroying one leaves the others working, an assignment gives up the
// reference held before, and the file closes with the last of them.
TEST_F(PureSourceTest, CopiesHoldReferencesOfTheirOwn) {
  Store({{"a", "1"}});
  auto* first = new PureCompoundFileStreamSource();
  ASSERT_TRUE(first->Open(file.c_str(), false));
  PureCompoundFileStreamSource copy(*first);
  PureCompoundFileStreamSource assigned;
  ASSERT_TRUE(assigned.Open(dir.Path("other.tzcf").c_str(), false));
  EXPECT_TRUE(Fill(assigned.GetOStream("x"), "x"));
  const auto held = tztest::ReadAll(dir.Path("other.tzcf"));
  assigned = copy;  // the other file is released: its close writes the block map
  EXPECT_GT(tztest::ReadAll(dir.Path("other.tzcf")).size(), held.size());
  PureCompoundFileStreamSource& self = assigned;
  assigned = self;  // the same file: the reference is kept, not given up
  delete first;
  EXPECT_EQ("1", Drain(copy.GetIStream("a")));
  copy.Close();
  EXPECT_EQ("1", Drain(assigned.GetIStream("a")));
  assigned.Close();
  // The file is free again, so the lock lets a new engine in.
  PureCompoundFileStreamSource fresh;
  EXPECT_TRUE(fresh.Open(file.c_str(), false));
}

}  // namespace
