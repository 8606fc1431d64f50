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

// The bytes of code point cp in `page` into out[0..3], the page's default
// character '?' where it lacks cp. 0 when the library cannot write the page
// itself (stateful pages such as ISO-2022-JP).
unsigned EncodeOne(UINT page, uint32_t cp, unsigned char* out) {
  if (page == 1200 || page == 1201) {
    uint16_t units[2];
    unsigned n = 1;
    if (cp >= 0x10000) {
      units[0] = static_cast<uint16_t>(0xD800 + ((cp - 0x10000) >> 10));
      units[1] = static_cast<uint16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
      n = 2;
    } else {
      units[0] = static_cast<uint16_t>(cp);
    }
    for (unsigned i = 0; i < n; ++i) {
      unsigned char lo = static_cast<unsigned char>(units[i]), hi = static_cast<unsigned char>(units[i] >> 8);
      out[2 * i] = page == 1200 ? lo : hi;
      out[2 * i + 1] = page == 1200 ? hi : lo;
    }
    return 2 * n;
  }
  if (page == 12000 || page == 12001) {
    for (int i = 0; i < 4; ++i) {
      unsigned char b = static_cast<unsigned char>(cp >> (8 * i));
      out[page == 12000 ? i : 3 - i] = b;
    }
    return 4;
  }
  const PageInfo* info = text::FindPage(page);
  if (!info) return 0;
  if (info->kind == text::kUtf8) return text::EncodeUtf8(cp, out);
  const text::PageTable* t = text::GetTable(page);
  if (!t) return 0;
  uint16_t code = cp < 0x10000 ? t->encode[cp] : 0;
  if (!code) {
    out[0] = '?';
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

// Measuring between UTF-8 and UTF-16, and from a table page to either, needs
// no conversion: the library's own decoders (which agree with iconv on what
// is valid) count the result at a fraction of the cost. Returns false for
// other pairs.
bool MeasureUnicode(UINT from, UINT to, const unsigned char* in, size_t len, size_t* needed, bool* invalid) {
  size_t n = 0;
  *invalid = false;
  if (from == CP_UTF8 && to == 1200) {
    for (size_t i = 0; i < len;) {
      if (in[i] < 0x80) {
        n += 2;
        ++i;
        continue;
      }
      uint32_t cp;
      unsigned bad;
      unsigned k = text::DecodeUtf8(in + i, len - i, &cp, &bad);
      if (!k) {
        *invalid = true;
        return true;
      }
      n += cp >= 0x10000 ? 4 : 2;
      i += k;
    }
  } else if (from == 1200 && to == CP_UTF8) {
    for (size_t i = 0; i + 1 < len; i += 2) {
      uint32_t u = in[i] | in[i + 1] << 8;
      if (u < 0x80) {
        n += 1;
      } else if (u < 0x800) {
        n += 2;
      } else if (u < 0xD800 || u > 0xDFFF) {
        n += 3;
      } else {
        if (u > 0xDBFF || i + 3 >= len) {
          *invalid = true;
          return true;
        }
        uint32_t lo = in[i + 2] | in[i + 3] << 8;
        if (lo < 0xDC00 || lo > 0xDFFF) {
          *invalid = true;
          return true;
        }
        n += 4;
        i += 2;
      }
    }
  } else if ((to == 1200 || to == CP_UTF8) && from != 1255 && from != 1258) {
    // A single- or double-byte page read through its table: the same
    // characters iconv gives, one by one (1255 and 1258 are left to iconv,
    // which joins a letter and its accent into one character).
    const text::PageTable* t = text::GetTable(from);
    if (!t) return false;
    for (size_t i = 0; i < len;) {
      unsigned b = in[i];
      WCHAR w;
      bool ok;
      if (t->lead[b]) {
        w = i + 1 < len ? t->pairs[b << 8 | in[i + 1]] : 0;
        ok = w != 0;
        i += 2;
      } else {
        w = t->single[b];
        ok = w != 0 || b == 0;
        i += 1;
      }
      if (!ok) {
        *invalid = true;
        return true;
      }
      n += to == 1200 ? 2 : (w < 0x80 ? 1 : w < 0x800 ? 2 : 3);
    }
  } else {
    return false;
  }
  *needed = n;
  return true;
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
  Output out;
  out.base = destination;
  out.cap = *destinationSize;
  out.measure = destination == nullptr;
  size_t consumed = 0;
  bool invalid = false;
  HRESULT hr;
  if (inLen % unit != 0) {
    hr = QZ_E_NO_UNICODE_TRANSLATION;
  } else if (inLen == 0) {
    hr = S_OK;
  } else if (out.measure && MeasureUnicode(from_, to_, source, inLen, &out.total, &invalid)) {
    hr = invalid ? QZ_E_NO_UNICODE_TRANSLATION : S_OK;
    consumed = inLen;
  } else {
    iconv_t cd = Take();
    if (cd == kNoDescriptor) return errno == ENOMEM ? E_OUTOFMEMORY : E_FAIL;
    hr = Run(cd, source, inLen, out, &consumed);
    Give(cd);
  }
  if (hr == QZ_E_NO_UNICODE_TRANSLATION) return hr;
  *sourceSize = static_cast<unsigned int>(consumed);
  *destinationSize = static_cast<unsigned int>(out.total);
  return hr;
}

HRESULT Pipe::Run(iconv_t cd, unsigned char* in, size_t inLen, Output& out, size_t* consumed) {
  char* ip = reinterpret_cast<char*>(in);
  size_t left = inLen;
  for (;;) {
    StepResult r = Step(cd, &ip, &left, out);
    *consumed = inLen - left;
    if (r == kDone) {
      r = Step(cd, nullptr, nullptr, out);
      if (r == kDone) return S_OK;
    }
    if (r == kFull) return QZ_E_INSUFFICIENT_BUFFER;
    if (r == kIncomplete) return QZ_E_NO_UNICODE_TRANSLATION;
    if (r != kBad) return E_FAIL;
    // iconv refuses either bad input or a character the destination lacks;
    // only the first is an error.
    const unsigned char* at = reinterpret_cast<unsigned char*>(ip);
    Decoded d = DecodeOne(from_, at, left);
    if (!d.len) return QZ_E_NO_UNICODE_TRANSLATION;
    unsigned char sub[8];
    unsigned n = EncodeOne(to_, d.cp, sub);
    if (n) {
      // Written here: whatever iconv still holds goes out first.
      r = Step(cd, nullptr, nullptr, out);
      if (r == kFull) return QZ_E_INSUFFICIENT_BUFFER;
      if (r != kDone) return E_FAIL;
      if (!Put(out, sub, n)) return QZ_E_INSUFFICIENT_BUFFER;
    } else {
      // A stateful destination: let iconv write the default character.
      unsigned char q[4];
      unsigned qn = EncodeOne(from_, '?', q);
      char* qp = reinterpret_cast<char*>(q);
      size_t ql = qn;
      r = qn ? Step(cd, &qp, &ql, out) : kFailed;
      if (r == kFull) return QZ_E_INSUFFICIENT_BUFFER;
      if (r != kDone) return E_FAIL;
    }
    ip += d.len;
    left -= d.len;
    *consumed = inLen - left;
  }
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
