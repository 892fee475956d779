// An editing run with the working-folder source: open a compound file as a
// folder, change one stream, add one, delete one, save; then look at the
// result through a fresh handle. Usage: tz_example_editing [FILE]
#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include <boost/filesystem.hpp>
#include <tesselzostream/tesselzostream.h>

namespace {

std::string ReadAll(std::istream& in) {
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool Fail(const char* what) {
  std::cerr << "failed: " << what << "\n";
  return false;
}

bool Run(const std::string& path) {
  std::remove(path.c_str());
  {  // a file to edit: three streams
    CompoundFile file;
    if (file.Open(path.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) return Fail("create");
    for (const char* name : {"chapter1.txt", "chapter2.txt", "draft.txt"}) {
      std::unique_ptr<std::iostream> out(file.GetIOStream(name, "wb"));
      *out << "first text of " << name << "\n";
    }
    if (file.Close() != ZoStreamE::StatusOk) return Fail("close");
  }
  std::cout << "made " << path << " with three streams\n";

  // The working folder lies beside the file, named after it.
  const std::string base = boost::filesystem::absolute(path).parent_path().string();
  const std::string work = CompoundFileStreamSource::GetTempFolderName(base.c_str(), path.c_str());
  CompoundFileStreamSource source(path.c_str(), work.c_str());
  if (source.Open(CompoundFileStreamSource::NewDirectory, false) != CompoundFileStreamSource::NoError) {
    return Fail("open the source");
  }
  std::cout << "working folder " << work << "\n";
  {
    // Reading extracts the stream into the working folder first.
    std::unique_ptr<std::istream> in(source.GetIStream("chapter1.txt"));
    if (!in) return Fail("read chapter1.txt");
    std::cout << "chapter1.txt reads: " << ReadAll(*in);
  }
  {
    std::unique_ptr<std::ostream> out(source.GetOStream("chapter2.txt"));
    if (!out) return Fail("write chapter2.txt");
    *out << "second text of chapter2.txt\n";
  }
  {
    std::unique_ptr<std::ostream> out(source.GetOStream("chapter3.txt"));
    if (!out) return Fail("write chapter3.txt");
    *out << "a new chapter\n";
  }
  source.DeleteSource("draft.txt");
  std::cout << "changed chapter2.txt, added chapter3.txt, deleted draft.txt; dirty: " << source.IsDirty()
            << "\n";
  std::cout << "a rewrite would gain about " << source.GetUnUsedFileSpace() << " bytes\n";
  // Saving copies the changes back and removes the working folder.
  if (source.Close(CompoundFileStreamSource::SaveChanges, false) != CompoundFileStreamSource::NoError) {
    return Fail("save");
  }
  std::cout << "saved; working folder still there: " << boost::filesystem::exists(work) << "\n";

  CompoundFile file;
  if (file.Open(path.c_str(), ZoStreamE::OpenReadOnly) != ZoStreamE::StatusOk) return Fail("reopen");
  if (file.Exists("draft.txt")) return Fail("draft.txt is still there");
  for (const char* name : {"chapter1.txt", "chapter2.txt", "chapter3.txt"}) {
    std::unique_ptr<std::iostream> in(file.GetIOStream(name, "rb"));
    if (!in) return Fail(name);
    std::cout << name << ": " << ReadAll(*in);
  }
  return file.Close() == ZoStreamE::StatusOk;
}

}  // namespace

int main(int argc, char** argv) { return Run(argc > 1 ? argv[1] : "editing.tzcf") ? 0 : 1; }
