// The combined congruential generator against R's own Wichmann-Hill
// generator, and the two sorts against std::sort.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kernel/random.h"
#include "support/ref_data.h"

namespace anvl {
namespace {

TEST(NextUniform, SequencesMatchR) {
  // Positive seeds: R's runif under RNGkind("Wichmann-Hill"), seeds 1, 1, 1
  // among them.  Negative first seed: the recurrences with truncating
  // remainders, in R; u may then leave 0..1.
  for (const char* routine : {"wh_uniform", "wh_uniform_negative"}) {
    const auto rows = support::LoadKernelRefs(routine);
    ASSERT_GE(rows.size(), 6u) << routine;
    RandomStream s{};
    bool saw_negative = false;
    for (const auto& r : rows) {
      if (r.a[3] == 1) s = {static_cast<int64_t>(r.a[0]), static_cast<int64_t>(r.a[1]), static_cast<int64_t>(r.a[2])};
      const double u = NextUniform(s);
      EXPECT_EQ(u, r.value) << routine << " seeds " << r.a[0] << ", " << r.a[1] << ", " << r.a[2] << " draw "
                            << r.a[3];
      if (r.a[0] < 0) {
        EXPECT_LT(s.s1, 0) << "a negative first seed stays negative";
        saw_negative |= u < 0;
      }
    }
    EXPECT_EQ(saw_negative, std::string(routine) == "wh_uniform_negative") << routine;
  }
  RandomStream zero{0, 5, 7};
  for (int i = 0; i < 10; ++i) NextUniform(zero);
  EXPECT_EQ(zero.s1, 0) << "a zero seed stays zero";
  EXPECT_NE(zero.s2, 0);
}

// Sorts a copy both ways and checks order, the multiset of (value, tag)
// pairs, agreement with std::sort and the depth of the stack.
void CheckSorts(const std::vector<double>& input, const char* what) {
  const int n = static_cast<int>(input.size());
  std::vector<double> want = input;
  std::sort(want.begin(), want.end());
  // The shorter part goes first: each pair on the stack at least halves
  // the range, so the depth stays within log2 n (and the 50 pairs).
  const int depth_bound = n < 2 ? 0 : static_cast<int>(std::floor(std::log2(n)));

  std::vector<double> plain = input;
  SortReals(n, plain.data());
  EXPECT_EQ(plain, want) << what << ", n = " << n;
  EXPECT_LE(SortStackHighWater(), depth_bound) << what << ", n = " << n;

  std::vector<double> values = input;
  std::vector<int64_t> tags(n);
  for (int i = 0; i < n; ++i) tags[i] = i;
  SortRealsWithTags(n, values.data(), tags.data());
  EXPECT_EQ(values, want) << what << ", n = " << n;
  EXPECT_LE(SortStackHighWater(), std::min(depth_bound, 50)) << what << ", n = " << n;
  std::vector<std::pair<double, int64_t>> got_pairs, input_pairs;
  for (int i = 0; i < n; ++i) {
    got_pairs.emplace_back(values[i], tags[i]);
    input_pairs.emplace_back(input[i], i);
  }
  std::sort(got_pairs.begin(), got_pairs.end());
  std::sort(input_pairs.begin(), input_pairs.end());
  EXPECT_EQ(got_pairs, input_pairs) << what << ": a tag left its value, n = " << n;
}

TEST(Sorts, AgreeWithStdSortAndKeepTheStackShallow) {
  std::mt19937_64 rng(20240611);
  std::uniform_real_distribution<double> uniform(-1e6, 1e6);
  auto make = [&](int n, const std::function<double(int)>& value) {
    std::vector<double> a(n);
    for (int i = 0; i < n; ++i) a[i] = value(i);
    return a;
  };
  auto random = [&](int) { return uniform(rng); };
  for (int n = 0; n <= 2000; ++n) CheckSorts(make(n, random), "random");
  for (int n : {1, 2, 7, 8, 9, 15, 16, 100, 1023, 1024, 2000, 100000}) {
    CheckSorts(make(n, [](int) { return 2.5; }), "all equal");
    CheckSorts(make(n, [](int i) { return i; }), "sorted");
    CheckSorts(make(n, [n](int i) { return n - i; }), "reversed");
    CheckSorts(make(n, [&](int) { return static_cast<double>(rng() % 4); }), "four values");
    CheckSorts(make(n, [n](int i) { return std::min(i, n - i); }), "organ pipe");
  }

  // Insertion below eight elements, one partition (one pair pushed) from eight.
  std::vector<double> seven = make(7, random), eight = make(8, random);
  SortReals(7, seven.data());
  EXPECT_EQ(SortStackHighWater(), 0) << "7 elements: insertion only";
  SortReals(8, eight.data());
  EXPECT_EQ(SortStackHighWater(), 1) << "8 elements: one partition, one pair pushed";
}

}  // namespace
}  // namespace anvl
