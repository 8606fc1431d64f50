// Pools, internal side: the pool record, the default pool and pool set-up.
//
// A pool owns up to 16 heaps (QzChunkHeap.h), filled from index 0 without
// gaps, and up to 256 thread caches (QzThreadCache.h), one per thread that
// uses it. Its TLS slot tells each thread its cache or its heap.
//
// Lock order: QzHeapParams.lock, then a pool's `lock`, then one heap's lock.
//
// Test hook: the failure switch QZ_FAULT_POOL_ALLOC makes every allocating
// pool call (Alloc, Calloc, Realloc with a size, the aligned calls, the bulk
// calls, and so Qz_CreateMempool) return 0 as if memory had run out, in every
// pool; the old block of a failed reallocation stays valid. Disarmed it costs
// one relaxed load per call. Frees and the library's own records are not affected.
#ifndef QZBASE_QZMEMPOOL_INTERNAL_H
#define QZBASE_QZMEMPOOL_INTERNAL_H

#include <qzbase/QzMempool.h>

#include <atomic>

#include "pools/QzChunkHeap.h"

struct QzThreadCache;

constexpr unsigned QZ_POOL_MAX_CACHES = 256;
constexpr unsigned QZ_POOL_MAX_HEAPS = 16;
// Every allocating call raises its size to this first.
constexpr size_t QZ_MEMPOOL_MIN_REQUEST = 16;

struct QzMempool {
  QzSpinLock lock;                   // guards `caches` and additions to `heaps`
  std::atomic<uintptr_t> value;      // the user's word
  std::atomic<int32_t> heapLimit;    // 1..16 once set up, 0 before; written last
  std::atomic<QzThreadCache*> caches[QZ_POOL_MAX_CACHES];
  qzsys::DWORD tlsSlot;
  // An entry only ever goes from 0 to a heap while the pool lives, so readers
  // take no lock. The 17th entry stays 0 and ends every walk.
  std::atomic<QzHeap*> heaps[QZ_POOL_MAX_HEAPS + 1];
};

// The pool behind handle 0: all zero at load, set up by the first call that
// names it, never destroyed.
extern QzMempool g_qzDefaultPool;

// Sets a pool up once (capacity of its first heap, most heaps). True if the
// pool is live. A negative `threads` makes failure fatal (the default pool).
bool QzPoolInit(QzMempool* pool, size_t capacity, int threads);

inline QzMempool* QzResolvePool(QzMempool* pool) {
  if (pool != nullptr) return pool;
  if (__builtin_expect(g_qzDefaultPool.heapLimit.load(std::memory_order_acquire) == 0, 0)) {
    QzPoolInit(&g_qzDefaultPool, 0, -1);
  }
  return &g_qzDefaultPool;
}

// The size word of a live block, read without the heap's lock. Its size bits
// only change in calls made by the block's owner; bit 0 (the previous chunk in
// use) is rewritten by the heap, under its lock, whenever the chunk in front
// is allocated or freed, possibly on another thread. A relaxed word load sees
// either value, and the readers below never look at that bit.
inline size_t QzPoolSizeWord(const void* block) {
  return __atomic_load_n(&QzBlockToChunk(block)->sizeWord, __ATOMIC_RELAXED);
}
// Usable bytes of a block, as Qz_MemblkSize gives them: 0 for null or a chunk
// flagged free.
inline size_t QzPoolUsableSize(const void* block) {
  if (block == nullptr) return 0;
  const size_t w = QzPoolSizeWord(block);
  if ((w & QZ_INUSE_BITS) == QZ_PREV_INUSE) return 0;
  return (w & ~QZ_FLAG_BITS) - QZ_CHUNK_OVERHEAD;
}

// The fatal exit of the pools (RaiseException 0xC0000017, noncontinuable).
[[noreturn]] void QzPoolFatal();

#endif  // QZBASE_QZMEMPOOL_INTERNAL_H
