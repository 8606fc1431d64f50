// The six conversions, their cached objects and the converter component.
#include <gtest/gtest.h>

#include <qzbase/QzConvert.h>
#include <qzbase/QzFrame.h>

#include <string.h>

#include <string>
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
      {"0xFFFFFFFF not doubled", QZ_CONV_UTF16_TO_UTF8, 0xFFFFFFFFu, 50, 6, 3, S_OK, 0xFFFFFFFFu, 50, 3, 3},
      {"a failure keeps the 16-bit side", QZ_CONV_MBCHAR_TO_UTF16, 7, 9, 1, 2, HRESULT(0x80041234u), 7, 18, 1, 9},
      {"bytes to bytes: no scaling", QZ_CONV_MBCHAR_TO_UTF8, 5, 11, 5, 6, S_OK, 5, 11, 5, 6},
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
      {1252, QZ_CONV_UTF8_TO_MBCHAR, "a\xFF\xC3\xA9\xE4\xB8\xAD", {}, "a?\xE9?", {}},
      {1252, QZ_CONV_UTF16_TO_MBCHAR, "", {0xDC00, 'x', 0x4E2D, 0}, std::string("?x?\0", 4), {}},
      {1253, QZ_CONV_MBCHAR_TO_UTF16, "\xC1\xAA", {}, "", {0x391, 0xFFFD}},
      {932, QZ_CONV_MBCHAR_TO_UTF16, "\x81\x20" "a\x81", {}, "", {0xFFFD, ' ', 'a', 0xFFFD}},
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
