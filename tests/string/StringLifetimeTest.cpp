// Blocks, the shared empty record, construction, sharing and assignment.
#include "StringTestUtil.h"

#include "QzFrame.h"

using namespace strtest;

namespace {

typedef QzStringT<char> A;
typedef QzStringT<unsigned short> W;

}  // namespace

TYPED_TEST_SUITE(BothWidths, Widths);

// ---- The shared empty record --------------------------------------------------------------

TEST(EmptyRecord, LoadStepGivesBothMembersOneReferenceEach) {
  // The frame has run the step at load; running it again changes nothing.
  int before = EmptyRefs();
  QzLoadStepEmptyStrings();
  EXPECT_EQ(EmptyRefs(), before);
  EXPECT_GE(before, 4);
  EXPECT_EQ(static_cast<const void*>(QzStringAccess::Empty<char>().c_str()),
            static_cast<const void*>(&qzstr::g_emptyRecord.chars));
  EXPECT_EQ(static_cast<const void*>(QzStringAccess::Empty<unsigned short>().c_str()),
            static_cast<const void*>(&qzstr::g_emptyRecord.chars));
  EXPECT_EQ(qzstr::g_emptyRecord.header.capacity, 0u);
  EXPECT_EQ(qzstr::g_emptyRecord.header.length, 0u);
}

TYPED_TEST(BothWidths, EveryEmptyOutcomeSharesTheRecordAndGivesItBack) {
  typedef TypeParam T;
  int base = EmptyRefs();
  {
    const T nothing[1] = {0};
    QzStringT<T> a, b(static_cast<const T*>(nullptr)), c(nothing), d(L<T>("abc").c_str(), 0u);
    QzStringT<T> e(0u, static_cast<T>('x')), f(0x80000000u, static_cast<T>('x')),
        g(0xFFFFFFFFu, static_cast<T>('x'));
    QzStringT<T> copy(a);
    for (const QzStringT<T>* s : {&a, &b, &c, &d, &e, &f, &g, &copy}) {
      EXPECT_TRUE(OnEmptyRecord(*s));
      EXPECT_EQ(s->length(), 0u);
      EXPECT_EQ(s->c_str()[0], 0);
    }
    EXPECT_EQ(EmptyRefs(), base + 8);
  }
  EXPECT_EQ(EmptyRefs(), base);
}

TEST(EmptyRecord, NarrowAndWideEmptyStringsPointAtTheSameCharacters) {
  A a;
  W w;
  EXPECT_EQ(static_cast<const void*>(a.c_str()), static_cast<const void*>(w.c_str()));
}

// ---- Allocation rule and fills ---------------------------------------------------------------------

TYPED_TEST(BothWidths, SameWidthZeroFillIsAWritableBufferSizedByTheRule) {
  typedef TypeParam T;
  for (unsigned n = 1; n <= 33; ++n) {
    QzStringT<T> s(n, static_cast<T>(0));
    ASSERT_EQ(s.length(), n);
    EXPECT_EQ(Cap(s), ((n + 8) & ~7u) - 1) << n;
    EXPECT_EQ(Refs(s), 1);
    EXPECT_EQ(Text(s), Model<T>(n, 0));
    EXPECT_EQ(s.c_str()[n], 0);
  }
  EXPECT_EQ(Cap(Make<T>("1234567")), 7u);
  EXPECT_EQ(Cap(Make<T>("12345678")), 15u);
  EXPECT_EQ(Cap(Make<T>("1234567890123456")), 23u);
}

TEST(Fill, OtherWidthZeroCharacterGivesEmpty) {
  EXPECT_TRUE(OnEmptyRecord(A(5u, static_cast<unsigned short>(0))));
  EXPECT_TRUE(OnEmptyRecord(W(5u, static_cast<char>(0))));
}

TEST(Fill, NarrowByteWidensBySignExtension) {
  W plain(3u, 'A');
  EXPECT_EQ(Text(plain), L<unsigned short>("AAA"));
  W high(3u, static_cast<char>(0xE9));
  EXPECT_EQ(Text(high), Model<unsigned short>(3, 0xFFE9));
}

TEST(Fill, WideCharacterUpTo255IsStoredAsItsLowByte) {
  A s(3u, static_cast<unsigned short>(0xE9));
  EXPECT_EQ(Text(s), std::string(3, '\xE9'));
}

