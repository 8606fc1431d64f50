// Platform layer, text area: the active ANSI code page, conversion between it
// and UTF-16, and the runtime's multi-byte and wide character routines.
//
// None of these depend on the C library's locale: case and white space come
// from the library's own tables, so a host's setlocale changes nothing here.
// Narrow routines work in the active code page (GetACP); counts are in
// characters of that encoding unless a routine says bytes.
#ifndef QZBASE_PLATFORM_QZPLATFORMTEXT_H
#define QZBASE_PLATFORM_QZPLATFORMTEXT_H

#include "platform/QzWinTypes.h"

namespace qzsys {

constexpr UINT CP_ACP = 0;
constexpr UINT CP_UTF8 = 65001;

// The process's ANSI code page: 65001 unless QZ_ACP names another at load.
UINT GetACP();
// Tests switch the active code page with this; not for hosts. FALSE for an
// unsupported page.
BOOL QzSetActiveCodePage(UINT codePage);

// Windows semantics: cbMultiByte/cchWideChar -1 means up to and including the
// terminator; a destination size of 0 measures. Invalid input: 0 and
// ERROR_NO_UNICODE_TRANSLATION when MB_ERR_INVALID_CHARS is given, else the
// replacement character. Too small a destination: 0 and
// ERROR_INSUFFICIENT_BUFFER.
constexpr DWORD MB_ERR_INVALID_CHARS = 0x8;
int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR mb, int cbMultiByte, LPWSTR wide,
                        int cchWideChar);
int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int cchWideChar, LPSTR mb,
                        int cbMultiByte, LPCSTR defaultChar, BOOL* usedDefaultChar);

// Narrow routines, active code page. A character `c` is a single byte or a
// lead/trail pair (lead << 8 | trail) as the runtime's _ismbc* routines take it.
unsigned char* _mbsinc(const unsigned char* p);
int _mbsncmp(const unsigned char* a, const unsigned char* b, size_t count);
int _mbsnicmp(const unsigned char* a, const unsigned char* b, size_t count);
int _ismbcspace(unsigned int c);
int _ismbclower(unsigned int c);
int _ismbcdigit(unsigned int c);
unsigned char* _mbslwr(unsigned char* s);
unsigned char* _mbsupr(unsigned char* s);
unsigned char* _mbschr(const unsigned char* s, unsigned int c);

// Wide routines on UTF-16 units.
constexpr unsigned short _UPPER = 0x1, _LOWER = 0x2, _DIGIT = 0x4, _SPACE = 0x8;
int iswspace(unsigned short c);
int iswctype(unsigned short c, unsigned short type);
int _wcsnicmp(const WCHAR* a, const WCHAR* b, size_t count);
WCHAR* _wcslwr(WCHAR* s);
WCHAR* _wcsupr(WCHAR* s);

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMTEXT_H
