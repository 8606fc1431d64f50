// POSIX implementation of the text area: character classes, case, and the
// runtime's narrow and wide string routines, all from the library's own
// tables so that no host locale can change them.
#include "platform/QzPlatformText.h"
#include "platform/posix/TextTables.h"

namespace qzsys {

namespace {

// Simple one-to-one case pairs below U+0530: ASCII, Latin-1, Latin
// Extended-A, Greek and Cyrillic. Characters whose other case is not one
// character of the same script (U+00DF, U+0130, U+0131, U+017F, U+0149) keep
// their form.
constexpr unsigned kCaseLimit = 0x530;

struct CaseMap {
  WCHAR lower[kCaseLimit];
  WCHAR upper[kCaseLimit];
  CaseMap() {
    for (unsigned i = 0; i < kCaseLimit; ++i) lower[i] = upper[i] = static_cast<WCHAR>(i);
    for (unsigned c = 'A'; c <= 'Z'; ++c) pair(c, c + 0x20);
    for (unsigned c = 0xC0; c <= 0xDE; ++c)
      if (c != 0xD7) pair(c, c + 0x20);
    for (unsigned c = 0x100; c <= 0x12E; c += 2) pair(c, c + 1);
    for (unsigned c = 0x132; c <= 0x136; c += 2) pair(c, c + 1);
    for (unsigned c = 0x139; c <= 0x147; c += 2) pair(c, c + 1);
    for (unsigned c = 0x14A; c <= 0x176; c += 2) pair(c, c + 1);
    pair(0x178, 0xFF);
    for (unsigned c = 0x179; c <= 0x17D; c += 2) pair(c, c + 1);
    pair(0x386, 0x3AC);
    pair(0x388, 0x3AD);
    pair(0x389, 0x3AE);
    pair(0x38A, 0x3AF);
    pair(0x38C, 0x3CC);
    pair(0x38E, 0x3CD);
    pair(0x38F, 0x3CE);
    for (unsigned c = 0x391; c <= 0x3AB; ++c)
      if (c != 0x3A2) pair(c, c + 0x20);
    upper[0x3C2] = 0x3A3;  // final sigma
    for (unsigned c = 0x400; c <= 0x40F; ++c) pair(c, c + 0x50);
    for (unsigned c = 0x410; c <= 0x42F; ++c) pair(c, c + 0x20);
    for (unsigned c = 0x460; c <= 0x480; c += 2) pair(c, c + 1);
    for (unsigned c = 0x48A; c <= 0x4BE; c += 2) pair(c, c + 1);
    pair(0x4C0, 0x4CF);
    for (unsigned c = 0x4C1; c <= 0x4CD; c += 2) pair(c, c + 1);
    for (unsigned c = 0x4D0; c <= 0x52E; c += 2) pair(c, c + 1);
  }
  void pair(unsigned up, unsigned lo) {
    lower[up] = static_cast<WCHAR>(lo);
    upper[lo] = static_cast<WCHAR>(up);
  }
};

const CaseMap& Cases() {
  static const CaseMap map;
  return map;
}

bool IsSpaceCp(uint32_t c) {
  if (c <= 0x20) return c == 0x20 || (c >= 0x09 && c <= 0x0D);
  if (c < 0x85) return false;
  return c == 0x85 || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) || c == 0x2028 ||
         c == 0x2029 || c == 0x202F || c == 0x205F || c == 0x3000;
}

bool IsLowerCp(uint32_t c) {
  if (c < 0x80) return c >= 'a' && c <= 'z';
  if (c >= 0x10000) return false;
  if (QzToUpperW(static_cast<WCHAR>(c)) != c) return true;
  return c == 0xB5 || c == 0xDF || c == 0x131 || c == 0x138 || c == 0x149 || c == 0x17F ||
         c == 0x390 || c == 0x3B0;
}

bool IsUpperCp(uint32_t c) {
  if (c < 0x80) return c >= 'A' && c <= 'Z';
  if (c >= 0x10000) return false;
  return QzToLowerW(static_cast<WCHAR>(c)) != c || c == 0x130;
}

bool IsAlphaCp(uint32_t c) {
  if (IsLowerCp(c) || IsUpperCp(c)) return true;
  return c == 0xAA || c == 0xBA || (c >= 0x3041 && c <= 0x30FF && c != 0x30A0 && c != 0x30FB) ||
         (c >= 0x3400 && c <= 0x4DBF) || (c >= 0x4E00 && c <= 0x9FFF) ||
         (c >= 0xAC00 && c <= 0xD7A3) || (c >= 0xFF66 && c <= 0xFF9F);
}

bool IsPunctCp(uint32_t c) {
  if (c < 0x80) return (c >= 0x21 && c <= 0x2F) || (c >= 0x3A && c <= 0x40) || (c >= 0x5B && c <= 0x60) ||
                       (c >= 0x7B && c <= 0x7E);
  if (c >= 0xA1 && c <= 0xBF) return c != 0xAA && c != 0xB5 && c != 0xBA;
  return c == 0xD7 || c == 0xF7 || (c >= 0x2010 && c <= 0x2027) || (c >= 0x3001 && c <= 0x3003) ||
         (c >= 0x3008 && c <= 0x3011) || (c >= 0xFF01 && c <= 0xFF0F);
}

bool IsClass(uint32_t c, unsigned type) {
  if (c == 0xFFFFFFFFu) return false;
  if ((type & _UPPER) && IsUpperCp(c)) return true;
  if ((type & _LOWER) && IsLowerCp(c)) return true;
  if ((type & _DIGIT) && c >= '0' && c <= '9') return true;
  if ((type & _SPACE) && IsSpaceCp(c)) return true;
  if ((type & _PUNCT) && IsPunctCp(c)) return true;
  if ((type & _CONTROL) && (c < 0x20 || (c >= 0x7F && c <= 0x9F))) return true;
  if ((type & _BLANK) && (c == 0x20 || c == 0x09 || (c != 0x85 && c > 0x20 && IsSpaceCp(c) &&
                                                     c != 0x2028 && c != 0x2029)))
    return true;
  if ((type & _HEX) && ((c >= '0' && c <= '9') || ((c | 0x20) >= 'a' && (c | 0x20) <= 'f'))) return true;
  if ((type & 0x100) && IsAlphaCp(c)) return true;
  return false;
}

// One character of the active page at p.
struct Ch {
  unsigned len;     // bytes, at least 1 (the terminator counts as 1)
  uint32_t packed;  // its bytes, high byte first
  uint32_t cp;      // its code point, 0xFFFFFFFF when it has none
};

inline Ch ReadChar(const text::PageTable* t, const unsigned char* p) {
  unsigned b = p[0];
  if (!t) {
    if (b < 0x80) return {1, b, b};
    uint32_t cp = 0;
    unsigned bad;
    unsigned len = text::DecodeUtf8(p, 4, &cp, &bad);
    if (!len) return {1, b, 0xFFFFFFFFu};
    uint32_t packed = 0;
    for (unsigned i = 0; i < len; ++i) packed = packed << 8 | p[i];
    return {len, packed, cp};
  }
  if (t->lead[b] && p[1] != 0) {
    uint32_t packed = b << 8 | p[1];
    WCHAR w = t->pairs[packed];
    return {2, packed, w ? w : 0xFFFFFFFFu};
  }
  WCHAR w = t->single[b];
  return {1, b, (w || !b) ? w : 0xFFFFFFFFu};
}

// The code point of a packed character value, 0xFFFFFFFF when c is no
// character of the active page.
uint32_t UnpackChar(const text::PageTable* t, unsigned int c) {
  if (!t) {
    if (c < 0x80) return c;
    unsigned char bytes[4];
    unsigned n = 0;
    for (int shift = 24; shift >= 0; shift -= 8) {
      unsigned char b = static_cast<unsigned char>(c >> shift);
      if (n || b) bytes[n++] = b;
    }
    uint32_t cp = 0;
    unsigned bad;
    return text::DecodeUtf8(bytes, n, &cp, &bad) == n ? cp : 0xFFFFFFFFu;
  }
  if (c <= 0xFF) {
    if (t->lead[c]) return 0xFFFFFFFFu;
    return (t->single[c] || !c) ? t->single[c] : 0xFFFFFFFFu;
  }
  if (c > 0xFFFF || !t->lead[c >> 8] || !t->pairs) return 0xFFFFFFFFu;
  return t->pairs[c] ? t->pairs[c] : 0xFFFFFFFFu;
}

uint32_t PackUtf8(uint32_t cp) {
  unsigned char bytes[4];
  unsigned n = text::EncodeUtf8(cp, bytes);
  uint32_t packed = 0;
  for (unsigned i = 0; i < n; ++i) packed = packed << 8 | bytes[i];
  return packed;
}

// The packed value of ch in the given case, or ch's own when the other form
// has another length in this page.
uint32_t CaseOf(const text::PageTable* t, const Ch& ch, bool toLower) {
  if (ch.cp == 0xFFFFFFFFu || ch.cp >= 0x10000) return ch.packed;
  if (t && ch.len == 1) return toLower ? t->lower[ch.packed] : t->upper[ch.packed];
  WCHAR w = static_cast<WCHAR>(ch.cp);
  WCHAR m = toLower ? QzToLowerW(w) : QzToUpperW(w);
  if (m == w) return ch.packed;
  if (!t) {
    uint32_t packed = PackUtf8(m);
    unsigned char tmp[4];
    return text::EncodeUtf8(m, tmp) == ch.len ? packed : ch.packed;
  }
  uint16_t code = t->encode[m];
  return code >= 0x100 ? code : ch.packed;
}

unsigned char* CaseInPlace(unsigned char* s, bool toLower) {
  if (!s) return s;
  const text::PageTable* t = text::ActiveTable();
  for (unsigned char* p = s; *p;) {
    if (*p < 0x80 && (!t || !t->lead[*p])) {
      unsigned char b = *p;
      if (toLower ? (b >= 'A' && b <= 'Z') : (b >= 'a' && b <= 'z')) *p = b ^ 0x20;
      ++p;
      continue;
    }
    Ch ch = ReadChar(t, p);
    uint32_t v = CaseOf(t, ch, toLower);
    if (v != ch.packed)
      for (unsigned i = 0; i < ch.len; ++i) p[i] = static_cast<unsigned char>(v >> (8 * (ch.len - 1 - i)));
    p += ch.len;
  }
  return s;
}

int CompareChars(const unsigned char* a, const unsigned char* b, size_t count, bool fold) {
  const text::PageTable* t = text::ActiveTable();
  for (; count; --count) {
    if (*a < 0x80 && *b < 0x80 && (!t || (!t->lead[*a] && !t->lead[*b]))) {
      unsigned ca = *a, cb = *b;
      if (fold) {
        if (ca - 'A' < 26u) ca |= 0x20;
        if (cb - 'A' < 26u) cb |= 0x20;
      }
      if (ca != cb) return ca < cb ? -1 : 1;
      if (!ca) return 0;
      ++a;
      ++b;
      continue;
    }
    Ch ca = ReadChar(t, a), cb = ReadChar(t, b);
    uint32_t va = fold ? CaseOf(t, ca, true) : ca.packed;
    uint32_t vb = fold ? CaseOf(t, cb, true) : cb.packed;
    if (va != vb) return va < vb ? -1 : 1;
    if (!va) return 0;
    a += ca.len;
    b += cb.len;
  }
  return 0;
}

}  // namespace

