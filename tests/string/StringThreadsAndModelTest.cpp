// Strings shared between threads.
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
