// The dispatched primitives: the seventeen slots, every variant they can
// hold, the rectangle copy and the region checks.
//
// The x87 and copy variants are written in inline assembly on purpose: the
// compiler would otherwise pick its own instructions (SSE maths, vector
// copies), and the point of each variant is to run exactly the instructions it
// is named after. Inline assembly also keeps the sanitizers' instrumentation
// off the copies, whose pointers are taken on trust.
#include "frame/QzPrimitives.h"

#include <math.h>
#include <string.h>

#include <atomic>

#include "frame/QzFrame.h"
#include "platform/QzPlatform.h"

#if defined(__i386__) || defined(__x86_64__)
#define QZ_X86 1
#include <emmintrin.h>
#include <xmmintrin.h>
#else
#define QZ_X86 0
#endif

// ---- The slots -----------------------------------------------------------------
// The copy slots are constant-initialised, so they hold the plain copy from
// the moment the image is mapped, before any constructor runs. The maths slots
// stay null until the load entry fills them.
extern "C" {
QZ_API QzMemcpyFn Qz_FastMemcpy = &QzMemcpyPlain;
QZ_API QzMemcpyFn Qz_FastMemcpyPartial = &QzMemcpyPlain;
QZ_API void (*Qz_FastMemcpyEnd)(void) = &QzMemcpyEndNone;

QZ_API float (*Qz_CosF)(float) = nullptr;
QZ_API double (*Qz_Cos)(double) = nullptr;
QZ_API float (*Qz_SinF)(float) = nullptr;
QZ_API double (*Qz_Sin)(double) = nullptr;
QZ_API float (*Qz_TanF)(float) = nullptr;
QZ_API double (*Qz_Tan)(double) = nullptr;
QZ_API int (*Qz_RoundF)(float) = nullptr;
QZ_API int (*Qz_Round)(double) = nullptr;
QZ_API float (*Qz_SqrtF)(float) = nullptr;
QZ_API float (*Qz_RSqrtF)(float) = nullptr;
QZ_API int (*Qz_TruncateF)(float) = nullptr;
QZ_API double (*Qz_Sqrt)(double) = nullptr;
QZ_API double (*Qz_RSqrt)(double) = nullptr;
QZ_API int (*Qz_Truncate)(double) = nullptr;
}

// ---- x87 maths -------------------------------------------------------------------
namespace {

#if QZ_X86
// The operand keeps the caller's type: it is loaded into the x87 unit as it
// is, and on i386 the result goes back on top of the x87 stack, where the
// calling convention returns it, without being narrowed on the way. (x86-64
// returns in an SSE register, which takes the declared precision.)
template <typename T> inline T X87Cos(T v) { __asm__("fcos" : "+t"(v)); return v; }
template <typename T> inline T X87Sin(T v) { __asm__("fsin" : "+t"(v)); return v; }
// fptan pushes a 1.0 above the tangent; drop it.
template <typename T> inline T X87Tan(T v) { __asm__("fptan\n\tfstp %%st(0)" : "+t"(v)); return v; }
template <typename T> inline T X87Sqrt(T v) { __asm__("fsqrt" : "+t"(v)); return v; }
// A true division of 1.0 by the root, in the same unit: st = 1 / st(1), then
// the root is dropped from under it.
template <typename T> inline T X87RSqrt(T v) {
  __asm__("fsqrt\n\t"
          "fld1\n\t"
          "fdiv %%st(1), %%st\n\t"
          "fstp %%st(1)"
          : "+t"(v));
  return v;
}
template <typename T> inline int X87Store(T v) {
  int r;
  __asm__("fistpl %0" : "=m"(r) : "t"(v) : "st");
  return r;
}
// Integer store in the current mode, then the difference to the argument,
// worked out in the x87 unit and stored as a float, says which way the store
// rounded. The control word is never touched.
template <typename T> inline int X87Truncate(T v, bool negative) {
  int r;
  float d;
  __asm__("fistl %0\n\t"
          "fisubl %0\n\t"
          "fstps %1"
          : "=m"(r), "=m"(d)
          : "t"(v)
          : "st");
  // Unsigned steps: out of range r is INT_MIN and must not overflow here.
  unsigned u = static_cast<unsigned>(r);
  if (!negative) return static_cast<int>(d < 0.0f ? u - 1u : u);
  return static_cast<int>(d > 0.0f ? u + 1u : u);
}
#else
// No x87 unit: the nearest portable meaning of each instruction.
template <typename T> inline T X87Cos(T v) { return static_cast<T>(cosl(v)); }
template <typename T> inline T X87Sin(T v) { return static_cast<T>(sinl(v)); }
template <typename T> inline T X87Tan(T v) { return static_cast<T>(tanl(v)); }
template <typename T> inline T X87Sqrt(T v) { return static_cast<T>(sqrtl(v)); }
template <typename T> inline T X87RSqrt(T v) { return static_cast<T>(1.0L / sqrtl(v)); }
template <typename T> inline int X87Store(T v) {
  if (!(v > -2147483649.0L && v < 2147483648.0L)) return INT32_MIN;
  return static_cast<int>(nearbyintl(v));
}
template <typename T> inline int X87Truncate(T v, bool) {
  if (!(v > -2147483649.0L && v < 2147483648.0L)) return INT32_MIN;
  return static_cast<int>(v);
}
#endif

}  // namespace

