// qzbase: memory pools.
//
// A pool owns up to 16 heaps and a cache per thread. Handle 0 names the
// default pool, which comes into being at its first use and is never
// destroyed. Every block is at least 8-aligned and may be freed or
// reallocated through any pool handle and by any thread: it always returns to
// the heap that made it.
//
// Threads: every call may be made from any thread at any time, except that a
// pool must not be destroyed while another thread still uses it.
// Failure: out of memory gives 0 (never an exception); a bad free is dropped.
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
// Gives all the pool's memory back; every block of it becomes invalid. Not 0.
QZ_API void Qz_DestroyMempool(QzMempool* pool);

// At least `size` bytes, 8-aligned, or 0.
QZ_API void* Qz_MempoolAlloc(QzMempool* pool, size_t size);
// `count * size` zero bytes, or 0 (also when the product overflows).
QZ_API void* Qz_MempoolCalloc(QzMempool* pool, size_t count, size_t size);
// Resizes a block, moving it if need be. 0 on failure, and the old block
// stays valid. A null block allocates.
QZ_API void* Qz_MempoolRealloc(QzMempool* pool, void* block, size_t size);
// Gives a block back. Null is ignored; a block that is not a live block of
// this library is dropped without harm.
QZ_API void Qz_MempoolFree(QzMempool* pool, void* block);
// Usable bytes of a block (at least what was asked for), or 0.
QZ_API size_t Qz_MemblkSize(void* block);

// An opaque word kept for the pool's user, 0 at first.
QZ_API void Qz_MempoolSetValue(QzMempool* pool, uintptr_t value);
// The value of the pool that owns `block`; when it comes from a pool, that
// pool's handle is also stored at `place` (which may be null).
QZ_API uintptr_t Qz_MempoolGetValue(QzMempool** place, void* block);

// Blocks aligned to `alignment` (a power of two; smaller than 8 means 8).
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

}  // extern "C"

#endif  // QZBASE_QZMEMPOOL_H
