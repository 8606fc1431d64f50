// A thread that owns a queue of events and runs them one after the other.
#include "threads/QzEventQueue.h"

#include <qzbase/QzException.h>
#include <qzbase/QzLog.h>
#include <qzbase/QzMempool.h>

#include <new>

#include "platform/QzPlatform.h"

using namespace qzsys;

namespace {

void LogError(const char* line) { QZ_LOG_WRITE_STRING(QZ_LOG_ERROR, QzStringT<char>(line)); }

unsigned int DoNothing() { return 0; }

bool Empty(const QzEventLinks* head) { return head->next == head; }

}  // namespace

void* QzPoolObject::operator new(size_t size) noexcept { return Qz_MempoolAlloc(nullptr, size); }
void QzPoolObject::operator delete(void* block) noexcept { Qz_MempoolFree(nullptr, block); }
void* QzThreadWithEventQueue::operator new(size_t size) noexcept { return Qz_MempoolAlloc(nullptr, size); }
void QzThreadWithEventQueue::operator delete(void* block) noexcept { Qz_MempoolFree(nullptr, block); }

// ---- The queue -------------------------------------------------------------------
QzEventQueue* QzEventQueue::Create(QzThreadWithEventQueue* owner) {
  void* memory = Qz_MempoolAlloc(nullptr, sizeof(QzEventQueue));
  if (memory == nullptr) return nullptr;
  auto* queue = static_cast<QzEventQueue*>(memory);
  queue->owner_ = owner;
  queue->condition_ = nullptr;
  queue->pending_.next = queue->pending_.previous = &queue->pending_;
  queue->closed_ = false;
  queue->spare_ = nullptr;
  queue->spareCount_ = 0;
  try {
    Qz_InitializeCriticalSection(&queue->lock_);
  } catch (const QzException&) {
    Qz_MempoolFree(nullptr, memory);
    return nullptr;
  }
  void* condition = Qz_MempoolAlloc(nullptr, sizeof(QzThreadCondition));
  if (condition == nullptr) {
    Qz_DeleteCriticalSection(&queue->lock_);
    Qz_MempoolFree(nullptr, memory);
    return nullptr;
  }
  try {
    queue->condition_ = new (condition) QzThreadCondition(&queue->lock_);
  } catch (const QzException&) {  // its inner lock could not be made
    Qz_MempoolFree(nullptr, condition);
    Qz_DeleteCriticalSection(&queue->lock_);
    Qz_MempoolFree(nullptr, memory);
    return nullptr;
  }
  return queue;
}

void QzEventQueue::Destroy(QzEventQueue* queue) {
  if (queue == nullptr) return;
  for (QzEventLinks* link = queue->spare_; link != nullptr;) {
    QzEventLinks* next = link->next;
    Qz_MempoolFree(nullptr, link);
    link = next;
  }
  queue->condition_->~QzThreadCondition();
  Qz_MempoolFree(nullptr, queue->condition_);
  Qz_DeleteCriticalSection(&queue->lock_);
  Qz_MempoolFree(nullptr, queue);
}

unsigned QzEventQueue::Post(IQzEvent* const* events, unsigned count, bool* closed) {
  unsigned queued = 0;
  Qz_EnterCriticalSection(&lock_);
  *closed = closed_;
  for (unsigned i = 0; i < count && !closed_; ++i) {
    if (events[i] == nullptr) continue;
    QzEventElement* element;
    if (spare_ != nullptr) {
      element = reinterpret_cast<QzEventElement*>(spare_);
      spare_ = spare_->next;
      --spareCount_;
    } else {
      element = static_cast<QzEventElement*>(Qz_MempoolAlloc(nullptr, sizeof(QzEventElement)));
      if (element == nullptr) continue;
    }
    element->event = events[i];
    element->links.previous = pending_.previous;
    element->links.next = &pending_;
    pending_.previous->next = &element->links;
    pending_.previous = &element->links;
    ++queued;
  }
  Qz_LeaveCriticalSection(&lock_);
  // After the lock: the queue thread counts itself as a waiter before it
  // gives up the lock, so the signal cannot be lost.
  if (queued != 0) (void)condition_->Signal();
  return queued;
}

void QzEventQueue::TakeAll(QzEventLinks* batch) {
  batch->next = batch->previous = batch;
  Qz_EnterCriticalSection(&lock_);
  if (Empty(&pending_) && FAILED(condition_->Wait(INFINITE)))
    LogError("QzEventQueue::PopOrWaitPendingEvents: Wait pending events failed");
  if (!Empty(&pending_)) {
    batch->next = pending_.next;
    batch->previous = pending_.previous;
    batch->next->previous = batch;
    batch->previous->next = batch;
    pending_.next = pending_.previous = &pending_;
  }
  Qz_LeaveCriticalSection(&lock_);
}

