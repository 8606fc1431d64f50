// POSIX implementation of the component area: the converter class, its class
// factory, and converter objects running on iconv.
#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformCom.h"
#include "platform/QzPlatformFaults.h"
#include "platform/QzPlatformText.h"
#include "platform/posix/TextTables.h"

#include <errno.h>
#include <iconv.h>
#include <string.h>

#include <atomic>
#include <new>

namespace qzsys {

const CLSID CLSID_CMLangConvertCharset = {0xD66D6F99, 0xCDAA, 0x11D0,
                                          {0xB8, 0x22, 0x00, 0xC0, 0x4F, 0xC9, 0xB3, 0x1F}};
const IID IID_IMLangConvertCharset = {0xD66D6F98, 0xCDAA, 0x11D0,
                                      {0xB8, 0x22, 0x00, 0xC0, 0x4F, 0xC9, 0xB3, 0x1F}};
const IID IID_IClassFactory = {0x00000001, 0x0000, 0x0000,
                               {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
const IID IID_IUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

const char* QzIconvName(UINT codePage) {
  const text::PageInfo* p = text::FindPage(codePage);
  return p ? p->iconvName : nullptr;
}

namespace {

using text::PageInfo;

const iconv_t kNoDescriptor = reinterpret_cast<iconv_t>(-1);

// Bytes of one code unit of a page: what a terminator and the size's
// granularity are made of.
unsigned UnitSize(UINT cp) {
  if (cp == 1200 || cp == 1201) return 2;
  if (cp == 12000 || cp == 12001) return 4;
  return 1;
}

struct Decoded {
  unsigned len;  // 0: no valid character here
  uint32_t cp;
};

// One character of `page` at p, by the library's own rules; used to tell a
// bad input sequence from a character that the destination lacks.
Decoded DecodeOne(UINT page, const unsigned char* p, size_t avail) {
  if (!avail) return {0, 0};
  if (page == 1200 || page == 1201) {
    auto unit = [&](size_t i) -> uint32_t {
      return page == 1200 ? (p[i] | p[i + 1] << 8) : (p[i] << 8 | p[i + 1]);
    };
    if (avail < 2) return {0, 0};
    uint32_t u = unit(0);
    if (u < 0xD800 || u > 0xDFFF) return {2, u};
    if (u > 0xDBFF || avail < 4) return {0, 0};
    uint32_t lo = unit(2);
    if (lo < 0xDC00 || lo > 0xDFFF) return {0, 0};
    return {4, 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00)};
  }
  if (page == 12000 || page == 12001) {
    if (avail < 4) return {0, 0};
    uint32_t v = page == 12000 ? (p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24)
                               : (static_cast<uint32_t>(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]);
    if (v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) return {0, 0};
    return {4, v};
  }
  const PageInfo* info = text::FindPage(page);
  if (!info) return {0, 0};
  if (info->kind == text::kUtf8) {
    uint32_t cp;
    unsigned bad;
    unsigned len = text::DecodeUtf8(p, avail, &cp, &bad);
    return {len, cp};
  }
  const text::PageTable* t = text::GetTable(page);
  if (!t) return {0, 0};
  if (t->lead[p[0]]) {
    if (avail < 2 || !t->pairs[p[0] << 8 | p[1]]) return {0, 0};
    return {2, t->pairs[p[0] << 8 | p[1]]};
  }
  if (!t->single[p[0]] && p[0]) return {0, 0};
  return {1, t->single[p[0]]};
}

// ---- Pages the library converts itself ---------------------------------------
// UTF-8, UTF-16, UTF-32 and the single- and double-byte pages with tables are
// read and written here, character by character, without iconv: a character
// the destination lacks or a bad sequence costs no more than any other, and
// measuring costs what converting does. 1255 and 1258 stay with iconv, which
// joins a letter and its accent into one character.
enum NativeKind { kNotNative, kUtf8Page, kUtf16LE, kUtf16BE, kUtf32LE, kUtf32BE, kTablePage };

struct NativePage {
  NativeKind kind;
  const text::PageTable* table;
};

NativePage FindNative(UINT page) {
  switch (page) {
    case CP_UTF8: return {kUtf8Page, nullptr};
    case 1200: return {kUtf16LE, nullptr};
    case 1201: return {kUtf16BE, nullptr};
    case 12000: return {kUtf32LE, nullptr};
    case 12001: return {kUtf32BE, nullptr};
    case 1255:
    case 1258: return {kNotNative, nullptr};
    default: break;
  }
  const text::PageTable* t = text::GetTable(page);
  return {t ? kTablePage : kNotNative, t};
}

constexpr uint32_t kReplacement = 0xFFFD;

// One character at p (avail > 0, and a whole unit for UTF-16/32): its length,
// and its code point in *cp, U+FFFD for an invalid or cut sequence, whose
// length is that of the bad part (as MultiByteToWideChar skips it).
template <NativeKind K>
inline unsigned Decode(const text::PageTable* t, const unsigned char* p, size_t avail, uint32_t* cp) {
  if (K == kUtf8Page) {
    if (p[0] < 0x80) {
      *cp = p[0];
      return 1;
    }
    unsigned bad = 1;
    unsigned len = text::DecodeUtf8(p, avail, cp, &bad);
    if (len) return len;
    *cp = kReplacement;
    return bad ? bad : 1;
  } else if (K == kUtf16LE || K == kUtf16BE) {
    auto unit = [p](size_t i) -> uint32_t {
      return K == kUtf16LE ? (p[i] | p[i + 1] << 8) : (p[i] << 8 | p[i + 1]);
    };
    uint32_t u = unit(0);
    if (u < 0xD800 || u > 0xDFFF) {
      *cp = u;
      return 2;
    }
    if (u <= 0xDBFF && avail >= 4) {
      uint32_t lo = unit(2);
      if (lo >= 0xDC00 && lo <= 0xDFFF) {
        *cp = 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00);
        return 4;
      }
    }
    *cp = kReplacement;
    return 2;
  } else if (K == kUtf32LE || K == kUtf32BE) {
    uint32_t v = K == kUtf32LE ? (p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24)
                               : (static_cast<uint32_t>(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]);
    *cp = (v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) ? kReplacement : v;
    return 4;
  } else {
    unsigned b = p[0];
    if (t->lead[b]) {
      WCHAR w = avail >= 2 ? t->pairs[b << 8 | p[1]] : 0;
      if (w) {
        *cp = w;
        return 2;
      }
      // A bad pair whose second byte is of the trail range goes as one.
      *cp = kReplacement;
      return avail >= 2 && p[1] >= 0x40 ? 2 : 1;
    }
    WCHAR w = t->single[b];
    *cp = (w || !b) ? w : kReplacement;
    return 1;
  }
}

// The bytes of cp into out (room for 4); a page that lacks cp gets its
// default character '?'.
template <NativeKind K>
inline unsigned Encode(const text::PageTable* t, uint32_t cp, unsigned char* out) {
  if (K == kUtf8Page) {
    if (cp < 0x80) {
      out[0] = static_cast<unsigned char>(cp);
      return 1;
    }
    return text::EncodeUtf8(cp, out);
  } else if (K == kUtf16LE || K == kUtf16BE) {
    auto put = [out](unsigned i, uint32_t u) {
      out[i] = static_cast<unsigned char>(K == kUtf16LE ? u : u >> 8);
      out[i + 1] = static_cast<unsigned char>(K == kUtf16LE ? u >> 8 : u);
    };
    if (cp < 0x10000) {
      put(0, cp);
      return 2;
    }
    put(0, 0xD800 + ((cp - 0x10000) >> 10));
    put(2, 0xDC00 + ((cp - 0x10000) & 0x3FF));
    return 4;
  } else if (K == kUtf32LE || K == kUtf32BE) {
    for (int i = 0; i < 4; ++i) out[K == kUtf32LE ? i : 3 - i] = static_cast<unsigned char>(cp >> (8 * i));
    return 4;
  } else {
    uint16_t code = cp < 0x10000 ? t->encode[cp] : 0;
    if (!code) {
      out[0] = cp == 0 ? 0 : '?';
      return 1;
    }
    if (code < 0x100) {
      out[0] = static_cast<unsigned char>(code);
      return 1;
    }
    out[0] = static_cast<unsigned char>(code >> 8);
    out[1] = static_cast<unsigned char>(code);
    return 2;
  }
}

// The bytes of code point cp in `page` into out[0..3], the page's default
// character '?' where it lacks cp. 0 when the library cannot write the page
// itself (stateful pages such as ISO-2022-JP).
unsigned EncodeOne(UINT page, uint32_t cp, unsigned char* out) {
  const NativePage np = FindNative(page);
  switch (np.kind) {
    case kUtf8Page: return Encode<kUtf8Page>(nullptr, cp, out);
    case kUtf16LE: return Encode<kUtf16LE>(nullptr, cp, out);
    case kUtf16BE: return Encode<kUtf16BE>(nullptr, cp, out);
    case kUtf32LE: return Encode<kUtf32LE>(nullptr, cp, out);
    case kUtf32BE: return Encode<kUtf32BE>(nullptr, cp, out);
    case kTablePage: return Encode<kTablePage>(np.table, cp, out);
    default: break;
  }
  if (const text::PageTable* t = text::GetTable(page)) return Encode<kTablePage>(t, cp, out);  // 1255, 1258
  // The other pages iconv writes are ASCII below 0x80 in their initial
  // state; anything else is left to iconv.
  if (!text::FindPage(page) || cp >= 0x80 || page == 50220) return 0;
  out[0] = static_cast<unsigned char>(cp);
  return 1;
}

// Bytes that Encode<K> gives for cp, without writing them.
template <NativeKind K>
inline unsigned EncodedLength(const text::PageTable* t, uint32_t cp) {
  if (K == kUtf8Page) return cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
  if (K == kUtf16LE || K == kUtf16BE) return cp < 0x10000 ? 2 : 4;
  if (K == kUtf32LE || K == kUtf32BE) return 4;
  return cp < 0x10000 && t->encode[cp] >= 0x100 ? 2 : 1;
}

// Converts in[0..inLen) (whole units of the source) into `out`, or counts the
// bytes (Measure). A destination that fills up keeps the whole characters
// that fit: *consumed and the result say how far it got.
template <NativeKind From, NativeKind To, bool Measure>
size_t NativeLoop(const text::PageTable* ft, const text::PageTable* tt, const unsigned char* in, size_t inLen,
                  unsigned char* out, size_t cap, size_t* consumed) {
  size_t i = 0, n = 0;
  unsigned char bytes[4];
  constexpr bool kByteFrom = From == kUtf8Page || From == kTablePage;
  constexpr bool kByteTo = To == kUtf8Page || To == kTablePage;
  while (i < inLen) {
    // ASCII, the common case, without the general decoder and encoder.
    if ((kByteFrom && (kByteTo || To == kUtf16LE)) || (From == kUtf16LE && kByteTo)) {
      const unsigned b = in[i];
      const unsigned step = From == kUtf16LE ? 2 : 1;
      if (b < 0x80 && (From != kUtf16LE || in[i + 1] == 0) && (From != kTablePage || ft->single[b] == b) &&
          (To != kTablePage || tt->encode[b] == b)) {
        const unsigned k = To == kUtf16LE ? 2 : 1;
        if (!Measure) {
          if (cap - n < k) break;
          out[n] = static_cast<unsigned char>(b);
          if (k == 2) out[n + 1] = 0;
        }
        n += k;
        i += step;
        continue;
      }
    }
    uint32_t cp;
    const unsigned len = Decode<From>(ft, in + i, inLen - i, &cp);
    if (Measure) {
      n += EncodedLength<To>(tt, cp);
    } else if (cap - n >= 4) {
      n += Encode<To>(tt, cp, out + n);
    } else {
      const unsigned k = Encode<To>(tt, cp, bytes);
      if (cap - n < k) break;
      memcpy(out + n, bytes, k);
      n += k;
    }
    i += len;
  }
  *consumed = i;
  return n;
}

template <NativeKind From, NativeKind To>
HRESULT NativeRun(const text::PageTable* ft, const text::PageTable* tt, const unsigned char* in, size_t inLen,
                  unsigned char* out, size_t cap, size_t* consumed, size_t* written) {
  *written = out ? NativeLoop<From, To, false>(ft, tt, in, inLen, out, cap, consumed)
                 : NativeLoop<From, To, true>(ft, tt, in, inLen, out, cap, consumed);
  return *consumed == inLen ? S_OK : QZ_E_INSUFFICIENT_BUFFER;
}

template <NativeKind From>
HRESULT NativeTo(const NativePage& to, const text::PageTable* ft, const unsigned char* in, size_t inLen,
                 unsigned char* out, size_t cap, size_t* consumed, size_t* written) {
  const text::PageTable* tt = to.table;
  switch (to.kind) {
    case kUtf8Page: return NativeRun<From, kUtf8Page>(ft, tt, in, inLen, out, cap, consumed, written);
    case kUtf16LE: return NativeRun<From, kUtf16LE>(ft, tt, in, inLen, out, cap, consumed, written);
    case kUtf16BE: return NativeRun<From, kUtf16BE>(ft, tt, in, inLen, out, cap, consumed, written);
    case kUtf32LE: return NativeRun<From, kUtf32LE>(ft, tt, in, inLen, out, cap, consumed, written);
    case kUtf32BE: return NativeRun<From, kUtf32BE>(ft, tt, in, inLen, out, cap, consumed, written);
    default: return NativeRun<From, kTablePage>(ft, tt, in, inLen, out, cap, consumed, written);
  }
}

HRESULT NativeConvert(const NativePage& from, const NativePage& to, const unsigned char* in, size_t inLen,
                      unsigned char* out, size_t cap, size_t* consumed, size_t* written) {
  const text::PageTable* ft = from.table;
  switch (from.kind) {
    case kUtf8Page: return NativeTo<kUtf8Page>(to, ft, in, inLen, out, cap, consumed, written);
    case kUtf16LE: return NativeTo<kUtf16LE>(to, ft, in, inLen, out, cap, consumed, written);
    case kUtf16BE: return NativeTo<kUtf16BE>(to, ft, in, inLen, out, cap, consumed, written);
    case kUtf32LE: return NativeTo<kUtf32LE>(to, ft, in, inLen, out, cap, consumed, written);
    case kUtf32BE: return NativeTo<kUtf32BE>(to, ft, in, inLen, out, cap, consumed, written);
    default: return NativeTo<kTablePage>(to, ft, in, inLen, out, cap, consumed, written);
  }
}

// Length of the bad part at p for a page iconv refused: a unit of UTF-16 or
// UTF-32, the maximal bad part of UTF-8, a bad pair of a double-byte page as
// the decoder above skips it, else one byte.
unsigned BadLength(UINT page, const unsigned char* p, size_t avail) {
  const unsigned unit = page == 1200 || page == 1201 ? 2 : page == 12000 || page == 12001 ? 4 : 1;
  if (unit > 1) return avail < unit ? static_cast<unsigned>(avail) : unit;
  if (page == CP_UTF8) {
    uint32_t cp;
    unsigned bad = 1;
    return text::DecodeUtf8(p, avail, &cp, &bad) ? 1 : (bad ? bad : 1);
  }
  const text::PageTable* t = text::GetTable(page);
  if (t && t->lead[p[0]] && avail >= 2 && p[1] >= 0x40) return 2;
  return 1;
}

// Where converted bytes go: the caller's buffer, or a scratch area that is
// only counted when the caller measures.
struct Output {
  unsigned char* base;
  size_t cap;
  bool measure;
  size_t total = 0;
  unsigned char scratch[1024];

  char* at() { return reinterpret_cast<char*>(measure ? scratch : base + total); }
  size_t room() const { return measure ? sizeof scratch : cap - total; }
};

enum StepResult { kDone, kFull, kBad, kIncomplete, kFailed };

// One iconv call into `out`, repeated while only the measuring scratch is
// full. `in` null flushes the descriptor's held state.
StepResult Step(iconv_t cd, char** in, size_t* inLeft, Output& out) {
  for (;;) {
    char* op = out.at();
    size_t room = out.room(), left = room;
    size_t r = in ? iconv(cd, in, inLeft, &op, &left) : iconv(cd, nullptr, nullptr, &op, &left);
    out.total += room - left;
    if (r != static_cast<size_t>(-1)) return kDone;
    switch (errno) {
      case E2BIG:
        if (out.measure) continue;
        return kFull;
      case EILSEQ: return kBad;
      case EINVAL: return kIncomplete;
      default: return kFailed;
    }
  }
}

bool Put(Output& out, const unsigned char* bytes, size_t n) {
  if (!out.measure) {
    if (out.cap - out.total < n) return false;
    memcpy(out.base + out.total, bytes, n);
  }
  out.total += n;
  return true;
}

// One direction of conversion: two pages and the spare iconv descriptors
// that calls borrow, so that threads sharing it never share a descriptor.
class Pipe {
 public:
  Pipe() {
    for (auto& d : spare_) d.store(nullptr, std::memory_order_relaxed);
  }
  ~Pipe() { CloseSpares(); }

  // S_OK, S_FALSE for pages the library cannot convert, E_OUTOFMEMORY.
  HRESULT Open(UINT from, UINT to) {
    CloseSpares();
    from_ = from;
    to_ = to;
    supported_ = false;
    nativeFrom_ = FindNative(from);
    nativeTo_ = FindNative(to);
    native_ = nativeFrom_.kind != kNotNative && nativeTo_.kind != kNotNative;
    if (native_) {
      supported_ = true;
      return S_OK;
    }
    const char* fromName = QzIconvName(from);
    const char* toName = QzIconvName(to);
    if (!fromName || !toName) return S_FALSE;
    iconv_t cd = iconv_open(toName, fromName);
    if (cd == kNoDescriptor) return errno == ENOMEM ? E_OUTOFMEMORY : S_FALSE;
    supported_ = true;
    Give(cd);
    return S_OK;
  }

  HRESULT Convert(unsigned char* source, unsigned int* sourceSize, unsigned char* destination,
                  unsigned int* destinationSize);

 private:
  // A descriptor for this call alone: a spare one when there is one, else a
  // new one. Returned descriptors go back to the spares or are closed.
  iconv_t Take() {
    for (auto& d : spare_) {
      void* cd = d.exchange(nullptr, std::memory_order_acquire);
      if (cd) return static_cast<iconv_t>(cd);
    }
    return iconv_open(QzIconvName(to_), QzIconvName(from_));
  }
  void Give(iconv_t cd) {
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    for (auto& d : spare_) {
      void* expected = nullptr;
      if (d.compare_exchange_strong(expected, cd, std::memory_order_release, std::memory_order_relaxed)) return;
    }
    iconv_close(cd);
  }
  void CloseSpares() {
    for (auto& d : spare_) {
      void* cd = d.exchange(nullptr, std::memory_order_acquire);
      if (cd) iconv_close(static_cast<iconv_t>(cd));
    }
  }

  HRESULT Run(iconv_t cd, unsigned char* in, size_t inLen, Output& out, size_t* consumed);

  UINT from_ = 0, to_ = 0;
  bool supported_ = false;
  bool native_ = false;
  NativePage nativeFrom_ = {kNotNative, nullptr}, nativeTo_ = {kNotNative, nullptr};
  static constexpr int kSpares = 4;
  std::atomic<void*> spare_[kSpares];
};

HRESULT Pipe::Convert(unsigned char* source, unsigned int* sourceSize, unsigned char* destination,
                      unsigned int* destinationSize) {
  if (!sourceSize || !destinationSize) return E_INVALIDARG;
  if (!supported_) {
    *destinationSize = 0;
    return S_FALSE;
  }
  const unsigned unit = UnitSize(from_);
  size_t inLen = *sourceSize;
  if (*sourceSize == 0xFFFFFFFFu) {
    if (!source) return E_INVALIDARG;
    inLen = 0;
    for (;;) {
      bool zero = true;
      for (unsigned k = 0; k < unit; ++k) zero = zero && source[inLen + k] == 0;
      if (zero) break;
      inLen += unit;
    }
  } else if (inLen && !source) {
    return E_INVALIDARG;
  }
  if (!destination && *destinationSize != 0) return E_INVALIDARG;
  size_t consumed = 0;
  HRESULT hr;
  if (inLen % unit != 0) {
    return QZ_E_NO_UNICODE_TRANSLATION;  // half a unit is a wrong size, not text
  } else if (inLen == 0) {
    hr = S_OK;
    *destinationSize = 0;
  } else if (native_) {
    size_t written = 0;
    hr = NativeConvert(nativeFrom_, nativeTo_, source, inLen, destination, *destinationSize, &consumed, &written);
    *destinationSize = static_cast<unsigned int>(written);
  } else {
    Output out;
    out.base = destination;
    out.cap = *destinationSize;
    out.measure = destination == nullptr;
    iconv_t cd = Take();
    if (cd == kNoDescriptor) return errno == ENOMEM ? E_OUTOFMEMORY : E_FAIL;
    hr = Run(cd, source, inLen, out, &consumed);
    Give(cd);
    if (hr < 0 && hr != QZ_E_INSUFFICIENT_BUFFER) return hr;
    *destinationSize = static_cast<unsigned int>(out.total);
  }
  *sourceSize = static_cast<unsigned int>(consumed);
  return hr;
}

// Substitutes where iconv stops: a character the destination lacks becomes
// the destination's default character, a bad or cut sequence U+FFFD (or the
// default character in a page without it).
HRESULT Pipe::Run(iconv_t cd, unsigned char* in, size_t inLen, Output& out, size_t* consumed) {
  char* ip = reinterpret_cast<char*>(in);
  size_t left = inLen;
  iconv_t probe = kNoDescriptor;  // source to UTF-32, for pages the library cannot read itself
  HRESULT hr = S_OK;
  for (;;) {
    StepResult r = Step(cd, &ip, &left, out);
    *consumed = inLen - left;
    if (r == kDone) {
      r = Step(cd, nullptr, nullptr, out);
      if (r == kDone) break;
    }
    if (r == kFull) {
      hr = QZ_E_INSUFFICIENT_BUFFER;
      break;
    }
    if (r != kBad && r != kIncomplete) {
      hr = E_FAIL;
      break;
    }
    const unsigned char* at = reinterpret_cast<unsigned char*>(ip);
    uint32_t cp = kReplacement;
    size_t len = 0;
    if (r == kBad) {
      Decoded d = DecodeOne(from_, at, left);
      if (d.len) {
        cp = d.cp;
        len = d.len;
      } else if (!text::FindPage(from_) || text::FindPage(from_)->kind == text::kIconv) {
        // One character through iconv: if it reads, the destination lacks it.
        if (probe == kNoDescriptor) probe = iconv_open("UTF-32LE", QzIconvName(from_));
        if (probe != kNoDescriptor) {
          iconv(probe, nullptr, nullptr, nullptr, nullptr);
          unsigned char four[4];
          char* pi = const_cast<char*>(reinterpret_cast<const char*>(at));
          char* po = reinterpret_cast<char*>(four);
          size_t pl = left, ol = sizeof four;
          iconv(probe, &pi, &pl, &po, &ol);
          if (ol == 0) {
            cp = four[0] | four[1] << 8 | four[2] << 16 | static_cast<uint32_t>(four[3]) << 24;
            len = left - pl;
          }
        }
      }
      if (!len) len = BadLength(from_, at, left);
    } else {
      len = left;  // cut at the end: one replacement for the rest
    }
    unsigned char sub[8];
    unsigned n = EncodeOne(to_, cp, sub);
    if (n) {
      // Written here: whatever iconv still holds goes out first.
      r = Step(cd, nullptr, nullptr, out);
      if (r == kDone && !Put(out, sub, n)) r = kFull;
    } else {
      // A destination the library cannot write: let iconv write its default
      // character, in the shift state it is in.
      unsigned char q[4];
      unsigned qn = EncodeOne(from_, '?', q);
      char* qp = reinterpret_cast<char*>(q);
      size_t ql = qn;
      r = qn ? Step(cd, &qp, &ql, out) : kFailed;
    }
    if (r != kDone) {
      hr = r == kFull ? QZ_E_INSUFFICIENT_BUFFER : E_FAIL;
      break;
    }
    ip += len;
    left -= len;
    *consumed = inLen - left;
    if (!left) {
      r = Step(cd, nullptr, nullptr, out);
      if (r == kFull) hr = QZ_E_INSUFFICIENT_BUFFER;
      else if (r != kDone) hr = E_FAIL;
      break;
    }
  }
  if (probe != kNoDescriptor) iconv_close(probe);
  return hr;
}

class Converter final : public ::IMLangConvertCharset {
 public:
  HRESULT QueryInterface(const QzGuid& iid, void** object) override {
    if (!object) return E_POINTER;
    if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IMLangConvertCharset)) {
      AddRef();
      *object = static_cast<::IMLangConvertCharset*>(this);
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  uint32_t AddRef() override { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }
  uint32_t Release() override {
    uint32_t left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete this;
    return left;
  }

  HRESULT Initialize(unsigned int source, unsigned int destination, DWORD property) override {
    DropUnicodePipes();
    if (source == CP_ACP) source = GetACP();
    if (destination == CP_ACP) destination = GetACP();
    source_ = source;
    destination_ = destination;
    property_ = property;
    initialized_ = true;
    return main_.Open(source, destination);
  }
  HRESULT GetSourceCodePage(unsigned int* cp) override {
    if (!cp) return E_INVALIDARG;
    *cp = source_;
    return initialized_ ? S_OK : S_FALSE;
  }
  HRESULT GetDestinationCodePage(unsigned int* cp) override {
    if (!cp) return E_INVALIDARG;
    *cp = destination_;
    return initialized_ ? S_OK : S_FALSE;
  }
  HRESULT GetProperty(DWORD* property) override {
    if (!property) return E_INVALIDARG;
    *property = property_;
    return initialized_ ? S_OK : S_FALSE;
  }

  HRESULT DoConversion(unsigned char* source, unsigned int* sourceSize, unsigned char* destination,
                       unsigned int* destinationSize) override {
    if (!initialized_) return E_UNEXPECTED;
    return main_.Convert(source, sourceSize, destination, destinationSize);
  }

  // From the source page to UTF-16, whatever the destination page; the
  // destination counts UTF-16 units.
  HRESULT DoConversionToUnicode(char* source, unsigned int* sourceSize, unsigned short* destination,
                                unsigned int* destinationSize) override {
    if (!initialized_) return E_UNEXPECTED;
    Pipe* pipe = UnicodePipe(toUnicode_, source_, CP_UTF16LE);
    if (!pipe) return E_OUTOFMEMORY;
    return Scaled(pipe, reinterpret_cast<unsigned char*>(source), sourceSize, false,
                  reinterpret_cast<unsigned char*>(destination), destinationSize);
  }
  // From UTF-16 to the destination page; the source counts UTF-16 units.
  HRESULT DoConversionFromUnicode(unsigned short* source, unsigned int* sourceSize, char* destination,
                                  unsigned int* destinationSize) override {
    if (!initialized_) return E_UNEXPECTED;
    Pipe* pipe = UnicodePipe(fromUnicode_, CP_UTF16LE, destination_);
    if (!pipe) return E_OUTOFMEMORY;
    return Scaled(pipe, reinterpret_cast<unsigned char*>(source), sourceSize, true,
                  reinterpret_cast<unsigned char*>(destination), destinationSize);
  }

 private:
  ~Converter() { DropUnicodePipes(); }

  static HRESULT Scaled(Pipe* pipe, unsigned char* src, unsigned int* srcSize, bool srcWide, unsigned char* dst,
                        unsigned int* dstSize) {
    unsigned int* wide = srcWide ? srcSize : dstSize;
    if (!wide || (*wide != 0xFFFFFFFFu && *wide > 0x7FFFFFFFu)) return E_INVALIDARG;
    unsigned int bytes = *wide == 0xFFFFFFFFu ? *wide : *wide * 2u;
    HRESULT hr = srcWide ? pipe->Convert(src, &bytes, dst, dstSize) : pipe->Convert(src, srcSize, dst, &bytes);
    if (hr >= 0) *wide = bytes >> 1;
    return hr;
  }

  // The pipe of one of the two Unicode calls: the main one when its pages
  // fit, else one made on first need (threads racing keep one).
  Pipe* UnicodePipe(std::atomic<Pipe*>& slot, UINT from, UINT to) {
    if (from == source_ && to == destination_) return &main_;
    Pipe* p = slot.load(std::memory_order_acquire);
    if (p) return p;
    Pipe* made = new (std::nothrow) Pipe();
    if (!made) return nullptr;
    made->Open(from, to);
    if (!slot.compare_exchange_strong(p, made, std::memory_order_acq_rel)) {
      delete made;
      return p;
    }
    return made;
  }
  void DropUnicodePipes() {
    delete toUnicode_.exchange(nullptr, std::memory_order_acq_rel);
    delete fromUnicode_.exchange(nullptr, std::memory_order_acq_rel);
  }

  std::atomic<uint32_t> refs_{1};
  UINT source_ = 0, destination_ = 0;
  DWORD property_ = 0;
  bool initialized_ = false;
  Pipe main_;
  std::atomic<Pipe*> toUnicode_{nullptr};
  std::atomic<Pipe*> fromUnicode_{nullptr};
};

class ConverterFactory final : public IClassFactory {
 public:
  HRESULT QueryInterface(const QzGuid& iid, void** object) override {
    if (!object) return E_POINTER;
    if (IsEqualGUID(iid, IID_IUnknown) || IsEqualGUID(iid, IID_IClassFactory)) {
      AddRef();
      *object = static_cast<IClassFactory*>(this);
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  // The factory is one static object: its count only tells the callers'
  // references, it never ends.
  uint32_t AddRef() override { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }
  uint32_t Release() override { return refs_.fetch_sub(1, std::memory_order_relaxed) - 1; }
  HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (outer) return CLASS_E_NOAGGREGATION;
    Converter* c = new (std::nothrow) Converter();
    if (!c) return E_OUTOFMEMORY;
    HRESULT hr = c->QueryInterface(iid, object);
    c->Release();
    return hr;
  }
  HRESULT LockServer(BOOL) override { return S_OK; }

 private:
  std::atomic<uint32_t> refs_{1};
};

ConverterFactory g_factory;

}  // namespace

HRESULT CoGetClassObject(REFCLSID clsid, DWORD context, void* serverInfo, REFIID iid, void** object) {
  if (!object) return E_INVALIDARG;
  *object = nullptr;
  if (QzFaultHit(QZ_FAULT_CONVERTER)) return REGDB_E_CLASSNOTREG;
  if (!IsEqualGUID(clsid, CLSID_CMLangConvertCharset) || !(context & CLSCTX_INPROC_SERVER))
    return REGDB_E_CLASSNOTREG;
  return g_factory.QueryInterface(iid, object);
}

}  // namespace qzsys
