// Growth: appending, prepending and adding segments; direct mappings;
// trimming; release of unused segments; system failures; corruption resets.
#include <string.h>

#include <vector>

#include "HeapTestSupport.h"

using namespace heaptest;

namespace {

// A chunk size that top of a fresh heap can never give in one piece but that
// stays below the direct-mapping threshold.
constexpr size_t kStep = 200 * 1024;
constexpr size_t A = QZ_CHUNK_ALIGN;

// Allocates kStep blocks until the next one would need new memory.
std::vector<void*> FillTop(QzHeap* heap) {
  std::vector<void*> blocks;
  while (heap->topSize > QzRequestToChunk(kStep)) blocks.push_back(QzHeapAlloc(heap, kStep));
  return blocks;
}

// A heap whose first region lies `granules` granules into a known free range;
// later regions go where Next() says. Thresholds come back afterwards.
struct Placed {
  ParamsScope params;
  Placement place;
  const size_t G = Granule();
  QzHeap* h;
  explicit Placed(size_t granules) {
    Next(granules);
    h = QzHeapCreate(0);
  }
  ~Placed() { QzHeapDestroy(h); }
  void Next(size_t granules) { place.Queue(granules * G); }
  uintptr_t At(size_t granules) const { return place.base() + granules * G; }
};

TEST(HeapGrowth, NeighbouringRegionsJoinTheSegment) {
  Placed p(8);
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -3, -1));  // big requests take segments
  ASSERT_EQ(p.At(8), Addr(p.h) - QZ_CHUNK_OVERHEAD);
  // Appended: top grows and serves the request.
  FillTop(p.h);
  QzChunk* oldTop = p.h->top;
  p.Next(9);
  EXPECT_EQ(oldTop, ChunkOf(QzHeapAlloc(p.h, kStep)));
  EXPECT_EQ(2 * p.G, p.h->firstSegment.size);
  // Prepended: the request sits at the region's start, the rest is free.
  FillTop(p.h);
  p.Next(7);
  void* b = QzHeapAlloc(p.h, kStep);
  ASSERT_EQ(p.At(7) + QZ_CHUNK_OVERHEAD, Addr(b));
  EXPECT_EQ(p.At(7), p.h->firstSegment.base);
  EXPECT_EQ(p.G - QzRequestToChunk(kStep), Report(p.h).freeBytes);
  QzHeapFree(b);  // [7G, 8G) is one free chunk now
  ASSERT_EQ(p.G, Report(p.h).freeBytes);
  // Fits nowhere: two granules go right before it and their rest joins it.
  p.Next(5);
  void* c = QzHeapAlloc(p.h, p.G + p.G / 2);
  ASSERT_EQ(p.At(5) + QZ_CHUNK_OVERHEAD, Addr(c));
  const QzHeapCheckReport r = Report(p.h);
  EXPECT_EQ(1u, r.segments);
  EXPECT_EQ(3 * p.G - ChunkSizeOf(c), r.freeBytes);
  EXPECT_EQ(5 * p.G, p.h->firstSegment.size);
  EXPECT_HEAP_OK(p.h);
}

