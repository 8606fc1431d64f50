#include "platform/QzPlatformFaults.h"

namespace qzsys {

QzFaultSwitch g_qzFaults[QZ_FAULT_COUNT];

void QzFaultArm(QzFault which, unsigned skip, unsigned fail) {
  QzFaultSwitch& s = g_qzFaults[which];
  s.armed.store(0, std::memory_order_relaxed);
  s.skip.store(skip, std::memory_order_relaxed);
  s.fail.store(fail, std::memory_order_relaxed);
  s.hits.store(0, std::memory_order_relaxed);
  s.armed.store(1, std::memory_order_release);
}

void QzFaultDisarm(QzFault which) { g_qzFaults[which].armed.store(0, std::memory_order_release); }

unsigned QzFaultHits(QzFault which) { return g_qzFaults[which].hits.load(std::memory_order_acquire); }

bool QzFaultSlowPath(QzFault which) {
  QzFaultSwitch& s = g_qzFaults[which];
  unsigned skip = s.skip.load(std::memory_order_relaxed);
  while (skip != 0) {
    if (s.skip.compare_exchange_weak(skip, skip - 1, std::memory_order_acq_rel)) return false;
  }
  unsigned fail = s.fail.load(std::memory_order_relaxed);
  for (;;) {
    if (fail == 0) return false;
    if (fail == QZ_FAULT_ALWAYS) break;
    if (s.fail.compare_exchange_weak(fail, fail - 1, std::memory_order_acq_rel)) break;
  }
  s.hits.fetch_add(1, std::memory_order_relaxed);
  return true;
}

}  // namespace qzsys
