// The maths variants, each called directly, and the choice the slots make.
#include <climits>
#include <cmath>
#include <limits>

#include "FrameTestSupport.h"

namespace {

using frametest::RoundingScope;
const double kNan = std::numeric_limits<double>::quiet_NaN(), kInf = std::numeric_limits<double>::infinity();

TEST(FrameTruncate, EveryVariantTruncatesTowardsZeroInEveryRoundingModeAndRoundFollowsIt) {
  std::vector<std::pair<double, int>> rows = {
      {-2.5, -2}, {3.5, 3}, {-0.5, 0}, {-0.999, 0}, {1e10, INT_MIN}, {-8388607.5, -8388607},
      {2147483647.0, INT_MAX}, {-2147483648.0, INT_MIN}, {kNan, INT_MIN}, {-kInf, INT_MIN}};
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> dist(-2.0e9, 2.0e9);
  for (int i = 0; i < 2000; ++i) {  // random values in range, against the compiler
    double v = dist(rng) / (1 << (i % 24));
    float f = static_cast<float>(v);
    rows.push_back({v, static_cast<int>(v)});
    rows.push_back({f, static_cast<int>(f)});
  }
  for (int mode : {FE_TONEAREST, FE_DOWNWARD, FE_UPWARD, FE_TOWARDZERO}) {
    RoundingScope scope(mode);
    for (const auto& r : rows) {
      ASSERT_EQ(QzX87Truncate(r.first), r.second) << r.first << " mode " << mode;
      ASSERT_EQ(QzSse2Truncate(r.first), r.second) << r.first << " mode " << mode;
      float f = static_cast<float>(r.first);
      if (f != r.first && !std::isnan(f)) continue;  // not exact as a float
      ASSERT_EQ(QzX87TruncateF(f), r.second) << f << " mode " << mode;
      ASSERT_EQ(QzSseTruncateF(f), r.second) << f << " mode " << mode;
    }
  }
  // The x87 store itself follows the rounding mode, with ties to even.
  const int kNear = FE_TONEAREST;
  const struct { int mode; double in; int out; } round[] = {
      {kNear, 0.5, 0},       {kNear, 1.5, 2},       {kNear, -2.5, -2},    {kNear, 3e9, INT_MIN},
      {FE_UPWARD, -2.9, -2}, {FE_DOWNWARD, 2.9, 2}, {FE_DOWNWARD, -2.1, -3}};
  for (const auto& r : round) {
    RoundingScope scope(r.mode);
    EXPECT_EQ(QzX87Round(r.in), r.out) << r.in << " mode " << r.mode;
    EXPECT_EQ(QzX87RoundF(static_cast<float>(r.in)), r.out) << r.in << " mode " << r.mode;
  }
}

TEST(FrameSlots, ChoiceFollowsSseAndSse2Independently) {
  // SSE without MMX still streams; SSE2 plays no part in the copies.
  for (uint32_t f : {0u, QZ_CPU_HAS_SSE, QZ_CPU_HAS_SSE2, QZ_CPU_HAS_MMX | QZ_CPU_HAS_SSE2, ~0u}) {
    SCOPED_TRACE(testing::Message() << "features " << std::hex << f);
    QzFillMathSlots(f);
    QzFillCopySlots(f);
    const bool sse = f & QZ_CPU_HAS_SSE, sse2 = f & QZ_CPU_HAS_SSE2, mmx = f & QZ_CPU_HAS_MMX;
    EXPECT_EQ(Qz_SqrtF, sse ? &QzSseSqrtF : &QzX87SqrtF);
    EXPECT_EQ(Qz_RSqrtF, sse ? &QzSseRSqrtF : &QzX87RSqrtF);
    EXPECT_EQ(Qz_TruncateF, sse ? &QzSseTruncateF : &QzX87TruncateF);
    EXPECT_EQ(Qz_Sqrt, sse2 ? &QzSse2Sqrt : &QzX87Sqrt);
    EXPECT_EQ(Qz_RSqrt, sse2 ? &QzSse2RSqrt : &QzX87RSqrt);
    EXPECT_EQ(Qz_Truncate, sse2 ? &QzSse2Truncate : &QzX87Truncate);
    EXPECT_EQ(Qz_FastMemcpy, sse ? &QzMemcpyStream : mmx ? &QzMemcpyMmx : &QzMemcpyPlain);
    EXPECT_EQ(Qz_FastMemcpyPartial, sse ? &QzMemcpyStreamPartial : mmx ? &QzMemcpyMmxPartial : &QzMemcpyPlain);
    EXPECT_EQ(Qz_FastMemcpyEnd, sse ? &QzMemcpyEndStream : mmx ? &QzMemcpyEndMmx : &QzMemcpyEndNone);
  }
  QzFillMathSlots(QZ_CPU_INFO.features);
  QzFillCopySlots(QZ_CPU_INFO.features);
}

}  // namespace
