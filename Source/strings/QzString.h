// Strings, internal side: the block helpers shared by every file that
// implements members of QzStringBaseT.
//
// Rules the helpers keep:
//  - A block for n characters has room for (n + 8) & ~7 units, terminator
//    included, and capacity one less. Blocks come from pool 0 and go back
//    there.
//  - Only a sole owner (refCount <= 1, a plain read) changes a block in
//    place. Everybody else builds a new block, swaps it in, and releases the
//    old one last, so a failed allocation leaves the string as it was and the
//    old block may still be read while the new one is filled.
//  - A failed allocation throws QzException(0x8007000E) before any string
//    object has changed.
//
// A file that defines members of QzStringBaseT ends with explicit
// instantiations of both widths (`template class QzStringBaseT<char>;` and
// `template class QzStringBaseT<unsigned short>;`); each instantiates only
// the members defined in that file.
#ifndef QZBASE_SOURCE_QZSTRING_H
#define QZBASE_SOURCE_QZSTRING_H

#include <qzbase/QzConvert.h>
#include <qzbase/QzException.h>
#include <qzbase/QzMempool.h>
#include <qzbase/QzString.h>

#include <string.h>

#include "pools/QzChunkHeap.h"

// Friend of QzStringBaseT: reaches the character pointer and the private
// members for the library's own code (and its tests).
struct QzStringAccess {
  template <typename T>
  static T*& Chars(QzStringBaseT<T>& s) { return s.m_pchData; }
  template <typename T>
  static T* Chars(const QzStringBaseT<T>& s) { return s.m_pchData; }
  // The string that owns the base (every base is the base of a QzStringT).
  template <typename T>
  static QzStringT<T>& Derived(QzStringBaseT<T>& s) { return static_cast<QzStringT<T>&>(s); }
  template <typename T>
  static const QzStringT<T>& Empty() { return QzStringBaseT<T>::empty; }
  // The private building blocks, text of either width.
  template <typename T, typename C>
  static void SetInternal(QzStringBaseT<T>& s, const C* text, unsigned int count) {
    s.SetInternal(text, count);
  }
  template <typename T, typename C>
  static void AppendInternal(QzStringBaseT<T>& s, const C* text, unsigned int count) {
    s.AppendInternal(text, count);
  }
  template <typename T, typename A, typename B>
  static void Concatenate(QzStringBaseT<T>& result, const A* first, unsigned int firstCount,
                          const B* second, unsigned int secondCount) {
    QzStringBaseT<T>::Concatenate(result, first, firstCount, second, secondCount);
  }
};

