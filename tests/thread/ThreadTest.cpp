// QzThread: starts, the guard around the procedure and its handler, end
// steps, kills, and the failures of each start step.
#include <gtest/gtest.h>

#include <qzbase/qzbase.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "QzTestFaults.h"
#include "QzTestSupport.h"
#include "pools/QzMempool.h"

using namespace qzsys;
using Procedure = QzThread::Procedure;
using std::chrono::milliseconds;

namespace {

std::atomic<int> g_calls{0};
std::atomic<int> g_handlerCalls{0};

void Reset() { g_calls = 0; g_handlerCalls = 0; }
void SpinUntil(const std::atomic<int>& flag) {
  while (flag.load() == 0) std::this_thread::sleep_for(milliseconds(1));
}

unsigned Count() { ++g_calls; return 5; }
unsigned Segv() { ++g_calls; qztest::FaultAccess(); return 0; }
unsigned DivideByZero() { ++g_calls; return unsigned(qztest::FaultDivide()); }
unsigned Illegal() { ++g_calls; qztest::FaultIllegal(); return 0; }
unsigned ThrowInt() { ++g_calls; throw 7; }
unsigned ThrowStd() { ++g_calls; throw std::runtime_error("x"); }
unsigned Handler() { ++g_handlerCalls; return 0; }
unsigned HandlerThrows() { ++g_handlerCalls; throw 1; }
unsigned HandlerFaults() { ++g_handlerCalls; qztest::FaultAccess(); return 0; }
unsigned Sleep() { ++g_calls; for (;;) pause(); }
unsigned UseThePool() {
  Qz_MempoolFree(nullptr, Qz_MempoolAlloc(nullptr, 40));  // leaves the block in this thread's cache
  ++g_calls;
  return 0;
}

void Destroy(QzThread* t) {
  t->~QzThread();
  Qz_MempoolFree(nullptr, t);
}

int LiveCaches() {
  int n = 0;
  for (auto& c : QzResolvePool(nullptr)->caches) n += c.load() != nullptr;
  return n;
}

// Reaches the protected start.
class OpenThread : public QzThread {
 public:
  using QzThread::SetThreadProc;
  using QzThread::StartThread;
};

TEST(Thread, RunsTheProcedureAndTheEndStepsGiveThePoolCacheBack) {
  Reset();
  Qz_MempoolFree(nullptr, Qz_MempoolAlloc(nullptr, 8));  // this thread's own cache is no part of the count
  const int cachesBefore = LiveCaches();
  QzThread* t = QzThread::Start(Procedure(&UseThePool), 0, 0, 0);
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->WaitForExit(INFINITE), 1);
  EXPECT_EQ(g_calls.load(), 1);
  EXPECT_EQ(t->IsThreadActive(), 0);
  EXPECT_EQ(t->GetThreadId(), 0u);
  // The cache goes back just after the handle closes.
  for (int i = 0; i < 500 && LiveCaches() != cachesBefore; ++i) std::this_thread::sleep_for(milliseconds(1));
  EXPECT_EQ(LiveCaches(), cachesBefore);
  Destroy(t);
}

// Whatever the procedure raises stays in the thread: the handler runs once,
// whatever it raises in turn is swallowed, and the end steps still run.
TEST(Thread, FaultsAndExceptionsOfProcedureAndHandlerStayInTheThread) {
  const struct { const char* name; Procedure::Function fn; } procedures[] = {
      {"access violation", &Segv}, {"division by zero", &DivideByZero}, {"illegal instruction", &Illegal},
      {"int thrown", &ThrowInt},   {"std exception", &ThrowStd},       {"returns", &Count},
  };
  const struct { const char* name; Procedure::Function fn; } handlers[] = {
      {"no handler", nullptr}, {"handler", &Handler}, {"handler throws", &HandlerThrows}, {"handler faults", &HandlerFaults},
  };
  qztest::DebugCapture log;
  for (const auto& p : procedures) {
    for (const auto& h : handlers) {
      SCOPED_TRACE(std::string(p.name) + ", " + h.name);
      Reset();
      OpenThread t;
      t.SetThreadProc(Procedure(p.fn));
      t.SetExceptHandler(Procedure(h.fn));
      ASSERT_EQ(t.StartThread(0, 0, 0), 1);
      EXPECT_EQ(t.WaitForExit(INFINITE), 1);
      EXPECT_EQ(g_calls.load(), 1);
      EXPECT_EQ(g_handlerCalls.load(), (p.fn != &Count && h.fn != nullptr) ? 1 : 0);
      EXPECT_EQ(t.GetThreadId(), 0u);
    }
  }
  EXPECT_EQ(log.joined(), "");  // nothing is logged for a crash
}

TEST(Thread, TerminateKillsAndWarnsAlways) {
  qztest::DebugCapture log;
  QzThread idle;
  idle.Terminate();
  EXPECT_NE(log.joined().find("] Warning: !!!QzThread::Terminate: Thread will be killed by force!!!\n"), std::string::npos);
  // (the platform suite kills threads in every state; one is enough here)
  Reset();
  log.clear();
  QzThread* t = QzThread::Start(Procedure(&Sleep), 0, 0, 0);
  ASSERT_NE(t, nullptr);
  SpinUntil(g_calls);
  t->Terminate();
  EXPECT_EQ(t->IsThreadActive(), 0);
  EXPECT_EQ(t->GetThreadId(), 0u);
  EXPECT_EQ(t->WaitForExit(0), 1);
  EXPECT_EQ(log.texts().size(), 1u);
  Destroy(t);
}

TEST(Thread, EachStartStepFailsWithItsLineAndTheProcedureNeverRuns) {
  Reset();
  qztest::DebugCapture log;
  EXPECT_EQ(QzThread::Start(Procedure(), 0, 0, 0), nullptr);
  EXPECT_EQ(log.joined(), "");
  const struct { QzFault fault; int priority; unsigned affinity; const char* line; } rows[] = {
      {QZ_FAULT_CREATE_THREAD, 0, 0, "Error: ERROR: QzThread::StartThread: Failed to create thread\n"},
      {QZ_FAULT_THREAD_PRIORITY, 0, 1, "'ERROR: QzThread::StartThread: SetThreadAffinityMask' failed with error 0x80070005"},
      {QZ_FAULT_RESUME_THREAD, 0, 0, "Error: ERROR: QzThread::StartThread: Failed to resume thread "},
      // A refused priority is ignored, and a mask of 0 makes no affinity call.
      {QZ_FAULT_THREAD_PRIORITY, THREAD_PRIORITY_HIGHEST, 0, nullptr},
  };
  for (const auto& r : rows) {
    log.clear();
    qztest::FaultScope fail(r.fault);
    QzThread* t = QzThread::Start(Procedure(&Count), 0, r.priority, r.affinity);
    if (r.line != nullptr) {
      EXPECT_EQ(t, nullptr) << r.line;
      EXPECT_NE(log.joined().find(r.line), std::string::npos) << log.joined();
      continue;
    }
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->WaitForExit(INFINITE), 1);
    EXPECT_EQ(fail.hits(), 1u) << "only the priority call";
    Destroy(t);
  }
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(g_calls.load(), 1);  // only the priority row ran
}

}  // namespace