TEST(HeapGrowth, DirectMappings) {
  ParamsScope params;
  ScopedHeap h;
  const size_t G = Granule();
  const size_t threshold = QzHeapParams.directThreshold.load();
  FillTop(h);
  const size_t before = h->footprint;
  // A chunk of exactly the threshold gets a mapping of its own.
  void* d = QzHeapAlloc(h, threshold - QZ_CHUNK_OVERHEAD);
  ASSERT_NE(nullptr, d);
  EXPECT_EQ(0u, ChunkOf(d)->sizeWord & QZ_FLAG_BITS);
  EXPECT_EQ(G - QZ_DIRECT_FOOT - QZ_CHUNK_OVERHEAD, QzBlockUsableSize(d));
  EXPECT_EQ(before + G, h->footprint);
  QzHeapFree(d);
  EXPECT_EQ(before, h->footprint);
  // Whole granules; a reallocation within the slack stays, a small one moves back.
  d = QzHeapAlloc(h, 3 * G);
  EXPECT_EQ(before + 4 * G, h->footprint);
  EXPECT_EQ(d, QzHeapRealloc(h, d, 3 * G + 4096));
  EXPECT_NE(d, QzHeapRealloc(h, d, 1000));
  EXPECT_EQ(before, h->footprint);
  // Aligned: the region goes back from its true start.
  d = QzHeapAlignedAlloc(h, 65536, 2 * G);
  EXPECT_EQ(0u, Addr(d) % 65536);
  EXPECT_EQ(0u, ChunkOf(d)->sizeWord & QZ_INUSE_BITS);
  QzHeapFree(d);
  EXPECT_EQ(before, h->footprint);
  EXPECT_HEAP_OK(h);
  // One alignment step below the threshold, or with mapping off: a segment.
  void* e = QzHeapAlloc(h, threshold - QZ_CHUNK_OVERHEAD - A);
  EXPECT_NE(0u, ChunkOf(e)->sizeWord & QZ_INUSE_BITS);
  EXPECT_EQ(before + G, h->footprint);
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -3, -1));
  EXPECT_NE(0u, ChunkOf(QzHeapAlloc(h, 3 * G))->sizeWord & QZ_INUSE_BITS);
  EXPECT_HEAP_OK(h);
}

TEST(HeapGrowth, UnrelatedRegionsCloseSegmentsUnusedOnesGoBackTopTrims) {
  Placed p(4);
  FillTop(p.h);
  const size_t oldTopSize = p.h->topSize;
  p.Next(10);  // segment B, closes the first
  std::vector<void*> inB{QzHeapAlloc(p.h, kStep)};
  EXPECT_EQ(p.At(10) + QZ_CHUNK_OVERHEAD, Addr(inB[0]));
  ASSERT_NE(nullptr, p.h->firstSegment.next);
  EXPECT_EQ(p.At(4), p.h->firstSegment.next->base);
  QzHeapCheckReport r = Report(p.h);
  EXPECT_EQ(1u, r.closedSegments);
  // The old top, less the record chunk and the fenceposts, is in the bins,
  // usable up to the record and never merged across the fenceposts.
  EXPECT_EQ(oldTopSize + QZ_TOP_FOOT - QZ_SEGMENT_CHUNK - r.fenceposts * QZ_WORD - QZ_WORD, r.freeBytes);
  void* c = QzHeapAlloc(p.h, r.freeBytes - QZ_CHUNK_OVERHEAD);
  EXPECT_EQ(Addr(ChunkOf(c)) + ChunkSizeOf(c), Addr(p.h->firstSegment.next) - QZ_CHUNK_OVERHEAD);
  QzHeapFree(c);
  EXPECT_HEAP_OK(p.h);
  std::vector<void*> more = FillTop(p.h);
  inB.insert(inB.end(), more.begin(), more.end());
  p.Next(20);  // segment C, closes B
  void* c0 = QzHeapAlloc(p.h, kStep);
  EXPECT_EQ(3u, Report(p.h).segments);
  const size_t before = p.h->footprint;
  for (size_t i = 0; i + 1 < inB.size(); ++i) QzHeapFree(inB[i]);
  EXPECT_EQ(before, p.h->footprint);
  p.h->releaseCountdown = 1;  // the next tree free looks for unused segments
  QzHeapFree(inB.back());
  EXPECT_EQ(before - p.G, p.h->footprint);
  EXPECT_HEAP_OK(p.h);
  // Granules appended to top's segment go back once top passes the trim
  // threshold, all but one.
  std::vector<void*> inC{c0};
  for (size_t k = 21; k < 24; ++k) {
    std::vector<void*> more = FillTop(p.h);
    inC.insert(inC.end(), more.begin(), more.end());
    p.Next(k);
    inC.push_back(QzHeapAlloc(p.h, kStep));
  }
  for (void* b : inC) {
    QzHeapFree(b);
    ASSERT_HEAP_OK(p.h);
  }
  EXPECT_EQ(p.G, p.h->firstSegment.size);
  EXPECT_EQ(2 * p.G, p.h->footprint);
  EXPECT_LE(p.h->topSize, p.G);
}

