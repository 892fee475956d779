// Time helpers: local time and its 26-byte text.
//
// Thread safety: the helpers use the reentrant forms of the C library's
// time calls; any thread may call them.
#ifndef TESSELZOSTREAM_UTILITY_TIME_H_
#define TESSELZOSTREAM_UTILITY_TIME_H_

#include <cstdint>
#include <ctime>

// Local time of `*time` into `*out`; returns out, or null when the time
// cannot be represented.
std::tm* zolocaltime_r(const std::int64_t* time, std::tm* out);

// The asctime text of `*t` ("Wed Jun 30 21:49:08 1993\n" and a zero, 26
// bytes) into `buffer`, which holds at least 26 bytes. Returns buffer, or
// null when the year does not fit the form.
char* zoasctime_r(const std::tm* t, char* buffer);

// The current local time as that 26-byte text, into `buffer` of 26 bytes;
// all zero when the clock's time cannot be shown in the form. The clock is
// the platform layer's (see Env.h), so tests can fix it.
void ZoCurrentTimeText(char* buffer);

#endif  // TESSELZOSTREAM_UTILITY_TIME_H_
