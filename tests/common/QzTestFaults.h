// Processor faults on purpose, written so that the undefined-behaviour
// sanitizer does not catch them first: the fault must reach the guard.
#ifndef QZBASE_TESTS_QZTESTFAULTS_H
#define QZBASE_TESTS_QZTESTFAULTS_H

#include <stdint.h>

namespace qztest {

// A store to the first page, which is never mapped (not a null pointer to
// the sanitizer, and a byte, so no alignment check either).
inline void FaultAccess() {
  volatile uintptr_t address = 8;  // hidden from the compiler's bounds checks
  *reinterpret_cast<volatile char*>(address) = 1;
}

// An integer division by zero done by the processor itself.
inline int FaultDivide() {
  int quotient, dividend = 10, divisor = 0;
  __asm__ volatile("cltd\n\tidivl %2" : "=a"(quotient) : "a"(dividend), "r"(divisor) : "edx", "cc");
  return quotient;
}

// ThreadSanitizer holds an asynchronous signal back until the thread makes a
// call it watches, so a thread spinning in plain code cannot be killed there.
#if defined(__SANITIZE_THREAD__)
constexpr bool kSpinningThreadsIgnoreKills = true;
#else
constexpr bool kSpinningThreadsIgnoreKills = false;
#endif

// An illegal instruction.
inline void FaultIllegal() { __asm__ volatile("ud2"); }

}  // namespace qztest

#endif  // QZBASE_TESTS_QZTESTFAULTS_H
