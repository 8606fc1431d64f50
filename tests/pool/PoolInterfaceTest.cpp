#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <string.h>

#include "PoolTestSupport.h"
#include "QzTestSupport.h"

using namespace pooltest;

namespace {

constexpr size_t M = QZ_CACHE_MIN_CLASS;
constexpr size_t MAXR = QZ_CACHE_MAX_REQUEST;

bool AllZero(const void* p, size_t n) {
  auto* b = static_cast<const unsigned char*>(p);
  for (size_t i = 0; i < n; ++i)
    if (b[i] != 0) return false;
  return true;
}

class Pool : public ::testing::Test {
 protected:
  void SetUp() override {
    pool = Qz_CreateMempool(0, 16);
    ASSERT_NE(pool, nullptr);
  }
  void TearDown() override { Qz_DestroyMempool(pool); }
  QzMempool* pool = nullptr;
};

}  // namespace

TEST(DefaultPool, FreeOfNullCreatesNothing) {
  // A fresh process: nothing else may have named the default pool yet.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Qz_MempoolFree(nullptr, nullptr);
        Qz_MempoolAlignedFree(nullptr, nullptr);
        bool before = g_qzDefaultPool.heapLimit.load() == 0;
        void* b = Qz_MempoolAlloc(nullptr, 1);
        bool after = g_qzDefaultPool.heapLimit.load() == 16 && b != nullptr;
        exit(before && after ? 3 : 4);
      },
      ::testing::ExitedWithCode(3), "");
}

TEST(DefaultPool, FirstUseRacesAreHarmless) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        std::vector<void*> got(8);
        for (int t = 0; t < 8; ++t)
          threads.emplace_back([&, t] {
            while (!go.load()) std::this_thread::yield();
            got[t] = Qz_MempoolAlloc(nullptr, 24);
          });
        go.store(true);
        for (auto& th : threads) th.join();
        bool ok = g_qzDefaultPool.heapLimit.load() == 16 &&
                  g_qzDefaultPool.heaps[0].load()->owningPool == &g_qzDefaultPool;
        for (void* b : got) ok = ok && b != nullptr && Qz_MemblkSize(b) >= 24;
        std::sort(got.begin(), got.end());
        ok = ok && std::unique(got.begin(), got.end()) == got.end();
        exit(ok ? 3 : 4);
      },
      ::testing::ExitedWithCode(3), "");
}

TEST(DefaultPool, HandleZeroWorksForEveryCall) {
  void* b = Qz_MempoolAlloc(nullptr, 50);
  ASSERT_NE(b, nullptr);
  Qz_MempoolSetValue(nullptr, 0x5150);
  QzMempool* place = nullptr;
  if (HeapIndexOf(&g_qzDefaultPool, b) == 0) {
    EXPECT_EQ(Qz_MempoolGetValue(&place, b), 0x5150u);
    EXPECT_EQ(place, &g_qzDefaultPool);
  }
  Qz_MempoolSetValue(nullptr, 0);
  b = Qz_MempoolRealloc(nullptr, b, 5000);
  ASSERT_NE(b, nullptr);
  Qz_MempoolFree(nullptr, b);
  Qz_DestroyMempool(nullptr);  // ignored
  Qz_DestroyMempool(&g_qzDefaultPool);  // ignored too
  b = Qz_MempoolCalloc(nullptr, 3, 7);
  EXPECT_TRUE(AllZero(b, 21));
  Qz_MempoolFree(nullptr, b);
}

TEST(PoolCreate, ThreadsArgumentBoundsTheHeaps) {
  const struct { int threads; int limit; } rows[] = {{0, 16}, {-5, 16}, {99, 16}, {17, 16}, {1, 1}, {3, 3}, {16, 16}};
  for (const auto& r : rows) {
    QzMempool* p = Qz_CreateMempool(0, r.threads);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->heapLimit.load(), r.limit) << r.threads;
    EXPECT_EQ(HeapCount(p), 1);
    EXPECT_EQ(p->heaps[0].load()->owningPool, p);
    Qz_DestroyMempool(p);
  }
}

TEST(PoolCreate, CapacitySizesTheFirstHeap) {
  QzMempool* p = Qz_CreateMempool(3 << 20, 2);
  ASSERT_NE(p, nullptr);
  EXPECT_GE(p->heaps[0].load()->footprint, size_t(3) << 20);
  // A block larger than one granule's worth of top fits without growth.
  size_t before = p->heaps[0].load()->footprint;
  void* b = Qz_MempoolAlloc(p, 250 << 10);
  void* c = Qz_MempoolAlloc(p, 250 << 10);
  void* d = Qz_MempoolAlloc(p, 250 << 10);
  void* e = Qz_MempoolAlloc(p, 250 << 10);
  void* f = Qz_MempoolAlloc(p, 250 << 10);
  EXPECT_EQ(p->heaps[0].load()->footprint, before);
  for (void* x : {b, c, d, e, f}) Qz_MempoolFree(p, x);
  Qz_DestroyMempool(p);
}

