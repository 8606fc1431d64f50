#include "PoolTestSupport.h"

using ThreadCache = PoolTest;


TEST_F(ThreadCache, RequestsTakeTheirClassUpAndFreesPutItDown) {
  const struct { size_t request, cls; unsigned bin; } rows[] = {
      {0, M, 0}, {M, M, 0}, {M + 1, 2 * M, 1}, {2 * M, 2 * M, 1}, {2 * M + 1, 4 * M, 2}, {MAXR / 2 + 1, MAXR, 9}, {MAXR, MAXR, 9}};
  for (const auto& r : rows) {
    void* b = Qz_MempoolAlloc(pool, r.request);
    EXPECT_GE(Qz_MemblkSize(b), r.cls) << r.request;  // a miss asks the heap for the class
    Qz_MempoolFree(pool, b);
    EXPECT_EQ(MyCache(pool)->bins[r.bin].newest, b) << r.request;
    EXPECT_EQ(Qz_MempoolAlloc(pool, r.cls), b) << r.request;
    Qz_MempoolFree(pool, b);
    QzCacheEvict(MyCache(pool), 0);  // the next row starts with a miss
  }
  EXPECT_EQ(MyCache(pool)->lookups, 14u);
  EXPECT_EQ(MyCache(pool)->hits, 7u);
}

TEST_F(ThreadCache, TakesStepUpOneBinAtMostAndPutsStopAtTheLimit) {
  QzThreadCache* c = Cache();
  void* two = Qz_MempoolAlloc(pool, 2 * M);
  void* four = Qz_MempoolAlloc(pool, 4 * M);
  Qz_MempoolFree(pool, four);
  EXPECT_NE(Qz_MempoolAlloc(pool, M), four);  // bin 2 is two steps away: a miss
  Qz_MempoolFree(pool, two);
  EXPECT_EQ(Qz_MempoolAlloc(pool, 1), two);  // bin 0 empty, bin 1 filled
  // Usable size at the put limit: cached as the largest class; one byte more
  // bypasses the cache both ways.
  void* edge = Qz_MempoolAlloc(pool, QZ_CACHE_MAX_PUT);
  void* over = Qz_MempoolAlloc(pool, QZ_CACHE_MAX_PUT + 1);
  ASSERT_EQ(Qz_MemblkSize(edge), QZ_CACHE_MAX_PUT);
  const uint32_t bytes = c->freeBytes;
  Qz_MempoolFree(pool, edge);
  Qz_MempoolFree(pool, over);
  EXPECT_EQ(c->bins[9].newest, edge);
  EXPECT_EQ(c->freeBytes, bytes + MAXR);
  EXPECT_EQ(Qz_MemblkSize(over), 0u);
}

TEST_F(ThreadCache, AShrinkAtTheLimitGoesByAge) {
  QzThreadCache* c = Cache();
  std::vector<void*> blocks(10), big;
  // 63 largest blocks and one of each smaller class: the limit less M.
  for (int i = 0; i < 63; ++i) big.push_back(Qz_MempoolAlloc(pool, MAXR));
  for (unsigned k = 0; k < 10; ++k) blocks[k] = Qz_MempoolAlloc(pool, M << (k % 9));
  for (void* b : big) Qz_MempoolFree(pool, b);
  for (unsigned k = 0; k < 9; ++k) Qz_MempoolFree(pool, blocks[k]);
  EXPECT_EQ(c->freeBytes, QZ_CACHE_SHRINK_BYTES - M);  // no shrink yet
  // Reaching the limit exactly shrinks: age 64 takes the 9 oldest of 73 puts.
  Qz_MempoolFree(pool, blocks[9]);
  EXPECT_EQ(c->bins[9].oldest, big[9]);
  EXPECT_EQ(c->freeBytes, QZ_CACHE_SHRINK_BYTES - 9 * MAXR);
  QzCacheEvict(c, 0);
  EXPECT_EQ(PoolProblem(pool), "");
}

