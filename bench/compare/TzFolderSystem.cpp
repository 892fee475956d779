// This library's working-folder source ("tz-folder"): it edits and
// compacts a copy of the tz-cf file, and has no write or read run of its
// own.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "bench/compare/TzCompoundFile.h"
#include "bench/compare/System.h"

namespace tzcompare {
namespace {

// The working-folder source: only the edit and the compaction, on a copy of
// the tz-cf file.
class FolderSource : public CompoundFiles {
 public:
  bool EditsOnly() const override { return true; }
  FolderSource() : CompoundFiles("tz-folder") {}

  void Edit(const fs::path& store, const Pattern& p, const Contents& before, const Contents& after,
            Clock& clock) const override {
    const std::vector<std::size_t> changed = Changed(before, after);
    const std::string work = WorkFolder(store);
    clock.Start();
    CompoundFileStreamSource source(store.c_str(), work.c_str());
    Check(source.Open(CompoundFileStreamSource::NewDirectory, false), "Open");
    for (std::size_t i : changed) {
      std::unique_ptr<std::ostream> out(source.GetOStream(StreamName(i).c_str()));
      if (!out) Fail("GetOStream failed for " + StreamName(i));
      WriteChunks(*out, p, i, after.version[i], after.size);
    }
    Check(source.Close(CompoundFileStreamSource::SaveChanges, false), "Close");
    clock.Stop();
  }

  const char* CompactHow() const override { return "DeleteCFFile (untimed), then CompactCompoundFile"; }
  void Compact(const fs::path& store, const Pattern&, const Contents& before, const Contents& after,
               Clock& clock) const override {
    {
      CompoundFile cf;
      OpenFile(cf, store, ZoStreamE::OpenReadWrite);
      for (std::size_t i : Gone(before, after)) {
        if (!cf.DeleteCFFile(StreamName(i).c_str())) Fail("DeleteCFFile failed");
      }
      CloseFile(cf);
    }
    const std::string work = WorkFolder(store);
    clock.Start();
    CompoundFileStreamSource source(store.c_str(), work.c_str());
    Check(source.Open(CompoundFileStreamSource::NewDirectory, false), "Open");
    source.CompactCompoundFile();
    Check(source.Close(CompoundFileStreamSource::SaveChanges, false), "Close");
    clock.Stop();
  }

 private:
  static std::string WorkFolder(const fs::path& store) {
    return CompoundFileStreamSource::GetTempFolderName(store.parent_path().c_str(), store.c_str());
  }
  static void Check(CompoundFileStreamSource::Error e, const char* what) {
    if (e != CompoundFileStreamSource::NoError) {
      Fail(std::string("working-folder source: ") + what + " failed with " + std::to_string(static_cast<int>(e)));
    }
  }
};

}  // namespace

const Registration kRegisterFolder(10, [] { return std::unique_ptr<System>(new FolderSource); });

}  // namespace tzcompare
