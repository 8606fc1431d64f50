// Bulk allocation: layout of the elements and the array, clearing, each piece
// freed by itself in shuffled order, and the inputs that give 0.
#include <algorithm>
#include <random>

#include "PoolTestSupport.h"
#include "pools/QzHeapBulk.h"

namespace {

using Bulk = PoolTest;

size_t PieceChunk(size_t request) { return QzRequestToChunk(std::max(request, QZ_MEMPOOL_MIN_REQUEST)); }
uintptr_t ChunkAddr(const void* block) { return reinterpret_cast<uintptr_t>(QzBlockToChunk(block)); }

// Elements lie side by side in index order, each of its own chunk size, the
// last one possibly larger; a made array follows the last element.
::testing::AssertionResult LaidOut(void** array, const std::vector<size_t>& sizes, bool arrayMade) {
  auto fail = [](const char* what, size_t i) { return ::testing::AssertionFailure() << what << " " << i; };
  for (size_t i = 0; i < sizes.size(); ++i) {
    const bool last = i + 1 == sizes.size();
    if (Qz_MemblkSize(array[i]) < std::max(sizes[i], QZ_MEMPOOL_MIN_REQUEST)) return fail("too small:", i);
    if (reinterpret_cast<uintptr_t>(array[i]) % QZ_CHUNK_ALIGN != 0) return fail("misaligned:", i);
    if (!last && QzChunkSize(QzBlockToChunk(array[i])) != PieceChunk(sizes[i])) return fail("foreign size:", i);
    if (!last && ChunkAddr(array[i + 1]) != ChunkAddr(array[i]) + PieceChunk(sizes[i])) return fail("apart:", i + 1);
  }
  if (arrayMade && !sizes.empty()) {
    const void* last = array[sizes.size() - 1];
    if (ChunkAddr(array) != ChunkAddr(last) + QzChunkSize(QzBlockToChunk(last))) return fail("array apart", 0);
    if (Qz_MemblkSize(array) < sizes.size() * sizeof(void*)) return fail("array too small", 0);
  }
  return ::testing::AssertionSuccess();
}

// Frees every element and the array (when made) in a shuffled order; the
// array is read before it may be freed.
void FreeShuffled(QzMempool* pool, void** array, size_t count, bool arrayMade, unsigned seed) {
  std::vector<void*> blocks(array, array + count);
  if (arrayMade) blocks.push_back(array);
  std::shuffle(blocks.begin(), blocks.end(), std::mt19937(seed));
  for (void* b : blocks) Qz_MempoolFree(pool, b);
}

TEST_F(Bulk, ElementsSideBySideEachFreedAlone) {
  const struct {
    const char* what;
    bool co;                    // IndependentCoMalloc, else IndependentCalloc
    std::vector<size_t> sizes;  // for Calloc: all equal
    bool callerArray, cached;   // cached: frees go through the thread's cache
  } cases[] = {
      {"calloc size 0", false, std::vector<size_t>(7, 0), false, false},
      {"calloc size 1", false, std::vector<size_t>(33, 1), false, false},
      {"calloc size 1 cached", false, std::vector<size_t>(33, 1), false, true},
      {"calloc 100 into caller array", false, std::vector<size_t>(10, 100), true, false},
      {"calloc one element", false, {5000}, false, false},
      {"comalloc 1 100 1000", true, {1, 100, 1000}, false, false},
      {"comalloc mixed into caller array", true, {0, 17, 4096, 240, 241, 9000, 3}, true, false},
      {"comalloc mixed cached", true, {0, 17, 4096, 240, 241, 9000, 3}, false, true},
  };
  unsigned seed = 1;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    QzMempool* p = Qz_CreateMempool(0, 1);
    ASSERT_NE(p, nullptr);
    if (!c.cached) Qz_MempoolDisableThreadCache(p);
    // Dirty memory first, so that clearing is seen to happen.
    void* dirt = Qz_MempoolAlloc(p, 60000);
    memset(dirt, 0xA5, Qz_MemblkSize(dirt));
    Qz_MempoolFree(p, dirt);
    const size_t usedBefore = Qz_MempoolGetInfo(p).usedBytes;

    const size_t n = c.sizes.size();
    std::vector<void*> own(n);
    void** given = c.callerArray ? own.data() : nullptr;
    void** array = c.co ? Qz_MempoolIndependentCoMalloc(p, n, c.sizes.data(), given)
                        : Qz_MempoolIndependentCalloc(p, n, c.sizes[0], given);
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array == own.data(), c.callerArray);
    EXPECT_TRUE(LaidOut(array, c.sizes, !c.callerArray));
    for (size_t i = 0; i < n && !c.co; ++i) EXPECT_TRUE(AllZero(array[i], Qz_MemblkSize(array[i]))) << i;
    // Each element is a block in its own right: writable to its end.
    for (size_t i = 0; i < n; ++i) Fill(array[i], Qz_MemblkSize(array[i]), uint32_t(i));
    for (size_t i = 0; i < n; ++i) EXPECT_TRUE(Holds(array[i], Qz_MemblkSize(array[i]), uint32_t(i)));
    EXPECT_EQ(PoolProblem(p), "");

