// Fuzz target of the formatted output engine.
//
// The input chooses the width, the active code page, and a format built of
// literal runs and conversions; every conversion that reads a value gets one
// of exactly the type it reads. Then the contract is checked: the measured
// length equals the length written into a big enough buffer, a cut output
// holds `count - 1` units and a terminator (the first units of the whole,
// unless a padded text of the other width was cut), and nothing is
// stored past the buffer (guard units stay as they were).
#include <qzbase/QzFormat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "platform/QzPlatformText.h"

namespace {

typedef std::basic_string<unsigned short> WString;

struct Input {
  const uint8_t* p;
  size_t n;
  uint8_t Byte() {
    if (n == 0) return 0;
    --n;
    return *p++;
  }
  uint32_t U32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = v << 8 | Byte();
    return v;
  }
  uint64_t U64() { return static_cast<uint64_t>(U32()) << 32 | U32(); }
};

enum ArgType { kInt, kQuad, kDouble, kPointer };
struct Arg {
  ArgType type;
  int i;
  long long q;
  double d;
  const void* p;
};

// At most this many values per format: each one doubles the number of call
// shapes compiled below by four.
const size_t kMaxArgs = 4;

inline int Snprintf(char* b, unsigned n, const char* f) { return QZ_SNPRINTF_A(b, n, f); }
template <class... A>
int Snprintf(char* b, unsigned n, const char* f, A... a) {
  return QZ_SNPRINTF_A(b, n, f, a...);
}
template <class... A>
int Snprintf(unsigned short* b, unsigned n, const unsigned short* f, A... a) {
  return QZ_SNPRINTF_W(b, n, f, a...);
}

// Turns the list of values into a real variadic call, one value at a time.
template <class U, class... A>
int Call(U* b, unsigned n, const U* f, const Arg* args, size_t left, A... a) {
  if constexpr (sizeof...(A) >= kMaxArgs) {
    return Snprintf(b, n, f, a...);
  } else {
    if (left == 0) return Snprintf(b, n, f, a...);
    switch (args->type) {
      case kInt: return Call<U>(b, n, f, args + 1, left - 1, a..., args->i);
      case kQuad: return Call<U>(b, n, f, args + 1, left - 1, a..., args->q);
      case kDouble: return Call<U>(b, n, f, args + 1, left - 1, a..., args->d);
      default: return Call<U>(b, n, f, args + 1, left - 1, a..., args->p);
    }
  }
}

template <class U>
struct Built {
  std::basic_string<U> format;
  std::vector<Arg> args;
  std::deque<std::string> narrow;
  std::deque<WString> wide;
  int64_t counts[kMaxArgs];
  // Text of the other width with a width: cut by the buffer it is padded up
  // to its cut length, so the cut output is no prefix of the whole one.
  bool paddedOther = false;
};

// Units that mean nothing after '%' and cannot be read as a flag, a digit,
// '*', '.', a size or a listed conversion.
const char kUnlisted[] = "yzjkmrtvwABDFHJKLMNOPQRTUVWYZ!&()[]<>?~";

template <class U>
void AddText(Built<U>& b, const char* s) {
  while (*s) b.format.push_back(static_cast<U>(static_cast<unsigned char>(*s++)));
}

template <class U>
void AddLiteral(Built<U>& b, Input& in) {
  size_t len = in.Byte() % 8;
  for (size_t i = 0; i < len; ++i) {
    U u = sizeof(U) == 1 ? static_cast<U>(in.Byte()) : static_cast<U>(in.Byte() << 8 | in.Byte());
    if (u == 0 || u == '%') u = 'L';
    b.format.push_back(u);
  }
}

template <class U>
void AddString(Built<U>& b, Input& in, bool wideText) {
  size_t len = in.Byte() % 40;
  if (len == 39) {
    b.args.push_back(Arg{kPointer, 0, 0, 0, nullptr});
    return;
  }
  if (wideText) {
    WString s;
    for (size_t i = 0; i < len; ++i) {
      unsigned short u = static_cast<unsigned short>(in.Byte() << 8 | in.Byte());
      s.push_back(u == 0 ? 'w' : u);
    }
    b.wide.push_back(s);
    b.args.push_back(Arg{kPointer, 0, 0, 0, b.wide.back().c_str()});
  } else {
    std::string s;
    for (size_t i = 0; i < len; ++i) {
      char c = static_cast<char>(in.Byte());
      s.push_back(c == 0 ? 'n' : c);
    }
    b.narrow.push_back(s);
    b.args.push_back(Arg{kPointer, 0, 0, 0, b.narrow.back().c_str()});
  }
}

template <class U>
void AddNumber(std::basic_string<U>& f, uint32_t v) {
  std::string s = std::to_string(v);
  for (char c : s) f.push_back(static_cast<U>(c));
}

