// The platform layer: the Windows-shaped calls that the library makes.
//
// Library code above this folder never includes a system header of its own;
// it calls these functions, which have the names, argument orders and results
// of the Windows calls they stand for. The POSIX implementation lives in
// platform/posix/; a Windows build hands each call straight to the system.
//
// Shared contract of every call:
//  - A call that fails returns the failure value its Windows twin returns
//    (FALSE, 0, null, or INVALID_HANDLE_VALUE) and sets the calling thread's
//    last error (GetLastError) to a Windows error value. The POSIX layer maps
//    errno through one table (QzErrnoToWin32), so every call agrees.
//  - A call that succeeds leaves the last error alone unless its Windows twin
//    documents otherwise.
//  - Calls that tests must be able to make fail consult the failure switches
//    of QzPlatformFaults.h; in a build for hosts these switches are never set
//    and cost one relaxed load.
//  - Nothing here throws a C++ exception.
//
// One header per area, all brought in here:
#ifndef QZBASE_PLATFORM_QZPLATFORM_H
#define QZBASE_PLATFORM_QZPLATFORM_H

#include "platform/QzWinTypes.h"
#include "platform/QzPlatformFaults.h"
#include "platform/QzPlatformBase.h"
// Areas added by the families that need them, one line each:
#include "platform/QzPlatformText.h"
#include "platform/QzPlatformCom.h"
#include "platform/QzPlatformRegistry.h"
#include "platform/QzPlatformMemory.h"
#include "platform/QzPlatformTls.h"
#include "platform/QzPlatformMessage.h"
#include "platform/QzPlatformHandle.h"
#include "platform/QzPlatformSync.h"
#include "platform/QzPlatformFile.h"
#include "platform/QzPlatformThread.h"
#include "platform/QzPlatformMapping.h"
#include "platform/QzPlatformMmio.h"
// QZ_PLATFORM_AREAS_END

#endif  // QZBASE_PLATFORM_QZPLATFORM_H
