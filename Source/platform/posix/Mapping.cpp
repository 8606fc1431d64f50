// POSIX implementation of the file-mapping area.
//
// A section is a descriptor and a size: the file's own descriptor (through a
// reference to its file object), a memfd for a private memory section, or a
// POSIX shared-memory object for a named one. A named object starts with one
// page of bookkeeping that every process shares: the section's size and
// protection and the number of section objects in all processes that refer
// to it. Joining, leaving and the last leaver's unlink happen under flock on
// that object, so a process never joins a section that is being removed: it
// sees the "dead" mark and makes a new one instead.
#include "platform/QzPlatformMapping.h"
#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformFaults.h"
#include "platform/posix/FileObject.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <new>
#include <string>

namespace qzsys {

namespace {

constexpr uint64_t kGranularity = 0x10000;
// Read-only views up to this size get their page tables filled at once, as a
// stream's sliding view is read from end to end: one system call instead of a
// fault per few pages, which costs most where paging is virtualised.
constexpr uint64_t kPopulateLimit = 1u << 20;
constexpr uint32_t kSharedMagic = 0x515A5345u;

template <typename R>
R Fail(DWORD error, R result) {
  SetLastError(error);
  return result;
}

// What the named object shares between processes; the data follow one page on.
struct SharedHeader {
  uint32_t magic;
  uint32_t dead;     // the last user has left and unlinked the name
  uint64_t size;
  uint64_t users;    // section objects, in every process, that refer to it
  uint32_t protect;
};

size_t PageSize() {
  static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return page;
}

// PAGE_READONLY, PAGE_READWRITE or PAGE_WRITECOPY, or 0 when not one of them.
DWORD NormalProtect(DWORD protect) {
  switch (protect & 0xFFu) {
    case PAGE_READONLY: case PAGE_EXECUTE_READ: return PAGE_READONLY;
    case PAGE_READWRITE: case PAGE_EXECUTE_READWRITE: return PAGE_READWRITE;
    case PAGE_WRITECOPY: case PAGE_EXECUTE_WRITECOPY: return PAGE_WRITECOPY;
    default: return 0;
  }
}

class QzSection final : public QzKernelObject {
 public:
  QzSection() : QzKernelObject(QzObjectKind::Mapping) {}
  ~QzSection() override {
    if (header_ != nullptr) {
      flock(fd_, LOCK_EX);
      if (--header_->users == 0) {
        header_->dead = 1;
        shm_unlink(shmName_.c_str());
      }
      flock(fd_, LOCK_UN);
      munmap(header_, PageSize());
    }
    if (fd_ >= 0) close(fd_);
  }

  int descriptor() const { return file_ ? file_.as<QzFileObject>()->descriptor() : fd_; }

