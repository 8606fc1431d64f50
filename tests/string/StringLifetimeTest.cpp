// Blocks, the shared empty record, construction, sharing and assignment.
#include "StringTestUtil.h"

#include "frame/QzFrame.h"

using namespace strtest;

namespace {

typedef QzStringT<char> A;
typedef QzStringT<unsigned short> W;
typedef Model<unsigned short> WM;

}  // namespace

TYPED_TEST_SUITE(BothWidths, Widths);

TEST(EmptyRecord, LoadStepGivesBothWidthsTheSameCharacters) {
  // The frame has run the step at load; running it again changes nothing.
  int before = EmptyRefs();
  QzLoadStepEmptyStrings();
  EXPECT_EQ(EmptyRefs(), before);
  const void* chars = &qzstr::g_emptyRecord.chars;
  EXPECT_EQ(static_cast<const void*>(QzStringAccess::Empty<char>().c_str()), chars);
  EXPECT_EQ(static_cast<const void*>(W().c_str()), chars);
}

TYPED_TEST(BothWidths, EveryEmptyOutcomeSharesTheRecordAndGivesItBack) {
  typedef TypeParam T;
  typedef typename QzStringT<T>::OtherCharType U;
  int base = EmptyRefs();
  {
    const T nothing[1] = {0};
    const U otherNothing[1] = {0};
    Model<T> leadingZero = L<T>("\0abc", 4);
    const QzStringT<T> all[] = {
        QzStringT<T>(), QzStringT<T>(static_cast<const T*>(nullptr)), QzStringT<T>(nothing),
        QzStringT<T>(L<T>("abc").c_str(), 0u), QzStringT<T>(leadingZero.c_str(), 4u),
        QzStringT<T>(static_cast<const T*>(nullptr), 4u), QzStringT<T>(0u, static_cast<T>('x')),
        QzStringT<T>(0x80000000u, static_cast<T>('x')), QzStringT<T>(0xFFFFFFF0u, static_cast<U>('x')),
        QzStringT<T>(0xFFFFFFFFu, static_cast<U>(0x3042)), QzStringT<T>(5u, static_cast<U>(0)),
        QzStringT<T>(otherNothing), QzStringT<T>(static_cast<const U*>(nullptr), 3u),
        QzStringT<T>(L<U>("abc").c_str(), 0u), QzStringT<T>(static_cast<QzInternalStringData*>(nullptr))};
    QzStringT<T> copy(all[0]);
    unsigned i = 0;
    for (const QzStringT<T>& s : all) {
      EXPECT_TRUE(OnEmptyRecord(s)) << i++;
      EXPECT_EQ(s.length(), 0u);
      EXPECT_EQ(s.c_str()[0], 0);
    }
    EXPECT_EQ(EmptyRefs(), base + 16);
  }
  EXPECT_EQ(EmptyRefs(), base);
}

TYPED_TEST(BothWidths, ZeroFillAndCountedTextsAreSizedByTheRule) {
  typedef TypeParam T;
  for (unsigned n = 1; n <= 33; ++n) {
    QzStringT<T> s(n, static_cast<T>(0));
    ASSERT_EQ(s.length(), n);
    EXPECT_EQ(Cap(s), ((n + 8) & ~7u) - 1) << n;
    EXPECT_EQ(s.c_str()[n], 0);
  }
  Model<T> text = L<T>("a\0b\0c", 5);
  QzStringT<T> all(text.c_str(), 5u);
  EXPECT_EQ(Text(all), text);
  EXPECT_EQ(all.c_str()[5], 0);
  EXPECT_EQ(Text(QzStringT<T>(text.c_str(), 0xFFFFFFFFu)), L<T>("a"));
}

