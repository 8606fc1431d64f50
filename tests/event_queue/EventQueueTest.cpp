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
using std::chrono::milliseconds;

namespace {

struct Ledger {
  std::atomic<int> executed{0};
  std::atomic<int> released{0};
  std::mutex lock;
  std::vector<int> order;
};

// Counts its runs and releases, notes the order it ran in, and returns its
// id unless it has a body of its own.
struct CountedEvent : IQzEvent {
  CountedEvent(Ledger* l, int i, std::function<HRESULT()> b) : ledger(l), id(i), body(std::move(b)) {}
  HRESULT Execute() override {
    {
      std::lock_guard<std::mutex> hold(ledger->lock);
      ledger->order.push_back(id);
    }
    ++ledger->executed;
    return body ? body() : id;
  }
  void Release() override {
    ++ledger->released;
    delete this;
  }
  Ledger* ledger;
  int id;
  std::function<HRESULT()> body;
};

void SpinUntil(const std::atomic<int>& flag) {
  while (flag.load() == 0) std::this_thread::sleep_for(milliseconds(1));
}

const char kPostRefused[] = "Error: QzThreadWithEventQueue::PostEvent, Thread is not actived.\n";
const char kKill[] = "!!!QzThread::Terminate: Thread will be killed by force!!!";

// A started queue, a ledger of its events, and a gate the queue thread can be
// held at inside a handler.
class EventQueue : public ::testing::Test {
 protected:
  void SetUp() override {
    handlesBefore = QzHandleCount();
    q = QzThreadWithEventQueue::Start(0, 0, 0);
    ASSERT_NE(q, nullptr);
    handlesStarted = QzHandleCount();
  }
  void TearDown() override { QzThreadWithEventQueue::Stop(q, 1000); }

  CountedEvent* Ev(int id, std::function<HRESULT()> body = nullptr) { return new CountedEvent(&ledger, id, std::move(body)); }
  // A handler that holds the queue thread until `open` is set.
  CountedEvent* Gate(int id) {
    return Ev(id, [this] {
      inside = 1;
      SpinUntil(open);
      return S_OK;
    });
  }
  size_t Lines(const std::string& text) const {
    size_t n = 0;
    for (const auto& t : log.texts()) n += t.find(text) != std::string::npos;
    return n;
  }

