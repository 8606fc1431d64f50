// The region checks and the guard they stand on.
#include <errno.h>
#include <signal.h>

#include <functional>
#include <memory>
#include <thread>

#include "FrameTestSupport.h"
#include "QzTestSupport.h"

namespace {

using frametest::Pages;

TEST(FrameRegion, PagesByTheirAccessRightsAndTheProbeStepOnFourThreadsAndBlocked) {
  Pages pages;
  const size_t P = pages.size();
  const struct { const char* name; int page; size_t offset, size; int read, write; } rows[] = {
      {"read-write page", 0, 0, P, 1, 1},
      {"read-only page", 1, 0, P, 1, 0},
      {"page without access", 2, 0, 1, 0, 0},
      {"into no access", 0, 0, 3 * P, 0, 0},
      // Probes stand one page apart from the first, and the last address
      // itself is not probed: these end in the next page, untested.
      {"next page unprobed (write)", 0, 16, P, 1, 1},
      {"second probe in the next page (read)", 1, 16, P + 1, 0, 0},
      // The write check starts from the pointer rounded down to 4.
      {"write rounds down, stays", 0, 19, P - 3, 1, 1},
      {"write rounds down, reaches", 0, 19, P - 2, 1, 0},
      {"read does not round", 1, 19, P - 2, 1, 0},
  };
  // Three threads at once, so that the answers of one never leak into
  // another, and this one with the fault signal blocked: each gets its
  // answers, and its own mask back.
  auto probeRows = [&](int blocked) {
    for (int round = 0; round < 200; ++round) {
      for (const auto& r : rows) {
        ASSERT_EQ(Qz_IsValidReadRegion(pages.page(r.page) + r.offset, r.size), r.read) << r.name;
        ASSERT_EQ(Qz_IsValidWriteRegion(pages.page(r.page) + r.offset, r.size), r.write) << r.name;
      }
    }
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGSEGV), blocked);
  };
  // The kernel's probes, then the guard's where a sandbox refuses them.
  for (bool refused : {false, true}) {
    std::unique_ptr<qztest::FaultScope> sandbox;
    if (refused) sandbox.reset(new qztest::FaultScope(qzsys::QZ_FAULT_PROBE_SYSCALL));
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) threads.emplace_back(probeRows, 0);
    sigset_t block, before;
    sigemptyset(&block);
    sigaddset(&block, SIGSEGV);
    pthread_sigmask(SIG_BLOCK, &block, &before);
    probeRows(1);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    for (auto& th : threads) th.join();
    if (refused) {
      EXPECT_GT(sandbox->hits(), 0u);
    }
  }
}

TEST(FrameRegion, SizeZeroFirstThenNullAndWildPointers) {
  int local = 0;
  void* code = reinterpret_cast<void*>(&Qz_TerminateLibrary);
  const struct { uintptr_t at; size_t size; int read, write; } rows[] = {
      {16, 0, 1, 1}, {0, 1, 0, 0}, {4096, 4, 0, 0},
      {reinterpret_cast<uintptr_t>(&local), ~static_cast<size_t>(0), 0, 0},  // wraps the address space
      {~static_cast<uintptr_t>(0) - 15, 8, 0, 0},
      {reinterpret_cast<uintptr_t>(code), 16, 1, 0},  // code is readable, not writable
  };
  for (const auto& r : rows) {
    void* p = reinterpret_cast<void*>(r.at);
    EXPECT_EQ(Qz_IsValidReadRegion(p, r.size), r.read) << std::hex << r.at << " size " << r.size;
    EXPECT_EQ(Qz_IsValidWriteRegion(p, r.size), r.write) << std::hex << r.at << " size " << r.size;
  }
}

// ---- The guard passes other signals on ------------------------------------------------
// Each case runs in a child process of its own (the thread-safe death test
// style starts the program afresh), so the host's handling is in place before
// the guard is installed, as in a host that set up its handling first.

void HostInfoHandler(int sig, siginfo_t* info, void*) { _exit(info->si_code > 0 ? 40 + sig : 80 + sig); }
void HostPlainHandler(int sig) { _exit(60 + sig); }
// A crash handler that looks at memory: it runs inside the guard's handler,
// with the fault signal blocked, and its own probe must still come back.
void HostProbingHandler(int, siginfo_t*, void*) {
  Pages pages;
  _exit(Qz_IsValidReadRegion(pages.page(2), 1) == 0 && Qz_IsValidReadRegion(pages.page(1), 1) == 1 ? 50 : 51);
}

void Touch(void* p) { *static_cast<volatile unsigned char*>(p) = 1; }

