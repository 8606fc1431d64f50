// The region checks and the guard they stand on.
#include <gtest/gtest.h>

#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "FrameTestSupport.h"
#include "QzFrame.h"

namespace {

using frametest::Pages;

TEST(FrameRegion, SizeZeroComesFirstThenNull) {
  EXPECT_EQ(Qz_IsValidReadRegion(nullptr, 0), 1);
  EXPECT_EQ(Qz_IsValidWriteRegion(nullptr, 0), 1);
  EXPECT_EQ(Qz_IsValidReadRegion(reinterpret_cast<void*>(16), 0), 1);
  EXPECT_EQ(Qz_IsValidReadRegion(nullptr, 1), 0);
  EXPECT_EQ(Qz_IsValidWriteRegion(nullptr, 1), 0);
}

TEST(FrameRegion, PagesByTheirAccessRights) {
  Pages pages;
  pages.Protect(0, Pages::kReadWrite);
  pages.Protect(1, Pages::kRead);
  pages.Protect(2, Pages::kNone);
  const size_t page = pages.size();
  EXPECT_EQ(Qz_IsValidReadRegion(pages.page(0), page), 1);
  EXPECT_EQ(Qz_IsValidWriteRegion(pages.page(0), page), 1);
  EXPECT_EQ(Qz_IsValidReadRegion(pages.page(1), page), 1);
  EXPECT_EQ(Qz_IsValidWriteRegion(pages.page(1), page), 0);
  EXPECT_EQ(Qz_IsValidWriteRegion(pages.page(1) + 100, 1), 0);
  EXPECT_EQ(Qz_IsValidReadRegion(pages.page(2), 1), 0);
  EXPECT_EQ(Qz_IsValidWriteRegion(pages.page(2), 1), 0);
  EXPECT_EQ(Qz_IsValidReadRegion(pages.page(2) + page - 1, 1), 0);
  // Regions that run from a good page into a bad one.
  EXPECT_EQ(Qz_IsValidReadRegion(pages.page(0), 2 * page), 1);
  EXPECT_EQ(Qz_IsValidWriteRegion(pages.page(0), 2 * page), 0);
  EXPECT_EQ(Qz_IsValidReadRegion(pages.page(0), 3 * page), 0);
  // The probes keep working after faults, and faults do not stick.
  for (int i = 0; i < 100; ++i) ASSERT_EQ(Qz_IsValidReadRegion(pages.page(2), 8), 0);
  pages.Protect(1, Pages::kReadWrite);
  pages.Protect(2, Pages::kReadWrite);
  EXPECT_EQ(Qz_IsValidWriteRegion(pages.page(0), 3 * page), 1);
}

TEST(FrameRegion, ProbesStandOnePageApartFromTheFirst) {
  Pages pages;
  pages.Protect(1, Pages::kNone);
  const size_t page = pages.size();
  unsigned char* p = pages.page(0) + 16;
  // Last address p + page - 1 lies in the bad page, but less than a page
  // beyond the first probe: it is not tested.
  EXPECT_EQ(Qz_IsValidReadRegion(p, page), 1);
  EXPECT_EQ(Qz_IsValidWriteRegion(p, page), 1);
  // One byte more and the second probe lands on p + page, in the bad page.
  EXPECT_EQ(Qz_IsValidReadRegion(p, page + 1), 0);
  EXPECT_EQ(Qz_IsValidWriteRegion(p, page + 1), 0);
  // The write check starts from the pointer rounded down to 4: from p + 3
  // the second probe is at p + page, which a region of page - 3 + 1 bytes
  // from p + 3 reaches only by its last address minus 3.
  EXPECT_EQ(Qz_IsValidWriteRegion(p + 3, page - 3), 1);
  EXPECT_EQ(Qz_IsValidWriteRegion(p + 3, page - 2), 0);
  EXPECT_EQ(Qz_IsValidReadRegion(p + 3, page - 2), 1);
}

TEST(FrameRegion, WriteCheckLeavesEveryWordAsItWas) {
  Pages pages;
  uint32_t* words = reinterpret_cast<uint32_t*>(pages.page(0));
  const uint32_t values[] = {0xA5, 0, 0x12345678u, 0xFFFFFFFFu, 0xA500};
  for (size_t i = 0; i < 5; ++i) words[i] = values[i];
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(Qz_IsValidWriteRegion(&words[i], 4), 1);
  EXPECT_EQ(Qz_IsValidWriteRegion(reinterpret_cast<unsigned char*>(words) + 2, 1), 1);
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(words[i], values[i]) << i;
  // A region over several pages probes each page's word at the same offset.
  pages.page(1)[0] = 0xA5;
  EXPECT_EQ(Qz_IsValidWriteRegion(pages.page(0), 3 * pages.size()), 1);
  EXPECT_EQ(pages.page(1)[0], 0xA5);
}

TEST(FrameRegion, WildPointersGiveZero) {
  EXPECT_EQ(Qz_IsValidReadRegion(reinterpret_cast<void*>(8), 4), 0);
  EXPECT_EQ(Qz_IsValidWriteRegion(reinterpret_cast<void*>(4096), 4), 0);
  // A size that wraps past the end of the address space.
  int local = 0;
  EXPECT_EQ(Qz_IsValidReadRegion(&local, ~static_cast<size_t>(0)), 0);
  EXPECT_EQ(Qz_IsValidReadRegion(reinterpret_cast<void*>(~static_cast<uintptr_t>(0) - 15), 8), 0);
#if defined(__x86_64__)
  EXPECT_EQ(Qz_IsValidReadRegion(reinterpret_cast<void*>(0xFFFF800000000000ull), 1), 0);
  EXPECT_EQ(Qz_IsValidReadRegion(reinterpret_cast<void*>(0x0000800000000000ull), 1), 0);  // not canonical
#endif
  // Code is readable but not writable.
  void (*fn)() = &Qz_TerminateLibrary;
  EXPECT_EQ(Qz_IsValidReadRegion(reinterpret_cast<void*>(fn), 16), 1);
  EXPECT_EQ(Qz_IsValidWriteRegion(reinterpret_cast<void*>(fn), 16), 0);
}

TEST(FrameRegion, ThreadsProbeAtOnceWithoutMixingTheirAnswers) {
  Pages pages;
  pages.Protect(1, Pages::kNone);
  pages.Protect(2, Pages::kRead);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        int which = (i + t) % 3;
        int read = Qz_IsValidReadRegion(pages.page(which), 64);
        int write = Qz_IsValidWriteRegion(pages.page(which), 64);
        if (read != (which != 1) || write != (which == 0)) wrong++;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST(FrameRegion, ProbesWorkWhileFaultSignalsAreBlockedAndKeepTheMask) {
  Pages pages;
  pages.Protect(0, Pages::kNone);
  sigset_t block, before, after;
  sigemptyset(&block);
  sigaddset(&block, SIGSEGV);
  sigaddset(&block, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &block, &before);
  EXPECT_EQ(Qz_IsValidReadRegion(pages.page(0), 1), 0);
  EXPECT_EQ(Qz_IsValidReadRegion(pages.page(1), 1), 1);
  pthread_sigmask(SIG_SETMASK, &before, &after);
  EXPECT_EQ(sigismember(&after, SIGSEGV), 1);
  EXPECT_EQ(sigismember(&after, SIGUSR1), 1);
  EXPECT_EQ(sigismember(&after, SIGBUS), sigismember(&before, SIGBUS));
  // And with nothing blocked, nothing stays blocked after a fault.
  EXPECT_EQ(Qz_IsValidWriteRegion(pages.page(0), 1), 0);
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGSEGV), sigismember(&before, SIGSEGV));
}

