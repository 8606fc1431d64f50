// Internal heap checker: walks every segment of a heap and every bin and
// proves the invariants of the chunk heap. For tests and debugging; it takes
// the heap's lock and allocates with the C++ runtime, never from the pools.
#ifndef QZBASE_QZHEAPCHECK_H
#define QZBASE_QZHEAPCHECK_H

#include <stddef.h>

#include <string>

#include "pools/QzChunkHeap.h"

struct QzHeapCheckReport {
  std::string error;        // empty when every invariant holds; else the first fault found
  size_t segments = 0;
  size_t segmentBytes = 0;  // sum of the segment sizes
  size_t inUseChunks = 0;   // record chunks of closed segments included
  size_t inUseBytes = 0;
  size_t freeChunks = 0;    // in bins, without reserve and top
  size_t freeBytes = 0;
  size_t fenceposts = 0;
  size_t closedSegments = 0;
};

// True when the heap is sound. Any thread; the heap's lock is taken.
bool QzHeapCheck(QzHeap* heap, QzHeapCheckReport* report = nullptr);

#endif  // QZBASE_QZHEAPCHECK_H
