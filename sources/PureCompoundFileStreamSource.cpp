#include "tesselzostream/PureCompoundFileStreamSource.h"

#include "utility/ZoString.h"

using ZoStreamE::OpenReadOnly;
using ZoStreamE::OpenReadWrite;

bool PureCompoundFileStreamSource::CaseInsensitiveLess::operator()(
    const std::string& a, const std::string& b) const {
  return ZoString::StrICmp(a.c_str(), b.c_str()) < 0;
}

PureCompoundFileStreamSource::PureCompoundFileStreamSource() : mIsReadOnly(false) {}

PureCompoundFileStreamSource::PureCompoundFileStreamSource(
    const PureCompoundFileStreamSource& other)
    : CompundFileBase(other), mIsReadOnly(other.mIsReadOnly), mTempFiles(other.mTempFiles) {}

PureCompoundFileStreamSource& PureCompoundFileStreamSource::operator=(
    const PureCompoundFileStreamSource& other) {
  CompundFileBase::operator=(other);
  mIsReadOnly = other.mIsReadOnly;
  if (this != &other) mTempFiles = other.mTempFiles;
  return *this;
}

PureCompoundFileStreamSource::~PureCompoundFileStreamSource() {
  mCompoundFile.Close();  // this copy's own reference
}

bool PureCompoundFileStreamSource::Open(const char* name, bool readOnly) {
  mIsReadOnly = readOnly;
  return mCompoundFile.Open(name, readOnly ? OpenReadOnly : OpenReadWrite) ==
         ZoStreamE::StatusOk;
}

void PureCompoundFileStreamSource::Close() { mCompoundFile.Close(); }

void PureCompoundFileStreamSource::DeleteSource(const char* name) const {
  if (mIsReadOnly) return;
  mCompoundFile.DeleteCFFile(name);
}

bool PureCompoundFileStreamSource::StreamExists(const char* name) const {
  return mCompoundFile.Exists(name);
}

std::basic_istream<char>* PureCompoundFileStreamSource::GetIStream(const char* name) const {
  return mCompoundFile.GetIOStream(name, "rb");
}

std::basic_iostream<char>* PureCompoundFileStreamSource::GetIOStream(const char* name) const {
  if (mIsReadOnly) return nullptr;
  if (name != nullptr) mTempFiles.erase(name);
  return mCompoundFile.GetIOStream(name, "r+b");
}

bool PureCompoundFileStreamSource::CleanUp() { return false; }

ZoStreamSource* PureCompoundFileStreamSource::GetStreamSource(const char* name) const {
  PureCompoundFileStreamSource* source = new PureCompoundFileStreamSource();
  source->mIsReadOnly = mIsReadOnly;
  source->mCompoundFile.Open(name, mIsReadOnly ? OpenReadOnly : OpenReadWrite);
  return source;
}

std::basic_iostream<char>* PureCompoundFileStreamSource::GetTempIOStream(
    const char* name) const {
  if (mIsReadOnly) return nullptr;
  if (name != nullptr) mTempFiles.insert(name);
  return mCompoundFile.GetIOStream(name, "r+b");
}

std::basic_ostream<char>* PureCompoundFileStreamSource::GetTempOStream(const char* name) const {
  if (mIsReadOnly) return nullptr;
  if (name != nullptr) mTempFiles.insert(name);
  return mCompoundFile.GetIOStream(name, "wb");
}

std::basic_ostream<char>* PureCompoundFileStreamSource::GetOStream(const char* name) const {
  if (mIsReadOnly) return nullptr;
  if (name != nullptr) mTempFiles.erase(name);
  return mCompoundFile.GetIOStream(name, "wb");
}

boost::shared_ptr<const std::set<std::string>> PureCompoundFileStreamSource::GetFileNames()
    const {
  boost::shared_ptr<std::set<std::string>> names(new std::set<std::string>());
  unsigned long cursor = 0;
  for (const char* name = mCompoundFile.GetFirstDirName(&cursor); name != nullptr;
       name = mCompoundFile.GetNextDirName(&cursor)) {
    names->insert(name);
  }
  return names;
}

const char* PureCompoundFileStreamSource::GetStreamFileName() const {
  return mCompoundFile.GetCompoundFileName();
}
