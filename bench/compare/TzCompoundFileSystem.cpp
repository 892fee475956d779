// Registers this library's compound file ("tz-cf"; see TzCompoundFile.h).
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <tesselzostream/tesselzostream.h>

#include "bench/compare/TzCompoundFile.h"
#include "bench/compare/System.h"

namespace tzcompare {
namespace {

}  // namespace

const Registration kRegisterCompoundFiles(5, [] { return std::unique_ptr<System>(new CompoundFiles); });

}  // namespace tzcompare
