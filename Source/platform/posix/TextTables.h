// Code page records shared by the text routines and the converter component.
// Internal to the POSIX platform layer.
#ifndef QZBASE_PLATFORM_POSIX_TEXTTABLES_H
#define QZBASE_PLATFORM_POSIX_TEXTTABLES_H

#include "platform/QzWinTypes.h"

namespace qzsys {
namespace text {

enum PageKind : unsigned char {
  kUtf8,    // hand-written, no table
  kSingle,  // one byte per character, table from iconv
  kDouble,  // lead byte + trail byte, table from iconv
  kIconv,   // the converter component only
};

struct PageInfo {
  UINT codePage;
  const char* iconvName;
  PageKind kind;
};

// The record of a page, or null when the library does not know it.
const PageInfo* FindPage(UINT codePage);

// A single- or double-byte page's mapping, built at first use and then
// read-only (so read by any thread without a lock).
struct PageTable {
  UINT codePage;
  PageKind kind;
  bool lead[256];           // double-byte pages: the lead bytes
  WCHAR single[256];        // byte -> UTF-16; 0 for an invalid byte (byte 0 maps to 0 too)
  const WCHAR* pairs;       // double-byte: (lead << 8 | trail) -> UTF-16, 0 when undefined
  const uint16_t* encode;   // UTF-16 -> byte or (lead << 8 | trail); 0 when the page lacks it
  unsigned char lower[256]; // single-byte case maps of the page's bytes
  unsigned char upper[256];
};

// The table of a single- or double-byte page (null for UTF-8, for a page
// iconv cannot open, and for kIconv pages).
const PageTable* GetTable(UINT codePage);

// The table of the active page, or null when that page is UTF-8.
const PageTable* ActiveTable();

// Decodes one UTF-8 character at s (at most `avail` bytes). Returns its length
// (1 to 4) and the code point in *cp, or 0 when the bytes there start no valid
// character; *bad then holds the length of the maximal bad part (at least 1).
// Encodes a code point; returns the byte count (1 to 4). Inline: the
// converter's loops run them once a character.
inline unsigned DecodeUtf8(const unsigned char* s, size_t avail, uint32_t* cp, unsigned* bad) {
  unsigned b0 = s[0];
  if (b0 < 0x80) {
    *cp = b0;
    return 1;
  }
  unsigned need;
  unsigned lo = 0x80, hi = 0xBF;
  uint32_t value;
  if (b0 < 0xC2) {
    *bad = 1;
    return 0;
  } else if (b0 < 0xE0) {
    need = 1;
    value = b0 & 0x1F;
  } else if (b0 < 0xF0) {
    need = 2;
    value = b0 & 0x0F;
    if (b0 == 0xE0) lo = 0xA0;
    if (b0 == 0xED) hi = 0x9F;  // no surrogates
  } else if (b0 < 0xF5) {
    need = 3;
    value = b0 & 0x07;
    if (b0 == 0xF0) lo = 0x90;
    if (b0 == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
  } else {
    *bad = 1;
    return 0;
  }
  for (unsigned i = 1; i <= need; ++i) {
    if (i >= avail || s[i] < lo || s[i] > hi) {
      *bad = i;
      return 0;
    }
    value = value << 6 | (s[i] & 0x3F);
    lo = 0x80;
    hi = 0xBF;
  }
  *cp = value;
  return need + 1;
}

inline unsigned EncodeUtf8(uint32_t cp, unsigned char* out) {
  if (cp < 0x80) {
    out[0] = static_cast<unsigned char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<unsigned char>(0xC0 | cp >> 6);
    out[1] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = static_cast<unsigned char>(0xE0 | cp >> 12);
    out[1] = static_cast<unsigned char>(0x80 | (cp >> 6 & 0x3F));
    out[2] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = static_cast<unsigned char>(0xF0 | cp >> 18);
  out[1] = static_cast<unsigned char>(0x80 | (cp >> 12 & 0x3F));
  out[2] = static_cast<unsigned char>(0x80 | (cp >> 6 & 0x3F));
  out[3] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
  return 4;
}

}  // namespace text
}  // namespace qzsys

#endif  // QZBASE_PLATFORM_POSIX_TEXTTABLES_H
