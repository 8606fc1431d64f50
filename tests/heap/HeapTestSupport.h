// Helpers of the heap tests: a heap that goes away with the test, the checker
// as an assertion, and placement of system regions where a test wants them.
#ifndef QZBASE_TESTS_HEAP_HEAPTESTSUPPORT_H
#define QZBASE_TESTS_HEAP_HEAPTESTSUPPORT_H

#include <gtest/gtest.h>

#include <deque>

#include "QzChunkHeap.h"
#include "QzHeapCheck.h"
#include "QzTestSupport.h"
#include <qzbase/QzMempool.h>

namespace heaptest {

inline ::testing::AssertionResult HeapOk(QzHeap* heap) {
  QzHeapCheckReport report;
  if (QzHeapCheck(heap, &report)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "heap check: " << report.error;
}
#define EXPECT_HEAP_OK(h) EXPECT_TRUE(heaptest::HeapOk(h))
#define ASSERT_HEAP_OK(h) ASSERT_TRUE(heaptest::HeapOk(h))

inline QzHeapCheckReport Report(QzHeap* heap) {
  QzHeapCheckReport report;
  QzHeapCheck(heap, &report);
  return report;
}

class ScopedHeap {
 public:
  explicit ScopedHeap(size_t capacity = 0) : heap_(QzHeapCreate(capacity)) {}
  ~ScopedHeap() { QzHeapDestroy(heap_); }
  QzHeap* get() const { return heap_; }
  operator QzHeap*() const { return heap_; }
  QzHeap* operator->() const { return heap_; }
  ScopedHeap(const ScopedHeap&) = delete;
  ScopedHeap& operator=(const ScopedHeap&) = delete;
 private:
  QzHeap* heap_;
};

inline size_t Granule() { return QzHeapParams.granularity.load(); }
inline uintptr_t Addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }
inline QzChunk* ChunkOf(const void* block) { return QzBlockToChunk(block); }
inline size_t ChunkSizeOf(const void* block) { return QzChunkSize(QzBlockToChunk(block)); }

// Hands VirtualAlloc the addresses queued by a test, in order; an empty queue
// lets the system choose. Regions are laid out inside a range that the
// constructor found free (reserved once, then given back).
class Placement {
 public:
  explicit Placement(size_t rangeBytes = size_t(64) << 20) {
    void* probe = qzsys::VirtualAlloc(nullptr, rangeBytes, qzsys::MEM_RESERVE | qzsys::MEM_COMMIT,
                                      qzsys::PAGE_READWRITE);
    base_ = reinterpret_cast<uintptr_t>(probe);
    qzsys::VirtualFree(probe, 0, qzsys::MEM_RELEASE);
    qzsys::QzSetVirtualAllocPlacement(&Place, this);
  }
  ~Placement() { qzsys::QzSetVirtualAllocPlacement(nullptr, nullptr); }
  // Next region at base + offset.
  void Queue(size_t offset) { queue_.push_back(base_ + offset); }
  uintptr_t base() const { return base_; }
  size_t pending() const { return queue_.size(); }
 private:
  static qzsys::LPVOID Place(void* self, qzsys::SIZE_T, qzsys::DWORD) {
    Placement* p = static_cast<Placement*>(self);
    if (p->queue_.empty()) return nullptr;
    uintptr_t at = p->queue_.front();
    p->queue_.pop_front();
    return reinterpret_cast<qzsys::LPVOID>(at);
  }
  uintptr_t base_;
  std::deque<uintptr_t> queue_;
};

// Puts the process-wide thresholds back as they were when it was made.
class ParamsScope {
 public:
  ParamsScope() {
    QzEnsureHeapParams();
    granularity_ = QzHeapParams.granularity.load();
    direct_ = QzHeapParams.directThreshold.load();
    trim_ = QzHeapParams.trimThreshold.load();
  }
  ~ParamsScope() {
    QzHeapParams.granularity.store(granularity_);
    QzHeapParams.directThreshold.store(direct_);
    QzHeapParams.trimThreshold.store(trim_);
  }
 private:
  size_t granularity_, direct_, trim_;
};

}  // namespace heaptest

#endif
