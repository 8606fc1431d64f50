// qzbase: a delegate run on a thread of its own.
//
// QzThread starts one system thread that runs a delegate. Priority and
// processor affinity are set before the thread runs its first instruction of
// user code. Nothing the procedure raises leaves the thread: a C++ exception
// or a processor fault (invalid access, division by zero, illegal
// instruction) ends the procedure, calls the exception handler if one is
// set (whatever the handler raises is swallowed too), and the thread ends
// normally. A fault unwinds nothing: destructors of the procedure's frames
// do not run, and a lock the procedure held stays held. At its end the
// thread closes its own handle, sets its id to 0 and gives back its cache of
// the default pool; its exit code is always 0.
//
// Ownership: an object made by Start belongs to the caller, who ends it with
//   thread->~QzThread(); Qz_MempoolFree(0, thread);
// and only after the thread has ended (WaitForExit returned 1), since the
// thread uses the object to its last step. The destructor neither stops nor
// waits for a running thread.
//
// Threads: IsThreadActive, WaitForExit and GetThreadId may run on any thread.
// Everything else belongs to the object's owner, one thread at a time.
// StartThread must not run while a thread of the object still runs.
//
// Failures: Start returns null and StartThread 0, with a log line (not for
// an empty procedure, nor when Start cannot get the object's memory). Priority refusals are ignored. A refused affinity
// fails the start; the thread then never runs its procedure.
#ifndef QZBASE_QZTHREAD_H
#define QZBASE_QZTHREAD_H

#include <qzbase/QzTypes.h>
#include <qzbase/QzDelegate.h>

#include <atomic>

class QZ_API QzThread {
 public:
  typedef fastdelegate::FastDelegate0<unsigned int> Procedure;

  QzThread();
  // Closes the handle; the thread, if it still runs, runs on.
  ~QzThread();

  // A new object from the default pool running `procedure`. stackSize 0:
  // default stack; priority 0: no change (else a Windows THREAD_PRIORITY_*
  // value); affinityMask 0: no change (else bit n is processor n). Null for
  // an empty procedure, no memory, or a failed start.
  static QzThread* Start(const Procedure& procedure, unsigned int stackSize, int priority, unsigned int affinityMask);

  // Called on the thread when the procedure raised; may stay empty. May be
  // set at any time, but a handler set while the thread could be reading it
  // is the caller's race.
  void SetExceptHandler(const Procedure& handler);

  // 1 while a thread is attached and has not ended; else 0.
  int IsThreadActive();
  // 1 when no thread is attached or it ended within `milliseconds`
  // (0xFFFFFFFF: no limit); 0 on a time-out, or when the thread closed its
  // handle just as the wait began (look at IsThreadActive for certainty).
  int WaitForExit(DWORD milliseconds);
  // Kills the thread at once: none of its end steps run and its pool cache
  // is lost; locks it held stay held. Logs a warning line even with no
  // thread attached.
  void Terminate();
  // The id of the running thread; 0 after its end or a kill.
  DWORD GetThreadId();

  QzThread(const QzThread&) = delete;
  QzThread& operator=(const QzThread&) = delete;

 protected:
  // 1 when the thread runs; 0 for an empty procedure or a failed step.
  int StartThread(unsigned int stackSize, int priority, unsigned int affinityMask);
  void SetThreadProc(const Procedure& procedure);
  static unsigned int InternalThreadEntryPoinit(void* self);
  void InternalThreadEntryPoinit();

 protected:
  std::atomic<void*> m_handle;  // written by the thread at its end
  std::atomic<DWORD> m_threadId;
  Procedure m_procedure;
  Procedure m_exceptHandler;
};

#endif  // QZBASE_QZTHREAD_H
