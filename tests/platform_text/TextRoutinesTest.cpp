// The runtime's narrow and wide routines: active code page, own tables, no
// dependence on the host's locale.
#include <gtest/gtest.h>

#include <locale.h>
#include <stdlib.h>
#include <unistd.h>
#include <string.h>

#include <string>

#include "QzTestSupport.h"
#include "TextTestSupport.h"

using namespace qzsys;
using qztest::ActivePage;
using qztest::W;

namespace {

const unsigned char* U(const char* s) { return reinterpret_cast<const unsigned char*>(s); }

std::string Lower(std::string s) {
  _mbslwr(reinterpret_cast<unsigned char*>(&s[0]));
  return s;
}
std::string Upper(std::string s) {
  _mbsupr(reinterpret_cast<unsigned char*>(&s[0]));
  return s;
}

// Counts characters by _mbsinc.
size_t Chars(const char* s) {
  size_t n = 0;
  for (const unsigned char* p = U(s); *p; p = _mbsinc(p)) ++n;
  return n;
}

// Runs the same checks under the host locales a test machine may have.
template <typename F>
void UnderEveryLocale(F check) {
  const char* saved = setlocale(LC_ALL, nullptr);
  std::string keep = saved ? saved : "C";
  for (const char* name : {"C", "C.UTF-8", "tr_TR.UTF-8", "ja_JP.SJIS", ""}) {
    if (!setlocale(LC_ALL, name)) continue;
    SCOPED_TRACE(name);
    check();
  }
  setlocale(LC_ALL, keep.c_str());
}

}  // namespace

TEST(TextActivePage, DefaultsToUtf8AndSwitchesOnlyToPossiblePages) {
  if (!getenv("QZ_ACP")) {
    EXPECT_EQ(GetACP(), CP_UTF8);
  }
  UINT before = GetACP();
  EXPECT_FALSE(QzSetActiveCodePage(1200));
  EXPECT_FALSE(QzSetActiveCodePage(4242));
  EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(GetACP(), before);
  {
    ActivePage page(932);
    EXPECT_EQ(GetACP(), 932u);
    EXPECT_EQ(QzMaxCharSize(CP_ACP == 0 ? GetACP() : 0), 2u);
  }
  EXPECT_EQ(GetACP(), before);
  EXPECT_EQ(QzMaxCharSize(CP_UTF8), 4u);
  EXPECT_EQ(QzMaxCharSize(1252), 1u);
  EXPECT_EQ(QzMaxCharSize(1200), 0u);
}

// QZ_ACP is read once per process, so each value is tried in a child run of
// this program that checks only this.
TEST(TextActivePage, EnvironmentChoosesThePageOnce) {
  if (const char* expect = getenv("QZ_TEST_EXPECT_ACP")) {
    EXPECT_EQ(GetACP(), static_cast<UINT>(atoi(expect)));
    setenv("QZ_ACP", "1250", 1);
    EXPECT_EQ(GetACP(), static_cast<UINT>(atoi(expect)));  // not read again
    return;
  }
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  ASSERT_GT(n, 0);
  self[n] = 0;
  const struct { const char* value; const char* expect; } rows[] = {
      {"1252", "1252"}, {"932", "932"}, {"65001", "65001"}, {"1200", "65001"}, {"12x", "65001"}, {"", "65001"}};
  for (const auto& r : rows) {
    std::string cmd = std::string("QZ_ACP='") + r.value + "' QZ_TEST_EXPECT_ACP=" + r.expect + " '" + self +
                      "' --gtest_filter=TextActivePage.EnvironmentChoosesThePageOnce >/dev/null 2>&1";
    EXPECT_EQ(system(cmd.c_str()), 0) << r.value;
  }
}

