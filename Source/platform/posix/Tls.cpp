#include "platform/QzPlatformTls.h"
#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformFaults.h"

#include <pthread.h>
#include <stdlib.h>

#include <mutex>

namespace qzsys {

std::atomic<uintptr_t> g_qzTlsGeneration[QZ_TLS_SLOT_COUNT];
__thread QzTlsEntry t_qzTlsFast[QZ_TLS_FAST_SLOTS] __attribute__((tls_model("initial-exec")));
__thread QzTlsEntry* t_qzTlsTable __attribute__((tls_model("initial-exec"))) = nullptr;

namespace {

std::mutex g_slotMutex;
bool g_slotUsed[QZ_TLS_SLOT_COUNT];

// The key exists only for its destructor, which gives a thread's table back.
// Made at the first need, deleted at detach: a thread-exit destructor must
// never point into a library that has been unloaded.
pthread_key_t g_tableKey;
bool g_tableKeyMade = false;  // under g_slotMutex

void FreeTable(void* table) {
  // Later destructors of the same thread may still read slots: they see 0.
  t_qzTlsTable = nullptr;
  free(table);
}

// The calling thread's entry of a slot beyond the fast ones; makes the table
// at the first need. Null when it cannot be made.
QzTlsEntry* TableEntry(DWORD index) {
  QzTlsEntry* table = t_qzTlsTable;
  if (table == nullptr) {
    // Entries start at generation 0, which only slots never freed have; for
    // the others they read 0 until stored, as they should.
    table = static_cast<QzTlsEntry*>(calloc(QZ_TLS_SLOT_COUNT, sizeof(QzTlsEntry)));
    if (table == nullptr) return nullptr;
    std::lock_guard<std::mutex> guard(g_slotMutex);
    // Without the key the table would only leak at thread end; nothing else changes.
    if (!g_tableKeyMade) g_tableKeyMade = pthread_key_create(&g_tableKey, FreeTable) == 0;
    if (g_tableKeyMade) (void)pthread_setspecific(g_tableKey, table);
    t_qzTlsTable = table;
  }
  return &table[index];
}

bool SlotInUse(DWORD index) {
  std::lock_guard<std::mutex> guard(g_slotMutex);
  return index < QZ_TLS_SLOT_COUNT && g_slotUsed[index];
}

}  // namespace

DWORD TlsAlloc() {
  if (QzFaultHit(QZ_FAULT_TLS_ALLOC)) {
    SetLastError(ERROR_NO_MORE_ITEMS);
    return TLS_OUT_OF_INDEXES;
  }
  std::lock_guard<std::mutex> guard(g_slotMutex);
  for (DWORD i = 0; i < QZ_TLS_SLOT_COUNT; ++i) {
    if (!g_slotUsed[i]) {
      g_slotUsed[i] = true;
      return i;
    }
  }
  SetLastError(ERROR_NO_MORE_ITEMS);
  return TLS_OUT_OF_INDEXES;
}

BOOL TlsFree(DWORD index) {
  std::lock_guard<std::mutex> guard(g_slotMutex);
  if (index >= QZ_TLS_SLOT_COUNT || !g_slotUsed[index]) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  // Every value stored so far now belongs to an old generation and reads 0.
  g_qzTlsGeneration[index].fetch_add(1, std::memory_order_relaxed);
  g_slotUsed[index] = false;
  return TRUE;
}

BOOL TlsSetValue(DWORD index, LPVOID value) {
  if (QzFaultHit(QZ_FAULT_TLS_SET_VALUE)) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
  if (!SlotInUse(index)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  QzTlsEntry* entry;
  if (index < QZ_TLS_FAST_SLOTS) {
    entry = &t_qzTlsFast[index];
  } else {
    entry = TableEntry(index);
    if (entry == nullptr) {
      SetLastError(ERROR_NOT_ENOUGH_MEMORY);
      return FALSE;
    }
  }
  entry->value = value;
  entry->generation = g_qzTlsGeneration[index].load(std::memory_order_relaxed);
  return TRUE;
}

LPVOID QzTlsGetValueSlow(DWORD index) {
  if (index >= QZ_TLS_SLOT_COUNT) SetLastError(ERROR_INVALID_PARAMETER);
  return nullptr;
}

void QzTlsRelease() {
  std::lock_guard<std::mutex> guard(g_slotMutex);
  if (g_tableKeyMade) {
    // The tables stay with their threads, which may still be running: at
    // an unload they are left to the process, like the pools' memory.
    (void)pthread_key_delete(g_tableKey);
    g_tableKeyMade = false;
  }
}

}  // namespace qzsys
