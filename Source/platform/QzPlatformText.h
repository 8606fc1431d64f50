// Platform layer, text area: the active ANSI code page, conversion between
// code pages and UTF-16, and the runtime's multi-byte and wide character
// routines.
//
// None of these depend on the C library's locale: case and white space come
// from the library's own tables, so a host's setlocale changes nothing here.
// Narrow routines work in the active code page (GetACP); counts are in
// characters of that encoding unless a routine says bytes.
//
// Code pages. The active page can be UTF-8 (65001), a single-byte page (1250
// to 1258, 874, 28591 to 28606, 20127, 20866, 21866, 437, 850, 866, 10000) or
// a double-byte page (932, 936, 949, 950). The single- and double-byte pages
// take their mapping from the C library's iconv the first time they are used
// and keep it in tables; UTF-8 needs none. The converter component
// (QzPlatformCom.h) also knows 1200/1201 (UTF-16), 12000/12001 (UTF-32),
// 20932/51932 (EUC-JP), 51949 (EUC-KR), 54936 (GB18030) and 50220
// (ISO-2022-JP), which are not possible active pages.
//
// Threads: every call may be made from any thread. QzSetActiveCodePage is for
// tests and must not race with conversions.
#ifndef QZBASE_PLATFORM_QZPLATFORMTEXT_H
#define QZBASE_PLATFORM_QZPLATFORMTEXT_H

#include "platform/QzWinTypes.h"

namespace qzsys {

constexpr UINT CP_ACP = 0;
constexpr UINT CP_OEMCP = 1;  // taken as the active page: there is no separate OEM page here
constexpr UINT CP_UTF16LE = 1200;
constexpr UINT CP_UTF16BE = 1201;
constexpr UINT CP_UTF8 = 65001;

// The process's ANSI code page: 65001 unless the environment variable QZ_ACP,
// read once at the first call, names another supported page by number.
UINT GetACP();
// Tests switch the active code page with this; not for hosts. FALSE (and
// ERROR_INVALID_PARAMETER) for a page that cannot be the active one.
BOOL QzSetActiveCodePage(UINT codePage);
// TRUE for every page that MultiByteToWideChar and WideCharToMultiByte take
// (the possible active pages). Pages of the converter component only: see
// QzIconvName in QzPlatformCom.h.
BOOL IsValidCodePage(UINT codePage);
// The most bytes that one character takes in the page: 1, 2, or 4 for UTF-8.
// 0 for a page that IsValidCodePage refuses.
UINT QzMaxCharSize(UINT codePage);

// Windows semantics: cbMultiByte/cchWideChar -1 means up to and including the
// terminator; a destination size of 0 measures. Invalid input: 0 and
// ERROR_NO_UNICODE_TRANSLATION when MB_ERR_INVALID_CHARS (WC_ERR_INVALID_CHARS
// for UTF-8 output) is given, else a replacement: U+FFFD for each bad part of
// UTF-8 input, '?' for a bad double-byte pair, the default character (or '?')
// for a UTF-16 unit that the page cannot hold, and EF BF BD for a lone
// surrogate in UTF-8 output. No best-fit mapping is made. Too small a
// destination: 0 and ERROR_INSUFFICIENT_BUFFER. Null text, a zero source
// count, a negative size, an unknown page or a default character given for
// UTF-8: 0 and ERROR_INVALID_PARAMETER.
//
// In a single-byte page, the bytes 0x80-0x9F that the page leaves undefined
// stand for the C1 controls U+0080-U+009F, as on Windows; other undefined
// bytes are invalid input.
constexpr DWORD MB_PRECOMPOSED = 0x1;
constexpr DWORD MB_ERR_INVALID_CHARS = 0x8;
constexpr DWORD WC_NO_BEST_FIT_CHARS = 0x400;
constexpr DWORD WC_ERR_INVALID_CHARS = 0x80;
int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR mb, int cbMultiByte, LPWSTR wide,
                        int cchWideChar);
int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int cchWideChar, LPSTR mb,
                        int cbMultiByte, LPCSTR defaultChar, BOOL* usedDefaultChar);

// Narrow routines, active code page. A character `c` is the bytes of one
// character packed high byte first: a single byte, a lead/trail pair
// (lead << 8 | trail) in a double-byte page, up to four bytes in UTF-8
// (0xC3A9 is U+00E9). Values that are no character of the page (such as a
// byte sign-extended to 0xFFFFFFxx) fit no class.
//
// _mbsinc steps over one character and never past a terminator; a byte that
// starts no valid character counts as one character. _mbsncmp/_mbsnicmp
// compare at most `count` characters by character value (code point order in
// UTF-8); _mbsnicmp folds to lower case first. _mbslwr/_mbsupr change case in
// place, stop at the terminator, and change a character only where the other
// case has the same byte length. _mbschr finds c (0: the terminator) or
// returns null.
unsigned char* _mbsinc(const unsigned char* p);
int _mbsncmp(const unsigned char* a, const unsigned char* b, size_t count);
int _mbsnicmp(const unsigned char* a, const unsigned char* b, size_t count);
int _ismbcspace(unsigned int c);
int _ismbclower(unsigned int c);
int _ismbcupper(unsigned int c);
int _ismbcdigit(unsigned int c);
unsigned char* _mbslwr(unsigned char* s);
unsigned char* _mbsupr(unsigned char* s);
unsigned char* _mbschr(const unsigned char* s, unsigned int c);

// Wide routines on UTF-16 units. Classes for iswctype, as the runtime numbers
// them. Digits are '0'-'9' only; white space is the Unicode White_Space set of
// the BMP (tab to CR, space, U+0085, U+00A0, U+1680, U+2000-U+200A, U+2028,
// U+2029, U+202F, U+205F, U+3000). Case pairs: see docs/TEXT.md.
constexpr unsigned short _UPPER = 0x1, _LOWER = 0x2, _DIGIT = 0x4, _SPACE = 0x8, _PUNCT = 0x10,
                         _CONTROL = 0x20, _BLANK = 0x40, _HEX = 0x80, _ALPHA = 0x103;
int iswspace(unsigned short c);
int iswctype(unsigned short c, unsigned short type);
WCHAR QzToLowerW(WCHAR c);
WCHAR QzToUpperW(WCHAR c);
// Folds to lower case, compares at most `count` units, as unsigned values.
int _wcsnicmp(const WCHAR* a, const WCHAR* b, size_t count);
WCHAR* _wcslwr(WCHAR* s);
WCHAR* _wcsupr(WCHAR* s);

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMTEXT_H
