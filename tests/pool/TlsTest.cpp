#include "PoolTestSupport.h"

using namespace qzsys;

static LPVOID P(uintptr_t v) { return reinterpret_cast<LPVOID>(v); }

// Run for a fast slot and for one of the per-thread table.
TEST(PlatformTls, ValuesArePerThreadAndAFreedSlotReadsZeroEverywhere) {
  std::vector<DWORD> held;
  for (bool table : {false, true}) {
    DWORD slot;
    while ((slot = TlsAlloc()) < (table ? QZ_TLS_FAST_SLOTS : 0u)) held.push_back(slot);
    ASSERT_NE(slot, TLS_OUT_OF_INDEXES);
    ASSERT_TRUE(TlsSetValue(slot, P(5)));
    std::atomic<int> step{0};
    std::thread other([&] {
      EXPECT_EQ(TlsGetValue(slot), nullptr) << table;  // a thread that never stored
      EXPECT_TRUE(TlsSetValue(slot, P(6)));
      EXPECT_EQ(TlsGetValue(slot), P(6));
      step.store(1);
      while (step.load() != 2) std::this_thread::yield();
      EXPECT_EQ(TlsGetValue(slot), nullptr) << table;
    });
    while (step.load() != 1) std::this_thread::yield();
    EXPECT_EQ(TlsGetValue(slot), P(5));
    // Freed and handed out again (the lowest free slot comes first): values
    // stored before read 0 on threads that stay alive.
    ASSERT_TRUE(TlsFree(slot));
    EXPECT_EQ(TlsAlloc(), slot);
    EXPECT_EQ(TlsGetValue(slot), nullptr);
    step.store(2);
    other.join();
    TlsFree(slot);
  }
  for (DWORD s : held) TlsFree(s);
}

TEST(PlatformTls, BadIndicesAndFailureSwitchesFailWithoutHarm) {
  EXPECT_EQ(TlsGetValue(QZ_TLS_SLOT_COUNT), nullptr);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  const DWORD slot = TlsAlloc();
  ASSERT_NE(slot, TLS_OUT_OF_INDEXES);
  ASSERT_TRUE(TlsSetValue(slot, P(3)));
  {
    qztest::FaultScope fault(QZ_FAULT_TLS_SET_VALUE, 0, 1);
    EXPECT_FALSE(TlsSetValue(slot, P(4)));
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(TlsGetValue(slot), P(3));
    EXPECT_TRUE(TlsSetValue(slot, P(4)));  // only one failure was asked for
  }
  ASSERT_TRUE(TlsFree(slot));
  EXPECT_FALSE(TlsFree(slot));
  qztest::FaultScope fault(QZ_FAULT_TLS_ALLOC);
  EXPECT_EQ(TlsAlloc(), TLS_OUT_OF_INDEXES);
}
