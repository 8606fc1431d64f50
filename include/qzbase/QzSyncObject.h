// qzbase: synchronisation objects.
//
// QzCriticalSection is a recursive lock that can be embedded by value in other
// records; QzThreadEvent and QzThreadSemaphore are thin owners of a system
// event and semaphore; QzThreadCondition is a condition variable built from a
// semaphore and an event, used with a QzCriticalSection held by its callers.
//
// Ownership: each event and semaphore object owns its system handle and
// closes it when destroyed. A condition owns its semaphore, its event and its
// inner lock, but not the external lock given to its constructor, which must
// outlive it. A critical section belongs to whoever initialised it, who
// deletes it once no thread holds or waits for it.
//
// Threads: every member may be called from any thread once the constructor
// has returned. A condition must not be destroyed while a thread is inside its
// Wait or Broadcast; no object may be destroyed while a thread waits on it.
//
// Failures: results are HRESULTs, 0 on success and negative on failure; a
// system error e above 0 becomes 0x80070000 | (e & 0xFFFF), and a failure
// without a system error 0x8000FFFF. Every failed system call is also written
// to the log at level Error ("In file QzSyncObject at line N: '<operation>'
// failed with error ..."), except an event's time-out, which is silent. A
// constructor never throws: an object whose system handle could not be made
// keeps handle 0, and every call on it fails as on an invalid handle. The
// one thing here that throws is Qz_InitializeCriticalSection, with a
// QzException of 0x8007000E when the system has no memory for the section;
// the section is then unusable. A log line that cannot be built for lack of
// memory is dropped rather than thrown out of a sync call.
#ifndef QZBASE_QZSYNCOBJECT_H
#define QZBASE_QZSYNCOBJECT_H

#include <qzbase/QzTypes.h>

// The system's critical section record and nothing else: 24 bytes on i386, 40
// on x86-64.
typedef CRITICAL_SECTION QzCriticalSection;

// Brings a section to life; throws QzException(0x8007000E) when the system has
// no memory for it.
QZ_API void QZ_CALL Qz_InitializeCriticalSection(QzCriticalSection* section);
// The same with a spin count: a contended Enter tries that many times before
// it sleeps (the top byte of the count is ignored; with one processor there is
// no spinning). For hosts: the library's own locks do not spin.
QZ_API void QZ_CALL Qz_InitializeCriticalSection(QzCriticalSection* section, DWORD spinCount);

// Taking, trying, releasing and ending a section: the system calls of the
// same names, for hosts that do not have them. The holder may enter again and
// leaves as often as it entered. TryEnter returns 1 when the section is now
// held by the caller. Delete ends a section that no thread holds.
QZ_API void QZ_CALL Qz_EnterCriticalSection(QzCriticalSection* section);
QZ_API int QZ_CALL Qz_TryEnterCriticalSection(QzCriticalSection* section);
QZ_API void QZ_CALL Qz_LeaveCriticalSection(QzCriticalSection* section);
QZ_API void QZ_CALL Qz_DeleteCriticalSection(QzCriticalSection* section);

// Holds a section for its own lifetime, so that an exception passing through
// releases it. A null section is allowed and does nothing.
class QzCriticalSectionHolder {
 public:
  explicit QzCriticalSectionHolder(QzCriticalSection* section) : m_section(section) {
    if (m_section != 0) Qz_EnterCriticalSection(m_section);
  }
  ~QzCriticalSectionHolder() {
    if (m_section != 0) Qz_LeaveCriticalSection(m_section);
  }

 private:
  QzCriticalSection* m_section;

  QzCriticalSectionHolder(const QzCriticalSectionHolder&);
  QzCriticalSectionHolder& operator=(const QzCriticalSectionHolder&);
};

// An event: manual reset (stays signalled until reset) or auto reset (lets
// one waiter through, then resets itself). Unnamed, private to the process;
// the name is accepted and ignored.
class QzThreadEvent {
 public:
  // Default: auto reset, not signalled. On failure the handle stays 0 and a
  // line "QzThreadEvent::CreateEvent" is logged.
  QZ_API explicit QzThreadEvent(int manualReset = 0, int initialState = 0, const char* name = 0);
  // Closes the handle; a failing close is ignored.
  QZ_API ~QzThreadEvent();

  // 0 when signalled within `milliseconds` (0xFFFFFFFF: no limit);
  // 0x800705B4 on a time-out, with no log line; on any other failure the
  // system's wait code 0xFFFFFFFF (negative), logged as "QzThreadEvent::Wait".
  QZ_API HRESULT Wait(DWORD milliseconds);
  // Signalled / not signalled / a pulse: lets through the threads waiting at
  // this moment (all of them, or one for auto reset) and leaves the event not
  // signalled. 0, or the mapped system error, logged under
  // "QzThreadEvent::Signal", "QzThreadEvent::Reset", "QzThreadEvent::Pulse".
  QZ_API HRESULT Signal();
  QZ_API HRESULT Reset();
  QZ_API HRESULT Pulse();

