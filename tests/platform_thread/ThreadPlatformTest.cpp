// The platform's threads, kills, version record, timer calls and fault guard.
#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "QzTestFaults.h"
#include "QzTestSupport.h"
#include "platform/posix/Handles.h"

using namespace qzsys;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kReaps = false;  // the sanitizers cannot join a killed thread
#else
constexpr bool kReaps = true;
#endif

struct Probe {
  std::atomic<int> ran{0};
  std::atomic<int> after{0};      // set by code that must never run
  std::atomic<int> destroyed{0};  // set by a destructor that must never run
  std::atomic<DWORD> tid{0};
  int readFd = -1;
  HANDLE waitOn = nullptr;
  unsigned result = 0;
};

struct Sentinel {
  std::atomic<int>* flag;
  ~Sentinel() { flag->store(1); }
};

unsigned ReturnResult(void* p) {
  auto* probe = static_cast<Probe*>(p);
  probe->tid = GetCurrentThreadId();
  probe->ran = 1;
  return probe->result;
}

// Blocks in a read when given a pipe, in a wait when given a handle, else
// spins; a kill must skip both the line after the block and the destructor.
unsigned Block(void* p) {
  auto* probe = static_cast<Probe*>(p);
  Sentinel s{&probe->destroyed};
  probe->ran = 1;
  char c;
  volatile unsigned long n = 0;
  if (probe->readFd >= 0) (void)read(probe->readFd, &c, 1);
  else if (probe->waitOn != nullptr) WaitForSingleObject(probe->waitOn, INFINITE);
  else while (probe->after.load(std::memory_order_relaxed) == 0) n = n + 1;
  probe->after = 1;
  return 0;
}

HANDLE Begin(QzThreadStartRoutine fn, Probe* probe, bool suspended = true, unsigned stack = 0, unsigned* tid = nullptr) {
  unsigned id = 0;
  HANDLE h = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, stack, fn, probe, suspended ? CREATE_SUSPENDED : 0, &id));
  if (tid) *tid = id;
  return h;
}

