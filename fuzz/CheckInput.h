// What the check fuzz target and its seeds program share: the password
// the encrypted seed is made with and the target tries.
#ifndef TESSELZOSTREAM_FUZZ_CHECKINPUT_H_
#define TESSELZOSTREAM_FUZZ_CHECKINPUT_H_

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "tesselzostream/FormatFacts.h"

namespace tzfuzz::check {

const char kPassword[] = "pw";

}  // namespace tzfuzz::check

#endif  // TESSELZOSTREAM_FUZZ_CHECKINPUT_H_