TEST(MixedText, FillsAndTextsConvertInUtf8And932) {
  EXPECT_EQ(Text(W(3u, static_cast<char>(0xE9))), WM(3, 0xFFE9));  // sign extension
  EXPECT_EQ(Text(A(3u, static_cast<unsigned short>(0xE9))), std::string(3, '\xE9'));  // the low byte
  A fill(2u, static_cast<unsigned short>(0x3042));
  EXPECT_EQ(Text(fill), std::string("\xE3\x81\x82\xE3\x81\x82"));
  EXPECT_EQ(Cap(fill), 7u);
  const char* utf8 = "h\xC3\xA9llo \xE2\x82\xAC";  // héllo €
  const unsigned short expect[] = {'h', 0xE9, 'l', 'l', 'o', ' ', 0x20AC}, sjisExpect[] = {'a', 0x3042, 'z'};
  W w(utf8);
  EXPECT_EQ(Text(w), WM(expect, 7));
  EXPECT_EQ(Text(A(w)), std::string(utf8));
  EXPECT_EQ(Text(W(utf8, 3u)), WM(expect, 2));
  CodePage sjis(932);
  EXPECT_EQ(Text(A(2u, static_cast<unsigned short>(0x3042))), std::string("\x82\xA0\x82\xA0"));
  const char* text = "a\x82\xA0z";  // a, HIRAGANA A, z
  W w2(text);
  EXPECT_EQ(Text(w2), WM(sjisExpect, 3));
  EXPECT_EQ(Text(A(w2.c_str())), std::string(text));  // 4 bytes
}

TEST(MixedText, NoConverterGivesAPrivateEmptyBlockAndNoException) {
  NoConverter noConverter;
  const unsigned short wide[] = {'x', 0};
  EXPECT_EQ(Cap(W("abc")), 7u);  // a private block: the record's capacity is 0
  EXPECT_EQ(Cap(A(wide, 1u)), 7u);
}

TYPED_TEST(BothWidths, CopyAdoptionAndAssignmentMoveOneReference) {
  typedef TypeParam T;
  QzStringT<T> a = Make<T>("first"), b = Make<T>("second");
  {
    QzStringT<T> a2(a);
    b = a;
    EXPECT_EQ(b.c_str(), a.c_str());
    EXPECT_EQ(Refs(a), 3);
    b = b;  // same object
    b = a2;  // same block
    EXPECT_EQ(Refs(a), 3);
  }
  int base = EmptyRefs();
  b = QzStringT<T>();
  EXPECT_EQ(Refs(a), 1);
  EXPECT_EQ(EmptyRefs(), base + 1);
  Model<T> text = L<T>("adopted");
  T* chars = qzstr::NewBlockCopy(text.c_str(), 7u);
  QzStringT<T> s(qzstr::Header(chars));
  EXPECT_EQ(s.c_str(), chars);
  EXPECT_EQ(Refs(s), 1);
  EXPECT_EQ(Text(s), text);
}

TYPED_TEST(BothWidths, ConstructorsThrowOutOfMemory) {
  typedef TypeParam T;
  Model<T> text = L<T>("abc");
  const unsigned short wide[] = {'w', 0};
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(QzStringT<T> s(text.c_str())); }
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(QzStringT<T> s(4u, static_cast<T>('x'))); }
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(QzStringT<T> s(4u, static_cast<char>('x'))); }
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(QzStringT<T> s(wide)); }
}

TEST(OutOfMemory, WideFillThroughTheCodePageAndTheTextOfTheException) {
  { FailNextAlloc scratch; EXPECT_OUT_OF_MEMORY(A s(3u, static_cast<unsigned short>(0x3042))); }
  {
    qztest::FaultScope block(qzsys::QZ_FAULT_POOL_ALLOC, 1, 1);
    EXPECT_OUT_OF_MEMORY(A s(3u, static_cast<unsigned short>(0x3042)));
  }
  // With no memory at all the exception still has a text: an empty one.
  qztest::FaultScope none(qzsys::QZ_FAULT_POOL_ALLOC);
  try {
    A s("abc");
    FAIL() << "no exception";
  } catch (const QzException& e) {
    ASSERT_NE(e.GetText(), nullptr);
    EXPECT_STREQ(e.GetText(), "");
  }
}
