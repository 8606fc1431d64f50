// Long randomized runs: every block carries a pattern that is verified before
// it is freed or reallocated, and the checker runs between the steps.
#include <string.h>

#include <random>
#include <vector>

#include "HeapTestSupport.h"

using namespace heaptest;

namespace {

struct Live {
  unsigned char* block;
  size_t size;
  unsigned char seed;
};

void Fill(const Live& b) {
  for (size_t i = 0; i < b.size; ++i) b.block[i] = static_cast<unsigned char>(b.seed + i * 7);
}

::testing::AssertionResult Intact(const Live& b, size_t upTo) {
  for (size_t i = 0; i < upTo; ++i)
    if (b.block[i] != static_cast<unsigned char>(b.seed + i * 7))
      return ::testing::AssertionFailure() << "byte " << i << " of a block of " << b.size << " changed";
  return ::testing::AssertionSuccess();
}

size_t PickSize(std::mt19937& rng) {
  const unsigned r = rng() % 1000;
  if (r < 600) return rng() % 300;                  // small bins
  if (r < 900) return 300 + rng() % 4000;           // tree bins
  if (r < 990) return 4000 + rng() % 120000;        // large
  return 200000 + rng() % 1200000;                  // around and past direct mapping
}

void RunRandom(unsigned seed, int steps, int checkEvery, size_t liveLimit) {
  ScopedHeap h;
  ASSERT_NE(nullptr, h.get());
  std::mt19937 rng(seed);
  std::vector<Live> live;
  unsigned char nextSeed = 1;
  for (int step = 0; step < steps; ++step) {
    const unsigned op = rng() % 100;
    if (live.empty() || (op < 45 && live.size() < liveLimit)) {
      Live b{nullptr, PickSize(rng), nextSeed++};
      size_t alignment = 0;
      if (op % 10 == 0) alignment = size_t(1) << (3 + rng() % 10);
      b.block = static_cast<unsigned char*>(alignment ? QzHeapAlignedAlloc(h, alignment, b.size)
                                                      : QzHeapAlloc(h, b.size));
      ASSERT_NE(nullptr, b.block);
      ASSERT_EQ(0u, reinterpret_cast<uintptr_t>(b.block) % QZ_CHUNK_ALIGN);
      if (alignment > QZ_CHUNK_ALIGN) {
        ASSERT_EQ(0u, reinterpret_cast<uintptr_t>(b.block) % alignment);
      }
      ASSERT_GE(QzBlockUsableSize(b.block), b.size);
      ASSERT_EQ(h.get(), QzBlockOwnerHeap(b.block));
      Fill(b);
      live.push_back(b);
    } else if (op < 80) {
      const size_t i = rng() % live.size();
      ASSERT_TRUE(Intact(live[i], live[i].size));
      QzHeapFree(live[i].block);
      live[i] = live.back();
      live.pop_back();
    } else {
      const size_t i = rng() % live.size();
      Live& b = live[i];
      const size_t newSize = PickSize(rng);
      ASSERT_TRUE(Intact(b, b.size));
      unsigned char* moved = static_cast<unsigned char*>(QzHeapRealloc(h, b.block, newSize));
      ASSERT_NE(nullptr, moved);
      ASSERT_GE(QzBlockUsableSize(moved), newSize);
      b.block = moved;
      ASSERT_TRUE(Intact(b, b.size < newSize ? b.size : newSize));
      b.size = newSize;
      Fill(b);
    }
    if (step % checkEvery == 0) {
      ASSERT_HEAP_OK(h) << "after step " << step;
    }
  }
  ASSERT_HEAP_OK(h);
  for (const Live& b : live) {
    ASSERT_TRUE(Intact(b, b.size));
    QzHeapFree(b.block);
  }
  ASSERT_HEAP_OK(h);
  const QzHeapCheckReport r = Report(h);
  EXPECT_EQ(1u, r.inUseChunks - r.closedSegments);  // only the heap record is left
}

TEST(HeapRandom, MixedSequenceSeed1) { RunRandom(1, 60000, 500, 400); }
TEST(HeapRandom, MixedSequenceSeed2) { RunRandom(2, 60000, 500, 2000); }
TEST(HeapRandom, ManySmallLiveBlocks) { RunRandom(3, 40000, 2000, 8000); }

TEST(HeapRandom, WithSmallGranularityAndThresholds) {
  ParamsScope params;
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -2, 65536));
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -3, 32768));
  ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -1, 131072));
  RunRandom(4, 40000, 250, 600);
}

}  // namespace
