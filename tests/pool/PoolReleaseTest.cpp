// Memory goes back: a pool that grew by many small regions gives them back to
// the system once its blocks are freed and it is trimmed, round after round.
#include <stdio.h>
#include <unistd.h>

#include <vector>

#include "PoolTestSupport.h"

namespace {

// Resident bytes of the process.
size_t Resident() {
  FILE* f = fopen("/proc/self/statm", "r");
  unsigned long pages = 0, resident = 0;
  if (f != nullptr) {
    if (fscanf(f, "%lu %lu", &pages, &resident) != 2) resident = 0;
    fclose(f);
  }
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

size_t Footprint(QzMempool* pool) {
  size_t sum = 0;
  for (int i = 0; pool->heaps[i].load() != nullptr; ++i) sum += pool->heaps[i].load()->footprint;
  return sum;
}

// What the pool-wide trim does: every heap in turn, under its lock.
int TrimAll(QzMempool* pool) {
  int trimmed = 0;
  for (int i = 0; pool->heaps[i].load() != nullptr; ++i) {
    QzHeap* h = pool->heaps[i].load();
    QzSpinLockAcquire(&h->lock);
    trimmed += QzHeapTrim(h, 0);
    QzSpinLockRelease(&h->lock);
  }
  return trimmed;
}

TEST(PoolRelease, BurstsOfSmallBlocksGoBackAfterTrimAndDoNotRatchet) {
  constexpr size_t kBlock = 100 * 1024;
  constexpr size_t kBurst = size_t(100) << 20;
  constexpr size_t kSlack = kBurst / 10;
  QzMempool* created = Qz_CreateMempool(0, 1);
  ASSERT_NE(nullptr, created);
  struct { const char* name; QzMempool* handle; } pools[] = {{"created pool", created}, {"default pool", nullptr}};
  for (const auto& p : pools) {
    QzMempool* pool = QzResolvePool(p.handle);
    Qz_MempoolFree(p.handle, Qz_MempoolAlloc(p.handle, 16));  // the thread's state is set up before the start
    const size_t footprint0 = Footprint(pool), resident0 = Resident();
    for (int round = 0; round < 3; ++round) {
      std::vector<void*> blocks;
      for (size_t n = 0; n < kBurst; n += kBlock) {
        void* b = Qz_MempoolAlloc(p.handle, kBlock);
        ASSERT_NE(nullptr, b);
        memset(b, 0x5A, kBlock);  // resident, not only reserved
        blocks.push_back(b);
      }
      ASSERT_GE(Footprint(pool), footprint0 + kBurst) << p.name;
      ASSERT_EQ("", PoolProblem(pool)) << p.name;
      for (void* b : blocks) Qz_MempoolFree(p.handle, b);
      ASSERT_EQ("", PoolProblem(pool)) << p.name;
      EXPECT_LT(0, TrimAll(pool)) << p.name << " round " << round;
      ASSERT_EQ("", PoolProblem(pool)) << p.name;
      EXPECT_LE(Footprint(pool), footprint0 + kSlack) << p.name << " round " << round;
      EXPECT_LE(Resident(), resident0 + kSlack) << p.name << " round " << round;
    }
  }
  Qz_DestroyMempool(created);
}

}  // namespace
