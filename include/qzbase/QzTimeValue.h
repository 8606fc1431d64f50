// qzbase: a time in seconds and microseconds, and the wall clock.
//
// A value is kept normalised: the microseconds have a magnitude below
// 1,000,000 and never the opposite sign to the seconds (with seconds 0 they
// keep their own sign), so -1.5 s is (-1, -500000). Every constructor and
// operator gives a normalised value. Seconds are 32 bits: wall-clock
// readings end in 2038, as on the system this interface comes from.
//
// Threads: a plain value; GetTimeOfDay may run on any thread.
#ifndef QZBASE_QZTIMEVALUE_H
#define QZBASE_QZTIMEVALUE_H

#include <qzbase/QzTypes.h>

class QZ_API QzTimeValue {
 public:
  QzTimeValue() : m_seconds(0), m_microseconds(0) {}
  QzTimeValue(int32_t seconds, int32_t microseconds) : m_seconds(seconds), m_microseconds(microseconds) { Normalize(); }

  // Now, in seconds and microseconds since 1970-01-01 UTC.
  static QzTimeValue GetTimeOfDay();

  int32_t Seconds() const { return m_seconds; }
  int32_t Microseconds() const { return m_microseconds; }
  int64_t TotalMicroseconds() const { return int64_t(m_seconds) * 1000000 + m_microseconds; }

  QzTimeValue operator+(const QzTimeValue& other) const { return QzTimeValue(m_seconds + other.m_seconds, m_microseconds + other.m_microseconds); }
  QzTimeValue operator-(const QzTimeValue& other) const { return QzTimeValue(m_seconds - other.m_seconds, m_microseconds - other.m_microseconds); }
  QzTimeValue& operator+=(const QzTimeValue& other) { return *this = *this + other; }
  QzTimeValue& operator-=(const QzTimeValue& other) { return *this = *this - other; }
  // Normal forms order as (seconds, microseconds) pairs do.
  bool operator==(const QzTimeValue& o) const { return m_seconds == o.m_seconds && m_microseconds == o.m_microseconds; }
  bool operator!=(const QzTimeValue& o) const { return !(*this == o); }
  bool operator<(const QzTimeValue& o) const { return m_seconds < o.m_seconds || (m_seconds == o.m_seconds && m_microseconds < o.m_microseconds); }
  bool operator>(const QzTimeValue& o) const { return o < *this; }
  bool operator<=(const QzTimeValue& o) const { return !(o < *this); }
  bool operator>=(const QzTimeValue& o) const { return !(*this < o); }

 private:
  void Normalize();

  int32_t m_seconds;
  int32_t m_microseconds;
};

#endif  // QZBASE_QZTIMEVALUE_H
