// Helpers for the string searching and formatting suites: build strings of
// either width from byte literals (embedded 0s included) and look at their
// blocks.
#ifndef QZBASE_TESTS_STRING_SEARCH_STRINGTESTUTIL_H
#define QZBASE_TESTS_STRING_SEARCH_STRINGTESTUTIL_H

#include <gtest/gtest.h>

#include <string>

#include "strings/QzString.h"
#include "QzTestSupport.h"
#include "platform/QzPlatform.h"

namespace qzstrtest {

typedef ::testing::Types<char, unsigned short> BothWidths;

// Units of a byte literal in width T (bytes widen without sign extension).
template <typename T>
std::basic_string<T> U(const char* bytes, size_t n) {
  std::basic_string<T> r;
  for (size_t i = 0; i < n; ++i) r.push_back(static_cast<T>(static_cast<unsigned char>(bytes[i])));
  return r;
}
template <typename T, size_t N>
std::basic_string<T> U(const char (&lit)[N]) { return U<T>(lit, N - 1); }

// A string of exactly the literal's units, embedded 0s kept.
template <typename T, size_t N>
QzStringT<T> S(const char (&lit)[N]) {
  std::basic_string<T> u = U<T>(lit);
  return QzStringT<T>(u.c_str(), static_cast<unsigned int>(u.size()));
}

// The string's units as bytes (units above 0xFF show as '?').
template <typename T>
std::string Text(const QzStringT<T>& s) {
  std::string r;
  for (unsigned int i = 0; i < s.length(); ++i) {
    unsigned int u = static_cast<unsigned int>(static_cast<typename std::make_unsigned<T>::type>(s.c_str()[i]));
    r.push_back(u <= 0xFF ? static_cast<char>(u) : '?');
  }
  return r;
}

template <typename T>
int32_t Refs(const QzStringT<T>& s) { return qzstr::Header(s.c_str())->refCount; }
template <typename T>
bool OnEmptyRecord(const QzStringT<T>& s) { return s.c_str() == qzstr::EmptyChars<T>(); }

// Switches the active code page for one scope.
class CodePage {
 public:
  explicit CodePage(unsigned int cp) : old_(qzsys::GetACP()) {
    ok_ = qzsys::QzSetActiveCodePage(cp) != 0;
  }
  ~CodePage() { qzsys::QzSetActiveCodePage(old_); }
  bool ok() const { return ok_; }

 private:
  unsigned int old_;
  bool ok_;
};

const unsigned int kNone = 0xFFFFFFFFu;

}  // namespace qzstrtest

// Runs `stmt`, which must throw the strings' out-of-memory exception. Its
// text is built while memory is out, so it may be empty and is not compared.
#define EXPECT_OUT_OF_MEMORY(stmt)                                              \
  do {                                                                          \
    bool thrown_ = false;                                                       \
    try {                                                                       \
      stmt;                                                                     \
    } catch (const QzException& e_) {                                           \
      thrown_ = true;                                                           \
      EXPECT_NE(e_.GetText(), nullptr);                                         \
    }                                                                           \
    EXPECT_TRUE(thrown_) << "no QzException from " #stmt;                       \
  } while (0)

#endif  // QZBASE_TESTS_STRING_SEARCH_STRINGTESTUTIL_H