TEST(TextNarrowRoutines, Utf8CountsWholeCharacters) {
  ActivePage page(CP_UTF8);
  UnderEveryLocale([] {
    EXPECT_EQ(Chars("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), 4u);
    EXPECT_EQ(Chars("\x80\xC3"), 2u);          // bad bytes go one by one
    EXPECT_EQ(_mbsinc(U("\xE2\x82")), U("\xE2\x82") + 1);  // never past a terminator
    // Counts are characters: 2 characters cover 3 bytes here.
    EXPECT_EQ(_mbsncmp(U("\xC3\xA9" "ax"), U("\xC3\xA9" "ay"), 2), 0);
    EXPECT_LT(_mbsncmp(U("\xC3\xA9" "ax"), U("\xC3\xA9" "ay"), 3), 0);
    EXPECT_LT(_mbsncmp(U("z"), U("\xC3\xA9"), 1), 0);  // code point order
    EXPECT_EQ(_mbsncmp(U("ab"), U("ab"), 10), 0);
    EXPECT_EQ(_mbsnicmp(U("\xC3\x89T\xC3\x89"), U("\xC3\xA9t\xC3\xA9!"), 3), 0);
    EXPECT_EQ(_mbsnicmp(U("\xD0\x9F\xD0\xA0"), U("\xD0\xBF\xD1\x80"), 2), 0);  // Cyrillic
    EXPECT_LT(_mbsnicmp(U("_"), U("A"), 1), 0);  // folds to lower case: 0x5F < 0x61
    EXPECT_EQ(Lower("\xC3\x89T\xC3\x89 \xCE\xA3\xCE\x9F\xCE\xA6 \xC5\xB8"),
              "\xC3\xA9t\xC3\xA9 \xCF\x83\xCE\xBF\xCF\x86 \xC3\xBF");
    EXPECT_EQ(Upper("stra\xC3\x9F" "e \xC4\xB1 \xEF\xBD\x81"), "STRA\xC3\x9F" "E \xC4\xB1 \xEF\xBC\xA1");
    EXPECT_EQ(Upper("I\xC3"), "I\xC3");  // a bad byte is left alone
    EXPECT_TRUE(_ismbcspace(' '));
    EXPECT_TRUE(_ismbcspace(0xC2A0));   // U+00A0 as its two bytes
    EXPECT_TRUE(_ismbcspace(0xE38080)); // U+3000
    EXPECT_FALSE(_ismbcspace(0xA0));    // a lone byte is no character
    EXPECT_FALSE(_ismbcspace(static_cast<unsigned int>(static_cast<int>(static_cast<char>(0xA0)))));
    EXPECT_TRUE(_ismbclower(0xC3A9));
    EXPECT_FALSE(_ismbclower(0xC389));
    EXPECT_TRUE(_ismbcupper(0xC389));
    EXPECT_TRUE(_ismbcdigit('7'));
    EXPECT_FALSE(_ismbcdigit(0xEFBC91));  // full-width digits are not digits here
    const char* s = "a\xC3\xA9.b";
    EXPECT_EQ(_mbschr(U(s), 0xC3A9), U(s) + 1);
    EXPECT_EQ(_mbschr(U(s), '.'), U(s) + 3);
    EXPECT_EQ(_mbschr(U(s), 0), U(s) + 5);
    EXPECT_EQ(_mbschr(U(s), 0xA9), nullptr);  // never a character's second byte
  });
}

TEST(TextNarrowRoutines, SingleBytePage1252UsesItsOwnMapping) {
  ActivePage page(1252);
  UnderEveryLocale([] {
    EXPECT_EQ(Chars("caf\xE9"), 4u);
    EXPECT_EQ(Lower("CAF\xC9 \x8A\x8C\x9F \xD7"), "caf\xE9 \x9A\x9C\xFF \xD7");
    EXPECT_EQ(Upper("caf\xE9 \x9A\x9C\xFF \xDF \xB5"), "CAF\xC9 \x8A\x8C\x9F \xDF \xB5");
    EXPECT_EQ(_mbsnicmp(U("\xC9T\xC9"), U("\xE9t\xE9"), 3), 0);
    EXPECT_LT(_mbsncmp(U("\xC9"), U("\xE9"), 1), 0);
    EXPECT_TRUE(_ismbcspace(0xA0));   // no-break space
    EXPECT_FALSE(_ismbcspace(0x85));  // an ellipsis in this page, not NEL
    EXPECT_TRUE(_ismbclower(0xE9));
    EXPECT_FALSE(_ismbclower(0xC9));
    EXPECT_FALSE(_ismbcdigit(0xB2));  // superscript two
    EXPECT_EQ(_mbschr(U("ab\xE9"), 0xE9), U("ab\xE9") + 2);
  });
}

TEST(TextNarrowRoutines, DoubleBytePage932StepsByPairs) {
  ActivePage page(932);
  UnderEveryLocale([] {
    // "日本a" then a full-width A (82 60) and a half-width katakana.
    const char* s = "\x93\xFA\x96\x7B" "a\x82\x60\xB1";
    EXPECT_EQ(Chars(s), 5u);
    EXPECT_EQ(_mbsinc(U("\x93")), U("\x93") + 1);  // lead byte before the terminator
    // The second byte of 96 7B is '{': a character search never lands there.
    EXPECT_EQ(_mbschr(U(s), '{'), nullptr);
    EXPECT_EQ(_mbschr(U(s), 0x967B), U(s) + 2);
    EXPECT_EQ(_mbsncmp(U("\x93\xFA" "x"), U("\x93\xFA" "y"), 1), 0);
    EXPECT_LT(_mbsncmp(U("\x93\xFA" "x"), U("\x93\xFA" "y"), 2), 0);
    EXPECT_GT(_mbsncmp(U("\x93\xFA"), U("z"), 1), 0);
    // Full-width letters change case like ASCII ones.
    EXPECT_EQ(Lower("AB\x82\x60\x93\xFA"), "ab\x82\x81\x93\xFA");
    EXPECT_EQ(Upper("ab\x82\x81"), "AB\x82\x60");
    EXPECT_EQ(_mbsnicmp(U("\x82\x60" "B"), U("\x82\x81" "b"), 2), 0);
    EXPECT_TRUE(_ismbcspace(0x8140));  // ideographic space
    EXPECT_FALSE(_ismbcspace(0x81));   // a lead byte alone
    EXPECT_TRUE(_ismbclower(0x8281));
    EXPECT_TRUE(_ismbcdigit('0'));
  });
}

TEST(TextWideRoutines, ClassesAndCaseComeFromOwnTables) {
  UnderEveryLocale([] {
    for (WCHAR c : {0x09, 0x0A, 0x0D, 0x20, 0x85, 0xA0, 0x1680, 0x2000, 0x200A, 0x2028, 0x202F, 0x3000})
      EXPECT_TRUE(qzsys::iswspace(c)) << c;
    for (WCHAR c : {0x08, 0x0E, 0x61, 0x200B, 0xFEFF, 0x180E}) EXPECT_FALSE(qzsys::iswspace(c)) << c;
    EXPECT_TRUE(qzsys::iswctype('5', _DIGIT));
    EXPECT_FALSE(qzsys::iswctype(0x0663, _DIGIT));
    EXPECT_TRUE(qzsys::iswctype(0x3B1, _LOWER));
    EXPECT_TRUE(qzsys::iswctype(0xDF, _LOWER));
    EXPECT_FALSE(qzsys::iswctype(0x3B1, _UPPER));
    EXPECT_TRUE(qzsys::iswctype('F', _HEX));
    EXPECT_TRUE(qzsys::iswctype(0x4E2D, _ALPHA));
    EXPECT_TRUE(qzsys::iswctype(',', _PUNCT));
    EXPECT_TRUE(qzsys::iswctype(0x9F, _CONTROL));
    EXPECT_FALSE(qzsys::iswctype('x', _DIGIT | _SPACE));

    std::vector<WCHAR> s = W(u"\u00C9T\u00C9 \u0100\u0139\u0178 \u0391\u03A3\u03C2 \u0401\u042F\u0460\u04C1 \uFF21 \u0130\u00DF");
    s.push_back(0);
    _wcslwr(s.data());
    s.pop_back();
    EXPECT_EQ(s, W(u"\u00E9t\u00E9 \u0101\u013A\u00FF \u03B1\u03C3\u03C2 \u0451\u044F\u0461\u04C2 \uFF41 \u0130\u00DF"));
    s.push_back(0);
    _wcsupr(s.data());
    s.pop_back();
    EXPECT_EQ(s, W(u"\u00C9T\u00C9 \u0100\u0139\u0178 \u0391\u03A3\u03A3 \u0401\u042F\u0460\u04C1 \uFF21 \u0130\u00DF"));
    EXPECT_EQ(QzToUpperW(0x131), 0x131);  // dotless i keeps its form
    EXPECT_EQ(QzToLowerW(0xD7), 0xD7);    // multiplication sign

    const WCHAR a[] = {'A', 0x3A3, 'x', 0}, b[] = {'a', 0x3C3, 'y', 0};
    EXPECT_EQ(_wcsnicmp(a, b, 2), 0);
    EXPECT_LT(_wcsnicmp(a, b, 3), 0);
    const WCHAR under[] = {'_', 0}, cap[] = {'A', 0};
    EXPECT_LT(_wcsnicmp(under, cap, 1), 0);
    EXPECT_EQ(_wcsnicmp(a, a, 100), 0);
  });
}
