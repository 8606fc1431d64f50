// Event-queue throughput and send round trips against a plain std::mutex +
// std::condition_variable queue, and the timer's long-run rate and lateness.
#include <qzbase/qzbase.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cmath>
#include <cstdio>
#include <string>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "QzBenchReport.h"

namespace {

// One event object reused for every post, so that both queues are measured
// without the cost of making events.
class Nop : public IQzEvent {
 public:
  HRESULT Execute() override {
    done.fetch_add(1, std::memory_order_relaxed);
    return 0;
  }
  void Release() override {}
  std::atomic<long> done{0};
};

// The baseline: a consumer thread over a deque, a mutex and a condition variable.
class StdQueue {
 public:
  StdQueue() : worker_([this] { Loop(); }) {}
  ~StdQueue() {
    {
      std::lock_guard<std::mutex> hold(lock_);
      stop_ = true;
    }
    wake_.notify_one();
    worker_.join();
  }
  void Post(IQzEvent* e) {
    {
      std::lock_guard<std::mutex> hold(lock_);
      pending_.push_back({e, nullptr});
    }
    wake_.notify_one();
  }
  HRESULT Send(IQzEvent* e) {
    Reply reply;
    {
      std::lock_guard<std::mutex> hold(lock_);
      pending_.push_back({e, &reply});
    }
    wake_.notify_one();
    std::unique_lock<std::mutex> wait(reply.lock);
    reply.ready.wait(wait, [&] { return reply.done; });
    return reply.result;
  }

 private:
  struct Reply {
    std::mutex lock;
    std::condition_variable ready;
    bool done = false;
    HRESULT result = 0;
  };
  struct Item {
    IQzEvent* event;
    Reply* reply;
  };
  void Loop() {
    std::deque<Item> batch;
    for (;;) {
      {
        std::unique_lock<std::mutex> hold(lock_);
        wake_.wait(hold, [&] { return stop_ || !pending_.empty(); });
        if (stop_ && pending_.empty()) return;
        batch.swap(pending_);
      }
      for (Item& item : batch) {
        HRESULT r = item.event->Execute();
        item.event->Release();
        if (item.reply != nullptr) {
          std::lock_guard<std::mutex> hold(item.reply->lock);
          item.reply->result = r;
          item.reply->done = true;
          item.reply->ready.notify_one();
        }
      }
      batch.clear();
    }
  }
  std::mutex lock_;
  std::condition_variable wake_;
  std::deque<Item> pending_;
  bool stop_ = false;
  std::thread worker_;
};

template <class PostFn>
void Produce(benchmark::State& state, Nop& nop, PostFn post) {
  const int producers = static_cast<int>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    const long start = nop.done.load();
    state.ResumeTiming();
    const int perProducer = 100000 / producers;
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
      threads.emplace_back([&] {
        for (int i = 0; i < perProducer; ++i) post(&nop);
      });
    for (auto& t : threads) t.join();
    while (nop.done.load(std::memory_order_relaxed) - start < long(perProducer) * producers) std::this_thread::yield();
  }
  state.SetItemsProcessed(state.iterations() * 100000);
}

void BM_QzPost(benchmark::State& state) {
  Nop nop;
  QzThreadWithEventQueue* q = QzThreadWithEventQueue::Start(0, 0, 0);
  Produce(state, nop, [q](IQzEvent* e) { q->PostEvent(e); });
  QzThreadWithEventQueue::Stop(q, 1000);
}
void BM_StdPost(benchmark::State& state) {
  Nop nop;
  StdQueue q;
  Produce(state, nop, [&q](IQzEvent* e) { q.Post(e); });
}
void BM_QzSend(benchmark::State& state) {
  Nop nop;
  QzThreadWithEventQueue* q = QzThreadWithEventQueue::Start(0, 0, 0);
  for (auto _ : state) benchmark::DoNotOptimize(q->SendEvent(&nop, 0xFFFFFFFFu));
  QzThreadWithEventQueue::Stop(q, 1000);
}
void BM_StdSend(benchmark::State& state) {
  Nop nop;
  StdQueue q;
  for (auto _ : state) benchmark::DoNotOptimize(q.Send(&nop));
}
BENCHMARK(BM_QzPost)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond)->Repetitions(3);
BENCHMARK(BM_StdPost)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond)->Repetitions(3);
BENCHMARK(BM_QzSend)->UseRealTime()->Repetitions(3);
BENCHMARK(BM_StdSend)->UseRealTime()->Repetitions(3);

// ---- The timer over 10 seconds at 10.3333 ms ---------------------------------------------
struct TimerRun {
  std::vector<std::chrono::steady_clock::time_point> ticks;
  unsigned Tick() {
    ticks.push_back(std::chrono::steady_clock::now());
    return 0;
  }
};

// Processor time of the whole machine, from the first line of /proc/stat.
struct CpuTimes {
  unsigned long long busy = 0, total = 0;
};
CpuTimes ReadCpuTimes() {
  CpuTimes t;
  FILE* f = std::fopen("/proc/stat", "r");
  if (f == nullptr) return t;
  unsigned long long v[8] = {};
  if (std::fscanf(f, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6],
                  &v[7]) == 8) {
    for (unsigned long long x : v) t.total += x;
    t.busy = t.total - v[3] - v[4];  // all but idle and waiting for input/output
  }
  std::fclose(f);
  return t;
}

