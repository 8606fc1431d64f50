// POSIX implementation of the registry area: the MIME character set database
// as a built-in table, plus keys that tests add.
#include "platform/QzPlatformRegistry.h"

#include <string.h>

#include <mutex>
#include <new>
#include <string>
#include <vector>

namespace qzsys {

namespace {

// A name either has a code page or is an alias (alias != null).
struct Charset {
  const char* name;
  DWORD codePage;
  const char* alias;
};

const Charset kCharsets[] = {
    {"utf-8", 65001, nullptr}, {"utf8", 0, "utf-8"}, {"unicode-1-1-utf-8", 0, "utf-8"},
    {"unicode-2-0-utf-8", 0, "utf-8"}, {"x-unicode20utf8", 0, "utf-8"},
    {"utf-16", 1200, nullptr}, {"utf-16le", 0, "utf-16"}, {"unicode", 0, "utf-16"},
    {"ucs-2", 0, "utf-16"}, {"iso-10646-ucs-2", 0, "utf-16"}, {"csunicode", 0, "utf-16"},
    {"utf-16be", 1201, nullptr}, {"unicodefffe", 0, "utf-16be"},
    {"utf-32", 12000, nullptr}, {"utf-32le", 0, "utf-32"}, {"utf-32be", 12001, nullptr},
    {"us-ascii", 20127, nullptr}, {"ascii", 0, "us-ascii"}, {"ansi_x3.4-1968", 0, "us-ascii"},
    {"ansi_x3.4-1986", 0, "us-ascii"}, {"iso-ir-6", 0, "us-ascii"}, {"iso_646.irv:1991", 0, "us-ascii"},
    {"iso646-us", 0, "us-ascii"}, {"us", 0, "us-ascii"}, {"ibm367", 0, "us-ascii"},
    {"cp367", 0, "us-ascii"}, {"csascii", 0, "us-ascii"},
    {"iso-8859-1", 28591, nullptr}, {"iso_8859-1", 0, "iso-8859-1"}, {"iso8859-1", 0, "iso-8859-1"},
    {"iso_8859-1:1987", 0, "iso-8859-1"}, {"latin1", 0, "iso-8859-1"}, {"l1", 0, "iso-8859-1"},
    {"iso-ir-100", 0, "iso-8859-1"}, {"ibm819", 0, "iso-8859-1"}, {"cp819", 0, "iso-8859-1"},
    {"csisolatin1", 0, "iso-8859-1"},
    {"iso-8859-2", 28592, nullptr}, {"iso_8859-2", 0, "iso-8859-2"}, {"iso8859-2", 0, "iso-8859-2"},
    {"latin2", 0, "iso-8859-2"}, {"l2", 0, "iso-8859-2"}, {"iso-ir-101", 0, "iso-8859-2"},
    {"csisolatin2", 0, "iso-8859-2"},
    {"iso-8859-3", 28593, nullptr}, {"iso_8859-3", 0, "iso-8859-3"}, {"latin3", 0, "iso-8859-3"},
    {"l3", 0, "iso-8859-3"}, {"iso-ir-109", 0, "iso-8859-3"}, {"csisolatin3", 0, "iso-8859-3"},
    {"iso-8859-4", 28594, nullptr}, {"iso_8859-4", 0, "iso-8859-4"}, {"latin4", 0, "iso-8859-4"},
    {"l4", 0, "iso-8859-4"}, {"iso-ir-110", 0, "iso-8859-4"}, {"csisolatin4", 0, "iso-8859-4"},
    {"iso-8859-5", 28595, nullptr}, {"iso_8859-5", 0, "iso-8859-5"}, {"cyrillic", 0, "iso-8859-5"},
    {"iso-ir-144", 0, "iso-8859-5"}, {"csisolatincyrillic", 0, "iso-8859-5"},
    {"iso-8859-6", 28596, nullptr}, {"iso_8859-6", 0, "iso-8859-6"}, {"arabic", 0, "iso-8859-6"},
    {"iso-ir-127", 0, "iso-8859-6"}, {"ecma-114", 0, "iso-8859-6"}, {"csisolatinarabic", 0, "iso-8859-6"},
    {"iso-8859-7", 28597, nullptr}, {"iso_8859-7", 0, "iso-8859-7"}, {"greek", 0, "iso-8859-7"},
    {"greek8", 0, "iso-8859-7"}, {"iso-ir-126", 0, "iso-8859-7"}, {"elot_928", 0, "iso-8859-7"},
    {"ecma-118", 0, "iso-8859-7"}, {"csisolatingreek", 0, "iso-8859-7"},
    {"iso-8859-8", 28598, nullptr}, {"iso_8859-8", 0, "iso-8859-8"}, {"hebrew", 0, "iso-8859-8"},
    {"iso-ir-138", 0, "iso-8859-8"}, {"visual", 0, "iso-8859-8"}, {"iso-8859-8-i", 0, "iso-8859-8"},
    {"csisolatinhebrew", 0, "iso-8859-8"},
    {"iso-8859-9", 28599, nullptr}, {"iso_8859-9", 0, "iso-8859-9"}, {"latin5", 0, "iso-8859-9"},
    {"l5", 0, "iso-8859-9"}, {"iso-ir-148", 0, "iso-8859-9"}, {"csisolatin5", 0, "iso-8859-9"},
    {"iso-8859-10", 28600, nullptr}, {"latin6", 0, "iso-8859-10"}, {"l6", 0, "iso-8859-10"},
    {"iso-ir-157", 0, "iso-8859-10"}, {"csisolatin6", 0, "iso-8859-10"},
    {"iso-8859-11", 0, "windows-874"},
    {"iso-8859-13", 28603, nullptr}, {"latin7", 0, "iso-8859-13"}, {"l7", 0, "iso-8859-13"},
    {"iso-8859-14", 28604, nullptr}, {"latin8", 0, "iso-8859-14"}, {"l8", 0, "iso-8859-14"},
    {"iso-celtic", 0, "iso-8859-14"},
    {"iso-8859-15", 28605, nullptr}, {"iso_8859-15", 0, "iso-8859-15"}, {"latin-9", 0, "iso-8859-15"},
    {"latin9", 0, "iso-8859-15"}, {"l9", 0, "iso-8859-15"}, {"csisolatin9", 0, "iso-8859-15"},
    {"iso-8859-16", 28606, nullptr}, {"latin10", 0, "iso-8859-16"}, {"l10", 0, "iso-8859-16"},
    {"windows-874", 874, nullptr}, {"tis-620", 0, "windows-874"}, {"cp874", 0, "windows-874"},
    {"windows-1250", 1250, nullptr}, {"x-cp1250", 0, "windows-1250"}, {"cp1250", 0, "windows-1250"},
    {"windows-1251", 1251, nullptr}, {"x-cp1251", 0, "windows-1251"}, {"cp1251", 0, "windows-1251"},
    {"windows-1252", 1252, nullptr}, {"x-cp1252", 0, "windows-1252"}, {"cp1252", 0, "windows-1252"},
    {"windows-1253", 1253, nullptr}, {"cp1253", 0, "windows-1253"},
    {"windows-1254", 1254, nullptr}, {"cp1254", 0, "windows-1254"},
    {"windows-1255", 1255, nullptr}, {"cp1255", 0, "windows-1255"},
    {"windows-1256", 1256, nullptr}, {"cp1256", 0, "windows-1256"},
    {"windows-1257", 1257, nullptr}, {"cp1257", 0, "windows-1257"},
    {"windows-1258", 1258, nullptr}, {"cp1258", 0, "windows-1258"},
    {"shift_jis", 932, nullptr}, {"shift-jis", 0, "shift_jis"}, {"sjis", 0, "shift_jis"},
    {"x-sjis", 0, "shift_jis"}, {"ms_kanji", 0, "shift_jis"}, {"csshiftjis", 0, "shift_jis"},
    {"windows-31j", 0, "shift_jis"}, {"x-ms-cp932", 0, "shift_jis"}, {"cp932", 0, "shift_jis"},
    {"euc-jp", 51932, nullptr}, {"x-euc-jp", 0, "euc-jp"}, {"x-euc", 0, "euc-jp"},
    {"eucjp", 0, "euc-jp"}, {"cseucpkdfmtjapanese", 0, "euc-jp"},
    {"iso-2022-jp", 50220, nullptr}, {"csiso2022jp", 0, "iso-2022-jp"},
    {"gb2312", 936, nullptr}, {"csgb2312", 0, "gb2312"}, {"gb_2312-80", 0, "gb2312"},
    {"chinese", 0, "gb2312"}, {"iso-ir-58", 0, "gb2312"}, {"csiso58gb231280", 0, "gb2312"},
    {"euc-cn", 0, "gb2312"}, {"x-euc-cn", 0, "gb2312"},
    {"gbk", 936, nullptr}, {"cp936", 0, "gbk"}, {"ms936", 0, "gbk"}, {"windows-936", 0, "gbk"},
    {"gb18030", 54936, nullptr},
    {"big5", 950, nullptr}, {"cn-big5", 0, "big5"}, {"x-x-big5", 0, "big5"}, {"csbig5", 0, "big5"},
    {"cp950", 0, "big5"},
    {"euc-kr", 51949, nullptr}, {"cseuckr", 0, "euc-kr"},
    {"ks_c_5601-1987", 949, nullptr}, {"korean", 0, "ks_c_5601-1987"}, {"ks_c_5601", 0, "ks_c_5601-1987"},
    {"ks_c_5601-1989", 0, "ks_c_5601-1987"}, {"ksc5601", 0, "ks_c_5601-1987"},
    {"ksc_5601", 0, "ks_c_5601-1987"}, {"csksc56011987", 0, "ks_c_5601-1987"},
    {"iso-ir-149", 0, "ks_c_5601-1987"}, {"cp949", 0, "ks_c_5601-1987"}, {"uhc", 0, "ks_c_5601-1987"},
    {"windows-949", 0, "ks_c_5601-1987"},
    {"koi8-r", 20866, nullptr}, {"cskoi8r", 0, "koi8-r"}, {"koi", 0, "koi8-r"}, {"koi8", 0, "koi8-r"},
    {"koi8r", 0, "koi8-r"},
    {"koi8-u", 21866, nullptr}, {"koi8-ru", 0, "koi8-u"},
    {"ibm437", 437, nullptr}, {"cp437", 0, "ibm437"}, {"cspc8codepage437", 0, "ibm437"},
    {"ibm850", 850, nullptr}, {"cp850", 0, "ibm850"},
    {"ibm866", 866, nullptr}, {"cp866", 0, "ibm866"},
    {"macintosh", 10000, nullptr}, {"x-mac-roman", 0, "macintosh"},
};

const char kCharsetRoot[] = "mime\\database\\charset\\";

struct Value {
  std::string name;  // lower case
  DWORD type;
  std::vector<BYTE> data;
};

struct TestKey {
  std::string path;  // lower case
  std::vector<Value> values;
};

std::mutex g_testMutex;
std::vector<TestKey> g_testKeys;

std::string Lower(const char* s) {
  std::string r(s);
  for (char& c : r)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  return r;
}

}  // namespace

// An open key: its values, copied so that the handle does not depend on what
// tests change afterwards.
struct QzRegKey {
  uint32_t magic;
  std::vector<Value> values;
};

namespace {
constexpr uint32_t kKeyMagic = 0x6B657951;  // "Qyek"

bool IsOpenKey(HKEY key) {
  return key && key != QZ_HKEY_CLASSES_ROOT && key->magic == kKeyMagic;
}
}  // namespace

LONG RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD options, DWORD access, HKEY* result) {
  if (!result) return static_cast<LONG>(ERROR_INVALID_PARAMETER);
  *result = nullptr;
  if (key != QZ_HKEY_CLASSES_ROOT) return static_cast<LONG>(ERROR_INVALID_HANDLE);
  if (!subKey) return static_cast<LONG>(ERROR_INVALID_PARAMETER);
  if (access & ~KEY_READ) return static_cast<LONG>(ERROR_ACCESS_DENIED);
  try {
    std::string path = Lower(subKey);
    std::vector<Value> values;
    bool found = false;
    {
      std::lock_guard<std::mutex> lock(g_testMutex);
      for (const TestKey& k : g_testKeys)
        if (k.path == path) {
          values = k.values;
          found = true;
          break;
        }
    }
    const size_t rootLen = sizeof kCharsetRoot - 1;
    if (!found && path.compare(0, rootLen, kCharsetRoot) == 0) {
      const char* name = path.c_str() + rootLen;
      for (const Charset& c : kCharsets) {
        if (strcmp(c.name, name) != 0) continue;
        if (c.alias) {
          const BYTE* a = reinterpret_cast<const BYTE*>(c.alias);
          values.push_back({"aliasforcharset", REG_SZ, std::vector<BYTE>(a, a + strlen(c.alias) + 1)});
        } else {
          const DWORD cp = c.codePage;
          const BYTE* b = reinterpret_cast<const BYTE*>(&cp);
          values.push_back({"internetencoding", REG_DWORD, std::vector<BYTE>(b, b + 4)});
          values.push_back({"codepage", REG_DWORD, std::vector<BYTE>(b, b + 4)});
        }
        found = true;
        break;
      }
    }
    if (!found) return static_cast<LONG>(ERROR_FILE_NOT_FOUND);
    QzRegKey* k = new QzRegKey{kKeyMagic, std::move(values)};
    *result = k;
    return static_cast<LONG>(ERROR_SUCCESS);
  } catch (...) {
    return static_cast<LONG>(ERROR_NOT_ENOUGH_MEMORY);
  }
}

