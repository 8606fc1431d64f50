// Long randomized runs: every block carries a pattern that is verified before
// it is freed or reallocated, and the checker runs between the steps.
#include <random>
#include <vector>

#include "HeapTestSupport.h"

using namespace heaptest;

namespace {

struct Live {
  unsigned char* block;
  size_t size;
  unsigned char seed;
  void Fill() const {
    for (size_t i = 0; i < size; ++i) block[i] = static_cast<unsigned char>(seed + i * 7);
  }
  ::testing::AssertionResult Intact(size_t upTo) const {
    for (size_t i = 0; i < upTo; ++i)
      if (block[i] != static_cast<unsigned char>(seed + i * 7))
        return ::testing::AssertionFailure() << "byte " << i << " of a block of " << size << " changed";
    return ::testing::AssertionSuccess();
  }
};

size_t PickSize(std::mt19937& rng) {
  const unsigned r = rng() % 1000;
  if (r < 600) return rng() % 300;            // small bins
  if (r < 900) return 300 + rng() % 4000;     // tree bins
  if (r < 990) return 4000 + rng() % 120000;  // large
  return 200000 + rng() % 1200000;            // around and past direct mapping
}

void RunRandom(unsigned seed, int steps, int checkEvery, size_t liveLimit) {
  ScopedHeap h;
  std::mt19937 rng(seed);
  std::vector<Live> live;
  unsigned char nextSeed = 1;
  for (int step = 0; step < steps; ++step) {
    const unsigned op = rng() % 100;
    if (live.empty() || (op < 45 && live.size() < liveLimit)) {
      Live b{nullptr, PickSize(rng), nextSeed++};
      const size_t alignment = op % 10 == 0 ? size_t(1) << (3 + rng() % 10) : 0;
      b.block = static_cast<unsigned char*>(alignment ? QzHeapAlignedAlloc(h, alignment, b.size)
                                                      : QzHeapAlloc(h, b.size));
      ASSERT_NE(nullptr, b.block);
      ASSERT_EQ(0u, Addr(b.block) % (alignment > QZ_CHUNK_ALIGN ? alignment : QZ_CHUNK_ALIGN));
      ASSERT_GE(QzBlockUsableSize(b.block), b.size);
      b.Fill();
      live.push_back(b);
    } else {
      Live& b = live[rng() % live.size()];
      ASSERT_TRUE(b.Intact(b.size));
      if (op < 80) {
        QzHeapFree(b.block);
        b = live.back();
        live.pop_back();
      } else {
        const size_t newSize = PickSize(rng);
        b.block = static_cast<unsigned char*>(QzHeapRealloc(h, b.block, newSize));
        ASSERT_NE(nullptr, b.block);
        ASSERT_GE(QzBlockUsableSize(b.block), newSize);
        ASSERT_TRUE(b.Intact(b.size < newSize ? b.size : newSize));
        b.size = newSize;
        b.Fill();
      }
    }
    if (step % checkEvery == 0) {
      ASSERT_HEAP_OK(h) << "after step " << step;
    }
  }
  for (const Live& b : live) {
    ASSERT_TRUE(b.Intact(b.size));
    QzHeapFree(b.block);
  }
  ASSERT_HEAP_OK(h);
  const QzHeapCheckReport r = Report(h);
  EXPECT_EQ(1u, r.inUseChunks - r.closedSegments);  // only the records are left
}

// The runs differ in how many blocks stay live and in the thresholds that
// decide between bins, segments and direct mappings.
TEST(HeapRandom, MixedSequences) {
  struct Row { unsigned seed; int steps, checkEvery; size_t liveLimit; int granularity, direct, trim; } rows[] = {
      {1, 60000, 500, 400, 0, 0, 0},
      {2, 40000, 2000, 8000, 0, 0, 0},
      {4, 40000, 250, 600, 65536, 32768, 131072},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.seed);
    ParamsScope params;
    if (r.granularity) {
      ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -2, r.granularity));
      ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -3, r.direct));
      ASSERT_EQ(1, Qz_MempoolOpt(nullptr, -1, r.trim));
    }
    RunRandom(r.seed, r.steps, r.checkEvery, r.liveLimit);
    if (HasFatalFailure()) return;
  }
}

}  // namespace
