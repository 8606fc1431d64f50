// POSIX implementation of the synchronisation area of the platform layer.
//
// Critical sections are recursive pthread mutexes kept on the heap, their
// address in the record's LockSemaphore field: the record keeps its Windows
// size, ThreadSanitizer sees a mutex it knows, and creation really can run out
// of memory as it can on Windows.
//
// Events and semaphores are kernel objects of the handle space. A waiter never
// sleeps while holding a lock and never puts itself on a list that it would
// have to take itself off again: it sleeps in the kernel on a 32-bit word of
// the object (a futex), and every change that may let it through changes that
// word. That matters because TerminateThread ends a thread where it stands,
// without unwinding. A thread killed while asleep has simply left the kernel's
// futex queue, and the object is as if it had never waited: no mutex is left
// owned, no condition variable is left with a waiter count that no one will
// ever decrement, and no list holds a pointer into a dead stack.
#include "platform/QzPlatformSync.h"
#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformFaults.h"
#include "platform/posix/Handles.h"

#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>

namespace qzsys {

namespace {

using Clock = std::chrono::steady_clock;

// ---- Sleeping on a word ---------------------------------------------------------------

// The futex call's own time record: two longs on either width, whatever width
// of time_t the C library was built with.
struct FutexTime {
  long tv_sec;
  long tv_nsec;
};

uint32_t* FutexAddress(std::atomic<uint32_t>* word) {
  static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "a futex is one 32-bit word");
  return reinterpret_cast<uint32_t*>(word);
}

// Sleeps while *word holds `seen`, until woken or until `deadline` passes.
// The deadline is absolute on CLOCK_MONOTONIC, which is the steady clock's
// base on Linux, so a sleep cut short by a signal resumes with the same end.
// False once the deadline has passed; true otherwise (woken, word changed,
// interrupted): the caller looks at the object again either way.
bool FutexWait(std::atomic<uint32_t>* word, uint32_t seen, bool infinite, Clock::time_point deadline) {
  FutexTime at{};
  if (!infinite) {
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline.time_since_epoch()).count();
    if (ns <= 0) return false;
    at.tv_sec = static_cast<long>(ns / 1000000000);
    at.tv_nsec = static_cast<long>(ns % 1000000000);
  }
  const long r = syscall(SYS_futex, FutexAddress(word), FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, seen,
                         infinite ? nullptr : &at, nullptr, FUTEX_BITSET_MATCH_ANY);
  return !(r == -1 && errno == ETIMEDOUT);
}

void FutexWake(std::atomic<uint32_t>* word, int count) {
  syscall(SYS_futex, FutexAddress(word), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count, nullptr, nullptr, 0);
}

bool DeadlinePassed(bool infinite, Clock::time_point deadline) {
  return !infinite && Clock::now() >= deadline;
}

// ---- Events ---------------------------------------------------------------------------

// State lives under a small internal lock that is held only to test and change
// it, never across a sleep, so a waiter can only die holding it if it is
// killed in the middle of those few instructions (which no TerminateThread
// makes safe on Windows either). The futex word mirrors the state: the low bit is the
// signalled state, the rest the low bits of `epoch`, which counts SetEvent and
// PulseEvent calls that found the event not signalled.
//
// Who was waiting at the moment of a pulse: a waiter notes the epoch when it
// enters. A manual-reset waiter is let through once the epoch has moved on,
// since then a Set or a Pulse came while it waited, even if the event has been
// reset again before it woke. An auto-reset pulse leaves a ticket stamped with
// its epoch, and the ticket can be taken only by a waiter that entered before
// that epoch; so exactly one of the threads that were waiting goes, and a
// thread arriving after the pulse can never take it. A ticket whose waiters
// have all gone (timed out, or killed) can never be taken again, so it is
// harmless; tickets are cleared when nobody waits, and the oldest is dropped if
// a burst of pulses ever fills the list.
class Event final : public QzKernelObject {
 public:
  Event(bool manualReset, bool signalled)
      : QzKernelObject(QzObjectKind::Event), manual_(manualReset), signalled_(signalled) {
    PublishLocked();
  }

  DWORD Wait(bool infinite, Clock::time_point deadline) override {
    std::unique_lock<std::mutex> hold(lock_);
    if (signalled_) {
      if (!manual_) {
        signalled_ = false;
        PublishLocked();
      }
      return WAIT_OBJECT_0;
    }
    const uint64_t entered = epoch_;
    ++waiting_;
    DWORD result = WAIT_TIMEOUT;
    for (;;) {
      if (DeadlinePassed(infinite, deadline)) break;
      const uint32_t seen = word_.load(std::memory_order_relaxed);
      hold.unlock();
      const bool inTime = FutexWait(&word_, seen, infinite, deadline);
      hold.lock();
      if (LetThroughLocked(entered)) {
        result = WAIT_OBJECT_0;
        break;
      }
      if (!inTime) break;
    }
    if (--waiting_ == 0) tickets_ = 0;
    return result;
  }

