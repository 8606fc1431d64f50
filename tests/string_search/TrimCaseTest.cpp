// Trims that return a string, and the case members: which of the three
// results (empty record, the same block shared, a new block) comes back, and
// that shared blocks are never written.
#include "StringTestUtil.h"

using namespace qzstrtest;

template <typename T>
class TrimCase : public ::testing::Test {};
TYPED_TEST_SUITE(TrimCase, BothWidths);

TYPED_TEST(TrimCase, TrimsAndCaseCopiesShareCutOrEmpty) {
  typedef TypeParam T;
  typedef QzStringT<T> Str;
  enum { kShared, kNew, kRecord };
  struct Row {
    int line;
    Str src, got;
    int outcome;
    std::string expect;
  };
  const T x = 'x', a = 'a', z = 0;
  Str ab = S<T>("a b"), spaced = S<T>("  a b\t "), xs = S<T>("xxabxaxx"), zeros(3u, z);
  Str mixed = S<T>("aB\0cD");
  const Row rows[] = {
      {__LINE__, ab, ab.trimWhiteSpace(), kShared, "a b"},
      {__LINE__, ab, ab.trim(x), kShared, "a b"},
      {__LINE__, spaced, spaced.trimWhiteSpace(), kNew, "a b"},
      {__LINE__, spaced, spaced.trimWhiteSpaceRight(), kNew, "  a b"},
      {__LINE__, xs, xs.trimRight(x), kNew, "xxabxa"},
      // Inside the range a 0 is kept; a range that starts with one is empty.
      {__LINE__, ab, S<T>(" a\0b ").trimWhiteSpace(), kNew, std::string("a\0b", 3)},
      {__LINE__, ab, S<T>("  \0ab").trimWhiteSpaceLeft(), kRecord, ""},
      // trim and trimLeft find their start as find_first_not_of(c) does,
      // which gives up at a 0; trimRight walks down over it.
      {__LINE__, ab, S<T>("aa\0b").trim(a), kRecord, ""},
      {__LINE__, ab, S<T>("b\0aa").trimRight(a), kNew, std::string("b\0", 2)},
      {__LINE__, ab, S<T>("ab\0a").trim(a), kNew, std::string("b\0", 2)},
      {__LINE__, ab, zeros.trimRight(z), kRecord, ""},
      // Case copies: always a new block, converted up to the first 0.
      {__LINE__, mixed, mixed.getUppercase(), kNew, std::string("AB\0cD", 5)},
      {__LINE__, ab, zeros.getUppercase(), kRecord, ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.line);
    EXPECT_EQ(Text(r.got), r.expect);
    EXPECT_EQ(r.got.c_str() == r.src.c_str(), r.outcome == kShared);
    EXPECT_EQ(OnEmptyRecord(r.got), r.outcome == kRecord);
    if (r.outcome == kNew) {
      EXPECT_EQ(Refs(r.got), 1);
      EXPECT_EQ(r.got.capacity(), ((r.got.length() + 8) & ~7u) - 1);
    }
  }
  EXPECT_EQ(Text(mixed), std::string("aB\0cD", 5));
  Str blank = S<T>(" \t\r\n "), xxx = S<T>("xxx");
  EXPECT_TRUE(OnEmptyRecord(blank.trimWhiteSpaceLeft()) && OnEmptyRecord(blank.trimWhiteSpaceRight()));
  EXPECT_TRUE(OnEmptyRecord(xxx.trimLeft(x)) && OnEmptyRecord(xxx.trimRight(x)) && OnEmptyRecord(Str().trim(x)));
}

TEST(TrimCaseCodePages, WhiteSpaceAndCaseFollowThePage) {
  for (unsigned int page : {1252u, 932u, 65001u}) {
    CodePage cp(page);
    ASSERT_TRUE(cp.ok()) << page;
    // 0xA0 and 0x85 are bytes that a naive classifier might take for space.
    EXPECT_EQ(Text(S<char>(" \xA0x\x85 ").trimWhiteSpace()), "\xA0x\x85") << page;
  }
  {
    CodePage cp(932);  // 0x82 0x61 is one character: not the letter a
    EXPECT_EQ(Text(S<char>("\x82\x61 ").trimWhiteSpaceRight()), "\x82\x61");
    EXPECT_EQ(Text(S<char>("a\x82\x61z").getUppercase()), "A\x82\x61Z");
  }
  {
    CodePage cp(1252);
    EXPECT_EQ(Text(S<char>("caf\xE9").getUppercase()), "CAF\xC9");
  }
  CodePage cp(65001);
  EXPECT_EQ(Text(S<char>("\xC3\xA9t\xC3\xA9").getUppercase()), "\xC3\x89T\xC3\x89");  // été in UTF-8
  const unsigned short text[] = {0x3000, 0x0041, 0x2003, 0x00A0};
  QzStringW r = QzStringW(text, 4).trimWhiteSpace();
  ASSERT_EQ(r.length(), 1u);
  EXPECT_EQ(r.c_str()[0], 0x0041);
  const unsigned short lower[] = {0x00E9, 0x0430, 0xFF41, 0x3042}, upper[] = {0x00C9, 0x0410, 0xFF21, 0x3042};
  QzStringW w(lower, 4);
  w.toUppercase();
  EXPECT_EQ(std::basic_string<unsigned short>(w.c_str(), w.length()), std::basic_string<unsigned short>(upper, 4));
}

TYPED_TEST(TrimCase, InPlaceUnsharesEvenWhenNothingChanges) {
  typedef TypeParam T;
  QzStringT<T> a = S<T>("abc");
  QzStringT<T> b = a;
  b.toLowercase();
  const T* own = b.c_str();  // a sole owner converts in its own block
  EXPECT_EQ(&b.toUppercase(), &b);
  EXPECT_EQ(b.c_str(), own);
  EXPECT_EQ(Text(b), "ABC");
  EXPECT_EQ(Text(a), "abc");
  QzStringT<T> e;  // the record is never written: a private block
  e.toUppercase();
  EXPECT_FALSE(OnEmptyRecord(e));
  EXPECT_EQ(e.length(), 0u);
}

TYPED_TEST(TrimCase, OutOfMemoryLeavesTheSourceAlone) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>(" abc ");
  QzStringT<T> shared = s, blank = S<T>("   "), e;
  const T* before = s.c_str();
  {
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_OUT_OF_MEMORY(s.trimWhiteSpace());
    EXPECT_OUT_OF_MEMORY(s.trimRight(T(' ')));
    EXPECT_OUT_OF_MEMORY(s.getLowercase());
    EXPECT_OUT_OF_MEMORY(shared.toUppercase());
    EXPECT_OUT_OF_MEMORY(e.toLowercase());
    // The shared and empty results need no memory.
    EXPECT_EQ(s.trim(T('q')).c_str(), before);
    EXPECT_TRUE(OnEmptyRecord(blank.trimWhiteSpace()));
  }
  EXPECT_EQ(shared.c_str(), before);
  EXPECT_EQ(Text(s), " abc ");
  EXPECT_TRUE(OnEmptyRecord(e));
}
