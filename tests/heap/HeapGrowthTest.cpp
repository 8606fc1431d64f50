// Growth: appending, prepending and adding segments; direct mappings;
// trimming; release of unused segments; system failures.
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

TEST(HeapGrowth, AppendedRegionExtendsTop) {
  Placement place;
  const size_t G = Granule();
  place.Queue(8 * G);
  ScopedHeap h;
  ASSERT_EQ(place.base() + 8 * G, Addr(h.get()) - QZ_CHUNK_OVERHEAD);
  std::vector<void*> blocks = FillTop(h);
  QzChunk* oldTop = h->top;
  place.Queue(9 * G);
  void* b = QzHeapAlloc(h, kStep);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(oldTop, ChunkOf(b));  // cut from the enlarged top
  EXPECT_EQ(2 * G, h->footprint);
  EXPECT_EQ(2 * G, h->firstSegment.size);
  const QzHeapCheckReport r = Report(h);
  EXPECT_EQ(1u, r.segments);
  EXPECT_EQ(0u, r.closedSegments);
  EXPECT_HEAP_OK(h);
}

TEST(HeapGrowth, PrependedRegionServesTheRequestAtItsStart) {
  Placement place;
  const size_t G = Granule();
  place.Queue(8 * G);
  ScopedHeap h;
  FillTop(h);
  place.Queue(7 * G);
  void* b = QzHeapAlloc(h, kStep);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(place.base() + 7 * G + QZ_CHUNK_OVERHEAD, Addr(b));
  EXPECT_EQ(place.base() + 7 * G, h->firstSegment.base);
  EXPECT_EQ(2 * G, h->firstSegment.size);
  EXPECT_EQ(place.base() + 7 * G, h->lowestAddress);
  // The rest of the region is one free chunk (the old first chunk, the heap
  // record, is in use).
  const QzHeapCheckReport r = Report(h);
  EXPECT_EQ(1u, r.segments);
  EXPECT_EQ(1u, r.freeChunks);
  EXPECT_EQ(G - QzRequestToChunk(kStep), r.freeBytes);
  EXPECT_HEAP_OK(h);
  QzHeapFree(b);  // joins the free rest
  EXPECT_EQ(1u, Report(h).freeChunks);
  EXPECT_HEAP_OK(h);
}

TEST(HeapGrowth, PrependJoinsAFreeFirstChunk) {
  ParamsScope params;
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -3, -1));  // big requests take segments
  Placement place;
  const size_t G = Granule();
  place.Queue(8 * G);
  ScopedHeap h;
  FillTop(h);
  place.Queue(7 * G);
  void* b = QzHeapAlloc(h, kStep);  // prepended at 7G
  ASSERT_EQ(place.base() + 7 * G + QZ_CHUNK_OVERHEAD, Addr(b));
  QzHeapFree(b);  // [7G, 8G) is one free chunk now
  ASSERT_EQ(1u, Report(h).freeChunks);
  ASSERT_EQ(G, Report(h).freeBytes);
  // Fits nowhere: a region of two granules goes right before it.
  place.Queue(5 * G);
  void* c = QzHeapAlloc(h, G + G / 2);
  ASSERT_EQ(place.base() + 5 * G + QZ_CHUNK_OVERHEAD, Addr(c));
  const QzHeapCheckReport r = Report(h);
  EXPECT_EQ(1u, r.segments);
  EXPECT_EQ(1u, r.freeChunks);  // the rest of the region joined the free chunk
  EXPECT_EQ(3 * G - ChunkSizeOf(c), r.freeBytes);
  EXPECT_EQ(4 * G, h->firstSegment.size);
  EXPECT_HEAP_OK(h);
}

TEST(HeapGrowth, PrependJoinsTop) {
  ParamsScope params;
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -3, -1));
  Placement place;
  const size_t G = Granule();
  place.Queue(2 * G);
  ScopedHeap h;
  QzHeapResetOnCorruption(h);  // next growth puts top at the start of a region
  place.Queue(10 * G);
  QzHeapFree(QzHeapAlloc(h, 100));
  ASSERT_EQ(place.base() + 10 * G, Addr(h->top));
  const size_t topSize = h->topSize;
  place.Queue(8 * G);
  void* c = QzHeapAlloc(h, G + G / 2);
  ASSERT_EQ(place.base() + 8 * G + QZ_CHUNK_OVERHEAD, Addr(c));
  EXPECT_EQ(Addr(ChunkOf(c)) + ChunkSizeOf(c), Addr(h->top));
  EXPECT_EQ(topSize + 2 * G - ChunkSizeOf(c), h->topSize);
  EXPECT_EQ(0u, Report(h).freeChunks);
  EXPECT_HEAP_OK(h);
}

