// The editing members: whole-text assignment, appending, joining, insert,
// erase, remove, replace, substr and the in-place trims, both widths.
#include "StringTestUtil.h"

using namespace strtest;

namespace {

typedef QzStringT<char> A;
typedef QzStringT<unsigned short> W;

template <typename T>
void Set(QzStringT<T>& s, const T* text, unsigned n) {
  QzStringAccess::SetInternal(s, text, n);
}
template <typename T>
void Append(QzStringT<T>& s, const T* text, unsigned n) {
  QzStringAccess::AppendInternal(s, text, n);
}

// A private block of exactly `text`, with room for `capacityFor` characters.
template <typename T>
QzStringT<T> Roomy(const char* text, unsigned capacityFor) {
  QzStringT<T> s(capacityFor, static_cast<T>(0));
  s.erase(0, 0xFFFFFFFFu);
  Model<T> m = L<T>(text);
  Append(s, m.c_str(), static_cast<unsigned>(m.size()));
  return s;
}

}  // namespace

TYPED_TEST_SUITE(BothWidths, Widths);

// ---- SetInternal -------------------------------------------------------------------------------------

TYPED_TEST(BothWidths, SetInternalEmptiesOnlyANonEmptyString) {
  typedef TypeParam T;
  QzStringT<T> s = Roomy<T>("", 20);  // private block of length 0
  const T* before = s.c_str();
  s = static_cast<const T*>(nullptr);
  EXPECT_EQ(s.c_str(), before);  // stays where it is
  QzStringT<T> t = Make<T>("text");
  int base = EmptyRefs();
  Set(t, L<T>("abc").c_str(), 0u);
  EXPECT_TRUE(OnEmptyRecord(t));
  EXPECT_EQ(EmptyRefs(), base + 1);
  Model<T> zeroFirst = L<T>("\0x", 2);
  QzStringT<T> u = Make<T>("text");
  Set(u, zeroFirst.c_str(), 2u);
  EXPECT_TRUE(OnEmptyRecord(u));
}

TYPED_TEST(BothWidths, SetInternalWorksInPlaceForASoleOwnerWithRoom) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("abcdefghij");  // capacity 15
  const T* block = s.c_str();
  s = L<T>("xyz").c_str();
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(Cap(s), 15u);
  EXPECT_EQ(Text(s), L<T>("xyz"));
  s = Make<T>("0123456789");
  block = s.c_str();
  s = s.c_str() + 4;  // its own tail
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(Text(s), L<T>("456789"));
  Set(s, L<T>("a\0b", 3).c_str(), 0xFFFFFFFFu);
  EXPECT_EQ(Text(s), L<T>("a"));
}

TYPED_TEST(BothWidths, SetInternalMakesANewBlockWhenSharedOrTooSmall) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("short");
  QzStringT<T> other(s);
  s = L<T>("new").c_str();
  EXPECT_EQ(Text(other), L<T>("short"));
  EXPECT_EQ(Refs(other), 1);
  EXPECT_EQ(Refs(s), 1);
  s = L<T>("a much longer text than before").c_str();
  EXPECT_EQ(Text(s), L<T>("a much longer text than before"));
  EXPECT_EQ(Cap(s), 31u);
  QzStringT<T> shared(s);
  s = s.c_str() + 2;  // text inside the old block, which is released last
  EXPECT_EQ(Text(s), L<T>("much longer text than before"));
  EXPECT_EQ(Text(shared), L<T>("a much longer text than before"));
}

TEST(SetInternalMixed, SoleOwnerConvertsInPlaceOrGrowsItsBlock) {
  A s = Roomy<char>("", 15);
  const char* block = s.c_str();
  const unsigned short e[] = {'c', 'a', 'f', 0xE9, 0};
  s = e;
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(Text(s), std::string("caf\xC3\xA9"));
  const unsigned short long_[] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 0xE9, 0xE9, 0xE9, 0xE9, 0};
  s = long_;  // 18 bytes: the block is reallocated
  EXPECT_EQ(Text(s), std::string("0123456789\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9"));
  EXPECT_EQ(Cap(s), 23u);
  EXPECT_EQ(Refs(s), 1);
  W w = Make<unsigned short>("x");
  W keep(w);
  w = "h\xC3\xA9";
  EXPECT_EQ(Text(keep), L<unsigned short>("x"));
  const unsigned short he[] = {'h', 0xE9};
  EXPECT_EQ(Text(w), Model<unsigned short>(he, 2));
}

