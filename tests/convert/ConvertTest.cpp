// The six conversions, their cached objects and the converter component.
#include <gtest/gtest.h>

#include <qzbase/QzConvert.h>
#include <qzbase/QzFrame.h>

#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "QzConvert.h"
#include "QzTestSupport.h"
#include "platform/QzPlatformCom.h"
#include "../platform_text/TextTestSupport.h"

using namespace qzsys;
using qztest::ActivePage;
using qztest::W;

namespace {

typedef std::vector<unsigned short> Wide;

// The measure-then-convert sequence of the strings.
template <typename Out, typename In, typename Fn>
HRESULT TwoPass(Fn fn, In* source, unsigned int count, std::vector<Out>* out) {
  unsigned int need = 0;
  unsigned int src = count;
  HRESULT hr = fn(source, &src, nullptr, &need);
  if (hr < 0) return hr;
  out->assign(need + 4, Out(0x5A));
  unsigned int room = need;
  src = count;
  hr = fn(source, &src, out->data(), &room);
  if (hr < 0) return hr;
  EXPECT_EQ(room, need);
  for (size_t i = need; i < out->size(); ++i) EXPECT_EQ((*out)[i], Out(0x5A)) << "written past the end";
  out->resize(room);
  return hr;
}

std::string Utf8From16(const Wide& w) {
  std::vector<char> out;
  Wide copy = w;
  EXPECT_GE(TwoPass<char>(QZ_UTF16_TO_UTF8, copy.data(), static_cast<unsigned>(copy.size()), &out), 0);
  return std::string(out.begin(), out.end());
}

Wide Utf16From8(std::string s) {
  std::vector<unsigned short> out;
  EXPECT_GE(TwoPass<unsigned short>(QZ_UTF8_TO_UTF16, &s[0], static_cast<unsigned>(s.size()), &out), 0);
  return out;
}

class Convert : public ::testing::Test {
 protected:
  void SetUp() override { QzReleaseConverters(); }
  void TearDown() override { QzReleaseConverters(); }
};

// Per ANSI page: a text in the page, in UTF-16 and in UTF-8.
struct Sample {
  UINT cp;
  const char* ansi;
  const char16_t* utf16;
  const char* utf8;
};

const Sample kPages[] = {
    {65001, "\xC3\xA9t\xC3\xA9 \xF0\x9D\x84\x9E", u"\u00E9t\u00E9 \U0001D11E", "\xC3\xA9t\xC3\xA9 \xF0\x9D\x84\x9E"},
    {1250, "\x8A\xE8", u"\u0160\u010D", "\xC5\xA0\xC4\x8D"},
    {1251, "\xCF\xF0", u"\u041F\u0440", "\xD0\x9F\xD1\x80"},
    {1252, "\x80\xE9", u"\u20AC\u00E9", "\xE2\x82\xAC\xC3\xA9"},
    {1253, "\xC1\xE8", u"\u0391\u03B8", "\xCE\x91\xCE\xB8"},
    {1254, "\xD0\xFD", u"\u011E\u0131", "\xC4\x9E\xC4\xB1"},
    {1255, "\xF9\xEC", u"\u05E9\u05DC", "\xD7\xA9\xD7\x9C"},
    {1256, "\xD3\xE1", u"\u0633\u0644", "\xD8\xB3\xD9\x84"},
    {1257, "\xD0\xFE", u"\u0160\u017E", "\xC5\xA0\xC5\xBE"},
    {1258, "\xEAt", u"\u00EAt", "\xC3\xAAt"},
    {28591, "\xE9\xFF", u"\u00E9\u00FF", "\xC3\xA9\xC3\xBF"},
    {20127, "ok", u"ok", "ok"},
    {932, "\x93\xFA\x96\x7B\xB1", u"\u65E5\u672C\uFF71", "\xE6\x97\xA5\xE6\x9C\xAC\xEF\xBD\xB1"},
    {936, "\xD6\xD0\xCE\xC4", u"\u4E2D\u6587", "\xE4\xB8\xAD\xE6\x96\x87"},
    {949, "\xC7\xD1\xB1\xB9", u"\uD55C\uAD6D", "\xED\x95\x9C\xEA\xB5\xAD"},
    {950, "\xA4\xA4\xA4\xE5", u"\u4E2D\u6587", "\xE4\xB8\xAD\xE6\x96\x87"},
};

}  // namespace

