// Bulk allocation: the heap side and the two exported calls.
#include "pools/QzHeapBulk.h"

#include <string.h>

#include "pools/QzMempool.h"
#include "pools/QzThreadCache.h"

using namespace qzsys;

namespace {

inline size_t Footer(const QzHeap* heap) { return heap->magic ^ reinterpret_cast<uintptr_t>(heap); }

// Both low flags and the footer: every piece of the aggregate follows an
// in-use piece, and the aggregate itself followed an in-use chunk.
inline void MarkPieceInUse(QzHeap* heap, QzChunk* p, size_t s) {
  QzSetHead(p, s | QZ_INUSE_BITS);
  QzChunk* next = QzChunkAt(p, s);
  next->footWord = Footer(heap);
  QzSetHead(next, QzHead(next) | QZ_PREV_INUSE);
}

inline bool AddChunk(size_t* sum, size_t request) {
  if (request >= QZ_MAX_REQUEST) return false;
  return !__builtin_add_overflow(*sum, QzRequestToChunk(request), sum);
}

// Sizes copied for Qz_MempoolIndependentCoMalloc live on the stack up to this
// many elements; longer lists go to a scratch block of the default pool.
constexpr size_t kStackSizes = 256;

}  // namespace

void** QzHeapBulkAlloc(QzHeap* heap, size_t count, const size_t* sizes, unsigned options, void** chunks) {
  QzEnsureHeapParams();
  size_t arrayRoom = 0;
  if (chunks != nullptr) {
    if (count == 0) return chunks;
  } else {
    if (count == 0) return static_cast<void**>(QzHeapAlloc(heap, 0));
    if (count >= QZ_MAX_REQUEST / sizeof(void*)) return nullptr;
    arrayRoom = QzRequestToChunk(count * sizeof(void*));
  }
  if (sizes == nullptr) return nullptr;

  size_t sum = 0;
  const size_t firstChunk = sizes[0] < QZ_MAX_REQUEST ? QzRequestToChunk(sizes[0]) : 0;
  if (options & QZ_BULK_SAME_SIZE) {
    if (firstChunk == 0 || __builtin_mul_overflow(firstChunk, count, &sum)) return nullptr;
  } else {
    for (size_t i = 0; i < count; ++i)
      if (!AddChunk(&sum, sizes[i])) return nullptr;
  }
  size_t total;
  if (__builtin_add_overflow(sum, arrayRoom, &total) || total - QZ_CHUNK_OVERHEAD >= QZ_MAX_REQUEST) return nullptr;

  // One aggregate, cut below: a direct mapping would have no neighbours to
  // split into, so it is switched off for this call alone.
  QzSpinLockAcquire(&heap->lock);
  const uint32_t direct = heap->flags & QZ_HEAP_DIRECT;
  heap->flags &= ~QZ_HEAP_DIRECT;
  void* mem = QzHeapAlloc(heap, total - QZ_CHUNK_OVERHEAD);
  heap->flags |= direct;
  if (mem == nullptr) {
    QzSpinLockRelease(&heap->lock);
    return nullptr;
  }
  QzChunk* p = QzBlockToChunk(mem);
  size_t remaining = QzChunkSize(p);

  // Reaches one word past the aggregate's payload, over its footer, which the
  // last element writes again.
  if (options & QZ_BULK_CLEAR) memset(mem, 0, remaining - QZ_WORD - arrayRoom);

  void** array = chunks;
  if (array == nullptr) {
    QzChunk* a = QzChunkAt(p, sum);
    MarkPieceInUse(heap, a, remaining - sum);
    array = static_cast<void**>(QzChunkToBlock(a));
    remaining = sum;
  }
  for (size_t i = 0; i + 1 < count; ++i) {
    array[i] = QzChunkToBlock(p);
    const size_t s = (options & QZ_BULK_SAME_SIZE) ? firstChunk : QzRequestToChunk(sizes[i]);
    remaining -= s;
    MarkPieceInUse(heap, p, s);
    p = QzChunkAt(p, s);
  }
  // The last element takes whatever the heap gave beyond the sum.
  array[count - 1] = QzChunkToBlock(p);
  MarkPieceInUse(heap, p, remaining);
  QzSpinLockRelease(&heap->lock);
  return array;
}

namespace {

void** PoolBulk(QzMempool* pool, size_t count, const size_t* sizes, unsigned options, void** chunks,
                size_t capacity) {
  pool = QzResolvePool(pool);
  QzThreadCache* cache;
  int32_t heapIndex;
  QzPoolThreadState(pool, &cache, &heapIndex);
  QzHeap* heap = QzPoolLockHeap(pool, cache, &heapIndex, capacity);
  void** result = heap->magic == QzStamp() ? QzHeapBulkAlloc(heap, count, sizes, options, chunks) : nullptr;
  QzSpinLockRelease(&heap->lock);
  return result;
}

}  // namespace

extern "C" {

QZ_API void** Qz_MempoolIndependentCalloc(QzMempool* pool, size_t count, size_t size, void** chunks) {
  if (QzFaultHit(QZ_FAULT_POOL_ALLOC)) return nullptr;
  if (size < QZ_MEMPOOL_MIN_REQUEST) size = QZ_MEMPOOL_MIN_REQUEST;
  size_t capacity;
  if (__builtin_mul_overflow(count, size, &capacity)) capacity = ~size_t(0);
  return PoolBulk(pool, count, &size, QZ_BULK_SAME_SIZE | QZ_BULK_CLEAR, chunks, capacity);
}

QZ_API void** Qz_MempoolIndependentCoMalloc(QzMempool* pool, size_t count, const size_t* sizes, void** chunks) {
  if (QzFaultHit(QZ_FAULT_POOL_ALLOC)) return nullptr;
  if (count != 0 && sizes == nullptr) return nullptr;
  // The caller's sizes are not written; the copy is raised to the minimum.
  size_t onStack[kStackSizes];
  size_t* raised = onStack;
  if (count > kStackSizes) {
    if (count > (~size_t(0)) / sizeof(size_t)) return nullptr;
    raised = static_cast<size_t*>(Qz_MempoolAlloc(nullptr, count * sizeof(size_t)));
    if (raised == nullptr) return nullptr;
  }
  for (size_t i = 0; i < count; ++i)
    raised[i] = sizes[i] < QZ_MEMPOOL_MIN_REQUEST ? QZ_MEMPOOL_MIN_REQUEST : sizes[i];
  void** result = PoolBulk(pool, count, raised, 0, chunks, 0);
  if (raised != onStack) Qz_MempoolFree(nullptr, raised);
  return result;
}

}  // extern "C"
