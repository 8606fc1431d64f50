// Sync objects: the exception of a section without memory, the result and
// log line of every failure, and the condition with several waiters under
// Signal, Broadcast and time-outs.
#include <gtest/gtest.h>

#include <qzbase/qzbase.h>

#include <deque>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "QzTestSupport.h"
#include "platform/QzPlatform.h"
#include "platform/posix/Handles.h"
#include "threads/QzSyncObject.h"

using namespace qzsys;
using qztest::DebugCapture;
using qztest::FaultScope;
using Probe = QzThreadConditionProbe;

namespace {

const HRESULT kNoMemory = HRESULT(0x80070008), kDenied = HRESULT(0x80070005), kBadHandle = HRESULT(0x80070006),
              kTooMany = HRESULT(0x8007012A), kTimeOut = HRESULT(0x800705B4);

// The expected message lines of API errors, line numbers left out.
std::vector<std::string> Expected(std::initializer_list<std::pair<const char*, HRESULT>> lines) {
  std::vector<std::string> out;
  for (const auto& l : lines) {
    char code[16];
    snprintf(code, sizeof code, "0x%08x", static_cast<unsigned>(l.second));
    out.push_back(std::string("Error: In file QzSyncObject at line N: '") + l.first + "' failed with error " + code +
                  " (" + QzStringT<char>::GetWin32Error(l.second).c_str() + ").\n");
  }
  return out;
}

// What was captured, without the time prefix and with the line number as N.
std::vector<std::string> Captured(const DebugCapture& capture) {
  static const std::regex prefix(R"(^\[[^\]]*\] )"), line(R"(at line \d+:)");
  std::vector<std::string> out;
  for (const std::string& text : capture.texts()) {
    out.push_back(std::regex_replace(std::regex_replace(text, prefix, ""), line, "at line N:"));
  }
  return out;
}

bool HeldByAnotherThread(QzCriticalSection* cs) {
  bool got = false;
  std::thread([&] { got = Qz_TryEnterCriticalSection(cs) != 0; if (got) Qz_LeaveCriticalSection(cs); }).join();
  return !got;
}

TEST(CriticalSection, NoMemoryThrowsFromBothFormsAndTheConditionMakesNothing) {
  const size_t handles = QzHandleCount();
  for (int form = 0; form < 3; ++form) {
    FaultScope fault(QZ_FAULT_CRITICAL_SECTION);
    QzCriticalSection cs;
    try {
      if (form == 0) Qz_InitializeCriticalSection(&cs);
      if (form == 1) Qz_InitializeCriticalSection(&cs, 4000);
      if (form == 2) QzThreadCondition condition(&cs);
      ADD_FAILURE() << "no exception from form " << form;
    } catch (const QzException& e) {
      EXPECT_STREQ(e.GetText(), QzStringT<char>::GetWin32Error(E_OUTOFMEMORY).c_str());
    }
    if (form < 2) {  // not usable, and every call on it does nothing
      EXPECT_EQ(cs.LockSemaphore, nullptr);
      Qz_EnterCriticalSection(&cs);
      EXPECT_EQ(Qz_TryEnterCriticalSection(&cs), 0);
      Qz_LeaveCriticalSection(&cs);
      Qz_DeleteCriticalSection(&cs);
    }
  }
  EXPECT_EQ(QzHandleCount(), handles);
}

TEST(SyncObjects, EveryFailureGivesItsResultAndExactlyItsLogLines) {
  struct Row {
    const char* what;
    std::function<HRESULT()> run;
    HRESULT result;
    std::vector<std::string> lines;
  };
  QzCriticalSection cs;
  Qz_InitializeCriticalSection(&cs);
  const Row rows[] = {
      {"event without memory",
       [] { FaultScope f(QZ_FAULT_CREATE_EVENT); QzThreadEvent e; return e.GetHandle() ? S_OK : E_FAIL; }, E_FAIL,
       Expected({{"QzThreadEvent::CreateEvent", kNoMemory}})},
      {"a failed event keeps handle 0, and every call fails on it",
       [] {
         FaultScope f(QZ_FAULT_CREATE_EVENT, 0, 1);
         QzThreadEvent e(1, 1);
         return e.Wait(0) == HRESULT(0xFFFFFFFFu) ? e.Pulse() : E_FAIL;
       },
       kBadHandle,
       Expected({{"QzThreadEvent::CreateEvent", kNoMemory}, {"QzThreadEvent::Wait", kBadHandle},
                 {"QzThreadEvent::Pulse", kBadHandle}})},
      {"event time-out is silent", [] { return QzThreadEvent().Wait(0); }, kTimeOut, {}},
      {"event wait fails, and takes nothing",
       [] {
         QzThreadEvent e(0, 1);
         { FaultScope f(QZ_FAULT_WAIT); if (e.Wait(INFINITE) != HRESULT(0xFFFFFFFFu)) return E_FAIL; }
         return e.Wait(0);
       },
       S_OK, Expected({{"QzThreadEvent::Wait", kBadHandle}})},
      {"event changes refused",
       [] {
         QzThreadEvent e;
         FaultScope f(QZ_FAULT_SET_EVENT);
         HRESULT a = e.Signal(), b = e.Reset(), c = e.Pulse();
         return a == b && b == c ? a : E_FAIL;
       },
       kDenied,
       Expected({{"QzThreadEvent::Signal", kDenied}, {"QzThreadEvent::Reset", kDenied}, {"QzThreadEvent::Pulse", kDenied}})},
      {"semaphore without memory", [] { FaultScope f(QZ_FAULT_CREATE_SEMAPHORE); return QzThreadSemaphore().Unlock(); },
       kBadHandle,
       Expected({{"QzThreadSemaphore::CreateSemaphore", kNoMemory}, {"QzThreadSemaphore::Unlock", kBadHandle}})},
      {"semaphore with bad counts", [] { QzThreadSemaphore s(5, 1); return s.GetHandle() ? S_OK : E_FAIL; }, E_FAIL,
       Expected({{"QzThreadSemaphore::CreateSemaphore", E_INVALIDARG}})},
      {"semaphore time-out is logged", [] { return QzThreadSemaphore().Lock(0); }, kTimeOut,
       Expected({{"QzThreadSemaphore::Lock", kTimeOut}})},
      {"semaphore past its maximum", [] { return QzThreadSemaphore(1, 1).Unlock(); }, kTooMany,
       Expected({{"QzThreadSemaphore::Unlock", kTooMany}})},
      {"semaphore posts nothing", [] { return QzThreadSemaphore().PostN(0); }, E_INVALIDARG,
       Expected({{"QzThreadSemaphore::PostN", E_INVALIDARG}})},
      {"semaphore release refused, and nothing added",
       [] {
         QzThreadSemaphore s;
         { FaultScope f(QZ_FAULT_RELEASE_SEMAPHORE); if (s.PostN(2) != kDenied) return E_FAIL; }
         return s.Lock(0);
       },
       kTimeOut, Expected({{"QzThreadSemaphore::PostN", kDenied}, {"QzThreadSemaphore::Lock", kTimeOut}})},
      {"condition without its event",
       [&cs] { FaultScope f(QZ_FAULT_CREATE_EVENT, 1); return QzThreadCondition(&cs).Broadcast(); }, S_OK,
       Expected({{"QzThreadCondition::QzThreadCondition: CreateEventA", kNoMemory}})},
      {"condition without its semaphore waits in vain, lock held",
       [&cs] {
         FaultScope f(QZ_FAULT_CREATE_SEMAPHORE);
         QzThreadCondition c(&cs);
         Qz_EnterCriticalSection(&cs);
         HRESULT hr = c.Wait(INFINITE);
         bool held = HeldByAnotherThread(&cs);
         Qz_LeaveCriticalSection(&cs);
         return held && c.Signal() == S_OK ? hr : E_FAIL;
       },
       kBadHandle,
       Expected({{"QzThreadSemaphore::CreateSemaphore", kNoMemory}, {"QzThreadSemaphore::Lock", kBadHandle}})},
      {"condition cannot close its event",
       [&cs] {
         void* event;
         {
           FaultScope f(QZ_FAULT_CLOSE_HANDLE, 0, 1);
           QzThreadCondition c(&cs);
           event = Probe::WaitersDone(c);
         }
         return CloseHandle(event) ? S_OK : E_FAIL;  // the failed close left it open
       },
       S_OK, Expected({{"QzThreadCondition::QzThreadCondition: Close auto reset event handle", HRESULT(0x8007045D)}})},
  };
  const size_t handles = QzHandleCount();
  for (const Row& row : rows) {
    DebugCapture capture;
    EXPECT_EQ(row.run(), row.result) << row.what;
    EXPECT_EQ(Captured(capture), row.lines) << row.what;
  }
  EXPECT_EQ(QzHandleCount(), handles);
  Qz_DeleteCriticalSection(&cs);
}

struct Condition : testing::Test {
  Condition() { Qz_InitializeCriticalSection(&lock); condition = new QzThreadCondition(&lock); }
  ~Condition() override { delete condition; Qz_DeleteCriticalSection(&lock); }

