// The formatted output engine, once for both unit types.
//
// The engine runs in one of two modes, chosen once per call: storing into a
// buffer, or only counting. Each mode is its own instantiation so that the
// hot path of neither pays for the other: the storing mode needs no counter
// (what it produced is what it stored) and the counting mode no bounds tests.
#include "text/QzFormatEngine.h"

#include <qzbase/QzFormat.h>
#include <qzbase/QzFrame.h>

#include <climits>
#include <cstdint>
#include <cstring>

#include "platform/QzPlatformText.h"

namespace {

typedef unsigned short WideUnit;

// An integer text is at most 511 digits (the precision cap) plus "0x", and a
// sign goes in front of a float text built from the second unit on.
const size_t kNumberBuffer = 520;
const uint32_t kPrecisionCap = 511;

const double kTwo31 = 2147483648.0;

// ---- Character tests of the format walk -------------------------------------
// ASCII means the same in every code page the library runs in, so only other
// units need the platform's tables.

inline bool IsLowerUnit(char c) {
  unsigned char b = static_cast<unsigned char>(c);
  if (b < 0x80) return static_cast<unsigned>(b - 'a') < 26u;
  return qzsys::_ismbclower(b) != 0;
}
inline bool IsLowerUnit(WideUnit c) {
  if (c < 0x80) return static_cast<unsigned>(c - 'a') < 26u;
  return qzsys::iswctype(c, qzsys::_LOWER) != 0;
}
inline bool IsDigitUnit(char c) {
  unsigned char b = static_cast<unsigned char>(c);
  if (b < 0x80) return static_cast<unsigned>(b - '0') < 10u;
  return qzsys::_ismbcdigit(b) != 0;
}
inline bool IsDigitUnit(WideUnit c) {
  if (c < 0x80) return static_cast<unsigned>(c - '0') < 10u;
  return qzsys::iswctype(c, qzsys::_DIGIT) != 0;
}

inline bool IsNaN(double v) {
  uint64_t b;
  std::memcpy(&b, &v, sizeof b);
  return (b & 0x7FF0000000000000ull) == 0x7FF0000000000000ull && (b & 0x000FFFFFFFFFFFFFull) != 0;
}
inline bool IsFinite(double v) {
  uint64_t b;
  std::memcpy(&b, &v, sizeof b);
  return (b & 0x7FF0000000000000ull) != 0x7FF0000000000000ull;
}

// ---- Integer text -------------------------------------------------------------

const char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Narrow text of up to eight digits is assembled in a register and stored at
// once: the copy that follows reads it back, and a read that spans several
// small stores waits for all of them (no store forwarding), while one that
// lies within a single store does not.
inline char* NarrowDigitsInWord(uint32_t v, char* end) {
  uint64_t w = 0;
  unsigned filled = 0;
  while (v >= 100) {
    unsigned r = v % 100;
    v /= 100;
    uint16_t pair;
    std::memcpy(&pair, kDigitPairs + 2 * r, 2);
    filled += 2;
    w |= static_cast<uint64_t>(pair) << (64 - 8 * filled);
  }
  if (v >= 10) {
    uint16_t pair;
    std::memcpy(&pair, kDigitPairs + 2 * v, 2);
    filled += 2;
    w |= static_cast<uint64_t>(pair) << (64 - 8 * filled);
  } else {
    filled += 1;
    w |= static_cast<uint64_t>('0' + v) << (64 - 8 * filled);
  }
  std::memcpy(end - 8, &w, 8);
  return end - filled;
}

inline char* NarrowHexInWord(uint32_t v, const char* digits, unsigned bits, char* end) {
  const uint32_t mask = (1u << bits) - 1;
  uint64_t w = 0;
  unsigned filled = 0;
  do {
    ++filled;
    w |= static_cast<uint64_t>(static_cast<unsigned char>(digits[v & mask])) << (64 - 8 * filled);
    v >>= bits;
  } while (v != 0 && filled < 8);
  if (v != 0) {  // octal of more than eight digits
    std::memcpy(end - 8, &w, 8);
    end -= 8;
    do {
      *--end = digits[v & mask];
      v >>= bits;
    } while (v != 0);
    return end;
  }
  std::memcpy(end - 8, &w, 8);
  return end - filled;
}

template <class U>
inline U* Decimal32Digits(uint32_t v, U* end) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  if (sizeof(U) == 1 && v < 100000000u) return reinterpret_cast<U*>(NarrowDigitsInWord(v, reinterpret_cast<char*>(end)));
#endif
  while (v >= 100) {
    unsigned r = v % 100;
    v /= 100;
    end -= 2;
    end[0] = static_cast<U>(kDigitPairs[2 * r]);
    end[1] = static_cast<U>(kDigitPairs[2 * r + 1]);
  }
  if (v >= 10) {
    end -= 2;
    end[0] = static_cast<U>(kDigitPairs[2 * v]);
    end[1] = static_cast<U>(kDigitPairs[2 * v + 1]);
  } else {
    *--end = static_cast<U>('0' + v);
  }
  return end;
}

