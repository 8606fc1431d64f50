// Platform layer, file mapping: sections over a file or over memory of their
// own (named and shared between processes, or private to this process), and
// views of them.
//
// A section is a kernel object of the shared handle space; CloseHandle ends
// the handle. Each view keeps its section alive, and a file-backed section
// keeps its file object alive, so a section and its memory go only when the
// last handle and the last view are gone, as on Windows. A named section is
// shared by every process that creates or opens the same name; its memory is
// given back to the system when the last handle and view in any process go.
//
// Offsets and sizes are 64-bit, passed in two halves. A view's offset must be
// a multiple of the allocation granularity (64 KiB, GetSystemInfo), else
// ERROR_MAPPED_ALIGNMENT, as on Windows.
//
// Failure switches: QZ_FAULT_CREATE_MAPPING (CreateFileMappingA and
// OpenFileMappingA return null) and QZ_FAULT_MAP_VIEW (MapViewOfFileEx
// returns null); both set ERROR_NOT_ENOUGH_MEMORY.
#ifndef QZBASE_PLATFORM_QZPLATFORMMAPPING_H
#define QZBASE_PLATFORM_QZPLATFORMMAPPING_H

#include "platform/QzWinTypes.h"
#include "platform/QzPlatformHandle.h"
#include "platform/QzPlatformMemory.h"

namespace qzsys {

constexpr DWORD PAGE_WRITECOPY = 0x08;
constexpr DWORD PAGE_EXECUTE_READ = 0x20;
constexpr DWORD PAGE_EXECUTE_READWRITE = 0x40;
constexpr DWORD PAGE_EXECUTE_WRITECOPY = 0x80;
constexpr DWORD SEC_COMMIT = 0x8000000;
constexpr DWORD FILE_MAP_COPY = 0x1;
constexpr DWORD FILE_MAP_WRITE = 0x2;
constexpr DWORD FILE_MAP_READ = 0x4;
constexpr DWORD FILE_MAP_ALL_ACCESS = 0xF001F;
constexpr DWORD ERROR_FILE_INVALID = 1006;
constexpr DWORD ERROR_MAPPED_ALIGNMENT = 1132;

// Makes a section. `file` is a file handle, or INVALID_HANDLE_VALUE for memory
// of the section's own (zero-filled). `protect` is PAGE_READONLY,
// PAGE_READWRITE or PAGE_WRITECOPY (the PAGE_EXECUTE_ twins are taken as
// these; SEC_ bits are ignored); a file must have been opened with read
// access, and with write access too for PAGE_READWRITE (ERROR_ACCESS_DENIED).
// The size (high:low) of a file's section is the file's size when 0, and
// ERROR_FILE_INVALID when the file is then empty; a size above the file's
// size extends the file with PAGE_READWRITE and fails with
// ERROR_NOT_ENOUGH_MEMORY otherwise. A memory section needs a size
// (ERROR_INVALID_PARAMETER). `name` (memory sections only; a named file
// section is ERROR_NOT_SUPPORTED) joins the section of that name when one
// exists anywhere on the machine: the handle refers to it, its own size is
// kept, and the last error is ERROR_ALREADY_EXISTS; a new section leaves the
// last error 0. Null on failure.
HANDLE CreateFileMappingA(HANDLE file, LPSECURITY_ATTRIBUTES security, DWORD protect, DWORD sizeHigh,
                          DWORD sizeLow, LPCSTR name);
// Opens the named section; ERROR_FILE_NOT_FOUND when there is none. `access`
// is checked when a view is mapped. Null on failure.
HANDLE OpenFileMappingA(DWORD access, BOOL inherit, LPCSTR name);
// Maps `bytes` of the section from the offset (0: up to the section's end).
// FILE_MAP_READ reads, FILE_MAP_WRITE (or ALL_ACCESS) reads and writes and
// needs a PAGE_READWRITE section, FILE_MAP_COPY gives private pages that
// writes do not carry to the section. A range past the section's end is
// ERROR_ACCESS_DENIED; `base` other than null asks for that address
// (ERROR_INVALID_ADDRESS when it cannot be had). Null on failure.
LPVOID MapViewOfFileEx(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow, SIZE_T bytes,
                       LPVOID base);
// Ends the view that starts at `base`; ERROR_INVALID_ADDRESS for anything else.
BOOL UnmapViewOfFile(LPCVOID base);

// Number of live views (tests check that nothing leaks).
size_t QzMappedViewCount();

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMMAPPING_H
