#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "QzTestSupport.h"

using namespace qzsys;

namespace {
LPVOID P(uintptr_t v) { return reinterpret_cast<LPVOID>(v); }
}  // namespace

TEST(PlatformTls, ValuesArePerThreadAndStartAtZero) {
  DWORD slot = TlsAlloc();
  ASSERT_NE(slot, TLS_OUT_OF_INDEXES);
  EXPECT_EQ(TlsGetValue(slot), nullptr);
  ASSERT_TRUE(TlsSetValue(slot, P(0x1234)));
  EXPECT_EQ(TlsGetValue(slot), P(0x1234));
  std::thread([slot] {
    EXPECT_EQ(TlsGetValue(slot), nullptr);  // a thread that never stored
    EXPECT_TRUE(TlsSetValue(slot, P(77)));
    EXPECT_EQ(TlsGetValue(slot), P(77));
  }).join();
  EXPECT_EQ(TlsGetValue(slot), P(0x1234));
  EXPECT_TRUE(TlsFree(slot));
}

TEST(PlatformTls, FreeMakesTheSlotReadZeroEverywhereEvenWhenReused) {
  DWORD slot = TlsAlloc();
  ASSERT_NE(slot, TLS_OUT_OF_INDEXES);
  ASSERT_TRUE(TlsSetValue(slot, P(5)));
  // A thread that stays alive across the free and the re-allocation.
  std::atomic<int> step{0};
  std::atomic<uintptr_t> seenAfter{99};
  std::thread other([&] {
    TlsSetValue(slot, P(6));
    step.store(1);
    while (step.load() != 2) std::this_thread::yield();
    seenAfter.store(reinterpret_cast<uintptr_t>(TlsGetValue(slot)));
    step.store(3);
  });
  while (step.load() != 1) std::this_thread::yield();
  ASSERT_TRUE(TlsFree(slot));
  EXPECT_EQ(TlsGetValue(slot), nullptr);
  // The lowest free slot comes back first, so this is very likely the same one.
  DWORD again = TlsAlloc();
  ASSERT_NE(again, TLS_OUT_OF_INDEXES);
  EXPECT_EQ(TlsGetValue(again), nullptr);
  step.store(2);
  while (step.load() != 3) std::this_thread::yield();
  other.join();
  EXPECT_EQ(seenAfter.load(), 0u);
  EXPECT_EQ(again, slot);
  EXPECT_TRUE(TlsFree(again));
}

TEST(PlatformTls, BadIndicesFailWithoutHarm) {
  SetLastError(0);
  EXPECT_EQ(TlsGetValue(QZ_TLS_SLOT_COUNT), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(TlsFree(TLS_OUT_OF_INDEXES));
  DWORD slot = TlsAlloc();
  ASSERT_NE(slot, TLS_OUT_OF_INDEXES);
  ASSERT_TRUE(TlsFree(slot));
  EXPECT_FALSE(TlsFree(slot));  // twice
  EXPECT_FALSE(TlsSetValue(slot, P(1)));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(PlatformTls, RunsOutOfIndexesAtTheSlotCountAndRecovers) {
  std::vector<DWORD> slots;
  for (;;) {
    DWORD s = TlsAlloc();
    if (s == TLS_OUT_OF_INDEXES) break;
    slots.push_back(s);
    ASSERT_LE(slots.size(), QZ_TLS_SLOT_COUNT);
  }
  EXPECT_EQ(GetLastError(), ERROR_NO_MORE_ITEMS);
  // Other suites' pools may hold a few; nearly all must be reachable.
  EXPECT_GE(slots.size(), QZ_TLS_SLOT_COUNT - 8);
  for (DWORD s : slots) ASSERT_TRUE(TlsSetValue(s, P(s + 1)));
  for (DWORD s : slots) ASSERT_EQ(TlsGetValue(s), P(s + 1));
  for (DWORD s : slots) ASSERT_TRUE(TlsFree(s));
  DWORD s = TlsAlloc();
  EXPECT_NE(s, TLS_OUT_OF_INDEXES);
  TlsFree(s);
}

TEST(PlatformTls, FailureSwitches) {
  {
    qztest::FaultScope fault(QZ_FAULT_TLS_ALLOC);
    EXPECT_EQ(TlsAlloc(), TLS_OUT_OF_INDEXES);
    EXPECT_EQ(fault.hits(), 1u);
  }
  DWORD slot = TlsAlloc();
  ASSERT_NE(slot, TLS_OUT_OF_INDEXES);
  ASSERT_TRUE(TlsSetValue(slot, P(3)));
  {
    qztest::FaultScope fault(QZ_FAULT_TLS_SET_VALUE, 0, 1);
    EXPECT_FALSE(TlsSetValue(slot, P(4)));
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(TlsGetValue(slot), P(3));  // unchanged
    EXPECT_TRUE(TlsSetValue(slot, P(4)));  // only one failure was asked for
  }
  EXPECT_EQ(TlsGetValue(slot), P(4));
  TlsFree(slot);
}

TEST(PlatformTls, ManyThreadsEachKeepTheirOwnValue) {
  DWORD slot = TlsAlloc();
  ASSERT_NE(slot, TLS_OUT_OF_INDEXES);
  std::vector<std::thread> threads;
  std::atomic<int> bad{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([slot, t, &bad] {
      for (uintptr_t i = 1; i < 2000; ++i) {
        if (!TlsSetValue(slot, P(i * 8 + t))) bad++;
        if (TlsGetValue(slot) != P(i * 8 + t)) bad++;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(bad.load(), 0);
  TlsFree(slot);
}

TEST(PlatformTls, SlotsInTheThreadTableBehaveAsTheFastOnes) {
  std::vector<DWORD> held;
  DWORD slot;
  while ((slot = TlsAlloc()) < QZ_TLS_FAST_SLOTS) held.push_back(slot);
  ASSERT_NE(slot, TLS_OUT_OF_INDEXES);
  std::thread([slot] {
    EXPECT_EQ(TlsGetValue(slot), nullptr);  // no table yet on this thread
    EXPECT_TRUE(TlsSetValue(slot, P(9)));
    EXPECT_EQ(TlsGetValue(slot), P(9));
  }).join();
  EXPECT_EQ(TlsGetValue(slot), nullptr);
  ASSERT_TRUE(TlsSetValue(slot, P(10)));
  ASSERT_TRUE(TlsFree(slot));
  EXPECT_EQ(TlsGetValue(slot), nullptr);
  EXPECT_EQ(TlsAlloc(), slot);
  EXPECT_EQ(TlsGetValue(slot), nullptr);
  EXPECT_EQ(QzTlsPeekValue(slot), nullptr);
  TlsFree(slot);
  for (DWORD s : held) TlsFree(s);
}