TEST(SetInternalMixed, FailedConversionLeavesLengthZero) {
  W w = Make<unsigned short>("text");
  NoConverter noConverter;
  w = "abc";
  EXPECT_EQ(w.length(), 0u);
  EXPECT_FALSE(OnEmptyRecord(w));
}

TYPED_TEST(BothWidths, SetInternalOutOfMemoryKeepsTheOldText) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("old");
  QzStringT<T> other(s);
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(s = L<T>("new").c_str()); }
  EXPECT_EQ(s.c_str(), other.c_str());
  EXPECT_EQ(Refs(s), 2);
  QzStringT<T> sole = Make<T>("old");
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(sole = L<T>("longer than seven").c_str()); }
  EXPECT_EQ(Text(sole), L<T>("old"));
}

TEST(SetInternalMixed, FailedReallocationKeepsTheOldBlock) {
  A s = Make<char>("old");
  const char* block = s.c_str();
  const unsigned short big[] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 0};
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(s = big); }
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(Text(s), std::string("old"));
  EXPECT_EQ(Cap(s), 7u);
}

// ---- AppendInternal and += -------------------------------------------------------------------------

TYPED_TEST(BothWidths, AppendInPlaceThenANewBlockSizedExactlyByTheRule) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("abc");
  const T* block = s.c_str();
  s += L<T>("defg").c_str();  // 7: still fits
  EXPECT_EQ(s.c_str(), block);
  s += static_cast<T>('h');  // 8: new block, capacity 15
  EXPECT_NE(s.c_str(), block);
  EXPECT_EQ(Cap(s), 15u);
  EXPECT_EQ(Text(s), L<T>("abcdefgh"));
  EXPECT_EQ(s.c_str()[8], 0);
}

TYPED_TEST(BothWidths, AppendingThePartOfItselfIsSoundOnBothPaths) {
  typedef TypeParam T;
  QzStringT<T> s = Roomy<T>("abc", 20);
  s += s.c_str();  // in place
  EXPECT_EQ(Text(s), L<T>("abcabc"));
  Append(s, s.c_str() + 1, 20u);  // 26 units: new block, source in the old one
  EXPECT_EQ(Text(s), L<T>("abcabc") + L<T>("bcabc") + Model<T>(15, 0));
}

TYPED_TEST(BothWidths, AppendEdgeCounts) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("abc");
  QzStringT<T> other(s);
  Append(s, L<T>("xyz").c_str(), 0u);
  EXPECT_EQ(Refs(s), 2);  // count 0: nothing at all
  s += static_cast<const T*>(nullptr);
  EXPECT_EQ(Refs(s), 2);
  Append(s, static_cast<const T*>(nullptr), 0xFFFFFFFFu);  // a private copy of the same text
  EXPECT_EQ(Refs(s), 1);
  EXPECT_EQ(Refs(other), 1);
  EXPECT_EQ(Text(s), L<T>("abc"));
  Append(s, L<T>("de\0f", 4).c_str(), 0xFFFFFFFFu);
  EXPECT_EQ(Text(s), L<T>("abcde"));
}

TYPED_TEST(BothWidths, AppendingAStringToAnEmptyOneSharesIt) {
  typedef TypeParam T;
  QzStringT<T> a = Make<T>("shared"), e;
  e += a;
  EXPECT_EQ(e.c_str(), a.c_str());
  EXPECT_EQ(Refs(a), 2);
  e += a;
  EXPECT_EQ(Text(e), L<T>("sharedshared"));
  EXPECT_EQ(Text(a), L<T>("shared"));
}

