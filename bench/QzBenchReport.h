// Shared by the benchmark programs: runs the registered benchmarks with the
// console output, keeps one time per benchmark (the best of its repetitions,
// since the machine may be shared), and at the end turns the rows each
// program declares into its tables of ratios against the peers.
//
// A program's rows are declared once, in the function it hands to Run(): each
// table names its peers and how its ratio is taken; each row names qzbase's
// benchmark, the peers' benchmarks and the goal its issue set. The same rows
// are printed as plain-text tables, and, when the environment variable
// QZ_BENCH_ROWS names a file, appended to it as one line of JSON per program
// (what tools/run-bench turns into docs/BENCHMARKS.md).
//
// The console output has colour only when standard output is a terminal,
// unless --benchmark_color (or BENCHMARK_COLOR) says otherwise.
#ifndef QZBASE_BENCH_QZBENCHREPORT_H
#define QZBASE_BENCH_QZBENCHREPORT_H

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace qzbench {

// kCpu: processor time, except for the benchmarks that ask for wall time
// (UseRealTime); kReal: wall time for every benchmark.
enum class Clock { kCpu, kReal };

// The best time per iteration of each benchmark, in seconds.
class Times {
 public:
  struct Best {
    double seconds;
    bool wall;
  };
  // The best of `name`, or null when it did not run.
  const Best* Find(const std::string& name) const {
    auto it = times_.find(name);
    return it == times_.end() ? nullptr : &it->second;
  }
  void Keep(std::string name, double seconds, bool wall) {
    // Repetitions of one benchmark share its name without their count.
    size_t rep = name.find("/repeats:");
    if (rep != std::string::npos) name.erase(rep, name.find('/', rep + 1) - rep);
    auto it = times_.find(name);
    if (it == times_.end() || seconds < it->second.seconds) times_[name] = Best{seconds, wall};
  }

 private:
  std::map<std::string, Best> times_;
};

// How a table's ratios are taken, which fixes the way that is better.
enum class Ratio {
  kTime,   // qzbase time / peer time: below 1, qzbase is faster
  kSpeed,  // peer time / qzbase time: above 1, qzbase is faster
};

// One condition of a goal: on a ratio against one peer, on the ratio against
// the fastest peer, or on qzbase's own figure (a row given by value). Ratios
// are compared as printed, to two decimals, so that a verdict never
// contradicts the figure beside it.
struct Check {
  enum On { kPeer, kBestPeer, kOurs } on;
  int peer;
  enum Op { kAtMost, kBelow, kAtLeast, kAbove } op;
  double limit;
};
inline Check RatioAtMost(double limit, int peer = 0) { return {Check::kPeer, peer, Check::kAtMost, limit}; }
inline Check RatioAtLeast(double limit, int peer = 0) { return {Check::kPeer, peer, Check::kAtLeast, limit}; }
inline Check RatioAbove(double limit, int peer = 0) { return {Check::kPeer, peer, Check::kAbove, limit}; }
inline Check BestRatioAtMost(double limit) { return {Check::kBestPeer, 0, Check::kAtMost, limit}; }
inline Check OursBelow(double limit) { return {Check::kOurs, 0, Check::kBelow, limit}; }

// A goal as its issue set it. With no checks the text stands alone (e.g. "no
// goal set"). `unjudged`, when given, says why this run cannot judge the goal
// if it is not met (e.g. a goal for an idle machine on a busy one).
struct Goal {
  std::string text;
  std::vector<Check> checks;
  std::string unjudged;
  Goal() = default;
  Goal(std::string t, std::vector<Check> c = {}, std::string why = {})
      : text(std::move(t)), checks(std::move(c)), unjudged(std::move(why)) {}
};

// "12.3 ns", "4.56 ms": three significant digits in a unit that keeps them.
inline std::string FormatSeconds(double s) {
  static const struct {
    double scale;
    const char* unit;
  } kUnits[] = {{1e9, "ns"}, {1e6, "us"}, {1e3, "ms"}, {1, "s"}};
  size_t u = 0;
  while (u + 1 < sizeof kUnits / sizeof kUnits[0] && s * kUnits[u].scale >= 999.5) ++u;
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3g %s", s * kUnits[u].scale, kUnits[u].unit);
  return buf;
}

inline std::string FormatRatio(double r) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.2f", r);
  return buf;
}

