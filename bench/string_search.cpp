// Formatting a log line and a case-blind search, against what a host would
// write with the standard library. Prints, after the table, how many times
// faster (above 1) or slower (below 1) each of ours is than its peer.
#include "QzBenchReport.h"
#include <benchmark/benchmark.h>

#include <cctype>
#include <cstdio>
#include <map>
#include <string>

#include "strings/QzString.h"

namespace {

const char kLine[] = "[%02d/%02d/%04d %02d:%02d:%02d.%03d pid=%d tid=%d] %s: %s\n";
const char kLevel[] = "Warning";
const char kMessage[] = "decoder queue at 87% of its 4096 frames; dropping late B-frames";

void BM_Format_Qz(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    QzStringA s = QzStringA::CreateFormatted(kLine, 23, 11, 2026, 23, 5, 41, i & 1023, 4242,
                                             4243, kLevel, kMessage);
    benchmark::DoNotOptimize(s.c_str());
    ++i;
  }
}
BENCHMARK(BM_Format_Qz);

void BM_Format_StdSnprintf(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    const int n = std::snprintf(nullptr, 0, kLine, 23, 11, 2026, 23, 5, 41, i & 1023, 4242, 4243,
                                kLevel, kMessage);
    std::string s(static_cast<size_t>(n), '\0');
    std::snprintf(&s[0], s.size() + 1, kLine, 23, 11, 2026, 23, 5, 41, i & 1023, 4242, 4243,
                  kLevel, kMessage);
    benchmark::DoNotOptimize(s.data());
    ++i;
  }
}
BENCHMARK(BM_Format_StdSnprintf);

// A 4 KiB haystack of mixed-case prose with the needle near its end.
std::string Haystack() {
  std::string h;
  const char* words[] = {"Frame ", "decoder ", "AUDIO ", "Stream ", "buffer ", "Clock ", "sync "};
  for (unsigned int i = 0; h.size() < 4000; ++i) h += words[(i * 5 + 3) % 7];
  h += "Presentation TimeStamp drift";
  return h;
}
const char kNeedle[] = "presentation timestamp";

void BM_FindIgnoreCase_Qz(benchmark::State& state) {
  const std::string h = Haystack();
  QzStringA s(h.c_str(), static_cast<unsigned int>(h.size()));
  const unsigned int n = sizeof(kNeedle) - 1;
  for (auto _ : state) benchmark::DoNotOptimize(s.findIgnoreCase(kNeedle, 0, n));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * h.size());
}
BENCHMARK(BM_FindIgnoreCase_Qz);

size_t NaiveFindIgnoreCase(const std::string& h, const char* needle, size_t n) {
  if (n > h.size()) return std::string::npos;
  for (size_t i = 0; i + n <= h.size(); ++i) {
    size_t k = 0;
    while (k < n && std::tolower(static_cast<unsigned char>(h[i + k])) ==
                        std::tolower(static_cast<unsigned char>(needle[k])))
      ++k;
    if (k == n) return i;
  }
  return std::string::npos;
}

void BM_FindIgnoreCase_StdNaive(benchmark::State& state) {
  const std::string h = Haystack();
  const size_t n = sizeof(kNeedle) - 1;
  for (auto _ : state) benchmark::DoNotOptimize(NaiveFindIgnoreCase(h, kNeedle, n));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * h.size());
}
BENCHMARK(BM_FindIgnoreCase_StdNaive);

}  // namespace

int main(int argc, char** argv) {
  return qzbench::Run(argc, argv, qzbench::Clock::kCpu, [](qzbench::Report& r) {
    const qzbench::Goal goal("at least as fast", {qzbench::RatioAtLeast(1.0)});
    qzbench::Table& t = r.AddTable("Formatting into a string and a case-blind search against the standard library",
                                   qzbench::Ratio::kSpeed, {"standard library"}, "per call");
    t.Row("QzStringA::CreateFormatted of a log line vs snprintf twice into std::string", "BM_Format_Qz",
          {"BM_Format_StdSnprintf"}, goal);
    t.Row("findIgnoreCase in 4 KiB vs a tolower loop over std::string", "BM_FindIgnoreCase_Qz",
          {"BM_FindIgnoreCase_StdNaive"}, goal);
  });
}
