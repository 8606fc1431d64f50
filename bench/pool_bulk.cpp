// Bulk allocation of 10,000 elements in one call against 10,000 single pool
// calls and 10,000 C library calls. Only the allocation is timed; the frees
// that follow each round run with the clock stopped.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>

#include <vector>

#include <qzbase/QzMempool.h>

#include "QzBenchReport.h"

namespace {

constexpr size_t kCount = 10000;

// Element sizes of a typical burst of small records.
std::vector<size_t> Sizes() {
  std::vector<size_t> sizes(kCount);
  for (size_t i = 0; i < kCount; ++i) sizes[i] = 16 + (i * 37) % 200;
  return sizes;
}

// A pool in which this thread has no cache, so that the freed elements of a
// round merge back into the heap and every round starts alike.
struct BulkPool {
  QzMempool* pool = Qz_CreateMempool(0, 1);
  BulkPool() { Qz_MempoolDisableThreadCache(pool); }
  ~BulkPool() { Qz_DestroyMempool(pool); }
};

void BulkCoMalloc(benchmark::State& state) {
  BulkPool p;
  const std::vector<size_t> sizes = Sizes();
  for (auto _ : state) {
    void** a = Qz_MempoolIndependentCoMalloc(p.pool, kCount, sizes.data(), nullptr);
    benchmark::DoNotOptimize(a);
    state.PauseTiming();
    for (size_t i = 0; i < kCount; ++i) Qz_MempoolFree(p.pool, a[i]);
    Qz_MempoolFree(p.pool, a);
    state.ResumeTiming();
  }
}

void SingleAlloc(benchmark::State& state) {
  const std::vector<size_t> sizes = Sizes();
  std::vector<void*> blocks(kCount);
  for (auto _ : state) {
    for (size_t i = 0; i < kCount; ++i) blocks[i] = Qz_MempoolAlloc(nullptr, sizes[i]);
    benchmark::DoNotOptimize(blocks.data());
    state.PauseTiming();
    for (void* b : blocks) Qz_MempoolFree(nullptr, b);
    state.ResumeTiming();
  }
}

void LibcMalloc(benchmark::State& state) {
  const std::vector<size_t> sizes = Sizes();
  std::vector<void*> blocks(kCount);
  for (auto _ : state) {
    for (size_t i = 0; i < kCount; ++i) blocks[i] = malloc(sizes[i]);
    benchmark::DoNotOptimize(blocks.data());
    state.PauseTiming();
    for (void* b : blocks) free(b);
    state.ResumeTiming();
  }
}

// The same with zero-filled elements of one size.
constexpr size_t kCallocSize = 48;

void BulkCalloc(benchmark::State& state) {
  BulkPool p;
  for (auto _ : state) {
    void** a = Qz_MempoolIndependentCalloc(p.pool, kCount, kCallocSize, nullptr);
    benchmark::DoNotOptimize(a);
    state.PauseTiming();
    for (size_t i = 0; i < kCount; ++i) Qz_MempoolFree(p.pool, a[i]);
    Qz_MempoolFree(p.pool, a);
    state.ResumeTiming();
  }
}

void SingleCalloc(benchmark::State& state) {
  std::vector<void*> blocks(kCount);
  for (auto _ : state) {
    for (size_t i = 0; i < kCount; ++i) blocks[i] = Qz_MempoolCalloc(nullptr, 1, kCallocSize);
    benchmark::DoNotOptimize(blocks.data());
    state.PauseTiming();
    for (void* b : blocks) Qz_MempoolFree(nullptr, b);
    state.ResumeTiming();
  }
}

void LibcCalloc(benchmark::State& state) {
  std::vector<void*> blocks(kCount);
  for (auto _ : state) {
    for (size_t i = 0; i < kCount; ++i) blocks[i] = calloc(1, kCallocSize);
    benchmark::DoNotOptimize(blocks.data());
    state.PauseTiming();
    for (void* b : blocks) free(b);
    state.ResumeTiming();
  }
}

BENCHMARK(BulkCoMalloc)->Repetitions(3);
BENCHMARK(SingleAlloc)->Repetitions(3);
BENCHMARK(LibcMalloc)->Repetitions(3);
BENCHMARK(BulkCalloc)->Repetitions(3);
BENCHMARK(SingleCalloc)->Repetitions(3);
BENCHMARK(LibcCalloc)->Repetitions(3);

}  // namespace

int main(int argc, char** argv) {
  return qzbench::Run(argc, argv, qzbench::Clock::kCpu, [](qzbench::Report& r) {
    const qzbench::Goal goal("bulk at least 2 times the single calls", {qzbench::RatioAtLeast(2.0, 0)});
    qzbench::Table& t = r.AddTable("Bulk allocation of 10,000 elements against 10,000 single calls",
                                   qzbench::Ratio::kSpeed, {"single pool calls", "C library calls"},
                                   "per 10,000 elements");
    t.Row("Qz_MempoolIndependentCoMalloc (16 to 215 B)", "BulkCoMalloc", {"SingleAlloc", "LibcMalloc"}, goal);
    t.Row("Qz_MempoolIndependentCalloc (48 B, zeroed)", "BulkCalloc", {"SingleCalloc", "LibcCalloc"}, goal);
  });
}
