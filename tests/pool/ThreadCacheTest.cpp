#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "PoolTestSupport.h"
#include "QzTestSupport.h"

using namespace pooltest;

namespace {

constexpr size_t M = QZ_CACHE_MIN_CLASS;
constexpr size_t MAXR = QZ_CACHE_MAX_REQUEST;

class ThreadCache : public ::testing::Test {
 protected:
  void SetUp() override {
    pool = Qz_CreateMempool(0, 16);
    ASSERT_NE(pool, nullptr);
  }
  void TearDown() override { Qz_DestroyMempool(pool); }
  // The calling thread's cache, made by a first call if need be.
  QzThreadCache* Cache() {
    Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, MAXR + 4 * MAXR));  // touches no bin
    return MyCache(pool);
  }
  QzMempool* pool = nullptr;
};

}  // namespace

TEST(ThreadCacheConstants, FollowTheWord) {
#if defined(__i386__)
  EXPECT_EQ(QZ_CACHE_MIN_CLASS, 16u);
  EXPECT_EQ(QZ_CACHE_MAX_REQUEST, 8192u);
  EXPECT_EQ(QZ_CACHE_MAX_PUT, 8200u);
  EXPECT_EQ(QZ_CACHE_SHRINK_BYTES, 0x80000u);
  EXPECT_EQ(sizeof(QzCachedBlock), 16u);
#else
  EXPECT_EQ(QZ_CACHE_MIN_CLASS, 32u);
  EXPECT_EQ(QZ_CACHE_MAX_REQUEST, 16384u);
  EXPECT_EQ(QZ_CACHE_MAX_PUT, 16400u);
  EXPECT_EQ(QZ_CACHE_SHRINK_BYTES, 0x100000u);
  EXPECT_EQ(sizeof(QzCachedBlock), 24u);
#endif
  EXPECT_EQ(QZ_CACHE_MAX_PUT, QZ_CACHE_MAX_REQUEST + QZ_CHUNK_ALIGN);
  EXPECT_EQ(QZ_CACHE_MIN_CLASS, QZ_MIN_CHUNK);
  EXPECT_EQ(QZ_MEMPOOL_MIN_REQUEST, 16u);
}

TEST(ThreadCacheConstants, BinsRoundUpOnTakeAndDownOnPut) {
  EXPECT_EQ(QzCacheBinUp(16), 0u);
  EXPECT_EQ(QzCacheBinUp(M), 0u);
  EXPECT_EQ(QzCacheBinUp(M + 1), 1u);
  EXPECT_EQ(QzCacheBinUp(2 * M), 1u);
  EXPECT_EQ(QzCacheBinUp(2 * M + 1), 2u);
  EXPECT_EQ(QzCacheBinUp(MAXR), 9u);
  EXPECT_EQ(QzCacheBinDown(M), 0u);
  EXPECT_EQ(QzCacheBinDown(2 * M - 1), 0u);
  EXPECT_EQ(QzCacheBinDown(2 * M), 1u);
  EXPECT_EQ(QzCacheBinDown(MAXR), 9u);
  EXPECT_EQ(QzCacheBinDown(QZ_CACHE_MAX_PUT), 9u);
}

TEST_F(ThreadCache, FirstCallMakesACacheOnTheThreadsHeap) {
  EXPECT_EQ(QzPoolSlotValue(pool), 0);
  void* a = Qz_MempoolAlloc(pool, 1);
  QzThreadCache* c = MyCache(pool);
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->threadId, qzsys::GetCurrentThreadId());
  EXPECT_EQ(c->heapIndex, 0);  // one heap: every thread id modulo 1
  EXPECT_EQ(c->lookups, 1u);
  EXPECT_EQ(c->hits, 0u);
  Qz_MempoolFree(pool, a);
  EXPECT_EQ(c->frees, 1u);
  EXPECT_EQ(c->freeBytes, M);
}