void QzEventQueue::ReleasePending() {
  QzEventLinks left;
  Qz_EnterCriticalSection(&lock_);
  closed_ = true;
  left.next = pending_.next;
  left.previous = pending_.previous;
  pending_.next = pending_.previous = &pending_;
  Qz_LeaveCriticalSection(&lock_);
  if (left.next == &pending_) return;
  left.next->previous = &left;
  left.previous->next = &left;
  for (QzEventLinks* link = left.next; link != &left; link = link->next)
    reinterpret_cast<QzEventElement*>(link)->event->Release();
  FreeAll(&left);
}

void QzEventQueue::FreeAll(QzEventLinks* list) {
  for (QzEventLinks* link = list->next; link != list;) {
    QzEventLinks* next = link->next;
    Qz_MempoolFree(nullptr, link);
    link = next;
  }
  list->next = list->previous = list;
}

void QzEventQueue::Recycle(QzEventLinks* batch, unsigned count) {
  // Enough spares for a busy batch; a burst beyond that goes back to the pool.
  constexpr unsigned kMostSpares = 1024;
  if (count == 0) return;
  Qz_EnterCriticalSection(&lock_);
  const bool keep = spareCount_ + count <= kMostSpares;
  if (keep) {
    batch->previous->next = spare_;
    spare_ = batch->next;
    spareCount_ += count;
  }
  Qz_LeaveCriticalSection(&lock_);
  if (keep) batch->next = batch->previous = batch;
  else FreeAll(batch);
}

// ---- The record of a send --------------------------------------------------------
QzEventSync::QzEventSync(IQzEvent* event, QzEventQueue* queue)
    : m_event(event), m_queue(queue), m_result(E_FAIL), m_done(0), m_wake(1, 0, nullptr) {}

HRESULT QzEventSync::Execute() {
  if (m_done) return S_OK;  // second pass
  m_result = m_event != nullptr ? m_event->Execute() : E_POINTER;
  m_ran.store(1, std::memory_order_release);
  const HRESULT result = m_result;
  (void)m_wake.Signal();  // the sender may read the result from here on
  return result;
}

void QzEventSync::Release() {
  if (m_done) {  // second pass: the sender is gone
    delete this;
    return;
  }
  m_done = 1;
  if (m_event != nullptr) {
    m_event->Release();
    m_event = nullptr;
  }
  // Released without running (the loop has ended): wake a sender that may
  // wait with no limit; it gets the initial 0x80004005.
  if (m_ran.load(std::memory_order_acquire) == 0) (void)m_wake.Signal();
  Leave();
}

void QzEventSync::Leave() {
  if (m_left.fetch_add(1, std::memory_order_acq_rel) == 1) delete this;
}

QzEventSync::~QzEventSync() {
  if (m_event != nullptr) m_event->Release();
  if (!m_done) (void)m_wake.Signal();
}

HRESULT QzEventSync::WaitResultAndDeleteThis(DWORD milliseconds) {
  const HRESULT waited = m_wake.Wait(milliseconds);
  if (FAILED(waited)) {
    LogError("QzEventSync::WaitResultAndDeleteThis, WaitForSync failed!");
    Leave();
    return waited;
  }
  const HRESULT result = m_result;
  // A record that ran goes round once more, so that the queue thread, which
  // may still be inside its first Release, is the one to delete it. One that
  // never ran belongs to a loop that has ended: leave it instead.
  IQzEvent* self = this;
  bool closed = false;
  if (m_ran.load(std::memory_order_acquire) == 0 || m_queue->Post(&self, 1, &closed) == 0) Leave();
  return result;
}

// ---- The stop request --------------------------------------------------------------
HRESULT QzStopEvent::Execute() {
  if (m_target != nullptr && GetCurrentThreadId() == m_target->GetThreadId())
    m_target->m_runFlag.store(0, std::memory_order_relaxed);
  return S_OK;
}

// ---- The thread --------------------------------------------------------------------
QzThreadWithEventQueue::QzThreadWithEventQueue() : m_runFlag(1), m_queue(QzEventQueue::Create(this)) {
  if (m_queue == nullptr) m_runFlag.store(0, std::memory_order_relaxed);
  SetThreadProc(Procedure::FromMember<QzThreadWithEventQueue, &QzThreadWithEventQueue::Run>(this));
}

QzThreadWithEventQueue::~QzThreadWithEventQueue() { QzEventQueue::Destroy(m_queue); }

QzThreadWithEventQueue* QzThreadWithEventQueue::Start(unsigned int stackSize, int priority, unsigned int affinityMask) {
  auto* thread = new QzThreadWithEventQueue();
  if (thread == nullptr) return nullptr;
  if (thread->m_queue == nullptr || !thread->StartThread(stackSize, priority, affinityMask)) {
    delete thread;  // a thread that never ran ends quietly once its handle goes
    return nullptr;
  }
  return thread;
}

unsigned int QzThreadWithEventQueue::Run() {
  // The flag is tested between batches only: the whole batch that holds a
  // stop request runs, also what stands behind it.
  while (m_queue != nullptr && m_runFlag.load(std::memory_order_relaxed) != 0) {
    QzEventLinks batch;
    m_queue->TakeAll(&batch);
    unsigned count = 0;
    for (QzEventLinks* link = batch.next; link != &batch; link = link->next, ++count) {
      IQzEvent* event = reinterpret_cast<QzEventElement*>(link)->event;
      (void)event->Execute();
      event->Release();
    }
    m_queue->Recycle(&batch, count);
  }
  if (m_queue != nullptr) m_queue->ReleasePending();
  return 0;
}

