// Results and exceptions, internal side.
#ifndef QZBASE_SOURCE_QZEXCEPTION_H
#define QZBASE_SOURCE_QZEXCEPTION_H

#include <qzbase/QzException.h>

// The result code for a system call that has just failed: the thread's last
// error e becomes 0x80070000 | (e & 0xFFFF) when above 0; a value that would
// not read as a failure (no error recorded) becomes 0x8000FFFF. Callers that
// log the failure pass the raw error along themselves.
HRESULT QzHresultFromLastError();
// The same rule for an error value in hand.
HRESULT QzHresultFromWin32Error(DWORD error);

// Throws QzException(code) by value.
[[noreturn]] void QzThrow(HRESULT code);

#endif  // QZBASE_SOURCE_QZEXCEPTION_H