void WaitUntil(const std::atomic<int>& flag) {
  while (flag.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

DWORD ExitCode(HANDLE h) {
  DWORD code = 0;
  EXPECT_TRUE(GetExitCodeThread(h, &code));
  return code;
}

// A thread starts suspended until resumed, on stacks of any size; a thread
// never resumed goes without running when its only handle closes.
TEST(PlatformThread, SuspendedStartsStackSizesAndCreationFailures) {
  Probe probe;
  probe.result = 5;
  unsigned tid = 0;
  HANDLE h = Begin(&ReturnResult, &probe, true, 0, &tid);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(WaitForSingleObject(h, 20), WAIT_TIMEOUT);
  EXPECT_EQ(ExitCode(h), STILL_ACTIVE);
  EXPECT_EQ(ResumeThread(h), 1u);
  EXPECT_EQ(WaitForSingleObject(h, INFINITE), WAIT_OBJECT_0);
  EXPECT_EQ(probe.tid.load(), tid);  // the id handed out is the thread's own
  EXPECT_EQ(ExitCode(h), 5u);
  EXPECT_EQ(ResumeThread(h), 0u);
  EXPECT_TRUE(CloseHandle(h));
  EXPECT_EQ(ResumeThread(h), 0xFFFFFFFFu);  // a closed handle
  EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);

  for (unsigned stack : {1u, 4u << 20}) {
    Probe p;
    h = Begin(&ReturnResult, &p, false, stack);
    ASSERT_NE(h, nullptr) << stack;
    EXPECT_EQ(WaitForSingleObject(h, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(p.ran.load(), 1);
    CloseHandle(h);
  }
  Probe unrun;
  {
    qztest::FaultScope fail(QZ_FAULT_CREATE_THREAD);
    EXPECT_EQ(Begin(&ReturnResult, &unrun), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
  }
  h = Begin(&ReturnResult, &unrun);
  {
    qztest::FaultScope fail(QZ_FAULT_RESUME_THREAD);
    EXPECT_EQ(ResumeThread(h), 0xFFFFFFFFu);
  }
  EXPECT_EQ(WaitForSingleObject(h, 20), WAIT_TIMEOUT);
  size_t handles = QzHandleCount();
  EXPECT_TRUE(CloseHandle(h));
  EXPECT_EQ(QzHandleCount(), handles - 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(unrun.ran.load(), 0);
}

// A kill ends the thread where it stands: no code after the block, no
// destructor, waiters wake with the given code, and the stack comes back.
TEST(PlatformThread, TerminateStopsBlockedSpinningAndSuspendedThreads) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  Probe never;
  // The thread killed in its wait keeps its reference to this object for
  // good: a kill loses what the thread held.
  HANDLE suspendedForever;
  {
#if defined(__SANITIZE_ADDRESS__)
    __lsan::ScopedDisabler knownLoss;
#endif
    suspendedForever = Begin(&ReturnResult, &never);
  }
  const struct { const char* name; bool read, wait, suspended; } cases[] = {
      {"blocked in a system call", true, false, false},
      {"blocked in a wait", false, true, false},
      {"spinning", false, false, false},
      {"suspended", false, false, true},
  };
  for (const auto& c : cases) {
    const bool suspended = c.suspended;
    if (qztest::kSpinningThreadsIgnoreKills && !c.read && !c.wait && !suspended) continue;
    Probe probe;
    probe.readFd = c.read ? fds[0] : -1;
    probe.waitOn = c.wait ? suspendedForever : nullptr;
    HANDLE h = Begin(&Block, &probe, suspended);
    ASSERT_NE(h, nullptr);
    if (!suspended) {
      ResumeThread(h);
      WaitUntil(probe.ran);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));  // into the block
    }
    EXPECT_TRUE(TerminateThread(h, 0xFFFFFFFF)) << c.name;
    EXPECT_EQ(WaitForSingleObject(h, 0), WAIT_OBJECT_0) << c.name;
    EXPECT_EQ(ExitCode(h), 0xFFFFFFFFu) << c.name;
    EXPECT_EQ(probe.after.load(), 0) << c.name;
    EXPECT_EQ(probe.destroyed.load(), 0) << c.name;
    EXPECT_EQ(probe.ran.load(), suspended ? 0 : 1) << c.name;
    // A second kill, and a kill of an ended thread, do nothing.
    EXPECT_TRUE(TerminateThread(h, 7));
    EXPECT_EQ(ExitCode(h), 0xFFFFFFFFu);
    EXPECT_TRUE(CloseHandle(h));
  }
  // The rest of the process is undisturbed: a pipe write is no signal to anyone.
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  for (int i = 0; i < 200 && kReaps && QzThreadsAwaitingReap() != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  if (kReaps) { EXPECT_EQ(QzThreadsAwaitingReap(), 0u); }
  ResumeThread(suspendedForever);
  EXPECT_EQ(WaitForSingleObject(suspendedForever, INFINITE), WAIT_OBJECT_0);
  CloseHandle(suspendedForever);
  close(fds[0]);
  close(fds[1]);
}

// ---- The fault guard that thread entries run under ------------------------------
// (the thread suites drive every kind of processor fault through it)
void Segv(void*) { qztest::FaultAccess(); }

TEST(PlatformGuard, CatchesProcessorFaultsLetsExceptionsThroughAndNests) {
  int ran = 0;
  EXPECT_FALSE(QzGuardedCall(&Segv, nullptr));
  EXPECT_TRUE(QzGuardedCall([](void* p) { *static_cast<int*>(p) = 1; }, &ran));
  EXPECT_EQ(ran, 1);
  EXPECT_THROW(QzGuardedCall([](void*) { throw 42; }, nullptr), int);
  // A probe inside the guarded call must leave the outer guard in place.
  ran = 0;
  EXPECT_FALSE(QzGuardedCall([](void* p) {
    EXPECT_FALSE(QzGuardedProbe([](volatile void* a) { (void)*static_cast<volatile char*>(a); },
                                reinterpret_cast<volatile void*>(uintptr_t(8))));
    *static_cast<int*>(p) = 1;
    Segv(nullptr);
  }, &ran));
  EXPECT_EQ(ran, 1);
  // Outside every guard a fault is the process's again.
  EXPECT_DEATH(Segv(nullptr), "");
}

}  // namespace
