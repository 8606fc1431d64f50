// Format, AppendFormat, CreateFormatted and ToHexString in both widths.
#include "StringTestUtil.h"

#include <cstdarg>

using namespace qzstrtest;

namespace {

// The V form reached through a caller's own va_list, as the log reaches it;
// the list must still be usable afterwards, since the members walk copies.
template <typename T>
QzStringT<T> ThroughV(const T* format, ...) {
  va_list args;
  va_start(args, format);
  QzStringT<T> r = QzStringT<T>::CreateFormattedV(format, args);
  QzStringT<T> again = QzStringT<T>::CreateFormattedV(format, args);
  va_end(args);
  EXPECT_EQ(r, again);
  return r;
}

}  // namespace

template <typename T>
class Formatting : public ::testing::Test {};
TYPED_TEST_SUITE(Formatting, BothWidths);

#define F(lit) U<T>(lit).c_str()

TYPED_TEST(Formatting, CreateFormattedSizesExactly) {
  typedef TypeParam T;
  QzStringT<T> s = QzStringT<T>::CreateFormatted(F("%d-%s-%5.2f|%c|%x"), -42, F("ab"), 3.14159, 'z', 255u);
  EXPECT_EQ(Text(s), "-42-ab- 3.14|z|ff");
  EXPECT_EQ(Refs(s), 1);
  EXPECT_EQ(s.capacity(), 23u);
  EXPECT_EQ(s, ThroughV<T>(F("%d-%s-%5.2f|%c|%x"), -42, F("ab"), 3.14159, 'z', 255u));
  std::basic_string<T> big(1000, T('q'));  // no retry, exactly the rule's room
  QzStringT<T> l = QzStringT<T>::CreateFormatted(F("<%s>"), big.c_str());
  EXPECT_EQ(l.length(), 1002u);
  EXPECT_EQ(l.capacity(), 1007u);
  EXPECT_EQ(l.c_str()[1001], T('>'));
  EXPECT_EQ(l.c_str()[1002], T(0));
  EXPECT_TRUE(OnEmptyRecord(QzStringT<T>::CreateFormatted(F(""))));
  EXPECT_TRUE(OnEmptyRecord(QzStringT<T>::CreateFormatted(F("%s"), F(""))));
}

TYPED_TEST(Formatting, FormatReusesASoleOwnersBlockAndLeavesCoOwners) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("0123456789abcdefghij");  // capacity 23
  QzStringT<T> other = s;
  s.Format(F("%u"), 7u);  // shared: a new block by the rule
  EXPECT_EQ(Text(s), "7");
  EXPECT_EQ(Text(other), "0123456789abcdefghij");
  EXPECT_EQ(Refs(other), 1);
  EXPECT_EQ(s.capacity(), 7u);
  const T* block = other.c_str();
  other.Format(F("%d:%d"), 1, 2);  // sole owner that fits: same block
  EXPECT_EQ(other.c_str(), block);
  EXPECT_EQ(other.capacity(), 23u);
  EXPECT_EQ(Text(other), "1:2");
  s.Format(F("%d:%d"), 123456789, 987654321);  // sole owner that grows
  EXPECT_EQ(Text(s), "123456789:987654321");
  EXPECT_EQ(s.capacity(), 23u);
  EXPECT_EQ(Refs(s), 1);
  // No text: a non-empty string goes to the record, a private empty block stays.
  QzStringT<T> keep = s;
  s.Format(F(""));
  EXPECT_TRUE(OnEmptyRecord(s));
  EXPECT_EQ(Refs(keep), 1);
  keep.erase(0, kNone);
  block = keep.c_str();
  keep.Format(F(""));
  EXPECT_EQ(keep.c_str(), block);
}

TYPED_TEST(Formatting, AppendFormatInPlaceOntoItselfAndShared) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("ab");
  const T* block = s.c_str();
  s.AppendFormat(F("%s|%d"), F("cd"), 5);
  EXPECT_EQ(Text(s), "abcd|5");
  EXPECT_EQ(s.c_str(), block);  // 6 units fit capacity 7
  s.AppendFormat(F("%s"), s.c_str());  // its own text, past the block
  s.AppendFormat(F("%s"), s.c_str());
  EXPECT_EQ(Text(s), "abcd|5abcd|5abcd|5abcd|5");
  QzStringT<T> other = s;
  s.AppendFormat(F(""));
  EXPECT_EQ(Refs(s), 2);  // no text: nothing at all
  s.AppendFormat(F("%s|%d"), F("cd"), 0);
  EXPECT_EQ(Text(s), "abcd|5abcd|5abcd|5abcd|5cd|0");
  EXPECT_EQ(Text(other), "abcd|5abcd|5abcd|5abcd|5");
  EXPECT_EQ(Refs(other), 1);
}

