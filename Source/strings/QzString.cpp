// Strings: blocks, the shared empty record, construction, assignment, and
// the editing members, for both widths.
#include "strings/QzString.h"

#include <stdlib.h>
#include <string.h>

#include "frame/QzException.h"
#include "frame/QzFrame.h"
#include "platform/QzPlatform.h"

namespace qzstr {

// Constant-initialised: it is valid before any initialiser of the library has
// run, and the load step only adds the references of the two `empty` members.
QzEmptyStringRecord g_emptyRecord = {{2, 0, 0}, {{0, 0}}};

void ThrowOutOfMemory() { QzThrow(qzsys::E_OUTOFMEMORY); }

// ---- Two-pass conversion -------------------------------------------------------------
// The routines report sizes in units of their own side. A count of -1 on the
// source side is theirs to read; when they read it as "including the
// terminator", the terminator they copy is not part of our text.

unsigned int MeasureConversion(const char* text, unsigned int count) {
  if (text == 0) return 0;
  unsigned int source = count, needed = 0;
  QZ_MBCHAR_TO_UTF16(const_cast<char*>(text), &source, 0, &needed);
  return needed;
}

unsigned int MeasureConversion(const unsigned short* text, unsigned int count) {
  if (text == 0) return 0;
  unsigned int source = count, needed = 0;
  QZ_UTF16_TO_MBCHAR(const_cast<unsigned short*>(text), &source, 0, &needed);
  return needed;
}

namespace {
template <typename D>
unsigned int Converted(HRESULT hr, D* dst, unsigned int room, unsigned int written,
                       unsigned int count) {
  // A failed second pass may leave the size as it was: then nothing valid was
  // written, and the text counts as empty rather than as uninitialised room.
  if (hr < 0) return 0;
  if (written > room) written = room;
  if (count == 0xFFFFFFFFu && written != 0 && dst[written - 1] == 0) --written;
  return written;
}
}  // namespace

unsigned int ConvertInto(unsigned short* dst, unsigned int room, const char* text,
                         unsigned int count) {
  if (room == 0 || text == 0) return 0;
  unsigned int source = count, written = room;
  HRESULT hr = QZ_MBCHAR_TO_UTF16(const_cast<char*>(text), &source, dst, &written);
  return Converted(hr, dst, room, written, count);
}

unsigned int ConvertInto(char* dst, unsigned int room, const unsigned short* text,
                         unsigned int count) {
  if (room == 0 || text == 0) return 0;
  unsigned int source = count, written = room;
  HRESULT hr = QZ_UTF16_TO_MBCHAR(const_cast<unsigned short*>(text), &source, dst, &written);
  return Converted(hr, dst, room, written, count);
}

}  // namespace qzstr

using namespace qzstr;

// ---- The two `empty` members ------------------------------------------------------------
// Their storage is a plain pointer under the members' own symbol names, so
// that no C++ constructor or destructor of the library ever runs for them:
// the load step below gives each its reference and its at-exit release, once.
// The storage starts out on the record, so a copy made before the load step is
// still valid. The labels are the Itanium names of the two members (ELF on
// i386 and x86-64); a Windows build names them its own way.
extern "C++" {
QZ_API char* g_qzEmptyNarrowStorage __asm__("_ZN13QzStringBaseTIcE5emptyE") =
    g_emptyRecord.chars.narrow;
QZ_API unsigned short* g_qzEmptyWideStorage __asm__("_ZN13QzStringBaseTItE5emptyE") =
    g_emptyRecord.chars.wide;
}

namespace {
bool g_narrowEmptyReady = false;
bool g_wideEmptyReady = false;

void ReleaseNarrowEmpty() { Release(g_qzEmptyNarrowStorage); }
void ReleaseWideEmpty() { Release(g_qzEmptyWideStorage); }
}  // namespace