TEST(HeapGrowth, UnrelatedRegionClosesTheOldSegment) {
  Placement place;
  const size_t G = Granule();
  place.Queue(8 * G);
  ScopedHeap h;
  FillTop(h);
  const size_t oldTopSize = h->topSize;
  const uintptr_t firstBase = h->firstSegment.base;
  place.Queue(20 * G);
  void* b = QzHeapAlloc(h, kStep);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(place.base() + 20 * G + QZ_CHUNK_OVERHEAD, Addr(b));
  EXPECT_EQ(place.base() + 20 * G, h->firstSegment.base);
  ASSERT_NE(nullptr, h->firstSegment.next);
  EXPECT_EQ(firstBase, h->firstSegment.next->base);
  EXPECT_EQ(G, h->firstSegment.next->size);
  const QzHeapCheckReport r = Report(h);
  EXPECT_EQ(2u, r.segments);
  EXPECT_EQ(1u, r.closedSegments);
  EXPECT_GT(r.fenceposts, 0u);
  // The old top, less the record chunk, is in the bins now.
  EXPECT_EQ(1u, r.freeChunks);
  EXPECT_EQ(oldTopSize + QZ_TOP_FOOT - QZ_SEGMENT_CHUNK - r.fenceposts * QZ_WORD - QZ_WORD, r.freeBytes);
  EXPECT_HEAP_OK(h);
  // The remainder is usable and never merges across the fenceposts.
  void* c = QzHeapAlloc(h, r.freeBytes - QZ_CHUNK_OVERHEAD);
  EXPECT_EQ(Addr(ChunkOf(c)) + ChunkSizeOf(c), Addr(h->firstSegment.next) - QZ_CHUNK_OVERHEAD);
  EXPECT_HEAP_OK(h);
  QzHeapFree(c);
  EXPECT_HEAP_OK(h);
}

TEST(HeapGrowth, SmallOldTopBecomesTheRecordChunk) {
  Placement place;
  const size_t G = Granule();
  place.Queue(8 * G);
  ScopedHeap h;
  FillTop(h);
  // Leave less than a minimum chunk in front of where the record would go.
  while (h->topSize > 4096) QzHeapAlloc(h, 2000);
  if ((h->topSize / A) % 2 == 0) QzHeapAlloc(h, 3 * A - QZ_CHUNK_OVERHEAD);
  while (h->topSize >= QZ_MIN_CHUNK + A) QzHeapAlloc(h, QZ_MIN_CHUNK - QZ_CHUNK_OVERHEAD);
  ASSERT_EQ(A, h->topSize);
  QzChunk* oldTop = h->top;
  place.Queue(20 * G);
  ASSERT_NE(nullptr, QzHeapAlloc(h, kStep));
  EXPECT_EQ(reinterpret_cast<QzSegment*>(QzChunkToBlock(oldTop)), h->firstSegment.next);
  EXPECT_EQ(0u, Report(h).freeChunks);
  EXPECT_HEAP_OK(h);
}

TEST(HeapGrowth, DirectMappingThreshold) {
  ParamsScope params;
  ScopedHeap h;
  const size_t G = Granule();
  const size_t threshold = QzHeapParams.directThreshold.load();
  ASSERT_EQ(0x40000u, threshold);
  FillTop(h);
  const size_t before = h->footprint;
  // A chunk of exactly the threshold gets a mapping of its own.
  void* d = QzHeapAlloc(h, threshold - QZ_CHUNK_OVERHEAD);
  ASSERT_NE(nullptr, d);
  EXPECT_EQ(threshold, QzRequestToChunk(threshold - QZ_CHUNK_OVERHEAD));
  const QzChunk* p = ChunkOf(d);
  EXPECT_EQ(0u, p->sizeWord & QZ_FLAG_BITS);  // no flags: directly mapped
  EXPECT_EQ(0u, p->footWord);                 // offset from the region's start
  EXPECT_EQ(G - QZ_DIRECT_FOOT, QzChunkSize(p));
  EXPECT_EQ(G - QZ_DIRECT_FOOT - QZ_CHUNK_OVERHEAD, QzBlockUsableSize(d));
  EXPECT_EQ(QZ_FENCEPOST, QzChunkAt(p, QzChunkSize(p))->sizeWord);
  EXPECT_EQ(h.get(), QzBlockOwnerHeap(d));
  EXPECT_EQ(before + G, h->footprint);
  for (size_t i = 0; i < QzBlockUsableSize(d); i += 4096) ASSERT_EQ(0, static_cast<char*>(d)[i]);
  EXPECT_HEAP_OK(h);
  QzHeapFree(d);
  EXPECT_EQ(before, h->footprint);
  // One alignment step below: an ordinary chunk from a new segment.
  void* e = QzHeapAlloc(h, threshold - QZ_CHUNK_OVERHEAD - A);
  ASSERT_NE(nullptr, e);
  EXPECT_NE(0u, ChunkOf(e)->sizeWord & QZ_INUSE_BITS);
  EXPECT_EQ(before + G, h->footprint);
  EXPECT_HEAP_OK(h);
}

