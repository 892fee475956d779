#include "tesselzostream/Exception.h"

Exception::Exception() : std::runtime_error("") {}

Exception::Exception(const std::string& text) : std::runtime_error(text) {}

Exception::~Exception() = default;
