// POSIX implementation of the text area: code pages, their tables, and the
// conversions between them and UTF-16.
#include "platform/QzPlatformBase.h"
#include "platform/QzPlatformText.h"
#include "platform/posix/TextTables.h"

#include <iconv.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <new>

namespace qzsys {
namespace text {

namespace {

const PageInfo kPages[] = {
    {65001, "UTF-8", kUtf8},
    {1250, "CP1250", kSingle}, {1251, "CP1251", kSingle}, {1252, "CP1252", kSingle},
    {1253, "CP1253", kSingle}, {1254, "CP1254", kSingle}, {1255, "CP1255", kSingle},
    {1256, "CP1256", kSingle}, {1257, "CP1257", kSingle}, {1258, "CP1258", kSingle},
    {874, "CP874", kSingle},
    {20127, "ANSI_X3.4-1968", kSingle},
    {28591, "ISO-8859-1", kSingle}, {28592, "ISO-8859-2", kSingle}, {28593, "ISO-8859-3", kSingle},
    {28594, "ISO-8859-4", kSingle}, {28595, "ISO-8859-5", kSingle}, {28596, "ISO-8859-6", kSingle},
    {28597, "ISO-8859-7", kSingle}, {28598, "ISO-8859-8", kSingle}, {28599, "ISO-8859-9", kSingle},
    {28600, "ISO-8859-10", kSingle}, {28601, "ISO-8859-11", kSingle},
    {28603, "ISO-8859-13", kSingle}, {28604, "ISO-8859-14", kSingle},
    {28605, "ISO-8859-15", kSingle}, {28606, "ISO-8859-16", kSingle},
    {20866, "KOI8-R", kSingle}, {21866, "KOI8-U", kSingle},
    {437, "CP437", kSingle}, {850, "CP850", kSingle}, {866, "CP866", kSingle},
    {10000, "MACINTOSH", kSingle},
    {932, "CP932", kDouble}, {936, "CP936", kDouble}, {949, "CP949", kDouble},
    {950, "CP950", kDouble},
    {1200, "UTF-16LE", kIconv}, {1201, "UTF-16BE", kIconv},
    {12000, "UTF-32LE", kIconv}, {12001, "UTF-32BE", kIconv},
    {20932, "EUC-JP", kIconv}, {51932, "EUC-JP", kIconv}, {51949, "EUC-KR", kIconv},
    {54936, "GB18030", kIconv}, {50220, "ISO-2022-JP", kIconv},
};
constexpr size_t kPageCount = sizeof kPages / sizeof kPages[0];

struct TableSlot {
  std::once_flag once;
  PageTable* table = nullptr;
};
TableSlot g_tables[kPageCount];

// One conversion of a short byte run through iconv, state reset before and
// flushed after (CP1255 and CP1258 hold a base letter back to combine it).
// Returns the number of UTF-16 units produced (into out[0..3]) or -1.
int IconvDecode(iconv_t cd, const unsigned char* in, size_t n, WCHAR* out) {
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  char* ip = reinterpret_cast<char*>(const_cast<unsigned char*>(in));
  size_t il = n;
  unsigned char buf[16];
  char* op = reinterpret_cast<char*>(buf);
  size_t ol = sizeof buf;
  if (iconv(cd, &ip, &il, &op, &ol) == static_cast<size_t>(-1) || il != 0) return -1;
  if (iconv(cd, nullptr, nullptr, &op, &ol) == static_cast<size_t>(-1)) return -1;
  size_t bytes = sizeof buf - ol;
  int units = static_cast<int>(bytes / 2);
  for (int i = 0; i < units && i < 4; ++i) out[i] = static_cast<WCHAR>(buf[2 * i] | buf[2 * i + 1] << 8);
  return units;
}

// The bytes that iconv gives for one UTF-16 unit, or -1.
int IconvEncode(iconv_t cd, WCHAR u, unsigned char* out) {
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  unsigned char in[2] = {static_cast<unsigned char>(u), static_cast<unsigned char>(u >> 8)};
  char* ip = reinterpret_cast<char*>(in);
  size_t il = 2;
  char* op = reinterpret_cast<char*>(out);
  size_t ol = 4;
  if (iconv(cd, &ip, &il, &op, &ol) == static_cast<size_t>(-1) || il != 0) return -1;
  if (iconv(cd, nullptr, nullptr, &op, &ol) == static_cast<size_t>(-1)) return -1;
  return static_cast<int>(4 - ol);
}

void SetLeadBytes(PageTable* t) {
  memset(t->lead, 0, sizeof t->lead);
  if (t->kind != kDouble) return;
  for (int b = 0x81; b <= 0xFE; ++b) {
    if (t->codePage == 932 && ((b > 0x9F && b < 0xE0) || b > 0xFC)) continue;
    t->lead[b] = true;
  }
}

PageTable* BuildTable(const PageInfo& info) {
  iconv_t dec = iconv_open("UTF-16LE", info.iconvName);
  if (dec == reinterpret_cast<iconv_t>(-1)) return nullptr;
  iconv_t enc = iconv_open(info.iconvName, "UTF-16LE");
  if (enc == reinterpret_cast<iconv_t>(-1)) {
    iconv_close(dec);
    return nullptr;
  }
  PageTable* t = new (std::nothrow) PageTable();
  uint16_t* encode = new (std::nothrow) uint16_t[65536]();
  WCHAR* pairs = nullptr;
  if (t && encode && info.kind == kDouble) pairs = new (std::nothrow) WCHAR[65536]();
  if (!t || !encode || (info.kind == kDouble && !pairs)) {
    delete t;
    delete[] encode;
    iconv_close(dec);
    iconv_close(enc);
    return nullptr;
  }
  t->codePage = info.codePage;
  t->kind = info.kind;
  SetLeadBytes(t);
  WCHAR u[4];
  for (int b = 0; b < 256; ++b) {
    t->single[b] = 0;
    if (t->lead[b]) continue;
    unsigned char byte = static_cast<unsigned char>(b);
    if (IconvDecode(dec, &byte, 1, u) == 1) {
      t->single[b] = u[0];
    } else if (b >= 0x80 && b <= 0x9F) {
      // What Windows does with the holes of its single-byte pages.
      t->single[b] = static_cast<WCHAR>(b);
    }
  }
  if (pairs) {
    for (int lead = 0x81; lead <= 0xFE; ++lead) {
      if (!t->lead[lead]) continue;
      for (int trail = 0x40; trail <= 0xFE; ++trail) {
        unsigned char two[2] = {static_cast<unsigned char>(lead), static_cast<unsigned char>(trail)};
        if (IconvDecode(dec, two, 2, u) == 1) pairs[lead << 8 | trail] = u[0];
      }
    }
  }
  // Encoding: what iconv itself prefers where a character has two codes
  // (CP932 has several), so the tables agree with the converter component.
  unsigned char out[4];
  auto addEncoding = [&](WCHAR unit, uint16_t fallback) {
    if (unit == 0 || encode[unit] != 0) return;
    int n = IconvEncode(enc, unit, out);
    if (n == 1) encode[unit] = out[0];
    else if (n == 2) encode[unit] = static_cast<uint16_t>(out[0] << 8 | out[1]);
    else encode[unit] = fallback;
  };
  for (int b = 1; b < 256; ++b)
    if (t->single[b]) addEncoding(t->single[b], static_cast<uint16_t>(b));
  if (pairs)
    for (unsigned v = 0x8100; v < 0x10000; ++v)
      if (pairs[v]) addEncoding(pairs[v], static_cast<uint16_t>(v));
  iconv_close(dec);
  iconv_close(enc);
  t->pairs = pairs;
  t->encode = encode;
  for (int b = 0; b < 256; ++b) {
    t->lower[b] = t->upper[b] = static_cast<unsigned char>(b);
    WCHAR w = t->single[b];
    if (!w) continue;
    uint16_t lo = encode[QzToLowerW(w)], up = encode[QzToUpperW(w)];
    if (lo && lo < 0x100) t->lower[b] = static_cast<unsigned char>(lo);
    if (up && up < 0x100) t->upper[b] = static_cast<unsigned char>(up);
  }
  return t;
}

UINT ReadAcpFromEnvironment() {
  const char* v = getenv("QZ_ACP");
  if (!v || !*v) return CP_UTF8;
  char* end = nullptr;
  unsigned long n = strtoul(v, &end, 10);
  if (*end != 0 || n == 0 || n > 0xFFFF) return CP_UTF8;
  UINT cp = static_cast<UINT>(n);
  if (!IsValidCodePage(cp) || (cp != CP_UTF8 && !GetTable(cp))) return CP_UTF8;
  return cp;
}

std::atomic<UINT> g_acp{0};
std::atomic<const PageTable*> g_acpTable{nullptr};

}  // namespace

const PageInfo* FindPage(UINT codePage) {
  for (const PageInfo& p : kPages)
    if (p.codePage == codePage) return &p;
  return nullptr;
}

const PageTable* GetTable(UINT codePage) {
  const PageInfo* info = FindPage(codePage);
  if (!info || (info->kind != kSingle && info->kind != kDouble)) return nullptr;
  TableSlot& slot = g_tables[info - kPages];
  std::call_once(slot.once, [&] { slot.table = BuildTable(*info); });
  return slot.table;
}

const PageTable* ActiveTable() {
  GetACP();
  return g_acpTable.load(std::memory_order_acquire);
}

}  // namespace text

using namespace text;

UINT GetACP() {
  UINT cp = g_acp.load(std::memory_order_acquire);
  if (cp != 0) return cp;
  static std::once_flag once;
  std::call_once(once, [] {
    UINT chosen = ReadAcpFromEnvironment();
    g_acpTable.store(chosen == CP_UTF8 ? nullptr : GetTable(chosen), std::memory_order_release);
    g_acp.store(chosen, std::memory_order_release);
  });
  return g_acp.load(std::memory_order_acquire);
}

BOOL QzSetActiveCodePage(UINT codePage) {
  GetACP();  // the environment is read once, before any switch
  const PageTable* table = nullptr;
  if (codePage != CP_UTF8) {
    table = IsValidCodePage(codePage) ? GetTable(codePage) : nullptr;
    if (!table) {
      SetLastError(ERROR_INVALID_PARAMETER);
      return FALSE;
    }
  }
  g_acpTable.store(table, std::memory_order_release);
  g_acp.store(codePage, std::memory_order_release);
  return TRUE;
}

BOOL IsValidCodePage(UINT codePage) {
  const PageInfo* p = FindPage(codePage);
  return p && p->kind != kIconv ? TRUE : FALSE;
}

UINT QzMaxCharSize(UINT codePage) {
  const PageInfo* p = FindPage(codePage);
  if (!p) return 0;
  switch (p->kind) {
    case kUtf8: return 4;
    case kSingle: return 1;
    case kDouble: return 2;
    default: return 0;
  }
}

namespace {

UINT ResolvePage(UINT codePage) {
  return codePage == CP_ACP || codePage == CP_OEMCP ? GetACP() : codePage;
}

// Collects output units (or bytes), counting past the end of the buffer so
// that a measuring call and a short buffer are told apart.
template <typename T>
struct Sink {
  T* out;
  size_t cap;  // 0: measure
  size_t n = 0;
  bool overflow = false;
  void put(T v) {
    if (cap) {
      if (n >= cap) {
        overflow = true;
        return;
      }
      out[n] = v;
    }
    ++n;
  }
};

}  // namespace

int MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR mb, int cbMultiByte, LPWSTR wide,
                        int cchWideChar) {
  codePage = ResolvePage(codePage);
  const PageInfo* info = FindPage(codePage);
  if (!mb || cbMultiByte == 0 || cbMultiByte < -1 || cchWideChar < 0 ||
      (!wide && cchWideChar != 0) || !info || info->kind == kIconv) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  const PageTable* table = nullptr;
  if (info->kind != kUtf8 && !(table = GetTable(codePage))) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  const unsigned char* s = reinterpret_cast<const unsigned char*>(mb);
  size_t n = cbMultiByte == -1 ? strlen(mb) + 1 : static_cast<size_t>(cbMultiByte);
  const bool strict = (flags & MB_ERR_INVALID_CHARS) != 0;
  Sink<WCHAR> sink{wide, static_cast<size_t>(cchWideChar)};
  size_t i = 0;
  while (i < n && !sink.overflow) {
    if (!table) {
      if (s[i] < 0x80) {
        sink.put(s[i++]);
        continue;
      }
      uint32_t cp = 0;
      unsigned bad;
      unsigned len = DecodeUtf8(s + i, n - i, &cp, &bad);
      if (!len) {
        if (strict) {
          SetLastError(ERROR_NO_UNICODE_TRANSLATION);
          return 0;
        }
        sink.put(0xFFFD);
        i += bad;
        continue;
      }
      i += len;
      if (cp >= 0x10000) {
        cp -= 0x10000;
        sink.put(static_cast<WCHAR>(0xD800 | cp >> 10));
        sink.put(static_cast<WCHAR>(0xDC00 | (cp & 0x3FF)));
      } else {
        sink.put(static_cast<WCHAR>(cp));
      }
      continue;
    }
    unsigned b = s[i];
    if (table->lead[b]) {
      WCHAR w = i + 1 < n ? table->pairs[b << 8 | s[i + 1]] : 0;
      if (w) {
        sink.put(w);
        i += 2;
        continue;
      }
      if (strict) {
        SetLastError(ERROR_NO_UNICODE_TRANSLATION);
        return 0;
      }
      // A bad pair with a byte of the trail range goes as one character.
      i += (i + 1 < n && s[i + 1] >= 0x40) ? 2 : 1;
      sink.put('?');
      continue;
    }
    WCHAR w = table->single[b];
    if (!w && b) {
      if (strict) {
        SetLastError(ERROR_NO_UNICODE_TRANSLATION);
        return 0;
      }
      w = '?';
    }
    sink.put(w);
    ++i;
  }
  if (sink.overflow) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  if (sink.n > 0x7FFFFFFF) {
    SetLastError(ERROR_ARITHMETIC_OVERFLOW);
    return 0;
  }
  return static_cast<int>(sink.n);
}

