// Character set names to code page numbers, by the MIME database of the
// registry.
#include <qzbase/QzConvert.h>

#include <string.h>

#include "platform/QzPlatform.h"
#include "platform/QzPlatformRegistry.h"

using namespace qzsys;

namespace {

// A database with a cycle of aliases would otherwise never end the walk; no
// real chain is longer than two steps.
constexpr int kMaxAliasSteps = 16;

// Registry key names are at most 255 characters, so a longer alias can name
// no key and the walk would end there anyway.
constexpr DWORD kMaxName = 256;

}  // namespace

extern "C" QZ_API unsigned int Qz_CharsetToCodepage(const char* charset) {
  if (!charset) return GetACP();
  unsigned int result = 0xFFFFFFFFu;
  static const char kRoot[] = "MIME\\Database\\Charset\\";
  char name[kMaxName + 1];
  size_t len = strlen(charset);
  if (len >= kMaxName) return result;
  memcpy(name, charset, len + 1);
  for (int step = 0; step < kMaxAliasSteps; ++step) {
    char path[sizeof kRoot + kMaxName];
    memcpy(path, kRoot, sizeof kRoot - 1);
    memcpy(path + sizeof kRoot - 1, name, strlen(name) + 1);
    HKEY key = nullptr;
    if (RegOpenKeyExA(QZ_HKEY_CLASSES_ROOT, path, 0, KEY_READ, &key) != static_cast<LONG>(ERROR_SUCCESS))
      return result;
    DWORD type = 0;
    DWORD value = 0;
    DWORD size = sizeof value;
    if (RegQueryValueExA(key, "InternetEncoding", nullptr, &type, reinterpret_cast<BYTE*>(&value), &size) ==
            static_cast<LONG>(ERROR_SUCCESS) &&
        (type == REG_DWORD || type == REG_DWORD_BIG_ENDIAN)) {
      // Taken as stored, with no byte swap for the big-endian type.
      RegCloseKey(key);
      return value;
    }
    size = 0;
    if (RegQueryValueExA(key, "AliasForCharset", nullptr, nullptr, nullptr, &size) !=
            static_cast<LONG>(ERROR_SUCCESS) ||
        size == 0 || size > kMaxName) {
      RegCloseKey(key);
      return result;
    }
    char alias[kMaxName + 1];
    LONG read = RegQueryValueExA(key, "AliasForCharset", nullptr, &type, reinterpret_cast<BYTE*>(alias), &size);
    RegCloseKey(key);
    if (read != static_cast<LONG>(ERROR_SUCCESS) || type == REG_DWORD || type == REG_DWORD_BIG_ENDIAN)
      return result;
    alias[size] = 0;  // a value stored without its terminator still ends here
    memcpy(name, alias, strlen(alias) + 1);
  }
  return result;
}