struct Figure {
  std::string bench;  // the benchmark it comes from; empty for a row given by value
  double value = -1;  // seconds per operation, or the row's own unit; negative: missing
  std::string text;
  bool wall = false;
};

struct Entry {
  std::string name;
  Figure ours;
  std::vector<Figure> peers;
  std::vector<double> ratios;  // one per peer; negative: missing
  Goal goal;
  std::string verdict;
};

class Table {
 public:
  Table(const Times& times, std::string title, Ratio ratio, std::vector<std::string> peers, std::string per,
        double ops)
      : title_(std::move(title)), ratio_(ratio), peers_(std::move(peers)), per_(std::move(per)), ops_(ops),
        times_(&times) {}

  // A row: qzbase's benchmark against one benchmark per peer ("" where a
  // peer has none). Figures are the best time per iteration divided by the
  // operations in one iteration (the table's, unless `ops` is given).
  Table& Row(std::string name, const std::string& ours, const std::vector<std::string>& peers, Goal goal = {},
             double ops = 0) {
    Entry e;
    e.name = std::move(name);
    const double n = ops > 0 ? ops : ops_;
    e.ours = Measured(ours, n);
    for (size_t i = 0; i < peers_.size(); ++i) {
      e.peers.push_back(Measured(i < peers.size() ? peers[i] : std::string(), n));
      double a = e.ours.value, b = e.peers.back().value;
      if (ratio_ == Ratio::kSpeed) std::swap(a, b);
      e.ratios.push_back(a > 0 && b > 0 ? a / b : -1.0);
    }
    e.goal = std::move(goal);
    // A row none of whose benchmarks ran (filtered out) is left out.
    bool any = e.ours.value >= 0;
    for (const Figure& f : e.peers) any = any || f.value >= 0;
    if (any) Add(std::move(e));
    return *this;
  }

  // A row whose figure is not a time, measured by the program itself.
  Table& Value(std::string name, double value, std::string text, Goal goal = {}) {
    Entry e;
    e.name = std::move(name);
    e.ours.value = value;
    e.ours.text = std::move(text);
    e.peers.resize(peers_.size());
    e.ratios.assign(peers_.size(), -1.0);
    for (Figure& f : e.peers) f.text = "-";
    e.goal = std::move(goal);
    Add(std::move(e));
    return *this;
  }

  Table& Note(std::string text) {
    notes_.push_back(std::move(text));
    return *this;
  }

  bool Empty() const { return rows_.empty(); }

  // "qzbase time / peer time (below 1: qzbase is faster)".
  std::string RatioMeaning() const {
    return ratio_ == Ratio::kTime ? "qzbase time / peer time (below 1: qzbase is faster)"
                                  : "peer time / qzbase time (above 1: qzbase is faster)";
  }

  // "CPU time per line", or which rows took wall time when the table mixes.
  std::string Measure() const {
    std::vector<std::string> wall, cpu;
    for (const Entry& e : rows_)
      if (!e.ours.bench.empty() && e.ours.value >= 0) (e.ours.wall ? wall : cpu).push_back(e.name);
    if (wall.empty() && cpu.empty()) return "";
    std::string s = (cpu.empty() ? "wall time " : "CPU time ") + per_;
    if (!cpu.empty() && !wall.empty()) {
      s += " (wall time for ";
      for (size_t i = 0; i < wall.size(); ++i) s += (i ? ", " : "") + wall[i];
      s += ")";
    }
    return s;
  }

