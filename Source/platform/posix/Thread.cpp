// POSIX threads behind the Windows thread calls.
//
// Each thread is a joinable pthread with a kernel object of kind Thread. Its
// life in the object's state word: Running (suspended or not), then either
// Exiting (the thread claimed its own end) or Killing (TerminateThread
// claimed it), then Ended, which is what waiters wait for. The state word is
// a futex, so that the kill signal's handler can publish the end and wake
// the waiters with nothing but an atomic store and a system call.
//
// Waiters wake when the end is published, but a thread that ends by itself
// still runs a few instructions of this library after that, and a killed
// one leaves the runtime's thread record and stack behind. So every ending
// thread is filed in the reap list (a killed one by its killer), and the
// next thread call joins each whose kernel thread has gone, which returns
// its stack to the runtime's cache. Detach joins the ones that ended by
// themselves, so that none is still inside the library when it is unmapped.
#include "platform/QzPlatformThread.h"
#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformFaults.h"
#include "platform/posix/Handles.h"

#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <new>
#include <mutex>
#include <vector>

namespace qzsys {

namespace {

enum : uint32_t { kRunning = 0, kExiting = 1, kKilling = 2, kEnded = 3 };
enum : uint32_t { kSuspended = 0, kGo = 1, kAbandoned = 2 };

long Futex(std::atomic<uint32_t>* word, int op, uint32_t value, const struct timespec* timeout) {
  static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "futex word");
  return syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), op, value, timeout, nullptr, 0);
}

class ThreadObject : public QzKernelObject {
 public:
  ThreadObject(QzThreadStartRoutine start, void* argument, bool suspended)
      : QzKernelObject(QzObjectKind::Thread), start_(start), argument_(argument),
        suspendCount_(suspended ? 1 : 0), gate_(suspended ? kSuspended : kGo) {}

  DWORD Wait(bool infinite, std::chrono::steady_clock::time_point deadline) override;
  // A thread that was never resumed ends quietly when its one handle goes:
  // nobody could resume it any more.
  void OnHandleClosed() override { Open(kAbandoned); }

  void Open(uint32_t how) {
    {
      std::lock_guard<std::mutex> lock(gateLock_);
      if (gate_ != kSuspended) return;
      gate_ = how;
    }
    gateChanged_.notify_all();
  }

  QzThreadStartRoutine start_;
  void* argument_;
  pthread_t pthread_{};
  std::atomic<uint32_t> state_{kRunning};
  std::atomic<DWORD> exitCode_{STILL_ACTIVE};
  std::atomic<DWORD> killCode_{0};
  std::atomic<int> priority_{THREAD_PRIORITY_NORMAL};

  // Creation handshake and the suspended start. Plain locks: none of this
  // runs in a signal handler.
  std::mutex gateLock_;
  std::condition_variable gateChanged_;
  DWORD tid_ = 0;
  DWORD suspendCount_;
  uint32_t gate_;
};

// The object of the calling thread, for the kill handler.
__thread ThreadObject* t_self __attribute__((tls_model("initial-exec"))) = nullptr;

DWORD ThreadObject::Wait(bool infinite, std::chrono::steady_clock::time_point deadline) {
  for (;;) {
    uint32_t s = state_.load(std::memory_order_acquire);
    if (s == kEnded) return WAIT_OBJECT_0;
    struct timespec rel;
    if (!infinite) {
      auto left = deadline - std::chrono::steady_clock::now();
      if (left <= std::chrono::steady_clock::duration::zero()) return WAIT_TIMEOUT;
      auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
      rel.tv_sec = static_cast<time_t>(ns / 1000000000);
      rel.tv_nsec = static_cast<long>(ns % 1000000000);
    }
    Futex(&state_, FUTEX_WAIT_PRIVATE, s, infinite ? nullptr : &rel);
  }
}

void PublishEnd(ThreadObject* self, DWORD code) {
  self->exitCode_.store(code, std::memory_order_relaxed);
  self->state_.store(kEnded, std::memory_order_release);
  Futex(&self->state_, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr);
}

// ---- The kill signal ---------------------------------------------------------
int KillSignal() { return SIGRTMAX - 3; }

void KillHandler(int, siginfo_t*, void*) {
  ThreadObject* self = t_self;
  // A stray copy of the signal (sent by someone else, or to a thread that is
  // not ours) changes nothing.
  if (self == nullptr || self->state_.load(std::memory_order_acquire) != kKilling) return;
  PublishEnd(self, self->killCode_.load(std::memory_order_relaxed));
  // This thread alone, at once: no unwinding, no runtime end steps.
  for (;;) syscall(SYS_exit, 0);
}