TEST(PoolDestroy, OthersGoOnAndTheSlotIsFreeAgain) {
  QzMempool* a = Qz_CreateMempool(0, 4);
  QzMempool* b = Qz_CreateMempool(0, 4);
  ASSERT_TRUE(a && b);
  void* keep = Qz_MempoolAlloc(b, 100);
  Fill(keep, 100, 9);
  std::vector<void*> blocks;
  for (int i = 0; i < 100; ++i) blocks.push_back(Qz_MempoolAlloc(a, 16 * i));
  for (size_t i = 0; i < blocks.size(); i += 2) Qz_MempoolFree(a, blocks[i]);
  // Another thread has a cache in `a` too.
  OnNewThread([&] { Qz_MempoolFree(a, Qz_MempoolAlloc(a, 64)); });
  const qzsys::DWORD slot = a->tlsSlot;
  const size_t mapped = qzsys::QzVirtualAllocationCount();
  Qz_DestroyMempool(a);
  EXPECT_LT(qzsys::QzVirtualAllocationCount(), mapped);
  EXPECT_FALSE(qzsys::TlsSetValue(slot, nullptr));  // the slot was given back
  EXPECT_TRUE(Holds(keep, 100, 9));
  void* more = Qz_MempoolAlloc(b, 3000);
  EXPECT_NE(more, nullptr);
  Qz_MempoolFree(b, more);
  Qz_MempoolFree(b, keep);
  Qz_MempoolFree(nullptr, Qz_MempoolAlloc(nullptr, 10));
  Qz_DestroyMempool(b);
}

TEST_F(Pool, SmallestRequestsGetTheSmallestClass) {
  void* b = Qz_MempoolAlloc(pool, 0);
  ASSERT_NE(b, nullptr);
  EXPECT_GE(Qz_MemblkSize(b), 16u);
  memset(b, 0xAB, 16);
  Qz_MempoolFree(pool, b);
  EXPECT_EQ(Qz_MempoolAlloc(pool, 0), b);  // bin 0 of the cache
}

TEST_F(Pool, UsableSizeWithAndWithoutCache) {
  void* b = Qz_MempoolAlloc(pool, 100);
  EXPECT_GE(Qz_MemblkSize(b), 128u);
  Qz_MempoolFree(pool, b);
  EXPECT_GT(Qz_MemblkSize(b), 0u);  // cached blocks count as in use
  OnNewThread([&] {
    Qz_MempoolDisableThreadCache(pool);
    void* u = Qz_MempoolAlloc(pool, 100);
    EXPECT_GE(Qz_MemblkSize(u), 100u);
    EXPECT_EQ(Qz_MemblkSize(u), QzRequestToChunk(100) - QZ_CHUNK_OVERHEAD);
    Qz_MempoolFree(pool, u);
  });
  EXPECT_EQ(Qz_MemblkSize(nullptr), 0u);
}

TEST_F(Pool, DirectlyMappedBlocksBypassTheCacheBothWays) {
  // Direct mapping is a way of growing: the request must exceed what top holds.
  const size_t mapped = qzsys::QzVirtualAllocationCount();
  void* b = Qz_MempoolAlloc(pool, 1536 << 10);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(qzsys::QzVirtualAllocationCount(), mapped + 1);
  EXPECT_EQ(QzBlockToChunk(b)->sizeWord & QZ_FLAG_BITS, 0u);
  EXPECT_EQ(Qz_MemblkSize(b), QzChunkSize(QzBlockToChunk(b)) - QZ_CHUNK_OVERHEAD);
  EXPECT_GE(Qz_MemblkSize(b), size_t(1536) << 10);
  Qz_MempoolFree(pool, b);
  EXPECT_EQ(qzsys::QzVirtualAllocationCount(), mapped);
  // Calloc of a mapped block: zero-filled by the system.
  void* z = Qz_MempoolCalloc(pool, 1, 1536 << 10);
  ASSERT_NE(z, nullptr);
  EXPECT_EQ(QzBlockToChunk(z)->sizeWord & QZ_FLAG_BITS, 0u);
  EXPECT_TRUE(AllZero(z, 1536 << 10));
  Qz_MempoolFree(pool, z);
}

