// The library frame: what runs when the library is loaded and unloaded, and
// Qz_TerminateLibrary.
#include "frame/QzFrame.h"

#include <stdlib.h>

#include <atomic>

#include "frame/QzCpuInfo.h"
#include "frame/QzPrimitives.h"

using namespace qzsys;

namespace {

SYSTEM_INFO g_systemInfo;

// The trace is filled from constructors, before any allocator may be ready,
// so it is a fixed array of fixed texts.
constexpr size_t kTraceCapacity = 64;
std::atomic<const char*> g_trace[kTraceCapacity];
std::atomic<size_t> g_traceCount{0};

void Trace(const char* step) {
  size_t at = g_traceCount.fetch_add(1, std::memory_order_relaxed);
  if (at < kTraceCapacity) g_trace[at].store(step, std::memory_order_release);
}

void Attach(HMODULE module) {
  Trace("load entry: attach");
  DisableThreadLibraryCalls(module);
  Trace("DisableThreadLibraryCalls");
  GetSystemInfo(&g_systemInfo);
  Trace("GetSystemInfo");
  QzIdentifyProcessor();
  Trace("processor identification");
  QzFillMathSlots(QZ_CPU_INFO.features);
  Trace("maths slots");
  QzFillCopySlots(QZ_CPU_INFO.features);
  Trace("copy slots");
}

void DisableLog() {
  if (&QzUnloadStepDisableLog != nullptr) {
    QzUnloadStepDisableLog();
    Trace("disable log");
  }
}

void Detach() {
  Trace("load entry: detach");
  DisableLog();
  // Nothing the system keeps may point into the library once it is unloaded:
  // an ended thread still on its last instructions, the fault guard's and the
  // kill signal's handlers, and the TLS tables' thread-exit destructor.
  QzThreadRelease();
  QzGuardRelease();
  QzTlsRelease();
}

// ---- The Linux loader's side -------------------------------------------------------
// Priorities order these before every unprioritised static initialiser of the
// library and of a program that links its objects directly.
std::atomic<bool> g_detached{false};

void DetachOnce() {
  if (!g_detached.exchange(true)) QzLoadEntry(nullptr, QZ_PROCESS_DETACH, nullptr);
}

__attribute__((constructor(201))) void QzStaticInitLogSink() {
  if (&QzLoadStepLogSink != nullptr) {
    QzLoadStepLogSink();
    Trace("static initialiser: log sink");
  }
}

__attribute__((constructor(202))) void QzStaticInitEmptyStrings() {
  if (&QzLoadStepEmptyStrings != nullptr) {
    QzLoadStepEmptyStrings();
    Trace("static initialiser: empty strings");
  }
}

__attribute__((constructor(203))) void QzLoaderAttach() {
  QzLoadEntry(nullptr, QZ_PROCESS_ATTACH, nullptr);
  // Registered after the empty strings' at-exit entries, so it runs before them.
  atexit(&DetachOnce);
}

// Backstop only: normally the at-exit entry has run detach already.
__attribute__((destructor(203))) void QzLoaderDetach() { DetachOnce(); }

}  // namespace

const SYSTEM_INFO& QzSystemInfo() { return g_systemInfo; }

int QzLoadEntry(HMODULE module, DWORD reason, LPVOID) {
  if (reason == QZ_PROCESS_ATTACH) Attach(module);
  else if (reason == QZ_PROCESS_DETACH) Detach();
  return 1;
}

size_t QzFrameTrace(const char** out, size_t max) {
  size_t count = g_traceCount.load(std::memory_order_relaxed);
  if (count > kTraceCapacity) count = kTraceCapacity;
  for (size_t i = 0; i < count && i < max; ++i) {
    const char* step = g_trace[i].load(std::memory_order_acquire);
    out[i] = step != nullptr ? step : "";  // claimed by a thread that has not written it yet
  }
  return count;
}

extern "C" QZ_API void Qz_TerminateLibrary(void) {
  Trace("terminate");
  if (&QzReleaseConverters != nullptr) {
    QzReleaseConverters();
    Trace("release converters");
  }
  DisableLog();
}
