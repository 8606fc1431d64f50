// The chunk heap: the allocator under every pool.
//
// A heap owns one or more segments of system memory and cuts them into
// chunks with boundary tags. Free chunks below the tree threshold live in 32
// exact-size rings, larger ones in 32 bitwise tries; a bitmap per family skips
// empty bins. One chunk, `reserve`, is kept aside from the last split so that
// runs of small requests stay together; `top` is the free end of the newest
// memory. Every in-use chunk carries a footer (the process stamp XOR the
// owning heap) in the first word of the chunk after it, so a block can be
// freed with no heap argument and by any thread.
//
// All sizes, addresses and links are machine words. The constants below are
// derived from the word size; on i386 they are the classic 32-bit values
// (8-byte alignment, 16-byte minimum chunk, tree bins from 256), on x86-64 the
// same rules give 16-byte alignment, 32-byte minimum chunk and tree bins from
// 512. docs/ARCHITECTURE.md lists both columns.
//
// Threads: every operation takes the heap's recursive spin lock itself; a
// caller may already hold it. Failures: allocating calls give 0 (never an
// exception); bad frees are dropped; a broken link found while following the
// bins makes the heap forget all its memory (QzHeapResetOnCorruption) and
// raises `corruptionErrors`.
#ifndef QZBASE_QZCHUNKHEAP_H
#define QZBASE_QZCHUNKHEAP_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "platform/QzPlatform.h"

struct QzMempool;

// ---- Recursive spin lock ------------------------------------------------------
// `locked` only ever changes by atomic exchange; `count` is touched by the
// holder alone. Acquire yields the processor (SleepEx(0)) at every 64th failed
// attempt. Any thread; the holder may re-enter.
struct QzSpinLock {
  std::atomic<uint32_t> locked;  // 0 free, 1 held
  uint32_t count;                // recursion depth of the holder
  std::atomic<uint32_t> owner;   // GetCurrentThreadId of the holder, 0 when free
};

inline bool QzSpinLockTryAcquire(QzSpinLock* lock) {
  const uint32_t me = qzsys::GetCurrentThreadId();
  if (lock->locked.load(std::memory_order_relaxed) != 0) {
    if (lock->owner.load(std::memory_order_relaxed) == me) {
      ++lock->count;
      return true;
    }
    return false;
  }
  if (lock->locked.exchange(1, std::memory_order_acquire) == 0) {
    lock->count = 1;
    lock->owner.store(me, std::memory_order_relaxed);
    return true;
  }
  return false;
}

inline void QzSpinLockAcquire(QzSpinLock* lock) {
  uint32_t failures = 0;
  while (!QzSpinLockTryAcquire(lock)) {
    if ((++failures & 63) == 0) {
      qzsys::SleepEx(0, qzsys::FALSE);
    } else {
#if defined(__i386__) || defined(__x86_64__)
      __builtin_ia32_pause();
#endif
    }
  }
}

inline void QzSpinLockRelease(QzSpinLock* lock) {
  if (--lock->count == 0) {
    lock->owner.store(0, std::memory_order_relaxed);
    lock->locked.exchange(0, std::memory_order_release);
  }
}

// ---- Word-derived constants -------------------------------------------------
constexpr size_t QZ_WORD = sizeof(size_t);
constexpr size_t QZ_CHUNK_OVERHEAD = 2 * QZ_WORD;       // size word + footer
constexpr size_t QZ_CHUNK_ALIGN = 2 * QZ_WORD;          // block and chunk alignment
constexpr size_t QZ_CHUNK_ALIGN_MASK = QZ_CHUNK_ALIGN - 1;
constexpr size_t QZ_MIN_CHUNK = 4 * QZ_WORD;            // two tags and two links
constexpr size_t QZ_MIN_REQUEST = QZ_MIN_CHUNK - QZ_CHUNK_OVERHEAD - 1;
constexpr unsigned QZ_SMALL_SHIFT = (QZ_WORD == 8) ? 4 : 3;  // log2 of the alignment
constexpr unsigned QZ_SMALL_BIN_COUNT = 32;
constexpr unsigned QZ_TREE_BIN_COUNT = 32;
constexpr unsigned QZ_TREE_SHIFT = QZ_SMALL_SHIFT + 5;
constexpr size_t QZ_MIN_LARGE = size_t(1) << QZ_TREE_SHIFT;           // 256 / 512
constexpr size_t QZ_MAX_SMALL_SIZE = QZ_MIN_LARGE - QZ_CHUNK_ALIGN;   // 248 / 496
constexpr size_t QZ_MAX_SMALL_REQUEST = QZ_MAX_SMALL_SIZE - QZ_CHUNK_OVERHEAD;  // 240 / 480
constexpr size_t QZ_MAX_REQUEST = size_t(0) - (QZ_MIN_CHUNK << 2);   // 0xFFFFFFC0 on i386

