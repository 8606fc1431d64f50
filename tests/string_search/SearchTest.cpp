// Searches of both widths: bounds, embedded 0s, the terminator, bad input.
#include "StringTestUtil.h"

using namespace qzstrtest;

template <typename T>
class Search : public ::testing::Test {};
TYPED_TEST_SUITE(Search, BothWidths);

TYPED_TEST(Search, EmptyStringFindsNothingButTheTerminator) {
  typedef TypeParam T;
  QzStringT<T> e;
  const std::basic_string<T> ab = U<T>("ab");
  const std::basic_string<T> withZero = U<T>("a\0", 2);
  for (unsigned int pos : {0u, 1u, kNone}) {
    EXPECT_EQ(e.find_first_not_of(T('a'), pos), kNone);
    EXPECT_EQ(e.find_last_not_of(T('a'), pos), kNone);
    EXPECT_EQ(e.find_first_not_of(ab.c_str(), pos, 2), kNone);
    EXPECT_EQ(e.find_last_not_of(ab.c_str(), pos, 2), kNone);
    EXPECT_EQ(e.find_last_of(ab.c_str(), pos, 2), kNone);
    EXPECT_EQ(e.reverseFind(T('a'), pos), kNone);
    EXPECT_EQ(e.reverseFind(ab.c_str(), pos, 1), kNone);
    EXPECT_EQ(e.reverseFindIgnoreCase(ab.c_str(), pos, 1), kNone);
    EXPECT_EQ(e.findIgnoreCase(ab.c_str(), pos, 1), kNone);
    // The terminator takes part in these two.
    EXPECT_EQ(e.find_last_of(withZero.c_str(), pos, 2), 0u);
    EXPECT_EQ(e.reverseFind(T(0), pos), 0u);
  }
}

TYPED_TEST(Search, FindFirstNotOfCharStopsAtEmbeddedZeroButSetFormDoesNot) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("aa\0b");
  ASSERT_EQ(s.length(), 4u);
  const std::basic_string<T> a = U<T>("a");
  EXPECT_EQ(s.find_first_not_of(T('a'), 0), kNone);
  EXPECT_EQ(s.find_first_not_of(a.c_str(), 0, 1), 2u);
  EXPECT_EQ(s.find_first_not_of(T('a'), 3), 3u);
  EXPECT_EQ(s.find_first_not_of(T('x'), 1), 1u);

  QzStringT<T> t = S<T>("aab");
  EXPECT_EQ(t.find_first_not_of(T('a'), 0), 2u);
  EXPECT_EQ(t.find_first_not_of(T('a'), 2), 2u);
  EXPECT_EQ(t.find_first_not_of(T('a'), 3), kNone);
  EXPECT_EQ(t.find_first_not_of(T('a'), kNone), kNone);
  EXPECT_EQ(S<T>("aaa").find_first_not_of(T('a'), 0), kNone);
}

TYPED_TEST(Search, FindFirstNotOfSetGuards) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("abcab");
  const std::basic_string<T> ab = U<T>("ab");
  const std::basic_string<T> zeroFirst = U<T>("\0a", 2);
  EXPECT_EQ(s.find_first_not_of(ab.c_str(), 0, 2), 2u);
  EXPECT_EQ(s.find_first_not_of(ab.c_str(), 3, 2), kNone);  // runs to length
  EXPECT_EQ(s.find_first_not_of(ab.c_str(), 0, 1), 1u);     // only 'a' counts
  EXPECT_EQ(s.find_first_not_of(ab.c_str(), 0, 0), kNone);
  EXPECT_EQ(s.find_first_not_of(static_cast<const T*>(nullptr), 0, 5), kNone);
  EXPECT_EQ(s.find_first_not_of(zeroFirst.c_str(), 0, 2), kNone);
  EXPECT_EQ(s.find_first_not_of(ab.c_str(), 5, 2), kNone);
  EXPECT_EQ(s.find_first_not_of(ab.c_str(), kNone, 2), kNone);
}

