// Local time for the log. Kept apart from the rest of the synchronisation area
// because it asks the C library for a 64-bit time_t, which on i386 must be
// chosen before the first system header.
#if defined(__i386__) && !defined(_TIME_BITS)
#  define _FILE_OFFSET_BITS 64
#  define _TIME_BITS 64
#endif

#include "platform/QzPlatformSync.h"

#include <string.h>
#include <time.h>

namespace qzsys {

namespace {
// The Windows runtime's range: 1970 to the last second of the year 3000, UTC.
constexpr int64_t kLastSecond = 32535215999;
}  // namespace

BOOL QzLocalTimeOf(int64_t secondsSince1970, QzLocalTime* out) {
  memset(out, 0, sizeof *out);
  static_assert(sizeof(time_t) == 8, "localtime needs a 64-bit time_t on every width");
  if (secondsSince1970 < 0 || secondsSince1970 > kLastSecond) return FALSE;
  const time_t t = static_cast<time_t>(secondsSince1970);
  struct tm tm;
  if (localtime_r(&t, &tm) == nullptr) return FALSE;
  out->tm_sec = tm.tm_sec;
  out->tm_min = tm.tm_min;
  out->tm_hour = tm.tm_hour;
  out->tm_mday = tm.tm_mday;
  out->tm_mon = tm.tm_mon;
  out->tm_year = tm.tm_year;
  out->tm_wday = tm.tm_wday;
  out->tm_yday = tm.tm_yday;
  out->tm_isdst = tm.tm_isdst;
  return TRUE;
}

}  // namespace qzsys
