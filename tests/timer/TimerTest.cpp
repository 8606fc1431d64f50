// The timer: its schedule as a pure step driven by a synthetic clock, time
// values, and QzTimer on the real clock (counts there are loose: the machine
// may be loaded).
#include <gtest/gtest.h>

#include <qzbase/qzbase.h>

#include <time.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "QzTestSupport.h"
#include "platform/posix/Handles.h"
#include "threads/QzTimer.h"

using namespace qzsys;
using Procedure = QzThread::Procedure;

namespace {

// One loop turn per call: the clock stands still but for the waits (which
// time out exactly) and the callback's cost.
struct SyntheticClock {
  QzTimerSchedule s;
  uint32_t now;
  std::vector<uint32_t> ticks;

  SyntheticClock(uint32_t periodUnits, uint32_t start) : now(start) { QzTimerScheduleStart(&s, periodUnits, start); }
  void Turn(uint32_t cost = 0, int adjustment = 0, int delta = 0) {
    const uint32_t read = now;
    const QzTimerTurn t = QzTimerScheduleTurn(s, read);
    now += t.wait;
    if (t.advance) QzTimerScheduleAdvance(&s);
    else QzTimerScheduleResync(&s, read);
    ticks.push_back(now);
    now += cost;
    QzTimerScheduleRate(&s, adjustment, delta);
  }
};

TEST(TimerSchedule, TurnsByHowFarAheadTheDeadlineIs) {
  QzTimerSchedule s;
  QzTimerScheduleStart(&s, 100000, 1000);  // 10 ms: next 1010, tolerance 50
  EXPECT_EQ(s.tolerance, 50u);
  const struct { uint32_t now; uint32_t wait; bool advance; } rows[] = {
      {1010 - 51, 50, false},  // further ahead than the tolerance: wait that long, then start afresh
      {1010 - 50, 50, true},   {1010 - 1, 1, true},
      {1010, 0, true},         {1010 + 50, 0, true},  // late by up to the tolerance: at once
      {1010 + 51, 0, false},                          // later: start afresh at once
  };
  for (const auto& r : rows) {
    QzTimerTurn t = QzTimerScheduleTurn(s, r.now);
    EXPECT_EQ(t.wait, r.wait) << r.now;
    EXPECT_EQ(t.advance, r.advance) << r.now;
  }
  // Starting afresh restarts the fraction too, as a start does: 10.5 ms
  // deadlines from 5000 are 5010, 5021.
  QzTimerScheduleStart(&s, 105000, 0);
  QzTimerScheduleAdvance(&s);
  QzTimerScheduleResync(&s, 5000);
  EXPECT_EQ(s.next, 5010u);
  QzTimerScheduleAdvance(&s);
  EXPECT_EQ(s.next, 5021u);
}

TEST(TimerSchedule, ThreePeriodsLateCatchesUpTenLateStartsAfresh) {
  SyntheticClock late(100000, 0), lost(100000, 0);
  for (int i = 0; i < 5; ++i) late.Turn(), lost.Turn();
  late.Turn(30);   // tick 6 at 60 blocks for three periods
  lost.Turn(100);  // ... or for ten
  for (int i = 0; i < 10; ++i) late.Turn(), lost.Turn();
  // Three late: ticks 7 to 9 come at once, none is lost, and the old deadlines hold.
  for (int j = 7; j <= 9; ++j) EXPECT_EQ(late.ticks[j - 1], 90u) << j;
  for (int j = 10; j <= 16; ++j) EXPECT_EQ(late.ticks[j - 1], uint32_t(10 * j)) << j;
  // Ten late: the lost ticks are dropped, the next runs at once and the
  // schedule restarts from there.
  EXPECT_EQ(lost.ticks[6], 160u);
  EXPECT_EQ(lost.ticks[7], 170u);
}

// ---- QzTimer on the real clock ----------------------------------------------------

struct Ticks {
  std::atomic<int> count{0};
  std::atomic<int> blockFirstMs{0};
  unsigned Tick() {
    if (count.fetch_add(1) == 0 && blockFirstMs.load() != 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(blockFirstMs.load()));
    return 0;
  }
  Procedure AsCallback() { return Procedure::FromMember<Ticks, &Ticks::Tick>(this); }
};

void WaitForTicks(const Ticks& t, int n) {
  for (int i = 0; i < 5000 && t.count.load() < n; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

TEST(Timer, RefusedStartsCreateNoThreadAndLeaveNoRequestOpen) {
  qztest::DebugCapture log;
  Ticks ticks;
  QzTimer timer;
  const size_t handles = QzHandleCount();
  EXPECT_EQ(timer.Start(10), 0);  // no callback
  ASSERT_EQ(timer.SetTimerCallback(ticks.AsCallback()), 1);
  EXPECT_EQ(timer.Start(0), 0);
  EXPECT_EQ(timer.Start(429497), 0);  // its period in 100 ns units would not fit 32 bits
  {
    // The device caps fail: a wanted resolution of 0 goes to the system as it is, which refuses it.
    qztest::FaultScope caps(QZ_FAULT_TIME_PERIOD, 0, 1);
    EXPECT_EQ(timer.Start(1), 0);
  }
  {
    qztest::FaultScope caps(QZ_FAULT_TIME_PERIOD, 0, 1);
    EXPECT_EQ(timer.Start(100), 1);  // 10 needs no caps
    timer.Shutdown();
  }
  for (QzFault f : {QZ_FAULT_TIME_PERIOD, QZ_FAULT_CREATE_THREAD, QZ_FAULT_RESUME_THREAD}) {
    qztest::FaultScope fail(f);
    EXPECT_EQ(timer.Start(10), 0) << f;  // a thread left suspended must not hang the start
    EXPECT_EQ(timer.IsTimerRunning(), 0);
    EXPECT_EQ(QzTimePeriodOpenCount(5), 0u);
  }
  EXPECT_EQ(QzHandleCount(), handles);
  EXPECT_EQ(ticks.count.load(), 0);
  EXPECT_NE(log.joined().find("Failed to create thread"), std::string::npos);
  EXPECT_NE(log.joined().find("Failed to resume thread"), std::string::npos);
}

// Each start, from idle or running, asks for half the period, no coarser
// than 10 ms and no finer than the device's 1 ms, and gives back the last.
TEST(Timer, TicksRestartsCleanAndAsksForHalfThePeriodCappedAtTen) {
  Ticks first, second;
  QzTimer timer;
  ASSERT_EQ(timer.SetTimerCallback(first.AsCallback()), 1);
  const struct { unsigned period, resolution; } rows[] = {{100, 10}, {20, 10}, {7, 3}, {1, 1}};
  for (const auto& r : rows) {
    ASSERT_EQ(timer.Start(r.period), 1) << r.period;
    EXPECT_EQ(QzTimePeriodOpenCount(r.resolution), 1u) << r.period;
    EXPECT_EQ(timer.IsTimerRunning(), 1);
  }
  EXPECT_EQ(timer.SetTimerCallback(second.AsCallback()), 0);  // the old one stays while running
  WaitForTicks(first, 10);
  EXPECT_GE(first.count.load(), 10);
  EXPECT_EQ(second.count.load(), 0);
  timer.Shutdown();
  for (const auto& r : rows) EXPECT_EQ(QzTimePeriodOpenCount(r.resolution), 0u);
  EXPECT_EQ(timer.IsTimerRunning(), 0);

  // A Shutdown that comes while the callback runs leaves the wake event set;
  // the next start must tick all the same.
  Ticks slow;
  slow.blockFirstMs = 50;
  ASSERT_EQ(timer.SetTimerCallback(slow.AsCallback()), 1);
  ASSERT_EQ(timer.Start(5), 1);
  WaitForTicks(slow, 1);
  timer.Shutdown();
  EXPECT_EQ(slow.count.load(), 1);
  slow.blockFirstMs = 0;
  ASSERT_EQ(timer.Start(5), 1);
  WaitForTicks(slow, 5);
  EXPECT_GE(slow.count.load(), 5);
}

unsigned Throws() { throw 1; }

TEST(Timer, ACallbackThatThrowsEndsTheThreadButKeepsTheRequestOpen) {
  QzTimer timer;
  ASSERT_EQ(timer.SetTimerCallback(Procedure(&Throws)), 1);
  ASSERT_EQ(timer.Start(4), 1);
  for (int i = 0; i < 5000 && timer.IsTimerRunning(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(timer.IsTimerRunning(), 0);
  EXPECT_EQ(QzTimePeriodOpenCount(2), 1u);
  timer.Shutdown();
  EXPECT_EQ(QzTimePeriodOpenCount(2), 0u);
}

}  // namespace
