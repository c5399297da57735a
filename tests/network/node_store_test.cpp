// Keys, hashing, the node store and the past-value pool.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "network/node_store.h"

namespace anvl::net {
namespace {

// The worked node (A = (4, 5, 5), B = (3, 4, 7), N = 14: radices
// min(A_i, N - B_S) + 1), words that close where the running product passes
// 2147483647, random round trips, and the hash's range.
TEST(KeyCodec, PacksUnpacksAndHashes) {
  KeyCodec c;
  c.Build(3, {5, 6});
  EXPECT_EQ(c.word_end, std::vector<int>{1});
  const int64_t m[3] = {1, 2, 4};
  int64_t key[1], back[3] = {};
  c.Pack(m, 7, key);
  EXPECT_EQ(key[0], 8);  // 1 x 6 + 2
  EXPECT_EQ(LargestPrimeBelow(40000), 39989);
  EXPECT_EQ(HashKey(2, key, 1, 39989), 28737);
  c.Unpack(key, back);
  EXPECT_EQ(back[0], 1);
  EXPECT_EQ(back[1], 2);
  c.Build(2, {17});  // two columns: one word of one digit
  EXPECT_EQ(c.word_end, std::vector<int>{0});
  EXPECT_FALSE(c.last_word_empty);

  // Radix 1000: 1000^3 = 1e9 fits, 1000^4 doesn't, so the first word closes
  // at digit 3 (0-based), which still belongs to it; the running product
  // restarts from that digit's radix, so the next word closes at digit 6.
  c.Build(9, std::vector<int64_t>(8, 1000));
  EXPECT_EQ(c.word_end, (std::vector<int>{3, 6, 7}));
  EXPECT_FALSE(c.last_word_empty);
  // A close at the last digit appends a word that covers no digit: it
  // holds the stage total instead.
  KeyCodec e;
  e.Build(5, std::vector<int64_t>(4, 1000));
  EXPECT_EQ(e.word_end, (std::vector<int>{3, 3}));
  EXPECT_TRUE(e.last_word_empty);
  const int64_t m5[5] = {999, 0, 5, 998, 12};
  int64_t key2[2], back5[5] = {};
  e.Pack(m5, 4321, key2);
  EXPECT_EQ(key2[1], 4321);
  e.Unpack(key2, back5);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(back5[i], m5[i]);

  std::mt19937_64 rng(7);
  for (int trial = 0; trial < 200; ++trial) {
    const int K = 2 + static_cast<int>(rng() % 40);
    std::vector<int64_t> radix(K - 1);
    for (auto& r : radix) r = 2 + static_cast<int64_t>(rng() % 5000);
    KeyCodec k;
    k.Build(K, radix);
    std::vector<int64_t> v(K), w(K, -1), packed(k.n_words);
    for (int i = 0; i < K - 1; ++i) v[i] = static_cast<int64_t>(rng() % radix[i]);
    k.Pack(v.data(), 99, packed.data());
    for (int64_t word : packed) EXPECT_GE(word, 0);
    k.Unpack(packed.data(), w.data());
    for (int i = 0; i < K - 1; ++i) ASSERT_EQ(w[i], v[i]) << "K=" << K << " digit " << i;
    // One digit up by one: one word up by that digit's weight.
    const int i = static_cast<int>(rng() % (K - 1));
    if (v[i] + 1 < radix[i]) {
      std::vector<int64_t> up = v, packed_up(k.n_words);
      ++up[i];
      k.Pack(up.data(), 99, packed_up.data());
      for (int word = 0; word < k.n_words; ++word)
        ASSERT_EQ(packed_up[word] - packed[word], word == k.word_of[i] ? k.weight[i] : 0)
            << "K=" << K << " digit " << i;
    }
  }

  // Zero maps to the prime; every value lies in 1..prime.
  const int64_t zero = 0, p = 39989;
  EXPECT_EQ(HashKey(0, &zero, 1, 39989), 39989);
  EXPECT_EQ(HashKey(0, &p, 1, 39989), 39989);
  for (int i = 0; i < 1000; ++i) {
    const int64_t words[2] = {static_cast<int64_t>(rng() >> 1), static_cast<int64_t>(rng() >> 2)};
    const int64_t h = HashKey(static_cast<int>(rng() % 128), words, 2, 4001);
    ASSERT_GE(h, 1);
    ASSERT_LE(h, 4001);
  }
}

TEST(NodeStore, FindsNodesPastFreedSlotsAndWrapsAround) {
  NodeStore s;
  ASSERT_EQ(s.Create(10, 1, 7), 0);
  // Keys 7 and 14 and 21 of stage 0 all hash to slot 7 (x = 0 -> prime).
  const int64_t k7 = 7, k14 = 14, k21 = 21, k28 = 28, k35 = 35;
  const int64_t n7 = s.Insert(0, &k7, 1, 2, false), n14 = s.Insert(0, &k14, 1, 2, false);
  const int64_t n21 = s.Insert(0, &k21, 1, 2, false), n28 = s.Insert(0, &k28, 1, 2, false);
  const int64_t n35 = s.Insert(0, &k35, 1, 2, false);
  EXPECT_EQ(s.SlotOf(n7), 7);
  EXPECT_EQ(s.SlotOf(n14), 8);
  EXPECT_EQ(s.SlotOf(n21), 9);
  EXPECT_EQ(s.SlotOf(n28), 10);
  EXPECT_EQ(s.SlotOf(n35), 1);  // the probe wraps from Z to 1
  EXPECT_EQ(s.Insert(0, &k21, 5, 6, true), n21);  // the duplicate test returns the node
  EXPECT_EQ(s.first(n21), 1.0);
  s.Free(n14);
  EXPECT_EQ(s.Find(0, &k21), n21);   // beyond a freed slot
  EXPECT_EQ(s.Find(0, &k35), n35);
  EXPECT_EQ(s.Find(1, &k21), 0);   // other stage
  EXPECT_EQ(s.Find(0, &k14), 0);
  const int64_t k3 = 3;
  const int64_t n3 = s.Insert(1, &k3, 0, 0, false);  // (3 + 2^31 mod 7) mod 7 = 5
  EXPECT_EQ(s.SlotOf(n3), 5);
  std::vector<int64_t> order;
  ASSERT_EQ(s.StageInSlotOrder(0, order), 0);
  EXPECT_EQ(order, (std::vector<int64_t>{n35, n7, n21, n28}));
  const int64_t again = s.Insert(0, &k14, 3, 4, false);
  EXPECT_EQ(s.SlotOf(again), 8);  // the freed slot is taken again
  EXPECT_EQ(s.Find(0, &k14), again);
  ASSERT_EQ(s.StageInSlotOrder(1, order), 0);
  EXPECT_EQ(order, (std::vector<int64_t>{n3}));
  // A full table refuses an insert.
  NodeStore full;
  ASSERT_EQ(full.Create(4, 1, 3), 0);
  for (int64_t k = 0; k < 4; ++k) ASSERT_NE(full.Insert(1, &k, 0, 0, false), 0);
  const int64_t extra = 99;
  EXPECT_EQ(full.Insert(1, &extra, 0, 0, false), 0);
  EXPECT_EQ(full.Find(1, &extra), 0);
}

TEST(CapacityEstimate, HasAFloorAndFailsOnOverflow) {
  int64_t limit = 0;
  ASSERT_EQ(EstimateStageNodes({4, 5, 5}, {3, 4, 7}, &limit), 0);
  EXPECT_EQ(limit, 20000);
  ASSERT_EQ(EstimateCanonicalStageNodes({4, 5, 5}, {3, 4, 7}, &limit), 0);
  EXPECT_EQ(limit, 2000);
  // Many large key margins: the normal density's peak passes exp(709.78).
  std::vector<int64_t> big(400, 1000000), stages(2, 200000000);
  EXPECT_EQ(EstimateStageNodes(big, stages, &limit), -1);
  EXPECT_EQ(EstimateCanonicalStageNodes(big, stages, &limit), -1);
  // Moderate margins whose summed estimate passes 2^30 - 1/2.
  std::vector<int64_t> mid(12, 60), many(20, 36);
  EXPECT_EQ(EstimateStageNodes(mid, many, &limit), -1);
}

TEST(PastPool, MergesCloseValuesKeepsSumsAndRunsOut) {
  PastPool pool;
  ASSERT_EQ(pool.Create(3, 4), 0);
  int64_t root = 0;
  const double tol = 1.0000000116860974e-07;
  EXPECT_EQ(pool.AddToTree(root, 5.0, 0.25, tol), 1);
  ASSERT_NE(root, 0);
  EXPECT_EQ(pool.AddToTree(root, 5.0 + 1e-8, 0.25, tol), 0);  // merges
  EXPECT_DOUBLE_EQ(pool[root].q, 0.5);
  EXPECT_EQ(pool.AddToTree(root, 5.0 + 1e-6, 0.125, tol), 1);  // doesn't
  EXPECT_EQ(pool.AddToTree(root, 4.0, 0.125, tol), 1);         // last entry
  pool.Summarize(root);
  EXPECT_DOUBLE_EQ(pool[root].q + pool.Total(pool[root].left), 0.625);
  EXPECT_DOUBLE_EQ(pool[root].q + pool.Total(pool[root].right), 0.625);
  EXPECT_DOUBLE_EQ(pool[root].total, 0.75);
  EXPECT_EQ(pool.AddToTree(root, 3.0, 0.0, tol), -1);  // exhausted
  pool.FreeTree(root);
  EXPECT_EQ(root, 0);
  // The limit counts entries, not the chunks that trees take: three trees
  // of one entry fill the pool, and the chunks given back serve again.
  for (int round = 0; round < 2; ++round) {
    int64_t roots[4] = {0, 0, 0, 0};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(pool.AddToTree(roots[i], i * 1.0, 0.0, tol), 1);
    EXPECT_EQ(pool.AddToTree(roots[3], 7.0, 0.0, tol), -1);
    EXPECT_EQ(pool.Peak(), 3);
    for (int64_t& r : roots) pool.FreeTree(r);
  }
  // The entry limit follows the memory budget.
  EXPECT_EQ(PastPool::EntryLimit(2097152), 48428);
  EXPECT_EQ(PastPool::EntryLimit(16777216), 415430);
}

// Inserts that start from the previous insert's path build the same tree,
// entry for entry, as inserts from the root: values drawn in runs that
// wander, with many within the merge tolerance of each other.
TEST(PastPool, FingerInsertsBuildTheSameTree) {
  const double tol = 9.999999747378752e-06;
  std::mt19937_64 rng(20261123);
  std::uniform_real_distribution<double> step(-3e-5, 3e-5), jump(-1.0, 1.0);
  for (int trial = 0; trial < 20; ++trial) {
    PastPool plain, finger_pool;
    ASSERT_EQ(plain.Create(5000, 1), 0);
    ASSERT_EQ(finger_pool.Create(5000, 1), 0);
    int64_t a = 0, b = 0;
    PastPool::TreeFinger finger;
    double v = 0.0;
    int64_t made = 0;
    for (int i = 0; i < 4000; ++i) {
      v = (i % 37 == 0) ? jump(rng) : v + step(rng);
      const double q = 1.0 / (i + 1);
      const int r = plain.AddToTree(a, v, q, tol);
      ASSERT_EQ(r, finger_pool.AddWithFinger(finger, b, v, q, tol))
          << "trial " << trial << " insert " << i;
      made += r;
    }
    EXPECT_GT(made, 100);
    EXPECT_LT(made, 3900);  // many values merged
    // Both trees walked side by side: the same entries in the same places.
    std::vector<std::pair<int64_t, int64_t>> todo{{a, b}};
    int64_t seen = 0;
    while (!todo.empty()) {
      const auto [x, y] = todo.back();
      todo.pop_back();
      ASSERT_EQ(x == 0, y == 0);
      if (x == 0) continue;
      ++seen;
      ASSERT_EQ(plain[x].stat, finger_pool[y].stat);
      ASSERT_EQ(plain[x].q, finger_pool[y].q);
      todo.push_back({plain[x].left, finger_pool[y].left});
      todo.push_back({plain[x].right, finger_pool[y].right});
    }
    EXPECT_EQ(seen, made);
  }
}

}  // namespace
}  // namespace anvl::net
