// The periodic timer: a schedule held in fractions of a millisecond and a
// high-priority thread that follows it.
#include "threads/QzTimer.h"

#include <qzbase/QzTimer.h>

#include "platform/QzPlatform.h"

using namespace qzsys;

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

// ---- The timer -------------------------------------------------------------------
QzTimer::QzTimer()
    : m_resolution(0), m_period(0), m_rateDelta(0), m_pendingAdjustment(0), m_wakeEvent(0, 0, nullptr), m_running(0) {
  SetThreadProc(Procedure::FromMember<QzTimer, &QzTimer::Run>(this));
}

QzTimer::~QzTimer() { Shutdown(); }

int QzTimer::SetTimerCallback(const Procedure& callback) {
  if (IsThreadActive()) return 0;
  m_callback = callback;
  return 1;
}

void QzTimer::StopThread() {
  if (!IsThreadActive()) return;
  m_running.store(0, std::memory_order_relaxed);
  (void)m_wakeEvent.Signal();
  (void)WaitForExit(INFINITE);
}

void QzTimer::Shutdown() {
  StopThread();
  if (m_resolution != 0) {
    (void)timeEndPeriod(m_resolution);
    m_resolution = 0;
  }
}

int QzTimer::Start(unsigned int period) {
  if (m_callback.empty()) return 0;
  if (period == 0 || period > 0xFFFFFFFFu / QZ_TIMER_UNITS_PER_MS) return 0;
  Shutdown();
  // Half the period, no coarser than 10 ms, within what the device offers.
  unsigned int resolution = period / 2 > 10 ? 10 : period / 2;
  TIMECAPS caps;
  if (timeGetDevCaps(&caps, sizeof caps) == TIMERR_NOERROR) {
    if (resolution < caps.wPeriodMin) resolution = caps.wPeriodMin;
    else if (resolution > caps.wPeriodMax) resolution = caps.wPeriodMax;
  }
  if (timeBeginPeriod(resolution) == TIMERR_NOERROR) {
    m_resolution = resolution;
    m_running.store(1, std::memory_order_relaxed);
    m_period = period * QZ_TIMER_UNITS_PER_MS;
    m_pendingAdjustment.store(0, std::memory_order_relaxed);
    m_rateDelta.store(0, std::memory_order_relaxed);
    // A Shutdown that came while the last callback ran left the event set.
    (void)m_wakeEvent.Reset();
    if (StartThread(0, THREAD_PRIORITY_HIGHEST, 0)) return 1;
    // A thread that failed to start stays suspended; waiting for it would
    // wait for ever. Without its handle it ends unrun.
    HANDLE handle = m_handle.exchange(nullptr, std::memory_order_acq_rel);
    if (handle != nullptr) (void)CloseHandle(handle);
  }
  Shutdown();
  return 0;
}

void QzTimer::AdjustRate(int units) { m_pendingAdjustment.fetch_add(units, std::memory_order_relaxed); }
void QzTimer::SetRateDelta(int units) { m_rateDelta.store(units, std::memory_order_relaxed); }
int QzTimer::IsTimerRunning() { return IsThreadActive(); }

unsigned int QzTimer::Run() {
  if (m_running.load(std::memory_order_relaxed) == 0) return 0;
  QzTimerSchedule schedule;
  QzTimerScheduleStart(&schedule, m_period, timeGetTime());
  for (;;) {
    const uint32_t now = timeGetTime();
    const QzTimerTurn turn = QzTimerScheduleTurn(schedule, now);
    // Anything but a time-out (Shutdown's signal, a failed wait) ends the loop.
    if (turn.wait != 0 && m_wakeEvent.Wait(turn.wait) != HRESULT_TIMEOUT) return 0;
    if (turn.advance) QzTimerScheduleAdvance(&schedule);
    else QzTimerScheduleResync(&schedule, now);
    (void)m_callback();
    const int adjustment = m_pendingAdjustment.exchange(0, std::memory_order_relaxed);
    QzTimerScheduleRate(&schedule, adjustment, m_rateDelta.load(std::memory_order_relaxed));
    if (m_running.load(std::memory_order_relaxed) == 0) return 0;
  }
}