int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int cchWideChar, LPSTR mb,
                        int cbMultiByte, LPCSTR defaultChar, BOOL* usedDefaultChar) {
  codePage = ResolvePage(codePage);
  const PageInfo* info = FindPage(codePage);
  if (!wide || cchWideChar == 0 || cchWideChar < -1 || cbMultiByte < 0 ||
      (!mb && cbMultiByte != 0) || !info || info->kind == kIconv ||
      (info->kind == kUtf8 && (defaultChar || usedDefaultChar))) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  const PageTable* table = nullptr;
  if (info->kind != kUtf8 && !(table = GetTable(codePage))) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  size_t n;
  if (cchWideChar == -1) {
    n = 0;
    while (wide[n]) ++n;
    ++n;
  } else {
    n = static_cast<size_t>(cchWideChar);
  }
  // The default character: its first character in the page, '?' if none.
  unsigned char def[2] = {'?', 0};
  unsigned defLen = 1;
  if (table && defaultChar && defaultChar[0]) {
    def[0] = static_cast<unsigned char>(defaultChar[0]);
    if (table->lead[def[0]] && defaultChar[1]) {
      def[1] = static_cast<unsigned char>(defaultChar[1]);
      defLen = 2;
    }
  }
  const bool strict = (flags & (WC_ERR_INVALID_CHARS | MB_ERR_INVALID_CHARS)) != 0;
  bool usedDefault = false;
  Sink<char> sink{mb, static_cast<size_t>(cbMultiByte)};
  for (size_t i = 0; i < n && !sink.overflow;) {
    uint32_t cp = wide[i++];
    bool lone = false;
    if (cp >= 0xD800 && cp <= 0xDFFF) {
      if (cp <= 0xDBFF && i < n && wide[i] >= 0xDC00 && wide[i] <= 0xDFFF) {
        cp = 0x10000 + ((cp - 0xD800) << 10) + (wide[i++] - 0xDC00);
      } else {
        lone = true;
      }
    }
    if (!table) {
      if (lone) {
        if (strict) {
          SetLastError(ERROR_NO_UNICODE_TRANSLATION);
          return 0;
        }
        cp = 0xFFFD;
      }
      unsigned char bytes[4];
      unsigned len = EncodeUtf8(cp, bytes);
      for (unsigned k = 0; k < len; ++k) sink.put(static_cast<char>(bytes[k]));
      continue;
    }
    uint16_t code = (cp < 0x10000 && !lone) ? table->encode[cp] : 0;
    if (cp == 0) {
      sink.put(0);
    } else if (code == 0) {
      usedDefault = true;
      for (unsigned k = 0; k < defLen; ++k) sink.put(static_cast<char>(def[k]));
    } else if (code < 0x100) {
      sink.put(static_cast<char>(code));
    } else {
      sink.put(static_cast<char>(code >> 8));
      sink.put(static_cast<char>(code & 0xFF));
    }
  }
  if (sink.overflow) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  if (sink.n > 0x7FFFFFFF) {
    SetLastError(ERROR_ARITHMETIC_OVERFLOW);
    return 0;
  }
  if (usedDefaultChar) *usedDefaultChar = usedDefault ? TRUE : FALSE;
  return static_cast<int>(sink.n);
}

}  // namespace qzsys