// The handler is installed at the first thread start and the host's own
// action given back at detach, so that nothing points into an unloaded library.
std::mutex g_killLock;
bool g_killInstalled = false;
struct sigaction g_hostKillAction;

void InstallKillHandler() {
  std::lock_guard<std::mutex> lock(g_killLock);
  if (g_killInstalled) return;
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = &KillHandler;
  sa.sa_flags = SA_SIGINFO;  // no SA_RESTART: a blocked call is left at once
  sigfillset(&sa.sa_mask);
  g_killInstalled = sigaction(KillSignal(), &sa, &g_hostKillAction) == 0;
}

void ReleaseKillHandler() {
  std::lock_guard<std::mutex> lock(g_killLock);
  if (!g_killInstalled) return;
  struct sigaction current;
  // A host that took the signal over since keeps it.
  if (sigaction(KillSignal(), nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) != 0 &&
      current.sa_sigaction == &KillHandler)
    sigaction(KillSignal(), &g_hostKillAction, nullptr);
  g_killInstalled = false;
}

// ---- Reaping ended threads ----------------------------------------------------
// The sanitizer runtimes join a thread only once it has run their own end
// steps, which a killed thread never does: their joins would wait for ever.
// Under them the killed threads' stacks are knowingly left behind.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kCanReap = false;
#else
constexpr bool kCanReap = true;
#endif

struct Reap {
  struct Entry {
    ThreadObject* thread;  // holds the reference its thread held
    pthread_t pthread;
    DWORD process;  // a child of fork() has none of its parent's threads
    bool killed;
  };
  std::mutex lock;
  std::vector<Entry> ending;
};
Reap& TheReap() {
  static Reap* reap = new Reap;  // never destroyed: threads may outlive statics
  return *reap;
}

void File(ThreadObject* thread, pthread_t pthread, bool killed) {
  Reap& r = TheReap();
  std::lock_guard<std::mutex> lock(r.lock);
  r.ending.push_back({thread, pthread, GetCurrentProcessId(), killed});
}

// Joins the filed threads whose kernel thread has gone; with `wait`, waits
// for those that ended by themselves (they are on their last steps).
void ReapEnded(bool wait) {
  std::vector<ThreadObject*> gone;
  const DWORD process = GetCurrentProcessId();
  {
    Reap& r = TheReap();
    std::lock_guard<std::mutex> lock(r.lock);
    for (size_t i = 0; i < r.ending.size();) {
      const Reap::Entry& e = r.ending[i];
      bool joined = false;
      if (e.process != process)
        // Filed before a fork: the child has no such thread, and its runtime
        // took the thread's record back at the fork; a join would free it again.
        joined = true;
      else if (!e.killed && wait)
        joined = pthread_join(e.pthread, nullptr) == 0;
      else if (!e.killed || kCanReap)
        joined = pthread_tryjoin_np(e.pthread, nullptr) == 0;
      if (joined) {
        gone.push_back(e.thread);
        r.ending[i] = r.ending.back();
        r.ending.pop_back();
      } else {
        ++i;
      }
    }
  }
  for (ThreadObject* t : gone) t->Release();
}

// ---- The thread's own frame ------------------------------------------------------
// The end of a thread that returns (or leaves by pthread_exit). If a kill has
// claimed the thread first, its signal is on the way: wait for it here.
void FinishThread(ThreadObject* self, DWORD code) {
  uint32_t expected = kRunning;
  if (!self->state_.compare_exchange_strong(expected, kExiting, std::memory_order_acq_rel)) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    sigdelset(&mask, KillSignal());
    for (;;) sigsuspend(&mask);
  }
  t_self = nullptr;
  // The reap list takes the thread's reference before waiters can wake.
  File(self, pthread_self(), false);
  PublishEnd(self, code);
}

struct FinishOnExit {
  ThreadObject* self;
  DWORD code = 0;
  ~FinishOnExit() { FinishThread(self, code); }
};

