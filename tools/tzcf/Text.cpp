#include "Text.h"

#include <cstdio>
#include <ctime>

namespace tzcf {

namespace {

// The length of the well-formed UTF-8 sequence at `at`, 0 when there is none.
std::size_t SequenceAt(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(at);
  if (first < 0x80) return 1;
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
  if (first >= 0xC2 && first <= 0xDF) {
    length = 2;
  } else if (first >= 0xE0 && first <= 0xEF) {
    length = 3;
    if (first == 0xE0) low = 0xA0;   // no overlong forms
    if (first == 0xED) high = 0x9F;  // no surrogates
  } else if (first >= 0xF0 && first <= 0xF4) {
    length = 4;
    if (first == 0xF0) low = 0x90;
    if (first == 0xF4) high = 0x8F;  // nothing past U+10FFFF
  } else {
    return 0;
  }
  if (at + length > text.size()) return 0;
  if (byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
  }
  return length;
}

}  // namespace

bool IsUtf8(const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = SequenceAt(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = SequenceAt(text, at);
    const char c = text[at];
    if (length == 0) {
      out += "\\ufffd";
      at += 1;
      continue;
    }
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      char escape[8];  // six characters and the zero: snprintf cannot fail or cut
      (void)std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
      out += escape;
    } else {
      out.append(text, at, length);
    }
    at += length;
  }
  return out + "\"";
}

std::string JsonName(const std::string& key, const std::string& text) {
  std::string member = JsonString(key) + ": " + JsonString(text);
  if (IsUtf8(text)) return member;
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const char c : text) {
    hex += kDigits[static_cast<unsigned char>(c) >> 4];
    hex += kDigits[static_cast<unsigned char>(c) & 15];
  }
  return member + ", " + JsonString(key + "_hex") + ": \"" + hex + "\"";
}

std::string JsonIsoTime(const std::string& text) {
  std::tm time = {};
  const char* end = ::strptime(text.c_str(), "%a %b %d %H:%M:%S %Y", &time);
  if (end == nullptr || *end != '\0') return "null";
  char iso[32];  // a four-digit year: asctime texts have no other
  if (std::strftime(iso, sizeof iso, "%Y-%m-%dT%H:%M:%S", &time) == 0) return "null";
  return std::string("\"") + iso + "\"";
}

std::string ShowName(const std::string& name) {
  bool control = false;
  for (const char c : name) control = control || static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
  if (!control) return name;
  std::string shown = "\"";
  for (const char c : name) {
    switch (c) {
      case '\n': shown += "\\n"; break;
      case '\t': shown += "\\t"; break;
      case '\r': shown += "\\r"; break;
      case '"': shown += "\\\""; break;
      case '\\': shown += "\\\\"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
          char escape[8];
          (void)std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
          shown += escape;
        } else {
          shown += c;
        }
    }
  }
  return shown + "\"";
}

}  // namespace tzcf