// The decimal text of a 32-bit value, built backwards from `end`; returns its
// first unit. A signed negative value is reported and its magnitude taken as
// -(value + 1) + 1, which also holds for the least value.
template <class U>
U* QzFormatDecimal32(uint32_t value, bool isUnsigned, U* end, bool* negative) {
  *negative = false;
  if (!isUnsigned && static_cast<int32_t>(value) < 0) {
    *negative = true;
    value = static_cast<uint32_t>(-(static_cast<int32_t>(value) + 1)) + 1u;
  }
  return Decimal32Digits(value, end);
}

template <class U>
U* QzFormatDecimal64(uint64_t value, bool isUnsigned, U* end, bool* negative) {
  *negative = false;
  if (!isUnsigned && static_cast<int64_t>(value) < 0) {
    *negative = true;
    value = static_cast<uint64_t>(-(static_cast<int64_t>(value) + 1)) + 1u;
  }
  // Nine digits at a time keep the 64-bit divisions (a library call on i386)
  // to two at most.
  while (value > 0xFFFFFFFFull) {
    uint64_t q = value / 1000000000u;
    uint32_t r = static_cast<uint32_t>(value - q * 1000000000u);
    U* stop = end - 9;
    end = Decimal32Digits(r, end);
    while (end > stop) *--end = '0';
    value = q;
  }
  return Decimal32Digits(static_cast<uint32_t>(value), end);
}

template <class U>
U* QzFormatPow2_32(uint32_t value, unsigned bits, U conversion, U* end) {
  const char* digits = conversion == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  if (sizeof(U) == 1) return reinterpret_cast<U*>(NarrowHexInWord(value, digits, bits, reinterpret_cast<char*>(end)));
#endif
  const uint32_t mask = (1u << bits) - 1;
  do {
    *--end = static_cast<U>(digits[value & mask]);
    value >>= bits;
  } while (value != 0);
  return end;
}

template <class U>
U* QzFormatPow2_64(uint64_t value, unsigned bits, U conversion, U* end) {
  if (value <= 0xFFFFFFFFull) return QzFormatPow2_32(static_cast<uint32_t>(value), bits, conversion, end);
  const char* digits = conversion == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
  const uint64_t mask = (1u << bits) - 1;
  do {
    *--end = static_cast<U>(digits[value & mask]);
    value >>= bits;
  } while (value != 0);
  return end;
}

// ---- Floating text helpers ------------------------------------------------------

// The truncation slot is filled while the library loads; a static
// initialiser that formats a float before then gets the same rounding here.
int TruncateBeforeLoad(double v) {
  if (!(v > -2147483649.0 && v < 2147483648.0)) return INT_MIN;
  return static_cast<int>(v);
}

// Brings a magnitude at or above 2^31 below it by a power of ten and returns
// that power, so that the 32-bit split of the digit generator can take it.
// Exact powers up to 10^22 keep the rounding error to a few units in the last
// place even for the largest doubles.
int ScaleBelowTwo31(double* value) {
  static const double kPow10[23] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                    1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                    1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  double x = *value;
  int k = 0;
  while (x >= kTwo31 * 1e22) {
    x /= 1e22;
    k += 22;
  }
  int j = 0;
  while (j < 22 && x >= kTwo31 * kPow10[j]) ++j;
  x /= kPow10[j];
  k += j;
  while (x >= kTwo31) {
    x /= 10.0;
    ++k;
  }
  *value = x;
  return k;
}

template <class U>
inline U* PutExponent(U* t, int x, bool atLeastTwo) {
  if (x < 0) {
    *t++ = '-';
    x = -x;
  } else {
    *t++ = '+';
  }
  if (x >= 100) *t++ = static_cast<U>('0' + x / 100 % 10);
  if (x >= 10 || atLeastTwo) *t++ = static_cast<U>('0' + x / 10 % 10);
  *t++ = static_cast<U>('0' + x % 10);
  return t;
}

// ---- Text of the other width --------------------------------------------------
// The narrow engine takes UTF-16 text under %S and the wide engine narrow text
// under %hs; both convert through the active code page.

