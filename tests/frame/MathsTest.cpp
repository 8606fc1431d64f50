// The maths variants, each called directly, and the choice the slots make.
#include <gtest/gtest.h>

#include <math.h>

#include <climits>
#include <cmath>
#include <limits>
#include <random>

#include "FrameTestSupport.h"
#include "QzCpuInfo.h"
#include "QzPrimitives.h"

namespace {

const int kModes[] = {FE_TONEAREST, FE_DOWNWARD, FE_UPWARD, FE_TOWARDZERO};
const char* ModeName(int mode) {
  return mode == FE_TONEAREST ? "nearest" : mode == FE_DOWNWARD ? "down" : mode == FE_UPWARD ? "up" : "zero";
}

struct TruncCase {
  double in;
  int out;
};
const TruncCase kTruncCases[] = {
    {2.7, 2},        {-2.7, -2},      {2.5, 2},   {-2.5, -2},  {3.5, 3},  {-3.5, -3},
    {0.5, 0},        {-0.5, 0},       {0.0, 0},   {-0.0, 0},   {1.0, 1},  {-1.0, -1},
    {0.999, 0},      {-0.999, 0},     {1e-30, 0}, {-1e-30, 0}, {12345678.0, 12345678},
    {-1000.25, -1000}, {2147483647.0, INT_MAX}, {-2147483648.0, INT_MIN},
    {1e10, INT_MIN}, {-1e10, INT_MIN}};

TEST(FrameTruncate, EveryVariantTruncatesTowardsZeroInEveryRoundingMode) {
  for (int mode : kModes) {
    frametest::RoundingScope scope(mode);
    for (const TruncCase& c : kTruncCases) {
      EXPECT_EQ(QzX87Truncate(c.in), c.out) << c.in << " " << ModeName(mode);
      EXPECT_EQ(QzSse2Truncate(c.in), c.out) << c.in << " " << ModeName(mode);
      float f = static_cast<float>(c.in);
      if (static_cast<double>(f) != c.in) continue;  // not exact as a float
      EXPECT_EQ(QzX87TruncateF(f), c.out) << f << " " << ModeName(mode);
      EXPECT_EQ(QzSseTruncateF(f), c.out) << f << " " << ModeName(mode);
    }
    const float pf[] = {2.7f, -2.7f, 0.5f, -0.5f, 16777215.0f, -8388607.5f};
    for (float f : pf) {
      EXPECT_EQ(QzX87TruncateF(f), static_cast<int>(f)) << f << " " << ModeName(mode);
      EXPECT_EQ(QzSseTruncateF(f), static_cast<int>(f)) << f << " " << ModeName(mode);
    }
  }
}

TEST(FrameTruncate, NotANumberAndInfinityGiveIntMin) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  for (double v : {nan, inf, -inf}) {
    EXPECT_EQ(QzX87Truncate(v), INT_MIN) << v;
    EXPECT_EQ(QzSse2Truncate(v), INT_MIN) << v;
    EXPECT_EQ(QzX87TruncateF(static_cast<float>(v)), INT_MIN) << v;
    EXPECT_EQ(QzSseTruncateF(static_cast<float>(v)), INT_MIN) << v;
  }
}

TEST(FrameTruncate, MatchesTheCompilerOnRandomValuesInRange) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> dist(-2.0e9, 2.0e9);
  for (int mode : kModes) {
    frametest::RoundingScope scope(mode);
    for (int i = 0; i < 2000; ++i) {
      double v = dist(rng) / (1 << (i % 24));
      ASSERT_EQ(QzX87Truncate(v), static_cast<int>(v)) << v << " " << ModeName(mode);
      ASSERT_EQ(QzSse2Truncate(v), static_cast<int>(v)) << v;
      float f = static_cast<float>(v);
      ASSERT_EQ(QzX87TruncateF(f), static_cast<int>(f)) << f << " " << ModeName(mode);
      ASSERT_EQ(QzSseTruncateF(f), static_cast<int>(f)) << f;
    }
  }
}

