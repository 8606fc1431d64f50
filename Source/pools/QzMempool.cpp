#include "pools/QzMempool.h"

#include <string.h>

#include <new>

#include "pools/QzThreadCache.h"
#include "platform/QzPlatform.h"

using namespace qzsys;

QzMempool g_qzDefaultPool;

namespace {

// The calling thread's cache in the default pool, noted by the slow paths once
// the thread has one. Every string and log line allocates there, and the note
// saves the slot look-up on that path. Cleared when the thread gives its cache
// up; the default pool itself never goes away.
thread_local QzThreadCache* t_defaultCache __attribute__((tls_model("initial-exec"))) = nullptr;

inline void NoteCache(const QzMempool* pool, QzThreadCache* cache) {
  if (pool == &g_qzDefaultPool) t_defaultCache = cache;
}

inline bool PoolAllocFails() { return QzFaultHit(QZ_FAULT_POOL_ALLOC); }
// Only whether the switch is armed at all: the fast path leaves the counting to
// the slow one, so that it makes no call it has to come back from.
inline bool PoolAllocSwitchArmed() {
  return g_qzFaults[QZ_FAULT_POOL_ALLOC].armed.load(std::memory_order_relaxed) != 0;
}

inline size_t RaiseRequest(size_t size) { return size < QZ_MEMPOOL_MIN_REQUEST ? QZ_MEMPOOL_MIN_REQUEST : size; }

// The common path of Alloc and Calloc. `fromCache` tells the caller whether the
// block came from a cache; `*size` ends as the size asked of the heap.
inline void* PoolAlloc(QzMempool* pool, size_t* size, bool* fromCache) {
  QzThreadCache* cache;
  int32_t heapIndex;
  QzPoolThreadState(pool, &cache, &heapIndex);
  if (cache != nullptr && *size <= QZ_CACHE_MAX_REQUEST) {
    void* block = QzCacheTake(cache, size);
    if (block != nullptr) {
      *fromCache = true;
      return block;
    }
  }
  *fromCache = false;
  QzHeap* heap = QzPoolLockHeap(pool, cache, &heapIndex, *size);
  void* block = QzHeapAlloc(heap, *size);
  QzSpinLockRelease(&heap->lock);
  return block;
}

inline bool IsDirectlyMapped(const void* block) {
  return (QzPoolSizeWord(block) & QZ_INUSE_BITS) == 0;
}

inline bool CacheableOnFree(size_t usable) {
  return usable - QZ_CACHE_MIN_CLASS <= QZ_CACHE_MAX_PUT - QZ_CACHE_MIN_CLASS;
}

// The fast paths below handle a thread that already has its cache in a pool
// that is set up; everything else, and every miss, goes to these, which are
// kept out of line so that the fast paths need no stack frame.
__attribute__((noinline)) void* AllocSlow(QzMempool* pool, size_t size) {
  if (PoolAllocFails()) return nullptr;
  size = RaiseRequest(size);
  bool fromCache;
  pool = QzResolvePool(pool);
  void* block = PoolAlloc(pool, &size, &fromCache);
  const intptr_t v = QzPoolSlotValue(pool);
  if (v > 0) NoteCache(pool, pool->caches[v - 1].load(std::memory_order_relaxed));
  return block;
}

__attribute__((noinline)) void* AllocFromHeap(QzMempool* pool, QzThreadCache* cache, size_t size) {
  int32_t heapIndex = cache->heapIndex;
  QzHeap* heap = QzPoolLockHeap(pool, cache, &heapIndex, size);
  void* block = QzHeapAlloc(heap, size);
  QzSpinLockRelease(&heap->lock);
  return block;
}

__attribute__((noinline)) void FreeSlow(QzMempool* pool, void* block) {
  const size_t usable = QzPoolUsableSize(block);
  pool = QzResolvePool(pool);
  QzThreadCache* cache;
  int32_t heapIndex;
  QzPoolThreadState(pool, &cache, &heapIndex);
  if (cache != nullptr) NoteCache(pool, cache);
  if (cache != nullptr && CacheableOnFree(usable)) {
    QzCachePut(pool, cache, block, usable);
  } else {
    QzHeapFree(block);
  }
}

// The calling thread's cache in `pool` (0: the default pool), or null when
// the slow path has to decide.
inline QzThreadCache* ReadyCache(QzMempool** pool) {
  QzMempool* p = *pool;
  if (p == nullptr) {
    *pool = &g_qzDefaultPool;
    return t_defaultCache;
  }
  const intptr_t v = QzPoolSlotValue(p);
  if (__builtin_expect(v <= 0, 0)) return nullptr;
  *pool = p;
  return p->caches[v - 1].load(std::memory_order_relaxed);
}

inline void PoolFree(QzMempool* pool, void* block) {
  QzMempool* p = pool;
  QzThreadCache* cache = ReadyCache(&p);
  if (__builtin_expect(cache != nullptr, 1)) {
    const size_t usable = QzPoolUsableSize(block);
    if (__builtin_expect(CacheableOnFree(usable), 1)) {
      QzCachePut(p, cache, block, usable);
      return;
    }
  }
  FreeSlow(pool, block);
}

}  // namespace

