// qzbase: debug support for hosts.
//
// Both functions write to the debugger's output (OutputDebugStringA; on Linux
// see QZ_DEBUG_OUTPUT in the README), never to the library's log file.
//
// Threads: any thread. Qz_DebugAssert blocks its caller until the assertion is
// answered; other threads go on.
#ifndef QZBASE_QZDEBUG_H
#define QZBASE_QZDEBUG_H

#include <qzbase/QzTypes.h>

extern "C" {

// The assertion dialog: "Abort" ends the process with exit code 3, "Retry"
// returns 1 (the caller should break into the debugger), "Ignore" returns 0.
// `message` may be null; when it is not empty it goes to debug output first,
// with a line feed added if it has none.
//
// On Linux there is no dialog: the text goes to standard error and the answer
// comes from the environment variable QZ_ASSERT_ANSWER (abort, retry or
// ignore); when it is unset and standard input and standard error are
// terminals the user is asked there; otherwise the answer is abort.
QZ_API int Qz_DebugAssert(const char* file, int line, const char* expression, const char* message);

// printf-style text (the library's own engine) to debug output, with a line
// feed added if the text has none. Out of memory: nothing is written.
QZ_API void Qz_DebugTrace(const char* format, ...);

}  // extern "C"

// Assertion for host code, active unless NDEBUG is defined.
#if defined(NDEBUG)
#  define QZ_ASSERT(expression) ((void)0)
#  define QZ_ASSERT_MSG(expression, message) ((void)0)
#else
#  if defined(_MSC_VER)
#    define QZ_DEBUG_BREAK() __debugbreak()
#  elif defined(__i386__) || defined(__x86_64__)
#    define QZ_DEBUG_BREAK() __asm__ volatile("int3")
#  else
#    define QZ_DEBUG_BREAK() __builtin_trap()
#  endif
#  define QZ_ASSERT_MSG(expression, message)                                       \
    do {                                                                          \
      if (!(expression) && Qz_DebugAssert(__FILE__, __LINE__, #expression, message)) \
        QZ_DEBUG_BREAK();                                                         \
    } while (0)
#  define QZ_ASSERT(expression) QZ_ASSERT_MSG(expression, 0)
#endif

#endif  // QZBASE_QZDEBUG_H
