// Trims that return a string, and the case members: which of the three
// results (empty record, the same block shared, a new block) comes back, and
// that shared blocks are never written.
#include "StringTestUtil.h"

using namespace qzstrtest;

template <typename T>
class Trim : public ::testing::Test {};
TYPED_TEST_SUITE(Trim, BothWidths);

template <typename T>
class Case : public ::testing::Test {};
TYPED_TEST_SUITE(Case, BothWidths);

TYPED_TEST(Trim, NothingToCutSharesTheBlock) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("a b");
  ASSERT_EQ(Refs(s), 1);
  {
    QzStringT<T> r = s.trimWhiteSpace();
    EXPECT_EQ(r.c_str(), s.c_str());
    EXPECT_EQ(Refs(s), 2);
  }
  EXPECT_EQ(s.trimWhiteSpaceLeft().c_str(), s.c_str());
  EXPECT_EQ(s.trimWhiteSpaceRight().c_str(), s.c_str());
  EXPECT_EQ(s.trim(T('x')).c_str(), s.c_str());
  EXPECT_EQ(s.trimLeft(T('x')).c_str(), s.c_str());
  EXPECT_EQ(s.trimRight(T('x')).c_str(), s.c_str());
  EXPECT_EQ(Refs(s), 1);
}

TYPED_TEST(Trim, AllCutGivesTheEmptyRecord) {
  typedef TypeParam T;
  for (QzStringT<T> s : {S<T>(" "), S<T>(" \t\r\n "), QzStringT<T>()}) {
    EXPECT_TRUE(OnEmptyRecord(s.trimWhiteSpace()));
    EXPECT_TRUE(OnEmptyRecord(s.trimWhiteSpaceLeft()));
    EXPECT_TRUE(OnEmptyRecord(s.trimWhiteSpaceRight()));
  }
  for (QzStringT<T> s : {S<T>("x"), S<T>("xxx"), QzStringT<T>()}) {
    EXPECT_TRUE(OnEmptyRecord(s.trim(T('x'))));
    EXPECT_TRUE(OnEmptyRecord(s.trimLeft(T('x'))));
    EXPECT_TRUE(OnEmptyRecord(s.trimRight(T('x'))));
  }
}

TYPED_TEST(Trim, CutGivesANewCountedBlock) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("  a b\t ");
  QzStringT<T> both = s.trimWhiteSpace();
  EXPECT_EQ(Text(both), "a b");
  EXPECT_NE(both.c_str(), s.c_str());
  EXPECT_EQ(Refs(both), 1);
  EXPECT_EQ(both.capacity(), 7u);
  EXPECT_EQ(Text(s.trimWhiteSpaceLeft()), "a b\t ");
  EXPECT_EQ(Text(s.trimWhiteSpaceRight()), "  a b");
  EXPECT_EQ(Refs(s), 1);
  EXPECT_EQ(Text(s), "  a b\t ");

  QzStringT<T> x = S<T>("xxabxaxx");
  EXPECT_EQ(Text(x.trim(T('x'))), "abxa");
  EXPECT_EQ(Text(x.trimLeft(T('x'))), "abxaxx");
  EXPECT_EQ(Text(x.trimRight(T('x'))), "xxabxa");
  EXPECT_EQ(Text(S<T>("abx").trim(T('x'))), "ab");
  EXPECT_EQ(Text(S<T>("xab").trim(T('x'))), "ab");
}

TYPED_TEST(Trim, EmbeddedZeros) {
  typedef TypeParam T;
  // Inside the range a 0 is kept; a range that starts with one is empty.
  EXPECT_EQ(Text(S<T>(" a\0b ").trimWhiteSpace()), std::string("a\0b", 3));
  EXPECT_TRUE(OnEmptyRecord(S<T>("  \0ab").trimWhiteSpaceLeft()));
  EXPECT_TRUE(OnEmptyRecord(S<T>(" \0a ").trimWhiteSpace()));
  // trim and trimLeft find their start as find_first_not_of(c) does, which
  // gives up at a 0; trimRight walks down over it.
  EXPECT_TRUE(OnEmptyRecord(S<T>("aa\0b").trim(T('a'))));
  EXPECT_TRUE(OnEmptyRecord(S<T>("aa\0b").trimLeft(T('a'))));
  EXPECT_EQ(Text(S<T>("b\0aa").trimRight(T('a'))), std::string("b\0", 2));
  EXPECT_EQ(Text(S<T>("ab\0a").trim(T('a'))), std::string("b\0", 2));
  // Trimming the character 0 itself.
  QzStringT<T> zeros(3u, T(0));
  EXPECT_TRUE(OnEmptyRecord(zeros.trimRight(T(0))));
  EXPECT_EQ(Text(S<T>("ab\0\0").trimRight(T(0))), "ab");
}

