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
  EXPECT_EQ(s.capacity(), 23u);
  EXPECT_EQ(s, ThroughV<T>(F("%d-%s-%5.2f|%c|%x"), -42, F("ab"), 3.14159, 'z', 255u));
  EXPECT_TRUE(OnEmptyRecord(QzStringT<T>::CreateFormatted(F("%s"), F(""))));
}

TYPED_TEST(Formatting, FormatAndAppendReuseASoleOwnersBlockAndLeaveCoOwners) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("0123456789abcdefghij");  // capacity 23
  QzStringT<T> other = s;
  s.Format(F("%u"), 7u);  // shared: a new block by the rule
  EXPECT_EQ(Text(other), "0123456789abcdefghij");
  EXPECT_EQ(s.capacity(), 7u);
  const T* block = other.c_str();
  other.Format(F("%d:%d"), 1, 2);  // sole owner that fits: same block
  EXPECT_EQ(other.c_str(), block);
  EXPECT_EQ(Text(other), "1:2");
  // No text: a non-empty string goes to the record, a private empty block stays.
  other.Format(F(""));
  EXPECT_TRUE(OnEmptyRecord(other));
  s.erase(0, kNone);
  block = s.c_str();
  s.Format(F(""));
  EXPECT_EQ(s.c_str(), block);
  s = S<T>("ab");
  block = s.c_str();
  s.AppendFormat(F("%s|%d"), F("cd"), 5);
  EXPECT_EQ(s.c_str(), block);  // 6 units fit capacity 7
  s.AppendFormat(F("%s"), s.c_str());  // its own text, past the block
  other = s;
  s.AppendFormat(F("%s|%d"), F("cd"), 0);
  EXPECT_EQ(Text(s), "abcd|5abcd|5cd|0");
  EXPECT_EQ(Text(other), "abcd|5abcd|5");
}

TYPED_TEST(Formatting, OutOfMemoryThrowsButTheAppendScratchFailsSilently) {
  typedef TypeParam T;
  QzStringT<T> s = S<T>("abc");
  const T* block = s.c_str();
  {
    qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
    EXPECT_OUT_OF_MEMORY(QzStringT<T>::CreateFormatted(F("%d%d%d"), 1, 2, 3));
    EXPECT_OUT_OF_MEMORY(s.Format(F("%d%d%d"), 1234, 5678, 9012));  // must grow
    EXPECT_EQ(s.c_str(), block);
    EXPECT_EQ(Text(s), "abc");
    s.Format(F("%d%d"), 1, 2);  // fits: needs no memory at all
  }
  EXPECT_EQ(Text(s), "12");
  QzStringT<T> t = s;
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
}

TYPED_TEST(Formatting, ToHexStringWorkedTable) {
  typedef TypeParam T;
  const unsigned char abc[] = {0x61, 0x62, 0x63}, four[] = {0x00, 0x01, 0xFE, 0xFF};
  const char* expect[] = {"616263", "61 62 63", "6162 63", "616263", "616263"};
  for (unsigned int group = 0; group < 5; ++group)
    EXPECT_EQ(Text(QzStringT<T>::ToHexString(abc, 3, group, group & 1)), expect[group]) << "group " << group;
  EXPECT_EQ(Text(QzStringT<T>::ToHexString(four, 4, 3, 1)), "0001fe ff");
  EXPECT_TRUE(OnEmptyRecord(QzStringT<T>::ToHexString(nullptr, 0, 1, 0)));
  // Room is 2 * size + 2 (+ size / groupSize): more than the text needs.
  EXPECT_EQ(QzStringT<T>::ToHexString(abc, 3, 0, 0).capacity(), 15u);
  qztest::FaultScope oom(qzsys::QZ_FAULT_POOL_ALLOC);
  EXPECT_OUT_OF_MEMORY(QzStringT<T>::ToHexString(abc, 3, 1, 0));
}
