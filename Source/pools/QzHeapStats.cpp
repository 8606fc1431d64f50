// Pool statistics: footprint, the status lines, the information record and
// trimming, each a pass over the pool's heaps.
#include "pools/QzHeapStats.h"

#include <qzbase/QzLog.h>

#include "pools/QzMempool.h"

namespace {

inline uintptr_t Addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// First chunk position at or after `at` whose block is aligned.
inline const QzChunk* FirstChunk(uintptr_t at) {
  const size_t offset = (QZ_CHUNK_ALIGN - ((at + QZ_CHUNK_OVERHEAD) & QZ_CHUNK_ALIGN_MASK)) & QZ_CHUNK_ALIGN_MASK;
  return reinterpret_cast<const QzChunk*>(at + offset);
}

struct WalkSums {
  size_t all = 0;        // sizes of every chunk walked
  size_t free = 0;       // sizes of the free ones
  size_t freeCount = 0;
};

// The heap's lock is held and `top` is set.
WalkSums Walk(const QzHeap* heap) {
  WalkSums sums;
  for (const QzSegment* s = &heap->firstSegment; s != nullptr; s = s->next) {
    const uintptr_t end = s->base + s->size;
    for (const QzChunk* q = FirstChunk(s->base); Addr(q) >= s->base && Addr(q) < end && q != heap->top;) {
      const size_t head = QzHead(q);
      if (head == QZ_FENCEPOST) break;
      const size_t size = head & ~QZ_FLAG_BITS;
      if (size == 0) break;  // a broken chunk must not stop the walk forever
      sums.all += size;
      if ((head & QZ_INUSE_BITS) == QZ_PREV_INUSE) {
        sums.free += size;
        ++sums.freeCount;
      }
      q = QzChunkAt(q, size);
    }
  }
  return sums;
}

template <class Visit>
void ForEachHeap(QzMempool* pool, Visit visit) {
  for (unsigned i = 0; i < QZ_POOL_MAX_HEAPS; ++i) {
    QzHeap* heap = pool->heaps[i].load(std::memory_order_acquire);
    if (heap == nullptr) break;
    visit(heap);
  }
}

inline bool MagicOk(const QzHeap* heap) { return heap->magic == QzStamp(); }

}  // namespace

QzMempoolInfo QzHeapInfo(QzHeap* heap) {
  QzEnsureHeapParams();
  QzMempoolInfo info = {};
  QzSpinLockAcquire(&heap->lock);
  if (heap->top != nullptr) {
    const WalkSums sums = Walk(heap);
    const size_t topPart = heap->topSize + QZ_TOP_FOOT;
    info.totalBytes = topPart + sums.all;
    info.freeChunks = 1 + sums.freeCount;
    info.freeBytes = topPart + sums.free;
    info.mappedBytes = heap->footprint - info.totalBytes;
    info.maxFootprint = heap->maxFootprint;
    info.usedBytes = heap->footprint - info.freeBytes;
    info.topBytes = heap->topSize;
  }
  QzSpinLockRelease(&heap->lock);
  return info;
}

void QzHeapStats(QzHeap* heap) {
  QzEnsureHeapParams();
  QzSpinLockAcquire(&heap->lock);
  uint64_t maximum = 0, system = 0, used = 0;
  if (heap->top != nullptr) {
    maximum = heap->maxFootprint;
    system = heap->footprint;
    used = heap->footprint - heap->topSize - QZ_TOP_FOOT - Walk(heap).free;
  }
  // The log's `l` is 32 bits wide as on Windows; I64 prints the same digits
  // and does not cut a pool of more than 4 GiB on x86-64.
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "-----------------------malloc_stats_begin-----------------------");
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "max system bytes = %10I64u\n", maximum);
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "system bytes     = %10I64u\n", system);
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "in use bytes     = %10I64u\n", used);
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "corruption errors= %10lu", unsigned(corruptionErrors.load(std::memory_order_relaxed)));
  QZ_LOG_WRITE_A(QZ_LOG_STATUS, "-----------------------malloc_stats_end-------------------------");
  QzSpinLockRelease(&heap->lock);
}

extern "C" {

QZ_API size_t Qz_MempoolFootprint(QzMempool* pool) {
  size_t sum = 0;
  // No lock: each heap's figure is read as one word and may be stale at once.
  ForEachHeap(QzResolvePool(pool), [&](QzHeap* heap) {
    if (MagicOk(heap)) sum += QzFootprint(heap);
  });
  return sum;
}

QZ_API void Qz_MempoolStats(QzMempool* pool) {
  ForEachHeap(QzResolvePool(pool), [](QzHeap* heap) {
    if (MagicOk(heap)) QzHeapStats(heap);
  });
}

QZ_API QzMempoolInfo Qz_MempoolGetInfo(QzMempool* pool) {
  QzMempoolInfo sum = {};
  ForEachHeap(QzResolvePool(pool), [&](QzHeap* heap) {
    const QzMempoolInfo one = QzHeapInfo(heap);
    sum.totalBytes += one.totalBytes;
    sum.freeChunks += one.freeChunks;
    sum.mappedBytes += one.mappedBytes;
    sum.maxFootprint += one.maxFootprint;
    sum.usedBytes += one.usedBytes;
    sum.freeBytes += one.freeBytes;
    sum.topBytes += one.topBytes;
  });
  return sum;
}

QZ_API int Qz_MempoolTrim(QzMempool* pool, size_t pad) {
  int trimmed = 0;
  ForEachHeap(QzResolvePool(pool), [&](QzHeap* heap) {
    if (!MagicOk(heap)) return;
    QzSpinLockAcquire(&heap->lock);
    trimmed += QzHeapTrim(heap, pad);
    QzSpinLockRelease(&heap->lock);
  });
  return trimmed;
}

}  // extern "C"
