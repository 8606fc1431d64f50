// QzTimer on the real clock: resolution requests, starts and restarts,
// failures. Counts are loose: the machine may be loaded.
#include <gtest/gtest.h>

#include <qzbase/qzbase.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "QzTestSupport.h"
#include "platform/posix/Handles.h"

using namespace qzsys;
using Procedure = QzThread::Procedure;

namespace {

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