TEST(AppendMixed, ConvertsBehindTheTextAndKeepsItWhenConversionFails) {
  A s = Make<char>("caf");
  const unsigned short e[] = {0xE9, '!', 0};
  s += e;
  EXPECT_EQ(Text(s), std::string("caf\xC3\xA9!"));
  W w = Make<unsigned short>("x");
  w += "\xE2\x82\xAC";
  const unsigned short xe[] = {'x', 0x20AC};
  EXPECT_EQ(Text(w), Model<unsigned short>(xe, 2));
  NoConverter noConverter;
  s += e;
  EXPECT_EQ(Text(s), std::string("caf\xC3\xA9!"));
}

TEST(AppendMixed, DoubleByteCodePage) {
  CodePage sjis(932);
  A s = Make<char>("a");
  const unsigned short hiragana[] = {0x3042, 0x3044, 0};
  s += hiragana;
  EXPECT_EQ(Text(s), std::string("a\x82\xA0\x82\xA2"));
}

TYPED_TEST(BothWidths, AppendOutOfMemoryKeepsTheOldText) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("abcdefg");
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(s += static_cast<T>('h')); }
  EXPECT_EQ(Text(s), L<T>("abcdefg"));
  EXPECT_EQ(Refs(s), 1);
  const typename QzStringT<T>::OtherCharType other[] = {'x', 'y', 'z', 0};
  QzStringT<T> shared(s);
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(s += other); }
  EXPECT_EQ(Text(s), L<T>("abcdefg"));
  EXPECT_EQ(Refs(s), 2);
}

// ---- Concatenate and + -------------------------------------------------------------------------------

TYPED_TEST(BothWidths, ConcatenateAlwaysBuildsAPrivateBlock) {
  typedef TypeParam T;
  QzStringT<T> e1, e2;
  QzStringT<T> r = e1 + e2;
  EXPECT_FALSE(OnEmptyRecord(r));
  EXPECT_EQ(r.length(), 0u);
  EXPECT_EQ(Cap(r), 7u);
  EXPECT_EQ(Refs(r), 1);
  QzStringT<T> a = Make<T>("ab");
  EXPECT_EQ(Text(a + L<T>("cd").c_str()), L<T>("abcd"));
  EXPECT_EQ(Text(L<T>("cd").c_str() + a), L<T>("cdab"));
  EXPECT_EQ(Text(a + static_cast<T>('!')), L<T>("ab!"));
  EXPECT_EQ(Text(static_cast<T>('!') + a), L<T>("!ab"));
  EXPECT_EQ(Text(a + static_cast<const T*>(nullptr)), L<T>("ab"));
  Model<T> z = L<T>("a\0b", 3);
  QzStringT<T> withZero(z.c_str(), 3u);
  EXPECT_EQ(Text(withZero + withZero), z + z);
}

TYPED_TEST(BothWidths, ConcatenateMayReadTheResultsOwnBlock) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("hello");
  QzStringAccess::Concatenate(s, s.c_str() + 3, 2u, s.c_str(), 3u);
  EXPECT_EQ(Text(s), L<T>("lohel"));
  EXPECT_EQ(Cap(s), 7u);
}

TEST(ConcatenateMixed, EitherSideMayBeTheOtherWidth) {
  A a = Make<char>("caf");
  const unsigned short e[] = {0xE9, 0};
  EXPECT_EQ(Text(a + e), std::string("caf\xC3\xA9"));
  EXPECT_EQ(Text(e + a), std::string("\xC3\xA9" "caf"));
  W w = Make<unsigned short>("x");
  const unsigned short xe[] = {'x', 0x20AC};
  EXPECT_EQ(Text(w + "\xE2\x82\xAC"), Model<unsigned short>(xe, 2));
  NoConverter noConverter;
  EXPECT_EQ(Text(a + e), std::string("caf"));
}

TYPED_TEST(BothWidths, ConcatenateOutOfMemoryLeavesTheResult) {
  typedef TypeParam T;
  QzStringT<T> a = Make<T>("ab");
  QzStringT<T> r = Make<T>("result");
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(r = a + a); }
  EXPECT_EQ(Text(r), L<T>("result"));
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(QzStringAccess::Concatenate(r, a.c_str(), 2u, a.c_str(), 2u)); }
  EXPECT_EQ(Text(r), L<T>("result"));
}

