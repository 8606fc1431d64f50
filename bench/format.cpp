// Formatted output against the C library's snprintf and {fmt}'s format_to_n.
//
// Each case formats the same values with the three engines into a 256-byte
// buffer; values cycle through a small table so that nothing is folded away.
// The table printed at the end gives the speed of QZ_SNPRINTF_A relative to
// each peer (peer CPU time / our CPU time, which a busy machine disturbs
// less than wall time; above 1 means faster). {fmt} measures with
// formatted_size where the others format into a null buffer.
#include "QzBenchReport.h"
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <qzbase/QzFormat.h>

#include <cstdio>
#include <map>
#include <string>

namespace {

const int kValues = 64;

struct Values {
  int ints[kValues];
  unsigned hex[kValues];
  double reals[kValues];
  const char* names[kValues];
  Values() {
    static const char* const kNames[] = {"decoder", "mixer", "render thread", "io", "audio-out", "net"};
    unsigned seed = 12345;
    for (int i = 0; i < kValues; ++i) {
      seed = seed * 1103515245u + 12345u;
      ints[i] = static_cast<int>(seed >> 8) % 100000 - (i % 3 == 0 ? 50000 : 0);
      hex[i] = seed;
      reals[i] = static_cast<double>(static_cast<int>(seed >> 12) % 1000000) / 997.0;
      names[i] = kNames[i % 6];
    }
  }
};
const Values& V() {
  static Values v;
  return v;
}

// ---- A log line: "%s: %d items, %08x, %.3f" --------------------------------------
void LogLineQz(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(
        QZ_SNPRINTF_A(buf, sizeof buf, "%s: %d items, %08x, %.3f", v.names[k], v.ints[k], v.hex[k], v.reals[k]));
    benchmark::ClobberMemory();
  }
}
void LogLineLibc(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(
        snprintf(buf, sizeof buf, "%s: %d items, %08x, %.3f", v.names[k], v.ints[k], v.hex[k], v.reals[k]));
    benchmark::ClobberMemory();
  }
}
void LogLineFmt(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    auto r = fmt::format_to_n(buf, sizeof buf - 1, "{}: {} items, {:08x}, {:.3f}", v.names[k], v.ints[k], v.hex[k],
                              v.reals[k]);
    *r.out = 0;
    benchmark::DoNotOptimize(r.size);
    benchmark::ClobberMemory();
  }
}

// ---- Integers alone ----------------------------------------------------------------
void IntegersQz(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(
        QZ_SNPRINTF_A(buf, sizeof buf, "%d %u %x %5d", v.ints[k], v.hex[k], v.hex[k], v.ints[k ^ 1]));
    benchmark::ClobberMemory();
  }
}
void IntegersLibc(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(snprintf(buf, sizeof buf, "%d %u %x %5d", v.ints[k], v.hex[k], v.hex[k], v.ints[k ^ 1]));
    benchmark::ClobberMemory();
  }
}
void IntegersFmt(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    auto r = fmt::format_to_n(buf, sizeof buf - 1, "{} {} {:x} {:5}", v.ints[k], v.hex[k], v.hex[k], v.ints[k ^ 1]);
    *r.out = 0;
    benchmark::DoNotOptimize(r.size);
    benchmark::ClobberMemory();
  }
}

// ---- Strings alone -----------------------------------------------------------------
void StringsQz(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(
        QZ_SNPRINTF_A(buf, sizeof buf, "[%s] %s -> %-12s|", v.names[k], v.names[k ^ 3], v.names[k ^ 5]));
    benchmark::ClobberMemory();
  }
}
void StringsLibc(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(
        snprintf(buf, sizeof buf, "[%s] %s -> %-12s|", v.names[k], v.names[k ^ 3], v.names[k ^ 5]));
    benchmark::ClobberMemory();
  }
}
void StringsFmt(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    auto r = fmt::format_to_n(buf, sizeof buf - 1, "[{}] {} -> {:<12}|", v.names[k], v.names[k ^ 3], v.names[k ^ 5]);
    *r.out = 0;
    benchmark::DoNotOptimize(r.size);
    benchmark::ClobberMemory();
  }
}

