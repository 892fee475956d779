// Texts for scripts and terminals: JSON strings that are valid whatever
// bytes a name holds, ISO 8601 times, and names made visible.
//
// Thread safety: the functions keep no state; any thread may call them.
#ifndef TESSELZOSTREAM_TOOLS_TZCF_TEXT_H_
#define TESSELZOSTREAM_TOOLS_TZCF_TEXT_H_

#include <string>

namespace tzcf {

// True when `text` is well-formed UTF-8 (no overlong forms, surrogates or
// code points past U+10FFFF).
bool IsUtf8(const std::string& text);
// `text` as a JSON string, quotes included. Well-formed UTF-8 is written as
// it is, with '"', '\\' and control characters escaped; every byte that is
// not part of well-formed UTF-8 is written as \ufffd (the replacement
// character).
std::string JsonString(const std::string& text);
// The JSON member `key` holding `text`; for a text that is not well-formed
// UTF-8 a member `key`_hex follows with its bytes in hexadecimal, so that
// no name is lost.
std::string JsonName(const std::string& key, const std::string& text);
// A directory time text ("Tue Nov 24 04:22:37 2026", the writer's local
// time) as a JSON string in ISO 8601 ("2026-11-24T04:22:37", no zone, as
// the file keeps none); null when it is no such text.
std::string JsonIsoTime(const std::string& text);
// `name` as it is, or in double quotes with C escapes (\n, \t, \x7f, \\,
// \") when it holds a control character.
std::string ShowName(const std::string& name);

}  // namespace tzcf

#endif  // TESSELZOSTREAM_TOOLS_TZCF_TEXT_H_
