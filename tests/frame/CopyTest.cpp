// The copy variants, each called directly, and the rectangle copy.
#include <gtest/gtest.h>

#include <string.h>

#include <random>
#include <vector>

#include "FrameTestSupport.h"
#include "QzPrimitives.h"

namespace {

struct CopyVariant {
  const char* name;
  QzMemcpyFn copy;
  void (*end)();  // run after the copy: the end a batch needs, or nothing
  bool usesMmx;   // a block leaves MMX state behind until the end runs
};

const CopyVariant kVariants[] = {
    {"plain", &QzMemcpyPlain, &QzMemcpyEndNone, false},
    {"mmx", &QzMemcpyMmx, &QzMemcpyEndNone, false},
    {"mmx partial", &QzMemcpyMmxPartial, &QzMemcpyEndMmx, true},
    {"stream", &QzMemcpyStream, &QzMemcpyEndNone, false},
    {"stream partial", &QzMemcpyStreamPartial, &QzMemcpyEndStream, true},
};

// Copies `count` bytes between offsets of two guarded buffers and checks the
// copy and that nothing around it moved.
void CheckCopy(const CopyVariant& v, size_t count, size_t dstOffset, size_t srcOffset, uint32_t seed) {
  const size_t guard = 80;
  std::vector<unsigned char> src(count + srcOffset + 2 * guard), dst(count + dstOffset + 2 * guard);
  std::mt19937 rng(seed);
  for (auto& b : src) b = static_cast<unsigned char>(rng());
  for (auto& b : dst) b = static_cast<unsigned char>(rng());
  std::vector<unsigned char> expected = dst;
  memcpy(&expected[guard + dstOffset], &src[guard + srcOffset], count);
  size_t result = v.copy(&dst[guard + dstOffset], &src[guard + srcOffset], count);
  v.end();
  ASSERT_EQ(result, count) << v.name;
  ASSERT_TRUE(dst == expected) << v.name << " count " << count << " dst+" << dstOffset << " src+"
                               << srcOffset;
}

TEST(FrameCopy, EdgeCountsOnEveryVariant) {
  for (const CopyVariant& v : kVariants) {
    SCOPED_TRACE(v.name);
    for (size_t count : {0, 1, 2, 3, 4, 5, 6, 7, 8, 63, 64, 65, 100, 127, 128, 129, 4096})
      for (size_t off : {0, 1, 3, 7})
        CheckCopy(v, count, off, (off * 5) % 8, static_cast<uint32_t>(count * 31 + off));
  }
}

TEST(FrameCopy, CountZeroTouchesNothingAndReturnsZero) {
  for (const CopyVariant& v : kVariants) {
    unsigned char a = 1, b = 2;
    EXPECT_EQ(v.copy(&a, &b, 0), 0u) << v.name;
    v.end();
    EXPECT_EQ(a, 1);
    // Nothing is read or written either: a null pair with count 0 is fine.
    EXPECT_EQ(v.copy(nullptr, nullptr, 0), 0u) << v.name;
    v.end();
  }
}

TEST(FrameCopy, RandomSizesAndAlignmentsMatchMemcpy) {
  std::mt19937 rng(2024);
  for (const CopyVariant& v : kVariants) {
    SCOPED_TRACE(v.name);
    for (int i = 0; i < 300; ++i) {
      size_t count = rng() % (i < 250 ? 700 : 70000);
      CheckCopy(v, count, rng() % 16, rng() % 16, rng());
      if (HasFatalFailure()) return;
    }
  }
}

#if defined(__i386__) || defined(__x86_64__)
TEST(FrameCopy, MmxStateIsTouchedOnlyByBlocksAndClearedByTheEnd) {
  alignas(64) unsigned char src[256] = {}, dst[256];
  for (const CopyVariant& v : kVariants) {
    SCOPED_TRACE(v.name);
    // 63 bytes go by the tail alone.
    v.copy(dst, src, 63);
    EXPECT_EQ(frametest::X87TagWord(), 0xFFFFu);
    // 64 bytes to a destination 1 above a multiple of 8: a head of 7 leaves
    // 57, no block runs.
    v.copy(dst + 1, src, 64);
    EXPECT_EQ(frametest::X87TagWord(), 0xFFFFu);
    // 100 bytes to an aligned destination: one block.
    v.copy(dst, src, 100);
    unsigned tags = frametest::X87TagWord();
    v.end();
    EXPECT_EQ(tags == 0xFFFFu, !v.usesMmx) << std::hex << tags;
    EXPECT_EQ(frametest::X87TagWord(), 0xFFFFu);
  }
}
#endif

// ---- Rectangles -------------------------------------------------------------------

// Counts the calls made through the copy slots while it lives.
class SlotSpy {
 public:
  SlotSpy()
      : savedCopy_(Qz_FastMemcpy), savedPartial_(Qz_FastMemcpyPartial), savedEnd_(Qz_FastMemcpyEnd) {
    spy_ = this;
    Qz_FastMemcpy = &Copy;
    Qz_FastMemcpyPartial = &Partial;
    Qz_FastMemcpyEnd = &End;
  }
  ~SlotSpy() {
    Qz_FastMemcpy = savedCopy_;
    Qz_FastMemcpyPartial = savedPartial_;
    Qz_FastMemcpyEnd = savedEnd_;
    spy_ = nullptr;
  }
  int copies = 0, partials = 0, ends = 0;
  size_t copiedBytes = 0;

