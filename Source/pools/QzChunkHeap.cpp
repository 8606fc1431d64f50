// The chunk heap: bins, allocation, free, reallocation and aligned allocation.
#include "pools/QzChunkHeap.h"

#include <string.h>

using namespace qzsys;

std::atomic<uint32_t> corruptionErrors{0};

namespace {

inline uintptr_t Addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }
inline bool LinkOk(const QzHeap* heap, const void* p) { return Addr(p) >= heap->lowestAddress; }
inline size_t Footer(const QzHeap* heap) { return heap->magic ^ Addr(heap); }

// In use, both flags: the chunk before p is in use too (it came out of a bin,
// reserve or top, all of which follow an in-use chunk).
inline void MarkInUse(QzHeap* heap, QzChunk* p, size_t s) {
  QzSetHead(p, s | QZ_INUSE_BITS);
  QzChunk* next = QzChunkAt(p, s);
  next->footWord = Footer(heap);
  QzSetHead(next, next->sizeWord | QZ_PREV_INUSE);
}
// In use, keeping what p knew of its predecessor.
inline void MarkInUseKeep(QzHeap* heap, QzChunk* p, size_t s) {
  QzSetHead(p, (p->sizeWord & QZ_PREV_INUSE) | s | QZ_CUR_INUSE);
  QzChunk* next = QzChunkAt(p, s);
  next->footWord = Footer(heap);
  QzSetHead(next, next->sizeWord | QZ_PREV_INUSE);
}
inline void MarkFree(QzChunk* p, size_t s) {
  QzSetHead(p, s | QZ_PREV_INUSE);
  QzChunk* next = QzChunkAt(p, s);
  next->footWord = s;
  QzSetHead(next, next->sizeWord & ~QZ_PREV_INUSE);
}

inline unsigned LowestBit(uint32_t x) { return static_cast<unsigned>(__builtin_ctz(x)); }

bool InsertSmall(QzHeap* heap, QzChunk* p, size_t s) {
  const unsigned i = static_cast<unsigned>(s >> QZ_SMALL_SHIFT);
  QzChunk* head = QzSmallBinAt(heap, i);
  QzChunk* first = head;
  if ((heap->smallMap & (1u << i)) == 0) {
    heap->smallMap |= 1u << i;
  } else {
    first = head->nextFree;
    if (!LinkOk(heap, first)) {
      QzHeapResetOnCorruption(heap);
      return false;
    }
  }
  head->nextFree = p;
  first->prevFree = p;
  p->nextFree = first;
  p->prevFree = head;
  return true;
}

bool UnlinkSmall(QzHeap* heap, QzChunk* p, size_t s) {
  const unsigned i = static_cast<unsigned>(s >> QZ_SMALL_SHIFT);
  QzChunk* head = QzSmallBinAt(heap, i);
  QzChunk* f = p->nextFree;
  QzChunk* b = p->prevFree;
  if (f == b) {
    if (f != head) {  // a ring of one always points at its head
      QzHeapResetOnCorruption(heap);
      return false;
    }
    heap->smallMap &= ~(1u << i);
    return true;
  }
  if ((f == head || LinkOk(heap, f)) && (b == head || LinkOk(heap, b)) && f->prevFree == p &&
      b->nextFree == p) {
    f->prevFree = b;
    b->nextFree = f;
    return true;
  }
  QzHeapResetOnCorruption(heap);
  return false;
}

}  // namespace

unsigned QzTreeBinIndex(size_t size) {
  const size_t x = size >> QZ_TREE_SHIFT;
  if (x == 0) return 0;
  if (x > 0xFFFF) return QZ_TREE_BIN_COUNT - 1;
  const unsigned k = 31u - static_cast<unsigned>(__builtin_clz(static_cast<unsigned>(x)));
  return (k << 1) + static_cast<unsigned>((size >> (k + QZ_TREE_SHIFT - 1)) & 1);
}