TEST(HeapGrowth, DirectMappingCostsWholeGranules) {
  ScopedHeap h;
  const size_t G = Granule();
  const size_t before = h->footprint;
  void* d = QzHeapAlloc(h, 3 * G);  // needs four granules with its tags
  ASSERT_NE(nullptr, d);
  EXPECT_EQ(before + 4 * G, h->footprint);
  EXPECT_EQ(before + 4 * G, h->maxFootprint);
  static_cast<char*>(d)[3 * G - 1] = 1;
  // Reallocating within the slack keeps it; shrinking far moves it.
  EXPECT_EQ(d, QzHeapRealloc(h, d, 3 * G + 4096));
  void* small = QzHeapRealloc(h, d, 1000);
  EXPECT_NE(d, small);
  EXPECT_EQ(before, h->footprint);
  EXPECT_HEAP_OK(h);
}

TEST(HeapGrowth, AlignedDirectMapping) {
  ScopedHeap h;
  void* d = QzHeapAlignedAlloc(h, 65536, 2 * Granule());  // more than top holds
  ASSERT_NE(nullptr, d);
  EXPECT_EQ(0u, Addr(d) % 65536);
  EXPECT_EQ(0u, ChunkOf(d)->sizeWord & QZ_INUSE_BITS);
  const size_t before = h->footprint;
  QzHeapFree(d);  // the region goes back from its true start
  EXPECT_LT(h->footprint, before);
  EXPECT_HEAP_OK(h);
}

TEST(HeapGrowth, DirectMappingOffUsesSegments) {
  ParamsScope params;
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -3, -1));
  ScopedHeap h;
  void* d = QzHeapAlloc(h, 3 * Granule());
  ASSERT_NE(nullptr, d);
  EXPECT_NE(0u, ChunkOf(d)->sizeWord & QZ_INUSE_BITS);
  EXPECT_HEAP_OK(h);
}

TEST(HeapTrim, ReleasesAppendedGranulesOfTopsSegment) {
  Placement place;
  const size_t G = Granule();
  place.Queue(4 * G);
  ScopedHeap h;
  FillTop(h);
  place.Queue(20 * G);  // closes the first segment; top moves to 20G
  std::vector<void*> blocks;
  blocks.push_back(QzHeapAlloc(h, kStep));
  for (size_t k = 21; k < 24; ++k) {
    std::vector<void*> more = FillTop(h);
    blocks.insert(blocks.end(), more.begin(), more.end());
    place.Queue(k * G);  // appended
    blocks.push_back(QzHeapAlloc(h, kStep));
  }
  EXPECT_EQ(4 * G, h->firstSegment.size);
  EXPECT_EQ(5 * G, h->footprint);
  EXPECT_HEAP_OK(h);
  for (void* b : blocks) {
    QzHeapFree(b);
    ASSERT_HEAP_OK(h);
  }
  // top passed the 2 MiB threshold: everything but one granule went back.
  EXPECT_EQ(G, h->firstSegment.size);
  EXPECT_EQ(2 * G, h->footprint);
  EXPECT_LE(h->topSize, G);
  EXPECT_HEAP_OK(h);
}

TEST(HeapTrim, SegmentHoldingTheHeapNeverShrinks) {
  ParamsScope params;
  Placement place;
  const size_t G = Granule();
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -1, 64 * 1024));
  place.Queue(4 * G);
  ScopedHeap h;
  std::vector<void*> blocks = FillTop(h);
  place.Queue(5 * G);
  blocks.push_back(QzHeapAlloc(h, kStep));  // appended to the heap's own segment
  for (void* b : blocks) QzHeapFree(b);
  EXPECT_EQ(2 * G, h->footprint);
  EXPECT_EQ(~size_t(0), h->trimCheck);  // frees stop trying
  EXPECT_HEAP_OK(h);
  QzSpinLockAcquire(&h->lock);
  EXPECT_EQ(0, QzHeapTrim(h, 0));
  // A top smaller than pad plus the tail still looks for unused segments.
  EXPECT_EQ(0, QzHeapTrim(h, 4 * G));
  EXPECT_EQ(0, QzHeapTrim(h, QZ_MAX_REQUEST));
  QzSpinLockRelease(&h->lock);
  EXPECT_HEAP_OK(h);
}

