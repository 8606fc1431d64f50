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
  return qzbench::Run(argc, argv, qzbench::Clock::kCpu, [](qzbench::Report& r) {
    qzbench::Table& t =
        r.AddTable("Random generators against the standard library's MT19937", qzbench::Ratio::kSpeed,
                   {"standard library"}, "per value");
    t.Row("Qz_RandomInt vs std::mt19937", "QzInt", {"StdInt"},
          qzbench::Goal("at least 1.2 times std::mt19937", {qzbench::RatioAtLeast(1.2)}));
    t.Row("Qz_RandomDouble vs uniform_real_distribution", "QzDouble", {"StdDouble"});
    t.Row("Qz_RandomIntRange [0,6) vs uniform_int_distribution", "QzRange/6", {"StdRange/6"});
    t.Row("Qz_RandomIntRange [0,1000) vs uniform_int_distribution", "QzRange/1000", {"StdRange/1000"});
    t.Row("Qz_RandomIntRange [0,2^31+1) vs uniform_int_distribution", "QzRange/2147483649",
          {"StdRange/2147483649"});
  });
}
