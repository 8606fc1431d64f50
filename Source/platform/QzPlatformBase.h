// Platform layer, base area: errors, system information, ids, clocks, debug
// output, module data, and the guard for memory probes.
#ifndef QZBASE_PLATFORM_QZPLATFORMBASE_H
#define QZBASE_PLATFORM_QZPLATFORMBASE_H

#include "platform/QzWinTypes.h"

namespace qzsys {

// ---- Last error, per thread -------------------------------------------------
DWORD GetLastError();
void SetLastError(DWORD error);
// The one mapping from errno to a Windows error value; every call uses it.
DWORD QzErrnoToWin32(int err);
// Sets the last error from errno and returns the mapped value.
DWORD QzSetLastErrorFromErrno();

// ---- System information and ids --------------------------------------------
// Fills the record; dwPageSize and dwAllocationGranularity come from the system
// (the granularity is 64 KiB, as on Windows, or the page size if that is larger).
void GetSystemInfo(SYSTEM_INFO* info);
// Hot path: the pools call it on every lock. A cached per-thread value,
// never 0, unique among live threads.
DWORD GetCurrentThreadId();
DWORD GetCurrentProcessId();
// Milliseconds since an arbitrary start, wrapping at 2^32.
DWORD GetTickCount();
// 100 ns intervals since 1601-01-01 UTC.
void GetSystemTimeAsFileTime(FILETIME* ft);
// Accepted and ignored: this library receives no thread notices on any platform.
BOOL DisableThreadLibraryCalls(HMODULE module);
// Path of the running program (module null) into buf; result: characters
// written without the terminator, 0 on failure. Cut to size - 1 like Windows.
DWORD GetModuleFileNameA(HMODULE module, LPSTR buf, DWORD size);

// ---- Debug output -----------------------------------------------------------
// Where the debugger's text goes on Linux: see docs/ARCHITECTURE.md. By default it
// is dropped unless the environment variable QZ_DEBUG_OUTPUT names "stderr" or
// a file to append to. A capture hook, when set, receives every text first
// (tests use it); it may run on any thread.
void OutputDebugStringA(LPCSTR text);
typedef void (*QzDebugOutputHook)(void* context, const char* text);
void QzSetDebugOutputHook(QzDebugOutputHook hook, void* context);

// ---- Guard for memory probes ------------------------------------------------
// Runs probe(address) with every processor fault (SIGSEGV, SIGBUS, SIGILL,
// SIGFPE) caught. Returns true when the probe ran to its end, false when it
// faulted. Outside a probe the host's own signal handlers are untouched: the
// guard's handler passes every signal that was not raised inside a probe on to
// the handler that was installed before it.
typedef void (*QzProbeFn)(volatile void* address);
bool QzGuardedProbe(QzProbeFn probe, volatile void* address);

// Runs fn(context) under the same guard: true when fn returned, false when a
// processor fault raised inside it was caught. A caught fault skips the rest
// of fn with no C++ destructor run for its frames, as a structured exception
// guard without unwinding would. Guards nest: a probe made inside fn leaves
// fn's own guard in place.
typedef void (*QzGuardedFn)(void* context);
bool QzGuardedCall(QzGuardedFn fn, void* context);

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMBASE_H
