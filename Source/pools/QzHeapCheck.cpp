// The heap checker: every chunk of every segment, every bin, both maps.
#include "pools/QzHeapCheck.h"

#include <stdio.h>

#include <unordered_map>
#include <vector>

namespace {

inline uintptr_t Addr(const void* p) { return reinterpret_cast<uintptr_t>(p); }

std::string Hex(const void* p) {
  char buf[32];
  snprintf(buf, sizeof buf, "%p", p);
  return buf;
}

struct Checker {
  QzHeap* heap;
  QzHeapCheckReport* r;
  // Chunks found in bins, with the size they were filed under.
  std::unordered_map<uintptr_t, size_t> binned;

  bool Fail(const std::string& what, const void* where = nullptr) {
    if (r->error.empty()) r->error = where ? what + " at " + Hex(where) : what;
    return false;
  }

  bool LooksFree(const QzChunk* p) { return (p->sizeWord & QZ_INUSE_BITS) == QZ_PREV_INUSE; }

  bool CheckSmallBins() {
    if (heap->smallMap & 3u) return Fail("small bins 0 and 1 are marked non-empty");
    for (unsigned i = 2; i < QZ_SMALL_BIN_COUNT; ++i) {
      if ((heap->smallMap & (1u << i)) == 0) continue;
      QzChunk* head = QzSmallBinAt(heap, i);
      QzChunk* prev = head;
      size_t n = 0;
      for (QzChunk* p = head->nextFree; p != head; prev = p, p = p->nextFree) {
        if (Addr(p) < heap->lowestAddress) return Fail("small bin link below the lowest address", p);
        if (p->prevFree != prev) return Fail("small bin ring broken", p);
        if (QzChunkSize(p) != (size_t(i) << QZ_SMALL_SHIFT)) return Fail("chunk in the wrong small bin", p);
        if (!LooksFree(p)) return Fail("small bin holds a chunk not marked free", p);
        if (!binned.emplace(Addr(p), QzChunkSize(p)).second) return Fail("chunk twice in the bins", p);
        if (++n > (size_t(1) << 26)) return Fail("small bin ring does not close");
      }
      if (head->prevFree != prev) return Fail("small bin head's back link is wrong", head);
      if (n == 0) return Fail("small bin marked non-empty is empty");
    }
    return true;
  }

  bool CheckTreeNode(QzTreeChunk* t, unsigned bin, unsigned depth, size_t pathBits) {
    const size_t size = QzChunkSize(reinterpret_cast<QzChunk*>(t));
    if (Addr(t) < heap->lowestAddress) return Fail("tree link below the lowest address", t);
    if (t->binIndex != bin) return Fail("tree chunk with a wrong bin index", t);
    if (size < QzTreeBinMinSize(bin) || (bin + 1 < QZ_TREE_BIN_COUNT && size >= QzTreeBinMinSize(bin + 1)))
      return Fail("chunk in the wrong tree bin", t);
    const unsigned shift = QzTreeLeftShift(bin);
    for (unsigned d = 0; d < depth; ++d) {
      const size_t bit = ((size << shift) << d) >> (QZ_WORD * 8 - 1);
      if (bit != ((pathBits >> d) & 1)) return Fail("tree chunk off its size's path", t);
    }
    // The ring of equal sizes behind the node.
    QzTreeChunk* prev = t;
    size_t n = 0;
    for (QzTreeChunk* u = t;;) {
      if (!LooksFree(reinterpret_cast<QzChunk*>(u))) return Fail("tree holds a chunk not marked free", u);
      if (QzChunkSize(reinterpret_cast<QzChunk*>(u)) != size) return Fail("ring member of another size", u);
      if (u != t && u->parent != nullptr) return Fail("ring member with a parent", u);
      if (!binned.emplace(Addr(u), size).second) return Fail("chunk twice in the bins", u);
      QzTreeChunk* next = u->nextFree;
      if (Addr(next) < heap->lowestAddress) return Fail("ring link below the lowest address", u);
      if (next->prevFree != u) return Fail("tree ring broken", next);
      prev = u;
      u = next;
      if (u == t) break;
      if (++n > (size_t(1) << 26)) return Fail("tree ring does not close");
    }
    (void)prev;
    if (depth > QZ_WORD * 8) return Fail("tree deeper than the bits of a size");
    for (unsigned k = 0; k < 2; ++k) {
      QzTreeChunk* c = t->children[k];
      if (c == nullptr) continue;
      if (Addr(c) < heap->lowestAddress) return Fail("tree child below the lowest address", t);
      if (c->parent != t) return Fail("tree child's parent link is wrong", c);
      if (!CheckTreeNode(c, bin, depth + 1, pathBits | (size_t(k) << depth))) return false;
    }
    return true;
  }