float QzX87CosF(float x) { return X87Cos(x); }
double QzX87Cos(double x) { return X87Cos(x); }
float QzX87SinF(float x) { return X87Sin(x); }
double QzX87Sin(double x) { return X87Sin(x); }
float QzX87TanF(float x) { return X87Tan(x); }
double QzX87Tan(double x) { return X87Tan(x); }
int QzX87RoundF(float x) { return X87Store(x); }
int QzX87Round(double x) { return X87Store(x); }
float QzX87SqrtF(float x) { return X87Sqrt(x); }
double QzX87Sqrt(double x) { return X87Sqrt(x); }
float QzX87RSqrtF(float x) { return X87RSqrt(x); }
double QzX87RSqrt(double x) { return X87RSqrt(x); }
int QzX87TruncateF(float x) { return X87Truncate(x, signbit(x) != 0); }
int QzX87Truncate(double x) { return X87Truncate(x, signbit(static_cast<float>(x)) != 0); }

// ---- SSE and SSE2 maths -------------------------------------------------------------
#if QZ_X86
float QzSseSqrtF(float x) { return _mm_cvtss_f32(_mm_sqrt_ss(_mm_set_ss(x))); }
float QzSseRSqrtF(float x) {
  // A true square root and a true division: never the approximate rsqrtss.
  return _mm_cvtss_f32(_mm_div_ss(_mm_set_ss(1.0f), _mm_sqrt_ss(_mm_set_ss(x))));
}
int QzSseTruncateF(float x) { return _mm_cvtt_ss2si(_mm_set_ss(x)); }
double QzSse2Sqrt(double x) {
  __m128d v = _mm_set_sd(x);
  return _mm_cvtsd_f64(_mm_sqrt_sd(v, v));
}
double QzSse2RSqrt(double x) {
  __m128d v = _mm_set_sd(x);
  return _mm_cvtsd_f64(_mm_div_sd(_mm_set_sd(1.0), _mm_sqrt_sd(v, v)));
}
int QzSse2Truncate(double x) { return _mm_cvttsd_si32(_mm_set_sd(x)); }
#else
float QzSseSqrtF(float x) { return sqrtf(x); }
float QzSseRSqrtF(float x) { return 1.0f / sqrtf(x); }
int QzSseTruncateF(float x) { return X87Truncate(x, false); }
double QzSse2Sqrt(double x) { return sqrt(x); }
double QzSse2RSqrt(double x) { return 1.0 / sqrt(x); }
int QzSse2Truncate(double x) { return X87Truncate(x, false); }
#endif

