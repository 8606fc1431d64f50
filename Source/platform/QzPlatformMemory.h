// Platform layer, memory area: whole-allocation virtual memory, the short
// sleep of the spin locks, and the fatal exit of the memory subsystem.
//
// Only allocations made by VirtualAlloc of this layer are known to it. The
// layer keeps the size of each one in a table of its own (in memory it maps
// itself, never through the pools), because the system needs the length to
// give memory back.
#ifndef QZBASE_PLATFORM_QZPLATFORMMEMORY_H
#define QZBASE_PLATFORM_QZPLATFORMMEMORY_H

#include "platform/QzWinTypes.h"

namespace qzsys {

constexpr DWORD MEM_COMMIT = 0x1000;
constexpr DWORD MEM_RESERVE = 0x2000;
constexpr DWORD MEM_DECOMMIT = 0x4000;
constexpr DWORD MEM_RELEASE = 0x8000;
constexpr DWORD MEM_FREE = 0x10000;
constexpr DWORD MEM_PRIVATE = 0x20000;
constexpr DWORD MEM_TOP_DOWN = 0x100000;
constexpr DWORD PAGE_NOACCESS = 0x01;
constexpr DWORD PAGE_READONLY = 0x02;
constexpr DWORD PAGE_READWRITE = 0x04;

constexpr DWORD STATUS_NO_MEMORY = 0xC0000017u;
constexpr DWORD EXCEPTION_NONCONTINUABLE = 1;

struct MEMORY_BASIC_INFORMATION {
  LPVOID BaseAddress;     // the queried address rounded down to its page
  LPVOID AllocationBase;  // start of the VirtualAlloc allocation holding it
  DWORD AllocationProtect;
  SIZE_T RegionSize;      // from BaseAddress to the end of that allocation
  DWORD State;            // MEM_COMMIT for every byte this layer handed out
  DWORD Protect;
  DWORD Type;             // MEM_PRIVATE
};

// Reserves and commits `size` bytes (rounded up to whole pages) as one
// allocation: page-aligned, zero-filled, read-write. `type` must contain
// MEM_RESERVE | MEM_COMMIT. Placement, where `address` is null: an
// allocation without MEM_TOP_DOWN is never a neighbour of another allocation
// of this layer (an unmapped page at least lies between them), so that a
// heap's growth never joins the segment that holds the heap record and can
// go back; with MEM_TOP_DOWN the kernel places it (top-down on Linux) and it
// may touch others. A non-null `address` asks for exactly that place
// (page-aligned) and fails with ERROR_INVALID_ADDRESS if it is taken; no
// existing mapping is ever replaced.
// Null on failure, with the last error set (ERROR_NOT_ENOUGH_MEMORY for an
// exhausted system or when QZ_FAULT_VIRTUAL_ALLOC fires, ERROR_INVALID_PARAMETER
// for a size of 0 or unsupported flags).
LPVOID VirtualAlloc(LPVOID address, SIZE_T size, DWORD type, DWORD protect);

// MEM_RELEASE with size 0 of the start address of one whole allocation gives
// it back. Anything else fails: an address that is not the start of an
// allocation of this layer gives ERROR_INVALID_ADDRESS, a non-zero size or
// another free type ERROR_INVALID_PARAMETER. FALSE on failure; the failure
// switch QZ_FAULT_VIRTUAL_FREE makes it fail (ERROR_INVALID_ADDRESS) and
// keep the allocation.
BOOL VirtualFree(LPVOID address, SIZE_T size, DWORD freeType);

// Describes the allocation of this layer that holds `address` (see the record
// above). Returns sizeof(MEMORY_BASIC_INFORMATION), or 0 with
// ERROR_INVALID_ADDRESS for an address this layer did not hand out, and
// ERROR_INSUFFICIENT_BUFFER when `length` is too short.
SIZE_T VirtualQuery(LPCVOID address, MEMORY_BASIC_INFORMATION* info, SIZE_T length);

// Gives up the processor for `milliseconds` (0: yield the rest of the time
// slice). Alertable waits have no meaning here; the result is always 0.
DWORD SleepEx(DWORD milliseconds, BOOL alertable);

// The fatal exit of the library. No handler can continue after it on this
// platform: one line naming the code goes to stderr ("qzbase: fatal
// exception 0xC0000017 (out of memory)"), then the process aborts (SIGABRT).
[[noreturn]] void RaiseException(DWORD code, DWORD flags, DWORD argumentCount,
                                 const ULONG_PTR* arguments);

// ---- For tests --------------------------------------------------------------
// When set, VirtualAlloc calls made with a null address ask this function for
// a place first (it may answer null for "anywhere"). Lets tests lay out regions
// next to each other on purpose. Not for use in hosts.
typedef LPVOID (*QzVirtualAllocPlacement)(void* context, SIZE_T size, DWORD type);
void QzSetVirtualAllocPlacement(QzVirtualAllocPlacement placement, void* context);
// Number of allocations this layer holds now.
SIZE_T QzVirtualAllocationCount();

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMMEMORY_H
