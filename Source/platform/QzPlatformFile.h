// Platform layer, files: CreateFileA and the calls on a file handle, file
// attributes, delete, move, and the temporary folder and names.
//
// File handles belong to the shared handle space (QzPlatformHandle.h): a
// closed or made-up handle fails with ERROR_INVALID_HANDLE and never reaches
// another file. Paths are narrow and go to the system unchanged (a backslash
// is an ordinary character on Linux).
//
// Share modes are enforced between opens inside this process: an open whose
// access an earlier, still open handle's share mode forbids, or whose share
// mode forbids the access of an earlier open handle, fails with
// ERROR_SHARING_VIOLATION (32), as on Windows. Opens with access 0 take no
// part. DeleteFileA and MoveFileA (of the source) ask for delete access, so
// they fail the same way while a handle without FILE_SHARE_DELETE is open.
// A handle's share mode lasts until its object goes: while a call is in
// flight, or while a file mapping made from it lives. Other processes are not
// held back (POSIX has no mandatory share modes). Opens, deletes and moves
// check and act under one process-wide lock.
//
// Missing names: ERROR_FILE_NOT_FOUND when the folder exists,
// ERROR_PATH_NOT_FOUND when it does not; a null path is
// ERROR_INVALID_PARAMETER and an empty one ERROR_PATH_NOT_FOUND. Offsets are
// 64-bit on every width.
//
// Each call that can fail has a failure switch (QzPlatformFaults.h):
// QZ_FAULT_CREATE_FILE, QZ_FAULT_READ_FILE, QZ_FAULT_WRITE_FILE,
// QZ_FAULT_WRITE_FILE_SHORT (succeeds, writes the first half of what was
// asked), QZ_FAULT_FLUSH_FILE, QZ_FAULT_SET_FILE_POINTER,
// QZ_FAULT_SET_END_OF_FILE, QZ_FAULT_GET_FILE_SIZE, QZ_FAULT_FILE_ATTRIBUTES,
// QZ_FAULT_DELETE_FILE, QZ_FAULT_MOVE_FILE, QZ_FAULT_TEMP_PATH,
// QZ_FAULT_TEMP_FILE_NAME. A switched failure sets ERROR_ACCESS_DENIED and
// changes nothing on disk.
#ifndef QZBASE_PLATFORM_QZPLATFORMFILE_H
#define QZBASE_PLATFORM_QZPLATFORMFILE_H

#include "platform/QzWinTypes.h"
#include "platform/QzPlatformHandle.h"

namespace qzsys {

constexpr DWORD GENERIC_READ = 0x80000000u;
constexpr DWORD GENERIC_WRITE = 0x40000000u;
constexpr DWORD GENERIC_ALL = 0x10000000u;
constexpr DWORD DELETE = 0x00010000u;
constexpr DWORD FILE_SHARE_READ = 1;
constexpr DWORD FILE_SHARE_WRITE = 2;
constexpr DWORD FILE_SHARE_DELETE = 4;
constexpr DWORD CREATE_NEW = 1;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD OPEN_ALWAYS = 4;
constexpr DWORD TRUNCATE_EXISTING = 5;
constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x1;
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr DWORD FILE_ATTRIBUTE_ARCHIVE = 0x20;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD FILE_ATTRIBUTE_TEMPORARY = 0x100;
constexpr DWORD FILE_ATTRIBUTE_NOT_CONTENT_INDEXED = 0x2000;
constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFFu;
constexpr DWORD FILE_FLAG_WRITE_THROUGH = 0x80000000u;
constexpr DWORD FILE_FLAG_NO_BUFFERING = 0x20000000u;
constexpr DWORD FILE_FLAG_RANDOM_ACCESS = 0x10000000u;
constexpr DWORD FILE_FLAG_SEQUENTIAL_SCAN = 0x08000000u;
constexpr DWORD FILE_FLAG_DELETE_ON_CLOSE = 0x04000000u;
constexpr DWORD FILE_BEGIN = 0;
constexpr DWORD FILE_CURRENT = 1;
constexpr DWORD FILE_END = 2;
constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFFu;
constexpr DWORD INVALID_FILE_SIZE = 0xFFFFFFFFu;
constexpr DWORD MAX_PATH = 260;
constexpr DWORD ERROR_NOT_SAME_DEVICE = 17;

// Opens or creates a file. Access: GENERIC_READ/GENERIC_WRITE, or 0 (the
// file is only looked at: attributes and size). Dispositions CREATE_NEW,
// CREATE_ALWAYS (an existing file is cut to 0; the last error is then
// ERROR_ALREADY_EXISTS), OPEN_EXISTING, OPEN_ALWAYS (ERROR_ALREADY_EXISTS
// when it existed), TRUNCATE_EXISTING. Flags and attributes:
// FILE_ATTRIBUTE_READONLY on a new file makes it read-only; the cache hints
// become posix_fadvise advice; FILE_FLAG_NO_BUFFERING asks for O_DIRECT and
// falls back to buffered I/O where the file system refuses it (the caller's
// alignment duties are then not checked); FILE_FLAG_WRITE_THROUGH is O_DSYNC;
// FILE_FLAG_DELETE_ON_CLOSE removes the file when its last handle goes (and
// asks for delete access). Other flags and attributes are accepted and
// ignored, and so is the template. A directory cannot be opened
// (ERROR_ACCESS_DENIED), nor can a read-only file be opened for writing, cut or
// deleted on close (ERROR_ACCESS_DENIED, for root too). TRUNCATE_EXISTING
// without write access, or an unknown disposition: ERROR_INVALID_PARAMETER.
// The handle is inheritable (stays open across exec) only when `attributes`
// says so. Nothing is left on disk by an open that fails. INVALID_HANDLE_VALUE
// with the last error on failure.
HANDLE CreateFileA(LPCSTR path, DWORD access, DWORD shareMode, LPSECURITY_ATTRIBUTES attributes,
                   DWORD disposition, DWORD flagsAndAttributes, HANDLE templateFile);

// Reads up to `size` bytes at the file position; *read gets the count (0 at
// the end of the file, which is success). A regular file is read until `size`
// or its end; a device or pipe gives what one read gets. `read` null or an
// `overlapped` record (not supported): ERROR_INVALID_PARAMETER. A handle
// without read access: ERROR_ACCESS_DENIED.
BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD size, DWORD* read, void* overlapped);
// Writes `size` bytes at the file position; *written gets the count. All of
// them are written unless the disk fills up part way, which is success with
// the smaller count (nothing written at all is a failure). Arguments and
// access as ReadFile.
BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD size, DWORD* written, void* overlapped);
// Moves the file position: the 64-bit distance is `distance` with *high as
// its upper half when `high` is not null (the new position's upper half is
// stored back there). Result: the new position's lower half; on failure
// INVALID_SET_FILE_POINTER with the last error set (ERROR_NEGATIVE_SEEK for a
// position before 0; ERROR_INVALID_PARAMETER for a method above FILE_END or,
// when `high` is null, for a position past 0xFFFFFFFF). A failure leaves the
// position and *high as they were. Since a lower half of 0xFFFFFFFF is also a
// valid answer, callers with `high` test the last error: a success sets it to
// 0. Seeking past the end is allowed; the file grows only when written.
DWORD SetFilePointer(HANDLE file, LONG distance, LONG* high, DWORD method);
// Cuts or extends the file at the file position. Needs write access.
BOOL SetEndOfFile(HANDLE file);
// Writes the file's data and metadata through to the disk. Needs write
// access (ERROR_ACCESS_DENIED otherwise, as on Windows).
BOOL FlushFileBuffers(HANDLE file);
// The size's lower half; the upper half goes to *high when not null. On
// failure INVALID_FILE_SIZE with the last error set (success sets it to 0).
DWORD GetFileSize(HANDLE file, DWORD* high);

