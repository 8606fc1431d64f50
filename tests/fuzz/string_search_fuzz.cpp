// Character and set searches, trims and case of both widths against plain
// models built on the platform's own classification routines. Input: a selector
// byte (code page, width), a position byte, a split byte, then the text and
// the needle.
#include <cstddef>
#include <cstdint>
#include <string>

#include "strings/QzString.h"
#include "platform/QzPlatform.h"

namespace {

const unsigned int kNone = 0xFFFFFFFFu;

void Check(bool ok) { if (!ok) __builtin_trap(); }

bool Space(char c) {
  return qzsys::_ismbcspace(static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(c)))) != 0;
}
bool Space(unsigned short c) { return qzsys::iswspace(c) != 0; }

template <typename T>
bool InSet(T c, const std::basic_string<T>& set, unsigned int n) {
  return set.find(c) < n;
}

template <typename T>
bool Same(const QzStringT<T>& s, const std::basic_string<T>& m) {
  if (s.length() != m.size()) return false;
  for (unsigned int i = 0; i < s.length(); ++i)
    if (s.c_str()[i] != m[i]) return false;
  return s.c_str()[s.length()] == 0;
}

// The result of a trim of [first, end): empty if the range is empty or starts
// with a 0 unit, else that range.
template <typename T>
std::basic_string<T> RangeModel(const std::basic_string<T>& m, size_t first, size_t end) {
  if (first >= end || m[first] == 0) return std::basic_string<T>();
  return m.substr(first, end - first);
}

template <typename T>
void Run(const std::basic_string<T>& m, const std::basic_string<T>& needle, unsigned int pos) {
  QzStringT<T> s(m.c_str(), static_cast<unsigned int>(m.size()));
  if (s.length() != m.size()) return;  // a leading 0 gives the empty string
  const unsigned int len = static_cast<unsigned int>(m.size());
  const unsigned int n = static_cast<unsigned int>(needle.size());
  const T* t = needle.c_str();
  const T c = n ? needle[0] : T('a');

  // Character and set searches. (The text searches have their randomized
  // test against the same compares in the unit tests.)
  unsigned int expect = kNone;
  for (unsigned int i = pos; i < len && m[i] != 0; ++i)
    if (m[i] != c) {
      expect = i;
      break;
    }
  Check(s.find_first_not_of(c, pos) == expect);
  expect = kNone;
  if (n != 0 && needle[0] != 0)
    for (unsigned int i = pos; i < len; ++i)
      if (!InSet(m[i], needle, n)) {
        expect = i;
        break;
      }
  Check(s.find_first_not_of(t, pos, n) == expect);
  unsigned int expectC = kNone, expectSet = kNone;
  if (len != 0)
    for (unsigned int i = (pos < len ? pos : len - 1) + 1; i-- > 0;) {
      if (expectC == kNone && m[i] != c) expectC = i;
      if (expectSet == kNone && !InSet(m[i], needle, n)) expectSet = i;
    }
  Check(s.find_last_not_of(c, pos) == expectC);
  Check(s.find_last_not_of(t, pos, n) == expectSet);
  unsigned int expectOf = kNone, expectRc = kNone;
  for (unsigned int i = (pos < len ? pos : len) + 1; i-- > 0;) {
    const T u = i < len ? m[i] : T(0);
    if (expectOf == kNone && n != 0 && InSet(u, needle, n)) expectOf = i;
    if (expectRc == kNone && u == c) expectRc = i;
  }
  Check(s.find_last_of(t, pos, n) == expectOf);
  Check(s.reverseFind(c, pos) == expectRc);

  // Trims.
  size_t first = 0, end = len;
  while (first < len && Space(m[first])) ++first;
  while (end > first && Space(m[end - 1])) --end;
  Check(Same(s.trimWhiteSpace(), RangeModel(m, first, end)));
  Check(Same(s.trimWhiteSpaceLeft(), RangeModel(m, first, len)));
  size_t rend = len;
  while (rend > 0 && Space(m[rend - 1])) --rend;
  Check(Same(s.trimWhiteSpaceRight(), RangeModel(m, 0, rend)));
  size_t cfirst = 0;
  while (cfirst < len && m[cfirst] == c) ++cfirst;
  const bool lost = cfirst == len || m[cfirst] == 0;
  size_t cend = len;
  while (cend > 0 && m[cend - 1] == c) --cend;
  Check(Same(s.trimLeft(c), lost ? std::basic_string<T>() : RangeModel(m, cfirst, len)));
  Check(Same(s.trim(c), lost ? std::basic_string<T>() : RangeModel(m, cfirst, cend)));
  Check(Same(s.trimRight(c), RangeModel(m, 0, cend)));

  // Case: same length, the source untouched.
  QzStringT<T> up = s.getUppercase();
  Check(up.length() == (m[0] ? len : 0u));
  Check(Same(s, m));

}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  static const unsigned int pages[] = {1252, 932, 65001};
  const unsigned int page = pages[(data[0] & 0x7F) % 3];
  const bool wide = (data[0] & 0x80) != 0;
  const unsigned int pos = data[1] == 0xFF ? kNone : data[1];
  const uint8_t* body = data + 3;
  const size_t rest = size - 3;
  const size_t split = rest ? data[2] % (rest + 1) : 0;
  qzsys::QzSetActiveCodePage(page);
  if (!wide) {
    Run(std::string(reinterpret_cast<const char*>(body), split),
        std::string(reinterpret_cast<const char*>(body) + split, rest - split), pos);
  } else {
    std::basic_string<unsigned short> a, b;
    for (size_t i = 0; i + 1 < split; i += 2) a.push_back(static_cast<unsigned short>(body[i] | body[i + 1] << 8));
    for (size_t i = split; i + 1 < rest; i += 2) b.push_back(static_cast<unsigned short>(body[i] | body[i + 1] << 8));
    Run(a, b, pos);
  }
  return 0;
}
