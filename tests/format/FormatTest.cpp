// The format walk, the integer, character and string conversions, and the
// contract of the four entry points, in both widths.
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "FormatCheck.h"

using fmtcheck::ExpectA;
using fmtcheck::ExpectPaddedA;
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

TEST(FormatContract, PlainTextAndNullFormat) {
  ExpectBoth("", "");
  ExpectBoth("abcd", "abcd");
  ExpectBoth("h\xC3\xA9llo w\xC3\xB6rld", "h\xC3\xA9llo w\xC3\xB6rld");
  char b[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(0, QZ_SNPRINTF_A(b, 4, nullptr));
  EXPECT_EQ('\0', b[0]);
  EXPECT_EQ(0, QZ_SNPRINTF_A(nullptr, 0, nullptr));
  unsigned short w[2] = {7, 7};
  EXPECT_EQ(0, QZ_SNPRINTF_W(w, 2, nullptr));
  EXPECT_EQ(0, w[0]);
}

// The v-forms pass their list on untouched.
int CallV(char* b, unsigned n, const char* f, ...) {
  va_list ap;
  va_start(ap, f);
  int r = QZ_VSNPRINTF_A(b, n, f, ap);
  va_end(ap);
  return r;
}
int CallVW(unsigned short* b, unsigned n, const unsigned short* f, ...) {
  va_list ap;
  va_start(ap, f);
  int r = QZ_VSNPRINTF_W(b, n, f, ap);
  va_end(ap);
  return r;
}

TEST(FormatContract, VaListForms) {
  char b[64];
  EXPECT_EQ(18, CallV(b, sizeof b, "%d|%s|%I64x|%c", -12, "ab", 0x123456789ull, 'z'));
  EXPECT_STREQ("-12|ab|123456789|z", b);
  unsigned short w[64];
  const WString f = W("%d|%s|%I64x|%c"), s = W("ab");
  EXPECT_EQ(18, CallVW(w, 64, f.c_str(), -12, s.c_str(), 0x123456789ull, 'z'));
  EXPECT_EQ(W("-12|ab|123456789|z"), WString(w));
}

TEST(FormatWalk, UnlistedConversionsEndsAndPercent) {
  ExpectRows({
      // An unlisted conversion shows itself, padded with spaces, flags dropped.
      {"%y", "%y", 0}, {"   %y", "%5y", 0}, {"%y   |", "%-5y|", 0}, {"   %y", "%+#05y", 0}, {"%F", "%F", 0},
      {"%ld", "%lld", 5}, {"%I32d", "%I32d", 5}, {"a%b", "a%b", 0}, {"%q", "%qq", 0},
      {"%\xE2\x98\xBA", "%\xE2\x98\xBA", 0},  // narrow: '%' then each byte; wide: '%' then the unit
      // A format ending inside a conversion.
      {"abc", "abc%", 0}, {"abc", "abc%-5", 0}, {"abc", "abc%#08.3", 0}, {"abc", "abc%I64", 0}, {"abc", "abc%l", 0},
      {"", "%", 0},
      // '%' takes a width.
      {"%", "%%", 0}, {"    %", "%5%", 0}, {"%  |", "%-3%|", 0}, {"    %", "%05%", 0}, {"100%", "%d%%", 100},
      // A lower-case letter right after '%' means no flags, width or precision.
      {"42", "%d", 42}, {"-7", "%hd", 0xFFF9}});
  ExpectBoth("%Lf", "%Lf", 1.0);
}

TEST(FormatWalk, WidthAndPrecisionFromArguments) {
  ExpectBoth("   42", "%*d", 5, 42);
  ExpectBoth("42   |", "%*d|", -5, 42);
  ExpectBoth("42   |", "%-*d|", -5, 42);
  ExpectBoth("005", "%.*d", 3, 5);
  ExpectBoth("5", "%.*d", -3, 5);
  ExpectBoth("  005", "%*.*d", 5, 3, 5);
  ExpectA("ab", "%.*s", 2, "abcdef");
}

TEST(FormatIntegers, SizesBasesFlagsAndPrecision) {
  ExpectRows({
      {"0", "%d", 0}, {"-1", "%i", -1}, {"-2147483648", "%d", INT_MIN}, {"2147483647", "%ld", INT_MAX},
      {"-1", "%hd", 65535}, {"-32768", "%hd", 32768}, {"4294967295", "%u", -1}, {"1", "%hu", 65537},
      {"10", "%o", 8}, {"37777777777", "%o", -1}, {"deadbeef", "%x", int(0xDEADBEEF)},
      {"DEADBEEF", "%X", int(0xDEADBEEF)}, {"2345", "%hx", 0x12345}, {"7", "%+u", 7},
      // Flags and padding: a 0 pad goes after the sign or prefix, and stays
      // beside a left adjust or a precision.
      {"42000", "%-05d", 42}, {"+0042", "%+05d", 42}, {"-0042", "%05d", -42}, {" 0042", "% 05d", 42},
      {"   42", "% 5d", 42}, {" 42", "% d", 42}, {"+0", "%+d", 0}, {"+42  |", "%-+5d|", 42},
      {"-4200", "%-05d", -42}, {"00000xff", "%#08x", 255}, {"0XFF", "%#X", 255}, {"0", "%#x", 0},
      {"010", "%#o", 8}, {"0", "%#o", 0}, {"0x0000ff", "%#.6x", 255}, {"0017", "%#.4o", 15}, {"42", "%#d", 42},
      {"00042", "%.5d", 42}, {"-00042", "%.5d", -42}, {"0", "%.0d", 0}, {"5", "%.d", 5},
      {"00000007", "%08.3d", 7}, {"007     |", "%-8.3d|", 7}, {"+007", "%+.3d", 7}});
  ExpectBoth("12 -3", "%d %d", 12, -3);
  const struct { const char* expect; const char* format; long long value; } wide[] = {
      {"-9223372036854775808", "%I64d", INT64_MIN}, {"9223372036854775807", "%I64i", INT64_MAX},
      {"-5000000000", "%qd", -5000000000ll}, {"18446744073709551615", "%I64u", -1},
      {"10000000000000000000", "%I64u", static_cast<long long>(10000000000000000000ull)},
      {"4294967296", "%I64u", 4294967296ll}, {"1777777777777777777777", "%I64o", -1},
      {"123456789abcdef0", "%I64x", 0x123456789ABCDEF0ll}};
  for (const auto& r : wide) ExpectBoth(r.expect, r.format, r.value);
  // Precision is bounded at 511 digits.
  const std::string big = std::string(510, '0') + "1";
  ExpectRows({{big.c_str(), "%.600d", 1}, {big.c_str(), "%.511u", 1}, {("-" + big).c_str(), "%.4294967295d", -1},
              {("0x" + big).c_str(), "%#.511x", 1}, {std::string(511, '0').c_str(), "%.9999o", 0}});
}

TEST(FormatPointers, WholePointerWithoutLeadingZeros) {
  void* beef = reinterpret_cast<void*>(0xBEEF);
  ExpectBoth("0", "%p", static_cast<void*>(nullptr));
  ExpectBoth("beef", "%p", beef);
  ExpectBoth("    beef", "%08p", beef);
  ExpectBoth("beef", "%#.8p", beef);
  ExpectBoth("beef  |", "%-6p|", beef);
  ExpectBoth("ffffffff", "%p", reinterpret_cast<void*>(static_cast<uintptr_t>(0xFFFFFFFFu)));
  if (sizeof(void*) == 8) ExpectBoth("ffffffffffffffff", "%p", reinterpret_cast<void*>(UINTPTR_MAX));
  ExpectBoth("1 7", "%p %d", reinterpret_cast<void*>(1), 7);  // the next value is read from the right place
}

TEST(FormatCharacters, NarrowAndWide) {
  ExpectRows({{"A", "%c", 'A'}, {"  x", "%03c", 'x'}});
  ExpectBoth(std::string("a\0b", 3), "a%cb", 0);
  ExpectBoth("  x|x  |", "%3c|%-3c|", 'x', 'x');
  const struct { bool narrow; const char* expect; const char* format; int value; } rows[] = {
      {true, "A", "%hc", 0x141}, {true, "A", "%C", 'A'}, {true, "\xE9", "%C", 0xE9},  // 255 or less: that byte
      {true, "\xE2\x98\xBA", "%C", 0x263A}, {true, "\xE2\x98\xBA", "%lc", 0x263A},
      {true, "    \xE2\x98\xBA|", "%5C|", 0x263A}, {true, "\xE2\x98\xBA    |", "%-5C|", 0x263A},  // width in characters
      {true, "\xE2\x98\xBA", "%C", 0x1263A},  // the low 16 bits
      {false, "\xE2\x98\xBA", "%c", 0x263A}, {false, "\xE2\x98\xBA", "%C", 0x263A},
      {false, "\xE2\x98\xBA", "%hc", 0x263A}, {false, "A", "%c", 0x10041}};
  for (const auto& r : rows) r.narrow ? ExpectA(r.expect, r.format, r.value) : ExpectW(r.expect, r.format, r.value);
}

TEST(FormatStrings, SameWidth) {
  const struct { const char* expect; const char* format; const char* value; } rows[] = {
      {"abc", "%s", "abc"}, {"", "%s", ""}, {"ab", "%.2s", "abcdef"}, {"(null)", "%s", nullptr},
      {"(null)", "%.2s", nullptr}, {"     abc|", "%8.3s|", "abcdef"}, {"ab    |", "%-6s|", "ab"},
      {"   ab", "%05s", "ab"},  // a 0 flag pads strings with spaces
      {"abc", "%hs", "abc"}, {"x=\xC3\xA9", "x=%s", "\xC3\xA9"}};
  for (const auto& r : rows) ExpectA(r.expect, r.format, r.value);
  const WString abc = W("abc"), e = W("h\xC3\xA9llo");
  ExpectW("abc", "%s", abc.c_str());
  ExpectW("abc", "%ls", abc.c_str());
  ExpectW("ab", "%.2s", abc.c_str());
  ExpectW("(null)", "%.1s", static_cast<const unsigned short*>(nullptr));
  ExpectW("  h\xC3\xA9llo|", "%7s|", e.c_str());
  ExpectW("   ab", "%05.2s", abc.c_str());
  // Not terminated: the precision must stop the read (the sanitizer build
  // would catch one unit more), in either width.
  std::vector<char> a(3, 'q');
  std::vector<unsigned short> w(3, 'q');
  ExpectA("qqq", "%.3s", a.data());
  ExpectW("qqq", "%.3s", w.data());
  ExpectA("qqq", "%.3S", w.data());
  ExpectW("qqq", "%.3hs", a.data());
}

TEST(FormatOtherWidth, WideTextInTheNarrowEngine) {
  const WString e = W("h\xC3\xA9llo"), ab = W("ab");
  const unsigned short* none = nullptr;
  ExpectA("h\xC3\xA9llo", "%S", e.c_str());
  ExpectA("h\xC3\xA9llo", "%ls", e.c_str());
  ExpectA("h\xC3\xA9l", "%.3S", e.c_str());                  // precision in source units
  ExpectA("   \xC3\xA9", "%5S", W("\xC3\xA9").c_str());      // width in output bytes
  ExpectA("a\xF0\x9F\x98\x80z", "%S", W("a\xF0\x9F\x98\x80z").c_str());
  ExpectA("000ab", "%05S", ab.c_str());  // unlike %s, a 0 flag pads with zeros
  ExpectA("ab   |", "%-5S|", ab.c_str());
  ExpectA("ab000|", "%-05S|", ab.c_str());
  ExpectA("(null)", "%S", none);
  ExpectA("  (null)", "%8S", none);
  ExpectA("", "%S", W("").c_str());
  ExpectA("[h\xC3\xA9llo] 5", "[%S] %d", e.c_str(), 5);
}

TEST(FormatOtherWidth, NarrowTextInTheWideEngine) {
  const struct { const char* expect; const char* format; const char* value; } rows[] = {
      {"h\xC3\xA9llo", "%S", "h\xC3\xA9llo"}, {"h\xC3\xA9llo", "%hs", "h\xC3\xA9llo"}, {"hel", "%.3hs", "hello"},
      {"    \xC3\xA9|", "%5hs|", "\xC3\xA9"},  // width in output units
      {"000ab", "%05S", "ab"}, {"(null)", "%hs", nullptr}, {"a\xF0\x9F\x98\x80z", "%S", "a\xF0\x9F\x98\x80z"}};
  for (const auto& r : rows) ExpectW(r.expect, r.format, r.value);
  // Longer than the pieces the converter is fed when the text does not fit,
  // with characters of every length across the piece boundaries.
  std::string u8;
  for (int i = 0; i < 40; ++i) u8 += "a\xC3\xA9\xE2\x98\xBA\xF0\x9F\x98\x80";
  const WString w = W(u8);
  ExpectA(u8, "%S", w.c_str());
  ExpectPaddedA(u8, u8.size() + 2, "%*S", static_cast<int>(u8.size() + 2), w.c_str());
  ExpectW(u8, "%hs", u8.c_str());
  ExpectW(u8 + "!", "%S!", u8.c_str());
}

TEST(FormatCount, StoresTheCountSoFarAndNothingAfterTheCut) {
  int n = -1, before = 0, after = 0;
  short h = -1;
  long long q = -1;
  ExpectBoth("abcd", "ab%ncd", &n);
  ExpectBoth("   42", "%5d%hn", 42, &h);
  ExpectBoth("xyz", "xyz%I64n", &q);
  ExpectBoth("x", "%nx%5n", &before, &after);  // no text, and the width does nothing
  EXPECT_EQ(std::vector<long long>({2, 5, 3, 0, 1}), std::vector<long long>({n, h, q, before, after}));
  ExpectBoth("ok", "o%nk", static_cast<int*>(nullptr));
  char b[3];
  n = -1;
  EXPECT_EQ(2, QZ_SNPRINTF_A(b, 3, "abc%n", &n));
  EXPECT_EQ(-1, n);
  EXPECT_EQ(2, QZ_SNPRINTF_A(b, 3, "ab%n", &n));  // a full buffer is not a cut yet
  EXPECT_EQ(2, n);
  // Text of the other width that the buffer cuts reports no cut itself: the
  // %n behind it stores what was stored, padded from the cut length.
  char b6[6];
  unsigned short w6[6];
  const WString wide = W("abcdefg"), wideFormat = W("%8hs%n|");
  for (int i = 0; i < 2; ++i) {
    n = -1;
    const int r = i == 0 ? QZ_SNPRINTF_A(b6, 6, "%8S%n|", wide.c_str(), &n)
                         : QZ_SNPRINTF_W(w6, 6, wideFormat.c_str(), "abcdefg", &n);
    EXPECT_EQ(5, r);
    EXPECT_EQ(5, n);
    EXPECT_EQ("   ab", i == 0 ? std::string(b6) : std::string(w6, w6 + 5));
  }
}

TEST(FormatBadInput, HugeWidthsAreBoundedAndLongFormatsWalked) {
  char b[64];
  std::memset(b, 'q', sizeof b);
  EXPECT_EQ(31, QZ_SNPRINTF_A(b, 32, "%4294967295d", 1));
  EXPECT_EQ(std::string(31, ' '), std::string(b));
  EXPECT_EQ('q', b[32]);
  for (const char* f : {"%4294967295d", "%*d", "%2147483647d%2147483647d", "%2147483647d"})
    EXPECT_EQ(INT_MAX, QZ_SNPRINTF_A(nullptr, 0, f, f[1] == '*' ? INT_MIN : 1, 1)) << f;
  // Digits beyond 32 bits wrap; whatever they mean, the output stays bounded.
  EXPECT_GE(QZ_SNPRINTF_A(nullptr, 0, "%99999999999999999999d", 1), 1);
  EXPECT_EQ(63, QZ_SNPRINTF_A(b, 64, "%99999999999999999999d", 1));
  const WString f = W("%4294967295s"), s = W("x");
  unsigned short w[16];
  EXPECT_EQ(15, QZ_SNPRINTF_W(w, 16, f.c_str(), s.c_str()));
  EXPECT_EQ(INT_MAX, QZ_SNPRINTF_W(nullptr, 0, f.c_str(), s.c_str()));
  std::string many, e;
  for (int i = 0; i < 21; ++i) {
    many += "<%d>";
    e += "<" + std::to_string(i % 7) + ">";
  }
  ExpectBoth(e, many.c_str(), 0, 1, 2, 3, 4, 5, 6, 0, 1, 2, 3, 4, 5, 6, 0, 1, 2, 3, 4, 5, 6);
}

TEST(FormatThreads, EnginesShareNothing) {
  std::vector<std::thread> threads;
  std::vector<int> bad(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &bad] {
      for (int i = 0; i < 2000; ++i) {
        char b[64], e[64];
        QZ_SNPRINTF_A(b, sizeof b, "%d:%s:%08x", t * 100000 + i, "thread", i);
        snprintf(e, sizeof e, "%d:%s:%08x", t * 100000 + i, "thread", i);
        bad[t] += std::strcmp(b, e) != 0;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(std::vector<int>(4, 0), bad);
}

}  // namespace
