// The six conversions, their cached objects and the converter component.
#include <gtest/gtest.h>

#include <qzbase/QzConvert.h>
#include <qzbase/QzFrame.h>

#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "text/QzConvert.h"
#include "QzTestSupport.h"
#include "platform/QzPlatformCom.h"
#include "../platform_text/TextTestSupport.h"

using namespace qzsys;
using qztest::ActivePage;
using qztest::W;

namespace {

typedef std::vector<unsigned short> Wide;
const unsigned kFill = 0x5A;

// The measure-then-convert sequence of the strings, into a destination of
// exactly the measured size followed by a guard zone.
template <typename Out, typename Text, typename Fn>
std::vector<Out> Via(Fn fn, const Text& in) {
  Text copy = in;
  unsigned int need = 0, src = static_cast<unsigned>(in.size());
  EXPECT_EQ(fn(&copy[0], &src, nullptr, &need), S_OK) << "measuring";
  std::vector<Out> out(need + 4, Out(kFill));
  unsigned int room = need;
  src = static_cast<unsigned>(in.size());
  EXPECT_EQ(fn(&copy[0], &src, out.data(), &room), S_OK) << "converting";
  EXPECT_EQ(room, need);
  for (size_t i = need; i < out.size(); ++i) EXPECT_EQ(out[i], Out(kFill)) << "written past the end";
  out.resize(room < need ? room : need);
  return out;
}
std::string Str(const std::vector<char>& v) { return std::string(v.begin(), v.end()); }

// Calls one of the six with fixed buffers, for tests that watch sizes only.
HRESULT Call(QzConversion which, unsigned int* src, unsigned int* dst) {
  static char n[64];
  static unsigned short w[32];
  switch (which) {
    case QZ_CONV_UTF8_TO_UTF16: return QZ_UTF8_TO_UTF16(n, src, w, dst);
    case QZ_CONV_UTF16_TO_UTF8: return QZ_UTF16_TO_UTF8(w, src, n, dst);
    case QZ_CONV_UTF8_TO_MBCHAR: return QZ_UTF8_TO_MBCHAR(n, src, n + 32, dst);
    case QZ_CONV_MBCHAR_TO_UTF8: return QZ_MBCHAR_TO_UTF8(n, src, n + 32, dst);
    case QZ_CONV_UTF16_TO_MBCHAR: return QZ_UTF16_TO_MBCHAR(w, src, n, dst);
    default: return QZ_MBCHAR_TO_UTF16(n, src, w, dst);
  }
}

class Convert : public ::testing::Test {
 protected:
  void SetUp() override { QzReleaseConverters(); }
  void TearDown() override { QzReleaseConverters(); }
};

// A component stand-in that records the sizes it is given and answers with
// fixed ones.
class Recorder final : public IMLangConvertCharset {
 public:
  unsigned int seenSource = 0, seenDestination = 0, answerSource = 0, answerDestination = 0;
  HRESULT result = S_OK;
  uint32_t refs = 1;
  HRESULT QueryInterface(const QzGuid&, void**) override { return E_NOINTERFACE; }
  uint32_t AddRef() override { return ++refs; }
  uint32_t Release() override { return --refs; }
  HRESULT Initialize(unsigned int, unsigned int, DWORD) override { return S_OK; }
  HRESULT GetSourceCodePage(unsigned int*) override { return E_NOTIMPL; }
  HRESULT GetDestinationCodePage(unsigned int*) override { return E_NOTIMPL; }
  HRESULT GetProperty(DWORD*) override { return E_NOTIMPL; }
  HRESULT DoConversion(unsigned char*, unsigned int* s, unsigned char*, unsigned int* d) override {
    seenSource = std::exchange(*s, answerSource);
    seenDestination = std::exchange(*d, answerDestination);
    return result;
  }
  HRESULT DoConversionToUnicode(char*, unsigned int*, unsigned short*, unsigned int*) override { return E_NOTIMPL; }
  HRESULT DoConversionFromUnicode(unsigned short*, unsigned int*, char*, unsigned int*) override { return E_NOTIMPL; }
};

}  // namespace