TEST_F(ThreadCache, RequestsRoundUpToTheirClassHitOrMiss) {
  // 17 bytes and 32 bytes share the 32-byte class (i386); 16 has its own.
  const size_t sizes[] = {0, 16, 17, M, M + 1, 2 * M, 100, 1000, MAXR / 2 + 1, MAXR};
  for (size_t s : sizes) {
    void* b = Qz_MempoolAlloc(pool, s);
    ASSERT_NE(b, nullptr);
    size_t cls = QZ_CACHE_MIN_CLASS << QzCacheBinUp(s < 16 ? 16 : s);
    EXPECT_GE(Qz_MemblkSize(b), cls) << s;
    Qz_MempoolFree(pool, b);
    // The next request of that class takes the same block back.
    void* again = Qz_MempoolAlloc(pool, cls);
    EXPECT_EQ(again, b) << s;
    Qz_MempoolFree(pool, again);
  }
  // Above the largest class the cache is bypassed.
  void* big = Qz_MempoolAlloc(pool, MAXR + 1);
  EXPECT_GE(Qz_MemblkSize(big), MAXR + 1);
  EXPECT_LT(Qz_MemblkSize(big), 2 * MAXR);
  Qz_MempoolFree(pool, big);
}

TEST_F(ThreadCache, ATakeStepsUpOneBinAtMost) {
  QzThreadCache* c = Cache();
  void* two = Qz_MempoolAlloc(pool, 2 * M);   // bin 1
  void* four = Qz_MempoolAlloc(pool, 4 * M);  // bin 2
  Qz_MempoolFree(pool, four);
  // Bin 0 is empty and bin 1 too: bin 2 is two steps away, so a miss.
  uint32_t hits = c->hits;
  void* small = Qz_MempoolAlloc(pool, M);
  EXPECT_NE(small, four);
  EXPECT_EQ(c->hits, hits);
  Qz_MempoolFree(pool, two);
  // Now bin 1 holds a block: a request of the smallest class takes it whole.
  void* took = Qz_MempoolAlloc(pool, 1);
  EXPECT_EQ(took, two);
  EXPECT_EQ(c->hits, hits + 1);
  EXPECT_GE(Qz_MemblkSize(took), 2 * M);
  // The largest class has no bin above it: an empty bin 9 is a plain miss.
  EXPECT_EQ(c->bins[9].newest, nullptr);
  void* largest = Qz_MempoolAlloc(pool, MAXR);
  EXPECT_NE(largest, nullptr);
  EXPECT_EQ(c->hits, hits + 1);
  for (void* b : {small, took, largest}) Qz_MempoolFree(pool, b);
}

TEST_F(ThreadCache, PutRecordsTheClassBelowTheUsableSize) {
  QzThreadCache* c = Cache();
  const uint32_t bytes = c->freeBytes;
  // Usable size exactly at the put limit: cached in bin 9 as the largest class.
  void* edge = Qz_MempoolAlloc(pool, QZ_CACHE_MAX_PUT);
  ASSERT_EQ(Qz_MemblkSize(edge), QZ_CACHE_MAX_PUT);
  Qz_MempoolFree(pool, edge);
  ASSERT_EQ(c->bins[9].newest, edge);
  EXPECT_EQ(c->bins[9].newest->size, MAXR);
  EXPECT_EQ(c->freeBytes, bytes + MAXR);
  // One byte more and it goes straight back to its heap.
  void* over = Qz_MempoolAlloc(pool, QZ_CACHE_MAX_PUT + 1);
  ASSERT_GT(Qz_MemblkSize(over), QZ_CACHE_MAX_PUT);
  Qz_MempoolFree(pool, over);
  EXPECT_EQ(c->bins[9].newest, edge);
  EXPECT_EQ(c->freeBytes, bytes + MAXR);
  // A request between classes is cached under the class it was raised to.
  void* mid = Qz_MempoolAlloc(pool, 3 * M);  // class 4M
  Qz_MempoolFree(pool, mid);
  EXPECT_EQ(c->bins[2].newest, mid);
  EXPECT_EQ(c->bins[2].newest->size, 4 * M);
}

TEST_F(ThreadCache, EvictionGoesByAgeFromTheOldEnd) {
  QzThreadCache* c = Cache();
  std::vector<void*> blocks;
  for (int i = 0; i < 10; ++i) blocks.push_back(Qz_MempoolAlloc(pool, M));
  void* other = Qz_MempoolAlloc(pool, 2 * M);
  const uint32_t base = c->frees;
  for (void* b : blocks) Qz_MempoolFree(pool, b);
  Qz_MempoolFree(pool, other);  // the newest put of all
  ASSERT_EQ(c->frees, base + 11);
  // Ages of the M blocks: 10 down to 1; of `other`: 0.
  QzCacheEvict(c, 5);
  EXPECT_EQ(BinCount(c, 0), 4);  // ages 4..1 stay
  EXPECT_EQ(c->bins[0].oldest, blocks[6]);
  EXPECT_EQ(c->bins[0].oldest->next, nullptr);
  EXPECT_EQ(BinCount(c, 1), 1);
  EXPECT_EQ(c->freeBytes, 4 * M + 2 * M);
  // Age 1 leaves only the block put in last.
  QzCacheEvict(c, 1);
  EXPECT_EQ(BinCount(c, 0), 0);
  EXPECT_EQ(c->bins[0].oldest, nullptr);
  EXPECT_EQ(c->bins[1].newest, other);
  EXPECT_EQ(c->freeBytes, 2 * M);
  // Evicted blocks went back to the heap: they are free there now.
  EXPECT_EQ(Qz_MemblkSize(blocks[0]), 0u);
}

