// POSIX memory probes and the guard that catches processor faults.
//
// Probes. The kernel makes the access for us and reports a bad page as
// EFAULT, so a probe raises no signal at all and cannot be taken by whatever
// handlers a host installs. The kernel touches the memory as the processor
// would (faulting pages in, device memory included), it does not consult a
// map:
//  - read: rt_sigprocmask with an invalid `how` copies the 8-byte set from
//    the address before it looks at `how`, then fails with EINVAL and changes
//    nothing. EFAULT: not readable.
//  - write: FUTEX_WAKE_OP with "OR 0" is a locked read-modify-write of the
//    word that leaves its value as it was, also against other writers. Its
//    waking side names a word of ours (no waiters) and a comparison that only
//    a negative word below -2048 passes; even then at most one waiter on the
//    probed word wakes, which futex users must tolerate anyway.
// Where the kernel refuses these calls (a sandbox), the probes fall back to
// the guard below with the instruction itself.
//
// Guard. One handler for the processor-fault signals, installed when a
// guarded call first runs and again by any later guarded call that finds it
// replaced; each install remembers what it replaced. A thread inside a
// guarded call leaves a jump buffer in a thread-local pointer, and a fault
// raised by the processor while it is set jumps back out. Every other signal
// goes to the handler our latest install replaced, with its own mask; if that
// handler chains back to us (it saved us when it was installed), the call
// goes one install further back, so each handler is reached once. Detach
// puts back what our latest install replaced, where ours is still in place.
#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformFaults.h"

#include <errno.h>
#include <linux/futex.h>
#include <sched.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace qzsys {

namespace {

const int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
constexpr int kSignalCount = sizeof kSignals / sizeof kSignals[0];

// What each install replaced, oldest first. Entries below the count never
// change again, so a handler can read them without a lock.
constexpr int kMaxInstalls = 16;
struct sigaction g_replaced[kSignalCount][kMaxInstalls];
std::atomic<int> g_installs[kSignalCount];
std::atomic_flag g_installLock = ATOMIC_FLAG_INIT;

// initial-exec: a signal handler must not be the first to touch a TLS block
// that the dynamic loader would then have to allocate.
__thread sigjmp_buf* t_guardJump __attribute__((tls_model("initial-exec"))) = nullptr;
// Depth of our own handler in the chain of the signal being passed on, and
// that signal's record, by which a chained call is told from a new signal.
__thread int t_passDepth __attribute__((tls_model("initial-exec"))) = 0;
__thread siginfo_t* t_passInfo __attribute__((tls_model("initial-exec"))) = nullptr;

void Handler(int sig, siginfo_t* info, void* context);

int SignalIndex(int sig) {
  for (int i = 0; i < kSignalCount; ++i)
    if (kSignals[i] == sig) return i;
  return 0;
}

bool IsOurs(const struct sigaction& sa) {
  return (sa.sa_flags & SA_SIGINFO) != 0 && sa.sa_sigaction == &Handler;
}

void DefaultAction(int sig, bool sent) {
  // A fault comes again by itself when the instruction reruns; a sent signal
  // is raised anew and arrives once we return.
  struct sigaction dfl;
  memset(&dfl, 0, sizeof dfl);
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(sig, &dfl, nullptr);
  if (sent) raise(sig);
}

void PassOn(int sig, siginfo_t* info, void* context) {
  const int i = SignalIndex(sig);
  if (t_passDepth != 0 && info != t_passInfo) t_passDepth = 0;  // a new signal, after a handler jumped away
  const int at = g_installs[i].load(std::memory_order_acquire) - 1 - t_passDepth;
  const bool sent = info == nullptr || info->si_code <= 0;  // kill/raise/sigqueue, not a fault
  if (at < 0) {  // every handler of the chain had its turn
    DefaultAction(sig, sent);
    return;
  }
  const struct sigaction& prev = g_replaced[i][at];
  if ((prev.sa_flags & SA_SIGINFO) != 0 || (prev.sa_handler != SIG_DFL && prev.sa_handler != SIG_IGN)) {
    siginfo_t* outerInfo = t_passInfo;
    t_passInfo = info;
    ++t_passDepth;
    sigset_t saved;
    pthread_sigmask(SIG_BLOCK, &prev.sa_mask, &saved);
    if (prev.sa_flags & SA_SIGINFO) prev.sa_sigaction(sig, info, context);
    else prev.sa_handler(sig);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    --t_passDepth;
    t_passInfo = outerInfo;
    return;
  }
  if (prev.sa_handler == SIG_IGN && sent) return;  // ignored before us, ignored now
  // The default action, or a processor fault that was "ignored", which the
  // kernel answers with the default action too.
  DefaultAction(sig, sent);
}

void Handler(int sig, siginfo_t* info, void* context) {
  sigjmp_buf* jump = t_guardJump;
  if (jump != nullptr && info != nullptr && info->si_code > 0) {
    t_guardJump = nullptr;
    siglongjmp(*jump, 1);
  }
  PassOn(sig, info, context);
}

// The install lock is taken with every signal blocked, so that a handler
// on the same thread can never wait for it.
class InstallLock {
 public:
  InstallLock() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &saved_);
    while (g_installLock.test_and_set(std::memory_order_acquire)) sched_yield();
  }
  ~InstallLock() {
    g_installLock.clear(std::memory_order_release);
    pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
  }
 private:
  sigset_t saved_;
};

