// Text of the other width follows the active ANSI code page, not UTF-8 alone.
#include <string>

#include "FormatCheck.h"
#include "../platform_text/TextTestSupport.h"

using fmtcheck::ExpectA;
using fmtcheck::ExpectW;
using fmtcheck::W;
using fmtcheck::WString;

namespace {

using qztest::ActivePage;

TEST(FormatCodePage, WesternSingleByte) {
  ActivePage page(1252);
  WString ete = W("\xC3\xA9t\xC3\xA9");  // "été"
  ExpectA("\xE9t\xE9", "%S", ete.c_str());
  ExpectA("\x80", "%C", 0x20AC);              // the euro sign
  ExpectA("?", "%C", 0x263A);                 // not in the page: the default character
  ExpectW("\xC3\xA9t\xC3\xA9", "%hs", "\xE9t\xE9");
}

TEST(FormatCodePage, JapaneseDoubleByte) {
  ActivePage page(932);
  WString nihon = W("\xE6\x97\xA5\xE6\x9C\xAC");  // "日本"
  ExpectA("\x93\xFA\x96\x7B", "%S", nihon.c_str());
  ExpectA("  \x93\xFA|", "%3C|", 0x65E5);
  ExpectW("\xE6\x97\xA5", "%.2hs", "\x93\xFA\x96\x7B");  // precision in bytes

  // A long mix of one- and two-byte characters, some with an ASCII trail
  // byte ("表" is 95 5C), cut at every place: the pieces handed to the
  // converter must never split a character.
  std::string sjis, u8;
  for (int i = 0; i < 70; ++i) {
    sjis += "a\x95\x5C\x93\xFA";
    u8 += "a\xE8\xA1\xA8\xE6\x97\xA5";
  }
  ExpectW(u8 + "|", "%S|", sjis.c_str());
  ExpectA(sjis, "%S", W(u8).c_str());
}

}  // namespace
