// POSIX guard for memory probes.
//
// One process-wide handler for the processor-fault signals is installed the
// first time a probe runs. A thread that is inside a probe leaves a jump
// buffer in a thread-local pointer; a fault raised by the processor while it
// is set jumps back out of the probe. Every other signal goes on to the
// handler that was installed before ours, with that handler's own mask, so a
// host (or a sanitizer runtime) keeps its handling outside the probes.
#include "platform/QzPlatformBase.h"

#include <setjmp.h>
#include <signal.h>
#include <string.h>

#include <atomic>
#include <mutex>

namespace qzsys {

namespace {

const int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
constexpr int kSignalCount = sizeof kSignals / sizeof kSignals[0];
struct sigaction g_previous[kSignalCount];
std::once_flag g_installOnce;

// initial-exec: a signal handler must not be the first to touch a TLS block
// that the dynamic loader would then have to allocate.
__thread sigjmp_buf* t_probeJump __attribute__((tls_model("initial-exec"))) = nullptr;

int SignalIndex(int sig) {
  for (int i = 0; i < kSignalCount; ++i)
    if (kSignals[i] == sig) return i;
  return 0;
}

void PassOn(int sig, siginfo_t* info, void* context) {
  const struct sigaction& prev = g_previous[SignalIndex(sig)];
  const bool sent = info == nullptr || info->si_code <= 0;  // kill/raise/sigqueue, not a fault
  if ((prev.sa_flags & SA_SIGINFO) != 0 || (prev.sa_handler != SIG_DFL && prev.sa_handler != SIG_IGN)) {
    sigset_t saved;
    pthread_sigmask(SIG_BLOCK, &prev.sa_mask, &saved);
    if (prev.sa_flags & SA_SIGINFO) prev.sa_sigaction(sig, info, context);
    else prev.sa_handler(sig);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    return;
  }
  if (prev.sa_handler == SIG_IGN && sent) return;  // ignored before us, ignored now
  // The default action, or a processor fault that was "ignored", which the
  // kernel answers with the default action too: put it back and let the
  // signal come again. A fault comes again by itself when the instruction
  // reruns; a sent signal is raised anew and arrives once we return.
  struct sigaction dfl;
  memset(&dfl, 0, sizeof dfl);
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  sigaction(sig, &dfl, nullptr);
  if (sent) raise(sig);
}

void Handler(int sig, siginfo_t* info, void* context) {
  sigjmp_buf* jump = t_probeJump;
  if (jump != nullptr && info != nullptr && info->si_code > 0) {
    t_probeJump = nullptr;
    siglongjmp(*jump, 1);
  }
  PassOn(sig, info, context);
}

void Install() {
  for (int i = 0; i < kSignalCount; ++i) {
    // Read the previous handler first, so it is in place before ours can run.
    sigaction(kSignals[i], nullptr, &g_previous[i]);
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = &Handler;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    sigemptyset(&sa.sa_mask);
    sigaction(kSignals[i], &sa, nullptr);
  }
}

}  // namespace

namespace {

// Unblocks the fault signals for the guarded region; a blocked fault would end
// the process. True when some were blocked and the mask must be put back.
bool LetFaultsThrough(sigset_t* saved) {
  sigset_t faults;
  sigemptyset(&faults);
  for (int sig : kSignals) sigaddset(&faults, sig);
  pthread_sigmask(SIG_UNBLOCK, &faults, saved);
  bool restore = false;
  for (int sig : kSignals) restore |= sigismember(saved, sig) == 1;
  return restore;
}

}  // namespace

bool QzGuardedCall(QzGuardedFn fn, void* context) {
  std::call_once(g_installOnce, &Install);
  // A guarded call may run where the fault signals are blocked, in a host's
  // own fault handler for one. The same call tells the mask to put back,
  // which the jump then need not save.
  sigset_t saved;
  volatile bool restore = LetFaultsThrough(&saved);
  sigjmp_buf* const outer = t_probeJump;  // guards nest: a probe inside a guarded call

  sigjmp_buf jump;
  if (sigsetjmp(jump, 0) != 0) {
    // The kernel blocked the signal for the handler we jumped out of.
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    t_probeJump = outer;
    return false;
  }
  t_probeJump = &jump;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  try {
    fn(context);
  } catch (...) {  // a C++ exception is the caller's to handle, with the guard gone
    t_probeJump = outer;
    if (restore) pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    throw;
  }
  std::atomic_signal_fence(std::memory_order_seq_cst);
  t_probeJump = outer;
  if (restore) pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  return true;
}

namespace {
struct ProbeCall {
  QzProbeFn probe;
  volatile void* address;
};
void RunProbe(void* context) {
  auto* call = static_cast<ProbeCall*>(context);
  call->probe(call->address);
}
}  // namespace

bool QzGuardedProbe(QzProbeFn probe, volatile void* address) {
  ProbeCall call{probe, address};
  return QzGuardedCall(&RunProbe, &call);
}

}  // namespace qzsys