// A segment whose first chunk is reserve: a region placed right before it
// serves the request at its start and hands the rest to reserve.
TEST(HeapGrowth, PrependingOntoReserve) {
  Placed p(4);
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -3, -1));
  FillTop(p.h);
  p.Next(20);
  void* x = QzHeapAlloc(p.h, kStep);  // first chunk of segment B
  ASSERT_EQ(p.At(20) + QZ_CHUNK_OVERHEAD, Addr(x));
  QzHeapAlloc(p.h, Report(p.h).freeBytes - QZ_CHUNK_OVERHEAD);  // the closed segment's rest, so x is the only tree chunk
  QzHeapAlloc(p.h, 100);  // keeps x apart from top
  QzHeapFree(x);
  QzHeapFree(QzHeapAlloc(p.h, 100));  // split from x, reserve behind it; freed, joins reserve
  ASSERT_EQ(ChunkOf(x), p.h->reserve);
  const size_t reserveSize = p.h->reserveSize;
  p.Next(17);
  void* b = QzHeapAlloc(p.h, 2 * p.G + p.G / 2);
  ASSERT_EQ(p.At(17) + QZ_CHUNK_OVERHEAD, Addr(b));
  EXPECT_EQ(Addr(ChunkOf(b)) + ChunkSizeOf(b), Addr(p.h->reserve));
  EXPECT_EQ(reserveSize + (p.At(20) - Addr(p.h->reserve)), p.h->reserveSize);
  QzHeapFree(b);  // back in front of reserve: the two join
  EXPECT_EQ(ChunkOf(b), p.h->reserve);
  EXPECT_EQ(p.At(20) + reserveSize - Addr(ChunkOf(b)), p.h->reserveSize);
  EXPECT_HEAP_OK(p.h);
}

TEST(HeapFailure, DirectMappingFailsAndASegmentServesTheRequest) {
  ScopedHeap h;
  const size_t G = Granule();
  const size_t footprint = h->footprint;
  void* b;
  {
    qztest::FaultScope fail(qzsys::QZ_FAULT_VIRTUAL_ALLOC, 0, 1);  // the mapping only
    b = QzHeapAlloc(h, 3 * G);
    EXPECT_EQ(1u, fail.hits());
  }
  ASSERT_NE(nullptr, b);
  EXPECT_NE(0u, ChunkOf(b)->sizeWord & QZ_INUSE_BITS);  // an ordinary chunk, not a mapping
  EXPECT_EQ(footprint + 4 * G, h->footprint);
  EXPECT_EQ(2u, Report(h).segments);
  EXPECT_HEAP_OK(h);
  QzHeapFree(b);
  EXPECT_HEAP_OK(h);
}

// A closed segment that became one free chunk: a failing release puts the
// chunk back into its bin, and a later one gives the segment back.
TEST(HeapFailure, ReleaseOfAnUnusedSegmentFailsAndTheChunkGoesBack) {
  Placed p(4);
  FillTop(p.h);
  p.Next(10);
  std::vector<void*> inB{QzHeapAlloc(p.h, kStep)};
  std::vector<void*> more = FillTop(p.h);
  inB.insert(inB.end(), more.begin(), more.end());
  p.Next(20);
  ASSERT_NE(nullptr, QzHeapAlloc(p.h, kStep));
  for (void* b : inB) QzHeapFree(b);
  const size_t footprint = p.h->footprint;
  const QzHeapCheckReport before = Report(p.h);
  ASSERT_EQ(3u, before.segments);
  QzSpinLockAcquire(&p.h->lock);
  {
    qztest::FaultScope fail(qzsys::QZ_FAULT_VIRTUAL_FREE);
    EXPECT_EQ(0u, QzHeapReleaseUnused(p.h));
    EXPECT_GT(fail.hits(), 0u);
  }
  EXPECT_EQ(footprint, p.h->footprint);
  EXPECT_HEAP_OK(p.h);
  EXPECT_EQ(before.freeBytes, Report(p.h).freeBytes);
  EXPECT_EQ(p.G, QzHeapReleaseUnused(p.h));
  QzSpinLockRelease(&p.h->lock);
  EXPECT_EQ(footprint - p.G, p.h->footprint);
  EXPECT_HEAP_OK(p.h);
}

