// Random generators against the standard library's MT19937 and its
// distributions, one value per iteration, all from the same seed.
#include <benchmark/benchmark.h>
#include <stdio.h>

#include <random>

#include <qzbase/QzRandom.h>

#include "QzBenchReport.h"

namespace {

constexpr uint32_t kSeed = 5489;

struct Generator {
  QzRandom* g = Qz_CreateRandomWithSeed(kSeed);
  ~Generator() { Qz_DestroyRandom(g); }
};

void QzInt(benchmark::State& state) {
  Generator r;
  for (auto _ : state) benchmark::DoNotOptimize(Qz_RandomInt(r.g));
}
void StdInt(benchmark::State& state) {
  std::mt19937 mt(kSeed);
  for (auto _ : state) benchmark::DoNotOptimize(mt());
}

void QzDouble(benchmark::State& state) {
  Generator r;
  for (auto _ : state) benchmark::DoNotOptimize(Qz_RandomDouble(r.g));
}
void StdDouble(benchmark::State& state) {
  std::mt19937 mt(kSeed);
  std::uniform_real_distribution<double> d(0.0, 1.0);
  for (auto _ : state) benchmark::DoNotOptimize(d(mt));
}

// Small ranges (dice, indices) and one just above 2^31, where nearly half the
// words are thrown away.
void QzRange(benchmark::State& state) {
  Generator r;
  const uint32_t high = uint32_t(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(Qz_RandomIntRange(r.g, 0, high));
}
void StdRange(benchmark::State& state) {
  std::mt19937 mt(kSeed);
  std::uniform_int_distribution<uint32_t> d(0, uint32_t(state.range(0)) - 1);
  for (auto _ : state) benchmark::DoNotOptimize(d(mt));
}

BENCHMARK(QzInt)->Repetitions(3);
BENCHMARK(StdInt)->Repetitions(3);
BENCHMARK(QzDouble)->Repetitions(3);
BENCHMARK(StdDouble)->Repetitions(3);
BENCHMARK(QzRange)->Arg(6)->Arg(1000)->Arg(0x80000001)->Repetitions(3);
BENCHMARK(StdRange)->Arg(6)->Arg(1000)->Arg(0x80000001)->Repetitions(3);

}  // namespace

int main(int argc, char** argv) {
  return qzbench::Run(argc, argv, qzbench::Clock::kCpu, [](const qzbench::Times& t) {
    printf("\nRatios: standard library CPU time / qzbase CPU time (above 1: qzbase faster)\n\n");
    const char* rows[][3] = {
        {"StdInt", "QzInt", "Qz_RandomInt vs std::mt19937 (goal >= 1.20)"},
        {"StdDouble", "QzDouble", "Qz_RandomDouble vs uniform_real_distribution"},
        {"StdRange/6", "QzRange/6", "Qz_RandomIntRange [0,6) vs uniform_int"},
        {"StdRange/1000", "QzRange/1000", "Qz_RandomIntRange [0,1000) vs uniform_int"},
        {"StdRange/2147483649", "QzRange/2147483649", "Qz_RandomIntRange [0,2^31+1) vs uniform_int"},
    };
    for (auto& row : rows) printf("  %-48s %6s\n", row[2], t.Ratio(row[0], row[1]).c_str());
    printf("\n");
  });
}