extern "C" void QzLoadStepEmptyStrings() {
  if (!g_narrowEmptyReady) {
    g_narrowEmptyReady = true;
    Retain(g_emptyRecord.chars.narrow);
    g_qzEmptyNarrowStorage = g_emptyRecord.chars.narrow;
    atexit(ReleaseNarrowEmpty);
  }
  if (!g_wideEmptyReady) {
    g_wideEmptyReady = true;
    Retain(g_emptyRecord.chars.wide);
    g_qzEmptyWideStorage = g_emptyRecord.chars.wide;
    atexit(ReleaseWideEmpty);
  }
}

namespace {

// ---- What differs between the widths ----------------------------------------------------
template <typename T> struct Width;

template <>
struct Width<char> {
  static unsigned int Length(const char* s) { return static_cast<unsigned int>(strlen(s)); }
  static const unsigned char* U8(const char* p) { return reinterpret_cast<const unsigned char*>(p); }
  // Units of the character at p, cut at `end` (a lead byte at the very end).
  static unsigned int Step(const char* p, const char* end) {
    // Below 0x80 a byte at a character boundary is a character of its own in
    // every code page the library runs with (no lead byte is that low).
    if (static_cast<unsigned char>(*p) < 0x80) return 1;
    unsigned int n = static_cast<unsigned int>(qzsys::_mbsinc(U8(p)) - U8(p));
    unsigned int left = static_cast<unsigned int>(end - p);
    if (n == 0) n = 1;
    return n < left ? n : left;
  }
  static bool SameChar(const char* p, char c) {
    const char one[2] = {c, 0};
    return qzsys::_mbsncmp(U8(p), U8(one), 1) == 0;
  }
  static bool SameCharIgnoreCase(const char* p, char c) {
    const char one[2] = {c, 0};
    return qzsys::_mbsnicmp(U8(p), U8(one), 1) == 0;
  }
  static bool EqualIgnoreCase(char a, char b) {
    const char one[2] = {a, 0};
    return SameCharIgnoreCase(one, b);
  }
  // `chars` characters of the code page, stopping at a 0 of both. ASCII
  // bytes are characters of their own (see Step), so they are compared here
  // and the runtime's compare takes over at the first other byte.
  static bool Match(const char* p, const char* text, unsigned int chars) {
    for (; chars != 0; --chars, ++p, ++text) {
      const unsigned char a = static_cast<unsigned char>(*p), b = static_cast<unsigned char>(*text);
      if ((a | b) >= 0x80) return qzsys::_mbsncmp(U8(p), U8(text), chars) == 0;
      if (a != b) return false;
      if (a == 0) return true;
    }
    return true;
  }
  static bool MatchIgnoreCase(const char* p, const char* text, unsigned int chars) {
    return qzsys::_mbsnicmp(U8(p), U8(text), chars) == 0;
  }
  static bool IsSpace(char c) {
    return qzsys::_ismbcspace(static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(c)))) != 0;
  }
};

template <>
struct Width<unsigned short> {
  typedef unsigned short T;
  static unsigned int Length(const T* s) {
    unsigned int n = 0;
    while (s[n] != 0) ++n;
    return n;
  }
  static unsigned int Step(const T*, const T*) { return 1; }
  static bool SameChar(const T* p, T c) { return *p == c; }
  static bool SameCharIgnoreCase(const T* p, T c) { return qzsys::_wcsnicmp(p, &c, 1) == 0; }
  static bool EqualIgnoreCase(T a, T b) { return SameCharIgnoreCase(&a, b); }
  // wcsncmp: at most `chars` units, stopping at a 0 of both.
  static bool Match(const T* p, const T* text, unsigned int chars) {
    for (unsigned int i = 0; i < chars; ++i) {
      if (p[i] != text[i]) return false;
      if (p[i] == 0) break;
    }
    return true;
  }
  static bool MatchIgnoreCase(const T* p, const T* text, unsigned int chars) {
    return qzsys::_wcsnicmp(p, text, chars) == 0;
  }
  static bool IsSpace(T c) { return qzsys::iswspace(c) != 0; }
};

