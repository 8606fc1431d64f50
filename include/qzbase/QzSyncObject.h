// TEMPORARY STUB (not committed): stands in for the sync family until it lands.
#ifndef QZBASE_QZSYNCOBJECT_H
#define QZBASE_QZSYNCOBJECT_H
#include <qzbase/QzTypes.h>
struct QzCriticalSection { CRITICAL_SECTION section; };
QZ_API void Qz_InitializeCriticalSection(QzCriticalSection* section);
class QZ_API QzThreadEvent {
 public:
  QzThreadEvent(int manualReset = 0, int initialState = 0, const char* name = 0);
  ~QzThreadEvent();
  HRESULT Wait(DWORD ms); HRESULT Signal(); HRESULT Reset(); HRESULT Pulse();
  void* m_handle;
};
class QZ_API QzThreadSemaphore {
 public:
  QzThreadSemaphore(LONG initialCount = 0, LONG maximumCount = 0x7FFFFFFF, const char* name = 0);
  ~QzThreadSemaphore();
  HRESULT Lock(DWORD ms); HRESULT Unlock(); HRESULT PostN(LONG n);
  void* m_handle;
};
class QZ_API QzThreadCondition {
 public:
  explicit QzThreadCondition(QzCriticalSection* external);
  ~QzThreadCondition();
  HRESULT Wait(DWORD ms); HRESULT Signal(); HRESULT Broadcast();
 private:
  QzCriticalSection* m_external; QzCriticalSection m_internal; QzThreadSemaphore m_semaphore; void* m_done; LONG m_waiters; LONG m_broadcast;
};
#endif