  void Print(std::ostream& out) const {
    out << "\n" << title_ << "\n";
    std::string measure = Measure();
    if (measure.empty()) measure = "figures measured by the program itself";
    out << "  " << measure << "; " << (peers_.empty() ? "no peer" : "ratio = " + RatioMeaning()) << "\n\n";
    std::vector<std::vector<std::string>> cells;
    std::vector<std::string> head{"case", "qzbase"};
    for (const std::string& p : peers_) head.push_back(p);
    for (const std::string& p : peers_) head.push_back(peers_.size() == 1 ? "ratio" : "vs " + p);
    head.push_back("goal");
    head.push_back("verdict");
    cells.push_back(head);
    for (const Entry& e : rows_) {
      std::vector<std::string> line{e.name, e.ours.text};
      for (const Figure& f : e.peers) line.push_back(f.text);
      for (double r : e.ratios) line.push_back(r < 0 ? "-" : FormatRatio(r));
      line.push_back(e.goal.text.empty() ? "-" : e.goal.text);
      line.push_back(e.verdict);
      cells.push_back(line);
    }
    std::vector<size_t> width(head.size(), 0);
    for (const auto& line : cells)
      for (size_t i = 0; i < line.size(); ++i) width[i] = std::max(width[i], line[i].size());
    for (const auto& line : cells) {
      std::string text = " ";
      for (size_t i = 0; i < line.size(); ++i) {
        text += " " + line[i];
        if (i + 1 < line.size()) text.append(width[i] - line[i].size() + 1, ' ');
      }
      out << text << "\n";
    }
    for (const std::string& n : notes_) out << "\n  " << n << "\n";
  }

  void Json(std::ostream& out) const {
    out << "{\"title\":" << Quote(title_) << ",\"measure\":" << Quote(Measure());
    out << ",\"ratio\":" << Quote(peers_.empty() ? "" : RatioMeaning());
    out << ",\"better\":" << Quote(ratio_ == Ratio::kTime ? "lower" : "higher") << ",\"peers\":[";
    for (size_t i = 0; i < peers_.size(); ++i) out << (i ? "," : "") << Quote(peers_[i]);
    out << "],\"rows\":[";
    for (size_t r = 0; r < rows_.size(); ++r) {
      const Entry& e = rows_[r];
      out << (r ? "," : "") << "{\"case\":" << Quote(e.name) << ",\"ours\":";
      FigureJson(out, e.ours);
      out << ",\"peers\":[";
      for (size_t i = 0; i < e.peers.size(); ++i) {
        out << (i ? "," : "");
        FigureJson(out, e.peers[i]);
      }
      out << "],\"ratios\":[";
      for (size_t i = 0; i < e.ratios.size(); ++i)
        out << (i ? "," : "") << (e.ratios[i] < 0 ? std::string("null") : FormatRatio(e.ratios[i]));
      out << "],\"ratio_texts\":[";
      for (size_t i = 0; i < e.ratios.size(); ++i)
        out << (i ? "," : "") << Quote(e.ratios[i] < 0 ? "-" : FormatRatio(e.ratios[i]));
      out << "],\"goal\":" << Quote(e.goal.text) << ",\"verdict\":" << Quote(e.verdict) << "}";
    }
    out << "],\"notes\":[";
    for (size_t i = 0; i < notes_.size(); ++i) out << (i ? "," : "") << Quote(notes_[i]);
    out << "]}";
  }

  static std::string Quote(const std::string& s) {
    std::string q = "\"";
    for (unsigned char c : s) {
      if (c == '"' || c == '\\') {
        q += '\\';
        q += static_cast<char>(c);
      } else if (c < 0x20) {
        char buf[8];
        std::snprintf(buf, sizeof buf, "\\u%04x", c);
        q += buf;
      } else {
        q += static_cast<char>(c);
      }
    }
    return q + "\"";
  }

