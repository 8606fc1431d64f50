// Platform layer, registry area: the read-only part of the Windows registry
// that the library reads, the MIME character set database under
// HKEY_CLASSES_ROOT\MIME\Database\Charset.
//
// On POSIX it is a built-in table: a key per character set name (matched
// without regard to case) holding either "InternetEncoding" (REG_DWORD, the
// code page) or "AliasForCharset" (REG_SZ, another name). docs/TEXT.md lists
// the names. Tests add keys and values of their own with QzRegistrySetTestValue.
//
// Results are Windows error values (LONG): ERROR_SUCCESS, ERROR_FILE_NOT_FOUND
// for a key or value that does not exist, ERROR_MORE_DATA when the buffer is
// too small (the size needed is then stored), ERROR_ACCESS_DENIED for any
// access beyond reading, ERROR_INVALID_HANDLE, ERROR_INVALID_PARAMETER.
// Threads: any thread; handles belong to their opener until closed.
#ifndef QZBASE_PLATFORM_QZPLATFORMREGISTRY_H
#define QZBASE_PLATFORM_QZPLATFORMREGISTRY_H

#include "platform/QzWinTypes.h"

namespace qzsys {

struct QzRegKey;
typedef QzRegKey* HKEY;
#define QZ_HKEY_CLASSES_ROOT (reinterpret_cast<qzsys::HKEY>(static_cast<uintptr_t>(0x80000000u)))

constexpr DWORD KEY_QUERY_VALUE = 0x0001;
constexpr DWORD KEY_READ = 0x20019;
constexpr DWORD REG_NONE = 0, REG_SZ = 1, REG_BINARY = 3, REG_DWORD = 4, REG_DWORD_BIG_ENDIAN = 5;
constexpr DWORD ERROR_MORE_DATA = 234;

// Opens `subKey` of a root key (only HKEY_CLASSES_ROOT has keys here).
LONG RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD options, DWORD access, HKEY* result);
// Reads a value as on Windows: with `data` null and `size` given, stores the
// size needed; REG_SZ sizes count the terminator.
LONG RegQueryValueExA(HKEY key, LPCSTR valueName, DWORD* reserved, DWORD* type, BYTE* data, DWORD* size);
LONG RegCloseKey(HKEY key);

// Tests only: sets a value of a key under HKEY_CLASSES_ROOT (made if needed;
// it hides a built-in key of the same name), or removes every such value.
void QzRegistrySetTestValue(LPCSTR subKey, LPCSTR valueName, DWORD type, const void* data, DWORD size);
void QzRegistryClearTestValues();

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMREGISTRY_H
