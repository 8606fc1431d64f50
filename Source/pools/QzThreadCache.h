// Thread caches: one per thread and pool, between the pool calls and the heaps.
//
// A freed block of up to about 8 KiB goes into the cache of the thread that
// frees it, and a later allocation of that class takes it back with no lock.
// To its heap a cached block stays an in-use chunk; only the first bytes of its
// payload are overwritten by the cache's links (QzCachedBlock), which is why
// every cached request is at least one class large.
//
// Size classes are powers of two from QZ_CACHE_MIN_CLASS, ten of them. The
// smallest class is four words, as the smallest chunk is, so on x86-64 every
// class, limit and threshold is twice its i386 value:
//
//   constant                           i386        x86-64
//   QZ_CACHE_MIN_CLASS                   16            32
//   QZ_CACHE_MAX_REQUEST               8192         16384
//   QZ_CACHE_MAX_PUT                   8200         16400
//   QZ_CACHE_SHRINK_BYTES           0x80000      0x100000
//
// Threads: a cache belongs to its thread; take, put and evict run without
// locks. The pool's lock guards `caches` and additions to `heaps`.
#ifndef QZBASE_QZTHREADCACHE_H
#define QZBASE_QZTHREADCACHE_H

#include <stddef.h>
#include <stdint.h>

#include "pools/QzChunkHeap.h"
#include "pools/QzMempool.h"

constexpr unsigned QZ_CACHE_BINS = 10;
constexpr unsigned QZ_CACHE_CLASS_SHIFT = (QZ_WORD == 8) ? 5 : 4;
constexpr size_t QZ_CACHE_MIN_CLASS = size_t(1) << QZ_CACHE_CLASS_SHIFT;          // 16 / 32
constexpr size_t QZ_CACHE_MAX_REQUEST = QZ_CACHE_MIN_CLASS << (QZ_CACHE_BINS - 1);  // 8192 / 16384
// A request of the largest class may be served with one alignment step more.
constexpr size_t QZ_CACHE_MAX_PUT = QZ_CACHE_MAX_REQUEST + QZ_CHUNK_ALIGN;         // 8200 / 16400
// 64 blocks of the largest class.
constexpr uint32_t QZ_CACHE_SHRINK_BYTES = uint32_t(QZ_CACHE_MAX_REQUEST * 64);     // 0x80000 / 0x100000
constexpr uint32_t QZ_CACHE_FIRST_SHRINK_AGE = 64;

// Written over the first bytes of a cached block's payload.
struct QzCachedBlock {
  uint32_t stamp;        // the cache's `frees` when the block went in
  uint32_t size;         // the bin's class size (may be below the usable size)
  QzCachedBlock* next;   // towards `oldest`
  QzCachedBlock* prev;   // towards `newest`
};
static_assert(sizeof(QzCachedBlock) <= QZ_CACHE_MIN_CLASS, "cache links fit the smallest class");

struct QzCacheBin {
  QzCachedBlock* newest;
  QzCachedBlock* oldest;
};

struct QzThreadCache {
  int32_t heapIndex;   // the thread's preferred heap, an index into the pool's heaps
  uint32_t threadId;   // GetCurrentThreadId at creation
  uint32_t lookups;    // look-ups, hit or miss
  uint32_t frees;      // blocks ever put in: the cache's clock
  uint32_t hits;       // look-ups that found a block
  uint32_t freeBytes;  // sum of the recorded sizes of the cached blocks
  QzCacheBin bins[QZ_CACHE_BINS];
};

// Bin of a size that rounds up (allocation), for QZ_MEMPOOL_MIN_REQUEST..QZ_CACHE_MAX_REQUEST.
inline unsigned QzCacheBinUp(size_t size) {
  if (size <= QZ_CACHE_MIN_CLASS) return 0;
  return unsigned(8 * sizeof(unsigned long) - 1 - __builtin_clzl((unsigned long)((size - 1) >> QZ_CACHE_CLASS_SHIFT))) + 1;
}
// Bin of a usable size that rounds down (free), for QZ_CACHE_MIN_CLASS..QZ_CACHE_MAX_PUT.
inline unsigned QzCacheBinDown(size_t usable) {
  return unsigned(8 * sizeof(unsigned long) - 1 - __builtin_clzl((unsigned long)(usable >> QZ_CACHE_CLASS_SHIFT)));
}

// TLS slot values of a pool: 0 unseen, v > 0 cache caches[v - 1], v < 0 no
// cache and heap -v - 1.
inline intptr_t QzPoolSlotValue(const QzMempool* pool) {
  return reinterpret_cast<intptr_t>(qzsys::QzTlsPeekValue(pool->tlsSlot));
}
// Stores a slot value; a failure is fatal (RaiseException 0xC0000017).
void QzPoolStoreSlotValue(QzMempool* pool, intptr_t value);