 private:
  Figure Measured(const std::string& bench, double ops) const {
    Figure f;
    f.bench = bench;
    const Times::Best* b = bench.empty() ? nullptr : times_->Find(bench);
    if (b != nullptr) {
      f.value = b->seconds / ops;
      f.wall = b->wall;
      f.text = FormatSeconds(f.value);
    } else {
      f.text = "-";
    }
    return f;
  }

  static void FigureJson(std::ostream& out, const Figure& f) {
    out << "{\"bench\":" << Quote(f.bench) << ",\"text\":" << Quote(f.text) << ",\"value\":";
    if (f.value < 0) {
      out << "null";
    } else {
      char buf[32];
      std::snprintf(buf, sizeof buf, "%.6g", f.value);
      out << buf;
    }
    out << ",\"clock\":" << Quote(f.bench.empty() || f.value < 0 ? "" : f.wall ? "wall" : "cpu") << "}";
  }

  void Add(Entry e) {
    e.verdict = Verdict(e);
    rows_.push_back(std::move(e));
  }

  std::string Verdict(const Entry& e) const {
    if (e.goal.checks.empty()) return "-";
    bool met = true;
    for (const Check& c : e.goal.checks) {
      double v = -1;
      if (c.on == Check::kOurs) {
        v = e.ours.value;
      } else if (c.on == Check::kPeer) {
        if (c.peer >= 0 && size_t(c.peer) < e.ratios.size()) v = e.ratios[size_t(c.peer)];
      } else {
        // The fastest peer: the one with the least time.
        double fastest = -1;
        for (size_t i = 0; i < e.peers.size(); ++i)
          if (e.peers[i].value > 0 && (fastest < 0 || e.peers[i].value < fastest)) {
            fastest = e.peers[i].value;
            v = e.ratios[i];
          }
      }
      if (v < 0) return "not judged (not run)";
      if (c.on != Check::kOurs) v = std::round(v * 100) / 100;
      switch (c.op) {
        case Check::kAtMost: met = met && v <= c.limit; break;
        case Check::kBelow: met = met && v < c.limit; break;
        case Check::kAtLeast: met = met && v >= c.limit; break;
        case Check::kAbove: met = met && v > c.limit; break;
      }
    }
    if (met) return "met";
    return e.goal.unjudged.empty() ? "not met" : "not judged (" + e.goal.unjudged + ")";
  }

  std::string title_;
  Ratio ratio_;
  std::vector<std::string> peers_;
  std::string per_;
  double ops_;
  const Times* times_;
  std::vector<Entry> rows_;
  std::vector<std::string> notes_;
};

// What a program declares at the end of its run: tables and notes.
class Report {
 public:
  explicit Report(const Times& times) : times(times) {}

  // A table against `peers` (may be empty), whose figures are time `per` one
  // operation ("per copy"), an iteration holding `ops` of them.
  Table& AddTable(std::string title, Ratio ratio, std::vector<std::string> peers, std::string per = "per iteration",
                  double ops = 1) {
    tables_.emplace_back(times, std::move(title), ratio, std::move(peers), std::move(per), ops);
    return tables_.back();
  }
  void Note(std::string text) { notes_.push_back(std::move(text)); }

  void Print(std::ostream& out) const {
    for (const Table& t : tables_)
      if (!t.Empty()) t.Print(out);
    for (const std::string& n : notes_) out << "\n" << n << "\n";
    out << "\n";
  }

  void Json(std::ostream& out, const std::string& area, const std::string& program) const {
    out << "{\"area\":" << Table::Quote(area) << ",\"program\":" << Table::Quote(program) << ",\"tables\":[";
    bool first = true;
    for (const Table& t : tables_) {
      if (t.Empty()) continue;
      out << (first ? "" : ",");
      first = false;
      t.Json(out);
    }
    out << "],\"notes\":[";
    for (size_t i = 0; i < notes_.size(); ++i) out << (i ? "," : "") << Table::Quote(notes_[i]);
    out << "]}\n";
  }