TEST_F(Convert, KnownTextsInEveryAnsiPageAllSixWays) {
  for (const Sample& s : kPages) {
    SCOPED_TRACE(s.cp);
    ActivePage page(s.cp);
    QzReleaseConverters();  // the ANSI side is fixed when an object is made
    std::string ansi = s.ansi;
    std::string utf8 = s.utf8;
    Wide utf16 = W(s.utf16);

    std::vector<unsigned short> w;
    ASSERT_GE(TwoPass<unsigned short>(QZ_MBCHAR_TO_UTF16, &ansi[0], static_cast<unsigned>(ansi.size()), &w), 0);
    EXPECT_EQ(w, utf16);
    std::vector<char> b;
    ASSERT_GE(TwoPass<char>(QZ_MBCHAR_TO_UTF8, &ansi[0], static_cast<unsigned>(ansi.size()), &b), 0);
    EXPECT_EQ(std::string(b.begin(), b.end()), utf8);
    ASSERT_GE(TwoPass<char>(QZ_UTF16_TO_MBCHAR, utf16.data(), static_cast<unsigned>(utf16.size()), &b), 0);
    EXPECT_EQ(std::string(b.begin(), b.end()), ansi);
    ASSERT_GE(TwoPass<char>(QZ_UTF8_TO_MBCHAR, &utf8[0], static_cast<unsigned>(utf8.size()), &b), 0);
    EXPECT_EQ(std::string(b.begin(), b.end()), ansi);
    EXPECT_EQ(Utf16From8(utf8), utf16);
    EXPECT_EQ(Utf8From16(utf16), utf8);
  }
}

TEST_F(Convert, SurrogatePairsAndEmptyText) {
  Wide pair = {'a', 0xD83D, 0xDE00, 'b'};
  EXPECT_EQ(Utf8From16(pair), "a\xF0\x9F\x98\x80" "b");
  EXPECT_EQ(Utf16From8("a\xF0\x9F\x98\x80" "b"), pair);
  unsigned int src = 0, dst = 0;
  EXPECT_EQ(QZ_UTF8_TO_UTF16(const_cast<char*>(""), &src, nullptr, &dst), S_OK);
  EXPECT_EQ(dst, 0u);
}

TEST_F(Convert, SixteenBitSideSizesAreScaledAndMinusOnePassesThrough) {
  // The real component: a 16-bit destination of 10 units takes a text of 10.
  std::string ten = "0123456789";
  unsigned short out[12];
  unsigned int src = 10, room = 10;
  EXPECT_EQ(QZ_UTF8_TO_UTF16(&ten[0], &src, out, &room), S_OK);
  EXPECT_EQ(room, 10u);
  // Up to the terminator on the 16-bit side: the terminator is not counted.
  unsigned short text[] = {'h', 0xE9, 0};
  char bytes[8];
  unsigned int n = 0xFFFFFFFFu, cap = sizeof bytes;
  EXPECT_EQ(QZ_UTF16_TO_UTF8(text, &n, bytes, &cap), S_OK);
  EXPECT_EQ(n, 2u);
  EXPECT_EQ(cap, 3u);
  EXPECT_EQ(std::string(bytes, cap), "h\xC3\xA9");
  char narrow[] = "abc";
  n = 0xFFFFFFFFu;
  unsigned int need = 0;
  EXPECT_EQ(QZ_UTF8_TO_UTF16(narrow, &n, nullptr, &need), S_OK);
  EXPECT_EQ(n, 3u);
  EXPECT_EQ(need, 3u);
}

