// The editing members: which block each edit leaves (the same one, a new one
// of the rule's capacity, or the empty record), what a co-owner keeps, and
// out of memory on every allocating member.
#include <functional>

#include "StringTestUtil.h"

using namespace strtest;

namespace {

typedef QzStringT<char> A;
typedef QzStringT<unsigned short> W;
typedef Model<unsigned short> WM;
const unsigned kAll = 0xFFFFFFFFu, kAny = 0xFFFFFFFEu;

// A private block of exactly `text`, with room for `capacityFor` characters.
template <typename T>
QzStringT<T> Roomy(const char* text, size_t n, unsigned capacityFor) {
  QzStringT<T> s(capacityFor, static_cast<T>(0));
  s.erase(0, kAll);
  Model<T> m = L<T>(text, n);
  QzStringAccess::AppendInternal(s, m.c_str(), static_cast<unsigned>(m.size()));
  return s;
}

// kKept: nothing happened, not even unsharing. kSame: the sole owner's block
// was edited where it is. kNew: a new block of capacity `cap`.
enum Outcome { kKept, kSame, kNew, kRecord };

}  // namespace

TYPED_TEST_SUITE(BothWidths, Widths);

TYPED_TEST(BothWidths, EditsLeaveTheRightBlock) {
  typedef TypeParam T;
  typedef QzStringT<T> S;
  auto t = [](const char* a, size_t n = std::string::npos) {
    static Model<T> keep[8];
    static int i = 0;
    return (keep[i++ & 7] = L<T>(a, n)).c_str();
  };
  auto c = [](char ch) { return static_cast<T>(ch); };
  const T* none = nullptr;
  struct Row {  // textLen, expectLen: npos up to the terminator; room 0: a counted block
    const char *name, *text;
    size_t textLen;
    unsigned room;
    bool shared;
    std::function<unsigned(S&)> edit;
    unsigned ret;  // kAny: not checked
    Outcome outcome;
    const char* expect;
    size_t expectLen;
    unsigned cap;
  };
  const size_t z = std::string::npos;
  const Row rows[] = {
      {"set count 0", "text", z, 0, false, [&](S& s) { QzStringAccess::SetInternal(s, t("abc"), 0u); return 0u; }, kAny, kRecord, "", z, 0},
      {"set own tail", "0123456789", z, 0, false, [&](S& s) { s = s.c_str() + 4; return 0u; }, kAny, kSame, "456789", z, 15},
      {"set shared", "short", z, 0, true, [&](S& s) { s = t("new"); return 0u; }, kAny, kNew, "new", z, 7},
      {"set too long", "short", z, 0, false, [&](S& s) { s = t("a much longer text than before"); return 0u; }, kAny, kNew, "a much longer text than before", z, 31},
      {"append grows", "abcdefg", z, 0, false, [&](S& s) { s += c('h'); return 0u; }, kAny, kNew, "abcdefgh", z, 15},
      {"append self, grows", "abcabc", z, 20, false, [&](S& s) { QzStringAccess::AppendInternal(s, s.c_str() + 1, 20u); return 0u; }, kAny, kNew, "abcabcbcabc\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 26, 31},
      {"append null, all", "abc", z, 0, true, [&](S& s) { QzStringAccess::AppendInternal(s, none, kAll); return 0u; }, kAny, kNew, "abc", z, 7},
      {"s + s with 0s", "a\0b", 3, 0, false, [&](S& s) { s = s + s; return 0u; }, kAny, kNew, "a\0ba\0b", 6, 7},
      {"concatenate own block", "hello", z, 0, false, [&](S& s) { QzStringAccess::Concatenate(s, s.c_str() + 3, 2u, s.c_str(), 3u); return 0u; }, kAny, kNew, "lohel", z, 7},
      {"insert shared", "abc", z, 20, true, [&](S& s) { return s.insert(1, t("XY"), 2u); }, 5, kNew, "aXYbc", z, 7},
      {"insert grows", "abcdef", z, 0, false, [&](S& s) { return s.insert(3, t("123"), 3u); }, 9, kNew, "abc123def", z, 15},
      {"insert own text, shared", "abc123def", z, 0, true, [&](S& s) { return s.insert(3, s.c_str() + 6, 3u); }, 12, kNew, "abcdef123def", z, 15},
      {"erase tail", "abcde", z, 0, false, [&](S& s) { return s.erase(2, kAll); }, 2, kSame, "ab", z, 7},
      {"erase all, sole", "0123456789", z, 0, false, [&](S& s) { return s.erase(0, 10); }, 0, kSame, "", z, 15},
      {"erase shared", "abcdefghijk", z, 0, true, [&](S& s) { return s.erase(2, 3); }, 8, kNew, "abfghijk", z, 15},
      {"remove shared", "banana\0a", 8, 0, true, [&](S& s) { return s.remove(c('a')); }, 4, kNew, "bnn\0", 4, 15},
      {"remove ignoring case", "ABcAB", z, 0, false, [&](S& s) { return s.removeIgnoreCase(c('b')) * 10 + s.remove(c('a')); }, 20, kSame, "AcA", z, 7},
      {"replace char ignoring case", "AbcAb", z, 0, false, [&](S& s) { return s.replaceIgnoreCase(c('a'), c('x')); }, 2, kSame, "xbcxb", z, 7},
      {"replace char, shared", "abcab", z, 0, true, [&](S& s) { return s.replace(c('b'), c('B')); }, 2, kNew, "aBcaB", z, 7},
      {"replace bad texts", "aaa", z, 0, true, [&](S& s) { return s.replace(t("a"), 0u, t("b"), 1u) + s.replace(t("aaaa"), 4u, t("b"), 1u) + s.replace(none, 2u, t("b"), 1u); }, 0, kKept, "aaa", z, 0},
      {"replace text shorter", "aaa", z, 0, false, [&](S& s) { return s.replace(t("aa"), 2u, t("b"), 1u); }, 1, kNew, "ba", z, 7},
      {"replace same length, shared", "six two six", z, 0, true, [&](S& s) { return s.replace(t("two"), 3u, t("TWO"), 3u); }, 1, kNew, "six TWO six", z, 15},
      {"replace longer, roomy", "a-b-c", z, 30, false, [&](S& s) { return s.replace(t("-"), 1u, t("--"), 2u); }, 2, kNew, "a--b--c", z, 7},
      {"replace text ignoring case", "Hello HELLO hello", z, 0, false, [&](S& s) { return s.replaceIgnoreCase(t("hello"), 5u, t("Bye"), 3u); }, 3, kNew, "Bye Bye Bye", z, 15},
      {"substr past the end", "abc", z, 0, false, [&](S& s) { s = s.substr(3, 1); return 0u; }, kAny, kRecord, "", z, 0},
      {"substr count >= 2^31", "abc", z, 0, false, [&](S& s) { s = s.substr(1, 0x80000000u); return 0u; }, kAny, kNew, "bc", z, 7},
      {"substr with a 0", "a\0bc", 4, 0, false, [&](S& s) { s = s.substr(0, 3); return 0u; }, kAny, kNew, "a\0b", 3, 7},
      {"self trim left, shared", " \t\r\nabc \r\n", z, 0, true, [&](S& s) { s.selfTrimWhiteSpaceLeft(); return 0u; }, kAny, kNew, "abc \r\n", z, 7},
      {"self trim blank, shared", "   ", z, 0, true, [&](S& s) { s.selfTrimWhiteSpaceRight(); return 0u; }, kAny, kRecord, "", z, 0},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    S s = r.room ? Roomy<T>(r.text, r.textLen, r.room) : Make<T>(r.text, r.textLen);
    const Model<T> before = Text(s);
    S other;
    if (r.shared) other = s;
    const T* block = s.c_str();
    const int emptyRefs = EmptyRefs();
    unsigned got = r.edit(s);
    if (r.ret != kAny) EXPECT_EQ(got, r.ret);
    EXPECT_EQ(Text(s), L<T>(r.expect, r.expectLen));
    EXPECT_EQ(s.c_str()[s.length()], 0);
    if (r.shared) EXPECT_EQ(Text(other), before);
    if (r.outcome != kRecord) EXPECT_EQ(s.c_str() == block, r.outcome != kNew);
    EXPECT_EQ(OnEmptyRecord(s), r.outcome == kRecord);
    if (r.outcome == kKept && r.shared) EXPECT_EQ(Refs(s), 2);
    if (r.outcome == kSame || r.outcome == kNew) EXPECT_EQ(Cap(s), r.cap);
    if (r.outcome == kNew) EXPECT_EQ(Refs(s), 1);
    if (r.shared && (r.outcome == kNew || r.outcome == kRecord)) EXPECT_EQ(Refs(other), 1);
    if (r.outcome == kRecord && block != qzstr::EmptyChars<T>()) EXPECT_EQ(EmptyRefs(), emptyRefs + 1);
  }
}

TYPED_TEST(BothWidths, AppendingAStringToAnEmptyOneSharesIt) {
  typedef TypeParam T;
  QzStringT<T> a = Make<T>("shared"), e;
  e += a;
  EXPECT_EQ(e.c_str(), a.c_str());
  EXPECT_EQ(Refs(a), 2);
}

// Shared: every allocating member must fail with the text and the sharing as
// they were. Rows marked true always allocate, so they also fail on a full
// private block, which must keep its block and capacity.
TYPED_TEST(BothWidths, OutOfMemoryLeavesTheStringAsItWas) {
  typedef TypeParam T;
  typedef QzStringT<T> S;
  typedef typename S::OtherCharType U;
  const Model<T> ab = L<T>("ab"), xyz = L<T>("xyzxyzxyz");
  const Model<U> uv = L<U>("uvuvuvuvu");
  const std::pair<bool, std::function<void(S&)> > edits[] = {
      {true, [&](S& s) { s = xyz.c_str(); }},
      {true, [&](S& s) { s = uv.c_str(); }},
      {true, [&](S& s) { s += xyz.c_str(); }},
      {true, [&](S& s) { s += uv.c_str(); }},
      {true, [&](S& s) { s += static_cast<T>('h'); }},
      {true, [&](S& s) { s.insert(1, xyz.c_str(), 3u); }},
      {true, [&](S& s) { s.insert(1, uv.c_str(), 2u); }},
      {true, [&](S& s) { s = s + xyz.c_str(); }},
      {true, [&](S& s) { s = uv.c_str() + s; }},
      {true, [&](S& s) { QzStringAccess::Concatenate(s, ab.c_str(), 2u, ab.c_str(), 2u); }},
      {true, [&](S& s) { s = s.substr(1, 2); }},
      {false, [&](S& s) { s.erase(1, 1); }},
      {false, [&](S& s) { s.remove(static_cast<T>('a')); }},
      {false, [&](S& s) { s.replace(static_cast<T>('a'), static_cast<T>('q')); }},
      {true, [&](S& s) { s.replace(ab.c_str(), 2u, xyz.c_str(), 3u); }},
      {false, [&](S& s) { s.replace(ab.c_str(), 2u, xyz.c_str(), 2u); }},
      {true, [&](S& s) { s.replaceIgnoreCase(ab.c_str(), 2u, xyz.c_str(), 1u); }},
      {false, [&](S& s) { s.selfTrimWhiteSpaceLeft(); }},
  };
  unsigned i = 0;
  for (const auto& edit : edits) {
    SCOPED_TRACE(i++);
    for (bool shared : {true, false}) {
      if (!shared && !edit.first) continue;
      S s = Make<T>(" abab  ");  // full: capacity 7
      S other;
      if (shared) other = s;
      const T* block = s.c_str();
      {
        FailNextAlloc f;
        EXPECT_OUT_OF_MEMORY(edit.second(s));
      }
      EXPECT_EQ(s.c_str(), block);
      EXPECT_EQ(Refs(s), shared ? 2 : 1);
      EXPECT_EQ(Cap(s), 7u);
      EXPECT_EQ(Text(s), L<T>(" abab  "));
    }
  }
}

TEST(EditMixedWidths, ConvertInPlaceOrIntoANewBlock) {
  A s = Roomy<char>("", 0, 15);
  const char* block = s.c_str();
  const unsigned short cafe[] = {'c', 'a', 'f', 0xE9, 0};
  s = cafe;
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(Text(s), std::string("caf\xC3\xA9"));
  const unsigned short long_[] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 0xE9, 0xE9, 0xE9, 0xE9, 0};
  s = long_;  // 18 bytes
  EXPECT_EQ(Text(s), std::string("0123456789\xC3\xA9\xC3\xA9\xC3\xA9\xC3\xA9"));
  EXPECT_EQ(Cap(s), 23u);
  const unsigned short e[] = {0xE9, '!', 0};
  A a = Make<char>("caf");
  EXPECT_EQ(Text(a + e), std::string("caf\xC3\xA9!"));
  EXPECT_EQ(a.insert(3, e, 1u), 5u);
  EXPECT_EQ(Text(a), std::string("caf\xC3\xA9"));

  const unsigned short he[] = {'h', 0xE9}, axb[] = {'a', 0x20AC, 'b'};
  W w = Make<unsigned short>("x");
  w = "h\xC3\xA9";
  EXPECT_EQ(Text(w), Model<unsigned short>(he, 2));
  W r = Roomy<unsigned short>("ab", 2, 10);
  const unsigned short* rb = r.c_str();
  EXPECT_EQ(r.insert(1, "\xE2\x82\xAC", 3u), 3u);
  EXPECT_EQ(r.c_str(), rb);
  EXPECT_EQ(Text(r), Model<unsigned short>(axb, 3));

  // Without a converter: assignment leaves a private empty block, the others
  // leave the text as it was.
  NoConverter noConverter;
  a += e;
  EXPECT_EQ(Text(a), std::string("caf\xC3\xA9"));
  w = "abc";
  EXPECT_EQ(w.length(), 0u);
  EXPECT_FALSE(OnEmptyRecord(w));
}