// Flag bits of a size word.
constexpr size_t QZ_PREV_INUSE = 1;
constexpr size_t QZ_CUR_INUSE = 2;
constexpr size_t QZ_FENCE_BIT = 4;
constexpr size_t QZ_INUSE_BITS = QZ_PREV_INUSE | QZ_CUR_INUSE;
constexpr size_t QZ_FLAG_BITS = 7;
constexpr size_t QZ_FENCEPOST = 7;  // a size word of exactly this ends a segment walk

// Heap flags.
constexpr uint32_t QZ_HEAP_DIRECT = 1;  // direct mapping allowed
constexpr uint32_t QZ_HEAP_LOCKED = 2;  // locking on
// Set by a corruption reset, never cleared: frees and reallocations then drop
// a chunk that lies in none of the heap's segments (forgotten memory).
constexpr uint32_t QZ_HEAP_FORGOT = 8;

// ---- Records ---------------------------------------------------------------------
struct QzChunk {
  size_t footWord;   // the previous chunk's size (it is free) or footer (in use)
  size_t sizeWord;   // size | flags
  QzChunk* nextFree; // free chunks only; overlies the first payload word
  QzChunk* prevFree;
};

struct QzTreeChunk {
  size_t footWord;
  size_t sizeWord;
  QzTreeChunk* nextFree;
  QzTreeChunk* prevFree;
  QzTreeChunk* children[2];
  QzTreeChunk* parent;  // bin slot address for a root, 0 inside a ring
  size_t binIndex;
};

// One run of contiguous system memory.
struct QzSegment {
  uintptr_t base;
  size_t size;
  QzSegment* next;  // next older segment, 0 at the end
  uint32_t flags;   // 1: from VirtualAlloc
};

// In-use chunk that holds a closed segment's record, and the room that `top`
// always leaves at the end of a segment for it and its fenceposts.
constexpr size_t QZ_SEGMENT_CHUNK =
    (sizeof(QzSegment) + QZ_CHUNK_OVERHEAD + QZ_CHUNK_ALIGN_MASK) & ~QZ_CHUNK_ALIGN_MASK;  // 24 / 48
constexpr size_t QZ_TOP_FOOT = QZ_SEGMENT_CHUNK + QZ_MIN_CHUNK;        // 40 / 80
constexpr size_t QZ_GROW_PADDING = QZ_TOP_FOOT + QZ_CHUNK_ALIGN;       // 48 / 96
constexpr size_t QZ_DIRECT_PADDING = 6 * QZ_WORD + QZ_CHUNK_ALIGN_MASK;  // 31 / 63
constexpr size_t QZ_DIRECT_FOOT = 4 * QZ_WORD;                         // 16 / 32

struct QzHeap {
  uint32_t smallMap;
  uint32_t treeMap;
  size_t reserveSize;
  size_t topSize;           // not counting the QZ_TOP_FOOT bytes behind top
  uintptr_t lowestAddress;
  QzChunk* reserve;
  QzChunk* top;             // 0 only after a corruption reset
  size_t trimCheck;
  size_t releaseCountdown;
  size_t magic;
  QzChunk* smallBins[(QZ_SMALL_BIN_COUNT + 1) * 2];
  QzTreeChunk* treeBins[QZ_TREE_BIN_COUNT];
  size_t footprint;
  size_t maxFootprint;
  uint32_t flags;
  QzSpinLock lock;
  QzSegment firstSegment;   // newest segment, head of the list
  QzMempool* owningPool;    // set only in a pool's first heap
};

