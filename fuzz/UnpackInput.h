// What the unpack fuzz target and its seeds program share: the password of
// the encrypted seed, and the trap names the target lays in the folder it
// unpacks into (the seeds name streams after them).
#ifndef TESSELZOSTREAM_FUZZ_UNPACKINPUT_H_
#define TESSELZOSTREAM_FUZZ_UNPACKINPUT_H_

namespace tzfuzz::unpack {

using tzfuzz::Fail;

const char kPassword[] = "pw";

// The traps in the target folder: name and where the link points
// ("@outside" stands for the outside folder's absolute path).
struct Trap {
  const char* name;
  const char* target;
};
const Trap kLinks[] = {
    {"link-out", "../outside"},         {"abs-link", "@outside"},
    {"file-link", "../outside/victim"}, {"dir/inner-link", "../../outside"},
    {"loop", "loop"},
};
const char kHardLink[] = "hard";  // a hard link to outside/victim

}  // namespace tzfuzz::unpack

#endif  // TESSELZOSTREAM_FUZZ_UNPACKINPUT_H_