  bool CheckTreeBins() {
    for (unsigned i = 0; i < QZ_TREE_BIN_COUNT; ++i) {
      QzTreeChunk* root = heap->treeBins[i];
      const bool marked = (heap->treeMap & (1u << i)) != 0;
      if (marked != (root != nullptr)) return Fail("tree map disagrees with tree bin " + std::to_string(i));
      if (root == nullptr) continue;
      if (root->parent != reinterpret_cast<QzTreeChunk*>(&heap->treeBins[i]))
        return Fail("tree root's parent is not its bin slot", root);
      if (!CheckTreeNode(root, i, 0, 0)) return false;
    }
    return true;
  }

  bool CheckSegment(const QzSegment* s, bool* sawTop, bool* sawReserve) {
    const uintptr_t end = s->base + s->size;
    if (s->base < heap->lowestAddress) return Fail("segment below the lowest address");
    if (s->flags != 1) return Fail("segment flags are not 1");
    QzChunk* p = reinterpret_cast<QzChunk*>(s->base);
    bool prevInUse = true;
    bool prevFreeWasReserve = false;
    size_t prevSize = 0;
    for (;;) {
      if (Addr(p) + 2 * QZ_WORD > end) return Fail("chunk walk ran past the segment's end", p);
      if ((p->sizeWord & QZ_PREV_INUSE) != (prevInUse ? QZ_PREV_INUSE : 0))
        return Fail("flag of the previous chunk is wrong", p);
      if (p == heap->top) {
        if ((p->sizeWord & ~QZ_PREV_INUSE) != heap->topSize) return Fail("top's size word disagrees with topSize", p);
        if (!prevInUse && !prevFreeWasReserve) return Fail("free chunk before top", p);
        if (QzChunkAt(p, heap->topSize)->sizeWord != QZ_TOP_FOOT) return Fail("tail word behind top is wrong", p);
        if (Addr(p) + heap->topSize + QZ_TOP_FOOT != end) return Fail("top does not end its segment", p);
        *sawTop = true;
        return true;
      }
      if (p->sizeWord == QZ_FENCEPOST) {
        if (prevSize != QZ_SEGMENT_CHUNK) return Fail("fenceposts not behind a record chunk", p);
        for (uintptr_t w = Addr(p) + QZ_WORD; w < end; w += QZ_WORD) {
          if (*reinterpret_cast<size_t*>(w) != QZ_FENCEPOST)
            return Fail("fencepost run broken", reinterpret_cast<void*>(w));
          ++r->fenceposts;
        }
        if (end - (Addr(p) + QZ_WORD) > QZ_TOP_FOOT) return Fail("closed segment wastes its end", p);
        ++r->closedSegments;
        return true;
      }
      const size_t size = QzChunkSize(p);
      if (size < QZ_MIN_CHUNK || (size & QZ_CHUNK_ALIGN_MASK) != 0 || (Addr(p) & QZ_CHUNK_ALIGN_MASK) != 0)
        return Fail("bad chunk size or position", p);
      if (Addr(p) + size + 2 * QZ_WORD > end) return Fail("chunk reaches past its segment", p);
      QzChunk* next = QzChunkAt(p, size);
      if (p->sizeWord & QZ_CUR_INUSE) {
        if (next->footWord != (heap->magic ^ Addr(heap))) return Fail("footer of an in-use chunk is wrong", p);
        ++r->inUseChunks;
        r->inUseBytes += size;
        prevInUse = true;
        prevFreeWasReserve = false;
      } else {
        if ((p->sizeWord & QZ_FENCE_BIT) != 0) return Fail("free chunk with the fence bit", p);
        if (!prevInUse) return Fail("two free chunks side by side", p);
        if (next->footWord != size) return Fail("free chunk's size is not repeated after it", p);
        if (p == heap->reserve) {
          if (size != heap->reserveSize) return Fail("reserve's size disagrees with reserveSize", p);
          *sawReserve = true;
          prevFreeWasReserve = true;
        } else {
          auto it = binned.find(Addr(p));
          if (it == binned.end()) return Fail("free chunk in no bin", p);
          if (it->second != size) return Fail("free chunk's size changed since it was binned", p);
          binned.erase(it);
          ++r->freeChunks;
          r->freeBytes += size;
          prevFreeWasReserve = false;
        }
        prevInUse = false;
      }
      prevSize = size;
      p = next;
    }
  }

