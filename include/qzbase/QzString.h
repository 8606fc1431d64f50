// qzbase: reference-counted, copy-on-write strings in two widths.
//
//   QzStringT<char>            text in the process's ANSI code page (may be
//                              multi-byte); lengths and positions in bytes
//   QzStringT<unsigned short>  UTF-16; lengths and positions in 16-bit units
//
// A string object is one pointer to the characters of a block:
//
//   [ QzInternalStringData: refCount | capacity | length ][ chars ... ][ 0 ]
//
// The block layout is part of the binary interface: the inline half of the
// class, compiled into hosts, finds `length` by stepping back from the
// character pointer. `chars[length]` is always 0, but characters may be 0 as
// well: `length`, not the first 0, is the size of the text.
//
// Ownership: every block belongs to the strings that point at it. Copying a
// string shares its block (one atomic increment, no allocation); the last
// string to let go gives the block back to the default pool. An edit on a
// shared block first makes a private block, so other owners never see a
// change. Empty strings share one static record and cost no memory.
//
// Threads: any number of threads may copy, read and destroy string objects
// that share a block. One string object must not be changed by one thread
// while another thread uses it (reads and copies included).
//
// Failure: the only failure is running out of memory for a block; every
// member that allocates then throws QzException (code 0x8007000E, see
// QzException.h) and leaves the string as it was. A size that no block can
// hold (a length past 0xFFFFFFFF, a sum of lengths that would wrap, or more
// bytes than the word or the pool can give) throws the same exception before
// anything is allocated, read or written. Counts and positions are
// otherwise trusted or clamped as each member says; a null text counts as
// empty. A count of 0xFFFFFFFF means "up to the terminator" where a member
// says so, and 0xFFFFFFFF as a result means "not found".
//
// Conversions between the widths go through the process's ANSI code page and
// are never reported as failures. They keep the text: an invalid byte
// sequence of the narrow text, or a lone surrogate of the wide text, becomes
// U+FFFD in wide text and the code page's default character ('?') in narrow
// text, as does a character the code page lacks. Only when the converter
// cannot run at all does the converted text count as having length 0.
#ifndef QZBASE_QZSTRING_H
#define QZBASE_QZSTRING_H

#include <stdarg.h>

#include <qzbase/QzTypes.h>

// The header in front of every block's characters. Three 32-bit fields on
// every platform, followed by the characters with no gap.
struct QzInternalStringData {
  int32_t refCount;   // string objects on this block; changed atomically only
  uint32_t capacity;  // characters the block can hold, terminator not counted
  uint32_t length;    // characters in use, terminator not counted
};

template <typename T> class QzStringT;
template <typename T> class QzStringBaseT;

// The other width of a string: char <-> unsigned short.
template <typename T> struct QzStringOtherWidth;
template <> struct QzStringOtherWidth<char> { typedef unsigned short Type; };
template <> struct QzStringOtherWidth<unsigned short> { typedef char Type; };

// The library's half of the string: every member is exported, in both widths.
// Hosts never construct it directly; QzStringT<T> is its public face.
template <typename T>
class QZ_API QzStringBaseT {
 public:
  typedef T CharType;
  typedef typename QzStringOtherWidth<T>::Type OtherCharType;

  // ---- Editing -------------------------------------------------------------
  // All positions and counts are in units of T (bytes in the narrow form).
  // Narrow scans step over whole characters of the active code page.

