// Strings shared between threads, and the editing members against a model.
#include <algorithm>
#include <random>
#include <thread>
#include <vector>

#include "StringTestUtil.h"

using namespace strtest;

TYPED_TEST_SUITE(BothWidths, Widths);

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
        if (i % 7 == 0) b += static_cast<T>('!');  // unshares: the shared block is never written
        if (i % 11 == 0) a.erase(0, 4);
        if (Text(b).compare(0, expect.size(), expect) != 0) ++bad[t];
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
}

namespace {

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
  auto lower = [](T c) { return (c >= 'A' && c <= 'Z') ? static_cast<T>(c | 0x20) : c; };
  QzStringT<T> s;
  Model<T> model;
  std::vector<std::pair<QzStringT<T>, Model<T> > > holders;  // other owners of old blocks
  for (unsigned step = 0; step < 2000; ++step) {
    if (pick(4) == 0) holders.emplace_back(s, model);
    if (holders.size() > 6) holders.erase(holders.begin() + pick(static_cast<unsigned>(holders.size())));
    const unsigned len = static_cast<unsigned>(model.size());
    const unsigned pos = pick(len + 3), count = pick(4) == 0 ? 0xFFFFFFFFu : pick(10);
    const Model<T> t = text(12), from = text(3);
    const unsigned tn = static_cast<unsigned>(t.size()), fn = static_cast<unsigned>(from.size());
    const T c = unit(), d = unit();
    unsigned r = 0, expect = 0;
    size_t before = model.size();
    switch (pick(10)) {
      case 0:  // whole-text assignment: a leading 0 empties
        QzStringAccess::SetInternal(s, t.c_str(), tn);
        model = !t.empty() && t[0] != 0 ? t : Model<T>();
        break;
      case 1:
        QzStringAccess::AppendInternal(s, t.c_str(), tn);
        model += t;
        break;
      case 2:
        r = s.insert(pos, t.c_str(), tn);
        model.insert(pos < len ? pos : len, t);
        expect = static_cast<unsigned>(model.size());
        break;
      case 3:
        r = s.erase(pos, count);
        if (pos < len && count != 0) model.erase(pos, count >= len - pos ? Model<T>::npos : count);
        expect = static_cast<unsigned>(model.size());
        break;
      case 4:
      case 5: {
        const bool fold = pick(2) == 0;
        r = fold ? s.removeIgnoreCase(c) : s.remove(c);
        model.erase(std::remove_if(model.begin(), model.end(),
                                   [&](T x) { return fold ? lower(x) == lower(c) : x == c; }), model.end());
        expect = static_cast<unsigned>(before - model.size());
        break;
      }
      case 6:
        r = s.replace(c, d);
        if (c != d) expect = static_cast<unsigned>(std::count(model.begin(), model.end(), c));
        std::replace(model.begin(), model.end(), c, d);
        break;
      case 7: {
        r = s.replace(from.c_str(), fn, t.c_str(), tn);
        Model<T> out;
        for (size_t i = 0; i < model.size();) {
          if (fn != 0 && model.compare(i, fn, from) == 0) {
            out += t;
            i += fn;
            ++expect;
          } else {
            out.push_back(model[i++]);
          }
        }
        model = out;
        break;
      }
      case 8: {
        QzStringT<T> sub = s.substr(pos, count);
        Model<T> m = pos < len ? model.substr(pos, count) : Model<T>();
        if (!m.empty() && m[0] == 0) m.clear();
        ASSERT_EQ(Text(sub), m) << "step " << step;
        if (!m.empty()) EXPECT_EQ(Refs(sub), 1);
        break;
      }
      default: {
        QzStringT<T> other = s;  // plain sharing
        s = other;
      }
    }
    EXPECT_EQ(r, expect) << "step " << step;
    ASSERT_EQ(Text(s), model) << "step " << step;
    const QzInternalStringData* h = H(s);
    ASSERT_EQ(s.c_str()[h->length], 0) << "step " << step;
    if (!OnEmptyRecord(s)) {
      ASSERT_GE(h->refCount, 1);
      ASSERT_GE(h->capacity, h->length);
      ASSERT_EQ((h->capacity + 1) % 8, 0u) << "step " << step;
    }
    for (auto& o : holders) ASSERT_EQ(Text(o.first), o.second) << "another owner changed at step " << step;
  }
}

}  // namespace

TYPED_TEST(BothWidths, EditingMembersAgreeWithAModel) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE(seed);
    RunModel<TypeParam>(seed);
    if (::testing::Test::HasFatalFailure()) return;
  }
}
