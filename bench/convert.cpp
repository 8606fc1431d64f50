// The cached conversions against calling iconv directly, on 1 KiB texts, and
// the ways a shared converter object could guard its iconv descriptor.
#include "QzBenchReport.h"
#include <benchmark/benchmark.h>

#include <qzbase/QzConvert.h>

#include "platform/QzPlatformText.h"
#include "text/QzConvert.h"

#include <iconv.h>
#include <stdio.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

// About 1 KiB of UTF-8 each: plain ASCII, and a mix of Latin, Cyrillic,
// Greek, CJK and characters outside the BMP.
const std::string& Utf8Text(bool mixed) {
  static const std::string ascii = [] {
    std::string s;
    while (s.size() < 1024) s += "The quick brown fox jumps over the lazy dog. ";
    s.resize(1024);
    return s;
  }();
  static const std::string mix = [] {
    std::string s;
    const char* part =
        "Caf\xC3\xA9 \xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82 \xCE\xB1\xCE\xB2 "
        "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E \xF0\x9F\x98\x80 text ";
    while (s.size() < 1000) s += part;
    return s;
  }();
  return mixed ? mix : ascii;
}

const std::vector<unsigned short>& Utf16Text(bool mixed) {
  static std::vector<unsigned short> texts[2];
  std::vector<unsigned short>& t = texts[mixed];
  if (t.empty()) {
    std::string s = Utf8Text(mixed);
    unsigned int src = static_cast<unsigned>(s.size()), need = 0;
    QZ_UTF8_TO_UTF16(&s[0], &src, nullptr, &need);
    t.resize(need);
    src = static_cast<unsigned>(s.size());
    QZ_UTF8_TO_UTF16(&s[0], &src, t.data(), &need);
  }
  return t;
}

iconv_t Descriptor(bool to16) {
  static iconv_t d8to16 = iconv_open("UTF-16LE", "UTF-8");
  static iconv_t d16to8 = iconv_open("UTF-8", "UTF-16LE");
  return to16 ? d8to16 : d16to8;
}

void RawIconv(iconv_t cd, const void* src, size_t srcBytes, void* dst, size_t dstBytes) {
  char* in = static_cast<char*>(const_cast<void*>(src));
  char* out = static_cast<char*>(dst);
  size_t inLeft = srcBytes, outLeft = dstBytes;
  iconv(cd, &in, &inLeft, &out, &outLeft);
}

