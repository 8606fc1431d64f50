// Helpers of the pool suite: a view of a thread's cache, a thread that holds
// heap locks on request, and block patterns.
#ifndef QZBASE_TESTS_POOL_POOLTESTSUPPORT_H
#define QZBASE_TESTS_POOL_POOLTESTSUPPORT_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <string>

#include "QzHeapCheck.h"
#include "QzMempool.h"
#include "QzThreadCache.h"

namespace pooltest {

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
  QzHeap* h = QzBlockOwnerHeap(block);
  for (int i = 0; pool->heaps[i].load() != nullptr; ++i)
    if (pool->heaps[i].load() == h) return i;
  return -1;
}

// Number of blocks in one bin of a cache, walked from newest to oldest.
inline int BinCount(const QzThreadCache* c, unsigned bin) {
  int n = 0;
  for (QzCachedBlock* x = c->bins[bin].newest; x != nullptr; x = x->next) ++n;
  return n;
}

// Proves a cache's lists: links agree both ways, ends match, stamps grow
// towards `newest`, every block is in use in its heap with room for its
// class, and `freeBytes` is the sum. Empty string when sound.
inline std::string CacheProblem(const QzThreadCache* c) {
  if (c == nullptr) return "";
  uint64_t bytes = 0;
  for (unsigned k = 0; k < QZ_CACHE_BINS; ++k) {
    const QzCacheBin& bin = c->bins[k];
    const QzCachedBlock* prev = nullptr;
    int n = 0;
    for (const QzCachedBlock* x = bin.newest; x != nullptr; prev = x, x = x->next) {
      if (++n > 1 << 20) return "bin " + std::to_string(k) + ": cycle";
      if (x->prev != prev) return "bin " + std::to_string(k) + ": prev link";
      if (x->size != (QZ_CACHE_MIN_CLASS << k)) return "bin " + std::to_string(k) + ": size";
      if (prev != nullptr && int32_t(prev->stamp - x->stamp) <= 0) return "bin " + std::to_string(k) + ": stamps";
      if (QzPoolUsableSize(x) < x->size) return "bin " + std::to_string(k) + ": block free or too small";
      bytes += x->size;
    }
    if (bin.oldest != prev) return "bin " + std::to_string(k) + ": oldest";
  }
  if (bytes != c->freeBytes) return "freeBytes";
  return "";
}

// The first fault of any heap of the pool or of the calling thread's cache.
inline std::string PoolProblem(QzMempool* pool) {
  pool = QzResolvePool(pool);
  for (int i = 0; pool->heaps[i].load() != nullptr; ++i) {
    QzHeapCheckReport report;
    if (!QzHeapCheck(pool->heaps[i].load(), &report))
      return "heap " + std::to_string(i) + ": " + report.error;
  }
  return CacheProblem(MyCache(pool));
}

// A thread that takes the locks of the given heaps and holds them until
// Release() (or destruction). The locks are recursive per thread, so contention
// needs another thread.
class LockHolder {
 public:
  explicit LockHolder(std::vector<QzHeap*> heaps) : heaps_(std::move(heaps)) {
    thread_ = std::thread([this] {
      for (QzHeap* h : heaps_) QzSpinLockAcquire(&h->lock);
      held_.store(true);
      std::unique_lock<std::mutex> lk(m_);
      cv_.wait(lk, [this] { return release_; });
      for (QzHeap* h : heaps_) QzSpinLockRelease(&h->lock);
    });
    while (!held_.load()) std::this_thread::yield();
  }
  void Release() {
    if (!thread_.joinable()) return;
    {
      std::lock_guard<std::mutex> lk(m_);
      release_ = true;
    }
    cv_.notify_one();
    thread_.join();
  }
  ~LockHolder() { Release(); }

 private:
  std::vector<QzHeap*> heaps_;
  std::atomic<bool> held_{false};
  std::mutex m_;
  std::condition_variable cv_;
  bool release_ = false;
  std::thread thread_;
};

// Runs fn on a fresh thread and waits for it.
inline void OnNewThread(const std::function<void()>& fn) { std::thread(fn).join(); }

// Patterns that tell blocks apart: byte i of block `id` is (id * 131 + i) & 0xFF.
inline void Fill(void* block, size_t n, uint32_t id) {
  auto* p = static_cast<unsigned char*>(block);
  for (size_t i = 0; i < n; ++i) p[i] = static_cast<unsigned char>(id * 131u + i);
}
inline bool Holds(const void* block, size_t n, uint32_t id) {
  auto* p = static_cast<const unsigned char*>(block);
  for (size_t i = 0; i < n; ++i)
    if (p[i] != static_cast<unsigned char>(id * 131u + i)) return false;
  return true;
}

}  // namespace pooltest

#endif  // QZBASE_TESTS_POOL_POOLTESTSUPPORT_H