inline int OtherLength(const WideUnit* s, int n) {
  int r = qzsys::WideCharToMultiByte(qzsys::CP_ACP, 0, s, n, nullptr, 0, nullptr, nullptr);
  return r > 0 ? r : 0;
}
inline int OtherLength(const char* s, int n) {
  int r = qzsys::MultiByteToWideChar(qzsys::CP_ACP, 0, s, n, nullptr, 0);
  return r > 0 ? r : 0;
}
inline int OtherConvert(const WideUnit* s, int n, char* out, int size) {
  int r = qzsys::WideCharToMultiByte(qzsys::CP_ACP, 0, s, n, out, size, nullptr, nullptr);
  return r > 0 ? r : 0;
}
inline int OtherConvert(const char* s, int n, WideUnit* out, int size) {
  int r = qzsys::MultiByteToWideChar(qzsys::CP_ACP, 0, s, n, out, size);
  return r > 0 ? r : 0;
}

// Where a piece of the source may end so that converting the pieces one by
// one gives the same units as converting the whole. A UTF-16 piece does not
// end between the halves of a pair. A narrow piece ends before a byte that
// starts a character: in UTF-8 a byte that is not a continuation byte, in the
// double-byte pages where the page's own stepping puts it.
enum { kPieceUnits = 120 };

inline size_t PieceLength(const WideUnit* s, size_t n) {
  if (n <= kPieceUnits) return n;
  size_t k = kPieceUnits;
  if (s[k - 1] >= 0xD800 && s[k - 1] <= 0xDBFF) --k;
  return k;
}
inline size_t PieceLength(const char* s, size_t n) {
  if (n <= kPieceUnits) return n;
  if (qzsys::GetACP() == qzsys::CP_UTF8) {
    size_t k = kPieceUnits;
    while (k > kPieceUnits - 3 && (static_cast<unsigned char>(s[k]) & 0xC0) == 0x80) --k;
    return k;
  }
  // A character is at most two bytes in these pages, so the step that starts
  // below the limit ends within the source (which is longer than the limit).
  const unsigned char* b = reinterpret_cast<const unsigned char*>(s);
  const unsigned char* q = b;
  while (static_cast<size_t>(q - b) < kPieceUnits) q = qzsys::_mbsinc(q);
  size_t k = static_cast<size_t>(q - b);
  return k < n ? k : n;
}

template <class T>
inline size_t SourceLength(const T* s, bool limited, uint32_t limit) {
  size_t n = 0;
  if (limited) {
    while (n < limit && s[n] != 0) ++n;
  } else {
    while (s[n] != 0) ++n;
  }
  return n;
}
inline size_t SourceLength(const char* s, bool limited, uint32_t limit) {
  if (!limited) return std::strlen(s);
  size_t n = 0;
  while (n < limit && s[n] != 0) ++n;
  return n;
}

// Stores the first units of the conversion of `src` (whose whole conversion
// is `total` units) while there is room; returns how many were stored.
template <class U, class T>
size_t StoreConverted(const T* src, size_t len, size_t total, U* dst, size_t room, U* scratch) {
  if (total <= room) return static_cast<size_t>(OtherConvert(src, static_cast<int>(len), dst, static_cast<int>(total)));
  size_t stored = 0;
  while (len > 0 && stored < room) {
    size_t piece = PieceLength(src, len);
    size_t got = static_cast<size_t>(OtherConvert(src, static_cast<int>(piece), scratch, static_cast<int>(kNumberBuffer)));
    if (got == 0) break;
    size_t take = got < room - stored ? got : room - stored;
    std::memcpy(dst + stored, scratch, take * sizeof(U));
    stored += take;
    src += piece;
    len -= piece;
  }
  return stored;
}

// ---- The two output modes -----------------------------------------------------

// Most texts are a few units long; a call to memcpy for each costs more than
// the copy. Overlapping fixed-size moves store exactly the bytes asked for.
inline void CopyUnits(void* dst, const void* src, size_t bytes) {
  char* d = static_cast<char*>(dst);
  const char* s = static_cast<const char*>(src);
  if (bytes > 32) {
    std::memcpy(d, s, bytes);
  } else if (bytes >= 16) {
    char a[16], b[16];
    std::memcpy(a, s, 16);
    std::memcpy(b, s + bytes - 16, 16);
    std::memcpy(d, a, 16);
    std::memcpy(d + bytes - 16, b, 16);
  } else if (bytes >= 8) {
    uint64_t a, b;
    std::memcpy(&a, s, 8);
    std::memcpy(&b, s + bytes - 8, 8);
    std::memcpy(d, &a, 8);
    std::memcpy(d + bytes - 8, &b, 8);
  } else if (bytes >= 4) {
    uint32_t a, b;
    std::memcpy(&a, s, 4);
    std::memcpy(&b, s + bytes - 4, 4);
    std::memcpy(d, &a, 4);
    std::memcpy(d + bytes - 4, &b, 4);
  } else if (bytes > 0) {
    char a = s[0], b = s[bytes / 2], c = s[bytes - 1];
    d[0] = a;
    d[bytes / 2] = b;
    d[bytes - 1] = c;
  }
}

