// POSIX implementation of the file area of the platform layer.
//
// A handle is a QzFileObject in the shared handle table; the descriptor lives
// as long as the object. Share modes are kept in a registry keyed by the
// file's (device, inode): every open, delete and move of a file checks it and
// changes it under one lock, so the check and the step it guards are one
// step for the threads of this process.
#include "platform/posix/FileObject.h"
#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformFaults.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace qzsys {

namespace {

// ---- Errors -------------------------------------------------------------------------------------

template <typename R>
R Fail(DWORD error, R result) {
  SetLastError(error);
  return result;
}

// A missing name is ERROR_FILE_NOT_FOUND when its folder exists and
// ERROR_PATH_NOT_FOUND when the folder itself is missing, as on Windows.
bool FolderOfExists(const char* path) {
  size_t len = strlen(path);
  while (len > 1 && path[len - 1] == '/') --len;
  size_t cut = len;
  while (cut > 0 && path[cut - 1] != '/') --cut;
  if (cut == 0) return true;  // a bare name lives in the current folder
  while (cut > 1 && path[cut - 1] == '/') --cut;
  char folder[PATH_MAX];
  if (cut >= sizeof folder) return false;
  memcpy(folder, path, cut);
  folder[cut] = 0;
  struct stat st;
  return stat(folder, &st) == 0 && S_ISDIR(st.st_mode);
}

DWORD PathError(const char* path, int err) {
  if (err != ENOENT) return QzErrnoToWin32(err);
  return FolderOfExists(path) ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
}

// The checks every call that takes a path makes first.
bool BadPath(const char* path) {
  if (path == nullptr) return Fail(ERROR_INVALID_PARAMETER, true);
  if (*path == 0) return Fail(ERROR_PATH_NOT_FOUND, true);
  return false;
}

bool IsReadOnlyMode(mode_t mode) { return (mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0; }

// ---- Share registry -----------------------------------------------------------------------------

struct ShareRegistry {
  std::mutex mutex;
  std::map<std::pair<uint64_t, uint64_t>, std::vector<QzFileObject*>> opens;
};

ShareRegistry& Registry() {
  // Never destroyed: handles may be closed by static destructors of hosts.
  static ShareRegistry* registry = new ShareRegistry;
  return *registry;
}

// Whether `share` lets another open have `rights`.
bool Grants(DWORD share, unsigned rights) {
  if ((rights & QZ_RIGHT_READ) && !(share & FILE_SHARE_READ)) return false;
  if ((rights & QZ_RIGHT_WRITE) && !(share & FILE_SHARE_WRITE)) return false;
  if ((rights & QZ_RIGHT_DELETE) && !(share & FILE_SHARE_DELETE)) return false;
  return true;
}

// Whether a new open (or a delete or move, which asks for QZ_RIGHT_DELETE and
// shares everything) fits with every open of the file. Opens that only look
// at a file (no rights) take part on neither side, as on Windows.
// Registry lock held.
bool SharesWith(ShareRegistry& r, uint64_t device, uint64_t inode, unsigned rights, DWORD share) {
  if (rights == 0) return true;
  auto it = r.opens.find({device, inode});
  if (it == r.opens.end()) return true;
  for (const QzFileObject* other : it->second) {
    if (other->rights() == 0) continue;
    if (!Grants(other->share(), rights) || !Grants(share, other->rights())) return false;
  }
  return true;
}

// Registry lock held. False when memory ran out.
bool Register(ShareRegistry& r, QzFileObject* object) {
  try {
    r.opens[{object->device(), object->inode()}].push_back(object);
  } catch (...) {
    return false;
  }
  object->registered = true;
  return true;
}

void Unregister(QzFileObject* object) {
  ShareRegistry& r = Registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto it = r.opens.find({object->device(), object->inode()});
  if (it == r.opens.end()) return;
  std::vector<QzFileObject*>& list = it->second;
  for (size_t i = 0; i < list.size(); ++i) {
    if (list[i] == object) {
      list[i] = list.back();
      list.pop_back();
      break;
    }
  }
  if (list.empty()) r.opens.erase(it);
  object->registered = false;
}

// ---- Opening ------------------------------------------------------------------------------------

int OpenMode(bool read, bool write) {
  if (read && write) return O_RDWR;
  if (write) return O_WRONLY;
  return O_RDONLY;
}

// An absolute copy of `path` from malloc, or null.
char* AbsolutePath(const char* path) {
  if (path[0] == '/') return strdup(path);
  char cwd[PATH_MAX];
  if (getcwd(cwd, sizeof cwd) == nullptr) return nullptr;
  size_t a = strlen(cwd), b = strlen(path);
  char* full = static_cast<char*>(malloc(a + b + 2));
  if (full == nullptr) return nullptr;
  memcpy(full, cwd, a);
  full[a] = '/';
  memcpy(full + a + 1, path, b + 1);
  return full;
}

int Advice(DWORD flags) {
  if (flags & FILE_FLAG_RANDOM_ACCESS) return POSIX_FADV_RANDOM;
  if (flags & FILE_FLAG_SEQUENTIAL_SCAN) return POSIX_FADV_SEQUENTIAL;
  return POSIX_FADV_NORMAL;
}

// Largest piece handed to one read or write: keeps ssize_t results exact on
// i386, where a DWORD count can exceed SSIZE_MAX.
constexpr size_t kMaxPiece = size_t(1) << 30;

}  // namespace

// ---- The file object ----------------------------------------------------------------------------

unsigned QzFileRightsFromAccess(DWORD access) {
  constexpr DWORD kReadData = 0x1, kWriteData = 0x2, kAppendData = 0x4;
  unsigned rights = 0;
  if (access & (GENERIC_READ | GENERIC_ALL | kReadData)) rights |= QZ_RIGHT_READ;
  if (access & (GENERIC_WRITE | GENERIC_ALL | kWriteData | kAppendData)) rights |= QZ_RIGHT_WRITE;
  if (access & (GENERIC_ALL | DELETE)) rights |= QZ_RIGHT_DELETE;
  return rights;
}

QzFileObject::QzFileObject(int fd, DWORD access, unsigned rights, DWORD share, DWORD flags, uint64_t device,
                           uint64_t inode, bool regular)
    : QzKernelObject(QzObjectKind::File),
      fd_(fd),
      access_(access),
      rights_(rights),
      share_(share),
      flags_(flags),
      device_(device),
      inode_(inode),
      regular_(regular) {}

QzFileObject::~QzFileObject() {
  if (registered) Unregister(this);
  if (deletePath_ != nullptr) {
    // Only if the name still leads to this file: it may have been moved away
    // and another file put in its place.
    struct stat st;
    if (stat(deletePath_, &st) == 0 && static_cast<uint64_t>(st.st_dev) == device_ &&
        static_cast<uint64_t>(st.st_ino) == inode_)
      unlink(deletePath_);
    free(deletePath_);
  }
  close(fd_);
}

// ---- CreateFileA --------------------------------------------------------------------------------

HANDLE CreateFileA(LPCSTR path, DWORD access, DWORD shareMode, LPSECURITY_ATTRIBUTES attributes,
                   DWORD disposition, DWORD flagsAndAttributes, HANDLE templateFile) {
  if (QzFaultHit(QZ_FAULT_CREATE_FILE)) return Fail(ERROR_ACCESS_DENIED, QZ_INVALID_HANDLE_VALUE);
  if (BadPath(path)) return QZ_INVALID_HANDLE_VALUE;
  if (disposition < CREATE_NEW || disposition > TRUNCATE_EXISTING)
    return Fail(ERROR_INVALID_PARAMETER, QZ_INVALID_HANDLE_VALUE);

  unsigned rights = QzFileRightsFromAccess(access);
  const bool deleteOnClose = (flagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) != 0;
  if (deleteOnClose) rights |= QZ_RIGHT_DELETE;
  const bool truncate = disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING;
  if (disposition == TRUNCATE_EXISTING && !(rights & QZ_RIGHT_WRITE))
    return Fail(ERROR_INVALID_PARAMETER, QZ_INVALID_HANDLE_VALUE);
  const bool creates = disposition == CREATE_NEW || disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS;
  const DWORD share = shareMode & (FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
  const bool inherit = attributes != nullptr && attributes->bInheritHandle;

  // O_NONBLOCK keeps the open of a FIFO from waiting (under the registry's
  // lock) for the other end; it is cleared again below.
  int base = O_NONBLOCK | O_NOCTTY | (inherit ? 0 : O_CLOEXEC);
  if (flagsAndAttributes & FILE_FLAG_WRITE_THROUGH) base |= O_DSYNC;
  const mode_t mode = (flagsAndAttributes & FILE_ATTRIBUTE_READONLY) ? 0444 : 0666;
  const bool wantRead = (rights & QZ_RIGHT_READ) != 0;
  const bool wantWrite = (rights & QZ_RIGHT_WRITE) != 0;

  ShareRegistry& registry = Registry();
  std::unique_lock<std::mutex> lock(registry.mutex);

  int fd = -1;
  bool created = false;
  // A name removed between the exclusive create and the plain open is tried
  // again; a dangling symbolic link ends the loop as a missing file.
  for (int attempt = 0; attempt < 3 && fd < 0; ++attempt) {
    if (creates) {
      fd = open(path, base | O_CREAT | O_EXCL | OpenMode(wantRead, wantWrite), mode);
      if (fd >= 0) {
        created = true;
        break;
      }
      if (errno != EEXIST || disposition == CREATE_NEW) {
        int err = errno;
        return Fail(PathError(path, err), QZ_INVALID_HANDLE_VALUE);
      }
    }
    // Cutting an existing file needs a writable descriptor even when the
    // caller asked only to read.
    fd = open(path, base | OpenMode(wantRead, wantWrite || truncate));
    if (fd < 0 && errno == EACCES && rights == 0) fd = open(path, O_PATH | (inherit ? 0 : O_CLOEXEC));
    if (fd < 0 && !(errno == ENOENT && creates)) {
      int err = errno;
      return Fail(PathError(path, err), QZ_INVALID_HANDLE_VALUE);
    }
  }
  if (fd < 0) return Fail(ERROR_FILE_NOT_FOUND, QZ_INVALID_HANDLE_VALUE);

  struct stat st;
  DWORD error = ERROR_SUCCESS;
  if (fstat(fd, &st) != 0) {
    error = QzErrnoToWin32(errno);
  } else if (S_ISDIR(st.st_mode)) {
    error = ERROR_ACCESS_DENIED;
  } else if (!created && S_ISREG(st.st_mode) && IsReadOnlyMode(st.st_mode) &&
             (wantWrite || truncate || deleteOnClose)) {
    // The read-only attribute holds for root too, as it does on Windows.
    error = ERROR_ACCESS_DENIED;
  } else if (!SharesWith(registry, st.st_dev, st.st_ino, rights, share)) {
    error = ERROR_SHARING_VIOLATION;
  }
  if (error != ERROR_SUCCESS) {
    close(fd);
    if (created) unlink(path);
    return Fail(error, QZ_INVALID_HANDLE_VALUE);
  }

  QzFileObject* object = new (std::nothrow)
      QzFileObject(fd, access, rights, share, flagsAndAttributes, st.st_dev, st.st_ino, S_ISREG(st.st_mode));
  if (object == nullptr) {
    close(fd);
    if (created) unlink(path);
    return Fail(ERROR_NOT_ENOUGH_MEMORY, QZ_INVALID_HANDLE_VALUE);
  }
  if (!Register(registry, object)) error = ERROR_NOT_ENOUGH_MEMORY;
  else if (truncate && !created && S_ISREG(st.st_mode) && ftruncate(fd, 0) != 0) error = QzErrnoToWin32(errno);
  lock.unlock();  // the object's destructor takes the lock
  if (error != ERROR_SUCCESS) {
    object->Release();
    if (created) unlink(path);
    return Fail(error, QZ_INVALID_HANDLE_VALUE);
  }

  if (deleteOnClose) {
    char* absolute = AbsolutePath(path);
    if (absolute == nullptr) {
      object->Release();
      if (created) unlink(path);
      return Fail(ERROR_NOT_ENOUGH_MEMORY, QZ_INVALID_HANDLE_VALUE);
    }
    object->SetDeleteOnClose(absolute);
  }

  if (rights != 0) {
    int flags = fcntl(fd, F_GETFL);
    if (flags != -1) {
      flags &= ~O_NONBLOCK;
      // Direct I/O where the file system takes it; elsewhere (tmpfs on older
      // kernels, some network file systems) the cache is used after all.
      bool direct = (flagsAndAttributes & FILE_FLAG_NO_BUFFERING) && fcntl(fd, F_SETFL, flags | O_DIRECT) == 0;
      if (!direct) fcntl(fd, F_SETFL, flags);
    }
    int advice = Advice(flagsAndAttributes);
    if (advice != POSIX_FADV_NORMAL && S_ISREG(st.st_mode)) posix_fadvise(fd, 0, 0, advice);
  }

  HANDLE handle = QzHandleInsert(object);
  if (handle == nullptr) {
    if (created) unlink(path);
    return QZ_INVALID_HANDLE_VALUE;  // the table released the object and set the error
  }
  if (disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS)
    SetLastError(created ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS);
  return handle;
}

// ---- Calls on a handle --------------------------------------------------------------------------

namespace {

// The file behind `handle` for a call that needs `rights`; null with the last
// error set for a bad handle, missing access, or the call's failure switch.
// `ref` keeps the object (and its descriptor) alive for the call.
QzFileObject* FileFor(QzObjectRef& ref, HANDLE handle, unsigned rights, QzFault fault) {
  ref = QzFileLookup(handle);
  if (!ref) return nullptr;
  QzFileObject* object = ref.as<QzFileObject>();
  if ((object->rights() & rights) != rights) return Fail(ERROR_ACCESS_DENIED, static_cast<QzFileObject*>(nullptr));
  if (QzFaultHit(fault)) return Fail(ERROR_ACCESS_DENIED, static_cast<QzFileObject*>(nullptr));
  return object;
}

// Moves `size` bytes in pieces with `step(offset, piece)` (a read or a write),
// until done, or the data ends, or after one piece when `whole` is false. A
// failure of the first piece fails the call; a later one ends it early.
template <typename Step>
bool Transfer(size_t size, bool whole, DWORD* done, Step step) {
  size_t total = 0;
  while (total < size) {
    size_t piece = size - total < kMaxPiece ? size - total : kMaxPiece;
    ssize_t n = step(total, piece);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (total == 0) return Fail(QzErrnoToWin32(errno), false);
      break;
    }
    if (n == 0) break;
    total += static_cast<size_t>(n);
    if (!whole) break;
  }
  *done = static_cast<DWORD>(total);
  return true;
}

}  // namespace

BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD size, DWORD* read, void* overlapped) {
  if (read != nullptr) *read = 0;
  QzObjectRef ref;
  QzFileObject* object = FileFor(ref, file, QZ_RIGHT_READ, QZ_FAULT_READ_FILE);
  if (object == nullptr) return FALSE;
  if (read == nullptr || overlapped != nullptr) return Fail(ERROR_INVALID_PARAMETER, FALSE);
  char* out = static_cast<char*>(buffer);
  // A pipe or device gives what it has; only a regular file is read in full.
  return Transfer(size, object->regular(), read, [&](size_t at, size_t piece) {
    return ::read(object->descriptor(), out + at, piece);
  });
}

BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD size, DWORD* written, void* overlapped) {
  if (written != nullptr) *written = 0;
  QzObjectRef ref;
  QzFileObject* object = FileFor(ref, file, QZ_RIGHT_WRITE, QZ_FAULT_WRITE_FILE);
  if (object == nullptr) return FALSE;
  if (written == nullptr || overlapped != nullptr) return Fail(ERROR_INVALID_PARAMETER, FALSE);
  size_t want = QzFaultHit(QZ_FAULT_WRITE_FILE_SHORT) ? size / 2 : size;
  const char* in = static_cast<const char*>(buffer);
  // Part written when the disk fills up is success with the smaller count, so
  // the caller sees exactly what is on disk.
  return Transfer(want, true, written, [&](size_t at, size_t piece) {
    return ::write(object->descriptor(), in + at, piece);
  });
}

DWORD SetFilePointer(HANDLE file, LONG distance, LONG* high, DWORD method) {
  QzObjectRef ref;
  QzFileObject* object = FileFor(ref, file, 0, QZ_FAULT_SET_FILE_POINTER);
  if (object == nullptr) return INVALID_SET_FILE_POINTER;
  if (method > FILE_END) return Fail(ERROR_INVALID_PARAMETER, INVALID_SET_FILE_POINTER);
  int fd = object->descriptor();

  // Without a high half the distance is a signed 32-bit value.
  int64_t move = high != nullptr
                     ? static_cast<int64_t>((static_cast<uint64_t>(static_cast<uint32_t>(*high)) << 32) |
                                            static_cast<uint32_t>(distance))
                     : static_cast<int64_t>(distance);
  int64_t origin = 0;
  if (method == FILE_CURRENT) {
    off_t here = lseek(fd, 0, SEEK_CUR);
    if (here < 0) return Fail(QzErrnoToWin32(errno), INVALID_SET_FILE_POINTER);
    origin = here;
  } else if (method == FILE_END) {
    struct stat st;
    if (fstat(fd, &st) != 0) return Fail(QzErrnoToWin32(errno), INVALID_SET_FILE_POINTER);
    origin = st.st_size;
  }
  if ((move > 0 && origin > INT64_MAX - move)) return Fail(ERROR_INVALID_PARAMETER, INVALID_SET_FILE_POINTER);
  int64_t target = origin + move;
  if (target < 0) return Fail(ERROR_NEGATIVE_SEEK, INVALID_SET_FILE_POINTER);
  // The position must be reportable in the halves the caller gave.
  if (high == nullptr && target > 0xFFFFFFFFll) return Fail(ERROR_INVALID_PARAMETER, INVALID_SET_FILE_POINTER);
  off_t now = lseek(fd, static_cast<off_t>(target), SEEK_SET);
  if (now < 0) return Fail(QzErrnoToWin32(errno), INVALID_SET_FILE_POINTER);
  if (high != nullptr) *high = static_cast<LONG>(static_cast<uint64_t>(now) >> 32);
  SetLastError(ERROR_SUCCESS);
  return static_cast<DWORD>(static_cast<uint64_t>(now));
}

