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
      {"UTF-8", 65001}, {"utf-16be", 1201}, {"ANSI_X3.4-1968", 20127}, {"l1", 28591}, {"iso-8859-11", 874},
      {"latin-9", 28605}, {"Windows-1252", 1252}, {"x-sjis", 932}, {"euc-jp", 51932}, {"GBK", 936},
      {"ks_c_5601-1987", 949}, {"KOI8-U", 21866},
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