[[noreturn]] void QzPoolFatal() { RaiseException(STATUS_NO_MEMORY, EXCEPTION_NONCONTINUABLE, 0, nullptr); }

bool QzPoolInit(QzMempool* pool, size_t capacity, int threads) {
  QzEnsureHeapParams();
  QzSpinLockAcquire(&QzHeapParams.lock);
  if (pool->heapLimit.load(std::memory_order_relaxed) != 0) {
    QzSpinLockRelease(&QzHeapParams.lock);
    return true;
  }
  pool->lock.locked.store(0, std::memory_order_relaxed);
  pool->lock.count = 0;
  pool->lock.owner.store(0, std::memory_order_relaxed);
  pool->tlsSlot = TlsAlloc();
  QzHeap* heap = nullptr;
  if (pool->tlsSlot != TLS_OUT_OF_INDEXES) heap = QzHeapCreate(capacity);
  if (heap == nullptr) {
    if (threads < 0) QzPoolFatal();
    if (pool->tlsSlot != TLS_OUT_OF_INDEXES && !TlsFree(pool->tlsSlot)) QzPoolFatal();
    QzSpinLockRelease(&QzHeapParams.lock);
    return false;
  }
  heap->owningPool = pool;
  pool->heaps[0].store(heap, std::memory_order_release);
  pool->heapLimit.store(threads >= 1 && threads <= int(QZ_POOL_MAX_HEAPS) ? threads : int(QZ_POOL_MAX_HEAPS),
                        std::memory_order_release);
  QzSpinLockRelease(&QzHeapParams.lock);
  return true;
}

