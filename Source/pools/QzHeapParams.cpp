// Heap parameters, the option call, heap creation and destruction, the one way
// memory goes back to the system, and the registry of live heaps.
#include "pools/QzChunkHeap.h"

#include <qzbase/QzMempool.h>

#include <string.h>

using namespace qzsys;

QzHeapParamsRecord QzHeapParams;

namespace {

// Live heaps, so that a footer can be checked before anything is read
// through it: a foreign or stale block names an address that is not here.
// Open addressing; a removed heap leaves a tombstone that a later heap reuses.
constexpr size_t kRegistrySlots = 16384;  // most heaps alive at once
constexpr uintptr_t kTombstone = 1;
std::atomic<uintptr_t> g_registry[kRegistrySlots];

inline size_t RegistryHash(uintptr_t a) {
  return static_cast<size_t>((static_cast<uint64_t>(a >> 4) * 0x9E3779B97F4A7C15ull) >> 40) &
         (kRegistrySlots - 1);
}

inline uintptr_t Addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }

}  // namespace

bool QzHeapIsLive(const QzHeap* heap) {
  const uintptr_t key = Addr(heap);
  if (key <= kTombstone) return false;
  size_t i = RegistryHash(key);
  for (size_t n = 0; n < kRegistrySlots; ++n) {
    const uintptr_t v = g_registry[i].load(std::memory_order_acquire);
    if (v == key) return true;
    if (v == 0) return false;
    i = (i + 1) & (kRegistrySlots - 1);
  }
  return false;
}

bool QzHeapRegister(QzHeap* heap) {
  const uintptr_t key = Addr(heap);
  size_t i = RegistryHash(key);
  for (size_t n = 0; n < kRegistrySlots; ++n) {
    uintptr_t v = g_registry[i].load(std::memory_order_relaxed);
    while (v == 0 || v == kTombstone) {
      if (g_registry[i].compare_exchange_weak(v, key, std::memory_order_release, std::memory_order_relaxed))
        return true;
    }
    i = (i + 1) & (kRegistrySlots - 1);
  }
  return false;
}

void QzHeapUnregister(QzHeap* heap) {
  const uintptr_t key = Addr(heap);
  size_t i = RegistryHash(key);
  for (size_t n = 0; n < kRegistrySlots; ++n) {
    uintptr_t v = key;
    if (g_registry[i].compare_exchange_strong(v, kTombstone, std::memory_order_release,
                                              std::memory_order_relaxed))
      return;
    if (v == 0) return;
    i = (i + 1) & (kRegistrySlots - 1);
  }
}

QzHeap* QzBlockOwnerHeap(const void* block) {
  if (block == nullptr || (Addr(block) & QZ_CHUNK_ALIGN_MASK) != 0) return nullptr;
  const QzChunk* p = QzBlockToChunk(block);
  const size_t size = QzChunkSize(p);
  if (size < QZ_MIN_CHUNK || Addr(p) + size <= Addr(p)) return nullptr;
  QzHeap* heap = QzBlockFooterHeap(block);
  const size_t stamp = QzStamp();
  if (stamp == 0 || !QzHeapIsLive(heap) || heap->magic != stamp) return nullptr;
  return heap;
}

