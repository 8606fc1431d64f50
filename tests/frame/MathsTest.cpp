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
      {2.7, 2},     {-2.7, -2},   {2.5, 2},     {-2.5, -2},    {3.5, 3},          {-3.5, -3},
      {0.5, 0},     {-0.5, 0},    {0.0, 0},     {-0.0, 0},     {1.0, 1},          {-1.0, -1},
      {0.999, 0},   {-0.999, 0},  {1e-30, 0},   {-1e-30, 0},   {-1000.25, -1000}, {1e10, INT_MIN},
      {16777215.0, 16777215},     {-8388607.5, -8388607},      {2147483647.0, INT_MAX},
      {-2147483648.0, INT_MIN},   {-1e10, INT_MIN}, {kNan, INT_MIN}, {kInf, INT_MIN}, {-kInf, INT_MIN}};
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
      {kNear, 0.5, 0},       {kNear, 1.5, 2},         {kNear, 2.5, 2},         {kNear, 3.5, 4},
      {kNear, -2.5, -2},     {kNear, -1.5, -2},       {kNear, -0.5, 0},        {kNear, 2.6, 3},
      {kNear, 3e9, INT_MIN}, {kNear, -3e9, INT_MIN},  {kNear, kNan, INT_MIN},  {FE_UPWARD, 2.1, 3},
      {FE_UPWARD, -2.9, -2}, {FE_DOWNWARD, 2.9, 2},   {FE_DOWNWARD, -2.1, -3}, {FE_TOWARDZERO, -2.9, -2}};
  for (const auto& r : round) {
    RoundingScope scope(r.mode);
    EXPECT_EQ(QzX87Round(r.in), r.out) << r.in << " mode " << r.mode;
    EXPECT_EQ(QzX87RoundF(static_cast<float>(r.in)), r.out) << r.in << " mode " << r.mode;
  }
}

TEST(FrameSqrt, TrueRootsAndTrueReciprocals) {
  // Exact on every variant, where the approximate reciprocal instruction is not.
  for (float (*fn)(float) : {&QzSseRSqrtF, &QzX87RSqrtF}) {
    EXPECT_EQ(fn(4.0f), 0.5f);
    EXPECT_EQ(fn(0.0f), std::numeric_limits<float>::infinity());
    EXPECT_TRUE(std::isnan(fn(-4.0f)));
  }
  for (double (*fn)(double) : {&QzSse2RSqrt, &QzX87RSqrt}) {
    EXPECT_EQ(fn(4.0), 0.5);
    EXPECT_EQ(fn(0.0), kInf);
    EXPECT_TRUE(std::isnan(fn(-4.0)));
  }
  EXPECT_TRUE(std::isnan(QzX87Sqrt(-1.0)) && std::isnan(QzSseSqrtF(-1.0f)) && std::isnan(QzSse2Sqrt(-1.0)));
  // SSE is correctly rounded at the operand's precision; x87 rounds once more
  // on return from its working precision.
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> dist(1e-3, 1e6);
  for (int i = 0; i < 5000; ++i) {
    double v = i < 100 ? (i + 1.0) * (i + 1.0) : dist(rng);  // exact squares first
    float f = static_cast<float>(v);
    ASSERT_EQ(QzSse2Sqrt(v), std::sqrt(v)) << v;
    ASSERT_EQ(QzSseSqrtF(f), std::sqrt(f)) << f;
    ASSERT_EQ(QzSseRSqrtF(f), 1.0f / std::sqrt(f)) << f;
    ASSERT_NEAR(QzX87Sqrt(v), std::sqrt(v), std::sqrt(v) * 1e-15) << v;
    ASSERT_NEAR(QzX87SqrtF(f), std::sqrt(f), std::sqrt(f) * 1e-6f) << f;
    ASSERT_NEAR(QzX87RSqrtF(f), 1.0f / std::sqrt(f), 1e-6f / std::sqrt(f)) << f;
  }
}

TEST(FrameTrig, X87InstructionsAgreeWithTheLibraryInTheirRange) {
  // About a thousand tangents: an x87 register left behind by each would
  // fill the stack and turn later results into NaNs.
  for (double v = -20.0; v <= 20.0; v += 0.037) {
    float f = static_cast<float>(v);
    ASSERT_NEAR(QzX87Cos(v), std::cos(v), 1e-12) << v;
    ASSERT_NEAR(QzX87Sin(v), std::sin(v), 1e-12) << v;
    ASSERT_NEAR(QzX87Tan(v), std::tan(v), 1e-9 * (1 + std::fabs(std::tan(v)))) << v;
    ASSERT_NEAR(QzX87CosF(f), std::cos(f), 1e-6f) << f;
    ASSERT_NEAR(QzX87SinF(f), std::sin(f), 1e-6f) << f;
    ASSERT_NEAR(QzX87TanF(f), std::tan(f), 1e-5f * (1 + std::fabs(std::tan(f)))) << f;
  }
  EXPECT_EQ(frametest::X87TagWord(), 0xFFFFu);
}

TEST(FrameSlots, ChoiceFollowsSseAndSse2IndependentlyAndEveryVariantHasAName) {
  const void* slots[] = {&Qz_FastMemcpy, &Qz_FastMemcpyPartial, &Qz_FastMemcpyEnd, &Qz_CosF, &Qz_Cos, &Qz_SinF,
                         &Qz_Sin, &Qz_TanF, &Qz_Tan, &Qz_RoundF, &Qz_Round, &Qz_SqrtF, &Qz_RSqrtF,
                         &Qz_TruncateF, &Qz_Sqrt, &Qz_RSqrt, &Qz_Truncate};
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
    EXPECT_TRUE(Qz_Round == &QzX87Round && Qz_RoundF == &QzX87RoundF && Qz_Cos == &QzX87Cos &&
                Qz_CosF == &QzX87CosF && Qz_Sin == &QzX87Sin && Qz_SinF == &QzX87SinF &&
                Qz_Tan == &QzX87Tan && Qz_TanF == &QzX87TanF);
    EXPECT_EQ(Qz_FastMemcpy, sse ? &QzMemcpyStream : mmx ? &QzMemcpyMmx : &QzMemcpyPlain);
    EXPECT_EQ(Qz_FastMemcpyPartial, sse ? &QzMemcpyStreamPartial : mmx ? &QzMemcpyMmxPartial : &QzMemcpyPlain);
    EXPECT_EQ(Qz_FastMemcpyEnd, sse ? &QzMemcpyEndStream : mmx ? &QzMemcpyEndMmx : &QzMemcpyEndNone);
    for (const void* s : slots) EXPECT_NE(Qz_SlotVariantName(s), nullptr);
  }
  int notASlot = 0;
  EXPECT_TRUE(Qz_SlotVariantName(&notASlot) == nullptr && Qz_SlotVariantName(nullptr) == nullptr);
  QzFillMathSlots(QZ_CPU_INFO.features);
  QzFillCopySlots(QZ_CPU_INFO.features);
}

}  // namespace
