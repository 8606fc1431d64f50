// MultiByteToWideChar / WideCharToMultiByte over every kind of page.
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "QzTestSupport.h"
#include "TextTestSupport.h"

using namespace qzsys;
using qztest::W;

namespace {

std::vector<WCHAR> ToWide(UINT cp, const std::string& bytes, DWORD flags = 0) {
  int n = MultiByteToWideChar(cp, flags, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
  std::vector<WCHAR> out(n > 0 ? n : 0);
  if (n > 0) {
    EXPECT_EQ(MultiByteToWideChar(cp, flags, bytes.data(), static_cast<int>(bytes.size()), out.data(), n), n);
  }
  return out;
}

std::string ToBytes(UINT cp, const std::vector<WCHAR>& w, BOOL* usedDefault = nullptr,
                    const char* defaultChar = nullptr) {
  int n = WideCharToMultiByte(cp, 0, w.data(), static_cast<int>(w.size()), nullptr, 0, defaultChar, usedDefault);
  std::string out(n > 0 ? n : 0, '\0');
  if (n > 0) {
    EXPECT_EQ(WideCharToMultiByte(cp, 0, w.data(), static_cast<int>(w.size()), &out[0], n, defaultChar, usedDefault), n);
  }
  return out;
}

struct Sample {
  UINT cp;
  const char* bytes;
  const char16_t* text;
};

// One known text per page, both ways.
const Sample kSamples[] = {
    {65001, "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", u"A\u00E9\u20AC\U0001F600"},
    {1250, "\x8A\xE8\xF8", u"\u0160\u010D\u0159"},
    {1251, "\xCF\xF0\xE8\xE2\xE5\xF2", u"\u041F\u0440\u0438\u0432\u0435\u0442"},
    {1252, "\x80 caf\xE9 \x81", u"\u20AC caf\u00E9 \u0081"},
    {1253, "\xC1\xE8\xDE\xED\xE1", u"\u0391\u03B8\u03AE\u03BD\u03B1"},
    {1254, "\xD0\xFD\xDE", u"\u011E\u0131\u015E"},
    {1255, "\xF9\xEC\xE5\xED", u"\u05E9\u05DC\u05D5\u05DD"},
    {1256, "\xD3\xE1\xC7\xE3", u"\u0633\u0644\u0627\u0645"},
    {1257, "\xD0\xFE", u"\u0160\u017E"},
    {1258, "Vi\xEAt", u"Vi\u00EAt"},
    {874, "\xCA\xC7\xD1\xCA\xB4\xD5", u"\u0E2A\u0E27\u0E31\u0E2A\u0E14\u0E35"},
    {28591, "\xE9\xFF\x80", u"\u00E9\u00FF\u0080"},
    {28605, "\xA4\xBD", u"\u20AC\u0153"},
    {20127, "plain", u"plain"},
    {20866, "\xF0\xD2\xC9", u"\u041F\u0440\u0438"},
    {932, "\x93\xFA\x96\x7B\xB1\x41", u"\u65E5\u672C\uFF71A"},
    {936, "\xD6\xD0\xCE\xC4", u"\u4E2D\u6587"},
    {949, "\xC7\xD1\xB1\xB9", u"\uD55C\uAD6D"},
    {950, "\xA4\xA4\xA4\xE5", u"\u4E2D\u6587"},
};

}  // namespace

TEST(TextConversion, KnownTextsInEveryPageBothWays) {
  for (const Sample& s : kSamples) {
    SCOPED_TRACE(s.cp);
    ASSERT_TRUE(IsValidCodePage(s.cp));
    EXPECT_EQ(ToWide(s.cp, s.bytes), W(s.text));
    EXPECT_EQ(ToBytes(s.cp, W(s.text)), s.bytes);
  }
}

TEST(TextConversion, TerminatorAndMeasureFollowWindows) {
  // -1 counts the terminator on both sides.
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "ab\xC3\xA9", -1, nullptr, 0), 4);
  WCHAR w[8];
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "ab\xC3\xA9", -1, w, 8), 4);
  EXPECT_EQ(w[2], 0xE9);
  EXPECT_EQ(w[3], 0);
  const WCHAR src[] = {'x', 0xD83D, 0xDE00, 0};
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, src, -1, nullptr, 0, nullptr, nullptr), 6);
  // Too small: 0 and ERROR_INSUFFICIENT_BUFFER, nothing past the buffer.
  char out[8];
  memset(out, 0x55, sizeof out);
  SetLastError(0);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, src, -1, out, 3, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  for (int i = 3; i < 8; ++i) EXPECT_EQ(out[i], 0x55);
  WCHAR small[2] = {0x5555, 0x5555};
  EXPECT_EQ(MultiByteToWideChar(932, 0, "\x93\xFA\x96\x7B", 4, small, 1), 0);
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(small[1], 0x5555);
  // The active page through CP_ACP.
  EXPECT_EQ(MultiByteToWideChar(CP_ACP, 0, "\xC3\xA9", 2, w, 8), GetACP() == CP_UTF8 ? 1 : 2);
}

