// Saves of the working-folder source (copy back, SaveAs, compaction) and
// extraction with the Nth platform call of each kind failing (file calls,
// and the stat, listing and folder calls of the working folder), and every
// later one, for N = 1, 2, ... until the operation runs clean. A file-system
// error may leave as the file system's exception where the source lets it
// pass; that counts as a failure like any other. Every stream then holds its
// saved or its new content, but for the one in flight (a copy frees the old
// chain first), which may hold part of its new content or be gone. A failed
// copy back or SaveAs, made again, saves it all; a failed compaction leaves
// the streams whole under the file's name or the temporary name it reports;
// a failed extraction leaves no working file with a part of its stream.
#include <unistd.h>

#include <functional>

#include "tests/sources/SourceFixture.h"
#include "tesselzostream/Exception.h"

namespace {

using tztest::Fault;
using Streams = std::map<std::string, std::string>;

const Streams kBefore = {{"alpha", tztest::Pattern(3000, 1)}, {"beta", "b0"},
                         {"gamma", tztest::Pattern(12000, 2)}, {"doomed", tztest::Pattern(1500, 3)},
                         {"steady", tztest::Pattern(5000, 4)}};
const Streams kAfter = {{"alpha", "a1"}, {"beta", "b0"}, {"gamma", tztest::Pattern(25000, 5)},
                        {"steady", tztest::Pattern(5000, 4)}, {"fresh", tztest::Pattern(4000, 6)}};

constexpr int kMaxRounds = 200;

// Names and sizes, for a readable failure message.
std::string Summary(const Streams& streams) {
  std::string text;
  for (const auto& s : streams) text += s.first + ":" + std::to_string(s.second.size()) + " ";
  return text;
}
#define EXPECT_STREAMS(expected, actual) EXPECT_TRUE((expected) == (actual)) << Summary(actual)

class SourceFaultTest : public SourceFixture {
 protected:
  // A source on the saved file with the edits made: two streams changed,
  // one deleted, one added, one read (and so extracted) unchanged.
  std::unique_ptr<Source> Edited() {
    fs::remove_all(work);
    fs::remove(file);
    Store(kBefore);
    std::unique_ptr<Source> source = Opened();
    EXPECT_EQ(kBefore.at("steady"), Drain(source->GetIStream("steady")));
    EXPECT_TRUE(Fill(source->GetOStream("alpha"), kAfter.at("alpha")));
    EXPECT_TRUE(Fill(source->GetOStream("gamma"), kAfter.at("gamma")));
    EXPECT_TRUE(Fill(source->GetOStream("fresh"), kAfter.at("fresh")));
    source->DeleteSource("doomed");
    return source;
  }

  // The readable streams of a copy of the file at `original` (a source may
  // still hold it locked), each through a handle of its own since a failed
  // read makes a handle's status sticky.
  Streams StoredAt(const std::string& original) {
    const std::string path = dir.Path("snapshot.tzcf");
    tztest::WriteAll(path, tztest::ReadAll(original));
    Streams result;
    for (const std::string& name : tztest::ListNames(tztest::OpenedFile(path, ZoStreamE::OpenReadWrite))) {
      if (name == "zorvanet_block_file_free_list") continue;
      CompoundFile cf;
      if (cf.Open(path.c_str(), ZoStreamE::OpenReadOnly) != ZoStreamE::StatusOk) continue;
      bool ok = false;
      const std::string content = tztest::GetStream(cf, name.c_str(), &ok);
      if (ok) result[name] = content;
    }
    return result;
  }

  // Every stream saved or new; at most one a part of its new content or gone.
  static void ExpectSavedOrNew(const Streams& stored) {
    int inFlight = 0;
    for (const auto& name : {"alpha", "beta", "gamma", "doomed", "steady", "fresh"}) {
      const auto got = stored.find(name);
      const auto old = kBefore.find(name), now = kAfter.find(name);
      if (got == stored.end()) {
        if (old != kBefore.end() && now != kAfter.end()) ++inFlight;
        continue;
      }
      const bool asOld = old != kBefore.end() && got->second == old->second;
      const bool asNew = now != kAfter.end() && got->second == now->second;
      if (asOld || asNew) continue;
      ++inFlight;
      EXPECT_TRUE(now != kAfter.end() && now->second.compare(0, got->second.size(), got->second) == 0)
          << name << " holds bytes that were never written to it";
    }
    for (const auto& s : stored) EXPECT_TRUE(kBefore.count(s.first) || kAfter.count(s.first)) << s.first;
    EXPECT_LE(inFlight, 1) << Summary(stored);
  }

