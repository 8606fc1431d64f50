// Synchronisation objects, internal side: what the tests read of a condition.
#ifndef QZBASE_SOURCE_THREADS_QZSYNCOBJECT_H
#define QZBASE_SOURCE_THREADS_QZSYNCOBJECT_H

#include <qzbase/QzSyncObject.h>

// The name that sync objects give the log as their source file.
extern const char* const QZ_SYNC_SOURCE_NAME;

// The counters of a condition, read under its inner lock.
struct QzThreadConditionProbe {
  static int32_t Waiters(QzThreadCondition& condition) {
    QzCriticalSectionHolder hold(&condition.m_internalLock);
    return condition.m_waiters;
  }
  static int32_t Broadcasting(QzThreadCondition& condition) {
    QzCriticalSectionHolder hold(&condition.m_internalLock);
    return condition.m_broadcasting;
  }
  static void* Semaphore(const QzThreadCondition& condition) { return condition.m_semaphore.GetHandle(); }
  static void* WaitersDone(const QzThreadCondition& condition) { return condition.m_waitersDone; }
};

#endif  // QZBASE_SOURCE_THREADS_QZSYNCOBJECT_H
