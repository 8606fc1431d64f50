// qzinfo: what qzbase found out about this machine and what it chose.
//
// Each section is one function that prints a heading and its lines; add a
// section by writing such a function and listing it in kSections below.
#include <qzbase/qzbase.h>

#include <stdio.h>
#include <string.h>

namespace {

void Heading(const char* title) { printf("\n%s\n", title); }

// Prints `label` in a column of fixed width, then the value.
void Row(const char* label, const char* value) { printf("  %-24s %s\n", label, value); }

// ---- Processor -----------------------------------------------------------------
struct FlagName {
  uint32_t flag;
  const char* name;
};

const FlagName kFlags[] = {
    {QZ_CPU_HAS_CPUID, "CPUID"},     {QZ_CPU_HAS_FPU, "FPU"},
    {QZ_CPU_HAS_TSC, "TSC"},         {QZ_CPU_HAS_CMOV, "CMOV"},
    {QZ_CPU_HAS_CLFLUSH, "CLFLUSH"}, {QZ_CPU_HAS_MMX, "MMX"},
    {QZ_CPU_HAS_MMX_EXT, "MMX-EXT"}, {QZ_CPU_HAS_3DNOW, "3DNOW"},
    {QZ_CPU_HAS_3DNOW_EXT, "3DNOW-EXT"}, {QZ_CPU_HAS_FXSR, "FXSR"},
    {QZ_CPU_HAS_SSE, "SSE"},         {QZ_CPU_HAS_SSE2, "SSE2"},
    {QZ_CPU_HAS_SSE3, "SSE3"},       {QZ_CPU_HAS_SSSE3, "SSSE3"},
    {QZ_CPU_HAS_SSE41, "SSE4.1"},    {QZ_CPU_HAS_SSE42, "SSE4.2"},
    {QZ_CPU_HAS_SSE4A, "SSE4A"},     {QZ_CPU_HAS_MISALIGN_SSE, "MISALIGN-SSE"},
    {QZ_CPU_HAS_XOP, "XOP"},         {QZ_CPU_HAS_PREFETCHW, "PREFETCHW"},
    {QZ_CPU_HAS_MONITOR, "MONITOR"}, {QZ_CPU_HAS_VMX, "VMX"},
    {QZ_CPU_HAS_HTT, "HTT"},         {QZ_CPU_HAS_LONG_MODE, "LONG-MODE"},
    {QZ_CPU_HAS_NX, "NX"},           {QZ_CPU_HAS_TSCP, "RDTSCP"},
};

void PrintProcessor() {
  Heading("Processor");
  const uint32_t f = QZ_CPU_INFO.features;
  char line[128];
  if (QZ_CPU_INFO.vendor[0] != 0) {
    snprintf(line, sizeof line, "%s%s", QZ_CPU_INFO.vendor,
             (f & QZ_CPU_VENDOR_LISTED) ? "  (a listed vendor)" : "");
    Row("vendor", line);
  } else {
    Row("vendor", (f & QZ_CPU_HAS_CPUID) ? "(none given)" : "(no CPUID)");
  }
  snprintf(line, sizeof line, "0x%08X", static_cast<unsigned>(f));
  Row("feature word", line);

  // The flag names, wrapped under the value column.
  size_t used = 0;
  const char* label = "features";
  line[0] = 0;
  for (const FlagName& n : kFlags) {
    if ((f & n.flag) == 0) continue;
    size_t len = strlen(n.name);
    if (used != 0 && used + 1 + len > 48) {
      Row(label, line);
      label = "";
      used = 0;
      line[0] = 0;
    }
    if (used != 0) line[used++] = ' ';
    memcpy(line + used, n.name, len + 1);
    used += len;
  }
  Row(label, used != 0 ? line : "(none)");

  Row("cache line", (f & QZ_CPU_LINE_64)   ? "64 bytes"
                    : (f & QZ_CPU_LINE_32) ? "32 bytes"
                                           : "not found (neither 32 nor 64 bytes)");
}

// ---- Dispatched primitives -------------------------------------------------------
void Slot(const char* name, const void* slot) {
  const char* variant = Qz_SlotVariantName(slot);
  Row(name, variant != nullptr ? variant : "(not set)");
}

void PrintPrimitives() {
  Heading("Dispatched primitives (chosen at load)");
  Slot("Qz_FastMemcpy", &Qz_FastMemcpy);
  Slot("Qz_FastMemcpyPartial", &Qz_FastMemcpyPartial);
  Slot("Qz_FastMemcpyEnd", &Qz_FastMemcpyEnd);
  Slot("Qz_SqrtF", &Qz_SqrtF);
  Slot("Qz_RSqrtF", &Qz_RSqrtF);
  Slot("Qz_TruncateF", &Qz_TruncateF);
  Slot("Qz_Sqrt", &Qz_Sqrt);
  Slot("Qz_RSqrt", &Qz_RSqrt);
  Slot("Qz_Truncate", &Qz_Truncate);
  Slot("Qz_RoundF, Qz_Round", &Qz_Round);
  Slot("Qz_CosF, Qz_Cos", &Qz_Cos);
  Slot("Qz_SinF, Qz_Sin", &Qz_Sin);
  Slot("Qz_TanF, Qz_Tan", &Qz_Tan);
}

void PrintSamples() {
  Heading("A few calls");
  char line[96];
  snprintf(line, sizeof line, "%.17g", Qz_Sqrt(2.0));
  Row("Qz_Sqrt(2.0)", line);
  snprintf(line, sizeof line, "%g", static_cast<double>(Qz_RSqrtF(4.0f)));
  Row("Qz_RSqrtF(4.0f)", line);
  snprintf(line, sizeof line, "%d, %d", Qz_Truncate(-2.7), Qz_Truncate(2.7));
  Row("Qz_Truncate(-2.7, 2.7)", line);
  snprintf(line, sizeof line, "%d, %d, %d", Qz_Round(0.5), Qz_Round(2.5), Qz_Round(3.5));
  Row("Qz_Round(0.5, 2.5, 3.5)", line);

  static const char kRows[] = "row 1 row 2 row 3 ";
  char flipped[sizeof kRows] = {};
  // Three 6-byte rows, copied bottom-up through a negative stride.
  Qz_MemcpyRect(flipped + 12, -6, kRows, 6, 6, 3);
  snprintf(line, sizeof line, "\"%s\" -> \"%s\"", kRows, flipped);
  Row("Qz_MemcpyRect, flipped", line);

  snprintf(line, sizeof line, "%d, %d, %d", Qz_IsValidReadRegion(kRows, sizeof kRows),
           Qz_IsValidWriteRegion(const_cast<char*>(kRows), 1), Qz_IsValidReadRegion(nullptr, 1));
  Row("region checks", line);
  Row("", "(own text readable, own text writable, null readable)");
}

// ---- Strings -------------------------------------------------------------------------
void PrintStrings() {
  Heading("Strings");
  char line[128];
  snprintf(line, sizeof line, "%u bytes (one pointer)", static_cast<unsigned>(sizeof(QzStringA)));
  Row("sizeof(QzStringA)", line);
  QzStringA text("1234567");
  QzStringA copy(text);
  snprintf(line, sizeof line, "%s", copy.c_str() == text.c_str() ? "yes, no allocation" : "no");
  Row("a copy shares the block", line);
  unsigned before = text.capacity();
  text += '8';
  snprintf(line, sizeof line, "%u -> %u (blocks grow in steps of 8)", before, text.capacity());
  Row("capacity at 7 -> 8 chars", line);
  QzStringW wide("h\xC3\xA9llo \xE2\x82\xAC");
  QzStringA back(wide);
  snprintf(line, sizeof line, "\"%s\": %u UTF-16 units, %u bytes back", back.c_str(), wide.length(),
           back.length());
  Row("between the widths", line);
  Row("text of 0x8007000E", QzStringA::GetWin32Error(static_cast<HRESULT>(0x8007000Eu)).c_str());
}

// ---- Pools ---------------------------------------------------------------------------
void PrintPools() {
  Heading("Memory pools");
  char line[160];
  QzMempool* pool = Qz_CreateMempool(0, 4);
  Row("Qz_CreateMempool(0, 4)", pool != nullptr ? "a pool of up to 4 heaps" : "failed");
  if (pool == nullptr) return;
  const size_t sizes[] = {1, 24, 100, 1000, 100000};
  int used = 0;
  for (size_t n : sizes) {
    void* block = Qz_MempoolAlloc(pool, n);
    used += snprintf(line + used, sizeof line - used, "%s%zu->%zu", used ? ", " : "", n, Qz_MemblkSize(block));
    Qz_MempoolFree(pool, block);
  }
  Row("asked -> usable bytes", line);
  void* aligned = Qz_MempoolAlignedAlloc(pool, 4096, 100);
  snprintf(line, sizeof line, "%s", (reinterpret_cast<uintptr_t>(aligned) & 4095) == 0 ? "on a 4096 boundary" : "misaligned!");
  Row("aligned block (4096)", line);
  Qz_MempoolAlignedFree(pool, aligned);
  Qz_MempoolSetValue(pool, 42);
  void* block = Qz_MempoolAlloc(pool, 16);
  QzMempool* owner = nullptr;
  unsigned long value = static_cast<unsigned long>(Qz_MempoolGetValue(&owner, block));
  snprintf(line, sizeof line, "%lu, owner %s", value, owner == pool ? "found" : "not found");
  Row("pool value (set to 42)", line);
  // Any handle frees any block, but a block must not sit in another pool's
  // cache when its own pool is destroyed: give it back through its pool.
  Qz_MempoolFree(pool, block);
  Qz_DestroyMempool(pool);
}

// ---- Formatted output ------------------------------------------------------------------
void PrintFormat() {
  Heading("Formatted output (the library's own engine)");
  char out[64];
  QZ_SNPRINTF_A(out, sizeof out, "\"%g\"", 0.5);
  Row("%g of 0.5", out);
  QZ_SNPRINTF_A(out, sizeof out, "\"%e\"", 0.0);
  Row("%e of 0.0", out);
  QZ_SNPRINTF_A(out, sizeof out, "\"%#08x\"", 255);
  Row("%#08x of 255", out);
  int need = QZ_SNPRINTF_A(nullptr, 0, "%s: %d items, %08x, %.3f", "queue", 12, 0xBEEF, 3.14159);
  char small[12];
  int got = QZ_SNPRINTF_A(small, sizeof small, "%s: %d items, %08x, %.3f", "queue", 12, 0xBEEF, 3.14159);
  snprintf(out, sizeof out, "measures %d, a 12-unit buffer gets %d: \"%s\"", need, got, small);
  Row("a log line", out);
}

typedef void (*Section)();
const Section kSections[] = {&PrintProcessor, &PrintPrimitives, &PrintSamples, &PrintPools, &PrintFormat,
                             &PrintStrings};

}  // namespace

int main() {
  printf("qzbase: what this machine offers and what the library chose\n");
  for (Section s : kSections) s();
  printf("\n");
  Qz_TerminateLibrary();
  return 0;
}
