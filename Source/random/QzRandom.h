// Random generators, internal side: the generator record and the twister's
// steps, shared with the tests.
//
// The record is the twister's state and the index of the next word; a copy
// of the record is a generator in the same state. Records come from the
// default pool. No lock: a generator belongs to one thread at a time.
#ifndef QZBASE_QZRANDOM_INTERNAL_H
#define QZBASE_QZRANDOM_INTERNAL_H

#include <qzbase/QzRandom.h>

#include <stdint.h>

constexpr uint32_t QZ_MT_DEGREE = 624;
constexpr uint32_t QZ_MT_MIDDLE = 397;
constexpr uint32_t QZ_MT_MATRIX = 0x9908B0DFu;
constexpr uint32_t QZ_MT_UPPER = 0x80000000u;
constexpr uint32_t QZ_MT_LOWER = 0x7FFFFFFFu;

struct QzRandom {
  uint32_t state[QZ_MT_DEGREE];
  uint32_t index;  // next word; QZ_MT_DEGREE: regenerate before the next draw
};

// Single-word and array seedings; both leave `index` at QZ_MT_DEGREE.
void QzRandomSeed(QzRandom* random, uint32_t seed);
void QzRandomSeedArray(QzRandom* random, const uint32_t* seeds, uint32_t count);
// Replaces all 624 words by the next 624 of the sequence (vectorised where
// the processor allows; the result is the same word for word).
void QzRandomRegenerate(uint32_t* state);

#endif  // QZBASE_QZRANDOM_INTERNAL_H