 private:
  static size_t Copy(void* d, const void* s, size_t n) {
    spy_->copies++;
    spy_->copiedBytes += n;
    return spy_->savedCopy_(d, s, n);
  }
  static size_t Partial(void* d, const void* s, size_t n) {
    spy_->partials++;
    spy_->copiedBytes += n;
    return spy_->savedPartial_(d, s, n);
  }
  static void End() {
    spy_->ends++;
    spy_->savedEnd_();
  }
  static SlotSpy* spy_;
  QzMemcpyFn savedCopy_, savedPartial_;
  void (*savedEnd_)();
};
SlotSpy* SlotSpy::spy_ = nullptr;

TEST(FrameRect, EmptyRectanglesCallNoSlot) {
  SlotSpy spy;
  unsigned char a[16] = {}, b[16] = {1};
  Qz_MemcpyRect(a, 4, b, 4, 0, 4);
  Qz_MemcpyRect(a, 4, b, 4, 4, 0);
  Qz_MemcpyRect(nullptr, 0, nullptr, 0, 0, 100);
  EXPECT_EQ(spy.copies + spy.partials + spy.ends, 0);
  EXPECT_EQ(a[0], 0);
}

TEST(FrameRect, EqualStridesAreOneRunWithoutAnEnd) {
  SlotSpy spy;
  std::vector<unsigned char> src(12 * 50), dst(12 * 50);
  for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<unsigned char>(i * 7);
  Qz_MemcpyRect(dst.data(), 12, src.data(), 12, 12, 50);
  EXPECT_EQ(spy.copies, 1);
  EXPECT_EQ(spy.copiedBytes, 600u);
  EXPECT_EQ(spy.partials, 0);
  EXPECT_EQ(spy.ends, 0);
  EXPECT_TRUE(src == dst);
  // Width equal to one stride only is not a run.
  Qz_MemcpyRect(dst.data(), 12, src.data(), 24, 12, 25);
  EXPECT_EQ(spy.copies, 1);
  EXPECT_EQ(spy.partials, 25);
  EXPECT_EQ(spy.ends, 1);
}

// Reference: the same walk, byte by byte.
void RectByHand(unsigned char* d, ptrdiff_t ds, const unsigned char* s, ptrdiff_t ss, size_t w, size_t rows) {
  for (size_t r = 0; r < rows; ++r, d += ds, s += ss)
    for (size_t i = 0; i < w; ++i) d[i] = s[i];
}

TEST(FrameRect, GapsAndNegativeStridesOnEveryCopyChoice) {
  const uint32_t choices[] = {0, QZ_CPU_HAS_MMX, QZ_CPU_HAS_SSE};
  struct Shape {
    ptrdiff_t dstStride, srcStride;
    size_t width, rows;
  };
  const Shape shapes[] = {{200, 160, 150, 9}, {-200, 160, 150, 9}, {200, -160, 130, 9},
                          {-96, -96, 96, 12}, {70, 300, 3, 40},    {-1000, 1000, 999, 5}};
  for (uint32_t features : choices) {
    QzFillCopySlots(features);
    for (const Shape& sh : shapes) {
      SCOPED_TRACE(testing::Message() << "features " << features << " strides " << sh.dstStride << "/"
                                      << sh.srcStride << " width " << sh.width);
      const size_t span = 1000 * 14;
      std::vector<unsigned char> src(span), dst(span, 0xEE), expected(span, 0xEE);
      std::mt19937 rng(static_cast<uint32_t>(sh.width));
      for (auto& b : src) b = static_cast<unsigned char>(rng());
      // A negative stride starts at the last row and walks down.
      size_t d0 = sh.dstStride < 0 ? static_cast<size_t>(-sh.dstStride) * (sh.rows - 1) + 1 : 1;
      size_t s0 = sh.srcStride < 0 ? static_cast<size_t>(-sh.srcStride) * (sh.rows - 1) + 3 : 3;
      RectByHand(&expected[d0], sh.dstStride, &src[s0], sh.srcStride, sh.width, sh.rows);
      Qz_MemcpyRect(&dst[d0], sh.dstStride, &src[s0], sh.srcStride, sh.width, sh.rows);
      EXPECT_TRUE(dst == expected);
    }
  }
  QzFillCopySlots(QZ_CPU_INFO.features);
#if defined(__i386__) || defined(__x86_64__)
  EXPECT_EQ(frametest::X87TagWord(), 0xFFFFu);  // the rectangle ended its batch
#endif
}

}  // namespace
