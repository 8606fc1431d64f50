// Platform synchronisation: critical sections, events (PulseEvent above all),
// semaphores, bad handles, and local time. Injected failures are tested
// through the sync objects (tests/sync).
#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "QzTestSupport.h"
#include "platform/QzPlatform.h"
#include "platform/posix/Handles.h"

using namespace qzsys;

namespace {

// Threads that each wait once on `object` with no limit and record success;
// made once all are inside WaitForSingleObject.
struct Waiters {
  Waiters(HANDLE object, int count) : released(0) {
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([this, object] {
        if (WaitForSingleObject(object, INFINITE) == WAIT_OBJECT_0) released.fetch_add(1);
      });
    }
    while (QzSyncWaiting(object) < count) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  // Waits until at least `n` have been let through and every other one is
  // back inside its wait.
  void AwaitReleased(HANDLE object, int n) {
    while (released.load() < n || QzSyncWaiting(object) != LONG(threads.size()) - released.load()) {
      std::this_thread::yield();
    }
  }
  ~Waiters() { for (auto& t : threads) t.join(); }
  std::atomic<int> released;
  std::vector<std::thread> threads;
};

TEST(CriticalSection, IsRecursiveAndExcludesOtherThreads) {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  for (DWORD spin : {0u, 0x80000FA0u}) {
    CRITICAL_SECTION cs;
    ASSERT_TRUE(spin ? InitializeCriticalSectionAndSpinCount(&cs, spin) : InitializeCriticalSection(&cs));
    // The flag byte is dropped, and spinning is pointless on one processor.
    EXPECT_EQ(cs.SpinCount, info.dwNumberOfProcessors > 1 ? (spin & 0xFFFFFFu) : 0u);
    for (int i = 0; i < 3; ++i) EnterCriticalSection(&cs);
    EXPECT_TRUE(TryEnterCriticalSection(&cs));
    auto othersTry = [&cs] {
      BOOL got = FALSE;
      std::thread([&] { got = TryEnterCriticalSection(&cs); if (got) LeaveCriticalSection(&cs); }).join();
      return got;
    };
    for (int i = 0; i < 4; ++i) {
      EXPECT_FALSE(othersTry()) << "still entered " << 4 - i << " times";
      LeaveCriticalSection(&cs);
    }
    EXPECT_TRUE(othersTry());
    DeleteCriticalSection(&cs);
  }
}

TEST(Event, StateAfterEachCallForBothKinds) {
  // One row per kind: what Wait(0) gives after creation, after Set (twice in
  // a row), after Reset.
  const struct { BOOL manual, initial; DWORD created, afterSet1, afterSet2, afterReset; } rows[] = {
      {FALSE, FALSE, WAIT_TIMEOUT, WAIT_OBJECT_0, WAIT_TIMEOUT, WAIT_TIMEOUT},
      {FALSE, TRUE, WAIT_OBJECT_0, WAIT_OBJECT_0, WAIT_TIMEOUT, WAIT_TIMEOUT},
      {TRUE, FALSE, WAIT_TIMEOUT, WAIT_OBJECT_0, WAIT_OBJECT_0, WAIT_TIMEOUT},
      {TRUE, TRUE, WAIT_OBJECT_0, WAIT_OBJECT_0, WAIT_OBJECT_0, WAIT_TIMEOUT},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(testing::Message() << "manual " << r.manual << " initial " << r.initial);
    HANDLE e = CreateEventA(nullptr, r.manual, r.initial, "ignored");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(WaitForSingleObject(e, 0), r.created);
    ASSERT_TRUE(SetEvent(e));
    EXPECT_EQ(WaitForSingleObject(e, 0), r.afterSet1);
    EXPECT_EQ(WaitForSingleObject(e, 0), r.afterSet2);
    ASSERT_TRUE(SetEvent(e));
    ASSERT_TRUE(ResetEvent(e));
    EXPECT_EQ(WaitForSingleObject(e, 0), r.afterReset);
    EXPECT_TRUE(CloseHandle(e));
  }
}

TEST(Event, PulseLetsThroughOnlyThreadsWaitingAtThatMoment) {
  // Waiters present at the call, and how many it lets through per kind. A
  // manual Set and Reset at once still lets everyone through who waited.
  enum Call { kPulse, kSet, kSetReset };
  const struct { BOOL manual; int waiters; Call call; int released; } rows[] = {
      {TRUE, 0, kPulse, 0},  {TRUE, 1, kPulse, 1},  {TRUE, 3, kPulse, 3}, {TRUE, 3, kSetReset, 3},
      {FALSE, 0, kPulse, 0}, {FALSE, 1, kPulse, 1}, {FALSE, 3, kPulse, 1}, {FALSE, 3, kSet, 1},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(testing::Message() << "manual " << r.manual << " waiters " << r.waiters << " call " << r.call);
    for (BOOL initial : {FALSE, TRUE}) {
      if (r.waiters > 0 && initial) continue;  // nobody waits on a signalled event
      HANDLE e = CreateEventA(nullptr, r.manual, initial, nullptr);
      {
        Waiters w(e, r.waiters);
        ASSERT_TRUE(r.call == kPulse ? PulseEvent(e) : SetEvent(e));
        if (r.call == kSetReset) {
          ASSERT_TRUE(ResetEvent(e));
        }
        w.AwaitReleased(e, r.released);
        // Not remembered: latecomers do not get through, and the event is
        // left not signalled even if it was signalled before.
        EXPECT_EQ(WaitForSingleObject(e, 0), WAIT_TIMEOUT);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(w.released.load(), r.released);
        for (int n = w.released.load(); n < r.waiters; n = w.released.load()) {
          ASSERT_TRUE(SetEvent(e));
          w.AwaitReleased(e, n + 1);
        }
      }
      CloseHandle(e);
    }
  }
}

TEST(Semaphore, ReleaseOfNLetsNThroughReportsThePreviousCountAndNeverPassesTheMaximum) {
  HANDLE s = CreateSemaphoreA(nullptr, 0, 3, nullptr);
  LONG previous = -7;
  {
    Waiters w(s, 4);
    ASSERT_TRUE(ReleaseSemaphore(s, 3, &previous));
    EXPECT_EQ(previous, 0);
    w.AwaitReleased(s, 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(w.released.load(), 3);
    ASSERT_TRUE(ReleaseSemaphore(s, 1, nullptr));
  }
  EXPECT_TRUE(ReleaseSemaphore(s, 1, nullptr));
  EXPECT_TRUE(ReleaseSemaphore(s, 2, &previous));
  EXPECT_EQ(previous, 1);
  previous = -7;
  EXPECT_FALSE(ReleaseSemaphore(s, 1, &previous));
  EXPECT_EQ(GetLastError(), ERROR_TOO_MANY_POSTS);
  EXPECT_EQ(previous, -7);
  for (LONG bad : {0, -1}) {
    EXPECT_FALSE(ReleaseSemaphore(s, bad, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_OBJECT_0);
  EXPECT_EQ(WaitForSingleObject(s, 0), WAIT_TIMEOUT);
  CloseHandle(s);
}

TEST(Handles, BadClosedAndWrongKindHandlesFailWithInvalidHandle) {
  HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  HANDLE semaphore = CreateSemaphoreA(nullptr, 0, 1, nullptr);
  HANDLE closed = CreateEventA(nullptr, TRUE, TRUE, nullptr);
  ASSERT_TRUE(CloseHandle(closed));
  const size_t live = QzHandleCount();
  for (HANDLE h : {HANDLE(nullptr), closed, QZ_INVALID_HANDLE_VALUE, reinterpret_cast<HANDLE>(0x1234)}) {
    for (auto call : {+[](HANDLE x) { return SetEvent(x); }, +[](HANDLE x) { return ResetEvent(x); },
                      +[](HANDLE x) { return PulseEvent(x); },
                      +[](HANDLE x) { return ReleaseSemaphore(x, 1, nullptr); }}) {
      SetLastError(0);
      EXPECT_FALSE(call(h));
      EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    }
    EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_FAILED);
    EXPECT_EQ(QzSyncWaiting(h), -1);
  }
  EXPECT_FALSE(SetEvent(semaphore));
  EXPECT_FALSE(ReleaseSemaphore(event, 1, nullptr));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
  EXPECT_EQ(QzHandleCount(), live);
  CloseHandle(event);
  CloseHandle(semaphore);
}

}  // namespace
