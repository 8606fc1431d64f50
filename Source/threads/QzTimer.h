// Timer, internal side: the schedule of the timer loop as a pure step, so
// that it can be driven by any clock (the loop uses timeGetTime; tests use a
// clock of their own).
//
// Periods are in units of 100 ns (1 ms is 10,000 units). Deadlines are whole
// milliseconds on a clock that wraps at 2^32; the part of a millisecond that
// a deadline cannot hold is carried in `fraction`, so that the ticks average
// the exact period over time.
#ifndef QZBASE_SOURCE_THREADS_QZTIMER_H
#define QZBASE_SOURCE_THREADS_QZTIMER_H

#include <stdint.h>

constexpr uint32_t QZ_TIMER_UNITS_PER_MS = 10000;

struct QzTimerSchedule {
  uint32_t base;       // units: the started period plus every adjustment
  uint32_t whole;      // ms of the effective period
  uint32_t step;       // units of the effective period below a millisecond
  uint32_t tolerance;  // ms: five periods of the started period, fixed
  uint32_t next;       // the next deadline on the millisecond clock
  uint32_t fraction;   // units carried towards the next whole millisecond
};

// What the loop does at one turn: wait for `wait` ms first (0: no wait),
// then either advance the deadline by one period or start afresh from the
// clock reading of this turn.
struct QzTimerTurn {
  uint32_t wait;
  bool advance;
};

void QzTimerScheduleStart(QzTimerSchedule* s, uint32_t periodUnits, uint32_t now);
QzTimerTurn QzTimerScheduleTurn(const QzTimerSchedule& s, uint32_t now);
void QzTimerScheduleAdvance(QzTimerSchedule* s);
void QzTimerScheduleResync(QzTimerSchedule* s, uint32_t now);
// Takes an adjustment of the base and the current delta; nothing is worked
// out again while both are 0.
void QzTimerScheduleRate(QzTimerSchedule* s, int adjustment, int delta);

#endif  // QZBASE_SOURCE_THREADS_QZTIMER_H
