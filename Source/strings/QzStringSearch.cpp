// Searching, trimming and case of the string classes.
//
// The narrow searches walk byte by byte: positions are bytes whatever the
// code page, and a candidate may start on the second byte of a double-byte
// character. The code page only matters inside the compare, case and white
// space routines of the platform layer. Every walk is bounded by `length`, or
// by the terminator that always follows it, so no search reads past the block.
#include <cstring>

#include "strings/QzString.h"
#include "platform/QzPlatform.h"

namespace {

const unsigned int kNotFound = 0xFFFFFFFFu;

// What differs between the two widths.
template <typename T>
struct Units;

template <>
struct Units<char> {
  // The runtime's classification takes the byte sign-extended, so a high byte
  // arrives as a large value that no code page calls white space.
  static bool IsSpace(char c) {
    return qzsys::_ismbcspace(static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(c)))) != 0;
  }
  static bool InSet(char c, const char* set, unsigned int count) {
    return count != 0 && std::memchr(set, static_cast<unsigned char>(c), count) != nullptr;
  }
  static int Compare(const char* a, const char* b, unsigned int count) {
    return qzsys::_mbsncmp(reinterpret_cast<const unsigned char*>(a),
                           reinterpret_cast<const unsigned char*>(b), count);
  }
  static int CompareNoCase(const char* a, const char* b, unsigned int count) {
    return qzsys::_mbsnicmp(reinterpret_cast<const unsigned char*>(a),
                            reinterpret_cast<const unsigned char*>(b), count);
  }
  static void Lower(char* s) { qzsys::_mbslwr(reinterpret_cast<unsigned char*>(s)); }
  static void Upper(char* s) { qzsys::_mbsupr(reinterpret_cast<unsigned char*>(s)); }
};

template <>
struct Units<unsigned short> {
  typedef unsigned short T;
  static bool IsSpace(T c) { return qzsys::iswspace(c) != 0; }
  static bool InSet(T c, const T* set, unsigned int count) {
    for (unsigned int i = 0; i < count; ++i)
      if (set[i] == c) return true;
    return false;
  }
  // wcsncmp on 16-bit units: the host's wchar_t may be wider.
  static int Compare(const T* a, const T* b, unsigned int count) {
    for (; count != 0; --count, ++a, ++b) {
      if (*a != *b) return *a < *b ? -1 : 1;
      if (*a == 0) return 0;
    }
    return 0;
  }
  static int CompareNoCase(const T* a, const T* b, unsigned int count) {
    return qzsys::_wcsnicmp(a, b, count);
  }
  static void Lower(T* s) { qzsys::_wcslwr(s); }
  static void Upper(T* s) { qzsys::_wcsupr(s); }
};

}  // namespace

using qzstr::Header;

namespace {

template <typename T>
inline const T* CharsOf(const QzStringBaseT<T>& s) {
  return QzStringAccess::Chars(s);
}
template <typename T>
inline unsigned int LengthOf(const QzStringBaseT<T>& s) {
  return Header(QzStringAccess::Chars(s))->length;
}
// The string itself, as a new reference to its block.
template <typename T>
inline QzStringT<T> Shared(QzStringBaseT<T>& s) {
  return QzStringAccess::Derived(s);
}
// The counted range [first, first + count): the empty string when it begins
// with a 0 unit, else a block of its own.
template <typename T>
inline QzStringT<T> Range(const QzStringBaseT<T>& s, unsigned int first, unsigned int count) {
  return QzStringT<T>(CharsOf(s) + first, count);
}

}  // namespace

// ---- Searches ---------------------------------------------------------------------

template <typename T>
unsigned int QzStringBaseT<T>::find_first_not_of(T c, unsigned int pos) const {
  if (pos >= LengthOf(*this)) return kNotFound;
  // The terminator at chars[length] ends the walk at the latest: this form
  // never looks past the first 0 unit.
  for (const T* p = m_pchData + pos;; ++p) {
    if (*p == 0) return kNotFound;
    if (*p != c) return static_cast<unsigned int>(p - m_pchData);
  }
}

template <typename T>
unsigned int QzStringBaseT<T>::find_first_not_of(const T* set, unsigned int pos,
                                                 unsigned int count) const {
  const unsigned int length = LengthOf(*this);
  if (pos >= length || count == 0 || set == nullptr || set[0] == 0) return kNotFound;
  for (unsigned int i = pos; i < length; ++i)
    if (!Units<T>::InSet(m_pchData[i], set, count)) return i;
  return kNotFound;
}

template <typename T>
unsigned int QzStringBaseT<T>::find_last_not_of(T c, unsigned int pos) const {
  const unsigned int length = LengthOf(*this);
  if (length == 0) return kNotFound;
  for (unsigned int i = pos < length ? pos : length - 1;; --i) {
    if (m_pchData[i] != c) return i;
    if (i == 0) return kNotFound;
  }
}

