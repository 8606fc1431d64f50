// Fuzz target of the string editing members, in both widths.
//
// The input picks the active code page and then a run of operations with
// their arguments, texts included as raw bytes (so narrow texts may be
// invalid or cut in the middle of a character). After every step: the
// terminator stands at `length`, a private block has a capacity of the form
// 8k - 1 at or above its length, and strings that shared an older block still
#include <qzbase/QzFrame.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "strings/QzString.h"
#include "platform/QzPlatform.h"

namespace {

typedef unsigned short W;

struct Input {
  const uint8_t* p;
  size_t n;
  uint8_t Byte() {
    if (n == 0) return 0;
    --n;
    return *p++;
  }
  unsigned Small(unsigned limit) { return Byte() % limit; }
  // Mostly small counts, sometimes "all" or a negative one.
  unsigned Count() {
    uint8_t b = Byte();
    if (b >= 0xF8) return 0xFFFFFFFFu;
    if (b >= 0xF0) return 0x80000000u + b;
    return b % 24;
  }
  std::string Bytes() {
    unsigned len = Small(12);
    std::string s;
    while (len-- && n) s.push_back(static_cast<char>(Byte()));
    return s;
  }
};

void Check(bool ok) { if (!ok) abort(); }

template <typename T>
void Check(const QzStringT<T>& s) {
  const QzInternalStringData* h = qzstr::Header(s.c_str());
  Check(s.c_str()[h->length] == 0);
  if (s.c_str() == qzstr::EmptyChars<T>()) return Check(h->length == 0);
  Check(h->refCount >= 1 && h->capacity >= h->length && (h->capacity + 1) % 8 == 0);
}

template <typename T>
std::basic_string<T> Text(const QzStringT<T>& s) { return std::basic_string<T>(s.c_str(), s.length()); }

std::basic_string<W> Wide(const std::string& bytes) {
  std::basic_string<W> w;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2)
    w.push_back(static_cast<W>(static_cast<uint8_t>(bytes[i]) | static_cast<uint8_t>(bytes[i + 1]) << 8));
  return w;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static unsigned current = 65001;
  static const unsigned kPages[] = {65001, 932, 1252, 936};
  Input in{data, size};
  unsigned page = kPages[in.Small(4)];
  if (page != current) {
    Qz_TerminateLibrary();  // converters keep the page they were made with
    qzsys::QzSetActiveCodePage(page);
    current = page;
  }

  QzStringA a;
  QzStringW w;
  std::vector<std::pair<QzStringA, std::string> > keptA;
  std::vector<std::pair<QzStringW, std::basic_string<W> > > keptW;

  for (unsigned step = 0; step < 64 && in.n != 0; ++step) {
    if (in.Small(5) == 0) {
      keptA.emplace_back(a, Text(a));
      keptW.emplace_back(w, Text(w));
    }
    if (a.length() > 4096) a = "";  // the doubling insert must not run away
    const std::string bytes = in.Bytes();
    const std::basic_string<W> wide = Wide(bytes);
    const W* wp = wide.c_str();
    const unsigned bn = static_cast<unsigned>(bytes.size()), wn = static_cast<unsigned>(wide.size());
    const unsigned pos = in.Count(), count = in.Count();
    const unsigned bc = count < bn ? count : bn, wc = count < wn ? count : wn;
    const char c = bn ? bytes[0] : 'a', d = bn > 1 ? bytes[1] : 'b';
    const W u = wn ? wide[0] : W('a'), v = wn > 1 ? wide[1] : W('b');
    switch (in.Small(12)) {
      case 0:
        a = bytes.c_str();
        w = wp;
        break;
      case 1:
        a = QzStringA(wp, count == 0xFFFFFFFFu ? count : wc);
        w = QzStringW(bytes.c_str(), bn);
        break;
      case 2:
        a += bytes.c_str();
        a += wp;
        w += wp;
        break;
      case 3:
        a.insert(pos, bytes.data(), bc);
        a.insert(pos, wp, wc);
        w.insert(pos, wp, wc);
        break;
      case 4:
        a.erase(pos, count);
        w.erase(pos, count);
        break;
      case 5:
        a.remove(c);
        a.removeIgnoreCase(c);
        w.remove(u);
        a.replace(c, d);
        a.replaceIgnoreCase(c, d);
        w.replace(u, v);
        break;
      case 6:
        a.replace(bytes.data(), bn / 2, bytes.data() + bn / 2, bn - bn / 2);
        a.replaceIgnoreCase(bytes.data(), bn / 2, bytes.data() + bn / 2, bn - bn / 2);
        w.replace(wp, wn / 2, wp + wn / 2, wn - wn / 2);
        break;
      case 7:
        Check(a.substr(pos, count));
        Check(w.substr(pos, count));
        break;
      case 8:
        a.selfTrimWhiteSpaceLeft().selfTrimWhiteSpaceRight();
        w.selfTrimWhiteSpaceRight();
        break;
      case 9:
        a = a + bytes.c_str();
        a = wp + a;
        w = w + wp;
        break;
      case 10:
        a.insert(pos, a.c_str(), count < a.length() ? count : a.length());
        break;
      default: {
        QzStringA copy(a);
        a = copy;
      }
    }
    Check(a);
    Check(w);
    for (auto& k : keptA) Check(Text(k.first) == k.second);
    for (auto& k : keptW) Check(Text(k.first) == k.second);
  }
  return 0;
}
