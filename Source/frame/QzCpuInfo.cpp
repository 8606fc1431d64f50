// Processor identification: fills QZ_CPU_INFO once, at load.
#include "frame/QzCpuInfo.h"

#include <string.h>

extern "C" {
QZ_API QzCpuInfo QZ_CPU_INFO = {{0}, 0};
}

// ---- The real processor ------------------------------------------------------------
int QzCpuidPresent() {
#if defined(__x86_64__)
  // Long mode always has CPUID, but the flag is probed for real all the same.
  // The pushes would land in the red zone below the stack pointer, where the
  // compiler may keep locals, so step over it first.
  unsigned long changed;
  __asm__ __volatile__(
      "sub $128, %%rsp\n\t"
      "pushfq\n\t"
      "pushfq\n\t"
      "xorq $0x200000, (%%rsp)\n\t"
      "popfq\n\t"
      "pushfq\n\t"
      "popq %0\n\t"
      "xorq (%%rsp), %0\n\t"
      "popfq\n\t"  // the flags as they were found
      "add $128, %%rsp"
      : "=&r"(changed)
      :
      : "cc", "memory");
  return (changed & 0x200000) != 0;
#elif defined(__i386__)
  unsigned long changed;
  __asm__ __volatile__(
      "pushfl\n\t"
      "pushfl\n\t"
      "xorl $0x200000, (%%esp)\n\t"
      "popfl\n\t"
      "pushfl\n\t"
      "popl %0\n\t"
      "xorl (%%esp), %0\n\t"
      "popfl"
      : "=&r"(changed)
      :
      : "cc", "memory");
  return (changed & 0x200000) != 0;
#else
  return 0;
#endif
}

void QzCpuid(uint32_t leaf, uint32_t* eax, uint32_t* ebx, uint32_t* ecx, uint32_t* edx) {
#if defined(__x86_64__) || defined(__i386__)
  uint32_t a, b, c, d;
  __asm__ __volatile__("cpuid" : "=a"(a), "=b"(b), "=c"(c), "=d"(d) : "a"(leaf), "c"(0u));
  *eax = a;
  *ebx = b;
  *ecx = c;
  *edx = d;
#else
  (void)leaf;
  *eax = *ebx = *ecx = *edx = 0;
#endif
}

namespace {
int RealHasCpuid(void*) { return QzCpuidPresent(); }
void RealCpuid(void*, uint32_t leaf, uint32_t* a, uint32_t* b, uint32_t* c, uint32_t* d) {
  QzCpuid(leaf, a, b, c, d);
}
const QzCpuProbe kRealProbe = {&RealHasCpuid, &RealCpuid, nullptr};
}  // namespace

const QzCpuProbe& QzRealCpuProbe() { return kRealProbe; }

// ---- The routine -------------------------------------------------------------------
namespace {

struct Regs {
  uint32_t a, b, c, d;
};

Regs Read(const QzCpuProbe& probe, uint32_t leaf) {
  Regs r = {0, 0, 0, 0};
  probe.cpuid(probe.context, leaf, &r.a, &r.b, &r.c, &r.d);
  return r;
}

inline bool Bit(uint32_t word, unsigned bit) { return ((word >> bit) & 1u) != 0; }

// Leaf 2 cache descriptors that name the line size.
bool IsLine32Descriptor(uint32_t byte) {
  static const unsigned char k32[] = {0x0A, 0x0C, 0x41, 0x42, 0x43, 0x44,
                                      0x45, 0x82, 0x83, 0x84, 0x85};
  for (unsigned char v : k32)
    if (v == byte) return true;
  return false;
}
bool IsLine64Descriptor(uint32_t byte) {
  static const unsigned char k64[] = {0x22, 0x23, 0x25, 0x29, 0x2C, 0x46, 0x47,
                                      0x49, 0x60, 0x66, 0x67, 0x68, 0x78, 0x79,
                                      0x7A, 0x7B, 0x7C, 0x7F, 0x86, 0x87};
  for (unsigned char v : k64)
    if (v == byte) return true;
  return false;
}

// Walks leaf 2: the last listed descriptor decides.
uint32_t LineSizeFromDescriptors(const QzCpuProbe& probe) {
  uint32_t line = 0;
  uint32_t reads = 1;
  for (uint32_t done = 0; done < reads; ++done) {
    Regs r = Read(probe, 2);
    if (done == 0) reads = r.a & 0xFF;  // the first read tells how many; at least one runs
    r.a &= ~0xFFu;                      // that byte is a count, not a descriptor
    const uint32_t words[4] = {r.a, r.b, r.c, r.d};
    for (uint32_t w : words) {
      if (w == 0 || (w & 0x80000000u) != 0) continue;  // bit 31: the word holds no descriptors
      for (; w != 0; w >>= 8) {
        uint32_t byte = w & 0xFF;
        if (IsLine32Descriptor(byte)) line = 32;
        else if (IsLine64Descriptor(byte)) line = 64;
      }
    }
  }
  return line;
}

}  // namespace

