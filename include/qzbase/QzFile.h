// qzbase: files and temporary files.
//
// QzFile owns one system file handle (-1 when it has none) and closes it when
// destroyed; QzFile::Open turns one word of flags into the arguments of the
// system's file creation. QzTemporaryFile is a scratch file with a
// system-made name, which its owner can hand over to another component and
// take back (HandsOff, HandsOn), and finally delete or put in place under a
// final name (Close).
//
// Ownership: each object owns its handle. The destructor of QzTemporaryFile
// closes the handle only; a scratch file never given to Close stays on disk.
// Threads: no lock; an object belongs to one thread at a time.
// Failures: results are HRESULTs (0 success, negative failure); a system
// error e above 0 becomes 0x80070000 | (e & 0xFFFF). Nothing here throws or
// logs.
#ifndef QZBASE_QZFILE_H
#define QZBASE_QZFILE_H

#include <qzbase/QzTypes.h>
#include <qzbase/QzString.h>

// Flags of QzFile::Open, ORed together.
enum QzFileOpenFlags : unsigned int {
  QZ_FILE_READ = 0x0,               // access: read
  QZ_FILE_WRITE = 0x1,              // access: write
  QZ_FILE_READ_WRITE = 0x2,         // access: both
  QZ_FILE_NO_ACCESS = 0x3,          // access: none (attributes and size only)
  QZ_FILE_SHARE_READ = 0x20,        // others may read
  QZ_FILE_SHARE_WRITE = 0x30,       // others may write
  QZ_FILE_SHARE_READ_WRITE = 0x40,  // others may read and write; any other value of 0x70: no sharing
  QZ_FILE_NOT_INHERITABLE = 0x80,   // the handle is not inherited by child processes
  QZ_FILE_CREATE = 0x1000,          // create anew, cutting an existing file
  QZ_FILE_OPEN_ALWAYS = 0x3000,     // open an existing file as it is, or create it
  QZ_FILE_NO_BUFFERING = 0x10000,
  QZ_FILE_WRITE_THROUGH = 0x20000,
  QZ_FILE_RANDOM_ACCESS = 0x40000,
  QZ_FILE_SEQUENTIAL_SCAN = 0x80000
};

class QzFile {
 public:
  QzFile() : handle(reinterpret_cast<void*>(static_cast<intptr_t>(-1))) {}
  QZ_API ~QzFile();
  // Opens `path` by `flags` (bit 0x8000 is ignored). 0, or the failure code of
  // the system error (0x8000FFFF when the system gave none); on failure the
  // handle is left as it was. Does not close a handle it already holds.
  QZ_API HRESULT Open(const char* path, unsigned int flags);
  bool IsOpen() const { return handle != reinterpret_cast<void*>(static_cast<intptr_t>(-1)); }

  void* handle;  // the system handle, -1 when there is none

  QzFile(const QzFile&) = delete;
  QzFile& operator=(const QzFile&) = delete;
};

class QzTemporaryFile {
 public:
  QZ_API QzTemporaryFile();
  QZ_API ~QzTemporaryFile();
  // Makes the scratch file in `folder` (used as given, no separator added), or
  // in the system's temporary folder (TMPDIR, else /tmp) when `folder` is
  // empty, and opens it with `access`, no sharing and an inheritable handle.
  // 0x80020013 for a folder of 260 characters or more (or a system folder of
  // more than 256); a folder so long that the name would not fit 259
  // characters gives 0x800700CE; E_OUTOFMEMORY when the pool has no work
  // space; otherwise 0 or the system error's code. When the open fails after
  // the name was made, the empty file stays on disk and GetPath names it. A
  // handle from an earlier Create on the same object is closed (its file
  // stays) when the new one opens; when a second Create fails after making
  // its name, GetPath names the new empty file while the handle is still the
  // earlier file's.
  QZ_API HRESULT Create(const QzStringT<char>& folder, DWORD access);
  // Flushes and closes, keeping the path, so another component may open it.
  // Always 0; may be called again.
  QZ_API HRESULT HandsOff();
  // Opens the path again (OPEN_EXISTING, the access of Create, no sharing) and
  // moves to its end, so writes append. 0 or the system error's code (0x80070020
  // while another handle holds the file); if only the move fails, the file
  // stays open and the code is returned.
  QZ_API HRESULT HandsOn();
  // Closes; with an empty `target` deletes the scratch file and returns 0;
  // otherwise deletes `target` (a missing one is fine) and moves the scratch
  // file there, across file systems too. When the target cannot be deleted
  // (read-only, a folder, open elsewhere, in a missing folder) returns that
  // error and leaves both files; Close may be called again. A failing move
  // returns its error with the scratch file kept (the old target is then
  // already gone). When there is no scratch file (Create never succeeded in
  // making one, or it was removed), returns that error and leaves the target
  // alone; a `target` equal to the path keeps the file where it is.
  QZ_API HRESULT Close(const QzStringT<char>& target);

  const QzStringT<char>& GetPath() const { return path; }
  void* GetHandle() const { return file.handle; }

  DWORD access;
  QzFile file;
  QzStringT<char> path;

  QzTemporaryFile(const QzTemporaryFile&) = delete;
  QzTemporaryFile& operator=(const QzTemporaryFile&) = delete;
};

#endif  // QZBASE_QZFILE_H
