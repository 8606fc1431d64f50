// Chunk heap in one region: sizes, bins, reserve, top, merging, reallocation,
// aligned allocation, and the frees it must refuse.
#include <string.h>

#include "HeapTestSupport.h"

using namespace heaptest;

namespace {

constexpr size_t A = QZ_CHUNK_ALIGN;

// A freed block with an allocated guard behind it, so it stays out of top.
void* FreedBlock(QzHeap* h, size_t n) {
  void* b = QzHeapAlloc(h, n);
  QzHeapAlloc(h, 1);
  QzHeapFree(b);
  return b;
}

TEST(HeapCreate, LayoutCapacityAndDestroy) {
  const size_t regions = qzsys::QzVirtualAllocationCount();
  QzHeap* h = QzHeapCreate(0);
  ASSERT_NE(nullptr, h);
  EXPECT_EQ(regions + 1, qzsys::QzVirtualAllocationCount());
  EXPECT_EQ(Granule(), h->footprint);
  EXPECT_EQ(Granule() - QzRequestToChunk(sizeof(QzHeap)) - QZ_TOP_FOOT, h->topSize);
  EXPECT_HEAP_OK(h);
  EXPECT_EQ(1u, Report(h).inUseChunks);
  QzHeapDestroy(h);
  EXPECT_FALSE(QzHeapIsLive(h));
  EXPECT_EQ(regions, qzsys::QzVirtualAllocationCount());
  // A capacity of one granule cannot fit beside the record and the tail.
  ScopedHeap g(Granule());
  EXPECT_EQ(2 * Granule(), g->footprint);
  EXPECT_NE(nullptr, QzHeapAlloc(g, Granule() - 4096));
  EXPECT_EQ(nullptr, QzHeapCreate(~size_t(0) - QZ_TOP_FOOT - 4096 - 2000));
}

TEST(HeapSizes, RoundingAtTheBinBoundaries) {
  struct Row { size_t request, chunk; } rows[] = {
      {0, QZ_MIN_CHUNK}, {QZ_MIN_REQUEST, QZ_MIN_CHUNK}, {QZ_MIN_CHUNK - QZ_CHUNK_OVERHEAD, QZ_MIN_CHUNK},
      {QZ_MIN_CHUNK - QZ_CHUNK_OVERHEAD + 1, QZ_MIN_CHUNK + A},
      {QZ_MAX_SMALL_REQUEST, QZ_MAX_SMALL_SIZE}, {QZ_MAX_SMALL_REQUEST + 1, QZ_MIN_LARGE},
  };
  ScopedHeap h;
  for (const Row& r : rows) {
    void* b = QzHeapAlloc(h, r.request);
    ASSERT_NE(nullptr, b) << r.request;
    EXPECT_EQ(r.chunk, ChunkSizeOf(b)) << r.request;
    EXPECT_EQ(r.chunk - QZ_CHUNK_OVERHEAD, QzBlockUsableSize(b)) << r.request;
  }
  // The largest small chunk goes to the last small bin, the next to tree bin 0.
  void* a = QzHeapAlloc(h, QZ_MAX_SMALL_REQUEST);
  QzHeapAlloc(h, 1);
  void* b = FreedBlock(h, QZ_MAX_SMALL_REQUEST + 1);
  QzHeapFree(a);
  EXPECT_EQ(1u << 31, h->smallMap);
  EXPECT_EQ(1u, h->treeMap);
  EXPECT_HEAP_OK(h);
  EXPECT_EQ(a, QzHeapAlloc(h, QZ_MAX_SMALL_REQUEST));
  EXPECT_EQ(b, QzHeapAlloc(h, QZ_MAX_SMALL_REQUEST + 1));
  EXPECT_EQ(0u, h->smallMap | h->treeMap);
  // Too large: 0, and nothing taken from the system.
  const size_t before = h->footprint;
  for (size_t n : {QZ_MAX_REQUEST - 1, QZ_MAX_REQUEST, ~size_t(0)}) EXPECT_EQ(nullptr, QzHeapAlloc(h, n)) << n;
  EXPECT_EQ(before, h->footprint);
  EXPECT_HEAP_OK(h);
}

TEST(HeapBins, ExactNextBinAndLastInFirstOut) {
  ScopedHeap h;
  // A chunk one step larger is taken whole, never split.
  void* a = FreedBlock(h, 64 + A);
  EXPECT_EQ(a, QzHeapAlloc(h, 64));
  void* x[6];
  for (void*& p : x) p = QzHeapAlloc(h, 40);
  for (int i : {0, 2, 4}) QzHeapFree(x[i]);
  EXPECT_HEAP_OK(h);
  for (int i : {4, 2, 0}) EXPECT_EQ(x[i], QzHeapAlloc(h, 40)) << i;
  EXPECT_HEAP_OK(h);
}

TEST(HeapBins, SplitFeedsReserveAndFreesMergeIntoReserveAndTop) {
  ScopedHeap h;
  const size_t topBefore = h->topSize;
  QzChunk* start = h->top;
  void* big = QzHeapAlloc(h, 200);
  void* b = QzHeapAlloc(h, 40);  // the last block before top
  QzHeapFree(big);
  void* a = QzHeapAlloc(h, 20);  // splits big; the rest becomes reserve
  ASSERT_EQ(big, a);
  const size_t rest = QzRequestToChunk(200) - QzRequestToChunk(20);
  EXPECT_EQ(rest, h->reserveSize);
  EXPECT_EQ(Addr(ChunkOf(a)) + QzRequestToChunk(20), Addr(h->reserve));
  void* c = QzHeapAlloc(h, 20);  // cut from reserve, right behind
  EXPECT_EQ(Addr(a) + QzRequestToChunk(20), Addr(c));
  QzHeapFree(c);  // joins reserve, no bin touched
  EXPECT_EQ(ChunkOf(c), h->reserve);
  EXPECT_EQ(rest, h->reserveSize);
  EXPECT_HEAP_OK(h);
  QzHeapFree(b);  // reserve, b and top become top
  EXPECT_EQ(nullptr, h->reserve);
  EXPECT_EQ(Addr(ChunkOf(a)) + ChunkSizeOf(a), Addr(h->top));
  EXPECT_HEAP_OK(h);
  QzHeapFree(a);
  EXPECT_EQ(start, h->top);
  EXPECT_EQ(topBefore, h->topSize);
}

TEST(HeapTree, ShortRemainderRingsAndBestFit) {
  ScopedHeap h;
  // A remainder below the minimum chunk stays with the block.
  const size_t c = QzRequestToChunk(1000);
  void* a = FreedBlock(h, c + A - QZ_CHUNK_OVERHEAD);
  EXPECT_EQ(a, QzHeapAlloc(h, 1000));
  EXPECT_EQ(c + A - QZ_CHUNK_OVERHEAD, QzBlockUsableSize(a));
  // Equal sizes: the first freed is the tree node and goes first; a ring
  // member takes its place and is taken next.
  void* x[7];
  for (void*& p : x) p = QzHeapAlloc(h, 3000);
  for (int i : {1, 3, 5}) QzHeapFree(x[i]);
  EXPECT_HEAP_OK(h);
  const unsigned bin = QzTreeBinIndex(ChunkSizeOf(x[0]));
  EXPECT_EQ(reinterpret_cast<QzTreeChunk*>(ChunkOf(x[1])), h->treeBins[bin]);
  EXPECT_EQ(x[1], QzHeapAlloc(h, 3000));
  QzTreeChunk* root = h->treeBins[bin];
  EXPECT_TRUE(root == reinterpret_cast<QzTreeChunk*>(ChunkOf(x[3])) ||
              root == reinterpret_cast<QzTreeChunk*>(ChunkOf(x[5])));
  EXPECT_HEAP_OK(h);
  EXPECT_EQ(reinterpret_cast<QzTreeChunk*>(ChunkOf(QzHeapAlloc(h, 3000))), root);
  void* z = QzHeapAlloc(h, 3000);
  EXPECT_TRUE(z == x[3] || z == x[5]);
  EXPECT_EQ(0u, h->treeMap);
  EXPECT_HEAP_OK(h);
  // Each request gets the smallest free chunk that holds it.
  std::vector<void*> blocks;
  for (size_t s = 600; s < 20000; s += 333) {
    blocks.push_back(QzHeapAlloc(h, s));
    QzHeapAlloc(h, 1);
  }
  for (void* b : blocks) QzHeapFree(b);
  for (size_t i = 0, s = 600; s < 20000; ++i, s += 333) {
    ASSERT_EQ(blocks[i], QzHeapAlloc(h, s)) << s;
    ASSERT_HEAP_OK(h) << s;
  }
}

TEST(HeapFree, BadFreesAreDroppedAndOwnersFound) {
  ScopedHeap h, other;
  void* a = QzHeapAlloc(h, 100);
  void* b = QzHeapAlloc(h, 100);
  QzHeapAlloc(h, 100);
  QzHeapFree(b);
  const QzHeapCheckReport before = Report(h);
  alignas(64) static size_t fake[64];  // foreign memory with a header of its own
  fake[1] = (8 * QZ_WORD) | QZ_INUSE_BITS;
  fake[8] = 0x12345678;
  struct Row { const char* name; void* p; } rows[] = {
      {"null", nullptr}, {"already free", b}, {"misaligned", static_cast<char*>(a) + 1},
      {"inside a block", static_cast<char*>(a) + A}, {"foreign", &fake[2]},
  };
  for (const Row& r : rows) {
    QzHeapFree(r.p);
    ASSERT_HEAP_OK(h) << r.name;
    EXPECT_EQ(before.inUseChunks, Report(h).inUseChunks) << r.name;
  }
  // An overwritten footer: dropped until it is intact again.
  QzChunk* next = QzChunkAt(ChunkOf(a), ChunkSizeOf(a));
  const size_t saved = next->footWord;
  next->footWord ^= 0x5A5A0;
  QzHeapFree(a);
  next->footWord = saved;
  EXPECT_EQ(before.inUseChunks, Report(h).inUseChunks);
  EXPECT_EQ(h.get(), QzBlockOwnerHeap(a));
  QzHeapFree(a);  // merges forward with b
  EXPECT_EQ(before.inUseChunks - 1, Report(h).inUseChunks);
  QzHeapFree(b);  // a stale header inside a free chunk
  EXPECT_HEAP_OK(h);
  EXPECT_HEAP_OK(other);
}

TEST(HeapRealloc, ShrinkGrowMoveAndRefuse) {
  ScopedHeap h;
  void* a = QzHeapAlloc(h, 1000);
  QzHeapAlloc(h, 1);
  void* dead = QzHeapAlloc(h, 100);
  const size_t s = ChunkSizeOf(a);
  // Less than a minimum chunk shorter keeps the chunk; a minimum chunk gives the tail back.
  EXPECT_EQ(a, QzHeapRealloc(h, a, 1000 - (QZ_MIN_CHUNK - A)));
  EXPECT_EQ(s, ChunkSizeOf(a));
  EXPECT_EQ(0u, Report(h).freeChunks);
  EXPECT_EQ(a, QzHeapRealloc(h, a, 1000 - QZ_MIN_CHUNK));
  EXPECT_EQ(s - QZ_MIN_CHUNK, ChunkSizeOf(a));
  EXPECT_EQ(1u, Report(h).freeChunks);
  // Blocked: moves and frees the old chunk.
  static_cast<unsigned char*>(a)[99] = 99;
  void* m = QzHeapRealloc(h, a, 4000);
  ASSERT_NE(a, m);
  EXPECT_EQ(0u, QzBlockUsableSize(a));
  // Next to top: grows in place.
  EXPECT_EQ(Addr(ChunkOf(m)) + ChunkSizeOf(m), Addr(h->top));
  EXPECT_EQ(m, QzHeapRealloc(h, m, 9000));
  EXPECT_EQ(QzRequestToChunk(9000), ChunkSizeOf(m));
  EXPECT_EQ(99, static_cast<unsigned char*>(m)[99]);
  // Refused: 0, the block stays as it was.
  ScopedHeap other;
  EXPECT_EQ(nullptr, QzHeapRealloc(h, m, QZ_MAX_REQUEST));
  EXPECT_EQ(nullptr, QzHeapRealloc(other, m, 50));
  QzHeapFree(dead);
  EXPECT_EQ(nullptr, QzHeapRealloc(h, dead, 50));
  EXPECT_EQ(99, static_cast<unsigned char*>(m)[99]);
  EXPECT_HEAP_OK(h);
  EXPECT_HEAP_OK(other);
}

TEST(HeapAligned, AlignmentLeaderAndTrailer) {
  ScopedHeap h;
  EXPECT_EQ(QzRequestToChunk(100), ChunkSizeOf(QzHeapAlignedAlloc(h, A, 100)));  // the plain path
  // Already on the boundary: no leader, and the trailer goes back.
  if (Addr(h->top) % (2 * A) != (2 * A - QZ_CHUNK_OVERHEAD) % (2 * A)) QzHeapAlloc(h, 1);
  const QzChunk* expected = h->top;
  void* q = QzHeapAlignedAlloc(h, 2 * A, 64);
  EXPECT_EQ(expected, ChunkOf(q));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(0u, Addr(QzHeapAlignedAlloc(h, 24, 40)) % 32);  // raised to 32
  // Leader and trailer go back whole.
  for (size_t align : {4096, 65536}) {
    void* p = QzHeapAlignedAlloc(h, align, 200);
    EXPECT_EQ(0u, Addr(p) % align) << align;
    EXPECT_EQ(QzRequestToChunk(200), ChunkSizeOf(p)) << align;
    ASSERT_HEAP_OK(h) << align;
  }
  EXPECT_EQ(nullptr, QzHeapAlignedAlloc(h, 64, QZ_MAX_REQUEST - 64));
  EXPECT_EQ(nullptr, QzHeapAlignedAlloc(h, ~size_t(0), 10));
  EXPECT_HEAP_OK(h);
}

}  // namespace
