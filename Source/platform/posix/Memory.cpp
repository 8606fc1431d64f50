// POSIX implementation of the memory area of the platform layer.
//
// munmap needs the length that VirtualFree does not pass, so every allocation
// handed out is recorded in a sorted table (base, size). The table lives in
// memory mapped for it alone, never in the pools it serves, and is guarded by
// one mutex: allocations are whole granules and rare next to block traffic.
#include "platform/QzPlatformMemory.h"
#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformFaults.h"

#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

namespace qzsys {

namespace {

struct Allocation {
  uintptr_t base;
  size_t size;
};

std::mutex g_tableLock;
Allocation* g_table = nullptr;  // sorted by base
size_t g_count = 0;
size_t g_capacity = 0;  // entries
std::atomic<QzVirtualAllocPlacement> g_placement{nullptr};
std::atomic<void*> g_placementContext{nullptr};

size_t PageSize() {
  static const size_t page = [] {
    long p = sysconf(_SC_PAGESIZE);
    return p > 0 ? static_cast<size_t>(p) : size_t(4096);
  }();
  return page;
}

// First index whose base is above `address`. Table lock held.
size_t UpperBound(uintptr_t address) {
  size_t lo = 0, hi = g_count;
  while (lo < hi) {
    size_t mid = lo + (hi - lo) / 2;
    if (g_table[mid].base <= address) lo = mid + 1; else hi = mid;
  }
  return lo;
}

// The entry holding `address`, or null. Table lock held.
Allocation* Find(uintptr_t address) {
  size_t i = UpperBound(address);
  if (i == 0) return nullptr;
  Allocation* a = &g_table[i - 1];
  return address - a->base < a->size ? a : nullptr;
}

bool Insert(uintptr_t base, size_t size) {
  if (g_count == g_capacity) {
    size_t capacity = g_capacity ? g_capacity * 2 : PageSize() / sizeof(Allocation);
    void* fresh = mmap(nullptr, capacity * sizeof(Allocation), PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (fresh == MAP_FAILED) return false;
    if (g_table) {
      memcpy(fresh, g_table, g_count * sizeof(Allocation));
      munmap(g_table, g_capacity * sizeof(Allocation));
    }
    g_table = static_cast<Allocation*>(fresh);
    g_capacity = capacity;
  }
  size_t i = UpperBound(base);
  memmove(&g_table[i + 1], &g_table[i], (g_count - i) * sizeof(Allocation));
  g_table[i].base = base;
  g_table[i].size = size;
  ++g_count;
  return true;
}

// Maps `size` bytes with at least one unmapped page between them and every
// other allocation of this layer. Linux puts each new mapping right below the
// previous one; a heap takes a neighbour of its own memory into the segment
// there, and a segment that holds the heap record never shrinks, so without
// the gap every growth of a heap would be kept for good. Apart, each growth
// is a segment of its own, which trimming and the release of unused segments
// can give back. The margins are mapped with the allocation and unmapped at
// once: any later mapping must fit beside them, so no allocation made later
// can touch this one either.
void* MapApart(size_t size, int prot) {
  const size_t page = PageSize();
  if (size > ~size_t(0) - 2 * page) {
    errno = ENOMEM;
    return MAP_FAILED;
  }
  char* outer = static_cast<char*>(mmap(nullptr, size + 2 * page, prot, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  if (outer == MAP_FAILED) return MAP_FAILED;
  munmap(outer, page);
  munmap(outer + page + size, page);
  return outer + page;
}

}  // namespace

LPVOID VirtualAlloc(LPVOID address, SIZE_T size, DWORD type, DWORD protect) {
  if (QzFaultHit(QZ_FAULT_VIRTUAL_ALLOC)) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  const DWORD known = MEM_RESERVE | MEM_COMMIT | MEM_TOP_DOWN;
  if (size == 0 || (type & ~known) != 0 || (type & (MEM_RESERVE | MEM_COMMIT)) != (MEM_RESERVE | MEM_COMMIT)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  int prot;
  switch (protect) {
    case PAGE_READWRITE: prot = PROT_READ | PROT_WRITE; break;
    case PAGE_READONLY: prot = PROT_READ; break;
    case PAGE_NOACCESS: prot = PROT_NONE; break;
    default: SetLastError(ERROR_INVALID_PARAMETER); return nullptr;
  }
  const size_t page = PageSize();
  if (size > ~size_t(0) - page) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  size = (size + page - 1) & ~(page - 1);
  if (address == nullptr) {
    QzVirtualAllocPlacement placement = g_placement.load(std::memory_order_acquire);
    if (placement) address = placement(g_placementContext.load(std::memory_order_relaxed), size, type);
  }
  if (reinterpret_cast<uintptr_t>(address) & (page - 1)) {
    SetLastError(ERROR_INVALID_ADDRESS);
    return nullptr;
  }
  void* p;
  if (address == nullptr && (type & MEM_TOP_DOWN) == 0) {
    p = MapApart(size, prot);
  } else {
    // A wanted place is only a hint to mmap, so an existing mapping is never
    // replaced. MEM_TOP_DOWN needs nothing: Linux already places anonymous
    // mappings top-down, and the kernel may merge such neighbours.
    p = mmap(address, size, prot, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  }
  if (p == MAP_FAILED) {
    SetLastError(errno == ENOMEM ? ERROR_NOT_ENOUGH_MEMORY : QzErrnoToWin32(errno));
    return nullptr;
  }
  if (address != nullptr && p != address) {  // the wanted place was taken
    munmap(p, size);
    SetLastError(ERROR_INVALID_ADDRESS);
    return nullptr;
  }
  std::lock_guard<std::mutex> hold(g_tableLock);
  if (!Insert(reinterpret_cast<uintptr_t>(p), size)) {
    munmap(p, size);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  return p;
}

BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD freeType) {
  if (QzFaultHit(QZ_FAULT_VIRTUAL_FREE)) {
    SetLastError(ERROR_INVALID_ADDRESS);
    return FALSE;
  }
  if (freeType != MEM_RELEASE || size != 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const uintptr_t base = reinterpret_cast<uintptr_t>(address);
  std::lock_guard<std::mutex> hold(g_tableLock);
  Allocation* a = Find(base);
  if (a == nullptr || a->base != base) {
    SetLastError(ERROR_INVALID_ADDRESS);
    return FALSE;
  }
  if (munmap(address, a->size) != 0) {
    QzSetLastErrorFromErrno();
    return FALSE;
  }
  size_t i = static_cast<size_t>(a - g_table);
  memmove(&g_table[i], &g_table[i + 1], (g_count - i - 1) * sizeof(Allocation));
  --g_count;
  return TRUE;
}

SIZE_T VirtualQuery(LPCVOID address, MEMORY_BASIC_INFORMATION* info, SIZE_T length) {
  if (info == nullptr || length < sizeof(MEMORY_BASIC_INFORMATION)) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  const uintptr_t at = reinterpret_cast<uintptr_t>(address);
  std::lock_guard<std::mutex> hold(g_tableLock);
  Allocation* a = Find(at);
  if (a == nullptr) {
    SetLastError(ERROR_INVALID_ADDRESS);
    return 0;
  }
  const uintptr_t pageBase = at & ~(PageSize() - 1);
  info->BaseAddress = reinterpret_cast<LPVOID>(pageBase);
  info->AllocationBase = reinterpret_cast<LPVOID>(a->base);
  info->AllocationProtect = PAGE_READWRITE;
  info->RegionSize = a->base + a->size - pageBase;
  info->State = MEM_COMMIT;
  info->Protect = PAGE_READWRITE;
  info->Type = MEM_PRIVATE;
  return sizeof(MEMORY_BASIC_INFORMATION);
}

DWORD SleepEx(DWORD milliseconds, BOOL) {
  if (milliseconds == 0) {
    sched_yield();
    return 0;
  }
  if (milliseconds == INFINITE) {
    for (;;) pause();
  }
  struct timespec ts;
  ts.tv_sec = milliseconds / 1000;
  ts.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
  return 0;
}

void RaiseException(DWORD code, DWORD, DWORD, const ULONG_PTR*) {
  char line[96];
  int n = snprintf(line, sizeof line, "qzbase: fatal exception 0x%08X%s\n", static_cast<unsigned>(code),
                   code == STATUS_NO_MEMORY ? " (out of memory)" : "");
  if (n > 0) {
    ssize_t ignored = write(2, line, static_cast<size_t>(n));
    (void)ignored;
  }
  abort();
}

void QzSetVirtualAllocPlacement(QzVirtualAllocPlacement placement, void* context) {
  g_placementContext.store(context, std::memory_order_relaxed);
  g_placement.store(placement, std::memory_order_release);
}

SIZE_T QzVirtualAllocationCount() {
  std::lock_guard<std::mutex> hold(g_tableLock);
  return g_count;
}

}  // namespace qzsys
