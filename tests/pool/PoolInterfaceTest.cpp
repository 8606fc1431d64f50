#include <set>

#include "PoolTestSupport.h"

using Pool = PoolTest;

TEST(DefaultPool, FreeOfNullCreatesNothingAndFirstUseRacesAreHarmless) {
  // A fresh process: nothing else may have named the default pool yet.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Qz_MempoolFree(nullptr, nullptr);
        Qz_MempoolAlignedFree(nullptr, nullptr);
        bool ok = g_qzDefaultPool.heapLimit.load() == 0;
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
        ok = ok && g_qzDefaultPool.heapLimit.load() == 16 && g_qzDefaultPool.heaps[0].load()->owningPool == &g_qzDefaultPool;
        for (void* b : got) ok = ok && b != nullptr && Qz_MemblkSize(b) >= 24;
        exit(ok && std::set<void*>(got.begin(), got.end()).size() == got.size() ? 3 : 4);
      },
      ::testing::ExitedWithCode(3), "");
}

TEST(DefaultPool, HandleZeroWorksForEveryCallButDestroy) {
  Qz_DestroyMempool(nullptr);
  Qz_DestroyMempool(&g_qzDefaultPool);
  OnNewThread([] {
    void* b = Qz_MempoolCalloc(nullptr, 3, 7);
    EXPECT_TRUE(AllZero(b, 21));
    Qz_MempoolFree(nullptr, b);
    // Disabling must end the fast path as well: no class rounding after it.
    Qz_MempoolDisableThreadCache(nullptr);
    b = Qz_MempoolAlloc(nullptr, 1100);
    EXPECT_LT(Qz_MemblkSize(b), 2048u);
    Qz_MempoolFree(nullptr, b);
  });
}

TEST(PoolDestroy, OthersGoOnAndTheSlotIsFreeAgain) {
  QzMempool* a = Qz_CreateMempool(0, 4);
  QzMempool* b = Qz_CreateMempool(0, 4);
  void* keep = Qz_MempoolAlloc(b, 100);
  Fill(keep, 100, 9);
  for (int i = 0; i < 100; ++i) Qz_MempoolAlloc(a, 80 * i);  // left to the pool's end
  Qz_MempoolFree(a, Qz_MempoolAlloc(a, 64));
  OnNewThread([&] { Qz_MempoolFree(a, Qz_MempoolAlloc(a, 64)); });  // a second cache in `a`
  const qzsys::DWORD slot = a->tlsSlot;
  const size_t mapped = qzsys::QzVirtualAllocationCount();
  Qz_DestroyMempool(a);
  EXPECT_LT(qzsys::QzVirtualAllocationCount(), mapped);
  EXPECT_FALSE(qzsys::TlsSetValue(slot, nullptr));  // the slot was given back
  EXPECT_TRUE(Holds(keep, 100, 9));
  Qz_MempoolFree(b, keep);
  EXPECT_TRUE(QzHeapCheck(b->heaps[0].load()));
  Qz_DestroyMempool(b);
}

TEST_F(Pool, CallocClearsCachedAndHeapBlocksAndImpossibleRequestsGiveZero) {
  void* dirty = Qz_MempoolAlloc(pool, 4 * M);
  void* big = Qz_MempoolAlloc(pool, 3 * MAXR);
  memset(dirty, 0xEE, Qz_MemblkSize(dirty));
  memset(big, 0x77, 3 * MAXR);
  Qz_MempoolFree(pool, dirty);
  Qz_MempoolFree(pool, big);
  EXPECT_EQ(Qz_MempoolCalloc(pool, 3, M), dirty);  // the same class: the dirty block
  EXPECT_TRUE(AllZero(dirty, 4 * M));
  EXPECT_TRUE(AllZero(Qz_MempoolCalloc(pool, 3, MAXR), 3 * MAXR));
  const size_t half = (SIZE_MAX >> 1) + 1, root = size_t(1) << (4 * sizeof(size_t));
  const struct { size_t count, size; } callocs[] = {{half, 2}, {2, half}, {SIZE_MAX, SIZE_MAX}, {root, root}};
  for (const auto& r : callocs) EXPECT_EQ(Qz_MempoolCalloc(pool, r.count, r.size), nullptr) << r.count;
  for (size_t size : {SIZE_MAX - 100, QZ_MAX_REQUEST}) EXPECT_EQ(Qz_MempoolAlloc(pool, size), nullptr);
  EXPECT_EQ(Qz_MempoolAlignedAlloc(pool, 64, SIZE_MAX - 10), nullptr);
  Fill(dirty, 10, 1);
  EXPECT_EQ(Qz_MempoolRealloc(pool, dirty, SIZE_MAX), nullptr);
  EXPECT_TRUE(Holds(dirty, 10, 1));
}

