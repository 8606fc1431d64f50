// POSIX implementation of the synchronisation area of the platform layer.
// (Placeholder: creation fails until the implementation lands.)
#include "platform/QzPlatformSync.h"
#include "platform/QzPlatformBase.h"

#include <string.h>

namespace qzsys {

BOOL InitializeCriticalSection(CRITICAL_SECTION* s) { memset(s, 0, sizeof *s); return TRUE; }
BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* s, DWORD) { memset(s, 0, sizeof *s); return TRUE; }
void EnterCriticalSection(CRITICAL_SECTION*) {}
BOOL TryEnterCriticalSection(CRITICAL_SECTION*) { return TRUE; }
void LeaveCriticalSection(CRITICAL_SECTION*) {}
void DeleteCriticalSection(CRITICAL_SECTION*) {}
HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCSTR) { SetLastError(ERROR_NOT_SUPPORTED); return nullptr; }
BOOL SetEvent(HANDLE) { SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
BOOL ResetEvent(HANDLE) { SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
BOOL PulseEvent(HANDLE) { SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES, LONG, LONG, LPCSTR) { SetLastError(ERROR_NOT_SUPPORTED); return nullptr; }
BOOL ReleaseSemaphore(HANDLE, LONG, LONG*) { SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
BOOL QzLocalTimeOf(int64_t, QzLocalTime* out) { memset(out, 0, sizeof *out); return FALSE; }

}  // namespace qzsys