namespace {

// A component stand-in that records the sizes it is given and answers with
// fixed ones.
class Recorder final : public IMLangConvertCharset {
 public:
  unsigned int seenSource = 0, seenDestination = 0;
  unsigned int answerSource = 0, answerDestination = 0;
  HRESULT result = S_OK;
  int calls = 0;
  HRESULT QueryInterface(const QzGuid&, void**) override { return E_NOINTERFACE; }
  uint32_t AddRef() override { return ++refs; }
  uint32_t Release() override { return --refs; }
  HRESULT Initialize(unsigned int, unsigned int, DWORD) override { return S_OK; }
  HRESULT GetSourceCodePage(unsigned int*) override { return E_NOTIMPL; }
  HRESULT GetDestinationCodePage(unsigned int*) override { return E_NOTIMPL; }
  HRESULT GetProperty(DWORD*) override { return E_NOTIMPL; }
  HRESULT DoConversion(unsigned char*, unsigned int* s, unsigned char*, unsigned int* d) override {
    ++calls;
    seenSource = *s;
    seenDestination = *d;
    *s = answerSource;
    *d = answerDestination;
    return result;
  }
  HRESULT DoConversionToUnicode(char*, unsigned int*, unsigned short*, unsigned int*) override { return E_NOTIMPL; }
  HRESULT DoConversionFromUnicode(unsigned short*, unsigned int*, char*, unsigned int*) override { return E_NOTIMPL; }
  uint32_t refs = 1;
};

}  // namespace

TEST_F(Convert, ScalingRuleAsTheComponentSeesIt) {
  Recorder rec;
  for (QzConversion which : {QZ_CONV_MBCHAR_TO_UTF16, QZ_CONV_UTF16_TO_UTF8, QZ_CONV_MBCHAR_TO_UTF8,
                             QZ_CONV_UTF8_TO_MBCHAR}) {
    EXPECT_EQ(QzSwapCachedConverter(which, &rec), nullptr);
  }
  char text[4] = "abc";
  unsigned short wide[4] = {'a', 'b', 'c', 0};
  unsigned int src = 3, dst = 10;
  rec.answerSource = 3;
  rec.answerDestination = 8;
  EXPECT_EQ(QZ_MBCHAR_TO_UTF16(text, &src, wide, &dst), S_OK);
  EXPECT_EQ(rec.seenSource, 3u);
  EXPECT_EQ(rec.seenDestination, 20u);
  EXPECT_EQ(dst, 4u);
  EXPECT_EQ(src, 3u);

  src = 0xFFFFFFFFu;
  dst = 50;
  rec.answerSource = 6;
  rec.answerDestination = 3;
  EXPECT_EQ(QZ_UTF16_TO_UTF8(wide, &src, text, &dst), S_OK);
  EXPECT_EQ(rec.seenSource, 0xFFFFFFFFu);  // not 0xFFFFFFFE
  EXPECT_EQ(rec.seenDestination, 50u);
  EXPECT_EQ(src, 3u);
  EXPECT_EQ(dst, 3u);

  // A failure leaves the 16-bit side as it was and passes the result on; the
  // other side is what the component left.
  rec.result = static_cast<HRESULT>(0x80041234u);
  src = 7;
  dst = 9;
  rec.answerSource = 1;
  rec.answerDestination = 2;
  EXPECT_EQ(QZ_MBCHAR_TO_UTF16(text, &src, wide, &dst), static_cast<HRESULT>(0x80041234u));
  EXPECT_EQ(dst, 9u);
  EXPECT_EQ(src, 1u);
  rec.result = S_FALSE;  // any result from 0 up is passed on unchanged too
  EXPECT_EQ(QZ_UTF16_TO_UTF8(wide, &src, text, &dst), S_FALSE);

  // The byte-counted conversions scale nothing.
  rec.result = S_OK;
  src = 5;
  dst = 11;
  rec.answerSource = 5;
  rec.answerDestination = 6;
  EXPECT_EQ(QZ_MBCHAR_TO_UTF8(text, &src, text, &dst), S_OK);
  EXPECT_EQ(rec.seenSource, 5u);
  EXPECT_EQ(rec.seenDestination, 11u);
  EXPECT_EQ(dst, 6u);
  src = 0xFFFFFFFFu;
  EXPECT_EQ(QZ_UTF8_TO_MBCHAR(text, &src, text, &dst), S_OK);
  EXPECT_EQ(rec.seenSource, 0xFFFFFFFFu);

  // A count that doubling would wrap never reaches the component.
  int before = rec.calls;
  src = 3;
  dst = 0x80000000u;
  EXPECT_LT(QZ_MBCHAR_TO_UTF16(text, &src, wide, &dst), 0);
  EXPECT_EQ(rec.calls, before);
  EXPECT_EQ(dst, 0x80000000u);

  for (QzConversion which : {QZ_CONV_MBCHAR_TO_UTF16, QZ_CONV_UTF16_TO_UTF8, QZ_CONV_MBCHAR_TO_UTF8,
                             QZ_CONV_UTF8_TO_MBCHAR}) {
    QzSwapCachedConverter(which, nullptr);
  }
  EXPECT_EQ(rec.refs, 1u);
}

