// Threads, held to what docs/THREADS.md promises them: different streams of
// one file read side by side (one handle, a handle per thread, handles
// coming and going), files of their own, a working-folder source listed and
// the factory table looked up at once. Every byte read is compared; .ci/tsan
// runs these under ThreadSanitizer, which reports unguarded shared state.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <tesselzostream/CompoundFileCheck.h>
#include <tesselzostream/Exception.h>
#include <tesselzostream/FactoryRepository.h>

#include "tests/TestUtil.h"
#include "tests/sources/SourceFixture.h"

using namespace tztest;

namespace {

constexpr int kThreads = 8;
constexpr const char* kPassword = "stress";

// Sizes that end at odd places of a block and of the stream buffer.
std::string StreamName(int i) { return "stream-" + std::to_string(i); }
std::string Content(int i) { return Pattern(20000 + static_cast<std::size_t>(i) * 9973, 100 + i); }

// Runs body(0) .. body(count-1) on threads of their own and waits for all.
void OnThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
  for (std::thread& t : threads) t.join();
}

// Reads `in` whole in pieces of `piece` bytes, then a piece after each of a
// few seeks; true when every byte equals `want` and the stream ends with it.
bool ReadsBack(std::istream& in, const std::string& want, std::size_t piece) {
  in.clear();
  if (!in.seekg(0)) return false;
  std::string got;
  std::vector<char> buffer(piece);
  while (in.read(buffer.data(), static_cast<std::streamsize>(piece)) || in.gcount() > 0) {
    got.append(buffer.data(), static_cast<std::size_t>(in.gcount()));
  }
  if (got != want || in.bad()) return false;
  for (std::size_t at : {std::size_t{0}, want.size() / 3, std::size_t{1003 * 5 + 17}, want.size() - 1}) {
    if (at >= want.size()) continue;
    in.clear();
    const std::size_t n = std::min(piece, want.size() - at);
    if (!in.seekg(static_cast<std::streamoff>(at)) ||
        !in.read(buffer.data(), static_cast<std::streamsize>(n)) ||
        std::memcmp(buffer.data(), want.data() + at, n) != 0) {
      return false;
    }
  }
  return true;
}

// Pieces crossing the 1003-byte payload and the 10240-byte buffer at
// different places, and one that bypasses the buffer.
std::size_t PieceFor(int thread, int round) {
  static const std::size_t kPieces[] = {1, 23, 59, 1003, 1004, 4096, 10240, 30011};
  return kPieces[static_cast<std::size_t>(thread + round) % (sizeof kPieces / sizeof kPieces[0])];
}

using Stream = std::unique_ptr<std::iostream>;

enum class FileKind { kReadOnly, kReadWrite, kEncrypted };

// A file of kThreads streams; the parameter says how readers open it.
class ThreadStress : public ::testing::TestWithParam<FileKind> {
 protected:
  void SetUp() override {
    StreamList streams;
    for (int i = 0; i < kThreads; ++i) streams.emplace_back(StreamName(i), Content(i));
    MakeFile(path_, streams);
    if (GetParam() == FileKind::kEncrypted) {
      OpenedFile file(path_, OpenReadWrite);
      ASSERT_EQ(file.Encrypt(kPassword), StatusOk);
    }
  }

  // Opens `file` as the parameter says; false on any failure.
  bool OpenForReading(CompoundFile& file) const {
    const bool writable = GetParam() == FileKind::kReadWrite;
    if (file.Open(path_.c_str(), writable ? OpenReadWrite : OpenReadOnly) != StatusOk) return false;
    return GetParam() != FileKind::kEncrypted || file.SetPassword(kPassword);
  }

  ScratchDir dir_;
  const std::string path_ = dir_.Path("shared.tzcf");
};

std::string KindName(const ::testing::TestParamInfo<FileKind>& info) {
  return std::vector<std::string>{"ReadOnly", "ReadWrite", "Encrypted"}.at(static_cast<std::size_t>(info.param));
}

}  // namespace

// One handle, eight streams opened on this thread, eight threads reading.
TEST_P(ThreadStress, ThreadsReadDifferentStreamsOfOneHandle) {
  CompoundFile file;
  ASSERT_TRUE(OpenForReading(file));
  const FileBytes before = ReadAll(path_);
  for (int round = 0; round < 3; ++round) {
    std::vector<Stream> streams;
    for (int i = 0; i < kThreads; ++i) {
      streams.emplace_back(file.GetIOStream(StreamName(i).c_str(), "rb"));
      ASSERT_NE(streams.back(), nullptr);
    }
    std::atomic<int> good{0};
    OnThreads(kThreads, [&](int i) {
      if (ReadsBack(*streams[static_cast<std::size_t>(i)], Content(i), PieceFor(i, round))) ++good;
    });
    EXPECT_EQ(good, kThreads) << "round " << round;
    EXPECT_EQ(file.GetStatus(), StatusOk);
  }
  EXPECT_EQ(file.Close(), StatusOk);
  EXPECT_TRUE(ReadAll(path_) == before) << "reading changed the file";
}