// ---- Copies ------------------------------------------------------------------------
namespace {

typedef unsigned char Byte;

#if QZ_X86
// Up to 3 bytes one at a time; above that 32-bit words by a string move, then
// one 16-bit and one byte move for what is left.
inline void CopyTail(Byte* d, const Byte* s, size_t n) {
  if (n <= 3) {
    __asm__ __volatile__("rep movsb" : "+D"(d), "+S"(s), "+c"(n) : : "memory");
    return;
  }
  size_t words = n >> 2;
  __asm__ __volatile__("rep movsl" : "+D"(d), "+S"(s), "+c"(words) : : "memory");
  if (n & 2) __asm__ __volatile__("movsw" : "+D"(d), "+S"(s) : : "memory");
  if (n & 1) __asm__ __volatile__("movsb" : "+D"(d), "+S"(s) : : "memory");
}

inline void CopyBytes(Byte*& d, const Byte*& s, size_t n) {
  __asm__ __volatile__("rep movsb" : "+D"(d), "+S"(s), "+c"(n) : : "memory");
}

// 64-byte blocks through the eight MMX registers, two loads then two stores
// at a time; the source may have any alignment, the destination is 8-aligned.
#define QZ_MMX_BLOCK(STORE, PREFETCH)                                            \
  __asm__ __volatile__("1:\n\t" PREFETCH                                         \
                       "movq (%1), %%mm0\n\t"                                    \
                       "movq 8(%1), %%mm1\n\t" STORE " %%mm0, (%0)\n\t" STORE    \
                       " %%mm1, 8(%0)\n\t"                                       \
                       "movq 16(%1), %%mm2\n\t"                                  \
                       "movq 24(%1), %%mm3\n\t" STORE " %%mm2, 16(%0)\n\t" STORE \
                       " %%mm3, 24(%0)\n\t"                                      \
                       "movq 32(%1), %%mm4\n\t"                                  \
                       "movq 40(%1), %%mm5\n\t" STORE " %%mm4, 32(%0)\n\t" STORE \
                       " %%mm5, 40(%0)\n\t"                                      \
                       "movq 48(%1), %%mm6\n\t"                                  \
                       "movq 56(%1), %%mm7\n\t" STORE " %%mm6, 48(%0)\n\t" STORE \
                       " %%mm7, 56(%0)\n\t"                                      \
                       "add $64, %1\n\t"                                         \
                       "add $64, %0\n\t"                                         \
                       "dec %2\n\t"                                              \
                       "jnz 1b"                                                  \
                       : "+r"(d), "+r"(s), "+r"(blocks)                          \
                       :                                                         \
                       : "memory", "cc", "mm0", "mm1", "mm2", "mm3", "mm4", "mm5", "mm6", "mm7")

inline void MmxBlocks(Byte*& d, const Byte*& s, size_t blocks) { QZ_MMX_BLOCK("movq", ""); }
inline void StreamBlocks(Byte*& d, const Byte*& s, size_t blocks) {
  QZ_MMX_BLOCK("movntq", "prefetchnta 320(%1)\n\t");
}
#undef QZ_MMX_BLOCK

inline void MmxExit() { __asm__ __volatile__("emms" : : : "memory"); }
inline void StoreFence() { __asm__ __volatile__("sfence" : : : "memory"); }
inline void PrefetchStart(const Byte* s) {
  __asm__ __volatile__(
      "prefetchnta (%0)\n\t"
      "prefetchnta 64(%0)\n\t"
      "prefetchnta 128(%0)\n\t"
      "prefetchnta 192(%0)\n\t"
      "prefetchnta 256(%0)"
      :
      : "r"(s));
}

template <bool kStream, bool kFinish>
size_t CopyBlocksAndTail(void* dst, const void* src, size_t count) {
  Byte* d = static_cast<Byte*>(dst);
  const Byte* s = static_cast<const Byte*>(src);
  if (kStream) PrefetchStart(s);
  size_t n = count;
  if (n >= 64) {
    size_t misalign = reinterpret_cast<uintptr_t>(d) & 7;
    if (misalign != 0) {
      CopyBytes(d, s, 8 - misalign);
      n -= 8 - misalign;
    }
    size_t blocks = n >> 6;
    n &= 63;
    if (blocks != 0) {
      if (kStream) StreamBlocks(d, s, blocks);
      else MmxBlocks(d, s, blocks);
    }
    if (kFinish) {
      if (kStream) StoreFence();
      MmxExit();
    }
  }
  CopyTail(d, s, n);
  return count;
}
#else
inline void CopyTail(Byte* d, const Byte* s, size_t n) {
  while (n-- != 0) *d++ = *s++;
}
inline void MmxExit() {}
inline void StoreFence() { std::atomic_thread_fence(std::memory_order_seq_cst); }
template <bool kStream, bool kFinish>
size_t CopyBlocksAndTail(void* dst, const void* src, size_t count) {
  CopyTail(static_cast<Byte*>(dst), static_cast<const Byte*>(src), count);
  return count;
}
#endif

}  // namespace

