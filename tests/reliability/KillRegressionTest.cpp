// Deterministic forms of the faults the kill driver found, watched at the
// file-system level so that no kill timing is needed.
#include <sys/inotify.h>
#include <unistd.h>

#include <memory>
#include <set>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "tests/TestUtil.h"
#include "tests/reliability/KillHarness.h"

namespace killtest {
namespace {

using tztest::ScratchDir;

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