void* ThreadMain(void* argument) {
  auto* self = static_cast<ThreadObject*>(argument);
  t_self = self;
  // A kill while the gate's lock is held would leave it held for good; one
  // that comes during the wait lands as soon as the gate opens, before the
  // start routine runs (TerminateThread opens the gate itself).
  sigset_t kill;
  sigemptyset(&kill);
  sigaddset(&kill, KillSignal());
  pthread_sigmask(SIG_BLOCK, &kill, nullptr);

  uint32_t gate;
  {
    std::unique_lock<std::mutex> lock(self->gateLock_);
    self->tid_ = GetCurrentThreadId();
    self->gateChanged_.notify_all();
    self->gateChanged_.wait(lock, [self] { return self->gate_ != kSuspended; });
    gate = self->gate_;
  }
  pthread_sigmask(SIG_UNBLOCK, &kill, nullptr);
  FinishOnExit finish{self};
  if (gate == kGo) finish.code = self->start_(self->argument_);
  return nullptr;
}

ThreadObject* LookupThread(HANDLE handle, QzObjectRef* ref) {
  *ref = QzHandleLookup(handle, QzObjectKind::Thread);
  return ref->as<ThreadObject>();
}

bool IsLive(ThreadObject* t) {
  uint32_t s = t->state_.load(std::memory_order_acquire);
  return s == kRunning;
}

int NiceOf(int priority) {
  switch (priority) {
    case THREAD_PRIORITY_IDLE: return 19;
    case THREAD_PRIORITY_LOWEST: return 10;
    case THREAD_PRIORITY_BELOW_NORMAL: return 5;
    case THREAD_PRIORITY_NORMAL: return 0;
    case THREAD_PRIORITY_ABOVE_NORMAL: return -5;
    case THREAD_PRIORITY_HIGHEST: return -10;
    case THREAD_PRIORITY_TIME_CRITICAL: return -20;
    default: return INT_MIN;
  }
}

}  // namespace

int QzTerminateSignal() { return KillSignal(); }