size_t QzMemcpyPlain(void* dst, const void* src, size_t count) {
  CopyTail(static_cast<Byte*>(dst), static_cast<const Byte*>(src), count);
  return count;
}
size_t QzMemcpyMmx(void* dst, const void* src, size_t count) {
  return CopyBlocksAndTail<false, true>(dst, src, count);
}
size_t QzMemcpyMmxPartial(void* dst, const void* src, size_t count) {
  return CopyBlocksAndTail<false, false>(dst, src, count);
}
size_t QzMemcpyStream(void* dst, const void* src, size_t count) {
  return CopyBlocksAndTail<true, true>(dst, src, count);
}
size_t QzMemcpyStreamPartial(void* dst, const void* src, size_t count) {
  return CopyBlocksAndTail<true, false>(dst, src, count);
}
void QzMemcpyEndNone() {}
void QzMemcpyEndMmx() { MmxExit(); }
void QzMemcpyEndStream() {
  StoreFence();
  MmxExit();
}

// ---- Slot filling ------------------------------------------------------------------
void QzFillMathSlots(uint32_t features) {
  Qz_CosF = &QzX87CosF;
  Qz_Cos = &QzX87Cos;
  Qz_SinF = &QzX87SinF;
  Qz_Sin = &QzX87Sin;
  Qz_TanF = &QzX87TanF;
  Qz_Tan = &QzX87Tan;
  Qz_RoundF = &QzX87RoundF;  // rounding stays x87 even with SSE: it follows the x87 mode
  Qz_Round = &QzX87Round;
  const bool sse = (features & QZ_CPU_HAS_SSE) != 0;
  const bool sse2 = (features & QZ_CPU_HAS_SSE2) != 0;
  Qz_SqrtF = sse ? &QzSseSqrtF : &QzX87SqrtF;
  Qz_RSqrtF = sse ? &QzSseRSqrtF : &QzX87RSqrtF;
  Qz_TruncateF = sse ? &QzSseTruncateF : &QzX87TruncateF;
  Qz_Sqrt = sse2 ? &QzSse2Sqrt : &QzX87Sqrt;
  Qz_RSqrt = sse2 ? &QzSse2RSqrt : &QzX87RSqrt;
  Qz_Truncate = sse2 ? &QzSse2Truncate : &QzX87Truncate;
}

void QzFillCopySlots(uint32_t features) {
  if (features & QZ_CPU_HAS_SSE) {
    Qz_FastMemcpy = &QzMemcpyStream;
    Qz_FastMemcpyPartial = &QzMemcpyStreamPartial;
    Qz_FastMemcpyEnd = &QzMemcpyEndStream;
  } else if (features & QZ_CPU_HAS_MMX) {
    Qz_FastMemcpy = &QzMemcpyMmx;
    Qz_FastMemcpyPartial = &QzMemcpyMmxPartial;
    Qz_FastMemcpyEnd = &QzMemcpyEndMmx;
  } else {
    Qz_FastMemcpy = &QzMemcpyPlain;
    Qz_FastMemcpyPartial = &QzMemcpyPlain;
    Qz_FastMemcpyEnd = &QzMemcpyEndNone;
  }
}

namespace {
struct VariantName {
  const void* fn;
  const char* name;
};
#define QZ_V(f, n) {reinterpret_cast<const void*>(&f), n}
const VariantName kVariants[] = {
    QZ_V(QzX87CosF, "x87 cosine"),
    QZ_V(QzX87Cos, "x87 cosine"),
    QZ_V(QzX87SinF, "x87 sine"),
    QZ_V(QzX87Sin, "x87 sine"),
    QZ_V(QzX87TanF, "x87 tangent"),
    QZ_V(QzX87Tan, "x87 tangent"),
    QZ_V(QzX87RoundF, "x87 integer store"),
    QZ_V(QzX87Round, "x87 integer store"),
    QZ_V(QzX87SqrtF, "x87 square root"),
    QZ_V(QzX87Sqrt, "x87 square root"),
    QZ_V(QzX87RSqrtF, "1 / x87 square root"),
    QZ_V(QzX87RSqrt, "1 / x87 square root"),
    QZ_V(QzX87TruncateF, "x87 integer store with fix-up"),
    QZ_V(QzX87Truncate, "x87 integer store with fix-up"),
    QZ_V(QzSseSqrtF, "SSE square root"),
    QZ_V(QzSseRSqrtF, "1 / SSE square root"),
    QZ_V(QzSseTruncateF, "SSE truncating conversion"),
    QZ_V(QzSse2Sqrt, "SSE2 square root"),
    QZ_V(QzSse2RSqrt, "1 / SSE2 square root"),
    QZ_V(QzSse2Truncate, "SSE2 truncating conversion"),
    QZ_V(QzMemcpyPlain, "plain copy"),
    QZ_V(QzMemcpyMmx, "MMX copy, ends with emms"),
    QZ_V(QzMemcpyMmxPartial, "MMX copy"),
    QZ_V(QzMemcpyStream, "streaming copy, ends with sfence and emms"),
    QZ_V(QzMemcpyStreamPartial, "streaming copy"),
    QZ_V(QzMemcpyEndNone, "nothing"),
    QZ_V(QzMemcpyEndMmx, "emms"),
    QZ_V(QzMemcpyEndStream, "sfence, then emms"),
};
#undef QZ_V
}  // namespace