// ---- Floats alone ------------------------------------------------------------------
void FloatsQz(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(
        QZ_SNPRINTF_A(buf, sizeof buf, "%f %.3e %g", v.reals[k], v.reals[k ^ 1], v.reals[k ^ 2]));
    benchmark::ClobberMemory();
  }
}
void FloatsLibc(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(snprintf(buf, sizeof buf, "%f %.3e %g", v.reals[k], v.reals[k ^ 1], v.reals[k ^ 2]));
    benchmark::ClobberMemory();
  }
}
void FloatsFmt(benchmark::State& state) {
  const Values& v = V();
  char buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    auto r = fmt::format_to_n(buf, sizeof buf - 1, "{:f} {:.3e} {:g}", v.reals[k], v.reals[k ^ 1], v.reals[k ^ 2]);
    *r.out = 0;
    benchmark::DoNotOptimize(r.size);
    benchmark::ClobberMemory();
  }
}

// ---- Measuring the log line ---------------------------------------------------------
void MeasureQz(benchmark::State& state) {
  const Values& v = V();
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(
        QZ_SNPRINTF_A(nullptr, 0, "%s: %d items, %08x, %.3f", v.names[k], v.ints[k], v.hex[k], v.reals[k]));
  }
}
void MeasureLibc(benchmark::State& state) {
  const Values& v = V();
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(
        snprintf(nullptr, 0, "%s: %d items, %08x, %.3f", v.names[k], v.ints[k], v.hex[k], v.reals[k]));
  }
}
void MeasureFmt(benchmark::State& state) {
  const Values& v = V();
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(
        fmt::formatted_size("{}: {} items, {:08x}, {:.3f}", v.names[k], v.ints[k], v.hex[k], v.reals[k]));
  }
}

// ---- Wide, for the record (no peer) ---------------------------------------------------
void LogLineWideQz(benchmark::State& state) {
  const Values& v = V();
  static const unsigned short kFormat[] = {'%', 'h', 's', ':', ' ', '%', 'd', ' ', 'i', 't', 'e', 'm', 's', ',', ' ',
                                           '%', '0', '8', 'x', ',', ' ', '%', '.', '3', 'f', 0};
  unsigned short buf[256];
  int i = 0;
  for (auto _ : state) {
    int k = i++ & (kValues - 1);
    benchmark::DoNotOptimize(QZ_SNPRINTF_W(buf, 256, kFormat, v.names[k], v.ints[k], v.hex[k], v.reals[k]));
    benchmark::ClobberMemory();
  }
}

BENCHMARK(LogLineQz);
BENCHMARK(LogLineLibc);
BENCHMARK(LogLineFmt);
BENCHMARK(IntegersQz);
BENCHMARK(IntegersLibc);
BENCHMARK(IntegersFmt);
BENCHMARK(StringsQz);
BENCHMARK(StringsLibc);
BENCHMARK(StringsFmt);
BENCHMARK(FloatsQz);
BENCHMARK(FloatsLibc);
BENCHMARK(FloatsFmt);
BENCHMARK(MeasureQz);
BENCHMARK(MeasureLibc);
BENCHMARK(MeasureFmt);
BENCHMARK(LogLineWideQz);

}  // namespace

int main(int argc, char** argv) {
  return qzbench::Run(argc, argv, qzbench::Clock::kCpu, [](qzbench::Report& r) {
    using qzbench::Goal;
    const Goal goal("at least 1.5 times the speed of snprintf", {qzbench::RatioAtLeast(1.5, 0)});
    qzbench::Table& t = r.AddTable("QZ_SNPRINTF_A against snprintf and {fmt} (format_to_n) into 256 bytes",
                                   qzbench::Ratio::kSpeed, {"snprintf", "{fmt}"}, "per call");
    t.Row("log line \"%s: %d items, %08x, %.3f\"", "LogLineQz", {"LogLineLibc", "LogLineFmt"}, goal);
    t.Row("integers \"%d %u %x %5d\"", "IntegersQz", {"IntegersLibc", "IntegersFmt"}, goal);
    t.Row("strings \"[%s] %s -> %-12s|\"", "StringsQz", {"StringsLibc", "StringsFmt"});
    t.Row("floats \"%f %.3e %g\"", "FloatsQz", {"FloatsLibc", "FloatsFmt"});
    t.Row("measuring the log line (null buffer)", "MeasureQz", {"MeasureLibc", "MeasureFmt"});
    t.Row("the log line, wide (for the record)", "LogLineWideQz", {});
  });
}