BOOL SetEndOfFile(HANDLE file) {
  QzObjectRef ref;
  QzFileObject* object = FileFor(ref, file, QZ_RIGHT_WRITE, QZ_FAULT_SET_END_OF_FILE);
  if (object == nullptr) return FALSE;
  off_t here = lseek(object->descriptor(), 0, SEEK_CUR);
  if (here < 0 || ftruncate(object->descriptor(), here) != 0) return Fail(QzErrnoToWin32(errno), FALSE);
  return TRUE;
}

BOOL FlushFileBuffers(HANDLE file) {
  QzObjectRef ref;
  QzFileObject* object = FileFor(ref, file, QZ_RIGHT_WRITE, QZ_FAULT_FLUSH_FILE);
  if (object == nullptr) return FALSE;
  // A device or pipe has nothing to flush (fsync says EINVAL there).
  if (fsync(object->descriptor()) != 0 && (object->regular() || errno != EINVAL))
    return Fail(QzErrnoToWin32(errno), FALSE);
  return TRUE;
}

DWORD GetFileSize(HANDLE file, DWORD* high) {
  QzObjectRef ref;
  QzFileObject* object = FileFor(ref, file, 0, QZ_FAULT_GET_FILE_SIZE);
  if (object == nullptr) return INVALID_FILE_SIZE;
  struct stat st;
  if (fstat(object->descriptor(), &st) != 0) return Fail(QzErrnoToWin32(errno), INVALID_FILE_SIZE);
  uint64_t size = static_cast<uint64_t>(st.st_size);
  if (high != nullptr) *high = static_cast<DWORD>(size >> 32);
  SetLastError(ERROR_SUCCESS);
  return static_cast<DWORD>(size);
}

