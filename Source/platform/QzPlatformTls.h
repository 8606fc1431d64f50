// Platform layer, thread-local slots: TlsAlloc, TlsFree, TlsGetValue,
// TlsSetValue with the Windows results.
//
// Every pool owns one slot, and every allocation of a cached pool reads it, so
// TlsGetValue is inline. The first QZ_TLS_FAST_SLOTS slots live in the static
// TLS block itself (one initial-exec load and a generation compare); the
// others in a per-thread table of QZ_TLS_SLOT_COUNT entries, made at the
// thread's first TlsSetValue of such a slot and given back when the thread
// ends. A thread that never stored reads 0 everywhere. Slots are handed out
// lowest first, so the default pool's slot is normally a fast one. The static
// TLS cost stays small (136 bytes on x86-64), so the library can still be
// loaded late with dlopen.
//
// TlsFree makes the slot read 0 in every thread: it bumps the slot's
// generation, and an entry stored under an older generation reads as 0. So a
// slot that is freed and handed out again starts at 0 in all threads, as on
// Windows.
//
// Differences from Windows, by choice:
//  - QZ_TLS_SLOT_COUNT is 256, not 1088; TlsAlloc fails with
//    TLS_OUT_OF_INDEXES (last error ERROR_NO_MORE_ITEMS) beyond it.
//  - A successful TlsGetValue leaves the last error alone (Windows clears
//    it). Callers here never need to tell a stored 0 from a failure.
//  - TlsSetValue on a slot that is not allocated fails with
//    ERROR_INVALID_PARAMETER.
//
// Failure switches: QZ_FAULT_TLS_ALLOC makes TlsAlloc fail,
// QZ_FAULT_TLS_SET_VALUE makes TlsSetValue fail (ERROR_NOT_ENOUGH_MEMORY).
#ifndef QZBASE_PLATFORM_QZPLATFORMTLS_H
#define QZBASE_PLATFORM_QZPLATFORMTLS_H

#include "platform/QzWinTypes.h"

#include <atomic>

namespace qzsys {

constexpr DWORD TLS_OUT_OF_INDEXES = 0xFFFFFFFFu;
constexpr DWORD ERROR_NO_MORE_ITEMS = 259;
constexpr DWORD QZ_TLS_SLOT_COUNT = 256;
constexpr DWORD QZ_TLS_FAST_SLOTS = 8;

// One value of one thread, valid only while `generation` matches the slot's.
struct QzTlsEntry {
  LPVOID value;
  uintptr_t generation;
};

// Generation of each slot, raised by TlsFree.
extern std::atomic<uintptr_t> g_qzTlsGeneration[QZ_TLS_SLOT_COUNT];
// The calling thread's values of the fast slots, and its table for the others
// (null until it first stores into one of them). `__thread` rather than
// thread_local: plain data needs no initialisation check on each read.
extern __thread QzTlsEntry t_qzTlsFast[QZ_TLS_FAST_SLOTS] __attribute__((tls_model("initial-exec")));
extern __thread QzTlsEntry* t_qzTlsTable __attribute__((tls_model("initial-exec")));

// A free slot, or TLS_OUT_OF_INDEXES.
DWORD TlsAlloc();
// Releases a slot; its value reads 0 in every thread from now on. FALSE with
// ERROR_INVALID_PARAMETER for a slot that is not allocated.
BOOL TlsFree(DWORD index);
// Stores the calling thread's value. FALSE on an unallocated slot or when the
// thread's table cannot be made (ERROR_NOT_ENOUGH_MEMORY).
BOOL TlsSetValue(DWORD index, LPVOID value);

// Detach: removes the thread-exit destructor of the per-thread tables, so
// that none points into an unloaded library. Slots and values stay; a
// thread's table is then left to the process when the thread ends, and a
// thread that makes a new table makes the destructor again.
void QzTlsRelease();

// The calling thread's value; 0 if it never stored one in this slot since the
// slot was allocated. An index out of range gives 0 and ERROR_INVALID_PARAMETER.
LPVOID QzTlsGetValueSlow(DWORD index);
inline LPVOID TlsGetValue(DWORD index) {
  const QzTlsEntry* e;
  if (__builtin_expect(index < QZ_TLS_FAST_SLOTS, 1)) {
    e = &t_qzTlsFast[index];
  } else {
    QzTlsEntry* table = t_qzTlsTable;
    if (table == nullptr || index >= QZ_TLS_SLOT_COUNT) return QzTlsGetValueSlow(index);
    e = &table[index];
  }
  if (__builtin_expect(e->generation != g_qzTlsGeneration[index].load(std::memory_order_relaxed), 0)) return nullptr;
  return e->value;
}

// The same value for a valid slot, without the last error of a bad index (which
// reads 0 here too): a variant that never calls out, for the pools' fast paths.
inline LPVOID QzTlsPeekValue(DWORD index) {
  const QzTlsEntry* e;
  if (__builtin_expect(index < QZ_TLS_FAST_SLOTS, 1)) {
    e = &t_qzTlsFast[index];
  } else {
    QzTlsEntry* table = t_qzTlsTable;
    if (table == nullptr || index >= QZ_TLS_SLOT_COUNT) return nullptr;
    e = &table[index];
  }
  if (__builtin_expect(e->generation != g_qzTlsGeneration[index].load(std::memory_order_relaxed), 0)) return nullptr;
  return e->value;
}

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMTLS_H
