#include "pools/QzThreadCache.h"

#include <qzbase/QzLog.h>

#include <string.h>

#include "platform/QzPlatform.h"

using namespace qzsys;

void QzPoolStoreSlotValue(QzMempool* pool, intptr_t value) {
  if (!TlsSetValue(pool->tlsSlot, reinterpret_cast<LPVOID>(value))) QzPoolFatal();
}

QzThreadCache* QzPoolNewCache(QzMempool* pool) {
  QzSpinLockAcquire(&pool->lock);
  unsigned slot = 0;
  while (slot < QZ_POOL_MAX_CACHES && pool->caches[slot].load(std::memory_order_relaxed) != nullptr) ++slot;
  if (slot == QZ_POOL_MAX_CACHES) {
    QzSpinLockRelease(&pool->lock);
    return nullptr;
  }
  QzHeap* first = pool->heaps[0].load(std::memory_order_acquire);
  auto* cache = static_cast<QzThreadCache*>(QzHeapAlloc(first, sizeof(QzThreadCache)));
  if (cache == nullptr) {
    QzSpinLockRelease(&pool->lock);
    return nullptr;
  }
  memset(cache, 0, sizeof(QzThreadCache));
  cache->threadId = GetCurrentThreadId();
  uint32_t heaps = 0;
  while (pool->heaps[heaps].load(std::memory_order_acquire) != nullptr) ++heaps;
  cache->heapIndex = int32_t(cache->threadId % heaps);
  pool->caches[slot].store(cache, std::memory_order_relaxed);
  QzSpinLockRelease(&pool->lock);
  QzPoolStoreSlotValue(pool, intptr_t(slot) + 1);
  return cache;
}

void QzCacheEvict(QzThreadCache* cache, uint32_t age) {
  if (cache->freeBytes == 0) return;
  for (unsigned k = 0; k < QZ_CACHE_BINS; ++k) {
    QzCacheBin& bin = cache->bins[k];
    while (bin.oldest != nullptr && cache->frees - bin.oldest->stamp >= age) {
      QzCachedBlock* x = bin.oldest;
      bin.oldest = x->prev;
      if (bin.oldest != nullptr) {
        bin.oldest->next = nullptr;
      } else {
        bin.newest = nullptr;
      }
      cache->freeBytes -= x->size;
      QzHeapFree(x);
    }
  }
}

void QzCacheShrink(QzThreadCache* cache) {
  for (uint32_t age = QZ_CACHE_FIRST_SHRINK_AGE; age != 0 && cache->freeBytes >= QZ_CACHE_SHRINK_BYTES; age >>= 1) {
    QzCacheEvict(cache, age);
  }
}

void QzCacheDestroy(QzMempool* pool, unsigned slot) {
  QzThreadCache* cache = pool->caches[slot].load(std::memory_order_relaxed);
  if (cache == nullptr) return;
  // One more tick makes every cached block at least one free old, so age 0
  // empties every bin.
  ++cache->frees;
  QzCacheEvict(cache, 0);
  cache->heapIndex = -1;
  cache->threadId = 0;
  QzHeapFree(cache);
  pool->caches[slot].store(nullptr, std::memory_order_relaxed);
}

QzHeap* QzPoolFindHeap(QzMempool* pool, QzThreadCache* cache, int32_t* heapIndex, size_t size) {
  const int32_t i = *heapIndex;
  int32_t found = -1;
  QzHeap* heap = nullptr;
  int32_t e = i + 1;
  for (; (heap = pool->heaps[e].load(std::memory_order_acquire)) != nullptr; ++e) {
    if (QzSpinLockTryAcquire(&heap->lock)) {
      found = e;
      break;
    }
  }
  if (found < 0) {
    // e is now the first index with no heap.
    for (int32_t j = 0; j < i; ++j) {
      heap = pool->heaps[j].load(std::memory_order_acquire);
      if (QzSpinLockTryAcquire(&heap->lock)) {
        found = j;
        break;
      }
    }
  }
  const int32_t limit = pool->heapLimit.load(std::memory_order_relaxed);
  if (found < 0 && e < limit) {
    // Made outside all locks, so it may be made in vain.
    QzHeap* fresh = QzHeapCreate(size);
    if (fresh != nullptr) {
      QzSpinLockAcquire(&pool->lock);
      while (e < limit && pool->heaps[e].load(std::memory_order_relaxed) != nullptr) ++e;
      if (e >= limit) {
        QzSpinLockRelease(&pool->lock);
        QzHeapDestroy(fresh);
      } else {
        QzSpinLockAcquire(&fresh->lock);
        pool->heaps[e].store(fresh, std::memory_order_release);
        QzSpinLockRelease(&pool->lock);
        heap = fresh;
        found = e;
      }
    }
  }
  if (found < 0) {
    // Nothing else to be had: wait for the preferred heap, preference unchanged.
    heap = pool->heaps[i].load(std::memory_order_acquire);
    QzSpinLockAcquire(&heap->lock);
    return heap;
  }
  *heapIndex = found;
  if (cache != nullptr) {
    cache->heapIndex = found;
  } else {
    QzPoolStoreSlotValue(pool, -(intptr_t(found) + 1));
  }
  return heap;
}

void QzPoolLogAlreadyFreed(const void* block) {
  // Called with no lock held: the log allocates its line from the default
  // pool, which may be this very pool. A line that cannot be built (no
  // memory) is dropped: a free never throws.
  try {
    QZ_LOG_WRITE_A(QZ_LOG_FATAL_ERROR, "Attempt to free already freed memory block 0x%p - aborting!\n", block);
  } catch (...) {
  }
}