// ---- The guard passes other signals on ------------------------------------------------
// These run in a child process of their own (the thread-safe death test style
// starts the program afresh), so the host handler is in place before the
// guard is installed, as in a host that set up its handling first.

#if defined(__SANITIZE_ADDRESS__)
#define QZ_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QZ_UNDER_ASAN 1
#endif
#endif

void HostInfoHandler(int sig, siginfo_t* info, void*) { _exit(info->si_code > 0 ? 40 + sig : 80 + sig); }
void HostPlainHandler(int sig) { _exit(60 + sig); }

// A crash handler that looks at memory: it runs inside the guard's handler,
// with the fault signal blocked, and its own probe must still come back.
void HostProbingHandler(int, siginfo_t*, void*) {
  Pages pages;
  pages.Protect(0, Pages::kNone);
  int bad = Qz_IsValidReadRegion(pages.page(0), 1);
  int good = Qz_IsValidReadRegion(pages.page(1), 1);
  _exit(bad == 0 && good == 1 ? 50 : 51);
}

void InstallHost(int sig, bool withInfo) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sigemptyset(&sa.sa_mask);
  if (withInfo) {
    sa.sa_sigaction = &HostInfoHandler;
    sa.sa_flags = SA_SIGINFO;
  } else {
    sa.sa_handler = &HostPlainHandler;
  }
  sigaction(sig, &sa, nullptr);
}

