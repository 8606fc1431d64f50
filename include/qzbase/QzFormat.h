// qzbase: the library's own formatted output engine, narrow and wide.
//
// The contract of all four calls: `count` is in units and includes the
// terminator. `count` 0 measures: nothing is stored (the buffer may be null)
// and the result is the full length. Otherwise at most `count - 1` units are
// stored, a terminator always follows, and the result is the number of units
// stored: a cut output gives `count - 1`. The result is never -1.
// `format` must not be null.
//
// Threads: reentrant; any thread.
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
