// Helpers of the heap tests: a heap that goes away with the test, the checker
// as an assertion, and placement of system regions where a test wants them.
#ifndef QZBASE_TESTS_HEAP_HEAPTESTSUPPORT_H
#define QZBASE_TESTS_HEAP_HEAPTESTSUPPORT_H

#include <gtest/gtest.h>

#include <deque>

#include "pools/QzChunkHeap.h"
#include "pools/QzHeapCheck.h"
#include "QzTestSupport.h"
#include <qzbase/QzMempool.h>

namespace heaptest {

inline QzHeapCheckReport Report(QzHeap* heap) {
  QzHeapCheckReport report;
  QzHeapCheck(heap, &report);
  return report;
}
inline ::testing::AssertionResult HeapOk(QzHeap* heap) {
  QzHeapCheckReport report;
  if (QzHeapCheck(heap, &report)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "heap check: " << report.error;
}
#define EXPECT_HEAP_OK(h) EXPECT_TRUE(heaptest::HeapOk(h))
#define ASSERT_HEAP_OK(h) ASSERT_TRUE(heaptest::HeapOk(h))

struct ScopedHeap {
  QzHeap* heap;
  explicit ScopedHeap(size_t capacity = 0) : heap(QzHeapCreate(capacity)) {}
  ~ScopedHeap() { QzHeapDestroy(heap); }
  ScopedHeap(const ScopedHeap&) = delete;
  QzHeap* get() const { return heap; }
  operator QzHeap*() const { return heap; }
  QzHeap* operator->() const { return heap; }
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
  Placement() {
    void* probe = qzsys::VirtualAlloc(nullptr, size_t(64) << 20, qzsys::MEM_RESERVE | qzsys::MEM_COMMIT,
                                      qzsys::PAGE_READWRITE);
    base_ = Addr(probe);
    qzsys::VirtualFree(probe, 0, qzsys::MEM_RELEASE);
    qzsys::QzSetVirtualAllocPlacement(&Place, this);
  }
  ~Placement() { qzsys::QzSetVirtualAllocPlacement(nullptr, nullptr); }
  void Queue(size_t offset) { queue_.push_back(base_ + offset); }
  uintptr_t base() const { return base_; }
 private:
  static qzsys::LPVOID Place(void* self, qzsys::SIZE_T, qzsys::DWORD) {
    std::deque<uintptr_t>& queue = static_cast<Placement*>(self)->queue_;
    if (queue.empty()) return nullptr;
    const uintptr_t at = queue.front();
    queue.pop_front();
    return reinterpret_cast<qzsys::LPVOID>(at);
  }
  uintptr_t base_;
  std::deque<uintptr_t> queue_;
};

// Puts the process-wide thresholds back as they were when it was made.
struct ParamsScope {
  size_t granularity, direct, trim;
  ParamsScope() {
    QzEnsureHeapParams();
    granularity = QzHeapParams.granularity.load();
    direct = QzHeapParams.directThreshold.load();
    trim = QzHeapParams.trimThreshold.load();
  }
  ~ParamsScope() {
    QzHeapParams.granularity.store(granularity);
    QzHeapParams.directThreshold.store(direct);
    QzHeapParams.trimThreshold.store(trim);
  }
};

}  // namespace heaptest

#endif
