#include "tesselzostream/CompundFileBase.h"

CompundFileBase::CompundFileBase() : mCompoundFile(new CompoundFile()) {}

CompundFileBase::CompundFileBase(const CompundFileBase& other)
    : ZoStreamSource(), mCompoundFile(other.mCompoundFile) {}

CompundFileBase& CompundFileBase::operator=(const CompundFileBase& other) {
  mCompoundFile = other.mCompoundFile;  // drops this object's old share
  return *this;
}

// The holder's last owner destroys the CompoundFile, which releases the file.
CompundFileBase::~CompundFileBase() = default;

std::string CompundFileBase::GetCompoundFileNameString() const {
  const char* name = mCompoundFile->GetCompoundFileName();
  return name != nullptr ? std::string(name) : std::string();
}

const char* CompundFileBase::GetCompoundFileName() const {
  return mCompoundFile->GetCompoundFileName();
}
