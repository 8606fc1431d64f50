// Pool statistics through the exported calls: the status lines byte for byte
// through the log, the information record and footprint on fresh, grown and
// two-heap pools and around direct mappings, and trims that do and do not
// give memory back.
#include <stdio.h>

#include <string>
#include <vector>

#include "../pool/PoolTestSupport.h"
#include "HeapTestSupport.h"
#include "pools/QzHeapStats.h"

namespace {

// The parameters may not be set up yet when a test first asks.
size_t Granule() {
  QzEnsureHeapParams();
  return heaptest::Granule();
}
using heaptest::Report;

// A heap's figures from the heap checker's walk, which is independent of the
// statistics code.
struct Figures {
  size_t footprint, maxFootprint, freeBytes, freeChunks, used, top;
};
Figures Expect(QzHeap* heap) {
  if (heap->top == nullptr) return Figures{};
  const QzHeapCheckReport r = Report(heap);
  EXPECT_EQ(r.error, "");
  const size_t freeBytes = r.freeBytes + heap->reserveSize + heap->topSize + QZ_TOP_FOOT;
  return {heap->footprint, heap->maxFootprint, freeBytes, r.freeChunks + (heap->reserve != nullptr ? 1 : 0) + 1,
          heap->footprint - freeBytes, heap->topSize};
}

std::string Line(const char* format, unsigned long long value) {
  char buf[128];
  snprintf(buf, sizeof buf, format, value);
  return std::string("Status: ") + buf + "\n";
}

// The message part of every status line captured, in order.
std::vector<std::string> StatusLines(const qztest::DebugCapture& capture) {
  std::vector<std::string> lines;
  for (const std::string& t : capture.texts()) {
    const size_t at = t.find("] Status: ");
    if (t.compare(0, 1, "[") == 0 && at != std::string::npos) lines.push_back(t.substr(at + 2));
  }
  return lines;
}

std::vector<std::string> StatsBlock(const Figures& e) {
  return {
      "Status: -----------------------malloc_stats_begin-----------------------\n",
      Line("max system bytes = %10llu\n", e.maxFootprint),
      Line("system bytes     = %10llu\n", e.footprint),
      Line("in use bytes     = %10llu\n", e.used),
      Line("corruption errors= %10llu", corruptionErrors.load()),
      "Status: -----------------------malloc_stats_end-------------------------\n",
  };
}

// A pool without a cache for this thread, so that frees reach the heaps.
struct PlainPool {
  QzMempool* pool;
  explicit PlainPool(int threads = 1, size_t capacity = 0) : pool(Qz_CreateMempool(capacity, threads)) {
    Qz_MempoolDisableThreadCache(pool);
  }
  ~PlainPool() { Qz_DestroyMempool(pool); }
  QzHeap* heap(int i = 0) const { return pool->heaps[i].load(); }
};

// The information record and footprint are the sums over `heaps`.
void ExpectInfoMatches(QzMempool* pool, const std::vector<QzHeap*>& heaps) {
  Figures sum{};
  for (QzHeap* h : heaps) {
    const Figures e = Expect(h);
    sum.footprint += e.footprint, sum.maxFootprint += e.maxFootprint, sum.freeBytes += e.freeBytes;
    sum.freeChunks += e.freeChunks, sum.used += e.used, sum.top += e.top;
  }
  const QzMempoolInfo info = Qz_MempoolGetInfo(pool);
  EXPECT_EQ(Qz_MempoolFootprint(pool), sum.footprint);
  EXPECT_EQ(info.totalBytes + info.mappedBytes, sum.footprint);
  EXPECT_EQ(info.freeChunks, sum.freeChunks);
  EXPECT_EQ(info.freeBytes, sum.freeBytes);
  EXPECT_EQ(info.usedBytes, sum.used);
  EXPECT_EQ(info.maxFootprint, sum.maxFootprint);
  EXPECT_EQ(info.topBytes, sum.top);
  EXPECT_EQ(info.smallBlocks + info.mappedBlocks + info.smallFreeBytes, 0u);
}

TEST(PoolStats, StatusLinesForEachHeapThroughTheLog) {
  PlainPool p(2);
  GrowTo(p.pool, 2);
  std::vector<void*> blocks;
  for (int i = 0; i < 40; ++i) blocks.push_back(Qz_MempoolAlloc(p.pool, 100 + 300 * i));
  for (int i = 0; i < 40; i += 3) Qz_MempoolFree(p.pool, blocks[i]);  // some chunks in the bins
  for (int reset = 0; reset < 2; ++reset) {
    // A heap that forgot its memory reports zeros; the counter is the process's.
    if (reset) QzHeapResetOnCorruption(p.heap(1));
    qztest::DebugCapture capture;
    Qz_MempoolStats(p.pool);
    std::vector<std::string> want = StatsBlock(Expect(p.heap(0)));
    const std::vector<std::string> second = StatsBlock(Expect(p.heap(1)));
    want.insert(want.end(), second.begin(), second.end());
    EXPECT_EQ(StatusLines(capture), want);
  }
  const QzMempoolInfo zero = QzHeapInfo(p.heap(1));
  EXPECT_EQ(zero.totalBytes + zero.freeChunks + zero.usedBytes + zero.maxFootprint, 0u);
}

TEST(PoolStats, InfoAndFootprintFollowGrowthAndDirectMappings) {
  PlainPool p(2);
  std::vector<void*> blocks;
  while (p.heap()->footprint < 3 * Granule()) blocks.push_back(Qz_MempoolAlloc(p.pool, 5000));
  for (size_t i = 0; i < blocks.size(); i += 2) Qz_MempoolFree(p.pool, blocks[i]);
  ExpectInfoMatches(p.pool, {p.heap()});

  const QzMempoolInfo before = Qz_MempoolGetInfo(p.pool);
  const size_t footprint = Qz_MempoolFootprint(p.pool);
  void* mapped = Qz_MempoolAlloc(p.pool, QzHeapParams.directThreshold.load() + Granule());
  ASSERT_EQ(QzHead(QzBlockToChunk(mapped)) & QZ_INUSE_BITS, 0u);
  const size_t grew = Qz_MempoolFootprint(p.pool) - footprint;
  EXPECT_GT(grew, QzHeapParams.directThreshold.load());
  const QzMempoolInfo with = Qz_MempoolGetInfo(p.pool);
  EXPECT_EQ(with.mappedBytes, before.mappedBytes + grew);
  EXPECT_EQ(with.usedBytes, before.usedBytes + grew);
  EXPECT_EQ(with.maxFootprint, before.maxFootprint + grew);
  Qz_MempoolFree(p.pool, mapped);
  EXPECT_EQ(Qz_MempoolFootprint(p.pool), footprint);
  EXPECT_EQ(Qz_MempoolGetInfo(p.pool).maxFootprint, with.maxFootprint);  // the peak stays

  GrowTo(p.pool, 2);
  ASSERT_EQ(HeapCount(p.pool), 2);
  ExpectInfoMatches(p.pool, {p.heap(0), p.heap(1)});
  for (size_t i = 1; i < blocks.size(); i += 2) Qz_MempoolFree(p.pool, blocks[i]);
}

// A pool whose first heap lies at a known place, with automatic trimming off.
struct PlacedPool {
  heaptest::ParamsScope params;
  heaptest::Placement place;
  QzMempool* pool;
  explicit PlacedPool(size_t granules) {
    Qz_MempoolFree(nullptr, Qz_MempoolAlloc(nullptr, sizeof(QzMempool)));
    EXPECT_EQ(1, Qz_MempoolOpt(nullptr, -1, -1));
    Next(granules);
    pool = Qz_CreateMempool(0, 1);
    Qz_MempoolDisableThreadCache(pool);
  }
  ~PlacedPool() { Qz_DestroyMempool(pool); }
  void Next(size_t granules) { place.Queue(granules * Granule()); }
  uintptr_t At(size_t granules) const { return place.base() + granules * Granule(); }
  QzHeap* heap() const { return pool->heaps[0].load(); }
  // Nearly uses up top, then makes the heap grow into the region queued at `granules`.
  void GrowAt(size_t granules, std::vector<void*>* blocks) {
    while (heap()->topSize > 2 * QzRequestToChunk(60000)) blocks->push_back(Qz_MempoolAlloc(pool, 60000));
    Next(granules);
    blocks->push_back(Qz_MempoolAlloc(pool, 3 * 60000));
  }
};

TEST(PoolTrim, GivesBackOnlyWholeAllocationsAwayFromTheHeapRecord) {
  PlacedPool p(4);
  ASSERT_EQ(p.At(4), reinterpret_cast<uintptr_t>(p.heap()) - QZ_CHUNK_OVERHEAD);

  // A granule appended to the heap's own segment never goes back.
  std::vector<void*> blocks;
  p.GrowAt(5, &blocks);
  EXPECT_EQ(Qz_MempoolFootprint(p.pool), 2 * Granule());
  for (void* b : blocks) Qz_MempoolFree(p.pool, b);
  blocks.clear();
  EXPECT_EQ(Qz_MempoolTrim(p.pool, 0), 0);
  EXPECT_EQ(Qz_MempoolFootprint(p.pool), 2 * Granule());

  // Top moves to a segment of its own, which then gets a granule appended.
  p.GrowAt(10, &blocks);
  ASSERT_EQ(p.heap()->firstSegment.base, p.At(10));
  p.GrowAt(11, &blocks);
  ASSERT_EQ(p.heap()->firstSegment.size, 2 * Granule());
  for (void* b : blocks) Qz_MempoolFree(p.pool, b);
  const size_t footprint = Qz_MempoolFootprint(p.pool);
  // A pad that keeps all of top gives nothing back; pad 0 gives the granule.
  EXPECT_EQ(Qz_MempoolTrim(p.pool, 2 * Granule()), 0);
  EXPECT_EQ(Qz_MempoolFootprint(p.pool), footprint);
  EXPECT_EQ(Qz_MempoolTrim(p.pool, 0), 1);
  EXPECT_EQ(Qz_MempoolFootprint(p.pool), footprint - Granule());
  EXPECT_HEAP_OK(p.heap());
  ExpectInfoMatches(p.pool, {p.heap()});
}

}  // namespace