  // Runs `save` under each fault and number until it runs clean; `check`
  // gets the source, whether the save succeeded, whether the fault struck.
  void EveryFault(const std::function<bool(Source&)>& save,
                  const std::function<void(std::unique_ptr<Source>&, bool, bool)>& check) {
    for (const Fault kind : tztest::kAllFaults) {
      bool clean = false;
      for (int n = 1; n <= kMaxRounds && !clean && !HasFailure(); ++n) {
        SCOPED_TRACE(std::string("failing ") + tztest::FaultName(kind) + " " + std::to_string(n));
        tztest::FaultyEnv env;  // the compound file's own calls fail too
        bool succeeded, hit;
        std::unique_ptr<Source> source;
        {
          tztest::ScopedEnv scoped(&env);
          source = Edited();
          env.Reset(kind, n);
          try {
            succeeded = save(*source);
          } catch (const fs::filesystem_error&) {
            succeeded = false;
          }
          hit = env.hit();
          env.Reset(kind, 0);
        }
        EXPECT_TRUE(succeeded || hit) << "failed with nothing failing";
        check(source, succeeded, hit);
        clean = !hit;
        if (source) source->Close(Source::DiscardChanges, false);
      }
      EXPECT_TRUE(clean) << tztest::FaultName(kind) << ": still failing after " << kMaxRounds << " rounds";
    }
  }

  // A fresh handle on the folder as it stands, for a retry after the old
  // one's compound file failed; the deletion it forgot is made again.
  std::unique_ptr<Source> Reopened(std::unique_ptr<Source>& old) {
    old.reset();
    std::unique_ptr<Source> source(new Source(file.c_str(), work.c_str()));
    EXPECT_EQ(Source::NoError, source->Open(Source::ExistingDirectory, false));
    source->DeleteSource("doomed");
    source->SetIsDirty(true);
    return source;
  }

  // Closes with SaveChanges, on a fresh handle if the file's status failed.
  Source::Error SaveAgain(std::unique_ptr<Source>& source) {
    Source::Error saved = source->Close(Source::SaveChanges, false);
    if (saved != Source::CompoundFileNotAvailable) return saved;
    source = Reopened(source);
    return source->Close(Source::SaveChanges, false);
  }

