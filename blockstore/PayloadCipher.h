// The cipher of data-block payloads: which bytes of a payload are
// enciphered, and the cipher for a password. Shared by the engine, the
// check and the salvage, which read payloads without an engine.
//
// A payload's cipher depends on the password and the payload's bytes only,
// never on the block's number: a block keeps its ciphertext when it moves.
//
// Thread safety: the functions keep no state; a cipher object belongs to
// its owner (see utility/BlowFish.h).
#ifndef TESSELZOSTREAM_BLOCKSTORE_PAYLOADCIPHER_H_
#define TESSELZOSTREAM_BLOCKSTORE_PAYLOADCIPHER_H_

#include <cstdint>
#include <memory>

#include "utility/BlowFish.h"

namespace blockformat {

// Bytes of a payload enciphered for a block of `usedLength`: the used
// length rounded up to the cipher's 8-byte groups, at most 1000 (the
// payload has no room for 1008); 0 for 0 or less.
std::int32_t CipherLength(std::int32_t usedLength);

// The cipher of payloads under `password` (its key is the password text).
// REQUIRES: password is not null. The caller owns the result.
std::unique_ptr<BlowFish::Context> MakeCipher(const char* password);

}  // namespace blockformat

#endif  // TESSELZOSTREAM_BLOCKSTORE_PAYLOADCIPHER_H_
