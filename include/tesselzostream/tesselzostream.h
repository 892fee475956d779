/// @file
/// The public API of libtesselzostream.
#ifndef TESSELZOSTREAM_TESSELZOSTREAM_H_
#define TESSELZOSTREAM_TESSELZOSTREAM_H_

#include "tesselzostream/Compaction.h"
#include "tesselzostream/CompoundFile.h"
#include "tesselzostream/CompoundFileCheck.h"
#include "tesselzostream/DirEntry.h"
#include "tesselzostream/Exception.h"
#include "tesselzostream/Export.h"
#include "tesselzostream/FactoryRepository.h"
#include "tesselzostream/FormatFacts.h"
#include "tesselzostream/OldStreamDirectory.h"
#include "tesselzostream/Salvage.h"
#include "tesselzostream/Status.h"
#include "tesselzostream/StreamDirectory.h"
#include "tesselzostream/ZStreamBase.h"
#include "tesselzostream/ZoStreamError.h"
#include "tesselzostream/streamsource.h"

#endif  // TESSELZOSTREAM_TESSELZOSTREAM_H_
