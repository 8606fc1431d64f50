// Helpers of the pool suite: a view of a thread's cache, heap growth on
// demand, and block patterns.
#ifndef QZBASE_TESTS_POOL_POOLTESTSUPPORT_H
#define QZBASE_TESTS_POOL_POOLTESTSUPPORT_H

#include <gtest/gtest.h>

#include <thread>

#include "pools/QzHeapCheck.h"
#include "pools/QzMempool.h"
#include "QzTestSupport.h"
#include "pools/QzThreadCache.h"

constexpr size_t M = QZ_CACHE_MIN_CLASS;
constexpr size_t MAXR = QZ_CACHE_MAX_REQUEST;

// The calling thread's cache in `pool`, or null.
inline QzThreadCache* MyCache(QzMempool* pool) {
  intptr_t v = QzPoolSlotValue(QzResolvePool(pool));
  return v > 0 ? QzResolvePool(pool)->caches[v - 1].load() : nullptr;
}

inline int HeapCount(QzMempool* pool) {
  int n = 0;
  while (pool->heaps[n].load() != nullptr) ++n;
  return n;
}

inline int HeapIndexOf(QzMempool* pool, const void* block) {
  for (int i = 0; pool->heaps[i].load() != nullptr; ++i)
    if (pool->heaps[i].load() == QzBlockOwnerHeap(block)) return i;
  return -1;
}

// The first fault of any heap of the pool or of the calling thread's cache
// lists (links both ways, ends, growing stamps, live blocks, the byte sum).
inline std::string PoolProblem(QzMempool* pool) {
  pool = QzResolvePool(pool);
  for (int i = 0; pool->heaps[i].load() != nullptr; ++i) {
    QzHeapCheckReport report;
    if (!QzHeapCheck(pool->heaps[i].load(), &report)) return "heap " + std::to_string(i) + ": " + report.error;
  }
  const QzThreadCache* c = MyCache(pool);
  uint64_t bytes = 0;
  for (unsigned k = 0; c != nullptr && k < QZ_CACHE_BINS; ++k) {
    const QzCachedBlock* prev = nullptr;
    int n = 0;
    for (const QzCachedBlock* x = c->bins[k].newest; x != nullptr; prev = x, x = x->next) {
      if (++n > 1 << 20 || x->prev != prev || x->size != (M << k) || QzPoolUsableSize(x) < x->size ||
          (prev != nullptr && int32_t(prev->stamp - x->stamp) <= 0))
        return "cache bin " + std::to_string(k) + " block " + std::to_string(n);
      bytes += x->size;
    }
    if (c->bins[k].oldest != prev) return "cache bin " + std::to_string(k) + ": oldest";
  }
  return c == nullptr || bytes == c->freeBytes ? "" : "cache freeBytes";
}

// Makes the pool add heaps until it has n, by a miss of the calling thread
// while another thread holds every existing heap (the locks are recursive per
// thread); the calling thread ends on the last one.
inline void GrowTo(QzMempool* pool, int n) {
  for (int have = HeapCount(pool); have < n; ++have) {
    std::atomic<int> step{0};
    std::thread holder([&] {
      for (int i = 0; i < have; ++i) QzSpinLockAcquire(&pool->heaps[i].load()->lock);
      step.store(1);
      while (step.load() != 2) std::this_thread::yield();
      for (int i = 0; i < have; ++i) QzSpinLockRelease(&pool->heaps[i].load()->lock);
    });
    while (step.load() != 1) std::this_thread::yield();
    Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, 2 * MAXR));
    step.store(2);
    holder.join();
  }
}

// A fresh pool of up to 16 heaps per test. The default pool is made first: its
// set-up failing under an armed failure switch would be fatal by design.
class PoolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Qz_MempoolFree(nullptr, Qz_MempoolAlloc(nullptr, 1));
    ASSERT_NE(pool = Qz_CreateMempool(0, 16), nullptr);
  }
  void TearDown() override { Qz_DestroyMempool(pool); }
  // The calling thread's cache, made by a first call that touches no bin.
  QzThreadCache* Cache() {
    Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, 5 * MAXR));
    return MyCache(pool);
  }
  QzMempool* pool = nullptr;
};

inline void OnNewThread(const std::function<void()>& fn) { std::thread(fn).join(); }

// Byte i of block `id` is (id * 131 + i) & 0xFF; id 0 with step 0 is all zero.
inline void Fill(void* block, size_t n, uint32_t id) {
  for (size_t i = 0; i < n; ++i) static_cast<unsigned char*>(block)[i] = static_cast<unsigned char>(id * 131u + i);
}
inline bool Holds(const void* block, size_t n, uint32_t id, unsigned step = 1) {
  for (size_t i = 0; i < n; ++i)
    if (static_cast<const unsigned char*>(block)[i] != static_cast<unsigned char>(id * 131u + i * step)) return false;
  return true;
}
inline bool AllZero(const void* block, size_t n) { return Holds(block, n, 0, 0); }

#endif  // QZBASE_TESTS_POOL_POOLTESTSUPPORT_H
