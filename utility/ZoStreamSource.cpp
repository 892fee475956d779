#include "tesselzostream/ZoStreamSource.h"

ZoStreamSource::~ZoStreamSource() = default;
