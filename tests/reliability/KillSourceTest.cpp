// Kills during edits through the working-folder source: working files,
// copy back, save as, close with save, and compaction.
//
// The compound file changes only at a copy back (CopyToBlockFile, Close
// with SaveChanges on a dirty source); streams that a copy back of the
// killed session carried are touched. A working file is saved in the
// working folder once its stream has been released; a folder a kill left
// is taken over (Open with ExistingDirectory, which counts every working
// file as changed) or removed, by the application's choice. A compaction
// leaves the original or the compacted file, whole, under the original's
// name, or, killed between removing the old file and the rename, the
// compacted file under the temporary name.
#include <algorithm>
#include <memory>
#include <random>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "tests/reliability/KillHarness.h"

namespace fs = boost::filesystem;

namespace killtest {
namespace {

constexpr std::uint32_t kNames = 10;
using Source = CompoundFileStreamSource;

// The source's state by the library's rules, step by step; the child keeps
// it to choose its steps, the parent replays the log with it.
struct SourceModel {
  Streams stored;                   // the compound file
  Streams working;                  // working files present, whole
  std::set<std::uint32_t> changed;  // working files a copy back carries
  std::set<std::uint32_t> deleted;  // recorded deletions
  bool dirty = false;
  Streams savedAs;  // the SaveAs target, when savedAsWhole
  bool savedAsWhole = false;