namespace qzstr {

// ---- Layout -------------------------------------------------------------------
inline QzInternalStringData* Header(const void* chars) {
  return const_cast<QzInternalStringData*>(static_cast<const QzInternalStringData*>(chars) - 1);
}
template <typename T>
inline T* CharsOf(QzInternalStringData* header) {
  return reinterpret_cast<T*>(header + 1);
}
// Units of room (terminator included) for n characters. Computed in 64 bits:
// a count near 2^32 must not wrap to a small block.
inline uint64_t UnitsFor(uint64_t n) { return (n + 8u) & ~uint64_t(7); }

// ---- Failure ------------------------------------------------------------------------
[[noreturn]] void ThrowOutOfMemory();

// The most characters a block can hold: its length is a 32-bit field.
constexpr uint64_t kMaxLength = 0xFFFFFFFFu;

// Bytes of a block for n characters. A block that cannot exist (a length
// the header cannot hold, or more bytes than the word or the pool can give)
// throws out of memory here, before anything is allocated or written.
template <typename T>
inline size_t BlockBytes(uint64_t n) {
  const uint64_t bytes = sizeof(QzInternalStringData) + UnitsFor(n) * sizeof(T);
  if (n > kMaxLength || bytes >= static_cast<uint64_t>(QZ_MAX_REQUEST)) ThrowOutOfMemory();
  return static_cast<size_t>(bytes);
}

// ---- The shared empty record ------------------------------------------------------
// One static header with two zero 16-bit units behind it: the characters of an
// empty string of either width.
struct QzEmptyStringRecord {
  QzInternalStringData header;
  union {
    unsigned short wide[2];
    char narrow[4];
  } chars;
};
extern QzEmptyStringRecord g_emptyRecord;

template <typename T> inline T* EmptyChars();
template <> inline char* EmptyChars<char>() { return g_emptyRecord.chars.narrow; }
template <> inline unsigned short* EmptyChars<unsigned short>() { return g_emptyRecord.chars.wide; }

// ---- Counts -----------------------------------------------------------------------
inline void Retain(const void* chars) {
  __atomic_add_fetch(&Header(chars)->refCount, 1, __ATOMIC_SEQ_CST);
}
inline void Release(const void* chars) {
  QzInternalStringData* h = Header(chars);
  // A count of 1 is our own reference: nobody else can reach the block to
  // raise it, so the last owner frees without the locked decrement. The
  // acquire pairs with the decrements of the owners that went before.
  if (__atomic_load_n(&h->refCount, __ATOMIC_ACQUIRE) == 1 ||
      __atomic_sub_fetch(&h->refCount, 1, __ATOMIC_SEQ_CST) == 0)
    Qz_MempoolFree(0, h);
}
// The sole-owner test. Only the object's own thread can raise a count of 1,
// so a single load decides; acquire so that the other owners' last reads of a
// block that has just become ours happen before our writes to it.
inline bool IsSoleOwner(const void* chars) {
  return __atomic_load_n(&Header(chars)->refCount, __ATOMIC_ACQUIRE) <= 1;
}

// ---- Blocks -------------------------------------------------------------------------
// A new block for n characters: refCount 1, capacity and length n set, the
// terminator written; the characters themselves are the caller's to fill.
// Throws on out of memory.
template <typename T>
inline T* NewBlock(uint64_t n) {
  QzInternalStringData* h = static_cast<QzInternalStringData*>(Qz_MempoolAlloc(0, BlockBytes<T>(n)));
  if (h == 0) ThrowOutOfMemory();
  h->refCount = 1;
  h->capacity = static_cast<uint32_t>(UnitsFor(n) - 1);
  h->length = static_cast<uint32_t>(n);
  T* chars = CharsOf<T>(h);
  chars[n] = 0;
  return chars;
}
// A new block holding a copy of n characters at text.
template <typename T>
inline T* NewBlockCopy(const T* text, uint32_t n) {
  T* chars = NewBlock<T>(n);
  if (n != 0) memcpy(chars, text, static_cast<size_t>(n) * sizeof(T));
  return chars;
}
// Makes `chars` the string's block (atomic exchange) and releases the block it
// held. `chars` carries one reference, which passes to the string.
template <typename T>
inline void SwapIn(QzStringBaseT<T>& s, T* chars) {
  T* old = __atomic_exchange_n(&QzStringAccess::Chars(s), chars, __ATOMIC_SEQ_CST);
  Release(old);
}
// The string moves to the shared empty record.
template <typename T>
inline void MakeEmpty(QzStringBaseT<T>& s) {
  T* chars = EmptyChars<T>();
  Retain(chars);
  SwapIn(s, chars);
}
// Gives a shared string a private copy of its text, sized by the rule for its
// length, and returns the new characters. A sole owner keeps its block.
template <typename T>
inline T* Unshare(QzStringBaseT<T>& s) {
  T* chars = QzStringAccess::Chars(s);
  if (IsSoleOwner(chars)) return chars;
  T* fresh = NewBlockCopy(chars, Header(chars)->length);
  SwapIn(s, fresh);
  return fresh;
}

// ---- Two-pass conversion between the widths ------------------------------------------
// Pass 1: the destination units that `count` source units need (the
// conversion's own reading of a count of -1 included); 0 when it cannot run.
unsigned int MeasureConversion(const char* text, unsigned int count);
unsigned int MeasureConversion(const unsigned short* text, unsigned int count);
// Pass 2: converts into dst, which has room for `room` units (the measure);
// returns the units written (0 when the conversion failed). No terminator.
unsigned int ConvertInto(unsigned short* dst, unsigned int room, const char* text, unsigned int count);
unsigned int ConvertInto(char* dst, unsigned int room, const unsigned short* text, unsigned int count);

// A new block holding the conversion of `text`: length 0 (capacity 7, a
// private block) when the conversion fails. Throws on out of memory.
template <typename T, typename U>
inline T* NewBlockConverted(const U* text, unsigned int count) {
  unsigned int need = MeasureConversion(text, count);
  T* chars = NewBlock<T>(need);
  unsigned int got = ConvertInto(chars, need, text, count);
  Header(chars)->length = got;
  chars[got] = 0;
  return chars;
}

}  // namespace qzstr

#endif  // QZBASE_SOURCE_QZSTRING_H
