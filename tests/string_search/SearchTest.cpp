// Searches of both widths: bounds, embedded 0s, the terminator, bad input.
#include "StringTestUtil.h"

#include <cstring>
#include <vector>

using namespace qzstrtest;

template <typename T>
class Search : public ::testing::Test {};
TYPED_TEST_SUITE(Search, BothWidths);

// Bounds, bad input and the places where embedded 0s and the terminator take
// part.
TYPED_TEST(Search, BoundsZerosAndBadInput) {
  typedef TypeParam T;
  typedef QzStringT<T> Str;
  std::vector<std::basic_string<T> > keep;
  auto t = [&keep](const char* a, size_t n = std::string::npos) {
    keep.push_back(U<T>(a, n == std::string::npos ? strlen(a) : n));
    return keep.back().c_str();
  };
  keep.reserve(200);
  const T* none = nullptr;
  const T a = 'a', z = 0;
  struct Row {
    int line;
    Str s;
    unsigned got, expect;
  };
  Str e, aa0b = S<T>("aa\0b"), abcab = S<T>("abcab"), abcbb = S<T>("abcbb"), abcabc = S<T>("abcabc");
  Str abcxbc = S<T>("abcxbc"), hello = S<T>("xHeLLoyhello");
  const Row rows[] = {
      // The empty string: nothing but the terminator, whatever the position.
      {__LINE__, e, e.find_first_not_of(a, 0) & e.find_last_not_of(t("ab"), kNone, 2) & e.find_last_of(t("ab"), 0, 2), kNone},
      {__LINE__, e, e.reverseFind(a, 1) & e.reverseFindIgnoreCase(t("ab"), 0, 1) & e.findIgnoreCase(t("ab"), 0, 1), kNone},
      // The character and set searches are modelled in full by the fuzz
      // target; these are their quirks. find_first_not_of(c) gives up at a 0,
      // the set form walks over it.
      {__LINE__, aa0b, aa0b.find_first_not_of(a, 0), kNone},
      {__LINE__, aa0b, aa0b.find_first_not_of(t("a"), 0, 1), 2},
      {__LINE__, abcab, abcab.find_first_not_of(none, 0, 5) & abcab.find_first_not_of(t("\0a", 2), 0, 2), kNone},
      // An empty set answers the start position, unread.
      {__LINE__, abcbb, abcbb.find_last_not_of(t("bc"), kNone, 0), 4},
      // find_last_of and reverseFind(c) see the terminator only from past the end.
      {__LINE__, abcab, abcab.find_last_of(t("c\0", 2), kNone, 2), 5},
      {__LINE__, abcab, abcab.reverseFind(T('c'), 2), 2},  // pos is inclusive: the character's own place
      {__LINE__, abcab, abcab.reverseFind(T('c'), 1), kNone},
      {__LINE__, abcabc, abcabc.reverseFind(z, kNone), 6},
      // reverseFind(text): pos is an exclusive end.
      {__LINE__, abcxbc, abcxbc.reverseFind(t("bc"), 6, 2), 4},
      {__LINE__, abcxbc, abcxbc.reverseFind(t("bc"), 5, 2), 1},
      {__LINE__, abcxbc, abcxbc.reverseFind(t("bc"), 2, 2) & abcxbc.reverseFind(none, kNone, 2), kNone},
      {__LINE__, abcxbc, abcxbc.reverseFind(t("bc"), kNone, 7) & abcxbc.reverseFind(t("BC"), kNone, 2), kNone},
      {__LINE__, abcxbc, abcxbc.reverseFindIgnoreCase(t("BC"), 5, 2), 1},
      // findIgnoreCase: nothing starts past length - count.
      {__LINE__, hello, hello.findIgnoreCase(t("hello"), 7, 5), 7},
      {__LINE__, hello, hello.findIgnoreCase(t("hello"), 8, 5) & hello.findIgnoreCase(none, 0, 5), kNone},
      {__LINE__, hello, hello.findIgnoreCase(t("xhellOyhellox"), 0, 12), 0},
  };
  for (const Row& r : rows) EXPECT_EQ(r.got, r.expect) << "row at line " << r.line << ": " << Text(r.s);
}

TEST(SearchWide, UnitsAboveTheByteRange) {
  const unsigned short text[] = {0x3042, 0x0041, 0xFF21, 0x0000, 0x3042}, set[] = {0x3042, 0x0041}, fa[] = {0xFF41};
  QzStringW w(text, 5);
  EXPECT_EQ(w.find_last_not_of(set[0], kNone), 3u);
  EXPECT_EQ(w.find_first_not_of(set, 0, 2), 2u);
  EXPECT_EQ(w.find_last_of(set, 3, 2), 1u);
  EXPECT_EQ(w.findIgnoreCase(fa, 0, 1), 2u);  // full-width A and a
}

namespace {

// Every candidate tried with the platform's compare: what the searches must
// give whatever shortcut they take. Forward: from pos; backward: ending by pos.
unsigned int Brute(const std::string& s, const std::string& t, unsigned int pos, bool forward, bool fold) {
  const unsigned int n = static_cast<unsigned int>(t.size()), len = static_cast<unsigned int>(s.size());
  const unsigned char* b = reinterpret_cast<const unsigned char*>(t.c_str());
  const unsigned int limit = pos < len ? pos : len;
  if (n == 0 || n > len || (forward ? pos > len - n : n > limit)) return kNone;
  for (unsigned int k = 0; k <= (forward ? len - n - pos : limit - n); ++k) {
    const unsigned int i = forward ? pos + k : limit - n - k;
    const unsigned char* a = reinterpret_cast<const unsigned char*>(s.c_str()) + i;
    if ((fold ? qzsys::_mbsnicmp(a, b, n) : qzsys::_mbsncmp(a, b, n)) == 0) return i;
  }
  return kNone;
}

}  // namespace

// Random texts over an alphabet of letters in both cases, high bytes, lead
// and trail bytes and 0s, in each kind of code page: candidates step byte by
// byte (a match may start on a trail byte), only the compare knows the page.
TEST(SearchCodePages, TextSearchesAgreeWithThePlatformCompare) {
  const char alphabet[] = "aAbBkK \x00\x81\x82\x83\x41\x61\xC3\xA9\x89\xE9\xC9\xFF";
  for (unsigned int page : {1252u, 932u, 65001u}) {
    CodePage cp(page);
    ASSERT_TRUE(cp.ok());
    unsigned int seed = 12345u + page;
    auto next = [&seed]() { return (seed = seed * 1103515245u + 12345u) >> 16; };
    for (int round = 0; round < 400; ++round) {
      std::string s, t;
      for (unsigned int i = next() % 24; i > 0; --i) s.push_back(alphabet[next() % (sizeof alphabet - 1)]);
      for (unsigned int i = 1 + next() % 3; i > 0; --i) t.push_back(alphabet[next() % (sizeof alphabet - 1)]);
      QzStringA str(s.c_str(), static_cast<unsigned int>(s.size()));
      if (str.length() != s.size()) continue;  // a leading 0 gives the empty string
      const unsigned int n = static_cast<unsigned int>(t.size()), pos = next() % 28;
      SCOPED_TRACE(::testing::Message() << page << " " << round);
      EXPECT_EQ(str.findIgnoreCase(t.c_str(), pos, n), Brute(s, t, pos, true, true));
      EXPECT_EQ(str.reverseFindIgnoreCase(t.c_str(), pos, n), Brute(s, t, pos, false, true));
      EXPECT_EQ(str.reverseFind(t.c_str(), pos, n), Brute(s, t, pos, false, false));
    }
  }
}
