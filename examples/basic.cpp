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

  // Two streams written at once take their blocks in turns, so their
  // chains interleave in the file; a third stays empty.
  const char* names[] = {"notes/empty", "readme.txt", "data/lines.txt"};
  std::unique_ptr<std::iostream> empty(file.GetIOStream(names[0], "wb"));
  std::unique_ptr<std::iostream> readme(file.GetIOStream(names[1], "wb"));
  std::unique_ptr<std::iostream> lines(file.GetIOStream(names[2], "wb"));
  if (!empty || !readme || !lines) {
    std::cerr << "cannot write the streams\n";
    return 1;
  }
  for (int line = 0; line < 1000; ++line) {
    if (line < 500) *readme << "line " << line << " of " << names[1] << "\n";
    *lines << "line " << line << " of " << names[2] << "\n";
    if (line % 100 == 99) {  // hand the stream buffers to the file now and then
      readme->flush();
      lines->flush();
    }
  }
  empty.reset();
  readme.reset();
  lines.reset();
  for (const char* name : names) std::cout << "wrote " << name << "\n";

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
