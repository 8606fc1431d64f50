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

// ---- Memory probes and the fault guard ------------------------------------
// True when the byte at `address` can be read at this moment. The kernel
// makes the access (faulting the page in where it is valid), so no signal is
// raised and no handler of the host's is involved, whatever it installed.
bool QzProbeRead(const volatile void* address);
// True when the 32-bit word at `address` (a multiple of 4) can be written:
// one locked read-modify-write that leaves the value as it was, also when
// another thread writes the word at the same time. No signal either.
// Both probes fall back to QzGuardedProbe where the kernel refuses the calls
// they use (failure switch QZ_FAULT_PROBE_SYSCALL plays that part); neither
// changes errno or the last error.
bool QzProbeWrite(volatile void* address);

// Runs fn(context) with every processor fault (SIGSEGV, SIGBUS, SIGILL,
// SIGFPE raised by an instruction) caught: true when fn returned, false when
// it faulted and was left at the fault, as a structured exception handler
// that returns would leave it (locks it held stay held). The fault signals
// are unblocked while fn runs. Calls nest, and any thread may make them, in
// a signal handler too. The guard's handler is installed at the first call
// and put back in first place by any later call that finds a host's handler
// in its place; every signal that is not a fault inside a guarded call goes
// on to the handler it replaced, so a host's handler still sees its signals
// (once, also when it chains to the handler it replaced). A caught fault
// skips the rest of fn with no C++ destructor run for its frames; a C++
// exception leaving fn passes on to the caller with the guard removed.
typedef void (*QzGuardedFn)(void* context);
bool QzGuardedCall(QzGuardedFn fn, void* context);
// The same for a probe function of one address.
typedef void (*QzProbeFn)(volatile void* address);
bool QzGuardedProbe(QzProbeFn probe, volatile void* address);
// Puts back the handlers that the guard replaced, where the guard's are
// still in place (a host's handler installed since stays). Detach calls it,
// so no handler points into an unloaded library.
void QzGuardRelease();


}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMBASE_H
