// Event-queue throughput and send round trips against a plain std::mutex +
// std::condition_variable queue, and the timer's long-run rate and lateness.
#include <qzbase/qzbase.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
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
double g_rateError = -1, g_lateMedian = -1, g_late99 = -1;
long g_ticks = 0, g_expected = 0;

void BM_TimerRate(benchmark::State& state) {
  for (auto _ : state) {
    TimerRun run;
    run.ticks.reserve(2000);
    QzTimer timer;
    timer.SetTimerCallback(QzThread::Procedure::FromMember<TimerRun, &TimerRun::Tick>(&run));
    timer.Start(10);
    timer.AdjustRate(3333);  // 10.3333 ms, taken at the first deadline worked out
    auto begun = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(10));
    timer.Shutdown();
    // Ticks after the first stand on exact multiples of the period from it.
    const double period = 10.3333;
    const auto first = run.ticks.size() > 2 ? run.ticks[1] : begun;
    const double span = std::chrono::duration<double, std::milli>(run.ticks.back() - first).count();
    std::vector<double> late;
    for (size_t i = 1; i < run.ticks.size(); ++i) {
      double at = std::chrono::duration<double, std::milli>(run.ticks[i] - first).count();
      double ideal = double(i - 1) * period;
      late.push_back(at - ideal);
    }
    // The lateness of a tick is against its deadline on the millisecond clock,
    // which lies up to 1 ms before the exact one; take the earliest as the zero.
    double zero = *std::min_element(late.begin(), late.end());
    for (double& l : late) l -= zero;
    std::sort(late.begin(), late.end());
    g_ticks = long(run.ticks.size()) - 1;
    g_expected = long(span / period) + 1;
    g_rateError = 100.0 * (span / double(g_ticks - 1) - period) / period;
    g_lateMedian = late[late.size() / 2];
    g_late99 = late[late.size() * 99 / 100];
    state.counters["ticks"] = double(g_ticks);
  }
}
BENCHMARK(BM_TimerRate)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

void Table(const qzbench::Times& t) {
  std::printf("\nqzbase / std::mutex+condition_variable queue (time ratio, below 1 is faster):\n");
  std::printf("  post + execute, 1 producer : %s\n", t.Ratio("BM_QzPost/1/real_time", "BM_StdPost/1/real_time").c_str());
  std::printf("  post + execute, 2 producers: %s\n", t.Ratio("BM_QzPost/2/real_time", "BM_StdPost/2/real_time").c_str());
  std::printf("  SendEvent round trip       : %s\n", t.Ratio("BM_QzSend/real_time", "BM_StdSend/real_time").c_str());
  if (g_ticks > 0) {
    std::printf("\ntimer at 10.3333 ms for 10 s: %ld ticks, rate error %.5f%% (goal below 0.01%%),\n", g_ticks,
                g_rateError);
    std::printf("  lateness median %.3f ms, 99th percentile %.3f ms (goal below 1 ms on an idle machine)\n",
                g_lateMedian, g_late99);
  }
}

}  // namespace

int main(int argc, char** argv) { return qzbench::Run(argc, argv, qzbench::Clock::kReal, &Table); }