    FreeShuffled(p, array, n, !c.callerArray, seed++);
    EXPECT_EQ(PoolProblem(p), "");
    if (!c.cached) {
      EXPECT_EQ(Qz_MempoolGetInfo(p).usedBytes, usedBefore) << "every piece merged back";
    }
    Qz_DestroyMempool(p);
  }
}

TEST_F(Bulk, CountZeroAndRequestsThatGiveZeroAllocateNothing) {
  Qz_MempoolDisableThreadCache(pool);
  const QzMempoolInfo before = Qz_MempoolGetInfo(pool);
  // Count 0: the caller's array comes back untouched; without one, a block
  // stands for the empty array.
  void* mine[1] = {reinterpret_cast<void*>(0x1)};
  const size_t one = 8;
  EXPECT_EQ(Qz_MempoolIndependentCalloc(pool, 0, 8, mine), mine);
  EXPECT_EQ(Qz_MempoolIndependentCoMalloc(pool, 0, &one, mine), mine);
  EXPECT_EQ(Qz_MempoolIndependentCoMalloc(pool, 0, nullptr, mine), mine);
  EXPECT_EQ(mine[0], reinterpret_cast<void*>(0x1));
  for (void** empty :
       {Qz_MempoolIndependentCalloc(pool, 0, 8, nullptr), Qz_MempoolIndependentCoMalloc(pool, 0, nullptr, nullptr)}) {
    ASSERT_NE(empty, nullptr);
    EXPECT_GT(Qz_MemblkSize(empty), 0u);
    Qz_MempoolFree(pool, empty);
  }

  const size_t huge[] = {16, QZ_MAX_REQUEST};
  const size_t wrap[] = {~size_t(0) / 2, ~size_t(0) / 2, 64};
  EXPECT_EQ(Qz_MempoolIndependentCoMalloc(pool, 3, nullptr, nullptr), nullptr);
  EXPECT_EQ(Qz_MempoolIndependentCoMalloc(pool, 2, huge, nullptr), nullptr);
  EXPECT_EQ(Qz_MempoolIndependentCoMalloc(pool, 3, wrap, nullptr), nullptr);
  EXPECT_EQ(Qz_MempoolIndependentCalloc(pool, ~size_t(0) / 8, 64, nullptr), nullptr);
  EXPECT_EQ(Qz_MempoolIndependentCalloc(pool, 3, QZ_MAX_REQUEST, nullptr), nullptr);
  EXPECT_EQ(Qz_MempoolIndependentCalloc(pool, size_t(1) << (sizeof(size_t) * 8 - 4), 32, nullptr), nullptr);
  {
    qztest::FaultScope noMemory(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_EQ(Qz_MempoolIndependentCalloc(pool, 4, 4, nullptr), nullptr);
    EXPECT_EQ(Qz_MempoolIndependentCoMalloc(pool, 1, huge, nullptr), nullptr);
  }
  {
    // The system refuses: a request larger than top gets nothing.
    qztest::FaultScope noSystem(qzsys::QZ_FAULT_VIRTUAL_ALLOC);
    EXPECT_EQ(Qz_MempoolIndependentCalloc(pool, 64, before.topBytes / 32, nullptr), nullptr);
  }
  const QzMempoolInfo after = Qz_MempoolGetInfo(pool);
  EXPECT_EQ(after.usedBytes, before.usedBytes);
  EXPECT_EQ(after.totalBytes, before.totalBytes);
  EXPECT_EQ(PoolProblem(pool), "");
}

TEST_F(Bulk, AboveTheDirectThresholdComesFromTheHeap) {
  QzHeap* heap = pool->heaps[0].load();
  const uint32_t flags = heap->flags;
  ASSERT_TRUE(flags & QZ_HEAP_DIRECT);
  const size_t footprint = Qz_MempoolFootprint(pool);
  const size_t big = QzHeapParams.directThreshold.load() * 2;
  void** array = Qz_MempoolIndependentCalloc(pool, 2, big, nullptr);
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(heap->flags, flags);
  for (int i = 0; i < 2; ++i) {
    EXPECT_NE(QzHead(QzBlockToChunk(array[i])) & QZ_INUSE_BITS, 0u) << "directly mapped";
    EXPECT_EQ(QzBlockOwnerHeap(array[i]), heap);
  }
  // No mapping: what the walk misses is at most a closed segment's fenceposts.
  EXPECT_LT(Qz_MempoolGetInfo(pool).mappedBytes, QzHeapParams.granularity.load());
  EXPECT_GT(Qz_MempoolFootprint(pool), footprint);
  EXPECT_TRUE(LaidOut(array, {big, big}, true));
  FreeShuffled(pool, array, 2, true, 5);
  EXPECT_EQ(PoolProblem(pool), "");
}

TEST_F(Bulk, LongSizeListsAndHeapsAfterACorruptionReset) {
  std::vector<size_t> sizes(1000);
  for (size_t i = 0; i < sizes.size(); ++i) sizes[i] = (i * 37) % 300;
  const std::vector<size_t> copy = sizes;
  void** array = Qz_MempoolIndependentCoMalloc(pool, sizes.size(), sizes.data(), nullptr);
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(sizes, copy);  // the caller's list is only read
  EXPECT_TRUE(LaidOut(array, sizes, true));
  FreeShuffled(pool, array, sizes.size(), true, 9);
  EXPECT_EQ(PoolProblem(pool), "");

  // A heap that forgot its memory serves the next bulk request from fresh memory.
  QzHeap* heap = pool->heaps[0].load();
  QzHeapResetOnCorruption(heap);
  void** again = Qz_MempoolIndependentCalloc(pool, 100, 24, nullptr);
  ASSERT_NE(again, nullptr);
  EXPECT_NE(heap->top, nullptr);
  EXPECT_TRUE(LaidOut(again, std::vector<size_t>(100, 24), true));
  FreeShuffled(pool, again, 100, true, 10);
  EXPECT_EQ(PoolProblem(pool), "");
}

TEST_F(Bulk, ThreadsCarveAndFreeWhileStatisticsRead) {
  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < 2; ++t)
    workers.emplace_back([&, t] {
      for (int round = 0; round < 100; ++round) {
        const size_t sizes[] = {size_t(8 + t), 300, 20000, 40};
        const bool co = round & 1;
        void** a = co ? Qz_MempoolIndependentCoMalloc(pool, 4, sizes, nullptr)
                      : Qz_MempoolIndependentCalloc(pool, 50, 24 + 8 * t, nullptr);
        if (a == nullptr) {
          ++failures;
        } else {
          FreeShuffled(pool, a, co ? 4 : 50, true, unsigned(round));
        }
      }
      Qz_MempoolDisableThreadCache(pool);
    });
  std::thread reader([&] {
    while (!stop.load()) {
      if (Qz_MempoolGetInfo(pool).freeChunks == 0 || Qz_MempoolFootprint(pool) == 0) ++failures;
      Qz_MempoolTrim(pool, 0);
    }
  });
  for (std::thread& w : workers) w.join();
  stop.store(true);
  reader.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(PoolProblem(pool), "");
}

}  // namespace
