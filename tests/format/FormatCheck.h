// Checks shared by the format tests: one call that proves the whole contract
// for a format and its arguments, in the narrow or the wide engine.
#ifndef QZBASE_TESTS_FORMATCHECK_H
#define QZBASE_TESTS_FORMATCHECK_H

#include <gtest/gtest.h>
#include <qzbase/QzFormat.h>

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
// a guard zone, and checks the result, the stored prefix, the terminator and
// that nothing after the terminator changed. `call(buffer, count)` makes the
// call; `expect` is the whole output.
template <class Unit, class Call, class At>
void SweepWith(const std::basic_string<Unit>& expect, Call call, Unit fill, At storedAt) {
  const int measured = call(static_cast<Unit*>(nullptr), 0u);
  EXPECT_EQ(static_cast<int>(expect.size()), measured) << "measured length";
  const unsigned top = static_cast<unsigned>(expect.size()) + 2;
  for (unsigned count = 0; count <= top; ++count) {
    std::vector<Unit> buf(count + kGuard, fill);
    int r = call(buf.data(), count);
    if (count == 0) {
      EXPECT_EQ(measured, r);
      for (size_t i = 0; i < buf.size(); ++i) ASSERT_EQ(fill, buf[i]) << "count 0 stored at " << i;
      continue;
    }
    const std::basic_string<Unit> stored = storedAt(count);
    const size_t kept = stored.size();
    ASSERT_EQ(static_cast<int>(kept), r) << "result with count " << count;
    ASSERT_TRUE(std::equal(stored.begin(), stored.end(), buf.begin())) << "stored text with count " << count;
    ASSERT_EQ(Unit(0), buf[kept]) << "terminator with count " << count;
    for (size_t i = kept + 1; i < buf.size(); ++i)
      ASSERT_EQ(fill, buf[i]) << "stored at " << i << " with count " << count;
  }
}

// Every other output, cut by the buffer, is the first `count - 1` units of
// the whole one.
template <class Unit, class Call>
void Sweep(const std::basic_string<Unit>& expect, Call call, Unit fill) {
  SweepWith(expect, call, fill,
            [&](unsigned count) { return expect.substr(0, expect.size() < count - 1 ? expect.size() : count - 1); });
}

// What a buffer of `count` units holds for a lone right-adjusted text of the
// other width (`%8S`) whose conversion is `text`: its length is cut to the
// room first, and the padding is counted from the cut length.
template <class Unit>
std::basic_string<Unit> CutOtherWidth(const std::basic_string<Unit>& text, size_t width, Unit pad, unsigned count) {
  const size_t room = count - 1, n = text.size() < room ? text.size() : room;
  const size_t padding = width > n ? width - n : 0;
  std::basic_string<Unit> out(padding < room ? padding : room, pad);
  return out + text.substr(0, room - out.size() < n ? room - out.size() : n);
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

// A format that is one right-adjusted `%<width>S` of narrow calls whose
// conversion is `text`.
template <class... A>
void ExpectPaddedA(const std::string& text, size_t width, const char* format, A... args) {
  SCOPED_TRACE(std::string("narrow format \"") + format + "\"");
  const std::string whole = (width > text.size() ? std::string(width - text.size(), ' ') : std::string()) + text;
  EXPECT_EQ(whole, FormatA(format, args...));
  SweepWith<char>(whole, [&](char* b, unsigned n) { return QZ_SNPRINTF_A(b, n, format, args...); }, '\xA5',
                  [&](unsigned count) { return CutOtherWidth<char>(text, width, ' ', count); });
}

template <class... A>
void ExpectBoth(const std::string& expect, const char* format, A... args) {
  ExpectA(expect, format, args...);
  ExpectW(expect, format, args...);
}

}  // namespace fmtcheck

#endif  // QZBASE_TESTS_FORMATCHECK_H