TEST(Fill, WideCharacterAbove255GoesThroughTheCodePage) {
  A utf8(2u, static_cast<unsigned short>(0x3042));
  EXPECT_EQ(Text(utf8), std::string("\xE3\x81\x82\xE3\x81\x82"));
  EXPECT_EQ(Cap(utf8), 7u);
  CodePage sjis(932);
  A dbcs(2u, static_cast<unsigned short>(0x3042));
  EXPECT_EQ(Text(dbcs), std::string("\x82\xA0\x82\xA0"));
}

TEST(Fill, NegativeCountsGiveEmptyNotAFailedAllocation) {
  for (unsigned n : {0x80000000u, 0xFFFFFFF0u, 0xFFFFFFFFu}) {
    EXPECT_TRUE(OnEmptyRecord(A(n, 'x')));
    EXPECT_TRUE(OnEmptyRecord(A(n, static_cast<unsigned short>(0x3042))));
    EXPECT_TRUE(OnEmptyRecord(W(n, 'x')));
    EXPECT_TRUE(OnEmptyRecord(W(n, static_cast<unsigned short>(0))));
  }
}

// ---- Text constructors ------------------------------------------------------------------------

TYPED_TEST(BothWidths, CountedTextKeepsEmbeddedZerosButNotALeadingOne) {
  typedef TypeParam T;
  Model<T> text = L<T>("a\0b\0c", 5);
  QzStringT<T> all(text.c_str(), 5u);
  EXPECT_EQ(Text(all), text);
  EXPECT_EQ(all.c_str()[5], 0);
  QzStringT<T> toTerminator(text.c_str(), 0xFFFFFFFFu);
  EXPECT_EQ(Text(toTerminator), L<T>("a"));
  Model<T> leading = L<T>("\0abc", 4);
  EXPECT_TRUE(OnEmptyRecord(QzStringT<T>(leading.c_str(), 4u)));
  EXPECT_TRUE(OnEmptyRecord(QzStringT<T>(static_cast<const T*>(nullptr), 4u)));
  QzStringT<T> plain(L<T>("hello").c_str());
  EXPECT_EQ(Text(plain), L<T>("hello"));
  EXPECT_EQ(Refs(plain), 1);
}

TEST(MixedText, Utf8AndUtf16ConvertBothWays) {
  const char* utf8 = "h\xC3\xA9llo \xE2\x82\xAC";  // héllo €
  W w(utf8);
  const unsigned short expect[] = {'h', 0xE9, 'l', 'l', 'o', ' ', 0x20AC};
  EXPECT_EQ(Text(w), Model<unsigned short>(expect, 7));
  EXPECT_EQ(Cap(w), 7u);
  A back(w.c_str());
  EXPECT_EQ(Text(back), std::string(utf8));
  A counted(w.c_str(), 2u);
  EXPECT_EQ(Text(counted), std::string("h\xC3\xA9"));
  W countedNarrow(utf8, 3u);
  EXPECT_EQ(Text(countedNarrow), Model<unsigned short>(expect, 2));
  A fromString(w);
  EXPECT_EQ(Text(fromString), std::string(utf8));
}

TEST(MixedText, DoubleByteCodePageLengthsAreInBytes) {
  CodePage sjis(932);
  const char* text = "a\x82\xA0z";  // a, HIRAGANA A, z
  W w(text);
  const unsigned short expect[] = {'a', 0x3042, 'z'};
  EXPECT_EQ(Text(w), Model<unsigned short>(expect, 3));
  A back(w.c_str());
  EXPECT_EQ(back.length(), 4u);
  EXPECT_EQ(Text(back), std::string(text));
}

TEST(MixedText, ConversionThatCannotRunGivesAPrivateEmptyBlockAndNoException) {
  NoConverter noConverter;
  W w("abc");
  EXPECT_EQ(w.length(), 0u);
  EXPECT_FALSE(OnEmptyRecord(w));
  EXPECT_EQ(Cap(w), 7u);
  EXPECT_EQ(Refs(w), 1);
  const unsigned short wide[] = {'x', 0};
  A a(wide, 1u);
  EXPECT_EQ(a.length(), 0u);
  EXPECT_FALSE(OnEmptyRecord(a));
}

