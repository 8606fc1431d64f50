// Platform layer, synchronisation: critical sections, events, semaphores,
// and the local time that the log prints.
//
// Events and semaphores are kernel objects of the shared handle space
// (QzPlatformHandle.h): CloseHandle ends them and WaitForSingleObject waits
// on them, as on thread handles. Names are accepted and ignored: every object
// is private to the process (no caller in this library shares one by name).
#ifndef QZBASE_PLATFORM_QZPLATFORMSYNC_H
#define QZBASE_PLATFORM_QZPLATFORMSYNC_H

#include "platform/QzWinTypes.h"
#include "platform/QzPlatformHandle.h"

namespace qzsys {

// ---- Critical sections --------------------------------------------------------
// Recursive locks, as on Windows: the owner may enter again and leaves as
// often as it entered. Where Windows raises the structured exception
// 0xC0000017 because it has no memory for the section, these return FALSE
// with ERROR_NOT_ENOUGH_MEMORY instead; the record is then zeroed and the
// section unusable: Enter and Leave do nothing on it, TryEnter fails, Delete
// does nothing. QZ_FAULT_CRITICAL_SECTION makes both fail so.
// The record holds the lock's address in LockSemaphore and the spin count in
// SpinCount; LockCount is -1, and the owner and recursion fields stay 0 (no
// one may read them: the lock itself knows its owner).
BOOL InitializeCriticalSection(CRITICAL_SECTION* section);
// A spin count above 0 makes a contended Enter try that many times before it
// sleeps. As on Windows the top byte of the count is flags and is dropped, and
// with one processor the count is 0.
BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD spinCount);
void EnterCriticalSection(CRITICAL_SECTION* section);
// TRUE when the section is now held by the caller (also when it already was).
BOOL TryEnterCriticalSection(CRITICAL_SECTION* section);
// Leaving a section that the caller does not hold does nothing.
void LeaveCriticalSection(CRITICAL_SECTION* section);
// Frees the lock and zeroes the record. The section must not be held or waited on.
void DeleteCriticalSection(CRITICAL_SECTION* section);

// ---- Events -------------------------------------------------------------------
// Null with the last error set on failure (QZ_FAULT_CREATE_EVENT).
HANDLE CreateEventA(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState, LPCSTR name);
// SetEvent: signalled (an auto-reset event lets one waiter through and is
// reset by it). ResetEvent: not signalled. PulseEvent: lets through the
// threads waiting at that moment (manual reset: all of them; auto reset: one
// of them, if any) and leaves the event not signalled. "Waiting at that
// moment" means having entered WaitForSingleObject on the event before the
// pulse and not yet left it, asleep or not; a thread that enters after the
// pulse is never let through by it. A manual-reset waiter is likewise let
// through by a SetEvent that came while it waited, even if ResetEvent follows
// before it wakes. FALSE with ERROR_INVALID_HANDLE for a bad handle or one
// that is not an event; QZ_FAULT_SET_EVENT makes all three fail with
// ERROR_ACCESS_DENIED (the error Windows gives a handle without the right to
// change the event).
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);
BOOL PulseEvent(HANDLE event);

// ---- Semaphores ---------------------------------------------------------------
// Null with ERROR_INVALID_PARAMETER when the initial count is negative or
// above the maximum or the maximum is not above 0; QZ_FAULT_CREATE_EVENT and
// QZ_FAULT_CREATE_SEMAPHORE make it fail.
HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES attributes, LONG initialCount, LONG maximumCount, LPCSTR name);
// Adds `count` (above 0) to the count and stores the count before it in
// *previous when that is not null. FALSE with ERROR_TOO_MANY_POSTS (298) when
// the count would pass the maximum (nothing is added), ERROR_INVALID_PARAMETER
// for a count of 0 or below, ERROR_INVALID_HANDLE for a bad handle;
// QZ_FAULT_RELEASE_SEMAPHORE makes it fail with ERROR_ACCESS_DENIED.
BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG* previous);
constexpr DWORD ERROR_TOO_MANY_POSTS = 298;

// ---- Diagnostics ----------------------------------------------------------------
// Number of threads inside WaitForSingleObject on an event or a semaphore
// (those that found it signalled at once are not counted); -1 with
// ERROR_INVALID_HANDLE for any other handle. Tests use it to know that their
// waiters have arrived. A thread killed while waiting stays counted: nothing
// else depends on this number.
LONG QzSyncWaiting(HANDLE object);

// ---- Local time ---------------------------------------------------------------
// The broken-down local time of a count of seconds since 1970 (UTC), as the C
// runtime's localtime gives it (month 0-11, year since 1900), on every width
// (2038 is no limit on i386). Thread-safe: each call fills the caller's
// record. FALSE, with the record zeroed, outside the range of the Windows
// runtime: before 1970 or after the last second of the year 3000 (UTC).
struct QzLocalTime {
  int tm_sec, tm_min, tm_hour, tm_mday, tm_mon, tm_year, tm_wday, tm_yday, tm_isdst;
};
BOOL QzLocalTimeOf(int64_t secondsSince1970, QzLocalTime* out);

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMSYNC_H
