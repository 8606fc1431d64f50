// qzbase: library frame. The processor record, the dispatched primitives
// (function-pointer slots chosen at load), the rectangle copy, the memory
// region checks and library shutdown.
//
// Threads: everything here may be called from any thread. The slots and the
// processor record are written once while the library loads and never again,
// so they are read without a lock.
#ifndef QZBASE_QZFRAME_H
#define QZBASE_QZFRAME_H

#include <qzbase/QzTypes.h>

extern "C" {

// ---- Processor identification ------------------------------------------------
// The layout of QZ_CPU_INFO is part of the interface: 32 bytes of vendor text
// (zero-terminated, all zero when the processor gives none), then the feature
// word. Filled once at load; read-only to hosts.
struct QzCpuInfo {
  char vendor[32];
  uint32_t features;
};

#define QZ_CPU_HAS_CPUID          0x00000001u
#define QZ_CPU_HAS_MMX            0x00000002u
#define QZ_CPU_HAS_MMX_EXT        0x00000004u
#define QZ_CPU_HAS_3DNOW          0x00000008u
#define QZ_CPU_HAS_3DNOW_EXT      0x00000010u
#define QZ_CPU_HAS_SSE            0x00000040u
#define QZ_CPU_HAS_SSE2           0x00000080u
#define QZ_CPU_HAS_SSE3           0x00000100u
#define QZ_CPU_HAS_LONG_MODE      0x00000200u
#define QZ_CPU_HAS_TSCP           0x00000400u
#define QZ_CPU_HAS_FXSR           0x00000800u
#define QZ_CPU_HAS_NX             0x00001000u
#define QZ_CPU_HAS_XOP            0x00002000u
#define QZ_CPU_HAS_PREFETCHW      0x00004000u
#define QZ_CPU_HAS_MISALIGN_SSE   0x00008000u
#define QZ_CPU_HAS_SSE4A          0x00010000u
#define QZ_CPU_HAS_FPU            0x00020000u
#define QZ_CPU_HAS_TSC            0x00040000u
#define QZ_CPU_HAS_CMOV           0x00080000u
#define QZ_CPU_HAS_CLFLUSH        0x00100000u
#define QZ_CPU_HAS_HTT            0x00200000u
#define QZ_CPU_HAS_MONITOR        0x00400000u
#define QZ_CPU_HAS_VMX            0x00800000u
#define QZ_CPU_HAS_SSSE3          0x01000000u
#define QZ_CPU_HAS_SSE41          0x02000000u
#define QZ_CPU_HAS_SSE42          0x04000000u
#define QZ_CPU_VENDOR_LISTED      0x10000000u
#define QZ_CPU_LINE_32            0x20000000u
#define QZ_CPU_LINE_64            0x40000000u

QZ_API extern QzCpuInfo QZ_CPU_INFO;

// ---- Dispatched primitives ---------------------------------------------------
// Copies: destination, source, byte count; the result is the byte count.
// Source and destination must not overlap. A batch of Qz_FastMemcpyPartial
// calls on one thread ends with one Qz_FastMemcpyEnd on that thread, and the
// thread runs no x87 code in between. Qz_FastMemcpy needs no end. The copy
// slots hold the plain copy before the library's load code has run.
typedef size_t (*QzMemcpyFn)(void* dst, const void* src, size_t count);
QZ_API extern QzMemcpyFn Qz_FastMemcpy;
QZ_API extern QzMemcpyFn Qz_FastMemcpyPartial;
QZ_API extern void (*Qz_FastMemcpyEnd)(void);

// Maths: no argument checks. Cosine, sine and tangent use the x87 unit with
// no range reduction; Round follows the x87 rounding mode (ties to even by
// default); Truncate rounds towards zero in every mode; out of range gives
// INT_MIN (0x80000000).
QZ_API extern float (*Qz_CosF)(float);
QZ_API extern double (*Qz_Cos)(double);
QZ_API extern float (*Qz_SinF)(float);
QZ_API extern double (*Qz_Sin)(double);
QZ_API extern float (*Qz_TanF)(float);
QZ_API extern double (*Qz_Tan)(double);
QZ_API extern int (*Qz_RoundF)(float);
QZ_API extern int (*Qz_Round)(double);
QZ_API extern float (*Qz_SqrtF)(float);
QZ_API extern float (*Qz_RSqrtF)(float);
QZ_API extern int (*Qz_TruncateF)(float);
QZ_API extern double (*Qz_Sqrt)(double);
QZ_API extern double (*Qz_RSqrt)(double);
QZ_API extern int (*Qz_Truncate)(double);

// Copies a rectangle of `rows` rows of `width` bytes. Strides are added to the
// pointers as they are, so a negative stride walks downwards. Width 0 or 0 rows
// does nothing.
QZ_API void Qz_MemcpyRect(void* dst, ptrdiff_t dstStride, const void* src, ptrdiff_t srcStride,
                          size_t width, size_t rows);

// 1 when every page of [p, p + size) could be read (written) at the moment of
// the probe, else 0. Size 0 gives 1 for any pointer; null with a size gives 0.
// Never faults: a bad address gives 0. The write check leaves memory unchanged.
QZ_API int Qz_IsValidReadRegion(const void* p, size_t size);
QZ_API int Qz_IsValidWriteRegion(void* p, size_t size);

// Name of the variant a slot holds, for diagnostics: pass the slot's address,
// e.g. Qz_SlotVariantName(&Qz_SqrtF) gives "SSE square root". Static text,
// never freed. Null when `slot` is not one of the seventeen slots or the slot
// holds something that is not one of the library's variants.
QZ_API const char* Qz_SlotVariantName(const void* slot);

// ---- Shutdown ------------------------------------------------------------------
// Call once, from an ordinary thread, when the host has finished with the
// library and before unloading it: releases the cached conversion objects and
// closes a log file. The library stays usable afterwards. Calling it twice is
// harmless.
QZ_API void Qz_TerminateLibrary(void);

}  // extern "C"

#endif  // QZBASE_QZFRAME_H
