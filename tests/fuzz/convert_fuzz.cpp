// Differential fuzzing of the text conversions: the library's own decoders
// (MultiByteToWideChar / WideCharToMultiByte) against the converter
// component. Both must agree on what is valid, on the text, and on where
// they substitute: the component always succeeds, with U+FFFD where the
// decoder has U+FFFD or its '?' for a bad byte of a code page.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "platform/QzPlatform.h"
#include "platform/QzPlatformCom.h"

using namespace qzsys;

namespace {

const UINT kPages[] = {65001, 1252, 1251, 1253, 932, 936, 949, 950, 20127, 28591};

IMLangConvertCharset* Converter(UINT from, UINT to) {
  IMLangConvertCharset* c = nullptr;
  Qz_CreateMLangConvertor(&c, from, to, 0);
  return c;
}

// Measure, then convert into a buffer of exactly that size with a guard.
HRESULT Run(IMLangConvertCharset* c, const uint8_t* data, unsigned int size, std::vector<uint8_t>* out) {
  unsigned int src = size, need = 0;
  HRESULT hr = c->DoConversion(const_cast<uint8_t*>(data), &src, nullptr, &need);
  if (hr < 0) return hr;
  out->assign(need + 1, 0xA5);
  unsigned int room = need;
  src = size;
  HRESULT again = c->DoConversion(const_cast<uint8_t*>(data), &src, out->data(), &room);
  if (again != hr || room != need || (*out)[need] != 0xA5 || src != size) __builtin_trap();
  out->resize(need);
  return hr;
}

// The library's own decoder and encoder, strict where the page allows it.
std::vector<WCHAR> Decode(UINT page, const char* text, size_t size, DWORD flags = MB_ERR_INVALID_CHARS) {
  int n = MultiByteToWideChar(page, flags, text, static_cast<int>(size), nullptr, 0);
  std::vector<WCHAR> w(n > 0 ? n : 0);
  if (n > 0) MultiByteToWideChar(page, flags, text, static_cast<int>(size), w.data(), n);
  return w;
}
std::vector<char> Encode(UINT page, const std::vector<WCHAR>& w, DWORD flags) {
  int n = WideCharToMultiByte(page, flags, w.data(), static_cast<int>(w.size()), nullptr, 0, nullptr, nullptr);
  std::vector<char> b(n > 0 ? n : 0);
  if (n > 0) WideCharToMultiByte(page, flags, w.data(), static_cast<int>(w.size()), b.data(), n, nullptr, nullptr);
  return b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const UINT page = kPages[data[0] % (sizeof kPages / sizeof kPages[0])];
  ++data;
  --size;
  static IMLangConvertCharset* toWide[sizeof kPages / sizeof kPages[0]];
  static IMLangConvertCharset* fromWide[sizeof kPages / sizeof kPages[0]];
  size_t index = 0;
  while (kPages[index] != page) ++index;
  if (!toWide[index]) toWide[index] = Converter(page, 1200);
  if (!fromWide[index]) fromWide[index] = Converter(1200, page);

  // Narrow to UTF-16.
  std::vector<uint8_t> viaComponent;
  HRESULT hr = Run(toWide[index], data, static_cast<unsigned int>(size), &viaComponent);
  if (hr != S_OK) __builtin_trap();
  const std::vector<WCHAR> w = Decode(page, reinterpret_cast<const char*>(data), size);
  const std::vector<WCHAR> lenient = Decode(page, reinterpret_cast<const char*>(data), size, 0);
  if (viaComponent.size() != lenient.size() * 2) __builtin_trap();
  for (size_t i = 0; i < lenient.size(); ++i) {
    const WCHAR got = static_cast<WCHAR>(viaComponent[2 * i] | viaComponent[2 * i + 1] << 8);
    if (got != lenient[i] && !(got == 0xFFFD && lenient[i] == '?' && page != 65001)) __builtin_trap();
  }
  if (!w.empty()) {
    if (w != lenient) __builtin_trap();
    // Valid text goes back to the page and decodes to the same characters,
    // even where a character has two codes and the page keeps one.
    const std::vector<char> again = Encode(page, w, 0);
    if (Decode(page, again.data(), again.size()) != w) __builtin_trap();
  }

  // The same bytes read as UTF-16 back to the page: lone surrogates and
  // missing characters substituted by both alike.
  std::vector<uint8_t> narrow;
  hr = Run(fromWide[index], data, static_cast<unsigned int>(size), &narrow);
  if (size % 2 == 1) {
    if (hr >= 0) __builtin_trap();  // half a unit is a wrong size, never text
  } else if (size >= 2) {
    std::vector<WCHAR> units(size / 2);
    memcpy(units.data(), data, size);
    const std::vector<char> b = Encode(page, units, 0);
    if (hr != S_OK || narrow.size() != b.size() || memcmp(narrow.data(), b.data(), b.size()) != 0) __builtin_trap();
  }
  return 0;
}
