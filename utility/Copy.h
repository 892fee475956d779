// CopyBytes and ZeroBytes: a copy and a clear that always go through the C
// library's memcpy and memset.
//
// Compilers expand a memcpy whose length they can bound (a block's payload,
// a block) into an inline string instruction that is several times slower
// for a kilobyte than the library's own routine, which picks the best
// method for the machine at run time. The block store's hot copies call
// this instead; being defined in its own translation unit, the length is
// never known at the call.
//
// Thread safety: no state; any thread may call them.
#ifndef TESSELZOSTREAM_UTILITY_COPY_H_
#define TESSELZOSTREAM_UTILITY_COPY_H_

#include <cstddef>

namespace tz {

void CopyBytes(void* to, const void* from, std::size_t n);
void ZeroBytes(void* to, std::size_t n);

}  // namespace tz

#endif  // TESSELZOSTREAM_UTILITY_COPY_H_