TEST(HeapRelease, UnusedOlderSegmentGoesBack) {
  Placement place;
  const size_t G = Granule();
  place.Queue(4 * G);
  ScopedHeap h;
  FillTop(h);
  place.Queue(10 * G);  // segment B, closes the first
  std::vector<void*> inB;
  inB.push_back(QzHeapAlloc(h, kStep));
  std::vector<void*> more = FillTop(h);
  inB.insert(inB.end(), more.begin(), more.end());
  place.Queue(20 * G);  // segment C, closes B
  void* inC = QzHeapAlloc(h, kStep);
  ASSERT_NE(nullptr, inC);
  EXPECT_EQ(3u, Report(h).segments);
  const size_t before = h->footprint;
  for (size_t i = 0; i + 1 < inB.size(); ++i) QzHeapFree(inB[i]);
  EXPECT_HEAP_OK(h);
  EXPECT_EQ(before, h->footprint);
  h->releaseCountdown = 1;  // the next tree free looks for unused segments
  QzHeapFree(inB.back());
  EXPECT_EQ(4095u, h->releaseCountdown);
  EXPECT_EQ(before - G, h->footprint);
  EXPECT_EQ(2u, Report(h).segments);
  EXPECT_HEAP_OK(h);
  QzHeapFree(inC);
  EXPECT_HEAP_OK(h);
}

TEST(HeapFailure, VirtualAllocFailingLeavesTheHeapIntact) {
  ScopedHeap h;
  std::vector<void*> blocks = FillTop(h);
  const size_t footprint = h->footprint;
  const QzHeapCheckReport before = Report(h);
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
  EXPECT_EQ(before.inUseChunks, Report(h).inUseChunks);
  EXPECT_NE(nullptr, QzHeapAlloc(h, kStep));
  EXPECT_HEAP_OK(h);
}

TEST(HeapCorruption, BrokenSmallLinkResetsTheHeap) {
  ScopedHeap h;
  void* a = QzHeapAlloc(h, 40);
  void* g1 = QzHeapAlloc(h, 40);
  void* b = QzHeapAlloc(h, 40);
  void* guard = QzHeapAlloc(h, 40);
  (void)g1;
  QzHeapFree(a);
  QzHeapFree(b);
  const uint32_t errors = corruptionErrors.load();
  const size_t footprint = h->footprint;
  // A write after free overwrites b's forward link.
  ChunkOf(b)->nextFree = reinterpret_cast<QzChunk*>(64);
  void* c = QzHeapAlloc(h, 40);
  EXPECT_EQ(b, c);  // the chunk already taken is still handed out
  EXPECT_EQ(errors + 1, corruptionErrors.load());
  EXPECT_EQ(nullptr, h->top);
  EXPECT_HEAP_OK(h);
  // The next allocation gets fresh system memory.
  void* d = QzHeapAlloc(h, 40);
  ASSERT_NE(nullptr, d);
  EXPECT_EQ(footprint + Granule(), h->footprint);
  EXPECT_EQ(h->firstSegment.base, h->lowestAddress);
  EXPECT_EQ(1u, Report(h).segments);
  EXPECT_HEAP_OK(h);
  (void)guard;
}

TEST(HeapCorruption, BrokenTreeLinkResetsTheHeap) {
  ScopedHeap h;
  void* x[4];
  for (int i = 0; i < 4; ++i) x[i] = QzHeapAlloc(h, 2000);
  QzHeapFree(x[0]);
  QzHeapFree(x[2]);  // ring behind x[0]
  const uint32_t errors = corruptionErrors.load();
  reinterpret_cast<QzTreeChunk*>(ChunkOf(x[0]))->nextFree = reinterpret_cast<QzTreeChunk*>(8);
  void* c = QzHeapAlloc(h, 2000);
  EXPECT_EQ(errors + 1, corruptionErrors.load());
  EXPECT_HEAP_OK(h);
  EXPECT_NE(nullptr, QzHeapAlloc(h, 2000));
  EXPECT_HEAP_OK(h);
  (void)c;
}

TEST(HeapCorruption, FreeAfterResetOfForgottenMemoryIsDropped) {
  Placement place;
  const size_t G = Granule();
  place.Queue(4 * G);
  ScopedHeap h;
  void* old = QzHeapAlloc(h, 100);
  QzHeapResetOnCorruption(h);
  place.Queue(10 * G);
  void* fresh = QzHeapAlloc(h, 100);
  ASSERT_NE(nullptr, fresh);
  EXPECT_EQ(place.base() + 10 * G, h->lowestAddress);
  QzHeapFree(old);  // below the lowest address now: dropped
  EXPECT_HEAP_OK(h);
  QzHeapFree(fresh);
  EXPECT_HEAP_OK(h);
}

}  // namespace
