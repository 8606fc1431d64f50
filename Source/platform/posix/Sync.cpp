// TEMPORARY STUB (not committed).
#include "platform/QzPlatformSync.h"
#include "platform/QzPlatformBase.h"
#include "platform/posix/Handles.h"
#include <string.h>
#include <mutex>
#include <condition_variable>
namespace qzsys {
BOOL InitializeCriticalSection(CRITICAL_SECTION* s) { memset(s, 0, sizeof *s); s->LockSemaphore = new std::recursive_mutex; return TRUE; }
BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* s, DWORD) { return InitializeCriticalSection(s); }
void EnterCriticalSection(CRITICAL_SECTION* s) { static_cast<std::recursive_mutex*>(s->LockSemaphore)->lock(); }
BOOL TryEnterCriticalSection(CRITICAL_SECTION* s) { return static_cast<std::recursive_mutex*>(s->LockSemaphore)->try_lock(); }
void LeaveCriticalSection(CRITICAL_SECTION* s) { static_cast<std::recursive_mutex*>(s->LockSemaphore)->unlock(); }
void DeleteCriticalSection(CRITICAL_SECTION* s) { delete static_cast<std::recursive_mutex*>(s->LockSemaphore); }
namespace {
struct Obj : QzKernelObject {
  Obj(QzObjectKind k, bool manual, long count, long max) : QzKernelObject(k), manual(manual), count(count), max(max) {}
  std::mutex m; std::condition_variable cv; bool manual; long count; long max;
  DWORD Wait(bool inf, std::chrono::steady_clock::time_point d) override {
    std::unique_lock<std::mutex> l(m);
    if (inf) cv.wait(l, [&] { return count > 0; });
    else if (!cv.wait_until(l, d, [&] { return count > 0; })) return WAIT_TIMEOUT;
    if (!manual) --count;
    return WAIT_OBJECT_0;
  }
};
Obj* Get(HANDLE h, QzObjectKind k, QzObjectRef* r) { *r = QzHandleLookup(h, k); return r->as<Obj>(); }
}
HANDLE CreateEventA(LPSECURITY_ATTRIBUTES, BOOL m, BOOL i, LPCSTR) { return QzHandleInsert(new Obj(QzObjectKind::Event, m, i ? 1 : 0, 1)); }
BOOL SetEvent(HANDLE h) { QzObjectRef r; Obj* o = Get(h, QzObjectKind::Event, &r); if (!o) return FALSE; { std::lock_guard<std::mutex> l(o->m); o->count = 1; } o->cv.notify_all(); return TRUE; }
BOOL ResetEvent(HANDLE h) { QzObjectRef r; Obj* o = Get(h, QzObjectKind::Event, &r); if (!o) return FALSE; std::lock_guard<std::mutex> l(o->m); o->count = 0; return TRUE; }
BOOL PulseEvent(HANDLE h) { return ResetEvent(h); }
HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES, LONG i, LONG m, LPCSTR) { return QzHandleInsert(new Obj(QzObjectKind::Semaphore, false, i, m)); }
BOOL ReleaseSemaphore(HANDLE h, LONG n, LONG* p) { QzObjectRef r; Obj* o = Get(h, QzObjectKind::Semaphore, &r); if (!o) return FALSE; { std::lock_guard<std::mutex> l(o->m); if (p) *p = o->count; o->count += n; } o->cv.notify_all(); return TRUE; }
BOOL QzLocalTimeOf(int64_t, QzLocalTime* out) { memset(out, 0, sizeof *out); return FALSE; }
}
