// Processor identification from synthetic processors, and from this one.
#include <algorithm>
#include <map>

#include "FrameTestSupport.h"

namespace {

struct Answer { uint32_t a, b, c, d; };
const uint32_t kLines = QZ_CPU_LINE_32 | QZ_CPU_LINE_64, kExt = 0x80000001u;

// A synthetic processor: CPUID answers per leaf (successive reads of a leaf
// step through its list and stay on the last), and a count of reads per leaf.
// By default: basic leaves up to 1, extended up to 0x80000001, vendor
// "AuthenticAMD", no feature bits and no line size anywhere.
struct FakeCpu {
  bool hasCpuid = true;
  std::map<uint32_t, std::vector<Answer>> leaves;
  std::map<uint32_t, int> reads;

  explicit FakeCpu(const char* vendor = "AuthenticAMD") {
    uint32_t w[3];  // the text is EBX, EDX, ECX
    memcpy(w, vendor, 12);
    leaves[0] = {{1, w[0], w[2], w[1]}};
    leaves[0x80000000u] = {{kExt, 0, 0, 0}};
  }
  void Set(uint32_t leaf, Answer a) { leaves[leaf] = {a}; }
  QzCpuInfo Identify() {
    QzCpuInfo info;
    memset(&info, 0x5A, sizeof info);  // whatever was there before is cleared
    QzIdentifyProcessor(&info, QzCpuProbe{&HasCpuid, &Cpuid, this});
    return info;
  }
  static int HasCpuid(void* self) { return static_cast<FakeCpu*>(self)->hasCpuid; }
  static void Cpuid(void* self, uint32_t leaf, uint32_t* a, uint32_t* b, uint32_t* c, uint32_t* d) {
    FakeCpu* cpu = static_cast<FakeCpu*>(self);
    size_t n = static_cast<size_t>(cpu->reads[leaf]++);
    const std::vector<Answer>& list = cpu->leaves[leaf];
    Answer r = list.empty() ? Answer{0, 0, 0, 0} : list[std::min(n, list.size() - 1)];
    *a = r.a, *b = r.b, *c = r.c, *d = r.d;
  }
};

// Leaf, EDX (else ECX), bit, flag.
struct FlagSource { uint32_t leaf; bool edx; unsigned bit; uint32_t flag; } const kSources[] = {
    {1, 1, 0, QZ_CPU_HAS_FPU},      {1, 1, 4, QZ_CPU_HAS_TSC},       {1, 1, 15, QZ_CPU_HAS_CMOV},
    {1, 1, 19, QZ_CPU_HAS_CLFLUSH}, {1, 1, 23, QZ_CPU_HAS_MMX},      {1, 1, 24, QZ_CPU_HAS_FXSR},
    {1, 1, 25, QZ_CPU_HAS_SSE},     {1, 1, 26, QZ_CPU_HAS_SSE2},     {1, 1, 28, QZ_CPU_HAS_HTT},
    {1, 0, 0, QZ_CPU_HAS_SSE3},     {1, 0, 3, QZ_CPU_HAS_MONITOR},   {1, 0, 5, QZ_CPU_HAS_VMX},
    {1, 0, 9, QZ_CPU_HAS_SSSE3},    {1, 0, 19, QZ_CPU_HAS_SSE41},    {1, 0, 20, QZ_CPU_HAS_SSE42},
    {kExt, 1, 22, QZ_CPU_HAS_MMX_EXT}, {kExt, 1, 31, QZ_CPU_HAS_3DNOW}, {kExt, 1, 30, QZ_CPU_HAS_3DNOW_EXT},
    {kExt, 1, 29, QZ_CPU_HAS_LONG_MODE}, {kExt, 1, 27, QZ_CPU_HAS_TSCP}, {kExt, 1, 25, QZ_CPU_HAS_FXSR},
    {kExt, 1, 20, QZ_CPU_HAS_NX},   {kExt, 0, 11, QZ_CPU_HAS_XOP},   {kExt, 0, 8, QZ_CPU_HAS_PREFETCHW},
    {kExt, 0, 7, QZ_CPU_HAS_MISALIGN_SSE}, {kExt, 0, 6, QZ_CPU_HAS_SSE4A},
};

TEST(FrameCpuInfo, EachFeatureBitSetsExactlyItsFlag) {
  // One bit at a time; FXSR thereby comes from either of its two sources.
  for (const FlagSource& s : kSources) {
    FakeCpu cpu;
    cpu.Set(s.leaf, {0, 0, s.edx ? 0 : 1u << s.bit, s.edx ? 1u << s.bit : 0});
    EXPECT_EQ(cpu.Identify().features, QZ_CPU_HAS_CPUID | s.flag)
        << "leaf " << std::hex << s.leaf << (s.edx ? " edx" : " ecx") << " bit " << std::dec << s.bit;
  }
  // Every bit: the union, and the unused flags stay clear.
  FakeCpu all;
  all.Set(1, {~0u, 0, ~0u, ~0u});
  all.Set(kExt, {~0u, ~0u, ~0u, ~0u});
  uint32_t expected = QZ_CPU_HAS_CPUID;
  for (const FlagSource& s : kSources) expected |= s.flag;
  EXPECT_EQ(all.Identify().features & ~kLines, expected);
  for (const char* vendor : {"GenuineIntel", "CyrixInstead", "AuthenticAMD"}) {
    QzCpuInfo info = FakeCpu(vendor).Identify();
    EXPECT_STREQ(info.vendor, vendor);
    EXPECT_EQ(info.features, QZ_CPU_HAS_CPUID | (vendor[0] != 'A' ? QZ_CPU_VENDOR_LISTED : 0)) << vendor;
  }
}

TEST(FrameCpuInfo, LineSizeFromClflushThenLeaf80000006ThenLeaf2) {
  // Leaf 1 line size field, highest extended leaf, line size of leaf 0x80000006,
  // answers of leaf 2; the line flags, and the reads of 0x80000006 and 2.
  struct Row { const char* name; uint32_t clflush, maxExt, ext6Ecx; std::vector<Answer> leaf2;
               uint32_t flags; int ext6Reads, leaf2Reads; } rows[] = {
      {"clflush 8", 8, 0x80000008u, 32, {{0x2C01, 0, 0, 0}}, QZ_CPU_LINE_64, 0, 0},
      {"clflush 16 tries nothing else", 16, 0x80000008u, 64, {{0x2C01, 0, 0, 0}}, 0, 0, 0},
      {"ext leaf 64", 0, 0x80000006u, 0x01004040u, {{0x0A01, 0, 0, 0}}, QZ_CPU_LINE_64, 1, 0},
      {"ext leaf 128 tries nothing else", 0, 0x80000006u, 128, {{0x0A01, 0, 0, 0}}, 0, 1, 0},
      // Leaf 2 is walked although the highest basic leaf is 1.
      {"leaf 2 highest byte", 0, kExt, 0, {{0x01, 0x2C000000u, 0, 0}}, QZ_CPU_LINE_64, 0, 1},
      {"count byte is no descriptor", 0, kExt, 0, {{0x0A, 0, 0, 0}}, 0, 0, 10},
      {"bit 31 skips the word", 0, kExt, 0, {{0x01, 0x8000002Cu, 0, 0}}, 0, 0, 1},
      {"bit 31 in the first word", 0, kExt, 0, {{0x8000000Bu, 0x2C, 0, 0}}, QZ_CPU_LINE_64, 0, 11},
      {"later byte wins", 0, kExt, 0, {{0x01, 0x0A2C, 0, 0}}, QZ_CPU_LINE_32, 0, 1},
      {"later read wins", 0, kExt, 0, {{0x2C02, 0, 0, 0}, {0x0A02, 0, 0, 0}}, QZ_CPU_LINE_32, 0, 2},
  };
  for (const Row& r : rows) {
    FakeCpu cpu;
    cpu.Set(1, {0, r.clflush << 8, 0, 0});
    cpu.Set(0x80000000u, {r.maxExt, 0, 0, 0});
    cpu.Set(0x80000006u, {0, 0, r.ext6Ecx, 0});
    cpu.leaves[2] = r.leaf2;
    EXPECT_EQ(cpu.Identify().features & kLines, r.flags) << r.name;
    EXPECT_EQ(cpu.reads[0x80000006u], r.ext6Reads) << r.name;
    EXPECT_EQ(cpu.reads[2], r.leaf2Reads) << r.name;
  }
  // Every descriptor byte, and only the listed ones.
  const std::vector<unsigned> k32 = {0x0A, 0x0C, 0x41, 0x42, 0x43, 0x44, 0x45, 0x82, 0x83, 0x84, 0x85};
  const std::vector<unsigned> k64 = {0x22, 0x23, 0x25, 0x29, 0x2C, 0x46, 0x47, 0x49, 0x60, 0x66,
                                     0x67, 0x68, 0x78, 0x79, 0x7A, 0x7B, 0x7C, 0x7F, 0x86, 0x87};
  for (unsigned b = 0; b < 256; ++b) {
    FakeCpu cpu;
    cpu.Set(2, {0x01, b, 0, 0});
    uint32_t expected = std::count(k32.begin(), k32.end(), b)   ? QZ_CPU_LINE_32
                        : std::count(k64.begin(), k64.end(), b) ? QZ_CPU_LINE_64 : 0;
    EXPECT_EQ(cpu.Identify().features & kLines, expected) << "descriptor " << b;
  }
}

}  // namespace
