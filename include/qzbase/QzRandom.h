// qzbase: pseudo-random generators.
//
// Each generator is an independent Mersenne Twister MT19937: for a given seed
// its raw words (Qz_RandomInt) are the published reference sequence of that
// generator, with the published single-word and array seedings. On top of it
// the library offers uniform integers in a range and doubles in [0, 1).
//
// Ownership: the create and copy calls allocate the generator from the
// default pool; the caller owns it and ends it with Qz_DestroyRandom (from any
// thread). No other call allocates.
//
// Threads: a generator has no lock and belongs to one thread at a time; using
// one generator from two threads at once is out of contract. Different
// generators are independent, and creating or destroying them is safe from
// any thread.
//
// Failures: the create and copy calls give 0 when memory runs out. The other
// calls cannot fail. Bad input has fixed, harmless results rather than a crash:
//   - a null handle: Qz_RandomInt gives 0, Qz_RandomIntRange gives `low`,
//     Qz_RandomDouble gives 0.0, Qz_CopyRandom gives 0, the seeding calls and
//     Qz_DestroyRandom do nothing;
//   - a null seeds array or a count of 0: Qz_CreateRandomWithSeedsArray gives
//     0 and Qz_SetSeedsArrayToRandom leaves the generator as it was.
#ifndef QZBASE_QZRANDOM_H
#define QZBASE_QZRANDOM_H

#include <qzbase/QzTypes.h>

extern "C" {

// Opaque generator record; its address is the handle.
struct QzRandom;

// A generator seeded from the clock (seconds and microseconds since 1970),
// the process id and the thread id, so that two generators made in the same
// microsecond on different threads still differ. 0 when memory runs out.
QZ_API QzRandom* Qz_CreateDefaultRandom();
// A generator seeded by one word (the reference seeding; 5489 is the
// classic default). 0 when memory runs out.
QZ_API QzRandom* Qz_CreateRandomWithSeed(uint32_t seed);
// A generator seeded by `count` words (the reference init_by_array). 0 when
// memory runs out, `seeds` is null or `count` is 0.
QZ_API QzRandom* Qz_CreateRandomWithSeedsArray(const uint32_t* seeds, uint32_t count);
// A second generator in exactly the state of `random`: both go on with the
// same sequence, independently. 0 when memory runs out or `random` is null.
QZ_API QzRandom* Qz_CopyRandom(const QzRandom* random);
// Ends a generator made by any of the calls above. Null is ignored.
QZ_API void Qz_DestroyRandom(QzRandom* random);

// Replace the whole state, as the create calls with the same seeds would.
QZ_API void Qz_SetSeedToRandom(QzRandom* random, uint32_t seed);
QZ_API void Qz_SetSeedsArrayToRandom(QzRandom* random, const uint32_t* seeds, uint32_t count);

// The next raw word; every 32-bit value is possible.
QZ_API uint32_t Qz_RandomInt(QzRandom* random);
// A uniform value from `low` up to but excluding `high`, in 32-bit unsigned
// arithmetic: if `low` is above `high` the range wraps through 0xFFFFFFFF to
// 0 (so signed bounds work alike). An empty range (low == high) gives `low`
// and draws nothing; otherwise words that would bias the result are thrown
// away (fewer than half of them in any case), and the result is the accepted
// word modulo the range, plus `low`.
QZ_API uint32_t Qz_RandomIntRange(QzRandom* random, uint32_t low, uint32_t high);
// A uniform double in [0, 1) with 64 bits of input: two words per try, the
// second the high part; a try that rounds to 1.0 is drawn again.
QZ_API double Qz_RandomDouble(QzRandom* random);

}  // extern "C"

#endif  // QZBASE_QZRANDOM_H