// Reports failure (after a reset) so that callers hand out what they hold and
// stop touching the bins.
static bool InsertTree(QzHeap* heap, QzTreeChunk* x, size_t s) {
  const unsigned i = QzTreeBinIndex(s);
  QzTreeChunk** slot = QzTreeBinAt(heap, i);
  x->binIndex = i;
  x->children[0] = x->children[1] = nullptr;
  if ((heap->treeMap & (1u << i)) == 0) {
    heap->treeMap |= 1u << i;
    *slot = x;
    x->parent = reinterpret_cast<QzTreeChunk*>(slot);
    x->nextFree = x->prevFree = x;
    return true;
  }
  QzTreeChunk* t = *slot;
  size_t k = s << QzTreeLeftShift(i);
  for (;;) {
    if (!LinkOk(heap, t)) break;
    if (QzChunkSize(reinterpret_cast<QzChunk*>(t)) != s) {
      QzTreeChunk** child = &t->children[(k >> (QZ_WORD * 8 - 1)) & 1];
      k <<= 1;
      if (*child != nullptr) {
        t = *child;
        continue;
      }
      x->parent = t;
      x->nextFree = x->prevFree = x;
      *child = x;
      return true;
    }
    QzTreeChunk* f = t->nextFree;
    if (!LinkOk(heap, f)) break;
    t->nextFree = f->prevFree = x;
    x->nextFree = f;
    x->prevFree = t;
    x->parent = nullptr;
    return true;
  }
  QzHeapResetOnCorruption(heap);
  return false;
}

static bool UnlinkTree(QzHeap* heap, QzTreeChunk* x) {
  QzTreeChunk* xp = x->parent;
  QzTreeChunk* r;
  if (x->prevFree != x) {
    QzTreeChunk* f = x->nextFree;
    r = x->prevFree;
    if (!LinkOk(heap, f) || !LinkOk(heap, r) || f->prevFree != x || r->nextFree != x) {
      QzHeapResetOnCorruption(heap);
      return false;
    }
    f->prevFree = r;
    r->nextFree = f;
  } else {
    QzTreeChunk** rp = &x->children[1];
    r = *rp;
    if (r == nullptr) {
      rp = &x->children[0];
      r = *rp;
    }
    if (r != nullptr) {
      for (;;) {
        if (!LinkOk(heap, r)) {
          QzHeapResetOnCorruption(heap);
          return false;
        }
        QzTreeChunk** cp = &r->children[1];
        if (*cp == nullptr) cp = &r->children[0];
        if (*cp == nullptr) break;
        rp = cp;
        r = *rp;
      }
      *rp = nullptr;
    }
  }
  if (xp == nullptr) return true;
  if (x->binIndex >= QZ_TREE_BIN_COUNT) {
    QzHeapResetOnCorruption(heap);
    return false;
  }
  QzTreeChunk** slot = QzTreeBinAt(heap, static_cast<unsigned>(x->binIndex));
  if (x == *slot) {
    *slot = r;
    if (r == nullptr) heap->treeMap &= ~(1u << x->binIndex);
  } else if (LinkOk(heap, xp)) {
    if (xp->children[0] == x) {
      xp->children[0] = r;
    } else if (xp->children[1] == x) {
      xp->children[1] = r;
    } else {
      QzHeapResetOnCorruption(heap);
      return false;
    }
  } else {
    QzHeapResetOnCorruption(heap);
    return false;
  }
  if (r != nullptr) {
    r->parent = xp;
    for (int k = 0; k < 2; ++k) {
      QzTreeChunk* c = x->children[k];
      if (c == nullptr) continue;
      if (!LinkOk(heap, c)) {
        QzHeapResetOnCorruption(heap);
        return false;
      }
      r->children[k] = c;
      c->parent = r;
    }
  }
  return true;
}

void QzHeapInsertTreeChunk(QzHeap* heap, QzTreeChunk* x, size_t size) { InsertTree(heap, x, size); }
void QzHeapUnlinkTreeChunk(QzHeap* heap, QzTreeChunk* x) { UnlinkTree(heap, x); }

