// Drives one chunk heap with an operation stream taken from the input:
// allocate, aligned allocate, free, reallocate, trim, plus frees of pointers
// the heap never handed out. Every live block holds a pattern that must
// survive, and the heap checker runs every eighth operation and at the end.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "pools/QzChunkHeap.h"
#include "pools/QzHeapCheck.h"

namespace {

struct Live {
  unsigned char* block;
  size_t size;
  unsigned char seed;
};

struct Input {
  const uint8_t* data;
  size_t left;
  unsigned Byte() {
    if (left == 0) return 0;
    --left;
    return *data++;
  }
  size_t Size() {
    const unsigned kind = Byte();
    const size_t v = Byte() | (Byte() << 8);
    switch (kind & 3) {
      case 0: return v & 0xFF;                 // small bins
      case 1: return v & 0x1FFF;               // tree bins
      case 2: return size_t(v) << 2;           // up to 256 KiB
      default: return size_t(v) << 5;          // past direct mapping
    }
  }
};

// The pattern covers both ends of a block (where neighbours and tags lie)
// and every 64th byte between, so large blocks stay cheap.
inline bool Marked(size_t i, size_t size) { return i < 256 || i + 256 >= size || i % 64 == 0; }

void Fill(const Live& b) {
  for (size_t i = 0; i < b.size; i = Marked(i + 1, b.size) ? i + 1 : (i + 64) & ~size_t(63))
    b.block[i] = static_cast<unsigned char>(b.seed ^ (i * 13));
}

void Verify(const Live& b, size_t upTo) {
  for (size_t i = 0; i < upTo; i = Marked(i + 1, b.size) ? i + 1 : (i + 64) & ~size_t(63)) {
    if (b.block[i] != static_cast<unsigned char>(b.seed ^ (i * 13))) {
      fprintf(stderr, "block %p lost byte %zu\n", static_cast<void*>(b.block), i);
      abort();
    }
  }
}

void Check(QzHeap* heap) {
  QzHeapCheckReport report;
  if (!QzHeapCheck(heap, &report)) {
    fprintf(stderr, "heap check: %s\n", report.error.c_str());
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  QzHeap* heap = QzHeapCreate(0);
  if (heap == nullptr) return 0;
  Input in{data, size};
  std::vector<Live> live;
  unsigned char seed = 1;
  for (int step = 0; step < 400 && in.left != 0; ++step) {
    unsigned op = in.Byte() % 8;
    size_t liveBytes = 0;
    for (const Live& b : live) liveBytes += b.size;
    if (liveBytes > (size_t(64) << 20) && op < 4) op = 4;  // keep the footprint modest
    switch (op) {
      case 0:
      case 1:
      case 2: {
        Live b{nullptr, in.Size(), seed++};
        b.block = static_cast<unsigned char*>(QzHeapAlloc(heap, b.size));
        if (b.block == nullptr) abort();  // plenty of memory for these sizes
        Fill(b);
        live.push_back(b);
        break;
      }
      case 3: {
        Live b{nullptr, in.Size(), seed++};
        const size_t alignment = size_t(1) << (in.Byte() % 14);
        b.block = static_cast<unsigned char*>(QzHeapAlignedAlloc(heap, alignment, b.size));
        if (b.block == nullptr) abort();
        if (alignment > QZ_CHUNK_ALIGN && reinterpret_cast<uintptr_t>(b.block) % alignment != 0) abort();
        Fill(b);
        live.push_back(b);
        break;
      }
      case 4:
      case 5: {
        if (live.empty()) break;
        const size_t i = in.Byte() % live.size();
        Verify(live[i], live[i].size);
        QzHeapFree(live[i].block);
        live[i] = live.back();
        live.pop_back();
        break;
      }
      case 6: {
        if (live.empty()) break;
        Live& b = live[in.Byte() % live.size()];
        const size_t n = in.Size();
        unsigned char* moved = static_cast<unsigned char*>(QzHeapRealloc(heap, b.block, n));
        if (moved == nullptr) abort();
        b.block = moved;
        Verify(b, b.size < n ? b.size : n);
        b.size = n;
        Fill(b);
        break;
      }
      default: {
        // Pointers the heap must refuse: inside a live block, misaligned.
        if (!live.empty()) {
          const Live& b = live[in.Byte() % live.size()];
          const size_t offset = b.size > 1 ? 1 + in.Byte() % (b.size - 1) : 1;
          if (offset % QZ_CHUNK_ALIGN != 0) QzHeapFree(b.block + offset);
          Verify(b, b.size);
        }
        QzSpinLockAcquire(&heap->lock);
        QzHeapTrim(heap, in.Byte() << 10);
        QzSpinLockRelease(&heap->lock);
        break;
      }
    }
    if (step % 8 == 0) Check(heap);
  }
  Check(heap);
  for (const Live& b : live) {
    Verify(b, b.size);
    QzHeapFree(b.block);
  }
  Check(heap);
  QzHeapDestroy(heap);
  return 0;
}
