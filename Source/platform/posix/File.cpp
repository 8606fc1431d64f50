// POSIX implementation of the file area of the platform layer.
// (Placeholder: every call fails until the implementation lands.)
#include "platform/QzPlatformFile.h"
#include "platform/QzPlatformBase.h"

namespace qzsys {

HANDLE CreateFileA(LPCSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
  SetLastError(ERROR_NOT_SUPPORTED);
  return QZ_INVALID_HANDLE_VALUE;
}
BOOL ReadFile(HANDLE, LPVOID, DWORD, DWORD* read, void*) { if (read) *read = 0; SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
BOOL WriteFile(HANDLE, LPCVOID, DWORD, DWORD* written, void*) { if (written) *written = 0; SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
DWORD SetFilePointer(HANDLE, LONG, LONG*, DWORD) { SetLastError(ERROR_INVALID_HANDLE); return INVALID_SET_FILE_POINTER; }
BOOL SetEndOfFile(HANDLE) { SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
BOOL FlushFileBuffers(HANDLE) { SetLastError(ERROR_INVALID_HANDLE); return FALSE; }
DWORD GetFileSize(HANDLE, DWORD*) { SetLastError(ERROR_INVALID_HANDLE); return INVALID_FILE_SIZE; }
DWORD GetFileAttributesA(LPCSTR) { SetLastError(ERROR_NOT_SUPPORTED); return INVALID_FILE_ATTRIBUTES; }
BOOL SetFileAttributesA(LPCSTR, DWORD) { SetLastError(ERROR_NOT_SUPPORTED); return FALSE; }
BOOL DeleteFileA(LPCSTR) { SetLastError(ERROR_NOT_SUPPORTED); return FALSE; }
BOOL MoveFileA(LPCSTR, LPCSTR) { SetLastError(ERROR_NOT_SUPPORTED); return FALSE; }
DWORD GetTempPathA(DWORD, LPSTR) { SetLastError(ERROR_NOT_SUPPORTED); return 0; }
UINT GetTempFileNameA(LPCSTR, LPCSTR, UINT, LPSTR) { SetLastError(ERROR_NOT_SUPPORTED); return 0; }

}  // namespace qzsys