// ---- insert ----------------------------------------------------------------------------------------------

TYPED_TEST(BothWidths, InsertPastTheEndAppendsAndCountZeroDoesNothing) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("abc");
  QzStringT<T> other(s);
  EXPECT_EQ(s.insert(1, L<T>("xy").c_str(), 0u), 3u);
  EXPECT_EQ(Refs(s), 2);
  EXPECT_EQ(s.insert(99, static_cast<const T*>(nullptr), 0xFFFFFFFFu), 3u);
  EXPECT_EQ(Refs(s), 2);
  EXPECT_EQ(s.insert(99, L<T>("de").c_str(), 0xFFFFFFFFu), 5u);
  EXPECT_EQ(Text(s), L<T>("abcde"));
  EXPECT_EQ(Text(other), L<T>("abc"));
}

TYPED_TEST(BothWidths, InsertIntoASharedStringLeavesTheOtherOwner) {
  typedef TypeParam T;
  QzStringT<T> s = Roomy<T>("abc", 20);
  QzStringT<T> other(s);
  EXPECT_EQ(s.insert(1, L<T>("XY").c_str(), 2u), 5u);
  EXPECT_EQ(Text(s), L<T>("aXYbc"));
  EXPECT_EQ(Cap(s), 7u);  // a new block by the rule
  EXPECT_EQ(Text(other), L<T>("abc"));
  EXPECT_EQ(Refs(other), 1);
}

TYPED_TEST(BothWidths, InsertMovesTheTailInPlaceWhenItFits) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("abcd");
  const T* block = s.c_str();
  EXPECT_EQ(s.insert(0, L<T>("\0z", 2).c_str(), 2u), 6u);
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(Text(s), L<T>("\0zabcd", 6));
  EXPECT_EQ(s.insert(3, L<T>("123").c_str(), 3u), 9u);  // no room: new block
  EXPECT_NE(s.c_str(), block);
  EXPECT_EQ(Text(s), L<T>("\0za123bcd", 9));
  QzStringT<T> other(s);
  EXPECT_EQ(s.insert(3, s.c_str() + 6, 3u), 12u);  // own text: sound on the new-block path
  EXPECT_EQ(Text(s), L<T>("\0zabcd123bcd", 12));
  EXPECT_EQ(Text(other), L<T>("\0za123bcd", 9));
}

TEST(InsertMixed, ConvertsIntoTheGap) {
  A s = Make<char>("cafe");
  const unsigned short e[] = {0xE9, 0};
  EXPECT_EQ(s.insert(3, e, 1u), 6u);
  EXPECT_EQ(Text(s), std::string("caf\xC3\xA9" "e"));
  W w = Roomy<unsigned short>("ab", 10);
  const unsigned short* block = w.c_str();
  EXPECT_EQ(w.insert(1, "\xE2\x82\xAC", 3u), 3u);
  EXPECT_EQ(w.c_str(), block);
  const unsigned short expect[] = {'a', 0x20AC, 'b'};
  EXPECT_EQ(Text(w), Model<unsigned short>(expect, 3));
  NoConverter noConverter;
  EXPECT_EQ(w.insert(1, "x", 1u), 3u);
  EXPECT_EQ(Text(w), Model<unsigned short>(expect, 3));
}

// ---- erase -----------------------------------------------------------------------------------------------

TYPED_TEST(BothWidths, EraseCountsAndPositions) {
  typedef TypeParam T;
  QzStringT<T> e;
  EXPECT_EQ(e.erase(0, 5), 0u);
  QzStringT<T> s = Make<T>("abcde");
  EXPECT_EQ(s.erase(0, 0), 5u);
  EXPECT_EQ(s.erase(5, 1), 5u);
  EXPECT_EQ(s.erase(0xFFFFFFFFu, 0xFFFFFFFFu), 5u);
  EXPECT_EQ(s.erase(2, 0xFFFFFFFFu), 2u);
  EXPECT_EQ(Text(s), L<T>("ab"));
  QzStringT<T> m = Make<T>("abcdef");
  EXPECT_EQ(m.erase(1, 2), 4u);
  EXPECT_EQ(Text(m), L<T>("adef"));
  EXPECT_EQ(m.c_str()[4], 0);
  EXPECT_EQ(m.erase(1, 0x80000000u), 1u);
  EXPECT_EQ(Text(m), L<T>("a"));
}