// One handle, every thread reading whole streams with ReadStream, each all
// of them in its own order, beside block streams of this thread's.
TEST_P(ThreadStress, ThreadsReadWholeStreamsOfOneHandle) {
  CompoundFile file;
  ASSERT_TRUE(OpenForReading(file));
  const FileBytes before = ReadAll(path_);
  std::atomic<int> good{0};
  OnThreads(kThreads, [&](int t) {
    bool all = true;
    for (int round = 0; round < 4; ++round) {
      for (int k = 0; k < kThreads; ++k) {
        const int i = (t + k * (round + 1)) % kThreads;
        std::string got;
        all = all && file.ReadStream(StreamName(i).c_str(), got) && got == Content(i);
      }
    }
    if (all) ++good;
  });
  EXPECT_EQ(good, kThreads);
  EXPECT_EQ(file.GetStatus(), StatusOk);
  EXPECT_EQ(file.Close(), StatusOk);
  EXPECT_TRUE(ReadAll(path_) == before) << "reading changed the file";
}

// Every thread opens, reads through and closes a handle of its own; opens
// and closes take the caller's lock, reads none. The shared engine is made
// and destroyed as holders come and go.
TEST_P(ThreadStress, ThreadsReadThroughHandlesOfTheirOwn) {
  std::mutex opening;
  std::atomic<int> good{0};
  OnThreads(kThreads, [&](int i) {
    for (int round = 0; round < 3; ++round) {
      CompoundFile file;
      Stream stream;
      {
        std::lock_guard<std::mutex> hold(opening);
        if (!OpenForReading(file)) return;
        stream.reset(file.GetIOStream(StreamName(i).c_str(), "rb"));
        if (!stream) return;
      }
      const bool same = ReadsBack(*stream, Content(i), PieceFor(i, round));
      std::lock_guard<std::mutex> hold(opening);
      stream.reset();
      if (same && file.Close() == StatusOk) ++good;
    }
  });
  EXPECT_EQ(good, kThreads * 3);
  EXPECT_TRUE(CheckCompoundFile(path_.c_str(), GetParam() == FileKind::kEncrypted ? kPassword : nullptr).Sound());
}

// Six threads read through one handle while two keep opening handles on
// the path, reading a stream of one and closing all in varying order, each
// open and close under the caller's lock, which the readers never take.
TEST_P(ThreadStress, HandlesComeAndGoWhileOthersRead) {
  constexpr int kReaders = kThreads - 2;
  CompoundFile keep;
  ASSERT_TRUE(OpenForReading(keep));
  std::vector<Stream> streams;
  for (int i = 0; i < kReaders; ++i) {
    streams.emplace_back(keep.GetIOStream(StreamName(i).c_str(), "rb"));
    ASSERT_NE(streams.back(), nullptr);
  }
  std::mutex opening;
  std::atomic<int> readersDone{0}, readsGood{0}, churnsGood{0}, churnsBad{0};
  auto reader = [&](int i) {
    for (int round = 0; round < 4; ++round) {
      if (ReadsBack(*streams[static_cast<std::size_t>(i)], Content(i), PieceFor(i, round))) ++readsGood;
    }
    ++readersDone;
  };
  auto churner = [&](int i) {
    // At least a few cycles, and on until every reader has finished.
    for (int cycle = 0; cycle < 3 || readersDone < kReaders; ++cycle) {
      std::vector<std::unique_ptr<CompoundFile>> handles;
      Stream stream;
      {
        std::lock_guard<std::mutex> hold(opening);
        for (int h = 0; h < 3; ++h) {
          handles.emplace_back(new CompoundFile);
          if (!OpenForReading(*handles.back())) { ++churnsBad; return; }
        }
        stream.reset(handles[static_cast<std::size_t>(cycle) % 3]->GetIOStream(StreamName(i).c_str(), "rb"));
        if (!stream) { ++churnsBad; return; }
      }
      const bool same = ReadsBack(*stream, Content(i), PieceFor(i, cycle));
      std::lock_guard<std::mutex> hold(opening);
      // A handle may leave before its stream; the destructor closes the rest.
      if (cycle % 2 == 0) stream.reset();
      handles[static_cast<std::size_t>(cycle) % 3]->Close();
      handles.pop_back();
      stream.reset();
      handles.clear();
      ++(same ? churnsGood : churnsBad);
    }
  };
  const FileBytes before = ReadAll(path_);
  OnThreads(kThreads, [&](int i) { i < kReaders ? reader(i) : churner(i); });
  EXPECT_EQ(readsGood, kReaders * 4);
  EXPECT_EQ(churnsBad, 0);
  EXPECT_GE(churnsGood, 2 * 3);
  streams.clear();
  EXPECT_EQ(keep.Close(), StatusOk);
  EXPECT_TRUE(ReadAll(path_) == before) << "reading changed the file";
}

INSTANTIATE_TEST_SUITE_P(Modes, ThreadStress,
                         ::testing::Values(FileKind::kReadOnly, FileKind::kReadWrite, FileKind::kEncrypted),
                         KindName);

