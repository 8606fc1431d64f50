// POSIX side of a file handle: the kernel object that CreateFileA registers.
//
// The object owns one descriptor and closes it in its destructor, which runs
// when the handle is closed and no call (and no other object, such as a file
// mapping that took a reference) still holds it; so a descriptor is never
// closed, and never reused by the system, under a call in flight.
//
// Code of the platform layer that works on a file handle (file mapping, for
// one) reaches the descriptor through QzFileLookup:
//
//   QzObjectRef ref = QzFileLookup(handle);       // ERROR_INVALID_HANDLE when empty
//   if (!ref) return failure;
//   int fd = ref.as<QzFileObject>()->descriptor();
//
// Keep the reference for as long as the descriptor is used; keeping it longer
// (a mapping section does) also keeps the file's share mode in force, as a
// section keeps a file open on Windows.
#ifndef QZBASE_PLATFORM_POSIX_FILEOBJECT_H
#define QZBASE_PLATFORM_POSIX_FILEOBJECT_H

#include "platform/posix/Handles.h"
#include "platform/QzPlatformFile.h"

#include <stdint.h>

namespace qzsys {

// Access and share rights in the form the share-mode check compares them.
enum QzFileRights : unsigned {
  QZ_RIGHT_READ = 1,
  QZ_RIGHT_WRITE = 2,
  QZ_RIGHT_DELETE = 4,
};

// The rights that a Windows access mask asks for (GENERIC_ALL gives all three).
unsigned QzFileRightsFromAccess(DWORD access);

class QzFileObject final : public QzKernelObject {
 public:
  // Adopts `fd`. `access` is the mask CreateFileA was given and `rights` the
  // QZ_RIGHT_* it stands for; `share` are the FILE_SHARE_* bits granted to
  // later opens and `flags` the flags and attributes of the open. `regular`
  // tells a regular file (whose reads and writes are completed in full) from a
  // device or pipe. The object is not in the share registry until the opener
  // adds it; the destructor takes it out again.
  QzFileObject(int fd, DWORD access, unsigned rights, DWORD share, DWORD flags, uint64_t device, uint64_t inode,
               bool regular);
  ~QzFileObject() override;

  int descriptor() const { return fd_; }
  DWORD access() const { return access_; }
  DWORD flags() const { return flags_; }
  unsigned rights() const { return rights_; }
  bool CanRead() const { return (rights_ & QZ_RIGHT_READ) != 0; }
  bool CanWrite() const { return (rights_ & QZ_RIGHT_WRITE) != 0; }
  DWORD share() const { return share_; }
  uint64_t device() const { return device_; }
  uint64_t inode() const { return inode_; }
  bool regular() const { return regular_; }

  // FILE_FLAG_DELETE_ON_CLOSE: takes ownership of an absolute path allocated
  // with malloc, which the destructor removes if it still names this file.
  void SetDeleteOnClose(char* absolutePath) { deletePath_ = absolutePath; }

  // Set while the object is in the share registry (under the registry's lock).
  bool registered = false;

 private:
  const int fd_;
  const DWORD access_;
  const unsigned rights_;
  const DWORD share_;
  const DWORD flags_;
  const uint64_t device_;
  const uint64_t inode_;
  const bool regular_;
  char* deletePath_ = nullptr;
};

// The file object behind a handle, with a reference for the caller; empty with
// ERROR_INVALID_HANDLE for a closed or made-up handle or one of another kind.
inline QzObjectRef QzFileLookup(HANDLE handle) { return QzHandleLookup(handle, QzObjectKind::File); }

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_POSIX_FILEOBJECT_H
