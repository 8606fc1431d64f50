// TEMPORARY STUB (not committed).
#include <qzbase/QzSyncObject.h>
#include "platform/QzPlatform.h"
#include "frame/QzException.h"
using namespace qzsys;
static CRITICAL_SECTION* S(QzCriticalSection* s) { return &s->section; }
void Qz_InitializeCriticalSection(QzCriticalSection* s) { if (!InitializeCriticalSection(S(s))) QzThrow(E_OUTOFMEMORY); }
QzThreadEvent::QzThreadEvent(int m, int i, const char* n) : m_handle(CreateEventA(nullptr, m, i, n)) {}
QzThreadEvent::~QzThreadEvent() { if (m_handle) CloseHandle(m_handle); }
HRESULT QzThreadEvent::Wait(DWORD ms) { DWORD r = WaitForSingleObject(m_handle, ms); if (r == 0) return 0; if (r == WAIT_TIMEOUT) return HRESULT_TIMEOUT; return (HRESULT)r; }
HRESULT QzThreadEvent::Signal() { return SetEvent(m_handle) ? 0 : QzHresultFromLastError(); }
HRESULT QzThreadEvent::Reset() { return ResetEvent(m_handle) ? 0 : QzHresultFromLastError(); }
HRESULT QzThreadEvent::Pulse() { return PulseEvent(m_handle) ? 0 : QzHresultFromLastError(); }
QzThreadSemaphore::QzThreadSemaphore(LONG i, LONG m, const char* n) : m_handle(CreateSemaphoreA(nullptr, i, m, n)) {}
QzThreadSemaphore::~QzThreadSemaphore() { if (m_handle) CloseHandle(m_handle); }
HRESULT QzThreadSemaphore::Lock(DWORD ms) { DWORD r = WaitForSingleObject(m_handle, ms); if (r == 0) return 0; if (r == WAIT_TIMEOUT) SetLastError(ERROR_TIMEOUT); return QzHresultFromLastError(); }
HRESULT QzThreadSemaphore::Unlock() { return ReleaseSemaphore(m_handle, 1, nullptr) ? 0 : QzHresultFromLastError(); }
HRESULT QzThreadSemaphore::PostN(LONG n) { return ReleaseSemaphore(m_handle, n, nullptr) ? 0 : QzHresultFromLastError(); }
QzThreadCondition::QzThreadCondition(QzCriticalSection* e) : m_external(e), m_semaphore(0, 0x7FFFFFFF), m_done(nullptr), m_waiters(0), m_broadcast(0) {
  Qz_InitializeCriticalSection(&m_internal); m_done = CreateEventA(nullptr, 0, 0, nullptr); }
QzThreadCondition::~QzThreadCondition() { if (m_done) CloseHandle(m_done); DeleteCriticalSection(S(&m_internal)); }
HRESULT QzThreadCondition::Wait(DWORD ms) {
  EnterCriticalSection(S(&m_internal)); ++m_waiters; LeaveCriticalSection(S(&m_internal));
  LeaveCriticalSection(S(m_external));
  HRESULT r = m_semaphore.Lock(ms);
  EnterCriticalSection(S(&m_internal)); --m_waiters; bool last = m_broadcast && m_waiters == 0; LeaveCriticalSection(S(&m_internal));
  if (last) SetEvent(m_done);
  EnterCriticalSection(S(m_external));
  return r;
}
HRESULT QzThreadCondition::Signal() {
  EnterCriticalSection(S(&m_internal)); bool any = m_waiters > 0; LeaveCriticalSection(S(&m_internal));
  return any ? m_semaphore.Unlock() : 0;
}
HRESULT QzThreadCondition::Broadcast() {
  EnterCriticalSection(S(&m_internal)); LONG n = m_waiters; if (n > 0) m_broadcast = 1; LeaveCriticalSection(S(&m_internal));
  if (n <= 0) return 0;
  HRESULT a = m_semaphore.PostN(n); WaitForSingleObject(m_done, INFINITE); m_broadcast = 0; return a;
}
