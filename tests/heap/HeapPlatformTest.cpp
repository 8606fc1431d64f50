// The memory calls of the platform layer, the spin lock, and the parameters.
#include <string.h>

#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "HeapTestSupport.h"

using namespace heaptest;
using namespace qzsys;

namespace {

TEST(PlatformMemory, AllocQueryFree) {
  const size_t before = QzVirtualAllocationCount();
  char* p = static_cast<char*>(VirtualAlloc(nullptr, 10000, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(p) % 4096);
  for (int i = 0; i < 12288; i += 512) ASSERT_EQ(0, p[i]);  // zero-filled, whole pages
  p[12287] = 1;
  EXPECT_EQ(before + 1, QzVirtualAllocationCount());
  MEMORY_BASIC_INFORMATION info;
  ASSERT_EQ(sizeof info, VirtualQuery(p + 5000, &info, sizeof info));
  EXPECT_EQ(p + 4096, info.BaseAddress);
  EXPECT_EQ(p, info.AllocationBase);
  EXPECT_EQ(12288u - 4096u, info.RegionSize);
  EXPECT_EQ(MEM_COMMIT, info.State);
  ASSERT_EQ(sizeof info, VirtualQuery(p, &info, sizeof info));
  EXPECT_EQ(12288u, info.RegionSize);
  EXPECT_EQ(0u, VirtualQuery(&info, &info, sizeof info));  // the stack: not ours
  EXPECT_EQ(ERROR_INVALID_ADDRESS, GetLastError());
  EXPECT_EQ(0u, VirtualQuery(p, &info, sizeof info - 1));
  // Only the start of a whole allocation can go back.
  EXPECT_FALSE(VirtualFree(p + 4096, 0, MEM_RELEASE));
  EXPECT_EQ(ERROR_INVALID_ADDRESS, GetLastError());
  EXPECT_FALSE(VirtualFree(p, 4096, MEM_RELEASE));
  EXPECT_EQ(ERROR_INVALID_PARAMETER, GetLastError());
  EXPECT_TRUE(VirtualFree(p, 0, MEM_RELEASE));
  EXPECT_FALSE(VirtualFree(p, 0, MEM_RELEASE));
  EXPECT_EQ(before, QzVirtualAllocationCount());
  EXPECT_EQ(0u, VirtualQuery(p, &info, sizeof info));
}

TEST(PlatformMemory, TopDownHintAndBadArguments) {
  void* p = VirtualAlloc(nullptr, 1 << 20, MEM_RESERVE | MEM_COMMIT | MEM_TOP_DOWN, PAGE_READWRITE);
  ASSERT_NE(nullptr, p);
  EXPECT_TRUE(VirtualFree(p, 0, MEM_RELEASE));
  EXPECT_EQ(nullptr, VirtualAlloc(nullptr, 0, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  EXPECT_EQ(ERROR_INVALID_PARAMETER, GetLastError());
  EXPECT_EQ(nullptr, VirtualAlloc(nullptr, 4096, MEM_COMMIT, PAGE_READWRITE));
  EXPECT_EQ(nullptr, VirtualAlloc(nullptr, ~size_t(0) - 10, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
}

TEST(PlatformMemory, PlacedAllocationAndTakenPlace) {
  Placement place;
  place.Queue(4 << 20);
  void* p = VirtualAlloc(nullptr, 1 << 20, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  ASSERT_EQ(reinterpret_cast<void*>(place.base() + (4 << 20)), p);
  EXPECT_EQ(nullptr, VirtualAlloc(p, 4096, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));  // taken
  EXPECT_EQ(ERROR_INVALID_ADDRESS, GetLastError());
  EXPECT_TRUE(VirtualFree(p, 0, MEM_RELEASE));
}

TEST(PlatformMemory, FaultSwitch) {
  qztest::FaultScope fail(QZ_FAULT_VIRTUAL_ALLOC, 1, 1);
  void* first = VirtualAlloc(nullptr, 4096, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  EXPECT_NE(nullptr, first);
  EXPECT_EQ(nullptr, VirtualAlloc(nullptr, 4096, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  EXPECT_EQ(ERROR_NOT_ENOUGH_MEMORY, GetLastError());
  void* third = VirtualAlloc(nullptr, 4096, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  EXPECT_NE(nullptr, third);
  EXPECT_EQ(1u, fail.hits());
  VirtualFree(first, 0, MEM_RELEASE);
  VirtualFree(third, 0, MEM_RELEASE);
}

TEST(PlatformMemoryDeathTest, RaiseExceptionIsFatal) {
  EXPECT_DEATH(RaiseException(STATUS_NO_MEMORY, EXCEPTION_NONCONTINUABLE, 0, nullptr),
               "fatal exception 0xC0000017 \\(out of memory\\)");
}

TEST(ReleaseRegion, WholeAllocationsOnly) {
  Placement place;
  place.Queue(0);
  place.Queue(1 << 20);
  char* a = static_cast<char*>(VirtualAlloc(nullptr, 1 << 20, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  char* b = static_cast<char*>(VirtualAlloc(nullptr, 1 << 20, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
  ASSERT_EQ(a + (1 << 20), b);
  const size_t count = QzVirtualAllocationCount();
  // Starting or ending inside an allocation: refused before anything goes.
  EXPECT_FALSE(QzReleaseRegion(reinterpret_cast<uintptr_t>(a) + 4096, (2 << 20) - 4096));
  EXPECT_FALSE(QzReleaseRegion(reinterpret_cast<uintptr_t>(a), (2 << 20) - 4096));
  EXPECT_FALSE(QzReleaseRegion(reinterpret_cast<uintptr_t>(a), (3 << 20)));
  EXPECT_EQ(count, QzVirtualAllocationCount());
  // Two neighbours in one call.
  EXPECT_TRUE(QzReleaseRegion(reinterpret_cast<uintptr_t>(a), 2 << 20));
  EXPECT_EQ(count - 2, QzVirtualAllocationCount());
}

TEST(SpinLock, RecursiveAndExclusive) {
  QzSpinLock lock{};
  QzSpinLockAcquire(&lock);
  EXPECT_TRUE(QzSpinLockTryAcquire(&lock));
  EXPECT_EQ(2u, lock.count);
  bool other = true;
  std::thread t([&] { other = QzSpinLockTryAcquire(&lock); });
  t.join();
  EXPECT_FALSE(other);
  QzSpinLockRelease(&lock);
  QzSpinLockRelease(&lock);
  EXPECT_EQ(0u, lock.locked.load());
  EXPECT_EQ(0u, lock.owner.load());
}

TEST(SpinLock, GuardsACounterUnderContention) {
  QzSpinLock lock{};
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        QzSpinLockAcquire(&lock);
        QzSpinLockAcquire(&lock);
        ++counter;
        QzSpinLockRelease(&lock);
        QzSpinLockRelease(&lock);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(80000, counter);
}

TEST(HeapParams, DefaultsAndStamp) {
  QzEnsureHeapParams();
  const size_t stamp = QzStamp();
  EXPECT_NE(0u, stamp);
  EXPECT_EQ(8u, stamp & 15u & 8u);
  EXPECT_EQ(0u, stamp & 7u);
  EXPECT_EQ(4096u, QzHeapParams.pageSize);
  EXPECT_EQ(7u, QzHeapParams.defaultFlags);
  ParamsScope params;  // defaults unless an earlier test forgot to restore
  EXPECT_EQ(0x100000u, QzHeapParams.granularity.load());
  EXPECT_EQ(0x40000u, QzHeapParams.directThreshold.load());
  EXPECT_EQ(0x200000u, QzHeapParams.trimThreshold.load());
}

TEST(HeapParams, MempoolOptValidity) {
  ParamsScope params;
  const size_t granularity = QzHeapParams.granularity.load();
  EXPECT_EQ(1, Qz_MempoolOpt(nullptr, -2, 4096));
  EXPECT_EQ(4096u, QzHeapParams.granularity.load());
  EXPECT_EQ(0, Qz_MempoolOpt(nullptr, -2, 3000));
  EXPECT_EQ(0, Qz_MempoolOpt(nullptr, -2, -1));
  EXPECT_EQ(0, Qz_MempoolOpt(nullptr, -2, 2048));  // below the page
  EXPECT_EQ(0, Qz_MempoolOpt(nullptr, -2, 0));
  EXPECT_EQ(4096u, QzHeapParams.granularity.load());
  EXPECT_EQ(0, Qz_MempoolOpt(nullptr, -4, 1));
  EXPECT_EQ(0, Qz_MempoolOpt(nullptr, 0, 1));
  EXPECT_EQ(1, Qz_MempoolOpt(nullptr, -1, -1));
  EXPECT_EQ(~size_t(0), QzHeapParams.trimThreshold.load());
  EXPECT_EQ(1, Qz_MempoolOpt(nullptr, -3, 123456));
  EXPECT_EQ(123456u, QzHeapParams.directThreshold.load());
  EXPECT_EQ(1, Qz_MempoolOpt(nullptr, -2, static_cast<int>(granularity)));
}

TEST(HeapParams, SmallGranularityShapesNewHeaps) {
  ParamsScope params;
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -2, 65536));
  ScopedHeap h;
  EXPECT_EQ(65536u, h->footprint);
  ScopedHeap big(100000);
  EXPECT_EQ(2u * 65536u, big->footprint);
  EXPECT_HEAP_OK(h);
  EXPECT_HEAP_OK(big);
}

TEST(HeapThreads, OneHeapManyThreads) {
  ScopedHeap h;
  std::vector<std::thread> threads;
  std::vector<void*> handed(4000, nullptr);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 1000; ++i) {
        void* p = QzHeapAlloc(h, 16 + (i * 37 + t * 101) % 3000);
        ASSERT_NE(nullptr, p);
        memset(p, t, 16);
        if (i % 2) QzHeapFree(p);
        else handed[t * 1000 + i] = p;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_HEAP_OK(h);
  for (void* p : handed) QzHeapFree(p);  // freed by another thread than the one that made it
  EXPECT_HEAP_OK(h);
  const QzHeapCheckReport r = Report(h);
  EXPECT_EQ(1u, r.inUseChunks - r.closedSegments);  // the heap record, and records of closed segments
}

TEST(HeapThreads, BlocksHandedBetweenThreads) {
  ScopedHeap h;
  std::mutex m;
  std::vector<unsigned char*> shared;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(t + 1);
      for (int i = 0; i < 3000; ++i) {
        const size_t n = 16 + rng() % (i % 50 == 0 ? 300000 : 2000);
        unsigned char* p = static_cast<unsigned char*>(
            i % 7 == 0 ? QzHeapAlignedAlloc(h, 64, n) : QzHeapAlloc(h, n));
        ASSERT_NE(nullptr, p);
        p[0] = static_cast<unsigned char>(n);
        p[n - 1] = static_cast<unsigned char>(n >> 8);
        if (i % 5 == 0) {
          unsigned char* q = static_cast<unsigned char*>(QzHeapRealloc(h, p, n + 100));
          ASSERT_NE(nullptr, q);
          ASSERT_EQ(static_cast<unsigned char>(n), q[0]);
          QzHeapFree(q);
          continue;
        }
        unsigned char* other = nullptr;
        {
          std::lock_guard<std::mutex> hold(m);
          shared.push_back(p);
          if (shared.size() > 64) {
            const size_t k = rng() % shared.size();
            other = shared[k];
            shared[k] = shared.back();
            shared.pop_back();
          }
        }
        if (other != nullptr) {
          ASSERT_GE(QzBlockUsableSize(other), 16u);
          QzHeapFree(other);  // most often made by another thread
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  for (unsigned char* p : shared) QzHeapFree(p);
  EXPECT_HEAP_OK(h);
  const QzHeapCheckReport r = Report(h);
  EXPECT_EQ(1u, r.inUseChunks - r.closedSegments);
}

}  // namespace
