// Pool allocation against the C library's malloc, jemalloc and mimalloc, all
// driven by the same workload code through one pair of function pointers.
//
// jemalloc and mimalloc both export `malloc` and would replace the C
// library's if linked; they are loaded with dlopen(RTLD_LOCAL) instead and
// called through the symbols of their own handles. jemalloc needs more static
// TLS than glibc keeps for late loads, so the program starts itself again with
// a larger reserve (GLIBC_TUNABLES) when the first load fails.
//
// At the end a table gives the time of one allocation and its free for each
// allocator and the ratio of each peer's time to ours (above 1: ours is faster).
#include "QzBenchReport.h"

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <qzbase/QzMempool.h>

namespace {

struct Allocator {
  const char* name;
  void* (*alloc)(size_t);
  void (*release)(void*);
};

void* QzAlloc(size_t n) { return Qz_MempoolAlloc(nullptr, n); }
void QzFree(void* p) { Qz_MempoolFree(nullptr, p); }
void* LibcAlloc(size_t n) { return malloc(n); }
void LibcFree(void* p) { free(p); }

std::vector<Allocator> g_allocators;

void LoadPeers(char** argv) {
  g_allocators.push_back({"qzbase", QzAlloc, QzFree});
  g_allocators.push_back({"libc", LibcAlloc, LibcFree});
  void* je = dlopen("libjemalloc.so.2", RTLD_NOW | RTLD_LOCAL);
  if (je == nullptr && getenv("QZ_BENCH_REEXEC") == nullptr) {
    setenv("GLIBC_TUNABLES", "glibc.rtld.optional_static_tls=65536", 1);
    setenv("QZ_BENCH_REEXEC", "1", 1);
    execv("/proc/self/exe", argv);
  }
  if (je != nullptr) {
    auto a = reinterpret_cast<void* (*)(size_t)>(dlsym(je, "malloc"));
    auto f = reinterpret_cast<void (*)(void*)>(dlsym(je, "free"));
    if (a && f) g_allocators.push_back({"jemalloc", a, f});
  } else {
    fprintf(stderr, "jemalloc not loaded: %s\n", dlerror());
  }
  void* mi = dlopen("libmimalloc.so.2", RTLD_NOW | RTLD_LOCAL);
  if (mi != nullptr) {
    auto a = reinterpret_cast<void* (*)(size_t)>(dlsym(mi, "mi_malloc"));
    auto f = reinterpret_cast<void (*)(void*)>(dlsym(mi, "mi_free"));
    if (a && f) g_allocators.push_back({"mimalloc", a, f});
  } else {
    fprintf(stderr, "mimalloc not loaded: %s\n", dlerror());
  }
}

std::vector<size_t> SmallSizes(size_t n) {
  std::mt19937 rng(12345);
  std::vector<size_t> sizes(n);
  for (auto& s : sizes) s = 16 + rng() % (512 - 16 + 1);
  return sizes;
}

inline void Touch(void* p) { *static_cast<volatile char*>(p) = 1; }

// Allocates a batch of random small blocks, then frees them newest first.
void ChurnLifo(benchmark::State& state, const Allocator* a) {
  const std::vector<size_t> sizes = SmallSizes(4096);
  std::vector<void*> live(256);
  size_t k = 0;
  for (auto _ : state) {
    for (auto& p : live) {
      p = a->alloc(sizes[k++ & 4095]);
      Touch(p);
    }
    for (size_t i = live.size(); i-- > 0;) a->release(live[i]);
  }
  state.SetItemsProcessed(state.iterations() * live.size());
}

// A ring of live blocks: each step frees the oldest and allocates anew.
void ChurnFifo(benchmark::State& state, const Allocator* a) {
  const std::vector<size_t> sizes = SmallSizes(4096);
  std::vector<void*> ring(1024);
  for (size_t i = 0; i < ring.size(); ++i) ring[i] = a->alloc(sizes[i]);
  size_t k = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < 256; ++i) {
      void*& slot = ring[k & 1023];
      a->release(slot);
      slot = a->alloc(sizes[k++ & 4095]);
      Touch(slot);
    }
  }
  for (void* p : ring) a->release(p);
  state.SetItemsProcessed(state.iterations() * 256);
}

// The same size allocated and freed at once: the cache's best case.
void CacheHitPair(benchmark::State& state, const Allocator* a) {
  for (auto _ : state) {
    for (int i = 0; i < 256; ++i) {
      void* p = a->alloc(64);
      benchmark::DoNotOptimize(p);
      a->release(p);
    }
  }
  state.SetItemsProcessed(state.iterations() * 256);
}