template <typename T>
inline QzInternalStringData* HeaderOf(const QzStringBaseT<T>& s) {
  return Header(QzStringAccess::Chars(s));
}

template <typename T>
inline void Copy(T* dst, const T* src, unsigned int n) {
  if (n != 0) memcpy(dst, src, static_cast<size_t>(n) * sizeof(T));
}
template <typename T>
inline void Move(T* dst, const T* src, unsigned int n) {
  if (n != 0) memmove(dst, src, static_cast<size_t>(n) * sizeof(T));
}
template <typename T>
inline void Fill(T* dst, T value, unsigned int n) {
  for (unsigned int i = 0; i < n; ++i) dst[i] = value;
}
inline void Fill(char* dst, char value, unsigned int n) { memset(dst, value, n); }

// A block filled with `count` copies of `c`.
template <typename T>
T* NewBlockFilled(unsigned int count, T c) {
  T* chars = NewBlock<T>(count);
  Fill(chars, c, count);
  return chars;
}

// The scratch array of a fill that needs the code page; freed on every path.
struct ScratchUnits {
  unsigned short* units;
  explicit ScratchUnits(unsigned int count)
      : units(static_cast<unsigned short*>(Qz_MempoolAlloc(0, static_cast<size_t>(count) * 2))) {}
  ~ScratchUnits() { Qz_MempoolFree(0, units); }
};

}  // namespace

// ---- Construction, assignment, destruction --------------------------------------------------

template <typename T>
QzStringBaseT<T>::QzStringBaseT() : m_pchData(EmptyChars<T>()) {
  Retain(m_pchData);
}

template <typename T>
QzStringBaseT<T>::QzStringBaseT(const QzStringBaseT& other) : m_pchData(other.m_pchData) {
  Retain(m_pchData);
}

template <typename T>
QzStringBaseT<T>::QzStringBaseT(QzInternalStringData* data) {
  if (data != 0) {
    m_pchData = CharsOf<T>(data);
  } else {
    m_pchData = EmptyChars<T>();
    Retain(m_pchData);
  }
}

namespace {
// What each constructor makes, by width; the tag argument picks the width.
template <typename T>
T* RetainedEmpty() {
  T* chars = EmptyChars<T>();
  Retain(chars);
  return chars;
}

char* FromFill(char*, unsigned int count, char c) {
  if (static_cast<int>(count) <= 0) return RetainedEmpty<char>();
  return NewBlockFilled(count, c);
}
unsigned short* FromFill(unsigned short*, unsigned int count, char c) {
  if (static_cast<int>(count) <= 0 || c == 0) return RetainedEmpty<unsigned short>();
  // Widened by sign extension, as a char converts: no code page involved.
  return NewBlockFilled(count, static_cast<unsigned short>(static_cast<short>(static_cast<signed char>(c))));
}
char* FromFill(char*, unsigned int count, unsigned short c) {
  if (static_cast<int>(count) <= 0 || c == 0) return RetainedEmpty<char>();
  if (c <= 255) return NewBlockFilled(count, static_cast<char>(c));
  ScratchUnits scratch(count);
  if (scratch.units == 0) ThrowOutOfMemory();
  Fill(scratch.units, c, count);
  return NewBlockConverted<char>(scratch.units, count);
}
unsigned short* FromFill(unsigned short*, unsigned int count, unsigned short c) {
  if (static_cast<int>(count) <= 0) return RetainedEmpty<unsigned short>();
  return NewBlockFilled(count, c);
}

// Counted text of the string's own width (-1: up to the terminator).
template <typename T>
T* FromText(T*, const T* text, unsigned int count) {
  if (text == 0 || text[0] == 0 || count == 0) return RetainedEmpty<T>();
  if (count == 0xFFFFFFFFu) count = Width<T>::Length(text);
  return NewBlockCopy(text, count);
}
// Counted text of the other width: the count goes to the conversion as it is.
template <typename T, typename U>
T* FromText(T*, const U* text, unsigned int count) {
  if (text == 0 || text[0] == 0 || count == 0) return RetainedEmpty<T>();
  return NewBlockConverted<T>(text, count);
}
// Text up to its terminator.
template <typename T, typename C>
T* FromText(T* tag, const C* text) {
  return FromText(tag, text, text ? Width<C>::Length(text) : 0u);
}
}  // namespace