template <class U>
inline void FillUnits(U* p, U c, size_t n) {
  for (size_t i = 0; i < n; ++i) p[i] = c;
}
inline void FillUnits(char* p, char c, size_t n) { std::memset(p, c, n); }

// Storing: every unit produced is stored, so the count is the distance from
// the start. A false result means the buffer is full and the unit (or the rest
// of the run) did not fit; what did fit has been stored.
template <class U>
struct StoreOut {
  U* p;
  U* end;
  U* start;
  explicit StoreOut(QzFormatSink<U>* sink) : p(sink->cur), end(sink->end), start(sink->cur) {}
  bool Put(U c) {
    if (p == end) return false;
    *p++ = c;
    return true;
  }
  bool Fill(U c, uint64_t n) {
    size_t room = static_cast<size_t>(end - p);
    if (n <= room) {
      FillUnits(p, c, static_cast<size_t>(n));
      p += n;
      return true;
    }
    FillUnits(p, c, room);
    p = end;
    return false;
  }
  bool Copy(const U* s, size_t n) {
    size_t room = static_cast<size_t>(end - p);
    if (n <= room) {
      CopyUnits(p, s, n * sizeof(U));
      p += n;
      return true;
    }
    std::memcpy(p, s, room * sizeof(U));
    p = end;
    return false;
  }
  // Plain text of the format up to the next '%' or its end, stored as it is
  // read; `f` is left on the unit that stopped it.
  bool Literal(const U*& f) {
    U* q = p;
    const U* s = f;
    U c;
    while ((c = *s) != 0 && c != '%') {
      if (q == end) {
        p = q;
        f = s;
        return false;
      }
      *q++ = c;
      ++s;
    }
    p = q;
    f = s;
    return true;
  }
  template <class T>
  void Converted(const T* src, size_t n, size_t total, U* scratch) {
    p += StoreConverted(src, n, total, p, static_cast<size_t>(end - p), scratch);
  }
  // The units still to be stored before the buffer is full.
  size_t Room() const { return static_cast<size_t>(end - p); }
  uint64_t Count() const { return static_cast<uint64_t>(p - start); }
  void Close(QzFormatSink<U>* sink) { sink->cur = p; }
};

// Counting: a 64-bit count so that huge widths cannot wrap it; the result is
// saturated at INT_MAX when the engine ends.
template <class U>
struct MeasureOut {
  uint64_t n;
  explicit MeasureOut(QzFormatSink<U>*) : n(0) {}
  bool Put(U) {
    ++n;
    return true;
  }
  bool Fill(U, uint64_t k) {
    n += k;
    return true;
  }
  bool Copy(const U*, size_t k) {
    n += k;
    return true;
  }
  bool Literal(const U*& f) {
    const U* s = f;
    while (*s != 0 && *s != '%') ++s;
    n += static_cast<uint64_t>(s - f);
    f = s;
    return true;
  }
  template <class T>
  void Converted(const T*, size_t, size_t total, U*) {
    n += total;
  }
  size_t Room() const { return SIZE_MAX; }
  uint64_t Count() const { return n; }
  void Close(QzFormatSink<U>*) {}
};

inline int SaturatedCount(uint64_t n) { return n > INT_MAX ? INT_MAX : static_cast<int>(n); }

// Outputs text of the other width without a copy, converted straight into the
// buffer. Its length is first cut to the room left, and the padding up to
// `width` is counted from that cut length, so a text that does not fit is
// padded more than it would be whole. A text that does not fit stores what
// does and leaves the buffer full: it reports nothing itself, and the next
// unit produced does.
template <class U, class Out, class T>
bool EmitOtherWidth(Out& out, const T* src, size_t n, bool hasWidth, bool left, uint32_t width, U pad,
                    U* scratch) {
  const size_t total = n > 0 ? static_cast<size_t>(OtherLength(src, static_cast<int>(n))) : 0;
  const size_t room = out.Room();
  const size_t kept = total < room ? total : room;
  const uint64_t padding = hasWidth && width > kept ? width - kept : 0;
  if (!left && padding != 0 && !out.Fill(pad, padding)) return false;
  out.Converted(src, n, total, scratch);
  if (left && padding != 0 && !out.Fill(pad, padding)) return false;
  return true;
}

// ---- The engine ---------------------------------------------------------------

enum SizeClass { kSizeInt, kSizeShort, kSizeLong, kSizeQuad };