extern "C" {

QZ_API QzMempool* Qz_CreateMempool(size_t capacity, int threads) {
  void* record = Qz_MempoolCalloc(nullptr, 1, sizeof(QzMempool));
  if (record == nullptr) return nullptr;
  QzMempool* pool = new (record) QzMempool();
  if (!QzPoolInit(pool, capacity, threads)) {
    pool->~QzMempool();
    Qz_MempoolFree(nullptr, record);
    return nullptr;
  }
  return pool;
}

QZ_API void Qz_DestroyMempool(QzMempool* pool) {
  if (pool == nullptr || pool == &g_qzDefaultPool) return;
  QzSpinLockAcquire(&pool->lock);
  for (unsigned slot = 0; slot < QZ_POOL_MAX_CACHES; ++slot) QzCacheDestroy(pool, slot);
  for (unsigned i = 0; i < QZ_POOL_MAX_HEAPS; ++i) {
    QzHeap* heap = pool->heaps[i].load(std::memory_order_relaxed);
    if (heap == nullptr) break;
    QzHeapDestroy(heap);
    pool->heaps[i].store(nullptr, std::memory_order_relaxed);
  }
  QzSpinLockRelease(&pool->lock);
  if (!TlsFree(pool->tlsSlot)) QzPoolFatal();
  pool->~QzMempool();
  Qz_MempoolFree(nullptr, pool);
}

QZ_API void* Qz_MempoolAlloc(QzMempool* pool, size_t size) {
  if (__builtin_expect(size <= QZ_CACHE_MAX_REQUEST && !PoolAllocSwitchArmed(), 1)) {
    QzMempool* p = pool;
    QzThreadCache* cache = ReadyCache(&p);
    if (__builtin_expect(cache != nullptr, 1)) {
      size = RaiseRequest(size);
      void* block = QzCacheTake(cache, &size);
      if (__builtin_expect(block != nullptr, 1)) return block;
      return AllocFromHeap(p, cache, size);
    }
  }
  return AllocSlow(pool, size);
}

QZ_API void* Qz_MempoolCalloc(QzMempool* pool, size_t count, size_t size) {
  if (PoolAllocFails()) return nullptr;
  size_t total;
  if (__builtin_mul_overflow(count, size, &total)) return nullptr;
  total = RaiseRequest(total);
  bool fromCache;
  size_t asked = total;
  void* block = PoolAlloc(QzResolvePool(pool), &asked, &fromCache);
  if (block == nullptr) return nullptr;
  // A cached block is cleared over its class, a heap block over what the heap
  // was asked for; a directly mapped block comes zero-filled from the system.
  if (fromCache || !IsDirectlyMapped(block)) memset(block, 0, asked);
  return block;
}

QZ_API void Qz_MempoolFree(QzMempool* pool, void* block) {
  if (block == nullptr) return;
  PoolFree(pool, block);
}

QZ_API void Qz_MempoolAlignedFree(QzMempool* pool, void* block) {
  if (block == nullptr) return;
  PoolFree(pool, block);
}

QZ_API void* Qz_MempoolRealloc(QzMempool* pool, void* block, size_t size) {
  if (block == nullptr) return Qz_MempoolAlloc(pool, size);
  if (PoolAllocFails()) return nullptr;
  size = RaiseRequest(size);
  pool = QzResolvePool(pool);
  QzThreadCache* cache;
  int32_t heapIndex;
  QzPoolThreadState(pool, &cache, &heapIndex);
  if (cache != nullptr && size <= QZ_CACHE_MAX_REQUEST) {
    const size_t old = QzPoolUsableSize(block);
    void* fresh = QzCacheTake(cache, &size);
    if (fresh != nullptr) {
      memcpy(fresh, block, old < size ? old : size);
      if (old >= QZ_CACHE_MIN_CLASS && old <= QZ_CACHE_MAX_REQUEST) {
        QzCachePut(pool, cache, block, old);
      } else {
        QzHeapFree(block);
      }
      return fresh;
    }
  }
  // The block's own heap, whatever the pool handle says. A block flagged free
  // has no footer to follow.
  if ((QzPoolSizeWord(block) & QZ_INUSE_BITS) == QZ_PREV_INUSE) return nullptr;
  QzHeap* heap = QzBlockOwnerHeap(block);
  if (heap == nullptr) return nullptr;
  return QzHeapRealloc(heap, block, size);
}

QZ_API size_t Qz_MemblkSize(void* block) { return QzPoolUsableSize(block); }

QZ_API void Qz_MempoolSetValue(QzMempool* pool, uintptr_t value) {
  QzResolvePool(pool)->value.store(value, std::memory_order_relaxed);
}

QZ_API uintptr_t Qz_MempoolGetValue(QzMempool** place, void* block) {
  if (block == nullptr) return 0;
  // A probe: every word is read as it stands, aligned or not, and each test
  // decides before the next read depends on it.
  const uintptr_t p = reinterpret_cast<uintptr_t>(block) - QZ_CHUNK_OVERHEAD;
  auto word = [](uintptr_t at) {
    size_t w;
    memcpy(&w, reinterpret_cast<const void*>(at), sizeof(w));
    return w;
  };
  const size_t sizeWord = word(p + QZ_WORD);
  if ((p & QZ_CHUNK_ALIGN_MASK) != 0 && sizeWord != QZ_FENCEPOST) return 0;
  if ((sizeWord & QZ_INUSE_BITS) == QZ_PREV_INUSE) return 0;
  const size_t size = sizeWord & ~QZ_FLAG_BITS;
  const uintptr_t next = p + size;
  if ((word(next + QZ_WORD) & QZ_PREV_INUSE) == 0) return 0;
  if ((sizeWord & QZ_INUSE_BITS) == QZ_CUR_INUSE) {
    const size_t prevSize = word(p);
    if ((word(p - prevSize + QZ_WORD) & ~QZ_FLAG_BITS) != prevSize) return 0;
  }
  const size_t stamp = QzStamp();
  auto* heap = reinterpret_cast<QzHeap*>(word(next) ^ stamp);
  if (!QzHeapIsLive(heap) || heap->magic != stamp || p < heap->lowestAddress) return 0;
  QzMempool* pool = heap->owningPool;
  if (pool == nullptr) return 0;
  if (place != nullptr) *place = pool;
  return pool->value.load(std::memory_order_relaxed);
}

QZ_API void* Qz_MempoolAlignedAlloc(QzMempool* pool, size_t alignment, size_t size) {
  if (PoolAllocFails()) return nullptr;
  size = RaiseRequest(size);
  pool = QzResolvePool(pool);
  QzThreadCache* cache;
  int32_t heapIndex;
  QzPoolThreadState(pool, &cache, &heapIndex);
  QzHeap* heap = QzPoolLockHeap(pool, cache, &heapIndex, size);
  void* block = heap->magic == QzStamp() ? QzHeapAlignedAlloc(heap, alignment, size) : nullptr;
  QzSpinLockRelease(&heap->lock);
  return block;
}

QZ_API void* Qz_MempoolAlignedRealloc(QzMempool* pool, void* block, size_t alignment, size_t size) {
  if (block == nullptr) return Qz_MempoolAlignedAlloc(pool, alignment, size);
  return Qz_MempoolRealloc(pool, block, size);
}

QZ_API void Qz_MempoolDisableThreadCache(QzMempool* pool) {
  pool = QzResolvePool(pool);
  const intptr_t v = QzPoolSlotValue(pool);
  if (v == 0) {
    QzPoolStoreSlotValue(pool, -1);
  } else if (v > 0) {
    QzThreadCache* cache = pool->caches[v - 1].load(std::memory_order_relaxed);
    NoteCache(pool, nullptr);
    QzPoolStoreSlotValue(pool, -(intptr_t(cache->heapIndex) + 1));
    QzCacheDestroy(pool, unsigned(v - 1));
  }
}

}  // extern "C"
