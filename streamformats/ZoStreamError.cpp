#include "tesselzostream/ZoStreamError.h"

#include <new>

ZoStreamError::ZoStreamError() = default;

ZoStreamError::ZoStreamError(const std::string& text) : Exception(text) {}

ZoStreamError::ZoStreamError(const ZoStreamError& other) = default;

ZoStreamError& ZoStreamError::operator=(const ZoStreamError& other) = default;

ZoStreamError::~ZoStreamError() = default;

ZoStreamError* ZoStreamError::Clone() const { return new (std::nothrow) ZoStreamError(*this); }