TEST_F(Pool, CallocClearsCachedAndHeapBlocksAndRefusesOverflow) {
  void* dirty = Qz_MempoolAlloc(pool, 4 * M);
  memset(dirty, 0xEE, Qz_MemblkSize(dirty));
  Qz_MempoolFree(pool, dirty);
  void* z = Qz_MempoolCalloc(pool, 3, M);  // the same class: the dirty block
  EXPECT_EQ(z, dirty);
  EXPECT_TRUE(AllZero(z, 4 * M));
  void* zero = Qz_MempoolCalloc(pool, 0, 10);
  ASSERT_NE(zero, nullptr);
  EXPECT_GE(Qz_MemblkSize(zero), 16u);
  EXPECT_TRUE(AllZero(zero, 16));
  // Heap blocks reuse freed memory too.
  void* big = Qz_MempoolAlloc(pool, 3 * MAXR);
  memset(big, 0x77, 3 * MAXR);
  Qz_MempoolFree(pool, big);
  void* zbig = Qz_MempoolCalloc(pool, 3, MAXR);
  EXPECT_TRUE(AllZero(zbig, 3 * MAXR));
  // count * size that does not fit a size_t.
  const size_t half = (SIZE_MAX >> 1) + 1;
  EXPECT_EQ(Qz_MempoolCalloc(pool, half, 2), nullptr);
  EXPECT_EQ(Qz_MempoolCalloc(pool, 2, half), nullptr);
  EXPECT_EQ(Qz_MempoolCalloc(pool, SIZE_MAX, SIZE_MAX), nullptr);
  EXPECT_EQ(Qz_MempoolCalloc(pool, size_t(1) << (4 * sizeof(size_t)), size_t(1) << (4 * sizeof(size_t))), nullptr);
  for (void* b : {z, zero, zbig}) Qz_MempoolFree(pool, b);
}

TEST_F(Pool, TooLargeRequestsGiveZero) {
  EXPECT_EQ(Qz_MempoolAlloc(pool, SIZE_MAX), nullptr);
  EXPECT_EQ(Qz_MempoolAlloc(pool, SIZE_MAX - 100), nullptr);
  EXPECT_EQ(Qz_MempoolAlloc(pool, QZ_MAX_REQUEST), nullptr);
  EXPECT_EQ(Qz_MempoolAlignedAlloc(pool, 64, SIZE_MAX - 10), nullptr);
  void* b = Qz_MempoolAlloc(pool, 10);
  Fill(b, 10, 1);
  EXPECT_EQ(Qz_MempoolRealloc(pool, b, SIZE_MAX), nullptr);
  EXPECT_TRUE(Holds(b, 10, 1));
  Qz_MempoolFree(pool, b);
}

TEST_F(Pool, ReallocPaths) {
  // Null allocates.
  void* b = Qz_MempoolRealloc(pool, nullptr, 40);
  ASSERT_NE(b, nullptr);
  EXPECT_GE(Qz_MemblkSize(b), 64u);
  Fill(b, 40, 2);
  // A miss keeps the block when it fits its class.
  void* same = Qz_MempoolRealloc(pool, b, 60);
  EXPECT_EQ(same, b);
  // A hit moves it, and the old block goes to the cache.
  void* spare = Qz_MempoolAlloc(pool, 200);
  Qz_MempoolFree(pool, spare);
  void* moved = Qz_MempoolRealloc(pool, b, 200);
  EXPECT_EQ(moved, spare);
  EXPECT_TRUE(Holds(moved, 40, 2));
  EXPECT_EQ(MyCache(pool)->bins[QzCacheBinDown(Qz_MemblkSize(b))].newest, b);
  // Growing past the cache limit stays in the block's heap and keeps the data.
  void* grown = Qz_MempoolRealloc(pool, moved, 5 * MAXR);
  ASSERT_NE(grown, nullptr);
  EXPECT_TRUE(Holds(grown, 40, 2));
  // Within its chunk above the cache limit: the same pointer.
  EXPECT_EQ(Qz_MempoolRealloc(pool, grown, 5 * MAXR - 100), grown);
  Qz_MempoolFree(pool, grown);
}

TEST_F(Pool, ReallocOfAHitGivesABlockAboveTheClassLimitToTheHeap) {
  QzThreadCache* c = (Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, 1)), MyCache(pool));
  void* old = Qz_MempoolAlloc(pool, MAXR + 1);  // usable between the limits
  ASSERT_GT(Qz_MemblkSize(old), MAXR);
  ASSERT_LE(Qz_MemblkSize(old), QZ_CACHE_MAX_PUT);
  Fill(old, 100, 3);
  void* spare = Qz_MempoolAlloc(pool, 100);
  Qz_MempoolFree(pool, spare);
  const uint32_t bytes = c->freeBytes;
  void* fresh = Qz_MempoolRealloc(pool, old, 100);
  EXPECT_EQ(fresh, spare);
  EXPECT_TRUE(Holds(fresh, 100, 3));
  EXPECT_EQ(c->freeBytes, bytes - 128);  // taken, and nothing put
  EXPECT_NE(c->bins[9].newest, old);
  Qz_MempoolFree(pool, fresh);
}

