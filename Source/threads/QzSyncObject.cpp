// Critical sections, events, semaphores and the condition built from them.
#include "threads/QzSyncObject.h"

#include <qzbase/QzException.h>
#include <qzbase/QzLog.h>

#include "frame/QzException.h"
#include "platform/QzPlatform.h"

using namespace qzsys;

// Fixed rather than __FILE__, so that log lines name the family the same way
// whatever the build's paths look like.
const char* const QZ_SYNC_SOURCE_NAME = "QzSyncObject";

namespace {

// Writes the failed call to the log and returns its result. The log sees the
// system error as mapped before the last step of the rule (an error of 0 logs
// 0); the caller gets a value that cannot read as success. A line that cannot
// be built for lack of memory is dropped: a sync call that has already failed
// should not throw as well, and destructors report through here too.
HRESULT ReportLastError(int line, const char* expression) {
  const DWORD error = GetLastError();
  try {
    QZ_DBGLOG_WRITE_API_ERROR_IMPL(QZ_SYNC_SOURCE_NAME, line, expression, HRESULT_FROM_WIN32(error));
  } catch (...) {
  }
  return QzHresultFromWin32Error(error);
}

#define QZ_SYNC_REPORT(expression) ReportLastError(__LINE__, expression)

}  // namespace

// ---- Critical sections ------------------------------------------------------------------

void Qz_InitializeCriticalSection(QzCriticalSection* section) {
  if (!InitializeCriticalSection(section)) QzThrow(E_OUTOFMEMORY);
}

void Qz_InitializeCriticalSection(QzCriticalSection* section, DWORD spinCount) {
  if (!InitializeCriticalSectionAndSpinCount(section, spinCount)) QzThrow(E_OUTOFMEMORY);
}

void Qz_EnterCriticalSection(QzCriticalSection* section) { EnterCriticalSection(section); }
int Qz_TryEnterCriticalSection(QzCriticalSection* section) { return TryEnterCriticalSection(section) ? 1 : 0; }
void Qz_LeaveCriticalSection(QzCriticalSection* section) { LeaveCriticalSection(section); }
void Qz_DeleteCriticalSection(QzCriticalSection* section) { DeleteCriticalSection(section); }

// ---- Events -----------------------------------------------------------------------------

QzThreadEvent::QzThreadEvent(int manualReset, int initialState, const char* name)
    : m_handle(CreateEventA(nullptr, manualReset, initialState, name)) {
  if (m_handle == nullptr) QZ_SYNC_REPORT("QzThreadEvent::CreateEvent");
}

QzThreadEvent::~QzThreadEvent() {
  if (m_handle != nullptr) {
    (void)CloseHandle(m_handle);
    m_handle = nullptr;
  }
}

HRESULT QzThreadEvent::Wait(DWORD milliseconds) {
  const DWORD result = WaitForSingleObject(m_handle, milliseconds);
  if (result == WAIT_OBJECT_0) return S_OK;
  if (result == WAIT_TIMEOUT) return HRESULT_TIMEOUT;
  QZ_SYNC_REPORT("QzThreadEvent::Wait");
  return static_cast<HRESULT>(result);
}

HRESULT QzThreadEvent::Signal() {
  return SetEvent(m_handle) ? S_OK : QZ_SYNC_REPORT("QzThreadEvent::Signal");
}

HRESULT QzThreadEvent::Reset() {
  return ResetEvent(m_handle) ? S_OK : QZ_SYNC_REPORT("QzThreadEvent::Reset");
}

HRESULT QzThreadEvent::Pulse() {
  return PulseEvent(m_handle) ? S_OK : QZ_SYNC_REPORT("QzThreadEvent::Pulse");
}

// ---- Semaphores -------------------------------------------------------------------------

QzThreadSemaphore::QzThreadSemaphore(LONG initialCount, LONG maximumCount, const char* name)
    : m_handle(CreateSemaphoreA(nullptr, initialCount, maximumCount, name)) {
  if (m_handle == nullptr) QZ_SYNC_REPORT("QzThreadSemaphore::CreateSemaphore");
}

QzThreadSemaphore::~QzThreadSemaphore() { Close(); }

void QzThreadSemaphore::Close() {
  if (m_handle != nullptr) {
    (void)CloseHandle(m_handle);
    m_handle = nullptr;
  }
}