// ---- The conversions and their peer ----------------------------------------------
void QzUtf8ToUtf16(benchmark::State& state) {
  std::string text = Utf8Text(state.range(0) != 0);
  std::vector<unsigned short> out(text.size() + 8);
  for (auto _ : state) {
    unsigned int src = static_cast<unsigned>(text.size()), dst = static_cast<unsigned>(out.size());
    benchmark::DoNotOptimize(QZ_UTF8_TO_UTF16(&text[0], &src, out.data(), &dst));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void IconvUtf8ToUtf16(benchmark::State& state) {
  std::string text = Utf8Text(state.range(0) != 0);
  std::vector<unsigned short> out(text.size() + 8);
  iconv_t cd = Descriptor(true);
  for (auto _ : state) {
    RawIconv(cd, text.data(), text.size(), out.data(), out.size() * 2);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void QzUtf16ToUtf8(benchmark::State& state) {
  std::vector<unsigned short> text = Utf16Text(state.range(0) != 0);
  std::vector<char> out(text.size() * 3 + 8);
  for (auto _ : state) {
    unsigned int src = static_cast<unsigned>(text.size()), dst = static_cast<unsigned>(out.size());
    benchmark::DoNotOptimize(QZ_UTF16_TO_UTF8(text.data(), &src, out.data(), &dst));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size() * 2));
}

void IconvUtf16ToUtf8(benchmark::State& state) {
  std::vector<unsigned short> text = Utf16Text(state.range(0) != 0);
  std::vector<char> out(text.size() * 3 + 8);
  iconv_t cd = Descriptor(false);
  for (auto _ : state) {
    RawIconv(cd, text.data(), text.size() * 2, out.data(), out.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size() * 2));
}

// The strings' way: measure, then convert.
void QzUtf8ToUtf16TwoPass(benchmark::State& state) {
  std::string text = Utf8Text(state.range(0) != 0);
  std::vector<unsigned short> out(text.size() + 8);
  for (auto _ : state) {
    unsigned int src = static_cast<unsigned>(text.size()), need = 0;
    QZ_UTF8_TO_UTF16(&text[0], &src, nullptr, &need);
    src = static_cast<unsigned>(text.size());
    benchmark::DoNotOptimize(QZ_UTF8_TO_UTF16(&text[0], &src, out.data(), &need));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// ---- Characters the ANSI page lacks -------------------------------------------------
// 400,000 UTF-16 units toward 1252 or 932: plain ASCII, or with every third
// unit a character the page lacks (CJK for 1252, Hangul for 932), each of
// which becomes the default character. Arguments: page, mixed.
std::vector<unsigned short> PageText(bool lacking) {
  std::vector<unsigned short> t(400000);
  for (size_t i = 0; i < t.size(); ++i)
    t[i] = lacking && i % 3 == 2 ? static_cast<unsigned short>(0xAC00 + i % 64) : static_cast<unsigned short>('a' + i % 26);
  return t;
}

void QzUtf16ToPage(benchmark::State& state) {
  qzsys::QzSetActiveCodePage(static_cast<unsigned>(state.range(0)));
  QzReleaseConverters();  // the ANSI side is fixed when a converter is made
  std::vector<unsigned short> text = PageText(state.range(1) != 0);
  std::vector<char> out(text.size() * 2);
  for (auto _ : state) {
    unsigned int src = static_cast<unsigned>(text.size()), dst = static_cast<unsigned>(out.size());
    benchmark::DoNotOptimize(QZ_UTF16_TO_MBCHAR(text.data(), &src, out.data(), &dst));
    benchmark::ClobberMemory();
  }
  qzsys::QzSetActiveCodePage(65001);
  QzReleaseConverters();
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// ---- How a shared object could guard its descriptor --------------------------------
// A lock around one descriptor.
void GuardMutex(benchmark::State& state) {
  static std::mutex lock;
  static iconv_t cd = iconv_open("UTF-16LE", "UTF-8");
  std::string text = Utf8Text(state.range(0) != 0);
  std::vector<unsigned short> out(text.size() + 8);
  for (auto _ : state) {
    std::lock_guard<std::mutex> hold(lock);
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    RawIconv(cd, text.data(), text.size(), out.data(), out.size() * 2);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// A descriptor opened and closed by every call.
void GuardOpenPerCall(benchmark::State& state) {
  std::string text = Utf8Text(state.range(0) != 0);
  std::vector<unsigned short> out(text.size() + 8);
  for (auto _ : state) {
    iconv_t cd = iconv_open("UTF-16LE", "UTF-8");
    RawIconv(cd, text.data(), text.size(), out.data(), out.size() * 2);
    iconv_close(cd);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

BENCHMARK(QzUtf8ToUtf16)->Arg(0)->Arg(1)->Repetitions(3);
BENCHMARK(IconvUtf8ToUtf16)->Arg(0)->Arg(1)->Repetitions(3);
BENCHMARK(QzUtf16ToUtf8)->Arg(0)->Arg(1)->Repetitions(3);
BENCHMARK(IconvUtf16ToUtf8)->Arg(0)->Arg(1)->Repetitions(3);
BENCHMARK(QzUtf8ToUtf16TwoPass)->Arg(0)->Arg(1)->Repetitions(3);
BENCHMARK(GuardMutex)->Arg(1)->Repetitions(3);
BENCHMARK(GuardMutex)->Arg(1)->Threads(2)->Repetitions(3);
BENCHMARK(QzUtf8ToUtf16)->Arg(1)->Threads(2)->Repetitions(3);
BENCHMARK(GuardOpenPerCall)->Arg(1)->Repetitions(3);
BENCHMARK(QzUtf16ToPage)->Args({1252, 0})->Args({1252, 1})->Args({932, 0})->Args({932, 1})->Repetitions(3);

}  // namespace

int main(int argc, char** argv) {
  return qzbench::Run(argc, argv, qzbench::Clock::kCpu, [](qzbench::Report& r) {
    using qzbench::Goal;
    const Goal goal("no more than 10% over the raw iconv call for 1 KiB texts", {qzbench::RatioAtMost(1.10)});
    qzbench::Table& t = r.AddTable("The cached conversions against calling iconv directly, 1 KiB texts",
                                   qzbench::Ratio::kTime, {"iconv"}, "per text");
    t.Row("QZ_UTF8_TO_UTF16, ASCII", "QzUtf8ToUtf16/0", {"IconvUtf8ToUtf16/0"}, goal);
    t.Row("QZ_UTF8_TO_UTF16, mixed", "QzUtf8ToUtf16/1", {"IconvUtf8ToUtf16/1"}, goal);
    t.Row("QZ_UTF16_TO_UTF8, ASCII", "QzUtf16ToUtf8/0", {"IconvUtf16ToUtf8/0"}, goal);
    t.Row("QZ_UTF16_TO_UTF8, mixed", "QzUtf16ToUtf8/1", {"IconvUtf16ToUtf8/1"}, goal);
    t.Row("measure + convert, ASCII", "QzUtf8ToUtf16TwoPass/0", {"IconvUtf8ToUtf16/0"});
    t.Row("measure + convert, mixed", "QzUtf8ToUtf16TwoPass/1", {"IconvUtf8ToUtf16/1"});

    qzbench::Table& g = r.AddTable("Ways to guard a shared descriptor, UTF-8 to UTF-16 of mixed text (for the record)",
                                   qzbench::Ratio::kTime, {"iconv"}, "per text");
    g.Row("spare descriptors (the library's)", "QzUtf8ToUtf16/1", {"IconvUtf8ToUtf16/1"});
    g.Row("one lock", "GuardMutex/1", {"IconvUtf8ToUtf16/1"});
    g.Row("open and close per call", "GuardOpenPerCall/1", {"IconvUtf8ToUtf16/1"});
    g.Row("spare descriptors, 2 threads", "QzUtf8ToUtf16/1/threads:2", {"IconvUtf8ToUtf16/1"});
    g.Row("one lock, 2 threads", "GuardMutex/1/threads:2", {"IconvUtf8ToUtf16/1"});

    const Goal pageGoal("within 2 times the time of an all-ASCII text of the same length",
                        {qzbench::RatioAtMost(2.0)});
    qzbench::Table& p =
        r.AddTable("UTF-16 to the ANSI page, 400,000 units, a third of them missing from the page",
                   qzbench::Ratio::kTime, {"all ASCII"}, "per text");
    p.Row("code page 1252", "QzUtf16ToPage/1252/1", {"QzUtf16ToPage/1252/0"}, pageGoal);
    p.Row("code page 932", "QzUtf16ToPage/932/1", {"QzUtf16ToPage/932/0"}, pageGoal);
  });
}