static bool InsertChunk(QzHeap* heap, QzChunk* p, size_t s) {
  if (s < QZ_MIN_LARGE) return InsertSmall(heap, p, s);
  return InsertTree(heap, reinterpret_cast<QzTreeChunk*>(p), s);
}
static bool UnlinkChunk(QzHeap* heap, QzChunk* p, size_t s) {
  if (s < QZ_MIN_LARGE) return UnlinkSmall(heap, p, s);
  return UnlinkTree(heap, reinterpret_cast<QzTreeChunk*>(p));
}
void QzHeapInsertChunk(QzHeap* heap, QzChunk* p, size_t size) { InsertChunk(heap, p, size); }
void QzHeapUnlinkChunk(QzHeap* heap, QzChunk* p, size_t size) { UnlinkChunk(heap, p, size); }

void QzHeapResetOnCorruption(QzHeap* heap) {
  corruptionErrors.fetch_add(1, std::memory_order_relaxed);
  heap->flags |= QZ_HEAP_FORGOT;
  heap->smallMap = 0;
  heap->treeMap = 0;
  heap->reserveSize = 0;
  heap->topSize = 0;
  heap->reserve = nullptr;
  heap->top = nullptr;
  for (unsigned i = 0; i < QZ_TREE_BIN_COUNT; ++i) heap->treeBins[i] = nullptr;
  heap->firstSegment.base = 0;
  heap->firstSegment.size = 0;
  heap->firstSegment.next = nullptr;
  for (unsigned i = 0; i < QZ_SMALL_BIN_COUNT; ++i) {
    QzChunk* head = QzSmallBinAt(heap, i);
    head->nextFree = head->prevFree = head;
  }
}

void QzHeapEstablishTop(QzHeap* heap, QzChunk* t, size_t s) {
  const size_t offset = (QZ_CHUNK_ALIGN - (Addr(t) & QZ_CHUNK_ALIGN_MASK)) & QZ_CHUNK_ALIGN_MASK;
  t = QzChunkAt(t, offset);
  s -= offset;
  heap->top = t;
  heap->topSize = s;
  QzSetHead(t, s | QZ_PREV_INUSE);
  QzSetHead(QzChunkAt(t, s), QZ_TOP_FOOT);
  heap->trimCheck = QzHeapParams.trimThreshold.load(std::memory_order_relaxed);
}

void* QzHeapCutFromTop(QzHeap* heap, size_t c) {
  QzChunk* p = heap->top;
  const size_t rest = heap->topSize - c;
  QzChunk* t = QzChunkAt(p, c);
  heap->top = t;
  heap->topSize = rest;
  QzSetHead(t, rest | QZ_PREV_INUSE);
  MarkInUse(heap, p, c);
  return QzChunkToBlock(p);
}

// Makes `p` (size s, free, not in a bin) the new reserve; the old one goes to
// the bins.
static void ReplaceReserve(QzHeap* heap, QzChunk* p, size_t s) {
  if (heap->reserveSize != 0) {
    if (!InsertChunk(heap, heap->reserve, heap->reserveSize)) return;
  }
  heap->reserve = p;
  heap->reserveSize = s;
}

// Hands out tree chunk v for chunk size c, splitting off what is left. A
// remainder of a small request becomes reserve; of a large one, goes to bins.
static void* TakeTreeChunk(QzHeap* heap, QzTreeChunk* v, size_t c, bool small) {
  QzChunk* p = reinterpret_cast<QzChunk*>(v);
  if (!LinkOk(heap, v) || Addr(v) + c <= Addr(v)) {
    QzHeapResetOnCorruption(heap);
    return nullptr;
  }
  const size_t size = QzChunkSize(p);
  const size_t r = size - c;
  const bool linked = UnlinkTree(heap, v);
  if (r < QZ_MIN_CHUNK || !linked) {
    MarkInUse(heap, p, size);
  } else {
    MarkInUse(heap, p, c);
    QzChunk* rest = QzChunkAt(p, c);
    MarkFree(rest, r);
    if (small) ReplaceReserve(heap, rest, r);
    else InsertChunk(heap, rest, r);
  }
  return QzChunkToBlock(p);
}