TEST_F(Convert, KnownTextsInEveryAnsiPageAllSixWaysAndEmptyText) {
  for (const auto& s : qztest::kPageSamples) {
    SCOPED_TRACE(s.cp);
    ActivePage page(s.cp);
    QzReleaseConverters();  // the ANSI side is fixed when an object is made
    const std::string ansi = s.bytes, utf8 = s.utf8;
    const Wide utf16 = W(s.utf16);
    EXPECT_EQ(Via<unsigned short>(QZ_MBCHAR_TO_UTF16, ansi), utf16);
    EXPECT_EQ(Via<unsigned short>(QZ_UTF8_TO_UTF16, utf8), utf16);
    EXPECT_EQ(Str(Via<char>(QZ_MBCHAR_TO_UTF8, ansi)), utf8);
    EXPECT_EQ(Str(Via<char>(QZ_UTF16_TO_UTF8, utf16)), utf8);
    EXPECT_EQ(Str(Via<char>(QZ_UTF16_TO_MBCHAR, utf16)), ansi);
    EXPECT_EQ(Str(Via<char>(QZ_UTF8_TO_MBCHAR, utf8)), ansi);
    const std::string zeros("a\0b", 3);  // counted zeros are text
    EXPECT_EQ(Via<unsigned short>(QZ_MBCHAR_TO_UTF16, zeros), (Wide{'a', 0, 'b'}));
    EXPECT_EQ(Str(Via<char>(QZ_MBCHAR_TO_UTF8, zeros)), zeros);
    if (s.cp != 1252) continue;
    // Characters the page lacks become its default; its holes stand for C1
    // controls, as MultiByteToWideChar has them.
    EXPECT_EQ(Str(Via<char>(QZ_UTF16_TO_MBCHAR, Wide{'a', 0x4E2D, 0xD83D, 0xDE00, 0x20AC})), "a??\x80");
    EXPECT_EQ(Via<unsigned short>(QZ_MBCHAR_TO_UTF16, std::string("\x81")), Wide{0x81});
  }
  unsigned int src = 0, dst = 0;  // empty text
  EXPECT_EQ(QZ_UTF8_TO_UTF16(const_cast<char*>(""), &src, nullptr, &dst), S_OK);
  EXPECT_EQ(dst, 0u);
}

