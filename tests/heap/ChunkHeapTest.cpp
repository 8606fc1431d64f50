// Chunk heap in one region: sizes, bins, reserve, top, merging, reallocation,
// aligned allocation.
#include <string.h>

#include "HeapTestSupport.h"

using namespace heaptest;

namespace {

constexpr size_t W = QZ_WORD;
constexpr size_t A = QZ_CHUNK_ALIGN;

TEST(HeapConstants, DerivedFromTheWord) {
  if (sizeof(void*) == 4) {
    EXPECT_EQ(8u, QZ_CHUNK_OVERHEAD);
    EXPECT_EQ(8u, QZ_CHUNK_ALIGN);
    EXPECT_EQ(16u, QZ_MIN_CHUNK);
    EXPECT_EQ(7u, QZ_MIN_REQUEST);
    EXPECT_EQ(256u, QZ_MIN_LARGE);
    EXPECT_EQ(240u, QZ_MAX_SMALL_REQUEST);
    EXPECT_EQ(0xFFFFFFC0u, QZ_MAX_REQUEST);
    EXPECT_EQ(8u, QZ_TREE_SHIFT);
    EXPECT_EQ(24u, QZ_SEGMENT_CHUNK);
    EXPECT_EQ(40u, QZ_TOP_FOOT);
    EXPECT_EQ(48u, QZ_GROW_PADDING);
    EXPECT_EQ(31u, QZ_DIRECT_PADDING);
    EXPECT_EQ(476u, sizeof(QzHeap));
    EXPECT_EQ(16u, sizeof(QzSegment));
    EXPECT_EQ(12u, sizeof(QzSpinLock));
    EXPECT_EQ(25u, QzTreeLeftShift(0));
    EXPECT_EQ(10u, QzTreeLeftShift(30));
  } else {
    EXPECT_EQ(16u, QZ_CHUNK_OVERHEAD);
    EXPECT_EQ(16u, QZ_CHUNK_ALIGN);
    EXPECT_EQ(32u, QZ_MIN_CHUNK);
    EXPECT_EQ(15u, QZ_MIN_REQUEST);
    EXPECT_EQ(512u, QZ_MIN_LARGE);
    EXPECT_EQ(480u, QZ_MAX_SMALL_REQUEST);
    EXPECT_EQ(~size_t(0) - 127, QZ_MAX_REQUEST);
    EXPECT_EQ(9u, QZ_TREE_SHIFT);
    EXPECT_EQ(48u, QZ_SEGMENT_CHUNK);
    EXPECT_EQ(80u, QZ_TOP_FOOT);
    EXPECT_EQ(96u, QZ_GROW_PADDING);
    EXPECT_EQ(63u, QZ_DIRECT_PADDING);
    EXPECT_EQ(928u, sizeof(QzHeap));
    EXPECT_EQ(56u, QzTreeLeftShift(0));
  }
  EXPECT_EQ(0u, QzTreeLeftShift(31));
}

TEST(HeapConstants, TreeBinBoundaries) {
  const size_t L = QZ_MIN_LARGE;
  EXPECT_EQ(0u, QzTreeBinIndex(L));
  EXPECT_EQ(0u, QzTreeBinIndex(L + L / 2 - 1));
  EXPECT_EQ(1u, QzTreeBinIndex(L + L / 2));
  EXPECT_EQ(1u, QzTreeBinIndex(2 * L - 1));
  EXPECT_EQ(2u, QzTreeBinIndex(2 * L));
  EXPECT_EQ(3u, QzTreeBinIndex(3 * L));
  EXPECT_EQ(30u, QzTreeBinIndex(L << 15));
  EXPECT_EQ(30u, QzTreeBinIndex((L << 15) + (L << 14) - 1));
  EXPECT_EQ(31u, QzTreeBinIndex((L << 15) + (L << 14)));
  for (unsigned i = 0; i < 31; ++i) {
    EXPECT_EQ(i, QzTreeBinIndex(QzTreeBinMinSize(i)));
    EXPECT_EQ(i, QzTreeBinIndex(QzTreeBinMinSize(i + 1) - 1));
  }
  if (sizeof(void*) == 4) {
    EXPECT_EQ(256u, QzTreeBinMinSize(0));
    EXPECT_EQ(384u, QzTreeBinMinSize(1));
    EXPECT_EQ(768u, QzTreeBinMinSize(3));
    EXPECT_EQ(8u << 20, QzTreeBinMinSize(30));
    EXPECT_EQ(12u << 20, QzTreeBinMinSize(31));
  }
}

TEST(HeapCreate, OneGranuleAndTop) {
  ScopedHeap h;
  ASSERT_NE(nullptr, h.get());
  EXPECT_EQ(Granule(), h->footprint);
  EXPECT_EQ(Granule(), h->maxFootprint);
  EXPECT_EQ(4095u, h->releaseCountdown);
  EXPECT_EQ(7u, h->flags);
  EXPECT_EQ(nullptr, h->owningPool);
  EXPECT_EQ(QzStamp(), h->magic);
  EXPECT_EQ(0u, (Addr(h.get()) - QZ_CHUNK_OVERHEAD) % 4096);  // the record is the first chunk's payload
  const size_t m = QzRequestToChunk(sizeof(QzHeap));
  EXPECT_EQ(Granule() - m - QZ_TOP_FOOT, h->topSize);
  EXPECT_EQ(Addr(h.get()) - QZ_CHUNK_OVERHEAD + m, Addr(h->top));
  EXPECT_HEAP_OK(h);
  const QzHeapCheckReport r = Report(h);
  EXPECT_EQ(1u, r.segments);
  EXPECT_EQ(1u, r.inUseChunks);  // the heap record itself
}

TEST(HeapCreate, CapacityOfOneGranuleNeedsTwo) {
  ScopedHeap h(Granule());
  ASSERT_NE(nullptr, h.get());
  EXPECT_EQ(2 * Granule(), h->footprint);
  void* big = QzHeapAlloc(h, Granule() - 4096);
  EXPECT_NE(nullptr, big);
  EXPECT_EQ(1u, Report(h).segments);
  EXPECT_HEAP_OK(h);
}

TEST(HeapCreate, ImpossibleCapacityGivesNull) {
  EXPECT_EQ(nullptr, QzHeapCreate(~size_t(0) - 100));
  EXPECT_EQ(nullptr, QzHeapCreate(~size_t(0) - QZ_TOP_FOOT - 4096 - 2000));
}

TEST(HeapSizes, RoundingAtTheSmallEnd) {
  ScopedHeap h;
  for (size_t n = 0; n <= QZ_MIN_CHUNK - QZ_CHUNK_OVERHEAD; ++n) {
    void* b = QzHeapAlloc(h, n);
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(QZ_MIN_CHUNK, ChunkSizeOf(b)) << n;
    EXPECT_EQ(QZ_MIN_CHUNK - QZ_CHUNK_OVERHEAD, QzBlockUsableSize(b));
    EXPECT_EQ(0u, Addr(b) % A);
  }
  void* b = QzHeapAlloc(h, QZ_MIN_CHUNK - QZ_CHUNK_OVERHEAD + 1);
  EXPECT_EQ(QZ_MIN_CHUNK + A, ChunkSizeOf(b));  // 9 bytes give 24 on i386
  if (sizeof(void*) == 4) {
    EXPECT_EQ(16u, QzRequestToChunk(0));
    EXPECT_EQ(16u, QzRequestToChunk(8));
    EXPECT_EQ(24u, QzRequestToChunk(9));
    EXPECT_EQ(248u, QzRequestToChunk(240));
    EXPECT_EQ(256u, QzRequestToChunk(241));
  }
  EXPECT_HEAP_OK(h);
}

TEST(HeapSizes, LargestSmallRequestAndFirstTreeRequest) {
  ScopedHeap h;
  void* a = QzHeapAlloc(h, QZ_MAX_SMALL_REQUEST);
  void* g1 = QzHeapAlloc(h, 1);
  void* b = QzHeapAlloc(h, QZ_MAX_SMALL_REQUEST + 1);
  void* g2 = QzHeapAlloc(h, 1);
  EXPECT_EQ(QZ_MAX_SMALL_SIZE, ChunkSizeOf(a));
  EXPECT_EQ(QZ_MIN_LARGE, ChunkSizeOf(b));
  QzHeapFree(a);
  QzHeapFree(b);
  EXPECT_EQ(1u << 31, h->smallMap);  // the last small bin
  EXPECT_EQ(1u, h->treeMap);         // tree bin 0
  EXPECT_HEAP_OK(h);
  EXPECT_EQ(a, QzHeapAlloc(h, QZ_MAX_SMALL_REQUEST));
  EXPECT_EQ(b, QzHeapAlloc(h, QZ_MAX_SMALL_REQUEST + 1));
  EXPECT_EQ(0u, h->smallMap);
  EXPECT_EQ(0u, h->treeMap);
  EXPECT_HEAP_OK(h);
  (void)g1;
  (void)g2;
}

TEST(HeapSizes, TooLargeRequestsGiveNull) {
  ScopedHeap h;
  const size_t before = h->footprint;
  EXPECT_EQ(nullptr, QzHeapAlloc(h, QZ_MAX_REQUEST - 1));  // tried, fails in growth
  EXPECT_EQ(nullptr, QzHeapAlloc(h, QZ_MAX_REQUEST));
  EXPECT_EQ(nullptr, QzHeapAlloc(h, ~size_t(0)));
  EXPECT_EQ(before, h->footprint);
  EXPECT_HEAP_OK(h);
}

TEST(HeapBins, NextBinIsTakenWholeNotSplit) {
  ScopedHeap h;
  void* a = QzHeapAlloc(h, 64 + A);  // chunk one step above that of 64
  void* guard = QzHeapAlloc(h, 1);
  QzHeapFree(a);
  EXPECT_HEAP_OK(h);
  void* b = QzHeapAlloc(h, 64);
  EXPECT_EQ(a, b);
  EXPECT_EQ(QzRequestToChunk(64) + A, ChunkSizeOf(b));
  EXPECT_EQ(0u, h->reserveSize);
  EXPECT_HEAP_OK(h);
  (void)guard;
}

TEST(HeapBins, SmallBinsAreLastInFirstOut) {
  ScopedHeap h;
  void* x[6];
  for (int i = 0; i < 6; ++i) x[i] = QzHeapAlloc(h, 40);
  QzHeapFree(x[0]);
  QzHeapFree(x[2]);
  QzHeapFree(x[4]);
  EXPECT_HEAP_OK(h);
  EXPECT_EQ(x[4], QzHeapAlloc(h, 40));
  EXPECT_EQ(x[2], QzHeapAlloc(h, 40));
  EXPECT_EQ(x[0], QzHeapAlloc(h, 40));
  EXPECT_HEAP_OK(h);
}

TEST(HeapBins, LargerSmallBinSplitsIntoReserve) {
  ScopedHeap h;
  void* a = QzHeapAlloc(h, 200);
  void* guard = QzHeapAlloc(h, 1);
  QzHeapFree(a);
  void* b = QzHeapAlloc(h, 20);
  EXPECT_EQ(a, b);
  EXPECT_EQ(QzRequestToChunk(200) - QzRequestToChunk(20), h->reserveSize);
  EXPECT_EQ(Addr(ChunkOf(a)) + QzRequestToChunk(20), Addr(h->reserve));
  EXPECT_HEAP_OK(h);
  // Next small requests are cut from reserve, side by side.
  void* c = QzHeapAlloc(h, 20);
  EXPECT_EQ(Addr(b) + QzRequestToChunk(20), Addr(c));
  EXPECT_HEAP_OK(h);
  (void)guard;
}

TEST(HeapTree, RemainderBelowMinimumIsHandedOutWhole) {
  ScopedHeap h;
  const size_t want = 1000;
  const size_t c = QzRequestToChunk(want);
  void* a = QzHeapAlloc(h, c + A - QZ_CHUNK_OVERHEAD);  // chunk c + one alignment step
  void* guard = QzHeapAlloc(h, 1);
  ASSERT_EQ(c + A, ChunkSizeOf(a));
  QzHeapFree(a);
  void* b = QzHeapAlloc(h, want);
  EXPECT_EQ(a, b);
  EXPECT_EQ(c + A - QZ_CHUNK_OVERHEAD, QzBlockUsableSize(b));
  EXPECT_GT(QzBlockUsableSize(b), want);
  EXPECT_HEAP_OK(h);
  (void)guard;
}

TEST(HeapTree, EqualSizesRingAndTieBreak) {
  ScopedHeap h;
  void* x[7];
  for (int i = 0; i < 7; ++i) x[i] = QzHeapAlloc(h, 3000);
  QzHeapFree(x[1]);  // first of its size: the tree node
  QzHeapFree(x[3]);  // joins the ring
  QzHeapFree(x[5]);  // joins the ring
  EXPECT_HEAP_OK(h);
  const unsigned bin = QzTreeBinIndex(ChunkSizeOf(x[0]));
  EXPECT_EQ(reinterpret_cast<QzTreeChunk*>(ChunkOf(x[1])), h->treeBins[bin]);
  EXPECT_EQ(x[1], QzHeapAlloc(h, 3000));  // the node goes first
  // Its prevFree neighbour takes its place in the tree.
  QzTreeChunk* root = h->treeBins[bin];
  EXPECT_TRUE(root == reinterpret_cast<QzTreeChunk*>(ChunkOf(x[3])) ||
              root == reinterpret_cast<QzTreeChunk*>(ChunkOf(x[5])));
  EXPECT_NE(nullptr, root->parent);
  EXPECT_HEAP_OK(h);
  void* y = QzHeapAlloc(h, 3000);
  EXPECT_EQ(reinterpret_cast<QzTreeChunk*>(ChunkOf(y)), root);
  EXPECT_HEAP_OK(h);
  void* z = QzHeapAlloc(h, 3000);
  EXPECT_TRUE(z == x[3] || z == x[5]);
  EXPECT_EQ(0u, h->treeMap);
  EXPECT_HEAP_OK(h);
}

TEST(HeapTree, BestFitAcrossManySizes) {
  ScopedHeap h;
  std::vector<void*> blocks;
  std::vector<size_t> sizes;
  for (size_t s = 600; s < 20000; s += 333) {
    blocks.push_back(QzHeapAlloc(h, s));
    sizes.push_back(s);
    QzHeapAlloc(h, 1);  // guard against merging
  }
  for (void* b : blocks) QzHeapFree(b);
  EXPECT_HEAP_OK(h);
  // Each request gets the smallest chunk that holds it.
  for (size_t i = 0; i < sizes.size(); ++i) {
    const size_t c = QzRequestToChunk(sizes[i]);
    void* b = QzHeapAlloc(h, sizes[i]);
    ASSERT_NE(nullptr, b);
    EXPECT_GE(ChunkSizeOf(b), c);
    EXPECT_EQ(blocks[i], b) << sizes[i];
    EXPECT_HEAP_OK(h);
  }
}

TEST(HeapMerge, FreeNextToReserveEnlargesReserve) {
  ScopedHeap h;
  void* big = QzHeapAlloc(h, 200);
  void* guard = QzHeapAlloc(h, 1);
  QzHeapFree(big);
  void* a = QzHeapAlloc(h, 20);  // reserve follows a
  ASSERT_EQ(big, a);
  const uint32_t smallMap = h->smallMap, treeMap = h->treeMap;
  const size_t before = h->reserveSize;
  QzHeapFree(a);
  EXPECT_EQ(ChunkOf(a), h->reserve);
  EXPECT_EQ(before + QzRequestToChunk(20), h->reserveSize);
  EXPECT_EQ(smallMap, h->smallMap);
  EXPECT_EQ(treeMap, h->treeMap);
  EXPECT_HEAP_OK(h);
  (void)guard;
}

TEST(HeapMerge, ReserveBlockAndTopJoinIntoTop) {
  ScopedHeap h;
  const size_t topBefore = h->topSize;
  QzChunk* start = h->top;
  void* big = QzHeapAlloc(h, 200);  // from top
  QzHeapFree(big);                   // straight back into top
  EXPECT_EQ(start, h->top);
  EXPECT_EQ(topBefore, h->topSize);
  void* a = QzHeapAlloc(h, 200);
  void* b = QzHeapAlloc(h, 40);  // the block between reserve and top
  void* guard0 = a;
  QzHeapFree(a);
  void* c = QzHeapAlloc(h, 20);  // splits a's chunk: reserve lies right before b
  ASSERT_EQ(guard0, c);
  ASSERT_EQ(Addr(h->reserve) + h->reserveSize, Addr(ChunkOf(b)));
  ASSERT_EQ(Addr(ChunkOf(b)) + ChunkSizeOf(b), Addr(h->top));
  QzHeapFree(b);
  EXPECT_EQ(nullptr, h->reserve);
  EXPECT_EQ(0u, h->reserveSize);
  EXPECT_EQ(Addr(ChunkOf(c)) + ChunkSizeOf(c), Addr(h->top));
  EXPECT_HEAP_OK(h);
  QzHeapFree(c);
  EXPECT_EQ(start, h->top);
  EXPECT_EQ(topBefore, h->topSize);
  EXPECT_HEAP_OK(h);
}

TEST(HeapMerge, BackwardAndForwardIntoOneChunk) {
  ScopedHeap h;
  void* x[5];
  for (int i = 0; i < 5; ++i) x[i] = QzHeapAlloc(h, 300);
  QzHeapFree(x[1]);
  QzHeapFree(x[3]);
  EXPECT_HEAP_OK(h);
  QzHeapFree(x[2]);  // joins both neighbours
  EXPECT_HEAP_OK(h);
  const QzHeapCheckReport r = Report(h);
  EXPECT_EQ(1u, r.freeChunks);
  EXPECT_EQ(3 * QzRequestToChunk(300), r.freeBytes);
}

TEST(HeapFree, DoubleFreeIsDropped) {
  ScopedHeap h;
  void* a = QzHeapAlloc(h, 100);
  void* b = QzHeapAlloc(h, 100);
  void* guard = QzHeapAlloc(h, 100);
  QzHeapFree(b);
  const QzHeapCheckReport before = Report(h);
  QzHeapFree(b);  // flagged free: dropped
  EXPECT_HEAP_OK(h);
  EXPECT_EQ(before.freeChunks, Report(h).freeChunks);
  QzHeapFree(a);  // a merges forward with b
  EXPECT_HEAP_OK(h);
  QzHeapFree(b);  // b's header is now stale inside a's chunk; dropped by the next flag
  EXPECT_HEAP_OK(h);
  (void)guard;
}

TEST(HeapFree, BadPointersAreDropped) {
  ScopedHeap h;
  void* a = QzHeapAlloc(h, 100);
  void* guard = QzHeapAlloc(h, 100);
  const QzHeapCheckReport before = Report(h);
  QzHeapFree(nullptr);
  QzHeapFree(static_cast<char*>(a) + 1);  // misaligned
  QzHeapFree(static_cast<char*>(a) + A);  // inside a block: its "footer" names no heap
  // A block of foreign memory with a header of its own.
  alignas(64) static size_t fake[64];
  fake[1] = (8 * W) | QZ_INUSE_BITS;
  fake[8] = 0x12345678;
  QzHeapFree(&fake[2]);
  // A footer overwritten past the end of a block.
  QzChunk* next = QzChunkAt(ChunkOf(a), ChunkSizeOf(a));
  const size_t saved = next->footWord;
  next->footWord ^= 0x5A5A0;
  QzHeapFree(a);
  next->footWord = saved;
  EXPECT_HEAP_OK(h);
  const QzHeapCheckReport after = Report(h);
  EXPECT_EQ(before.inUseChunks, after.inUseChunks);
  EXPECT_EQ(before.freeChunks, after.freeChunks);
  QzHeapFree(a);  // intact again: accepted
  EXPECT_EQ(before.inUseChunks - 1, Report(h).inUseChunks);
  EXPECT_HEAP_OK(h);
  (void)guard;
}

TEST(HeapFree, BlockOfAnotherHeapGoesToItsOwner) {
  ScopedHeap h1, h2;
  void* a = QzHeapAlloc(h1, 500);
  void* guard = QzHeapAlloc(h1, 1);
  EXPECT_EQ(h1.get(), QzBlockOwnerHeap(a));
  QzHeapFree(a);
  EXPECT_EQ(1u, Report(h1).freeChunks);
  EXPECT_EQ(0u, Report(h2).freeChunks);
  EXPECT_HEAP_OK(h1);
  EXPECT_HEAP_OK(h2);
  (void)guard;
}

TEST(HeapCreate, DestroyGivesEverythingBack) {
  const size_t regions = qzsys::QzVirtualAllocationCount();
  QzHeap* heap = QzHeapCreate(0);
  ASSERT_NE(nullptr, heap);
  EXPECT_TRUE(QzHeapIsLive(heap));
  EXPECT_EQ(regions + 1, qzsys::QzVirtualAllocationCount());
  QzHeapDestroy(heap);
  EXPECT_FALSE(QzHeapIsLive(heap));
  EXPECT_EQ(regions, qzsys::QzVirtualAllocationCount());
}

TEST(HeapRealloc, ShrinkKeepsOrGivesBackTheTail) {
  ScopedHeap h;
  void* a = QzHeapAlloc(h, 1000);
  void* guard = QzHeapAlloc(h, 1);
  const size_t s = ChunkSizeOf(a);
  // Less than a minimum chunk shorter: untouched.
  EXPECT_EQ(a, QzHeapRealloc(h, a, 1000 - (QZ_MIN_CHUNK - A)));
  EXPECT_EQ(s, ChunkSizeOf(a));
  EXPECT_EQ(0u, Report(h).freeChunks);
  // A minimum chunk shorter: the tail goes back.
  EXPECT_EQ(a, QzHeapRealloc(h, a, 1000 - QZ_MIN_CHUNK));
  EXPECT_EQ(s - QZ_MIN_CHUNK, ChunkSizeOf(a));
  EXPECT_EQ(1u, Report(h).freeChunks);
  EXPECT_HEAP_OK(h);
  (void)guard;
}

TEST(HeapRealloc, GrowsIntoTopInPlace) {
  ScopedHeap h;
  void* a = QzHeapAlloc(h, 100);
  memset(a, 0x5C, 100);
  void* b = QzHeapRealloc(h, a, 5000);
  EXPECT_EQ(a, b);
  EXPECT_EQ(QzRequestToChunk(5000), ChunkSizeOf(b));
  EXPECT_EQ(Addr(ChunkOf(b)) + ChunkSizeOf(b), Addr(h->top));
  for (int i = 0; i < 100; ++i) ASSERT_EQ(0x5C, static_cast<unsigned char*>(b)[i]);
  EXPECT_HEAP_OK(h);
}

TEST(HeapRealloc, MovesAndCopiesWhenBlocked) {
  ScopedHeap h;
  void* a = QzHeapAlloc(h, 100);
  void* guard = QzHeapAlloc(h, 1);
  for (int i = 0; i < 100; ++i) static_cast<unsigned char*>(a)[i] = static_cast<unsigned char>(i);
  void* b = QzHeapRealloc(h, a, 400);
  ASSERT_NE(nullptr, b);
  EXPECT_NE(a, b);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(i, static_cast<unsigned char*>(b)[i]);
  EXPECT_EQ(0u, QzBlockUsableSize(a));  // the old chunk is free
  EXPECT_HEAP_OK(h);
  (void)guard;
}

TEST(HeapRealloc, BadRequestsGiveNullAndKeepTheBlock) {
  ScopedHeap h;
  void* a = QzHeapAlloc(h, 100);
  void* b = QzHeapAlloc(h, 100);
  memset(a, 0x11, 100);
  EXPECT_EQ(nullptr, QzHeapRealloc(h, a, QZ_MAX_REQUEST));
  QzHeapFree(b);
  EXPECT_EQ(nullptr, QzHeapRealloc(h, b, 50));  // already free
  ScopedHeap other;
  EXPECT_EQ(nullptr, QzHeapRealloc(other, a, 50));  // not that heap's block
  EXPECT_EQ(0x11, static_cast<unsigned char*>(a)[99]);
  EXPECT_HEAP_OK(h);
  EXPECT_HEAP_OK(other);
}

TEST(HeapAligned, AlignmentRules) {
  ScopedHeap h;
  // At most the natural alignment: the plain path.
  void* p = QzHeapAlignedAlloc(h, A, 100);
  EXPECT_EQ(QzRequestToChunk(100), ChunkSizeOf(p));
  // A non-power of two is raised: 24 gives 32.
  for (int i = 0; i < 8; ++i) {
    void* q = QzHeapAlignedAlloc(h, 24, 40);
    ASSERT_NE(nullptr, q);
    EXPECT_EQ(0u, Addr(q) % 32);
    EXPECT_HEAP_OK(h);
  }
  for (size_t align = 2 * A; align <= 65536; align <<= 1) {
    void* q = QzHeapAlignedAlloc(h, align, 1000);
    ASSERT_NE(nullptr, q);
    EXPECT_EQ(0u, Addr(q) % align) << align;
    EXPECT_GE(QzBlockUsableSize(q), 1000u);
    EXPECT_LE(ChunkSizeOf(q), QzRequestToChunk(1000) + QZ_MIN_CHUNK);
    EXPECT_HEAP_OK(h);
    QzHeapFree(q);
    EXPECT_HEAP_OK(h);
  }
  EXPECT_EQ(nullptr, QzHeapAlignedAlloc(h, 64, QZ_MAX_REQUEST - 64));
  EXPECT_EQ(nullptr, QzHeapAlignedAlloc(h, ~size_t(0), 10));
}

TEST(HeapAligned, FittingBlockHasNoLeader) {
  ScopedHeap h;
  // Move top so that the next block lands on a 2A boundary.
  void* first = QzHeapAlloc(h, 1);
  if (Addr(h->top) % (2 * A) != (2 * A - QZ_CHUNK_OVERHEAD) % (2 * A)) QzHeapAlloc(h, 1);
  (void)first;
  const QzChunk* expected = h->top;
  const size_t inUse = Report(h).inUseChunks;
  void* q = QzHeapAlignedAlloc(h, 2 * A, 64);
  EXPECT_EQ(0u, Addr(q) % (2 * A));
  EXPECT_EQ(expected, ChunkOf(q));  // no leader in front of it
  EXPECT_EQ(inUse + 1, Report(h).inUseChunks);
  EXPECT_EQ(QzRequestToChunk(64), ChunkSizeOf(q));  // the trailer went back
  EXPECT_HEAP_OK(h);
}

TEST(HeapAligned, LeaderAndTrailerGoBack) {
  ScopedHeap h;
  QzHeapAlloc(h, 1);
  void* q = QzHeapAlignedAlloc(h, 4096, 200);
  ASSERT_NE(nullptr, q);
  EXPECT_EQ(0u, Addr(q) % 4096);
  EXPECT_EQ(QzRequestToChunk(200), ChunkSizeOf(q));
  EXPECT_HEAP_OK(h);
  QzHeapFree(q);
  EXPECT_HEAP_OK(h);
}

}  // namespace
