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

#endif  // QZBASE_QZFRAME_INTERNAL_H