template <typename T>
unsigned int QzStringBaseT<T>::find_last_not_of(const T* set, unsigned int pos,
                                                unsigned int count) const {
  const unsigned int length = LengthOf(*this);
  if (length == 0) return kNotFound;
  for (unsigned int i = pos < length ? pos : length - 1;; --i) {
    if (!Units<T>::InSet(m_pchData[i], set, count)) return i;
    if (i == 0) return kNotFound;
  }
}

template <typename T>
unsigned int QzStringBaseT<T>::find_last_of(const T* set, unsigned int pos,
                                            unsigned int count) const {
  if (count == 0) return kNotFound;
  const unsigned int length = LengthOf(*this);
  // Past the end the walk starts on the terminator, so a 0 in the set finds
  // the end of the text.
  for (unsigned int i = pos < length ? pos : length;; --i) {
    if (Units<T>::InSet(m_pchData[i], set, count)) return i;
    if (i == 0) return kNotFound;
  }
}

template <typename T>
unsigned int QzStringBaseT<T>::reverseFind(T c, unsigned int pos) const {
  const unsigned int length = LengthOf(*this);
  for (unsigned int i = pos < length ? pos : length;; --i) {
    if (m_pchData[i] == c) return i;
    if (i == 0) return kNotFound;
  }
}

namespace {

// Screens the candidates of a search so that most of them cost a table
// look-up rather than a call of the code-page-aware compare. A compare can
// only succeed if the first characters agree, and for a candidate whose first
// unit is a single-byte character below 0x80 the answer to that depends on
// the unit alone: it is asked of the compare routine itself, once per unit
// value and search, so the screen never disagrees with the routine. Other
// units (0, high bytes, lead bytes) always go to the full compare.
template <typename T>
class FirstUnitScreen {
 public:
  FirstUnitScreen(const T* text, bool ignoreCase) : text_(text), ignoreCase_(ignoreCase) {
    std::memset(state_, kUnknown, sizeof(state_));
  }
  // True when the compare at `p` cannot succeed.
  bool Excludes(const T* p) {
    const unsigned int u = Unit(*p);
    if (u == 0 || u >= kUnits) return false;
    if (state_[u] == kUnknown) state_[u] = Decide(u);
    return state_[u] == kExcluded;
  }

 private:
  enum : unsigned char { kUnknown, kExcluded, kPossible };
  static const unsigned int kUnits = 0x80;

  static unsigned int Unit(char c) { return static_cast<unsigned char>(c); }
  static unsigned int Unit(unsigned short c) { return c; }

  unsigned char Decide(unsigned int u) const {
    if (!IsSingle(static_cast<T>(u))) return kPossible;
    const T one[2] = {static_cast<T>(u), 0};
    const int cmp = ignoreCase_ ? Units<T>::CompareNoCase(one, text_, 1) : Units<T>::Compare(one, text_, 1);
    return cmp != 0 ? kExcluded : kPossible;
  }
  // Whether the unit is a whole character whatever follows it.
  static bool IsSingle(unsigned short) { return true; }
  static bool IsSingle(char c) {
    const unsigned char probe[3] = {static_cast<unsigned char>(c), 0xA1, 0};
    return qzsys::_mbsinc(probe) == probe + 1;
  }

  const T* text_;
  bool ignoreCase_;
  unsigned char state_[kUnits];
};

// Candidates from `limit - count` down to 0; `limit` is an exclusive end.
template <typename T>
unsigned int ReverseSearch(const T* chars, unsigned int length, const T* text, unsigned int pos,
                           unsigned int count, bool ignoreCase) {
  const unsigned int limit = pos < length ? pos : length;
  if (text == nullptr || count == 0 || count > limit) return kNotFound;
  FirstUnitScreen<T> screen(text, ignoreCase);
  for (unsigned int i = limit - count;; --i) {
    if (!screen.Excludes(chars + i)) {
      const int cmp = ignoreCase ? Units<T>::CompareNoCase(chars + i, text, count)
                                 : Units<T>::Compare(chars + i, text, count);
      if (cmp == 0) return i;
    }
    if (i == 0) return kNotFound;
  }
}

}  // namespace

template <typename T>
unsigned int QzStringBaseT<T>::reverseFind(const T* text, unsigned int pos,
                                           unsigned int count) const {
  return ReverseSearch(m_pchData, LengthOf(*this), text, pos, count, false);
}

template <typename T>
unsigned int QzStringBaseT<T>::reverseFindIgnoreCase(const T* text, unsigned int pos,
                                                     unsigned int count) const {
  return ReverseSearch(m_pchData, LengthOf(*this), text, pos, count, true);
}

