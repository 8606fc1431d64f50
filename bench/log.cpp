// Log lines per second into a file, against spdlog with a basic file sink
// flushed after every line (one write per line, as our log does) and against
// fprintf + fflush. Each line carries the same prefix fields (date, time with
// milliseconds, process and thread ids, level word) and the same message.
// Lines are written from one thread and from two; wall time per line, since
// the work is mostly the write system call.
#include "QzBenchReport.h"

#include <benchmark/benchmark.h>
#include <qzbase/qzbase.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

std::string TempPath(const char* name) {
  const char* dir = getenv("TMPDIR");
  return std::string(dir && *dir ? dir : "/tmp") + "/qzbench_" + name + "_" + std::to_string(getpid()) + ".log";
}

// One file per peer for the whole run; the benchmark's threads share it.
struct Files {
  std::string qzPath = TempPath("qz"), spdPath = TempPath("spd"), stdioPath = TempPath("stdio");
  std::shared_ptr<spdlog::logger> spd;
  FILE* stdio = nullptr;
  Files() {
    if (!QZ_CREATE_FILE_LOG(qzPath.c_str())) fprintf(stderr, "cannot open %s\n", qzPath.c_str());
    spd = spdlog::basic_logger_mt("bench", spdPath, true);
    spd->set_pattern("[%m/%d/%Y %H:%M:%S.%e pid=%P tid=%t] %l: %v");
    spd->flush_on(spdlog::level::trace);
    stdio = fopen(stdioPath.c_str(), "w");
  }
  ~Files() {
    QZ_DISABLE_LOG();
    spd.reset();
    spdlog::drop_all();
    if (stdio) fclose(stdio);
    unlink(qzPath.c_str());
    unlink(spdPath.c_str());
    unlink(stdioPath.c_str());
  }
};
Files& F() {
  static Files files;
  return files;
}

void LineQz(benchmark::State& state) {
  F();
  int i = 0;
  for (auto _ : state) QZ_LOG_WRITE_A(QZ_LOG_INFO, "decoder: frame %d decoded in %d us", i++, 417);
  if (state.thread_index() == 0) Qz_MempoolDisableThreadCache(0);
}

void LineSpdlog(benchmark::State& state) {
  auto& log = F().spd;
  int i = 0;
  for (auto _ : state) log->info("decoder: frame {} decoded in {} us", i++, 417);
}

void LineStdio(benchmark::State& state) {
  FILE* f = F().stdio;
  const long pid = getpid();
  const long tid = syscall(SYS_gettid);
  int i = 0;
  for (auto _ : state) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm t;
    localtime_r(&tv.tv_sec, &t);
    // Locked, like the others, so lines from two threads never mix.
    flockfile(f);
    fprintf(f, "[%02d/%02d/%04d %02d:%02d:%02d.%03d pid=%ld tid=%ld] %s: decoder: frame %d decoded in %d us\n",
            t.tm_mon + 1, t.tm_mday, t.tm_year + 1900, t.tm_hour, t.tm_min, t.tm_sec, int(tv.tv_usec / 1000), pid,
            tid, "Info", i++, 417);
    fflush(f);
    funlockfile(f);
  }
}

BENCHMARK(LineQz)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(LineSpdlog)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(LineStdio)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return qzbench::Run(argc, argv, qzbench::Clock::kReal, [](qzbench::Report& r) {
    const qzbench::Goal goal("at least as fast as spdlog", {qzbench::RatioAtLeast(1.0, 0)});
    qzbench::Table& t = r.AddTable("Log lines into a file against spdlog (flushed every line) and fprintf + fflush",
                                   qzbench::Ratio::kSpeed, {"spdlog", "fprintf+fflush"}, "per line");
    for (const char* th : {"1", "2"}) {
      const std::string s = std::string("/real_time/threads:") + th;
      const std::string name = std::string(th) + (th[0] == '1' ? " thread" : " threads");
      t.Row(name, "LineQz" + s, {"LineSpdlog" + s, "LineStdio" + s}, goal);
    }
  });
}
