// Random generators: MT19937 with the library's own record, default seed,
// range reduction and doubles.
#include "random/QzRandom.h"

#include <string.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <qzbase/QzMempool.h>

#include "platform/QzPlatform.h"

namespace {

constexpr uint32_t kSeedMultiplier = 1812433253u;
constexpr uint32_t kArrayBase = 19650218u;
constexpr uint32_t kArrayMultiplier1 = 1664525u;
constexpr uint32_t kArrayMultiplier2 = 1566083941u;
// Words in front of the middle word that still read their partner ahead of
// themselves (k + 397 < 624).
constexpr uint32_t kFirstRun = QZ_MT_DEGREE - QZ_MT_MIDDLE;  // 227

inline uint32_t Twist(uint32_t k, uint32_t k1, uint32_t far) {
  const uint32_t y = (k & QZ_MT_UPPER) | (k1 & QZ_MT_LOWER);
  return far ^ (y >> 1) ^ ((0u - (y & 1u)) & QZ_MT_MATRIX);
}

inline uint32_t Temper(uint32_t y) {
  y ^= y >> 11;
  y ^= (y << 7) & 0x9D2C5680u;
  y ^= (y << 15) & 0xEFC60000u;
  y ^= y >> 18;
  return y;
}

#if defined(__SSE2__)
// Four words of the twist at once. Every group reads its neighbour word
// (k + 4) before anything past it is written, and its far words either lie
// ahead (old values) or at least 227 words behind (already new), so groups of
// four give exactly the word-by-word result.
inline void Twist4(uint32_t* state, uint32_t k, uint32_t far) {
  const __m128i upper = _mm_set1_epi32(int(QZ_MT_UPPER));
  const __m128i lower = _mm_set1_epi32(int(QZ_MT_LOWER));
  const __m128i matrix = _mm_set1_epi32(int(QZ_MT_MATRIX));
  const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(state + k));
  const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(state + k + 1));
  const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(state + far));
  const __m128i y = _mm_or_si128(_mm_and_si128(a, upper), _mm_and_si128(b, lower));
  const __m128i odd = _mm_srai_epi32(_mm_slli_epi32(b, 31), 31);
  const __m128i r = _mm_xor_si128(_mm_xor_si128(c, _mm_srli_epi32(y, 1)), _mm_and_si128(odd, matrix));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state + k), r);
}
#endif

inline QzRandom* NewRecord() {
  return static_cast<QzRandom*>(Qz_MempoolAlloc(nullptr, sizeof(QzRandom)));
}

// The slow part of a draw, kept out of line so that the common draw is a
// load, an increment and the tempering.
__attribute__((noinline)) uint32_t NextAfterRegenerate(QzRandom* random) {
  QzRandomRegenerate(random->state);
  random->index = 1;
  return Temper(random->state[0]);
}

inline uint32_t Next(QzRandom* random) {
  const uint32_t i = random->index;
  if (__builtin_expect(i >= QZ_MT_DEGREE, 0)) return NextAfterRegenerate(random);
  random->index = i + 1;
  return Temper(random->state[i]);
}

}  // namespace

void QzRandomRegenerate(uint32_t* state) {
#if defined(__SSE2__)
  uint32_t k = 0;
  for (; k + 4 <= kFirstRun; k += 4) Twist4(state, k, k + QZ_MT_MIDDLE);
  for (; k < kFirstRun; ++k) state[k] = Twist(state[k], state[k + 1], state[k + QZ_MT_MIDDLE]);
  // 227 to 622 is a whole number of groups.
  static_assert((QZ_MT_DEGREE - 1 - kFirstRun) % 4 == 0, "no tail after the second run");
  for (; k < QZ_MT_DEGREE - 1; k += 4) Twist4(state, k, k - kFirstRun);
  state[k] = Twist(state[k], state[0], state[QZ_MT_MIDDLE - 1]);
#else
  uint32_t k = 0;
  for (; k < kFirstRun; ++k) state[k] = Twist(state[k], state[k + 1], state[k + QZ_MT_MIDDLE]);
  for (; k < QZ_MT_DEGREE - 1; ++k) state[k] = Twist(state[k], state[k + 1], state[k - kFirstRun]);
  state[k] = Twist(state[k], state[0], state[QZ_MT_MIDDLE - 1]);
#endif
}

void QzRandomSeed(QzRandom* random, uint32_t seed) {
  uint32_t* mt = random->state;
  mt[0] = seed;
  for (uint32_t i = 1; i < QZ_MT_DEGREE; ++i) mt[i] = kSeedMultiplier * (mt[i - 1] ^ (mt[i - 1] >> 30)) + i;
  random->index = QZ_MT_DEGREE;
}