  QzObjectRef file_;          // a file's section: keeps the file open
  int fd_ = -1;               // memory sections: owned
  uint64_t size_ = 0;
  uint64_t dataOffset_ = 0;   // where the data start in the descriptor
  DWORD protect_ = 0;
  SharedHeader* header_ = nullptr;
  std::string shmName_;
};

// The shared-memory name of a section name: every byte that is not a plain
// letter, digit, '-' or '_' is escaped, so "Local\\x" and "Local/x" stay apart.
bool ShmName(const char* name, std::string* out) {
  static const char hex[] = "0123456789ABCDEF";
  std::string s = "/qzbase.section.";
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p) {
    if ((*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z') || (*p >= '0' && *p <= '9') || *p == '-' || *p == '_') {
      s += static_cast<char>(*p);
    } else {
      s += '.';
      s += hex[*p >> 4];
      s += hex[*p & 15];
    }
  }
  if (s.size() > 250) return false;
  *out = std::move(s);
  return true;
}

// Joins the named section, or (with `create`) makes it with `size` bytes.
// Fills the section's fields; false with the last error set.
bool JoinNamed(QzSection* section, const char* name, bool create, uint64_t size, DWORD protect, bool* existed) {
  if (!ShmName(name, &section->shmName_)) return Fail(ERROR_FILENAME_EXCED_RANGE, false);
  const size_t page = PageSize();
  for (int attempt = 0; attempt < 10000; ++attempt) {
    int fd = shm_open(section->shmName_.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0600);
    if (fd < 0) return Fail(QzErrnoToWin32(errno), false);
    struct stat st;
    if (flock(fd, LOCK_EX) != 0 || fstat(fd, &st) != 0) {
      DWORD e = QzErrnoToWin32(errno);
      close(fd);
      return Fail(e, false);
    }
    bool fresh = st.st_size == 0;
    if (fresh && !create) {
      // A creator between its open and its first lock: let it finish.
      close(fd);
      sched_yield();
      continue;
    }
    if (fresh && ftruncate(fd, static_cast<off_t>(page + size)) != 0) {
      DWORD e = QzErrnoToWin32(errno);
      shm_unlink(section->shmName_.c_str());
      close(fd);
      return Fail(e == ERROR_DISK_FULL ? ERROR_NOT_ENOUGH_MEMORY : e, false);
    }
    void* h = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (h == MAP_FAILED) {
      DWORD e = QzErrnoToWin32(errno);
      close(fd);
      return Fail(e, false);
    }
    SharedHeader* header = static_cast<SharedHeader*>(h);
    if (fresh) {
      header->magic = kSharedMagic;
      header->dead = 0;
      header->size = size;
      header->users = 1;
      header->protect = protect;
    } else if (header->dead != 0 || header->magic != kSharedMagic) {
      // Being removed by its last user: the name is about to be free.
      munmap(h, page);
      close(fd);
      sched_yield();
      continue;
    } else {
      ++header->users;
    }
    flock(fd, LOCK_UN);
    section->fd_ = fd;
    section->header_ = header;
    section->size_ = header->size;
    section->protect_ = header->protect;
    section->dataOffset_ = page;
    *existed = !fresh;
    return true;
  }
  return Fail(create ? ERROR_BUSY : ERROR_FILE_NOT_FOUND, false);
}

struct ViewRecord {
  size_t length;
  QzKernelObject* section;  // one reference, given back with the view
};

struct ViewTable {
  std::mutex mutex;
  std::map<uintptr_t, ViewRecord> views;
};

ViewTable& Views() {
  // Never destroyed: views may be unmapped by static destructors of hosts.
  static ViewTable* table = new ViewTable;
  return *table;
}

}  // namespace

HANDLE CreateFileMappingA(HANDLE file, LPSECURITY_ATTRIBUTES, DWORD protect, DWORD sizeHigh, DWORD sizeLow,
                          LPCSTR name) {
  if (QzFaultHit(QZ_FAULT_CREATE_MAPPING)) return Fail(ERROR_NOT_ENOUGH_MEMORY, static_cast<HANDLE>(nullptr));
  const DWORD kind = NormalProtect(protect);
  if (kind == 0) return Fail(ERROR_INVALID_PARAMETER, static_cast<HANDLE>(nullptr));
  const uint64_t asked = (static_cast<uint64_t>(sizeHigh) << 32) | sizeLow;
  if (name != nullptr && *name == 0) name = nullptr;

  QzSection* section = new (std::nothrow) QzSection;
  if (section == nullptr) return Fail(ERROR_NOT_ENOUGH_MEMORY, static_cast<HANDLE>(nullptr));
  section->protect_ = kind;
  bool existed = false;

  if (file == QZ_INVALID_HANDLE_VALUE) {
    if (asked == 0) { section->Release(); return Fail(ERROR_INVALID_PARAMETER, static_cast<HANDLE>(nullptr)); }
    if (name != nullptr) {
      if (!JoinNamed(section, name, true, asked, kind, &existed)) { section->Release(); return nullptr; }
    } else {
      section->fd_ = memfd_create("qzbase-section", MFD_CLOEXEC);
      if (section->fd_ < 0 || ftruncate(section->fd_, static_cast<off_t>(asked)) != 0) {
        DWORD e = QzErrnoToWin32(errno);
        section->Release();
        return Fail(e == ERROR_DISK_FULL || e == ERROR_INVALID_PARAMETER ? ERROR_NOT_ENOUGH_MEMORY : e,
                    static_cast<HANDLE>(nullptr));
      }
      section->size_ = asked;
    }
  } else {
    if (name != nullptr) { section->Release(); return Fail(ERROR_NOT_SUPPORTED, static_cast<HANDLE>(nullptr)); }
    section->file_ = QzFileLookup(file);
    if (!section->file_) { section->Release(); return nullptr; }
    QzFileObject* f = section->file_.as<QzFileObject>();
    if (!f->CanRead() || (kind == PAGE_READWRITE && !f->CanWrite())) {
      section->Release();
      return Fail(ERROR_ACCESS_DENIED, static_cast<HANDLE>(nullptr));
    }
    struct stat st;
    if (fstat(f->descriptor(), &st) != 0) {
      DWORD e = QzErrnoToWin32(errno);
      section->Release();
      return Fail(e, static_cast<HANDLE>(nullptr));
    }
    const uint64_t fileSize = static_cast<uint64_t>(st.st_size);
    uint64_t size = asked == 0 ? fileSize : asked;
    if (size == 0) { section->Release(); return Fail(ERROR_FILE_INVALID, static_cast<HANDLE>(nullptr)); }
    if (size > fileSize) {
      // Only a writable section may grow its file; a read-only one is "too big".
      if (kind != PAGE_READWRITE || ftruncate(f->descriptor(), static_cast<off_t>(size)) != 0) {
        DWORD e = kind != PAGE_READWRITE ? ERROR_NOT_ENOUGH_MEMORY : QzErrnoToWin32(errno);
        section->Release();
        return Fail(e, static_cast<HANDLE>(nullptr));
      }
    }
    section->size_ = size;
  }
  HANDLE handle = QzHandleInsert(section);
  if (handle != nullptr) SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
  return handle;
}

HANDLE OpenFileMappingA(DWORD, BOOL, LPCSTR name) {
  if (QzFaultHit(QZ_FAULT_CREATE_MAPPING)) return Fail(ERROR_NOT_ENOUGH_MEMORY, static_cast<HANDLE>(nullptr));
  if (name == nullptr || *name == 0) return Fail(ERROR_INVALID_PARAMETER, static_cast<HANDLE>(nullptr));
  QzSection* section = new (std::nothrow) QzSection;
  if (section == nullptr) return Fail(ERROR_NOT_ENOUGH_MEMORY, static_cast<HANDLE>(nullptr));
  bool existed = false;
  if (!JoinNamed(section, name, false, 0, 0, &existed)) {
    section->Release();
    return nullptr;
  }
  return QzHandleInsert(section);
}

LPVOID MapViewOfFileEx(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow, SIZE_T bytes, LPVOID base) {
  if (QzFaultHit(QZ_FAULT_MAP_VIEW)) return Fail(ERROR_NOT_ENOUGH_MEMORY, static_cast<LPVOID>(nullptr));
  QzObjectRef ref = QzHandleLookup(mapping, QzObjectKind::Mapping);
  if (!ref) return nullptr;
  QzSection* section = ref.as<QzSection>();
  const uint64_t offset = (static_cast<uint64_t>(offsetHigh) << 32) | offsetLow;
  if (offset % kGranularity != 0) return Fail(ERROR_MAPPED_ALIGNMENT, static_cast<LPVOID>(nullptr));
  if (offset >= section->size_ || bytes > section->size_ - offset)
    return Fail(ERROR_ACCESS_DENIED, static_cast<LPVOID>(nullptr));
  const uint64_t length = bytes != 0 ? bytes : section->size_ - offset;
  if (length > SIZE_MAX) return Fail(ERROR_NOT_ENOUGH_MEMORY, static_cast<LPVOID>(nullptr));

  int prot, flags;
  if ((access & FILE_MAP_WRITE) != 0) {
    if (section->protect_ != PAGE_READWRITE) return Fail(ERROR_ACCESS_DENIED, static_cast<LPVOID>(nullptr));
    prot = PROT_READ | PROT_WRITE;
    flags = MAP_SHARED;
  } else if ((access & FILE_MAP_COPY) != 0) {
    prot = PROT_READ | PROT_WRITE;
    flags = MAP_PRIVATE;
  } else if ((access & FILE_MAP_READ) != 0) {
    prot = PROT_READ;
    flags = MAP_SHARED;
  } else {
    return Fail(ERROR_INVALID_PARAMETER, static_cast<LPVOID>(nullptr));
  }
  if (base != nullptr) {
    if (reinterpret_cast<uintptr_t>(base) % kGranularity != 0) return Fail(ERROR_INVALID_ADDRESS, static_cast<LPVOID>(nullptr));
    flags |= MAP_FIXED_NOREPLACE;
  }
  if (prot == PROT_READ && length <= kPopulateLimit) flags |= MAP_POPULATE;
  void* view = mmap(base, static_cast<size_t>(length), prot, flags, section->descriptor(),
                    static_cast<off_t>(section->dataOffset_ + offset));
  if (view == MAP_FAILED) {
    DWORD e = errno == EEXIST ? ERROR_INVALID_ADDRESS : QzErrnoToWin32(errno);
    return Fail(e == ERROR_INVALID_PARAMETER ? ERROR_NOT_ENOUGH_MEMORY : e, static_cast<LPVOID>(nullptr));
  }
  if (base != nullptr && view != base) {  // a kernel that ignores NOREPLACE
    munmap(view, static_cast<size_t>(length));
    return Fail(ERROR_INVALID_ADDRESS, static_cast<LPVOID>(nullptr));
  }
  ViewTable& t = Views();
  try {
    std::lock_guard<std::mutex> lock(t.mutex);
    section->AddRef();
    t.views[reinterpret_cast<uintptr_t>(view)] = ViewRecord{static_cast<size_t>(length), section};
  } catch (...) {
    section->Release();
    munmap(view, static_cast<size_t>(length));
    return Fail(ERROR_NOT_ENOUGH_MEMORY, static_cast<LPVOID>(nullptr));
  }
  return view;
}

BOOL UnmapViewOfFile(LPCVOID base) {
  ViewRecord record;
  {
    ViewTable& t = Views();
    std::lock_guard<std::mutex> lock(t.mutex);
    auto it = t.views.find(reinterpret_cast<uintptr_t>(base));
    if (it == t.views.end()) return Fail(ERROR_INVALID_ADDRESS, FALSE);
    record = it->second;
    t.views.erase(it);
  }
  munmap(const_cast<void*>(base), record.length);
  record.section->Release();
  return TRUE;
}

size_t QzMappedViewCount() {
  ViewTable& t = Views();
  std::lock_guard<std::mutex> lock(t.mutex);
  return t.views.size();
}

}  // namespace qzsys