  void Set() {
    {
      std::lock_guard<std::mutex> hold(lock_);
      if (signalled_) return;
      signalled_ = true;
      ++epoch_;
      PublishLocked();
      if (waiting_ == 0) return;
    }
    // An auto-reset event lets one waiter through; should a thread that was
    // not asleep take the state first, the woken one just sleeps again.
    FutexWake(&word_, manual_ ? INT_MAX : 1);
  }

  void Reset() {
    std::lock_guard<std::mutex> hold(lock_);
    if (!signalled_) return;
    signalled_ = false;
    PublishLocked();
  }

  void Pulse() {
    {
      std::lock_guard<std::mutex> hold(lock_);
      signalled_ = false;
      ++epoch_;
      if (!manual_ && waiting_ > 0) {
        if (tickets_ == kMaxTickets) {
          memmove(ticket_, ticket_ + 1, sizeof ticket_[0] * (kMaxTickets - 1));
          --tickets_;
        }
        ticket_[tickets_++] = epoch_;
      }
      PublishLocked();
      if (waiting_ == 0) return;
    }
    // Every sleeper looks: for auto reset only one that entered before this
    // pulse can take its ticket, and the futex queue cannot tell which those are.
    FutexWake(&word_, INT_MAX);
  }

  LONG Waiting() {
    std::lock_guard<std::mutex> hold(lock_);
    return static_cast<LONG>(waiting_);
  }

 private:
  static constexpr unsigned kMaxTickets = 16;

  void PublishLocked() {
    word_.store(static_cast<uint32_t>(epoch_ << 1) | (signalled_ ? 1u : 0u), std::memory_order_relaxed);
  }

  // Whether a waiter that entered at `entered` may go now; takes what it uses.
  bool LetThroughLocked(uint64_t entered) {
    if (manual_) return signalled_ || epoch_ != entered;
    // Tickets are in epoch order: the oldest this waiter may take.
    for (unsigned i = 0; i < tickets_; ++i) {
      if (ticket_[i] > entered) {
        memmove(ticket_ + i, ticket_ + i + 1, sizeof ticket_[0] * (tickets_ - i - 1));
        --tickets_;
        return true;
      }
    }
    if (signalled_) {
      signalled_ = false;
      PublishLocked();
      return true;
    }
    return false;
  }

  std::mutex lock_;
  std::atomic<uint32_t> word_{0};
  const bool manual_;
  bool signalled_;
  uint64_t epoch_ = 0;
  // Threads inside Wait. A killed waiter is never taken off, which costs only
  // needless wake-ups (and keeps dead tickets a little longer).
  unsigned waiting_ = 0;
  unsigned tickets_ = 0;
  uint64_t ticket_[kMaxTickets];
};

// ---- Semaphores -----------------------------------------------------------------------

// No lock at all: the count is the futex word, taken and given by atomic
// exchange, so a thread may vanish at any instruction without harm. A release
// makes the wake-up call only when someone may sleep: a sleeper counts itself
// before the kernel reads the count, and the releaser reads the number of
// sleepers after it has added to the count (both sequentially consistent), so
// either the releaser sees the sleeper or the sleeper sees the count. A killed
// sleeper stays counted, which costs only needless wake-ups.
class Semaphore final : public QzKernelObject {
 public:
  Semaphore(LONG initial, LONG maximum)
      : QzKernelObject(QzObjectKind::Semaphore), count_(static_cast<uint32_t>(initial)),
        maximum_(static_cast<uint32_t>(maximum)) {}

  DWORD Wait(bool infinite, Clock::time_point deadline) override {
    if (TryTake()) return WAIT_OBJECT_0;
    waiting_.fetch_add(1, std::memory_order_seq_cst);
    DWORD result = WAIT_TIMEOUT;
    bool inTime = true;
    for (;;) {
      if (!inTime || DeadlinePassed(infinite, deadline)) break;
      inTime = FutexWait(&count_, 0, infinite, deadline);
      // A count that arrives together with the time-out is still taken.
      if (TryTake()) {
        result = WAIT_OBJECT_0;
        break;
      }
    }
    waiting_.fetch_sub(1, std::memory_order_relaxed);
    return result;
  }

  // The count before, or -1 (nothing added) when it would pass the maximum.
  LONG Release(LONG count) {
    uint32_t now = count_.load(std::memory_order_relaxed);
    do {
      if (static_cast<uint32_t>(count) > maximum_ - now) return -1;
    } while (!count_.compare_exchange_weak(now, now + static_cast<uint32_t>(count), std::memory_order_seq_cst,
                                           std::memory_order_relaxed));
    if (waiting_.load(std::memory_order_seq_cst) != 0) FutexWake(&count_, count);
    return static_cast<LONG>(now);
  }

  LONG Waiting() const { return waiting_.load(std::memory_order_relaxed); }

 private:
  bool TryTake() {
    uint32_t now = count_.load(std::memory_order_relaxed);
    while (now != 0) {
      if (count_.compare_exchange_weak(now, now - 1, std::memory_order_acquire, std::memory_order_relaxed)) {
        return true;
      }
    }
    return false;
  }

  std::atomic<uint32_t> count_;
  const uint32_t maximum_;
  std::atomic<LONG> waiting_{0};  // threads in the sleeping part of Wait
};

