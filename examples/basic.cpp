// Creates a compound file with a few streams, lists them, reads them back
// and prints what it did. Usage: tz_example_basic [FILE]
#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include <tesselzostream/tesselzostream.h>

int main(int argc, char** argv) {
  const std::string path = argc > 1 ? argv[1] : "example.tzcf";
  std::remove(path.c_str());

  CompoundFile file;
  if (file.Open(path.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) {
    std::cerr << "cannot create " << path << "\n";
    return 1;
  }
  std::cout << "created " << file.GetCompoundFileName() << "\n";

  const char* names[] = {"notes/empty", "readme.txt", "data/lines.txt"};
  for (int i = 0; i < 3; ++i) {
    std::unique_ptr<std::iostream> out(file.GetIOStream(names[i], "wb"));
    if (!out) {
      std::cerr << "cannot write " << names[i] << "\n";
      return 1;
    }
    for (int line = 0; line < i * 500; ++line) *out << "line " << line << " of " << names[i] << "\n";
    std::cout << "wrote " << names[i] << "\n";
  }

  unsigned long cursor = 0;
  std::cout << "streams in the file:\n";
  for (const DirEntry* e = file.GetFirstDirEntry(&cursor); e != nullptr; e = file.GetNextDirEntry(&cursor)) {
    std::cout << "  " << e->name << "  " << e->size << " bytes\n";
  }

  for (const char* name : names) {
    std::unique_ptr<std::iostream> in(file.GetIOStream(name, "rb"));
    std::ostringstream text;
    text << in->rdbuf();
    std::cout << "read " << name << ": " << text.str().size() << " bytes\n";
  }

  const ZoStreamE::Status status = file.Close();
  std::cout << "closed with status " << status << "\n";
  return status == ZoStreamE::StatusOk ? 0 : 1;
}
