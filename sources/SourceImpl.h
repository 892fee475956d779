// The private state of a CompoundFileStreamSource that its public header
// keeps behind a pointer, so that an application including that header
// needs no threading headers.
//
// Ownership: the source owns one Impl from construction to destruction.
// Thread rules: mFileSetMutex is taken by GetFileNames around the build of
// the list of names and the copy of its pointer, and by nothing else.
#ifndef TESSELZOSTREAM_SOURCES_SOURCEIMPL_H_
#define TESSELZOSTREAM_SOURCES_SOURCEIMPL_H_

#include <boost/thread/mutex.hpp>

#include "tesselzostream/CompoundFileStreamSource.h"

struct CompoundFileStreamSource::Impl {
  boost::mutex mFileSetMutex;
};

#endif  // TESSELZOSTREAM_SOURCES_SOURCEIMPL_H_
