// The multimedia timer calls. Linux sleeps and timed waits are precise to
// tens of microseconds already, so a resolution request changes nothing; the
// requests are still counted, so that a begin without its end shows.
#include "platform/QzPlatformThread.h"
#include "platform/QzPlatformFaults.h"

#include <time.h>

#include <map>
#include <mutex>

namespace qzsys {

namespace {

constexpr UINT kPeriodMin = 1;
constexpr UINT kPeriodMax = 1000000;

struct Periods {
  std::mutex lock;
  std::map<UINT, unsigned> open;
};
Periods& ThePeriods() {
  static Periods* periods = new Periods;  // never destroyed: timers may outlive statics
  return *periods;
}

}  // namespace

DWORD timeGetTime() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<DWORD>(static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u);
}

MMRESULT timeGetDevCaps(TIMECAPS* caps, UINT size) {
  if (caps == nullptr || size != sizeof(TIMECAPS) || QzFaultHit(QZ_FAULT_TIME_PERIOD)) return TIMERR_NOCANDO;
  caps->wPeriodMin = kPeriodMin;
  caps->wPeriodMax = kPeriodMax;
  return TIMERR_NOERROR;
}

MMRESULT timeBeginPeriod(UINT period) {
  if (period < kPeriodMin || period > kPeriodMax || QzFaultHit(QZ_FAULT_TIME_PERIOD)) return TIMERR_NOCANDO;
  Periods& p = ThePeriods();
  std::lock_guard<std::mutex> lock(p.lock);
  ++p.open[period];
  return TIMERR_NOERROR;
}

MMRESULT timeEndPeriod(UINT period) {
  Periods& p = ThePeriods();
  std::lock_guard<std::mutex> lock(p.lock);
  auto it = p.open.find(period);
  if (it == p.open.end()) return TIMERR_NOCANDO;
  if (--it->second == 0) p.open.erase(it);
  return TIMERR_NOERROR;
}

unsigned QzTimePeriodOpenCount(UINT period) {
  Periods& p = ThePeriods();
  std::lock_guard<std::mutex> lock(p.lock);
  auto it = p.open.find(period);
  return it == p.open.end() ? 0 : it->second;
}

}  // namespace qzsys