template <typename T>
QzStringBaseT<T>::QzStringBaseT(unsigned int count, char c)
    : m_pchData(FromFill(static_cast<T*>(0), count, c)) {}
template <typename T>
QzStringBaseT<T>::QzStringBaseT(unsigned int count, unsigned short c)
    : m_pchData(FromFill(static_cast<T*>(0), count, c)) {}
template <typename T>
QzStringBaseT<T>::QzStringBaseT(const char* text) : m_pchData(FromText(static_cast<T*>(0), text)) {}
template <typename T>
QzStringBaseT<T>::QzStringBaseT(const char* text, unsigned int count)
    : m_pchData(FromText(static_cast<T*>(0), text, count)) {}
template <typename T>
QzStringBaseT<T>::QzStringBaseT(const unsigned short* text)
    : m_pchData(FromText(static_cast<T*>(0), text)) {}
template <typename T>
QzStringBaseT<T>::QzStringBaseT(const unsigned short* text, unsigned int count)
    : m_pchData(FromText(static_cast<T*>(0), text, count)) {}

template <typename T>
QzStringBaseT<T>::~QzStringBaseT() {
  Release(m_pchData);
}

template <typename T>
QzStringBaseT<T>& QzStringBaseT<T>::operator=(const QzStringBaseT& other) {
  T* incoming = other.m_pchData;
  if (incoming == m_pchData) return *this;
  Retain(incoming);
  T* old = __atomic_exchange_n(&m_pchData, incoming, __ATOMIC_SEQ_CST);
  Release(old);
  return *this;
}

// ---- Whole-text assignment and appending ------------------------------------------------------

template <typename T>
void QzStringBaseT<T>::SetInternal(const T* text, unsigned int count) {
  QzInternalStringData* h = Header(m_pchData);
  if (count == 0 || text == 0 || text[0] == 0) {
    if (h->length != 0) MakeEmpty(*this);
    return;
  }
  if (count == 0xFFFFFFFFu) count = Width<T>::Length(text);
  if (IsSoleOwner(m_pchData) && count <= h->capacity) {
    Move(m_pchData, text, count);  // the text may lie in this very block
    m_pchData[count] = 0;
    h->length = count;
    return;
  }
  SwapIn(*this, NewBlockCopy(text, count));  // old block released last: text may lie in it
}

template <typename T>
void QzStringBaseT<T>::SetInternal(const OtherCharType* text, unsigned int count) {
  QzInternalStringData* h = Header(m_pchData);
  if (count == 0 || text == 0 || text[0] == 0) {
    if (h->length != 0) MakeEmpty(*this);
    return;
  }
  if (!IsSoleOwner(m_pchData)) {
    SwapIn(*this, NewBlockConverted<T>(text, count));
    return;
  }
  unsigned int needed = MeasureConversion(text, count);
  if (needed > h->capacity) {
    // A sole owner grows its own block; on failure the old one is untouched.
    void* grown = Qz_MempoolRealloc(0, h, BlockBytes<T>(needed));
    if (grown == 0) ThrowOutOfMemory();
    h = static_cast<QzInternalStringData*>(grown);
    h->capacity = static_cast<uint32_t>(UnitsFor(needed) - 1);
    (void)__atomic_exchange_n(&m_pchData, CharsOf<T>(h), __ATOMIC_SEQ_CST);
  }
  unsigned int written = ConvertInto(m_pchData, needed, text, count);
  m_pchData[written] = 0;
  h->length = written;
}