// ---- Calls on a name ----------------------------------------------------------------------------

DWORD GetFileAttributesA(LPCSTR path) {
  if (QzFaultHit(QZ_FAULT_FILE_ATTRIBUTES)) return Fail(ERROR_ACCESS_DENIED, INVALID_FILE_ATTRIBUTES);
  if (BadPath(path)) return INVALID_FILE_ATTRIBUTES;
  struct stat st;
  if (stat(path, &st) != 0) {
    int err = errno;
    return Fail(PathError(path, err), INVALID_FILE_ATTRIBUTES);
  }
  DWORD result = S_ISDIR(st.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : 0;
  if (IsReadOnlyMode(st.st_mode)) result |= FILE_ATTRIBUTE_READONLY;
  return result != 0 ? result : FILE_ATTRIBUTE_NORMAL;
}

BOOL SetFileAttributesA(LPCSTR path, DWORD attributes) {
  if (QzFaultHit(QZ_FAULT_FILE_ATTRIBUTES)) return Fail(ERROR_ACCESS_DENIED, FALSE);
  if (BadPath(path)) return FALSE;
  if (attributes == INVALID_FILE_ATTRIBUTES) return Fail(ERROR_INVALID_PARAMETER, FALSE);
  struct stat st;
  if (stat(path, &st) != 0) {
    int err = errno;
    return Fail(PathError(path, err), FALSE);
  }
  mode_t mode = st.st_mode & 07777;
  mode_t next = mode;
  if (attributes & FILE_ATTRIBUTE_READONLY) next &= ~static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH);
  else if (IsReadOnlyMode(mode)) next |= S_IWUSR;
  if (next != mode && chmod(path, next) != 0) return Fail(QzErrnoToWin32(errno), FALSE);
  return TRUE;
}