template <class U>
struct UnitTraits;
template <>
struct UnitTraits<char> {
  typedef WideUnit Other;
  static const SizeClass kCapitalSize = kSizeLong;
};
template <>
struct UnitTraits<WideUnit> {
  typedef char Other;
  static const SizeClass kCapitalSize = kSizeShort;
};

template <class U>
inline bool IsI64(const U* f) {
  return f[0] == 'I' && f[1] == '6' && f[2] == '4';
}

template <class U, class Out>
int Run(const U* f, QzFormatSink<U>* sink, va_list values) {
  typedef typename UnitTraits<U>::Other Other;
  static const U kNull[] = {'(', 'n', 'u', 'l', 'l', ')'};
  static const U kNan[] = {'n', 'a', 'n'};
  static const U kInf[] = {'i', 'n', 'f'};

  Out out(sink);
  if (*f == 0) return 0;

  U num[kNumberBuffer];
  U chr[4];

  for (;;) {
    if (!out.Literal(f)) goto full;
    if (*f == 0) break;
    ++f;

    {
      bool left = false, alternate = false, printSign = false, printBlank = false;
      U pad = ' ';
      bool hasWidth = false, hasPrecision = false;
      uint32_t width = 0, precision = 0;
      U c = *f;

      if (!IsLowerUnit(c)) {
        for (;; c = *++f) {
          if (c == '-') left = true;
          else if (c == '+') printSign = true;
          else if (c == '#') alternate = true;
          else if (c == ' ') printBlank = true;
          else if (c == '0') pad = '0';
          else break;
        }
        if (IsDigitUnit(c)) {
          hasWidth = true;
          do {
            width = width * 10u + static_cast<uint32_t>(c - '0');
            c = *++f;
          } while (IsDigitUnit(c));
        } else if (c == '*') {
          hasWidth = true;
          int w = va_arg(values, int);
          if (w < 0) {
            left = true;
            width = 0u - static_cast<uint32_t>(w);
          } else {
            width = static_cast<uint32_t>(w);
          }
          c = *++f;
        }
        if (c == '.') {
          hasPrecision = true;
          c = *++f;
          if (IsDigitUnit(c)) {
            do {
              precision = precision * 10u + static_cast<uint32_t>(c - '0');
              c = *++f;
            } while (IsDigitUnit(c));
          } else if (c == '*') {
            int p = va_arg(values, int);
            precision = p < 0 ? 0u : static_cast<uint32_t>(p);
            c = *++f;
          }
        }
      }

      SizeClass size = kSizeInt;
      if (c == 'I' && IsI64(f)) {
        f += 3;
        size = kSizeQuad;
      } else if (c == 'q') {
        ++f;
        size = kSizeQuad;
      } else if (c == 'l') {
        ++f;
        size = kSizeLong;
      } else if (c == 'h') {
        ++f;
        size = kSizeShort;
      } else if (c == 'C' || c == 'S') {
        size = UnitTraits<U>::kCapitalSize;
      }

      c = *f;
      if (c == 0) break;  // the format ends inside a conversion: nothing of it is output
      ++f;

      const U* text = chr;
      size_t length = 0;
      U prefix = 0;

      switch (c) {
        case 'd':
        case 'i':
        case 'u':
        case 'o':
        case 'x':
        case 'X': {
          const bool isSigned = c == 'd' || c == 'i';
          U* end = num + kNumberBuffer;
          U* start;
          bool negative = false;
          if (size == kSizeQuad) {
            uint64_t v = va_arg(values, unsigned long long);
            if (c == 'o' || c == 'x' || c == 'X')
              start = QzFormatPow2_64<U>(v, c == 'o' ? 3 : 4, c, end);
            else
              start = QzFormatDecimal64<U>(v, !isSigned, end, &negative);
            if (alternate && (c == 'x' || c == 'X') && v == 0) alternate = false;
          } else {
            uint32_t v = static_cast<uint32_t>(va_arg(values, int));
            if (size == kSizeShort) {
              v = isSigned ? static_cast<uint32_t>(static_cast<int32_t>(static_cast<int16_t>(v)))
                           : (v & 0xFFFFu);
            }
            if (c == 'o' || c == 'x' || c == 'X')
              start = QzFormatPow2_32<U>(v, c == 'o' ? 3 : 4, c, end);
            else
              start = QzFormatDecimal32<U>(v, !isSigned, end, &negative);
            if (alternate && (c == 'x' || c == 'X') && v == 0) alternate = false;
          }
          if (hasPrecision) {
            const U* least = end - (precision < kPrecisionCap ? precision : kPrecisionCap);
            while (start > least) *--start = '0';
          }
          if (alternate) {
            if (c == 'o') {
              if (*start != '0') *--start = '0';
            } else if (c != 'u' && !isSigned) {
              *--start = c;
              *--start = '0';
            }
          }
          if (isSigned) {
            if (negative) prefix = '-';
            else if (printSign) prefix = '+';
            else if (printBlank) prefix = ' ';
          }
          text = start;
          length = static_cast<size_t>(end - start);
          break;
        }

        case 'p': {
          uintptr_t v = reinterpret_cast<uintptr_t>(va_arg(values, void*));
          U* end = num + kNumberBuffer;
          U* start = sizeof(uintptr_t) > 4 ? QzFormatPow2_64<U>(v, 4, 'x', end)
                                           : QzFormatPow2_32<U>(static_cast<uint32_t>(v), 4, 'x', end);
          text = start;
          length = static_cast<size_t>(end - start);
          pad = ' ';
          break;
        }

        case 'c':
        case 'C': {
          unsigned v = static_cast<unsigned>(va_arg(values, int));
          pad = ' ';
          length = 1;
          if (sizeof(U) > 1) {
            chr[0] = static_cast<U>(v & 0xFFFFu);
          } else if (size != kSizeLong || (v & 0xFFFFu) <= 255) {
            chr[0] = static_cast<U>(v & 0xFFu);
          } else {
            WideUnit wc = static_cast<WideUnit>(v & 0xFFFFu);
            int n = OtherConvert(&wc, 1, reinterpret_cast<char*>(chr), 4);
            length = static_cast<size_t>(n);
            // The width counts characters, not the bytes of this one.
            if (hasWidth) width = n > 0 ? width + static_cast<uint32_t>(n - 1) : (width > 0 ? width - 1 : 0);
          }
          break;
        }

        case 's':
        case 'S': {
          const U flagPad = pad;
          pad = ' ';
          const bool otherWidth = sizeof(U) == 1 ? size == kSizeLong : size == kSizeShort;
          if (otherWidth) {
            const Other* src = va_arg(values, const Other*);
            if (src == nullptr) {
              text = kNull;
              length = 6;
              break;
            }
            size_t n = SourceLength(src, hasPrecision, precision);
            if (n > INT_MAX) n = INT_MAX;
            // The flags' pad stays in force here: a '0' flag pads with zeros.
            if (!EmitOtherWidth<U>(out, src, n, hasWidth, left, width, flagPad, num)) goto full;
            continue;
          }
          const U* s = va_arg(values, const U*);
          if (s == nullptr) {
            text = kNull;
            length = 6;
          } else {
            text = s;
            length = SourceLength(s, hasPrecision, precision);
          }
          break;
        }

        case 'e':
        case 'E':
        case 'f':
        case 'g':
        case 'G': {
          double v = va_arg(values, double);
          if (IsNaN(v)) {
            text = kNan;
            length = 3;
            break;
          }
          if (!IsFinite(v)) {
            text = kInf;
            length = 3;
            break;
          }
          U* start = num + 1;
          bool negative = false;
          if (c == 'g' || c == 'G') {
            uint32_t ndigit = hasPrecision ? (precision == 0 ? 1u : precision) : 6u;
            int n = QzFormatGeneral<U>(v, ndigit, alternate, start);
            if (*start == '-') {
              negative = true;
              ++start;
              --n;
            }
            bool point = false;
            for (int i = 0; i < n; ++i) {
              if (start[i] == '.') {
                point = true;
                break;
              }
            }
            if (alternate && !point) start[n++] = '.';
            if (c == 'G') {
              for (int i = 0; i < n; ++i) {
                if (start[i] == 'e') {
                  start[i] = 'E';
                  break;
                }
              }
            }
            length = static_cast<size_t>(n);
          } else {
            length = static_cast<size_t>(
                QzFormatFixedOrExp<U>(v, c, alternate, hasPrecision ? precision : 6u, start, &negative));
          }
          if (negative) prefix = '-';
          else if (printSign) prefix = '+';
          else if (printBlank) prefix = ' ';
          text = start;
          break;
        }

        case 'n': {
          void* target = va_arg(values, void*);
          if (target != nullptr) {
            const int32_t sofar = SaturatedCount(out.Count());
            if (size == kSizeQuad) *static_cast<int64_t*>(target) = sofar;
            else if (size == kSizeShort) *static_cast<int16_t*>(target) = static_cast<int16_t>(sofar);
            else *static_cast<int32_t*>(target) = sofar;
          }
          continue;
        }

        default:
          // '%' itself, and any unit without a meaning, which is shown after
          // a '%' so that a mistake in a format is visible in its output.
          pad = ' ';
          if (c == '%') {
            chr[0] = '%';
            length = 1;
          } else {
            chr[0] = '%';
            chr[1] = c;
            length = 2;
          }
          break;
      }

      // Emission.
      if (prefix != 0) {
        U* t = const_cast<U*>(text) - 1;  // only number texts carry a prefix, with room before them
        *t = prefix;
        text = t;
        ++length;
      }
      if (hasWidth && !left && width > length) {
        if (pad == '0' && prefix != 0) {
          if (!out.Put(*text)) goto full;
          ++text;
          --length;
          --width;
        }
        if (!out.Fill(pad, width - length)) goto full;
      }
      if (!out.Copy(text, length)) goto full;
      if (hasWidth && left && width > length) {
        if (!out.Fill(pad, width - length)) goto full;
      }
    }
  }
  out.Close(sink);
  return SaturatedCount(out.Count());

full:
  // The flush has nowhere to put the text, so the engine stops here.
  out.Close(sink);
  return QzFormatFlush(sink);
}

}  // namespace