  // Inserts `count` units of `text` before `pos` (-1: up to its terminator;
  // a null text counts as empty). A `pos` at or past the end appends. On a
  // sole owner with room the tail moves in place, and then `text` must not
  // lie in that tail. Returns the new length.
  unsigned int insert(unsigned int pos, const T* text, unsigned int count);
  // The same with text of the other width, converted; `count` goes to the
  // conversion unchanged.
  unsigned int insert(unsigned int pos, const OtherCharType* text, unsigned int count);
  // Removes `count` units from `pos` (-1 or anything past the end: to the
  // end). A `pos` at or past the end changes nothing. A sole owner keeps its
  // block and capacity. Returns the new length.
  unsigned int erase(unsigned int pos, unsigned int count);
  // Removes every character equal to `c` (ignoring case). Returns the number
  // of units removed. Nothing to remove: a shared block stays shared.
  unsigned int remove(T c);
  unsigned int removeIgnoreCase(T c);
  // Overwrites the first unit of every character equal to `from` with `to`.
  // Returns the number of replacements; 0 when `from` equals `to` (for the
  // case-blind form: equals it ignoring case).
  unsigned int replace(T from, T to);
  unsigned int replaceIgnoreCase(T from, T to);
  // Replaces every non-overlapping occurrence of `fromCount` units of `from`
  // by `toCount` units of `to` (`to` may be null when `toCount` is 0). The
  // narrow form compares `fromCount` characters of the code page (a
  // double-byte character counts once), the wide form `fromCount` units;
  // both stop at a 0 in `from`. A hit moves on by `fromCount` units.
  // Equal counts work in place on a sole owner; different counts build one
  // new block. Returns the number of replacements.
  unsigned int replace(const T* from, unsigned int fromCount, const T* to, unsigned int toCount);
  unsigned int replaceIgnoreCase(const T* from, unsigned int fromCount, const T* to,
                                 unsigned int toCount);
  // A new string (never sharing this block) of up to `count` units from
  // `pos`; past the end gives the empty string. Starting at a 0 unit gives
  // the empty string too.
  QzStringT<T> substr(unsigned int pos, unsigned int count) const;

  // Cut white space off the start (end) in place, through erase().
  QzStringT<T>& selfTrimWhiteSpaceLeft();
  QzStringT<T>& selfTrimWhiteSpaceRight();

  // The system's message for a system error or result code, without trailing
  // white space; the empty string when there is none.
  static QzStringT<T> GetWin32Error(HRESULT code);

  // ---- Searching ---------------------------------------------------------------
  // Read only; any number of threads may search strings that nobody changes.
  // Positions are in units of T: bytes in the narrow form, also in a
  // double-byte code page, where the narrow searches step byte by byte and
  // a match may begin on the second byte of a character (only the compares
  // know the code page). Results: the position found, or 0xFFFFFFFF. Never
  // throw. A `pos` past the end is clamped as each member says.

  // First unit at or after `pos` that differs from `c`. Gives up at the first
  // 0 unit, embedded or the terminator: "aa\0b" with 'a' gives 0xFFFFFFFF.
  unsigned int find_first_not_of(T c, unsigned int pos = 0) const;
  // Last unit at or before `pos` (past the end: the last unit) that differs
  // from `c`; embedded 0s are ordinary units.
  unsigned int find_last_not_of(T c, unsigned int pos = 0xFFFFFFFFu) const;
  // First unit at or after `pos` that is none of the `count` units of `set`.
  // Embedded 0s are ordinary units. A null `set`, a `set` starting with 0 or
  // a `count` of 0 gives 0xFFFFFFFF.
  unsigned int find_first_not_of(const T* set, unsigned int pos, unsigned int count) const;
  // Last unit at or before `pos` (past the end: the last unit) that is none of
  // the `count` units of `set`. A `count` of 0 makes nothing a member, so the
  // start position comes back. `set` must hold `count` units; it is not
  // checked for null.
  unsigned int find_last_not_of(const T* set, unsigned int pos, unsigned int count) const;
  // Last unit at or before `pos` that is one of the `count` units of `set`.
  // A `pos` at or past the end starts on the terminator, so a 0 within the
  // set finds length(). `count` 0 gives 0xFFFFFFFF; `set` is not checked.
  unsigned int find_last_of(const T* set, unsigned int pos, unsigned int count) const;
  // Last `c` at or before `pos` (inclusive); past the end the terminator
  // takes part, so `c` 0 finds length().
  unsigned int reverseFind(T c, unsigned int pos = 0xFFFFFFFFu) const;
  // Last occurrence of the `count` units of `text` that ends at or before
  // `pos` (exclusive end; past the end: length()). Narrow compares count
  // characters of the code page. Null `text` or `count` 0: 0xFFFFFFFF.
  unsigned int reverseFind(const T* text, unsigned int pos, unsigned int count) const;
  unsigned int reverseFindIgnoreCase(const T* text, unsigned int pos, unsigned int count) const;
  // First occurrence of `text`, ignoring case, that starts at or after `pos`.
  // Null `text`, `count` 0, `count` above length() or `pos` above
  // length() - count: 0xFFFFFFFF.
  unsigned int findIgnoreCase(const T* text, unsigned int pos, unsigned int count) const;