BOOL DeleteFileA(LPCSTR path) {
  if (QzFaultHit(QZ_FAULT_DELETE_FILE)) return Fail(ERROR_ACCESS_DENIED, FALSE);
  if (BadPath(path)) return FALSE;
  ShareRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  struct stat st;
  if (lstat(path, &st) != 0) {
    int err = errno;
    return Fail(PathError(path, err), FALSE);
  }
  if (S_ISDIR(st.st_mode)) return Fail(ERROR_ACCESS_DENIED, FALSE);
  if (!S_ISLNK(st.st_mode) && IsReadOnlyMode(st.st_mode)) return Fail(ERROR_ACCESS_DENIED, FALSE);
  if (!SharesWith(registry, st.st_dev, st.st_ino, QZ_RIGHT_DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))
    return Fail(ERROR_SHARING_VIOLATION, FALSE);
  if (unlink(path) != 0) {
    int err = errno;
    return Fail(PathError(path, err), FALSE);
  }
  return TRUE;
}

namespace {

// The move across file systems: a copy under the new name (made exclusively,
// so an existing target is never touched), then the old name goes. On any
// failure the copy is removed and the source stays.
BOOL CopyAcross(LPCSTR from, LPCSTR to, const struct stat& source) {
  if (!S_ISREG(source.st_mode)) return Fail(ERROR_NOT_SAME_DEVICE, FALSE);
  int in = open(from, O_RDONLY | O_CLOEXEC);
  if (in < 0) return Fail(PathError(from, errno), FALSE);
  int out = open(to, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, source.st_mode & 07777);
  if (out < 0) {
    int err = errno;
    close(in);
    return Fail(err == EEXIST ? ERROR_ALREADY_EXISTS : PathError(to, err), FALSE);
  }
  DWORD error = ERROR_SUCCESS;
  char buffer[64 * 1024];
  for (;;) {
    ssize_t n = ::read(in, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) { error = QzErrnoToWin32(errno); break; }
    if (n == 0) break;
    for (ssize_t done = 0; done < n && error == ERROR_SUCCESS;) {
      ssize_t w = ::write(out, buffer + done, static_cast<size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w < 0) error = QzErrnoToWin32(errno);
      else done += w;
    }
    if (error != ERROR_SUCCESS) break;
  }
  if (error == ERROR_SUCCESS) {
    struct timespec times[2] = {source.st_atim, source.st_mtim};
    futimens(out, times);
    if (close(out) != 0) error = QzErrnoToWin32(errno);
  } else {
    close(out);
  }
  close(in);
  if (error == ERROR_SUCCESS && unlink(from) != 0) error = QzErrnoToWin32(errno);
  if (error != ERROR_SUCCESS) {
    unlink(to);
    return Fail(error, FALSE);
  }
  return TRUE;
}

}  // namespace

