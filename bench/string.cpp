// The strings against std::string: copying and assigning a 1 KiB text
// (ours: one atomic and no allocation), appending loops, and replacing a
// piece of text everywhere. A table at the end gives each qzbase time divided
// by std::string's (below 1: faster; the copy goal, 5 times faster, is at
// most 0.20).
#include "QzBenchReport.h"
#include <benchmark/benchmark.h>

#include <stdio.h>

#include <map>
#include <string>
#include <vector>

#include <qzbase/qzbase.h>

namespace {

const std::string& KiB() {
  static const std::string text = [] {
    std::string t;
    while (t.size() < 1024) t += "the quick brown fox jumps over the lazy dog; ";
    t.resize(1024);
    return t;
  }();
  return text;
}

// ---- Copy and assignment ---------------------------------------------------------------
void QzCopy(benchmark::State& state) {
  QzStringA source(KiB().c_str());
  for (auto _ : state) {
    QzStringA copy(source);
    benchmark::DoNotOptimize(copy.c_str());
  }
}
void StdCopy(benchmark::State& state) {
  std::string source(KiB());
  for (auto _ : state) {
    std::string copy(source);
    benchmark::DoNotOptimize(copy.data());
  }
}
void QzAssign(benchmark::State& state) {
  QzStringA a(KiB().c_str()), b((KiB() + "x").c_str()), target;
  for (auto _ : state) {
    target = a;
    target = b;
    benchmark::DoNotOptimize(target.c_str());
  }
}
void StdAssign(benchmark::State& state) {
  // Alternating sources of different lengths, as above; std::string reuses its
  // buffer, so this is its best case.
  std::string a(KiB()), b(KiB() + "x"), target;
  for (auto _ : state) {
    target = a;
    target = b;
    benchmark::DoNotOptimize(target.data());
  }
}

// ---- Appending -------------------------------------------------------------------------------
const unsigned kAppends = 1000;
void QzAppendChar(benchmark::State& state) {
  for (auto _ : state) {
    QzStringA s;
    for (unsigned i = 0; i < kAppends; ++i) s += static_cast<char>('a' + i % 26);
    benchmark::DoNotOptimize(s.c_str());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kAppends);
}
void StdAppendChar(benchmark::State& state) {
  for (auto _ : state) {
    std::string s;
    for (unsigned i = 0; i < kAppends; ++i) s += static_cast<char>('a' + i % 26);
    benchmark::DoNotOptimize(s.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kAppends);
}
void QzAppendWord(benchmark::State& state) {
  for (auto _ : state) {
    QzStringA s;
    for (unsigned i = 0; i < kAppends; ++i) s += "word ";
    benchmark::DoNotOptimize(s.c_str());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kAppends);
}
void StdAppendWord(benchmark::State& state) {
  for (auto _ : state) {
    std::string s;
    for (unsigned i = 0; i < kAppends; ++i) s += "word ";
    benchmark::DoNotOptimize(s.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kAppends);
}
void QzAppendWide(benchmark::State& state) {
  const unsigned short word[] = {'w', 'o', 'r', 'd', ' ', 0};
  for (auto _ : state) {
    QzStringW s;
    for (unsigned i = 0; i < kAppends; ++i) s += word;
    benchmark::DoNotOptimize(s.c_str());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kAppends);
}
void StdAppendWide(benchmark::State& state) {
  const char16_t word[] = u"word ";
  for (auto _ : state) {
    std::u16string s;
    for (unsigned i = 0; i < kAppends; ++i) s += word;
    benchmark::DoNotOptimize(s.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kAppends);
}

// ---- Replacing -------------------------------------------------------------------------------
// Every "the" of the 1 KiB text by "a" (shorter), and by "THE" (same length).
std::string StdReplaceAll(const std::string& text, const std::string& from, const std::string& to) {
  std::string out;
  out.reserve(text.size());
  size_t done = 0;
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, done)) {
    out.append(text, done, at - done);
    out += to;
    done = at + from.size();
  }
  out.append(text, done, std::string::npos);
  return out;
}
void QzReplaceShorter(benchmark::State& state) {
  QzStringA source(KiB().c_str());
  for (auto _ : state) {
    QzStringA s(source);
    benchmark::DoNotOptimize(s.replace("the", 3, "a", 1));
  }
}
void StdReplaceShorter(benchmark::State& state) {
  std::string source(KiB());
  for (auto _ : state) {
    std::string s = StdReplaceAll(source, "the", "a");
    benchmark::DoNotOptimize(s.data());
  }
}
void QzReplaceSameLength(benchmark::State& state) {
  QzStringA source(KiB().c_str());
  for (auto _ : state) {
    QzStringA s(source);  // shared: the first hit makes the private copy
    benchmark::DoNotOptimize(s.replace("the", 3, "THE", 3));
  }
}
void StdReplaceSameLength(benchmark::State& state) {
  std::string source(KiB());
  for (auto _ : state) {
    std::string s(source);
    for (size_t at = s.find("the"); at != std::string::npos; at = s.find("the", at + 3)) s.replace(at, 3, "THE");
    benchmark::DoNotOptimize(s.data());
  }
}

BENCHMARK(QzCopy);
BENCHMARK(StdCopy);
BENCHMARK(QzAssign);
BENCHMARK(StdAssign);
BENCHMARK(QzAppendChar);
BENCHMARK(StdAppendChar);
BENCHMARK(QzAppendWord);
BENCHMARK(StdAppendWord);
BENCHMARK(QzAppendWide);
BENCHMARK(StdAppendWide);
BENCHMARK(QzReplaceShorter);
BENCHMARK(StdReplaceShorter);
BENCHMARK(QzReplaceSameLength);
BENCHMARK(StdReplaceSameLength);

}  // namespace

int main(int argc, char** argv) {
  return qzbench::Run(argc, argv, qzbench::Clock::kCpu, [](qzbench::Report& r) {
    const qzbench::Goal goal("at least 5 times faster (one atomic and no allocation)",
                             {qzbench::RatioAtMost(0.20)});
    qzbench::Table& t =
        r.AddTable("QzStringA against std::string", qzbench::Ratio::kTime, {"std::string"}, "per iteration");
    t.Row("copy of 1 KiB", "QzCopy", {"StdCopy"}, goal);
    t.Row("two assignments of 1 KiB", "QzAssign", {"StdAssign"}, goal);
    t.Row("1000 x += char", "QzAppendChar", {"StdAppendChar"});
    t.Row("1000 x += \"word \"", "QzAppendWord", {"StdAppendWord"});
    t.Row("1000 x += u\"word \" (QzStringW, std::u16string)", "QzAppendWide", {"StdAppendWide"});
    t.Row("replace the -> a in 1 KiB", "QzReplaceShorter", {"StdReplaceShorter"});
    t.Row("replace the -> THE in 1 KiB", "QzReplaceSameLength", {"StdReplaceSameLength"});
  });
}