  bool Run() {
    if (heap == nullptr) return Fail("no heap");
    if (heap->magic == 0 || heap->magic != QzStamp()) return Fail("heap magic is wrong");
    if (heap->top == nullptr) {
      // After a corruption reset the heap knows no memory until it grows.
      if (heap->smallMap || heap->treeMap || heap->reserve || heap->reserveSize || heap->topSize ||
          heap->firstSegment.size)
        return Fail("reset heap still holds memory");
      return true;
    }
    if ((heap->reserve == nullptr) != (heap->reserveSize == 0)) return Fail("reserve and reserveSize disagree");
    if (!CheckSmallBins() || !CheckTreeBins()) return false;
    bool sawTop = false, sawReserve = false;
    size_t n = 0;
    for (const QzSegment* s = &heap->firstSegment; s != nullptr; s = s->next) {
      if (++n > 1000000) return Fail("segment list does not end");
      if (s != &heap->firstSegment) {
        const QzChunk* holder = QzBlockToChunk(s);
        if ((holder->sizeWord & ~QZ_PREV_INUSE) != (QZ_SEGMENT_CHUNK | QZ_CUR_INUSE)) return Fail("segment record outside a record chunk", s);
      }
      ++r->segments;
      r->segmentBytes += s->size;
      if (!CheckSegment(s, &sawTop, &sawReserve)) return false;
      if (s == &heap->firstSegment && !sawTop) return Fail("top is not in the newest segment");
    }
    if (!sawTop) return Fail("top lies in no segment");
    if (heap->reserve != nullptr && !sawReserve) return Fail("reserve lies in no segment");
    if (!binned.empty()) return Fail("binned chunk lies in no segment", reinterpret_cast<void*>(binned.begin()->first));
    if (heap->footprint < r->segmentBytes) return Fail("footprint is below the segments' bytes");
    if (heap->maxFootprint < heap->footprint) return Fail("maxFootprint is below footprint");
    return true;
  }
};

}  // namespace

bool QzHeapCheck(QzHeap* heap, QzHeapCheckReport* report) {
  QzHeapCheckReport local;
  QzHeapCheckReport* r = report ? report : &local;
  *r = QzHeapCheckReport();
  Checker checker{heap, r, {}};
  if (heap == nullptr || !QzHeapIsLive(heap)) return checker.Fail("not a live heap");
  QzSpinLockAcquire(&heap->lock);
  const bool ok = checker.Run();
  QzSpinLockRelease(&heap->lock);
  return ok;
}