TEST(HeapFailure, VirtualAllocFailingLeavesTheHeapIntact) {
  ScopedHeap h;
  std::vector<void*> blocks = FillTop(h);
  const size_t footprint = h->footprint;
  {
    qztest::FaultScope fail(qzsys::QZ_FAULT_VIRTUAL_ALLOC);
    EXPECT_EQ(nullptr, QzHeapAlloc(h, kStep));
    EXPECT_EQ(nullptr, QzHeapAlloc(h, 4 * Granule()));  // direct mapping, then a segment: both fail
    EXPECT_EQ(nullptr, QzHeapAlignedAlloc(h, 4096, kStep));
    EXPECT_EQ(nullptr, QzHeapRealloc(h, blocks[0], 2 * kStep));
    EXPECT_EQ(nullptr, QzHeapCreate(0));
    EXPECT_GE(fail.hits(), 5u);
  }
  EXPECT_EQ(footprint, h->footprint);
  EXPECT_HEAP_OK(h);
  EXPECT_NE(nullptr, QzHeapAlloc(h, kStep));
  EXPECT_HEAP_OK(h);
}

// A write after free breaks a link: the heap counts it, forgets its memory
// and starts again from fresh system memory.
TEST(HeapCorruption, BrokenLinksResetTheHeap) {
  struct Row { const char* name; size_t size; int victim; } rows[] = {
      {"small bin head", 40, 2}, {"tree ring", 2000, 0},
  };
  for (const Row& r : rows) {
    ScopedHeap h;
    void* x[4];
    for (void*& p : x) p = QzHeapAlloc(h, r.size);
    QzHeapFree(x[0]);
    QzHeapFree(x[2]);
    const uint32_t errors = corruptionErrors.load();
    const size_t footprint = h->footprint;
    ChunkOf(x[r.victim])->nextFree = reinterpret_cast<QzChunk*>(64);
    QzHeapAlloc(h, r.size);
    EXPECT_EQ(errors + 1, corruptionErrors.load()) << r.name;
    EXPECT_EQ(nullptr, h->top) << r.name;
    ASSERT_NE(nullptr, QzHeapAlloc(h, r.size)) << r.name;
    EXPECT_EQ(footprint + Granule(), h->footprint) << r.name;
    EXPECT_HEAP_OK(h) << r.name;
  }
}

}  // namespace

TEST(HeapGrowth, AfterAResetGrowthBelowTheOldMemory) {
  Placed p(10);
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -3, -1));
  std::vector<void*> old;
  for (size_t n : {100, 2000, 100, 5000, 100}) old.push_back(QzHeapAlloc(p.h, n));
  QzHeapFree(old[1]);  // free neighbours in the forgotten memory
  QzHeapFree(old[3]);
  QzHeapResetOnCorruption(p.h);
  p.Next(2);
  void* fresh = QzHeapAlloc(p.h, 2000);
  ASSERT_EQ(p.At(2) + QZ_CHUNK_OVERHEAD, Addr(fresh));
  EXPECT_EQ(p.At(2), p.h->lowestAddress);
  EXPECT_EQ(p.At(2), p.h->firstSegment.base);
  EXPECT_EQ(nullptr, p.h->firstSegment.next);
  EXPECT_HEAP_OK(p.h);
  const QzHeapCheckReport before = Report(p.h);
  for (void* b : {old[0], old[2], old[4]}) QzHeapFree(b);
  EXPECT_HEAP_OK(p.h);
  EXPECT_EQ(before.freeBytes, Report(p.h).freeBytes);
  std::vector<void*> more;
  for (size_t n : {100, 2000, 5000, 100}) {
    more.push_back(QzHeapAlloc(p.h, n));
    EXPECT_GE(Addr(more.back()), p.At(2)) << n;
    EXPECT_LT(Addr(more.back()), p.At(3)) << n;
  }
  for (void* b : more) QzHeapFree(b);
  QzHeapFree(fresh);
  EXPECT_HEAP_OK(p.h);
}