TYPED_TEST(BothWidths, EraseEverything) {
  typedef TypeParam T;
  QzStringT<T> sole = Make<T>("0123456789");
  const T* block = sole.c_str();
  EXPECT_EQ(sole.erase(0, 10), 0u);
  EXPECT_EQ(sole.c_str(), block);
  EXPECT_EQ(Cap(sole), 15u);
  EXPECT_EQ(sole.c_str()[0], 0);
  QzStringT<T> shared = Make<T>("abc");
  QzStringT<T> other(shared);
  EXPECT_EQ(shared.erase(0, 0xFFFFFFFFu), 0u);
  EXPECT_TRUE(OnEmptyRecord(shared));
  EXPECT_EQ(Text(other), L<T>("abc"));
  EXPECT_EQ(Refs(other), 1);
}

TYPED_TEST(BothWidths, EraseFromASharedStringMakesItsOwnBlock) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("abcdefghijk");
  QzStringT<T> other(s);
  EXPECT_EQ(s.erase(2, 3), 8u);
  EXPECT_EQ(Text(s), L<T>("abfghijk"));
  EXPECT_EQ(Cap(s), 15u);
  QzStringT<T> other2(s);
  EXPECT_EQ(s.erase(3, 0xFFFFFFFFu), 3u);
  EXPECT_EQ(Text(s), L<T>("abf"));
  EXPECT_EQ(Text(other), L<T>("abcdefghijk"));
  EXPECT_EQ(Text(other2), L<T>("abfghijk"));
  { FailNextAlloc f; QzStringT<T> third(other); EXPECT_OUT_OF_MEMORY(third.erase(1, 1)); EXPECT_EQ(third.c_str(), other.c_str()); }
}

// ---- remove ------------------------------------------------------------------------------------------------

TYPED_TEST(BothWidths, RemoveWithNoHitLeavesTheBlockShared) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("abc");
  QzStringT<T> other(s);
  EXPECT_EQ(s.remove(static_cast<T>('z')), 0u);
  EXPECT_EQ(s.removeIgnoreCase(static_cast<T>('z')), 0u);
  EXPECT_EQ(Refs(s), 2);
}

TYPED_TEST(BothWidths, RemoveCompactsAPrivateCopy) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("banana\0a", 8);
  QzStringT<T> other(s);
  EXPECT_EQ(s.remove(static_cast<T>('a')), 4u);
  EXPECT_EQ(Text(s), L<T>("bnn\0", 4));
  EXPECT_EQ(Cap(s), 15u);
  EXPECT_EQ(Text(other), L<T>("banana\0a", 8));
  EXPECT_EQ(s.remove(static_cast<T>(0)), 1u);
  EXPECT_EQ(Text(s), L<T>("bnn"));
  EXPECT_EQ(Cap(s), 15u);  // sole owner: in place, capacity kept
}

TYPED_TEST(BothWidths, RemoveIgnoreCaseTakesTheOtherCase) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("ABcAB");
  EXPECT_EQ(s.removeIgnoreCase(static_cast<T>('b')), 2u);
  EXPECT_EQ(Text(s), L<T>("AcA"));
  EXPECT_EQ(s.remove(static_cast<T>('a')), 0u);
}

TEST(RemoveNarrow, StepsOverDoubleByteCharacters) {
  CodePage sjis(932);
  A s(std::string("\x82" "a" "a" "\x82\xA0").c_str());  // 0x82 0x61 is one character
  EXPECT_EQ(s.remove('a'), 1u);
  EXPECT_EQ(Text(s), std::string("\x82" "a" "\x82\xA0"));
}

// ---- replace, single characters -----------------------------------------------------------------------------