  Streams View() const {
    Streams view = stored;
    for (std::uint32_t name : deleted) view.erase(name);
    for (const auto& file : working) view[file.first] = file.second;
    return view;
  }
  void Forget() {
    working.clear();
    changed.clear();
    deleted.clear();
    dirty = false;
  }
  void CopyBack() {
    for (std::uint32_t name : deleted) stored.erase(name);
    for (std::uint32_t name : changed) stored[name] = working[name];
    changed.clear();
    deleted.clear();
    dirty = false;
  }
  void Apply(const Record& record) {
    switch (record.op) {
      case Op::kOpen: Forget(); break;
      case Op::kRewrite:
      case Op::kOverwrite:
        if (record.op == Op::kOverwrite && working.count(record.name) == 0) {
          working[record.name] = stored[record.name];  // extracted first
        }
        ApplyWrite(working, record);
        changed.insert(record.name);
        deleted.erase(record.name);
        dirty = true;
        break;
      case Op::kDelete:
        working.erase(record.name);
        changed.erase(record.name);
        deleted.insert(record.name);
        dirty = true;
        break;
      case Op::kCopyBack: CopyBack(); break;
      case Op::kSaveAs:
        savedAs = View();
        for (const auto& stream : savedAs) working.insert(stream);  // extracted
        savedAsWhole = true;
        dirty = false;
        break;
      case Op::kCloseSave:
        if (dirty) CopyBack();
        Forget();
        break;
      default: break;
    }
  }
};

std::string FolderFor(const std::string& dir, const std::string& path) {
  return Source::GetTempFolderName(dir.c_str(), path.c_str());
}

class WorkingFolderWorkload : public Workload {
 public:
  void StartLife(const std::string& dir) override {
    dir_ = dir;
    path_ = dir + "/edited.cf";
    saveAsPath_ = dir + "/saved.cf";
    model_ = SourceModel();
    CompoundFile file;
    ASSERT_EQ(file.Open(path_.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
    for (std::uint32_t i = 0; i < kNames / 2; ++i) Put(file, i, model_.stored[i] = Content(i, nextVersion_++, 2000 * i + 11));
  }

  void RunChild(ProgressLog& log, std::uint64_t seed, int steps) override {
    std::mt19937_64 rng(seed);
    Source source(path_.c_str(), FolderFor(dir_, path_).c_str());
    if (!Open(source, log)) return;
    for (int step = 0; step < steps; ++step) {
      if (!Step(source, log, rng)) return;
    }
    CloseSave(source, log);
  }

  bool Check(const std::vector<Record>& log, bool killed, Tally& tally) override;

 private:
  bool Open(Source& source, ProgressLog& log) {
    log.Begin(Op::kOpen);
    if (source.Open(Source::NewDirectory, false) != Source::NoError) return log.Fail(10), false;
    return Done(log, {1, Op::kOpen, 0, 0, 0, 0});
  }
  bool CloseSave(Source& source, ProgressLog& log) {
    log.Begin(Op::kCloseSave);
    if (source.Close(Source::SaveChanges, false) != Source::NoError) return log.Fail(13), false;
    return Done(log, {1, Op::kCloseSave, 0, 0, 0, 0});
  }
  bool Done(ProgressLog& log, const Record& record) {
    log.Done(record);
    model_.Apply(record);
    return true;
  }
  bool Step(Source& source, ProgressLog& log, std::mt19937_64& rng);
  std::uint32_t PickInView(std::mt19937_64& rng) const {
    return PickIn(model_.View(), rng);
  }
  void CheckFolder(SourceModel& model, const Record* flight, Tally& tally);
  void CheckSavedAs(const SourceModel& model, const Record* flight, Tally& tally);

  std::string dir_, path_, saveAsPath_;
  SourceModel model_;
  std::uint32_t nextVersion_ = 1;
  int checks_ = 0;
};

bool WorkingFolderWorkload::Step(Source& source, ProgressLog& log, std::mt19937_64& rng) {
  const int roll = static_cast<int>(rng() % 100);
  const bool any = !model_.View().empty();
  if (roll < 50 || !any) {
    const bool replace = roll < 35 || !any;
    const std::uint32_t name = replace ? static_cast<std::uint32_t>(rng() % kNames) : PickInView(rng);
    const Record write = PlanWrite(rng, replace, name, nextVersion_++, replace ? 0 : model_.View()[name].size());
    log.Begin(write);
    const std::string text = StreamName(name);
    if (!WriteRecord(replace ? source.GetOStream(text.c_str()) : source.GetIOStream(text.c_str()), write, rng)) {
      return log.Fail(14), false;
    }
    return Done(log, write);
  }
  if (roll < 60) {
    const std::uint32_t name = PickInView(rng);
    log.Begin(Op::kDelete, name);
    source.DeleteSource(StreamName(name).c_str());
    return Done(log, {1, Op::kDelete, name, 0, 0, 0});
  }
  if (roll < 75) {
    log.Begin(Op::kCopyBack);
    if (source.CopyToBlockFile(false) != Source::NoError) return log.Fail(11), false;
    return Done(log, {1, Op::kCopyBack, 0, 0, 0, 0});
  }
  if (roll < 85) {
    model_.savedAsWhole = false;
    log.Begin(Op::kSaveAs);
    if (source.SaveAs(saveAsPath_.c_str()) != Source::NoError) return log.Fail(12), false;
    return Done(log, {1, Op::kSaveAs, 0, 0, 0, 0});
  }
  return CloseSave(source, log) && Open(source, log);
}

bool WorkingFolderWorkload::Check(const std::vector<Record>& log, bool killed, Tally& tally) {
  ++checks_;
  SourceModel model = model_;
  // Streams that copy backs of the killed session (the compound file's
  // open, from the source's Open to its Close) carried: each may hold its
  // content before the session, a version carried, or be gone.
  Wholes wholes;
  for (const Record& record : log) {
    nextVersion_ = std::max(nextVersion_, record.version + 1);
    if (record.op == Op::kSaveAs && record.done == 0) model.savedAsWhole = false;
    if (record.done == 0 && record.op == Op::kOpen) wholes.clear();
    if (record.done == 0 && (record.op == Op::kCopyBack || (record.op == Op::kCloseSave && model.dirty))) {
      std::set<std::uint32_t> carried(model.changed);
      carried.insert(model.deleted.begin(), model.deleted.end());
      for (std::uint32_t name : carried) {
        std::vector<Whole>& versions = wholes[name];
        if (versions.empty() && model.stored.count(name) != 0)
          versions.push_back({"content before the session", model.stored[name]});
        if (model.changed.count(name) != 0) versions.push_back({"a version carried", model.working[name]});
      }
    }
    if (record.done != 0) model.Apply(record);
    if (record.done != 0 && record.op == Op::kCloseSave) wholes.clear();
  }
  const Record* flight = InFlight(log);
  if (!killed && flight != nullptr) ADD_FAILURE() << tally.where << ": a run that ended left a step unsettled";
  if (killed && !wholes.empty()) tally.Note("kills with streams carried in the killed session");

  std::set<std::string> touched;
  for (const auto& stream : wholes) touched.insert(StreamName(stream.first));
  const bool mapTouched = flight != nullptr && (flight->op == Op::kCloseSave || flight->op == Op::kOpen);
  const KillReport report = CheckKilled(path_, 0, touched, mapTouched, true, tally);
  {
    CompoundFile file;
    if (!OpensForWriting(file, path_, tally) || ExpectSettled(file, model.stored, touched, tally.where) != 0) return false;
  }
  if (!Recover(path_, 0, report, wholes, model.stored, tally)) return false;
  CheckSavedAs(model, flight, tally);
  CheckFolder(model, flight, tally);
  ExpectSound(path_, 0, tally.where + ": after recovery");
  model_.stored = model.stored;
  return !::testing::Test::HasFailure();
}

void WorkingFolderWorkload::CheckSavedAs(const SourceModel& model, const Record* flight, Tally& tally) {
  if (!fs::exists(saveAsPath_)) return;
  CompoundFile target;
  const bool opens = target.Open(saveAsPath_.c_str(), ZoStreamE::OpenReadOnly) == ZoStreamE::StatusOk;
  if (model.savedAsWhole) {
    EXPECT_TRUE(opens) << tally.where << ": a finished SaveAs target does not open";
    if (opens) ExpectSettled(target, model.savedAs, {}, tally.where + " (SaveAs target)");
  } else if (flight != nullptr && flight->op == Op::kSaveAs) {
    tally.Note(opens ? "SaveAs cut: incomplete target opens" : "SaveAs cut: incomplete target does not open");
  }
  target.Close();
  fs::remove(saveAsPath_);
}

// A folder left by the kill: no removal failed, so no marker; a new
// session is refused it; then, in turns, it is taken over (its working
// files must read back as last written and are saved) or removed.
void WorkingFolderWorkload::CheckFolder(SourceModel& model, const Record* flight, Tally& tally) {
  const std::string folder = FolderFor(dir_, path_);
  if (!fs::exists(folder)) return;
  tally.Note("working folder left behind");
  EXPECT_FALSE(Source::PreviousDeleteOfTempDirUnsuccessfull(folder.c_str())) << tally.where;
  Source source(path_.c_str(), folder.c_str());
  EXPECT_EQ(source.Open(Source::NewDirectory, false), Source::DirectoryExists) << tally.where;
  if (checks_ % 2 == 1) {
    fs::remove_all(folder);
    EXPECT_EQ(source.Open(Source::NewDirectory, false), Source::NoError) << tally.where;
    EXPECT_EQ(source.Close(Source::DiscardChanges, false), Source::NoError) << tally.where;
    tally.Note("working folder removed, fresh session");
    return;
  }
  // The file the kill cut off is the application's to drop.
  if (flight != nullptr && (flight->op == Op::kRewrite || flight->op == Op::kOverwrite || flight->op == Op::kDelete)) {
    fs::remove(fs::path(folder) / StreamName(flight->name));
  }
  ASSERT_EQ(source.Open(Source::ExistingDirectory, false), Source::NoError) << tally.where;
  Streams expected = model.stored;
  for (const auto& file : model.working) {
    const std::string name = StreamName(file.first);
    if (!fs::exists(fs::path(source.GetDirectoryName()) / name)) continue;
    std::unique_ptr<std::istream> in(source.GetIStream(name.c_str()));
    std::string got;
    if (in != nullptr) got.assign(std::istreambuf_iterator<char>(*in), std::istreambuf_iterator<char>());
    EXPECT_TRUE(in != nullptr && got == file.second)
        << tally.where << ": working file " << name << " holds " << got.size() << " bytes, not the "
        << file.second.size() << " last written";
    expected[file.first] = file.second;
  }
  source.SetIsDirty(true);
  ASSERT_EQ(source.Close(Source::SaveChanges, false), Source::NoError) << tally.where;
  CompoundFile file;
  ASSERT_EQ(file.Open(path_.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk) << tally.where;
  ExpectSettled(file, expected, {}, tally.where + " (after taking the folder over)");
  model.stored = expected;
  tally.Note("working folder taken over and saved");
}

// A file with deleted streams, compacted by a child that first leaves some
// changes pending in its working folder, so that the compacted file differs
// from the original. Every kill gets a fresh file.
class CompactionWorkload : public Workload {
 public:
  void StartLife(const std::string& dir) override {
    dir_ = dir;
    path_ = dir + "/compacted.cf";
    stored_.clear();
    std::mt19937_64 rng(++lives_);
    CompoundFile file;
    ASSERT_EQ(file.Open(path_.c_str(), ZoStreamE::OpenReadWrite), ZoStreamE::StatusOk);
    for (std::uint32_t i = 0; i < 3 * kNames; ++i) Put(file, i, stored_[i] = Content(i, nextVersion_++, PickLength(rng)));
    for (std::uint32_t i = 0; i < 3 * kNames; i += 3) {
      ASSERT_TRUE(file.DeleteCFFile(StreamName(i).c_str()));
      stored_.erase(i);
    }
  }

  void RunChild(ProgressLog& log, std::uint64_t seed, int steps) override {
    std::mt19937_64 rng(seed);
    Source source(path_.c_str(), FolderFor(dir_, path_).c_str());
    log.Begin(Op::kOpen);
    if (source.Open(Source::NewDirectory, false) != Source::NoError) return log.Fail(20);
    log.Done(Op::kOpen);
    for (int step = 0; step < steps / 4; ++step) {
      const auto name = static_cast<std::uint32_t>(rng() % (3 * kNames));
      const Record write = PlanWrite(rng, true, name, nextVersion_++, 0);
      log.Begin(write);
      if (!WriteRecord(source.GetOStream(StreamName(name).c_str()), write, rng)) return log.Fail(21);
      log.Done(write);
    }
    log.Begin(Op::kCompact);
    try {
      source.CompactCompoundFile();
    } catch (const Exception&) {
      return log.Fail(22);
    }
    log.Done(Op::kCompact);
    log.Begin(Op::kCloseSave);
    if (source.Close(Source::SaveChanges, false) != Source::NoError) return log.Fail(23);
    log.Done(Op::kCloseSave);
  }

  bool Check(const std::vector<Record>& log, bool killed, Tally& tally) override;

 private:
  std::string dir_, path_;
  Streams stored_;
  std::uint32_t nextVersion_ = 1;
  std::uint64_t lives_ = 0;
};

bool CompactionWorkload::Check(const std::vector<Record>& log, bool killed, Tally& tally) {
  Streams compacted = stored_;
  bool compactDone = false;
  for (const Record& record : log) {
    nextVersion_ = std::max(nextVersion_, record.version + 1);
    if (record.op == Op::kRewrite && record.done != 0) ApplyWrite(compacted, record);
    if (record.op == Op::kCompact && record.done != 0) compactDone = true;
  }
  const Record* flight = InFlight(log);
  const bool compacting = flight != nullptr && flight->op == Op::kCompact;
  if (!killed && !compactDone) ADD_FAILURE() << tally.where << ": a run that ended did not compact";

  // Compaction removes the old file before the temporary one takes its
  // name: a kill between the two leaves the data under the temporary name
  // only, and that file must hold the compacted streams.
  std::string temporary;
  for (fs::directory_iterator it(dir_), end; it != end; ++it) {
    const std::string leaf = it->path().filename().string();
    if (leaf.size() == 14 && leaf.rfind("kelvoptmp", 0) == 0 && leaf.compare(10, 4, ".zvp") == 0) {
      temporary = it->path().string();
    }
  }
  const bool underTemporary = compacting && !fs::exists(path_) && !temporary.empty();
  const std::string checked = underTemporary ? temporary : path_;
  if (underTemporary) tally.Note("compaction cut between removal and rename: data under the temporary name");

  ExpectSound(checked, 0, tally.where);
  CompoundFile file;
  if (!OpensForWriting(file, checked, tally)) return false;
  // A state the compaction must have left is checked stream by stream.
  if (underTemporary || compactDone) {
    ExpectSettled(file, compacted, {}, tally.where + (underTemporary ? " (the temporary file)" : " (compacted)"));
  } else if (!compacting) {
    ExpectSettled(file, stored_, {}, tally.where + " (the original before its compaction)");
  } else {
    Streams got;
    for (const std::string& name : NamesIn(file)) {
      EXPECT_TRUE(ReadStream(file, name, &got[IndexOf(name)])) << tally.where << ": " << name;
    }
    EXPECT_TRUE(got == stored_ || got == compacted) << tally.where << ": neither the original nor the compacted file";
    tally.Note(got == compacted ? "compaction cut: compacted file in place" : "compaction cut: original in place");
  }
  file.Close();

  // Housekeeping the library leaves to the application: temporary files of
  // a cut compaction (25 names at most, then compaction refuses) and the
  // working folder.
  for (fs::directory_iterator it(dir_), end; it != end; ++it) {
    if (it->path().filename().string().rfind("kelvoptmp", 0) != 0) continue;
    if (!underTemporary) tally.Note("compaction cut: temporary file left beside the original name");
    fs::remove(it->path());
  }
  const std::string folder = FolderFor(dir_, path_);
  if (fs::exists(folder)) {
    EXPECT_FALSE(Source::PreviousDeleteOfTempDirUnsuccessfull(folder.c_str())) << tally.where;
    fs::remove_all(folder);
  }
  return false;  // a fresh file for every kill
}

TEST(KillAnyMoment, WorkingFolder) {
  WorkingFolderWorkload workload;
  RunKills(workload, "working folder", {0x6b696c6c03, 8});
}

TEST(KillAnyMoment, Compaction) {
  CompactionWorkload workload;
  RunKills(workload, "compaction", {0x6b696c6c04, 4, 1});
}

}  // namespace
}  // namespace killtest