  // ---- Trimming and case ---------------------------------------------------------
  // White space is what the process's code page (narrow, byte by byte) or
  // UTF-16 (wide) calls white space. The trims do not change this string and
  // return one of three things: the empty string, this string itself shared
  // (no allocation), or a new string of the range that remains (empty when
  // that range starts with a 0 unit). Only the new-string case allocates and
  // can throw QzException; this string is never changed.
  QzStringT<T> trimWhiteSpace();
  QzStringT<T> trimWhiteSpaceLeft();
  QzStringT<T> trimWhiteSpaceRight();
  // Without repeats of `c` at both ends (start, end). The start is found as by
  // find_first_not_of(c), so a 0 unit met first gives the empty string.
  QzStringT<T> trim(const T& c);
  QzStringT<T> trimLeft(const T& c);
  QzStringT<T> trimRight(const T& c);
  // A converted copy in a block of its own (the empty string for an empty
  // text or one that starts with 0). Conversion stops at the first 0 unit:
  // what follows an embedded 0 is copied unchanged. Throws QzException when
  // out of memory.
  QzStringT<T> getLowercase();
  QzStringT<T> getUppercase();
  // Converts in place. A shared string (the empty string included) first gets
  // a private copy, even when no character changes; other owners keep their
  // text. Length and capacity stay; conversion stops at the first 0 unit.
  // Out of memory: QzException, and the string is unchanged.
  QzStringT<T>& toLowercase();
  QzStringT<T>& toUppercase();

  // ---- Formatting ------------------------------------------------------------------
  // printf-style text from the library's own engine (QzFormat.h): `%s` takes
  // text of the string's width and `%S` text of the other; 64-bit values
  // take `I64` or `q` (there is no `ll`). Every member measures first and then writes
  // into exactly that much room, so there is no length limit and no retry.
  // A format that gives no text: CreateFormatted returns the empty string,
  // Format empties the string, AppendFormat changes nothing. `format` must
  // not be null. Out of memory: QzException, the string unchanged, except
  // where AppendFormat says otherwise. The V forms work on copies of `args`,
  // which the caller still owns and may walk again.

  // Replaces the text. Arguments and `format` must not point into this
  // string: its old text is gone before the second pass.
  void Format(const T* format, ...);
  void FormatV(const T* format, va_list args);
  // Appends the text. Arguments may point into this string. If the scratch
  // buffer for the text cannot be had the call returns silently with the
  // string unchanged; only a failure of the string's own new block throws.
  void AppendFormat(const T* format, ...);
  void AppendFormatV(const T* format, va_list args);
  // A new string; may run on any thread.
  static QzStringT<T> CreateFormatted(const T* format, ...);
  static QzStringT<T> CreateFormattedV(const T* format, va_list args);
  // Two hex digits per byte of `data` ("0123456789abcdef" when `lowercase`
  // is not 0, else upper case), with one space between groups of
  // `groupSize` bytes (0: no spaces), none at the end; "61 62 63" for "abc"
  // in groups of 1. `size` 0 gives the empty string without reading `data`.
  // Throws QzException when out of memory, and before reading `data` when
  // the dump is larger than a block can hold.
  static QzStringT<T> ToHexString(const unsigned char* data, unsigned int size,
                                  unsigned int groupSize, int lowercase);
  // ---- end of the searching and formatting block -------------------------------

 private:
  friend class QzStringT<T>;
  friend struct QzStringAccess;  // the library's internal helpers

