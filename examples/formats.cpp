// Formats inside one stream of a compound file: a versioned head, then a
// directory of sub-streams by number and one by name, written and read back.
// Usage: tz_example_formats [FILE]
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include <tesselzostream/tesselzostream.h>

namespace {

// What the application stores: a head with its own magic and version tells
// a reader which layout follows.
const ZStreamableData kHead(3, "SceneFile");

bool Fail(const char* what) {
  std::cerr << "failed: " << what << "\n";
  return false;
}

bool Write(CompoundFile& file) {
  std::unique_ptr<std::iostream> s(file.GetIOStream("scene", "wb"));
  if (!s || !kHead.Write(*s)) return Fail("write the head");
  {
    OutputStreamDirectory layers(*s, 4);  // room for four numbered parts
    layers.GetOutput(10) << "background: sky\n";
    layers.GetOutput(20) << "middle: hills\n";
    layers.GetOutput(30) << "front: a fence\n";
    layers.Close();
  }
  {
    OldOutputStreamDirectory notes(*s);  // parts by short names
    notes.GetOutput("author") << "someone\n";
    notes.GetOutput("date") << "today\n";
    notes.Close();
  }
  return s->good() || Fail("write the scene");
}

std::string Line(std::istream* in) {
  std::string line;
  if (in != nullptr) std::getline(*in, line);
  return line;
}

bool Read(CompoundFile& file) {
  std::unique_ptr<std::iostream> s(file.GetIOStream("scene", "rb"));
  ZStreamableData head(3, "SceneFile");
  if (!s || !head.Check(*s)) return Fail("not a scene");
  std::cout << "scene head: version " << head.GetZStreamVersionNumber() << "\n";
  InputStreamDirectory layers(*s);
  for (std::uint16_t id : {30, 10, 20}) std::cout << "layer " << id << ": " << Line(layers.GetInput(id)) << "\n";
  std::cout << "layer 40 is " << (layers.GetInput(40) == nullptr ? "absent" : "present") << "\n";
  layers.Close();  // the stream now stands behind the numbered parts
  OldInputStreamDirectory notes(*s);
  std::cout << "author: " << Line(notes.GetInput("author")) << "\n";
  std::cout << "date: " << Line(notes.GetInput("date")) << "\n";
  notes.Close();
  return !s->bad() || Fail("read the scene");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string path = argc > 1 ? argv[1] : "formats.tzcf";
  std::remove(path.c_str());
  CompoundFile file;
  if (file.Open(path.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) return 1;
  const bool ok = Write(file) && Read(file);
  return file.Close() == ZoStreamE::StatusOk && ok ? 0 : 1;
}