  // Threads that each take the lock, wait once with no limit, and count their
  // return under the lock; back once all sleep on the semaphore, lock released.
  void StartWaiters(int count) {
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([this] {
        Qz_EnterCriticalSection(&lock);
        EXPECT_EQ(condition->Wait(INFINITE), S_OK);
        ++returned;
        Qz_LeaveCriticalSection(&lock);
      });
    }
    while (Probe::Waiters(*condition) < count || QzSyncWaiting(Probe::Semaphore(*condition)) < count) {
      std::this_thread::yield();
    }
  }
  void Join() { for (auto& t : threads) t.join(); threads.clear(); }

  QzCriticalSection lock;
  QzThreadCondition* condition;
  std::vector<std::thread> threads;
  int returned = 0;  // guarded by `lock`
};

TEST_F(Condition, ASignalWithNoWaiterIsForgottenAndATimedOutWaitRestoresCountAndLock) {
  EXPECT_EQ(condition->Signal(), S_OK);
  EXPECT_EQ(condition->Broadcast(), S_OK);
  DebugCapture capture;
  Qz_EnterCriticalSection(&lock);
  EXPECT_EQ(condition->Wait(40), kTimeOut);
  EXPECT_TRUE(HeldByAnotherThread(&lock));
  EXPECT_EQ(Probe::Waiters(*condition), 0);
  Qz_LeaveCriticalSection(&lock);
  EXPECT_EQ(capture.texts().size(), 1u) << "the semaphore's time-out is logged";
}

TEST_F(Condition, EachSignalWakesOneAndBroadcastReturnsOnceAllLeftTheSemaphore) {
  StartWaiters(2);
  EXPECT_EQ(condition->Signal(), S_OK);
  EXPECT_EQ(condition->Signal(), S_OK);
  Join();
  EXPECT_EQ(returned, 2);
  EXPECT_EQ(WaitForSingleObject(Probe::Semaphore(*condition), 0), WAIT_TIMEOUT) << "a release left over";
  // Waiters woken by a Signal must not have left the broadcast's event set.
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

}  // namespace
