// Heap growth and release: new segments (appended, prepended or added),
// direct mappings for very large chunks, trimming of top, and the release of
// segments that have become one free chunk.
#include "pools/QzChunkHeap.h"

#include <string.h>

using namespace qzsys;

namespace {

inline uintptr_t Addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }
inline size_t Footer(const QzHeap* heap) { return heap->magic ^ Addr(heap); }

inline size_t RoundUp(size_t n, size_t unit) { return (n + unit - 1) & ~(unit - 1); }

// First chunk position at or after `at` whose block is aligned.
inline QzChunk* AlignChunk(uintptr_t at) {
  const size_t offset = (QZ_CHUNK_ALIGN - ((at + QZ_CHUNK_OVERHEAD) & QZ_CHUNK_ALIGN_MASK)) & QZ_CHUNK_ALIGN_MASK;
  return reinterpret_cast<QzChunk*>(at + offset);
}

inline bool SegmentHolds(const QzSegment* s, const void* p) {
  return Addr(p) >= s->base && Addr(p) < s->base + s->size;
}

QzSegment* SegmentHolding(QzHeap* heap, const void* p) {
  for (QzSegment* s = &heap->firstSegment; s != nullptr; s = s->next)
    if (SegmentHolds(s, p)) return s;
  return nullptr;
}

// Whether a segment record of the list lies inside `segment` (then its memory
// cannot shrink or go).
bool HoldsSegmentRecord(QzHeap* heap, const QzSegment* segment) {
  for (QzSegment* s = &heap->firstSegment; s != nullptr; s = s->next)
    if (SegmentHolds(segment, s)) return true;
  return false;
}

void* Prepend(QzHeap* heap, uintptr_t newBase, uintptr_t oldBase, size_t c) {
  QzChunk* p = AlignChunk(newBase);
  QzChunk* o = AlignChunk(oldBase);
  QzChunk* q = QzChunkAt(p, c);
  size_t r = Addr(o) - Addr(q);
  QzSetHead(p, c | QZ_INUSE_BITS);
  q->footWord = Footer(heap);
  if (o == heap->top) {
    const size_t tsize = heap->topSize += r;
    heap->top = q;
    QzSetHead(q, tsize | QZ_PREV_INUSE);
  } else if (o == heap->reserve) {
    const size_t dsize = heap->reserveSize += r;
    heap->reserve = q;
    QzSetHead(q, dsize | QZ_PREV_INUSE);
    QzChunkAt(q, dsize)->footWord = dsize;
  } else {
    if ((o->sizeWord & QZ_CUR_INUSE) == 0) {
      const size_t nsize = QzChunkSize(o);
      QzHeapUnlinkChunk(heap, o, nsize);
      if (heap->top == nullptr) return QzChunkToBlock(p);  // the bins were found broken
      o = QzChunkAt(o, nsize);
      r += nsize;
    }
    QzSetHead(o, o->sizeWord & ~QZ_PREV_INUSE);
    QzSetHead(q, r | QZ_PREV_INUSE);
    o->footWord = r;
    QzHeapInsertChunk(heap, q, r);
  }
  return QzChunkToBlock(p);
}

void AddSegment(QzHeap* heap, uintptr_t base, size_t size) {
  QzChunk* oldTop = heap->top;
  QzSegment* old = SegmentHolding(heap, oldTop);
  const uintptr_t end = old->base + old->size;
  QzChunk* s = AlignChunk(end - (QZ_SEGMENT_CHUNK + 4 * QZ_WORD + QZ_CHUNK_ALIGN_MASK));
  if (Addr(s) < Addr(oldTop) + QZ_MIN_CHUNK) s = oldTop;

  QzHeapEstablishTop(heap, reinterpret_cast<QzChunk*>(base), size - QZ_TOP_FOOT);

  // The old segment is closed by a record chunk holding the old head of the
  // list, then fenceposts up to its end, so no chunk ever merges across it.
  QzSetHead(s, QZ_SEGMENT_CHUNK | QZ_INUSE_BITS);
  QzChunkAt(s, QZ_SEGMENT_CHUNK)->footWord = Footer(heap);
  QzSegment* record = static_cast<QzSegment*>(QzChunkToBlock(s));
  *record = heap->firstSegment;
  heap->firstSegment.base = base;
  heap->firstSegment.size = size;
  heap->firstSegment.next = record;
  heap->firstSegment.flags = 1;
  QzChunk* fence = QzChunkAt(s, QZ_SEGMENT_CHUNK);
  for (;;) {
    QzChunk* next = QzChunkAt(fence, QZ_WORD);
    QzSetHead(fence, QZ_FENCEPOST);
    if (Addr(&next->sizeWord) < end) fence = next;
    else break;
  }
  if (s != oldTop) {
    const size_t psize = Addr(s) - Addr(oldTop);
    QzSetHead(s, s->sizeWord & ~QZ_PREV_INUSE);
    QzSetHead(oldTop, psize | QZ_PREV_INUSE);
    s->footWord = psize;
    QzHeapInsertChunk(heap, oldTop, psize);
  }
}

}  // namespace

