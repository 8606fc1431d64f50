// Format, AppendFormat, CreateFormatted and ToHexString in both widths.
#include "StringTestUtil.h"

#include <cstdarg>

using namespace qzstrtest;

namespace {

// Formats in the string's own width from a narrow literal.
template <typename T>
struct Fmt {
  explicit Fmt(const char* s) : units(U<T>(s, std::char_traits<char>::length(s))) {}
  const T* operator()() const { return units.c_str(); }
  std::basic_string<T> units;
};

// The V forms reached through a caller's own va_list, as the log reaches them.
template <typename T>
QzStringT<T> ThroughV(const T* format, ...) {
  va_list args;
  va_start(args, format);
  QzStringT<T> r = QzStringT<T>::CreateFormattedV(format, args);
  // The caller's list must still be usable: the members walk copies.
  QzStringT<T> again = QzStringT<T>::CreateFormattedV(format, args);
  va_end(args);
  EXPECT_EQ(r, again);
  return r;
}

}  // namespace

template <typename T>
class Formatting : public ::testing::Test {};
TYPED_TEST_SUITE(Formatting, BothWidths);

TYPED_TEST(Formatting, CreateFormattedSizesExactly) {
  typedef TypeParam T;
  Fmt<T> f("%d-%s-%5.2f|%c|%x");
  const std::basic_string<T> ab = U<T>("ab");
  QzStringT<T> s = QzStringT<T>::CreateFormatted(f(), -42, ab.c_str(), 3.14159, 'z', 255u);
  EXPECT_EQ(Text(s), "-42-ab- 3.14|z|ff");
  EXPECT_EQ(Refs(s), 1);
  EXPECT_EQ(s.capacity(), 23u);
  EXPECT_EQ(s, ThroughV<T>(f(), -42, ab.c_str(), 3.14159, 'z', 255u));

  // Long texts need no retry and get exactly the rule's room.
  std::basic_string<T> big(1000, T('q'));
  Fmt<T> g("<%s>");
  QzStringT<T> l = QzStringT<T>::CreateFormatted(g(), big.c_str());
  EXPECT_EQ(l.length(), 1002u);
  EXPECT_EQ(l.capacity(), 1007u);
  EXPECT_EQ(l.c_str()[1001], T('>'));
  EXPECT_EQ(l.c_str()[1002], T(0));
}

TYPED_TEST(Formatting, NoTextGivesTheEmptyRecord) {
  typedef TypeParam T;
  Fmt<T> none("");
  Fmt<T> s("%s");
  const std::basic_string<T> nothing;
  EXPECT_TRUE(OnEmptyRecord(QzStringT<T>::CreateFormatted(none())));
  EXPECT_TRUE(OnEmptyRecord(QzStringT<T>::CreateFormatted(s(), nothing.c_str())));

  // Format empties a non-empty string onto the record and lets go of its block.
  QzStringT<T> a = S<T>("abc");
  QzStringT<T> keep = a;
  a.Format(none());
  EXPECT_TRUE(OnEmptyRecord(a));
  EXPECT_EQ(Refs(keep), 1);
  // A private block of length 0 is left as it is.
  QzStringT<T> priv = S<T>("abc");
  priv.erase(0, kNone);
  const T* block = priv.c_str();
  priv.Format(none());
  EXPECT_EQ(priv.c_str(), block);

  // AppendFormat changes nothing.
  QzStringT<T> b = S<T>("xy");
  QzStringT<T> other = b;
  b.AppendFormat(none());
  EXPECT_EQ(b.c_str(), other.c_str());
  EXPECT_EQ(Refs(b), 2);
}

TYPED_TEST(Formatting, FormatReusesOrGrowsASoleOwnersBlock) {
  typedef TypeParam T;
  Fmt<T> f("%d:%d");
  QzStringT<T> s = S<T>("0123456789abcdefghij");  // capacity 23
  const T* block = s.c_str();
  s.Format(f(), 1, 2);
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(s.capacity(), 23u);
  EXPECT_EQ(s.length(), 3u);
  EXPECT_EQ(Text(s), "1:2");

  QzStringT<T> small = S<T>("ab");
  small.Format(f(), 123456789, 987654321);
  EXPECT_EQ(Text(small), "123456789:987654321");
  EXPECT_EQ(small.capacity(), 23u);
  EXPECT_EQ(Refs(small), 1);

  // Same text as CreateFormatted.
  QzStringT<T> e;
  e.Format(f(), -1, 7);
  EXPECT_EQ(e, QzStringT<T>::CreateFormatted(f(), -1, 7));
  EXPECT_EQ(Refs(e), 1);
}

TYPED_TEST(Formatting, FormatOnASharedStringLeavesTheOtherOwner) {
  typedef TypeParam T;
  Fmt<T> f("%u");
  QzStringT<T> a = S<T>("0123456789abcdefghij");
  QzStringT<T> b = a;
  b.Format(f(), 7u);
  EXPECT_EQ(Text(b), "7");
  EXPECT_EQ(Text(a), "0123456789abcdefghij");
  EXPECT_EQ(Refs(a), 1);
  EXPECT_EQ(Refs(b), 1);
  EXPECT_EQ(b.capacity(), 7u);
}