  QzStringBaseT();
  QzStringBaseT(const QzStringBaseT& other);
  // Adopts a block: the caller's reference passes to this object.
  explicit QzStringBaseT(QzInternalStringData* data);
  QzStringBaseT(unsigned int count, char c);
  QzStringBaseT(unsigned int count, unsigned short c);
  QzStringBaseT(const char* text);
  QzStringBaseT(const char* text, unsigned int count);
  QzStringBaseT(const unsigned short* text);
  QzStringBaseT(const unsigned short* text, unsigned int count);
  ~QzStringBaseT();
  QzStringBaseT& operator=(const QzStringBaseT& other);

  void SetInternal(const T* text, unsigned int count);
  void SetInternal(const OtherCharType* text, unsigned int count);
  void AppendInternal(const T* text, unsigned int count);
  void AppendInternal(const OtherCharType* text, unsigned int count);
  static void Concatenate(QzStringBaseT& result, const T* first, unsigned int firstCount,
                          const T* second, unsigned int secondCount);
  static void Concatenate(QzStringBaseT& result, const OtherCharType* first,
                          unsigned int firstCount, const T* second, unsigned int secondCount);
  static void Concatenate(QzStringBaseT& result, const T* first, unsigned int firstCount,
                          const OtherCharType* second, unsigned int secondCount);

  // Both widths' `empty` point at the one shared empty record.
  static QzStringT<T> empty;

  T* m_pchData;  // the characters of a block; never null
};

// The string class hosts use: one pointer, everything inline, every call one
// call of the exported base.
template <typename T>
class QzStringT : public QzStringBaseT<T> {
  typedef QzStringBaseT<T> Base;

 public:
  typedef T CharType;
  typedef typename QzStringOtherWidth<T>::Type OtherCharType;

  // The empty string: no allocation.
  QzStringT() : Base() {}
  // Shares the block: one atomic increment.
  QzStringT(const QzStringT& other) : Base(other) {}
  // Adopts a block that the caller holds one reference to.
  explicit QzStringT(QzInternalStringData* data) : Base(data) {}
  // `count` copies of `c`. Same width: a 0 character gives `count` zeros (a
  // writable buffer). Other width: a 0 character gives the empty string; a
  // narrow byte widens by sign extension; a wide character above 255 goes
  // through the code page. A count of 0 or at/above 0x80000000: empty.
  QzStringT(unsigned int count, char c) : Base(count, c) {}
  QzStringT(unsigned int count, unsigned short c) : Base(count, c) {}
  // Text up to its terminator; null or "" gives the empty string.
  QzStringT(const char* text) : Base(text) {}
  QzStringT(const unsigned short* text) : Base(text) {}
  // Exactly `count` units (0s included; -1: up to the terminator); a null
  // text, a first unit of 0 or a count of 0 gives the empty string. Text of
  // the other width hands `count` to the conversion unchanged.
  QzStringT(const char* text, unsigned int count) : Base(text, count) {}
  QzStringT(const unsigned short* text, unsigned int count) : Base(text, count) {}
  // A converted copy of a string of the other width.
  explicit QzStringT(const QzStringT<OtherCharType>& other)
      : Base(other.c_str(), other.length()) {}

  QzStringT& operator=(const QzStringT& other) {
    Base::operator=(other);
    return *this;
  }
  QzStringT& operator=(const T* text) {
    Base::SetInternal(text, text ? Measure(text) : 0u);
    return *this;
  }
  QzStringT& operator=(const OtherCharType* text) {
    Base::SetInternal(text, text ? Measure(text) : 0u);
    return *this;
  }

  QzStringT& operator+=(const QzStringT& other) {
    if (length() != 0)
      Base::AppendInternal(other.c_str(), other.length());
    else
      Base::operator=(other);
    return *this;
  }
  QzStringT& operator+=(const T* text) {
    Base::AppendInternal(text, text ? Measure(text) : 0u);
    return *this;
  }
  QzStringT& operator+=(const OtherCharType* text) {
    Base::AppendInternal(text, text ? Measure(text) : 0u);
    return *this;
  }
  QzStringT& operator+=(T c) {
    Base::AppendInternal(&c, 1u);
    return *this;
  }