TEST_F(ThreadCache, ShrinkStartsAtExactlyTheLimit) {
  QzThreadCache* c = Cache();
  ASSERT_EQ(c->freeBytes, 0u);
  // 63 blocks of the largest class, then one of each smaller class:
  // the limit less one smallest class.
  std::vector<void*> big, small;
  for (int i = 0; i < 63; ++i) big.push_back(Qz_MempoolAlloc(pool, MAXR));
  for (unsigned k = 0; k < 9; ++k) small.push_back(Qz_MempoolAlloc(pool, M << k));
  void* last = Qz_MempoolAlloc(pool, M);
  for (void* b : big) Qz_MempoolFree(pool, b);
  for (void* b : small) Qz_MempoolFree(pool, b);
  EXPECT_EQ(c->freeBytes, QZ_CACHE_SHRINK_BYTES - M);
  EXPECT_EQ(BinCount(c, 9), 63);  // below the limit nothing moves
  Qz_MempoolFree(pool, last);
  // Reaching the limit shrinks. After 73 puts, age 64 takes the 9 oldest,
  // which already brings the cache below the limit.
  EXPECT_EQ(BinCount(c, 9), 63 - 9);
  EXPECT_EQ(c->freeBytes, QZ_CACHE_SHRINK_BYTES - 9 * MAXR);
  EXPECT_EQ(c->bins[9].oldest, big[9]);
  EXPECT_LT(c->freeBytes, QZ_CACHE_SHRINK_BYTES);
}

TEST_F(ThreadCache, ShrinkGoesToYoungerAgesUntilBelowTheLimit) {
  QzThreadCache* c = Cache();
  // 64 largest blocks: the 64th put reaches the limit with the oldest at age 63,
  // so age 64 frees nothing and age 32 frees the 32 oldest.
  std::vector<void*> big;
  for (int i = 0; i < 64; ++i) big.push_back(Qz_MempoolAlloc(pool, MAXR));
  for (void* b : big) Qz_MempoolFree(pool, b);
  EXPECT_EQ(BinCount(c, 9), 32);
  EXPECT_EQ(c->bins[9].oldest, big[32]);
  EXPECT_EQ(c->bins[9].newest, big[63]);
  EXPECT_EQ(c->freeBytes, 32 * MAXR);
}

TEST_F(ThreadCache, AFreeTwiceInARowIsReportedOnceAndChangesNothing) {
  QzThreadCache* c = Cache();
  void* b = Qz_MempoolAlloc(pool, 40);
  Qz_MempoolFree(pool, b);
  const uint32_t frees = c->frees, bytes = c->freeBytes;
  qztest::DebugCapture capture;
  Qz_MempoolFree(pool, b);
  char expected[128];
  snprintf(expected, sizeof expected, "Attempt to free already freed memory block 0x%0*llX - aborting!\n",
           int(2 * sizeof(void*)), static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(b)));
  EXPECT_EQ(capture.joined(), expected);
  EXPECT_EQ(c->frees, frees);
  EXPECT_EQ(c->freeBytes, bytes);
  // The process goes on and the block is still cached once.
  EXPECT_EQ(Qz_MempoolAlloc(pool, 40), b);
  EXPECT_NE(Qz_MempoolAlloc(pool, 40), b);
}

TEST_F(ThreadCache, AFreeTwiceWithAnotherInBetweenIsNotSeenHere) {
  QzThreadCache* c = Cache();
  void* a = Qz_MempoolAlloc(pool, M);
  void* b = Qz_MempoolAlloc(pool, M);
  Qz_MempoolFree(pool, a);
  Qz_MempoolFree(pool, b);
  qztest::DebugCapture capture;
  Qz_MempoolFree(pool, a);
  EXPECT_EQ(capture.joined(), "");
  EXPECT_EQ(c->bins[0].newest, a);
  // The bin is now inconsistent by the caller's fault; the pool's destruction
  // in TearDown still ends cleanly.
}

