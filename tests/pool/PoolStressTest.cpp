#include <gtest/gtest.h>

#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "PoolTestSupport.h"
#include "QzTestSupport.h"

using namespace pooltest;

namespace {

struct Live {
  void* block;
  size_t size;
  uint32_t id;
};

// Sizes: mostly small, some around the cache limit, a few mapped directly.
size_t PickSize(std::mt19937& rng) {
  const unsigned r = rng() % 1000;
  if (r < 700) return rng() % 300;
  if (r < 950) return rng() % (2 * QZ_CACHE_MAX_REQUEST + 100);
  if (r < 995) return rng() % (200 << 10);
  return (256 << 10) + rng() % (400 << 10);
}

// One thread's share of work on `pool`: allocate, free, reallocate and align,
// with every block carrying a pattern that is checked before it goes. Blocks
// are handed to other threads through `exchange` when one is given.
void Churn(QzMempool* pool, uint32_t seed, int ops, std::mutex* lock, std::vector<Live>* exchange,
           std::atomic<int>* errors, int checkEvery = 0) {
  std::mt19937 rng(seed);
  std::vector<Live> live;
  uint32_t nextId = seed * 1000003u;
  auto check = [&](const Live& l) {
    if (!Holds(l.block, l.size, l.id)) errors->fetch_add(1);
    if (Qz_MemblkSize(l.block) < l.size) errors->fetch_add(1);
  };
  std::string lastOp;
  for (int op = 0; op < ops; ++op) {
    if (checkEvery != 0 && op % checkEvery == 0) {
      std::string problem = PoolProblem(pool);
      if (!problem.empty()) {
        ADD_FAILURE() << "op " << op << " after " << lastOp << ": " << problem;
        errors->fetch_add(1);
        return;
      }
    }
    const unsigned what = rng() % 100;
    if (what < 40 || live.empty()) {
      Live l{nullptr, PickSize(rng), ++nextId};
      const unsigned how = rng() % 10;
      lastOp = "alloc " + std::to_string(how) + " " + std::to_string(l.size);
      if (how == 0) {
        size_t align = size_t(8) << (rng() % 10);
        l.block = Qz_MempoolAlignedAlloc(pool, align, l.size);
        if (l.block != nullptr && reinterpret_cast<uintptr_t>(l.block) % align != 0) errors->fetch_add(1);
      } else if (how == 1) {
        l.block = Qz_MempoolCalloc(pool, 1, l.size);
        for (size_t i = 0; l.block && i < l.size; ++i)
          if (static_cast<unsigned char*>(l.block)[i] != 0) {
            errors->fetch_add(1);
            break;
          }
      } else {
        l.block = Qz_MempoolAlloc(pool, l.size);
      }
      if (l.block == nullptr) {
        errors->fetch_add(1);
        continue;
      }
      Fill(l.block, l.size, l.id);
      live.push_back(l);
    } else if (what < 75) {
      const size_t i = rng() % live.size();
      check(live[i]);
      if (exchange != nullptr && rng() % 3 == 0) {
        std::lock_guard<std::mutex> g(*lock);
        exchange->push_back(live[i]);
      } else if (rng() % 2) {
        Qz_MempoolFree(pool, live[i].block);
      } else {
        Qz_MempoolAlignedFree(pool, live[i].block);
      }
      live[i] = live.back();
      live.pop_back();
    } else if (what < 90) {
      Live& l = live[rng() % live.size()];
      check(l);
      const size_t size = PickSize(rng);
      lastOp = "realloc " + std::to_string(l.size) + " -> " + std::to_string(size);
      void* moved = Qz_MempoolRealloc(pool, l.block, size);
      if (moved == nullptr) {
        errors->fetch_add(1);
        continue;
      }
      l.block = moved;
      const size_t kept = size < l.size ? size : l.size;
      if (!Holds(moved, kept, l.id)) errors->fetch_add(1);
      l.size = size;
      Fill(l.block, l.size, l.id);
    } else if (exchange != nullptr) {
      Live l{};
      {
        std::lock_guard<std::mutex> g(*lock);
        if (exchange->empty()) continue;
        l = exchange->back();
        exchange->pop_back();
      }
      check(l);
      if (rng() % 2) {
        Qz_MempoolFree(pool, l.block);
      } else {
        live.push_back(l);  // adopted: realloc'd or freed here later
      }
    }
  }
  for (const Live& l : live) {
    check(l);
    Qz_MempoolFree(pool, l.block);
  }
}

}  // namespace

