// The event-queue thread: every Execute and Release counted on every path.
#include <gtest/gtest.h>

#include <qzbase/qzbase.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "QzTestFaults.h"
#include "QzTestSupport.h"
#include "platform/posix/Handles.h"
#include "threads/QzEventQueue.h"

using namespace qzsys;
using Clock = std::chrono::steady_clock;

namespace {

struct Ledger {
  std::atomic<int> executed{0};
  std::atomic<int> released{0};
  std::mutex lock;
  std::vector<int> order;
};

class CountedEvent : public IQzEvent {
 public:
  CountedEvent(Ledger* ledger, int id, std::function<HRESULT()> body = nullptr)
      : ledger_(ledger), id_(id), body_(std::move(body)) {}
  HRESULT Execute() override {
    {
      std::lock_guard<std::mutex> hold(ledger_->lock);
      ledger_->order.push_back(id_);
    }
    ++ledger_->executed;
    return body_ ? body_() : id_;
  }
  void Release() override {
    ++ledger_->released;
    delete this;
  }

 private:
  Ledger* ledger_;
  int id_;
  std::function<HRESULT()> body_;
};

// A gate the queue thread waits at inside a handler, so that tests can line
// events up behind it.
struct Gate {
  std::atomic<int> inside{0};
  std::atomic<int> open{0};
  HRESULT Hold() {
    inside = 1;
    while (open.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return 0;
  }
  void WaitInside() const {
    while (inside.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
};

size_t Lines(const qztest::DebugCapture& log, const std::string& text) {
  size_t n = 0;
  for (const auto& t : log.texts()) n += t.find(text) != std::string::npos;
  return n;
}

const char kPostRefused[] = "Error: QzThreadWithEventQueue::PostEvent, Thread is not actived.\n";
const char kKill[] = "!!!QzThread::Terminate: Thread will be killed by force!!!";

TEST(EventQueue, PostsRunInOrderSendsReturnTheResultAndAnIdleStopNeedsNoForce) {
  qztest::DebugCapture log;
  const size_t handles = QzHandleCount();
  Ledger ledger;
  QzThreadWithEventQueue* q = QzThreadWithEventQueue::Start(0, 0, 0);
  ASSERT_NE(q, nullptr);
  // Two producers: each one's events run in its own order.
  auto produce = [&](int base) {
    for (int i = 0; i < 200; ++i) ASSERT_EQ(q->PostEvent(new CountedEvent(&ledger, base + i)), S_OK);
  };
  std::thread a(produce, 0), b(produce, 1000);
  a.join();
  b.join();
  EXPECT_EQ(q->SendEvent(new CountedEvent(&ledger, 5000), INFINITE), 5000);
  EXPECT_EQ(ledger.executed.load(), 401);
  {
    std::lock_guard<std::mutex> hold(ledger.lock);
    int lastA = -1, lastB = 999;
    for (int id : ledger.order) {
      if (id == 5000) continue;
      int& last = id < 1000 ? lastA : lastB;
      EXPECT_EQ(id, last + 1);
      last = id;
    }
  }
  EXPECT_EQ(q->SetStopFlag(), 0);  // from a foreign thread: changes nothing
  QzThreadWithEventQueue::Stop(q, 1000);
  EXPECT_EQ(q, nullptr);
  EXPECT_EQ(ledger.released.load(), 401);
  EXPECT_EQ(log.joined(), "");  // no refused post, no kill
  EXPECT_EQ(QzHandleCount(), handles);
  QzThreadWithEventQueue::Stop(q, 1000);  // null: returns at once
}

TEST(EventQueue, BadInputIsRefusedAndOwnsNothing) {
  QzThreadWithEventQueue* q = QzThreadWithEventQueue::Start(0, 0, 0);
  ASSERT_NE(q, nullptr);
  IQzEvent* nulls[3] = {nullptr, nullptr, nullptr};
  EXPECT_EQ(q->PostEvent(nullptr), E_INVALIDARG);
  EXPECT_EQ(q->PostEventArray(nullptr, 3), E_INVALIDARG);
  EXPECT_EQ(q->PostEventArray(nulls, 0), E_INVALIDARG);
  EXPECT_EQ(q->PostEventArray(nulls, 3), E_INVALIDARG);
  EXPECT_EQ(q->SendEvent(nullptr, 0), E_INVALIDARG);
  QzThreadWithEventQueue::Stop(q, 1000);
}

// A stop request in the middle of a batch: the whole batch runs, then the
// loop ends; posts and sends afterwards are released at once, with a line each.
TEST(EventQueue, StopInTheMiddleOfABatchThenEverythingIsRefused) {
  qztest::DebugCapture log;
  Ledger ledger;
  Gate gate;
  QzThreadWithEventQueue* q = QzThreadWithEventQueue::Start(0, 0, 0);
  ASSERT_NE(q, nullptr);
  ASSERT_EQ(q->PostEvent(new CountedEvent(&ledger, 0, [&] { return gate.Hold(); })), S_OK);
  gate.WaitInside();
  IQzEvent* five[5] = {new CountedEvent(&ledger, 1), new CountedEvent(&ledger, 2), new QzStopEvent(q),
                       new CountedEvent(&ledger, 4), new CountedEvent(&ledger, 5)};
  ASSERT_EQ(q->PostEventArray(five, 5), S_OK);
  gate.open = 1;
  ASSERT_EQ(q->WaitForExit(5000), 1);
  EXPECT_EQ(ledger.executed.load(), 5);
  EXPECT_EQ(ledger.released.load(), 5);
  EXPECT_EQ(q->SetStopFlag(), 1);

  EXPECT_EQ(q->PostEvent(new CountedEvent(&ledger, 6)), E_FAIL);
  IQzEvent* two[3] = {new CountedEvent(&ledger, 7), nullptr, new CountedEvent(&ledger, 8)};
  EXPECT_EQ(q->PostEventArray(two, 3), E_FAIL);
  EXPECT_EQ(q->SendEvent(new CountedEvent(&ledger, 9), INFINITE), E_FAIL);
  EXPECT_EQ(ledger.executed.load(), 5);
  EXPECT_EQ(ledger.released.load(), 9);
  EXPECT_EQ(Lines(log, kPostRefused), 1u);
  EXPECT_EQ(Lines(log, "Error: QzThreadWithEventQueue::PostEventArray, Thread is not actived.\n"), 1u);
  EXPECT_EQ(Lines(log, "Error: QzThreadWithEventQueue::SendEvent, Thread is not actived.\n"), 1u);
  // Stop on a thread that has ended: its own post is refused, no force.
  log.clear();
  auto began = Clock::now();
  QzThreadWithEventQueue::Stop(q, 5000);
  EXPECT_LT(Clock::now() - began, std::chrono::seconds(4));
  EXPECT_EQ(Lines(log, kPostRefused), 1u);
  EXPECT_EQ(Lines(log, kKill), 0u);
}

TEST(EventQueue, SendsFromTheQueueThreadRunAtOnceAndTimedOutSendsStillRunOnce) {
  qztest::DebugCapture log;
  const size_t handles = QzHandleCount();
  Ledger ledger;
  Gate gate;
  QzThreadWithEventQueue* q = QzThreadWithEventQueue::Start(0, 0, 0);
  ASSERT_NE(q, nullptr);
  // From inside a handler, on the same thread, whatever the time-out.
  HRESULT inner = 0;
  EXPECT_EQ(q->SendEvent(new CountedEvent(&ledger, 1, [&] {
              inner = q->SendEvent(new CountedEvent(&ledger, 2), 0);
              return 3;
            }), INFINITE), 3);
  EXPECT_EQ(inner, 2);

  // Against a busy thread a send with time-out 0 gives up at once; the event
  // runs later and goes to the queue thread, and its record is freed.
  ASSERT_EQ(q->PostEvent(new CountedEvent(&ledger, 4, [&] { return gate.Hold(); })), S_OK);
  gate.WaitInside();
  EXPECT_EQ(q->SendEvent(new CountedEvent(&ledger, 5), 0), HRESULT_TIMEOUT);
  EXPECT_EQ(q->SendEvent(new CountedEvent(&ledger, 6), 20), HRESULT_TIMEOUT);
  EXPECT_EQ(Lines(log, "Error: QzEventSync::WaitResultAndDeleteThis, WaitForSync failed!\n"), 2u);
  EXPECT_EQ(ledger.executed.load(), 3);
  gate.open = 1;
  EXPECT_EQ(q->SendEvent(new CountedEvent(&ledger, 7), INFINITE), 7);
  EXPECT_EQ(ledger.executed.load(), 6);
  QzThreadWithEventQueue::Stop(q, 1000);
  EXPECT_EQ(ledger.released.load(), 6);
  EXPECT_EQ(QzHandleCount(), handles);  // every record's wake event is closed
}

// A sender with no time limit whose event is still pending when the loop
// ends is woken with 0x80004005, and its event is released unrun.
TEST(EventQueue, PendingSendWithNoLimitWakesWhenTheLoopEnds) {
  Ledger ledger;
  Gate gate;
  QzThreadWithEventQueue* q = QzThreadWithEventQueue::Start(0, 0, 0);
  ASSERT_NE(q, nullptr);
  const size_t handles = QzHandleCount();
  ASSERT_EQ(q->PostEvent(new CountedEvent(&ledger, 1, [&] {
              gate.Hold();
              return q->SetStopFlag() == 1 ? S_OK : E_FAIL;
            })), S_OK);
  gate.WaitInside();
  HRESULT sent = 0;
  std::thread sender([&] { sent = q->SendEvent(new CountedEvent(&ledger, 2), INFINITE); });
  while (QzHandleCount() == handles) std::this_thread::sleep_for(std::chrono::milliseconds(1));  // the record exists
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  gate.open = 1;
  sender.join();
  EXPECT_EQ(sent, E_FAIL);
  EXPECT_EQ(ledger.executed.load(), 1);
  EXPECT_EQ(ledger.released.load(), 2);
  ASSERT_EQ(q->WaitForExit(INFINITE), 1);
  EXPECT_EQ(QzHandleCount(), handles - 1);  // the record is gone, and the thread's own handle
  QzThreadWithEventQueue::Stop(q, 1000);
}

TEST(EventQueue, NoMemoryLeavesTheEventWithTheCaller) {
  Ledger ledger;
  QzThreadWithEventQueue* q = QzThreadWithEventQueue::Start(0, 0, 0);
  ASSERT_NE(q, nullptr);
  const size_t handles = QzHandleCount();
  CountedEvent* mine = new CountedEvent(&ledger, 1);
  {
    qztest::FaultScope noMemory(QZ_FAULT_POOL_ALLOC);
    EXPECT_EQ(QzThreadWithEventQueue::Start(0, 0, 0), nullptr);
    EXPECT_EQ(q->PostEvent(mine), E_OUTOFMEMORY);
    IQzEvent* array[2] = {mine, mine};
    EXPECT_EQ(q->PostEventArray(array, 2), E_OUTOFMEMORY);
    EXPECT_EQ(q->SendEvent(mine, 100), E_OUTOFMEMORY);  // no record
  }
  {
    qztest::FaultScope noElement(QZ_FAULT_POOL_ALLOC, 1, 1);  // the record, not its element
    EXPECT_EQ(q->SendEvent(mine, 100), E_OUTOFMEMORY);
  }
  EXPECT_EQ(ledger.released.load(), 0);
  EXPECT_EQ(QzHandleCount(), handles);  // the record went, its wake event with it
  {
    // One element of three: the rest stay the caller's.
    IQzEvent* three[3] = {new CountedEvent(&ledger, 2), new CountedEvent(&ledger, 3), new CountedEvent(&ledger, 4)};
    qztest::FaultScope oneOnly(QZ_FAULT_POOL_ALLOC, 1, 2);
    EXPECT_EQ(q->PostEventArray(three, 3), S_OK);
    delete three[1];
    delete three[2];
  }
  EXPECT_EQ(q->SendEvent(mine, INFINITE), 1);
  QzThreadWithEventQueue::Stop(q, 1000);  // the sender wakes before the queue thread releases
  EXPECT_EQ(ledger.released.load(), 2);
}

unsigned int NeverReturns() {
  for (;;) std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

// A handler stuck for ever: two attempts, then a kill, within two time-outs
// and 800 ms; the object goes all the same.
TEST(EventQueue, StopKillsAHandlerStuckForEver) {
  qztest::DebugCapture log;
  Ledger ledger;
  QzThreadWithEventQueue* q = QzThreadWithEventQueue::Start(0, 0, 0);
  ASSERT_NE(q, nullptr);
  Gate gate;
  CountedEvent* stuck = new CountedEvent(&ledger, 1, [&] {
    gate.inside = 1;
    return static_cast<HRESULT>(NeverReturns());
  });
  ASSERT_EQ(q->PostEvent(stuck), S_OK);
  gate.WaitInside();
  auto began = Clock::now();
  QzThreadWithEventQueue::Stop(q, 50);
  auto took = Clock::now() - began;
  EXPECT_EQ(q, nullptr);
  EXPECT_GE(took, std::chrono::milliseconds(2 * 50 + 800 - 20));
  EXPECT_LT(took, std::chrono::milliseconds(2 * 50 + 800 + 1500));
  EXPECT_EQ(Lines(log, kPostRefused), 1u);  // the second attempt's post
  EXPECT_EQ(Lines(log, kKill), 1u);
  EXPECT_EQ(ledger.released.load(), 0);  // a killed handler's event is lost with it
  delete stuck;
}

// A handler that faults ends the thread through its guard: later posts are
// accepted but never run, and Stop finds the thread gone.
TEST(EventQueue, AFaultingHandlerEndsTheThreadAndStopFindsItGone) {
  qztest::DebugCapture log;
  Ledger ledger;
  std::atomic<int> handled{0};
  static std::atomic<int>* s_handled;
  s_handled = &handled;
  QzThreadWithEventQueue* q = QzThreadWithEventQueue::Start(0, 0, 0);
  ASSERT_NE(q, nullptr);
  q->SetExceptHandler(QzThread::Procedure([]() -> unsigned { return ++*s_handled; }));
  CountedEvent* faulting = new CountedEvent(&ledger, 1, [] {
    qztest::FaultAccess();
    return S_OK;
  });
  ASSERT_EQ(q->PostEvent(faulting), S_OK);
  ASSERT_EQ(q->WaitForExit(5000), 1);
  EXPECT_EQ(handled.load(), 1);
  EXPECT_EQ(ledger.released.load(), 0);  // the batch was left where it faulted
  CountedEvent* never = new CountedEvent(&ledger, 2);
  EXPECT_EQ(q->PostEvent(never), S_OK);  // the run flag is still 1
  auto began = Clock::now();
  QzThreadWithEventQueue::Stop(q, 5000);
  EXPECT_LT(Clock::now() - began, std::chrono::seconds(2));
  EXPECT_EQ(Lines(log, kKill), 0u);
  EXPECT_EQ(ledger.executed.load(), 1);
  delete never;  // still pending when the object went: nobody released it
  delete faulting;
}

}  // namespace