TEST_F(ThreadCache, AnotherThreadsBlockIsCachedHereAndReturnsToItsHeapOnEviction) {
  QzThreadCache* c = Cache();
  void* theirs = nullptr;
  OnNewThread([&] { theirs = Qz_MempoolAlloc(pool, 3 * M); });
  ASSERT_NE(theirs, nullptr);
  Qz_MempoolFree(pool, theirs);
  EXPECT_EQ(c->bins[2].newest, theirs);
  EXPECT_EQ(Qz_MempoolAlloc(pool, 4 * M), theirs);  // reissued here
  Qz_MempoolFree(pool, theirs);
  QzCacheEvict(c, 0);
  EXPECT_EQ(Qz_MemblkSize(theirs), 0u);  // free in its heap
}

TEST_F(ThreadCache, BlocksOfOtherPoolsUseTheCacheOfTheNamedPool) {
  QzMempool* other = Qz_CreateMempool(0, 2);
  ASSERT_NE(other, nullptr);
  QzThreadCache* c = Cache();
  void* b = Qz_MempoolAlloc(other, 2 * M);
  Qz_MempoolFree(pool, b);  // the handle picks the cache, the footer the heap
  EXPECT_EQ(c->bins[1].newest, b);
  QzCacheEvict(c, 0);
  EXPECT_EQ(Qz_MemblkSize(b), 0u);
  Qz_DestroyMempool(other);
}

TEST_F(ThreadCache, ContentionAddsAHeapAndMovesTheThreadForGood) {
  QzThreadCache* c = Cache();
  ASSERT_EQ(HeapCount(pool), 1);
  {
    LockHolder hold({pool->heaps[0].load()});
    void* b = Qz_MempoolAlloc(pool, MAXR * 2);  // misses the cache
    EXPECT_EQ(HeapCount(pool), 2);
    EXPECT_EQ(HeapIndexOf(pool, b), 1);
    EXPECT_EQ(c->heapIndex, 1);
    Qz_MempoolFree(pool, b);
  }
  // Heap 0 is free again, but the thread stays with heap 1.
  void* b = Qz_MempoolAlloc(pool, MAXR * 2);
  EXPECT_EQ(HeapIndexOf(pool, b), 1);
  Qz_MempoolFree(pool, b);
  // New heaps name no pool: their blocks answer 0 to the value probe.
  Qz_MempoolSetValue(pool, 42);
  QzMempool* place = reinterpret_cast<QzMempool*>(1);
  EXPECT_EQ(HeapIndexOf(pool, b = Qz_MempoolAlloc(pool, MAXR * 2)), 1);
  EXPECT_EQ(Qz_MempoolGetValue(&place, b), 0u);
  EXPECT_EQ(place, reinterpret_cast<QzMempool*>(1));
  Qz_MempoolFree(pool, b);
}

TEST_F(ThreadCache, AFreeHeapIsFoundBeforeANewOneIsMade) {
  Cache();
  {
    LockHolder hold({pool->heaps[0].load()});
    Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, MAXR * 2));  // makes heap 1
  }
  ASSERT_EQ(HeapCount(pool), 2);
  // A new thread prefers heap id % 2; hold that one and it moves to the
  // other, which is free, instead of making a third.
  OnNewThread([&] {
    Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, 1));
    QzThreadCache* mine = MyCache(pool);
    ASSERT_NE(mine, nullptr);
    const int pref = mine->heapIndex;
    const int other = 1 - pref;
    LockHolder hold({pool->heaps[pref].load()});
    void* b = Qz_MempoolAlloc(pool, MAXR * 2);
    EXPECT_EQ(HeapIndexOf(pool, b), other);
    EXPECT_EQ(mine->heapIndex, other);
    EXPECT_EQ(HeapCount(pool), 2);
    hold.Release();
    Qz_MempoolFree(pool, b);
    Qz_MempoolDisableThreadCache(pool);
  });
}

