// POSIX implementation of the base area of the platform layer.
#include "platform/QzPlatformBase.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace qzsys {

namespace {
thread_local DWORD t_lastError = 0;
}

DWORD GetLastError() { return t_lastError; }
void SetLastError(DWORD error) { t_lastError = error; }

DWORD QzErrnoToWin32(int err) {
  switch (err) {
    case 0: return ERROR_SUCCESS;
    case ENOENT: return ERROR_FILE_NOT_FOUND;
    case ENOTDIR: return ERROR_PATH_NOT_FOUND;
    case ELOOP: return ERROR_PATH_NOT_FOUND;
    case EMFILE: case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
    case EACCES: case EPERM: case EROFS: return ERROR_ACCESS_DENIED;
    case EISDIR: return ERROR_ACCESS_DENIED;
    case EBADF: return ERROR_INVALID_HANDLE;
    case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
    case EFAULT: return ERROR_INVALID_ADDRESS;
    case EBUSY: return ERROR_BUSY;
    case ETXTBSY: return ERROR_SHARING_VIOLATION;
    case EEXIST: return ERROR_FILE_EXISTS;
    case EINVAL: return ERROR_INVALID_PARAMETER;
    case ENOSPC: case EDQUOT: return ERROR_DISK_FULL;
    case EFBIG: return ERROR_DISK_FULL;
    case ENAMETOOLONG: return ERROR_FILENAME_EXCED_RANGE;
    case ENOTEMPTY: return ERROR_DIR_NOT_EMPTY;
    case EPIPE: return ERROR_BROKEN_PIPE;
    case EAGAIN: return ERROR_NOT_ENOUGH_MEMORY;
    case ETIMEDOUT: return ERROR_TIMEOUT;
    case EOVERFLOW: return ERROR_ARITHMETIC_OVERFLOW;
    case EILSEQ: return ERROR_NO_UNICODE_TRANSLATION;
    case ENOSYS: case EOPNOTSUPP: return ERROR_NOT_SUPPORTED;
    case EIO: return ERROR_IO_DEVICE;
    case ESPIPE: return ERROR_NEGATIVE_SEEK;
    default: return ERROR_INVALID_FUNCTION;
  }
}

DWORD QzSetLastErrorFromErrno() {
  DWORD e = QzErrnoToWin32(errno);
  SetLastError(e);
  return e;
}

void GetSystemInfo(SYSTEM_INFO* info) {
  memset(info, 0, sizeof *info);
  long page = sysconf(_SC_PAGESIZE);
  if (page <= 0) page = 4096;
  long cpus = sysconf(_SC_NPROCESSORS_ONLN);
  if (cpus <= 0) cpus = 1;
#if defined(__x86_64__)
  info->wProcessorArchitecture = 9;  // AMD64
  info->dwProcessorType = 8664;
#elif defined(__i386__)
  info->wProcessorArchitecture = 0;  // INTEL
  info->dwProcessorType = 586;
#else
  info->wProcessorArchitecture = 0xFFFF;
#endif
  info->dwPageSize = static_cast<DWORD>(page);
  info->lpMinimumApplicationAddress = reinterpret_cast<LPVOID>(static_cast<uintptr_t>(0x10000));
  info->lpMaximumApplicationAddress = reinterpret_cast<LPVOID>(~static_cast<uintptr_t>(0) >> 1);
  info->dwNumberOfProcessors = static_cast<DWORD>(cpus);
  info->dwActiveProcessorMask = cpus >= static_cast<long>(sizeof(DWORD_PTR) * 8)
                                    ? ~static_cast<DWORD_PTR>(0)
                                    : (static_cast<DWORD_PTR>(1) << cpus) - 1;
  info->dwAllocationGranularity = page > 65536 ? static_cast<DWORD>(page) : 65536u;
}