TEST(FrameRound, FollowsTheRoundingModeWithTiesToEven) {
  EXPECT_EQ(QzX87Round(0.5), 0);
  EXPECT_EQ(QzX87Round(1.5), 2);
  EXPECT_EQ(QzX87Round(2.5), 2);
  EXPECT_EQ(QzX87Round(3.5), 4);
  EXPECT_EQ(QzX87Round(-2.5), -2);
  EXPECT_EQ(QzX87Round(-0.5), 0);
  EXPECT_EQ(QzX87Round(2.6), 3);
  EXPECT_EQ(QzX87RoundF(2.5f), 2);
  EXPECT_EQ(QzX87RoundF(3.5f), 4);
  EXPECT_EQ(QzX87RoundF(-1.5f), -2);
  EXPECT_EQ(QzX87Round(3e9), INT_MIN);
  EXPECT_EQ(QzX87Round(-3e9), INT_MIN);
  EXPECT_EQ(QzX87RoundF(std::numeric_limits<float>::quiet_NaN()), INT_MIN);
  {
    frametest::RoundingScope up(FE_UPWARD);
    EXPECT_EQ(QzX87Round(2.1), 3);
    EXPECT_EQ(QzX87RoundF(-2.9f), -2);
  }
  {
    frametest::RoundingScope down(FE_DOWNWARD);
    EXPECT_EQ(QzX87Round(2.9), 2);
    EXPECT_EQ(QzX87RoundF(-2.1f), -3);
  }
  {
    frametest::RoundingScope zero(FE_TOWARDZERO);
    EXPECT_EQ(QzX87Round(-2.9), -2);
  }
}

TEST(FrameSqrt, SseVariantsAreCorrectlyRoundedAndX87AgreesClosely) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> dist(0.0, 1e6);
  for (int i = 0; i < 5000; ++i) {
    double v = dist(rng);
    float f = static_cast<float>(v);
    ASSERT_EQ(QzSse2Sqrt(v), std::sqrt(v)) << v;
    ASSERT_EQ(QzSseSqrtF(f), std::sqrt(f)) << f;
    // x87 works at extended precision and rounds once more on return.
    ASSERT_NEAR(QzX87Sqrt(v), std::sqrt(v), std::sqrt(v) * 1e-15) << v;
    ASSERT_NEAR(QzX87SqrtF(f), std::sqrt(f), std::sqrt(f) * 1e-6f) << f;
  }
  for (double sq : {0.0, 1.0, 4.0, 144.0, 1e100}) {
    EXPECT_EQ(QzX87Sqrt(sq), std::sqrt(sq));
    EXPECT_EQ(QzSse2Sqrt(sq), std::sqrt(sq));
  }
  EXPECT_TRUE(std::isnan(QzX87Sqrt(-1.0)));
  EXPECT_TRUE(std::isnan(QzSse2Sqrt(-1.0)));
  EXPECT_TRUE(std::isnan(QzSseSqrtF(-1.0f)));
  EXPECT_TRUE(std::signbit(QzSse2Sqrt(-0.0)));
}

TEST(FrameRSqrt, IsATrueDivisionOfATrueRoot) {
  EXPECT_EQ(QzSseRSqrtF(4.0f), 0.5f);
  EXPECT_EQ(QzX87RSqrtF(4.0f), 0.5f);
  EXPECT_EQ(QzSse2RSqrt(4.0), 0.5);
  EXPECT_EQ(QzX87RSqrt(4.0), 0.5);
  EXPECT_EQ(QzSseRSqrtF(0.25f), 2.0f);
  EXPECT_EQ(QzX87RSqrt(1.0 / 64.0), 8.0);
  for (float (*fn)(float) : {&QzSseRSqrtF, &QzX87RSqrtF}) {
    EXPECT_EQ(fn(0.0f), std::numeric_limits<float>::infinity());
    EXPECT_TRUE(std::isnan(fn(-4.0f)));
  }
  for (double (*fn)(double) : {&QzSse2RSqrt, &QzX87RSqrt}) {
    EXPECT_EQ(fn(0.0), std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(fn(-4.0)));
  }
  // The approximate instruction is off by up to 1.5 * 2^-12; the true one by
  // at most a rounding.
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> dist(1e-3f, 1e6f);
  for (int i = 0; i < 5000; ++i) {
    float v = dist(rng);
    ASSERT_EQ(QzSseRSqrtF(v), 1.0f / std::sqrt(v)) << v;
    ASSERT_NEAR(QzX87RSqrtF(v), 1.0f / std::sqrt(v), 1e-6f / std::sqrt(v)) << v;
  }
}