TEST_F(Convert, SixteenBitSideSizesAreScaledAndMinusOnePassesThrough) {
  // The real component: the terminator ends a count of 0xFFFFFFFF and is not counted.
  unsigned short text[] = {'h', 0xE9, 0};
  char bytes[8];
  unsigned int n = 0xFFFFFFFFu, cap = sizeof bytes;
  EXPECT_EQ(QZ_UTF16_TO_UTF8(text, &n, bytes, &cap), S_OK);
  EXPECT_EQ(std::string(bytes, cap) + "/" + std::to_string(n), "h\xC3\xA9/2");

  // What the component is given and what the caller gets back.
  QzReleaseConverters();
  Recorder rec;
  for (int i = 0; i < QZ_CONV_COUNT; ++i) EXPECT_EQ(QzSwapCachedConverter(QzConversion(i), &rec), nullptr);
  // Sizes in: given, answered by the component; out: seen by it, returned.
  const struct { const char* what; QzConversion which; unsigned src, dst, answerSrc, answerDst; HRESULT result;
                 unsigned seenSrc, seenDst, outSrc, outDst; } rows[] = {
      {"units doubled, bytes halved", QZ_CONV_MBCHAR_TO_UTF16, 3, 10, 3, 8, S_OK, 3, 20, 3, 4},
      {"source units doubled", QZ_CONV_UTF16_TO_MBCHAR, 4, 10, 8, 5, S_OK, 8, 10, 4, 5},
      {"0xFFFFFFFF not doubled", QZ_CONV_UTF16_TO_UTF8, 0xFFFFFFFFu, 50, 6, 3, S_OK, 0xFFFFFFFFu, 50, 3, 3},
      {"0xFFFFFFFF on the other side", QZ_CONV_UTF8_TO_UTF16, 0xFFFFFFFFu, 4, 3, 6, S_OK, 0xFFFFFFFFu, 8, 3, 3},
      {"a failure keeps the 16-bit side", QZ_CONV_MBCHAR_TO_UTF16, 7, 9, 1, 2, HRESULT(0x80041234u), 7, 18, 1, 9},
      {"S_FALSE passed on", QZ_CONV_UTF16_TO_UTF8, 2, 9, 4, 2, S_FALSE, 4, 9, 2, 2},
      {"bytes to bytes: no scaling", QZ_CONV_MBCHAR_TO_UTF8, 5, 11, 5, 6, S_OK, 5, 11, 5, 6},
      {"bytes to bytes: 0xFFFFFFFF", QZ_CONV_UTF8_TO_MBCHAR, 0xFFFFFFFFu, 11, 5, 6, S_OK, 0xFFFFFFFFu, 11, 5, 6},
      {"doubled in 32 bits: 0x80000000 wraps to 0", QZ_CONV_MBCHAR_TO_UTF16, 3, 0x80000000u, 9, 9, S_OK, 3, 0, 9, 4},
      {"doubled in 32 bits: 0xFFFFFFFE", QZ_CONV_UTF16_TO_UTF8, 0xFFFFFFFEu, 5, 6, 2, S_OK, 0xFFFFFFFCu, 5, 3, 2},
  };
  for (const auto& r : rows) {
    rec.answerSource = r.answerSrc;
    rec.answerDestination = r.answerDst;
    rec.result = r.result;
    rec.seenSource = rec.seenDestination = 0;
    unsigned int src = r.src, dst = r.dst;
    EXPECT_EQ(Call(r.which, &src, &dst), r.result) << r.what;
    EXPECT_EQ(std::vector<unsigned>({rec.seenSource, rec.seenDestination, src, dst}),
              std::vector<unsigned>({r.seenSrc, r.seenDst, r.outSrc, r.outDst})) << r.what;
  }
  for (int i = 0; i < QZ_CONV_COUNT; ++i) QzSwapCachedConverter(QzConversion(i), nullptr);
  EXPECT_EQ(rec.refs, 1u);
}