namespace {
thread_local DWORD t_threadId = 0;

DWORD FetchThreadId() {
  // The kernel's thread id: unique among live threads and never 0, and what a
  // debugger shows. Fetched once per thread; after that it is one TLS load.
  t_threadId = static_cast<DWORD>(syscall(SYS_gettid));
  return t_threadId;
}
}  // namespace

DWORD GetCurrentThreadId() {
  DWORD id = t_threadId;
  return __builtin_expect(id != 0, 1) ? id : FetchThreadId();
}

namespace {
// The C library no longer caches the process id, and every log line asks for
// it; a child made by fork starts again from 0.
std::atomic<DWORD> g_processId{0};
void ForgetProcessId() { g_processId.store(0, std::memory_order_relaxed); }
}  // namespace

DWORD GetCurrentProcessId() {
  DWORD pid = g_processId.load(std::memory_order_relaxed);
  if (__builtin_expect(pid == 0, 0)) {
    static const int registered = pthread_atfork(nullptr, nullptr, &ForgetProcessId);
    (void)registered;
    pid = static_cast<DWORD>(getpid());
    g_processId.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

DWORD GetTickCount() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  uint64_t ms = static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
  return static_cast<DWORD>(ms);
}

void GetSystemTimeAsFileTime(FILETIME* ft) {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  // 369 years (with 89 leap days) between 1601 and 1970, in 100 ns units.
  const uint64_t kEpochDelta = 116444736000000000ull;
  uint64_t t = kEpochDelta + static_cast<uint64_t>(ts.tv_sec) * 10000000u +
               static_cast<uint64_t>(ts.tv_nsec) / 100u;
  ft->dwLowDateTime = static_cast<DWORD>(t);
  ft->dwHighDateTime = static_cast<DWORD>(t >> 32);
}

BOOL DisableThreadLibraryCalls(HMODULE) { return TRUE; }

DWORD GetModuleFileNameA(HMODULE, LPSTR buf, DWORD size) {
  if (buf == nullptr || size == 0) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) {
    QzSetLastErrorFromErrno();
    return 0;
  }
  DWORD len = static_cast<DWORD>(n);
  if (len >= size) {  // Windows cuts to size - 1 and reports the shortage.
    memcpy(buf, path, size - 1);
    buf[size - 1] = 0;
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return size;
  }
  memcpy(buf, path, len);
  buf[len] = 0;
  return len;
}

// ---- Debug output -----------------------------------------------------------
namespace {
std::atomic<QzDebugOutputHook> g_debugHook{nullptr};
std::atomic<void*> g_debugHookContext{nullptr};
std::once_flag g_debugTargetOnce;
int g_debugFd = -1;  // -1: dropped

void OpenDebugTarget() {
  const char* target = getenv("QZ_DEBUG_OUTPUT");
  if (target == nullptr || *target == 0) return;
  if (strcmp(target, "stderr") == 0) {
    g_debugFd = 2;
  } else if (strcmp(target, "stdout") == 0) {
    g_debugFd = 1;
  } else {
    g_debugFd = open(target, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  }
}
}  // namespace

void OutputDebugStringA(LPCSTR text) {
  if (text == nullptr) return;
  QzDebugOutputHook hook = g_debugHook.load(std::memory_order_acquire);
  if (hook != nullptr) hook(g_debugHookContext.load(std::memory_order_acquire), text);
  std::call_once(g_debugTargetOnce, OpenDebugTarget);
  if (g_debugFd >= 0) {
    size_t len = strlen(text);
    while (len > 0) {  // one write per text keeps lines whole between threads
      ssize_t n = write(g_debugFd, text, len);
      if (n <= 0) {
        if (n < 0 && errno == EINTR) continue;
        break;
      }
      text += n;
      len -= static_cast<size_t>(n);
    }
  }
}

void QzSetDebugOutputHook(QzDebugOutputHook hook, void* context) {
  g_debugHookContext.store(context, std::memory_order_release);
  g_debugHook.store(hook, std::memory_order_release);
}

}  // namespace qzsys