TEST(FrameTrig, X87InstructionsAgreeWithTheLibraryInTheirRange) {
  for (double v = -20.0; v <= 20.0; v += 0.037) {
    ASSERT_NEAR(QzX87Cos(v), std::cos(v), 1e-12) << v;
    ASSERT_NEAR(QzX87Sin(v), std::sin(v), 1e-12) << v;
    ASSERT_NEAR(QzX87Tan(v), std::tan(v), 1e-9 * (1 + std::fabs(std::tan(v)))) << v;
    float f = static_cast<float>(v);
    ASSERT_NEAR(QzX87CosF(f), std::cos(f), 1e-6f) << f;
    ASSERT_NEAR(QzX87SinF(f), std::sin(f), 1e-6f) << f;
    ASSERT_NEAR(QzX87TanF(f), std::tan(f), 1e-5f * (1 + std::fabs(std::tan(f)))) << f;
  }
  EXPECT_EQ(QzX87Sin(0.0), 0.0);
  EXPECT_EQ(QzX87Cos(0.0), 1.0);
  EXPECT_EQ(QzX87Tan(0.0), 0.0);
  EXPECT_TRUE(std::isnan(QzX87Cos(std::numeric_limits<double>::infinity())));
}

#if defined(__i386__) || defined(__x86_64__)
TEST(FrameTrig, TangentLeavesTheX87StackAsItFoundIt) {
  // fptan pushes an extra 1.0; a leak would fill the eight registers and
  // turn every later result into a NaN.
  for (int i = 0; i < 64; ++i) {
    ASSERT_NEAR(QzX87Tan(0.5), std::tan(0.5), 1e-12) << i;
    ASSERT_NEAR(QzX87TanF(0.5f), std::tan(0.5f), 1e-6f) << i;
  }
  EXPECT_EQ(frametest::X87TagWord(), 0xFFFFu);
}
#endif

// Puts the slots back as the load chose them, so a test may refill them.
struct SlotRestore {
  ~SlotRestore() {
    QzFillMathSlots(QZ_CPU_INFO.features);
    QzFillCopySlots(QZ_CPU_INFO.features);
  }
};

TEST(FrameSlots, MathsChoiceFollowsSseAndSse2Independently) {
  SlotRestore restore;
  QzFillMathSlots(0);
  EXPECT_EQ(Qz_SqrtF, &QzX87SqrtF);
  EXPECT_EQ(Qz_RSqrtF, &QzX87RSqrtF);
  EXPECT_EQ(Qz_TruncateF, &QzX87TruncateF);
  EXPECT_EQ(Qz_Sqrt, &QzX87Sqrt);
  EXPECT_EQ(Qz_RSqrt, &QzX87RSqrt);
  EXPECT_EQ(Qz_Truncate, &QzX87Truncate);

  QzFillMathSlots(QZ_CPU_HAS_SSE);  // SSE without SSE2: single slots only
  EXPECT_EQ(Qz_SqrtF, &QzSseSqrtF);
  EXPECT_EQ(Qz_RSqrtF, &QzSseRSqrtF);
  EXPECT_EQ(Qz_TruncateF, &QzSseTruncateF);
  EXPECT_EQ(Qz_Sqrt, &QzX87Sqrt);
  EXPECT_EQ(Qz_Truncate, &QzX87Truncate);

  QzFillMathSlots(QZ_CPU_HAS_SSE2);  // and the other way round
  EXPECT_EQ(Qz_SqrtF, &QzX87SqrtF);
  EXPECT_EQ(Qz_Sqrt, &QzSse2Sqrt);
  EXPECT_EQ(Qz_RSqrt, &QzSse2RSqrt);
  EXPECT_EQ(Qz_Truncate, &QzSse2Truncate);

  QzFillMathSlots(~0u);  // every flag: rounding and trigonometry stay x87
  EXPECT_EQ(Qz_Round, &QzX87Round);
  EXPECT_EQ(Qz_RoundF, &QzX87RoundF);
  EXPECT_EQ(Qz_CosF, &QzX87CosF);
  EXPECT_EQ(Qz_Sin, &QzX87Sin);
  EXPECT_EQ(Qz_Tan, &QzX87Tan);
}

