// Time values and the wall clock.
#include <qzbase/QzTimeValue.h>

#include "platform/QzPlatform.h"

QzTimeValue QzTimeValue::GetTimeOfDay() {
  qzsys::FILETIME ft;
  qzsys::GetSystemTimeAsFileTime(&ft);
  const uint64_t t = (uint64_t(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  QzTimeValue now;
  now.m_microseconds = int32_t((t / 10) % 1000000);
  now.m_seconds = int32_t((t - 116444736000000000ull) / 10000000);
  return now;
}

void QzTimeValue::Normalize() {
  while (m_microseconds >= 1000000) {
    ++m_seconds;
    m_microseconds -= 1000000;
  }
  while (m_microseconds <= -1000000) {
    --m_seconds;
    m_microseconds += 1000000;
  }
  if (m_seconds > 0 && m_microseconds < 0) {
    --m_seconds;
    m_microseconds += 1000000;
  } else if (m_seconds < 0 && m_microseconds > 0) {
    ++m_seconds;
    m_microseconds -= 1000000;
  }
}
