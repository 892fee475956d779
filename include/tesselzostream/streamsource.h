/// @file
/// The stream sources: named streams through the abstract ZoStreamSource,
/// on a compound file through a working directory or straight on it.
#ifndef TESSELZOSTREAM_STREAMSOURCE_H_
#define TESSELZOSTREAM_STREAMSOURCE_H_

#include "tesselzostream/CompoundFileStreamSource.h"
#include "tesselzostream/CompundFileBase.h"
#include "tesselzostream/PureCompoundFileStreamSource.h"
#include "tesselzostream/ZoStreamSource.h"

#endif  // TESSELZOSTREAM_STREAMSOURCE_H_
