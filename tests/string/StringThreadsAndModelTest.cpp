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

// The model's own reading of characters, written apart from the library's:
// how many units the character at p takes (p is terminated), and whether n
// characters at p and q are equal, a 0 of both ending the compare early.
struct Reading {
  unsigned page;  // 0: wide text, one unit a character
  template <typename T>
  size_t CharLen(const T* p) const {
    const unsigned b = static_cast<unsigned>(p[0]) & 0xFF;
    auto trail = [p](int i) { return (static_cast<unsigned>(p[i]) & 0xC0) == 0x80; };
    if (page == 0 || b < 0x80) return 1;
    if (page == 932) return ((b >= 0x81 && b <= 0x9F) || (b >= 0xE0 && b <= 0xFC)) && p[1] != 0 ? 2 : 1;
    if (b >= 0xC2 && b <= 0xDF) return trail(1) ? 2 : 1;
    if (b >= 0xE1 && b <= 0xEF && b != 0xED) return trail(1) && trail(2) ? 3 : 1;
    return 1;
  }
  template <typename T>
  bool SameChars(const T* p, const T* q, size_t n) const {
    for (; n; --n) {
      const size_t a = CharLen(p), b = CharLen(q);
      if (a != b || !std::equal(p, p + a, q)) return false;
      if (p[0] == 0) return true;
      p += a;
      q += b;
    }
    return true;
  }
};

// Random edits of one string, checked against a std::basic_string. The texts
// are made of pieces: ASCII, 0, and for narrow text whole characters of the
// page (two-byte ones with a trail byte of 0x5C in 932), which the edits cut
// at any byte. The single characters edited (`c`, `d`) are the one-unit
// pieces.
template <typename T>
void RunModel(unsigned seed, unsigned page, const std::vector<Model<T> >& pieces) {
  std::mt19937 rng(seed);
  auto pick = [&rng](unsigned n) { return static_cast<unsigned>(rng() % n); };
  const Reading reading{sizeof(T) == 1 ? page : 0u};
  std::vector<T> units;
  for (const auto& piece : pieces)
    if (piece.size() == 1) units.push_back(piece[0]);
  auto unit = [&] { return units[pick(static_cast<unsigned>(units.size()))]; };
  auto text = [&](unsigned max) {
    Model<T> m;
    for (unsigned n = pick(max + 1); n; --n) m += pieces[pick(static_cast<unsigned>(pieces.size()))];
    return m;
  };
  auto lower = [](T c) { return (c >= 'A' && c <= 'Z') ? static_cast<T>(c | 0x20) : c; };
  // Applies `edit(character offset, its length)` to every character of the
  // model from the start, by the model's reading.
  auto eachChar = [&](const Model<T>& m, auto edit) {
    for (size_t i = 0; i < m.size(); i += reading.CharLen(m.c_str() + i)) edit(i);
  };
  QzStringT<T> s;
  Model<T> model;
  std::vector<std::pair<QzStringT<T>, Model<T> > > holders;  // other owners of old blocks
  for (unsigned step = 0; step < 1500; ++step) {
    if (pick(4) == 0) holders.emplace_back(s, model);
    if (holders.size() > 6) holders.erase(holders.begin() + pick(static_cast<unsigned>(holders.size())));
    const unsigned len = static_cast<unsigned>(model.size());
    const unsigned pos = pick(len + 3), count = pick(4) == 0 ? 0xFFFFFFFFu : pick(10);
    const Model<T> t = text(8), from = text(2);
    const unsigned tn = static_cast<unsigned>(t.size()), fn = static_cast<unsigned>(from.size());
    const T c = unit(), d = unit();
    unsigned r = 0, expect = 0;
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
        Model<T> kept;
        eachChar(model, [&](size_t i) {
          const size_t n = reading.CharLen(model.c_str() + i);
          if (n == 1 && (fold ? lower(model[i]) == lower(c) : model[i] == c)) ++expect;
          else kept += model.substr(i, n);
        });
        model = kept;
        break;
      }
      case 6: {
        r = s.replace(c, d);
        Model<T> before = model;
        if (c != d)
          eachChar(before, [&](size_t i) {
            if (before[i] == c) {
              model[i] = d;
              ++expect;
            }
          });
        break;
      }
      case 7: {
        r = s.replace(from.c_str(), fn, t.c_str(), tn);
        Model<T> out;
        for (size_t i = 0; i < model.size();) {
          if (fn != 0 && model.size() - i >= fn && reading.SameChars(model.c_str() + i, from.c_str(), fn)) {
            out += t;
            i += fn;
            ++expect;
          } else {
            const size_t n = reading.CharLen(model.c_str() + i);
            out += model.substr(i, n);
            i += n;
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
        if (!m.empty()) {
          EXPECT_EQ(Refs(sub), 1);
        }
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

template <typename T>
std::vector<Model<T> > Pieces(std::initializer_list<const char*> list) {
  std::vector<Model<T> > out;
  for (const char* p : list) out.push_back(*p ? L<T>(p) : Model<T>(1, T(0)));
  return out;
}

}  // namespace

TYPED_TEST(BothWidths, EditingMembersAgreeWithAModel) {
  typedef TypeParam T;
  std::vector<Model<T> > ascii = Pieces<T>({"a", "b", "A", "c", "", " "});
  for (unsigned seed = 1; seed <= 4; ++seed) {
    SCOPED_TRACE(seed);
    RunModel<T>(seed, 65001, ascii);
    if (::testing::Test::HasFatalFailure()) return;
  }
  if (sizeof(T) != 1) {
    ascii.push_back(Model<T>(1, T(0xE9)));
    ascii.push_back(Model<T>(1, T(0xD83D)));  // half a pair is one unit like any other
    RunModel<T>(5, 0, ascii);
    return;
  }
  // Narrow text of several bytes a character, which the edits step over
  // whole and the model reads by its own rules.
  const struct { unsigned page; std::initializer_list<const char*> pieces; } pages[] = {
      {65001, {"a", "b", "A", "", " ", "\xC3\xA9", "\xE2\x82\xAC"}},
      {932, {"a", "b", "A", "\\", "", " ", "\x82\xA0", "\x81\x5C", "\x95\x5C"}},
  };
  for (const auto& p : pages) {
    SCOPED_TRACE(p.page);
    CodePage page(p.page);
    for (unsigned seed = 11; seed <= 14; ++seed) {
      RunModel<T>(seed, p.page, Pieces<T>(p.pieces));
      if (::testing::Test::HasFatalFailure()) return;
    }
  }
}