// The calling thread's cache (null if none) and preferred heap index. Makes a
// cache for a thread the pool has not seen.
inline void QzPoolThreadState(QzMempool* pool, QzThreadCache** cache, int32_t* heapIndex);
// A new cache for the calling thread, or null (no free slot, or no memory).
QzThreadCache* QzPoolNewCache(QzMempool* pool);

// A cached block for `*size` (QZ_MEMPOOL_MIN_REQUEST..QZ_CACHE_MAX_REQUEST),
// or null; raises *size to its class size either way.
inline void* QzCacheTake(QzThreadCache* cache, size_t* size);
// Caches a block of usable size QZ_CACHE_MIN_CLASS..QZ_CACHE_MAX_PUT. A block
// that is already the newest of its bin is reported as freed twice and left
// alone.
inline void QzCachePut(QzMempool* pool, QzThreadCache* cache, void* block, size_t usable);
// Gives back blocks, oldest first, until the cache is below the limit.
void QzCacheShrink(QzThreadCache* cache);
// Gives back, bin by bin, the blocks at the old end that are at least `age`
// frees old.
void QzCacheEvict(QzThreadCache* cache, uint32_t age);
// Empties and frees the cache in `slot` (whichever thread owns it).
void QzCacheDestroy(QzMempool* pool, unsigned slot);

// A heap of the pool with its lock held: the preferred one if it is free, else
// QzPoolFindHeap. `size` sizes a heap that has to be made. The caller
// releases the heap's lock.
inline QzHeap* QzPoolLockHeap(QzMempool* pool, QzThreadCache* cache, int32_t* heapIndex, size_t size);
QzHeap* QzPoolFindHeap(QzMempool* pool, QzThreadCache* cache, int32_t* heapIndex, size_t size);

// The already-freed report. Kept in one place so that it can be routed to the
// log; it allocates nothing and takes no lock.
void QzPoolLogAlreadyFreed(const void* block);

// ---- Inline hot paths ------------------------------------------------------------

inline void QzPoolThreadState(QzMempool* pool, QzThreadCache** cache, int32_t* heapIndex) {
  intptr_t v = QzPoolSlotValue(pool);
  if (__builtin_expect(v > 0, 1)) {
    QzThreadCache* c = pool->caches[v - 1].load(std::memory_order_relaxed);
    *cache = c;
    *heapIndex = c->heapIndex;
    return;
  }
  if (v < 0) {
    *cache = nullptr;
    *heapIndex = int32_t(-v - 1);
    return;
  }
  QzThreadCache* c = QzPoolNewCache(pool);
  *cache = c;
  if (c != nullptr) {
    *heapIndex = c->heapIndex;
  } else {
    QzPoolStoreSlotValue(pool, -1);
    *heapIndex = 0;
  }
}

inline void* QzCacheTake(QzThreadCache* cache, size_t* size) {
  unsigned k = QzCacheBinUp(*size);
  const size_t b = QZ_CACHE_MIN_CLASS << k;
  *size = b;
  QzCachedBlock* x = cache->bins[k].newest;
  if ((x == nullptr || x->size < b) && k < QZ_CACHE_BINS - 1) {
    ++k;
    x = cache->bins[k].newest;
  }
  ++cache->lookups;
  if (x != nullptr) {
    QzCachedBlock* n = x->next;
    cache->bins[k].newest = n;
    if (n != nullptr) {
      n->prev = nullptr;
    } else {
      cache->bins[k].oldest = nullptr;
    }
    ++cache->hits;
    cache->freeBytes -= x->size;
  }
  return x;
}

inline void QzCachePut(QzMempool* pool, QzThreadCache* cache, void* block, size_t usable) {
  const unsigned k = QzCacheBinDown(usable);
  QzCacheBin& bin = cache->bins[k];
  QzCachedBlock* x = static_cast<QzCachedBlock*>(block);
  if (__builtin_expect(x == bin.newest, 0)) {
    QzPoolLogAlreadyFreed(block);
    return;
  }
  const uint32_t b = uint32_t(QZ_CACHE_MIN_CLASS << k);
  x->stamp = ++cache->frees;
  x->size = b;
  x->next = bin.newest;
  x->prev = nullptr;
  if (bin.newest != nullptr) {
    bin.newest->prev = x;
  } else {
    bin.oldest = x;
  }
  bin.newest = x;
  cache->freeBytes += b;
  if (__builtin_expect(cache->freeBytes >= QZ_CACHE_SHRINK_BYTES, 0)) QzCacheShrink(cache);
}

inline QzHeap* QzPoolLockHeap(QzMempool* pool, QzThreadCache* cache, int32_t* heapIndex, size_t size) {
  QzHeap* heap = pool->heaps[*heapIndex].load(std::memory_order_acquire);
  if (__builtin_expect(QzSpinLockTryAcquire(&heap->lock), 1)) return heap;
  return QzPoolFindHeap(pool, cache, heapIndex, size);
}

#endif  // QZBASE_QZTHREADCACHE_H
