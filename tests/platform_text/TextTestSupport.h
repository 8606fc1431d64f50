// Helpers of the text suites: UTF-16 literals as the library's units, a scope
// that switches the active code page, and one known text per page.
#ifndef QZBASE_TESTS_TEXTTESTSUPPORT_H
#define QZBASE_TESTS_TEXTTESTSUPPORT_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/QzPlatform.h"

namespace qztest {

inline std::vector<qzsys::WCHAR> W(const std::u16string& s) { return {s.begin(), s.end()}; }

// Makes `cp` the active code page for the life of the object.
struct ActivePage {
  explicit ActivePage(qzsys::UINT cp) : saved(qzsys::GetACP()) { EXPECT_TRUE(qzsys::QzSetActiveCodePage(cp)) << cp; }
  ~ActivePage() { qzsys::QzSetActiveCodePage(saved); }
  const qzsys::UINT saved;
};

// The compiler writes the UTF-16 and UTF-8 forms of each text, so neither
// comes from the code under test.
#define QZ_TEXT(s) u##s, s
struct PageSample { qzsys::UINT cp; const char* bytes; const char16_t* utf16; const char* utf8; };
const PageSample kPageSamples[] = {
    {65001, "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", QZ_TEXT("A\u00E9\u20AC\U0001F600")},
    {1250, "\x8A\xE8\xF8", QZ_TEXT("\u0160\u010D\u0159")},
    {1251, "\xCF\xF0\xE8", QZ_TEXT("\u041F\u0440\u0438")},
    {1252, "\x80 caf\xE9 \x81", QZ_TEXT("\u20AC caf\u00E9 \u0081")},
    {1253, "\xC1\xE8\xDE", QZ_TEXT("\u0391\u03B8\u03AE")},
    {1254, "\xD0\xFD\xDE", QZ_TEXT("\u011E\u0131\u015E")},
    {1255, "\xF9\xEC\xE5", QZ_TEXT("\u05E9\u05DC\u05D5")},
    {1256, "\xD3\xE1\xC7", QZ_TEXT("\u0633\u0644\u0627")},
    {1257, "\xD0\xFE", QZ_TEXT("\u0160\u017E")},
    {1258, "Vi\xEAt", QZ_TEXT("Vi\u00EAt")},
    {874, "\xCA\xC7\xD1", QZ_TEXT("\u0E2A\u0E27\u0E31")},
    {28591, "\xE9\xFF\x80", QZ_TEXT("\u00E9\u00FF\u0080")},
    {28605, "\xA4\xBD", QZ_TEXT("\u20AC\u0153")},
    {20127, "plain", QZ_TEXT("plain")},
    {20866, "\xF0\xD2\xC9", QZ_TEXT("\u041F\u0440\u0438")},
    {932, "\x93\xFA\x96\x7B\xB1\x41", QZ_TEXT("\u65E5\u672C\uFF71A")},
    {936, "\xD6\xD0\xCE\xC4", QZ_TEXT("\u4E2D\u6587")},
    {949, "\xC7\xD1\xB1\xB9", QZ_TEXT("\uD55C\uAD6D")},
    {950, "\xA4\xA4\xA4\xE5", QZ_TEXT("\u4E2D\u6587")},
};

}  // namespace qztest

#endif