TEST_F(Convert, BadInputGivesANegativeResultAndNoStrayWrite) {
  struct Case {
    const char* what;
    std::string utf8;
  } bad8[] = {{"stray continuation", "a\x80"}, {"cut sequence", "ab\xE2\x82"}, {"overlong", "\xC0\xAF"},
              {"surrogate", "\xED\xA0\x80"}, {"above U+10FFFF", "\xF4\x90\x80\x80"}};
  for (Case& c : bad8) {
    SCOPED_TRACE(c.what);
    unsigned short out[8];
    for (auto& u : out) u = 0x5A5A;
    unsigned int src = static_cast<unsigned>(c.utf8.size()), dst = 8;
    EXPECT_LT(QZ_UTF8_TO_UTF16(&c.utf8[0], &src, out, &dst), 0);
    EXPECT_EQ(dst, 8u);  // the 16-bit side keeps its size
    unsigned int need = 0;
    src = static_cast<unsigned>(c.utf8.size());
    EXPECT_LT(QZ_UTF8_TO_UTF16(&c.utf8[0], &src, nullptr, &need), 0);
  }
  for (Wide w : {Wide{'a', 0xD800}, Wide{0xDC00, 'a'}, Wide{0xD800, 0xD800, 0xDC00}}) {
    char out[16];
    unsigned int src = static_cast<unsigned>(w.size()), dst = sizeof out;
    EXPECT_LT(QZ_UTF16_TO_UTF8(w.data(), &src, out, &dst), 0);
    EXPECT_EQ(src, w.size());
  }
  {
    ActivePage page(932);
    QzReleaseConverters();
    char lead[] = "a\x93";
    unsigned int src = 2, dst = 0;
    EXPECT_LT(QZ_MBCHAR_TO_UTF16(lead, &src, nullptr, &dst), 0);
    QzReleaseConverters();
  }
  // Null pointers with sizes, and missing size pointers.
  char text[] = "abc";
  unsigned short wide[4];
  unsigned int src = 3, dst = 4;
  EXPECT_LT(QZ_UTF8_TO_UTF16(nullptr, &src, wide, &dst), 0);
  EXPECT_LT(QZ_UTF8_TO_UTF16(text, &src, nullptr, &dst), 0);
  EXPECT_LT(QZ_UTF8_TO_UTF16(text, nullptr, wide, &dst), 0);
  EXPECT_LT(QZ_UTF8_TO_UTF16(text, &src, wide, nullptr), 0);
  src = 0xFFFFFFFFu;
  EXPECT_LT(QZ_UTF16_TO_UTF8(nullptr, &src, text, &dst), 0);
  EXPECT_EQ(src, 0xFFFFFFFFu);
  // Too small a destination: whole characters only, nothing past its end.
  std::string mixed = "a\xC3\xA9\xF0\x9F\x98\x80";
  char out[8];
  memset(out, 0x5A, sizeof out);
  src = static_cast<unsigned>(mixed.size());
  dst = 3;
  Wide w = {'a', 0xE9, 0xD83D, 0xDE00};
  src = 4;
  EXPECT_EQ(QZ_UTF16_TO_UTF8(w.data(), &src, out, &dst), QZ_E_INSUFFICIENT_BUFFER);
  EXPECT_EQ(std::string(out, 3), "a\xC3\xA9");
  EXPECT_EQ(out[3], 0x5A);
  EXPECT_EQ(dst, 3u);
}