static void* TreeAllocSmall(QzHeap* heap, size_t c) {
  const unsigned i = LowestBit(heap->treeMap);
  QzTreeChunk* t = *QzTreeBinAt(heap, i);
  QzTreeChunk* v = t;
  size_t rsize = QzChunkSize(reinterpret_cast<QzChunk*>(t)) - c;
  for (;;) {
    if (!LinkOk(heap, t)) {
      QzHeapResetOnCorruption(heap);
      return nullptr;
    }
    QzTreeChunk* next = t->children[0] != nullptr ? t->children[0] : t->children[1];
    if (next == nullptr) break;
    t = next;
    if (!LinkOk(heap, t)) continue;  // reported at the top of the loop
    const size_t trem = QzChunkSize(reinterpret_cast<QzChunk*>(t)) - c;
    if (trem < rsize) {
      rsize = trem;
      v = t;
    }
  }
  return TakeTreeChunk(heap, v, c, true);
}

static void* TreeAllocLarge(QzHeap* heap, size_t c) {
  QzTreeChunk* v = nullptr;
  size_t rsize = size_t(0) - c;
  const unsigned idx = QzTreeBinIndex(c);
  QzTreeChunk* t = *QzTreeBinAt(heap, idx);
  if (t != nullptr) {
    size_t bits = c << QzTreeLeftShift(idx);
    QzTreeChunk* rst = nullptr;  // deepest untaken right subtree
    for (;;) {
      if (!LinkOk(heap, t)) {
        QzHeapResetOnCorruption(heap);
        return nullptr;
      }
      const size_t trem = QzChunkSize(reinterpret_cast<QzChunk*>(t)) - c;
      if (trem < rsize) {
        v = t;
        rsize = trem;
        if (rsize == 0) break;
      }
      QzTreeChunk* rt = t->children[1];
      t = t->children[(bits >> (QZ_WORD * 8 - 1)) & 1];
      if (rt != nullptr && rt != t) rst = rt;
      if (t == nullptr) {
        t = rst;
        break;
      }
      bits <<= 1;
    }
  }
  if (t == nullptr && v == nullptr) {
    const uint32_t above = heap->treeMap & ~((2u << idx) - 1);
    if (idx < QZ_TREE_BIN_COUNT - 1 && above != 0) t = *QzTreeBinAt(heap, LowestBit(above));
  }
  while (t != nullptr) {
    if (!LinkOk(heap, t)) {
      QzHeapResetOnCorruption(heap);
      return nullptr;
    }
    const size_t trem = QzChunkSize(reinterpret_cast<QzChunk*>(t)) - c;
    if (trem < rsize) {
      rsize = trem;
      v = t;
    }
    t = t->children[0] != nullptr ? t->children[0] : t->children[1];
  }
  if (v != nullptr && rsize < heap->reserveSize - c) return TakeTreeChunk(heap, v, c, false);
  return nullptr;
}