WCHAR QzToLowerW(WCHAR c) {
  if (c < kCaseLimit) return Cases().lower[c];
  if (c >= 0xFF21 && c <= 0xFF3A) return static_cast<WCHAR>(c + 0x20);
  return c;
}

WCHAR QzToUpperW(WCHAR c) {
  if (c < kCaseLimit) return Cases().upper[c];
  if (c >= 0xFF41 && c <= 0xFF5A) return static_cast<WCHAR>(c - 0x20);
  return c;
}

int iswspace(unsigned short c) { return IsSpaceCp(c) ? 1 : 0; }

int iswctype(unsigned short c, unsigned short type) { return IsClass(c, type) ? 1 : 0; }

int _wcsnicmp(const WCHAR* a, const WCHAR* b, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    WCHAR ca = QzToLowerW(a[i]), cb = QzToLowerW(b[i]);
    if (ca != cb) return ca < cb ? -1 : 1;
    if (!ca) return 0;
  }
  return 0;
}

WCHAR* _wcslwr(WCHAR* s) {
  if (s)
    for (WCHAR* p = s; *p; ++p) *p = QzToLowerW(*p);
  return s;
}

WCHAR* _wcsupr(WCHAR* s) {
  if (s)
    for (WCHAR* p = s; *p; ++p) *p = QzToUpperW(*p);
  return s;
}