template <typename T>
void QzStringBaseT<T>::AppendInternal(const T* text, unsigned int count) {
  if (count == 0) return;
  if (count == 0xFFFFFFFFu)
    count = text ? Width<T>::Length(text) : 0u;
  else if (text == 0)
    return;
  QzInternalStringData* h = Header(m_pchData);
  unsigned int length = h->length;
  const uint64_t total = uint64_t(length) + count;  // no wrap: a block that big is refused
  if (IsSoleOwner(m_pchData) && total <= h->capacity) {
    Move(m_pchData + length, text, count);  // a part of this text is sound
    m_pchData[total] = 0;
    h->length = static_cast<uint32_t>(total);
    return;
  }
  T* chars = NewBlock<T>(total);
  Copy(chars, m_pchData, length);
  Copy(chars + length, text, count);
  SwapIn(*this, chars);
}

template <typename T>
void QzStringBaseT<T>::AppendInternal(const OtherCharType* text, unsigned int count) {
  if (count == 0) return;
  unsigned int needed = MeasureConversion(text, count);
  QzInternalStringData* h = Header(m_pchData);
  unsigned int length = h->length;
  const uint64_t total = uint64_t(length) + needed;
  if (IsSoleOwner(m_pchData) && total <= h->capacity) {
    unsigned int written = ConvertInto(m_pchData + length, needed, text, count);
    m_pchData[length + written] = 0;
    h->length = length + written;
    return;
  }
  T* chars = NewBlock<T>(total);
  Copy(chars, m_pchData, length);
  unsigned int written = ConvertInto(chars + length, needed, text, count);
  chars[length + written] = 0;
  Header(chars)->length = length + written;
  SwapIn(*this, chars);
}

namespace {
template <typename T>
inline unsigned int LayText(T* dst, unsigned int, const T* text, unsigned int count) {
  Copy(dst, text, count);
  return count;
}
template <typename T, typename U>
inline unsigned int LayText(T* dst, unsigned int room, const U* text, unsigned int count) {
  return ConvertInto(dst, room, text, count);
}
template <typename T, typename A>
inline unsigned int RoomFor(const A* text, unsigned int count) {
  if (count == 0) return 0;
  return sizeof(A) == sizeof(T) ? count : MeasureConversion(text, count);
}

// Builds first + second into a new block and swaps it into result. The texts
// may lie in result's old block: it is released last.
template <typename T, typename A, typename B>
void Join(QzStringBaseT<T>& result, const A* first, unsigned int firstCount, const B* second,
          unsigned int secondCount) {
  if (first == 0) firstCount = 0;
  if (second == 0) secondCount = 0;
  unsigned int firstRoom = RoomFor<T>(first, firstCount);
  unsigned int secondRoom = RoomFor<T>(second, secondCount);
  T* chars = NewBlock<T>(uint64_t(firstRoom) + secondRoom);
  unsigned int n = firstRoom != 0 ? LayText(chars, firstRoom, first, firstCount) : 0u;
  n += secondRoom != 0 ? LayText(chars + n, secondRoom, second, secondCount) : 0u;
  chars[n] = 0;
  Header(chars)->length = n;
  SwapIn(result, chars);
}
}  // namespace

template <typename T>
void QzStringBaseT<T>::Concatenate(QzStringBaseT& result, const T* first, unsigned int firstCount,
                                   const T* second, unsigned int secondCount) {
  Join(result, first, firstCount, second, secondCount);
}

template <typename T>
void QzStringBaseT<T>::Concatenate(QzStringBaseT& result, const OtherCharType* first,
                                   unsigned int firstCount, const T* second,
                                   unsigned int secondCount) {
  Join(result, first, firstCount, second, secondCount);
}

template <typename T>
void QzStringBaseT<T>::Concatenate(QzStringBaseT& result, const T* first, unsigned int firstCount,
                                   const OtherCharType* second, unsigned int secondCount) {
  Join(result, first, firstCount, second, secondCount);
}

// ---- insert, erase ------------------------------------------------------------------------------

