// Character set names through the MIME database.
#include <gtest/gtest.h>

#include <qzbase/QzConvert.h>

#include "QzTestSupport.h"
#include "platform/QzPlatformRegistry.h"

using namespace qzsys;

namespace {

const char kRoot[] = "MIME\\Database\\Charset\\";

void SetAlias(const std::string& name, const char* alias, DWORD size) {
  QzRegistrySetTestValue((kRoot + name).c_str(), "AliasForCharset", REG_SZ, alias, size);
}
void SetAlias(const std::string& name, const char* alias) {
  SetAlias(name, alias, static_cast<DWORD>(strlen(alias) + 1));
}

class Charset : public ::testing::Test {
 protected:
  void TearDown() override { QzRegistryClearTestValues(); }
};

}  // namespace

TEST_F(Charset, CommonNamesAndAliasesWithoutRegardToCase) {
  const struct {
    const char* name;
    unsigned int cp;
  } rows[] = {
      {"utf-8", 65001}, {"UTF-8", 65001}, {"utf8", 65001}, {"unicode-1-1-utf-8", 65001},
      {"utf-16", 1200}, {"UTF-16LE", 1200}, {"ucs-2", 1200}, {"utf-16be", 1201},
      {"us-ascii", 20127}, {"ASCII", 20127}, {"ANSI_X3.4-1968", 20127},
      {"iso-8859-1", 28591}, {"Latin1", 28591}, {"ISO_8859-1", 28591}, {"l1", 28591},
      {"iso-8859-2", 28592}, {"iso-8859-5", 28595}, {"iso-8859-7", 28597}, {"iso-8859-9", 28599},
      {"iso-8859-11", 874}, {"iso-8859-13", 28603}, {"ISO-8859-15", 28605}, {"latin-9", 28605},
      {"windows-1250", 1250}, {"windows-1251", 1251}, {"Windows-1252", 1252}, {"cp1252", 1252},
      {"windows-1253", 1253}, {"windows-1254", 1254}, {"windows-1255", 1255}, {"windows-1256", 1256},
      {"windows-1257", 1257}, {"windows-1258", 1258},
      {"shift_jis", 932}, {"Shift-JIS", 932}, {"sjis", 932}, {"x-sjis", 932}, {"windows-31j", 932},
      {"euc-jp", 51932}, {"x-euc-jp", 51932}, {"gb2312", 936}, {"GBK", 936}, {"cp936", 936},
      {"big5", 950}, {"csbig5", 950}, {"euc-kr", 51949}, {"ks_c_5601-1987", 949}, {"korean", 949},
      {"koi8-r", 20866}, {"KOI8-U", 21866}, {"gb18030", 54936},
  };
  for (const auto& r : rows) EXPECT_EQ(Qz_CharsetToCodepage(r.name), r.cp) << r.name;
}

TEST_F(Charset, NullNameGivesTheAnsiPageAndUnknownNamesFail) {
  EXPECT_EQ(Qz_CharsetToCodepage(nullptr), GetACP());
  EXPECT_EQ(Qz_CharsetToCodepage("no-such-charset"), 0xFFFFFFFFu);
  EXPECT_EQ(Qz_CharsetToCodepage(""), 0xFFFFFFFFu);
  EXPECT_EQ(Qz_CharsetToCodepage("utf-8\\..\\utf-8"), 0xFFFFFFFFu);
  std::string huge(1000, 'x');
  EXPECT_EQ(Qz_CharsetToCodepage(huge.c_str()), 0xFFFFFFFFu);
}

TEST_F(Charset, AliasChainsEmptyAliasesAndCycles) {
  SetAlias("x-one", "x-two");
  SetAlias("x-two", "Latin2");
  EXPECT_EQ(Qz_CharsetToCodepage("X-ONE"), 28592u);
  SetAlias("x-empty", "", 0);
  EXPECT_EQ(Qz_CharsetToCodepage("x-empty"), 0xFFFFFFFFu);
  SetAlias("x-dangling", "x-nowhere");
  EXPECT_EQ(Qz_CharsetToCodepage("x-dangling"), 0xFFFFFFFFu);
  SetAlias("x-ping", "x-pong");
  SetAlias("x-pong", "x-ping");
  EXPECT_EQ(Qz_CharsetToCodepage("x-ping"), 0xFFFFFFFFu);
  SetAlias("x-self", "x-self");
  EXPECT_EQ(Qz_CharsetToCodepage("x-self"), 0xFFFFFFFFu);
  // An alias stored without its terminator still names its target.
  SetAlias("x-bare", "koi8-r", 6);
  EXPECT_EQ(Qz_CharsetToCodepage("x-bare"), 20866u);
}

TEST_F(Charset, ValueTypesDecideWhatCounts) {
  const std::string key = std::string(kRoot) + "x-typed";
  // A number of the big-endian type is taken as stored.
  DWORD cp = 1252;
  QzRegistrySetTestValue(key.c_str(), "InternetEncoding", REG_DWORD_BIG_ENDIAN, &cp, 4);
  EXPECT_EQ(Qz_CharsetToCodepage("x-typed"), 1252u);
  // A number stored as text does not count; the alias is followed instead.
  QzRegistrySetTestValue(key.c_str(), "InternetEncoding", REG_SZ, "1252", 5);
  SetAlias("x-typed", "utf-8");
  EXPECT_EQ(Qz_CharsetToCodepage("x-typed"), 65001u);
  // An alias of a number type ends the walk.
  QzRegistrySetTestValue((std::string(kRoot) + "x-numalias").c_str(), "AliasForCharset", REG_DWORD, &cp, 4);
  EXPECT_EQ(Qz_CharsetToCodepage("x-numalias"), 0xFFFFFFFFu);
  // A test key hides the built-in one of the same name.
  SetAlias("utf-8", "us-ascii");
  EXPECT_EQ(Qz_CharsetToCodepage("utf-8"), 20127u);
}

TEST_F(Charset, RegistryCallsFollowWindows) {
  HKEY key = nullptr;
  EXPECT_EQ(RegOpenKeyExA(QZ_HKEY_CLASSES_ROOT, "MIME\\Database\\Charset\\utf-8", 0, 0xF003F, &key),
            static_cast<LONG>(ERROR_ACCESS_DENIED));
  EXPECT_EQ(RegOpenKeyExA(nullptr, "MIME\\Database\\Charset\\utf-8", 0, KEY_READ, &key),
            static_cast<LONG>(ERROR_INVALID_HANDLE));
  ASSERT_EQ(RegOpenKeyExA(QZ_HKEY_CLASSES_ROOT, "mime\\database\\charset\\Latin1", 0, KEY_READ, &key), 0);
  DWORD type = 0, size = 0;
  EXPECT_EQ(RegQueryValueExA(key, "AliasForCharset", nullptr, &type, nullptr, &size), 0);
  EXPECT_EQ(type, REG_SZ);
  EXPECT_EQ(size, 11u);  // "iso-8859-1" and its terminator
  char small[4];
  size = sizeof small;
  EXPECT_EQ(RegQueryValueExA(key, "AliasForCharset", nullptr, &type, reinterpret_cast<BYTE*>(small), &size),
            static_cast<LONG>(ERROR_MORE_DATA));
  EXPECT_EQ(size, 11u);
  EXPECT_EQ(RegQueryValueExA(key, "InternetEncoding", nullptr, &type, nullptr, &size),
            static_cast<LONG>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(RegCloseKey(key), 0);
}
