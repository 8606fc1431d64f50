// The copy variants, each called directly, and the rectangle copy.
#include "FrameTestSupport.h"

namespace {

// Each variant with the end to run after it (the one a batch needs, or
// nothing), and whether a block leaves MMX state behind until that end.
const struct CopyVariant { const char* name; QzMemcpyFn copy; void (*end)(); bool usesMmx; } kVariants[] = {
    {"plain", &QzMemcpyPlain, &QzMemcpyEndNone, false},
    {"mmx", &QzMemcpyMmx, &QzMemcpyEndNone, false},
    {"mmx partial", &QzMemcpyMmxPartial, &QzMemcpyEndMmx, true},
    {"stream", &QzMemcpyStream, &QzMemcpyEndNone, false},
    {"stream partial", &QzMemcpyStreamPartial, &QzMemcpyEndStream, true},
};

// Copies `count` bytes between offsets of two guarded buffers and checks the
// copy, the result, and that nothing around the copy moved.
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
  ASSERT_TRUE(dst == expected) << v.name << " count " << count << " dst+" << dstOffset << " src+" << srcOffset;
}

TEST(FrameCopy, EveryVariantMatchesMemcpyAndTouchesMmxStateOnlyInBlocks) {
  std::mt19937 rng(2024);
  alignas(64) unsigned char src[256] = {}, dst[256];
  for (const CopyVariant& v : kVariants) {
    SCOPED_TRACE(v.name);
    EXPECT_EQ(v.copy(nullptr, nullptr, 0), 0u);  // count 0 touches nothing
    v.end();
    for (size_t count : {0, 1, 7, 8, 63, 64, 65, 129, 4096})
      for (size_t off : {0, 1, 3, 7}) CheckCopy(v, count, off, (off * 5) % 8, static_cast<uint32_t>(count * 31 + off));
    for (int i = 0; i < 300 && !HasFatalFailure(); ++i)
      CheckCopy(v, rng() % (i < 250 ? 700 : 70000), rng() % 16, rng() % 16, rng());
    v.copy(dst, src, 63);  // the tail alone
    EXPECT_EQ(frametest::X87TagWord(), 0xFFFFu);
    v.copy(dst + 1, src, 64);  // a head of 7 leaves 57: no block
    EXPECT_EQ(frametest::X87TagWord(), 0xFFFFu);
    v.copy(dst, src, 100);  // one block
    unsigned tags = frametest::X87TagWord();
    v.end();
    EXPECT_EQ(tags == 0xFFFFu, !v.usesMmx) << std::hex << tags;
    EXPECT_EQ(frametest::X87TagWord(), 0xFFFFu);
  }
}

// Counts the calls made through the copy slots, and passes them on to the
// variants the slots held.
struct SlotSpy {
  static inline size_t copies, partials, ends, bytes;
  static inline QzMemcpyFn copy, partial;
  static inline void (*end)();
  SlotSpy() {
    copies = partials = ends = bytes = 0;
    copy = Qz_FastMemcpy, partial = Qz_FastMemcpyPartial, end = Qz_FastMemcpyEnd;
    Qz_FastMemcpy = [](void* d, const void* s, size_t n) { return ++copies, bytes += n, copy(d, s, n); };
    Qz_FastMemcpyPartial = [](void* d, const void* s, size_t n) { return ++partials, bytes += n, partial(d, s, n); };
    Qz_FastMemcpyEnd = [] { ++ends, end(); };
  }
  ~SlotSpy() { Qz_FastMemcpy = copy, Qz_FastMemcpyPartial = partial, Qz_FastMemcpyEnd = end; }
};

TEST(FrameRect, RowsStridesAndSlotCallsOnEveryCopyChoice) {
  // Strides, width and rows; then the calls to expect: copies, partials, ends.
  const struct Shape { ptrdiff_t dstStride, srcStride; size_t width, rows, copies, partials, ends; } shapes[] = {
      {-200, 160, 150, 9, 0, 9, 1}, {200, -160, 130, 9, 0, 9, 1}, {-96, -96, 96, 12, 0, 12, 1},
      {12, 12, 12, 50, 1, 0, 0},    {10, 20, 10, 1, 0, 1, 1},     {4, 4, 0, 4, 0, 0, 0}};
  for (uint32_t features : {0u, QZ_CPU_HAS_MMX, QZ_CPU_HAS_SSE}) {
    QzFillCopySlots(features);
    for (const Shape& sh : shapes) {
      SCOPED_TRACE(testing::Message() << "features " << features << " strides " << sh.dstStride << "/"
                                      << sh.srcStride << " width " << sh.width << " rows " << sh.rows);
      std::vector<unsigned char> src(14000), dst(14000, 0xEE), expected(14000, 0xEE);
      std::mt19937 rng(static_cast<uint32_t>(sh.width));
      for (auto& b : src) b = static_cast<unsigned char>(rng());
      // A negative stride starts at the last row and walks down.
      size_t d = sh.dstStride < 0 ? static_cast<size_t>(-sh.dstStride) * (sh.rows - 1) + 1 : 1;
      size_t s = sh.srcStride < 0 ? static_cast<size_t>(-sh.srcStride) * (sh.rows - 1) + 3 : 3;
      for (ptrdiff_t r = 0; r < static_cast<ptrdiff_t>(sh.rows); ++r)
        memcpy(expected.data() + d + r * sh.dstStride, src.data() + s + r * sh.srcStride, sh.width);
      SlotSpy spy;
      Qz_MemcpyRect(&dst[d], sh.dstStride, &src[s], sh.srcStride, sh.width, sh.rows);
      EXPECT_TRUE(dst == expected);
      EXPECT_EQ((std::vector<size_t>{spy.copies, spy.partials, spy.ends, spy.bytes}),
                (std::vector<size_t>{sh.copies, sh.partials, sh.ends, sh.width * sh.rows}))
          << "copies, partials, ends, bytes";
    }
  }
  Qz_MemcpyRect(nullptr, 0, nullptr, 0, 0, 100);  // nothing to copy, nothing touched
  QzFillCopySlots(QZ_CPU_INFO.features);
  EXPECT_EQ(frametest::X87TagWord(), 0xFFFFu);  // every rectangle ended its batch
}

}  // namespace
