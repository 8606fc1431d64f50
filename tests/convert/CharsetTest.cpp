// Character set names through the MIME database.
#include <gtest/gtest.h>

#include <qzbase/QzConvert.h>

#include "QzTestSupport.h"
#include "platform/QzPlatformRegistry.h"

using namespace qzsys;

namespace {

const std::string kRoot = "MIME\\Database\\Charset\\";

void SetValue(const std::string& name, const char* value, DWORD type, const void* data, DWORD size) {
  QzRegistrySetTestValue((kRoot + name).c_str(), value, type, data, size);
}
void SetAlias(const std::string& name, const char* alias) {
  SetValue(name, "AliasForCharset", REG_SZ, alias, static_cast<DWORD>(strlen(alias) + 1));
}

class Charset : public ::testing::Test {
 protected:
  void TearDown() override { QzRegistryClearTestValues(); }
};

}  // namespace

TEST_F(Charset, CommonNamesAndAliasesWithoutRegardToCase) {
  const struct { const char* name; unsigned int cp; } rows[] = {
      {"utf-8", 65001}, {"UTF-8", 65001}, {"utf8", 65001}, {"unicode-1-1-utf-8", 65001}, {"utf-16", 1200},
      {"UTF-16LE", 1200}, {"ucs-2", 1200}, {"utf-16be", 1201}, {"us-ascii", 20127}, {"ASCII", 20127},
      {"ANSI_X3.4-1968", 20127}, {"iso-8859-1", 28591}, {"Latin1", 28591}, {"ISO_8859-1", 28591}, {"l1", 28591},
      {"iso-8859-2", 28592}, {"iso-8859-5", 28595}, {"iso-8859-7", 28597}, {"iso-8859-9", 28599},
      {"iso-8859-11", 874}, {"iso-8859-13", 28603}, {"ISO-8859-15", 28605}, {"latin-9", 28605},
      {"windows-1250", 1250}, {"windows-1251", 1251}, {"Windows-1252", 1252}, {"cp1252", 1252},
      {"windows-1253", 1253}, {"windows-1254", 1254}, {"windows-1255", 1255}, {"windows-1256", 1256},
      {"windows-1257", 1257}, {"windows-1258", 1258}, {"shift_jis", 932}, {"Shift-JIS", 932}, {"sjis", 932},
      {"x-sjis", 932}, {"windows-31j", 932}, {"euc-jp", 51932}, {"x-euc-jp", 51932}, {"gb2312", 936}, {"GBK", 936},
      {"cp936", 936}, {"big5", 950}, {"csbig5", 950}, {"euc-kr", 51949}, {"ks_c_5601-1987", 949}, {"korean", 949},
      {"koi8-r", 20866}, {"KOI8-U", 21866}, {"gb18030", 54936},
      // Failures: unknown, empty, a path out of the table, a name past any key.
      {"no-such-charset", 0xFFFFFFFFu}, {"", 0xFFFFFFFFu}, {"utf-8\\..\\utf-8", 0xFFFFFFFFu}};
  for (const auto& r : rows) EXPECT_EQ(Qz_CharsetToCodepage(r.name), r.cp) << r.name;
  EXPECT_EQ(Qz_CharsetToCodepage(std::string(1000, 'x').c_str()), 0xFFFFFFFFu);
  EXPECT_EQ(Qz_CharsetToCodepage(nullptr), GetACP());
}

TEST_F(Charset, TheWalkFollowsAliasesAndValueTypes) {
  const DWORD cp = 1252;
  SetAlias("x-one", "x-two");
  SetAlias("x-two", "Latin2");
  SetValue("x-empty", "AliasForCharset", REG_SZ, "", 0);
  SetAlias("x-dangling", "x-nowhere");
  SetAlias("x-ping", "x-pong");
  SetAlias("x-pong", "x-ping");
  SetAlias("x-self", "x-self");
  SetValue("x-bare", "AliasForCharset", REG_SZ, "koi8-r", 6);  // stored without its terminator
  SetValue("x-typed", "InternetEncoding", REG_DWORD_BIG_ENDIAN, &cp, 4);  // taken as stored
  SetValue("x-text", "InternetEncoding", REG_SZ, "1252", 5);  // a number as text does not count...
  SetAlias("x-text", "Latin1");  // ...so the alias is followed
  SetValue("x-numalias", "AliasForCharset", REG_DWORD, &cp, 4);  // ends the walk
  SetAlias("utf-8", "us-ascii");  // a test key hides the built-in one
  const struct { const char* name; unsigned int cp; } rows[] = {
      {"X-ONE", 28592}, {"x-empty", 0xFFFFFFFFu}, {"x-dangling", 0xFFFFFFFFu}, {"x-ping", 0xFFFFFFFFu},
      {"x-self", 0xFFFFFFFFu}, {"x-bare", 20866}, {"x-typed", 1252}, {"x-text", 28591},
      {"x-numalias", 0xFFFFFFFFu}, {"utf-8", 20127}};
  for (const auto& r : rows) EXPECT_EQ(Qz_CharsetToCodepage(r.name), r.cp) << r.name;
}

// The walk reads the charset table through these calls; these are the
// paths it does not take.
TEST_F(Charset, RegistryCallsFollowWindows) {
  HKEY key = nullptr;
  const std::string utf8 = kRoot + "utf-8";
  EXPECT_EQ(RegOpenKeyExA(QZ_HKEY_CLASSES_ROOT, utf8.c_str(), 0, 0xF003F, &key), LONG(ERROR_ACCESS_DENIED));
  EXPECT_EQ(RegOpenKeyExA(nullptr, utf8.c_str(), 0, KEY_READ, &key), LONG(ERROR_INVALID_HANDLE));
  ASSERT_EQ(RegOpenKeyExA(QZ_HKEY_CLASSES_ROOT, "mime\\database\\charset\\Latin1", 0, KEY_READ, &key), 0);
  DWORD type = 0, size = 4;
  char small[4];
  EXPECT_EQ(RegQueryValueExA(key, "AliasForCharset", nullptr, &type, reinterpret_cast<BYTE*>(small), &size),
            LONG(ERROR_MORE_DATA));
  EXPECT_EQ(size, 11u);  // "iso-8859-1" and its terminator
  EXPECT_EQ(RegCloseKey(key), 0);
}