uintptr_t _beginthreadex(LPSECURITY_ATTRIBUTES, unsigned stackSize, QzThreadStartRoutine start, void* argument,
                         unsigned flags, unsigned* threadId) {
  InstallKillHandler();
  ReapEnded(false);
  if (start == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (QzFaultHit(QZ_FAULT_CREATE_THREAD)) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  auto* object = new (std::nothrow) ThreadObject(start, argument, (flags & CREATE_SUSPENDED) != 0);
  if (object == nullptr) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  int err = 0;
  if (stackSize != 0) {
    size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t size = (static_cast<size_t>(stackSize) + page - 1) / page * page;
    if (size < static_cast<size_t>(PTHREAD_STACK_MIN)) size = PTHREAD_STACK_MIN;
    err = pthread_attr_setstacksize(&attr, size);
  }
  object->AddRef();  // the thread's own reference
  if (err == 0) err = pthread_create(&object->pthread_, &attr, &ThreadMain, object);
  pthread_attr_destroy(&attr);
  if (err != 0) {
    object->Release();
    object->Release();
    SetLastError(QzErrnoToWin32(err));
    return 0;
  }
  DWORD tid;
  {
    std::unique_lock<std::mutex> lock(object->gateLock_);
    object->gateChanged_.wait(lock, [object] { return object->tid_ != 0; });
    tid = object->tid_;
  }
  object->AddRef();  // ours, until the handle is in place
  HANDLE handle = QzHandleInsert(object);
  if (handle == nullptr) {  // the table dropped the handle's reference
    object->Open(kAbandoned);  // a suspended thread ends unrun
    object->Release();
    return 0;
  }
  object->Release();
  if (threadId != nullptr) *threadId = tid;
  return reinterpret_cast<uintptr_t>(handle);
}

DWORD ResumeThread(HANDLE thread) {
  QzObjectRef ref;
  ThreadObject* t = LookupThread(thread, &ref);
  if (t == nullptr) return 0xFFFFFFFFu;
  if (QzFaultHit(QZ_FAULT_RESUME_THREAD)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return 0xFFFFFFFFu;
  }
  DWORD before;
  bool open = false;
  {
    std::lock_guard<std::mutex> lock(t->gateLock_);
    before = t->suspendCount_;
    if (before > 0 && --t->suspendCount_ == 0) open = true;
  }
  if (open) t->Open(kGo);
  return before;
}

BOOL SetThreadPriority(HANDLE thread, int priority) {
  QzObjectRef ref;
  ThreadObject* t = LookupThread(thread, &ref);
  if (t == nullptr) return FALSE;
  int nice = NiceOf(priority);
  if (nice == INT_MIN) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (QzFaultHit(QZ_FAULT_THREAD_PRIORITY)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  if (IsLive(t) && setpriority(PRIO_PROCESS, static_cast<id_t>(t->tid_), nice) != 0) {
    QzSetLastErrorFromErrno();
    return FALSE;
  }
  t->priority_.store(priority, std::memory_order_relaxed);
  return TRUE;
}

int GetThreadPriority(HANDLE thread) {
  QzObjectRef ref;
  ThreadObject* t = LookupThread(thread, &ref);
  if (t == nullptr) return 0x7FFFFFFF;
  return t->priority_.load(std::memory_order_relaxed);
}

DWORD_PTR SetThreadAffinityMask(HANDLE thread, DWORD_PTR mask) {
  QzObjectRef ref;
  ThreadObject* t = LookupThread(thread, &ref);
  if (t == nullptr) return 0;
  if (QzFaultHit(QZ_FAULT_THREAD_PRIORITY)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return 0;
  }
  cpu_set_t allowed, previous, wanted;
  if (sched_getaffinity(getpid(), sizeof allowed, &allowed) != 0 ||
      sched_getaffinity(static_cast<pid_t>(t->tid_), sizeof previous, &previous) != 0) {
    QzSetLastErrorFromErrno();
    return 0;
  }
  CPU_ZERO(&wanted);
  const int bits = static_cast<int>(sizeof(DWORD_PTR) * 8);
  for (int cpu = 0; cpu < bits; ++cpu) {
    if ((mask >> cpu) & 1) {
      if (!CPU_ISSET(cpu, &allowed)) mask = 0;  // a processor the process may not use
      CPU_SET(cpu, &wanted);
    }
  }
  if (mask == 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  if (sched_setaffinity(static_cast<pid_t>(t->tid_), sizeof wanted, &wanted) != 0) {
    QzSetLastErrorFromErrno();
    return 0;
  }
  DWORD_PTR before = 0;
  for (int cpu = 0; cpu < bits; ++cpu)
    if (CPU_ISSET(cpu, &previous)) before |= static_cast<DWORD_PTR>(1) << cpu;
  return before;
}

BOOL GetExitCodeThread(HANDLE thread, DWORD* exitCode) {
  QzObjectRef ref;
  ThreadObject* t = LookupThread(thread, &ref);
  if (t == nullptr) return FALSE;
  if (exitCode == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  *exitCode = t->state_.load(std::memory_order_acquire) == kEnded ? t->exitCode_.load(std::memory_order_relaxed)
                                                                  : STILL_ACTIVE;
  return TRUE;
}

BOOL TerminateThread(HANDLE thread, DWORD exitCode) {
  QzObjectRef ref;
  ThreadObject* t = LookupThread(thread, &ref);
  if (t == nullptr) return FALSE;
  t->killCode_.store(exitCode, std::memory_order_relaxed);
  uint32_t expected = kRunning;
  if (!t->state_.compare_exchange_strong(expected, kKilling, std::memory_order_acq_rel)) return TRUE;
  // From here the thread cannot end by itself, so its id stays its own until
  // the signal lands. Its reference passes to the reap list, which keeps the
  // object alive as long as the kernel thread is.
  File(t, t->pthread_, true);
  t->Open(kAbandoned);  // a suspended thread wakes only to take the signal
  syscall(SYS_tgkill, getpid(), static_cast<pid_t>(t->tid_), KillSignal());
  // The handler runs at once unless the thread blocks the signal; a bounded
  // wait keeps a caller from hanging on such a thread.
  (void)t->Wait(false, std::chrono::steady_clock::now() + std::chrono::seconds(2));
  ReapEnded(false);
  return TRUE;
}

BOOL GetVersionExA(OSVERSIONINFOA* info) {
  if (info == nullptr ||
      (info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOA) && info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOEXA))) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  const DWORD size = info->dwOSVersionInfoSize;
  memset(reinterpret_cast<char*>(info) + sizeof(DWORD), 0, size - sizeof(DWORD));
  info->dwMajorVersion = 10;
  info->dwMinorVersion = 0;
  info->dwBuildNumber = 19045;
  info->dwPlatformId = VER_PLATFORM_WIN32_NT;
  return TRUE;
}

size_t QzThreadsAwaitingReap() {
  ReapEnded(false);
  Reap& r = TheReap();
  std::lock_guard<std::mutex> lock(r.lock);
  return r.ending.size();
}

void QzThreadRelease() {
  ReapEnded(true);
  ReleaseKillHandler();
}

}  // namespace qzsys
