// Sizes that no block can hold, and text that converts with substitutes.
#include <functional>
#include <vector>

#include "StringTestUtil.h"

using namespace strtest;

namespace {

typedef QzStringT<char> A;
typedef QzStringT<unsigned short> W;
typedef Model<unsigned short> WM;

const bool kWord32 = sizeof(void*) == 4;

// Runs `body` with the pool refusing only its next allocation. A size that
// no block can hold must throw before the pool is asked: the refusal is then
// met by the exception's own text, which comes out empty. A size the pool
// may be asked for is refused by it, and the text is the full message.
// Either way the shared empty record is neither counted nor written.
void ExpectRefused(const char* what, bool beforeThePool, const std::function<void()>& body) {
  SCOPED_TRACE(what);
  const int refs = EmptyRefs();
  bool thrown = false;
  {
    FailNextAlloc refuse;
    try {
      body();
    } catch (const QzException& e) {
      thrown = true;
      EXPECT_STREQ(e.GetText(), beforeThePool ? ""
                                              : "Not enough memory resources are available to complete this operation.");
    }
  }
  EXPECT_TRUE(thrown);
  EXPECT_EQ(EmptyRefs(), refs);
  EXPECT_EQ(qzstr::g_emptyRecord.chars.wide[0] | qzstr::g_emptyRecord.chars.wide[1], 0);
}

}  // namespace

TYPED_TEST_SUITE(BothWidths, Widths);

// Each case would wrap a 32-bit or word-sized computation somewhere, and
// without its check would get a small block and write far past it.
TYPED_TEST(BothWidths, SizesNoBlockCanHoldThrowBeforeAnythingIsWritten) {
  typedef TypeParam T;
  const bool wide = sizeof(T) == 2;
  const unsigned char bytes[4] = {1, 2, 3, 4};  // never read: far too few
  const Model<T> sixteen = L<T>("0123456789abcdef"), a4 = L<T>("aaaa"), one = L<T>("a");
  QzStringT<T> s(sixteen.c_str());
  ExpectRefused("fill", kWord32 && wide, [] { QzStringT<T> f(0x7FFFFFF8u, static_cast<T>('x')); });
  ExpectRefused("hex dump in groups of 1", kWord32 && wide,
                [&] { QzStringT<T>::ToHexString(bytes, 0x2AAAAAABu, 1u, 0); });
  ExpectRefused("hex dump past 2^32 characters", true, [&] { QzStringT<T>::ToHexString(bytes, 0x7FFFFFFFu, 0u, 1); });
  ExpectRefused("append", true, [&] { QzStringAccess::AppendInternal(s, sixteen.c_str(), 0xFFFFFFF8u); });
  ExpectRefused("insert", true, [&] { s.insert(1u, sixteen.c_str(), 0xFFFFFFF0u); });
  ExpectRefused("join", true, [&] {
    QzStringT<T> r;
    QzStringAccess::Concatenate(r, sixteen.c_str(), 0x80000000u, sixteen.c_str(), 0x80000000u);
  });
  QzStringT<T> aaaa(a4.c_str());
  ExpectRefused("replace", true, [&] { aaaa.replace(one.c_str(), 1u, sixteen.c_str(), 0x40000001u); });
  EXPECT_EQ(Text(aaaa), a4);
  EXPECT_EQ(Text(s), sixteen);

  // A width near INT_MAX measures near INT_MAX units.
  const Model<T> width = L<T>("%*d");
  ExpectRefused("format", kWord32 && wide, [&] { s.Format(width.c_str(), 0x7FFFFFF0, 1); });
  ExpectRefused("create", kWord32 && wide, [&] { QzStringT<T>::CreateFormatted(width.c_str(), 0x7FFFFFF0, 1); });
  if (kWord32 && wide) {
    ExpectRefused("append format", true, [&] { s.AppendFormat(width.c_str(), 0x7FFFFFF0, 1); });
  } else {
    FailNextAlloc scratch;  // the scratch is refused: silently, the string as it was
    s.AppendFormat(width.c_str(), 0x7FFFFFF0, 1);
    EXPECT_EQ(scratch.hits(), 1u);
  }
  EXPECT_EQ(Text(s), sixteen);
}

// Text that is not valid in its encoding keeps its place: U+FFFD in wide
// text, the page's default character in narrow text, and the rest whole.
TEST(MixedText, InvalidTextIsSubstitutedNotDropped) {
  const WM lone = {'a', 0xD800, 'b'}, pair = {0xD83D, 0xDE00}, tail = {'x', 0xDC00};
  EXPECT_EQ(Text(W("abc\xFF" "def")), WM({'a', 'b', 'c', 0xFFFD, 'd', 'e', 'f'}));
  EXPECT_EQ(Text(A(lone.c_str())), std::string("a\xEF\xBF\xBD" "b"));
  EXPECT_EQ(Text(A(pair.c_str())), std::string("\xF0\x9F\x98\x80"));
  A narrow("n");
  narrow += tail.c_str();
  EXPECT_EQ(Text(narrow), std::string("nx\xEF\xBF\xBD"));
  narrow.insert(0u, lone.c_str(), 2u);
  EXPECT_EQ(Text(narrow), std::string("a\xEF\xBF\xBDnx\xEF\xBF\xBD"));
  W w = W("w");
  w += "\xE2\x82";  // cut
  EXPECT_EQ(Text(w), WM({'w', 0xFFFD}));
  EXPECT_EQ(Text(W("a") + "b\xC0"), WM({'a', 'b', 0xFFFD}));
  {
    CodePage latin(1252);
    EXPECT_EQ(Text(A(WM({'a', 0x4E2D, 0xDC00, 0x20AC, 0}).c_str())), std::string("a??\x80"));
    EXPECT_EQ(Text(W("caf\xE9")), WM({'c', 'a', 'f', 0xE9}));
  }
  CodePage sjis(932);
  EXPECT_EQ(Text(W("\x81\x20" "a\x81")), WM({0xFFFD, ' ', 'a', 0xFFFD}));
  EXPECT_EQ(Text(A(WM({0x65E5, 0xD800, 0xE9, 0}).c_str())), std::string("\x93\xFA??"));
}

// In 932 a trail byte may be 0x5C ('\'). Removing and replacing step over
// whole characters and leave such a byte alone; the trims, which test byte
// by byte, take it for the character itself.
TEST(EditNarrow, TrailByteOf0x5CIn932) {
  CodePage sjis(932);
  const std::string table = "\x95\x5C";  // one character, its trail byte '\'
  A r(("\\" + table + "\\").c_str());
  EXPECT_EQ(r.remove('\\'), 2u);
  EXPECT_EQ(Text(r), table);
  A q(("\\" + table + "\\").c_str());
  EXPECT_EQ(q.replace("\\", 1u, "//", 2u), 2u);
  EXPECT_EQ(Text(q), "//" + table + "//");
  A t((table + "\\\\").c_str());
  EXPECT_EQ(Text(t.trimRight('\\')), std::string("\x95"));
  EXPECT_EQ(Text(A(("\\" + table).c_str()).trimLeft('\\')), std::string("\x95\x5C"));
  EXPECT_EQ(Text(A((" " + table + " ").c_str()).trimWhiteSpace()), table);
}
