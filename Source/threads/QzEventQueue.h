// Event-queue thread, internal side: the queue, the record that carries a
// send, and the stop request.
#ifndef QZBASE_SOURCE_THREADS_QZEVENTQUEUE_H
#define QZBASE_SOURCE_THREADS_QZEVENTQUEUE_H

#include <qzbase/QzEventQueue.h>
#include <qzbase/QzSyncObject.h>

#include <atomic>

// Internal objects live in the default pool, as everything the library makes
// for itself; a failed allocation gives null, not an exception.
struct QzPoolObject {
  static void* operator new(size_t size) noexcept;
  static void operator delete(void* block) noexcept;
};

struct QzEventLinks {
  QzEventLinks* next;
  QzEventLinks* previous;
};

struct QzEventElement {
  QzEventLinks links;  // first, so that the list head and elements share links
  IQzEvent* event;
};

class QzEventQueue {
 public:
  // Null when there is no memory for the queue, its lock or its condition.
  static QzEventQueue* Create(QzThreadWithEventQueue* owner);
  static void Destroy(QzEventQueue* queue);

  // Queues events at the tail under one hold of the lock, then signals once.
  // The number queued; entries that are null or find no memory are skipped.
  // Once the loop has ended nothing is queued and *closed is set, so that no
  // event is left behind in a list nobody will walk again.
  unsigned Post(IQzEvent* const* events, unsigned count, bool* closed);
  // Waits for events when there are none, then takes all of them, in order.
  // The batch is a list of its own whose head the caller provides.
  void TakeAll(QzEventLinks* batch);
  // Closes the queue and releases, without running, whatever is pending
  // (the loop has ended).
  void ReleasePending();

  // Gives the elements of a batch that has run back to the queue, with one
  // hold of the lock, so that posts reuse them instead of going to the pool.
  void Recycle(QzEventLinks* batch, unsigned count);

 private:
  static void FreeAll(QzEventLinks* list);

  QzThreadWithEventQueue* owner_;
  QzThreadCondition* condition_;
  QzCriticalSection lock_;
  QzEventLinks pending_;
  bool closed_;        // under the lock
  QzEventLinks* spare_;  // elements to reuse, linked through next; under the lock
  unsigned spareCount_;
};

// Carries one SendEvent through the queue. The sender waits on the wake
// event; the record passes through the queue twice (once to run the event,
// once to be deleted by the queue thread) when the send succeeds. On every
// other way out, sender and queue thread each leave the record once, and the
// one that leaves last deletes it.
class QzEventSync : public IQzEvent, public QzPoolObject {
 public:
  QzEventSync(IQzEvent* event, QzEventQueue* queue);
  HRESULT Execute() override;
  void Release() override;
  ~QzEventSync() override;

  // The sender's side once the record is queued: the result of the send.
  HRESULT WaitResultAndDeleteThis(DWORD milliseconds);
  // The sender takes the event back (a record that was never queued).
  void Disown() { m_event = nullptr; }

 private:
  void Leave();

  IQzEvent* m_event;
  QzEventQueue* m_queue;
  HRESULT m_result;
  int m_done;
  QzThreadEvent m_wake;
  std::atomic<int> m_ran{0};   // the first pass ran the event
  std::atomic<int> m_left{0};  // parties that left without a second pass
};

// Ends the loop of its target when it runs on that target's thread.
class QzStopEvent : public IQzEvent, public QzPoolObject {
 public:
  explicit QzStopEvent(QzThreadWithEventQueue* target) : m_target(target) {}
  HRESULT Execute() override;
  void Release() override { delete this; }

 private:
  QzThreadWithEventQueue* m_target;
};

#endif  // QZBASE_SOURCE_THREADS_QZEVENTQUEUE_H