TYPED_TEST(Search, FindLastNotOfStartsAtPosOrLastCharacter) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("abcbb");
  const std::basic_string<T> b = U<T>("bc");
  EXPECT_EQ(s.find_last_not_of(T('b'), kNone), 2u);
  EXPECT_EQ(s.find_last_not_of(T('b'), 5), 2u);
  EXPECT_EQ(s.find_last_not_of(T('b'), 1), 0u);
  EXPECT_EQ(s.find_last_not_of(T('x'), 3), 3u);
  EXPECT_EQ(S<T>("bbb").find_last_not_of(T('b'), kNone), kNone);
  EXPECT_EQ(s.find_last_not_of(b.c_str(), kNone, 2), 0u);
  EXPECT_EQ(s.find_last_not_of(b.c_str(), kNone, 1), 2u);
  // An empty set makes nothing a member: the start position is the answer,
  // unlike the forward search, and the set is not read.
  EXPECT_EQ(s.find_last_not_of(b.c_str(), kNone, 0), 4u);
  EXPECT_EQ(s.find_last_not_of(static_cast<const T*>(nullptr), 2, 0), 2u);
  // Embedded 0s are ordinary characters walking down.
  QzStringT<T> z = S<T>("a\0bb");
  EXPECT_EQ(z.find_last_not_of(T('b'), kNone), 1u);
  EXPECT_EQ(z.find_last_not_of(b.c_str(), kNone, 1), 1u);
}

TYPED_TEST(Search, FindLastOfIncludesTheTerminatorOnlyPastTheEnd) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("abcab");
  const std::basic_string<T> withZero = U<T>("c\0", 2);
  const std::basic_string<T> ab = U<T>("ab");
  EXPECT_EQ(s.find_last_of(withZero.c_str(), kNone, 2), 5u);
  EXPECT_EQ(s.find_last_of(withZero.c_str(), 5, 2), 5u);
  EXPECT_EQ(s.find_last_of(withZero.c_str(), 4, 2), 2u);
  EXPECT_EQ(s.find_last_of(withZero.c_str(), kNone, 1), 2u);
  EXPECT_EQ(s.find_last_of(ab.c_str(), kNone, 2), 4u);
  EXPECT_EQ(s.find_last_of(ab.c_str(), 2, 2), 1u);
  EXPECT_EQ(s.find_last_of(ab.c_str(), 0, 2), 0u);
  EXPECT_EQ(s.find_last_of(ab.c_str(), kNone, 0), kNone);
  EXPECT_EQ(S<T>("xyz").find_last_of(ab.c_str(), kNone, 2), kNone);
}

TYPED_TEST(Search, ReverseFindCharIsInclusive) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("abcabc");
  EXPECT_EQ(s.reverseFind(T('a'), kNone), 3u);
  EXPECT_EQ(s.reverseFind(T('a'), 3), 3u);
  EXPECT_EQ(s.reverseFind(T('a'), 2), 0u);
  EXPECT_EQ(s.reverseFind(T('c'), 1), kNone);
  EXPECT_EQ(s.reverseFind(T('z'), kNone), kNone);
  EXPECT_EQ(s.reverseFind(T(0), kNone), 6u);
  EXPECT_EQ(s.reverseFind(T(0), 5), kNone);
  EXPECT_EQ(S<T>("a\0b").reverseFind(T(0), 2), 1u);
}

TYPED_TEST(Search, ReverseFindTextTreatsPosAsExclusiveEnd) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("abcxbc");
  const std::basic_string<T> bc = U<T>("bc");
  EXPECT_EQ(s.reverseFind(bc.c_str(), kNone, 2), 4u);
  EXPECT_EQ(s.reverseFind(bc.c_str(), 6, 2), 4u);  // just behind the match
  EXPECT_EQ(s.reverseFind(bc.c_str(), 5, 2), 1u);  // cuts the last match
  EXPECT_EQ(s.reverseFind(bc.c_str(), 4, 2), 1u);  // at its start: excluded
  EXPECT_EQ(s.reverseFind(bc.c_str(), 3, 2), 1u);
  EXPECT_EQ(s.reverseFind(bc.c_str(), 2, 2), kNone);
  EXPECT_EQ(s.reverseFind(bc.c_str(), 1, 2), kNone);  // count above limit
  EXPECT_EQ(s.reverseFind(bc.c_str(), kNone, 0), kNone);
  EXPECT_EQ(s.reverseFind(static_cast<const T*>(nullptr), kNone, 2), kNone);
  EXPECT_EQ(s.reverseFind(bc.c_str(), kNone, 7), kNone);
  const std::basic_string<T> whole = U<T>("abcxbc");
  EXPECT_EQ(s.reverseFind(whole.c_str(), kNone, 6), 0u);
  const std::basic_string<T> BC = U<T>("BC");
  EXPECT_EQ(s.reverseFind(BC.c_str(), kNone, 2), kNone);
  EXPECT_EQ(s.reverseFindIgnoreCase(BC.c_str(), kNone, 2), 4u);
  EXPECT_EQ(s.reverseFindIgnoreCase(BC.c_str(), 5, 2), 1u);
  EXPECT_EQ(s.reverseFindIgnoreCase(BC.c_str(), 1, 2), kNone);
  EXPECT_EQ(s.reverseFindIgnoreCase(static_cast<const T*>(nullptr), kNone, 2), kNone);
}