// ---- Floating conversions -------------------------------------------------------

int QzFormatDigits(double value, int ndigit, bool emode, char* buf, int* decptOut, bool* negativeOut) {
  if (ndigit >= 79) ndigit = 78;
  if (ndigit < 0) ndigit = 0;
  bool negative = false;
  if (value < 0.0) {
    negative = true;
    value = -value;
  }
  *negativeOut = negative;

  int (*truncate)(double) = Qz_Truncate;
  if (truncate == nullptr) truncate = &TruncateBeforeLoad;
  int decpt = 0;
  if (value >= kTwo31) decpt = ScaleBelowTwo31(&value);

  double fi = static_cast<double>(truncate(value));
  double frac = value - fi;
  int p = 0;
  if (fi != 0.0) {
    int q = kQzFormatDigitPlaces;
    while (fi != 0.0 && q > 0) {
      double t = fi * 0.1;
      fi = static_cast<double>(truncate(t));
      buf[--q] = static_cast<char>('0' + truncate((t - fi + 0.03) * 10.0));
      ++decpt;
    }
    while (q < kQzFormatDigitPlaces) buf[p++] = buf[q++];
  } else if (frac > 0.0) {
    while (frac * 10.0 < 1.0) {
      frac *= 10.0;
      --decpt;
    }
  }

  const int r = emode ? ndigit : ndigit + decpt;
  if (r < 0) {
    buf[0] = 0;
    *decptOut = -ndigit;
    return 0;
  }
  while (p <= r && p < kQzFormatDigitPlaces) {
    frac *= 10.0;
    int d = truncate(frac);
    if (d > 9) d = 9;
    frac -= d;
    buf[p++] = static_cast<char>('0' + d);
  }
  if (r >= kQzFormatDigitPlaces) {
    buf[kQzFormatDigitPlaces - 1] = 0;
    *decptOut = decpt;
    return kQzFormatDigitPlaces - 1;
  }

  int end = r;
  int q = r;
  buf[q] = static_cast<char>(buf[q] + 5);
  while (buf[q] > '9') {
    buf[q] = '0';
    if (q > 0) {
      ++buf[--q];
    } else {
      buf[0] = '1';
      ++decpt;
      if (!emode) {
        if (end > 0) buf[end] = '0';
        ++end;
      }
    }
  }
  buf[end] = 0;
  *decptOut = decpt;
  return end;
}

