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

// One thread's share of work on `pool`: allocate, free, reallocate, and hand
// blocks to other threads, every block carrying a pattern that is checked
// before it goes. Returns the number of faults seen.
int Churn(QzMempool* pool, uint32_t seed, int ops, Exchange* exchange) {
  std::mt19937 rng(seed);
  std::vector<Live> live;
  uint32_t nextId = seed * 1000003u;
  int errors = 0;
  auto check = [&](const Live& l) { errors += !Holds(l.block, l.size, l.id) || Qz_MemblkSize(l.block) < l.size; };
  for (int op = 0; op < ops; ++op) {
    const unsigned what = rng() % 100;
    if (what < 40 || live.empty()) {
      Live l{nullptr, PickSize(rng), ++nextId};
      if ((l.block = Qz_MempoolAlloc(pool, l.size)) == nullptr) return errors + 1;
      Fill(l.block, l.size, l.id);
      live.push_back(l);
    } else if (what < 75) {
      const size_t i = rng() % live.size();
      check(live[i]);
      if (rng() % 3 == 0) {
        std::lock_guard<std::mutex> g(exchange->lock);
        exchange->blocks.push_back(live[i]);
      } else {
        Qz_MempoolFree(pool, live[i].block);
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
      l = {moved, size, l.id};
      Fill(l.block, l.size, l.id);
    } else {
      std::lock_guard<std::mutex> g(exchange->lock);
      if (exchange->blocks.empty()) continue;
      live.push_back(exchange->blocks.back());  // adopted: reallocated or freed here later
      exchange->blocks.pop_back();
      check(live.back());
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
        errors += Churn(pool, 1000u * r.threads + t, 12000, &exchange);
        // The others leave their caches to the pool's end.
        if (t % 2 || pool == nullptr) Qz_MempoolDisableThreadCache(pool);
      });
    for (auto& w : workers) w.join();
    EXPECT_EQ(errors.load(), 0) << r.threads;
    for (const Live& l : exchange.blocks) {
      EXPECT_TRUE(Holds(l.block, l.size, l.id));
      Qz_MempoolFree(pool, l.block);
    }
    EXPECT_EQ(PoolProblem(pool), "");
    Qz_DestroyMempool(pool);
  }
}
