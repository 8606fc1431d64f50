// qzbase: basic types and the export macro shared by every public header.
//
// The library keeps the Windows sizes of its interface on every platform:
// a result declared HRESULT is a 32-bit signed value (0x80004005 is negative
// also where long is 64 bits), and a DWORD is 32 bits (INFINITE, the
// time-out that never ends, is 0xFFFFFFFF). Word-sized values (pointers, pool sizes) follow the machine word.
//
// These headers compile as C++11 and later.
#ifndef QZBASE_QZTYPES_H
#define QZBASE_QZTYPES_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#  if defined(QZBASE_BUILDING)
#    define QZ_API __declspec(dllexport)
#  else
#    define QZ_API __declspec(dllimport)
#  endif
#else
#  define QZ_API __attribute__((visibility("default")))
#endif

#if defined(_WIN32)
#  include <windows.h>
#elif !defined(QZ_NO_WIN_TYPES)
// For hosts that are not Windows: the few Windows types that the exported
// interface shows. Define QZ_NO_WIN_TYPES if the host already has its own.
typedef int32_t HRESULT;
typedef uint32_t DWORD;
typedef int32_t LONG;
typedef int BOOL;
// The time-out that never ends.
#  ifndef INFINITE
#    define INFINITE 0xFFFFFFFF
#  endif
// The system's critical section record, with the Windows field layout (24
// bytes on i386, 40 on x86-64), so that records embedding one keep their
// Windows size. Only the library's own calls touch its fields.
typedef struct QzCriticalSectionRecord {
  void* DebugInfo;
  LONG LockCount;
  LONG RecursionCount;
  void* OwningThread;
  void* LockSemaphore;
  uintptr_t SpinCount;
} CRITICAL_SECTION;
#endif

#ifndef QZ_CALL
#  define QZ_CALL
#endif

#endif  // QZBASE_QZTYPES_H
