// An application built against the installed library only.
#include <memory>
#include <string>

#include <tesselzostream/tesselzostream.h>

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  CompoundFile file;
  if (file.Open(argv[1], ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) return 1;
  {
    std::unique_ptr<std::iostream> out(file.GetIOStream("hello", "wb"));
    *out << "hello from an installed library";
  }
  std::unique_ptr<std::iostream> in(file.GetIOStream("hello", "rb"));
  std::string word;
  *in >> word;
  in.reset();
  return file.Close() == ZoStreamE::StatusOk && word == "hello" ? 0 : 1;
}
