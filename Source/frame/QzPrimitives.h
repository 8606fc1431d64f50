// Library frame, internal side: every variant of the dispatched primitives,
// the two routines that point the slots at them, and the names of the
// variants. Tests call each variant directly, whatever this processor picks.
#ifndef QZBASE_QZPRIMITIVES_H
#define QZBASE_QZPRIMITIVES_H

#include <qzbase/QzFrame.h>

#include <stdint.h>

// ---- Maths variants ------------------------------------------------------------
// x87: the argument is widened into the x87 unit and the instruction of that
// name runs on it, with no range reduction and no argument check.
float QzX87CosF(float x);
double QzX87Cos(double x);
float QzX87SinF(float x);
double QzX87Sin(double x);
float QzX87TanF(float x);
double QzX87Tan(double x);
int QzX87RoundF(float x);  // integer store in the current x87 rounding mode
int QzX87Round(double x);
float QzX87SqrtF(float x);
double QzX87Sqrt(double x);
float QzX87RSqrtF(float x);  // 1 / x87 square root, true division
double QzX87RSqrt(double x);
int QzX87TruncateF(float x);  // integer store, then the fix-up towards zero
int QzX87Truncate(double x);

// SSE (single) and SSE2 (double): the scalar instruction of the operand's
// precision. Truncation ignores the rounding mode.
float QzSseSqrtF(float x);
float QzSseRSqrtF(float x);
int QzSseTruncateF(float x);
double QzSse2Sqrt(double x);
double QzSse2RSqrt(double x);
int QzSse2Truncate(double x);

// ---- Copy variants -------------------------------------------------------------
// All copy forwards and do not handle overlap; the result is the count.
size_t QzMemcpyPlain(void* dst, const void* src, size_t count);
size_t QzMemcpyMmx(void* dst, const void* src, size_t count);          // ends with emms
size_t QzMemcpyMmxPartial(void* dst, const void* src, size_t count);   // leaves MMX state
size_t QzMemcpyStream(void* dst, const void* src, size_t count);       // sfence + emms
size_t QzMemcpyStreamPartial(void* dst, const void* src, size_t count);  // neither
void QzMemcpyEndNone();
void QzMemcpyEndMmx();     // emms
void QzMemcpyEndStream();  // sfence, then emms

// ---- Slot filling ----------------------------------------------------------------
// Point the fourteen maths slots, then the three copy slots, at the variants
// that `features` (a QZ_CPU_INFO feature word) allows. The load entry passes
// QZ_CPU_INFO.features; tests pass synthetic words.
void QzFillMathSlots(uint32_t features);
void QzFillCopySlots(uint32_t features);

// Name of a variant ("x87 cosine", "streaming copy" ...) from its address;
// null for an address that is no variant.
const char* QzVariantName(const void* fn);

#endif  // QZBASE_QZPRIMITIVES_H