// Makes our handler the one in place for every fault signal.
void EnsureInstalled() {
  struct sigaction current[kSignalCount];
  bool missing = false;
  for (int i = 0; i < kSignalCount; ++i) {
    sigaction(kSignals[i], nullptr, &current[i]);
    missing |= !IsOurs(current[i]);
  }
  if (!missing) return;
  InstallLock hold;
  for (int i = 0; i < kSignalCount; ++i) {
    struct sigaction now;
    sigaction(kSignals[i], nullptr, &now);
    const int n = g_installs[i].load(std::memory_order_relaxed);
    if (IsOurs(now) || n == kMaxInstalls) continue;  // beyond the record: the host's handler stays first
    // Recorded before ours is in place, so that ours always finds it.
    g_replaced[i][n] = now;
    g_installs[i].store(n + 1, std::memory_order_release);
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = &Handler;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    sigemptyset(&sa.sa_mask);
    sigaction(kSignals[i], &sa, nullptr);
  }
}

// Runs fn(context) with processor faults caught, with the fault signals
// unblocked for its length: a blocked fault would end the process, and a
// guarded call may run inside a host's own fault handler.
bool Guarded(void (*fn)(void*), void* context) {
  EnsureInstalled();
  sigset_t faults, saved;
  sigemptyset(&faults);
  for (int sig : kSignals) sigaddset(&faults, sig);
  pthread_sigmask(SIG_UNBLOCK, &faults, &saved);
  bool restore = false;
  for (int sig : kSignals) restore |= sigismember(&saved, sig) == 1;

  sigjmp_buf* outer = t_guardJump;
  sigjmp_buf jump;
  if (sigsetjmp(jump, 0) != 0) {
    // The kernel blocked the signal for the handler we jumped out of.
    t_guardJump = outer;
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    return false;
  }
  t_guardJump = &jump;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  try {
    fn(context);
  } catch (...) {
    // A C++ exception (or a thread's forced unwinding) is the caller's to
    // handle, with this guard gone: its jump buffer dies with this frame.
    t_guardJump = outer;
    if (restore) pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    throw;
  }
  std::atomic_signal_fence(std::memory_order_seq_cst);
  t_guardJump = outer;
  if (restore) pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  return true;
}

struct ProbeCall {
  QzProbeFn probe;
  volatile void* address;
};

