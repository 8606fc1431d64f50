// The platform's text services: MultiByteToWideChar / WideCharToMultiByte over
// every kind of page, and the narrow and wide routines of the active page,
// which must not depend on the host's locale.
#include <gtest/gtest.h>

#include <locale.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "QzTestSupport.h"
#include "TextTestSupport.h"

using namespace qzsys;
using qztest::ActivePage;
using qztest::W;

namespace {

typedef std::vector<WCHAR> Wide;

Wide ToWide(UINT cp, const std::string& b) {
  const int n = MultiByteToWideChar(cp, 0, b.data(), static_cast<int>(b.size()), nullptr, 0);
  Wide out(std::max(n, 0));
  if (n > 0) MultiByteToWideChar(cp, 0, b.data(), static_cast<int>(b.size()), out.data(), n);
  return out;
}

std::string ToBytes(UINT cp, const Wide& w, BOOL* used = nullptr, const char* dflt = nullptr) {
  const int size = static_cast<int>(w.size()), n = WideCharToMultiByte(cp, 0, w.data(), size, nullptr, 0, dflt, used);
  std::string out(std::max(n, 0), '\0');
  if (n > 0) WideCharToMultiByte(cp, 0, w.data(), size, &out[0], n, dflt, used);
  return out;
}

const unsigned char* U(const char* s) { return reinterpret_cast<const unsigned char*>(s); }
int Sign(int v) { return (v > 0) - (v < 0); }

}  // namespace

TEST(TextConversion, KnownTextsTerminatorsMeasureTooSmallAndBadArguments) {
  for (const auto& s : qztest::kPageSamples) {
    ASSERT_TRUE(IsValidCodePage(s.cp)) << s.cp;
    EXPECT_EQ(ToWide(s.cp, s.bytes), W(s.utf16)) << s.cp;
    EXPECT_EQ(ToBytes(s.cp, W(s.utf16)), s.bytes) << s.cp;
  }
  WCHAR w[8];
  EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "ab\xC3\xA9", -1, w, 8), 4);
  EXPECT_EQ(Wide(w, w + 4), (Wide{'a', 'b', 0xE9, 0}));
  const WCHAR src[] = {'x', 0xD83D, 0xDE00, 0};
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, src, -1, nullptr, 0, nullptr, nullptr), 6);
  char out[8];
  memset(out, 0x55, sizeof out);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, src, -1, out, 3, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(std::string(out + 3, 5), std::string(5, 0x55));
  WCHAR small[2] = {0x5555, 0x5555};
  EXPECT_EQ(MultiByteToWideChar(932, 0, "\x93\xFA\x96\x7B", 4, small, 1), 0);
  EXPECT_EQ(small[1], 0x5555);
  // Bad arguments: 0 and ERROR_INVALID_PARAMETER.
  char b[4];
  const int results[] = {
      MultiByteToWideChar(CP_UTF8, 0, nullptr, 3, w, 4),  MultiByteToWideChar(CP_UTF8, 0, "abc", -2, w, 4),
      MultiByteToWideChar(CP_UTF8, 0, "abc", 3, w, -1),   MultiByteToWideChar(CP_UTF16LE, 0, "abc", 3, w, 4),
      WideCharToMultiByte(CP_UTF8, 0, src, 1, nullptr, 4, nullptr, nullptr),
      WideCharToMultiByte(CP_UTF8, 0, src, 1, b, 4, "?", nullptr),  // no default character in UTF-8
      WideCharToMultiByte(54321, 0, src, 1, b, 4, nullptr, nullptr)};
  for (size_t i = 0; i < sizeof results / sizeof results[0]; ++i) EXPECT_EQ(results[i], 0) << "case " << i;
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
}

