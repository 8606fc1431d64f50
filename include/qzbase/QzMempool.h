// qzbase: memory pools.
//
// A pool owns up to 16 heaps and a cache per thread. Handle 0 names the
// default pool, which comes into being at the first call that names it (on
// any thread) and is never destroyed; everything the library allocates for
// itself comes from there. Every block is at least 8-aligned (16 on x86-64)
// and may be freed or reallocated through any pool handle and by any thread:
// it always returns to the heap that made it.
//
// Thread caches: a block of up to 8 KiB (16 KiB on x86-64) that a thread frees
// waits in that thread's cache of the pool named in the free call, and the
// thread's next allocation of that size class takes it back without a lock.
// With a cache, requests up to that size are rounded up to powers of two, so
// Qz_MemblkSize may report more than was asked for. A cache holds at most
// 512 KiB (1 MiB on x86-64) before it gives its oldest blocks back. A thread
// that ends keeps its cache until the pool is destroyed, unless it calls
// Qz_MempoolDisableThreadCache first.
//
// Ownership: the caller of Qz_CreateMempool owns the pool and ends it with
// Qz_DestroyMempool; whoever allocates a block owns it until it is freed.
//
// Threads: every call may be made from any thread at any time, except that a
// pool must be destroyed only when no other thread uses it any more and no
// block of it waits in another pool's cache.
//
// Failure: out of memory gives 0, never an exception, and a failed
// reallocation leaves the old block valid. A free that the heap can prove
// wrong (a block already given back to its heap, a header that does not fit
// its neighbours) is dropped; a block freed twice in a row by one
// thread is reported through the log (level FatalError, into the log file
// when one is open, else to debug output) and otherwise ignored: the process
// goes on. Pointers that
// never came from this library are out of contract. The pools' fatal states
// (the default pool cannot be set up; the system refuses a thread-local
// slot value) end the process (code 0xC0000017).
#ifndef QZBASE_QZMEMPOOL_H
#define QZBASE_QZMEMPOOL_H

#include <qzbase/QzTypes.h>