// Attributes from the file's mode: FILE_ATTRIBUTE_DIRECTORY for a folder,
// FILE_ATTRIBUTE_READONLY (added) when nobody may write, else
// FILE_ATTRIBUTE_NORMAL alone. Symbolic links are followed. INVALID_FILE_ATTRIBUTES with ERROR_FILE_NOT_FOUND or
// ERROR_PATH_NOT_FOUND for a missing path.
DWORD GetFileAttributesA(LPCSTR path);
// Only FILE_ATTRIBUTE_READONLY is acted on: set, it takes every write
// permission away; clear, it gives the owner write permission back.
BOOL SetFileAttributesA(LPCSTR path, DWORD attributes);
// Deletes a file (not a folder: ERROR_ACCESS_DENIED). A read-only file is
// refused with ERROR_ACCESS_DENIED, as on Windows, and so is a file open
// without FILE_SHARE_DELETE (ERROR_SHARING_VIOLATION). The name goes at once;
// handles still open keep working on the nameless file. A symbolic link is
// deleted itself.
BOOL DeleteFileA(LPCSTR path);
// Renames or moves a file or folder. Like Windows, it refuses an existing
// target (a file or folder, and the source itself) with ERROR_ALREADY_EXISTS
// and never replaces it: the check and the move are one step (a no-replace
// rename, or link then unlink where that is missing). Across file systems a
// file is copied under the new name (exclusively, with its mode and times),
// then the old name is removed; on any failure the copy goes and the source
// stays. A folder cannot cross file systems (ERROR_NOT_SAME_DEVICE). A
// missing target folder is ERROR_PATH_NOT_FOUND.
BOOL MoveFileA(LPCSTR from, LPCSTR to);

// The temporary folder: TMPDIR when set and not empty, else /tmp, always with
// one trailing '/'. Result: its length without the terminator when it fits in
// `size` units, else the size needed with the terminator (nothing written);
// 0 with the last error on failure.
DWORD GetTempPathA(DWORD size, LPSTR buffer);
// With `unique` 0: makes a new empty file named <folder><prefix, at most 3
// characters><4 hexadecimal digits>.tmp, created atomically (O_EXCL), so two
// calls never get the same name; result the number used. With `unique` not 0:
// only builds the name with that number and creates nothing. `folder` is used
// as given; a separator is added when it does not end in '/' or '\\'. The
// buffer must hold MAX_PATH characters; a name that would not fit there with
// its terminator fails with ERROR_FILENAME_EXCED_RANGE and writes nothing. The four digits are upper
// case, from the number's low 16 bits. 0 with the last error on failure
// (ERROR_INVALID_PARAMETER for a null folder or buffer, ERROR_PATH_NOT_FOUND
// for a missing folder, ERROR_FILE_EXISTS when all 65535 names are taken).
UINT GetTempFileNameA(LPCSTR folder, LPCSTR prefix, UINT unique, LPSTR name);

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMFILE_H
