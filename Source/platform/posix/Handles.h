// POSIX side of the handle space: the object base and the table that maps
// handles to objects. Every area that makes kernel objects (files, events,
// semaphores, threads, mappings) derives from QzKernelObject and registers
// its objects here; CloseHandle and WaitForSingleObject work on all of them.
#ifndef QZBASE_PLATFORM_POSIX_HANDLES_H
#define QZBASE_PLATFORM_POSIX_HANDLES_H

#include "platform/QzPlatformHandle.h"

#include <atomic>
#include <chrono>

namespace qzsys {

enum class QzObjectKind { File, Event, Semaphore, Thread, Mapping };

// A kernel object. Reference-counted: the table holds one reference for the
// handle, and each call in flight holds one through QzObjectRef. The object is
// deleted when the last reference goes, so its destructor is where system
// resources (descriptors, shared memory) are given back.
class QzKernelObject {
 public:
  explicit QzKernelObject(QzObjectKind kind) : kind_(kind) {}
  virtual ~QzKernelObject() = default;
  QzObjectKind kind() const { return kind_; }

  // Waiting. Objects that cannot be waited on keep the default, which makes
  // WaitForSingleObject fail with ERROR_INVALID_HANDLE as on Windows for a
  // file handle. `deadline` is on the steady clock; `infinite` ignores it.
  // Returns WAIT_OBJECT_0 or WAIT_TIMEOUT (or WAIT_FAILED with the last error).
  virtual DWORD Wait(bool infinite, std::chrono::steady_clock::time_point deadline);

  // Called by CloseHandle when the handle goes away; the object may still be
  // referenced by calls in flight. Default: nothing.
  virtual void OnHandleClosed() {}

  void AddRef() { refs_.fetch_add(1, std::memory_order_relaxed); }
  void Release() {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  QzKernelObject(const QzKernelObject&) = delete;
  QzKernelObject& operator=(const QzKernelObject&) = delete;

 private:
  const QzObjectKind kind_;
  std::atomic<long> refs_{1};
};

// A counted reference to an object, taken from a handle for one call.
class QzObjectRef {
 public:
  QzObjectRef() = default;
  explicit QzObjectRef(QzKernelObject* object) : object_(object) {}  // adopts one reference
  QzObjectRef(QzObjectRef&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }
  QzObjectRef& operator=(QzObjectRef&& other) noexcept {
    if (this != &other) { reset(); object_ = other.object_; other.object_ = nullptr; }
    return *this;
  }
  ~QzObjectRef() { reset(); }
  void reset() { if (object_ != nullptr) { object_->Release(); object_ = nullptr; } }
  QzKernelObject* get() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  template <class T> T* as() const { return static_cast<T*>(object_); }
  QzObjectRef(const QzObjectRef&) = delete;
  QzObjectRef& operator=(const QzObjectRef&) = delete;

 private:
  QzKernelObject* object_ = nullptr;
};

// Registers a new object (the table adopts the object's first reference) and
// returns its handle; null with ERROR_NOT_ENOUGH_MEMORY (the object is
// released) when the table is full.
HANDLE QzHandleInsert(QzKernelObject* object);

// The object behind a handle, with a reference for the caller. Empty, with
// the last error set to ERROR_INVALID_HANDLE, for a closed or made-up handle
// or for an object of another kind than `kind`.
QzObjectRef QzHandleLookup(HANDLE handle, QzObjectKind kind);
// The same for any kind.
QzObjectRef QzHandleLookupAny(HANDLE handle);

// Milliseconds from now as a steady-clock deadline (INFINITE: `infinite`).
std::chrono::steady_clock::time_point QzDeadlineAfter(DWORD milliseconds, bool* infinite);

// Number of live handles (tests check that nothing leaks).
size_t QzHandleCount();

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_POSIX_HANDLES_H