  friend QzStringT operator+(const QzStringT& a, const QzStringT& b) {
    return Join(a.c_str(), a.length(), b.c_str(), b.length());
  }
  friend QzStringT operator+(const QzStringT& a, const T* b) {
    return Join(a.c_str(), a.length(), b, b ? Measure(b) : 0u);
  }
  friend QzStringT operator+(const T* a, const QzStringT& b) {
    return Join(a, a ? Measure(a) : 0u, b.c_str(), b.length());
  }
  friend QzStringT operator+(const QzStringT& a, const OtherCharType* b) {
    return Join(a.c_str(), a.length(), b, b ? Measure(b) : 0u);
  }
  friend QzStringT operator+(const OtherCharType* a, const QzStringT& b) {
    return Join(a, a ? Measure(a) : 0u, b.c_str(), b.length());
  }
  friend QzStringT operator+(const QzStringT& a, T c) {
    return Join(a.c_str(), a.length(), &c, 1u);
  }
  friend QzStringT operator+(T c, const QzStringT& b) {
    return Join(&c, 1u, b.c_str(), b.length());
  }

  // ---- Read access -----------------------------------------------------------
  // The characters, always terminated; valid while this object holds them
  // unchanged.
  const T* c_str() const { return this->m_pchData; }
  operator const T*() const { return this->m_pchData; }
  // Units in use, terminator not counted.
  unsigned int length() const { return Header()->length; }
  // Units the block can hold without a new block (0 for the shared empty record).
  unsigned int capacity() const { return Header()->capacity; }
  bool isEmpty() const { return Header()->length == 0; }
  // Indexing goes through the pointer conversion: s[i], i at most length().

  // Same length and same units (embedded 0s included).
  friend bool operator==(const QzStringT& a, const QzStringT& b) {
    if (a.c_str() == b.c_str()) return true;
    unsigned int n = a.length();
    if (n != b.length()) return false;
    for (unsigned int i = 0; i < n; ++i)
      if (a.c_str()[i] != b.c_str()[i]) return false;
    return true;
  }
  friend bool operator!=(const QzStringT& a, const QzStringT& b) { return !(a == b); }
  // Against a terminated text (null counts as empty): the string must hold no
  // embedded 0 to compare equal.
  friend bool operator==(const QzStringT& a, const T* b) {
    unsigned int n = a.length();
    if (b == 0) return n == 0;
    for (unsigned int i = 0; i < n; ++i)
      if (b[i] == 0 || a.c_str()[i] != b[i]) return false;
    return b[n] == 0;
  }
  friend bool operator==(const T* b, const QzStringT& a) { return a == b; }
  friend bool operator!=(const QzStringT& a, const T* b) { return !(a == b); }
  friend bool operator!=(const T* b, const QzStringT& a) { return !(a == b); }

 private:
  const QzInternalStringData* Header() const {
    return reinterpret_cast<const QzInternalStringData*>(this->m_pchData) - 1;
  }
  template <typename A, typename B>
  static QzStringT Join(const A* a, unsigned int na, const B* b, unsigned int nb) {
    QzStringT r;
    Base::Concatenate(r, a, na, b, nb);
    return r;
  }
  template <typename C>
  static unsigned int Measure(const C* text) {
    unsigned int n = 0;
    while (text[n] != 0) ++n;
    return n;
  }
};

typedef QzStringT<char> QzStringA;
typedef QzStringT<unsigned short> QzStringW;

// One pointer, in both widths: hosts pass strings by value cheaply. (Also
// completes both classes before the declarations below.)
static_assert(sizeof(QzStringA) == sizeof(void*), "a string is one pointer");
static_assert(sizeof(QzStringW) == sizeof(void*), "a string is one pointer");

// Both widths live in the library; hosts never instantiate the base.
extern template class QzStringBaseT<char>;
extern template class QzStringBaseT<unsigned short>;

#endif  // QZBASE_QZSTRING_H
