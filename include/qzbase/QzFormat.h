// qzbase: the library's own formatted output, narrow (char) and wide
// (unsigned short, UTF-16).
//
// Contract of all four calls. `count` is in units and includes the terminator.
//  - `count` 0 measures: nothing is stored, not even a terminator, `buffer` is
//    not touched and may be null, and the result is the length of the whole
//    output in units, without a terminator.
//  - Otherwise `buffer` must hold `count` units. At most `count - 1` units are
//    stored and a terminator always follows the last one. If the output fits,
//    the result is its length; if not, the buffer holds its first `count - 1`
//    units and the result is `count - 1`. The result is never -1, and nothing
//    is ever stored at or past `buffer + count`.
//  - A result of `count - 1` therefore only says that the buffer is full. To
//    get the whole text, measure first and format again with the measured
//    length plus 1.
//  - An output longer than INT_MAX units measures as INT_MAX.
//  - A null `format` formats as an empty one: result 0.
//
// Formats are those of the classic Windows runtime, with these sizes: `h`
// 16 bits, `l` and no size 32 bits, `I64` (or `q`) 64 bits. There is no `ll`
// and no `L`: "%lld" prints "%ld" (the second `l` is not a conversion).
// Conversions: d i u o x X p c C s S e E f g G n %. `%p` prints a whole
// pointer in lower-case hexadecimal without leading zeros. In the narrow
// calls `%S`, `%ls` take UTF-16 text and `%C`, `%lc` a UTF-16 unit, converted
// to the active ANSI code page; the width of `%S` counts output bytes and its
// precision source units. In the wide calls `%S`, `%hs` take narrow text of
// the active code page; `%c` and `%C` take a UTF-16 unit. Text of the other
// width that the buffer cuts is padded up to its cut length, not its whole
// one. A conversion unit with no meaning prints '%' and itself; a format that
// ends inside a conversion prints nothing of it. `%n` stores the count so far
// (32 bits; 16 with `h`; 64 with `I64`); a null target is skipped. A `%n`
// after the cut stores nothing, except behind text of the other width that
// the buffer cut: that text reports no cut itself, so the `%n` stores the
// units stored so far.
//
// Floating conversions are this library's own and deliberately not the C
// library's: digits come from repeated multiplication in double precision,
// rounded half up, at most 79 of them for `f` and 78 for the others; "%g" of
// 0.5 is ".5", "%e" of 0.0 is "0.000000e-01", NaN is "nan" and either
// infinity "inf". Magnitudes of 2^31 and more are scaled by powers of ten
// first and keep about 15 correct significant digits; "%f" of a value with
// more than 79 integer digits prints its first 79 digits and zeros up to the
// point. See docs/FORMAT.md for every difference.
//
// Ownership: the caller owns `buffer`, `format` and every argument; nothing
// is kept after the call. No heap memory is used.
// Threads: reentrant; any number of threads may call at once.
// Failures: there is no error result. Characters of the other width that the
// code page lacks become its default character ('?'); a conversion that fails
// outright gives no units.
#ifndef QZBASE_QZFORMAT_H
#define QZBASE_QZFORMAT_H

#include <stdarg.h>

#include <qzbase/QzTypes.h>

extern "C" {

QZ_API int QZ_SNPRINTF_A(char* buffer, unsigned int count, const char* format, ...);
QZ_API int QZ_VSNPRINTF_A(char* buffer, unsigned int count, const char* format, va_list values);
QZ_API int QZ_SNPRINTF_W(unsigned short* buffer, unsigned int count, const unsigned short* format, ...);
QZ_API int QZ_VSNPRINTF_W(unsigned short* buffer, unsigned int count, const unsigned short* format,
                          va_list values);

}  // extern "C"

#endif  // QZBASE_QZFORMAT_H