// What the conversions substitute, each way: U+FFFD for a bad or cut
// sequence toward Unicode, the page's default character toward a page,
// whether the character is missing there or was never valid. Measuring
// gives what converting writes (Via checks both and the guard zone).
TEST_F(Convert, SubstitutesAndKeepsTheRestOfTheText) {
  const struct { UINT cp; QzConversion which; std::string in; Wide win; std::string out; Wide wout; } rows[] = {
      {65001, QZ_CONV_UTF8_TO_UTF16, "ab\xE2\x82", {}, "", {'a', 'b', 0xFFFD}},
      {65001, QZ_CONV_UTF8_TO_UTF16, "\xC0\xAFx\xFF", {}, "", {0xFFFD, 0xFFFD, 'x', 0xFFFD}},
      {65001, QZ_CONV_UTF16_TO_UTF8, "", {'a', 0xD800, 'b', 0xDC00}, "a\xEF\xBF\xBD" "b\xEF\xBF\xBD", {}},
      {65001, QZ_CONV_UTF16_TO_UTF8, "", {0xD83D}, "\xEF\xBF\xBD", {}},
      {1252, QZ_CONV_UTF8_TO_MBCHAR, "a\xFF\xC3\xA9\xE4\xB8\xAD", {}, "a?\xE9?", {}},
      {1252, QZ_CONV_UTF16_TO_MBCHAR, "", {0xDC00, 'x', 0x4E2D, 0}, std::string("?x?\0", 4), {}},
      {1253, QZ_CONV_MBCHAR_TO_UTF16, "\xC1\xAA", {}, "", {0x391, 0xFFFD}},
      {932, QZ_CONV_MBCHAR_TO_UTF16, "\x81\x20" "a\x81", {}, "", {0xFFFD, ' ', 'a', 0xFFFD}},
      {932, QZ_CONV_MBCHAR_TO_UTF8, "\x93\xFA\xFF", {}, "\xE6\x97\xA5\xEF\xBF\xBD", {}},
      {932, QZ_CONV_UTF16_TO_MBCHAR, "", {0x65E5, 0xE9, 0xD800, '\\'}, "\x93\xFA??\\", {}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(testing::Message() << r.cp << " row " << (&r - rows));
    ActivePage page(r.cp);
    QzReleaseConverters();
    switch (r.which) {
      case QZ_CONV_UTF8_TO_UTF16: EXPECT_EQ(Via<unsigned short>(QZ_UTF8_TO_UTF16, r.in), r.wout); break;
      case QZ_CONV_MBCHAR_TO_UTF16: EXPECT_EQ(Via<unsigned short>(QZ_MBCHAR_TO_UTF16, r.in), r.wout); break;
      case QZ_CONV_UTF16_TO_UTF8: EXPECT_EQ(Str(Via<char>(QZ_UTF16_TO_UTF8, r.win)), r.out); break;
      case QZ_CONV_UTF16_TO_MBCHAR: EXPECT_EQ(Str(Via<char>(QZ_UTF16_TO_MBCHAR, r.win)), r.out); break;
      case QZ_CONV_UTF8_TO_MBCHAR: EXPECT_EQ(Str(Via<char>(QZ_UTF8_TO_MBCHAR, r.in)), r.out); break;
      default: EXPECT_EQ(Str(Via<char>(QZ_MBCHAR_TO_UTF8, r.in)), r.out); break;
    }
  }
}

// Bad pointers and sizes: a negative result and the 16-bit side's size kept.
// (The conversion fuzzer tries every other shape against the library's own
// decoders.)
TEST_F(Convert, BadArgumentsGiveANegativeResultAndNoStrayWrite) {
  char text[] = "abc", out[8];
  unsigned short wide[4];
  unsigned int src = 2, dst = sizeof out;
  dst = 4;  // null pointers with sizes, and missing size pointers
  EXPECT_LT(QZ_UTF8_TO_UTF16(nullptr, &src, wide, &dst), 0);
  EXPECT_LT(QZ_UTF8_TO_UTF16(text, &src, nullptr, &dst), 0);
  EXPECT_LT(QZ_UTF8_TO_UTF16(text, nullptr, wide, &dst), 0);
  EXPECT_LT(QZ_UTF8_TO_UTF16(text, &src, wide, nullptr), 0);
  src = 0xFFFFFFFFu;
  EXPECT_LT(QZ_UTF16_TO_UTF8(nullptr, &src, text, &dst), 0);
  EXPECT_EQ(src, 0xFFFFFFFFu);
  // Too small a destination: whole characters only, nothing past its end.
  memset(out, kFill, sizeof out);
  Wide w = {'a', 0xE9, 0xD83D, 0xDE00};
  src = 4;
  dst = 3;
  EXPECT_EQ(QZ_UTF16_TO_UTF8(w.data(), &src, out, &dst), QZ_E_INSUFFICIENT_BUFFER);
  EXPECT_EQ(std::string(out, 4), "a\xC3\xA9\x5A");
  EXPECT_EQ(dst, 3u);
  // An odd destination size on the 16-bit side holds whole units only (an odd
  // source count is refused; the fuzzer checks that for every page).
  IMLangConvertCharset* c = nullptr;
  ASSERT_EQ(Qz_CreateMLangConvertor(&c, 65001, 1200, 0), S_OK);
  memset(out, kFill, sizeof out);
  src = 3;
  dst = 5;
  EXPECT_EQ(c->DoConversion(reinterpret_cast<unsigned char*>(text), &src, reinterpret_cast<unsigned char*>(out), &dst),
            QZ_E_INSUFFICIENT_BUFFER);
  EXPECT_EQ(std::string(out, 6) + std::to_string(dst), std::string("a\0b\0\x5A\x5A" "4", 7));
  c->Release();
}

TEST_F(Convert, ComponentForHostsAndWhatItRefuses) {
  IMLangConvertCharset* c = nullptr;
  EXPECT_EQ(Qz_CreateMLangConvertor(nullptr, 1200, 65001, 0), E_POINTER);
  // Pages the ANSI side never has, a stateful one writing its default through
  // its own escapes, 0 for the ANSI page, and a pair the library cannot
  // convert (S_FALSE, as the component has it).
  const struct { UINT from, to; HRESULT hr; const char* in; const char* out; } rows[] = {
      {51932, 65001, S_OK, "\xC6\xFC\xCB\xDC", "\xE6\x97\xA5\xE6\x9C\xAC"},
      {65001, 50220, S_OK, "\xE6\x97\xA5\xC3\xA9x", "\x1B$BF|\x1B(B?x"},
      // Through iconv too, bad input and missing characters are substituted.
      {51932, 65001, S_OK, "\xC6\xFC\xFFz", "\xE6\x97\xA5\xEF\xBF\xBDz"},
      {51932, 1252, S_OK, "\xC6\xFCz", "?z"},
      {65001, 50220, S_OK, "\xE6\x97\xA5\xFFx", "\x1B$BF|\x1B(B?x"},
      {0, 65001, S_OK, "ab", "ab"}, {65001, 4711, S_FALSE, "ab", ""}};
  for (const auto& r : rows) {
    ASSERT_EQ(Qz_CreateMLangConvertor(&c, r.from, r.to, 0), r.hr) << r.from;
    unsigned char out[16];
    unsigned int cp = 0, src = static_cast<unsigned>(strlen(r.in)), dst = sizeof out;
    EXPECT_EQ(c->GetSourceCodePage(&cp), S_OK);
    EXPECT_EQ(cp, r.from ? r.from : GetACP());
    EXPECT_EQ(c->DoConversion(reinterpret_cast<unsigned char*>(const_cast<char*>(r.in)), &src, out, &dst), r.hr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), dst), r.out) << r.from;
    EXPECT_EQ(c->Release(), 0u);
  }
  // The wide-counted forms go through UTF-16 whatever the other page is.
  ASSERT_EQ(Qz_CreateMLangConvertor(&c, 1252, 65001, 0), S_OK);
  unsigned short w[8];
  char utf8[8];
  unsigned int src = 4, units = 8, bytes = sizeof utf8;
  EXPECT_EQ(c->DoConversionToUnicode(const_cast<char*>("caf\xE9"), &src, w, &units), S_OK);
  EXPECT_EQ(Wide(w, w + units), (Wide{'c', 'a', 'f', 0xE9}));
  EXPECT_EQ(c->DoConversionFromUnicode(w, &units, utf8, &bytes), S_OK);
  EXPECT_EQ(std::string(utf8, bytes), "caf\xC3\xA9");
  bytes = 2;  // too small: the wide size stays as it was
  EXPECT_EQ(c->DoConversionFromUnicode(w, &units, utf8, &bytes), QZ_E_INSUFFICIENT_BUFFER);
  EXPECT_EQ(units, 4u);
  c->Release();
  // The component layer refuses what it does not know.
  void* p = reinterpret_cast<void*>(1);
  EXPECT_EQ(CoGetClassObject(IID_IUnknown, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory, &p), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(CoGetClassObject(CLSID_CMLangConvertCharset, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory, nullptr),
            E_INVALIDARG);
  ASSERT_EQ(CoGetClassObject(CLSID_CMLangConvertCharset, 7, nullptr, IID_IClassFactory, &p), S_OK);
  IClassFactory* f = static_cast<IClassFactory*>(p);
  void* obj = reinterpret_cast<void*>(1);
  EXPECT_EQ(f->CreateInstance(reinterpret_cast<IUnknown*>(f), IID_IMLangConvertCharset, &obj), CLASS_E_NOAGGREGATION);
  EXPECT_EQ(obj, nullptr);
  EXPECT_EQ(f->CreateInstance(nullptr, IID_IClassFactory, &obj), E_NOINTERFACE);
  ASSERT_EQ(f->CreateInstance(nullptr, IID_IMLangConvertCharset, &obj), S_OK);
  c = static_cast<IMLangConvertCharset*>(obj);
  unsigned char b[4];
  unsigned int s = 1, d = 4;
  EXPECT_LT(c->DoConversion(b, &s, b, &d), 0);  // not initialised
  c->Release();
  f->Release();
}