template <class U>
int QzFormatFixedOrExp(double value, U conversion, bool alternate, uint32_t precision, U* text,
                       bool* negative) {
  char d[kQzFormatDigitBuffer];
  int decpt = 0;
  const bool exp = conversion != 'f';
  int ndigit;
  if (exp) ndigit = precision >= 78 ? 79 : static_cast<int>(precision) + 1;
  else ndigit = precision >= 79 ? 79 : static_cast<int>(precision);
  const int nd = QzFormatDigits(value, ndigit, exp, d, &decpt, negative);
  const bool point = precision > 0 || alternate;

  U* t = text;
  if (!exp) {
    if (decpt <= 0) {
      *t++ = '0';
      if (precision > 0) {
        *t++ = '.';
        for (int i = 0; i < -decpt; ++i) *t++ = '0';
      } else if (alternate) {
        *t++ = '.';
      }
      for (int i = 0; i < nd; ++i) *t++ = static_cast<U>(d[i]);
    } else {
      // Fewer digits than places before the point happens only past the
      // 79-digit limit; zeros keep the magnitude right.
      int i = 0;
      for (; i < decpt; ++i) *t++ = i < nd ? static_cast<U>(d[i]) : static_cast<U>('0');
      if (point) *t++ = '.';
      for (; i < nd; ++i) *t++ = static_cast<U>(d[i]);
    }
  } else {
    *t++ = nd > 0 ? static_cast<U>(d[0]) : static_cast<U>('0');
    if (point) *t++ = '.';
    for (int i = 1; i < nd; ++i) *t++ = static_cast<U>(d[i]);
    *t++ = conversion;
    t = PutExponent(t, decpt - 1, true);
  }
  return static_cast<int>(t - text);
}