struct TimerFigures {
  long ticks = 0;
  double exactCount = 0;   // ticks the exact period gives over the span they cover
  double rateError = 0;    // %, of the period fitted through every tick
  double spanError = 0;    // %, of the period from the first and last ticks alone
  double lateMedian = -1, late99 = -1;  // ms
  double busy = -1;        // share of the machine's processor time in use meanwhile
};
TimerFigures g_timer;

void BM_TimerRate(benchmark::State& state) {
  for (auto _ : state) {
    TimerRun run;
    run.ticks.reserve(2000);
    QzTimer timer;
    timer.SetTimerCallback(QzThread::Procedure::FromMember<TimerRun, &TimerRun::Tick>(&run));
    const CpuTimes before = ReadCpuTimes();
    timer.Start(10);
    timer.AdjustRate(3333);  // 10.3333 ms, taken at the first deadline worked out
    std::this_thread::sleep_for(std::chrono::seconds(10));
    timer.Shutdown();
    const CpuTimes after = ReadCpuTimes();
    if (run.ticks.size() < 3) {
      state.SkipWithError("the timer hardly ticked");
      return;
    }
    // Ticks after the first stand on exact multiples of the period from it.
    const double period = 10.3333;
    const auto first = run.ticks[1];
    const size_t n = run.ticks.size() - 1;
    std::vector<double> at(n);
    for (size_t i = 0; i < n; ++i) at[i] = std::chrono::duration<double, std::milli>(run.ticks[i + 1] - first).count();
    // Each tick is late by its own wake-up and by up to 1 ms of the millisecond
    // clock its deadline is set on; from the first and last ticks alone that
    // noise is as large as the goal, so the rate is the slope fitted through all.
    double meanX = double(n - 1) / 2, meanY = 0;
    for (double y : at) meanY += y / double(n);
    double sxy = 0, sxx = 0;
    for (size_t i = 0; i < n; ++i) {
      sxy += (double(i) - meanX) * (at[i] - meanY);
      sxx += (double(i) - meanX) * (double(i) - meanX);
    }
    TimerFigures f;
    f.ticks = long(n);
    f.exactCount = at.back() / period + 1;
    f.rateError = 100.0 * (sxy / sxx - period) / period;
    f.spanError = 100.0 * (at.back() / double(n - 1) - period) / period;
    std::vector<double> late(n);
    for (size_t i = 0; i < n; ++i) late[i] = at[i] - double(i) * period;
    // The lateness of a tick is against its deadline on the millisecond clock,
    // which lies up to 1 ms before the exact one; take the earliest as the zero.
    const double zero = *std::min_element(late.begin(), late.end());
    for (double& l : late) l -= zero;
    std::sort(late.begin(), late.end());
    f.lateMedian = late[late.size() / 2];
    f.late99 = late[late.size() * 99 / 100];
    if (after.total > before.total) f.busy = double(after.busy - before.busy) / double(after.total - before.total);
    g_timer = f;
    state.counters["ticks"] = double(f.ticks);
  }
}
BENCHMARK(BM_TimerRate)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

std::string Text(const char* format, double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, format, v);
  return buf;
}

void Declare(qzbench::Report& r) {
  const qzbench::Goal goal("at least the baseline's throughput", {qzbench::RatioAtMost(1.0)});
  qzbench::Table& q = r.AddTable("The event queue against a std::mutex + std::condition_variable queue",
                                 qzbench::Ratio::kTime, {"std queue"}, "per event", 100000);
  q.Row("post + execute, 1 producer", "BM_QzPost/1/real_time", {"BM_StdPost/1/real_time"}, goal);
  q.Row("post + execute, 2 producers", "BM_QzPost/2/real_time", {"BM_StdPost/2/real_time"}, goal);
  q.Row("SendEvent round trip", "BM_QzSend/real_time", {"BM_StdSend/real_time"}, goal, 1);
  if (g_timer.ticks == 0) return;

  const TimerFigures& f = g_timer;
  // The machine counts as idle when under a tenth of its processor time was
  // in use while the timer ran (the program itself only sleeps then).
  std::string busy;
  if (f.busy >= 0.10) busy = Text("the machine was busy: %.0f%% of its processor time in use", 100 * f.busy);
  qzbench::Table& t = r.AddTable("The timer at 10.3333 ms for 10 s", qzbench::Ratio::kTime, {}, "");
  t.Value("rate error (period fitted through every tick)", std::fabs(f.rateError), Text("%+.5f %%", f.rateError),
          qzbench::Goal("rate error below 0.01%", {qzbench::OursBelow(0.01)}));
  t.Value("rate error from the first and last ticks alone", std::fabs(f.spanError), Text("%+.5f %%", f.spanError));
  t.Value("ticks, against the exact count over their span", double(f.ticks),
          std::to_string(f.ticks) + Text(" (exact %.2f)", f.exactCount));
  t.Value("wake-up lateness, median", f.lateMedian, Text("%.3f ms", f.lateMedian));
  t.Value("wake-up lateness, 99th percentile", f.late99, Text("%.3f ms", f.late99),
          qzbench::Goal("99th percentile under 1 ms on an idle machine", {qzbench::OursBelow(1.0)}, busy));
  if (f.busy >= 0) t.Value("processor time of the machine in use meanwhile", f.busy, Text("%.0f %%", 100 * f.busy));
}

}  // namespace

int main(int argc, char** argv) { return qzbench::Run(argc, argv, qzbench::Clock::kReal, Declare); }
