// Processor identification from synthetic processors, and from this one.
#include <gtest/gtest.h>

#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "QzCpuInfo.h"

namespace {

struct Answer {
  uint32_t a, b, c, d;
};

// A synthetic processor: CPUID answers per leaf (successive reads of a leaf
// step through its list and stay on the last), and a log of every read.
class FakeCpu {
 public:
  bool hasCpuid = true;
  std::map<uint32_t, std::vector<Answer>> leaves;
  std::map<uint32_t, int> reads;

  void Set(uint32_t leaf, Answer a) { leaves[leaf] = {a}; }
  void SetVendor(const char* v) {  // 12 characters: EBX, EDX, ECX
    uint32_t w[3];
    memcpy(w, v, 12);
    Answer& a = leaves[0].at(0);
    a.b = w[0];
    a.d = w[1];
    a.c = w[2];
  }

  QzCpuInfo Identify() {
    QzCpuProbe probe = {&HasCpuid, &Cpuid, this};
    QzCpuInfo info;
    memset(&info, 0x5A, sizeof info);  // whatever was there before is cleared
    QzIdentifyProcessor(&info, probe);
    return info;
  }

 private:
  static int HasCpuid(void* self) { return static_cast<FakeCpu*>(self)->hasCpuid; }
  static void Cpuid(void* self, uint32_t leaf, uint32_t* a, uint32_t* b, uint32_t* c, uint32_t* d) {
    FakeCpu* cpu = static_cast<FakeCpu*>(self);
    int n = cpu->reads[leaf]++;
    Answer r = {0, 0, 0, 0};
    auto it = cpu->leaves.find(leaf);
    if (it != cpu->leaves.end() && !it->second.empty())
      r = it->second[std::min<size_t>(static_cast<size_t>(n), it->second.size() - 1)];
    *a = r.a;
    *b = r.b;
    *c = r.c;
    *d = r.d;
  }
};

// A plain processor: basic leaves up to 1, extended up to 0x80000001, no
// feature bits, no line size anywhere.
FakeCpu Plain(const char* vendor = "AuthenticAMD") {
  FakeCpu cpu;
  cpu.Set(0, {1, 0, 0, 0});
  cpu.SetVendor(vendor);
  cpu.Set(0x80000000u, {0x80000001u, 0, 0, 0});
  cpu.Set(0x80000001u, {0, 0, 0, 0});
  cpu.Set(1, {0, 0, 0, 0});
  return cpu;
}

bool AllZero(const char* p, size_t n) {
  for (size_t i = 0; i < n; ++i)
    if (p[i] != 0) return false;
  return true;
}

TEST(FrameCpuInfo, NoCpuidGivesAnAllZeroRecord) {
  FakeCpu cpu = Plain();
  cpu.hasCpuid = false;
  cpu.Set(1, {0, 0, ~0u, ~0u});
  QzCpuInfo info = cpu.Identify();
  EXPECT_EQ(info.features, 0u);
  EXPECT_TRUE(AllZero(info.vendor, sizeof info.vendor));
  EXPECT_TRUE(cpu.reads.empty());
}

TEST(FrameCpuInfo, HighestBasicLeafZeroGivesOnlyTheCpuidFlag) {
  FakeCpu cpu = Plain("GenuineIntel");
  cpu.leaves[0][0].a = 0;
  cpu.Set(1, {0, 0x800, ~0u, ~0u});
  QzCpuInfo info = cpu.Identify();
  EXPECT_EQ(info.features, QZ_CPU_HAS_CPUID);
  EXPECT_TRUE(AllZero(info.vendor, sizeof info.vendor));
  EXPECT_EQ(cpu.reads.size(), 1u);  // leaf 0 only
}

TEST(FrameCpuInfo, VendorTextIsEbxEdxEcxAndOnlyTwoAreListed) {
  QzCpuInfo intel = Plain("GenuineIntel").Identify();
  EXPECT_STREQ(intel.vendor, "GenuineIntel");
  EXPECT_TRUE(AllZero(intel.vendor + 12, 20));
  EXPECT_EQ(intel.features, QZ_CPU_HAS_CPUID | QZ_CPU_VENDOR_LISTED);
  EXPECT_EQ(Plain("CyrixInstead").Identify().features, QZ_CPU_HAS_CPUID | QZ_CPU_VENDOR_LISTED);
  QzCpuInfo amd = Plain("AuthenticAMD").Identify();
  EXPECT_STREQ(amd.vendor, "AuthenticAMD");
  EXPECT_EQ(amd.features, QZ_CPU_HAS_CPUID);
  // Compared as zero-terminated text: a vendor that stops early is not listed.
  FakeCpu shortName = Plain("GenuineIntel");
  shortName.leaves[0][0].c = 0;  // "GenuineI"
  QzCpuInfo cut = shortName.Identify();
  EXPECT_STREQ(cut.vendor, "GenuineI");
  EXPECT_EQ(cut.features & QZ_CPU_VENDOR_LISTED, 0u);
}

struct FlagSource {
  uint32_t leaf;
  int word;  // 2 = ECX, 3 = EDX
  unsigned bit;
  uint32_t flag;
};
const FlagSource kSources[] = {
    {1, 3, 0, QZ_CPU_HAS_FPU},           {1, 3, 4, QZ_CPU_HAS_TSC},
    {1, 3, 15, QZ_CPU_HAS_CMOV},         {1, 3, 19, QZ_CPU_HAS_CLFLUSH},
    {1, 3, 23, QZ_CPU_HAS_MMX},          {1, 3, 24, QZ_CPU_HAS_FXSR},
    {1, 3, 25, QZ_CPU_HAS_SSE},          {1, 3, 26, QZ_CPU_HAS_SSE2},
    {1, 3, 28, QZ_CPU_HAS_HTT},          {1, 2, 0, QZ_CPU_HAS_SSE3},
    {1, 2, 3, QZ_CPU_HAS_MONITOR},       {1, 2, 5, QZ_CPU_HAS_VMX},
    {1, 2, 9, QZ_CPU_HAS_SSSE3},         {1, 2, 19, QZ_CPU_HAS_SSE41},
    {1, 2, 20, QZ_CPU_HAS_SSE42},        {0x80000001u, 3, 22, QZ_CPU_HAS_MMX_EXT},
    {0x80000001u, 3, 31, QZ_CPU_HAS_3DNOW}, {0x80000001u, 3, 30, QZ_CPU_HAS_3DNOW_EXT},
    {0x80000001u, 3, 29, QZ_CPU_HAS_LONG_MODE}, {0x80000001u, 3, 27, QZ_CPU_HAS_TSCP},
    {0x80000001u, 3, 25, QZ_CPU_HAS_FXSR}, {0x80000001u, 3, 20, QZ_CPU_HAS_NX},
    {0x80000001u, 2, 11, QZ_CPU_HAS_XOP}, {0x80000001u, 2, 8, QZ_CPU_HAS_PREFETCHW},
    {0x80000001u, 2, 7, QZ_CPU_HAS_MISALIGN_SSE}, {0x80000001u, 2, 6, QZ_CPU_HAS_SSE4A},
};

TEST(FrameCpuInfo, EachFeatureBitSetsExactlyItsFlag) {
  for (const FlagSource& s : kSources) {
    FakeCpu cpu = Plain();
    Answer& a = cpu.leaves[s.leaf][0];
    (s.word == 2 ? a.c : a.d) = 1u << s.bit;
    EXPECT_EQ(cpu.Identify().features, QZ_CPU_HAS_CPUID | s.flag)
        << "leaf " << std::hex << s.leaf << " word " << s.word << " bit " << std::dec << s.bit;
  }
  // Bits that name nothing set nothing; the three unused flags stay clear.
  FakeCpu all = Plain();
  all.Set(1, {~0u, 0, ~0u, ~0u});
  all.Set(0x80000001u, {~0u, ~0u, ~0u, ~0u});
  uint32_t f = all.Identify().features;
  EXPECT_EQ(f & (0x20u | 0x08000000u | 0x80000000u), 0u);
  uint32_t expected = QZ_CPU_HAS_CPUID;
  for (const FlagSource& s : kSources) expected |= s.flag;
  EXPECT_EQ(f & ~(QZ_CPU_LINE_32 | QZ_CPU_LINE_64), expected);
}

TEST(FrameCpuInfo, FxsrComesFromEitherSource) {
  FakeCpu basic = Plain();
  basic.Set(1, {0, 0, 0, 1u << 24});
  EXPECT_EQ(basic.Identify().features, QZ_CPU_HAS_CPUID | QZ_CPU_HAS_FXSR);
  FakeCpu extended = Plain();
  extended.Set(0x80000001u, {0, 0, 0, 1u << 25});
  EXPECT_EQ(extended.Identify().features, QZ_CPU_HAS_CPUID | QZ_CPU_HAS_FXSR);
}

TEST(FrameCpuInfo, ExtendedLeafBelowItsFirstEntryIsNotRead) {
  for (uint32_t maxExt : {0x80000000u, 0u, 0x00000007u, 0x7FFFFFFFu}) {
    FakeCpu cpu = Plain();
    cpu.Set(0x80000000u, {maxExt, 0, 0, 0});
    cpu.Set(0x80000001u, {~0u, ~0u, ~0u, ~0u});
    cpu.Set(1, {0, 0, 1u, 1u << 25});  // SSE3, SSE
    EXPECT_EQ(cpu.Identify().features, QZ_CPU_HAS_CPUID | QZ_CPU_HAS_SSE | QZ_CPU_HAS_SSE3) << maxExt;
    EXPECT_EQ(cpu.reads.count(0x80000001u), 0u);
  }
}

// ---- Line size ----------------------------------------------------------------------

TEST(FrameCpuInfo, ClflushFieldDecidesFirst) {
  struct Case {
    uint32_t field;
    uint32_t flags;
  } cases[] = {{8, QZ_CPU_LINE_64}, {4, QZ_CPU_LINE_32}, {16, 0}, {1, 0}};
  for (const Case& c : cases) {
    FakeCpu cpu = Plain();
    cpu.Set(0x80000000u, {0x80000008u, 0, 0, 0});
    cpu.Set(1, {0, c.field << 8, 0, 0});
    cpu.Set(0x80000006u, {0, 0, 32, 0});
    cpu.Set(2, {0x2C01u, 0, 0, 0});
    EXPECT_EQ(cpu.Identify().features & (QZ_CPU_LINE_32 | QZ_CPU_LINE_64), c.flags) << c.field;
    EXPECT_EQ(cpu.reads.count(0x80000006u), 0u) << "no other source is tried";
    EXPECT_EQ(cpu.reads.count(2), 0u);
  }
}

TEST(FrameCpuInfo, ExtendedCacheLeafComesSecond) {
  FakeCpu cpu = Plain();
  cpu.Set(0x80000000u, {0x80000006u, 0, 0, 0});
  cpu.Set(0x80000006u, {0, 0, 0x01004040u, 0});  // low byte 64
  cpu.Set(2, {0x0A01u, 0, 0, 0});
  EXPECT_EQ(cpu.Identify().features & (QZ_CPU_LINE_32 | QZ_CPU_LINE_64), QZ_CPU_LINE_64);
  EXPECT_EQ(cpu.reads.count(2), 0u);

  cpu.Set(0x80000006u, {0, 0, 128, 0});  // found, but neither flag
  EXPECT_EQ(cpu.Identify().features & (QZ_CPU_LINE_32 | QZ_CPU_LINE_64), 0u);
  EXPECT_EQ(cpu.reads.count(2), 0u);

  // Below 0x80000006 the leaf is not read, even if it would answer.
  FakeCpu low = Plain();
  low.Set(0x80000000u, {0x80000005u, 0, 0, 0});
  low.Set(0x80000006u, {0, 0, 64, 0});
  EXPECT_EQ(low.Identify().features & (QZ_CPU_LINE_32 | QZ_CPU_LINE_64), 0u);
  EXPECT_EQ(low.reads.count(0x80000006u), 0u);
}

uint32_t LineFlagsFromLeaf2(std::vector<Answer> answers, int* reads = nullptr) {
  FakeCpu cpu = Plain();
  cpu.leaves[2] = answers;
  uint32_t flags = cpu.Identify().features & (QZ_CPU_LINE_32 | QZ_CPU_LINE_64);
  if (reads) *reads = cpu.reads[2];
  return flags;
}

TEST(FrameCpuInfo, Leaf2DescriptorsComeLast) {
  EXPECT_EQ(LineFlagsFromLeaf2({{0x00002C01u, 0, 0, 0}}), QZ_CPU_LINE_64);
  EXPECT_EQ(LineFlagsFromLeaf2({{0x01, 0, 0x0000000Au, 0}}), QZ_CPU_LINE_32);
  // Every byte of a word counts, the highest too.
  EXPECT_EQ(LineFlagsFromLeaf2({{0x01, 0x2C000000u, 0, 0}}), QZ_CPU_LINE_64);
  // The count byte is no descriptor, even when its value is a listed one.
  int reads = 0;
  EXPECT_EQ(LineFlagsFromLeaf2({{0x0000000Au, 0, 0, 0}}, &reads), 0u);
  EXPECT_EQ(reads, 10);
  // Unlisted bytes and zeros change nothing.
  EXPECT_EQ(LineFlagsFromLeaf2({{0x01, 0x00FF0001u, 0x30303030u, 0}}), 0u);
  // Walked even when the highest basic leaf is below 2.
  FakeCpu cpu = Plain();
  cpu.Set(2, {0x2C01u, 0, 0, 0});
  EXPECT_EQ(cpu.leaves[0][0].a, 1u);
  EXPECT_NE(cpu.Identify().features & QZ_CPU_LINE_64, 0u);
}

TEST(FrameCpuInfo, Leaf2WordWithBit31IsSkippedWhole) {
  EXPECT_EQ(LineFlagsFromLeaf2({{0x01, 0x8000002Cu, 0, 0}}), 0u);
  EXPECT_EQ(LineFlagsFromLeaf2({{0x01, 0x0000002Cu, 0x8000000Au, 0}}), QZ_CPU_LINE_64);
  EXPECT_EQ(LineFlagsFromLeaf2({{0x8000000Au | 0x01, 0x2C, 0, 0}}), QZ_CPU_LINE_64);
}

TEST(FrameCpuInfo, Leaf2LastMatchingDescriptorWins) {
  // Within a word, low byte first.
  EXPECT_EQ(LineFlagsFromLeaf2({{0x01, 0x00000A2Cu, 0, 0}}), QZ_CPU_LINE_32);
  EXPECT_EQ(LineFlagsFromLeaf2({{0x01, 0x00002C0Au, 0, 0}}), QZ_CPU_LINE_64);
  // Across words, first to fourth.
  EXPECT_EQ(LineFlagsFromLeaf2({{0x2C01u, 0, 0, 0x0Au}}), QZ_CPU_LINE_32);
  EXPECT_EQ(LineFlagsFromLeaf2({{0x0A01u, 0x00u, 0x2Cu, 0}}), QZ_CPU_LINE_64);
  // Across reads of the leaf.
  int reads = 0;
  EXPECT_EQ(LineFlagsFromLeaf2({{0x2C02u, 0, 0, 0}, {0x0A02u, 0, 0, 0}}, &reads), QZ_CPU_LINE_32);
  EXPECT_EQ(reads, 2);
  // A count of 0 still reads once.
  EXPECT_EQ(LineFlagsFromLeaf2({{0x2C00u, 0, 0, 0}}, &reads), QZ_CPU_LINE_64);
  EXPECT_EQ(reads, 1);
}

TEST(FrameCpuInfo, EveryListedDescriptorIsKnown) {
  const unsigned k32[] = {0x0A, 0x0C, 0x41, 0x42, 0x43, 0x44, 0x45, 0x82, 0x83, 0x84, 0x85};
  const unsigned k64[] = {0x22, 0x23, 0x25, 0x29, 0x2C, 0x46, 0x47, 0x49, 0x60, 0x66,
                          0x67, 0x68, 0x78, 0x79, 0x7A, 0x7B, 0x7C, 0x7F, 0x86, 0x87};
  for (unsigned b : k32) EXPECT_EQ(LineFlagsFromLeaf2({{0x01, b, 0, 0}}), QZ_CPU_LINE_32) << b;
  for (unsigned b : k64) EXPECT_EQ(LineFlagsFromLeaf2({{0x01, b, 0, 0}}), QZ_CPU_LINE_64) << b;
  int listed = 0;
  for (unsigned b = 1; b < 256; ++b)
    if (LineFlagsFromLeaf2({{0x01, b, 0, 0}}) != 0) ++listed;
  EXPECT_EQ(listed, 31);
}

// ---- This processor -----------------------------------------------------------------

TEST(FrameCpuInfo, TheLoadedRecordIsThisProcessor) {
  QzCpuInfo again;
  QzIdentifyProcessor(&again, QzRealCpuProbe());
  EXPECT_EQ(memcmp(&again, &QZ_CPU_INFO, sizeof again), 0);
  static_assert(sizeof(QzCpuInfo) == 36, "32 bytes of vendor, then the feature word");
#if defined(__x86_64__) || defined(__i386__)
  EXPECT_TRUE(QzCpuidPresent());
  const uint32_t need = QZ_CPU_HAS_CPUID | QZ_CPU_HAS_FPU | QZ_CPU_HAS_MMX | QZ_CPU_HAS_SSE | QZ_CPU_HAS_SSE2;
  EXPECT_EQ(QZ_CPU_INFO.features & need, need);  // every processor that runs this build
  EXPECT_EQ(strlen(QZ_CPU_INFO.vendor), 12u);
#else
  EXPECT_EQ(QZ_CPU_INFO.features, 0u);
#endif
}

}  // namespace
