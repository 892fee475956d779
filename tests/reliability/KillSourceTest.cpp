// Kills during edits through the working-folder source: working files,
// copy back, save as, close with save, and compaction.
//
// What counts as saved, by the library's own rules: the compound file
// changes only at a copy back (CopyToBlockFile, Close with SaveChanges on a
// dirty source); streams that any copy back of the killed session carried
// (the compound file stays open from the source's Open to its Close) are
// unsettled. A working file is saved in the working folder once its stream
// has been released; a folder left behind by a kill is either taken over
// (Open with ExistingDirectory, which counts every working file as
// changed) or removed, by the application's choice. A compaction must leave
// the original or the compacted file, whole, under the original's name, or,
// killed between removing the old file and the rename, the compacted file
// under the temporary name.
#include <algorithm>
#include <memory>
#include <random>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "tests/reliability/KillFiles.h"
#include "tests/reliability/KillHarness.h"

namespace fs = boost::filesystem;

namespace killtest {
namespace {

constexpr std::uint32_t kNames = 10;
using Source = CompoundFileStreamSource;

// The source's state as the library's rules make it, step by step; the
// child keeps it to choose its steps, the parent replays the log with it.
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
  void CopyBack() {
    for (std::uint32_t name : deleted) stored.erase(name);
    for (std::uint32_t name : changed) stored[name] = working[name];
    changed.clear();
    deleted.clear();
    dirty = false;
  }
  void Apply(const Record& record) {
    switch (record.op) {
      case Op::kOpen:
        working.clear();
        changed.clear();
        deleted.clear();
        dirty = false;
        break;
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
      case Op::kCopyBack:
        CopyBack();
        break;
      case Op::kSaveAs:
        savedAs = View();
        for (const auto& stream : savedAs) working.insert(stream);  // extracted
        savedAsWhole = true;
        dirty = false;
        break;
      case Op::kCloseSave:
        if (dirty) CopyBack();
        working.clear();
        changed.clear();
        deleted.clear();
        break;
      default:
        break;
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
    for (std::uint32_t i = 0; i < kNames / 2; ++i) {
      model_.stored[i] = Content(i, nextVersion_++, 2000 * i + 11);
      std::unique_ptr<std::iostream> out(file.GetIOStream(StreamName(i).c_str(), "wb"));
      out->write(model_.stored[i].data(), static_cast<std::streamsize>(model_.stored[i].size()));
    }
  }

  void RunChild(ProgressLog& log, std::uint64_t seed, int steps) override {
    std::mt19937_64 rng(seed);
    Source source(path_.c_str(), FolderFor(dir_, path_).c_str());
    if (!Open(source, log)) return;
    for (int step = 0; step < steps; ++step) {
      if (!Step(source, log, rng)) return;
    }
    log.Begin(Op::kCloseSave);
    if (source.Close(Source::SaveChanges, false) != Source::NoError) return log.Fail(13);
    Done(log, Op::kCloseSave);
  }

  bool Check(const std::vector<Record>& log, bool killed, Tally& tally) override;

 private:
  bool Open(Source& source, ProgressLog& log) {
    log.Begin(Op::kOpen);
    if (source.Open(Source::NewDirectory, false) != Source::NoError) return log.Fail(10), false;
    Done(log, Op::kOpen);
    return true;
  }
  void Done(ProgressLog& log, Op op, std::uint32_t name = 0, std::uint32_t version = 0,
            std::uint32_t offset = 0, std::uint32_t length = 0) {
    log.Done(op, name, version, offset, length);
    model_.Apply({1, op, name, version, offset, length});
  }
  bool Step(Source& source, ProgressLog& log, std::mt19937_64& rng);
  bool WriteStep(Source& source, ProgressLog& log, std::mt19937_64& rng, bool replace);
  std::uint32_t PickInView(std::mt19937_64& rng) const {
    const Streams view = model_.View();
    auto it = view.begin();
    std::advance(it, static_cast<long>(rng() % view.size()));
    return it->first;
  }
  void CheckFolder(SourceModel& model, const Record* flight, int kill, Tally& tally);
  void CheckSavedAs(const SourceModel& model, const Record* flight, Tally& tally);

  std::string dir_, path_, saveAsPath_;
  SourceModel model_;
  std::uint32_t nextVersion_ = 1;
  int checks_ = 0;
};

bool WorkingFolderWorkload::Step(Source& source, ProgressLog& log, std::mt19937_64& rng) {
  const int roll = static_cast<int>(rng() % 100);
  const bool any = !model_.View().empty();
  if (roll < 35 || !any) return WriteStep(source, log, rng, true);
  if (roll < 50) return WriteStep(source, log, rng, false);
  if (roll < 60) {
    const std::uint32_t name = PickInView(rng);
    log.Begin(Op::kDelete, name);
    source.DeleteSource(StreamName(name).c_str());
    Done(log, Op::kDelete, name);
    return true;
  }
  if (roll < 75) {
    log.Begin(Op::kCopyBack);
    if (source.CopyToBlockFile(false) != Source::NoError) return log.Fail(11), false;
    Done(log, Op::kCopyBack);
    return true;
  }
  if (roll < 85) {
    model_.savedAsWhole = false;
    log.Begin(Op::kSaveAs);
    if (source.SaveAs(saveAsPath_.c_str()) != Source::NoError) return log.Fail(12), false;
    Done(log, Op::kSaveAs);
    return true;
  }
  log.Begin(Op::kCloseSave);
  if (source.Close(Source::SaveChanges, false) != Source::NoError) return log.Fail(13), false;
  Done(log, Op::kCloseSave);
  return Open(source, log);
}

bool WorkingFolderWorkload::WriteStep(Source& source, ProgressLog& log, std::mt19937_64& rng, bool replace) {
  const std::uint32_t name = replace ? static_cast<std::uint32_t>(rng() % kNames) : PickInView(rng);
  const std::uint32_t version = nextVersion_++;
  const std::uint32_t length = replace ? PickLength(rng) : 1 + PickLength(rng) / 4;
  const std::uint32_t size = replace ? 0 : static_cast<std::uint32_t>(model_.View()[name].size());
  const std::uint32_t offset = replace ? 0 : static_cast<std::uint32_t>(rng() % (size + 1));
  const Op op = replace ? Op::kRewrite : Op::kOverwrite;
  log.Begin(op, name, version, offset, length);
  const std::string bytes = Content(name, version, length);
  bool good = false;
  if (replace) {
    std::unique_ptr<std::ostream> out(source.GetOStream(StreamName(name).c_str()));
    good = out != nullptr && WriteInPieces(*out, bytes, rng);
  } else {
    std::unique_ptr<std::iostream> out(source.GetIOStream(StreamName(name).c_str()));
    good = out != nullptr && out->seekp(offset) && WriteInPieces(*out, bytes, rng);
  }
  if (!good) return log.Fail(14), false;
  Done(log, op, name, version, offset, length);
  return true;
}

bool WorkingFolderWorkload::Check(const std::vector<Record>& log, bool killed, Tally& tally) {
  ++checks_;
  SourceModel model = model_;
  std::uint32_t maxVersion = nextVersion_;
  // Streams that copy backs of the killed session (the compound file's
  // open, from the source's Open to its Close) carried: each may hold its
  // content before the session, a version carried, or be gone.
  Wholes wholes;
  for (const Record& record : log) {
    maxVersion = std::max(maxVersion, record.version + 1);
    if (record.op == Op::kSaveAs && record.done == 0) model.savedAsWhole = false;
    if (record.done == 0 && record.op == Op::kOpen) wholes.clear();
    const bool copyBack = record.done == 0 && (record.op == Op::kCopyBack || (record.op == Op::kCloseSave && model.dirty));
    if (copyBack) {
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
  nextVersion_ = maxVersion;
  const Record* flight = InFlight(log);
  if (!killed && flight != nullptr) ADD_FAILURE() << tally.where << ": a run that ended left a step unsettled";
  if (killed && !wholes.empty()) tally.Note("kills with streams carried in the killed session");

  std::set<std::string> unsettled;
  for (const auto& stream : wholes) unsettled.insert(StreamName(stream.first));

  std::uint32_t leaked = 0;
  CheckReport report = CheckCompoundFile(path_.c_str());
  std::set<std::string> unsettledNow(unsettled);
  if (flight != nullptr && (flight->op == Op::kCloseSave || flight->op == Op::kOpen)) unsettledNow.insert(kFreeListName);
  // A carried stream is kept only when it reads as a whole version over a
  // sound chain; of chains that share blocks neither can be kept.
  const std::set<std::string> damaged = StreamsWithProblems(report);
  bool looping = false;  // a carried stream's chain comes back to itself
  for (const CheckProblem& problem : report.problems) {
    if (problem.kind == CheckProblem::kChainLoop && unsettled.count(problem.stream) != 0) looping = true;
  }
  const bool shared = SetAsideSharedBlocks(report, unsettledNow, tally) != 0;
  for (auto& stream : wholes) {
    if (!shared && damaged.count(StreamName(stream.first)) == 0) continue;
    if (!shared) tally.Note("carried stream with a damaged chain: deleted");
    stream.second.clear();
  }
  for (const std::string& problem :
       ForbiddenProblems(report, unsettledNow,
                         {CheckProblem::kFreeInHead, CheckProblem::kChainShort, CheckProblem::kChainLink,
                          CheckProblem::kSavedMap, CheckProblem::kChainLoop},
                         &leaked)) {
    ADD_FAILURE() << tally.where << ": after the kill: " << problem;
  }
  {
    CompoundFile file;
    const ZoStreamE::Status status = file.Open(path_.c_str(), ZoStreamE::OpenReadWrite);
    if (status != ZoStreamE::StatusOk) {
      ADD_FAILURE() << tally.where << ": the file does not open read-write (status " << status << ")";
      return false;
    }
    if (ExpectSettled(file, model.stored, unsettled, tally.where) != 0) return false;
  }
  // A deletion follows the links as they are, round a loop without end:
  // such a file cannot be brought back and is given up.
  if (looping) {
    tally.Note("carried stream's chain loops: file given up");
    return false;
  }
  if (!SettleStreams(path_, 0, wholes, model.stored, tally)) return false;
  CheckSavedAs(model, flight, tally);
  CheckFolder(model, flight, checks_, tally);
  for (const std::string& problem : ForbiddenProblems(CheckCompoundFile(path_.c_str()), {}, {}, &leaked)) {
    ADD_FAILURE() << tally.where << ": after recovery: " << problem;
  }
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
void WorkingFolderWorkload::CheckFolder(SourceModel& model, const Record* flight, int kill, Tally& tally) {
  const std::string folder = FolderFor(dir_, path_);
  if (!fs::exists(folder)) return;
  tally.Note("working folder left behind");
  EXPECT_FALSE(Source::PreviousDeleteOfTempDirUnsuccessfull(folder.c_str())) << tally.where;
  Source source(path_.c_str(), folder.c_str());
  EXPECT_EQ(source.Open(Source::NewDirectory, false), Source::DirectoryExists) << tally.where;
  if (kill % 2 == 1) {
    fs::remove_all(folder);
    EXPECT_EQ(source.Open(Source::NewDirectory, false), Source::NoError) << tally.where;
    EXPECT_EQ(source.Close(Source::DiscardChanges, false), Source::NoError) << tally.where;
    tally.Note("working folder removed, fresh session");
    return;
  }
  // The file the kill cut off is the application's to drop.
  const bool fileCut = flight != nullptr && (flight->op == Op::kRewrite || flight->op == Op::kOverwrite ||
                                             flight->op == Op::kDelete);
  if (fileCut) fs::remove(fs::path(folder) / StreamName(flight->name));
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

// The streams in which two states differ, as text.
std::string Difference(const Streams& got, const Streams& want) {
  std::string text;
  for (const auto& stream : want) {
    auto it = got.find(stream.first);
    if (it == got.end()) {
      text += " " + StreamName(stream.first) + " missing;";
    } else if (it->second != stream.second) {
      text += " " + StreamName(stream.first) + " has " + std::to_string(it->second.size()) + " bytes, not " +
              std::to_string(stream.second.size()) + ";";
    }
  }
  for (const auto& stream : got) {
    if (want.count(stream.first) == 0) text += " " + StreamName(stream.first) + " unexpected;";
  }
  return text;
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
    for (std::uint32_t i = 0; i < 3 * kNames; ++i) {
      const std::string content = Content(i, nextVersion_++, PickLength(rng));
      std::unique_ptr<std::iostream> out(file.GetIOStream(StreamName(i).c_str(), "wb"));
      out->write(content.data(), static_cast<std::streamsize>(content.size()));
      stored_[i] = content;
    }
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
      const std::uint32_t name = static_cast<std::uint32_t>(rng() % (3 * kNames));
      const std::uint32_t version = nextVersion_++;
      const std::uint32_t length = PickLength(rng);
      log.Begin(Op::kRewrite, name, version, 0, length);
      {
        std::unique_ptr<std::ostream> out(source.GetOStream(StreamName(name).c_str()));
        if (out == nullptr || !WriteInPieces(*out, Content(name, version, length), rng)) return log.Fail(21);
      }
      log.Done(Op::kRewrite, name, version, 0, length);
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

  std::uint32_t leaked = 0;
  for (const std::string& problem : ForbiddenProblems(CheckCompoundFile(checked.c_str()), {}, {}, &leaked)) {
    ADD_FAILURE() << tally.where << ": " << problem;
  }
  CompoundFile file;
  const ZoStreamE::Status status = file.Open(checked.c_str(), ZoStreamE::OpenReadWrite);
  if (status != ZoStreamE::StatusOk) {
    ADD_FAILURE() << tally.where << ": no file that opens under the original or the temporary name (status "
                  << status << ")";
    return false;
  }
  Streams got;
  for (const std::string& name : NamesIn(file)) {
    std::string content;
    EXPECT_TRUE(ReadStream(file, name, &content)) << tally.where << ": " << name;
    got[IndexOf(name)] = content;
  }
  file.Close();
  const bool original = got == stored_;
  const bool whole = got == compacted;
  std::string files;
  for (fs::directory_iterator it(dir_), end; it != end; ++it) {
    files += " " + it->path().filename().string() + "(" +
             (fs::is_directory(it->status()) ? std::string("dir") : std::to_string(fs::file_size(it->path()))) + ")";
  }
  if (!original && !whole) tally.where += ", files:" + files + (original ? ", original" : ", not original");
  if (underTemporary) {
    EXPECT_TRUE(whole) << tally.where << ": the temporary file does not hold the compacted streams:"
                       << Difference(got, compacted);
  } else if (compactDone) {
    EXPECT_TRUE(whole) << tally.where << ": a finished compaction left another state under the name:"
                       << Difference(got, compacted);
  } else if (compacting) {
    EXPECT_TRUE(original || whole) << tally.where << ": neither the original nor the compacted file";
    tally.Note(whole ? "compaction cut: compacted file in place" : "compaction cut: original in place");
  } else {
    EXPECT_TRUE(original) << tally.where << ": the original changed before its compaction";
  }

  // Housekeeping the library leaves to the application: temporary files of
  // a cut compaction (25 names at most, then compaction refuses) and the
  // working folder.
  for (fs::directory_iterator it(dir_), end; it != end; ++it) {
    const std::string leaf = it->path().filename().string();
    if (leaf.rfind("kelvoptmp", 0) == 0) {
      if (!underTemporary) tally.Note("compaction cut: temporary file left beside the original name");
      fs::remove(it->path());
    }
  }
  const std::string folder = FolderFor(dir_, path_);
  if (fs::exists(folder)) {
    EXPECT_FALSE(Source::PreviousDeleteOfTempDirUnsuccessfull(folder.c_str())) << tally.where;
    fs::remove_all(folder);
  }
  return false;  // a fresh file for every kill
}

KillPlan Plan(std::uint64_t seed, int baseSteps, int killsPerLife) {
  KillPlan plan;
  plan.seed = seed;
  plan.kills = KillPointsPerWorkload();
  plan.baseSteps = baseSteps;
  plan.killsPerLife = killsPerLife;
  return plan;
}

TEST(KillAnyMoment, WorkingFolder) {
  WorkingFolderWorkload workload;
  RunKills(workload, "working folder", Plan(0x6b696c6c03, 8, 25));
}

TEST(KillAnyMoment, Compaction) {
  CompactionWorkload workload;
  RunKills(workload, "compaction", Plan(0x6b696c6c04, 4, 1));
}

}  // namespace
}  // namespace killtest
