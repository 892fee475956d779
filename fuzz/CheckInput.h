// What the check fuzz target and its seeds program share: the password
// the encrypted seed is made with and the target tries.
#ifndef TESSELZOSTREAM_FUZZ_CHECKINPUT_H_
#define TESSELZOSTREAM_FUZZ_CHECKINPUT_H_

namespace tzfuzz::check {

const char kPassword[] = "pw";

}  // namespace tzfuzz::check

#endif  // TESSELZOSTREAM_FUZZ_CHECKINPUT_H_
