// Formatted text and hex dumps for the string classes.
//
// Every format member runs the engine twice over its own copy of the
// argument list: once to measure, once to write into exactly the room the
// measure asked for. There is no guessing of buffer sizes and no retry loop,
// and on platforms where walking a va_list consumes it the caller's list is
// never walked at all.
#include <qzbase/QzFormat.h>

#include "strings/QzString.h"

using qzstr::Header;

namespace {

// At namespace scope: a static inside a member of an exported template would
// be a unique object, which keeps the library from ever being unloaded.
const char kHexLower[] = "0123456789abcdef";
const char kHexUpper[] = "0123456789ABCDEF";

inline int Engine(char* buffer, unsigned int count, const char* format, va_list args) {
  return QZ_VSNPRINTF_A(buffer, count, format, args);
}
inline int Engine(unsigned short* buffer, unsigned int count, const unsigned short* format,
                  va_list args) {
  return QZ_VSNPRINTF_W(buffer, count, format, args);
}

// The length of the text without terminator; below 1 means no text.
template <typename T>
int Measure(const T* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int n = Engine(static_cast<T*>(nullptr), 0u, format, copy);
  va_end(copy);
  return n;
}

// Writes the text into `room + 1` units at `dst`, terminator included, and
// returns the units stored.
template <typename T>
unsigned int Write(T* dst, unsigned int room, const T* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int stored = Engine(dst, room + 1u, format, copy);
  va_end(copy);
  return stored > 0 ? static_cast<unsigned int>(stored) : 0u;
}

// A scratch buffer that gives itself back to the pool.
class Scratch {
 public:
  explicit Scratch(size_t bytes) : p_(Qz_MempoolAlloc(0, bytes)) {}
  ~Scratch() { Qz_MempoolFree(0, p_); }
  void* get() const { return p_; }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

 private:
  void* p_;
};

}  // namespace

template <typename T>
QzStringT<T> QzStringBaseT<T>::CreateFormattedV(const T* format, va_list args) {
  const int n = Measure(format, args);
  if (n < 1) return empty;
  // Zero the units first: should the second pass ever write less than the
  // first measured, the string still holds no stale pool bytes.
  T* chars = qzstr::NewBlock<T>(static_cast<unsigned int>(n));
  for (int i = 0; i < n; ++i) chars[i] = 0;
  QzStringT<T> result(Header(chars));  // adopts the new block's reference
  Write(chars, static_cast<unsigned int>(n), format, args);
  return result;
}

template <typename T>
QzStringT<T> QzStringBaseT<T>::CreateFormatted(const T* format, ...) {
  va_list args;
  va_start(args, format);
  // Out of memory leaves through here, and va_end must run on that way too.
  try {
    QzStringT<T> result(CreateFormattedV(format, args));
    va_end(args);
    return result;
  } catch (...) {
    va_end(args);
    throw;
  }
}

template <typename T>
void QzStringBaseT<T>::FormatV(const T* format, va_list args) {
  const int measured = Measure(format, args);
  if (measured < 1) {
    if (Header(m_pchData)->length != 0) qzstr::MakeEmpty(*this);
    return;
  }
  const unsigned int n = static_cast<unsigned int>(measured);
  if (!qzstr::IsSoleOwner(m_pchData)) {
    qzstr::SwapIn(*this, qzstr::NewBlock<T>(n));
  } else if (n > Header(m_pchData)->capacity) {
    void* grown = Qz_MempoolRealloc(0, Header(m_pchData), qzstr::BlockBytes<T>(n));
    if (grown == nullptr) qzstr::ThrowOutOfMemory();  // the old block is still ours
    QzInternalStringData* h = static_cast<QzInternalStringData*>(grown);
    h->capacity = static_cast<uint32_t>(qzstr::UnitsFor(n) - 1);
    m_pchData = qzstr::CharsOf<T>(h);
  }
  // The passes agree unless an argument changed in between (a caller's
  // error); taking the stored count keeps the terminator at `length` then.
  Header(m_pchData)->length = Write(m_pchData, n, format, args);
}

template <typename T>
void QzStringBaseT<T>::Format(const T* format, ...) {
  va_list args;
  va_start(args, format);
  try {
    FormatV(format, args);
  } catch (...) {
    va_end(args);
    throw;
  }
  va_end(args);
}

template <typename T>
void QzStringBaseT<T>::AppendFormatV(const T* format, va_list args) {
  const int measured = Measure(format, args);
  if (measured < 1) return;
  const unsigned int n = static_cast<unsigned int>(measured);
  // A result that no block can hold fails as its block would, before the
  // scratch is sized; a scratch of n + 1 units is then smaller than that
  // block, and its own size cannot wrap.
  qzstr::BlockBytes<T>(uint64_t(Header(m_pchData)->length) + n);
  // Built apart from the string, so arguments may point into it.
  Scratch scratch((static_cast<size_t>(n) + 1u) * sizeof(T));
  if (scratch.get() == nullptr) return;  // the one silent allocation failure
  T* text = static_cast<T*>(scratch.get());
  // The two passes agree unless an argument changed in between (a caller's
  // error); appending what was stored keeps pool garbage out even then.
  AppendInternal(text, Write(text, n, format, args));
}

template <typename T>
void QzStringBaseT<T>::AppendFormat(const T* format, ...) {
  va_list args;
  va_start(args, format);
  try {
    AppendFormatV(format, args);
  } catch (...) {
    va_end(args);
    throw;
  }
  va_end(args);
}

template <typename T>
QzStringT<T> QzStringBaseT<T>::ToHexString(const unsigned char* data, unsigned int size,
                                           unsigned int groupSize, int lowercase) {
  if (size == 0) return empty;
  const char* digits = lowercase ? kHexLower : kHexUpper;
  // In 64 bits, and straight into a block: a room that a block cannot hold
  // throws before anything is written (the fill constructor would read a
  // large count as negative and give the shared empty record).
  uint64_t room = 2u * uint64_t(size) + 2u;
  if (groupSize != 0) room += size / groupSize;
  T* out = qzstr::NewBlock<T>(room);
  QzStringT<T> result(Header(out));  // adopts the new block's reference
  T* p = out;
  for (unsigned int i = 0; i < size; ++i) {
    const unsigned char b = data[i];
    *p++ = static_cast<T>(static_cast<unsigned char>(digits[b >> 4]));
    *p++ = static_cast<T>(static_cast<unsigned char>(digits[b & 0x0F]));
    // Spaces only between groups, never behind the last byte.
    if (groupSize != 0 && i % groupSize == groupSize - 1 && i < size - 1) *p++ = T(' ');
  }
  *p = 0;
  Header(out)->length = static_cast<unsigned int>(p - out);
  return result;
}

template class QzStringBaseT<char>;
template class QzStringBaseT<unsigned short>;