TEST(TextConversion, BadArgumentsFailWithInvalidParameter) {
  WCHAR w[4];
  char b[4];
  const WCHAR src[] = {'a', 0};
  struct { int result; } cases[] = {
      {MultiByteToWideChar(CP_UTF8, 0, nullptr, 3, w, 4)},
      {MultiByteToWideChar(CP_UTF8, 0, "abc", 0, w, 4)},
      {MultiByteToWideChar(CP_UTF8, 0, "abc", -2, w, 4)},
      {MultiByteToWideChar(CP_UTF8, 0, "abc", 3, nullptr, 4)},
      {MultiByteToWideChar(CP_UTF8, 0, "abc", 3, w, -1)},
      {MultiByteToWideChar(12345, 0, "abc", 3, w, 4)},
      {MultiByteToWideChar(CP_UTF16LE, 0, "abc", 3, w, 4)},
      {WideCharToMultiByte(CP_UTF8, 0, nullptr, 2, b, 4, nullptr, nullptr)},
      {WideCharToMultiByte(CP_UTF8, 0, src, 1, nullptr, 4, nullptr, nullptr)},
      {WideCharToMultiByte(CP_UTF8, 0, src, 1, b, 4, "?", nullptr)},
      {WideCharToMultiByte(54321, 0, src, 1, b, 4, nullptr, nullptr)},
  };
  for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) EXPECT_EQ(cases[i].result, 0) << i;
  SetLastError(0);
  MultiByteToWideChar(CP_UTF8, 0, nullptr, 3, w, 4);
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(TextConversion, InvalidUtf8IsReplacedOrRefused) {
  struct {
    const char* bytes;
    std::vector<WCHAR> replaced;
  } rows[] = {
      {"a\x80z", {'a', 0xFFFD, 'z'}},                    // stray continuation
      {"a\xC3z", {'a', 0xFFFD, 'z'}},                    // lead without trail
      {"\xC0\xAF", {0xFFFD, 0xFFFD}},                    // overlong
      {"\xED\xA0\x80", {0xFFFD, 0xFFFD, 0xFFFD}},        // encoded surrogate
      {"\xF4\x90\x80\x80", {0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD}},  // above U+10FFFF
      {"\xE2\x82", {0xFFFD}},                            // cut at the end: one maximal part
      {"\xF0\x9F\x98", {0xFFFD}},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.bytes);
    EXPECT_EQ(ToWide(CP_UTF8, r.bytes), r.replaced);
    SetLastError(0);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, r.bytes, static_cast<int>(strlen(r.bytes)),
                                  nullptr, 0), 0);
    EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
  }
}

TEST(TextConversion, LoneSurrogatesAndUnmappableCharacters) {
  EXPECT_EQ(ToBytes(CP_UTF8, {'a', 0xD800, 'b'}), "a\xEF\xBF\xBD" "b");
  EXPECT_EQ(ToBytes(CP_UTF8, {0xDC00}), "\xEF\xBF\xBD");
  const WCHAR lone[] = {0xDBFF};
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, lone, 1, nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);

  BOOL used = FALSE;
  EXPECT_EQ(ToBytes(1252, {'a', 0x0100, 0x4E2D}, &used), "a??");
  EXPECT_TRUE(used);
  used = TRUE;
  EXPECT_EQ(ToBytes(1252, {'a'}, &used), "a");
  EXPECT_FALSE(used);
  EXPECT_EQ(ToBytes(1252, {0xD83D, 0xDE00}, &used, "*"), "*");  // one default for a whole pair
  EXPECT_EQ(ToBytes(932, {0x00E9}, &used, "\x81\x45"), "\x81\x45");  // a double-byte default

  // Single-byte holes: C1 controls in 0x80-0x9F, invalid above.
  EXPECT_EQ(ToWide(1253, "\xAA"), W(u"?"));
  EXPECT_EQ(MultiByteToWideChar(1253, MB_ERR_INVALID_CHARS, "\xAA", 1, nullptr, 0), 0);
  EXPECT_EQ(ToWide(20127, "\xE9"), W(u"?"));
  // Double-byte: a bad pair is one '?', a lead byte at the end too.
  EXPECT_EQ(ToWide(932, "\x81\x20z"), W(u"? z"));
  EXPECT_EQ(ToWide(932, "a\x93"), W(u"a?"));
  EXPECT_EQ(MultiByteToWideChar(932, MB_ERR_INVALID_CHARS, "a\x93", 2, nullptr, 0), 0);
  EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
}

TEST(TextConversion, EveryUtf16UnitRoundTripsThroughUtf8) {
  std::vector<WCHAR> all;
  for (unsigned u = 1; u < 0x10000; ++u)
    if (u < 0xD800 || u > 0xDFFF) all.push_back(static_cast<WCHAR>(u));
  for (unsigned hi = 0xD800; hi <= 0xDBFF; hi += 0x3F) {
    all.push_back(static_cast<WCHAR>(hi));
    all.push_back(0xDC00 + (hi & 0x3FF));
  }
  std::string bytes = ToBytes(CP_UTF8, all);
  EXPECT_EQ(ToWide(CP_UTF8, bytes), all);
}

TEST(TextConversion, DoubleBytePagesRoundTripTheirWholeTable) {
  for (UINT cp : {932u, 936u, 949u, 950u}) {
    SCOPED_TRACE(cp);
    std::vector<WCHAR> decoded;
    std::string pairs;
    for (unsigned lead = 0x81; lead <= 0xFE; ++lead)
      for (unsigned trail = 0x40; trail <= 0xFE; ++trail) {
        char two[2] = {static_cast<char>(lead), static_cast<char>(trail)};
        WCHAR w;
        if (MultiByteToWideChar(cp, MB_ERR_INVALID_CHARS, two, 2, &w, 1) == 1) {
          decoded.push_back(w);
          pairs.append(two, 2);
        }
      }
    EXPECT_GT(decoded.size(), 8000u);
    // Where a character has two codes the page keeps one; the text it gives
    // back must decode to the same characters.
    std::string again = ToBytes(cp, decoded);
    EXPECT_EQ(ToWide(cp, again), decoded);
  }
}
