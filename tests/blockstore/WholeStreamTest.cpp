// Whole-stream calls against the stream path they stand for: WriteStream
// leaves the bytes GetIOStream(name, "wb"), one write and the release
// leave (the clock is fixed, so both stamp the same times), and ReadStream
// gives what a block stream reads.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "blockstore/BlockFormat.h"
#include "tests/TestUtil.h"

namespace {

using namespace tztest;
using ZoStreamE::OpenReadOnly;
using ZoStreamE::OpenReadWrite;

TEST(WholeStream, WriteStreamLeavesTheBytesOfTheStreamPath) {
  FixedClockEnv clock;
  ScopedEnv scoped(&clock);
  ScratchDir dir;
  const std::string byStream = dir.Path("stream.cf"), byCall = dir.Path("call.cf");
  MakeFile(byStream, {{"old", Pattern(4000, 1)}});
  WriteAll(byCall, ReadAll(byStream));
  CompoundFile a, b;
  ASSERT_EQ(ZoStreamE::StatusOk, a.Open(byStream.c_str(), OpenReadWrite));
  ASSERT_EQ(ZoStreamE::StatusOk, b.Open(byCall.c_str(), OpenReadWrite));
  // Sizes around the payload and the stream buffer; "OLD" replaces "old".
  const std::size_t sizes[] = {0, 1, 1003, 1004, 10240, 10244, 10245, 30000};
  int i = 0;
  for (const std::size_t size : sizes) {
    const std::string name = i == 0 ? "OLD" : "s" + std::to_string(i);
    const std::string bytes = Pattern(size, static_cast<std::uint32_t>(i++));
    {
      std::unique_ptr<std::iostream> s(a.GetIOStream(name.c_str(), "wb"));
      ASSERT_TRUE(s != nullptr);
      s->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    ASSERT_TRUE(b.WriteStream(name.c_str(), bytes.data(), bytes.size())) << size;
    EXPECT_TRUE(ReadAll(byStream) == ReadAll(byCall)) << "after " << size << " bytes";
    std::string got;
    ASSERT_TRUE(b.ReadStream(name.c_str(), got));
    EXPECT_TRUE(got == bytes) << size;
    EXPECT_TRUE(b.ReadStream(name.c_str(), got) && got == GetStream(b, name.c_str()));
  }
  a.Close();
  b.Close();
  EXPECT_TRUE(ReadAll(byStream) == ReadAll(byCall));
}

TEST(WholeStream, RefusalsAndFailures) {
  ScratchDir dir;
  const std::string path = dir.Path("w.cf");
  MakeFile(path, {{"a", Pattern(3000, 1)}});
  std::string out = "untouched";
  CompoundFile none;
  EXPECT_FALSE(none.WriteStream("x", "1", 1));
  EXPECT_FALSE(none.ReadStream("a", out));
  {
    OpenedFile reader(path, OpenReadOnly);
    EXPECT_FALSE(reader.WriteStream("x", "1", 1));
    EXPECT_FALSE(reader.ReadStream("missing", out));
    ASSERT_TRUE(reader.ReadStream("A", out));  // any letter case
    EXPECT_EQ(Pattern(3000, 1), out);
  }
  OpenedFile f(path, OpenReadWrite);
  EXPECT_FALSE(f.WriteStream(nullptr, "1", 1));
  EXPECT_FALSE(f.WriteStream("", "1", 1));
  EXPECT_FALSE(f.WriteStream(std::string(300, 'n').c_str(), "1", 1));
  EXPECT_FALSE(f.WriteStream("x", nullptr, 1));
  EXPECT_TRUE(f.WriteStream("empty", nullptr, 0));
  ASSERT_TRUE(f.ReadStream("empty", out));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(ZoStreamE::StatusOk, f.GetStatus());
}

// A chain shorter than its size fails the read, as a block stream's does.
TEST(WholeStream, ADamagedChainFailsTheRead) {
  ScratchDir dir;
  const std::string path = dir.Path("d.cf");
  MakeFile(path, {{"a", Pattern(3000, 1)}});
  FileBytes bytes = ReadAll(path);
  Put32(bytes, EntryAt(bytes, "a") + blockformat::kOffSize, 9000);
  WriteAll(path, bytes);
  OpenedFile f(path, OpenReadOnly);
  std::string out;
  EXPECT_FALSE(f.ReadStream("a", out));
  EXPECT_EQ(ZoStreamE::StatusFailed, f.GetStatus());
}

}  // namespace