// Allocation with the lock held.
static void* AllocLocked(QzHeap* heap, size_t bytes) {
  size_t c;
  if (bytes <= QZ_MAX_SMALL_REQUEST) {
    c = QzRequestToChunk(bytes);
    unsigned i = static_cast<unsigned>(c >> QZ_SMALL_SHIFT);
    const uint32_t b = heap->smallMap >> i;
    if ((b & 3) != 0) {
      i += ~b & 1;
      QzChunk* p = QzSmallBinAt(heap, i)->nextFree;
      const size_t size = size_t(i) << QZ_SMALL_SHIFT;
      if (!LinkOk(heap, p)) {
        QzHeapResetOnCorruption(heap);
      } else {
        UnlinkSmall(heap, p, size);
        MarkInUse(heap, p, size);
        return QzChunkToBlock(p);
      }
    } else if (c > heap->reserveSize) {
      if (b != 0) {
        const unsigned j = LowestBit(heap->smallMap & ~((2u << i) - 1));
        QzChunk* p = QzSmallBinAt(heap, j)->nextFree;
        const size_t size = size_t(j) << QZ_SMALL_SHIFT;
        if (!LinkOk(heap, p)) {
          QzHeapResetOnCorruption(heap);
        } else {
          if (!UnlinkSmall(heap, p, size)) {
            MarkInUse(heap, p, size);
            return QzChunkToBlock(p);
          }
          MarkInUse(heap, p, c);
          QzChunk* rest = QzChunkAt(p, c);
          MarkFree(rest, size - c);
          ReplaceReserve(heap, rest, size - c);
          return QzChunkToBlock(p);
        }
      } else if (heap->treeMap != 0) {
        if (void* mem = TreeAllocSmall(heap, c)) return mem;
      }
    }
  } else if (bytes >= QZ_MAX_REQUEST) {
    c = ~size_t(0);  // no source can give this; growth refuses it
  } else {
    c = QzRequestToChunk(bytes);
    if (heap->treeMap != 0) {
      if (void* mem = TreeAllocLarge(heap, c)) return mem;
    }
  }

  if (c <= heap->reserveSize) {
    QzChunk* p = heap->reserve;
    const size_t r = heap->reserveSize - c;
    if (r >= QZ_MIN_CHUNK) {
      QzChunk* rest = QzChunkAt(p, c);
      heap->reserve = rest;
      heap->reserveSize = r;
      MarkFree(rest, r);
      MarkInUse(heap, p, c);
    } else {
      const size_t size = heap->reserveSize;
      heap->reserveSize = 0;
      heap->reserve = nullptr;
      MarkInUse(heap, p, size);
    }
    return QzChunkToBlock(p);
  }
  if (c < heap->topSize) return QzHeapCutFromTop(heap, c);
  return QzHeapGrow(heap, c);
}

void* QzHeapAlloc(QzHeap* heap, size_t bytes) {
  if (heap == nullptr || heap->magic != QzStamp() || heap->magic == 0) return nullptr;
  QzSpinLockAcquire(&heap->lock);
  void* mem = AllocLocked(heap, bytes);
  QzSpinLockRelease(&heap->lock);
  return mem;
}

// Whether p lies in memory that a corruption reset made the heap forget. The
// lowest-address check alone drops the old blocks only where growth after
// the reset landed above the old memory; Linux places new regions below.
// Walking the segments costs only heaps that were reset.
static bool Forgotten(const QzHeap* heap, const QzChunk* p) {
  if ((heap->flags & QZ_HEAP_FORGOT) == 0) return false;
  for (const QzSegment* s = &heap->firstSegment; s != nullptr; s = s->next)
    if (Addr(p) >= s->base && Addr(p) - s->base < s->size) return false;
  return true;
}

