// The memory calls of the platform layer, the spin lock, the parameters, and
// one heap shared by several threads.
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "HeapTestSupport.h"

using namespace heaptest;
using namespace qzsys;

namespace {

constexpr DWORD kNew = MEM_RESERVE | MEM_COMMIT;

TEST(PlatformMemory, AllocQueryFreeAndBadArguments) {
  const size_t before = QzVirtualAllocationCount();
  char* p = static_cast<char*>(VirtualAlloc(nullptr, 10000, kNew, PAGE_READWRITE));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(p) % 4096);
  for (int i = 0; i < 12288; i += 512) ASSERT_EQ(0, p[i]);  // zero-filled, whole pages
  p[12287] = 1;
  EXPECT_EQ(before + 1, QzVirtualAllocationCount());
  MEMORY_BASIC_INFORMATION info;
  ASSERT_EQ(sizeof info, VirtualQuery(p + 5000, &info, sizeof info));
  EXPECT_EQ(p, info.AllocationBase);
  EXPECT_EQ(12288u - 4096u, info.RegionSize);
  EXPECT_EQ(0u, VirtualQuery(&info, &info, sizeof info));  // the stack: not ours
  // Only the start of a whole allocation can go back, and only once.
  EXPECT_FALSE(VirtualFree(p + 4096, 0, MEM_RELEASE));
  EXPECT_FALSE(VirtualFree(p, 4096, MEM_RELEASE));
  EXPECT_TRUE(VirtualFree(p, 0, MEM_RELEASE));
  EXPECT_FALSE(VirtualFree(p, 0, MEM_RELEASE));
  EXPECT_EQ(before, QzVirtualAllocationCount());
  EXPECT_EQ(0u, VirtualQuery(p, &info, sizeof info));
  EXPECT_EQ(nullptr, VirtualAlloc(nullptr, 0, kNew, PAGE_READWRITE));
  qztest::FaultScope fail(QZ_FAULT_VIRTUAL_ALLOC);
  EXPECT_EQ(nullptr, VirtualAlloc(nullptr, 4096, kNew, PAGE_READWRITE));
  EXPECT_EQ(ERROR_NOT_ENOUGH_MEMORY, GetLastError());
}

TEST(PlatformMemory, PlacementAndReleaseOfWholeRegions) {
  Placement place;
  place.Queue(0);
  place.Queue(1 << 20);
  char* a = static_cast<char*>(VirtualAlloc(nullptr, 1 << 20, kNew, PAGE_READWRITE));
  char* b = static_cast<char*>(VirtualAlloc(nullptr, 1 << 20, kNew, PAGE_READWRITE));
  ASSERT_EQ(reinterpret_cast<char*>(place.base()), a);
  ASSERT_EQ(a + (1 << 20), b);
  const size_t count = QzVirtualAllocationCount();
  // Starting or ending inside an allocation: refused before anything goes.
  const uintptr_t at = reinterpret_cast<uintptr_t>(a);
  EXPECT_FALSE(QzReleaseRegion(at + 4096, (2 << 20) - 4096));
  EXPECT_FALSE(QzReleaseRegion(at, 3 << 20));
  EXPECT_EQ(count, QzVirtualAllocationCount());
  EXPECT_TRUE(QzReleaseRegion(at, 2 << 20));  // two neighbours in one call
  EXPECT_EQ(count - 2, QzVirtualAllocationCount());
}

// Contention is exercised by the threads sharing one heap below.
TEST(SpinLock, RecursiveAndExclusive) {
  QzSpinLock lock{};
  QzSpinLockAcquire(&lock);
  EXPECT_TRUE(QzSpinLockTryAcquire(&lock));
  EXPECT_EQ(2u, lock.count);
  bool other = true;
  std::thread([&] { other = QzSpinLockTryAcquire(&lock); }).join();
  EXPECT_FALSE(other);
  QzSpinLockRelease(&lock);
  QzSpinLockRelease(&lock);
  EXPECT_EQ(0u, lock.locked.load() | lock.owner.load());
}

TEST(HeapParams, DefaultsOptionChecksAndNewHeaps) {
  QzEnsureHeapParams();
  ParamsScope params;
  struct Row { int option, value, result; } rows[] = {
      {-2, 4096, 1}, {-2, 3000, 0}, {-2, -1, 0}, {-2, 2048, 0}, {-2, 0, 0}, {-4, 1, 0}, {0, 1, 0},
  };
  for (const Row& r : rows) EXPECT_EQ(r.result, Qz_MempoolOpt(nullptr, r.option, r.value)) << r.option << " " << r.value;
  EXPECT_EQ(4096u, QzHeapParams.granularity.load());  // the refused ones changed nothing
  EXPECT_EQ(1, Qz_MempoolOpt(nullptr, -1, -1));
  EXPECT_EQ(~size_t(0), QzHeapParams.trimThreshold.load());
  EXPECT_EQ(1, Qz_MempoolOpt(nullptr, -3, 123456));
  EXPECT_EQ(123456u, QzHeapParams.directThreshold.load());
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -2, 65536));
  ScopedHeap h, big(100000);
  EXPECT_EQ(65536u, h->footprint);
  EXPECT_EQ(2u * 65536u, big->footprint);
  EXPECT_HEAP_OK(h);
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
        if (i % 5 == 0) p = static_cast<unsigned char*>(QzHeapRealloc(h, p, n + 100));
        ASSERT_EQ(static_cast<unsigned char>(n), p[0]);
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
        QzHeapFree(other);  // most often made by another thread
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_HEAP_OK(h);
  for (unsigned char* p : shared) QzHeapFree(p);
  EXPECT_HEAP_OK(h);
  const QzHeapCheckReport r = Report(h);
  EXPECT_EQ(1u, r.inUseChunks - r.closedSegments);  // the records only
}

}  // namespace