TEST(TextConversion, InvalidInputIsReplacedOrRefused) {
  // UTF-8: stray trail, lead without trail, overlong, surrogate, above U+10FFFF,
  // cut at the end (one maximal part); holes of single-byte pages; a bad pair
  // and a lead byte at the end in 932.
  const struct { UINT cp; const char* bytes; Wide replaced; } rows[] = {
      {CP_UTF8, "a\x80z", {'a', 0xFFFD, 'z'}}, {CP_UTF8, "a\xC3z", {'a', 0xFFFD, 'z'}},
      {CP_UTF8, "\xC0\xAF", {0xFFFD, 0xFFFD}}, {CP_UTF8, "\xED\xA0\x80", {0xFFFD, 0xFFFD, 0xFFFD}},
      {CP_UTF8, "\xF4\x90\x80\x80", {0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD}}, {CP_UTF8, "\xE2\x82", {0xFFFD}},
      {CP_UTF8, "\xF0\x9F\x98", {0xFFFD}}, {1253, "\xAA", {'?'}}, {20127, "\xE9", {'?'}},
      {932, "\x81\x20z", {'?', ' ', 'z'}}, {932, "a\x93", {'a', '?'}}};
  for (const auto& r : rows) {
    SCOPED_TRACE(testing::Message() << r.cp << " \"" << r.bytes << '"');
    EXPECT_EQ(ToWide(r.cp, r.bytes), r.replaced);
    SetLastError(0);
    EXPECT_EQ(MultiByteToWideChar(r.cp, MB_ERR_INVALID_CHARS, r.bytes, -1, nullptr, 0), 0);
    EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
  }
  EXPECT_EQ(ToBytes(CP_UTF8, {'a', 0xD800, 'b', 0xDC00}), "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
  const WCHAR lone[] = {0xDBFF};
  SetLastError(0);
  EXPECT_EQ(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, lone, 1, nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(GetLastError(), ERROR_NO_UNICODE_TRANSLATION);
  BOOL used = FALSE;
  EXPECT_EQ(ToBytes(1252, {'a', 0x0100, 0x4E2D}, &used), "a??");
  EXPECT_TRUE(used);
  EXPECT_EQ(ToBytes(1252, {'a'}, &used), "a");
  EXPECT_FALSE(used);
  EXPECT_EQ(ToBytes(1252, {0xD83D, 0xDE00}, &used, "*"), "*");      // one default for a whole pair
  EXPECT_EQ(ToBytes(932, {0x00E9}, &used, "\x81\x45"), "\x81\x45");  // a double-byte default
}

// Counts are characters of the page: one to four bytes in UTF-8, one in 1252,
// one or two in 932 ("日本a", a full-width A 82 60 and a half-width katakana).
// Case and classes come from the library's own tables, whatever locale the
// host has set.
TEST(TextRoutines, FollowTheActivePageAndOwnTablesNotTheHostLocale) {
  const struct { UINT cp; const char* s; size_t chars; } counts[] = {
      {CP_UTF8, "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", 4}, {932, "\x93\xFA\x96\x7B" "a\x82\x60\xB1", 5},
      {1252, "caf\xE9", 4}, {CP_UTF8, "\x80\xC3", 2}, {CP_UTF8, "\xE2\x82", 2}, {932, "\x93", 1}};  // bad bytes singly
  const struct { UINT cp; bool fold; const char* a; const char* b; size_t n; int sign; } compares[] = {
      {CP_UTF8, false, "\xC3\xA9" "ax", "\xC3\xA9" "ay", 3, -1},
      {CP_UTF8, false, "z", "\xC3\xA9", 1, -1},
      {CP_UTF8, true, "\xC3\x89T\xC3\x89", "\xC3\xA9t\xC3\xA9!", 3, 0}, {CP_UTF8, true, "_", "A", 1, -1},  // folds down
      {1252, false, "\xC9", "\xE9", 1, -1},
      {1252, true, "\xC9T\xC9", "\xE9t\xE9", 3, 0}, {932, false, "\x93\xFA", "z", 1, 1},
      {932, false, "\x93\xFA" "x", "\x93\xFA" "y", 2, -1},
      {932, true, "\x82\x60" "B", "\x82\x81" "b", 2, 0}};
  const struct { UINT cp; const char* upper; const char* lower; } cases[] = {
      {CP_UTF8, "\xC3\x89T \xCE\xA3\xCE\x9F\xCE\xA6 \xC5\xB8", "\xC3\xA9t \xCF\x83\xCE\xBF\xCF\x86 \xC3\xBF"},
      {1252, "CAF\xC9 \x8A\x8C\x9F \xD7 \xDF \xB5", "caf\xE9 \x9A\x9C\xFF \xD7 \xDF \xB5"},
      {932, "AB\x82\x60\x93\xFA", "ab\x82\x81\x93\xFA"}, {CP_UTF8, "I\xC3", "i\xC3"}};  // a bad byte is left alone
  const struct { UINT cp; int (*is)(unsigned int); unsigned int c; bool yes; } narrowClasses[] = {
      {CP_UTF8, _ismbcspace, ' ', 1}, {CP_UTF8, _ismbcspace, 0xC2A0, 1}, {CP_UTF8, _ismbcspace, 0xE38080, 1},
      {CP_UTF8, _ismbcspace, 0xA0, 0}, {CP_UTF8, _ismbcspace, 0xFFFFFFA0u, 0},  // a lone or sign-extended byte
      {CP_UTF8, _ismbclower, 0xC3A9, 1}, {CP_UTF8, _ismbclower, 0xC389, 0}, {CP_UTF8, _ismbcupper, 0xC389, 1},
      {CP_UTF8, _ismbcdigit, 0xEFBC91, 0},  // full-width digits are not digits
      {1252, _ismbcspace, 0xA0, 1}, {1252, _ismbclower, 0xC9, 0}, {932, _ismbcspace, 0x8140, 1}};
  const struct { UINT cp; const char* s; unsigned int c; int at; } finds[] = {
      {CP_UTF8, "a\xC3\xA9.b", 0, 5},
      {CP_UTF8, "a\xC3\xA9.b", 0xA9, -1}, {1252, "ab\xE9", 0xE9, 2},  // never a character's second byte
      {932, "\x93\xFA\x96\x7B" "a", '{', -1}, {932, "\x93\xFA\x96\x7B" "a", 0x967B, 2}};
  const struct { WCHAR c; int type; bool yes; } wideClasses[] = {
      {0x85, _SPACE, 1}, {0x3000, _SPACE, 1}, {0x200B, _SPACE, 0}, {0x180E, _SPACE, 0}, {0x0663, _DIGIT, 0},
      {0xDF, _LOWER, 1}, {0x3B1, _UPPER, 0}, {0x4E2D, _ALPHA, 1}, {'x', _DIGIT | _SPACE, 0}};
  const std::string keep = setlocale(LC_ALL, nullptr);
  for (const char* locale : {"C", "tr_TR.UTF-8", ""}) {
    if (!setlocale(LC_ALL, locale)) continue;
    SCOPED_TRACE(locale);
    for (const auto& r : counts) {
      ActivePage page(r.cp);
      size_t n = 0;
      for (const unsigned char* p = U(r.s); *p; p = _mbsinc(p)) ++n;
      EXPECT_EQ(n, r.chars) << r.cp << " " << r.s;
    }
    for (const auto& r : compares) {
      ActivePage page(r.cp);
      EXPECT_EQ(Sign((r.fold ? _mbsnicmp : _mbsncmp)(U(r.a), U(r.b), r.n)), r.sign) << r.cp << " " << r.a << " " << r.b;
    }
    for (const auto& r : cases) {
      ActivePage page(r.cp);
      std::string s = r.upper;
      _mbslwr(reinterpret_cast<unsigned char*>(&s[0]));
      EXPECT_EQ(s, r.lower) << r.cp;
      _mbsupr(reinterpret_cast<unsigned char*>(&s[0]));
      EXPECT_EQ(s, r.upper) << r.cp;
    }
    for (const auto& r : narrowClasses) {
      ActivePage page(r.cp);
      EXPECT_EQ(r.is(r.c) != 0, r.yes) << r.cp << " 0x" << std::hex << r.c;
    }
    for (const auto& r : finds) {
      ActivePage page(r.cp);
      EXPECT_EQ(_mbschr(U(r.s), r.c), r.at < 0 ? nullptr : U(r.s) + r.at) << r.cp << " 0x" << std::hex << r.c;
    }
    for (const auto& r : wideClasses) {
      EXPECT_EQ(qzsys::iswctype(r.c, r.type) != 0, r.yes) << std::hex << r.c << " " << r.type;
      EXPECT_TRUE(r.type != _SPACE || (qzsys::iswspace(r.c) != 0) == r.yes) << std::hex << r.c;
    }
    // Dotless i, the multiplication sign, sharp s and dotted I keep their forms.
    std::u16string w = u"\u00C9T \u0100\u0139\u0178 \u03A3\u03C2 \u042F\u0460\u04C1 \uFF21 \u0130\u00DF\u0131\u00D7";
    _wcslwr(reinterpret_cast<WCHAR*>(&w[0]));
    EXPECT_EQ(W(w), W(u"\u00E9t \u0101\u013A\u00FF \u03C3\u03C2 \u044F\u0461\u04C2 \uFF41 \u0130\u00DF\u0131\u00D7"));
    _wcsupr(reinterpret_cast<WCHAR*>(&w[0]));
    EXPECT_EQ(W(w), W(u"\u00C9T \u0100\u0139\u0178 \u03A3\u03A3 \u042F\u0460\u04C1 \uFF21 \u0130\u00DF\u0131\u00D7"));
    const WCHAR a[] = {'A', 0x3A3, 'x', 0}, b[] = {'a', 0x3C3, 'y', 0}, under[] = {'_', 0};
    EXPECT_EQ(_wcsnicmp(a, b, 2), 0);
    EXPECT_LT(_wcsnicmp(a, b, 3), 0);
    EXPECT_LT(_wcsnicmp(under, a, 1), 0);  // folds to lower case
  }
  setlocale(LC_ALL, keep.c_str());
}