namespace {
// Inserts `room` units before pos, laid by `lay(dst, room)` which returns the
// units it really wrote (a conversion may write fewer). pos < length.
template <typename T, typename Lay>
unsigned int InsertInside(QzStringBaseT<T>& s, unsigned int pos, unsigned int room, Lay lay) {
  T* chars = QzStringAccess::Chars(s);
  QzInternalStringData* h = Header(chars);
  unsigned int length = h->length;
  const uint64_t total = uint64_t(length) + room;
  unsigned int tail = length - pos;
  if (!IsSoleOwner(chars) || total > h->capacity) {
    T* fresh = NewBlock<T>(total);
    Copy(fresh, chars, pos);
    unsigned int written = lay(fresh + pos, room);
    Copy(fresh + pos + written, chars + pos, tail);
    const unsigned int made = length + written;
    fresh[made] = 0;
    Header(fresh)->length = made;
    SwapIn(s, fresh);
    return made;
  }
  Move(chars + pos + room, chars + pos, tail + 1);
  unsigned int written = lay(chars + pos, room);
  if (written != room) Move(chars + pos + written, chars + pos + room, tail + 1);
  h->length = length + written;
  return h->length;
}
}  // namespace

template <typename T>
unsigned int QzStringBaseT<T>::insert(unsigned int pos, const T* text, unsigned int count) {
  QzInternalStringData* h = Header(m_pchData);
  if (count == 0) return h->length;
  if (count == 0xFFFFFFFFu)
    count = text ? Width<T>::Length(text) : 0u;
  else if (text == 0)
    return h->length;
  if (pos >= h->length) {
    if (count != 0) AppendInternal(text, count);
    return Header(m_pchData)->length;
  }
  return InsertInside(*this, pos, count, [text, count](T* dst, unsigned int) {
    Move(dst, text, count);
    return count;
  });
}

template <typename T>
unsigned int QzStringBaseT<T>::insert(unsigned int pos, const OtherCharType* text,
                                      unsigned int count) {
  QzInternalStringData* h = Header(m_pchData);
  if (count == 0) return h->length;
  if (pos >= h->length) {
    AppendInternal(text, count);
    return Header(m_pchData)->length;
  }
  unsigned int needed = MeasureConversion(text, count);
  return InsertInside(*this, pos, needed, [text, count](T* dst, unsigned int room) {
    return ConvertInto(dst, room, text, count);
  });
}

template <typename T>
unsigned int QzStringBaseT<T>::erase(unsigned int pos, unsigned int count) {
  QzInternalStringData* h = Header(m_pchData);
  unsigned int length = h->length;
  if (pos >= length || count == 0) return length;
  if (count < length - pos) {
    unsigned int kept = length - count;
    if (IsSoleOwner(m_pchData)) {
      Move(m_pchData + pos, m_pchData + pos + count, length - pos - count + 1);
      h->length = kept;
    } else {
      T* chars = NewBlock<T>(kept);
      Copy(chars, m_pchData, pos);
      Copy(chars + pos, m_pchData + pos + count, length - pos - count);
      SwapIn(*this, chars);
    }
    return kept;
  }
  if (IsSoleOwner(m_pchData)) {
    m_pchData[pos] = 0;
    h->length = pos;
  } else if (pos == 0) {
    MakeEmpty(*this);
  } else {
    SwapIn(*this, NewBlockCopy(m_pchData, pos));
  }
  return pos;
}

// ---- remove, replace ----------------------------------------------------------------------------

