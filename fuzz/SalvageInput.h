// What the salvage fuzz target and its seeds program share: the password
// the encrypted seed is made with and the target tries.
#ifndef TESSELZOSTREAM_FUZZ_SALVAGEINPUT_H_
#define TESSELZOSTREAM_FUZZ_SALVAGEINPUT_H_

namespace tzfuzz::salvage {

const char kPassword[] = "pw";

}  // namespace tzfuzz::salvage

#endif  // TESSELZOSTREAM_FUZZ_SALVAGEINPUT_H_
