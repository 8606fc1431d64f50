// The dispatched copies and maths against the C library.
//
// Copies run from 64 B to 64 MiB; the rectangle copy is measured with a gap of
// 64 bytes after every row of up to 4 KiB, against the same rows copied by
// memcpy; the MMX and plain copies, which this processor's slot did not take,
// are measured too. At the end the tables give each qzbase time divided by its
// peer's (1.00: as fast; below 1: faster).
#include "QzBenchReport.h"
#include <benchmark/benchmark.h>

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>
#include <map>
#include <string>
#include <vector>

#include <qzbase/qzbase.h>

#include "frame/QzPrimitives.h"

namespace {

constexpr size_t kMaxBytes = size_t{64} << 20;
constexpr size_t kRowGap = 64;
constexpr size_t kMaxRowWidth = 4096;

struct Buffers {
  unsigned char* src;
  unsigned char* dst;
  Buffers() {
    const size_t span = kMaxBytes + (kMaxBytes / kMaxRowWidth + 1) * kRowGap + 4096;
    src = static_cast<unsigned char*>(aligned_alloc(4096, span));
    dst = static_cast<unsigned char*>(aligned_alloc(4096, span));
    if (src == nullptr || dst == nullptr) abort();
    // Touch every page now, so no run pays for first faults.
    for (size_t i = 0; i < span; ++i) src[i] = static_cast<unsigned char>(i * 131);
    memset(dst, 0, span);
  }
};

Buffers& Buf() {
  static Buffers buffers;
  return buffers;
}

void Bytes(benchmark::State& state, size_t n) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

void LibcMemcpy(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  Buffers& b = Buf();
  for (auto _ : state) {
    memcpy(b.dst, b.src, n);
    benchmark::ClobberMemory();
  }
  Bytes(state, n);
}

void FastMemcpy(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  Buffers& b = Buf();
  for (auto _ : state) {
    Qz_FastMemcpy(b.dst, b.src, n);
    benchmark::ClobberMemory();
  }
  Bytes(state, n);
}

// The variants the slot did not take, for comparison.
void MmxCopy(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  Buffers& b = Buf();
  for (auto _ : state) {
    QzMemcpyMmx(b.dst, b.src, n);
    benchmark::ClobberMemory();
  }
  Bytes(state, n);
}

void PlainCopy(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  Buffers& b = Buf();
  for (auto _ : state) {
    QzMemcpyPlain(b.dst, b.src, n);
    benchmark::ClobberMemory();
  }
  Bytes(state, n);
}

struct RectShape {
  size_t width, rows;
  ptrdiff_t stride;
};
RectShape ShapeFor(size_t n) {
  size_t width = n < kMaxRowWidth ? n : kMaxRowWidth;
  return {width, n / width, static_cast<ptrdiff_t>(width + kRowGap)};
}

void LibcRectRows(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  const RectShape s = ShapeFor(n);
  Buffers& b = Buf();
  for (auto _ : state) {
    unsigned char* d = b.dst;
    const unsigned char* p = b.src;
    for (size_t r = 0; r < s.rows; ++r, d += s.stride, p += s.stride) memcpy(d, p, s.width);
    benchmark::ClobberMemory();
  }
  Bytes(state, n);
}

void MemcpyRect(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  const RectShape s = ShapeFor(n);
  Buffers& b = Buf();
  for (auto _ : state) {
    Qz_MemcpyRect(b.dst, s.stride, b.src, s.stride, s.width, s.rows);
    benchmark::ClobberMemory();
  }
  Bytes(state, n);
}

BENCHMARK(LibcMemcpy)->RangeMultiplier(4)->Range(64, kMaxBytes);
BENCHMARK(FastMemcpy)->RangeMultiplier(4)->Range(64, kMaxBytes);
BENCHMARK(LibcRectRows)->RangeMultiplier(4)->Range(64, kMaxBytes);
BENCHMARK(MemcpyRect)->RangeMultiplier(4)->Range(64, kMaxBytes);
BENCHMARK(MmxCopy)->RangeMultiplier(4)->Range(64, kMaxBytes);
BENCHMARK(PlainCopy)->RangeMultiplier(4)->Range(64, kMaxBytes);

// ---- Maths: 1024 arguments per iteration ------------------------------------------
constexpr int kValues = 1024;

template <typename T>
const std::vector<T>& Values() {
  static const std::vector<T> v = [] {
    std::vector<T> out(kValues);
    for (int i = 0; i < kValues; ++i) out[i] = static_cast<T>(0.1 + (i * 7919 % 1000) * 0.0314);
    return out;
  }();
  return v;
}

template <typename T, typename R, typename F>
void Maths(benchmark::State& state, F fn) {
  const std::vector<T>& v = Values<T>();
  for (auto _ : state) {
    R sum = 0;
    for (int i = 0; i < kValues; ++i) sum += fn(v[i]);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kValues);
}

void StdSqrt(benchmark::State& s) { Maths<double, double>(s, [](double x) { return std::sqrt(x); }); }
void QzSqrt(benchmark::State& s) { Maths<double, double>(s, [](double x) { return Qz_Sqrt(x); }); }
void StdSqrtF(benchmark::State& s) { Maths<float, float>(s, [](float x) { return std::sqrt(x); }); }
void QzSqrtF(benchmark::State& s) { Maths<float, float>(s, [](float x) { return Qz_SqrtF(x); }); }
void StdRSqrtF(benchmark::State& s) { Maths<float, float>(s, [](float x) { return 1.0f / std::sqrt(x); }); }
void QzRSqrtF(benchmark::State& s) { Maths<float, float>(s, [](float x) { return Qz_RSqrtF(x); }); }
void StdCos(benchmark::State& s) { Maths<double, double>(s, [](double x) { return std::cos(x); }); }
void QzCos(benchmark::State& s) { Maths<double, double>(s, [](double x) { return Qz_Cos(x); }); }
void StdSin(benchmark::State& s) { Maths<double, double>(s, [](double x) { return std::sin(x); }); }
void QzSin(benchmark::State& s) { Maths<double, double>(s, [](double x) { return Qz_Sin(x); }); }
void StdTan(benchmark::State& s) { Maths<double, double>(s, [](double x) { return std::tan(x); }); }
void QzTan(benchmark::State& s) { Maths<double, double>(s, [](double x) { return Qz_Tan(x); }); }
void CastTruncate(benchmark::State& s) { Maths<double, int>(s, [](double x) { return static_cast<int>(x); }); }
void QzTruncate(benchmark::State& s) { Maths<double, int>(s, [](double x) { return Qz_Truncate(x); }); }
void LrintRound(benchmark::State& s) { Maths<double, long>(s, [](double x) { return lrint(x); }); }
void QzRound(benchmark::State& s) { Maths<double, int>(s, [](double x) { return Qz_Round(x); }); }

BENCHMARK(StdSqrt);
BENCHMARK(QzSqrt);
BENCHMARK(StdSqrtF);
BENCHMARK(QzSqrtF);
BENCHMARK(StdRSqrtF);
BENCHMARK(QzRSqrtF);
BENCHMARK(StdCos);
BENCHMARK(QzCos);
BENCHMARK(StdSin);
BENCHMARK(QzSin);
BENCHMARK(StdTan);
BENCHMARK(QzTan);
BENCHMARK(CastTruncate);
BENCHMARK(QzTruncate);
BENCHMARK(LrintRound);
BENCHMARK(QzRound);

}  // namespace

