// Sync objects against the standard library and the C library's semaphores:
// - a lock taken and left, from one thread and from two sharing it;
// - a semaphore given and taken on one thread (no sleep);
// - a round trip between two threads, each waking the other in turn, which
//   measures the cost of one sleep and one wake-up on each side.
// Wall time per operation; the table gives peer time / qzbase time (above 1:
// qzbase is faster). No issue set a goal here.
#include "QzBenchReport.h"

#include <benchmark/benchmark.h>
#include <qzbase/qzbase.h>
#include <semaphore.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

struct Section {
  QzCriticalSection cs;
  Section() { Qz_InitializeCriticalSection(&cs); }
  ~Section() { Qz_DeleteCriticalSection(&cs); }
};

Section g_section;
std::mutex g_mutex;
std::recursive_mutex g_recursive;
long g_counter = 0;

void LockQz(benchmark::State& state) {
  for (auto _ : state) {
    Qz_EnterCriticalSection(&g_section.cs);
    benchmark::DoNotOptimize(++g_counter);
    Qz_LeaveCriticalSection(&g_section.cs);
  }
}

void LockStdMutex(benchmark::State& state) {
  for (auto _ : state) {
    std::lock_guard<std::mutex> hold(g_mutex);
    benchmark::DoNotOptimize(++g_counter);
  }
}

void LockStdRecursive(benchmark::State& state) {
  for (auto _ : state) {
    std::lock_guard<std::recursive_mutex> hold(g_recursive);
    benchmark::DoNotOptimize(++g_counter);
  }
}

void SemaphoreQz(benchmark::State& state) {
  QzThreadSemaphore semaphore;
  for (auto _ : state) {
    semaphore.Unlock();
    semaphore.Lock(0xFFFFFFFFu);
  }
}

void SemaphorePosix(benchmark::State& state) {
  sem_t semaphore;
  sem_init(&semaphore, 0, 0);
  for (auto _ : state) {
    sem_post(&semaphore);
    sem_wait(&semaphore);
  }
  sem_destroy(&semaphore);
}

// A partner thread answers every ping with a pong until told to stop.
template <class Pair>
void RoundTrip(benchmark::State& state) {
  Pair pair;
  std::atomic<bool> stop{false};
  std::thread partner([&] {
    for (;;) {
      pair.WaitPing();
      if (stop.load()) return;
      pair.Pong();
    }
  });
  for (auto _ : state) {
    pair.Ping();
    pair.WaitPong();
  }
  stop.store(true);
  pair.Ping();
  partner.join();
}

struct QzEvents {
  QzThreadEvent ping, pong;
  void Ping() { ping.Signal(); }
  void Pong() { pong.Signal(); }
  void WaitPing() { ping.Wait(0xFFFFFFFFu); }
  void WaitPong() { pong.Wait(0xFFFFFFFFu); }
};

struct PosixSemaphores {
  sem_t ping, pong;
  PosixSemaphores() { sem_init(&ping, 0, 0); sem_init(&pong, 0, 0); }
  ~PosixSemaphores() { sem_destroy(&ping); sem_destroy(&pong); }
  void Ping() { sem_post(&ping); }
  void Pong() { sem_post(&pong); }
  void WaitPing() { while (sem_wait(&ping) != 0) {} }
  void WaitPong() { while (sem_wait(&pong) != 0) {} }
};

struct StdConditions {
  std::mutex mutex;
  std::condition_variable cv;
  int turn = 0;  // 1: ping pending, 2: pong pending
  void Set(int t) { { std::lock_guard<std::mutex> hold(mutex); turn = t; } cv.notify_all(); }
  void Await(int t) { std::unique_lock<std::mutex> hold(mutex); cv.wait(hold, [&] { return turn == t; }); turn = 0; }
  void Ping() { Set(1); }
  void Pong() { Set(2); }
  void WaitPing() { Await(1); }
  void WaitPong() { Await(2); }
};

BENCHMARK(LockQz)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(LockStdMutex)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(LockStdRecursive)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(SemaphoreQz)->UseRealTime();
BENCHMARK(SemaphorePosix)->UseRealTime();
BENCHMARK_TEMPLATE(RoundTrip, QzEvents)->UseRealTime();
BENCHMARK_TEMPLATE(RoundTrip, PosixSemaphores)->UseRealTime();
BENCHMARK_TEMPLATE(RoundTrip, StdConditions)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return qzbench::Run(argc, argv, qzbench::Clock::kReal, [](qzbench::Report& r) {
    const qzbench::Goal none("no goal set");
    qzbench::Table& t = r.AddTable("Sync objects against the standard library and the C library",
                                   qzbench::Ratio::kSpeed, {"std peer", "C library peer"}, "per operation");
    for (const char* th : {"1", "2"}) {
      const std::string s = std::string("/real_time/threads:") + th;
      const std::string threads = std::string(th) + (th[0] == '1' ? " thread" : " threads");
      t.Row("lock + unlock, " + threads + " (std::mutex)", "LockQz" + s, {"LockStdMutex" + s, ""}, none);
      t.Row("lock + unlock, " + threads + " (std::recursive_mutex)", "LockQz" + s, {"LockStdRecursive" + s, ""}, none);
    }
    t.Row("semaphore give + take (sem_t)", "SemaphoreQz/real_time", {"", "SemaphorePosix/real_time"}, none);
    t.Row("round trip between threads (condition_variable, sem_t)", "RoundTrip<QzEvents>/real_time",
          {"RoundTrip<StdConditions>/real_time", "RoundTrip<PosixSemaphores>/real_time"}, none);
  });
}