namespace {
// Offset of the first character at or after `from` that `hit` accepts, or
// `length` when there is none. Steps by whole characters.
template <typename T, typename Hit>
unsigned int FindChar(const T* chars, unsigned int from, unsigned int length, Hit hit) {
  const T* end = chars + length;
  for (const T* p = chars + from; p < end; p += Width<T>::Step(p, end))
    if (hit(p)) return static_cast<unsigned int>(p - chars);
  return length;
}

template <typename T, typename Hit>
unsigned int RemoveWhere(QzStringBaseT<T>& s, Hit hit) {
  T* chars = QzStringAccess::Chars(s);
  unsigned int length = Header(chars)->length;
  unsigned int first = FindChar(chars, 0, length, hit);
  if (first == length) return 0;
  chars = Unshare(s);
  T* end = chars + length;
  T* w = chars + first;
  for (T* r = chars + first; r < end;) {
    unsigned int n = Width<T>::Step(r, end);
    if (!hit(r)) {
      Move(w, r, n);
      w += n;
    }
    r += n;
  }
  *w = 0;
  unsigned int removed = static_cast<unsigned int>(end - w);
  Header(chars)->length = length - removed;
  return removed;
}

// Overwrites the first unit of every character from `from` on that `hit`
// accepts; the string is a sole owner. Returns the count.
template <typename T, typename Hit>
unsigned int OverwriteFrom(T* chars, unsigned int from, unsigned int length, T to, Hit hit) {
  unsigned int count = 0;
  T* end = chars + length;
  for (T* p = chars + from; p < end;) {
    unsigned int n = Width<T>::Step(p, end);  // measured before the write
    if (hit(p)) {
      *p = to;
      ++count;
    }
    p += n;
  }
  return count;
}

template <typename T, typename Hit>
unsigned int ReplaceChar(QzStringBaseT<T>& s, T to, Hit hit) {
  T* chars = QzStringAccess::Chars(s);
  unsigned int length = Header(chars)->length;
  if (IsSoleOwner(chars)) return OverwriteFrom(chars, 0, length, to, hit);
  unsigned int first = FindChar(chars, 0, length, hit);
  if (first == length) return 0;
  unsigned int n = Width<T>::Step(chars + first, chars + length);
  chars = Unshare(s);
  chars[first] = to;
  return 1 + OverwriteFrom(chars, first + n, length, to, hit);
}

// Matches `from` at a place by the runtime's compares, which take
// `fromCount` as a number of characters and stop at a 0: in a double-byte
// page the compare may reach past `fromCount` bytes, and a 0 in `from`
// ends it early.
template <typename T>
struct TextMatch {
  const T* from;
  unsigned int fromCount;
  bool ignoreCase;
  // `from` is fromCount characters of one unit each, none of them 0 (no 0
  // and, narrow, no byte from 0x80): the compare is then a plain one.
  bool plain;
  bool operator()(const T* p) const {
    if (ignoreCase) return Width<T>::MatchIgnoreCase(p, from, fromCount);
    if (*p != *from) return false;
    if (plain) {
      for (unsigned int i = 1; i < fromCount; ++i)
        if (p[i] != from[i]) return false;
      return true;
    }
    return Width<T>::Match(p, from, fromCount);
  }
};

template <typename T>
bool PlainUnits(const T* text, unsigned int count) {
  for (unsigned int i = 0; i < count; ++i)
    if (text[i] == 0 || (sizeof(T) == 1 && static_cast<unsigned char>(text[i]) >= 0x80)) return false;
  return true;
}

// Offset of the next hit at or after `at`, or `length`. A hit lies wholly
// inside the text.
template <typename T>
unsigned int NextHit(const T* chars, unsigned int at, unsigned int length, const TextMatch<T>& m) {
  const T* end = chars + length;
  for (const T* p = chars + at; p < end; p += Width<T>::Step(p, end)) {
    if (static_cast<unsigned int>(end - p) < m.fromCount) break;
    if (m(p)) return static_cast<unsigned int>(p - chars);
  }
  return length;
}

template <typename T>
unsigned int ReplaceText(QzStringBaseT<T>& s, const T* from, unsigned int fromCount, const T* to,
                         unsigned int toCount, bool ignoreCase) {
  T* chars = QzStringAccess::Chars(s);
  unsigned int length = Header(chars)->length;
  if (fromCount == 0 || from == 0 || length < fromCount) return 0;
  if (to == 0) toCount = 0;
  TextMatch<T> m = {from, fromCount, ignoreCase, PlainUnits(from, fromCount)};

  if (fromCount == toCount) {
    unsigned int at = NextHit(chars, 0, length, m);
    if (at == length) return 0;
    chars = Unshare(s);  // a sole owner keeps its block
    unsigned int hits = 0;
    while (at != length) {
      Move(chars + at, to, toCount);
      ++hits;
      at = NextHit(chars, at + fromCount, length, m);
    }
    return hits;
  }

  unsigned int hits = 0;
  for (unsigned int at = NextHit(chars, 0, length, m); at != length;
       at = NextHit(chars, at + fromCount, length, m))
    ++hits;
  if (hits == 0) return 0;
  // Growth in 64 bits: a total past what a block can hold is refused
  // before anything is read from `to`.
  const uint64_t newLength = toCount >= fromCount
                                 ? uint64_t(length) + uint64_t(toCount - fromCount) * hits
                                 : uint64_t(length) - uint64_t(fromCount - toCount) * hits;
  T* fresh = NewBlock<T>(newLength);
  T* w = fresh;
  unsigned int done = 0;
  for (unsigned int at = NextHit(chars, 0, length, m); at != length;
       at = NextHit(chars, at + fromCount, length, m)) {
    Copy(w, chars + done, at - done);
    w += at - done;
    Copy(w, to, toCount);
    w += toCount;
    done = at + fromCount;
  }
  Copy(w, chars + done, length - done);
  SwapIn(s, fresh);
  return hits;
}
}  // namespace

