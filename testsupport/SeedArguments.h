// The command line of a fuzz target's seed program: the folder it writes
// its corpus into and, for the targets that have one, the dictionary file.
//
// Contract: ParseSeedArguments either fills `out`, makes the corpus folder
// (and its parents) and returns true, or prints the usage line on stderr
// and returns false; the program then exits with status 2.
// Thread safety: call it from main only.
#ifndef TESSELZOSTREAM_TESTSUPPORT_SEEDARGUMENTS_H_
#define TESSELZOSTREAM_TESTSUPPORT_SEEDARGUMENTS_H_

#include <string>

namespace tzsupport {

struct SeedArguments {
  std::string corpus;      // the folder the seeds go into
  std::string dictionary;  // the dictionary file; empty when none is asked for
};

// REQUIRES: argv holds argc arguments, argv[0] the program's name.
bool ParseSeedArguments(int argc, char** argv, bool withDictionary, SeedArguments* out);

}  // namespace tzsupport

#endif  // TESSELZOSTREAM_TESTSUPPORT_SEEDARGUMENTS_H_