TEST_F(ThreadCache, DisablingKeepsTheHeapAndTakesTheSlowPathForAllSizes) {
  QzThreadCache* c = Cache();
  {
    LockHolder hold({pool->heaps[0].load()});
    Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, MAXR * 2));
  }
  {
    LockHolder hold({pool->heaps[0].load(), pool->heaps[1].load()});
    Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, MAXR * 2));
  }
  ASSERT_EQ(c->heapIndex, 2);
  void* cached = Qz_MempoolAlloc(pool, 100);
  Qz_MempoolFree(pool, cached);
  Qz_MempoolDisableThreadCache(pool);
  EXPECT_EQ(QzPoolSlotValue(pool), -3);
  EXPECT_EQ(MyCache(pool), nullptr);
  EXPECT_EQ(Qz_MemblkSize(cached), 0u);  // the cache gave its blocks back
  void* b = Qz_MempoolAlloc(pool, 1100);
  EXPECT_EQ(HeapIndexOf(pool, b), 2);
  EXPECT_LT(Qz_MemblkSize(b), 2048u);  // no class rounding
  Qz_MempoolFree(pool, b);
  EXPECT_EQ(Qz_MemblkSize(b), 0u);  // straight to the heap
  Qz_MempoolDisableThreadCache(pool);  // again: nothing to do
  EXPECT_EQ(QzPoolSlotValue(pool), -3);
  // The slot is free for another thread.
  OnNewThread([&] {
    Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, 1));
    EXPECT_NE(MyCache(pool), nullptr);
  });
}

TEST_F(ThreadCache, DisablingOnAnUnseenThreadPutsItOnHeapZeroUncached) {
  OnNewThread([&] {
    Qz_MempoolDisableThreadCache(pool);
    EXPECT_EQ(QzPoolSlotValue(pool), -1);
    void* b = Qz_MempoolAlloc(pool, 1100);
    EXPECT_EQ(HeapIndexOf(pool, b), 0);
    EXPECT_GE(Qz_MemblkSize(b), 1100u);
    EXPECT_LT(Qz_MemblkSize(b), 2048u);
    Qz_MempoolFree(pool, b);
  });
}

TEST_F(ThreadCache, HeapLimitStopsAdditionsAndTheThreadWaits) {
  QzMempool* three = Qz_CreateMempool(0, 3);
  ASSERT_NE(three, nullptr);
  EXPECT_EQ(three->heapLimit.load(), 3);
  Qz_MempoolFree(three, Qz_MempoolAlloc(three, 1));
  for (int n = 1; n < 3; ++n) {
    std::vector<QzHeap*> all;
    for (int i = 0; i < n; ++i) all.push_back(three->heaps[i].load());
    LockHolder hold(all);
    Qz_MempoolFree(three, Qz_MempoolAlloc(three, 2 * MAXR));
  }
  ASSERT_EQ(HeapCount(three), 3);
  QzThreadCache* c = MyCache(three);
  ASSERT_EQ(c->heapIndex, 2);
  // Every heap busy and no room for a fourth: the thread waits on its own heap.
  // Whether it gets to spin before the release is up to the scheduler; either
  // way it must end on heap 2 with no fourth heap made.
  void* b = nullptr;
  {
    LockHolder hold({three->heaps[0].load(), three->heaps[1].load(), three->heaps[2].load()});
    std::atomic<bool> started{false};
    std::thread t([&] {
      started.store(true);
      b = Qz_MempoolAlloc(three, 2 * MAXR);
    });
    while (!started.load()) std::this_thread::yield();
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    hold.Release();
    t.join();
  }
  EXPECT_EQ(HeapCount(three), 3);
  EXPECT_NE(b, nullptr);
  Qz_MempoolFree(three, b);
  Qz_DestroyMempool(three);
}

TEST(ThreadCacheDefaultPool, DisablingEndsTheFastPathToo) {
  OnNewThread([] {
    void* b = Qz_MempoolAlloc(nullptr, 100);
    Qz_MempoolFree(nullptr, b);
    EXPECT_EQ(Qz_MempoolAlloc(nullptr, 100), b);  // a hit
    Qz_MempoolFree(nullptr, b);
    QzThreadCache* c = MyCache(nullptr);
    ASSERT_NE(c, nullptr);
    const uint32_t hits = c->hits;
    EXPECT_EQ(Qz_MempoolAlloc(nullptr, 100), b);
    EXPECT_EQ(c->hits, hits + 1);
    Qz_MempoolFree(nullptr, b);
    Qz_MempoolDisableThreadCache(nullptr);
    EXPECT_EQ(MyCache(nullptr), nullptr);
    // No class rounding any more (the shared heap may still add a step or two).
    void* u = Qz_MempoolAlloc(nullptr, 1100);
    EXPECT_GE(Qz_MemblkSize(u), 1100u);
    EXPECT_LT(Qz_MemblkSize(u), 2048u);
    Qz_MempoolFree(nullptr, u);
    EXPECT_EQ(MyCache(nullptr), nullptr);
  });
}