  const Times& times;

 private:
  std::deque<Table> tables_;  // a deque, so that a table stays where it is as others are added
  std::vector<std::string> notes_;
};

// Google Benchmark decides on colour only for its own console reporter; a
// program that passes its own makes the same decision here: --benchmark_color
// (or BENCHMARK_COLOR) "auto" means colour only on a terminal that has it.
inline bool Truthy(const std::string& v) {
  std::string lower;
  for (char c : v) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return !(lower == "0" || lower == "f" || lower == "n" || lower == "false" || lower == "no" || lower == "off");
}

inline std::string FlagValue(int argc, char** argv, const char* flag, const char* env, const char* fallback) {
  const char* e = std::getenv(env);
  std::string value = e != nullptr ? e : fallback;
  const size_t n = std::strlen(flag);
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    if (a[0] != '-') continue;
    a += a[1] == '-' ? 2 : 1;
    if (std::strncmp(a, flag, n) != 0) continue;
    if (a[n] == '\0') value = "true";
    else if (a[n] == '=') value = a + n + 1;
  }
  return value;
}

inline benchmark::ConsoleReporter::OutputOptions ConsoleOptions(int argc, char** argv) {
  const std::string color = FlagValue(argc, argv, "benchmark_color", "BENCHMARK_COLOR", "auto");
  bool on;
  if (color == "auto") {
    const char* term = std::getenv("TERM");
    on = isatty(STDOUT_FILENO) && term != nullptr && *term != '\0' && std::strcmp(term, "dumb") != 0;
  } else {
    on = Truthy(color);
  }
  int options = on ? benchmark::ConsoleReporter::OO_Color : benchmark::ConsoleReporter::OO_None;
  if (Truthy(FlagValue(argc, argv, "benchmark_counters_tabular", "BENCHMARK_COUNTERS_TABULAR", "false")))
    options |= benchmark::ConsoleReporter::OO_Tabular;
  return static_cast<benchmark::ConsoleReporter::OutputOptions>(options);
}

class Reporter : public benchmark::ConsoleReporter {
 public:
  Reporter(OutputOptions options, Clock clock, std::function<void(Report&)> declare, std::string program)
      : ConsoleReporter(options), clock_(clock), declare_(std::move(declare)), program_(std::move(program)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& r : runs) {
      if (r.run_type != Run::RT_Iteration || r.error_occurred) continue;
      const bool wall = clock_ == Clock::kReal || r.run_name.time_type == "real_time";
      const double t = wall ? r.GetAdjustedRealTime() : r.GetAdjustedCPUTime();
      times_.Keep(r.benchmark_name(), t / benchmark::GetTimeUnitMultiplier(r.time_unit), wall);
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    Report report(times_);
    declare_(report);
    report.Print(GetOutputStream());
    GetOutputStream().flush();
    const char* path = std::getenv("QZ_BENCH_ROWS");
    if (path != nullptr && *path != '\0') {
      std::ostringstream line;
      const std::string area = program_.compare(0, 6, "bench_") == 0 ? program_.substr(6) : program_;
      report.Json(line, area, program_);
      std::ofstream out(path, std::ios::app);
      out << line.str();
      if (!out) std::fprintf(stderr, "cannot write the rows to %s\n", path);
    }
  }

 private:
  Clock clock_;
  std::function<void(Report&)> declare_;
  std::string program_;
  Times times_;
};

// The whole main of a benchmark program: `declare` adds its tables once the
// benchmarks have run.
inline int Run(int argc, char** argv, Clock clock, std::function<void(Report&)> declare) {
  const benchmark::ConsoleReporter::OutputOptions options = ConsoleOptions(argc, argv);
  std::string program = argc > 0 ? argv[0] : "bench";
  program = program.substr(program.find_last_of('/') + 1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Reporter reporter(options, clock, std::move(declare), program);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace qzbench

#endif