TEST_F(Pool, ReallocPaths) {
  void* b = Qz_MempoolRealloc(pool, nullptr, 40);  // null allocates
  Fill(b, 40, 2);
  EXPECT_EQ(Qz_MempoolRealloc(pool, b, 60), b);  // a miss keeps a block that fits
  void* spare = Qz_MempoolAlloc(pool, 200);
  Qz_MempoolFree(pool, spare);
  void* moved = Qz_MempoolRealloc(pool, b, 200);  // a hit moves it, the old one is cached
  EXPECT_EQ(moved, spare);
  EXPECT_TRUE(Holds(moved, 40, 2));
  QzThreadCache* c = MyCache(pool);
  EXPECT_EQ(c->bins[QzCacheBinDown(Qz_MemblkSize(b))].newest, b);
  EXPECT_TRUE(Holds(Qz_MempoolRealloc(pool, moved, 5 * MAXR), 40, 2));
}

TEST_F(Pool, ValueProbe) {
  Qz_MempoolSetValue(pool, 0xC0FFEE);
  void* b = Qz_MempoolAlloc(pool, 70);
  void* big = Qz_MempoolAlloc(pool, 1 << 20);
  for (void* x : {b, big}) {  // mapped blocks carry the footer too
    QzMempool* place = nullptr;
    EXPECT_EQ(Qz_MempoolGetValue(&place, x), 0xC0FFEEu);
    EXPECT_EQ(place, pool);
  }
  Qz_MempoolFree(pool, big);
  // Chunks of four words whose neighbour says they are in use; footer 0.
  alignas(16) size_t fake[16] = {0, 3 | (4 * sizeof(size_t)), 0, 0, 0, 1};
  void* freed = Qz_MempoolAlloc(pool, 5 * MAXR);
  Qz_MempoolFree(pool, freed);
  const struct { const char* name; void* block; } rows[] = {
      {"footer names no heap", &fake[2]}, {"misaligned", static_cast<char*>(b) + 1},
      {"null", nullptr}, {"freed in its heap", freed}};
  for (const auto& r : rows) {
    QzMempool* place = nullptr;
    EXPECT_EQ(Qz_MempoolGetValue(&place, r.block), 0u) << r.name;
    EXPECT_EQ(place, nullptr) << r.name;
  }
}

TEST_F(Pool, AlignedCalls) {
  const struct { size_t align, want; } aligns[] = {{1, 8}, {24, 32}, {4096, 4096}, {65536, 65536}};
  int n = 0;
  for (const auto& a : aligns)
    for (size_t size : {size_t(0), size_t(100), size_t(300 << 10)}) {
      void* b = Qz_MempoolAlignedAlloc(pool, a.align, size);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % a.want, 0u) << a.align << " " << size;
      EXPECT_GE(Qz_MemblkSize(b), size < 16 ? 16 : size);
      (n++ % 2 ? Qz_MempoolFree : Qz_MempoolAlignedFree)(pool, b);  // either call takes them
    }
  EXPECT_TRUE(QzHeapCheck(pool->heaps[0].load()));
}
