#include "tesselzostream/CompundFileBase.h"

CompundFileBase::CompundFileBase() = default;

CompundFileBase::CompundFileBase(const CompundFileBase& other) : ZoStreamSource() {
  mCompoundFile.ShareFrom(other.mCompoundFile);
}

CompundFileBase& CompundFileBase::operator=(const CompundFileBase& other) {
  mCompoundFile.ShareFrom(other.mCompoundFile);
  return *this;
}

// The handle's destructor releases its reference.
CompundFileBase::~CompundFileBase() = default;

std::string CompundFileBase::GetCompoundFileNameString() const {
  const char* name = mCompoundFile.GetCompoundFileName();
  return name != nullptr ? std::string(name) : std::string();
}

const char* CompundFileBase::GetCompoundFileName() const {
  return mCompoundFile.GetCompoundFileName();
}