TEST(TrimNarrow, HighBytesAreNotWhiteSpaceInAnyCodePage) {
  for (unsigned int page : {1252u, 932u, 65001u}) {
    CodePage cp(page);
    ASSERT_TRUE(cp.ok()) << page;
    // 0xA0 and 0x85 are bytes that a naive classifier might take for space.
    QzStringA s = S<char>(" \xA0x\x85 ");
    EXPECT_EQ(Text(s.trimWhiteSpace()), "\xA0x\x85") << page;
  }
  {
    // A double-byte character whose trail byte is a letter stays whole.
    CodePage cp(932);
    QzStringA s = S<char>("\x82\x61 ");
    EXPECT_EQ(Text(s.trimWhiteSpaceRight()), "\x82\x61");
  }
}

TEST(TrimWide, WhiteSpaceBeyondAscii) {
  const unsigned short text[] = {0x3000, 0x0041, 0x2003, 0x00A0};
  QzStringW s(text, 4);
  QzStringW r = s.trimWhiteSpace();
  ASSERT_EQ(r.length(), 1u);
  EXPECT_EQ(r.c_str()[0], 0x0041);
}

TYPED_TEST(Trim, OutOfMemoryLeavesTheSourceAlone) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>(" abc ");
  QzStringT<T> blank = S<T>("   ");
  const T* before = s.c_str();
  {
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_OUT_OF_MEMORY(s.trimWhiteSpace());
    EXPECT_OUT_OF_MEMORY(s.trimWhiteSpaceLeft());
    EXPECT_OUT_OF_MEMORY(s.trimWhiteSpaceRight());
    EXPECT_OUT_OF_MEMORY(s.trim(T(' ')));
    EXPECT_OUT_OF_MEMORY(s.trimLeft(T(' ')));
    EXPECT_OUT_OF_MEMORY(s.trimRight(T(' ')));
    // The shared and empty results need no memory.
    EXPECT_EQ(s.trim(T('q')).c_str(), before);
    EXPECT_TRUE(OnEmptyRecord(blank.trimWhiteSpace()));
  }
  EXPECT_EQ(s.c_str(), before);
  EXPECT_EQ(Refs(s), 1);
  EXPECT_EQ(Text(s), " abc ");
}

TYPED_TEST(Case, GetCopiesAndStopsConvertingAtEmbeddedZero) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("aB\0cD");
  QzStringT<T> up = s.getUppercase();
  EXPECT_EQ(Text(up), std::string("AB\0cD", 5));
  QzStringT<T> lo = s.getLowercase();
  EXPECT_EQ(Text(lo), std::string("ab\0cD", 5));
  EXPECT_EQ(Text(s), std::string("aB\0cD", 5));
  EXPECT_EQ(Refs(s), 1);
  EXPECT_EQ(Refs(up), 1);
  EXPECT_EQ(up.capacity(), 7u);

  // Even a text that would not change gets its own block.
  QzStringT<T> same = S<T>("ABC");
  QzStringT<T> copy = same.getUppercase();
  EXPECT_NE(copy.c_str(), same.c_str());
  EXPECT_EQ(Refs(same), 1);

  EXPECT_TRUE(OnEmptyRecord(QzStringT<T>().getLowercase()));
  // A text that starts with a 0 copies as the empty string.
  QzStringT<T> zeros(3u, T(0));
  EXPECT_TRUE(OnEmptyRecord(zeros.getUppercase()));
}

