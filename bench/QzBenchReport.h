// Shared by the benchmark programs: runs the registered benchmarks with the
// console output, keeps one time per benchmark (the best of its repetitions,
// since the machine may be shared), and hands them to a table printer at the
// end so each program can print its ratios against its peers.
#ifndef QZBASE_BENCH_QZBENCHREPORT_H
#define QZBASE_BENCH_QZBENCHREPORT_H

#include <benchmark/benchmark.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qzbench {

enum class Clock { kCpu, kReal };

class Times {
 public:
  // Time per iteration of `name`, or a negative value when it did not run.
  double Get(const std::string& name) const {
    auto it = times_.find(name);
    return it == times_.end() ? -1.0 : it->second;
  }
  // "a / b" with two decimals, or "-" when either is missing.
  std::string Ratio(const std::string& a, const std::string& b) const {
    double x = Get(a), y = Get(b);
    if (x < 0 || y <= 0) return "-";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2f", x / y);
    return buf;
  }
  void Keep(std::string name, double t) {
    size_t rep = name.find("/repeats:");
    if (rep != std::string::npos) name.erase(rep, name.find('/', rep + 1) - rep);
    auto it = times_.find(name);
    if (it == times_.end() || t < it->second) times_[name] = t;
  }

 private:
  std::map<std::string, double> times_;
};

class Reporter : public benchmark::ConsoleReporter {
 public:
  Reporter(Clock clock, std::function<void(const Times&)> table) : clock_(clock), table_(std::move(table)) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs)
      if (r.run_type == Run::RT_Iteration && !r.error_occurred)
        times_.Keep(r.benchmark_name(), clock_ == Clock::kCpu ? r.GetAdjustedCPUTime() : r.GetAdjustedRealTime());
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    table_(times_);
  }

 private:
  Clock clock_;
  std::function<void(const Times&)> table_;
  Times times_;
};

// The whole main of a benchmark program.
inline int Run(int argc, char** argv, Clock clock, std::function<void(const Times&)> table) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Reporter reporter(clock, std::move(table));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace qzbench

#endif
