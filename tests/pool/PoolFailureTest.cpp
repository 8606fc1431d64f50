#include <gtest/gtest.h>

#include <string.h>

#include "PoolTestSupport.h"
#include "QzTestSupport.h"

using namespace pooltest;
using qztest::FaultScope;

namespace {

constexpr size_t MAXR = QZ_CACHE_MAX_REQUEST;
const char kFatal[] = "0xC0000017";

class PoolFailure : public ::testing::Test {
 protected:
  void SetUp() override {
    // The default pool must exist before any switch is armed: its set-up
    // failing is fatal by design.
    Qz_MempoolFree(nullptr, Qz_MempoolAlloc(nullptr, 1));
    pool = Qz_CreateMempool(0, 4);
    ASSERT_NE(pool, nullptr);
    Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, 1));
  }
  void TearDown() override { Qz_DestroyMempool(pool); }
  QzMempool* pool = nullptr;
};

}  // namespace

TEST_F(PoolFailure, VirtualAllocFailingGivesZeroAndThePoolGoesOn) {
  void* keep = Qz_MempoolAlloc(pool, 3000);
  Fill(keep, 3000, 11);
  {
    FaultScope fault(qzsys::QZ_FAULT_VIRTUAL_ALLOC);
    EXPECT_EQ(Qz_MempoolAlloc(pool, 4 << 20), nullptr);
    EXPECT_EQ(Qz_MempoolAlloc(pool, 1536 << 10), nullptr);  // would be mapped directly
    EXPECT_EQ(Qz_MempoolCalloc(pool, 4, 1 << 20), nullptr);
    EXPECT_EQ(Qz_MempoolAlignedAlloc(pool, 4096, 4 << 20), nullptr);
    EXPECT_EQ(Qz_MempoolRealloc(pool, keep, 4 << 20), nullptr);
    EXPECT_TRUE(Holds(keep, 3000, 11));
    EXPECT_GT(fault.hits(), 0u);
    // What the heap already holds is still served.
    void* small = Qz_MempoolAlloc(pool, 5 * MAXR);
    EXPECT_NE(small, nullptr);
    Qz_MempoolFree(pool, small);
    EXPECT_EQ(Qz_CreateMempool(0, 2), nullptr);
  }
  void* big = Qz_MempoolAlloc(pool, 4 << 20);
  ASSERT_NE(big, nullptr);
  memset(big, 1, 4 << 20);
  Qz_MempoolFree(pool, big);
  keep = Qz_MempoolRealloc(pool, keep, 2 << 20);
  ASSERT_NE(keep, nullptr);
  EXPECT_TRUE(Holds(keep, 3000, 11));
  Qz_MempoolFree(pool, keep);
}

