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
using fmtcheck::ExpectBoth;
using fmtcheck::ExpectW;
using fmtcheck::FormatA;
using fmtcheck::FormatW;
using fmtcheck::W;
using fmtcheck::WString;

namespace {

TEST(FormatContract, EmptyAndPlainText) {
  ExpectBoth("", "");
  ExpectBoth("abcd", "abcd");
  ExpectBoth("abcde", "abcde");  // count 5 keeps "abcd" and gives 4, as for "abcd"
  ExpectBoth("h\xC3\xA9llo w\xC3\xB6rld", "h\xC3\xA9llo w\xC3\xB6rld");
}

TEST(FormatContract, NullFormatIsEmpty) {
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
  WString f = W("%d|%s|%I64x|%c");
  WString s = W("ab");
  int r = CallVW(w, 64, f.c_str(), -12, s.c_str(), 0x123456789ull, 'z');
  EXPECT_EQ("-12|ab|123456789|z", fmtcheck::U8(w, static_cast<size_t>(r)));
}

TEST(FormatWalk, UnlistedConversionsShowThemselves) {
  ExpectBoth("%y", "%y");
  ExpectBoth("   %y", "%5y");
  ExpectBoth("%y   |", "%-5y|");
  ExpectBoth("   %y", "%+#05y");  // flags dropped, the pad is a space
  ExpectBoth("%F", "%F");
  ExpectBoth("%ld", "%lld", 5);  // the first l is the size, the second unlisted
  ExpectBoth("%I32d", "%I32d", 5);
  ExpectBoth("%Lf", "%Lf", 1.0);
  ExpectBoth("a%b", "a%b");
  ExpectBoth("%\xE2\x98\xBA", "%\xE2\x98\xBA");  // narrow: '%' then each byte; wide: '%' then the unit
}

TEST(FormatWalk, FormatEndingInsideAConversion) {
  ExpectBoth("abc", "abc%");
  ExpectBoth("abc", "abc%-5");
  ExpectBoth("abc", "abc%#08.3");
  ExpectBoth("abc", "abc%I64");
  ExpectBoth("abc", "abc%l");
  ExpectBoth("", "%");
}

TEST(FormatWalk, PercentTakesWidth) {
  ExpectBoth("%", "%%");
  ExpectBoth("    %", "%5%");
  ExpectBoth("%  |", "%-3%|");
  ExpectBoth("    %", "%05%");
  ExpectBoth("100%", "%d%%", 100);
}

TEST(FormatWalk, WidthAndPrecisionFromArguments) {
  ExpectBoth("   42", "%*d", 5, 42);
  ExpectBoth("42   |", "%*d|", -5, 42);
  ExpectBoth("42   |", "%-*d|", -5, 42);
  ExpectBoth("005", "%.*d", 3, 5);
  ExpectBoth("5", "%.*d", -3, 5);
  ExpectBoth("5", "%.d", 5);
  ExpectBoth("  005", "%*.*d", 5, 3, 5);
  ExpectA("ab", "%.*s", 2, "abcdef");
}

TEST(FormatWalk, LowerCaseLetterEndsTheFlags) {
  // A lower-case letter right after '%' means no flags, width or precision.
  ExpectBoth("42", "%d", 42);
  ExpectBoth("-7", "%hd", 0xFFF9);
  ExpectBoth("%q", "%qq");
}

TEST(FormatIntegers, Signed) {
  ExpectBoth("0", "%d", 0);
  ExpectBoth("-1", "%i", -1);
  ExpectBoth("-2147483648", "%d", INT_MIN);
  ExpectBoth("2147483647", "%ld", INT_MAX);
  ExpectBoth("-9223372036854775808", "%I64d", static_cast<long long>(INT64_MIN));
  ExpectBoth("9223372036854775807", "%I64i", static_cast<long long>(INT64_MAX));
  ExpectBoth("-5000000000", "%qd", -5000000000ll);
  ExpectBoth("-1", "%hd", 65535);
  ExpectBoth("-32768", "%hd", 32768);
  ExpectBoth("12 -3", "%d %d", 12, -3);
}

TEST(FormatIntegers, Unsigned) {
  ExpectBoth("4294967295", "%u", 0xFFFFFFFFu);
  ExpectBoth("18446744073709551615", "%I64u", UINT64_MAX);
  ExpectBoth("10000000000000000000", "%I64u", 10000000000000000000ull);
  ExpectBoth("4294967296", "%I64u", 4294967296ull);
  ExpectBoth("1", "%hu", 65537);
  ExpectBoth("10", "%o", 8);
  ExpectBoth("37777777777", "%o", 0xFFFFFFFFu);
  ExpectBoth("1777777777777777777777", "%I64o", UINT64_MAX);
  ExpectBoth("deadbeef", "%x", 0xDEADBEEFu);
  ExpectBoth("DEADBEEF", "%X", 0xDEADBEEFu);
  ExpectBoth("123456789abcdef0", "%I64x", 0x123456789ABCDEF0ull);
  ExpectBoth("2345", "%hx", 0x12345);
  ExpectBoth("7", "%+u", 7);
}

TEST(FormatIntegers, FlagsAndPadding) {
  ExpectBoth("42000", "%-05d", 42);
  ExpectBoth("+0042", "%+05d", 42);
  ExpectBoth("-0042", "%05d", -42);
  ExpectBoth(" 0042", "% 05d", 42);
  ExpectBoth("   42", "% 5d", 42);
  ExpectBoth(" 42", "% d", 42);
  ExpectBoth("+0", "%+d", 0);
  ExpectBoth("+42  |", "%-+5d|", 42);
  ExpectBoth("-4200", "%-05d", -42);
  ExpectBoth("00000xff", "%#08x", 255);
  ExpectBoth("0XFF", "%#X", 255);
  ExpectBoth("0", "%#x", 0);
  ExpectBoth("010", "%#o", 8);
  ExpectBoth("0", "%#o", 0);
  ExpectBoth("0x0000ff", "%#.6x", 255);
  ExpectBoth("0017", "%#.4o", 15);
  ExpectBoth("42", "%#d", 42);
}

TEST(FormatIntegers, PrecisionRule) {
  ExpectBoth("00042", "%.5d", 42);
  ExpectBoth("-00042", "%.5d", -42);
  ExpectBoth("0", "%.0d", 0);
  ExpectBoth("00000007", "%08.3d", 7);  // the 0 flag stays beside a precision
  ExpectBoth("007     |", "%-8.3d|", 7);
  ExpectBoth("+007", "%+.3d", 7);
  std::string big = std::string(510, '0') + "1";
  ExpectBoth(big, "%.600d", 1);
  ExpectBoth(big, "%.511u", 1);
  ExpectBoth("-" + big, "%.4294967295d", -1);
  ExpectBoth("0x" + big, "%#.511x", 1);
  ExpectBoth(std::string(511, '0'), "%.9999o", 0);
}

TEST(FormatPointers, WholePointerWithoutLeadingZeros) {
  ExpectBoth("0", "%p", static_cast<void*>(nullptr));
  ExpectBoth("beef", "%p", reinterpret_cast<void*>(0xBEEF));
  ExpectBoth("    beef", "%08p", reinterpret_cast<void*>(0xBEEF));
  ExpectBoth("beef", "%#.8p", reinterpret_cast<void*>(0xBEEF));
  ExpectBoth("beef  |", "%-6p|", reinterpret_cast<void*>(0xBEEF));
  ExpectBoth("ffffffff", "%p", reinterpret_cast<void*>(static_cast<uintptr_t>(0xFFFFFFFFu)));
  if (sizeof(void*) == 8) {
    ExpectBoth("123456789abcdef0", "%p", reinterpret_cast<void*>(static_cast<uintptr_t>(0x123456789ABCDEF0ull)));
    ExpectBoth("ffffffffffffffff", "%p", reinterpret_cast<void*>(UINTPTR_MAX));
  }
  // The value after a pointer is read from the right place.
  ExpectBoth("1 7", "%p %d", reinterpret_cast<void*>(1), 7);
}

TEST(FormatCharacters, NarrowAndWide) {
  ExpectBoth("A", "%c", 'A');
  ExpectBoth(std::string("a\0b", 3), "a%cb", 0);
  ExpectBoth("  x|x  |", "%3c|%-3c|", 'x', 'x');
  ExpectBoth("  x", "%03c", 'x');
  ExpectA("A", "%hc", 0x141);
  ExpectA("A", "%C", 'A');
  ExpectA("\xE9", "%C", 0xE9);  // 255 or less: that byte, unconverted
  ExpectA("\xE2\x98\xBA", "%C", 0x263A);
  ExpectA("\xE2\x98\xBA", "%lc", 0x263A);
  ExpectA("    \xE2\x98\xBA|", "%5C|", 0x263A);  // the width counts characters
  ExpectA("\xE2\x98\xBA    |", "%-5C|", 0x263A);
  ExpectA("\xE2\x98\xBA", "%C", 0x1263A);  // the low 16 bits
  ExpectW("\xE2\x98\xBA", "%c", 0x263A);
  ExpectW("\xE2\x98\xBA", "%C", 0x263A);
  ExpectW("\xE2\x98\xBA", "%hc", 0x263A);
  ExpectW("A", "%c", 0x10041);
}

TEST(FormatStrings, NarrowTextInTheNarrowEngine) {
  ExpectA("abc", "%s", "abc");
  ExpectA("", "%s", "");
  ExpectA("ab", "%.2s", "abcdef");
  ExpectA("(null)", "%s", static_cast<const char*>(nullptr));
  ExpectA("(null)", "%.2s", static_cast<const char*>(nullptr));
  ExpectA("     abc|", "%8.3s|", "abcdef");
  ExpectA("ab    |", "%-6s|", "ab");
  ExpectA("   ab", "%05s", "ab");  // a 0 flag pads strings with spaces
  ExpectA("abc", "%hs", "abc");
  ExpectA("x=\xC3\xA9", "x=%s", "\xC3\xA9");
}

TEST(FormatStrings, PrecisionReadsNoFurther) {
  // Not terminated: the precision must stop the read (the sanitizer build
  // would catch one unit more).
  std::vector<char> a(3, 'q');
  ExpectA("qqq", "%.3s", a.data());
  std::vector<unsigned short> w(3, 'q');
  ExpectW("qqq", "%.3s", w.data());
  ExpectA("qqq", "%.3S", w.data());
  ExpectW("qqq", "%.3hs", a.data());
}

TEST(FormatStrings, WideTextInTheWideEngine) {
  WString abc = W("abc");
  WString e = W("h\xC3\xA9llo");
  ExpectW("abc", "%s", abc.c_str());
  ExpectW("abc", "%ls", abc.c_str());
  ExpectW("ab", "%.2s", abc.c_str());
  ExpectW("(null)", "%.1s", static_cast<const unsigned short*>(nullptr));
  ExpectW("  h\xC3\xA9llo|", "%7s|", e.c_str());
  ExpectW("   ab", "%05.2s", abc.c_str());
}

TEST(FormatOtherWidth, WideTextInTheNarrowEngine) {
  WString e = W("h\xC3\xA9llo");
  WString smile = W("a\xF0\x9F\x98\x80z");
  WString ab = W("ab");
  ExpectA("h\xC3\xA9llo", "%S", e.c_str());
  ExpectA("h\xC3\xA9llo", "%ls", e.c_str());
  ExpectA("h\xC3\xA9l", "%.3S", e.c_str());  // precision in source units
  ExpectA("   \xC3\xA9", "%5S", W("\xC3\xA9").c_str());  // width in output bytes
  ExpectA("a\xF0\x9F\x98\x80z", "%S", smile.c_str());
  ExpectA("000ab", "%05S", ab.c_str());  // unlike %s, a 0 flag pads with zeros
  ExpectA("ab   |", "%-5S|", ab.c_str());
  ExpectA("ab000|", "%-05S|", ab.c_str());
  ExpectA("(null)", "%S", static_cast<const unsigned short*>(nullptr));
  ExpectA("  (null)", "%8S", static_cast<const unsigned short*>(nullptr));
  ExpectA("", "%S", W("").c_str());
  ExpectA("[h\xC3\xA9llo] 5", "[%S] %d", e.c_str(), 5);
}

TEST(FormatOtherWidth, NarrowTextInTheWideEngine) {
  ExpectW("h\xC3\xA9llo", "%S", "h\xC3\xA9llo");
  ExpectW("h\xC3\xA9llo", "%hs", "h\xC3\xA9llo");
  ExpectW("hel", "%.3hs", "hello");
  ExpectW("    \xC3\xA9|", "%5hs|", "\xC3\xA9");  // width in output units
  ExpectW("000ab", "%05S", "ab");
  ExpectW("(null)", "%hs", static_cast<const char*>(nullptr));
  ExpectW("a\xF0\x9F\x98\x80z", "%S", "a\xF0\x9F\x98\x80z");
}

TEST(FormatOtherWidth, LongTextIsCutAtEveryPlace) {
  // Longer than the pieces the converter is fed when the text does not fit,
  // with characters of every length across the piece boundaries.
  std::string u8;
  for (int i = 0; i < 40; ++i) u8 += "a\xC3\xA9\xE2\x98\xBA\xF0\x9F\x98\x80";
  WString w = W(u8);
  ExpectA(u8, "%S", w.c_str());
  ExpectA("  " + u8, "%*S", static_cast<int>(u8.size() + 2), w.c_str());
  ExpectW(u8, "%hs", u8.c_str());
  ExpectW(u8 + "!", "%S!", u8.c_str());
}

TEST(FormatCount, StoresTheCountSoFar) {
  int n = -1;
  ExpectBoth("abcd", "ab%ncd", &n);
  EXPECT_EQ(2, n);
  short h = -1;
  ExpectBoth("   42", "%5d%hn", 42, &h);
  EXPECT_EQ(5, h);
  long long q = -1;
  ExpectBoth("xyz", "xyz%I64n", &q);
  EXPECT_EQ(3, q);
  int before = 0, after = 0;
  ExpectBoth("x", "%nx%5n", &before, &after);  // no text, and the width does nothing
  EXPECT_EQ(0, before);
  EXPECT_EQ(1, after);
  ExpectBoth("ok", "o%nk", static_cast<int*>(nullptr));
}

TEST(FormatCount, NothingStoredAfterTheCut) {
  int n = -1;
  char b[3];
  EXPECT_EQ(2, QZ_SNPRINTF_A(b, 3, "abc%n", &n));
  EXPECT_EQ(-1, n);
  EXPECT_EQ(2, QZ_SNPRINTF_A(b, 3, "ab%n", &n));  // a full buffer is not a cut yet
  EXPECT_EQ(2, n);
}

TEST(FormatBadInput, HugeWidthsAreBounded) {
  char b[64];
  std::memset(b, 'q', sizeof b);
  EXPECT_EQ(31, QZ_SNPRINTF_A(b, 32, "%4294967295d", 1));
  EXPECT_EQ(std::string(31, ' '), std::string(b));
  EXPECT_EQ('q', b[32]);
  EXPECT_EQ(INT_MAX, QZ_SNPRINTF_A(nullptr, 0, "%4294967295d", 1));
  EXPECT_EQ(INT_MAX, QZ_SNPRINTF_A(nullptr, 0, "%*d", INT_MIN, 1));
  EXPECT_EQ(INT_MAX, QZ_SNPRINTF_A(nullptr, 0, "%2147483647d%2147483647d", 1, 1));
  EXPECT_EQ(2147483647, QZ_SNPRINTF_A(nullptr, 0, "%2147483647d", 1));
  // Digits beyond 32 bits wrap; whatever they mean, the output stays bounded.
  int m = QZ_SNPRINTF_A(nullptr, 0, "%99999999999999999999d", 1);
  EXPECT_GE(m, 1);
  EXPECT_EQ(63, QZ_SNPRINTF_A(b, 64, "%99999999999999999999d", 1));
  WString f = W("%4294967295s");
  WString s = W("x");
  unsigned short w[16];
  EXPECT_EQ(15, QZ_SNPRINTF_W(w, 16, f.c_str(), s.c_str()));
  EXPECT_EQ(INT_MAX, QZ_SNPRINTF_W(nullptr, 0, f.c_str(), s.c_str()));
}

TEST(FormatBadInput, ManyConversionsAndLiteralRuns) {
  std::string f, e;
  for (int i = 0; i < 21; ++i) {
    f += "<%d>";
    e += "<" + std::to_string(i % 7) + ">";
  }
  ExpectBoth(e, f.c_str(), 0, 1, 2, 3, 4, 5, 6, 0, 1, 2, 3, 4, 5, 6, 0, 1, 2, 3, 4, 5, 6);
}

TEST(FormatThreads, EnginesShareNothing) {
  std::vector<std::thread> threads;
  std::vector<int> bad(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &bad] {
      for (int i = 0; i < 2000; ++i) {
        char b[64];
        QZ_SNPRINTF_A(b, sizeof b, "%d:%s:%08x", t * 100000 + i, "thread", i);
        char e[64];
        snprintf(e, sizeof e, "%d:%s:%08x", t * 100000 + i, "thread", i);
        if (std::strcmp(b, e) != 0) ++bad[t];
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(0, bad[t]);
}

}  // namespace