TEST(FrameSlots, CopyChoiceTestsSseFirstThenMmx) {
  SlotRestore restore;
  QzFillCopySlots(0);
  EXPECT_EQ(Qz_FastMemcpy, &QzMemcpyPlain);
  EXPECT_EQ(Qz_FastMemcpyPartial, &QzMemcpyPlain);
  EXPECT_EQ(Qz_FastMemcpyEnd, &QzMemcpyEndNone);
  QzFillCopySlots(QZ_CPU_HAS_MMX | QZ_CPU_HAS_SSE2);  // SSE2 plays no part
  EXPECT_EQ(Qz_FastMemcpy, &QzMemcpyMmx);
  EXPECT_EQ(Qz_FastMemcpyPartial, &QzMemcpyMmxPartial);
  EXPECT_EQ(Qz_FastMemcpyEnd, &QzMemcpyEndMmx);
  QzFillCopySlots(QZ_CPU_HAS_SSE);
  EXPECT_EQ(Qz_FastMemcpy, &QzMemcpyStream);
  EXPECT_EQ(Qz_FastMemcpyPartial, &QzMemcpyStreamPartial);
  EXPECT_EQ(Qz_FastMemcpyEnd, &QzMemcpyEndStream);
  QzFillCopySlots(QZ_CPU_HAS_SSE | QZ_CPU_HAS_MMX);
  EXPECT_EQ(Qz_FastMemcpy, &QzMemcpyStream);
}

TEST(FrameSlots, AnswerFromTheFirstCallAfterLoadAsThisProcessorAllows) {
  ASSERT_NE(Qz_Sqrt, nullptr);
  EXPECT_EQ(Qz_Sqrt(9.0), 3.0);
  EXPECT_EQ(Qz_RSqrtF(4.0f), 0.5f);
  EXPECT_EQ(Qz_Truncate(-2.7), -2);
  EXPECT_EQ(Qz_Truncate(2.7), 2);
  EXPECT_EQ(Qz_Round(0.5), 0);
  EXPECT_EQ(Qz_TruncateF(-2.7f), -2);
  EXPECT_EQ(Qz_RoundF(2.5f), 2);
  EXPECT_NEAR(Qz_Cos(0.5), std::cos(0.5), 1e-12);
  EXPECT_NEAR(Qz_SinF(0.5f), std::sin(0.5f), 1e-6f);
  EXPECT_NEAR(Qz_Tan(0.5), std::tan(0.5), 1e-12);
  const uint32_t f = QZ_CPU_INFO.features;
  EXPECT_EQ(Qz_Sqrt == &QzSse2Sqrt, (f & QZ_CPU_HAS_SSE2) != 0);
  EXPECT_EQ(Qz_SqrtF == &QzSseSqrtF, (f & QZ_CPU_HAS_SSE) != 0);
  EXPECT_EQ(Qz_FastMemcpy == &QzMemcpyStream, (f & QZ_CPU_HAS_SSE) != 0);
}

TEST(FrameSlots, EachSlotNamesItsVariant) {
  const void* slots[] = {&Qz_FastMemcpy, &Qz_FastMemcpyPartial, &Qz_FastMemcpyEnd, &Qz_CosF,
                         &Qz_Cos,        &Qz_SinF,              &Qz_Sin,           &Qz_TanF,
                         &Qz_Tan,        &Qz_RoundF,            &Qz_Round,         &Qz_SqrtF,
                         &Qz_RSqrtF,     &Qz_TruncateF,         &Qz_Sqrt,          &Qz_RSqrt,
                         &Qz_Truncate};
  for (const void* s : slots) EXPECT_NE(Qz_SlotVariantName(s), nullptr);
  int notASlot = 0;
  EXPECT_EQ(Qz_SlotVariantName(&notASlot), nullptr);
  EXPECT_EQ(Qz_SlotVariantName(nullptr), nullptr);
  SlotRestore restore;
  QzFillMathSlots(0);
  EXPECT_STREQ(Qz_SlotVariantName(&Qz_Truncate), "x87 integer store with fix-up");
  QzFillMathSlots(QZ_CPU_HAS_SSE | QZ_CPU_HAS_SSE2);
  EXPECT_STREQ(Qz_SlotVariantName(&Qz_Sqrt), "SSE2 square root");
  EXPECT_STREQ(Qz_SlotVariantName(&Qz_RSqrtF), "1 / SSE square root");
}

}  // namespace
