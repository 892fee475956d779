#include "utility/Time.h"

#include <algorithm>
#include <cstring>

#include "utility/Env.h"

std::tm* zolocaltime_r(const std::int64_t* time, std::tm* out) {
  const std::time_t t = static_cast<std::time_t>(*time);
  return localtime_r(&t, out);
}

char* zoasctime_r(const std::tm* t, char* buffer) {
  // asctime_r writes at most 26 bytes for years 1000..9999; refuse others
  // rather than trust the platform's bound.
  if (t->tm_year < 1000 - 1900 || t->tm_year > 9999 - 1900) return nullptr;
  return asctime_r(t, buffer);
}

void ZoCurrentTimeText(char* buffer) {
  // A block is stamped at every save; the text changes once a second, so
  // it is made once a second (per thread) rather than per block.
  thread_local std::int64_t cachedTime = -1;
  thread_local char cachedText[26] = {};
  const std::int64_t now = tz::CurrentEnv()->Now();
  if (now != cachedTime) {
    std::tm local;
    char text[64] = {};
    std::memset(cachedText, 0, sizeof cachedText);
    if (zolocaltime_r(&now, &local) != nullptr && zoasctime_r(&local, text) != nullptr) {
      std::memcpy(cachedText, text, std::min<std::size_t>(std::strlen(text), 25));  // NOLINT(bugprone-not-null-terminated-result): cachedText (26 bytes) was zeroed, its last byte stays zero
    }
    cachedTime = now;
  }
  std::memcpy(buffer, cachedText, sizeof cachedText);
}
