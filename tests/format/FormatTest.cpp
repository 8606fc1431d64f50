// The format walk, the integer, character and string conversions, and the
// contract of the four entry points, in both widths.
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FormatCheck.h"

using fmtcheck::ExpectA;
using fmtcheck::ExpectBoth;
using fmtcheck::ExpectW;
using fmtcheck::W;
using fmtcheck::WString;

namespace {

struct IntRow {
  const char* expect;
  const char* format;
  int value;
};
void ExpectRows(std::initializer_list<IntRow> rows) {
  for (const IntRow& r : rows) ExpectBoth(r.expect, r.format, r.value);
}

// The v-forms pass their list on untouched.
int CallV(char* b, unsigned n, const char* f, ...) {
  va_list ap;
  va_start(ap, f);
  int r = QZ_VSNPRINTF_A(b, n, f, ap);
  va_end(ap);
  return r;
}

TEST(FormatContract, NullFormatAndVaList) {
  char b[64] = {'x'};
  EXPECT_EQ(0, QZ_SNPRINTF_A(b, 4, nullptr));
  EXPECT_EQ('\0', b[0]);
  EXPECT_EQ(18, CallV(b, sizeof b, "%d|%s|%I64x|%c", -12, "ab", 0x123456789ull, 'z'));
  EXPECT_STREQ("-12|ab|123456789|z", b);
}

TEST(FormatWalk, UnlistedConversionsEndsAndPercent) {
  ExpectRows({
      // An unlisted conversion shows itself, padded with spaces, flags dropped.
      {"h\xC3\xA9llo", "h\xC3\xA9llo", 0}, {"   %y", "%+#05y", 0}, {"%y   |", "%-5y|", 0}, {"%ld", "%lld", 5},
      {"%\xE2\x98\xBA", "%\xE2\x98\xBA", 0},  // narrow: '%' then each byte; wide: '%' then the unit
      // A format ending inside a conversion.
      {"abc", "abc%#08.3", 0}, {"abc", "abc%I64", 0}, {"", "%", 0},
      // '%' takes a width.
      {"%  |", "%-3%|", 0}, {"    %", "%05%", 0}, {"100%", "%d%%", 100}});
  ExpectBoth("42   |", "%*d|", -5, 42);
  ExpectBoth("5", "%.*d", -3, 5);
  ExpectBoth("  005", "%*.*d", 5, 3, 5);
}

TEST(FormatIntegers, SizesBasesFlagsAndPrecision) {
  ExpectRows({
      {"-2147483648", "%d", INT_MIN}, {"-32768", "%hd", 32768}, {"4294967295", "%u", -1}, {"1", "%hu", 65537},
      {"37777777777", "%o", -1}, {"DEADBEEF", "%X", int(0xDEADBEEF)}, {"2345", "%hx", 0x12345},
      // A 0 pad goes after the sign or prefix, and stays beside a left adjust
      // or a precision.
      {"-0042", "%05d", -42}, {" 0042", "% 05d", 42}, {"+0", "%+d", 0}, {"-4200", "%-05d", -42},
      {"00000xff", "%#08x", 255}, {"0", "%#x", 0}, {"0", "%#o", 0}, {"0x0000ff", "%#.6x", 255},
      {"0017", "%#.4o", 15}, {"-00042", "%.5d", -42}, {"0", "%.0d", 0}, {"00000007", "%08.3d", 7}});
  const struct { const char* expect; const char* format; long long value; } wide[] = {
      {"-9223372036854775808", "%I64d", INT64_MIN}, {"-5000000000", "%qd", -5000000000ll},
      {"18446744073709551615", "%I64u", -1}, {"1777777777777777777777", "%I64o", -1}};
  for (const auto& r : wide) ExpectBoth(r.expect, r.format, r.value);
  // Precision is bounded at 511 digits.
  const std::string big = std::string(510, '0') + "1";
  ExpectRows({{("-" + big).c_str(), "%.4294967295d", -1}, {("0x" + big).c_str(), "%#.511x", 1}});
}

TEST(FormatPointersAndCharacters, BothWidths) {
  void* beef = reinterpret_cast<void*>(0xBEEF);
  ExpectBoth("0", "%p", static_cast<void*>(nullptr));
  ExpectBoth("    beef|", "%08p|", beef);
  ExpectBoth("beef 7", "%#.8p %d", beef, 7);
  if (sizeof(void*) == 8) ExpectBoth("ffffffffffffffff", "%p", reinterpret_cast<void*>(UINTPTR_MAX));
  ExpectBoth(std::string("a\0b", 3), "a%cb", 0);
  ExpectBoth("  x|x  |", "%03c|%-3c|", 'x', 'x');
  const struct { bool narrow; const char* expect; const char* format; int value; } rows[] = {
      {true, "A", "%hc", 0x141}, {true, "\xE9", "%C", 0xE9},  // 255 or less: that byte
      {true, "    \xE2\x98\xBA|", "%5lc|", 0x263A},  // width in characters
      {true, "\xE2\x98\xBA", "%C", 0x1263A},  // the low 16 bits
      {false, "\xE2\x98\xBA", "%hc", 0x263A}, {false, "A", "%c", 0x10041}};
  for (const auto& r : rows) r.narrow ? ExpectA(r.expect, r.format, r.value) : ExpectW(r.expect, r.format, r.value);
}

TEST(FormatStrings, SameWidth) {
  const struct { const char* expect; const char* format; const char* value; } rows[] = {
      {"(null)", "%.2s", nullptr}, {"     abc|", "%8.3s|", "abcdef"}, {"ab    |", "%-6s|", "ab"},
      {"   ab", "%05s", "ab"}};  // a 0 flag pads strings with spaces
  for (const auto& r : rows) ExpectA(r.expect, r.format, r.value);
  const WString abc = W("abc");
  ExpectW("   ab", "%05.2s", abc.c_str());
  ExpectW("(null)", "%.1s", static_cast<const unsigned short*>(nullptr));
  // Not terminated: the precision must stop the read (the sanitizer build
  // would catch one unit more), in either width.
  std::vector<char> a(3, 'q');
  std::vector<unsigned short> w(3, 'q');
  ExpectA("qqq", "%.3s", a.data());
  ExpectW("qqq", "%.3s", w.data());
  ExpectA("qqq", "%.3S", w.data());
  ExpectW("qqq", "%.3hs", a.data());
}

TEST(FormatOtherWidth, ConvertedTextPaddingAndPrecision) {
  const WString e = W("h\xC3\xA9llo"), ab = W("ab");
  ExpectA("h\xC3\xA9l", "%.3S", e.c_str());              // precision in source units
  ExpectA("   \xC3\xA9", "%5S", W("\xC3\xA9").c_str());  // width in output bytes
  ExpectA("000ab", "%05S", ab.c_str());                  // unlike %s, a 0 flag pads with zeros
  ExpectA("ab000|", "%-05S|", ab.c_str());
  ExpectA("  (null)", "%8S", static_cast<const unsigned short*>(nullptr));
  ExpectW("    \xC3\xA9|", "%5hs|", "\xC3\xA9");  // width in output units
  ExpectW("(null)", "%hs", static_cast<const char*>(nullptr));
  // Longer than the pieces the converter is fed when the text does not fit,
  // with characters of every length across the piece boundaries.
  std::string u8;
  for (int i = 0; i < 40; ++i) u8 += "a\xC3\xA9\xE2\x98\xBA\xF0\x9F\x98\x80";
  ExpectA(u8, "%S", W(u8).c_str());
  ExpectW(u8 + "!", "%S!", u8.c_str());
}

TEST(FormatCount, StoresTheCountSoFarAndNothingAfterTheCut) {
  int n = -1, before = 0, after = 0;
  short h = -1;
  long long q = -1;
  ExpectBoth("   42", "%5d%hn", 42, &h);
  ExpectBoth("xyz", "xyz%I64n", &q);
  ExpectBoth("x", "%nx%5n", &before, &after);  // no text, and the width does nothing
  EXPECT_EQ(std::vector<long long>({5, 3, 0, 1}), std::vector<long long>({h, q, before, after}));
  ExpectBoth("ok", "o%nk", static_cast<int*>(nullptr));
  char b[6];
  EXPECT_EQ(2, QZ_SNPRINTF_A(b, 3, "abc%n", &n));
  EXPECT_EQ(-1, n);
  EXPECT_EQ(2, QZ_SNPRINTF_A(b, 3, "ab%n", &n));  // a full buffer is not a cut yet
  EXPECT_EQ(2, n);
  // Text of the other width that the buffer cuts reports no cut itself: the
  // %n behind it stores what was stored, padded from the cut length.
  const WString wide = W("abcdefg");
  n = -1;
  EXPECT_EQ(5, QZ_SNPRINTF_A(b, 6, "%8S%n|", wide.c_str(), &n));
  EXPECT_EQ(5, n);
  EXPECT_EQ("   ab", std::string(b));
}

TEST(FormatBadInput, HugeWidthsAreBoundedAndLongFormatsWalked) {
  char b[64];
  std::memset(b, 'q', sizeof b);
  EXPECT_EQ(31, QZ_SNPRINTF_A(b, 32, "%4294967295d", 1));
  EXPECT_EQ(std::string(31, ' '), std::string(b));
  for (const char* f : {"%*d", "%2147483647d%2147483647d"})
    EXPECT_EQ(INT_MAX, QZ_SNPRINTF_A(nullptr, 0, f, f[1] == '*' ? INT_MIN : 1, 1)) << f;
  EXPECT_EQ(63, QZ_SNPRINTF_A(b, 64, "%99999999999999999999d", 1));  // digits past 32 bits wrap
}

}  // namespace
