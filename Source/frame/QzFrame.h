// Library frame, internal side: the load sequence and the system
// information record.
//
// Load (attach), in this fixed order:
//   1. static initialiser 1: the log sink becomes the debug-output sink
//   2. static initialiser 2: the shared empty string record and the two
//      exported empty strings, each with its at-exit release
//   3. the load entry, reason 1: DisableThreadLibraryCalls, GetSystemInfo,
//      processor identification, the maths slots, the copy slots
// Unload (detach): the load entry, reason 0, closes the log (QZ_DISABLE_LOG);
// then the at-exit list runs backwards (wide empty string, then narrow).
//
// On Linux, prioritised shared-library constructors (priorities 201, 202 and
// 203) run the two static initialisers and the load entry, in that order,
// before any other static initialiser of the library. Families define the
// weak steps below rather than constructors of their own at those priorities. Detach is an at-exit entry that the last of
// those constructors registers: registered after the empty strings' entries,
// it runs before them, as the order above wants. A destructor runs detach
// instead if that registration failed.
//
// The steps that belong to families above the frame are weak symbols: a
// family supplies its step by defining the function, and a build without that
// family leaves the step out. The frame calls them in the order above.
#ifndef QZBASE_QZFRAME_INTERNAL_H
#define QZBASE_QZFRAME_INTERNAL_H

#include <qzbase/QzFrame.h>

#include "platform/QzPlatform.h"

extern "C" {
void QzLoadStepLogSink() __attribute__((weak));       // log family: static initialiser 1
void QzLoadStepEmptyStrings() __attribute__((weak));  // strings family: static initialiser 2
void QzReleaseConverters() __attribute__((weak));     // conversion family: first step of Qz_TerminateLibrary
void QzUnloadStepDisableLog() __attribute__((weak));  // log family: QZ_DISABLE_LOG at detach and at terminate
}

// The system information record filled at attach; read-only afterwards.
const qzsys::SYSTEM_INFO& QzSystemInfo();

// The load entry, with the shape of the Windows one. Reason 1 (attach) and 0
// (detach) run their sequences; any other reason does nothing. Always 1.
constexpr qzsys::DWORD QZ_PROCESS_DETACH = 0;
constexpr qzsys::DWORD QZ_PROCESS_ATTACH = 1;
int QzLoadEntry(qzsys::HMODULE module, qzsys::DWORD reason, qzsys::LPVOID reserved);

// A record of the load, unload and terminate steps in the order they ran, so
// that the order can be checked whichever families are linked in. Each entry
// is a fixed text; the record keeps the first 64 and drops the rest.
// Fills up to `max` entries and returns how many there are in all.
size_t QzFrameTrace(const char** out, size_t max);

#endif  // QZBASE_QZFRAME_INTERNAL_H
