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
      {"calloc size 1 cached", false, std::vector<size_t>(33, 1), false, true},
      {"calloc 100 into caller array", false, std::vector<size_t>(10, 100), true, false},
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
  // Count 0 without an array: a block stands for the empty array.
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

}  // namespace
