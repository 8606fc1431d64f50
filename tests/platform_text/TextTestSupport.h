// Helpers of the text suites: UTF-16 literals as the library's units, and a
// scope that switches the active code page.
#ifndef QZBASE_TESTS_TEXTTESTSUPPORT_H
#define QZBASE_TESTS_TEXTTESTSUPPORT_H

#include <gtest/gtest.h>

#include <vector>

#include "platform/QzPlatform.h"

namespace qztest {

inline std::vector<qzsys::WCHAR> W(const char16_t* s) {
  std::vector<qzsys::WCHAR> v;
  while (*s) v.push_back(static_cast<qzsys::WCHAR>(*s++));
  return v;
}

// Makes `cp` the active code page for the life of the object.
class ActivePage {
 public:
  explicit ActivePage(qzsys::UINT cp) : saved_(qzsys::GetACP()) {
    EXPECT_TRUE(qzsys::QzSetActiveCodePage(cp)) << cp;
  }
  ~ActivePage() { qzsys::QzSetActiveCodePage(saved_); }
  ActivePage(const ActivePage&) = delete;
  ActivePage& operator=(const ActivePage&) = delete;

 private:
  qzsys::UINT saved_;
};

}  // namespace qztest

#endif
