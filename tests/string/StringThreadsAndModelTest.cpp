// Strings shared between threads, and the editing members against a model.
#include <algorithm>
#include <random>
#include <thread>
#include <vector>

#include "StringTestUtil.h"

using namespace strtest;

TYPED_TEST_SUITE(BothWidths, Widths);

// ---- Threads sharing one block --------------------------------------------------------------------------

TYPED_TEST(BothWidths, ThreadsCopyReadAndDestroyStringsOnOneBlock) {
  typedef TypeParam T;
  const Model<T> expect = L<T>("one block, many owners");
  QzStringT<T> origin(expect.c_str());
  const unsigned kThreads = 4, kRounds = 20000;
  std::vector<std::thread> threads;
  std::vector<unsigned> bad(kThreads, 0);
  for (unsigned t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      QzStringT<T> mine(origin);  // copying from an object nobody changes
      for (unsigned i = 0; i < kRounds; ++i) {
        QzStringT<T> a(mine);
        QzStringT<T> b;
        b = a;
        if (Text(b) != expect) ++bad[t];
        if (i % 7 == 0) {
          b += static_cast<T>('!');  // unshares: the shared block is never written
          if (Text(b).compare(0, expect.size(), expect) != 0) ++bad[t];
        }
        if (i % 11 == 0) {
          QzStringT<T> c(a);
          c.erase(0, 4);
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  for (unsigned t = 0; t < kThreads; ++t) EXPECT_EQ(bad[t], 0u);
  EXPECT_EQ(Refs(origin), 1);
  EXPECT_EQ(Text(origin), expect);
}

TYPED_TEST(BothWidths, LastReleaseOnAnyThreadFreesOnce) {
  typedef TypeParam T;
  // Every round hands copies of a fresh block to threads that drop them in
  // any order; a double free or a lost free shows under the sanitizers.
  for (unsigned round = 0; round < 200; ++round) {
    std::vector<QzStringT<T> > copies(4, Make<T>("handed over"));
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t)
      threads.emplace_back([&copies, t] { QzStringT<T> gone(copies[t]); copies[t] = QzStringT<T>(); });
    for (auto& th : threads) th.join();
  }
  SUCCEED();
}

// ---- The editing members against a model -------------------------------------------------------------------

namespace {

template <typename T>
void ExpectValid(const QzStringT<T>& s, const Model<T>& model, unsigned step) {
  ASSERT_EQ(Text(s), model) << "step " << step;
  const QzInternalStringData* h = H(s);
  ASSERT_EQ(s.c_str()[h->length], 0) << "step " << step;
  if (OnEmptyRecord(s)) return;
  ASSERT_GE(h->refCount, 1);
  ASSERT_GE(h->capacity, h->length);
  ASSERT_EQ((h->capacity + 1) % 8, 0u) << "step " << step;
}

template <typename T>
T Lower(T c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<T>(c | 0x20) : c;
}

template <typename T>
void RunModel(unsigned seed) {
  std::mt19937 rng(seed);
  auto pick = [&rng](unsigned n) { return static_cast<unsigned>(rng() % n); };
  const char alphabet[] = {'a', 'b', 'A', 'c', 0, ' '};
  auto unit = [&] { return static_cast<T>(static_cast<unsigned char>(alphabet[pick(sizeof alphabet)])); };
  auto text = [&](unsigned max) {
    Model<T> m;
    for (unsigned n = pick(max + 1); n; --n) m.push_back(unit());
    return m;
  };

  QzStringT<T> s;
  Model<T> model;
  std::vector<std::pair<QzStringT<T>, Model<T> > > holders;  // other owners of old blocks
  for (unsigned step = 0; step < 3000; ++step) {
    if (pick(4) == 0) holders.emplace_back(s, model);
    if (holders.size() > 6) holders.erase(holders.begin() + pick(static_cast<unsigned>(holders.size())));
    unsigned len = static_cast<unsigned>(model.size());
    switch (pick(11)) {
      case 0: {  // whole-text assignment
        Model<T> t = text(20);
        QzStringAccess::SetInternal(s, t.c_str(), static_cast<unsigned>(t.size()));
        if (!t.empty() && t[0] != 0) model = t;
        else model.clear();
        break;
      }
      case 1: {
        Model<T> t = text(12);
        QzStringAccess::AppendInternal(s, t.c_str(), static_cast<unsigned>(t.size()));
        model += t;
        break;
      }
      case 2: {
        Model<T> t = text(10);
        unsigned pos = pick(len + 3);
        unsigned r = s.insert(pos, t.c_str(), static_cast<unsigned>(t.size()));
        if (pos >= len) model += t;
        else model.insert(pos, t);
        EXPECT_EQ(r, model.size());
        break;
      }
      case 3: {
        unsigned pos = pick(len + 2), count = pick(4) == 0 ? 0xFFFFFFFFu : pick(8);
        unsigned r = s.erase(pos, count);
        if (pos < len && count != 0) model.erase(pos, count >= len - pos ? Model<T>::npos : count);
        EXPECT_EQ(r, model.size());
        break;
      }
      case 4: {
        T c = unit();
        unsigned r = s.remove(c);
        size_t before = model.size();
        model.erase(std::remove(model.begin(), model.end(), c), model.end());
        EXPECT_EQ(r, before - model.size());
        break;
      }
      case 5: {
        T c = unit();
        unsigned r = s.removeIgnoreCase(c);
        size_t before = model.size();
        model.erase(std::remove_if(model.begin(), model.end(), [c](T x) { return Lower(x) == Lower(c); }),
                    model.end());
        EXPECT_EQ(r, before - model.size());
        break;
      }
      case 6: {
        T from = unit(), to = unit();
        unsigned r = s.replace(from, to), n = 0;
        if (from != to) {
          for (T& x : model) {
            if (x == from) {
              x = to;
              ++n;
            }
          }
        }
        EXPECT_EQ(r, n);
        break;
      }
      case 7:
      case 8: {
        Model<T> from = text(3), to = text(4);
        unsigned r = s.replace(from.c_str(), static_cast<unsigned>(from.size()), to.c_str(),
                               static_cast<unsigned>(to.size()));
        unsigned n = 0;
        if (!from.empty()) {
          Model<T> out;
          size_t i = 0;
          while (i < model.size()) {
            if (model.compare(i, from.size(), from) == 0 && i + from.size() <= model.size()) {
              out += to;
              i += from.size();
              ++n;
            } else {
              out.push_back(model[i++]);
            }
          }
          model = out;
        }
        EXPECT_EQ(r, n);
        break;
      }
      case 9: {
        unsigned pos = pick(len + 2), count = pick(3) == 0 ? 0xFFFFFFFFu : pick(10);
        QzStringT<T> sub = s.substr(pos, count);
        Model<T> expect;
        if (pos < len) expect = model.substr(pos, count);
        if (!expect.empty() && expect[0] == 0) expect.clear();
        ASSERT_EQ(Text(sub), expect);
        if (!expect.empty()) {
          EXPECT_EQ(Refs(sub), 1);
        }
        break;
      }
      case 10: {
        QzStringT<T> other = s;  // plain sharing
        s = other;
        break;
      }
    }
    ExpectValid(s, model, step);
    for (auto& h : holders) ASSERT_EQ(Text(h.first), h.second) << "another owner changed at step " << step;
  }
}

}  // namespace

TYPED_TEST(BothWidths, EditingMembersAgreeWithAModel) {
  for (unsigned seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(seed);
    RunModel<TypeParam>(seed);
    if (::testing::Test::HasFatalFailure()) return;
  }
}