void QzEnsureHeapParams() {
  if (QzHeapParams.magic.load(std::memory_order_acquire) != 0) return;
  QzSpinLockAcquire(&QzHeapParams.lock);
  if (QzHeapParams.magic.load(std::memory_order_relaxed) == 0) {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    const size_t page = info.dwPageSize;
    if (page == 0 || (page & (page - 1)) != 0)
      RaiseException(STATUS_NO_MEMORY, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    QzHeapParams.granularity.store(0x100000, std::memory_order_relaxed);
    QzHeapParams.pageSize = page;
    QzHeapParams.directThreshold.store(0x40000, std::memory_order_relaxed);
    QzHeapParams.trimThreshold.store(0x200000, std::memory_order_relaxed);
    QzHeapParams.defaultFlags = 7;
    size_t stamp = static_cast<size_t>(GetTickCount()) ^ static_cast<size_t>(0x5555555555555555ull);
    if (sizeof(size_t) > 4) {
      // A word-wide key: the high half comes from the wall clock, so that the
      // footers of 64-bit heaps differ in every bit between runs.
      FILETIME ft;
      GetSystemTimeAsFileTime(&ft);
      const uint64_t hi = (static_cast<uint64_t>(ft.dwHighDateTime) << 32 | ft.dwLowDateTime) * 0x9E3779B97F4A7C15ull;
      stamp ^= static_cast<size_t>(hi & 0xFFFFFFFF00000000ull);
    }
    stamp = (stamp | 8) & ~size_t(7);
    QzHeapParams.magic.store(stamp, std::memory_order_release);
  }
  QzSpinLockRelease(&QzHeapParams.lock);
}

extern "C" QZ_API int Qz_MempoolOpt(QzMempool* pool, int parameter, int value) {
  (void)pool;
  QzEnsureHeapParams();
  const size_t v = value == -1 ? ~size_t(0) : static_cast<size_t>(static_cast<uint32_t>(value));
  switch (parameter) {
    case -1:
      QzHeapParams.trimThreshold.store(v, std::memory_order_relaxed);
      return 1;
    case -2:
      if (v < QzHeapParams.pageSize || (v & (v - 1)) != 0) return 0;
      QzHeapParams.granularity.store(v, std::memory_order_relaxed);
      return 1;
    case -3:
      QzHeapParams.directThreshold.store(v, std::memory_order_relaxed);
      return 1;
    default:
      return 0;
  }
}

QzHeap* QzHeapCreate(size_t capacity) {
  QzEnsureHeapParams();
  const size_t m = QzRequestToChunk(sizeof(QzHeap));
  const size_t page = QzHeapParams.pageSize;
  const size_t granularity = QzHeapParams.granularity.load(std::memory_order_relaxed);
  if (capacity >= size_t(0) - m - QZ_TOP_FOOT - page) return nullptr;
  const size_t raw = capacity == 0 ? granularity : capacity + m + QZ_TOP_FOOT;
  const size_t size = (raw + granularity - 1) & ~(granularity - 1);
  if (size < raw) return nullptr;  // rounding passed the top of the address space
  void* region = VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (region == nullptr) return nullptr;

  QzChunk* first = static_cast<QzChunk*>(region);
  QzHeap* heap = static_cast<QzHeap*>(QzChunkToBlock(first));
  memset(static_cast<void*>(heap), 0, sizeof(QzHeap));
  const size_t stamp = QzStamp();
  heap->magic = stamp;
  QzSetHead(first, m | QZ_INUSE_BITS);
  QzChunkAt(first, m)->footWord = stamp ^ Addr(heap);
  heap->lowestAddress = Addr(region);
  heap->firstSegment.base = Addr(region);
  heap->firstSegment.size = size;
  heap->firstSegment.flags = 1;
  heap->footprint = heap->maxFootprint = size;
  heap->releaseCountdown = 4095;
  heap->flags = QzHeapParams.defaultFlags | 6;
  heap->owningPool = nullptr;
  for (unsigned i = 0; i < QZ_SMALL_BIN_COUNT; ++i) {
    QzChunk* head = QzSmallBinAt(heap, i);
    head->nextFree = head->prevFree = head;
  }
  QzChunk* top = QzChunkAt(first, m);
  QzHeapEstablishTop(heap, top, Addr(region) + size - Addr(top) - QZ_TOP_FOOT);
  if (!QzHeapRegister(heap)) {
    VirtualFree(region, 0, MEM_RELEASE);
    return nullptr;
  }
  return heap;
}

bool QzReleaseRegion(uintptr_t address, size_t length) {
  // Every allocation in the range is checked before the first goes back, so
  // a range that starts or ends inside an allocation costs nothing.
  for (int pass = 0; pass < 2; ++pass) {
    uintptr_t at = address;
    size_t left = length;
    while (left != 0) {
      MEMORY_BASIC_INFORMATION info;
      if (VirtualQuery(reinterpret_cast<void*>(at), &info, sizeof info) == 0) return false;
      if (Addr(info.BaseAddress) != at || Addr(info.AllocationBase) != at || info.State != MEM_COMMIT ||
          info.RegionSize > left)
        return false;
      if (pass == 1 && !VirtualFree(reinterpret_cast<void*>(at), 0, MEM_RELEASE)) return false;
      at += info.RegionSize;
      left -= info.RegionSize;
    }
  }
  return true;
}

void QzHeapDestroy(QzHeap* heap) {
  if (heap == nullptr || !QzHeapIsLive(heap) || heap->magic != QzStamp()) return;
  QzHeapUnregister(heap);
  const QzSegment* segment = &heap->firstSegment;
  while (segment != nullptr) {
    // The record may lie in the memory that goes next.
    const uintptr_t base = segment->base;
    const size_t size = segment->size;
    const QzSegment* next = segment->next;
    if (size != 0) QzReleaseRegion(base, size);
    segment = next;
  }
}
