// Fuzz target of the string editing members, in both widths.
//
// The input picks the active code page and then a run of operations with
// their arguments, texts included as raw bytes (so narrow texts may be
// invalid or cut in the middle of a character). After every step: the
// terminator stands at `length`, a private block has a capacity of the form
// 8k - 1 at or above its length, and strings that shared an older block still
// hold their text. The wide string is also checked against a model.
#include <qzbase/QzFrame.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "QzString.h"
#include "platform/QzPlatform.h"

namespace {

typedef unsigned short W;
typedef std::basic_string<W> WStr;

struct Input {
  const uint8_t* p;
  size_t n;
  uint8_t Byte() {
    if (n == 0) return 0;
    --n;
    return *p++;
  }
  unsigned Small(unsigned limit) { return Byte() % limit; }
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

template <typename T>
void Check(const QzStringT<T>& s) {
  const QzInternalStringData* h = qzstr::Header(s.c_str());
  if (s.c_str()[h->length] != 0) abort();
  if (static_cast<const void*>(s.c_str()) == static_cast<const void*>(qzstr::EmptyChars<T>())) {
    if (h->length != 0) abort();
    return;
  }
  if (h->refCount < 1 || h->capacity < h->length || (h->capacity + 1) % 8 != 0) abort();
}

template <typename T>
std::basic_string<T> Text(const QzStringT<T>& s) {
  return std::basic_string<T>(s.c_str(), s.length());
}

WStr Wide(const std::string& bytes) {
  WStr w;
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
  WStr model;  // of w
  std::vector<std::pair<QzStringA, std::string> > keptA;
  std::vector<std::pair<QzStringW, WStr> > keptW;

  for (unsigned step = 0; step < 64 && in.n != 0; ++step) {
    if (in.Small(5) == 0) {
      keptA.emplace_back(a, Text(a));
      keptW.emplace_back(w, Text(w));
    }
    if (a.length() > 4096) a = "";  // the doubling insert must not run away
    std::string bytes = in.Bytes();
    WStr wide = Wide(bytes);
    const W* wp = wide.c_str();
    unsigned wn = static_cast<unsigned>(wide.size());
    unsigned pos = in.Count(), count = in.Count();
    switch (in.Small(14)) {
      case 0:
        a = bytes.c_str();
        w = wp;
        model = wide.substr(0, wide.find(W(0)));
        break;
      case 1:
        a = QzStringA(wp, count == 0xFFFFFFFFu ? count : (count < wn ? count : wn));
        w = QzStringW(bytes.c_str(), static_cast<unsigned>(bytes.size()));
        model = Text(w);  // conversion: no model
        break;
      case 2:
        a += bytes.c_str();
        a += wp;
        w += wp;
        model += wide.substr(0, wide.find(W(0)));
        break;
      case 3: {
        unsigned n = count < bytes.size() ? count : static_cast<unsigned>(bytes.size());
        a.insert(pos, bytes.data(), n);
        a.insert(pos, wp, count < wn ? count : wn);
        unsigned m = count < wn ? count : wn;
        w.insert(pos, wp, m);
        if (m != 0) {
          if (pos >= model.size()) model += wide.substr(0, m);
          else model.insert(pos, wide.substr(0, m));
        }
        break;
      }
      case 4:
        a.erase(pos, count);
        w.erase(pos, count);
        if (pos < model.size() && count != 0) model.erase(pos, count);
        break;
      case 5: {
        char c = bytes.empty() ? 'a' : bytes[0];
        a.remove(c);
        a.removeIgnoreCase(c);
        W u = wide.empty() ? W('a') : wide[0];
        w.remove(u);
        WStr m;
        for (W x : model)
          if (x != u) m.push_back(x);
        model = m;
        break;
      }
      case 6: {
        char f = bytes.size() > 0 ? bytes[0] : 'a', t = bytes.size() > 1 ? bytes[1] : 'b';
        a.replace(f, t);
        a.replaceIgnoreCase(f, t);
        W wf = wide.size() > 0 ? wide[0] : W('a'), wt = wide.size() > 1 ? wide[1] : W('b');
        w.replace(wf, wt);
        if (wf != wt)
          for (W& x : model)
            if (x == wf) x = wt;
        break;
      }
      case 7:
      case 8: {
        size_t half = bytes.size() / 2;
        std::string from = bytes.substr(0, half), to = bytes.substr(half);
        a.replace(from.data(), static_cast<unsigned>(from.size()), to.data(), static_cast<unsigned>(to.size()));
        a.replaceIgnoreCase(from.data(), static_cast<unsigned>(from.size()), to.data(),
                            static_cast<unsigned>(to.size()));
        size_t wh = wide.size() / 2;
        WStr wf = wide.substr(0, wh), wt = wide.substr(wh);
        w.replace(wf.data(), static_cast<unsigned>(wf.size()),
                  wt.data(), static_cast<unsigned>(wt.size()));
        if (!wf.empty()) {
          WStr out;
          size_t i = 0;
          while (i < model.size()) {
            if (i + wf.size() <= model.size() && model.compare(i, wf.size(), wf) == 0) {
              out += wt;
              i += wf.size();
            } else {
              out.push_back(model[i++]);
            }
          }
          model = out;
        }
        break;
      }
      case 9: {
        QzStringA sa = a.substr(pos, count);
        QzStringW sw = w.substr(pos, count);
        Check(sa);
        Check(sw);
        break;
      }
      case 10:
        a.selfTrimWhiteSpaceLeft().selfTrimWhiteSpaceRight();
        w.selfTrimWhiteSpaceRight();
        model = Text(w);  // white space per the tables: no model
        break;
      case 11:
        a = a + bytes.c_str();
        a = wp + a;
        w = w + wp;
        model += wide.substr(0, wide.find(W(0)));
        break;
      case 12:
        a.insert(pos, a.c_str(), count < a.length() ? count : a.length());
        model = Text(w);
        break;
      default: {
        QzStringA copy(a);
        a = copy;
        break;
      }
    }
    Check(a);
    Check(w);
    if (Text(w) != model) abort();
    for (auto& k : keptA)
      if (Text(k.first) != k.second) abort();
    for (auto& k : keptW)
      if (Text(k.first) != k.second) abort();
  }
  return 0;
}
