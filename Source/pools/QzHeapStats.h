// Pool statistics, heap side: one heap's figures from a walk of its segments.
//
// A walk visits, segment by segment, the chunks from the first aligned chunk
// position on, and stops at the segment's end, at `top` or at a fencepost.
// `reserve` and binned chunks count as free, blocks in thread caches as in
// use; directly mapped regions are in no segment and show only in
// `footprint`. Each call takes the heap's lock for its walk.
#ifndef QZBASE_QZHEAPSTATS_H
#define QZBASE_QZHEAPSTATS_H

#include <qzbase/QzMempool.h>

#include "pools/QzChunkHeap.h"

// The figures of one heap; all zeros when the heap has no `top` (after a
// corruption reset). The three fields that are always 0 stay 0.
QzMempoolInfo QzHeapInfo(QzHeap* heap);
// Writes the six status lines of one heap through the log, with the heap's
// lock held (the log may allocate in this very heap: the lock is recursive).
void QzHeapStats(QzHeap* heap);

#endif  // QZBASE_QZHEAPSTATS_H
