// What the salvage fuzz target and its seeds program share: the password
// the encrypted seed is made with and the target tries.
#ifndef TESSELZOSTREAM_FUZZ_SALVAGEINPUT_H_
#define TESSELZOSTREAM_FUZZ_SALVAGEINPUT_H_

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "blockstore/BlockFormat.h"
#include "fuzz/FuzzUtil.h"
#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "tesselzostream/Salvage.h"

namespace tzfuzz::salvage {

const char kPassword[] = "pw";

}  // namespace tzfuzz::salvage

#endif  // TESSELZOSTREAM_FUZZ_SALVAGEINPUT_H_
