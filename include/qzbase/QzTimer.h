// qzbase: a periodic timer with an exact long-run rate.
//
// QzTimer calls one delegate periodically on a thread of its own at high
// priority. Each deadline follows from the previous one, not from the clock,
// and the part of a millisecond that a deadline cannot hold is carried to
// the next, so a period of 10.3333 ms averages exactly that. A timer late by
// up to five periods catches up with ticks in quick succession; later than
// that, it drops the lost ticks and starts afresh from the clock.
//
// Rates are in units of 100 ns (1 ms is 10,000 units). AdjustRate moves the
// period for good (calls add up); SetRateDelta sets an offset on top of it
// that does not add up. Both take effect at the next deadline worked out.
// While both are 0 nothing is worked out again, so a delta set back to 0
// leaves the period as it was until the next change.
//
// Threads: AdjustRate and SetRateDelta may run on any thread at any time
// (one atomic operation each, no lock). The callback runs on the timer
// thread only, one call at a time. Start, Shutdown, SetTimerCallback and the
// destructor belong to the owner, one at a time, and never run on the timer
// thread (they wait for that very thread).
//
// Failures: Start returns 0 with no message for an empty callback, a period
// of 0 or above 429,496 ms (which the 32-bit schedule cannot hold), or a
// refused resolution request; a failed thread start is logged. An exception
// or fault out of the callback ends the thread (it is caught there); the
// timer then counts as running until Shutdown or the destructor.
//
// Start clears the wake event before the thread starts, so that a Shutdown
// that signalled it while the callback ran cannot end the next run at once.
#ifndef QZBASE_QZTIMER_H
#define QZBASE_QZTIMER_H

#include <qzbase/QzTypes.h>
#include <qzbase/QzThread.h>
#include <qzbase/QzSyncObject.h>
#include <qzbase/QzTimeValue.h>

#include <atomic>

class QZ_API QzTimer : public QzThread {
 public:
  QzTimer();
  // As Shutdown.
  ~QzTimer();

  // 0 with no change while the timer thread runs; else stores it, 1.
  int SetTimerCallback(const Procedure& callback);
  // Starts (or restarts, losing the rate changes) with `period` ms. 1 on success.
  int Start(unsigned int period);
  // Stops the thread, waiting for it with no limit, and ends the resolution request.
  void Shutdown();
  void AdjustRate(int units);
  void SetRateDelta(int units);
  // 1 while the timer thread runs.
  int IsTimerRunning();

 private:
  unsigned int Run();
  void StopThread();

  unsigned int m_resolution;  // ms asked of timeBeginPeriod; 0: none open
  unsigned int m_period;      // units
  std::atomic<int> m_rateDelta;
  std::atomic<int> m_pendingAdjustment;
  Procedure m_callback;
  QzThreadEvent m_wakeEvent;
  std::atomic<int> m_running;
};

#endif  // QZBASE_QZTIMER_H