template <typename T>
unsigned int QzStringBaseT<T>::remove(T c) {
  return RemoveWhere(*this, [c](const T* p) { return Width<T>::SameChar(p, c); });
}

template <typename T>
unsigned int QzStringBaseT<T>::removeIgnoreCase(T c) {
  return RemoveWhere(*this, [c](const T* p) { return Width<T>::SameCharIgnoreCase(p, c); });
}

template <typename T>
unsigned int QzStringBaseT<T>::replace(T from, T to) {
  if (from == to) return 0;
  return ReplaceChar(*this, to, [from](const T* p) { return *p == from; });
}

template <typename T>
unsigned int QzStringBaseT<T>::replaceIgnoreCase(T from, T to) {
  if (Width<T>::EqualIgnoreCase(to, from)) return 0;
  return ReplaceChar(*this, to, [from](const T* p) { return Width<T>::SameCharIgnoreCase(p, from); });
}

template <typename T>
unsigned int QzStringBaseT<T>::replace(const T* from, unsigned int fromCount, const T* to,
                                       unsigned int toCount) {
  return ReplaceText(*this, from, fromCount, to, toCount, false);
}

template <typename T>
unsigned int QzStringBaseT<T>::replaceIgnoreCase(const T* from, unsigned int fromCount, const T* to,
                                                 unsigned int toCount) {
  return ReplaceText(*this, from, fromCount, to, toCount, true);
}

template <typename T>
QzStringT<T> QzStringBaseT<T>::substr(unsigned int pos, unsigned int count) const {
  unsigned int length = Header(m_pchData)->length;
  if (pos >= length) return QzStringT<T>();
  if (count > length - pos) count = length - pos;
  return QzStringT<T>(m_pchData + pos, count);
}

// ---- In-place trims ------------------------------------------------------------------------------

template <typename T>
QzStringT<T>& QzStringBaseT<T>::selfTrimWhiteSpaceLeft() {
  unsigned int length = Header(m_pchData)->length;
  unsigned int n = 0;
  while (n < length && Width<T>::IsSpace(m_pchData[n])) ++n;
  if (n != 0) erase(0, n);
  return static_cast<QzStringT<T>&>(*this);
}

template <typename T>
QzStringT<T>& QzStringBaseT<T>::selfTrimWhiteSpaceRight() {
  unsigned int length = Header(m_pchData)->length;
  unsigned int keep = length;
  while (keep != 0 && Width<T>::IsSpace(m_pchData[keep - 1])) --keep;
  if (keep != length) erase(keep, 0xFFFFFFFFu);
  return static_cast<QzStringT<T>&>(*this);
}

template class QzStringBaseT<char>;
template class QzStringBaseT<unsigned short>;
