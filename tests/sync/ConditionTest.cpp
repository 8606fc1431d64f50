// The condition with several waiters: Signal, Broadcast, time-outs, and a
// work queue that must lose nothing.
#include <gtest/gtest.h>

#include <qzbase/qzbase.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include "QzTestSupport.h"
#include "platform/QzPlatform.h"
#include "threads/QzSyncObject.h"

using namespace qzsys;
using qztest::DebugCapture;
using Probe = QzThreadConditionProbe;

namespace {

struct Fixture : testing::Test {
  Fixture() { Qz_InitializeCriticalSection(&lock); condition = new QzThreadCondition(&lock); }
  ~Fixture() override { delete condition; Qz_DeleteCriticalSection(&lock); }

  bool HeldByAnotherThread() {
    bool got = false;
    std::thread([&] { got = Qz_TryEnterCriticalSection(&lock) != 0; if (got) Qz_LeaveCriticalSection(&lock); }).join();
    return !got;
  }
  // Until `count` threads sleep on the condition's semaphore, the external lock released.
  void AwaitSleepers(LONG count) {
    while (Probe::Waiters(*condition) < count || QzSyncWaiting(Probe::Semaphore(*condition)) < count) {
      std::this_thread::yield();
    }
  }
  // Threads that each take the lock, wait once with no limit, and count their return under the lock.
  void StartWaiters(int count) {
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([this] {
        Qz_EnterCriticalSection(&lock);
        EXPECT_EQ(condition->Wait(INFINITE), S_OK);
        ++returned;
        Qz_LeaveCriticalSection(&lock);
      });
    }
    AwaitSleepers(count);
  }
  void Join() { for (auto& t : threads) t.join(); threads.clear(); }

  QzCriticalSection lock;
  QzThreadCondition* condition;
  std::vector<std::thread> threads;
  int returned = 0;  // guarded by `lock`
};

TEST_F(Fixture, ASignalWithNoWaiterIsForgottenAndATimedOutWaitRestoresCountAndLock) {
  EXPECT_EQ(condition->Signal(), S_OK);
  DebugCapture capture;
  Qz_EnterCriticalSection(&lock);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(condition->Wait(40), HRESULT(0x800705B4));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
  EXPECT_TRUE(HeldByAnotherThread());
  EXPECT_EQ(Probe::Waiters(*condition), 0);
  Qz_LeaveCriticalSection(&lock);
  EXPECT_EQ(capture.texts().size(), 1u) << "the semaphore's time-out is logged";
}

TEST_F(Fixture, TwoSignalsWakeTwoWaitersAndALaterBroadcastReturnsAtOnce) {
  StartWaiters(2);
  EXPECT_EQ(condition->Signal(), S_OK);
  EXPECT_EQ(condition->Signal(), S_OK);
  Join();
  EXPECT_EQ(returned, 2);
  EXPECT_EQ(Probe::Waiters(*condition), 0);
  EXPECT_EQ(condition->Broadcast(), S_OK);
  EXPECT_EQ(Probe::Broadcasting(*condition), 0);
}

TEST_F(Fixture, BroadcastReturnsOnceAllWaitersLeftTheSemaphoreAndTheyThenTakeTheLockInTurn) {
  // A waiter woken by a Signal must not leave the broadcast's event set behind it.
  StartWaiters(1);
  EXPECT_EQ(condition->Signal(), S_OK);
  Join();
  returned = 0;
  StartWaiters(3);
  Qz_EnterCriticalSection(&lock);
  EXPECT_EQ(condition->Broadcast(), S_OK);
  EXPECT_EQ(Probe::Waiters(*condition), 0);
  EXPECT_EQ(QzSyncWaiting(Probe::Semaphore(*condition)), 0);
  EXPECT_EQ(Probe::Broadcasting(*condition), 0);
  EXPECT_EQ(returned, 0) << "nobody returns while the broadcaster holds the lock";
  Qz_LeaveCriticalSection(&lock);
  Join();
  EXPECT_EQ(returned, 3);
}

TEST_F(Fixture, AWorkQueueUnderSignalsBroadcastsAndTimeOutsLosesAndRepeatsNothing) {
  std::deque<int> queue;
  bool stop = false;
  std::vector<int> seen(400, 0);
  for (int c = 0; c < 3; ++c) {
    threads.emplace_back([&, c] {
      Qz_EnterCriticalSection(&lock);
      for (;;) {
        while (queue.empty() && !stop) condition->Wait(c == 0 ? 2 : INFINITE);
        if (queue.empty()) break;
        ++seen[queue.front()];
        queue.pop_front();
      }
      Qz_LeaveCriticalSection(&lock);
    });
  }
  for (int i = 0; i < 400; ++i) {
    Qz_EnterCriticalSection(&lock);
    queue.push_back(i);
    Qz_LeaveCriticalSection(&lock);
    if (i % 50 == 0) {
      Qz_EnterCriticalSection(&lock);
      condition->Broadcast();
      Qz_LeaveCriticalSection(&lock);
    } else {
      condition->Signal();
    }
  }
  Qz_EnterCriticalSection(&lock);
  stop = true;
  condition->Broadcast();
  Qz_LeaveCriticalSection(&lock);
  Join();
  for (int i = 0; i < 400; ++i) EXPECT_EQ(seen[i], 1) << i;
}

}  // namespace