void QzIdentifyProcessor(QzCpuInfo* info, const QzCpuProbe& probe) {
  memset(info, 0, sizeof *info);
  if (!probe.hasCpuid(probe.context)) return;
  uint32_t f = QZ_CPU_HAS_CPUID;
  info->features = f;

  Regs r0 = Read(probe, 0);
  if (r0.a == 0) return;  // no leaf beyond 0: CPUID alone, no vendor
  const uint32_t vendorWords[3] = {r0.b, r0.d, r0.c};
  for (int w = 0; w < 3; ++w)
    for (int i = 0; i < 4; ++i) info->vendor[w * 4 + i] = static_cast<char>(vendorWords[w] >> (8 * i));

  const uint32_t maxExtended = Read(probe, 0x80000000u).a;
  if (maxExtended >= 0x80000001u) {
    Regs e = Read(probe, 0x80000001u);
    if (Bit(e.d, 22)) f |= QZ_CPU_HAS_MMX_EXT;
    if (Bit(e.d, 31)) f |= QZ_CPU_HAS_3DNOW;
    if (Bit(e.d, 30)) f |= QZ_CPU_HAS_3DNOW_EXT;
    if (Bit(e.d, 29)) f |= QZ_CPU_HAS_LONG_MODE;
    if (Bit(e.d, 27)) f |= QZ_CPU_HAS_TSCP;
    if (Bit(e.d, 25)) f |= QZ_CPU_HAS_FXSR;
    if (Bit(e.d, 20)) f |= QZ_CPU_HAS_NX;
    if (Bit(e.c, 11)) f |= QZ_CPU_HAS_XOP;
    if (Bit(e.c, 8)) f |= QZ_CPU_HAS_PREFETCHW;
    if (Bit(e.c, 7)) f |= QZ_CPU_HAS_MISALIGN_SSE;
    if (Bit(e.c, 6)) f |= QZ_CPU_HAS_SSE4A;
  }

  Regs r1 = Read(probe, 1);
  if (Bit(r1.d, 0)) f |= QZ_CPU_HAS_FPU;
  if (Bit(r1.d, 4)) f |= QZ_CPU_HAS_TSC;
  if (Bit(r1.d, 15)) f |= QZ_CPU_HAS_CMOV;
  if (Bit(r1.d, 19)) f |= QZ_CPU_HAS_CLFLUSH;
  if (Bit(r1.d, 23)) f |= QZ_CPU_HAS_MMX;
  if (Bit(r1.d, 24)) f |= QZ_CPU_HAS_FXSR;
  if (Bit(r1.d, 25)) f |= QZ_CPU_HAS_SSE;
  if (Bit(r1.d, 26)) f |= QZ_CPU_HAS_SSE2;
  if (Bit(r1.d, 28)) f |= QZ_CPU_HAS_HTT;
  if (Bit(r1.c, 0)) f |= QZ_CPU_HAS_SSE3;
  if (Bit(r1.c, 3)) f |= QZ_CPU_HAS_MONITOR;
  if (Bit(r1.c, 5)) f |= QZ_CPU_HAS_VMX;
  if (Bit(r1.c, 9)) f |= QZ_CPU_HAS_SSSE3;
  if (Bit(r1.c, 19)) f |= QZ_CPU_HAS_SSE41;
  if (Bit(r1.c, 20)) f |= QZ_CPU_HAS_SSE42;

  if (strcmp(info->vendor, "GenuineIntel") == 0 || strcmp(info->vendor, "CyrixInstead") == 0)
    f |= QZ_CPU_VENDOR_LISTED;

  // Line size: the CLFLUSH field (8-byte units) if it says anything; else the
  // extended cache leaf; else the descriptors of leaf 2.
  uint32_t line = ((Read(probe, 1).b >> 8) & 0xFF) * 8;
  if (line == 0 && maxExtended >= 0x80000006u) line = Read(probe, 0x80000006u).c & 0xFF;
  if (line == 0) line = LineSizeFromDescriptors(probe);
  if (line == 32) f |= QZ_CPU_LINE_32;
  else if (line == 64) f |= QZ_CPU_LINE_64;

  info->features = f;
}

void QzIdentifyProcessor() { QzIdentifyProcessor(&QZ_CPU_INFO, QzRealCpuProbe()); }
