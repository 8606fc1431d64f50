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
    unsigned char b = static_cast<unsigned char>(s[i]);
    unsigned cp;
    size_t n;
    if (b < 0x80) { cp = b; n = 1; }
    else if ((b & 0xE0) == 0xC0) { cp = b & 0x1F; n = 2; }
    else if ((b & 0xF0) == 0xE0) { cp = b & 0x0F; n = 3; }
    else { cp = b & 0x07; n = 4; }
    for (size_t k = 1; k < n && i + k < s.size(); ++k) cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    i += n;
    if (cp >= 0x10000) {
      out.push_back(static_cast<unsigned short>(0xD800 + ((cp - 0x10000) >> 10)));
      out.push_back(static_cast<unsigned short>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
    } else {
      out.push_back(static_cast<unsigned short>(cp));
    }
  }
  return out;
}

// UTF-16 to UTF-8 for readable failure messages; a lone surrogate shows as
// "\uD800".
inline std::string U8(const unsigned short* s, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) {
    unsigned cp = s[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < n && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      char hex[8];
      snprintf(hex, sizeof hex, "\\u%04X", cp);
      out += hex;
      continue;
    }
    if (cp < 0x80) out += static_cast<char>(cp);
    else if (cp < 0x800) { out += static_cast<char>(0xC0 | (cp >> 6)); out += static_cast<char>(0x80 | (cp & 0x3F)); }
    else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }
  return out;
}
inline std::string U8(const WString& s) { return U8(s.data(), s.size()); }

const unsigned kGuard = 16;

// Formats with every count from 0 to the length + 2 into a buffer followed by
// a guard zone, and checks the result, the stored prefix, the terminator and
// that nothing after the terminator changed. `call(buffer, count)` makes the
// call; `expect` is the whole output.
template <class Unit, class Call>
void Sweep(const std::basic_string<Unit>& expect, Call call, Unit fill) {
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
    const size_t kept = expect.size() < count - 1 ? expect.size() : count - 1;
    ASSERT_EQ(static_cast<int>(kept), r) << "result with count " << count;
    ASSERT_TRUE(std::equal(expect.begin(), expect.begin() + kept, buf.begin())) << "prefix with count " << count;
    ASSERT_EQ(Unit(0), buf[kept]) << "terminator with count " << count;
    for (size_t i = kept + 1; i < buf.size(); ++i) ASSERT_EQ(fill, buf[i]) << "stored at " << i << " with count " << count;
  }
}

// The whole output of a format in one go (at most 4095 units).
template <class... A>
std::string FormatA(const char* format, A... args) {
  std::vector<char> buf(4096);
  int r = QZ_SNPRINTF_A(buf.data(), static_cast<unsigned>(buf.size()), format, args...);
  return std::string(buf.data(), static_cast<size_t>(r));
}
template <class... A>
std::string FormatW(const char* format, A... args) {
  WString f = W(format);
  std::vector<unsigned short> buf(4096);
  int r = QZ_SNPRINTF_W(buf.data(), static_cast<unsigned>(buf.size()), f.c_str(), args...);
  return U8(buf.data(), static_cast<size_t>(r));
}

template <class... A>
void ExpectA(const std::string& expect, const char* format, A... args) {
  SCOPED_TRACE(std::string("narrow format \"") + format + "\"");
  EXPECT_EQ(expect, FormatA(format, args...));
  Sweep<char>(expect, [&](char* b, unsigned n) { return QZ_SNPRINTF_A(b, n, format, args...); }, '\xA5');
}

// `expect` and `format` in UTF-8; both are made UTF-16 for the wide engine.
template <class... A>
void ExpectW(const std::string& expect, const char* format, A... args) {
  SCOPED_TRACE(std::string("wide format \"") + format + "\"");
  WString f = W(format);
  WString e = W(expect);
  EXPECT_EQ(expect, FormatW(format, args...));
  Sweep<unsigned short>(e, [&](unsigned short* b, unsigned n) { return QZ_SNPRINTF_W(b, n, f.c_str(), args...); },
                        0xA5A5);
}

template <class... A>
void ExpectBoth(const std::string& expect, const char* format, A... args) {
  ExpectA(expect, format, args...);
  ExpectW(expect, format, args...);
}

}  // namespace fmtcheck

#endif  // QZBASE_TESTS_FORMATCHECK_H