TEST_F(Convert, OddByteCountsOnTheSixteenBitSide) {
  IMLangConvertCharset* c = nullptr;
  ASSERT_EQ(Qz_CreateMLangConvertor(&c, 1200, 65001, 0), S_OK);
  unsigned char utf16[] = {'a', 0, 'b', 0, 'c'};
  unsigned char out[8];
  memset(out, 0x5A, sizeof out);
  unsigned int src = 5, dst = sizeof out;
  EXPECT_LT(c->DoConversion(utf16, &src, out, &dst), 0);
  EXPECT_EQ(out[0], 0x5A);
  src = 4;
  EXPECT_EQ(c->DoConversion(utf16, &src, out, &dst), S_OK);
  EXPECT_EQ(dst, 2u);
  c->Release();
  ASSERT_EQ(Qz_CreateMLangConvertor(&c, 65001, 1200, 0), S_OK);
  unsigned char wide[5];
  memset(wide, 0x5A, sizeof wide);
  src = 3;
  dst = 5;  // room for two units and a half
  EXPECT_EQ(c->DoConversion(reinterpret_cast<unsigned char*>(const_cast<char*>("xyz")), &src, wide, &dst),
            QZ_E_INSUFFICIENT_BUFFER);
  EXPECT_EQ(dst, 4u);
  EXPECT_EQ(wide[4], 0x5A);
  c->Release();
}

TEST_F(Convert, CharactersThePageLacksBecomeItsDefault) {
  ActivePage page(1252);
  QzReleaseConverters();
  Wide w = {'a', 0x4E2D, 0xD83D, 0xDE00, 0x20AC};
  std::vector<char> b;
  EXPECT_EQ(TwoPass<char>(QZ_UTF16_TO_MBCHAR, w.data(), static_cast<unsigned>(w.size()), &b), S_OK);
  EXPECT_EQ(std::string(b.begin(), b.end()), "a??\x80");
  // The holes of 1252 stand for C1 controls, as MultiByteToWideChar has them.
  char hole[] = "\x81";
  std::vector<unsigned short> back;
  EXPECT_EQ(TwoPass<unsigned short>(QZ_MBCHAR_TO_UTF16, hole, 1u, &back), S_OK);
  EXPECT_EQ(back, Wide{0x81});
  QzReleaseConverters();
}

TEST_F(Convert, EmbeddedZerosAreTextWhenCounted) {
  for (UINT cp : {932u, 1252u, 65001u}) {
    SCOPED_TRACE(cp);
    ActivePage page(cp);
    QzReleaseConverters();
    char text[] = "a\0b";
    std::vector<unsigned short> w;
    EXPECT_EQ(TwoPass<unsigned short>(QZ_MBCHAR_TO_UTF16, text, 3u, &w), S_OK);
    EXPECT_EQ(w, (Wide{'a', 0, 'b'}));
    std::vector<char> b;
    EXPECT_EQ(TwoPass<char>(QZ_MBCHAR_TO_UTF8, text, 3u, &b), S_OK);
    EXPECT_EQ(std::string(b.begin(), b.end()), std::string("a\0b", 3));
  }
  QzReleaseConverters();
}