TYPED_TEST(Formatting, OutOfMemoryThrowsButTheAppendScratchFailsSilently) {
  typedef TypeParam T;
  {
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_OUT_OF_MEMORY(QzStringT<T>::CreateFormatted(F("%d%d%d"), 1, 2, 3));
  }
  QzStringT<T> s = S<T>("abc");
  const T* block = s.c_str();
  {
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_OUT_OF_MEMORY(s.Format(F("%d%d%d"), 1234, 5678, 9012));  // must grow
    EXPECT_EQ(s.c_str(), block);
    EXPECT_EQ(Text(s), "abc");
    EXPECT_EQ(s.capacity(), 7u);
    s.Format(F("%d%d"), 1, 2);  // fits: needs no memory at all
  }
  EXPECT_EQ(Text(s), "12");
  QzStringT<T> t = s;
  {
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_OUT_OF_MEMORY(t.Format(F("%d"), 4));
  }
  EXPECT_EQ(t.c_str(), s.c_str());
  EXPECT_EQ(Refs(s), 2);
  {
    // The scratch buffer is the first allocation: it fails, nothing else runs.
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC, 0, 1);
    s.AppendFormat(F("%d"), 42);
    EXPECT_EQ(oom.hits(), 1u);
  }
  {
    // The scratch succeeds, the result block does not: that one throws.
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC, 1, 1);
    EXPECT_OUT_OF_MEMORY(s.AppendFormat(F("%d"), 42));
  }
  EXPECT_EQ(s.c_str(), t.c_str());
  EXPECT_EQ(Refs(s), 2);
  EXPECT_EQ(Text(s), "12");
  s.AppendFormat(F("%d"), 42);
  EXPECT_EQ(Text(s), "1242");
}

TYPED_TEST(Formatting, ToHexStringWorkedTable) {
  typedef TypeParam T;
  const unsigned char abc[] = {0x61, 0x62, 0x63}, abcd[] = {0xAB, 0xCD}, four[] = {0x00, 0x01, 0xFE, 0xFF};
  const char* expect[] = {"616263", "61 62 63", "6162 63", "616263", "616263"};
  for (unsigned int group = 0; group < 5; ++group)
    for (int lower = 0; lower < 2; ++lower)
      EXPECT_EQ(Text(QzStringT<T>::ToHexString(abc, 3, group, lower)), expect[group]) << "group " << group;
  EXPECT_EQ(Text(QzStringT<T>::ToHexString(abcd, 2, 1, 0)), "AB CD");
  EXPECT_EQ(Text(QzStringT<T>::ToHexString(abcd, 2, 1, 1)), "ab cd");
  EXPECT_EQ(Text(QzStringT<T>::ToHexString(four, 4, 2, 0)), "0001 FEFF");
  EXPECT_EQ(Text(QzStringT<T>::ToHexString(four, 4, 3, 1)), "0001fe ff");
  EXPECT_TRUE(OnEmptyRecord(QzStringT<T>::ToHexString(nullptr, 0, 1, 0)));
  // Room is 2 * size + 2 (+ size / groupSize): more than the text needs.
  QzStringT<T> h = QzStringT<T>::ToHexString(abc, 3, 0, 0);
  EXPECT_EQ(h.length(), 6u);
  EXPECT_EQ(h.capacity(), 15u);
  EXPECT_EQ(h.c_str()[6], T(0));
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
  const unsigned short fmt[] = {'%', 's', '=', '%', 'c', 0}, arg[] = {0x3042, 0x0041, 0};
  QzStringW s = QzStringW::CreateFormatted(fmt, arg, 0x00E9);
  ASSERT_EQ(s.length(), 4u);
  EXPECT_EQ(s.c_str()[0], 0x3042);
  EXPECT_EQ(s.c_str()[3], 0x00E9);
}