TEST(EditNarrow, CharactersAreWholeInTheCodePage) {
  // The text replacements compare as the runtime's _mbsncmp does: the count
  // is taken as characters and a 0 ends the compare. So 2 bytes of "é" are
  // compared as two characters, the second being the terminator of `from`:
  // only an "é" at the end of the text (or before a 0) matches.
  const struct { const char* text; unsigned n; const char* from; unsigned fromCount; unsigned hits; std::string after; }
      rows[] = {
          {"\xC3\xA9" "a", 3, "\xC3\xA9", 2, 0, "\xC3\xA9" "a"},
          {"caf\xC3\xA9 \xC3\xA9t\xC3\xA9", 11, "\xC3\xA9", 2, 1, "caf\xC3\xA9 \xC3\xA9te"},
          // One character matches, but the hit covers only fromCount bytes:
          // the trail byte stays, as the runtime's rules give it.
          {"\xC3\xA9\xC3\xA9", 4, "\xC3\xA9", 1, 2, "e\xA9" "e\xA9"},
          {"a\0y", 3, "a\0x", 3, 1, "e"},                      // the compare stops at the 0s
      };
  for (const auto& r : rows) {
    A a(r.text, r.n);
    EXPECT_EQ(a.replace(r.from, r.fromCount, "e", 1u), r.hits) << r.text;
    EXPECT_EQ(Text(a), r.after) << r.text;
  }
  A upper("CAF\xC3\x89 caf\xC3\xA9");
  EXPECT_EQ(upper.replaceIgnoreCase("caf\xC3\xA9", 5u, "x", 1u), 1u);
  EXPECT_EQ(Text(upper), std::string("CAF\xC3\x89 x"));
  A high("\xA0x\xA0");  // high bytes are not white space
  high.selfTrimWhiteSpaceLeft().selfTrimWhiteSpaceRight();
  EXPECT_EQ(Text(high), std::string("\xA0x\xA0"));
  const unsigned short ideographic[] = {0x3000, 'x', 0x3000, 0};
  W w(ideographic);
  w.selfTrimWhiteSpaceLeft().selfTrimWhiteSpaceRight();
  EXPECT_EQ(Text(w), L<unsigned short>("x"));

  CodePage sjis(932);  // 0x82 0x61 is one character whose trail byte is 'a'
  A s = Make<char>("a");
  const unsigned short hiragana[] = {0x3042, 0x3044, 0};
  s += hiragana;
  EXPECT_EQ(Text(s), std::string("a\x82\xA0\x82\xA2"));
  A r("\x82" "aa\x82\xA0");
  EXPECT_EQ(r.remove('a'), 1u);
  EXPECT_EQ(Text(r), std::string("\x82" "a\x82\xA0"));
}
