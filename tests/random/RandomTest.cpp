// Generators: the reference sequences, range reduction with counted draws,
// doubles, bad input and failed allocation.
#include <gtest/gtest.h>

#include <qzbase/QzRandom.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "QzTestSupport.h"
#include "random/QzRandom.h"

namespace {

struct Destroy {
  void operator()(QzRandom* r) const { Qz_DestroyRandom(r); }
};
using Gen = std::unique_ptr<QzRandom, Destroy>;

// init_by_array as its authors describe it, written out here independently
// of the library (64-bit arithmetic, explicit masks), giving the state that
// the generator must hold after seeding.
std::vector<uint32_t> ReferenceArrayState(const std::vector<uint32_t>& key) {
  const uint64_t mask = 0xFFFFFFFFull;
  std::vector<uint64_t> mt(624);
  mt[0] = 19650218u;
  for (size_t i = 1; i < 624; ++i) mt[i] = (1812433253ull * (mt[i - 1] ^ (mt[i - 1] >> 30)) + i) & mask;
  size_t i = 1, j = 0;
  for (size_t k = std::max<size_t>(624, key.size()); k > 0; --k) {
    mt[i] = ((mt[i] ^ (((mt[i - 1] ^ (mt[i - 1] >> 30)) * 1664525ull) & mask)) + key[j] + j) & mask;
    ++i, ++j;
    if (i >= 624) mt[0] = mt[623], i = 1;
    if (j >= key.size()) j = 0;
  }
  for (size_t k = 623; k > 0; --k) {
    mt[i] = ((mt[i] ^ (((mt[i - 1] ^ (mt[i - 1] >> 30)) * 1566083941ull) & mask)) - i) & mask;
    if (++i >= 624) mt[0] = mt[623], i = 1;
  }
  mt[0] = 0x80000000u;
  return std::vector<uint32_t>(mt.begin(), mt.end());
}

// Undoes the tempering, so that a test can make the generator emit chosen
// words. The left-shift steps are inverted by iterating to their fixpoint.
uint32_t Untemper(uint32_t out) {
  uint32_t y = out;
  y ^= y >> 18;
  y ^= (y << 15) & 0xEFC60000u;
  uint32_t x = y;
  for (int n = 0; n < 5; ++n) x = y ^ ((x << 7) & 0x9D2C5680u);
  uint32_t z = x;
  for (int n = 0; n < 3; ++n) z = x ^ (z >> 11);
  return z;
}

// A generator whose next words are exactly `outputs`.
Gen Emitting(const std::vector<uint32_t>& outputs) {
  Gen g(Qz_CreateRandomWithSeed(1));
  for (size_t i = 0; i < outputs.size(); ++i) g->state[i] = Untemper(outputs[i]);
  g->index = 0;
  return g;
}

bool SameState(const QzRandom* a, const std::vector<uint32_t>& state) {
  return std::equal(state.begin(), state.end(), a->state);
}

TEST(Random, BothSeedingsFollowTheReference) {
  Gen g(Qz_CreateRandomWithSeed(5489));
  ASSERT_NE(g, nullptr);
  // Past three regenerations, and again from the largest seed.
  for (uint32_t seed : {5489u, 0xFFFFFFFFu}) {
    Qz_SetSeedToRandom(g.get(), seed);
    std::mt19937 ref(seed);
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(Qz_RandomInt(g.get()), ref()) << seed << " " << i;
  }
  const uint32_t key[] = {0x123, 0x234, 0x345, 0x456};
  Gen array(Qz_CreateRandomWithSeedsArray(key, 4));
  ASSERT_NE(array, nullptr);
  EXPECT_TRUE(SameState(array.get(), ReferenceArrayState({key, key + 4})));
  EXPECT_EQ(Qz_RandomInt(array.get()), 1067595299u);
  // Keys shorter than, as long as and longer than the state.
  for (size_t n : {1u, 624u, 625u, 1500u}) {
    std::vector<uint32_t> k(n);
    for (size_t i = 0; i < n; ++i) k[i] = uint32_t(i * 2654435761u + 7);
    Qz_SetSeedsArrayToRandom(array.get(), k.data(), uint32_t(n));
    EXPECT_TRUE(SameState(array.get(), ReferenceArrayState(k))) << n;
  }
}

TEST(Random, RangeTakesWordsUpToTheLimitAndCountsItsDraws) {
  const uint32_t ranges[][2] = {
      {7, 7}, {0, 1}, {5, 8}, {0, 3}, {0, 6}, {10, 3},
      // Just below, at and just above 2^31, the widest range, and 2^31 wrapping through 0.
      {0, 0x7FFFFFFFu}, {0, 0x80000000u}, {0, 0x80000001u}, {0, 0xFFFFFFFFu}, {0xFFFFFFFFu, 0x7FFFFFFFu},
  };
  for (const auto& lh : ranges) {
    const uint32_t low = lh[0], high = lh[1], range = high - low;
    // The largest word below a whole number of ranges, from its definition.
    const uint64_t limit = range == 0 ? 0 : (uint64_t(1) << 32) / range * range - 1;
    Gen g(Qz_CreateRandomWithSeed(low ^ high));
    for (int i = 0; i < 300; ++i) {
      Gen model(Qz_CopyRandom(g.get()));
      uint32_t word = 0;
      int draws = 0;
      while (range != 0 && (draws == 0 || word > limit)) word = Qz_RandomInt(model.get()), ++draws;
      const uint32_t index = g->index;
      ASSERT_EQ(Qz_RandomIntRange(g.get(), low, high), range == 0 ? low : low + word % range) << low << ".." << high;
      ASSERT_EQ((g->index + 624 - index) % 624, uint32_t(draws)) << low << ".." << high;
    }
  }
  // The word just past the limit is thrown away, the limit itself accepted.
  Gen edge = Emitting({0x80000001u, 0x80000000u, 0xFFFFFFFCu, 0xFFFFFFFBu});
  EXPECT_EQ(Qz_RandomIntRange(edge.get(), 0, 0x80000001u), 0x80000000u);
  EXPECT_EQ(edge->index, 2u);
  EXPECT_EQ(Qz_RandomIntRange(edge.get(), 0, 6), 5u);  // 2^32 mod 6 is 4: limit 0xFFFFFFFB
  EXPECT_EQ(edge->index, 4u);
}

TEST(Random, DoublesTakeTwoWordsAndStayBelowOne) {
  const double k = 2.3283064365386963e-10;
  Gen g = Emitting({0, 0, 0xFFFFFFFFu, 0, 0x80000000u, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 7, 0x40000000u});
  EXPECT_EQ(Qz_RandomDouble(g.get()), 0.0);
  EXPECT_EQ(Qz_RandomDouble(g.get()), double(0xFFFFFFFFu) * k * k);  // first word is the low part
  // (2^32 - 1 + 0.5) * 2^-32 is still below 1 after rounding; the all-ones
  // pair rounds to 1.0 and is drawn again.
  EXPECT_EQ(Qz_RandomDouble(g.get()), (double(0xFFFFFFFFu) + 0.5) * k);
  EXPECT_EQ(Qz_RandomDouble(g.get()), (double(0x40000000u) + 7 * k) * k);
  EXPECT_EQ(g->index, 10u);
}

TEST(Random, CopiesAndReseedingAreIndependent) {
  Gen a(Qz_CreateRandomWithSeed(7));
  for (int i = 0; i < 700; ++i) Qz_RandomInt(a.get());  // a copy mid-state, after a regeneration
  Gen b(Qz_CopyRandom(a.get()));
  ASSERT_NE(b, nullptr);
  for (int i = 0; i < 1500; ++i) ASSERT_EQ(Qz_RandomInt(a.get()), Qz_RandomInt(b.get()));
  Qz_SetSeedToRandom(b.get(), 7);
  std::mt19937 ref(7);
  ref.discard(2200);
  EXPECT_EQ(Qz_RandomInt(a.get()), ref());
  EXPECT_EQ(Qz_RandomInt(b.get()), std::mt19937(7)());
  const uint32_t key[] = {1, 2};
  Qz_SetSeedsArrayToRandom(a.get(), key, 2);
  Gen fresh(Qz_CreateRandomWithSeedsArray(key, 2));
  EXPECT_EQ(Qz_RandomInt(a.get()), Qz_RandomInt(fresh.get()));
}

TEST(Random, BadInputAndFailedAllocation) {
  EXPECT_EQ(Qz_RandomInt(nullptr), 0u);
  EXPECT_EQ(Qz_RandomIntRange(nullptr, 3, 9), 3u);
  EXPECT_EQ(Qz_RandomDouble(nullptr), 0.0);
  EXPECT_EQ(Qz_CopyRandom(nullptr), nullptr);
  Qz_SetSeedsArrayToRandom(nullptr, nullptr, 3);

  const uint32_t key[] = {1};
  EXPECT_EQ(Qz_CreateRandomWithSeedsArray(nullptr, 4), nullptr);
  EXPECT_EQ(Qz_CreateRandomWithSeedsArray(key, 0), nullptr);
  Gen g(Qz_CreateRandomWithSeed(11));
  Qz_SetSeedsArrayToRandom(g.get(), key, 0);
  EXPECT_EQ(Qz_RandomInt(g.get()), std::mt19937(11)());

  qztest::FaultScope noMemory(qzsys::QZ_FAULT_POOL_ALLOC);
  EXPECT_EQ(Qz_CreateRandomWithSeed(1), nullptr);
  EXPECT_EQ(Qz_CreateRandomWithSeedsArray(key, 1), nullptr);
  EXPECT_EQ(Qz_CreateDefaultRandom(), nullptr);
  EXPECT_EQ(Qz_CopyRandom(g.get()), nullptr);
  EXPECT_EQ(noMemory.hits(), 4u);
}

}  // namespace
