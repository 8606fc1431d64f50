// Generators: the reference sequences, range reduction with counted draws,
// doubles, copies and seeding, bad handles and failed allocation.
#include <gtest/gtest.h>

#include <qzbase/QzRandom.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <thread>
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

// Hands std::mt19937 a ready state word for word, so that the standard
// engine's twist and tempering check ours from any seeding.
struct StateSeq {
  using result_type = uint32_t;
  std::vector<uint32_t> words;
  template <class It>
  void generate(It first, It last) {
    for (size_t i = 0; first != last; ++first, ++i) *first = words[i];
  }
};

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

// Draws the library makes for a call: how many raw words of a copy must be
// taken until the copy is back in step with the generator.
template <class Call>
int DrawsOf(QzRandom* g, Call call) {
  Gen probe(Qz_CopyRandom(g));
  call(g);
  Gen twin(Qz_CopyRandom(g));
  for (int n = 0; n < 64; ++n) {
    Gen a(Qz_CopyRandom(probe.get())), b(Qz_CopyRandom(twin.get()));
    bool same = true;
    for (int k = 0; k < 4 && same; ++k) same = Qz_RandomInt(a.get()) == Qz_RandomInt(b.get());
    if (same) return n;
    Qz_RandomInt(probe.get());
  }
  return -1;
}

TEST(Random, SingleSeedFollowsTheReference) {
  Gen g(Qz_CreateRandomWithSeed(5489));
  ASSERT_NE(g, nullptr);
  std::mt19937 ref(5489);
  EXPECT_EQ(Qz_RandomInt(g.get()), 3499211612u);
  EXPECT_EQ(Qz_RandomInt(g.get()), 581869302u);
  EXPECT_EQ(Qz_RandomInt(g.get()), 3890346734u);
  ref.discard(3);
  // Past three regenerations.
  for (int i = 3; i < 2000; ++i) ASSERT_EQ(Qz_RandomInt(g.get()), ref()) << "output " << i;
  for (uint32_t seed : {0u, 1u, 0xFFFFFFFFu, 0x12345678u}) {
    Qz_SetSeedToRandom(g.get(), seed);
    std::mt19937 r(seed);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(Qz_RandomInt(g.get()), r()) << seed << " " << i;
  }
}

TEST(Random, ArraySeedFollowsTheReference) {
  const uint32_t key[] = {0x123, 0x234, 0x345, 0x456};
  Gen g(Qz_CreateRandomWithSeedsArray(key, 4));
  ASSERT_NE(g, nullptr);
  const std::vector<uint32_t> state = ReferenceArrayState({0x123, 0x234, 0x345, 0x456});
  EXPECT_TRUE(std::equal(state.begin(), state.end(), g->state));
  EXPECT_EQ(g->index, 624u);
  StateSeq seq{state};
  std::mt19937 ref(seq);
  EXPECT_EQ(Qz_RandomInt(g.get()), 1067595299u);
  EXPECT_EQ(Qz_RandomInt(g.get()), 955945823u);
  EXPECT_EQ(Qz_RandomInt(g.get()), 477289528u);
  ref.discard(3);
  for (int i = 3; i < 1000; ++i) ASSERT_EQ(Qz_RandomInt(g.get()), ref()) << "output " << i;

  // Keys shorter than, as long as and longer than the state.
  for (size_t n : {1u, 623u, 624u, 625u, 1500u}) {
    std::vector<uint32_t> k(n);
    for (size_t i = 0; i < n; ++i) k[i] = uint32_t(i * 2654435761u + 7);
    Qz_SetSeedsArrayToRandom(g.get(), k.data(), uint32_t(n));
    const std::vector<uint32_t> want = ReferenceArrayState(k);
    ASSERT_TRUE(std::equal(want.begin(), want.end(), g->state)) << n;
  }
}

TEST(Random, DefaultSeedIsClockProcessAndThread) {
  qzsys::FILETIME before, after;
  qzsys::GetSystemTimeAsFileTime(&before);
  Gen g(Qz_CreateDefaultRandom());
  qzsys::GetSystemTimeAsFileTime(&after);
  ASSERT_NE(g, nullptr);
  auto micros = [](const qzsys::FILETIME& ft) {
    return ((uint64_t(ft.dwHighDateTime) << 32 | ft.dwLowDateTime) - 116444736000000000ull) / 10;
  };
  bool found = false;
  for (uint64_t us = micros(before); us <= micros(after) && !found; ++us) {
    const uint32_t key[4] = {uint32_t(us / 1000000), uint32_t(us % 1000000), qzsys::GetCurrentProcessId(),
                             qzsys::GetCurrentThreadId()};
    Gen r(Qz_CreateRandomWithSeedsArray(key, 4));
    found = std::equal(r->state, r->state + 624, g->state);
  }
  EXPECT_TRUE(found);
  // Another thread in the same microsecond would still differ by its id.
  Gen other;
  std::thread([&] { other.reset(Qz_CreateDefaultRandom()); }).join();
  EXPECT_FALSE(std::equal(other->state, other->state + 624, g->state));
}