TYPED_TEST(Case, InPlaceUnsharesEvenWhenNothingChanges) {
  typedef TypeParam T;
  QzStringT<T> a = S<T>("abc");
  QzStringT<T> b = a;
  const T* shared = a.c_str();
  ASSERT_EQ(Refs(a), 2);
  b.toLowercase();
  EXPECT_NE(b.c_str(), shared);
  EXPECT_EQ(Refs(a), 1);
  EXPECT_EQ(Refs(b), 1);
  EXPECT_EQ(Text(b), "abc");

  // A sole owner converts in its own block.
  const T* own = b.c_str();
  EXPECT_EQ(&b.toUppercase(), &b);
  EXPECT_EQ(b.c_str(), own);
  EXPECT_EQ(Text(b), "ABC");
  EXPECT_EQ(Text(a), "abc");

  QzStringT<T> z = S<T>("ab\0cd");
  z.toUppercase();
  EXPECT_EQ(Text(z), std::string("AB\0cd", 5));
  EXPECT_EQ(z.length(), 5u);
}

TYPED_TEST(Case, InPlaceOnTheEmptyRecordMakesAPrivateBlock) {
  typedef TypeParam T;
  QzStringT<T> probe;
  const int32_t recordRefs = Refs(probe);
  {
    QzStringT<T> e;
    e.toUppercase();
    EXPECT_FALSE(OnEmptyRecord(e));
    EXPECT_EQ(e.length(), 0u);
    EXPECT_EQ(e.capacity(), 7u);
    EXPECT_EQ(Refs(e), 1);
    EXPECT_EQ(Refs(probe), recordRefs);
  }
  EXPECT_EQ(Refs(probe), recordRefs);
}

TYPED_TEST(Case, OutOfMemory) {
  typedef TypeParam T;
  QzStringT<T> a = S<T>("abc");
  QzStringT<T> b = a;
  qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
  EXPECT_OUT_OF_MEMORY(a.getUppercase());
  EXPECT_OUT_OF_MEMORY(a.getLowercase());
  EXPECT_OUT_OF_MEMORY(b.toUppercase());
  EXPECT_EQ(b.c_str(), a.c_str());
  EXPECT_EQ(Refs(a), 2);
  EXPECT_EQ(Text(a), "abc");
  // The empty record can't be written in place either.
  QzStringT<T> e;
  EXPECT_OUT_OF_MEMORY(e.toLowercase());
  EXPECT_TRUE(OnEmptyRecord(e));
}

TEST(CaseNarrow, FollowsTheCodePage) {
  {
    CodePage cp(1252);
    ASSERT_TRUE(cp.ok());
    QzStringA s = S<char>("caf\xE9");
    EXPECT_EQ(Text(s.getUppercase()), "CAF\xC9");
    EXPECT_EQ(Text(S<char>("\xC0X").getLowercase()), "\xE0x");
  }
  {
    CodePage cp(932);
    ASSERT_TRUE(cp.ok());
    // The trail byte 0x61 of 0x82 0x61 is not the letter a.
    QzStringA s = S<char>("a\x82\x61z");
    EXPECT_EQ(Text(s.getUppercase()), "A\x82\x61Z");
    s.toUppercase();
    EXPECT_EQ(Text(s), "A\x82\x61Z");
  }
  {
    CodePage cp(65001);
    ASSERT_TRUE(cp.ok());
    QzStringA s = S<char>("\xC3\xA9t\xC3\xA9");  // été
    EXPECT_EQ(Text(s.getUppercase()), "\xC3\x89T\xC3\x89");
  }
}

TEST(CaseWide, BeyondAscii) {
  const unsigned short text[] = {0x00E9, 0x0430, 0xFF41, 0x3042};
  QzStringW s(text, 4);
  s.toUppercase();
  ASSERT_EQ(s.length(), 4u);
  EXPECT_EQ(s.c_str()[0], 0x00C9);
  EXPECT_EQ(s.c_str()[1], 0x0410);
  EXPECT_EQ(s.c_str()[2], 0xFF21);
  EXPECT_EQ(s.c_str()[3], 0x3042);
}