  qztest::DebugCapture log;
  Ledger ledger;
  std::atomic<int> inside{0}, open{0};
  QzThreadWithEventQueue* q = nullptr;
  size_t handlesBefore = 0, handlesStarted = 0;
};

TEST_F(EventQueue, PostsRunInOrderSendsReturnTheResultAndAnIdleStopNeedsNoForce) {
  IQzEvent* nulls[3] = {nullptr, nullptr, nullptr};
  EXPECT_EQ(q->PostEvent(nullptr), E_INVALIDARG);
  EXPECT_EQ(q->PostEventArray(nulls, 3), E_INVALIDARG);
  EXPECT_EQ(q->SendEvent(nullptr, 0), E_INVALIDARG);
  // Two producers: each one's events run in its own order.
  auto produce = [&](int base) {
    for (int i = 0; i < 200; ++i) ASSERT_EQ(q->PostEvent(Ev(base + i)), S_OK);
  };
  std::thread a(produce, 0), b(produce, 1000);
  a.join();
  b.join();
  EXPECT_EQ(q->SendEvent(Ev(5000), INFINITE), 5000);
  EXPECT_EQ(ledger.executed.load(), 401);
  int last[2] = {-1, 999};
  for (int id : ledger.order) {
    if (id == 5000) continue;
    EXPECT_EQ(id, last[id >= 1000] + 1);
    last[id >= 1000] = id;
  }
  EXPECT_EQ(q->SetStopFlag(), 0);  // from a foreign thread: changes nothing
  QzThreadWithEventQueue::Stop(q, 1000);
  EXPECT_EQ(q, nullptr);
  EXPECT_EQ(ledger.released.load(), 401);
  EXPECT_EQ(log.joined(), "");  // no refused post, no kill
  EXPECT_EQ(QzHandleCount(), handlesBefore);
}

// A stop request in the middle of a batch: the whole batch runs, then the
// loop ends. A send still pending then wakes with 0x80004005 and its event is
// released unrun; posts and sends afterwards are released at once, a line each.
TEST_F(EventQueue, StopInTheMiddleOfABatchThenEverythingIsRefused) {
  // One post of an array: one batch, whatever the queue thread is doing.
  std::atomic<int> stopped{0};
  IQzEvent* five[5] = {Ev(1), Ev(2), Gate(3), Ev(4, [&] { return stopped = q->SetStopFlag(); }), Ev(5)};
  ASSERT_EQ(q->PostEventArray(five, 5), S_OK);
  SpinUntil(inside);
  HRESULT sent = 0;
  std::thread sender([&] { sent = q->SendEvent(Ev(6), INFINITE); });
  while (QzHandleCount() == handlesStarted) std::this_thread::sleep_for(milliseconds(1));  // the record exists
  std::this_thread::sleep_for(milliseconds(20));
  open = 1;
  sender.join();
  EXPECT_EQ(sent, E_FAIL);
  ASSERT_EQ(q->WaitForExit(5000), 1);
  EXPECT_EQ(stopped.load(), 1);
  EXPECT_EQ(ledger.executed.load(), 5);
  EXPECT_EQ(ledger.released.load(), 6);
  EXPECT_EQ(QzHandleCount(), handlesStarted - 1);  // the record is gone, and the thread's own handle
  EXPECT_EQ(q->SetStopFlag(), 1);

  EXPECT_EQ(q->PostEvent(Ev(7)), E_FAIL);
  IQzEvent* two[3] = {Ev(8), nullptr, Ev(9)};
  EXPECT_EQ(q->PostEventArray(two, 3), E_FAIL);
  EXPECT_EQ(q->SendEvent(Ev(10), INFINITE), E_FAIL);
  EXPECT_EQ(ledger.executed.load(), 5);
  EXPECT_EQ(ledger.released.load(), 10);
  for (const char* call : {"PostEvent", "PostEventArray", "SendEvent"})
    EXPECT_EQ(Lines(std::string("Error: QzThreadWithEventQueue::") + call + ", Thread is not actived.\n"), 1u) << call;
}

TEST_F(EventQueue, SendsFromTheQueueThreadRunAtOnceAndTimedOutSendsStillRunOnce) {
  // From inside a handler, on the same thread, whatever the time-out.
  HRESULT inner = 0;
  EXPECT_EQ(q->SendEvent(Ev(1, [&] { inner = q->SendEvent(Ev(2), 0); return 3; }), INFINITE), 3);
  EXPECT_EQ(inner, 2);
  // Against a busy thread a send gives up after its time-out; the event runs
  // later all the same, and its record is freed.
  ASSERT_EQ(q->PostEvent(Gate(4)), S_OK);
  SpinUntil(inside);
  EXPECT_EQ(q->SendEvent(Ev(5), 0), HRESULT_TIMEOUT);
  EXPECT_EQ(q->SendEvent(Ev(6), 20), HRESULT_TIMEOUT);
  EXPECT_EQ(Lines("Error: QzEventSync::WaitResultAndDeleteThis, WaitForSync failed!\n"), 2u);
  EXPECT_EQ(ledger.executed.load(), 3);
  open = 1;
  EXPECT_EQ(q->SendEvent(Ev(7), INFINITE), 7);
  EXPECT_EQ(ledger.executed.load(), 6);
  QzThreadWithEventQueue::Stop(q, 1000);
  EXPECT_EQ(ledger.released.load(), 6);
  EXPECT_EQ(QzHandleCount(), handlesBefore);  // every record's wake event is closed
}


TEST_F(EventQueue, NoMemoryLeavesTheEventWithTheCaller) {
  CountedEvent* mine = Ev(1);
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
  EXPECT_EQ(QzHandleCount(), handlesStarted);  // the record went, its wake event with it
  {
    // One element of three: the rest stay the caller's.
    IQzEvent* three[3] = {Ev(2), Ev(3), Ev(4)};
    qztest::FaultScope oneOnly(QZ_FAULT_POOL_ALLOC, 1, 2);
    EXPECT_EQ(q->PostEventArray(three, 3), S_OK);
    delete three[1];
    delete three[2];
  }
  EXPECT_EQ(q->SendEvent(mine, INFINITE), 1);
  QzThreadWithEventQueue::Stop(q, 1000);  // the sender wakes before the queue thread releases
  EXPECT_EQ(ledger.released.load(), 2);
}

// A handler stuck for ever: two attempts, then a kill, within two time-outs
// and 800 ms; the object goes all the same.
TEST_F(EventQueue, StopKillsAHandlerStuckForEver) {
  CountedEvent* stuck = Ev(1, [this]() -> HRESULT {
    inside = 1;
    for (;;) std::this_thread::sleep_for(milliseconds(5));
  });
  ASSERT_EQ(q->PostEvent(stuck), S_OK);
  SpinUntil(inside);
  auto began = Clock::now();
  QzThreadWithEventQueue::Stop(q, 50);
  auto took = Clock::now() - began;
  EXPECT_EQ(q, nullptr);
  EXPECT_GE(took, milliseconds(2 * 50 + 800 - 20));
  EXPECT_LT(took, milliseconds(2 * 50 + 800 + 1500));
  EXPECT_EQ(Lines(kPostRefused), 1u);  // the second attempt's post
  EXPECT_EQ(Lines(kKill), 1u);
  EXPECT_EQ(ledger.released.load(), 0);  // a killed handler's event is lost with it
  delete stuck;
}

// A handler that faults ends the thread through its guard: later posts are
// accepted but never run, and Stop finds the thread gone.
TEST_F(EventQueue, AFaultingHandlerEndsTheThreadAndStopFindsItGone) {
  static std::atomic<int> handled;
  handled = 0;
  q->SetExceptHandler(QzThread::Procedure([]() -> unsigned { return ++handled; }));
  CountedEvent* faulting = Ev(1, [] { qztest::FaultAccess(); return S_OK; });
  ASSERT_EQ(q->PostEvent(faulting), S_OK);
  ASSERT_EQ(q->WaitForExit(5000), 1);
  EXPECT_EQ(handled.load(), 1);
  EXPECT_EQ(ledger.released.load(), 0);  // the batch was left where it faulted
  CountedEvent* never = Ev(2);
  EXPECT_EQ(q->PostEvent(never), S_OK);  // the run flag is still 1
  auto began = Clock::now();
  QzThreadWithEventQueue::Stop(q, 5000);
  EXPECT_LT(Clock::now() - began, std::chrono::seconds(2));
  EXPECT_EQ(Lines(kKill), 0u);
  EXPECT_EQ(ledger.executed.load(), 1);
  delete never;  // still pending when the object went: nobody released it
  delete faulting;
}

}  // namespace
