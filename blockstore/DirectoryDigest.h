// The directory digest: what one directory block feeds to the MD5 that ties
// a saved block map to the directory it was saved with. Shared by the
// engine and the check.
//
// Fields go in as the file holds them: numbers as their little-endian
// bytes, texts up to their zero (at most their width), the reserved bytes,
// password digest and flags whole.
//
// Thread safety: no state of its own; the MD5 object is the caller's.
#ifndef TESSELZOSTREAM_BLOCKSTORE_DIRECTORYDIGEST_H_
#define TESSELZOSTREAM_BLOCKSTORE_DIRECTORYDIGEST_H_

#include "blockstore/BlockFormat.h"
#include "utility/MD5.h"

namespace blockformat {

// Feeds the digest's bytes of `block` to `md5`, in one call of Update.
void FeedDirectoryDigest(MD5& md5, const DirBlock& block);

}  // namespace blockformat

#endif  // TESSELZOSTREAM_BLOCKSTORE_DIRECTORYDIGEST_H_
