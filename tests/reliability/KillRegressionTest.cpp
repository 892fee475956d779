// Deterministic forms of the faults the kill driver found. A "crash" here
// is a child that does its part and leaves with _exit, without releasing
// or closing anything, so it stops at a known point.
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <set>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "tests/TestUtil.h"
#include "blockstore/BlockFormat.h"
#include "tests/reliability/KillFiles.h"

namespace killtest {
namespace {

using tztest::ScratchDir;

// Runs `part` in a child that then dies without any clean-up (handles
// made there are left open, as a killed process leaves them).
template <typename Part>
void CrashAfter(Part part) {
  const pid_t pid = fork();
  if (pid == 0) {
    part();
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// A clock that stands still, so that directory times match to the byte.
class StillClock : public tz::Env {
 public:
  std::unique_ptr<tz::RandomAccessFile> OpenLocked(const std::string& path, bool writable) override {
    return tz::Env::Default()->OpenLocked(path, writable);
  }
  std::int64_t Now() override { return 1700000000; }
};

void Put(CompoundFile& file, const char* name, const std::string& bytes, const char* mode = "wb",
         std::size_t at = 0) {
  std::unique_ptr<std::iostream> out(file.GetIOStream(name, mode));
  ASSERT_NE(out, nullptr);
  out->seekp(static_cast<std::streamoff>(at));
  out->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::vector<CheckProblem::Kind> Kinds(const CheckReport& report) {
  std::vector<CheckProblem::Kind> kinds;
  for (const CheckProblem& problem : report.problems) {
    if (problem.kind != CheckProblem::kUnreached) kinds.push_back(problem.kind);
  }
  return kinds;
}

// A session rewrites "a" into other blocks, leaving its entry identical
// (same first block, size and times), and dies before its close. The map
// of the previous close must not be trusted: it calls the new blocks free.
TEST(KillRegression, SavedMapIsRetiredBeforeASessionWrites) {
  ScratchDir dir;
  const std::string path = dir.Path("f.cf");
  StillClock clock;
  tztest::ScopedEnv env(&clock);
  {
    CompoundFile file;
    ASSERT_EQ(file.Open(path.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
    Put(file, "a", Content(1, 1, 10));                 // block 2
    Put(file, "b", Content(2, 1, 1500));               // blocks 3, 4
    Put(file, "a", Content(1, 2, 2490), "r+b", 10);    // a: blocks 2, 5, 6
    ASSERT_TRUE(file.DeleteCFFile("b"));               // 3, 4 free
  }
  const std::string rewritten = Content(1, 3, 2500);  // blocks 2, 3, 4
  CrashAfter([&] {
    CompoundFile& file = *new CompoundFile;
    file.Open(path.c_str(), ZoStreamE::OpenReadWrite);
    Put(file, "a", rewritten);
  });
  EXPECT_TRUE(Kinds(CheckCompoundFile(path.c_str())).empty());
  CompoundFile file;
  ASSERT_EQ(file.Open(path.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
  Put(file, "c", Content(3, 1, 3000));  // with the old map: blocks 3, 4
  std::string got;
  ASSERT_TRUE(ReadStream(file, "a", &got));
  EXPECT_EQ(got, rewritten);
}

// A deletion and a write that takes the deleted stream's blocks, then a
// crash before the writer's release: the directory on disk must no longer
// name the deleted stream, whose blocks now hold the new one.
TEST(KillRegression, DeletionReachesTheFileBeforeItsBlocksAreReused) {
  ScratchDir dir;
  const std::string path = dir.Path("f.cf");
  {
    CompoundFile file;
    ASSERT_EQ(file.Open(path.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
    Put(file, "old", Content(1, 1, 700000));
    Put(file, "keep", Content(2, 1, 100));
  }
  CrashAfter([&] {
    CompoundFile& file = *new CompoundFile;
    file.Open(path.c_str(), ZoStreamE::OpenReadWrite);
    file.DeleteCFFile("old");
    // Over 512 KiB: the engine's write-behind queue goes to the file
    // before the stream is released.
    std::iostream* out = file.GetIOStream("new", "wb");
    const std::string bytes = Content(3, 1, 700000);
    out->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  });
  EXPECT_TRUE(Kinds(CheckCompoundFile(path.c_str())).empty());
  CompoundFile file;
  ASSERT_EQ(file.Open(path.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
  EXPECT_FALSE(file.Exists("old"));
  std::string got;
  ASSERT_TRUE(ReadStream(file, "keep", &got));
  EXPECT_EQ(got, Content(2, 1, 100));
}

// The run that creates a file dies before its first directory write:
// block 1 is still the filler. The file opens, empty, and takes streams.
TEST(KillRegression, FileWithoutItsFirstDirectoryWriteOpens) {
  ScratchDir dir;
  const std::string path = dir.Path("new.cf");
  CrashAfter([&] {
    CompoundFile& file = *new CompoundFile;
    file.Open(path.c_str(), ZoStreamE::OpenReadWrite);
    std::iostream* out = file.GetIOStream("s", "wb");
    const std::string bytes = Content(1, 1, 700000);
    out->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  });
  ASSERT_GT(tztest::ReadAll(path).size(), 1024u);
  {
    CompoundFile file;
    ASSERT_EQ(file.Open(path.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
    EXPECT_TRUE(NamesIn(file).empty());
    Put(file, "t", Content(2, 1, 5000));
  }
  EXPECT_TRUE(Kinds(CheckCompoundFile(path.c_str())).empty());
  CompoundFile file;
  ASSERT_EQ(file.Open(path.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
  std::string got;
  ASSERT_TRUE(ReadStream(file, "t", &got));
  EXPECT_EQ(got, Content(2, 1, 5000));
}

// A link past the end, as a run killed between writing a block and the
// block it links to leaves it: the stream can still be deleted, and the
// file goes on.
TEST(KillRegression, LinkPastTheEndEndsTheChain) {
  ScratchDir dir;
  const std::string path = dir.Path("f.cf");
  tztest::MakeFile(path, {{"s", Content(1, 1, 3000)}, {"t", Content(2, 1, 10)}});
  tztest::FileBytes bytes = tztest::ReadAll(path);
  const std::vector<std::uint32_t> chain = tztest::Chain(bytes, tztest::FirstBlockOf(bytes, "s"));
  tztest::Put32(bytes, tztest::BlockAt(chain.back()) + blockformat::kOffNextBlock, tztest::BlockCount(bytes) + 3);
  tztest::WriteAll(path, bytes);
  {
    CompoundFile file;
    ASSERT_EQ(file.Open(path.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
    EXPECT_TRUE(file.DeleteCFFile("s"));
    EXPECT_EQ(file.Close(), ZoStreamE::StatusOk);
  }
  EXPECT_TRUE(Kinds(CheckCompoundFile(path.c_str())).empty());
}

// The directory grows by a block while a crash (here: every write from
// the Nth on fails, as when the process dies there) cuts its write: the
// file must still open, whatever N.
TEST(KillRegression, GrowingDirectoryNeverLinksToAMissingBlock) {
  ScratchDir dir;
  const std::string path = dir.Path("f.cf");
  tztest::MakeFile(path, {{"a", Content(1, 1, 5000)}, {"b", Content(2, 1, 10)}, {"c", Content(3, 1, 10)}});
  const tztest::FileBytes before = tztest::ReadAll(path);
  tztest::FaultyEnv faulty;
  for (int failAt = 1; failAt < 40; ++failAt) {
    SCOPED_TRACE(failAt);
    tztest::WriteAll(path, before);
    {
      tztest::ScopedEnv env(&faulty);
      faulty.Reset(failAt);
      CompoundFile file;
      file.Open(path.c_str(), ZoStreamE::OpenReadWrite);
      const std::string bytes = Content(4, 1, 3000);
      for (const char* name : {"d", "e", "f", "g"}) {
        std::unique_ptr<std::iostream> out(file.GetIOStream(name, "wb"));
        if (out != nullptr) out->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
      }
    }
    CompoundFile file;
    const tztest::OpenResult opened = tztest::TryOpen(file, path, ZoStreamE::OpenReadWrite);
    EXPECT_FALSE(opened.threw);
    EXPECT_EQ(opened.status, ZoStreamE::StatusOk);
    std::string got;
    EXPECT_TRUE(ReadStream(file, "a", &got) && got == Content(1, 1, 5000));
  }
}

// Names in `folder` that got each kind of event while `action` ran.
template <typename Action>
std::multiset<std::pair<std::string, std::uint32_t>> WatchFolder(const std::string& folder, Action action) {
  const int fd = inotify_init1(IN_NONBLOCK);
  inotify_add_watch(fd, folder.c_str(), IN_CREATE | IN_DELETE | IN_MODIFY | IN_MOVED_TO | IN_MOVED_FROM);
  action();
  std::multiset<std::pair<std::string, std::uint32_t>> events;
  alignas(inotify_event) char buffer[65536];
  for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) {
    for (char* at = buffer; at < buffer + got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(at);
      if (event->len != 0) events.insert({event->name, event->mask & ~IN_ISDIR});
      at += sizeof(inotify_event) + event->len;
    }
  }
  close(fd);
  return events;
}

// At no moment of a compaction is the file's name without a file.
TEST(KillRegression, CompactionNeverLeavesTheNameEmpty) {
  ScratchDir dir;
  const std::string path = dir.Path("c.cf");
  tztest::MakeFile(path, {{"a", Content(1, 1, 5000)}, {"b", Content(2, 1, 5000)}});
  CompoundFileStreamSource source(path.c_str(), dir.Path("work").c_str());
  ASSERT_EQ(source.Open(CompoundFileStreamSource::NewDirectory, false), CompoundFileStreamSource::NoError);
  source.DeleteSource("a");
  const auto events = WatchFolder(dir.path(), [&] { source.CompactCompoundFile(); });
  EXPECT_EQ(events.count({"c.cf", IN_DELETE}), 0u);
  EXPECT_EQ(events.count({"c.cf", IN_MOVED_TO}), 1u);
  EXPECT_EQ(source.Close(CompoundFileStreamSource::SaveChanges, false), CompoundFileStreamSource::NoError);
}

// An extraction never leaves a fragment under the stream's name in the
// working folder: the name appears once, whole, by a rename.
TEST(KillRegression, ExtractionAppearsWholeInTheWorkingFolder) {
  ScratchDir dir;
  const std::string path = dir.Path("e.cf");
  tztest::MakeFile(path, {{"big", Content(1, 1, 300000)}});
  CompoundFileStreamSource source(path.c_str(), dir.Path("work").c_str());
  ASSERT_EQ(source.Open(CompoundFileStreamSource::NewDirectory, false), CompoundFileStreamSource::NoError);
  const auto events = WatchFolder(source.GetDirectoryName(), [&] {
    std::unique_ptr<std::istream> in(source.GetIStream("big"));
    ASSERT_NE(in, nullptr);
  });
  EXPECT_EQ(events.count({"big", IN_CREATE}), 0u);
  EXPECT_EQ(events.count({"big", IN_MODIFY}), 0u);
  EXPECT_EQ(events.count({"big", IN_MOVED_TO}), 1u);
  EXPECT_EQ(source.Close(CompoundFileStreamSource::DiscardChanges, false), CompoundFileStreamSource::NoError);
}

}  // namespace
}  // namespace killtest
