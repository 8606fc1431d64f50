// The handle table. A handle encodes a slot index and the slot's generation,
// so a closed handle stays invalid after its slot is reused. The table is
// guarded by one mutex; a lookup holds it only to check the slot and take a
// reference, so the system call itself runs outside it.
#include "platform/posix/Handles.h"
#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformFaults.h"

#include <mutex>
#include <vector>

namespace qzsys {

namespace {

// 18 bits of index and 12 of generation, shifted left by 2 like Windows
// handles: every value fits 32 bits, is a multiple of 4, and is never 0 or -1.
constexpr uint32_t kIndexBits = 18;
constexpr uint32_t kMaxSlots = 1u << kIndexBits;
constexpr uint32_t kGenerationMask = 0xFFFu;

struct Slot {
  QzKernelObject* object = nullptr;
  uint32_t generation = 1;
  uint32_t nextFree = 0;
};

struct Table {
  std::mutex mutex;
  std::vector<Slot> slots;
  uint32_t freeHead = UINT32_MAX;
  size_t live = 0;
};

Table& TheTable() {
  // Never destroyed: handles may be closed by static destructors of hosts.
  static Table* table = new Table;
  return *table;
}

HANDLE Encode(uint32_t index, uint32_t generation) {
  uintptr_t v = ((static_cast<uintptr_t>(generation) << kIndexBits) | index) << 2;
  return reinterpret_cast<HANDLE>(v);
}

bool Decode(HANDLE handle, uint32_t* index, uint32_t* generation) {
  uintptr_t v = reinterpret_cast<uintptr_t>(handle);
  if ((v & 3) != 0 || v > 0xFFFFFFFFu) return false;
  v >>= 2;
  *index = static_cast<uint32_t>(v & (kMaxSlots - 1));
  *generation = static_cast<uint32_t>(v >> kIndexBits);
  return *generation != 0;
}

// The slot of a live handle, with the table locked; null otherwise.
Slot* FindLocked(Table& t, HANDLE handle) {
  uint32_t index, generation;
  if (!Decode(handle, &index, &generation)) return nullptr;
  if (index >= t.slots.size()) return nullptr;
  Slot& s = t.slots[index];
  if (s.object == nullptr || s.generation != generation) return nullptr;
  return &s;
}

}  // namespace

DWORD QzKernelObject::Wait(bool, std::chrono::steady_clock::time_point) {
  SetLastError(ERROR_INVALID_HANDLE);
  return WAIT_FAILED;
}

HANDLE QzHandleInsert(QzKernelObject* object) {
  Table& t = TheTable();
  std::unique_lock<std::mutex> lock(t.mutex);
  uint32_t index;
  if (t.freeHead != UINT32_MAX) {
    index = t.freeHead;
    t.freeHead = t.slots[index].nextFree;
  } else if (t.slots.size() < kMaxSlots) {
    index = static_cast<uint32_t>(t.slots.size());
    t.slots.emplace_back();
  } else {
    lock.unlock();
    object->Release();
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  Slot& s = t.slots[index];
  s.object = object;
  ++t.live;
  return Encode(index, s.generation);
}

QzObjectRef QzHandleLookupAny(HANDLE handle) {
  Table& t = TheTable();
  {
    std::lock_guard<std::mutex> lock(t.mutex);
    if (Slot* s = FindLocked(t, handle)) {
      s->object->AddRef();
      return QzObjectRef(s->object);
    }
  }
  SetLastError(ERROR_INVALID_HANDLE);
  return QzObjectRef();
}

QzObjectRef QzHandleLookup(HANDLE handle, QzObjectKind kind) {
  QzObjectRef ref = QzHandleLookupAny(handle);
  if (ref && ref.get()->kind() != kind) {
    ref.reset();
    SetLastError(ERROR_INVALID_HANDLE);
  }
  return ref;
}

BOOL CloseHandle(HANDLE handle) {
  Table& t = TheTable();
  QzKernelObject* object = nullptr;
  {
    std::lock_guard<std::mutex> lock(t.mutex);
    Slot* s = FindLocked(t, handle);
    if (s != nullptr && !QzFaultHit(QZ_FAULT_CLOSE_HANDLE)) {
      object = s->object;
      s->object = nullptr;
      s->generation = (s->generation + 1) & kGenerationMask;
      if (s->generation == 0) s->generation = 1;
      uint32_t index = static_cast<uint32_t>(s - t.slots.data());
      s->nextFree = t.freeHead;
      t.freeHead = index;
      --t.live;
    } else if (s != nullptr) {
      SetLastError(ERROR_IO_DEVICE);
      return FALSE;
    }
  }
  if (object == nullptr) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  object->OnHandleClosed();
  object->Release();
  return TRUE;
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
  if (QzFaultHit(QZ_FAULT_WAIT)) {
    SetLastError(ERROR_INVALID_HANDLE);
    return WAIT_FAILED;
  }
  QzObjectRef ref = QzHandleLookupAny(handle);
  if (!ref) return WAIT_FAILED;
  bool infinite = false;
  auto deadline = QzDeadlineAfter(milliseconds, &infinite);
  return ref.get()->Wait(infinite, deadline);
}

std::chrono::steady_clock::time_point QzDeadlineAfter(DWORD milliseconds, bool* infinite) {
  *infinite = milliseconds == INFINITE;
  return std::chrono::steady_clock::now() + std::chrono::milliseconds(*infinite ? 0 : milliseconds);
}

size_t QzHandleCount() {
  Table& t = TheTable();
  std::lock_guard<std::mutex> lock(t.mutex);
  return t.live;
}

}  // namespace qzsys