void ProbeBadPage() {
  Pages pages;
  pages.Protect(0, Pages::kNone);
  if (Qz_IsValidReadRegion(pages.page(0), 1) != 0) _exit(3);
}

void FaultOutsideProbe() {
  Pages pages;
  pages.Protect(0, Pages::kNone);
  *reinterpret_cast<volatile unsigned char*>(pages.page(0)) = 1;
}

class FrameGuardDeathTest : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(FrameGuardDeathTest, HostInfoHandlerSeesFaultsOutsideProbes) {
  EXPECT_EXIT(
      {
        InstallHost(SIGSEGV, true);
        ProbeBadPage();
        FaultOutsideProbe();
        _exit(1);
      },
      testing::ExitedWithCode(40 + SIGSEGV), "");
}

TEST_F(FrameGuardDeathTest, HostHandlerMayProbeWhileHandlingAFault) {
  EXPECT_EXIT(
      {
        struct sigaction sa;
        memset(&sa, 0, sizeof sa);
        sigemptyset(&sa.sa_mask);
        sa.sa_sigaction = &HostProbingHandler;
        sa.sa_flags = SA_SIGINFO;
        sigaction(SIGSEGV, &sa, nullptr);
        ProbeBadPage();
        FaultOutsideProbe();
        _exit(1);
      },
      testing::ExitedWithCode(50), "");
}

TEST_F(FrameGuardDeathTest, HostPlainHandlerSeesSentSignals) {
  EXPECT_EXIT(
      {
        InstallHost(SIGBUS, false);
        ProbeBadPage();
        raise(SIGBUS);
        _exit(1);
      },
      testing::ExitedWithCode(60 + SIGBUS), "");
  EXPECT_EXIT(
      {
        InstallHost(SIGFPE, true);
        ProbeBadPage();
        raise(SIGFPE);
        _exit(1);
      },
      testing::ExitedWithCode(80 + SIGFPE), "");
}

TEST_F(FrameGuardDeathTest, IgnoredSentSignalStaysIgnored) {
  EXPECT_EXIT(
      {
        signal(SIGILL, SIG_IGN);
        ProbeBadPage();
        raise(SIGILL);
        _exit(7);
      },
      testing::ExitedWithCode(7), "");
}

TEST_F(FrameGuardDeathTest, DefaultActionStillKills) {
#if defined(QZ_UNDER_ASAN)
  // The sanitizer's own handler was there before the guard and still reports.
  EXPECT_DEATH(
      {
        ProbeBadPage();
        FaultOutsideProbe();
      },
      "AddressSanitizer");
#else
  EXPECT_EXIT(
      {
        signal(SIGSEGV, SIG_DFL);
        ProbeBadPage();
        FaultOutsideProbe();
      },
      testing::KilledBySignal(SIGSEGV), "");
  EXPECT_EXIT(
      {
        signal(SIGFPE, SIG_DFL);
        ProbeBadPage();
        raise(SIGFPE);
        _exit(1);
      },
      testing::KilledBySignal(SIGFPE), "");
#endif
}

}  // namespace