TEST_F(ThreadCache, AShrinkThatReachesAgeOneLeavesTheLastPutOnly) {
  QzThreadCache* c = Cache();
  std::vector<void*> big;
  for (size_t n = 0; n < QZ_CACHE_SHRINK_BYTES; n += MAXR) big.push_back(Qz_MempoolAlloc(pool, MAXR));
  void* last = big.back();
  big.pop_back();
  for (void* b : big) Qz_MempoolFree(pool, b);
  ASSERT_EQ(c->freeBytes, QZ_CACHE_SHRINK_BYTES - MAXR);
  for (QzCachedBlock* x = c->bins[9].newest; x != nullptr; x = x->next) x->stamp = c->frees;
  Qz_MempoolFree(pool, last);  // reaches the limit: ages 64 to 2 find nothing old enough
  EXPECT_EQ(c->freeBytes, MAXR);
  EXPECT_EQ(c->bins[9].newest, last);
  EXPECT_EQ(c->bins[9].oldest, last);
  EXPECT_EQ(PoolProblem(pool), "");
}

TEST_F(ThreadCache, OnlyAFreeTwiceInARowIsReportedAndChangesNothing) {
  QzThreadCache* c = Cache();
  void* b = Qz_MempoolAlloc(pool, 40);
  Qz_MempoolFree(pool, b);
  const uint32_t bytes = c->freeBytes;
  qztest::DebugCapture capture;
  Qz_MempoolFree(pool, b);
  char expected[128];
  // The library's %p: lower-case digits without leading zeros.
  snprintf(expected, sizeof expected, "Attempt to free already freed memory block 0x%llx - aborting!\n",
           static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(b)));
  const std::string line = capture.joined();
  EXPECT_NE(line.find(std::string("] FatalError: ") + expected + "\n"), std::string::npos) << line;
  EXPECT_EQ(c->freeBytes, bytes);
  EXPECT_EQ(Qz_MempoolAlloc(pool, 40), b);  // cached once only
  EXPECT_NE(Qz_MempoolAlloc(pool, 40), b);
}

TEST_F(ThreadCache, ForeignBlocksAreCachedHereAndGoHomeOnEviction) {
  QzThreadCache* c = Cache();
  QzMempool* other = Qz_CreateMempool(0, 2);
  void* theirs = nullptr;
  OnNewThread([&] { theirs = Qz_MempoolAlloc(pool, 3 * M); });
  void* otherPools = Qz_MempoolAlloc(other, 2 * M);
  Qz_MempoolFree(pool, theirs);
  Qz_MempoolFree(pool, otherPools);  // the handle picks the cache, the footer the heap
  EXPECT_EQ(c->bins[1].newest, otherPools);
  EXPECT_EQ(Qz_MempoolAlloc(pool, 4 * M), theirs);
  Qz_MempoolFree(pool, theirs);
  QzCacheEvict(c, 0);
  EXPECT_EQ(Qz_MemblkSize(theirs), 0u);
  EXPECT_EQ(Qz_MemblkSize(otherPools), 0u);
  Qz_DestroyMempool(other);
}

TEST_F(ThreadCache, DisablingKeepsTheHeapAndEndsClassRounding) {
  QzThreadCache* c = Cache();
  GrowTo(pool, 3);
  ASSERT_EQ(c->heapIndex, 2);
  void* cached = Qz_MempoolAlloc(pool, 100);
  Qz_MempoolFree(pool, cached);
  for (int twice = 0; twice < 2; ++twice) Qz_MempoolDisableThreadCache(pool);
  EXPECT_EQ(QzPoolSlotValue(pool), -3);
  EXPECT_EQ(Qz_MemblkSize(cached), 0u);  // the cache gave its blocks back
  void* b = Qz_MempoolAlloc(pool, 1100);
  EXPECT_EQ(HeapIndexOf(pool, b), 2);
  EXPECT_LT(Qz_MemblkSize(b), 2048u);
  Qz_MempoolFree(pool, b);
  EXPECT_EQ(Qz_MemblkSize(b), 0u);
}
