// Bulk allocation: many blocks cut from one heap chunk in one step.
//
// The elements lie side by side in index order; an array of their addresses
// that the call makes itself follows them, as a block of its own. Each
// element (and the array) is an ordinary in-use chunk with its footer, so it
// is freed by itself through any free call, in any order, on any thread.
#ifndef QZBASE_QZHEAPBULK_H
#define QZBASE_QZHEAPBULK_H

#include "pools/QzChunkHeap.h"

// Options of QzHeapBulkAlloc.
constexpr unsigned QZ_BULK_SAME_SIZE = 1;  // every element has the size sizes[0]
constexpr unsigned QZ_BULK_CLEAR = 2;      // the elements come zero-filled

// Cuts `count` elements of the given request sizes from one chunk of `heap`;
// their blocks go to `chunks`, or, when it is null, to an array made behind
// the elements. With chunks given, a count of 0 returns chunks; without, it
// returns a minimal block. The aggregate is never mapped directly. Result: the
// array, or 0 (no memory, a size sum past the address space, a wrong magic)
// with nothing allocated. The caller holds the heap's lock or lets the call
// take it.
void** QzHeapBulkAlloc(QzHeap* heap, size_t count, const size_t* sizes, unsigned options, void** chunks);

#endif  // QZBASE_QZHEAPBULK_H