// One thread allocates, the other frees, through a single-producer ring.
void ProducerConsumer(benchmark::State& state, const Allocator* a) {
  constexpr size_t kRing = 4096;
  const std::vector<size_t> sizes = SmallSizes(4096);
  std::vector<std::atomic<void*>> ring(kRing);
  for (auto& r : ring) r.store(nullptr);
  std::atomic<bool> stop{false};
  std::thread consumer([&] {
    size_t tail = 0;
    for (;;) {
      void* p = ring[tail & (kRing - 1)].exchange(nullptr, std::memory_order_acquire);
      if (p == nullptr) {
        if (stop.load(std::memory_order_acquire)) {
          if (ring[tail & (kRing - 1)].load(std::memory_order_acquire) == nullptr) break;
          continue;
        }
        std::this_thread::yield();
        continue;
      }
      a->release(p);
      ++tail;
    }
  });
  size_t head = 0;
  for (auto _ : state) {
    for (int i = 0; i < 256; ++i) {
      void* p = a->alloc(sizes[head & 4095]);
      Touch(p);
      std::atomic<void*>& slot = ring[head & (kRing - 1)];
      while (slot.load(std::memory_order_acquire) != nullptr) std::this_thread::yield();
      slot.store(p, std::memory_order_release);
      ++head;
    }
  }
  stop.store(true, std::memory_order_release);
  consumer.join();
  state.SetItemsProcessed(state.iterations() * 256);
}

// Blocks from 192 KiB to 320 KiB, across the default direct-mapping
// threshold of 256 KiB, four alive at a time, each written once per page.
void LargeBlocks(benchmark::State& state, const Allocator* a) {
  std::mt19937 rng(7);
  std::vector<size_t> sizes(64);
  for (auto& s : sizes) s = (192 << 10) + rng() % (128 << 10);
  void* live[4] = {};
  size_t k = 0;
  for (auto _ : state) {
    void*& slot = live[k & 3];
    if (slot) a->release(slot);
    const size_t n = sizes[k++ & 63];
    slot = a->alloc(n);
    for (size_t off = 0; off < n; off += 4096) static_cast<char*>(slot)[off] = 1;
  }
  for (void*& p : live)
    if (p) a->release(p);
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

int main(int argc, char** argv) {
  LoadPeers(argv);
  const struct {
    const char* name;
    void (*fn)(benchmark::State&, const Allocator*);
    bool threaded;
    double ops;  // allocations (each with its free) in one iteration
  } workloads[] = {
      {"churn_lifo", ChurnLifo, false, 256},          {"churn_fifo", ChurnFifo, false, 256},
      {"cache_hit_pair", CacheHitPair, false, 256},   {"producer_consumer", ProducerConsumer, true, 256},
      {"large_blocks", LargeBlocks, false, 1},
  };
  for (const auto& w : workloads)
    for (const Allocator& a : g_allocators) {
      auto* b = benchmark::RegisterBenchmark((std::string(w.name) + "/" + a.name).c_str(), w.fn, &a);
      if (w.threaded) b->UseRealTime();
    }
  return qzbench::Run(argc, argv, qzbench::Clock::kCpu, [&](qzbench::Report& r) {
    std::vector<std::string> peers;
    int libc = -1, mimalloc = -1;
    for (const Allocator& a : g_allocators) {
      if (strcmp(a.name, "qzbase") == 0) continue;
      if (strcmp(a.name, "libc") == 0) libc = int(peers.size());
      if (strcmp(a.name, "mimalloc") == 0) mimalloc = int(peers.size());
      peers.push_back(a.name);
    }
    qzbench::Table& t = r.AddTable("Allocation and free against the C library's malloc, jemalloc and mimalloc",
                                   qzbench::Ratio::kSpeed, peers, "per allocation and its free");
    for (const auto& w : workloads) {
      std::vector<std::string> names;
      for (const std::string& p : peers) names.push_back(std::string(w.name) + "/" + p);
      std::string ours = std::string(w.name) + "/qzbase";
      if (w.threaded) {
        ours += "/real_time";
        for (std::string& n : names) n += "/real_time";
      }
      std::vector<qzbench::Check> checks{qzbench::RatioAbove(1.0, libc)};
      std::string goal = "faster than the C library's malloc";
      if (strcmp(w.name, "cache_hit_pair") == 0) {
        checks.push_back(qzbench::RatioAtLeast(1.0, mimalloc));
        goal += ", and at least as fast as mimalloc";
      }
      t.Row(w.name, ours, names, qzbench::Goal(goal, checks), w.ops);
    }
  });
}
