// qzbase: a thread that runs queued events one after the other.
//
// Other threads post events (and go on) or send them (and wait for the
// result); the queue thread runs them in order, one at a time, so the work
// handed to one such thread needs no lock of its own. Events of one poster
// run in the order they were posted.
//
// Threads: PostEvent, PostEventArray and SendEvent may run on any thread,
// at the same time. SetStopFlag may run on any thread but acts only on the
// queue thread. Start and Stop belong to the owner; Stop never runs on the
// queue thread (a handler there calls SetStopFlag), and no other thread may
// be inside a post or a send when Stop destroys the object.
//
// Ownership of an event handed to the queue (IQzEvent::Release is called
// exactly once for every event the queue takes over):
//   PostEvent   null event                0x80070057  nothing to own
//               thread not running        0x80004005  released at once (do not touch it again)
//               no memory                 0x8007000E  stays the caller's
//               queued                    0           the queue's: run, then released
//   PostEventArray null array or count 0  0x80070057  nothing to own
//               thread not running        0x80004005  every entry released, in order
//               no entry could be queued  0x8007000E  all stay the caller's
//               some queued               0           queued ones the queue's, the others the caller's
//               (null entries are skipped; an array of nulls only gives 0x80070057)
//   SendEvent   null event                0x80070057  nothing to own
//               thread not running        0x80004005  released at once
//               called on the queue thread  Execute's result, run and released at once
//               no memory                 0x8007000E  stays the caller's
//               ran in time               Execute's result, released by the queue thread
//               time-out or failed wait   0x800705B4 on a time-out, else the wait's code;
//                                         the event stays queued, runs later and is
//                                         released by the queue thread; its result goes nowhere
//   Once the loop has ended, events still pending are released without
//   running, and a sender still waiting for one of them wakes at once with
//   0x80004005. The bookkeeping record of a send is freed by whichever of the
//   sender and the queue thread leaves it last, on every way out (time-outs
//   and a loop that ends first included), so nothing leaks.
//
// An exception or processor fault out of Execute or Release ends the queue
// thread (its guard keeps the process alive): the rest of the batch is
// neither run nor released, later posts are accepted and never run, and
// senders without a time limit wait for ever. After a forced kill the same
// holds for whatever was pending. Send with a time limit wherever a handler
// may misbehave.
//
// Stop: posts a stop request and waits up to `milliseconds` for the thread,
// then 400 ms more with the run flag cleared; if the thread is still in a
// handler, it waits once more as long and kills it by force (a warning line
// is logged). It returns within 2 * milliseconds + 800 ms plus scheduling
// delays, and in every case destroys the object and sets the pointer to null.
#ifndef QZBASE_QZEVENTQUEUE_H
#define QZBASE_QZEVENTQUEUE_H

#include <qzbase/QzTypes.h>
#include <qzbase/QzThread.h>

#include <atomic>
#include <stddef.h>

// An event: implemented by hosts. Execute runs on the queue thread; its
// result goes to SendEvent's caller (a posted event's result is dropped).
// Release ends the event's life, usually by deleting it.
class IQzEvent {
 public:
  virtual HRESULT Execute() = 0;
  virtual void Release() = 0;
  virtual ~IQzEvent() {}
};

class QzEventQueue;

class QZ_API QzThreadWithEventQueue : public QzThread {
 public:
  // Arguments as for QzThread::Start. Null on any failure (no memory, the
  // queue's lock or condition could not be made, the thread did not start).
  static QzThreadWithEventQueue* Start(unsigned int stackSize, int priority, unsigned int affinityMask);
  // Stops and destroys `thread` and sets it to null; returns at once for null.
  static void Stop(QzThreadWithEventQueue*& thread, DWORD milliseconds);

  HRESULT PostEvent(IQzEvent* event);
  HRESULT PostEventArray(IQzEvent** const events, unsigned int count);
  // Waits up to `milliseconds` (0xFFFFFFFF: no limit) for the event to run.
  HRESULT SendEvent(IQzEvent* event, DWORD milliseconds);
  // On the queue thread: ends the loop after the current batch. Anywhere:
  // 1 when the loop has been asked to end, else 0.
  int SetStopFlag();

  // Objects live in the default pool; they die in Stop only.
  static void* operator new(size_t size) noexcept;
  static void operator delete(void* block) noexcept;

 protected:
  QzThreadWithEventQueue();
  virtual ~QzThreadWithEventQueue();
  unsigned int Run();

 private:
  friend class QzEventQueue;
  friend class QzStopEvent;
  HRESULT Refuse(IQzEvent* event, const char* line);

  std::atomic<int> m_runFlag;  // read and written without a lock, so atomic
  QzEventQueue* m_queue;
};

#endif  // QZBASE_QZEVENTQUEUE_H