TYPED_TEST(Search, FindIgnoreCaseBounds) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("xHeLLoyhello");
  const std::basic_string<T> hello = U<T>("hello");
  EXPECT_EQ(s.findIgnoreCase(hello.c_str(), 0, 5), 1u);
  EXPECT_EQ(s.findIgnoreCase(hello.c_str(), 1, 5), 1u);
  EXPECT_EQ(s.findIgnoreCase(hello.c_str(), 2, 5), 7u);
  EXPECT_EQ(s.findIgnoreCase(hello.c_str(), 7, 5), 7u);  // pos == length - count
  // Past length - count nothing can start, even though the text occurs earlier.
  EXPECT_EQ(s.findIgnoreCase(hello.c_str(), 8, 5), kNone);
  EXPECT_EQ(s.findIgnoreCase(hello.c_str(), kNone, 5), kNone);
  EXPECT_EQ(s.findIgnoreCase(hello.c_str(), 0, 0), kNone);
  EXPECT_EQ(s.findIgnoreCase(static_cast<const T*>(nullptr), 0, 5), kNone);
  const std::basic_string<T> longer = U<T>("xhellOyhellox");
  EXPECT_EQ(s.findIgnoreCase(longer.c_str(), 0, 13), kNone);  // count beyond length
  EXPECT_EQ(s.findIgnoreCase(longer.c_str(), 0, 12), 0u);
  EXPECT_EQ(s.findIgnoreCase(longer.c_str(), 1, 12), kNone);
  const std::basic_string<T> whole = U<T>("XHELLOYHELLO");
  EXPECT_EQ(s.findIgnoreCase(whole.c_str(), 0, 12), 0u);
  const std::basic_string<T> world = U<T>("world");
  EXPECT_EQ(s.findIgnoreCase(world.c_str(), 0, 5), kNone);
}

// The narrow searches step byte by byte; only the compare knows the code page.
TEST(SearchNarrowCodePages, CandidatesMayStartOnATrailByte) {
  CodePage cp(932);
  ASSERT_TRUE(cp.ok());
  // 0x83 0x41 is one double-byte character whose trail byte is 'A'.
  QzStringA s = S<char>("\x83\x41z");
  EXPECT_EQ(s.findIgnoreCase("a", 0, 1), 1u);
  EXPECT_EQ(s.reverseFindIgnoreCase("a", kNone, 1), 1u);
  EXPECT_EQ(s.reverseFind("A", kNone, 1), 1u);
  EXPECT_EQ(s.reverseFind('A', kNone), 1u);
  // As a whole character it compares as one unit of the code page.
  EXPECT_EQ(s.findIgnoreCase("\x83\x41", 0, 1), 0u);
}

TEST(SearchNarrowCodePages, IgnoringCaseFollowsTheCodePage) {
  {
    CodePage cp(1252);
    ASSERT_TRUE(cp.ok());
    QzStringA s = S<char>("caf\xC9");  // CAFÉ with É as 0xC9
    EXPECT_EQ(s.findIgnoreCase("\xE9", 0, 1), 3u);
    EXPECT_EQ(s.reverseFindIgnoreCase("F\xE9", kNone, 2), 2u);
  }
  {
    CodePage cp(65001);
    ASSERT_TRUE(cp.ok());
    QzStringA s = S<char>("caf\xC3\x89");  // É in UTF-8
    EXPECT_EQ(s.findIgnoreCase("\xC3\xA9", 0, 1), 3u);
    EXPECT_EQ(s.findIgnoreCase("CAF", 0, 3), 0u);
  }
}

