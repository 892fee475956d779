#include "testsupport/SeedArguments.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

namespace tzsupport {

bool ParseSeedArguments(int argc, char** argv, bool withDictionary, SeedArguments* out) {
  if (argc != (withDictionary ? 3 : 2)) {
    std::fprintf(stderr, withDictionary ? "usage: %s CORPUS_DIR DICTIONARY_FILE\n" : "usage: %s CORPUS_FOLDER\n",
                 argv[0]);
    return false;
  }
  out->corpus = argv[1];
  out->dictionary = withDictionary ? argv[2] : "";
  std::error_code error;
  std::filesystem::create_directories(out->corpus, error);
  return true;
}

}  // namespace tzsupport
