// Platform layer, kernel handles: the one handle space that files, events,
// semaphores, threads and file mappings share, CloseHandle, and the wait.
//
// A handle is a checked token, not a descriptor: every call looks it up in the
// process's handle table first. A handle that was closed, or that was never
// handed out, fails with ERROR_INVALID_HANDLE (6); because each table slot
// carries a generation, a stale handle never reaches whatever object reuses
// its slot, and a file's descriptor is closed only when the last call using
// it has returned, so it is never reused under a call in flight. 0 and
// INVALID_HANDLE_VALUE are never handed out.
//
// An object lives while a handle or a call refers to it: CloseHandle removes
// the handle at once, and the object (file descriptor, shared section ...)
// goes when the last call that holds it returns.
#ifndef QZBASE_PLATFORM_QZPLATFORMHANDLE_H
#define QZBASE_PLATFORM_QZPLATFORMHANDLE_H

#include "platform/QzWinTypes.h"

namespace qzsys {

// The security record that creation calls take. Only bInheritHandle means
// anything here: an inheritable file handle stays open across exec, one that
// is not is opened close-on-exec.
struct SECURITY_ATTRIBUTES {
  DWORD nLength;
  LPVOID lpSecurityDescriptor;
  BOOL bInheritHandle;
};
typedef SECURITY_ATTRIBUTES* LPSECURITY_ATTRIBUTES;

// Results of WaitForSingleObject.
constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_ABANDONED = 0x80;
constexpr DWORD WAIT_TIMEOUT = 258;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFFu;
// GetExitCodeThread's answer while a thread runs.
constexpr DWORD STILL_ACTIVE = 259;

// Closes any handle. FALSE with ERROR_INVALID_HANDLE for a closed or made-up
// handle. QZ_FAULT_CLOSE_HANDLE makes it fail and leaves the handle open.
BOOL CloseHandle(HANDLE handle);

// Waits until the object is signalled or `milliseconds` pass (INFINITE: no
// limit; 0: a test that does not block). WAIT_OBJECT_0 when signalled (an
// auto-reset event is reset and a semaphore's count taken by the wait),
// WAIT_TIMEOUT when the time ran out, WAIT_FAILED with the last error set for
// a bad handle or an object that cannot be waited on (a file).
// QZ_FAULT_WAIT makes it return WAIT_FAILED.
DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMHANDLE_H
