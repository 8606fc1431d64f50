// Checks shared by the format tests: one call that proves the whole contract
// for a format and its arguments, in the narrow or the wide engine.
#ifndef QZBASE_TESTS_FORMATCHECK_H
#define QZBASE_TESTS_FORMATCHECK_H

#include <gtest/gtest.h>
#include <qzbase/QzFormat.h>

#include <algorithm>
#include <string>
#include <vector>

namespace fmtcheck {

typedef std::basic_string<unsigned short> WString;

// UTF-8 to UTF-16, so that wide tables can be written as narrow literals.
inline WString W(const std::string& s) {
  WString out;
  for (size_t i = 0; i < s.size();) {
    const unsigned char b = static_cast<unsigned char>(s[i]);
    const size_t n = b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
    unsigned cp = n == 1 ? b : b & (0x7F >> n);
    for (size_t k = 1; k < n && i + k < s.size(); ++k) cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    i += n;
    if (cp >= 0x10000) {
      out += static_cast<unsigned short>(0xD7C0 + (cp >> 10));
      cp = 0xDC00 | (cp & 0x3FF);
    }
    out += static_cast<unsigned short>(cp);
  }
  return out;
}

const unsigned kGuard = 16;

// Formats with every count from 0 to the length + 2 into a buffer followed by
// a guard zone: each cut output is the first `count - 1` units of the whole,
// terminated, with nothing written after the terminator.
template <class Unit, class Call>
void Sweep(const std::basic_string<Unit>& expect, Call call, Unit fill) {
  EXPECT_EQ(static_cast<int>(expect.size()), call(static_cast<Unit*>(nullptr), 0u)) << "measured length";
  for (unsigned count = 0; count <= expect.size() + 2; ++count) {
    std::vector<Unit> buf(count + kGuard, fill);
    const int r = call(buf.data(), count);
    const size_t kept = count == 0 ? 0 : std::min<size_t>(expect.size(), count - 1);
    ASSERT_EQ(count == 0 ? static_cast<int>(expect.size()) : static_cast<int>(kept), r) << "count " << count;
    ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + kept, expect.begin())) << "count " << count;
    for (size_t i = kept; i < buf.size(); ++i)
      ASSERT_EQ(count != 0 && i == kept ? Unit(0) : fill, buf[i]) << "at " << i << " with count " << count;
  }
}

// The whole output of a format in one go (at most 4095 units).
template <class... A>
std::string FormatA(const char* format, A... args) {
  std::vector<char> buf(4096);
  return std::string(buf.data(), QZ_SNPRINTF_A(buf.data(), static_cast<unsigned>(buf.size()), format, args...));
}

template <class... A>
void ExpectA(const std::string& expect, const char* format, A... args) {
  SCOPED_TRACE(std::string("narrow format \"") + format + "\"");
  EXPECT_EQ(expect, FormatA(format, args...));
  Sweep<char>(expect, [&](char* b, unsigned n) { return QZ_SNPRINTF_A(b, n, format, args...); }, '\xA5');
}

// `expect` and `format` in UTF-8; both are made UTF-16 for the wide engine,
// and the sweep compares the whole output.
template <class... A>
void ExpectW(const std::string& expect, const char* format, A... args) {
  SCOPED_TRACE(std::string("wide format \"") + format + "\"");
  const WString f = W(format);
  auto call = [&](unsigned short* b, unsigned n) { return QZ_SNPRINTF_W(b, n, f.c_str(), args...); };
  Sweep<unsigned short>(W(expect), call, 0xA5A5);
}

template <class... A>
void ExpectBoth(const std::string& expect, const char* format, A... args) {
  ExpectA(expect, format, args...);
  ExpectW(expect, format, args...);
}

}  // namespace fmtcheck

#endif  // QZBASE_TESTS_FORMATCHECK_H