// Objects are built again after the component was unavailable, after a
// release and after the library was terminated.
TEST_F(Convert, UnavailableReleaseAndTerminateThenRebuild) {
  {
    qztest::FaultScope fault(QZ_FAULT_CONVERTER);
    for (int i = 0; i < QZ_CONV_COUNT; ++i) {
      unsigned int src = 3, dst = 4;
      EXPECT_EQ(Call(QzConversion(i), &src, &dst), REGDB_E_CLASSNOTREG) << i;
      EXPECT_EQ(dst, 4u) << i;
      EXPECT_EQ(QzCachedConverter(QzConversion(i)), nullptr) << i;
    }
    IMLangConvertCharset* c = reinterpret_cast<IMLangConvertCharset*>(1);
    EXPECT_EQ(Qz_CreateMLangConvertor(&c, 65001, 1200, 0), REGDB_E_CLASSNOTREG);
    EXPECT_EQ(c, nullptr);
  }
  Via<unsigned short>(QZ_UTF8_TO_UTF16, std::string("x"));
  IMLangConvertCharset* first = QzCachedConverter(QZ_CONV_UTF8_TO_UTF16);
  ASSERT_NE(first, nullptr);
  Via<unsigned short>(QZ_UTF8_TO_UTF16, std::string("y"));
  EXPECT_EQ(QzCachedConverter(QZ_CONV_UTF8_TO_UTF16), first);  // kept between calls
  for (void (*release)() : {QzReleaseConverters, Qz_TerminateLibrary, Qz_TerminateLibrary}) {
    release();  // terminating twice is harmless
    EXPECT_EQ(QzCachedConverter(QZ_CONV_UTF8_TO_UTF16), nullptr);
    EXPECT_EQ(Via<unsigned short>(QZ_UTF8_TO_UTF16, std::string("\xC3\xA9")), Wide{0xE9});
    EXPECT_NE(QzCachedConverter(QZ_CONV_UTF8_TO_UTF16), nullptr);
  }
}

TEST_F(Convert, ConcurrentFirstUseLeavesOneObject) {
  for (int round = 0; round < 10; ++round) {
    QzReleaseConverters();
    const int kThreads = 4;  // started together, so that first uses race
    std::atomic<int> ready{0}, failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&, t] {
        for (ready.fetch_add(1); ready.load() < kThreads;) std::this_thread::yield();
        const std::string text = "t\xC3\xA9xt " + std::to_string(t);
        for (int i = 0; i < 50; ++i) {
          std::vector<unsigned short> w = Via<unsigned short>(QZ_UTF8_TO_UTF16, text);
          if (w.size() != text.size() - 1 || w[1] != 0xE9 || Str(Via<char>(QZ_UTF16_TO_UTF8, w)) != text) ++failures;
        }
      });
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    IMLangConvertCharset* c = QzCachedConverter(QZ_CONV_UTF8_TO_UTF16);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->AddRef(), 2u);  // the slot holds the only other reference
    c->Release();
  }
}