// Every thread writes, checks, encrypts (every other one) and reads back a
// file of its own; they share only the process-wide table of open files.
TEST(ThreadsOnDifferentFiles, EachThreadWritesChecksAndReadsItsOwnFile) {
  ScratchDir dir;
  std::atomic<int> good{0};
  OnThreads(kThreads, [&](int t) {
    const std::string path = dir.Path("own-" + std::to_string(t) + ".tzcf");
    const bool encrypt = t % 2 == 1;
    for (int round = 0; round < 3; ++round) {
      StreamList streams;
      for (int s = 0; s < 3; ++s) {
        streams.emplace_back("s" + std::to_string(s), Pattern(3000 + 1777 * static_cast<std::size_t>(s + round), t * 10 + s));
      }
      {
        CompoundFile file;
        if (file.Open(path.c_str(), OpenReadWrite) != StatusOk) return;
        if (encrypt && !file.SetPassword(kPassword)) return;  // true while still clear
        for (const auto& s : streams) {
          if (!PutStream(file, s.first.c_str(), s.second)) return;
        }
        if (encrypt && round == 0 && file.Encrypt(kPassword) != StatusOk) return;
        if (file.Close() != StatusOk) return;
      }
      if (!CheckCompoundFile(path.c_str(), encrypt ? kPassword : nullptr).Sound()) return;
      CompoundFile file;
      if (file.Open(path.c_str(), OpenReadOnly) != StatusOk) return;
      if (encrypt && !file.SetPassword(kPassword)) return;
      for (const auto& s : streams) {
        Stream in(file.GetIOStream(s.first.c_str(), "rb"));
        if (!in || !ReadsBack(*in, s.second, PieceFor(t, round))) return;
      }
      ++good;
    }
  });
  EXPECT_EQ(good, kThreads * 3);
}

// Threads listing at once each get the whole set; a set handed out stays.
class SourceListingStress : public SourceFixture {};

TEST_F(SourceListingStress, ThreadsListAWorkingFolderSourceAtOnce) {
  std::map<std::string, std::string> streams;
  for (int i = 0; i < 20; ++i) streams["stored-" + std::to_string(i)] = Pattern(100, i);
  Store(streams);
  std::unique_ptr<Source> source = Opened();
  ASSERT_TRUE(Fill(source->GetOStream("only-in-folder"), "new"));
  source->DeleteSource("stored-3");
  const std::set<std::string> expected = *source->GetFileNames();
  ASSERT_EQ(expected.count("only-in-folder"), 1u);
  ASSERT_EQ(expected.count("stored-3"), 0u);
  const auto first = source->GetFileNames();
  std::atomic<int> good{0};
  OnThreads(kThreads / 2, [&](int) {
    for (int k = 0; k < 25; ++k) {
      if (*source->GetFileNames() == expected) ++good;
    }
  });
  EXPECT_EQ(good, kThreads / 2 * 25);
  EXPECT_EQ(*first, expected);
  source->Close(Source::DiscardChanges, false);
}

namespace {

class NamedFactory : public OBJCREAT_Details::ProductFactoryBase {
 public:
  explicit NamedFactory(int k) {
    for (int n = 0; n < 10; ++n) mNameToRealNameMap[Alias(k, n)] = Real(k, n);
  }
  static std::string Alias(int k, int n) { return "alias-" + std::to_string(k) + "-" + std::to_string(n); }
  static std::string Real(int k, int n) { return "Real" + std::to_string(k) + "_" + std::to_string(n); }
};

// The table filled first, as the rules ask; only look-ups run side by side.
class FactoryStress : public OBJCREAT_Details::FactoryRepositoryBase, public ::testing::Test {
 protected:
  void SetUp() override {
    smNameToProductFactoryMap.clear();
    for (int k = 0; k < 16; ++k) smNameToProductFactoryMap[Key(k)] = boost::make_shared<NamedFactory>(k);
  }
  void TearDown() override { smNameToProductFactoryMap.clear(); }
  static std::string Key(int k) { return "factory-" + std::to_string(k); }
  static bool LookUp(int k, int n) {
    const auto found = GetFactory(Key(k).c_str());
    if (found == nullptr || found != smNameToProductFactoryMap.at(Key(k)).get()) return false;
    if (GetFactory("factory-missing") != nullptr) return false;
    if (GetRealName(NamedFactory::Alias(k, n).c_str()) != NamedFactory::Real(k, n)) return false;
    try {
      GetRealName("no-such-alias");
      return false;
    } catch (const Exception&) {
      return true;
    }
  }
};

}  // namespace

TEST_F(FactoryStress, ThreadsLookUpAFilledTableAtOnce) {
  std::atomic<int> good{0};
  OnThreads(kThreads, [&](int t) {
    for (int k = 0; k < 16; ++k) {
      for (int n = 0; n < 10; ++n) {
        if (LookUp((k + t) % 16, n)) ++good;
      }
    }
  });
  EXPECT_EQ(good, kThreads * 16 * 10);
}