TYPED_TEST(Formatting, AppendFormatInPlaceAndOntoItself) {
  typedef TypeParam T;
  Fmt<T> f("%s|%d");
  QzStringT<T> s = S<T>("ab");
  const T* block = s.c_str();
  const std::basic_string<T> cd = U<T>("cd");
  s.AppendFormat(f(), cd.c_str(), 5);
  EXPECT_EQ(Text(s), "abcd|5");
  EXPECT_EQ(s.c_str(), block);  // 6 units fit capacity 7

  // The argument is the string's own text; the text grows past the block.
  Fmt<T> self("%s");
  s.AppendFormat(self(), s.c_str());
  EXPECT_EQ(Text(s), "abcd|5abcd|5");
  s.AppendFormat(self(), s.c_str());
  EXPECT_EQ(Text(s), "abcd|5abcd|5abcd|5abcd|5");

  // On a shared string the other owner keeps its text.
  QzStringT<T> other = s;
  s.AppendFormat(f(), cd.c_str(), 0);
  EXPECT_EQ(Text(s), "abcd|5abcd|5abcd|5abcd|5cd|0");
  EXPECT_EQ(Text(other), "abcd|5abcd|5abcd|5abcd|5");
  EXPECT_EQ(Refs(other), 1);
}

TYPED_TEST(Formatting, OutOfMemory) {
  typedef TypeParam T;
  Fmt<T> f("%d%d%d");
  {
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_OUT_OF_MEMORY(QzStringT<T>::CreateFormatted(f(), 1, 2, 3));
  }
  // Sole owner that must grow: the failed reallocation keeps the old block.
  QzStringT<T> s = S<T>("abc");
  const T* block = s.c_str();
  {
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_OUT_OF_MEMORY(s.Format(f(), 1234, 5678, 9012));
  }
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(Text(s), "abc");
  EXPECT_EQ(s.capacity(), 7u);
  // A sole owner that fits needs no memory at all.
  {
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
    s.Format(f(), 1, 2, 3);
  }
  EXPECT_EQ(Text(s), "123");
  // Shared: no new block, both owners unchanged.
  QzStringT<T> t = s;
  {
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_OUT_OF_MEMORY(t.Format(f(), 4, 5, 6));
  }
  EXPECT_EQ(t.c_str(), s.c_str());
  EXPECT_EQ(Refs(s), 2);
  EXPECT_EQ(Text(t), "123");
}

TYPED_TEST(Formatting, AppendFormatScratchFailureIsSilent) {
  typedef TypeParam T;
  Fmt<T> f("%d");
  QzStringT<T> s = S<T>("ab");
  const T* block = s.c_str();
  {
    // The scratch buffer is the first allocation: it fails, nothing else runs.
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC, 0, 1);
    s.AppendFormat(f(), 42);
    EXPECT_EQ(oom.hits(), 1u);
  }
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(Text(s), "ab");
  // The scratch succeeds, the result block does not: that one throws.
  QzStringT<T> other = s;
  {
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC, 1, 1);
    EXPECT_OUT_OF_MEMORY(s.AppendFormat(f(), 42));
  }
  EXPECT_EQ(s.c_str(), block);
  EXPECT_EQ(Refs(s), 2);
  EXPECT_EQ(Text(s), "ab");
  s.AppendFormat(f(), 42);
  EXPECT_EQ(Text(s), "ab42");
}

TYPED_TEST(Formatting, ToHexStringWorkedTable) {
  typedef TypeParam T;
  const unsigned char abc[] = {0x61, 0x62, 0x63};
  const char* expect[] = {"616263", "61 62 63", "6162 63", "616263", "616263"};
  for (unsigned int group = 0; group < 5; ++group)
    for (int lower = 0; lower < 2; ++lower)
      EXPECT_EQ(Text(QzStringT<T>::ToHexString(abc, 3, group, lower)), expect[group])
          << "group " << group;
  const unsigned char abcd[] = {0xAB, 0xCD};
  EXPECT_EQ(Text(QzStringT<T>::ToHexString(abcd, 2, 1, 0)), "AB CD");
  EXPECT_EQ(Text(QzStringT<T>::ToHexString(abcd, 2, 1, 1)), "ab cd");
  const unsigned char four[] = {0x00, 0x01, 0xFE, 0xFF};
  EXPECT_EQ(Text(QzStringT<T>::ToHexString(four, 4, 2, 0)), "0001 FEFF");
  EXPECT_EQ(Text(QzStringT<T>::ToHexString(four, 4, 3, 1)), "0001fe ff");
  EXPECT_TRUE(OnEmptyRecord(QzStringT<T>::ToHexString(nullptr, 0, 1, 0)));

  // Room is 2 * size + 2 (+ size / groupSize): more than the text needs.
  QzStringT<T> h = QzStringT<T>::ToHexString(abc, 3, 0, 0);
  EXPECT_EQ(h.length(), 6u);
  EXPECT_EQ(h.capacity(), 15u);  // 8 zero units asked for
  EXPECT_EQ(h.c_str()[6], T(0));
  EXPECT_EQ(Refs(h), 1);

  std::vector<unsigned char> many(256);
  for (unsigned int i = 0; i < many.size(); ++i) many[i] = static_cast<unsigned char>(i);
  QzStringT<T> m = QzStringT<T>::ToHexString(many.data(), 256, 16, 1);
  EXPECT_EQ(m.length(), 256u * 2 + 15);
  EXPECT_EQ(Text(m).substr(0, 35), "000102030405060708090a0b0c0d0e0f 10");
  EXPECT_EQ(Text(m).substr(m.length() - 2), "ff");

  qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
  EXPECT_OUT_OF_MEMORY(QzStringT<T>::ToHexString(abc, 3, 1, 0));
}

TEST(FormattingWide, WideArgumentsAndUnits) {
  const unsigned short fmt[] = {'%', 's', '=', '%', 'c', 0};
  const unsigned short arg[] = {0x3042, 0x0041, 0};
  QzStringW s = QzStringW::CreateFormatted(fmt, arg, 0x00E9);
  ASSERT_EQ(s.length(), 4u);
  EXPECT_EQ(s.c_str()[0], 0x3042);
  EXPECT_EQ(s.c_str()[3], 0x00E9);
}