TYPED_TEST(BothWidths, ReplaceCharacter) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("abcab");
  EXPECT_EQ(s.replace(static_cast<T>('a'), static_cast<T>('a')), 0u);
  const T* block = s.c_str();
  EXPECT_EQ(s.replace(static_cast<T>('a'), static_cast<T>('A')), 2u);
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(Text(s), L<T>("AbcAb"));
  EXPECT_EQ(s.replaceIgnoreCase(static_cast<T>('a'), static_cast<T>('A')), 0u);
  EXPECT_EQ(Text(s), L<T>("AbcAb"));
  EXPECT_EQ(s.replaceIgnoreCase(static_cast<T>('a'), static_cast<T>('x')), 2u);
  EXPECT_EQ(Text(s), L<T>("xbcxb"));
}

TYPED_TEST(BothWidths, ReplaceCharacterOnASharedString) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("abcab");
  QzStringT<T> other(s), third(s);
  EXPECT_EQ(s.replace(static_cast<T>('z'), static_cast<T>('y')), 0u);
  EXPECT_EQ(Refs(s), 3);
  EXPECT_EQ(s.replace(static_cast<T>('b'), static_cast<T>('B')), 2u);
  EXPECT_EQ(Text(s), L<T>("aBcaB"));
  EXPECT_EQ(Refs(s), 1);
  EXPECT_EQ(Refs(other), 2);
  EXPECT_EQ(Text(other), L<T>("abcab"));
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(third.replace(static_cast<T>('a'), static_cast<T>('q'))); }
  EXPECT_EQ(third.c_str(), other.c_str());
}

TEST(ReplaceNarrow, OnlyWholeCharactersAreTested) {
  CodePage sjis(932);
  A s(std::string("\x82" "a" "a").c_str());
  EXPECT_EQ(s.replace('a', 'b'), 1u);
  EXPECT_EQ(Text(s), std::string("\x82" "a" "b"));
}

// ---- replace, texts ---------------------------------------------------------------------------------------------

TYPED_TEST(BothWidths, ReplaceTextEdgeCounts) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("aaa");
  EXPECT_EQ(s.replace(L<T>("a").c_str(), 0u, L<T>("b").c_str(), 1u), 0u);
  EXPECT_EQ(s.replace(L<T>("aaaa").c_str(), 4u, L<T>("b").c_str(), 1u), 0u);
  EXPECT_EQ(s.replace(static_cast<const T*>(nullptr), 2u, L<T>("b").c_str(), 1u), 0u);
  EXPECT_EQ(s.replace(L<T>("aa").c_str(), 2u, L<T>("b").c_str(), 1u), 1u);
  EXPECT_EQ(Text(s), L<T>("ba"));
  QzStringT<T> whole = Make<T>("whole");
  EXPECT_EQ(whole.replace(L<T>("whole").c_str(), 5u, static_cast<const T*>(nullptr), 0u), 1u);
  EXPECT_EQ(whole.length(), 0u);
  EXPECT_FALSE(OnEmptyRecord(whole));
  EXPECT_EQ(Cap(whole), 7u);
}

TYPED_TEST(BothWidths, ReplaceTextOfEqualLengthWorksInPlace) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("one two one");
  const T* block = s.c_str();
  EXPECT_EQ(s.replace(L<T>("one").c_str(), 3u, L<T>("six").c_str(), 3u), 2u);
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(Text(s), L<T>("six two six"));
  QzStringT<T> other(s);
  EXPECT_EQ(s.replace(L<T>("ten").c_str(), 3u, L<T>("one").c_str(), 3u), 0u);
  EXPECT_EQ(Refs(s), 2);
  EXPECT_EQ(s.replace(L<T>("two").c_str(), 3u, L<T>("TWO").c_str(), 3u), 1u);
  EXPECT_EQ(Text(other), L<T>("six two six"));
  EXPECT_EQ(Text(s), L<T>("six TWO six"));
}