HRESULT QzThreadWithEventQueue::Refuse(IQzEvent* event, const char* line) {
  event->Release();
  LogError(line);
  return E_FAIL;
}

HRESULT QzThreadWithEventQueue::PostEvent(IQzEvent* event) {
  static const char kRefused[] = "QzThreadWithEventQueue::PostEvent, Thread is not actived.";
  if (event == nullptr) return E_INVALIDARG;
  if (m_runFlag.load(std::memory_order_relaxed) == 0) return Refuse(event, kRefused);
  bool closed = false;
  if (m_queue->Post(&event, 1, &closed) != 0) return S_OK;
  return closed ? Refuse(event, kRefused) : E_OUTOFMEMORY;
}

HRESULT QzThreadWithEventQueue::PostEventArray(IQzEvent** const events, unsigned int count) {
  if (events == nullptr || count == 0) return E_INVALIDARG;
  unsigned present = 0;
  for (unsigned i = 0; i < count; ++i) present += events[i] != nullptr;
  if (present == 0) return E_INVALIDARG;
  bool closed = false;
  if (m_runFlag.load(std::memory_order_relaxed) != 0) {
    if (m_queue->Post(events, count, &closed) != 0) return S_OK;
    if (!closed) return E_OUTOFMEMORY;
  }
  for (unsigned i = 0; i < count; ++i)
    if (events[i] != nullptr) events[i]->Release();
  LogError("QzThreadWithEventQueue::PostEventArray, Thread is not actived.");
  return E_FAIL;
}

HRESULT QzThreadWithEventQueue::SendEvent(IQzEvent* event, DWORD milliseconds) {
  static const char kRefused[] = "QzThreadWithEventQueue::SendEvent, Thread is not actived.";
  if (event == nullptr) return E_INVALIDARG;
  if (m_runFlag.load(std::memory_order_relaxed) == 0) return Refuse(event, kRefused);
  if (GetCurrentThreadId() == GetThreadId()) {
    // On the queue thread itself: waiting would wait for ever.
    const HRESULT result = event->Execute();
    event->Release();
    return result;
  }
  auto* sync = new QzEventSync(event, m_queue);
  if (sync == nullptr) return E_OUTOFMEMORY;
  IQzEvent* record = sync;
  bool closed = false;
  if (m_queue->Post(&record, 1, &closed) == 0) {
    sync->Disown();  // never queued: the event is the caller's again
    delete sync;
    return closed ? Refuse(event, kRefused) : E_OUTOFMEMORY;
  }
  return sync->WaitResultAndDeleteThis(milliseconds);
}

int QzThreadWithEventQueue::SetStopFlag() {
  if (GetCurrentThreadId() == GetThreadId()) m_runFlag.store(0, std::memory_order_relaxed);
  return m_runFlag.load(std::memory_order_relaxed) == 0 ? 1 : 0;
}

namespace {

// Posts a stop request as PostEvent does; the run flag is cleared when the
// post fails for any reason.
void RequestStop(QzThreadWithEventQueue* thread, QzThreadWithEventQueue* target, std::atomic<int>* runFlag) {
  auto* stop = new QzStopEvent(target);
  const HRESULT posted = stop != nullptr ? thread->PostEvent(stop) : E_OUTOFMEMORY;
  if (posted == E_OUTOFMEMORY && stop != nullptr) stop->Release();  // not taken over
  if (FAILED(posted)) runFlag->store(0, std::memory_order_relaxed);
}

}  // namespace

void QzThreadWithEventQueue::Stop(QzThreadWithEventQueue*& thread, DWORD milliseconds) {
  QzThreadWithEventQueue* const t = thread;
  if (t == nullptr) return;
  // Still there: a handle that the thread has not closed at its end, and an
  // exit code that says it runs.
  auto stillRunning = [t] {
    HANDLE handle = t->m_handle.load(std::memory_order_acquire);
    DWORD code = 0;
    return handle != nullptr && GetExitCodeThread(handle, &code) && code == STILL_ACTIVE;
  };
  auto clearAndWait = [t] {
    t->m_runFlag.store(0, std::memory_order_relaxed);
    for (int i = 0; i < 4; ++i)
      if (t->WaitForExit(100)) break;
  };
  RequestStop(t, t, &t->m_runFlag);
  if (!t->WaitForExit(milliseconds)) {
    clearAndWait();
    if (stillRunning()) {
      // The thread is stuck in a handler: whatever that handler raises from
      // now on goes nowhere. The second request is refused (the flag is 0)
      // and only logs.
      t->SetExceptHandler(Procedure(&DoNothing));
      RequestStop(t, nullptr, &t->m_runFlag);
      if (!t->WaitForExit(milliseconds)) {
        clearAndWait();
        if (stillRunning()) t->Terminate();
      }
    }
  }
  delete t;
  thread = nullptr;
}
