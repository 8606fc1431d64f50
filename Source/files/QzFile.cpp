// Files and temporary files.
#include <qzbase/QzFile.h>
#include <qzbase/QzException.h>
#include <qzbase/QzMempool.h>

#include "frame/QzException.h"
#include "platform/QzPlatform.h"

#include <string.h>

using namespace qzsys;

namespace {

HANDLE NoHandle() { return QZ_INVALID_HANDLE_VALUE; }

// The code of the last error as it stands: 0 stays 0. Used where a failure
// is reported "as the system gave it", with no stand-in for a missing error.
HRESULT CodeOfLastError() { return HRESULT_FROM_WIN32(GetLastError()); }

// Closes a handle that isn't -1; only a successful close forgets it.
void CloseIfOpen(QzFile& file) {
  if (file.handle != NoHandle() && CloseHandle(file.handle)) file.handle = NoHandle();
}

// A zeroed block of MAX_PATH bytes from the default pool, returned on every
// way out.
class PathBlock {
 public:
  PathBlock() : block_(static_cast<char*>(Qz_MempoolAlloc(nullptr, MAX_PATH))) {
    if (block_ != nullptr) memset(block_, 0, MAX_PATH);
  }
  ~PathBlock() {
    if (block_ != nullptr) Qz_MempoolFree(nullptr, block_);
  }
  char* get() const { return block_; }
  PathBlock(const PathBlock&) = delete;
  PathBlock& operator=(const PathBlock&) = delete;

 private:
  char* block_;
};

DWORD AccessOf(unsigned int flags) {
  switch (flags & 0x3) {
    case 0: return GENERIC_READ;
    case 1: return GENERIC_WRITE;
    case 2: return GENERIC_READ | GENERIC_WRITE;
    default: return 0;
  }
}

DWORD ShareOf(unsigned int flags) {
  switch (flags & 0x70) {
    case 0x20: return FILE_SHARE_READ;
    case 0x30: return FILE_SHARE_WRITE;
    case 0x40: return FILE_SHARE_READ | FILE_SHARE_WRITE;
    default: return 0;
  }
}

DWORD DispositionOf(unsigned int flags) {
  if (!(flags & 0x1000)) return OPEN_EXISTING;
  return (flags & 0x2000) ? OPEN_ALWAYS : CREATE_ALWAYS;
}

DWORD CacheFlagsOf(unsigned int flags) {
  DWORD result = 0;
  if (flags & 0x10000) result |= FILE_FLAG_NO_BUFFERING;
  if (flags & 0x20000) result |= FILE_FLAG_WRITE_THROUGH;
  if (flags & 0x40000) result |= FILE_FLAG_RANDOM_ACCESS;
  if (flags & 0x80000) result |= FILE_FLAG_SEQUENTIAL_SCAN;
  return result;
}

}  // namespace

// ---- QzFile ---------------------------------------------------------------------------------------

QzFile::~QzFile() { CloseIfOpen(*this); }

HRESULT QzFile::Open(const char* path, unsigned int flags) {
  flags &= ~0x8000u;
  SECURITY_ATTRIBUTES security = {static_cast<DWORD>(sizeof(SECURITY_ATTRIBUTES)), nullptr,
                                  (flags & 0x80) ? FALSE : TRUE};
  HANDLE opened = CreateFileA(path, AccessOf(flags), ShareOf(flags), &security, DispositionOf(flags),
                              FILE_ATTRIBUTE_NORMAL | CacheFlagsOf(flags), nullptr);
  if (opened == NoHandle()) return QzHresultFromLastError();
  handle = opened;
  return S_OK;
}

// ---- QzTemporaryFile ------------------------------------------------------------------------------

QzTemporaryFile::QzTemporaryFile() : access(0) {}

QzTemporaryFile::~QzTemporaryFile() {}  // the QzFile member closes the handle; the file stays

HRESULT QzTemporaryFile::Create(const QzStringT<char>& folder, DWORD access) {
  PathBlock folderBlock, nameBlock;
  if (folderBlock.get() == nullptr || nameBlock.get() == nullptr) return E_OUTOFMEMORY;

  if (folder.length() != 0) {
    if (folder.length() >= MAX_PATH) return DISP_E_BUFFERTOOSMALL;
    memcpy(folderBlock.get(), folder.c_str(), folder.length() + 1);
  } else {
    DWORD length = GetTempPathA(MAX_PATH, folderBlock.get());
    if (length == 0) return CodeOfLastError();
    if (length > 256) return DISP_E_BUFFERTOOSMALL;
  }

  if (GetTempFileNameA(folderBlock.get(), "TFR", 0, nameBlock.get()) == 0) return CodeOfLastError();
  try {
    path = QzStringT<char>(nameBlock.get());
  } catch (const QzException&) {
    // Nobody could learn the name: take the file back.
    DeleteFileA(nameBlock.get());
    return E_OUTOFMEMORY;
  }
  this->access = access;

  SECURITY_ATTRIBUTES security = {static_cast<DWORD>(sizeof(SECURITY_ATTRIBUTES)), nullptr, TRUE};
  HANDLE opened = CreateFileA(path.c_str(), access, 0, &security, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_TEMPORARY | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED, nullptr);
  if (opened == NoHandle()) return QzHresultFromLastError();  // the empty file stays on disk
  // A second Create on the same object would otherwise lose the first handle.
  CloseIfOpen(file);
  file.handle = opened;
  return S_OK;
}

HRESULT QzTemporaryFile::HandsOff() {
  FlushFileBuffers(file.handle);
  CloseIfOpen(file);
  return S_OK;
}

HRESULT QzTemporaryFile::HandsOn() {
  HANDLE opened = CreateFileA(path.c_str(), access, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (opened == NoHandle()) return QzHresultFromLastError();
  file.handle = opened;
  // With the high half, so that a scratch file past 4 GiB is no failure.
  LONG high = 0;
  if (SetFilePointer(file.handle, 0, &high, FILE_END) == INVALID_SET_FILE_POINTER) {
    HRESULT code = CodeOfLastError();
    if (code < 0) return code;
  }
  return S_OK;
}

HRESULT QzTemporaryFile::Close(const QzStringT<char>& target) {
  CloseIfOpen(file);
  if (target.length() == 0) {
    DeleteFileA(path.c_str());
    return S_OK;
  }
  // Already in place: deleting the target would delete the only copy.
  if (target == path) return S_OK;
  // No scratch file (never created, or gone): keep the target rather than
  // delete it for nothing.
  if (GetFileAttributesA(path.c_str()) == INVALID_FILE_ATTRIBUTES) return CodeOfLastError();
  if (!DeleteFileA(target.c_str()) && GetLastError() != ERROR_FILE_NOT_FOUND) return CodeOfLastError();
  if (!MoveFileA(path.c_str(), target.c_str())) return CodeOfLastError();
  return S_OK;
}