// The process-wide parameters. `magic` is written last by the set-up and is
// the stamp of live heaps and the key of every footer; the other fields may be
// read without a lock once it is non-zero.
struct QzHeapParamsRecord {
  std::atomic<size_t> magic;
  size_t pageSize;
  std::atomic<size_t> granularity;
  std::atomic<size_t> directThreshold;
  std::atomic<size_t> trimThreshold;
  uint32_t defaultFlags;
  QzSpinLock lock;  // guards the set-up and pool set-up
};
extern QzHeapParamsRecord QzHeapParams;

// Raised by every corruption reset; never lowered.
extern std::atomic<uint32_t> corruptionErrors;

// ---- Chunk arithmetic ----------------------------------------------------------
inline QzChunk* QzBlockToChunk(const void* block) {
  return reinterpret_cast<QzChunk*>(reinterpret_cast<uintptr_t>(block) - QZ_CHUNK_OVERHEAD);
}
inline void* QzChunkToBlock(const QzChunk* p) {
  return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(p) + QZ_CHUNK_OVERHEAD);
}
inline QzChunk* QzChunkAt(const void* p, size_t offset) {
  return reinterpret_cast<QzChunk*>(reinterpret_cast<uintptr_t>(p) + offset);
}
// Size words are read without the heap's lock by the pool front end (usable
// size, owner of a block) while a neighbour's free may flip their flag bit 0
// under the lock; relaxed atomic access (plain moves on x86) keeps that
// well-defined. Every write of a size word goes through QzSetHead.
inline size_t QzHead(const QzChunk* p) { return __atomic_load_n(&p->sizeWord, __ATOMIC_RELAXED); }
inline void QzSetHead(QzChunk* p, size_t v) { __atomic_store_n(&p->sizeWord, v, __ATOMIC_RELAXED); }
inline size_t QzChunkSize(const QzChunk* p) { return QzHead(p) & ~QZ_FLAG_BITS; }
// Chunk size for a request of n bytes (n below QZ_MAX_REQUEST).
inline size_t QzRequestToChunk(size_t n) {
  return n < QZ_MIN_REQUEST ? QZ_MIN_CHUNK
                            : (n + QZ_CHUNK_OVERHEAD + QZ_CHUNK_ALIGN_MASK) & ~QZ_CHUNK_ALIGN_MASK;
}
inline size_t QzStamp() { return QzHeapParams.magic.load(std::memory_order_acquire); }
// `footprint` changes under the heap's lock but is read without it
// (Qz_MempoolFootprint), so every access is a relaxed word access; the
// writers, serialised by the lock, need no read-modify-write instruction.
inline size_t QzFootprint(const QzHeap* heap);
inline void QzChangeFootprint(QzHeap* heap, size_t delta, bool up);

inline size_t QzFootprint(const QzHeap* heap) { return __atomic_load_n(&heap->footprint, __ATOMIC_RELAXED); }
inline void QzChangeFootprint(QzHeap* heap, size_t delta, bool up) {
  const size_t now = QzFootprint(heap) + (up ? delta : 0 - delta);
  __atomic_store_n(&heap->footprint, now, __ATOMIC_RELAXED);
  if (up && now > heap->maxFootprint) heap->maxFootprint = now;
}

