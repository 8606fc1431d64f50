// The periodic timer: a schedule held in fractions of a millisecond and a
// high-priority thread that follows it.
#include "threads/QzTimer.h"

namespace {

void WorkOut(QzTimerSchedule* s, uint32_t effective) {
  s->whole = effective / QZ_TIMER_UNITS_PER_MS;
  s->step = effective % QZ_TIMER_UNITS_PER_MS;
}

}  // namespace

void QzTimerScheduleStart(QzTimerSchedule* s, uint32_t periodUnits, uint32_t now) {
  s->base = periodUnits;
  WorkOut(s, periodUnits);
  s->tolerance = periodUnits / 2000;  // in ms: five periods
  s->next = now + s->whole;
  s->fraction = s->step;
}

QzTimerTurn QzTimerScheduleTurn(const QzTimerSchedule& s, uint32_t now) {
  // Signed, so that the clock's wrap does no harm.
  const int32_t ahead = int32_t(s.next - now);
  if (ahead > int32_t(s.tolerance)) return QzTimerTurn{s.tolerance, false};
  if (ahead > 0) return QzTimerTurn{uint32_t(ahead), true};
  if (uint32_t(-int64_t(ahead)) <= s.tolerance) return QzTimerTurn{0, true};
  return QzTimerTurn{0, false};
}

void QzTimerScheduleAdvance(QzTimerSchedule* s) {
  s->fraction += s->step;
  s->next += s->whole;
  if (s->fraction >= QZ_TIMER_UNITS_PER_MS) {
    s->fraction -= QZ_TIMER_UNITS_PER_MS;
    s->next += 1;
  }
}

void QzTimerScheduleResync(QzTimerSchedule* s, uint32_t now) {
  s->fraction = s->step;
  s->next = now + s->whole;
}

void QzTimerScheduleRate(QzTimerSchedule* s, int adjustment, int delta) {
  if (adjustment == 0 && delta == 0) return;
  s->base += uint32_t(adjustment);  // a negative period is worked out as unsigned
  WorkOut(s, s->base + uint32_t(delta));
}