void RunProbe(void* context) {
  ProbeCall* call = static_cast<ProbeCall*>(context);
  call->probe(call->address);
}

void LoadByte(volatile void* p) {
#if defined(__i386__) || defined(__x86_64__)
  unsigned char c;
  // Assembly keeps the load out of sight of the sanitizers, which would
  // otherwise report the very faults we catch.
  __asm__ __volatile__("movb (%1), %0" : "=q"(c) : "r"(p) : "memory");
  (void)c;
#else
  (void)*static_cast<volatile unsigned char*>(p);
#endif
}

void SameValueExchange(volatile void* p) {
#if defined(__i386__) || defined(__x86_64__)
  uint32_t expected = 0xA5;
  __asm__ __volatile__("lock cmpxchgl %2, %1"
                       : "+a"(expected), "+m"(*static_cast<volatile uint32_t*>(p))
                       : "r"(0xA5u)
                       : "memory", "cc");
#else
  uint32_t expected = 0xA5;
  __atomic_compare_exchange_n(static_cast<uint32_t*>(const_cast<void*>(p)), &expected, 0xA5u, false,
                              __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
#endif
}

// 1: the kernel made the access; 0: it faulted; -1: the kernel refused the
// call, use the guard.
int KernelRead(const volatile void* address) {
  if (QzFaultHit(QZ_FAULT_PROBE_SYSCALL)) return -1;
  const uintptr_t at = reinterpret_cast<uintptr_t>(address) & ~uintptr_t(7);  // 8 bytes in one page
  const long r = syscall(SYS_rt_sigprocmask, 0x7FFF, reinterpret_cast<void*>(at), nullptr, size_t(8));
  if (r == 0) return -1;  // accepted a `how` it should not know: trust nothing
  return errno == EINVAL ? 1 : errno == EFAULT ? 0 : -1;
}

int g_noWaiters;

int KernelWrite(volatile void* address) {
  if (QzFaultHit(QZ_FAULT_PROBE_SYSCALL)) return -1;
  const int op = (FUTEX_OP_OR << 28) | (FUTEX_OP_CMP_LT << 24) | (0 << 12) | 0x800;  // OR 0; wake if < -2048
  const long r = syscall(SYS_futex, &g_noWaiters, FUTEX_WAKE_OP | FUTEX_PRIVATE_FLAG, 0, nullptr,
                         const_cast<void*>(address), op);
  if (r >= 0) return 1;
  return errno == EFAULT ? 0 : -1;
}

}  // namespace

// The probes leave errno as they found it: a region check is no system call
// to its caller.
bool QzProbeRead(const volatile void* address) {
  const int saved = errno;
  const int r = KernelRead(address);
  errno = saved;
  if (r >= 0) return r == 1;
  return QzGuardedProbe(&LoadByte, const_cast<volatile void*>(address));
}

bool QzProbeWrite(volatile void* address) {
  const int saved = errno;
  const int r = KernelWrite(address);
  errno = saved;
  if (r >= 0) return r == 1;
  return QzGuardedProbe(&SameValueExchange, address);
}

bool QzGuardedCall(void (*fn)(void*), void* context) { return Guarded(fn, context); }

bool QzGuardedProbe(QzProbeFn probe, volatile void* address) {
  ProbeCall call = {probe, address};
  return Guarded(&RunProbe, &call);
}

void QzGuardRelease() {
  InstallLock hold;
  for (int i = 0; i < kSignalCount; ++i) {
    const int n = g_installs[i].load(std::memory_order_relaxed);
    if (n == 0) continue;
    struct sigaction now;
    sigaction(kSignals[i], nullptr, &now);
    // A host handler installed after ours stays: only ours is taken away.
    if (IsOurs(now)) sigaction(kSignals[i], &g_replaced[i][n - 1], nullptr);
    g_installs[i].store(0, std::memory_order_release);
  }
}

}  // namespace qzsys