BOOL MoveFileA(LPCSTR from, LPCSTR to) {
  if (QzFaultHit(QZ_FAULT_MOVE_FILE)) return Fail(ERROR_ACCESS_DENIED, FALSE);
  if (BadPath(from) || BadPath(to)) return FALSE;
  ShareRegistry& registry = Registry();
  std::unique_lock<std::mutex> lock(registry.mutex);
  struct stat st;
  if (lstat(from, &st) != 0) {
    int err = errno;
    return Fail(PathError(from, err), FALSE);
  }
  if (!SharesWith(registry, st.st_dev, st.st_ino, QZ_RIGHT_DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))
    return Fail(ERROR_SHARING_VIOLATION, FALSE);
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return TRUE;
  int err = errno;
  if (err == EINVAL && !S_ISDIR(st.st_mode)) {
    // A file system without the no-replace rename: a hard link is just as
    // exclusive.
    if (link(from, to) == 0) {
      unlink(from);
      return TRUE;
    }
    err = errno;
  }
  if (err == EEXIST) return Fail(ERROR_ALREADY_EXISTS, FALSE);
  if (err == EXDEV) {
    lock.unlock();  // a copy can take long; other opens go on meanwhile
    return CopyAcross(from, to, st);
  }
  // A missing target folder is the target's fault, not the source's.
  return Fail(err == ENOENT ? PathError(to, err) : QzErrnoToWin32(err), FALSE);
}