// The host's plain handler (or SIG_IGN, SIG_DFL) or handler with details for
// `sig`; then a real fault, or raise(); and how the child ends.
struct GuardCase { const char* name; int sig; void (*plain)(int); void (*info)(int, siginfo_t*, void*);
                   bool fault; std::function<bool(int)> exit; };

// Installs the host's handling, then the guard by a probe, then signals.
void HostThenGuardThenSignal(const GuardCase& c) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sigemptyset(&sa.sa_mask);
  sa.sa_handler = c.plain;
  if (c.info) {
    sa.sa_sigaction = c.info;
    sa.sa_flags = SA_SIGINFO;
  }
  sigaction(c.sig, &sa, nullptr);
  Pages pages;
  if (Qz_IsValidReadRegion(pages.page(2), 1) != 0) _exit(3);
  if (qzsys::QzGuardedCall(&Touch, pages.page(2))) _exit(4);  // installs the guard
  if (c.fault) *reinterpret_cast<volatile unsigned char*>(pages.page(2)) = 1;
  else raise(c.sig);
  _exit(7);
}

TEST(FrameGuardDeathTest, HandlersThatWereThereFirstStillSeeTheirSignals) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const GuardCase cases[] = {
      {"info handler, fault", SIGSEGV, nullptr, &HostInfoHandler, true, testing::ExitedWithCode(40 + SIGSEGV)},
      {"probing handler, fault", SIGSEGV, nullptr, &HostProbingHandler, true, testing::ExitedWithCode(50)},
      {"plain handler, sent", SIGBUS, &HostPlainHandler, nullptr, false, testing::ExitedWithCode(60 + SIGBUS)},
      {"ignored, sent", SIGILL, SIG_IGN, nullptr, false, testing::ExitedWithCode(7)},
#if !defined(__SANITIZE_ADDRESS__)  // the sanitizer keeps its own fault handler
      {"default, fault", SIGSEGV, SIG_DFL, nullptr, true, testing::KilledBySignal(SIGSEGV)},
#endif
  };
  for (const GuardCase& c : cases) EXPECT_EXIT(HostThenGuardThenSignal(c), c.exit, "") << c.name;
}

// ---- Handlers that a host installs after the guard -----------------------------------
struct sigaction g_hostReplaced;
volatile sig_atomic_t g_hostCalls = 0;
volatile sig_atomic_t g_outside = 0;  // the fault to come is outside every probe and guarded call

void HostLaterHandler(int sig, siginfo_t*, void*) { _exit(g_outside ? 70 + sig : 98); }
// A host handler that chains to the one it replaced, as a well-behaved one does.
void HostChainingHandler(int sig, siginfo_t* info, void* context) {
  if (!g_outside) _exit(98);         // took a fault of the guard's
  if (++g_hostCalls > 1) _exit(99);  // came round again: the chain loops
  g_hostReplaced.sa_sigaction(sig, info, context);
}

void InstallHost(void (*handler)(int, siginfo_t*, void*)) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sigemptyset(&sa.sa_mask);
  sa.sa_sigaction = handler;
  sa.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &sa, &g_hostReplaced);
}

// A host handler before the guard, the guard, a second host handler after it:
// probes and guarded calls still come back, and a fault outside them reaches
// the newest host handler and, through its chain, the oldest, once each.
void GuardThenHost(void (*later)(int, siginfo_t*, void*)) {
  InstallHost(&HostInfoHandler);
  Pages pages;
  if (qzsys::QzGuardedCall(&Touch, pages.page(2))) _exit(4);
  InstallHost(later);
  for (bool refused : {false, true}) {  // kernel probes and guarded probes alike
    if (refused) qzsys::QzFaultArm(qzsys::QZ_FAULT_PROBE_SYSCALL, 0, qzsys::QZ_FAULT_ALWAYS);
    if (Qz_IsValidReadRegion(pages.page(2), 1) != 0 || Qz_IsValidWriteRegion(pages.page(1), 4) != 0) _exit(3);
  }
  if (qzsys::QzGuardedCall(&Touch, pages.page(2))) _exit(4);
  g_outside = 1;
  Touch(pages.page(2));
  _exit(7);
}

TEST(FrameGuardDeathTest, HandlersInstalledAfterTheGuardNeverTakeItsFaults) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(GuardThenHost(&HostLaterHandler), testing::ExitedWithCode(70 + SIGSEGV), "") << "plain";
  EXPECT_EXIT(GuardThenHost(&HostChainingHandler), testing::ExitedWithCode(40 + SIGSEGV), "") << "chaining";
}

}  // namespace
