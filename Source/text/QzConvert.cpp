// Conversions between the ANSI code page, UTF-8 and UTF-16 through cached
// converter objects of the platform's converter component.
#include "text/QzConvert.h"

#include <atomic>

#include "platform/QzPlatform.h"
#include "platform/QzPlatformCom.h"

using namespace qzsys;

namespace {

std::atomic<IClassFactory*> g_factory{nullptr};
std::atomic<IMLangConvertCharset*> g_converters[QZ_CONV_COUNT];

// The factory slot's object, made on first need.
HRESULT GetFactory(IClassFactory** factory) {
  IClassFactory* f = g_factory.load(std::memory_order_acquire);
  if (!f) {
    void* made = nullptr;
    HRESULT hr = CoGetClassObject(CLSID_CMLangConvertCharset,
                                  CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER | CLSCTX_LOCAL_SERVER,
                                  nullptr, IID_IClassFactory, &made);
    if (hr < 0) return hr;
    f = static_cast<IClassFactory*>(made);
    IClassFactory* expected = nullptr;
    if (!g_factory.compare_exchange_strong(expected, f, std::memory_order_acq_rel)) {
      f->Release();
      f = expected;
    }
  }
  *factory = f;
  return S_OK;
}

HRESULT NewConverter(IMLangConvertCharset** converter, unsigned int from, unsigned int to, DWORD property) {
  IClassFactory* factory;
  HRESULT hr = GetFactory(&factory);
  if (hr < 0) return hr;
  void* made = nullptr;
  hr = factory->CreateInstance(nullptr, IID_IMLangConvertCharset, &made);
  if (hr < 0) return hr;
  IMLangConvertCharset* c = static_cast<IMLangConvertCharset*>(made);
  hr = c->Initialize(from, to, property);
  if (hr < 0) {
    c->Release();
    return hr;
  }
  *converter = c;
  return hr;
}

// The converter of a conversion; an ANSI side (0 here) takes GetACP() now.
HRESULT GetConverter(QzConversion which, unsigned int from, unsigned int to, IMLangConvertCharset** out) {
  std::atomic<IMLangConvertCharset*>& slot = g_converters[which];
  IMLangConvertCharset* c = slot.load(std::memory_order_acquire);
  if (!c) {
    if (from == 0) from = GetACP();
    if (to == 0) to = GetACP();
    HRESULT hr = NewConverter(&c, from, to, 0);
    if (hr < 0) return hr;
    // Published only once initialised; a thread that lost the race uses the
    // winner's object.
    IMLangConvertCharset* expected = nullptr;
    if (!slot.compare_exchange_strong(expected, c, std::memory_order_acq_rel)) {
      c->Release();
      c = expected;
    }
  }
  *out = c;
  return S_OK;
}

// The component counts bytes: a size counted in 16-bit units is doubled on
// the way in and halved on the way out, except 0xFFFFFFFF ("to the
// terminator"), which passes as it is.
HRESULT Run(QzConversion which, unsigned int from, unsigned int to, void* source, unsigned int* sourceSize,
            void* destination, unsigned int* destinationSize, bool sourceWide, bool destinationWide) {
  IMLangConvertCharset* c;
  HRESULT hr = GetConverter(which, from, to, &c);
  if (hr < 0) return hr;
  unsigned int* wide = sourceWide ? sourceSize : destinationWide ? destinationSize : nullptr;
  unsigned int local = 0;
  unsigned int* passed = wide;
  if (wide) {
    // Doubled in 32 bits: a count from 0x80000000 up wraps, as the caller's
    // own size arithmetic would; the component never goes past what it is
    // told, so a wrapped size only converts or admits less.
    local = *wide == 0xFFFFFFFFu ? 0xFFFFFFFFu : *wide * 2u;
    passed = &local;
  }
  hr = c->DoConversion(static_cast<unsigned char*>(source), sourceWide ? passed : sourceSize,
                       static_cast<unsigned char*>(destination), destinationWide ? passed : destinationSize);
  if (wide && hr >= 0) *wide = local >> 1;
  return hr;
}

}  // namespace

IMLangConvertCharset* QzCachedConverter(QzConversion which) {
  return g_converters[which].load(std::memory_order_acquire);
}

IMLangConvertCharset* QzSwapCachedConverter(QzConversion which, IMLangConvertCharset* converter) {
  return g_converters[which].exchange(converter, std::memory_order_acq_rel);
}

extern "C" {

QZ_API HRESULT QZ_MBCHAR_TO_UTF16(char* source, unsigned int* sourceSize, unsigned short* destination,
                                  unsigned int* destinationSize) {
  return Run(QZ_CONV_MBCHAR_TO_UTF16, 0, CP_UTF16LE, source, sourceSize, destination, destinationSize, false,
             true);
}

QZ_API HRESULT QZ_MBCHAR_TO_UTF8(char* source, unsigned int* sourceSize, char* destination,
                                 unsigned int* destinationSize) {
  return Run(QZ_CONV_MBCHAR_TO_UTF8, 0, CP_UTF8, source, sourceSize, destination, destinationSize, false,
             false);
}

QZ_API HRESULT QZ_UTF16_TO_MBCHAR(unsigned short* source, unsigned int* sourceSize, char* destination,
                                  unsigned int* destinationSize) {
  return Run(QZ_CONV_UTF16_TO_MBCHAR, CP_UTF16LE, 0, source, sourceSize, destination, destinationSize, true,
             false);
}

QZ_API HRESULT QZ_UTF16_TO_UTF8(unsigned short* source, unsigned int* sourceSize, char* destination,
                                unsigned int* destinationSize) {
  return Run(QZ_CONV_UTF16_TO_UTF8, CP_UTF16LE, CP_UTF8, source, sourceSize, destination, destinationSize,
             true, false);
}

QZ_API HRESULT QZ_UTF8_TO_MBCHAR(char* source, unsigned int* sourceSize, char* destination,
                                 unsigned int* destinationSize) {
  return Run(QZ_CONV_UTF8_TO_MBCHAR, CP_UTF8, 0, source, sourceSize, destination, destinationSize, false,
             false);
}

QZ_API HRESULT QZ_UTF8_TO_UTF16(char* source, unsigned int* sourceSize, unsigned short* destination,
                                unsigned int* destinationSize) {
  return Run(QZ_CONV_UTF8_TO_UTF16, CP_UTF8, CP_UTF16LE, source, sourceSize, destination, destinationSize,
             false, true);
}

QZ_API HRESULT Qz_CreateMLangConvertor(IMLangConvertCharset** converter, unsigned int sourceCodePage,
                                       unsigned int destinationCodePage, DWORD property) {
  if (!converter) return E_POINTER;
  *converter = nullptr;
  return NewConverter(converter, sourceCodePage, destinationCodePage, property);
}

void QzReleaseConverters() {
  for (int i = 0; i < QZ_CONV_COUNT; ++i) {
    IMLangConvertCharset* c = g_converters[i].exchange(nullptr, std::memory_order_acq_rel);
    if (c) c->Release();
  }
  IClassFactory* f = g_factory.exchange(nullptr, std::memory_order_acq_rel);
  if (f) f->Release();
}

}  // extern "C"