// Free with the lock held; p passed the request checks of the caller.
static void FreeLocked(QzHeap* heap, QzChunk* p) {
  if (Addr(p) < heap->lowestAddress || (p->sizeWord & QZ_INUSE_BITS) == QZ_PREV_INUSE) return;
  size_t s = QzChunkSize(p);
  QzChunk* next = QzChunkAt(p, s);
  if ((p->sizeWord & QZ_PREV_INUSE) == 0 && (p->sizeWord & QZ_INUSE_BITS) == 0) {
    // Directly mapped: the region goes back whole.
    const size_t lead = p->footWord;
    const size_t length = s + lead + QZ_DIRECT_FOOT;
    if (QzReleaseRegion(Addr(p) - lead, length)) QzChangeFootprint(heap, length, false);
    return;
  }
  // Checked before anything changes, so a dropped request leaves no trace.
  if (Addr(next) <= Addr(p) || (next->sizeWord & QZ_PREV_INUSE) == 0 || Forgotten(heap, p)) return;
  if ((p->sizeWord & QZ_PREV_INUSE) == 0) {
    const size_t prevSize = p->footWord;
    QzChunk* prev = reinterpret_cast<QzChunk*>(Addr(p) - prevSize);
    if (Addr(prev) < heap->lowestAddress || Addr(prev) >= Addr(p)) return;
    s += prevSize;
    p = prev;
    if (p != heap->reserve) {
      if (!UnlinkChunk(heap, p, prevSize)) return;
    } else if ((next->sizeWord & QZ_INUSE_BITS) == QZ_INUSE_BITS) {
      heap->reserveSize = s;
      MarkFree(p, s);
      return;
    }
  }
  if ((next->sizeWord & QZ_CUR_INUSE) == 0) {
    if (next == heap->top) {
      const size_t tsize = heap->topSize += s;
      heap->top = p;
      QzSetHead(p, tsize | QZ_PREV_INUSE);
      if (p == heap->reserve) {
        heap->reserve = nullptr;
        heap->reserveSize = 0;
      }
      if (tsize > heap->trimCheck) QzHeapTrim(heap, 0);
      return;
    }
    if (next == heap->reserve) {
      const size_t dsize = heap->reserveSize += s;
      heap->reserve = p;
      MarkFree(p, dsize);
      return;
    }
    const size_t nsize = QzChunkSize(next);
    s += nsize;
    if (!UnlinkChunk(heap, next, nsize)) return;
    MarkFree(p, s);
    if (p == heap->reserve) {
      heap->reserveSize = s;
      return;
    }
  } else {
    MarkFree(p, s);
  }
  if (s < QZ_MIN_LARGE) {
    InsertSmall(heap, p, s);
  } else {
    if (InsertTree(heap, reinterpret_cast<QzTreeChunk*>(p), s) && --heap->releaseCountdown == 0)
      QzHeapReleaseUnused(heap);
  }
}

void QzHeapFree(void* block) {
  if (block == nullptr) return;
  if (Addr(block) & QZ_CHUNK_ALIGN_MASK) return;  // no block of ours looks like this
  QzHeap* heap = QzBlockOwnerHeap(block);
  if (heap == nullptr) return;
  QzSpinLockAcquire(&heap->lock);
  FreeLocked(heap, QzBlockToChunk(block));
  QzSpinLockRelease(&heap->lock);
}

void* QzHeapRealloc(QzHeap* heap, void* block, size_t bytes) {
  if (bytes >= QZ_MAX_REQUEST) return nullptr;
  if (block == nullptr) return QzHeapAlloc(heap, bytes);
  if (heap == nullptr || heap->magic != QzStamp() || (Addr(block) & QZ_CHUNK_ALIGN_MASK)) return nullptr;
  QzSpinLockAcquire(&heap->lock);
  QzChunk* p = QzBlockToChunk(block);
  const size_t s = QzChunkSize(p);
  QzChunk* next = QzChunkAt(p, s);
  if (Addr(p) < heap->lowestAddress || (p->sizeWord & QZ_INUSE_BITS) == QZ_PREV_INUSE ||
      Addr(next) <= Addr(p) || (next->sizeWord & QZ_PREV_INUSE) == 0 || next->footWord != Footer(heap) ||
      ((p->sizeWord & QZ_INUSE_BITS) != 0 && Forgotten(heap, p))) {
    QzSpinLockRelease(&heap->lock);
    return nullptr;
  }
  const size_t c = QzRequestToChunk(bytes);
  bool stays = false;
  void* tail = nullptr;
  if ((p->sizeWord & QZ_INUSE_BITS) == 0) {
    const size_t granularity = QzHeapParams.granularity.load(std::memory_order_relaxed);
    stays = c >= QZ_MIN_LARGE && s >= c + QZ_WORD && s - c <= (granularity << 1);
  } else if (s >= c) {
    stays = true;
    const size_t r = s - c;
    if (r >= QZ_MIN_CHUNK) {
      MarkInUseKeep(heap, p, c);
      QzChunk* rest = QzChunkAt(p, c);
      MarkInUse(heap, rest, r);
      tail = QzChunkToBlock(rest);
    }
  } else if (next == heap->top && s + heap->topSize > c) {
    const size_t tsize = s + heap->topSize - c;
    QzChunk* t = QzChunkAt(p, c);
    QzSetHead(t, tsize | QZ_PREV_INUSE);
    heap->top = t;
    heap->topSize = tsize;
    MarkInUseKeep(heap, p, c);
    stays = true;
  }
  QzSpinLockRelease(&heap->lock);
  if (stays) {
    if (tail != nullptr) QzHeapFree(tail);
    return block;
  }
  void* fresh = QzHeapAlloc(heap, bytes);
  if (fresh == nullptr) return nullptr;
  const size_t usable = s - QZ_CHUNK_OVERHEAD;
  memcpy(fresh, block, usable < bytes ? usable : bytes);
  QzHeapFree(block);
  return fresh;
}