TEST_F(Pool, UncachedReallocWithinTheChunkKeepsThePointer) {
  OnNewThread([&] {
    Qz_MempoolDisableThreadCache(pool);
    void* b = Qz_MempoolAlloc(pool, 200);
    EXPECT_EQ(Qz_MempoolRealloc(pool, b, 190), b);
    EXPECT_EQ(Qz_MempoolRealloc(pool, b, 100), b);
    Qz_MempoolFree(pool, b);
  });
}

TEST_F(Pool, ValueProbe) {
  Qz_MempoolSetValue(pool, 0xC0FFEE);
  void* b = Qz_MempoolAlloc(pool, 70);
  QzMempool* place = nullptr;
  EXPECT_EQ(Qz_MempoolGetValue(&place, b), 0xC0FFEEu);
  EXPECT_EQ(place, pool);
  EXPECT_EQ(Qz_MempoolGetValue(nullptr, b), 0xC0FFEEu);
  // Mapped blocks carry the footer of their heap too.
  void* big = Qz_MempoolAlloc(pool, 1 << 20);
  EXPECT_EQ(Qz_MempoolGetValue(nullptr, big), 0xC0FFEEu);
  Qz_MempoolFree(pool, big);
  // What does not look like a live block gives 0 and leaves the place alone.
  // A chunk of four words whose neighbour says it is in use; its footer is 0.
  alignas(16) size_t fake[16] = {0, 3 | (4 * sizeof(size_t)), 0, 0, 0, 1};
  place = nullptr;
  EXPECT_EQ(Qz_MempoolGetValue(&place, &fake[2]), 0u);  // footer names no heap
  EXPECT_EQ(place, nullptr);
  fake[1] = 1 | (4 * sizeof(size_t));  // flagged free
  EXPECT_EQ(Qz_MempoolGetValue(&place, &fake[2]), 0u);
  EXPECT_EQ(Qz_MempoolGetValue(&place, static_cast<char*>(b) + 1), 0u);  // misaligned
  EXPECT_EQ(Qz_MempoolGetValue(&place, nullptr), 0u);
  void* x = Qz_MempoolAlloc(pool, 5 * MAXR);
  Qz_MempoolFree(pool, x);  // back in its heap, flagged free
  EXPECT_EQ(Qz_MempoolGetValue(&place, x), 0u);
  EXPECT_EQ(place, nullptr);
  Qz_MempoolFree(pool, b);
}

TEST_F(Pool, AlignedCalls) {
  const size_t aligns[] = {1, 8, 16, 24, 64, 100, 4096, 65536};
  std::vector<void*> blocks;
  for (size_t a : aligns) {
    for (size_t size : {size_t(0), size_t(1), size_t(100), size_t(5000), size_t(300 << 10)}) {
      void* b = Qz_MempoolAlignedAlloc(pool, a, size);
      ASSERT_NE(b, nullptr) << a << " " << size;
      size_t want = a <= 8 ? 8 : a < 16 ? 16 : a;
      if ((want & (want - 1)) != 0) want = size_t(1) << (64 - __builtin_clzll(want));
      EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % want, 0u) << a << " " << size;
      EXPECT_GE(Qz_MemblkSize(b), size < 16 ? 16 : size);
      Fill(b, size, uint32_t(a + size));
      blocks.push_back(b);
    }
  }
  size_t i = 0;
  for (size_t a : aligns)
    for (size_t size : {size_t(0), size_t(1), size_t(100), size_t(5000), size_t(300 << 10)}) {
      EXPECT_TRUE(Holds(blocks[i], size, uint32_t(a + size)));
      // Every free call takes them; some enter the cache.
      if (i % 2) Qz_MempoolFree(pool, blocks[i]); else Qz_MempoolAlignedFree(pool, blocks[i]);
      ++i;
    }
  // An aligned block may come back from the cache for a plain request.
  void* a = Qz_MempoolAlignedAlloc(pool, 256, 4 * M);
  Qz_MempoolAlignedFree(pool, a);
  EXPECT_EQ(Qz_MempoolAlloc(pool, 4 * M), a);
  // AlignedRealloc: null aligns, anything else is a plain realloc.
  void* r = Qz_MempoolAlignedRealloc(pool, nullptr, 128, 40);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(r) % 128, 0u);
  Fill(r, 40, 5);
  r = Qz_MempoolAlignedRealloc(pool, r, 128, 3 * MAXR);
  ASSERT_NE(r, nullptr);
  EXPECT_TRUE(Holds(r, 40, 5));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(r) % QZ_CHUNK_ALIGN, 0u);
  Qz_MempoolFree(pool, r);
  Qz_MempoolFree(pool, a);
}