TEST_F(Convert, ConvertersForHostsCoverOtherPages) {
  IMLangConvertCharset* c = nullptr;
  EXPECT_EQ(Qz_CreateMLangConvertor(nullptr, 1200, 65001, 0), E_POINTER);
  ASSERT_EQ(Qz_CreateMLangConvertor(&c, 51932, 65001, 0x42), S_OK);
  unsigned int cp = 0;
  DWORD prop = 0;
  EXPECT_EQ(c->GetSourceCodePage(&cp), S_OK);
  EXPECT_EQ(cp, 51932u);
  EXPECT_EQ(c->GetProperty(&prop), S_OK);
  EXPECT_EQ(prop, 0x42u);
  unsigned char eucjp[] = "\xC6\xFC\xCB\xDC";  // 日本
  unsigned char out[16];
  unsigned int src = 0xFFFFFFFFu, dst = sizeof out;
  EXPECT_EQ(c->DoConversion(eucjp, &src, out, &dst), S_OK);
  EXPECT_EQ(src, 4u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), dst), "\xE6\x97\xA5\xE6\x9C\xAC");
  void* again = nullptr;
  EXPECT_EQ(c->QueryInterface(QZ_IID_IMLangConvertCharset, &again), S_OK);
  EXPECT_EQ(again, c);
  EXPECT_EQ(c->Release(), 1u);
  EXPECT_EQ(c->QueryInterface(IID_IClassFactory, &again), E_NOINTERFACE);
  EXPECT_EQ(again, nullptr);
  EXPECT_EQ(c->Release(), 0u);

  // A stateful page writes its default through its own escapes.
  ASSERT_EQ(Qz_CreateMLangConvertor(&c, 65001, 50220, 0), S_OK);
  unsigned char mixed[] = "\xE6\x97\xA5\xC3\xA9x";
  src = 0xFFFFFFFFu;
  dst = sizeof out;
  EXPECT_EQ(c->DoConversion(mixed, &src, out, &dst), S_OK);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), dst), "\x1B$BF|\x1B(B?x");
  // The wide-counted forms go through UTF-16 whatever the other page is.
  c->Release();
  ASSERT_EQ(Qz_CreateMLangConvertor(&c, 1252, 65001, 0), S_OK);
  char cafe[] = "caf\xE9";
  unsigned short w[8];
  src = 4;
  unsigned int units = 8;
  EXPECT_EQ(c->DoConversionToUnicode(cafe, &src, w, &units), S_OK);
  EXPECT_EQ(units, 4u);
  EXPECT_EQ(w[3], 0xE9);
  char utf8[8];
  unsigned int bytes = sizeof utf8;
  EXPECT_EQ(c->DoConversionFromUnicode(w, &units, utf8, &bytes), S_OK);
  EXPECT_EQ(std::string(utf8, bytes), "caf\xC3\xA9");
  EXPECT_EQ(units, 4u);
  bytes = 2;  // too small: the wide size stays as it was
  units = 4;
  EXPECT_EQ(c->DoConversionFromUnicode(w, &units, utf8, &bytes), QZ_E_INSUFFICIENT_BUFFER);
  EXPECT_EQ(units, 4u);
  c->Release();
  ASSERT_EQ(Qz_CreateMLangConvertor(&c, 0, 1200, 0), S_OK);  // 0: the ANSI page
  EXPECT_EQ(c->GetSourceCodePage(&cp), S_OK);
  EXPECT_EQ(cp, GetACP());
  char ab[] = "ab";
  c->Release();

  // A pair the library cannot convert: S_FALSE, as the component has it.
  ASSERT_EQ(Qz_CreateMLangConvertor(&c, 65001, 4711, 0), S_FALSE);
  src = 2;
  dst = sizeof out;
  EXPECT_EQ(c->DoConversion(reinterpret_cast<unsigned char*>(ab), &src, out, &dst), S_FALSE);
  EXPECT_EQ(dst, 0u);
  c->Release();
}