struct RangeCase {
  uint32_t low, high;
  uint32_t limit;  // highest accepted word; an empty range draws nothing
};

TEST(Random, RangeLimitsAndDraws) {
  const RangeCase cases[] = {
      {7, 7, 0},           {0, 1, 0xFFFFFFFFu},           {5, 8, 0xFFFFFFFEu},
      {0, 3, 0xFFFFFFFEu}, {0, 6, 0xFFFFFFFBu},           {10, 3, 0xFFFFFFF8u},
      // Just below, at and just above 2^31, and the widest range.
      {0, 0x7FFFFFFFu, 0xFFFFFFFDu}, {0, 0x80000000u, 0xFFFFFFFFu}, {0, 0x80000001u, 0x80000000u},
      {0, 0xFFFFFFFFu, 0xFFFFFFFEu},
      {0xFFFFFFFFu, 0x7FFFFFFFu, 0xFFFFFFFFu},  // range 2^31, wrapping through 0
  };
  for (const RangeCase& c : cases) {
    const uint32_t range = c.high - c.low;
    // The limit from its definition, in 64 bits: the largest word below a
    // whole number of ranges.
    if (range != 0) {
      ASSERT_EQ(uint64_t(c.limit), (uint64_t(1) << 32) / range * range - 1) << c.low << ".." << c.high;
    }
    Gen g(Qz_CreateRandomWithSeed(c.low ^ c.high));
    for (int i = 0; i < 300; ++i) {
      Gen model(Qz_CopyRandom(g.get()));
      uint32_t word = 0;
      int draws = 0;
      while (range != 0 && (draws == 0 || word > c.limit)) {
        word = Qz_RandomInt(model.get());
        ++draws;
      }
      uint32_t got = 0;
      ASSERT_EQ(DrawsOf(g.get(), [&](QzRandom* r) { got = Qz_RandomIntRange(r, c.low, c.high); }), draws);
      ASSERT_EQ(got, range == 0 ? c.low : c.low + word % range);
    }
  }
}

TEST(Random, RangeBoundaryWordsAndWrappedRanges) {
  // The word just past the limit is thrown away, the limit itself accepted.
  Gen edge = Emitting({0x80000001u, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu, 0xFFFFFFFEu});
  EXPECT_EQ(Qz_RandomIntRange(edge.get(), 0, 0x80000001u), 0x80000000u);
  EXPECT_EQ(edge->index, 2u);
  EXPECT_EQ(Qz_RandomIntRange(edge.get(), 5, 4), 3u);  // range 2^32 - 1: limit 0xFFFFFFFE
  EXPECT_EQ(edge->index, 3u);
  EXPECT_EQ(Qz_RandomIntRange(edge.get(), 5, 4), 3u);
  EXPECT_EQ(edge->index, 5u);

  // low above high: everything but high..low-1, both ends reached.
  Gen g(Qz_CreateRandomWithSeed(42));
  std::set<uint32_t> seen;
  for (int i = 0; i < 20000; ++i) {
    const uint32_t v = Qz_RandomIntRange(g.get(), 0xFFFFFFFDu, 3);
    ASSERT_TRUE(v >= 0xFFFFFFFDu || v < 3) << v;
    seen.insert(v);
  }
  EXPECT_EQ(seen.size(), 6u);
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

  Gen r(Qz_CreateRandomWithSeed(2024));
  double lo = 1, hi = 0;
  for (int i = 0; i < 100000; ++i) {
    const double d = Qz_RandomDouble(r.get());
    ASSERT_TRUE(d >= 0.0 && d < 1.0) << d;
    lo = std::min(lo, d), hi = std::max(hi, d);
  }
  EXPECT_LT(lo, 1e-4);
  EXPECT_GT(hi, 1 - 1e-4);
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
  Qz_SetSeedToRandom(nullptr, 1);
  Qz_SetSeedsArrayToRandom(nullptr, nullptr, 3);
  Qz_DestroyRandom(nullptr);

  const uint32_t key[] = {1};
  EXPECT_EQ(Qz_CreateRandomWithSeedsArray(nullptr, 4), nullptr);
  EXPECT_EQ(Qz_CreateRandomWithSeedsArray(key, 0), nullptr);
  Gen g(Qz_CreateRandomWithSeed(11));
  Gen before(Qz_CopyRandom(g.get()));
  Qz_SetSeedsArrayToRandom(g.get(), key, 0);
  Qz_SetSeedsArrayToRandom(g.get(), nullptr, 1);
  EXPECT_TRUE(std::equal(g->state, g->state + 624, before->state));

  qztest::FaultScope noMemory(qzsys::QZ_FAULT_POOL_ALLOC);
  EXPECT_EQ(Qz_CreateRandomWithSeed(1), nullptr);
  EXPECT_EQ(Qz_CreateRandomWithSeedsArray(key, 1), nullptr);
  EXPECT_EQ(Qz_CreateDefaultRandom(), nullptr);
  EXPECT_EQ(Qz_CopyRandom(g.get()), nullptr);
  EXPECT_EQ(noMemory.hits(), 4u);
}

}  // namespace
