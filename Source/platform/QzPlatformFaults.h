// Failure switches: let tests make a platform call fail on demand.
//
// A switch is armed with the number of calls to let through first and the
// number of calls to fail after that (QZ_FAULT_ALWAYS for every one until
// disarmed). An armed call fails exactly as the system would: failure result
// and a last error of its own (ERROR_NOT_ENOUGH_MEMORY unless the call says
// otherwise). Switches are process-wide; a disarmed switch costs one relaxed
// atomic load on the call's path.
#ifndef QZBASE_PLATFORM_QZPLATFORMFAULTS_H
#define QZBASE_PLATFORM_QZPLATFORMFAULTS_H

#include <atomic>

namespace qzsys {

enum QzFault : unsigned {
  QZ_FAULT_VIRTUAL_ALLOC,    // VirtualAlloc returns null
  QZ_FAULT_TLS_ALLOC,        // TlsAlloc returns TLS_OUT_OF_INDEXES
  QZ_FAULT_TLS_SET_VALUE,    // TlsSetValue returns FALSE
  QZ_FAULT_CONVERTER,        // the converter component cannot be created
  QZ_FAULT_POOL_ALLOC,       // the default pool's allocations return 0 (strings' out-of-memory)
  QZ_FAULT_CREATE_FILE,      // CreateFileA fails
  QZ_FAULT_WRITE_FILE,       // WriteFile fails
  QZ_FAULT_READ_FILE,        // ReadFile fails
  QZ_FAULT_CREATE_EVENT,     // CreateEvent / CreateSemaphore fail
  QZ_FAULT_CREATE_THREAD,    // thread creation fails
  QZ_FAULT_MAP_VIEW,         // MapViewOfFileEx fails
  QZ_FAULT_CRITICAL_SECTION, // critical section creation runs out of memory
  QZ_FAULT_FORMAT_MESSAGE,   // FormatMessage cannot allocate its buffer
  // Files (CreateFileA, ReadFile, WriteFile above; these for the rest)
  QZ_FAULT_WRITE_FILE_SHORT, // WriteFile succeeds but writes fewer bytes than asked
  QZ_FAULT_FLUSH_FILE,       // FlushFileBuffers fails
  QZ_FAULT_SET_FILE_POINTER, // SetFilePointer fails
  QZ_FAULT_SET_END_OF_FILE,  // SetEndOfFile fails
  QZ_FAULT_FILE_ATTRIBUTES,  // GetFileAttributesA / SetFileAttributesA fail
  QZ_FAULT_DELETE_FILE,      // DeleteFileA fails
  QZ_FAULT_MOVE_FILE,        // MoveFileA fails
  QZ_FAULT_TEMP_PATH,        // GetTempPathA fails
  QZ_FAULT_TEMP_FILE_NAME,   // GetTempFileNameA fails
  QZ_FAULT_CLOSE_HANDLE,     // CloseHandle fails (the handle stays open)
  // Kernel objects (CreateEvent above covers events and semaphores)
  QZ_FAULT_CREATE_SEMAPHORE, // CreateSemaphoreA fails (alone, without events)
  QZ_FAULT_SET_EVENT,        // SetEvent / ResetEvent / PulseEvent fail
  QZ_FAULT_RELEASE_SEMAPHORE,// ReleaseSemaphore fails
  QZ_FAULT_WAIT,             // WaitForSingleObject returns WAIT_FAILED
  // Threads and timer
  QZ_FAULT_RESUME_THREAD,    // ResumeThread fails
  QZ_FAULT_THREAD_PRIORITY,  // SetThreadPriority / SetThreadAffinityMask are refused
  QZ_FAULT_TIME_PERIOD,      // timeBeginPeriod / timeGetDevCaps fail
  // Mapping and multimedia files (MapViewOfFileEx above)
  QZ_FAULT_CREATE_MAPPING,   // CreateFileMappingA / OpenFileMappingA fail
  QZ_FAULT_MMIO,             // mmioOpenA fails
  QZ_FAULT_GET_FILE_SIZE,    // GetFileSize fails
  QZ_FAULT_PROBE_SYSCALL,    // the kernel refuses the memory probes' calls (a sandbox): probes use the guard
  QZ_FAULT_VIRTUAL_FREE,     // VirtualFree fails (the allocation stays)
  QZ_FAULT_COUNT
};

constexpr unsigned QZ_FAULT_ALWAYS = ~0u;

struct QzFaultSwitch {
  std::atomic<unsigned> armed{0};   // fast test: 0 when nothing is armed
  std::atomic<unsigned> skip{0};    // calls still to let through
  std::atomic<unsigned> fail{0};    // calls still to fail (QZ_FAULT_ALWAYS: no end)
  std::atomic<unsigned> hits{0};    // calls that were made to fail
};

extern QzFaultSwitch g_qzFaults[QZ_FAULT_COUNT];

// Arms a switch: let `skip` calls pass, then fail `fail` calls.
void QzFaultArm(QzFault which, unsigned skip, unsigned fail);
// Disarms a switch (and keeps its hit count for the test to read).
void QzFaultDisarm(QzFault which);
// Number of calls that a switch made fail since it was last armed.
unsigned QzFaultHits(QzFault which);

// The check made by an instrumented call. True: fail this call now.
bool QzFaultSlowPath(QzFault which);
inline bool QzFaultHit(QzFault which) {
  if (__builtin_expect(g_qzFaults[which].armed.load(std::memory_order_relaxed) == 0, 1)) return false;
  return QzFaultSlowPath(which);
}

}  // namespace qzsys

#endif  // QZBASE_PLATFORM_QZPLATFORMFAULTS_H
