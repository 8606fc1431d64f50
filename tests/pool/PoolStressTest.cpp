#include <random>

#include "PoolTestSupport.h"

namespace {

struct Live { void* block; size_t size; uint32_t id; };
// Blocks handed between threads, taken by whichever thread comes next.
struct Exchange { std::mutex lock; std::vector<Live> blocks; };

// Sizes: mostly small, some around the cache limit, a few mapped directly.
size_t PickSize(std::mt19937& rng) {
  const unsigned r = rng() % 1000;
  return r < 700 ? rng() % 300 : r < 950 ? rng() % (2 * MAXR + 100) : r < 995 ? rng() % (200 << 10) : (256 << 10) + rng() % (400 << 10);
}

// One thread's share of work on `pool`: allocate, free, reallocate and align,
// every block carrying a pattern that is checked before it goes. Returns the
// number of faults seen.
int Churn(QzMempool* pool, uint32_t seed, int ops, Exchange* exchange, int checkEvery) {
  std::mt19937 rng(seed);
  std::vector<Live> live;
  uint32_t nextId = seed * 1000003u;
  int errors = 0;
  auto check = [&](const Live& l) { errors += !Holds(l.block, l.size, l.id) || Qz_MemblkSize(l.block) < l.size; };
  std::string problem;
  for (int op = 0; op < ops; ++op) {
    if (op % checkEvery == 0 && !(problem = PoolProblem(pool)).empty()) {
      ADD_FAILURE() << "seed " << seed << " op " << op << ": " << problem;
      return errors + 1;
    }
    const unsigned what = rng() % 100;
    if (what < 40 || live.empty()) {
      Live l{nullptr, PickSize(rng), ++nextId};
      const size_t align = rng() % 10 == 0 ? size_t(8) << (rng() % 10) : 0;
      l.block = align != 0 ? Qz_MempoolAlignedAlloc(pool, align, l.size) : Qz_MempoolAlloc(pool, l.size);
      if (l.block == nullptr || (align != 0 && reinterpret_cast<uintptr_t>(l.block) % align != 0)) return errors + 1;
      Fill(l.block, l.size, l.id);
      live.push_back(l);
    } else if (what < 75) {
      const size_t i = rng() % live.size();
      check(live[i]);
      if (exchange != nullptr && rng() % 3 == 0) {
        std::lock_guard<std::mutex> g(exchange->lock);
        exchange->blocks.push_back(live[i]);
      } else {
        (rng() % 2 ? Qz_MempoolFree : Qz_MempoolAlignedFree)(pool, live[i].block);
      }
      live[i] = live.back();
      live.pop_back();
    } else if (what < 90) {
      Live& l = live[rng() % live.size()];
      check(l);
      const size_t size = PickSize(rng);
      void* moved = Qz_MempoolRealloc(pool, l.block, size);
      if (moved == nullptr) return errors + 1;
      errors += !Holds(moved, size < l.size ? size : l.size, l.id);
      l.block = moved;
      l.size = size;
      Fill(l.block, l.size, l.id);
    } else if (exchange != nullptr) {
      Live l{};
      {
        std::lock_guard<std::mutex> g(exchange->lock);
        if (exchange->blocks.empty()) continue;
        l = exchange->blocks.back();
        exchange->blocks.pop_back();
      }
      check(l);
      live.push_back(l);  // adopted: reallocated or freed here later
    }
  }
  for (const Live& l : live) {
    check(l);
    Qz_MempoolFree(pool, l.block);
  }
  return errors;
}

}  // namespace


TEST(PoolStress, ThreadsShareBlocksAndThePoolEndsAfterThem) {
  // A null heap limit stands for the default pool, which is never destroyed.
  const struct { int threads, heapLimit; } rows[] = {{4, 0}, {8, 3}};
  for (const auto& r : rows) {
    QzMempool* pool = r.heapLimit != 0 ? Qz_CreateMempool(0, r.heapLimit) : nullptr;
    Exchange exchange;
    std::atomic<int> errors{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < r.threads; ++t)
      workers.emplace_back([&, t] {
        errors += Churn(pool, 1000u * r.threads + t, 12000, &exchange, 499);
        // The others leave their caches to the pool's end.
        if (t % 2 || pool == nullptr) Qz_MempoolDisableThreadCache(pool);
      });
    for (auto& w : workers) w.join();
    EXPECT_EQ(errors.load(), 0) << r.threads;
    for (const Live& l : exchange.blocks) {
      EXPECT_TRUE(Holds(l.block, l.size, l.id));
      Qz_MempoolFree(pool, l.block);
    }
    Qz_DestroyMempool(pool);
  }
}