LONG RegQueryValueExA(HKEY key, LPCSTR valueName, DWORD* reserved, DWORD* type, BYTE* data, DWORD* size) {
  if (!IsOpenKey(key)) return static_cast<LONG>(ERROR_INVALID_HANDLE);
  if (reserved || (data && !size)) return static_cast<LONG>(ERROR_INVALID_PARAMETER);
  const char* want = valueName ? valueName : "";
  for (const Value& v : key->values) {
    if (v.name.size() != strlen(want)) continue;
    bool same = true;
    for (size_t i = 0; i < v.name.size() && same; ++i) {
      char c = want[i];
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
      same = c == v.name[i];
    }
    if (!same) continue;
    if (type) *type = v.type;
    const DWORD needed = static_cast<DWORD>(v.data.size());
    if (!size) return static_cast<LONG>(ERROR_SUCCESS);
    if (data) {
      if (*size < needed) {
        *size = needed;
        return static_cast<LONG>(ERROR_MORE_DATA);
      }
      if (needed) memcpy(data, v.data.data(), needed);
    }
    *size = needed;
    return static_cast<LONG>(ERROR_SUCCESS);
  }
  return static_cast<LONG>(ERROR_FILE_NOT_FOUND);
}

LONG RegCloseKey(HKEY key) {
  if (key == QZ_HKEY_CLASSES_ROOT) return static_cast<LONG>(ERROR_SUCCESS);
  if (!IsOpenKey(key)) return static_cast<LONG>(ERROR_INVALID_HANDLE);
  key->magic = 0;
  delete key;
  return static_cast<LONG>(ERROR_SUCCESS);
}

void QzRegistrySetTestValue(LPCSTR subKey, LPCSTR valueName, DWORD type, const void* data, DWORD size) {
  std::lock_guard<std::mutex> lock(g_testMutex);
  std::string path = Lower(subKey);
  TestKey* key = nullptr;
  for (TestKey& k : g_testKeys)
    if (k.path == path) key = &k;
  if (!key) {
    g_testKeys.push_back({path, {}});
    key = &g_testKeys.back();
  }
  std::string name = Lower(valueName ? valueName : "");
  const BYTE* b = static_cast<const BYTE*>(data);
  Value v{name, type, std::vector<BYTE>(b, b + (b ? size : 0))};
  for (Value& old : key->values)
    if (old.name == name) {
      old = v;
      return;
    }
  key->values.push_back(v);
}

void QzRegistryClearTestValues() {
  std::lock_guard<std::mutex> lock(g_testMutex);
  g_testKeys.clear();
}

}  // namespace qzsys