TYPED_TEST(BothWidths, ReplaceTextOfOtherLengthAlwaysBuildsOneBlock) {
  typedef TypeParam T;
  QzStringT<T> s = Roomy<T>("a-b-c", 30);
  const T* block = s.c_str();
  EXPECT_EQ(s.replace(L<T>("-").c_str(), 1u, L<T>("--").c_str(), 2u), 2u);
  EXPECT_NE(s.c_str(), block);
  EXPECT_EQ(Text(s), L<T>("a--b--c"));
  EXPECT_EQ(Cap(s), 7u);
  // Texts inside the string itself are sound on this path.
  EXPECT_EQ(s.replace(s.c_str() + 1, 2u, s.c_str(), 1u), 2u);
  EXPECT_EQ(Text(s), L<T>("aabac"));
  Model<T> z = L<T>("x\0y\0x", 5);
  QzStringT<T> zeros(z.c_str(), 5u);
  EXPECT_EQ(zeros.replace(L<T>("\0", 1).c_str(), 1u, L<T>("<>").c_str(), 2u), 2u);
  EXPECT_EQ(Text(zeros), L<T>("x<>y<>x"));
}

TYPED_TEST(BothWidths, ReplaceTextIgnoringCaseKeepsTheReplacementAsGiven) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("Hello HELLO hello");
  EXPECT_EQ(s.replaceIgnoreCase(L<T>("hello").c_str(), 5u, L<T>("Bye").c_str(), 3u), 3u);
  EXPECT_EQ(Text(s), L<T>("Bye Bye Bye"));
  EXPECT_EQ(s.replaceIgnoreCase(L<T>("bye").c_str(), 3u, L<T>("yes").c_str(), 3u), 3u);
  EXPECT_EQ(Text(s), L<T>("yes yes yes"));
}

TEST(ReplaceNarrow, MultiByteTextsMatchByTheirBytes) {
  A s("caf\xC3\xA9 \xC3\xA9t\xC3\xA9");  // café été
  EXPECT_EQ(s.replace("\xC3\xA9", 2u, "e", 1u), 3u);
  EXPECT_EQ(Text(s), std::string("cafe ete"));
  A t("CAF\xC3\x89 caf\xC3\xA9");  // CAFÉ café
  EXPECT_EQ(t.replaceIgnoreCase("caf\xC3\xA9", 5u, "x", 1u), 2u);
  EXPECT_EQ(Text(t), std::string("x x"));
}

// ---- substr --------------------------------------------------------------------------------------------------

TYPED_TEST(BothWidths, SubstrNeverSharesTheBlock) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>("abc");
  EXPECT_TRUE(OnEmptyRecord(s.substr(3, 1)));
  EXPECT_TRUE(OnEmptyRecord(s.substr(0xFFFFFFFFu, 1)));
  EXPECT_TRUE(OnEmptyRecord(s.substr(1, 0)));
  QzStringT<T> all = s.substr(0, 0xFFFFFFFFu);
  EXPECT_NE(all.c_str(), s.c_str());
  EXPECT_EQ(Refs(all), 1);
  EXPECT_EQ(Refs(s), 1);
  EXPECT_EQ(Text(all), L<T>("abc"));
  EXPECT_EQ(Text(s.substr(1, 0x80000000u)), L<T>("bc"));
  QzStringT<T> z = Make<T>("a\0bc", 4);
  EXPECT_TRUE(OnEmptyRecord(z.substr(1, 2)));
  EXPECT_EQ(Text(z.substr(0, 3)), L<T>("a\0b", 3));
  { FailNextAlloc f; EXPECT_OUT_OF_MEMORY(s.substr(1, 1)); }
}

// ---- In-place trims --------------------------------------------------------------------------------------------

TYPED_TEST(BothWidths, SelfTrims) {
  typedef TypeParam T;
  QzStringT<T> s = Make<T>(" \t\r\nabc \r\n");
  QzStringT<T> other(s);
  s.selfTrimWhiteSpaceLeft();
  EXPECT_EQ(Text(s), L<T>("abc \r\n"));
  EXPECT_EQ(Text(other), L<T>(" \t\r\nabc \r\n"));
  const T* block = s.c_str();
  EXPECT_EQ(&s.selfTrimWhiteSpaceRight(), &s);
  EXPECT_EQ(Text(s), L<T>("abc"));
  EXPECT_EQ(s.c_str(), block);  // sole owner: cut in place
  QzStringT<T> blank = Make<T>("   ");
  QzStringT<T> blankOther(blank);
  blank.selfTrimWhiteSpaceRight();
  EXPECT_TRUE(OnEmptyRecord(blank));
  blankOther.selfTrimWhiteSpaceLeft();  // now the sole owner: keeps its block
  EXPECT_EQ(blankOther.length(), 0u);
  EXPECT_EQ(Cap(blankOther), 7u);
  QzStringT<T> none = Make<T>("x");
  QzStringT<T> noneOther(none);
  none.selfTrimWhiteSpaceLeft().selfTrimWhiteSpaceRight();
  EXPECT_EQ(Refs(none), 2);
  QzStringT<T> e;
  e.selfTrimWhiteSpaceRight();
  EXPECT_TRUE(OnEmptyRecord(e));
}

