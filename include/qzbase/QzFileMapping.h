// qzbase: one file-mapping section and one view of it.
//
// QzFileMapping makes or joins a section (new shared memory, optionally
// named so that other processes can join it; an existing named section; or
// an open file) and maps one view. The fields are the host's to read.
//
// Ownership: the object owns the section's handle and the view, and gives
// both up in Unmap and in its destructor. MapFile does not take the file's
// handle: the caller keeps and closes it (the section keeps the file open
// for as long as it lives). Mapping again without Unmap loses the old handle
// and view. A named section's memory lives until its last handle and view in
// any process are gone.
// Threads: no lock; an object belongs to one thread at a time. The section's
// contents have no guard of their own.
// Failures: results are HRESULTs, 0 or 0x80070000 | the system error (for
// example 0x800703E6 for a section of 0 bytes on an empty file, 0x80070008
// for one past the end of a file that the section may not write, 0x8007046C
// for a view offset that is not a multiple of 64 KiB). A failed call leaves
// `view` and `handle` null. Nothing is logged or thrown.
#ifndef QZBASE_QZFILEMAPPING_H
#define QZBASE_QZFILEMAPPING_H

#include <qzbase/QzTypes.h>

#if !defined(_WIN32) && !defined(QZ_NO_WIN_TYPES)
typedef struct _SECURITY_ATTRIBUTES {
  DWORD nLength;
  void* lpSecurityDescriptor;
  BOOL bInheritHandle;
} SECURITY_ATTRIBUTES;
#endif

// The protections (`protect`) and view accesses (`access`) that the calls
// pass on, with the Windows values.
enum QzMappingValues : DWORD {
  QZ_PAGE_READONLY = 0x02,
  QZ_PAGE_READWRITE = 0x04,
  QZ_PAGE_WRITECOPY = 0x08,
  QZ_FILE_MAP_COPY = 0x01,
  QZ_FILE_MAP_WRITE = 0x02,
  QZ_FILE_MAP_READ = 0x04,
  QZ_FILE_MAP_ALL_ACCESS = 0xF001F
};

class QZ_API QzFileMapping {
 public:
  QzFileMapping();
  // Unmap, with its result dropped.
  ~QzFileMapping();

  // Makes the section of `size` bytes, or joins the one called `name` (which
  // keeps its own size), and maps `size` bytes of it. `existed` (may be null)
  // becomes 1 when the named section was there already.
  HRESULT MapSharedMem(DWORD size, const char* name, int* existed, _SECURITY_ATTRIBUTES* security, DWORD protect,
                       DWORD access);
  // Opens the section called `name` and maps `size` bytes from `offset`.
  HRESULT OpenMapping(const char* name, DWORD size, DWORD access, uint64_t offset);
  // Makes a section over an open file and maps `size` bytes from `offset`
  // (size 0: up to the end of the file). A size beyond the file's end with a
  // writable protection extends the file.
  HRESULT MapFile(void* file, DWORD size, DWORD protect, DWORD access, uint64_t offset);
  // Gives up the view, then the handle. The first failure is the result.
  HRESULT Unmap();

  void* view;        // the mapped view, null when there is none
  DWORD size;        // the view's length in bytes
  void* handle;      // the section's handle, null when there is none
  DWORD access;      // the view's access
  uint64_t offset;   // the view's offset in the section

  QzFileMapping(const QzFileMapping&) = delete;
  QzFileMapping& operator=(const QzFileMapping&) = delete;
};

#endif  // QZBASE_QZFILEMAPPING_H