TEST(PoolStress, LongRandomSequenceOnOneThread) {
  QzMempool* pool = Qz_CreateMempool(0, 4);
  ASSERT_NE(pool, nullptr);
  std::atomic<int> errors{0};
  for (uint32_t round = 0; round < 4; ++round) {
    Churn(pool, 17 + round, 50000, nullptr, nullptr, &errors, round == 0 ? 7 : 101);
    ASSERT_EQ(errors.load(), 0) << "round " << round;
  }
  Qz_DestroyMempool(pool);
}

TEST(PoolStress, LongRandomSequenceOnTheDefaultPool) {
  std::atomic<int> errors{0};
  Churn(nullptr, 99, 60000, nullptr, nullptr, &errors);
  EXPECT_EQ(errors.load(), 0);
}

TEST(PoolStress, ThreadsShareBlocksAndThePoolEndsAfterThem) {
  for (int threads : {2, 4, 8}) {
    QzMempool* pool = Qz_CreateMempool(0, threads == 8 ? 3 : 16);
    ASSERT_NE(pool, nullptr);
    std::mutex lock;
    std::vector<Live> exchange;
    std::atomic<int> errors{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
      workers.emplace_back([&, t] {
        Churn(pool, 1000u * threads + t, 12000, &lock, &exchange, &errors, 499);
        if (t % 2) Qz_MempoolDisableThreadCache(pool);  // the others leave theirs to the pool's end
      });
    }
    for (auto& w : workers) w.join();
    EXPECT_EQ(errors.load(), 0) << threads;
    // Leftovers in the exchange are freed by this thread, then the pool goes.
    for (const Live& l : exchange) {
      EXPECT_TRUE(Holds(l.block, l.size, l.id));
      Qz_MempoolFree(pool, l.block);
    }
    EXPECT_LE(HeapCount(pool), pool->heapLimit.load());
    Qz_DestroyMempool(pool);
  }
}

TEST(PoolStress, ThreadsOnTheDefaultPoolWithHandOffs) {
  std::mutex lock;
  std::vector<Live> exchange;
  std::atomic<int> errors{0};
  std::vector<std::thread> workers;
  for (int t = 0; t < 4; ++t)
    workers.emplace_back([&, t] {
      Churn(nullptr, 777u + t, 15000, &lock, &exchange, &errors);
      Qz_MempoolDisableThreadCache(nullptr);
    });
  for (auto& w : workers) w.join();
  EXPECT_EQ(errors.load(), 0);
  for (const Live& l : exchange) Qz_MempoolFree(nullptr, l.block);
}

TEST(PoolStress, ManyShortThreadsReuseCacheSlots) {
  QzMempool* pool = Qz_CreateMempool(0, 2);
  ASSERT_NE(pool, nullptr);
  // More threads than cache slots over time; each gives its slot back.
  for (int round = 0; round < 20; ++round) {
    std::vector<std::thread> ts;
    for (int t = 0; t < 16; ++t)
      ts.emplace_back([pool] {
        void* b = Qz_MempoolAlloc(pool, 40);
        Qz_MempoolFree(pool, b);
        Qz_MempoolDisableThreadCache(pool);
      });
    for (auto& t : ts) t.join();
  }
  int used = 0;
  for (auto& c : pool->caches) used += c.load() != nullptr;
  EXPECT_EQ(used, 0);
  Qz_DestroyMempool(pool);
}

TEST(PoolStress, ThreadsBeyondTheCacheSlotsGoOnWithoutACache) {
  QzMempool* pool = Qz_CreateMempool(0, 16);
  ASSERT_NE(pool, nullptr);
  // Threads that end without giving their cache back keep their slots.
  for (unsigned i = 0; i < QZ_POOL_MAX_CACHES; ++i)
    OnNewThread([pool] { Qz_MempoolFree(pool, Qz_MempoolAlloc(pool, 20)); });
  OnNewThread([pool] {
    void* b = Qz_MempoolAlloc(pool, 1100);
    EXPECT_NE(b, nullptr);
    EXPECT_EQ(MyCache(pool), nullptr);
    EXPECT_EQ(QzPoolSlotValue(pool), -1);
    EXPECT_LT(Qz_MemblkSize(b), 2048u);
    Qz_MempoolFree(pool, b);
  });
  Qz_DestroyMempool(pool);
}