TEST(SelfTrimNarrow, HighBytesAreNotWhiteSpace) {
  A s("\xA0x\xA0");
  s.selfTrimWhiteSpaceLeft().selfTrimWhiteSpaceRight();
  EXPECT_EQ(Text(s), std::string("\xA0x\xA0"));
  W w;
  const unsigned short ideographicSpace[] = {0x3000, 'x', 0x3000, 0};
  w = ideographicSpace;
  w.selfTrimWhiteSpaceLeft().selfTrimWhiteSpaceRight();
  EXPECT_EQ(Text(w), L<unsigned short>("x"));
}

// ---- Out of memory, every allocating member --------------------------------------------------------------

TYPED_TEST(BothWidths, EveryAllocatingMemberLeavesASharedStringAsItWas) {
  typedef TypeParam T;
  typedef typename QzStringT<T>::OtherCharType U;
  const Model<T> ab = L<T>("ab"), xyz = L<T>("xyz");
  const Model<U> otherWidth = L<U>("uv");
  typedef void (*Edit)(QzStringT<T>&, const Model<T>&, const Model<T>&, const Model<U>&);
  const Edit edits[] = {
      [](QzStringT<T>& s, const Model<T>&, const Model<T>& t, const Model<U>&) { s = t.c_str(); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>&, const Model<U>& u) { s = u.c_str(); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>& t, const Model<U>&) { s += t.c_str(); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>&, const Model<U>& u) { s += u.c_str(); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>& t, const Model<U>&) { s.insert(1, t.c_str(), 3u); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>&, const Model<U>& u) { s.insert(1, u.c_str(), 2u); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>&, const Model<U>&) { s.erase(1, 1); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>&, const Model<U>&) { s.erase(1, 0xFFFFFFFFu); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>&, const Model<U>&) { s.remove(static_cast<T>('a')); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>&, const Model<U>&) { s.removeIgnoreCase(static_cast<T>('A')); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>&, const Model<U>&) { s.replace(static_cast<T>('a'), static_cast<T>('q')); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>&, const Model<U>&) { s.replaceIgnoreCase(static_cast<T>('A'), static_cast<T>('q')); },
      [](QzStringT<T>& s, const Model<T>& f, const Model<T>& t, const Model<U>&) { s.replace(f.c_str(), 2u, t.c_str(), 3u); },
      [](QzStringT<T>& s, const Model<T>& f, const Model<T>& t, const Model<U>&) { s.replace(f.c_str(), 2u, t.c_str(), 2u); },
      [](QzStringT<T>& s, const Model<T>& f, const Model<T>& t, const Model<U>&) { s.replaceIgnoreCase(f.c_str(), 2u, t.c_str(), 1u); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>&, const Model<U>&) { s.selfTrimWhiteSpaceLeft(); },
      [](QzStringT<T>& s, const Model<T>&, const Model<T>&, const Model<U>&) { s.selfTrimWhiteSpaceRight(); },
  };
  unsigned i = 0;
  for (Edit edit : edits) {
    SCOPED_TRACE(i++);
    QzStringT<T> s = Make<T>(" abab ");
    QzStringT<T> other(s);
    const T* block = s.c_str();
    {
      FailNextAlloc f;
      EXPECT_OUT_OF_MEMORY(edit(s, ab, xyz, otherWidth));
    }
    EXPECT_EQ(s.c_str(), block);
    EXPECT_EQ(Refs(s), 2);
    EXPECT_EQ(Text(s), L<T>(" abab "));
  }
}
