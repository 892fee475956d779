#include "Common.h"

#include <iostream>

#include <boost/filesystem.hpp>

#include "Password.h"

namespace fs = boost::filesystem;

namespace tzcf {

namespace {
char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
}  // namespace

bool SameName(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (Lower(a[i]) != Lower(b[i])) return false;
  }
  return true;
}

std::string FoldCase(const std::string& name) {
  std::string folded = name;
  for (char& c : folded) c = Lower(c);
  return folded;
}

bool IsFreeListName(const std::string& name) { return SameName(name, kFreeListName); }

void Report(const std::string& text) { std::cerr << "tzcf: " << text << std::endl; }

std::string Quote(const std::string& text) { return "'" + text + "'"; }

bool OpenFile(CompoundFile& file, const std::string& path, ZoStreamE::OpenMode mode, bool mustExist) {
  boost::system::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (fs::exists(status)) {
    if (!fs::is_regular_file(status)) {
      Report(path + ": not a regular file");
      return false;
    }
  } else if (mustExist) {
    Report(path + ": no such file");
    return false;
  }
  ZoStreamE::Status result;
  try {
    result = file.Open(path.c_str(), mode);
  } catch (const ZoStreamE::Status&) {
    result = ZoStreamE::StatusFailed;
  } catch (const fs::filesystem_error&) {
    result = ZoStreamE::StatusFailed;
  }
  if (result != ZoStreamE::StatusOk) {
    file.Close();
    Report(path + ": cannot open: not a compound file, damaged, unwritable or in use");
    return false;
  }
  return true;
}

bool Unlock(CompoundFile& file, const std::string& path, const Options& options) {
  if (!file.IsEncrypted()) return true;
  std::string password;
  std::string error;
  if (!GetPassword(options.passwordFile, kPasswordVariable, "Password for " + path + ": ", false,
                   &password, &error)) {
    Report(path + " is encrypted: " + error);
    return false;
  }
  if (!file.SetPassword(password.c_str())) {
    Report(path + ": wrong password");
    return false;
  }
  return true;
}

}  // namespace tzcf