const char* QzVariantName(const void* fn) {
  for (const VariantName& v : kVariants)
    if (v.fn == fn) return v.name;
  return nullptr;
}

extern "C" QZ_API const char* Qz_SlotVariantName(const void* slot) {
#define QZ_SLOT(s) \
  if (slot == static_cast<const void*>(&s)) return QzVariantName(reinterpret_cast<const void*>(s));
  QZ_SLOT(Qz_FastMemcpy)
  QZ_SLOT(Qz_FastMemcpyPartial)
  QZ_SLOT(Qz_FastMemcpyEnd)
  QZ_SLOT(Qz_CosF)
  QZ_SLOT(Qz_Cos)
  QZ_SLOT(Qz_SinF)
  QZ_SLOT(Qz_Sin)
  QZ_SLOT(Qz_TanF)
  QZ_SLOT(Qz_Tan)
  QZ_SLOT(Qz_RoundF)
  QZ_SLOT(Qz_Round)
  QZ_SLOT(Qz_SqrtF)
  QZ_SLOT(Qz_RSqrtF)
  QZ_SLOT(Qz_TruncateF)
  QZ_SLOT(Qz_Sqrt)
  QZ_SLOT(Qz_RSqrt)
  QZ_SLOT(Qz_Truncate)
#undef QZ_SLOT
  return nullptr;
}

// ---- Rectangle copy ------------------------------------------------------------------
extern "C" QZ_API void Qz_MemcpyRect(void* dst, ptrdiff_t dstStride, const void* src,
                                     ptrdiff_t srcStride, size_t width, size_t rows) {
  if (width == 0 || rows == 0) return;
  if (static_cast<ptrdiff_t>(width) == dstStride && static_cast<ptrdiff_t>(width) == srcStride) {
    Qz_FastMemcpy(dst, src, width * rows);  // one run; the copy fences itself
    return;
  }
  // Strides are added as they come (negative ones walk down); integer
  // arithmetic keeps that defined for rows that leave the caller's object.
  uintptr_t d = reinterpret_cast<uintptr_t>(dst);
  uintptr_t s = reinterpret_cast<uintptr_t>(src);
  QzMemcpyFn partial = Qz_FastMemcpyPartial;
  for (size_t row = 0; row < rows; ++row) {
    partial(reinterpret_cast<void*>(d), reinterpret_cast<const void*>(s), width);
    d += static_cast<uintptr_t>(dstStride);
    s += static_cast<uintptr_t>(srcStride);
  }
  Qz_FastMemcpyEnd();  // one fence and MMX exit for the whole rectangle
}

// ---- Region checks -------------------------------------------------------------------
namespace {

template <typename Probe>
int ProbeRegion(Probe probe, uintptr_t start, size_t size) {
  uintptr_t page = QzSystemInfo().dwPageSize;
  if (page == 0) page = 4096;  // only before the load entry has run
  const uintptr_t last = start + (size - 1);  // may wrap: then the probes meet a fault
  uintptr_t at = start;
  for (;;) {
    if (!probe(reinterpret_cast<volatile void*>(at))) return 0;
    if (page > last - at) return 1;
    at += page;
  }
}

}  // namespace

extern "C" QZ_API int Qz_IsValidReadRegion(const void* p, size_t size) {
  if (size == 0) return 1;
  if (p == nullptr) return 0;
  return ProbeRegion(&qzsys::QzProbeRead, reinterpret_cast<uintptr_t>(p), size);
}

extern "C" QZ_API int Qz_IsValidWriteRegion(void* p, size_t size) {
  if (size == 0) return 1;
  if (p == nullptr) return 0;
  uintptr_t start = reinterpret_cast<uintptr_t>(p);
  const uintptr_t last = start + (size - 1);
  start &= ~static_cast<uintptr_t>(3);
  return ProbeRegion(&qzsys::QzProbeWrite, start, last - start + 1);
}
