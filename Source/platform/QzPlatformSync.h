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
// with ERROR_NOT_ENOUGH_MEMORY instead (the section is then unusable and must
// not be entered or deleted). QZ_FAULT_CRITICAL_SECTION makes both fail so.
BOOL InitializeCriticalSection(CRITICAL_SECTION* section);
// A spin count above 0 makes a contended Enter try that many times before it
// sleeps.
BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD spinCount);
void EnterCriticalSection(CRITICAL_SECTION* section);
BOOL TryEnterCriticalSection(CRITICAL_SECTION* section);
void LeaveCriticalSection(CRITICAL_SECTION* section);
void DeleteCriticalSection(CRITICAL_SECTION* section);

// ---- Events -------------------------------------------------------------------
// Null with the last error set on failure (QZ_FAULT_CREATE_EVENT).
HANDLE CreateEventA(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState, LPCSTR name);
// SetEvent: signalled (an auto-reset event lets one waiter through and is
// reset by it). ResetEvent: not signalled. PulseEvent: lets through the
// threads waiting at that moment (manual reset: all of them; auto reset: one
// of them, if any) and leaves the event not signalled. FALSE with
// ERROR_INVALID_HANDLE for a bad handle or one that is not an event;
// QZ_FAULT_SET_EVENT makes all three fail.
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
// for a count of 0 or below; QZ_FAULT_RELEASE_SEMAPHORE makes it fail.
BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG* previous);
constexpr DWORD ERROR_TOO_MANY_POSTS = 298;

// ---- Local time ---------------------------------------------------------------
// The broken-down local time of a count of seconds since 1970 (UTC), as the C
// runtime's localtime gives it (month 0-11, year since 1900). Thread-safe:
// each call fills the caller's record. FALSE when the time cannot be
// represented (the record is then zeroed).
struct QzLocalTime {
  int tm_sec, tm_min, tm_hour, tm_mday, tm_mon, tm_year, tm_wday, tm_yday, tm_isdst;
};
BOOL QzLocalTimeOf(int64_t secondsSince1970, QzLocalTime* out);

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMSYNC_H