TEST_F(PoolFailure, CreateFailuresLeaveNoSlotOrMemoryBehind) {
  const qzsys::DWORD probe = qzsys::TlsAlloc();
  ASSERT_NE(probe, qzsys::TLS_OUT_OF_INDEXES);
  qzsys::TlsFree(probe);
  const size_t mapped = qzsys::QzVirtualAllocationCount();
  {
    FaultScope fault(qzsys::QZ_FAULT_VIRTUAL_ALLOC);
    EXPECT_EQ(Qz_CreateMempool(0, 3), nullptr);
  }
  {
    FaultScope fault(qzsys::QZ_FAULT_TLS_ALLOC);
    EXPECT_EQ(Qz_CreateMempool(0, 3), nullptr);
    EXPECT_EQ(fault.hits(), 1u);
  }
  {
    FaultScope fault(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_EQ(Qz_CreateMempool(0, 3), nullptr);
  }
  EXPECT_EQ(qzsys::QzVirtualAllocationCount(), mapped);
  const qzsys::DWORD again = qzsys::TlsAlloc();
  EXPECT_EQ(again, probe);
  qzsys::TlsFree(again);
}

TEST_F(PoolFailure, PoolAllocSwitchFailsEveryAllocatingCall) {
  void* keep = Qz_MempoolAlloc(pool, 50);
  Fill(keep, 50, 4);
  void* cached = Qz_MempoolAlloc(pool, 50);
  Qz_MempoolFree(pool, cached);
  {
    FaultScope fault(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_EQ(Qz_MempoolAlloc(pool, 50), nullptr);  // even with a cached block ready
    EXPECT_EQ(Qz_MempoolAlloc(nullptr, 50), nullptr);
    EXPECT_EQ(Qz_MempoolCalloc(pool, 1, 50), nullptr);
    EXPECT_EQ(Qz_MempoolRealloc(pool, keep, 5000), nullptr);
    EXPECT_EQ(Qz_MempoolRealloc(pool, nullptr, 10), nullptr);
    EXPECT_EQ(Qz_MempoolAlignedAlloc(pool, 64, 10), nullptr);
    EXPECT_EQ(Qz_MempoolAlignedRealloc(pool, keep, 64, 5000), nullptr);
    EXPECT_TRUE(Holds(keep, 50, 4));
    EXPECT_EQ(fault.hits(), 7u);
    Qz_MempoolFree(pool, keep);  // frees are not affected
  }
  {
    FaultScope fault(qzsys::QZ_FAULT_POOL_ALLOC, 1, 1);  // the second call fails
    void* a = Qz_MempoolAlloc(pool, 10);
    EXPECT_NE(a, nullptr);
    EXPECT_EQ(Qz_MempoolAlloc(pool, 10), nullptr);
    void* b = Qz_MempoolAlloc(pool, 10);
    EXPECT_NE(b, nullptr);
    Qz_MempoolFree(pool, a);
    Qz_MempoolFree(pool, b);
  }
}

TEST_F(PoolFailure, AHeapThatCannotBeMadeLeavesTheThreadWaitingOnItsOwn) {
  std::atomic<int> stage{0};
  void* got = nullptr;
  int heapIndexAfter = -1;
  std::thread t([&] {
    Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, 1));  // has its cache now
    stage.store(1);
    while (stage.load() != 2) std::this_thread::yield();
    got = Qz_MempoolAlloc(pool, 2 * MAXR);
    heapIndexAfter = MyCache(pool)->heapIndex;
  });
  while (stage.load() != 1) std::this_thread::yield();
  {
    LockHolder hold({pool->heaps[0].load()});
    FaultScope fault(qzsys::QZ_FAULT_VIRTUAL_ALLOC);
    stage.store(2);
    // The thread finds its heap locked and tries to make one; that attempt is
    // the signal (bounded so that a fault cannot hang the suite).
    for (long i = 0; i < 100000000L && fault.hits() == 0; ++i) std::this_thread::yield();
    EXPECT_GE(fault.hits(), 1u);
    hold.Release();
    t.join();
  }
  EXPECT_NE(got, nullptr);
  EXPECT_EQ(HeapCount(pool), 1);
  EXPECT_EQ(heapIndexAfter, 0);
  Qz_MempoolFree(pool, got);
}

TEST(PoolFatal, FailingTlsSetValueForANewCacheEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        QzMempool* p = Qz_CreateMempool(0, 2);
        qzsys::QzFaultArm(qzsys::QZ_FAULT_TLS_SET_VALUE, 0, qzsys::QZ_FAULT_ALWAYS);
        Qz_MempoolAlloc(p, 10);
      },
      kFatal);
}

TEST(PoolFatal, FailingTlsSetValueWhenDisablingEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        QzMempool* p = Qz_CreateMempool(0, 2);
        Qz_MempoolFree(p, Qz_MempoolAlloc(p, 10));
        qzsys::QzFaultArm(qzsys::QZ_FAULT_TLS_SET_VALUE, 0, qzsys::QZ_FAULT_ALWAYS);
        Qz_MempoolDisableThreadCache(p);
      },
      kFatal);
}

TEST(PoolFatal, FailingTlsSetValueWhenAnUncachedThreadMovesEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        QzMempool* p = Qz_CreateMempool(0, 2);
        Qz_MempoolDisableThreadCache(p);
        LockHolder hold({p->heaps[0].load()});
        qzsys::QzFaultArm(qzsys::QZ_FAULT_TLS_SET_VALUE, 0, qzsys::QZ_FAULT_ALWAYS);
        Qz_MempoolAlloc(p, 10);  // moves to a new heap 1 and must record it
      },
      kFatal);
}

TEST(PoolFatal, TheDefaultPoolThatCannotBeSetUpEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        qzsys::QzFaultArm(qzsys::QZ_FAULT_VIRTUAL_ALLOC, 0, qzsys::QZ_FAULT_ALWAYS);
        Qz_MempoolAlloc(nullptr, 10);
      },
      kFatal);
  EXPECT_DEATH(
      {
        qzsys::QzFaultArm(qzsys::QZ_FAULT_TLS_ALLOC, 0, qzsys::QZ_FAULT_ALWAYS);
        Qz_CreateMempool(0, 2);  // its record comes from the default pool
      },
      kFatal);
}
