// Platform layer, threads and the multimedia timer calls.
//
// A thread handle is a kernel object of the shared handle space
// (QzPlatformHandle.h): WaitForSingleObject waits for the thread's end and
// CloseHandle drops the handle without touching the thread, which runs on.
// Thread ids are the ids GetCurrentThreadId gives inside the thread.
#ifndef QZBASE_PLATFORM_QZPLATFORMTHREAD_H
#define QZBASE_PLATFORM_QZPLATFORMTHREAD_H

#include "platform/QzWinTypes.h"
#include "platform/QzPlatformHandle.h"

namespace qzsys {

// ---- Threads ----------------------------------------------------------------
typedef unsigned (*QzThreadStartRoutine)(void* argument);
constexpr unsigned CREATE_SUSPENDED = 0x4;

// The runtime's thread creation. A thread created with CREATE_SUSPENDED
// exists (its id is known and stored in *threadId before this returns) but
// runs no instruction of `start` until ResumeThread. stackSize 0 takes the
// default; others are rounded up to what the system accepts. The thread's
// exit code is what `start` returns. Result: the handle as an integer, 0 on
// failure with the last error set (QZ_FAULT_CREATE_THREAD).
uintptr_t _beginthreadex(LPSECURITY_ATTRIBUTES attributes, unsigned stackSize, QzThreadStartRoutine start,
                         void* argument, unsigned flags, unsigned* threadId);

// Lowers the suspend count by one; at 0 the thread runs. Result: the count
// before the call (0 for a running thread), or 0xFFFFFFFF on failure
// (QZ_FAULT_RESUME_THREAD).
DWORD ResumeThread(HANDLE thread);

// Windows priority values, mapped onto the thread's nice value (idle 19,
// lowest 10, below normal 5, normal 0, above normal -5, highest -10, time
// critical -20). A rise above normal needs a privilege Linux may refuse:
// then FALSE with ERROR_ACCESS_DENIED and the priority is left as it was.
// FALSE with ERROR_INVALID_PARAMETER for any other value.
constexpr int THREAD_PRIORITY_IDLE = -15;
constexpr int THREAD_PRIORITY_LOWEST = -2;
constexpr int THREAD_PRIORITY_BELOW_NORMAL = -1;
constexpr int THREAD_PRIORITY_NORMAL = 0;
constexpr int THREAD_PRIORITY_ABOVE_NORMAL = 1;
constexpr int THREAD_PRIORITY_HIGHEST = 2;
constexpr int THREAD_PRIORITY_TIME_CRITICAL = 15;
BOOL SetThreadPriority(HANDLE thread, int priority);
// The value last set with success (THREAD_PRIORITY_NORMAL at creation);
// 0x7FFFFFFF (THREAD_PRIORITY_ERROR_RETURN) for a bad handle.
int GetThreadPriority(HANDLE thread);

// Binds the thread to the processors of `mask` (bit n: processor n). The
// previous mask, or 0 on failure: ERROR_INVALID_PARAMETER when the mask
// holds no processor the process may run on or one it may not;
// QZ_FAULT_THREAD_PRIORITY makes it fail with ERROR_ACCESS_DENIED.
DWORD_PTR SetThreadAffinityMask(HANDLE thread, DWORD_PTR mask);

// STILL_ACTIVE (259) while the thread exists (suspended included); after its
// end, what its start routine returned or what TerminateThread gave.
BOOL GetExitCodeThread(HANDLE thread, DWORD* exitCode);

// Ends the thread at once, wherever it is (spinning, blocked in a system
// call, suspended): no further instruction of its own runs, no C++
// destructor, no unwinding, no end step. Its waiters wake with `exitCode`
// as its exit code before this returns. What the thread held stays held:
// a lock it owned is never released (as on Windows, a documented hazard),
// and memory it alone referred to is lost. Its stack is given back to the
// system once the thread is gone. A thread that blocks the kill signal
// (QZ_TERMINATE_SIGNAL) in its own mask ends when it unblocks it. FALSE
// with ERROR_INVALID_HANDLE for a bad handle; TRUE with nothing done for a
// thread that has already ended or is ending by itself.
BOOL TerminateThread(HANDLE thread, DWORD exitCode);
// The real-time signal that carries a kill; hosts must leave it alone.
int QzTerminateSignal();
// Ended or killed threads whose runtime record and stack are not yet given
// back; each thread call reclaims those whose kernel thread has gone (tests).
size_t QzThreadsAwaitingReap();
// Detach: waits until every thread that ended by itself has left the
// library's code, and gives the host's action for the kill signal back.
// A thread started afterwards installs the handler again.
void QzThreadRelease();

// ---- System version ------------------------------------------------------------
struct OSVERSIONINFOA {
  DWORD dwOSVersionInfoSize;
  DWORD dwMajorVersion;
  DWORD dwMinorVersion;
  DWORD dwBuildNumber;
  DWORD dwPlatformId;
  CHAR szCSDVersion[128];
};
// The extended record begins with the plain one, as on Windows.
struct OSVERSIONINFOEXA : OSVERSIONINFOA {
  WORD wServicePackMajor;
  WORD wServicePackMinor;
  WORD wSuiteMask;
  BYTE wProductType;
  BYTE wReserved;
};
constexpr DWORD VER_PLATFORM_WIN32_NT = 2;
// Fills either record by its size field (148 or 156) as an NT-family system,
// version 10.0. FALSE with ERROR_INSUFFICIENT_BUFFER for any other size.
BOOL GetVersionExA(OSVERSIONINFOA* info);

// ---- Multimedia timer ----------------------------------------------------------
typedef UINT MMRESULT;
constexpr MMRESULT TIMERR_NOERROR = 0;
constexpr MMRESULT TIMERR_NOCANDO = 97;
struct TIMECAPS {
  UINT wPeriodMin;
  UINT wPeriodMax;
};
// Milliseconds on the monotonic clock, wrapping at 2^32.
DWORD timeGetTime();
// wPeriodMin 1, wPeriodMax 1000000. TIMERR_NOCANDO for a null record or a
// size other than sizeof(TIMECAPS), and under QZ_FAULT_TIME_PERIOD.
MMRESULT timeGetDevCaps(TIMECAPS* caps, UINT size);
// Requests of a timer resolution, counted per value; Linux timers are
// precise already, so nothing else changes. TIMERR_NOCANDO for a period
// outside the device caps (0 among them), for an end with no matching begin,
// and for a begin under QZ_FAULT_TIME_PERIOD.
MMRESULT timeBeginPeriod(UINT period);
MMRESULT timeEndPeriod(UINT period);
// Open requests of `period` (tests check that each begin is ended).
unsigned QzTimePeriodOpenCount(UINT period);

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMTHREAD_H
