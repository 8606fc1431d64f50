// Windows-shaped types and constants of the platform layer.
//
// Everything lives in namespace qzsys so that no host symbol clashes; library
// code says `using namespace qzsys;` in its sources. Sizes are the Windows
// ones: DWORD, LONG, HRESULT are 32 bits on every platform, handles and
// SIZE_T follow the machine word.
#ifndef QZBASE_PLATFORM_QZWINTYPES_H
#define QZBASE_PLATFORM_QZWINTYPES_H

#include <qzbase/QzTypes.h>

#include <stddef.h>
#include <stdint.h>

namespace qzsys {

typedef ::DWORD DWORD;
typedef ::LONG LONG;
typedef ::BOOL BOOL;
typedef ::CRITICAL_SECTION CRITICAL_SECTION;
typedef ::HRESULT HRESULT;
typedef uint32_t UINT;
typedef uint16_t WORD;
typedef uint8_t BYTE;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
typedef uintptr_t ULONG_PTR;
typedef uintptr_t DWORD_PTR;
typedef size_t SIZE_T;
typedef void* HANDLE;
typedef void* HMODULE;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef char CHAR;
typedef unsigned short WCHAR;  // UTF-16 unit, as the wide strings use it
typedef char* LPSTR;
typedef const char* LPCSTR;
typedef WCHAR* LPWSTR;
typedef const WCHAR* LPCWSTR;

constexpr BOOL TRUE = 1;
constexpr BOOL FALSE = 0;
// A macro, as in the Windows headers, so that it and the public headers'
// definition for hosts are the same one.
#ifndef INFINITE
#define INFINITE 0xFFFFFFFF
#endif
#define QZ_INVALID_HANDLE_VALUE (reinterpret_cast<qzsys::HANDLE>(static_cast<intptr_t>(-1)))

// Result codes used across the library.
constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;
constexpr HRESULT E_NOTIMPL = static_cast<HRESULT>(0x80004001u);
constexpr HRESULT E_POINTER = static_cast<HRESULT>(0x80004003u);
constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005u);
constexpr HRESULT E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFFu);
constexpr HRESULT DISP_E_BUFFERTOOSMALL = static_cast<HRESULT>(0x80020013u);
constexpr HRESULT CO_E_NOTINITIALIZED = static_cast<HRESULT>(0x800401F0u);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);
constexpr HRESULT HRESULT_TIMEOUT = static_cast<HRESULT>(0x800705B4u);

constexpr HRESULT HRESULT_FROM_WIN32(DWORD e) {
  return static_cast<LONG>(e) <= 0 ? static_cast<HRESULT>(e)
                                   : static_cast<HRESULT>((e & 0xFFFFu) | 0x80070000u);
}
constexpr bool SUCCEEDED(HRESULT hr) { return hr >= 0; }
constexpr bool FAILED(HRESULT hr) { return hr < 0; }

// System error values (GetLastError).
constexpr DWORD ERROR_SUCCESS = 0;
constexpr DWORD ERROR_INVALID_FUNCTION = 1;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_OUTOFMEMORY = 14;
constexpr DWORD ERROR_INVALID_DRIVE = 15;
constexpr DWORD ERROR_NO_MORE_FILES = 18;
constexpr DWORD ERROR_WRITE_PROTECT = 19;
constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_LOCK_VIOLATION = 33;
constexpr DWORD ERROR_HANDLE_EOF = 38;
constexpr DWORD ERROR_NOT_SUPPORTED = 50;
constexpr DWORD ERROR_FILE_EXISTS = 80;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_BROKEN_PIPE = 109;
constexpr DWORD ERROR_DISK_FULL = 112;
constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_NEGATIVE_SEEK = 131;
constexpr DWORD ERROR_DIR_NOT_EMPTY = 145;
constexpr DWORD ERROR_BUSY = 170;
constexpr DWORD ERROR_ALREADY_EXISTS = 183;
constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
constexpr DWORD ERROR_NO_UNICODE_TRANSLATION = 1113;
constexpr DWORD ERROR_INVALID_ADDRESS = 487;
constexpr DWORD ERROR_ARITHMETIC_OVERFLOW = 534;
constexpr DWORD ERROR_IO_DEVICE = 1117;
constexpr DWORD ERROR_TIMEOUT = 1460;
constexpr DWORD ERROR_NOT_FOUND = 1168;

struct SYSTEM_INFO {
  WORD wProcessorArchitecture;
  WORD wReserved;
  DWORD dwPageSize;
  LPVOID lpMinimumApplicationAddress;
  LPVOID lpMaximumApplicationAddress;
  DWORD_PTR dwActiveProcessorMask;
  DWORD dwNumberOfProcessors;
  DWORD dwProcessorType;
  DWORD dwAllocationGranularity;
  WORD wProcessorLevel;
  WORD wProcessorRevision;
};

struct FILETIME {
  DWORD dwLowDateTime;
  DWORD dwHighDateTime;
};

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZWINTYPES_H
