// Platform layer, message area: the system's text for error values and
// result codes, the local buffers it hands out, and the message box.
#ifndef QZBASE_PLATFORM_QZPLATFORMMESSAGE_H
#define QZBASE_PLATFORM_QZPLATFORMMESSAGE_H

#include "platform/QzWinTypes.h"

namespace qzsys {

typedef void* HLOCAL;
typedef void* HWND;

constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x00000100;
constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x00000200;
constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x00001000;
constexpr DWORD LANG_SYSTEM_DEFAULT_NEUTRAL = 0x400;  // MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT)
constexpr DWORD ERROR_MR_MID_NOT_FOUND = 317;

// The library's own English text for the Windows error values it uses and
// for the result codes of its result table; a result code 0x8007xxxx reads as
// error xxxx. Each text ends in "\r\n", as the system's do.
//
// Supported: FORMAT_MESSAGE_FROM_SYSTEM, with or without
// FORMAT_MESSAGE_ALLOCATE_BUFFER (then `buffer` is really a char** / WCHAR**
// that receives a buffer to give back with LocalFree), any language.
// Result: characters stored without the terminator, or 0 with the last error
// set: ERROR_MR_MID_NOT_FOUND for a code without text (the buffer pointer is
// left alone), ERROR_INSUFFICIENT_BUFFER, ERROR_NOT_ENOUGH_MEMORY,
// ERROR_INVALID_PARAMETER.
DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId, LPSTR buffer,
                     DWORD size, void* arguments);
DWORD FormatMessageW(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId, LPWSTR buffer,
                     DWORD size, void* arguments);
// Gives back a buffer of FormatMessage; null is accepted. Returns null.
HLOCAL LocalFree(HLOCAL memory);

// ---- Message box ------------------------------------------------------------------
constexpr UINT MB_OK = 0x0;
constexpr UINT MB_ABORTRETRYIGNORE = 0x2;
constexpr UINT MB_ICONHAND = 0x10;
constexpr UINT MB_SYSTEMMODAL = 0x1000;
constexpr UINT MB_SETFOREGROUND = 0x10000;
constexpr int IDOK = 1, IDCANCEL = 2, IDABORT = 3, IDRETRY = 4, IDIGNORE = 5;

// There is no dialog on Linux. The caption and text go to standard error;
// the answer, for MB_ABORTRETRYIGNORE:
//   1. the test hook, when one is set;
//   2. else QZ_ASSERT_ANSWER=abort|retry|ignore (case ignored);
//   3. else, when standard input and standard error are terminals, a prompt
//      on standard error read from standard input;
//   4. else IDABORT.
// Other button sets answer with their first button (IDOK for MB_OK).
int MessageBoxA(HWND owner, LPCSTR text, LPCSTR caption, UINT type);

// Tests answer message boxes with this (null: back to the rules above). The
// hook sees the caption, text and type and returns the button id; nothing is
// written to standard error while a hook is set.
typedef int (*QzMessageBoxHook)(void* context, const char* text, const char* caption, UINT type);
void QzSetMessageBoxHook(QzMessageBoxHook hook, void* context);

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMMESSAGE_H