  // The system handle, 0 when creation failed.
  void* GetHandle() const { return m_handle; }

 private:
  void* m_handle;

  QzThreadEvent(const QzThreadEvent&);
  QzThreadEvent& operator=(const QzThreadEvent&);
};

// A counting semaphore with a maximum. Unnamed, as the event.
class QzThreadSemaphore {
 public:
  // On failure (also for an initial count below 0 or above the maximum, or a
  // maximum below 1) the handle stays 0 and "QzThreadSemaphore::CreateSemaphore"
  // is logged.
  QZ_API explicit QzThreadSemaphore(LONG initialCount = 0, LONG maximumCount = 0x7FFFFFFF, const char* name = 0);
  QZ_API ~QzThreadSemaphore();

  // Takes one count, waiting up to `milliseconds` (0xFFFFFFFF: no limit).
  // 0, or a failure logged as "QzThreadSemaphore::Lock": a time-out is a
  // failure like any other here and gives 0x800705B4.
  QZ_API HRESULT Lock(DWORD milliseconds);
  // Adds one count / `count` counts. 0, or the mapped system error, logged as
  // "QzThreadSemaphore::Unlock" / "QzThreadSemaphore::PostN": 0x8007012A when
  // the count would pass the maximum (nothing is added), 0x80070057 for a
  // count below 1.
  QZ_API HRESULT Unlock();
  QZ_API HRESULT PostN(LONG count);

  void* GetHandle() const { return m_handle; }

 private:
  friend class QzThreadCondition;
  void Close();

  void* m_handle;

  QzThreadSemaphore(const QzThreadSemaphore&);
  QzThreadSemaphore& operator=(const QzThreadSemaphore&);
};

// A condition variable over an external QzCriticalSection.
//
// Callers test their own condition under the external lock and call Wait
// while holding it; a thread that changes that state under the lock then
// calls Signal or Broadcast, with or without the lock. No wake-up is lost
// between a waiter's test and its sleep, but a waiter may wake without a
// signal meant for it (a release that crossed a time-out), so callers test
// their condition again after Wait returns. A Signal with no waiter is not
// remembered. Lock order: the external lock, then the inner one.
class QzThreadCondition {
 public:
  // Creates the semaphore and the event, logging a failure of either and
  // going on (the condition then fails in its calls). Throws QzException
  // (0x8007000E) only when its inner critical section cannot be made.
  QZ_API explicit QzThreadCondition(QzCriticalSection* externalLock);
  // Closes the event, then the semaphore, then deletes the inner lock.
  QZ_API ~QzThreadCondition();

  // Releases the external lock, which the caller holds, sleeps until
  // signalled or until `milliseconds` pass, and takes the lock again; the
  // caller holds it on return whatever the result. The caller must have
  // entered it once only: Wait leaves it once, and a section entered twice
  // would stay held while the caller sleeps. 0 when woken; the semaphore's
  // failure otherwise (0x800705B4 on a time-out).
  QZ_API HRESULT Wait(DWORD milliseconds);
  // Wakes one waiter, if there is one. 0, or the release's failure.
  QZ_API HRESULT Signal();
  // Wakes every thread waiting now and returns once they have all woken;
  // each still takes the external lock, one at a time, before its Wait
  // returns, so Broadcast may be called with or without that lock held.
  // Holding it is the safe way: a thread that starts to Wait while a
  // Broadcast is under way can take a wake-up meant for an earlier waiter,
  // and the Broadcast then lasts until that earlier waiter wakes by a later
  // Signal or by its own time-out.
  // 0, or the failure of the wait for them, or else of the release.
  QZ_API HRESULT Broadcast();

 private:
  friend struct QzThreadConditionProbe;  // tests read the counters

  QzCriticalSection* m_externalLock;  // not owned
  QzCriticalSection m_internalLock;   // guards the two counters
  QzThreadSemaphore m_semaphore;      // waiters sleep here; count 0, maximum 0x7FFFFFFF
  void* m_waitersDone;                // auto-reset event: the last waiter of a broadcast sets it
  int32_t m_waiters;                  // threads inside Wait
  int32_t m_broadcasting;             // non-zero while a broadcast is under way

  QzThreadCondition(const QzThreadCondition&);
  QzThreadCondition& operator=(const QzThreadCondition&);
};

#endif  // QZBASE_QZSYNCOBJECT_H