unsigned char* _mbsinc(const unsigned char* p) {
  const text::PageTable* t = text::ActiveTable();
  return const_cast<unsigned char*>(p) + ReadChar(t, p).len;
}

int _mbsncmp(const unsigned char* a, const unsigned char* b, size_t count) {
  return CompareChars(a, b, count, false);
}

int _mbsnicmp(const unsigned char* a, const unsigned char* b, size_t count) {
  return CompareChars(a, b, count, true);
}

int _ismbcspace(unsigned int c) { return IsClass(UnpackChar(text::ActiveTable(), c), _SPACE) ? 1 : 0; }
int _ismbclower(unsigned int c) { return IsClass(UnpackChar(text::ActiveTable(), c), _LOWER) ? 1 : 0; }
int _ismbcupper(unsigned int c) { return IsClass(UnpackChar(text::ActiveTable(), c), _UPPER) ? 1 : 0; }
int _ismbcdigit(unsigned int c) { return IsClass(UnpackChar(text::ActiveTable(), c), _DIGIT) ? 1 : 0; }

unsigned char* _mbslwr(unsigned char* s) { return CaseInPlace(s, true); }
unsigned char* _mbsupr(unsigned char* s) { return CaseInPlace(s, false); }

unsigned char* _mbschr(const unsigned char* s, unsigned int c) {
  const text::PageTable* t = text::ActiveTable();
  for (const unsigned char* p = s;; ) {
    Ch ch = ReadChar(t, p);
    if (ch.packed == c) return const_cast<unsigned char*>(p);
    if (!*p) return nullptr;
    p += ch.len;
  }
}

}  // namespace qzsys
