// Text helpers: owned C strings and ASCII case folding.
//
// Owned texts are plain arrays from new[], freed with delete[].
//
// Thread safety: no state of their own; a text belongs to its owner.
#ifndef TESSELZOSTREAM_UTILITY_ZOSTRING_H_
#define TESSELZOSTREAM_UTILITY_ZOSTRING_H_

#include <cstddef>
#include <string>

namespace ZoString {

// A copy of `text` that delete[] frees; null for a null text.
char* zostrdup(const char* text);

// Replaces the owned text by a copy of `text` (null frees it).
void SetStr(char*& owned, const char* text);

// Compares two texts with ASCII letters folded to lower case, as the
// directory of a compound file compares names. <0, 0, >0 like strcmp.
int StrICmp(const char* a, const char* b);

// The text with ASCII letters folded to lower case; bytes above 127 stay.
std::string FoldAscii(const char* text, std::size_t length);

}  // namespace ZoString

#endif  // TESSELZOSTREAM_UTILITY_ZOSTRING_H_