HRESULT QzThreadSemaphore::Lock(DWORD milliseconds) {
  const DWORD result = WaitForSingleObject(m_handle, milliseconds);
  if (result == WAIT_OBJECT_0) return S_OK;
  // The system leaves the last error alone on a time-out, so whatever an
  // earlier call left there would be reported; name the time-out instead.
  if (result == WAIT_TIMEOUT) SetLastError(ERROR_TIMEOUT);
  return QZ_SYNC_REPORT("QzThreadSemaphore::Lock");
}

HRESULT QzThreadSemaphore::Unlock() {
  return ReleaseSemaphore(m_handle, 1, nullptr) ? S_OK : QZ_SYNC_REPORT("QzThreadSemaphore::Unlock");
}

HRESULT QzThreadSemaphore::PostN(LONG count) {
  return ReleaseSemaphore(m_handle, count, nullptr) ? S_OK : QZ_SYNC_REPORT("QzThreadSemaphore::PostN");
}

// ---- Condition --------------------------------------------------------------------------

// The record keeps its Windows layout on i386 (44 bytes), and the same fields
// with 64-bit words on x86-64.
static_assert(sizeof(QzCriticalSection) == (sizeof(void*) == 4 ? 24 : 40), "critical section record");
static_assert(sizeof(QzThreadCondition) == (sizeof(void*) == 4 ? 44 : 72), "condition record");
//
// A waiter is counted under the inner lock before it lets go of the external
// one, so a thread that changes the shared state under the external lock and
// then signals always finds it counted, and the semaphore keeps the release
// until the waiter gets to it. The inner lock is never held across a sleep or
// while taking the external lock.

QzThreadCondition::QzThreadCondition(QzCriticalSection* externalLock)
    : m_externalLock(externalLock), m_semaphore(0, 0x7FFFFFFF), m_waitersDone(nullptr), m_waiters(0),
      m_broadcasting(0) {
  // Before the event: should this throw, only the semaphore has been made,
  // and it closes itself.
  Qz_InitializeCriticalSection(&m_internalLock);
  m_waitersDone = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  if (m_waitersDone == nullptr) QZ_SYNC_REPORT("QzThreadCondition::QzThreadCondition: CreateEventA");
}

QzThreadCondition::~QzThreadCondition() {
  if (m_waitersDone != nullptr && !CloseHandle(m_waitersDone)) {
    QZ_SYNC_REPORT("QzThreadCondition::QzThreadCondition: Close auto reset event handle");
  }
  m_waitersDone = nullptr;
  m_semaphore.Close();
  DeleteCriticalSection(&m_internalLock);
}

HRESULT QzThreadCondition::Wait(DWORD milliseconds) {
  EnterCriticalSection(&m_internalLock);
  ++m_waiters;
  LeaveCriticalSection(&m_internalLock);

  LeaveCriticalSection(m_externalLock);
  const HRESULT result = m_semaphore.Lock(milliseconds);

  EnterCriticalSection(&m_internalLock);
  --m_waiters;
  const bool lastOfBroadcast = m_broadcasting != 0 && m_waiters == 0;
  LeaveCriticalSection(&m_internalLock);

  if (lastOfBroadcast && !SetEvent(m_waitersDone)) QZ_SYNC_REPORT("QzThreadCondition::Wait, SetEvent");
  EnterCriticalSection(m_externalLock);
  return result;
}

HRESULT QzThreadCondition::Signal() {
  EnterCriticalSection(&m_internalLock);
  const bool anyWaiter = m_waiters > 0;
  LeaveCriticalSection(&m_internalLock);
  return anyWaiter ? m_semaphore.Unlock() : S_OK;
}

HRESULT QzThreadCondition::Broadcast() {
  EnterCriticalSection(&m_internalLock);
  const int32_t waiters = m_waiters;
  if (waiters > 0) m_broadcasting = 1;
  LeaveCriticalSection(&m_internalLock);
  if (waiters <= 0) return S_OK;

  const HRESULT released = m_semaphore.PostN(waiters);
  // Even when the release failed: waiters that time out still count down,
  // and the flag must not be cleared under them.
  HRESULT waited = S_OK;
  if (WaitForSingleObject(m_waitersDone, INFINITE) != WAIT_OBJECT_0) {
    waited = QZ_SYNC_REPORT("QzThreadCondition::Broadcast, WaitForSingleObject");
  }

  EnterCriticalSection(&m_internalLock);
  m_broadcasting = 0;
  LeaveCriticalSection(&m_internalLock);
  return FAILED(waited) ? waited : released;
}
