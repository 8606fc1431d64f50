// A delegate on a thread of its own, with every exception kept inside it.
#include "threads/QzThread.h"

#include <qzbase/QzLog.h>
#include <qzbase/QzMempool.h>

#include <cxxabi.h>
#include <string.h>

#include <new>

#include "frame/QzException.h"
#include "platform/QzPlatform.h"

using namespace qzsys;

namespace {

const char kSource[] = "QzThread.cpp";

struct GuardedCall {
  const QzThread::Procedure* procedure;
  bool raised;
};

void CallCatchingExceptions(void* context) {
  auto* call = static_cast<GuardedCall*>(context);
  try {
    (void)(*call->procedure)();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    call->raised = true;
  }
}

unsigned int DisableCache() {
  Qz_MempoolDisableThreadCache(0);
  return 0;
}

}  // namespace

bool QzCallGuarded(const QzThread::Procedure& procedure) {
  GuardedCall call{&procedure, false};
  const bool returned = QzGuardedCall(&CallCatchingExceptions, &call);
  return returned && !call.raised;
}

QzThread::QzThread() : m_handle(nullptr), m_threadId(0) {}

QzThread::~QzThread() {
  HANDLE handle = m_handle.load(std::memory_order_acquire);
  if (handle != nullptr) {
    (void)CloseHandle(handle);
    m_handle.store(nullptr, std::memory_order_release);
  }
}

QzThread* QzThread::Start(const Procedure& procedure, unsigned int stackSize, int priority, unsigned int affinityMask) {
  if (procedure.empty()) return nullptr;
  void* memory = Qz_MempoolAlloc(0, sizeof(QzThread));
  if (memory == nullptr) return nullptr;
  QzThread* thread = new (memory) QzThread();
  thread->m_procedure = procedure;
  if (thread->StartThread(stackSize, priority, affinityMask)) return thread;
  // A thread that never ran its procedure ends quietly once its handle goes.
  thread->~QzThread();
  Qz_MempoolFree(0, memory);
  return nullptr;
}

void QzThread::SetExceptHandler(const Procedure& handler) { m_exceptHandler = handler; }
void QzThread::SetThreadProc(const Procedure& procedure) { m_procedure = procedure; }

int QzThread::StartThread(unsigned int stackSize, int priority, unsigned int affinityMask) {
  if (m_procedure.empty()) return 0;
  unsigned id = 0;
  HANDLE handle = reinterpret_cast<HANDLE>(
      _beginthreadex(nullptr, stackSize, &QzThread::InternalThreadEntryPoinit, this, CREATE_SUSPENDED, &id));
  m_threadId.store(id, std::memory_order_release);
  if (handle == nullptr) {
    QZ_LOG_WRITE_A(QZ_LOG_ERROR, "ERROR: QzThread::StartThread: Failed to create thread");
    return 0;
  }
  m_handle.store(handle, std::memory_order_release);
  if (priority != 0) (void)SetThreadPriority(handle, priority);
  if (affinityMask != 0) {
    OSVERSIONINFOEXA version;
    memset(&version, 0, sizeof version);
    version.dwOSVersionInfoSize = sizeof(OSVERSIONINFOEXA);
    BOOL known = GetVersionExA(&version);
    if (!known) {
      memset(&version, 0, sizeof version);
      version.dwOSVersionInfoSize = sizeof(OSVERSIONINFOA);
      known = GetVersionExA(&version);
    }
    if (known && version.dwPlatformId == VER_PLATFORM_WIN32_NT &&
        SetThreadAffinityMask(handle, affinityMask) == 0) {
      QZ_DBGLOG_WRITE_API_ERROR_IMPL(kSource, __LINE__, "ERROR: QzThread::StartThread: SetThreadAffinityMask",
                                     QzHresultFromLastError());
      return 0;
    }
  }
  if (ResumeThread(handle) == 0xFFFFFFFFu) {
    QZ_LOG_WRITE_A(QZ_LOG_ERROR, "ERROR: QzThread::StartThread: Failed to resume thread %d", static_cast<int>(id));
    return 0;
  }
  return 1;
}

unsigned int QzThread::InternalThreadEntryPoinit(void* self) {
  static_cast<QzThread*>(self)->InternalThreadEntryPoinit();
  // The object may be gone from here on: its owner frees it once the handle is 0.
  (void)QzCallGuarded(QzThread::Procedure(&DisableCache));
  return 0;
}

void QzThread::InternalThreadEntryPoinit() {
  if (!QzCallGuarded(m_procedure)) {
    const Procedure handler = m_exceptHandler;
    if (!handler.empty()) (void)QzCallGuarded(handler);
  }
  // The handle field goes last: once it reads 0 the owner may free the object.
  m_threadId.store(0, std::memory_order_release);
  HANDLE handle = m_handle.load(std::memory_order_acquire);
  if (handle != nullptr && CloseHandle(handle)) m_handle.store(nullptr, std::memory_order_release);
}

int QzThread::IsThreadActive() {
  HANDLE handle = m_handle.load(std::memory_order_acquire);
  return handle != nullptr && WaitForSingleObject(handle, 0) == WAIT_TIMEOUT ? 1 : 0;
}

int QzThread::WaitForExit(DWORD milliseconds) {
  HANDLE handle = m_handle.load(std::memory_order_acquire);
  return handle == nullptr || WaitForSingleObject(handle, milliseconds) == WAIT_OBJECT_0 ? 1 : 0;
}

void QzThread::Terminate() {
  QZ_LOG_WRITE_A(QZ_LOG_WARNING, "!!!QzThread::Terminate: Thread will be killed by force!!!");
  HANDLE handle = m_handle.load(std::memory_order_acquire);
  if (handle == nullptr) return;
  if (!TerminateThread(handle, 0xFFFFFFFFu)) {
    QZ_DBGLOG_WRITE_API_ERROR_IMPL(kSource, __LINE__, "!!!QzThread::Terminate: TerminateThread",
                                   QzHresultFromLastError());
    return;
  }
  (void)CloseHandle(handle);
  m_handle.store(nullptr, std::memory_order_release);
  m_threadId.store(0, std::memory_order_release);
}

DWORD QzThread::GetThreadId() { return m_threadId.load(std::memory_order_acquire); }