TEST(MixedText, EmptyOrNullOtherWidthTextGivesTheRecord) {
  const unsigned short none[] = {0};
  EXPECT_TRUE(OnEmptyRecord(A(none)));
  EXPECT_TRUE(OnEmptyRecord(A(static_cast<const unsigned short*>(nullptr), 3u)));
  EXPECT_TRUE(OnEmptyRecord(W("")));
  EXPECT_TRUE(OnEmptyRecord(W("abc", 0u)));
}

// ---- Sharing, adoption, assignment -------------------------------------------------------------

TYPED_TEST(BothWidths, CopySharesAndDestructionGivesBack) {
  typedef TypeParam T;
  QzStringT<T> a = Make<T>("shared text");
  {
    QzStringT<T> b(a);
    EXPECT_EQ(b.c_str(), a.c_str());
    EXPECT_EQ(Refs(a), 2);
  }
  EXPECT_EQ(Refs(a), 1);
}

TYPED_TEST(BothWidths, AdoptionTakesTheCallersReference) {
  typedef TypeParam T;
  Model<T> text = L<T>("adopted");
  T* chars = qzstr::NewBlockCopy(text.c_str(), 7u);
  QzStringT<T> s(qzstr::Header(chars));
  EXPECT_EQ(s.c_str(), chars);
  EXPECT_EQ(Refs(s), 1);
  EXPECT_EQ(Text(s), text);
  QzStringT<T> none(static_cast<QzInternalStringData*>(nullptr));
  EXPECT_TRUE(OnEmptyRecord(none));
}

TYPED_TEST(BothWidths, AssignmentMovesOneReference) {
  typedef TypeParam T;
  QzStringT<T> a = Make<T>("first"), b = Make<T>("second");
  QzStringT<T> a2(a);
  b = a;
  EXPECT_EQ(b.c_str(), a.c_str());
  EXPECT_EQ(Refs(a), 3);
  b = b;  // same object
  EXPECT_EQ(Refs(a), 3);
  b = a2;  // same block
  EXPECT_EQ(Refs(a), 3);
  int base = EmptyRefs();
  b = QzStringT<T>();
  EXPECT_EQ(Refs(a), 2);
  EXPECT_EQ(EmptyRefs(), base + 1);
}

TYPED_TEST(BothWidths, ChangingACopyLeavesTheOriginal) {
  typedef TypeParam T;
  QzStringT<T> a = Make<T>("original");
  QzStringT<T> b(a);
  b += L<T>("!").c_str();
  EXPECT_EQ(Text(a), L<T>("original"));
  EXPECT_EQ(Refs(a), 1);
  EXPECT_EQ(Refs(b), 1);
  EXPECT_EQ(Text(b), L<T>("original!"));
}

// ---- Out of memory in constructors ---------------------------------------------------------------

TYPED_TEST(BothWidths, ConstructorsThrowOutOfMemory) {
  typedef TypeParam T;
  Model<T> text = L<T>("abc");
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(QzStringT<T> s(text.c_str())); }
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(QzStringT<T> s(text.c_str(), 2u)); }
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(QzStringT<T> s(4u, static_cast<T>('x'))); }
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(QzStringT<T> s("xyz")); }
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(QzStringT<T> s(4u, static_cast<char>('x'))); }
  const unsigned short wide[] = {'w', 0};
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(QzStringT<T> s(wide)); }
}

TEST(OutOfMemory, WideFillThroughTheCodePageFailsOnScratchOrOnBlock) {
  { FailNextAlloc scratch; EXPECT_OUT_OF_MEMORY(A s(3u, static_cast<unsigned short>(0x3042))); }
  {
    qztest::FaultScope block(qzsys::QZ_FAULT_POOL_ALLOC, 1, 1);
    EXPECT_OUT_OF_MEMORY(A s(3u, static_cast<unsigned short>(0x3042)));
  }
}

TEST(OutOfMemory, ExceptionBuiltWithNoMemoryAtAllHasAnEmptyText) {
  qztest::FaultScope none(qzsys::QZ_FAULT_POOL_ALLOC);
  try {
    A s("abc");
    FAIL() << "no exception";
  } catch (const QzException& e) {
    ASSERT_NE(e.GetText(), nullptr);
    EXPECT_STREQ(e.GetText(), "");
  }
}