extern "C" {

// Opaque pool record; its address is the pool handle.
struct QzMempool;

// A new pool whose first heap starts with `capacity` bytes (0: one granule);
// `threads` is the most heaps it may have, 1 to 16 (any other value: 16).
// The caller owns the pool and ends it with Qz_DestroyMempool. 0 on failure.
QZ_API QzMempool* Qz_CreateMempool(size_t capacity, int threads);
// Gives all the pool's memory back at once; every block of it becomes
// invalid (directly mapped blocks, 256 KiB or more by default, which have
// mappings of their own, stay mapped for good). Null and the default pool are ignored.
QZ_API void Qz_DestroyMempool(QzMempool* pool);

// The calling thread gives up its cache in the pool (0: the default pool) for
// good: its cached blocks go back to their heaps, and it allocates from its
// heap directly from now on. Threads that end should call it for every pool
// they used. No result.
QZ_API void Qz_MempoolDisableThreadCache(QzMempool* pool);

// At least `size` bytes (0 counts as 16), or 0.
QZ_API void* Qz_MempoolAlloc(QzMempool* pool, size_t size);
// `count * size` zero bytes, or 0 (also when the product overflows).
QZ_API void* Qz_MempoolCalloc(QzMempool* pool, size_t count, size_t size);
// Resizes a block, moving it if need be. 0 on failure, and the old block
// stays valid. A null block allocates.
QZ_API void* Qz_MempoolRealloc(QzMempool* pool, void* block, size_t size);
// Gives a block back, to the calling thread's cache of `pool` or to its heap.
// Null is ignored and creates nothing.
QZ_API void Qz_MempoolFree(QzMempool* pool, void* block);
// Usable bytes of a block (at least what was asked for), 0 for null or a block
// already given back to its heap. No lock; the block must stay live meanwhile.
QZ_API size_t Qz_MemblkSize(void* block);

// An opaque word kept for the pool's user, 0 at first. No lock.
QZ_API void Qz_MempoolSetValue(QzMempool* pool, uintptr_t value);
// The value of the pool whose first heap made `block`; that pool's handle is
// also stored at `place` (which may be null). 0, and `place` untouched, for a
// block of a later heap of a pool (a pool adds heaps when its threads contend)
// or for a pointer whose chunk does not look like a live block. A probe: it
// tolerates a wrong pointer as far as the words around it can be read.
QZ_API uintptr_t Qz_MempoolGetValue(QzMempool** place, void* block);

// Blocks aligned to `alignment`: 8 or less gives the plain alignment, other
// values are raised to a power of two of at least 16. Never from a cache.
// Any free call takes them. Reallocating a non-null block gives only the plain
// alignment (the alignment argument then goes unused).
QZ_API void* Qz_MempoolAlignedAlloc(QzMempool* pool, size_t alignment, size_t size);
QZ_API void* Qz_MempoolAlignedRealloc(QzMempool* pool, void* block, size_t alignment, size_t size);
QZ_API void Qz_MempoolAlignedFree(QzMempool* pool, void* block);

// Sets a process-wide threshold of the heaps; `pool` is not used.
//   -1: trimThreshold   (top size above which a free gives memory back)
//   -2: granularity     (unit of every system request; a power of two of at
//                        least the page size, else refused)
//   -3: directThreshold (chunk size from which a request gets its own mapping)
// A value of -1 means the largest size: it switches automatic trimming or
// direct mapping off. 1 on success, 0 if refused (unknown parameter or a bad
// granularity; nothing changes). Any thread; takes effect at the next growth,
// creation or re-establishing of a heap's top.
QZ_API int Qz_MempoolOpt(QzMempool* pool, int parameter, int value);

// ---- Bulk allocation ------------------------------------------------------------
// Many blocks cut from one heap chunk in one step, side by side in index
// order, never from a cache. `chunks` is the caller's array for the count
// block addresses, or null: then the call makes the array itself, right behind
// the elements, as a block of its own. The caller owns every element and the
// array it did not pass in, and frees each one by itself (any free call, any
// order, any thread); freeing the array frees no element. The last element
// may be larger than asked for (Qz_MemblkSize tells). Requests too large for
// the cache are never given mappings of their own here.
//
// Results: the array, or 0 when memory runs out or the sizes add up past the
// address space, with nothing allocated. A count of 0 returns `chunks` when it
// is given, otherwise a minimal block that stands for an empty array (free it
// like any block).

// `count` zero-filled elements of `size` bytes each (sizes below 16 count as
// 16).
QZ_API void** Qz_MempoolIndependentCalloc(QzMempool* pool, size_t count, size_t size, void** chunks);
// `count` elements of sizes[i] bytes each (sizes below 16 count as 16), not
// cleared; `sizes` is only read. A null `sizes` with a count above 0 gives 0.
QZ_API void** Qz_MempoolIndependentCoMalloc(QzMempool* pool, size_t count, const size_t* sizes, void** chunks);

// ---- Statistics and trimming ----------------------------------------------------
// The figures of a pool are sums over its heaps; each heap is consistent in
// itself, the pool's total is no single snapshot. A heap that has forgotten
// its memory after a detected corruption contributes zeros. Byte figures are
// word-sized: 32 bits on i386, 64 bits on x86-64, where a pool can hold more
// than 4 GiB.
struct QzMempoolInfo {
  size_t totalBytes;      // top, its reserved tail and every chunk of the heaps' segments
  size_t freeChunks;      // free chunks, each heap's top counted as one
  size_t smallBlocks;     // always 0
  size_t mappedBlocks;    // always 0
  size_t mappedBytes;     // held memory outside the segments: direct mappings
  size_t maxFootprint;    // sum of the heaps' highest footprints
  size_t smallFreeBytes;  // always 0
  size_t usedBytes;       // held memory not free in a heap (cached blocks count as used)
  size_t freeBytes;       // top with its reserved tail, and every free chunk
  size_t topBytes;        // the heaps' tops
};

// Bytes the pool holds from the system: segments and direct mappings,
// including what thread caches keep. Lock-free; may be stale at once.
QZ_API size_t Qz_MempoolFootprint(QzMempool* pool);
// Writes six lines per heap through the log at level Status ("max system
// bytes", "system bytes", "in use bytes", "corruption errors" between a begin
// and an end rule). The corruption counter is the process's, the same in
// every block. No result.
QZ_API void Qz_MempoolStats(QzMempool* pool);
// The pool's figures, summed over its heaps.
QZ_API QzMempoolInfo Qz_MempoolGetInfo(QzMempool* pool);
// Gives back the free end of each heap's newest memory beyond `pad` bytes,
// where whole system allocations can go, and segments that have become
// entirely free. Thread caches keep their blocks. Result: the number of heaps
// that gave memory back.
QZ_API int Qz_MempoolTrim(QzMempool* pool, size_t pad);

}  // extern "C"

#endif  // QZBASE_QZMEMPOOL_H