  std::string movedTo_;  // where a failed compaction says the data went
  bool failedCopy_ = false;  // it failed while writing the new file
};

TEST_F(SourceFaultTest, CopyBackLosesNothing) {
  EveryFault([](Source& s) { return s.Close(Source::SaveChanges, false) == Source::NoError; },
             [&](std::unique_ptr<Source>& source, bool succeeded, bool hit) {
               if (succeeded) {
                 // A failure in a stream's release shows only in the
                 // compound file's status, which Close does not consult.
                 if (hit) ExpectSavedOrNew(StoredAt(file));
                 else EXPECT_STREAMS(kAfter, StoredAt(file));
                 EXPECT_FALSE(fs::exists(work));
                 return;
               }
               ExpectSavedOrNew(StoredAt(file));
               // Saved again (on a fresh handle if need be), all arrives.
               ASSERT_EQ(Source::NoError, SaveAgain(source));
               EXPECT_STREAMS(kAfter, StoredAt(file));
             });
}

TEST_F(SourceFaultTest, SaveAsLeavesTheOriginalAndCanBeRepeated) {
  const std::string target = dir.Path("copy.tzcf");
  EveryFault([&](Source& s) { return s.SaveAs(target.c_str()) == Source::NoError; },
             [&](std::unique_ptr<Source>& source, bool succeeded, bool hit) {
               EXPECT_STREAMS(kBefore, StoredAt(file)) << "SaveAs changed the original";
               if (succeeded && !hit) {
                 EXPECT_STREAMS(kAfter, StoredAt(target));
               } else if (succeeded) {  // the close of the new file is not examined
                 ExpectSavedOrNew(StoredAt(target));
               } else {
                 source = Reopened(source);
                 ASSERT_EQ(Source::NoError, source->SaveAs(target.c_str()));
                 EXPECT_STREAMS(kAfter, StoredAt(target));
               }
             });
}

TEST_F(SourceFaultTest, CompactionKeepsAWholeFile) {
  EveryFault(
      [&](Source& s) {
        movedTo_.clear();
        failedCopy_ = false;
        try {
          s.CompactCompoundFile();
          return true;
        } catch (const Exception& e) {  // names where the data went, if not under the name
          const std::string text = e.what();
          failedCopy_ = text == "The file could not be copied";
          const std::size_t at = text.find("The new file name is ");
          movedTo_ = at == std::string::npos ? "" : dir.Path(text.substr(at + 21));
          return false;
        } catch (ZoStreamE::Status) {  // an open that could not read the directory
          movedTo_.clear();
          failedCopy_ = false;
          return false;
        }
      },
      [&](std::unique_ptr<Source>& source, bool succeeded, bool) {
        if (!succeeded && failedCopy_) {
          // The old file stays, and so do the pending changes: a save
          // (on a fresh handle if the file's status failed) brings them all.
          failedCopy_ = false;
          EXPECT_STREAMS(kBefore, StoredAt(file));
          EXPECT_TRUE(source->IsDirty());
          ASSERT_EQ(Source::NoError, SaveAgain(source));
          EXPECT_STREAMS(kAfter, StoredAt(file));
          RemoveCompactionLeftovers();
          return;
        }
        source->Close(Source::DiscardChanges, false);
        if (succeeded) {
          EXPECT_STREAMS(kAfter, StoredAt(file));
          return;
        }
        if (!movedTo_.empty()) {
          EXPECT_FALSE(fs::exists(file));
          EXPECT_STREAMS(kAfter, StoredAt(movedTo_));
          fs::remove(movedTo_);
          return;
        }
        // The old file, or the new one once it took its place.
        const Streams stored = StoredAt(file);
        EXPECT_TRUE(stored == kBefore || stored == kAfter) << "neither the old file nor the new one";
        RemoveCompactionLeftovers();
      });
}

TEST_F(SourceFaultTest, ExtractionLeavesWholeFilesOrNone) {
  // "fresh" goes first: a name only in the folder would end the run.
  EveryFault([](Source& s) { s.DeleteSource("fresh"); return s.ExtractAllFiles(); },
             [&](std::unique_ptr<Source>&, bool succeeded, bool) {
               // A working file is whole: the stored stream (extraction
               // writes over a change) or, until then, the change.
               for (const char* name : {"alpha", "beta", "gamma", "steady"}) {
                 if (!fs::exists(work + "/" + name)) {
                   EXPECT_FALSE(succeeded) << name << " not extracted";
                   continue;
                 }
                 const tztest::FileBytes bytes = tztest::ReadAll(work + "/" + name);
                 const std::string got(bytes.begin(), bytes.end());
                 EXPECT_TRUE(got == kBefore.at(name) || (!succeeded && got == kAfter.at(name))) << name;
               }
               EXPECT_STREAMS(kBefore, StoredAt(file));
             });
}

// A stream whose working file lies behind a link inside the folder is
// copied only when the link's target can be worked out, as is the target
// file's own name: a SaveAs that cannot tell fails and keeps the change
// pending, rather than storing the old content as for a refused name.
TEST_F(SourceFaultTest, AnUnresolvablePathNeverSavesStaleContent) {
  const std::string target = dir.Path("copy.tzcf");
  bool clean = false;
  for (int n = 1; n <= kMaxRounds && !clean && !HasFailure(); ++n) {
    SCOPED_TRACE("failing canonical path " + std::to_string(n));
    fs::remove_all(work);
    fs::remove(file);
    fs::remove(target);
    Store({{"sub/x", "old"}});
    std::unique_ptr<Source> source = Opened();
    const std::string folder = source->GetDirectoryName();
    fs::create_directory(folder + "real");
    ASSERT_EQ(0, ::symlink("real", (folder + "sub").c_str()));
    ASSERT_TRUE(Fill(source->GetOStream("sub/x"), "new"));
    Source::Error saved;
    {
      tztest::FaultyEnv env;
      tztest::ScopedEnv scoped(&env);
      env.Reset(Fault::kCanonical, n);
      saved = source->SaveAs(target.c_str());
      clean = !env.hit();
    }
    if (saved != Source::NoError) {
      EXPECT_TRUE(source->IsDirty());
      ASSERT_EQ(Source::NoError, source->SaveAs(target.c_str()));
    }
    EXPECT_EQ("new", Stored(target).at("sub/x"));
    source->Close(Source::DiscardChanges, false);
  }
  EXPECT_TRUE(clean);
}

// A working file's stream reports a failed put or flush in its state.
TEST_F(SourceFaultTest, WorkingStreamsShowFailuresInTheirState) {
  Store(kBefore);
  std::unique_ptr<Source> source = Opened();
  tztest::FaultyEnv env;
  tztest::ScopedEnv scoped(&env);
  for (const Fault kind : {Fault::kWrite, Fault::kSync}) {
    env.Reset(kind, 1);
    std::unique_ptr<std::ostream> out(source->GetOStream("alpha"));
    ASSERT_NE(nullptr, out);
    out->write("xyz", 3);
    out->flush();
    EXPECT_TRUE(out->bad()) << tztest::FaultName(kind);
  }
  env.Reset(Fault::kRead, 1);
  std::unique_ptr<std::istream> in(source->GetIStream("steady"));
  ASSERT_NE(nullptr, in);
  char c[16];
  in->read(c, sizeof c);
  EXPECT_TRUE(in->bad());
  env.Reset(Fault::kOpen, 1);
  EXPECT_EQ(nullptr, source->GetIStream("beta"));
  env.Reset(Fault::kOpen, 0);
}

}  // namespace
