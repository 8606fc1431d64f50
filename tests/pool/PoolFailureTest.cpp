#include "PoolTestSupport.h"

using qztest::FaultScope;

using PoolFailure = PoolTest;

TEST_F(PoolFailure, VirtualAllocFailingGivesZeroAndThePoolGoesOn) {
  void* keep = Qz_MempoolAlloc(pool, 3000);
  Fill(keep, 3000, 11);
  {
    FaultScope fault(qzsys::QZ_FAULT_VIRTUAL_ALLOC);
    EXPECT_EQ(Qz_MempoolAlloc(pool, 1536 << 10), nullptr);  // would be mapped directly
    EXPECT_EQ(Qz_MempoolRealloc(pool, keep, 4 << 20), nullptr);
    EXPECT_TRUE(Holds(keep, 3000, 11));
    EXPECT_GT(fault.hits(), 0u);
    Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, 5 * MAXR));  // what the heap holds is still served
    EXPECT_TRUE(QzHeapCheck(pool->heaps[0].load()));
  }
  EXPECT_TRUE(Holds(Qz_MempoolRealloc(pool, keep, 4 << 20), 3000, 11));
}

TEST_F(PoolFailure, CreateFailuresLeaveNoSlotOrMemoryBehind) {
  const qzsys::DWORD probe = qzsys::TlsAlloc();
  qzsys::TlsFree(probe);
  const size_t mapped = qzsys::QzVirtualAllocationCount();
  for (qzsys::QzFault f : {qzsys::QZ_FAULT_VIRTUAL_ALLOC, qzsys::QZ_FAULT_TLS_ALLOC, qzsys::QZ_FAULT_POOL_ALLOC}) {
    FaultScope fault(f);
    EXPECT_EQ(Qz_CreateMempool(0, 3), nullptr) << f;
    EXPECT_GE(fault.hits(), 1u) << f;
  }
  EXPECT_EQ(qzsys::QzVirtualAllocationCount(), mapped);
  EXPECT_EQ(qzsys::TlsAlloc(), probe);
  qzsys::TlsFree(probe);
}

// No room in the first heap for a cache record and no memory to grow: the
// thread goes on uncached on heap 0, for good.
TEST_F(PoolFailure, ACacheRecordThatCannotBeMadeLeavesTheThreadUncached) {
  QzHeap* h0 = pool->heaps[0].load();
  std::vector<void*> filler;
  {
    FaultScope fault(qzsys::QZ_FAULT_VIRTUAL_ALLOC);
    for (size_t n = size_t(1) << 20; n >= 16; n /= 2)
      while (void* b = QzHeapAlloc(h0, n)) filler.push_back(b);
    OnNewThread([&] {
      EXPECT_EQ(Qz_MempoolAlloc(pool, 100), nullptr);  // uncached, and heap 0 is full
      EXPECT_EQ(QzPoolSlotValue(pool), -1);
      EXPECT_EQ(MyCache(pool), nullptr);
      qzsys::QzFaultDisarm(qzsys::QZ_FAULT_VIRTUAL_ALLOC);  // memory comes back
      void* b = Qz_MempoolAlloc(pool, 100);
      EXPECT_NE(b, nullptr);
      EXPECT_EQ(HeapIndexOf(pool, b), 0);
      Qz_MempoolFree(pool, b);
      EXPECT_EQ(QzPoolSlotValue(pool), -1);  // still uncached
    });
  }
  for (void* b : filler) QzHeapFree(b);
  EXPECT_EQ(PoolProblem(pool), "");
}

TEST(PoolFatal, FailingTlsSetValueOrDefaultPoolSetUpEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const struct { const char* name; void (*run)(); } rows[] = {
      {"new cache", [] {
         QzMempool* p = Qz_CreateMempool(0, 2);
         qzsys::QzFaultArm(qzsys::QZ_FAULT_TLS_SET_VALUE, 0, qzsys::QZ_FAULT_ALWAYS);
         Qz_MempoolAlloc(p, 10);
       }},
      {"disabling", [] {
         QzMempool* p = Qz_CreateMempool(0, 2);
         Qz_MempoolFree(p, Qz_MempoolAlloc(p, 10));
         qzsys::QzFaultArm(qzsys::QZ_FAULT_TLS_SET_VALUE, 0, qzsys::QZ_FAULT_ALWAYS);
         Qz_MempoolDisableThreadCache(p);
       }},
      {"default pool without memory", [] {
         qzsys::QzFaultArm(qzsys::QZ_FAULT_VIRTUAL_ALLOC, 0, qzsys::QZ_FAULT_ALWAYS);
         Qz_MempoolAlloc(nullptr, 10);
       }},
  };
  for (const auto& r : rows) EXPECT_DEATH(r.run(), "0xC0000017") << r.name;
}
