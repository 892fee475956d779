// Encryption: lock a compound file under a password, see that its payloads
// no longer hold the text, read it back with the password, change the
// password, and turn the file clear again. Usage: tz_example_encryption [FILE]
//
// The scheme keeps casual readers out; it is no protection against a
// determined attacker (see the README).
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include <tesselzostream/tesselzostream.h>

namespace {

const char kSecret[] = "the treasure lies under the third oak";

bool FileHolds(const std::string& path, const std::string& text) {
  std::ifstream in(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return bytes.find(text) != std::string::npos;
}

std::string ReadStream(CompoundFile& file, const char* name) {
  std::unique_ptr<std::iostream> in(file.GetIOStream(name, "rb"));
  std::string line;
  if (in) std::getline(*in, line);
  return line;
}

bool Fail(const char* what) {
  std::cerr << "failed: " << what << "\n";
  return false;
}

bool Run(const std::string& path) {
  std::remove(path.c_str());
  {
    CompoundFile file;
    if (file.Open(path.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) return Fail("create");
    std::unique_ptr<std::iostream>(file.GetIOStream("map.txt", "wb"))->write(kSecret, sizeof kSecret - 1);
    if (file.Encrypt("oak") != ZoStreamE::StatusOk) return Fail("encrypt");
    if (file.Close() != ZoStreamE::StatusOk) return Fail("close");
  }
  std::cout << "encrypted; the file holds the text in clear: " << FileHolds(path, kSecret) << "\n";
  {
    CompoundFile file;
    if (file.Open(path.c_str(), ZoStreamE::OpenReadWrite) != ZoStreamE::StatusOk) return Fail("open");
    std::cout << "opened without a password; encrypted: " << file.IsEncrypted() << "\n";
    if (file.SetPassword("elm")) return Fail("a wrong password was taken");
    if (!file.SetPassword("oak")) return Fail("the right password was refused");
    std::cout << "with the password it reads: " << ReadStream(file, "map.txt") << "\n";
    if (file.Encrypt("birch") != ZoStreamE::StatusOk) return Fail("change the password");
    if (file.Close() != ZoStreamE::StatusOk) return Fail("close");
  }
  std::cout << "password changed\n";
  {
    CompoundFile file;
    file.Open(path.c_str(), ZoStreamE::OpenReadWrite);
    if (!file.SetPassword("birch")) return Fail("the new password was refused");
    if (file.Decrypt() != ZoStreamE::StatusOk) return Fail("decrypt");
    if (file.Close() != ZoStreamE::StatusOk) return Fail("close");
  }
  std::cout << "decrypted; the file holds the text in clear: " << FileHolds(path, kSecret) << "\n";
  const CheckReport report = CheckCompoundFile(path.c_str());
  std::cout << "check: " << (report.Sound() ? "sound" : "problems") << "\n";
  return report.Sound() && FileHolds(path, kSecret);
}

}  // namespace

int main(int argc, char** argv) { return Run(argc > 1 ? argv[1] : "encryption.tzcf") ? 0 : 1; }