// ---- Temporary names ----------------------------------------------------------------------------

DWORD GetTempPathA(DWORD size, LPSTR buffer) {
  if (QzFaultHit(QZ_FAULT_TEMP_PATH)) return Fail(ERROR_ACCESS_DENIED, DWORD(0));
  const char* folder = getenv("TMPDIR");
  if (folder == nullptr || *folder == 0) folder = "/tmp";
  size_t length = strlen(folder);
  const bool separator = folder[length - 1] != '/';
  size_t total = length + (separator ? 1 : 0);
  if (total + 1 > size || buffer == nullptr) return static_cast<DWORD>(total + 1);
  memcpy(buffer, folder, length);
  if (separator) buffer[length] = '/';
  buffer[total] = 0;
  return static_cast<DWORD>(total);
}

UINT GetTempFileNameA(LPCSTR folder, LPCSTR prefix, UINT unique, LPSTR name) {
  if (QzFaultHit(QZ_FAULT_TEMP_FILE_NAME)) return Fail(ERROR_ACCESS_DENIED, UINT(0));
  if (folder == nullptr || name == nullptr) return Fail(ERROR_INVALID_PARAMETER, UINT(0));
  size_t folderLength = strlen(folder);
  const bool separator = folderLength > 0 && folder[folderLength - 1] != '/' && folder[folderLength - 1] != '\\';
  size_t prefixLength = prefix == nullptr ? 0 : strnlen(prefix, 3);
  // folder, separator, prefix, four digits, ".tmp" and the terminator
  if (folderLength + (separator ? 1 : 0) + prefixLength + 4 + 4 + 1 > MAX_PATH)
    return Fail(ERROR_FILENAME_EXCED_RANGE, UINT(0));

  char candidate[MAX_PATH];
  size_t stem = folderLength;
  memcpy(candidate, folder, folderLength);
  if (separator) candidate[stem++] = '/';
  if (prefixLength != 0) memcpy(candidate + stem, prefix, prefixLength);
  stem += prefixLength;
  auto build = [&](unsigned number) {
    snprintf(candidate + stem, sizeof candidate - stem, "%04X.tmp", number & 0xFFFFu);
  };

  if (unique != 0) {
    build(unique);
    memcpy(name, candidate, strlen(candidate) + 1);
    return unique;
  }

  // One counter for the process, started somewhere different in each
  // process; threads take numbers from it, and O_EXCL settles any clash with
  // a file that is already there.
  static std::atomic<unsigned> next{static_cast<unsigned>(getpid()) * 2654435761u ^ GetTickCount()};
  for (unsigned tries = 0; tries < 0x10000u; ++tries) {
    unsigned number = next.fetch_add(1, std::memory_order_relaxed) & 0xFFFFu;
    if (number == 0) continue;
    build(number);
    int fd = open(candidate, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd >= 0) {
      close(fd);
      memcpy(name, candidate, strlen(candidate) + 1);
      return number;
    }
    if (errno == EEXIST) continue;
    int err = errno;
    // The folder is what is missing here, whatever the name.
    return Fail(err == ENOENT || err == ENOTDIR ? ERROR_PATH_NOT_FOUND : QzErrnoToWin32(err), UINT(0));
  }
  return Fail(ERROR_FILE_EXISTS, UINT(0));
}

}  // namespace qzsys