// ---- What the pool front end reads of a block (no lock taken) ---------------------
// Usable bytes of a block: 0 for null or a chunk flagged free, otherwise the
// chunk size less the two tag words. A block held in a thread cache is in use.
inline size_t QzBlockUsableSize(const void* block) {
  if (block == nullptr) return 0;
  const QzChunk* p = QzBlockToChunk(block);
  const size_t head = QzHead(p);
  if ((head & QZ_INUSE_BITS) == QZ_PREV_INUSE) return 0;
  return (head & ~QZ_FLAG_BITS) - QZ_CHUNK_OVERHEAD;
}
// Whether the chunk of a block is flagged in use (flags 2, 3, or 0 for a
// directly mapped chunk).
inline bool QzBlockLooksInUse(const void* block) {
  return (QzHead(QzBlockToChunk(block)) & QZ_INUSE_BITS) != QZ_PREV_INUSE;
}
// The heap that the block's footer names, unverified: footer XOR stamp.
inline QzHeap* QzBlockFooterHeap(const void* block) {
  const QzChunk* p = QzBlockToChunk(block);
  const QzChunk* next = QzChunkAt(p, QzChunkSize(p));
  return reinterpret_cast<QzHeap*>(next->footWord ^ QzStamp());
}
// True if `heap` is the address of a live heap of this process. Lock-free;
// safe for any address (nothing is read through it).
bool QzHeapIsLive(const QzHeap* heap);
// The verified owner of a block: the heap named by its footer if that heap is
// live and carries the stamp, else 0. The block must at least be readable
// with its chunk's tags.
QzHeap* QzBlockOwnerHeap(const void* block);

// ---- Heap operations ------------------------------------------------------------
// Each takes the heap's lock itself (recursive).
void* QzHeapAlloc(QzHeap* heap, size_t bytes);                    // block or 0
void QzHeapFree(void* block);                                      // heap from the footer
void* QzHeapRealloc(QzHeap* heap, void* block, size_t bytes);      // 0: old block valid
void* QzHeapAlignedAlloc(QzHeap* heap, size_t alignment, size_t bytes);
void QzHeapResetOnCorruption(QzHeap* heap);

// Parameters and creation.
void QzEnsureHeapParams();
QzHeap* QzHeapCreate(size_t capacity);          // 0 on failure
void QzHeapDestroy(QzHeap* heap);               // no lock taken; no user of the heap may remain
bool QzReleaseRegion(uintptr_t address, size_t length);  // whole allocations only

// Growth and release; the caller holds the heap's lock.
void* QzHeapGrow(QzHeap* heap, size_t chunkSize);
void* QzHeapMapDirect(QzHeap* heap, size_t chunkSize);
int QzHeapTrim(QzHeap* heap, size_t pad);       // 1 if memory went back
size_t QzHeapReleaseUnused(QzHeap* heap);       // bytes given back

// ---- Internal helpers shared by the heap's sources ------------------------------
inline QzChunk* QzSmallBinAt(QzHeap* heap, unsigned i) {
  return reinterpret_cast<QzChunk*>(&heap->smallBins[i * 2]);
}
inline QzTreeChunk** QzTreeBinAt(QzHeap* heap, unsigned i) { return &heap->treeBins[i]; }
unsigned QzTreeBinIndex(size_t size);
// Path shift of tree bin i: brings the first undecided bit of a size to the top.
inline unsigned QzTreeLeftShift(unsigned i) {
  return i == QZ_TREE_BIN_COUNT - 1 ? 0 : unsigned(QZ_WORD * 8 - 1) - ((i >> 1) + QZ_TREE_SHIFT - 2);
}
// Smallest size held by tree bin i.
inline size_t QzTreeBinMinSize(unsigned i) {
  return (size_t(1) << ((i >> 1) + QZ_TREE_SHIFT)) |
         (size_t(i & 1) << ((i >> 1) + QZ_TREE_SHIFT - 1));
}
void QzHeapInsertChunk(QzHeap* heap, QzChunk* p, size_t size);
void QzHeapUnlinkChunk(QzHeap* heap, QzChunk* p, size_t size);
void QzHeapUnlinkTreeChunk(QzHeap* heap, QzTreeChunk* x);
void QzHeapInsertTreeChunk(QzHeap* heap, QzTreeChunk* x, size_t size);
// Sets top at t (moved up to alignment) with size s, writes its tail word.
void QzHeapEstablishTop(QzHeap* heap, QzChunk* t, size_t s);
// Cuts c bytes from the front of top (c below topSize); the block.
void* QzHeapCutFromTop(QzHeap* heap, size_t c);
bool QzHeapRegister(QzHeap* heap);  // false when the registry is full
void QzHeapUnregister(QzHeap* heap);

#endif  // QZBASE_QZCHUNKHEAP_H