static std::string SizeName(size_t n) {
  char buf[32];
  if (n >= (1u << 20)) snprintf(buf, sizeof buf, "%zu MiB", n >> 20);
  else if (n >= 1024) snprintf(buf, sizeof buf, "%zu KiB", n >> 10);
  else snprintf(buf, sizeof buf, "%zu B", n);
  return buf;
}

int main(int argc, char** argv) {
  return qzbench::Run(argc, argv, qzbench::Clock::kReal, [](qzbench::Report& r) {
    using qzbench::Goal;
    const char* kGoal = "within 10% of memcpy from 4 MiB up";
    auto copyGoal = [&](size_t n) {
      return n >= (size_t{4} << 20) ? Goal(kGoal, {qzbench::RatioAtMost(1.10)}) : Goal();
    };
    qzbench::Table& fast = r.AddTable("Qz_FastMemcpy against memcpy", qzbench::Ratio::kTime, {"memcpy"}, "per copy");
    for (size_t n = 64; n <= kMaxBytes; n *= 4) {
      const std::string arg = "/" + std::to_string(n);
      fast.Row(SizeName(n), "FastMemcpy" + arg, {"LibcMemcpy" + arg}, copyGoal(n));
    }
    fast.Note(std::string("Qz_FastMemcpy holds ") + Qz_SlotVariantName(&Qz_FastMemcpy) + ".");
    qzbench::Table& rect = r.AddTable("Qz_MemcpyRect against memcpy row by row (rows of up to 4 KiB, 64 B gaps)",
                                      qzbench::Ratio::kTime, {"memcpy rows"}, "per rectangle");
    for (size_t n = 64; n <= kMaxBytes; n *= 4) {
      const std::string arg = "/" + std::to_string(n);
      rect.Row(SizeName(n), "MemcpyRect" + arg, {"LibcRectRows" + arg}, copyGoal(n));
    }
    qzbench::Table& other = r.AddTable("The copies the slot did not take, against memcpy (for the record)",
                                       qzbench::Ratio::kTime, {"memcpy"}, "per copy");
    for (size_t n = 64; n <= kMaxBytes; n *= 4) {
      const std::string arg = "/" + std::to_string(n);
      other.Row("MMX copy, " + SizeName(n), "MmxCopy" + arg, {"LibcMemcpy" + arg});
    }
    for (size_t n = 64; n <= kMaxBytes; n *= 4) {
      const std::string arg = "/" + std::to_string(n);
      other.Row("plain copy, " + SizeName(n), "PlainCopy" + arg, {"LibcMemcpy" + arg});
    }
    qzbench::Table& maths =
        r.AddTable("The maths slots against the C library", qzbench::Ratio::kTime, {"C library"}, "per value", kValues);
    const char* pairs[][3] = {{"Qz_Sqrt vs std::sqrt", "QzSqrt", "StdSqrt"},
                              {"Qz_SqrtF vs std::sqrt (float)", "QzSqrtF", "StdSqrtF"},
                              {"Qz_RSqrtF vs 1/std::sqrt (float)", "QzRSqrtF", "StdRSqrtF"},
                              {"Qz_Cos vs std::cos", "QzCos", "StdCos"},
                              {"Qz_Sin vs std::sin", "QzSin", "StdSin"},
                              {"Qz_Tan vs std::tan", "QzTan", "StdTan"},
                              {"Qz_Truncate vs (int) cast", "QzTruncate", "CastTruncate"},
                              {"Qz_Round vs lrint", "QzRound", "LrintRound"}};
    for (auto& p : pairs) maths.Row(p[0], p[1], {p[2]});
  });
}