HANDLE Register(QzKernelObject* object) {
  if (object == nullptr) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  return QzHandleInsert(object);
}

// ---- Critical sections ----------------------------------------------------------------

pthread_mutex_t* MutexOf(const CRITICAL_SECTION* section) {
  return static_cast<pthread_mutex_t*>(section->LockSemaphore);
}

BOOL InitializeSection(CRITICAL_SECTION* section, DWORD spinCount) {
  memset(section, 0, sizeof *section);
  if (QzFaultHit(QZ_FAULT_CRITICAL_SECTION)) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
  auto* mutex = static_cast<pthread_mutex_t*>(malloc(sizeof(pthread_mutex_t)));
  if (mutex == nullptr) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  const int err = pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  if (err != 0) {
    free(mutex);
    SetLastError(QzErrnoToWin32(err));
    return FALSE;
  }
  // As on Windows: the top byte of the count holds flags, and spinning is
  // pointless with one processor.
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  section->LockCount = -1;
  section->LockSemaphore = mutex;
  section->SpinCount = info.dwNumberOfProcessors > 1 ? (spinCount & 0x00FFFFFFu) : 0;
  return TRUE;
}

inline void CpuRelax() {
#if defined(__i386__) || defined(__x86_64__)
  __builtin_ia32_pause();
#endif
}

}  // namespace

BOOL InitializeCriticalSection(CRITICAL_SECTION* section) { return InitializeSection(section, 0); }

BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD spinCount) {
  return InitializeSection(section, spinCount);
}

void EnterCriticalSection(CRITICAL_SECTION* section) {
  pthread_mutex_t* mutex = MutexOf(section);
  if (mutex == nullptr) return;
  for (uintptr_t n = section->SpinCount; n != 0; --n) {
    if (pthread_mutex_trylock(mutex) == 0) return;
    CpuRelax();
  }
  pthread_mutex_lock(mutex);
}

BOOL TryEnterCriticalSection(CRITICAL_SECTION* section) {
  pthread_mutex_t* mutex = MutexOf(section);
  return mutex != nullptr && pthread_mutex_trylock(mutex) == 0 ? TRUE : FALSE;
}

void LeaveCriticalSection(CRITICAL_SECTION* section) {
  pthread_mutex_t* mutex = MutexOf(section);
  if (mutex != nullptr) pthread_mutex_unlock(mutex);
}

void DeleteCriticalSection(CRITICAL_SECTION* section) {
  pthread_mutex_t* mutex = MutexOf(section);
  if (mutex != nullptr) {
    pthread_mutex_destroy(mutex);
    free(mutex);
  }
  memset(section, 0, sizeof *section);
}

HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCSTR) {
  if (QzFaultHit(QZ_FAULT_CREATE_EVENT)) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  return Register(new (std::nothrow) Event(manualReset != FALSE, initialState != FALSE));
}

namespace {

// The event behind a handle for one call, or empty with the last error set.
QzObjectRef EventFor(HANDLE handle) {
  if (QzFaultHit(QZ_FAULT_SET_EVENT)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return QzObjectRef();
  }
  return QzHandleLookup(handle, QzObjectKind::Event);
}

}  // namespace

BOOL SetEvent(HANDLE event) {
  QzObjectRef ref = EventFor(event);
  if (!ref) return FALSE;
  ref.as<Event>()->Set();
  return TRUE;
}

BOOL ResetEvent(HANDLE event) {
  QzObjectRef ref = EventFor(event);
  if (!ref) return FALSE;
  ref.as<Event>()->Reset();
  return TRUE;
}

BOOL PulseEvent(HANDLE event) {
  QzObjectRef ref = EventFor(event);
  if (!ref) return FALSE;
  ref.as<Event>()->Pulse();
  return TRUE;
}

HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES, LONG initialCount, LONG maximumCount, LPCSTR) {
  if (QzFaultHit(QZ_FAULT_CREATE_EVENT) || QzFaultHit(QZ_FAULT_CREATE_SEMAPHORE)) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  if (maximumCount <= 0 || initialCount < 0 || initialCount > maximumCount) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  return Register(new (std::nothrow) Semaphore(initialCount, maximumCount));
}

BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG* previous) {
  if (QzFaultHit(QZ_FAULT_RELEASE_SEMAPHORE)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  QzObjectRef ref = QzHandleLookup(semaphore, QzObjectKind::Semaphore);
  if (!ref) return FALSE;
  if (count <= 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const LONG before = ref.as<Semaphore>()->Release(count);
  if (before < 0) {
    SetLastError(ERROR_TOO_MANY_POSTS);
    return FALSE;
  }
  if (previous != nullptr) *previous = before;
  return TRUE;
}

LONG QzSyncWaiting(HANDLE object) {
  QzObjectRef ref = QzHandleLookupAny(object);
  if (!ref) return -1;
  switch (ref.get()->kind()) {
    case QzObjectKind::Event: return ref.as<Event>()->Waiting();
    case QzObjectKind::Semaphore: return ref.as<Semaphore>()->Waiting();
    default: SetLastError(ERROR_INVALID_HANDLE); return -1;
  }
}

}  // namespace qzsys