template <class U>
void AddConversion(Built<U>& b, Input& in) {
  static const char kConversions[] = "diouxXpcCsSeEfgGn%";
  const uint8_t pick = in.Byte();
  const uint8_t flags = in.Byte();
  const uint8_t shape = in.Byte();
  const int widthMode = shape & 3, precisionMode = shape >> 2 & 3, sizeMode = (shape >> 4) % 5;
  char conv = kConversions[pick % (sizeof kConversions - 1)];
  const bool unlisted = pick >= 0xE0;
  if (unlisted) conv = kUnlisted[pick % (sizeof kUnlisted - 1)];

  size_t need = (widthMode == 2) + (precisionMode == 3) + (conv != '%' && !unlisted);
  if (b.args.size() + need > kMaxArgs) {
    AddText(b, "%%");
    return;
  }

  b.format.push_back('%');
  static const char kFlags[] = "-+#0 ";
  for (int i = 0; i < 5; ++i)
    if (flags >> i & 1) b.format.push_back(static_cast<U>(kFlags[(i + (flags >> 5)) % 5]));
  if (widthMode == 1) {
    AddNumber(b.format, in.Byte() & 0x80 ? in.U32() : in.Byte() % 40);
  } else if (widthMode == 2) {
    b.format.push_back('*');
    int w = static_cast<int>(in.Byte() & 0x80 ? in.U32() : in.Byte() % 40);
    b.args.push_back(Arg{kInt, w, 0, 0, nullptr});
  }
  if (precisionMode == 1) {
    b.format.push_back('.');
  } else if (precisionMode == 2) {
    b.format.push_back('.');
    AddNumber(b.format, in.Byte() & 0x80 ? in.U32() : in.Byte() % 100);
  } else if (precisionMode == 3) {
    AddText(b, ".*");
    int p = static_cast<int>(in.Byte() & 0x80 ? in.U32() : in.Byte() % 100);
    b.args.push_back(Arg{kInt, p, 0, 0, nullptr});
  }
  static const char* const kSizes[] = {"", "h", "l", "I64", "q"};
  AddText(b, kSizes[sizeMode]);
  b.format.push_back(static_cast<U>(conv));

  const bool quad = sizeMode >= 3;
  const bool narrowEngine = sizeof(U) == 1;
  switch (conv) {
    case 'd': case 'i': case 'u': case 'o': case 'x': case 'X':
      if (quad) b.args.push_back(Arg{kQuad, 0, static_cast<long long>(in.U64()), 0, nullptr});
      else b.args.push_back(Arg{kInt, static_cast<int>(in.U32()), 0, 0, nullptr});
      break;
    case 'c': case 'C':
      b.args.push_back(Arg{kInt, static_cast<int>(in.U32()), 0, 0, nullptr});
      break;
    case 'p':
      b.args.push_back(Arg{kPointer, 0, 0, 0, reinterpret_cast<const void*>(static_cast<uintptr_t>(in.U64()))});
      break;
    case 's': case 'S': {
      // Which width of text the engine reads: the size class, where a bare
      // 'S' counts as the other width.
      const bool otherSize = narrowEngine ? (sizeMode == 2 || (sizeMode == 0 && conv == 'S'))
                                          : (sizeMode == 1 || (sizeMode == 0 && conv == 'S'));
      if (otherSize && widthMode != 0) b.paddedOther = true;
      AddString(b, in, narrowEngine == otherSize);
      break;
    }
    case 'e': case 'E': case 'f': case 'g': case 'G': {
      uint64_t bits = in.U64();
      double d;
      if (in.Byte() & 1) {
        std::memcpy(&d, &bits, sizeof d);
      } else {
        d = static_cast<double>(static_cast<int64_t>(bits)) / static_cast<double>(1u << (bits & 31));
      }
      b.args.push_back(Arg{kDouble, 0, 0, d, nullptr});
      break;
    }
    case 'n':
      b.args.push_back(Arg{kPointer, 0, 0, 0, &b.counts[b.args.size()]});
      break;
    default:
      break;
  }
}

template <class U>
void Check(Input& in) {
  Built<U> b;
  const int pieces = in.Byte() % 12;
  for (int i = 0; i < pieces && in.n > 0; ++i) {
    if (in.Byte() & 1) AddLiteral(b, in);
    else AddConversion(b, in);
  }
  if (in.Byte() % 8 == 0) {
    // A format that ends inside a conversion.
    b.format.push_back('%');
    if (in.Byte() & 1) AddText(b, "-0");
    if (in.Byte() & 1) AddText(b, "12");
    if (in.Byte() & 1) AddText(b, ".3");
    if (in.Byte() & 1) AddText(b, "I64");
  }
  const U* f = b.format.c_str();
  const unsigned cutSeed = in.U32();
  const U kFill = static_cast<U>(0xA5A5);
  const size_t kGuard = 8;

  const int measured = Call<U>(nullptr, 0, f, b.args.data(), b.args.size());
  if (measured < 0) abort();

  std::vector<U> whole;
  if (measured < (1 << 20)) {
    whole.assign(static_cast<size_t>(measured) + 1 + kGuard, kFill);
    int r = Call<U>(whole.data(), static_cast<unsigned>(measured) + 1, f, b.args.data(), b.args.size());
    if (r != measured) abort();
    if (whole[static_cast<size_t>(measured)] != 0) abort();
    for (size_t i = static_cast<size_t>(measured) + 1; i < whole.size(); ++i)
      if (whole[i] != kFill) abort();
  }

  // A cut somewhere in the output, or a buffer of one unit.
  const unsigned limit = measured < (1 << 20) ? static_cast<unsigned>(measured) : (1u << 20);
  const unsigned count = 1 + cutSeed % (limit + 1);
  std::vector<U> cut(count + kGuard, kFill);
  int r = Call<U>(cut.data(), count, f, b.args.data(), b.args.size());
  const unsigned expect = static_cast<unsigned>(measured) < count - 1 ? static_cast<unsigned>(measured) : count - 1;
  if (r != static_cast<int>(expect)) abort();
  if (cut[expect] != 0) abort();
  for (size_t i = expect + 1; i < cut.size(); ++i)
    if (cut[i] != kFill) abort();
  if (!whole.empty() && !b.paddedOther && std::memcmp(cut.data(), whole.data(), expect * sizeof(U)) != 0) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in{data, size};
  static const qzsys::UINT kPages[] = {qzsys::CP_UTF8, 1252, 932, qzsys::CP_UTF8};
  const uint8_t head = in.Byte();
  qzsys::QzSetActiveCodePage(kPages[head >> 1 & 3]);
  if (head & 1) Check<unsigned short>(in);
  else Check<char>(in);
  return 0;
}
