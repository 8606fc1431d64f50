// Library frame, internal side: processor identification.
//
// The routine reads the processor only through a probe record, so that tests
// can hand it a synthetic processor (a table of CPUID answers) and check every
// branch; the load entry hands it the real processor.
#ifndef QZBASE_QZCPUINFO_H
#define QZBASE_QZCPUINFO_H

#include <qzbase/QzFrame.h>

#include <stdint.h>

struct QzCpuProbe {
  // Non-zero when the ID bit (bit 21) of the flags register can be toggled.
  int (*hasCpuid)(void* context);
  // CPUID of `leaf` (sub-leaf 0): the four result words EAX, EBX, ECX, EDX.
  void (*cpuid)(void* context, uint32_t leaf, uint32_t* eax, uint32_t* ebx, uint32_t* ecx,
                uint32_t* edx);
  void* context;
};

// The probe of this processor. On a processor that is not x86 it reports no
// CPUID, which gives the all-zero record.
const QzCpuProbe& QzRealCpuProbe();

// Fills `info` from the processor behind `probe`; cannot fail.
void QzIdentifyProcessor(QzCpuInfo* info, const QzCpuProbe& probe);

// The load entry's step: identifies this processor into QZ_CPU_INFO.
void QzIdentifyProcessor();

// The raw probes of this processor (tests compare them with the record).
int QzCpuidPresent();
void QzCpuid(uint32_t leaf, uint32_t* eax, uint32_t* ebx, uint32_t* ecx, uint32_t* edx);

#endif  // QZBASE_QZCPUINFO_H