TEST_F(Convert, ComponentLayerRefusesWhatItDoesNotKnow) {
  void* p = reinterpret_cast<void*>(1);
  EXPECT_EQ(CoGetClassObject(IID_IUnknown, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory, &p),
            REGDB_E_CLASSNOTREG);
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
  IMLangConvertCharset* c = static_cast<IMLangConvertCharset*>(obj);
  unsigned char b[4];
  unsigned int s = 1, d = 4;
  EXPECT_LT(c->DoConversion(b, &s, b, &d), 0);  // not initialised
  c->Release();
  f->Release();
}

TEST_F(Convert, UnavailableComponentFailsEveryConversion) {
  qztest::FaultScope fault(QZ_FAULT_CONVERTER);
  char text[] = "abc";
  unsigned short wide[4] = {0x5A5A, 0x5A5A, 0x5A5A, 0x5A5A};
  unsigned int src = 3, dst = 4;
  EXPECT_EQ(QZ_UTF8_TO_UTF16(text, &src, wide, &dst), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(dst, 4u);
  EXPECT_EQ(wide[0], 0x5A5A);
  EXPECT_LT(QZ_MBCHAR_TO_UTF16(text, &src, nullptr, &dst), 0);
  IMLangConvertCharset* c = reinterpret_cast<IMLangConvertCharset*>(1);
  EXPECT_EQ(Qz_CreateMLangConvertor(&c, 65001, 1200, 0), REGDB_E_CLASSNOTREG);
  EXPECT_EQ(c, nullptr);
  EXPECT_EQ(QzCachedConverter(QZ_CONV_UTF8_TO_UTF16), nullptr);
  EXPECT_GE(fault.hits(), 3u);
}

TEST_F(Convert, ReleaseAndTerminateThenRebuild) {
  EXPECT_EQ(Utf16From8("x"), Wide{'x'});
  IMLangConvertCharset* first = QzCachedConverter(QZ_CONV_UTF8_TO_UTF16);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Utf16From8("y"), Wide{'y'});
  EXPECT_EQ(QzCachedConverter(QZ_CONV_UTF8_TO_UTF16), first);  // kept between calls
  QzReleaseConverters();
  EXPECT_EQ(QzCachedConverter(QZ_CONV_UTF8_TO_UTF16), nullptr);
  EXPECT_EQ(Utf16From8("z"), Wide{'z'});
  EXPECT_NE(QzCachedConverter(QZ_CONV_UTF8_TO_UTF16), nullptr);
  Qz_TerminateLibrary();
  EXPECT_EQ(QzCachedConverter(QZ_CONV_UTF8_TO_UTF16), nullptr);
  EXPECT_EQ(Utf8From16(Wide{0xE9}), "\xC3\xA9");
  EXPECT_NE(QzCachedConverter(QZ_CONV_UTF16_TO_UTF8), nullptr);
  Qz_TerminateLibrary();
  Qz_TerminateLibrary();  // twice is harmless
}

TEST_F(Convert, ConcurrentFirstUseLeavesOneObject) {
  for (int round = 0; round < 10; ++round) {
    QzReleaseConverters();
    const int kThreads = 4;
    std::atomic<int> ready{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        ready.fetch_add(1);
        while (ready.load() < kThreads) std::this_thread::yield();
        std::string text = "t\xC3\xA9xt " + std::to_string(t);
        unsigned short out[32];
        for (int i = 0; i < 50; ++i) {
          unsigned int src = static_cast<unsigned>(text.size()), dst = 32;
          if (QZ_UTF8_TO_UTF16(&text[0], &src, out, &dst) != S_OK || dst != text.size() - 1 || out[1] != 0xE9)
            failures.fetch_add(1);
          unsigned int back = 32;
          char narrow[32];
          unsigned int units = dst;
          if (QZ_UTF16_TO_UTF8(out, &units, narrow, &back) != S_OK ||
              std::string(narrow, back) != text)
            failures.fetch_add(1);
        }
      });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    IMLangConvertCharset* c = QzCachedConverter(QZ_CONV_UTF8_TO_UTF16);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->AddRef(), 2u);  // the slot holds the only other reference
    c->Release();
  }
}