template <class U>
int QzFormatGeneral(double value, uint32_t ndigit, bool alternate, U* text) {
  if (ndigit > 78) ndigit = 78;
  if (ndigit == 0) ndigit = 1;
  char d[kQzFormatDigitBuffer];
  int decpt = 0;
  bool negative = false;
  int n = QzFormatDigits(value, static_cast<int>(ndigit), true, d, &decpt, &negative);

  U* t = text;
  if (negative) *t++ = '-';
  while (n > 1 && d[n - 1] == '0') --n;

  if ((decpt >= 0 && decpt - n > 4) || decpt < -3) {
    *t++ = static_cast<U>(d[0]);
    *t++ = '.';
    for (int i = 1; i < n; ++i) *t++ = static_cast<U>(d[i]);
    *t++ = 'e';
    t = PutExponent(t, decpt - 1, false);
  } else if (decpt <= 0) {
    if (d[0] != '0') *t++ = '.';
    for (int i = 0; i < -decpt; ++i) *t++ = '0';
    for (int i = 0; i < n; ++i) *t++ = static_cast<U>(d[i]);
  } else {
    for (int i = 0; i < n; ++i) {
      *t++ = static_cast<U>(d[i]);
      if (i + 1 == decpt) *t++ = '.';
    }
    if (n < decpt) {
      for (int i = n; i < decpt; ++i) *t++ = '0';
      *t++ = '.';
    }
  }
  if (!alternate && t > text && t[-1] == '.') --t;
  return static_cast<int>(t - text);
}

// ---- The engine's entry -----------------------------------------------------------

template <class U>
int QzFormatFlush(QzFormatSink<U>*) {
  return -1;
}

template <class U>
int QzFormatEngine(const U* format, QzFormatSink<U>* sink, va_list values) {
  if (sink->cur == nullptr) return Run<U, MeasureOut<U> >(format, sink, values);
  return Run<U, StoreOut<U> >(format, sink, values);
}

template int QzFormatFlush<char>(QzFormatSink<char>*);
template int QzFormatFlush<WideUnit>(QzFormatSink<WideUnit>*);
template int QzFormatEngine<char>(const char*, QzFormatSink<char>*, va_list);
template int QzFormatEngine<WideUnit>(const WideUnit*, QzFormatSink<WideUnit>*, va_list);
template int QzFormatFixedOrExp<char>(double, char, bool, uint32_t, char*, bool*);
template int QzFormatFixedOrExp<WideUnit>(double, WideUnit, bool, uint32_t, WideUnit*, bool*);
template int QzFormatGeneral<char>(double, uint32_t, bool, char*);
template int QzFormatGeneral<WideUnit>(double, uint32_t, bool, WideUnit*);

// ---- Exported calls ---------------------------------------------------------------

namespace {

template <class U>
int Entry(U* buffer, unsigned int count, const U* format, va_list values) {
  static const U kEmpty[1] = {0};
  if (format == nullptr) format = kEmpty;
  QzFormatSink<U> sink;
  if (count != 0) {
    sink.cur = buffer;
    sink.end = buffer + (count - 1);
  } else {
    sink.cur = nullptr;
    sink.end = nullptr;
  }
  int r = QzFormatEngine<U>(format, &sink, values);
  if (count != 0) *sink.cur = 0;
  if (r == -1) return count - 1 > INT_MAX ? INT_MAX : static_cast<int>(count - 1);
  return r;
}

}  // namespace

extern "C" {

QZ_API int QZ_VSNPRINTF_A(char* buffer, unsigned int count, const char* format, va_list values) {
  return Entry<char>(buffer, count, format, values);
}

QZ_API int QZ_SNPRINTF_A(char* buffer, unsigned int count, const char* format, ...) {
  va_list values;
  va_start(values, format);
  int r = Entry<char>(buffer, count, format, values);
  va_end(values);
  return r;
}

QZ_API int QZ_VSNPRINTF_W(unsigned short* buffer, unsigned int count, const unsigned short* format,
                          va_list values) {
  return Entry<WideUnit>(buffer, count, format, values);
}

QZ_API int QZ_SNPRINTF_W(unsigned short* buffer, unsigned int count, const unsigned short* format, ...) {
  va_list values;
  va_start(values, format);
  int r = Entry<WideUnit>(buffer, count, format, values);
  va_end(values);
  return r;
}

}  // extern "C"
