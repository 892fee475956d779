// salvage: what still reads out of a damaged compound file, copied into a
// new one (the library's SalvageCompoundFile).
//
// The damaged file is only read. The new file is built under a temporary
// name beside OUT and takes OUT's name only when complete, so OUT never
// exists half-made; an OUT that exists already is refused, never replaced.
// A password is asked for only when the file turns out to be encrypted.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include <tesselzostream/Salvage.h>

#include "Commands.h"
#include "NewFile.h"
#include "Password.h"
#include "Progress.h"
#include "Text.h"

namespace tzcf {

namespace {

// `text` with every `from` replaced by `to` (the temporary name by OUT's).
std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

void PrintLines(const SalvageReport& r) {
  for (const SalvagedStream& s : r.damaged) {
    std::cout << "damaged " << Quote(ShowName(s.name)) << ": " << s.recovered << " bytes recovered, " << s.lost
              << " lost";
    if (s.savedAs != s.name) std::cout << ", saved as " << Quote(ShowName(s.savedAs));
    std::cout << ": " << s.why << "\n";
  }
  for (const SalvagedStream& s : r.lostAndFound) {
    std::cout << "found " << Quote(s.savedAs) << ": " << s.recovered << " bytes from block " << s.firstBlock
              << ": " << s.why << "\n";
  }
}

void PrintJson(const SalvageReport& r, const std::string& file, const std::string& out) {
  std::cout << "{" << JsonName("file", file) << ", " << JsonName("out", out)
            << ", \"complete\": " << (r.Complete() ? "true" : "false")
            << ", \"encrypted\": " << (r.Encrypted() ? "true" : "false") << ", \"whole\": " << r.whole.size()
            << ", \"recovered_bytes\": " << r.recoveredBytes << ", \"lost_bytes\": " << r.lostBytes
            << ", \"damaged\": [";
  const char* separator = "\n";
  for (const SalvagedStream& s : r.damaged) {
    std::cout << separator << "  {" << JsonName("name", s.name) << ", " << JsonName("saved_as", s.savedAs)
              << ", \"first_block\": " << s.firstBlock << ", \"recovered\": " << s.recovered
              << ", \"lost\": " << s.lost << ", " << JsonName("why", s.why) << "}";
    separator = ",\n";
  }
  std::cout << (r.damaged.empty() ? "]" : "\n]") << ", \"lost_and_found\": [";
  separator = "\n";
  for (const SalvagedStream& s : r.lostAndFound) {
    std::cout << separator << "  {" << JsonName("saved_as", s.savedAs) << ", \"first_block\": " << s.firstBlock
              << ", \"recovered\": " << s.recovered << ", " << JsonName("why", s.why) << "}";
    separator = ",\n";
  }
  std::cout << (r.lostAndFound.empty() ? "]}\n" : "\n]}\n");
}

}  // namespace

Exit Salvage(const std::string& file, const std::string& out, const Options& options) {
  struct stat info;
  if (::lstat(out.c_str(), &info) == 0) {
    Report(out + ": exists already; salvage writes a new file only");
    return kError;
  }
  if (::stat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    Report(file + ": cannot open: " + WhyNotOpen(file, false));
    return kError;
  }
  // A password given without asking is used at once; the terminal is
  // asked only when the file turns out to be encrypted.
  const bool given = !options.passwordFile.empty() || std::getenv(kPasswordVariable) != nullptr;
  std::string password, error;
  if (given && !GetPassword(options.passwordFile, kPasswordVariable, "", false, &password, &error)) {
    Report(error);
    return kError;
  }
  NewFile made;
  if (!made.Begin(out, false, &error)) {
    Report(error);
    return kError;
  }
  (void)::unlink(made.path().c_str());  // the salvage makes the file itself, and refuses one that exists
  SalvageReport r;
  {
    BusyLine busy("salvaging", static_cast<std::uint64_t>(info.st_size), options.quiet);
    r = SalvageCompoundFile(file.c_str(), made.path().c_str(), given ? password.c_str() : nullptr);
  }
  if (!r.opened && r.password == CheckReport::kNoPassword && !given) {
    if (!GetPassword("", kPasswordVariable, "Password for " + file + ": ", false, &password, &error)) {
      Report(file + ": encrypted: " + error);
      return kError;
    }
    BusyLine busy("salvaging", static_cast<std::uint64_t>(info.st_size), options.quiet);
    r = SalvageCompoundFile(file.c_str(), made.path().c_str(), password.c_str());
  }
  if (!r.opened) {
    Report(file + ": cannot salvage: " + Replaced(r.openError, made.path(), out));
    return kError;
  }
  if (!made.Commit(&error)) {
    Report(Replaced(error, made.path(), out));
    return kError;
  }
  if (options.json) {
    PrintJson(r, file, out);
  } else {
    PrintLines(r);
    if (!options.quiet) {
      std::cout << out << ": " << r.whole.size() << " streams whole, " << r.damaged.size() << " damaged ("
                << r.lostBytes << " bytes lost), " << r.lostAndFound.size() << " chains in lost+found"
                << (r.Encrypted() ? "; encrypted under the same password" : "") << "\n";
    }
  }
  return r.Complete() ? kOk : kProblem;
}

}  // namespace tzcf
