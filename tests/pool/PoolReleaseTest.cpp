// A pool that grew by many regions gives them back to the system once its
// blocks are freed and it is trimmed, round after round.
#include <stdio.h>
#include <unistd.h>

#include <vector>

#include "PoolTestSupport.h"

namespace {

size_t Resident() {
  FILE* f = fopen("/proc/self/statm", "r");
  unsigned long pages = 0, resident = 0;
  if (f != nullptr) {
    if (fscanf(f, "%lu %lu", &pages, &resident) != 2) resident = 0;
    fclose(f);
  }
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAsanShadow = true;
#else
constexpr bool kAsanShadow = false;
#endif

TEST(PoolRelease, BurstsOfSmallBlocksGoBackAfterTrimAndDoNotRatchet) {
  constexpr size_t kBlock = 100 * 1024, kBurst = size_t(100) << 20;
  // AddressSanitizer keeps the shadow of memory that went back to the
  // system, one byte for every eight: that much of the first burst stays
  // resident (after other cases in the same process it was resident already).
  constexpr size_t kSlack = kBurst / 10 + (kAsanShadow ? kBurst / 8 : 0);
  QzMempool* created = Qz_CreateMempool(0, 1);
  for (QzMempool* handle : {created, static_cast<QzMempool*>(nullptr)}) {
    Qz_MempoolFree(handle, Qz_MempoolAlloc(handle, 16));  // the thread's state is set up before the start
    const size_t footprint0 = Qz_MempoolFootprint(handle), resident0 = Resident();
    for (int round = 0; round < 3; ++round) {
      std::vector<void*> blocks;
      for (size_t n = 0; n < kBurst; n += kBlock) {
        blocks.push_back(Qz_MempoolAlloc(handle, kBlock));
        ASSERT_NE(nullptr, blocks.back());
        memset(blocks.back(), 0x5A, kBlock);  // resident, not only reserved
      }
      for (void* b : blocks) Qz_MempoolFree(handle, b);
      EXPECT_LT(0, Qz_MempoolTrim(handle, 0)) << handle << " round " << round;
      ASSERT_EQ("", PoolProblem(handle));
      EXPECT_LE(Qz_MempoolFootprint(handle), footprint0 + kSlack) << handle << " round " << round;
      EXPECT_LE(Resident(), resident0 + kSlack) << handle << " round " << round;
    }
  }
  Qz_DestroyMempool(created);
}

}  // namespace