TEST(SearchWide, UnitsAboveTheByteRange) {
  const unsigned short text[] = {0x3042, 0x0041, 0xFF21, 0x0000, 0x3042};
  QzStringW s(text, 5);
  ASSERT_EQ(s.length(), 5u);
  const unsigned short aHira = 0x3042;
  EXPECT_EQ(s.reverseFind(aHira, kNone), 4u);
  EXPECT_EQ(s.find_last_not_of(aHira, kNone), 3u);
  const unsigned short set[] = {0x3042, 0x0041};
  EXPECT_EQ(s.find_first_not_of(set, 0, 2), 2u);
  EXPECT_EQ(s.find_last_of(set, 3, 2), 1u);
  // Full-width A (0xFF21) matches full-width a ignoring case.
  const unsigned short fa[] = {0xFF41};
  EXPECT_EQ(s.findIgnoreCase(fa, 0, 1), 2u);
}

namespace {

// Every candidate tried with the platform's compare: what the searches must
// give whatever shortcut they take.
unsigned int BruteFind(const std::string& s, const std::string& t, unsigned int pos) {
  const unsigned int n = static_cast<unsigned int>(t.size());
  if (n == 0 || n > s.size() || pos > s.size() - n) return kNone;
  for (unsigned int i = pos; i + n <= s.size(); ++i)
    if (qzsys::_mbsnicmp(reinterpret_cast<const unsigned char*>(s.c_str()) + i,
                         reinterpret_cast<const unsigned char*>(t.c_str()), n) == 0)
      return i;
  return kNone;
}
unsigned int BruteReverse(const std::string& s, const std::string& t, unsigned int pos, bool fold) {
  const unsigned int n = static_cast<unsigned int>(t.size());
  const unsigned int limit = pos < s.size() ? pos : static_cast<unsigned int>(s.size());
  if (n == 0 || n > limit) return kNone;
  for (unsigned int i = limit - n + 1; i-- > 0;) {
    const unsigned char* a = reinterpret_cast<const unsigned char*>(s.c_str()) + i;
    const unsigned char* b = reinterpret_cast<const unsigned char*>(t.c_str());
    if ((fold ? qzsys::_mbsnicmp(a, b, n) : qzsys::_mbsncmp(a, b, n)) == 0) return i;
  }
  return kNone;
}

}  // namespace

// Random texts over an alphabet of letters in both cases, high bytes, lead
// and trail bytes and 0s, in each kind of code page.
TEST(SearchNarrowCodePages, TextSearchesAgreeWithThePlatformCompare) {
  const char alphabet[] = "aAbBkK \x00\x81\x82\x83\x41\x61\xC3\xA9\x89\xE9\xC9\xFF";
  const unsigned int letters = sizeof(alphabet) - 1;
  for (unsigned int page : {1252u, 932u, 65001u}) {
    CodePage cp(page);
    ASSERT_TRUE(cp.ok());
    unsigned int seed = 12345u + page;
    auto next = [&seed]() {
      seed = seed * 1103515245u + 12345u;
      return seed >> 16;
    };
    for (int round = 0; round < 400; ++round) {
      std::string s, t;
      for (unsigned int i = next() % 24; i > 0; --i) s.push_back(alphabet[next() % letters]);
      for (unsigned int i = 1 + next() % 3; i > 0; --i) t.push_back(alphabet[next() % letters]);
      QzStringA str(s.c_str(), static_cast<unsigned int>(s.size()));
      if (str.length() != s.size()) continue;  // a leading 0 gives the empty string
      const unsigned int n = static_cast<unsigned int>(t.size());
      const unsigned int pos = next() % 28;
      EXPECT_EQ(str.findIgnoreCase(t.c_str(), 0, n), BruteFind(s, t, 0)) << page << " " << round;
      EXPECT_EQ(str.findIgnoreCase(t.c_str(), pos, n), BruteFind(s, t, pos)) << page << " " << round;
      EXPECT_EQ(str.reverseFindIgnoreCase(t.c_str(), kNone, n), BruteReverse(s, t, kNone, true))
          << page << " " << round;
      EXPECT_EQ(str.reverseFindIgnoreCase(t.c_str(), pos, n), BruteReverse(s, t, pos, true))
          << page << " " << round;
      EXPECT_EQ(str.reverseFind(t.c_str(), pos, n), BruteReverse(s, t, pos, false)) << page << " " << round;
    }
  }
}
