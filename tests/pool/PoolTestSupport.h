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