void* QzHeapMapDirect(QzHeap* heap, size_t c) {
  const size_t granularity = QzHeapParams.granularity.load(std::memory_order_relaxed);
  const size_t size = RoundUp(c + QZ_DIRECT_PADDING, granularity);
  if (size <= c) return nullptr;
  void* region = VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT | MEM_TOP_DOWN, PAGE_READWRITE);
  if (region == nullptr) return nullptr;
  QzChunk* p = AlignChunk(Addr(region));
  const size_t offset = Addr(p) - Addr(region);
  const size_t psize = size - offset - QZ_DIRECT_FOOT;
  p->footWord = offset;
  QzSetHead(p, psize);
  QzChunk* end = QzChunkAt(p, psize);
  end->footWord = Footer(heap);
  QzSetHead(end, QZ_FENCEPOST);
  QzSetHead(QzChunkAt(p, psize + QZ_WORD), 0);
  if (Addr(region) < heap->lowestAddress) heap->lowestAddress = Addr(region);
  QzChangeFootprint(heap, size, true);
  return QzChunkToBlock(p);
}

void* QzHeapGrow(QzHeap* heap, size_t c) {
  QzEnsureHeapParams();
  if ((heap->flags & QZ_HEAP_DIRECT) != 0 && c >= QzHeapParams.directThreshold.load(std::memory_order_relaxed) &&
      heap->topSize != 0) {
    if (void* mem = QzHeapMapDirect(heap, c)) return mem;
  }
  const size_t granularity = QzHeapParams.granularity.load(std::memory_order_relaxed);
  const size_t size = RoundUp(c + QZ_GROW_PADDING, granularity);
  if (size <= c) return nullptr;  // the sum wrapped
  void* region = VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (region == nullptr) return nullptr;
  const uintptr_t base = Addr(region);
  QzChangeFootprint(heap, size, true);

  if (heap->top == nullptr) {
    // After a corruption reset: the fresh region is all the heap knows.
    heap->firstSegment.base = base;
    heap->firstSegment.size = size;
    heap->firstSegment.next = nullptr;
    heap->firstSegment.flags = 1;
    heap->lowestAddress = base;
    heap->releaseCountdown = 4095;
    if (heap->magic != QzStamp()) heap->magic = QzStamp();  // unlocked readers compare it
    for (unsigned i = 0; i < QZ_SMALL_BIN_COUNT; ++i) {
      QzChunk* head = QzSmallBinAt(heap, i);
      head->nextFree = head->prevFree = head;
    }
    heap->smallMap = 0;
    QzHeapEstablishTop(heap, reinterpret_cast<QzChunk*>(base), size - QZ_TOP_FOOT);
  } else {
    QzSegment* sp = &heap->firstSegment;
    while (sp != nullptr && base != sp->base + sp->size) sp = sp->next;
    if (sp != nullptr && SegmentHolds(sp, heap->top)) {
      sp->size += size;
      QzHeapEstablishTop(heap, heap->top, heap->topSize + size);
    } else {
      if (base < heap->lowestAddress) heap->lowestAddress = base;
      sp = &heap->firstSegment;
      while (sp != nullptr && sp->base != base + size) sp = sp->next;
      if (sp != nullptr) {
        const uintptr_t oldBase = sp->base;
        sp->base = base;
        sp->size += size;
        return Prepend(heap, base, oldBase, c);
      }
      AddSegment(heap, base, size);
    }
  }
  if (c < heap->topSize) return QzHeapCutFromTop(heap, c);
  return nullptr;
}

int QzHeapTrim(QzHeap* heap, size_t pad) {
  QzEnsureHeapParams();
  if (pad >= QZ_MAX_REQUEST || heap->top == nullptr) return 0;
  size_t released = 0;
  pad += QZ_TOP_FOOT;
  if (heap->topSize > pad) {
    const size_t unit = QzHeapParams.granularity.load(std::memory_order_relaxed);
    const size_t extra = ((heap->topSize - pad + (unit - 1)) / unit - 1) * unit;
    QzSegment* sp = SegmentHolding(heap, heap->top);
    if (extra != 0 && sp != nullptr && sp->size >= extra && !HoldsSegmentRecord(heap, sp)) {
      if (QzReleaseRegion(sp->base + sp->size - extra, extra)) released = extra;
    }
    if (released != 0) {
      sp->size -= released;
      QzChangeFootprint(heap, released, false);
      QzHeapEstablishTop(heap, heap->top, heap->topSize - released);
    }
  }
  const bool trimmed = released != 0;
  released += QzHeapReleaseUnused(heap);
  if (released == 0 && heap->topSize > heap->trimCheck) heap->trimCheck = ~size_t(0);
  return trimmed || released != 0 ? 1 : 0;
}

size_t QzHeapReleaseUnused(QzHeap* heap) {
  size_t released = 0;
  size_t visited = 0;
  QzSegment* pred = &heap->firstSegment;
  QzSegment* sp = pred->next;
  while (sp != nullptr) {
    const uintptr_t base = sp->base;
    const size_t size = sp->size;
    QzSegment* next = sp->next;
    ++visited;
    QzChunk* p = AlignChunk(base);
    const size_t psize = QzChunkSize(p);
    bool gone = false;
    if ((p->sizeWord & QZ_CUR_INUSE) == 0 && Addr(p) + psize >= base + size - QZ_TOP_FOOT) {
      if (p == heap->reserve) {
        heap->reserve = nullptr;
        heap->reserveSize = 0;
      } else {
        QzHeapUnlinkTreeChunk(heap, reinterpret_cast<QzTreeChunk*>(p));
        if (heap->top == nullptr) return released;  // the bins were found broken
      }
      if (QzReleaseRegion(base, size)) {
        released += size;
        QzChangeFootprint(heap, size, false);
        pred->next = next;
        gone = true;
      } else {
        QzHeapInsertTreeChunk(heap, reinterpret_cast<QzTreeChunk*>(p), psize);
      }
    }
    if (!gone) pred = sp;
    sp = next;
  }
  heap->releaseCountdown = visited > 4095 ? visited : 4095;
  return released;
}