void* QzHeapAlignedAlloc(QzHeap* heap, size_t alignment, size_t bytes) {
  if (alignment <= QZ_CHUNK_ALIGN) return QzHeapAlloc(heap, bytes);
  if (alignment > (~size_t(0) >> 1) + 1) return nullptr;
  if (alignment < QZ_MIN_CHUNK) alignment = QZ_MIN_CHUNK;
  if ((alignment & (alignment - 1)) != 0) {
    size_t a = QZ_CHUNK_ALIGN << 1;
    while (a < alignment) a <<= 1;
    alignment = a;
  }
  if (alignment >= QZ_MAX_REQUEST || bytes >= QZ_MAX_REQUEST - alignment) return nullptr;
  const size_t c = QzRequestToChunk(bytes);
  void* mem = QzHeapAlloc(heap, c + alignment + QZ_MIN_CHUNK - QZ_CHUNK_OVERHEAD);
  if (mem == nullptr) return nullptr;
  QzSpinLockAcquire(&heap->lock);
  QzChunk* p = QzBlockToChunk(mem);
  void* leader = nullptr;
  void* trailer = nullptr;
  if (Addr(mem) & (alignment - 1)) {
    const uintptr_t aligned = (Addr(mem) + alignment - 1) & ~(alignment - 1);
    QzChunk* q = QzBlockToChunk(reinterpret_cast<void*>(aligned));
    if (Addr(q) - Addr(p) < QZ_MIN_CHUNK) q = QzChunkAt(q, alignment);
    const size_t lead = Addr(q) - Addr(p);
    const size_t rest = QzChunkSize(p) - lead;
    if ((p->sizeWord & QZ_INUSE_BITS) == 0) {
      q->footWord = p->footWord + lead;
      QzSetHead(q, rest);
    } else {
      QzSetHead(q, rest | QZ_INUSE_BITS);
      QzChunkAt(q, rest)->footWord = Footer(heap);
      MarkInUseKeep(heap, p, lead);
      leader = QzChunkToBlock(p);
    }
    p = q;
  }
  if ((p->sizeWord & QZ_INUSE_BITS) != 0) {
    const size_t size = QzChunkSize(p);
    if (size > c + QZ_MIN_CHUNK) {
      const size_t r = size - c;
      MarkInUseKeep(heap, p, c);
      QzChunk* rest = QzChunkAt(p, c);
      MarkInUse(heap, rest, r);
      trailer = QzChunkToBlock(rest);
    }
  }
  QzSpinLockRelease(&heap->lock);
  if (leader != nullptr) QzHeapFree(leader);
  if (trailer != nullptr) QzHeapFree(trailer);
  return QzChunkToBlock(p);
}