void QzRandomSeedArray(QzRandom* random, const uint32_t* seeds, uint32_t count) {
  QzRandomSeed(random, kArrayBase);
  uint32_t* mt = random->state;
  uint32_t i = 1, j = 0;
  for (uint32_t n = count > QZ_MT_DEGREE ? count : QZ_MT_DEGREE; n != 0; --n) {
    mt[i] = (mt[i] ^ ((mt[i - 1] ^ (mt[i - 1] >> 30)) * kArrayMultiplier1)) + seeds[j] + j;
    if (++i >= QZ_MT_DEGREE) {
      mt[0] = mt[QZ_MT_DEGREE - 1];
      i = 1;
    }
    if (++j >= count) j = 0;
  }
  for (uint32_t n = QZ_MT_DEGREE - 1; n != 0; --n) {
    mt[i] = (mt[i] ^ ((mt[i - 1] ^ (mt[i - 1] >> 30)) * kArrayMultiplier2)) - i;
    if (++i >= QZ_MT_DEGREE) {
      mt[0] = mt[QZ_MT_DEGREE - 1];
      i = 1;
    }
  }
  mt[0] = 0x80000000u;  // a state of all zeros is impossible
  random->index = QZ_MT_DEGREE;
}

extern "C" {

QZ_API QzRandom* Qz_CreateDefaultRandom() {
  qzsys::FILETIME ft;
  qzsys::GetSystemTimeAsFileTime(&ft);
  const uint64_t ticks = (uint64_t(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
  const uint64_t micros = (ticks - 116444736000000000ull) / 10;
  const uint32_t seeds[4] = {uint32_t(micros / 1000000), uint32_t(micros % 1000000),
                             uint32_t(qzsys::GetCurrentProcessId()), uint32_t(qzsys::GetCurrentThreadId())};
  return Qz_CreateRandomWithSeedsArray(seeds, 4);
}

QZ_API QzRandom* Qz_CreateRandomWithSeed(uint32_t seed) {
  QzRandom* random = NewRecord();
  if (random != nullptr) QzRandomSeed(random, seed);
  return random;
}

QZ_API QzRandom* Qz_CreateRandomWithSeedsArray(const uint32_t* seeds, uint32_t count) {
  if (seeds == nullptr || count == 0) return nullptr;
  QzRandom* random = NewRecord();
  if (random != nullptr) QzRandomSeedArray(random, seeds, count);
  return random;
}

QZ_API QzRandom* Qz_CopyRandom(const QzRandom* random) {
  if (random == nullptr) return nullptr;
  QzRandom* copy = NewRecord();
  if (copy != nullptr) memcpy(copy, random, sizeof(QzRandom));
  return copy;
}

QZ_API void Qz_DestroyRandom(QzRandom* random) { Qz_MempoolFree(nullptr, random); }

QZ_API void Qz_SetSeedToRandom(QzRandom* random, uint32_t seed) {
  if (random != nullptr) QzRandomSeed(random, seed);
}

QZ_API void Qz_SetSeedsArrayToRandom(QzRandom* random, const uint32_t* seeds, uint32_t count) {
  if (random != nullptr && seeds != nullptr && count != 0) QzRandomSeedArray(random, seeds, count);
}

QZ_API uint32_t Qz_RandomInt(QzRandom* random) {
  if (__builtin_expect(random == nullptr, 0)) return 0;
  return Next(random);
}

QZ_API uint32_t Qz_RandomIntRange(QzRandom* random, uint32_t low, uint32_t high) {
  const uint32_t range = high - low;
  if (range == 0 || random == nullptr) return low;
  if ((range & (range - 1)) == 0) return low + (Next(random) & (range - 1));  // every word is fair
  uint32_t limit;
  if (range <= 0x80000000u) {
    // 2^32 mod range without a 64-bit division: (2^31 mod range) doubled.
    uint32_t m = (0x80000000u % range) * 2;
    if (m >= range) m -= range;
    limit = 0xFFFFFFFFu - m;
  } else {
    limit = range - 1;
  }
  uint32_t word;
  do {
    word = Next(random);
  } while (word > limit);
  return low + word % range;
}

QZ_API double Qz_RandomDouble(QzRandom* random) {
  if (__builtin_expect(random == nullptr, 0)) return 0.0;
  constexpr double kTwoToMinus32 = 2.3283064365386963e-10;
  for (;;) {
    const uint32_t lowPart = Next(random);
    const uint32_t highPart = Next(random);
    const double d = (double(highPart) + double(lowPart) * kTwoToMinus32) * kTwoToMinus32;
    if (d < 1.0) return d;
  }
}

}  // extern "C"