template <typename T>
unsigned int QzStringBaseT<T>::findIgnoreCase(const T* text, unsigned int pos,
                                              unsigned int count) const {
  const unsigned int length = LengthOf(*this);
  if (text == nullptr || count == 0 || count > length || pos > length - count) return kNotFound;
  const unsigned int last = length - count;
  FirstUnitScreen<T> screen(text, true);
  for (unsigned int i = pos; i <= last; ++i)
    if (!screen.Excludes(m_pchData + i) && Units<T>::CompareNoCase(m_pchData + i, text, count) == 0)
      return i;
  return kNotFound;
}

// ---- Trims that return a string -------------------------------------------------------

template <typename T>
QzStringT<T> QzStringBaseT<T>::trimWhiteSpace() {
  const unsigned int length = LengthOf(*this);
  unsigned int first = 0;
  while (first < length && Units<T>::IsSpace(m_pchData[first])) ++first;
  if (first == length) return QzStringT<T>();
  unsigned int last = length - 1;
  while (last > first && Units<T>::IsSpace(m_pchData[last])) --last;
  if (first == 0 && last == length - 1) return Shared(*this);
  return Range(*this, first, last - first + 1);
}

template <typename T>
QzStringT<T> QzStringBaseT<T>::trimWhiteSpaceLeft() {
  const unsigned int length = LengthOf(*this);
  unsigned int first = 0;
  while (first < length && Units<T>::IsSpace(m_pchData[first])) ++first;
  if (first == length) return QzStringT<T>();
  if (first == 0) return Shared(*this);
  return Range(*this, first, length - first);
}

template <typename T>
QzStringT<T> QzStringBaseT<T>::trimWhiteSpaceRight() {
  unsigned int end = LengthOf(*this);  // one behind the last unit kept
  while (end > 0 && Units<T>::IsSpace(m_pchData[end - 1])) --end;
  if (end == 0) return QzStringT<T>();
  if (end == LengthOf(*this)) return Shared(*this);
  return Range(*this, 0, end);
}

template <typename T>
QzStringT<T> QzStringBaseT<T>::trim(const T& c) {
  const unsigned int length = LengthOf(*this);
  if (length == 0) return QzStringT<T>();
  const unsigned int first = find_first_not_of(c, 0);
  if (first == kNotFound) return QzStringT<T>();
  // chars[first] differs from c, so the walk down stops at first at the latest.
  const unsigned int last = find_last_not_of(c, kNotFound);
  if (first == 0 && last + 1 == length) return Shared(*this);
  return Range(*this, first, last - first + 1);
}

template <typename T>
QzStringT<T> QzStringBaseT<T>::trimLeft(const T& c) {
  const unsigned int first = find_first_not_of(c, 0);
  if (first == kNotFound) return QzStringT<T>();
  if (first == 0) return Shared(*this);
  return Range(*this, first, LengthOf(*this) - first);
}

template <typename T>
QzStringT<T> QzStringBaseT<T>::trimRight(const T& c) {
  const unsigned int last = find_last_not_of(c, kNotFound);
  if (last == kNotFound) return QzStringT<T>();
  if (last + 1 == LengthOf(*this)) return Shared(*this);
  return Range(*this, 0, last + 1);
}

// ---- Case ---------------------------------------------------------------------------

namespace {

// A converted copy. The counted constructor always makes a block of its own
// for non-empty text, so the conversion never reaches the source's block;
// the runtime routines stop at the first 0, leaving text behind it as it was.
template <typename T>
QzStringT<T> ConvertedCopy(const QzStringBaseT<T>& s, void (*convert)(T*)) {
  const unsigned int length = LengthOf(s);
  if (length == 0) return QzStringT<T>();
  QzStringT<T> copy(CharsOf(s), length);
  if (copy.length() != 0) convert(QzStringAccess::Chars(copy));
  return copy;
}

}  // namespace

template <typename T>
QzStringT<T> QzStringBaseT<T>::getLowercase() {
  return ConvertedCopy(*this, Units<T>::Lower);
}

template <typename T>
QzStringT<T> QzStringBaseT<T>::getUppercase() {
  return ConvertedCopy(*this, Units<T>::Upper);
}

// In place. A shared block (the empty record included) is copied first even
// when no character would change: afterwards the caller may write through
// the characters it sees without disturbing other owners.
template <typename T>
QzStringT<T>& QzStringBaseT<T>::toLowercase() {
  Units<T>::Lower(qzstr::Unshare(*this));
  return QzStringAccess::Derived(*this);
}

template <typename T>
QzStringT<T>& QzStringBaseT<T>::toUppercase() {
  Units<T>::Upper(qzstr::Unshare(*this));
  return QzStringAccess::Derived(*this);
}

template class QzStringBaseT<char>;
template class QzStringBaseT<unsigned short>;
