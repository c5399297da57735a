// Procedures 24, 26 and 51 from the host's side: exact p-values against
// the distribution over every within-block order, statistics and asymptotic
// p-values against R, the compaction of the caller's data, the host's stop
// and the exact route's limits (failures and Monte Carlo:
// failures_test.cpp, sampling_routes_test.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "anvlwtq.h"
#include "frame/run_store.h"
#include "support/host_call.h"
#include "support/ref_data.h"

namespace {

using anvl::support::HostCall;

// Doubled mid-ranks of the N blocks by counting: 2 rank = 2 #smaller +
// #equal + 1.
std::vector<std::vector<int>> Ranks2(const std::vector<double>& v, int K, int N) {
  std::vector<std::vector<int>> r(N, std::vector<int>(K));
  for (int b = 0; b < N; ++b)
    for (int i = 0; i < K; ++i)
      for (int j = 0; j < K; ++j)
        r[b][i] += v[b * K + j] < v[b * K + i] ? 2 : v[b * K + j] == v[b * K + i] ? 1 : 0;
  for (auto& block : r)
    for (int& x : block) x += 1;
  return r;
}

// S = sum (R_i - N (K + 1) / 2)^2 from doubled rank sums.
double S(const std::vector<int>& sums2, int K, int N) {
  double s = 0.0;
  for (int x : sums2) s += (x - N * (K + 1.0)) * (x - N * (K + 1.0)) / 4.0;
  return s;
}

struct Exact {
  double p = 0.0;      // P(S >= S_obs), every block after the first in every order
  double point = 0.0;  // P(S = S_obs)
};

// The distribution of the vector of rank sums, block by block, over the
// distinct orders of each block after the first (each stands for the same
// number of the K! orders): neither bounds nor the sorting of the engine.
// The margin 1e-7 on S sits far below the step between two values of S
// (0.25 at least) and, for sums of squared rank sums below 10^4, far above
// the engine's final margin of 5e-5 of S_obs.
Exact Convolve(const std::vector<double>& values, int K, int N) {
  const auto ranks = Ranks2(values, K, N);
  std::map<std::vector<int>, long double> dist{{ranks[0], 1.0L}};
  std::vector<int> sums(ranks[0]);
  for (int b = 1; b < N; ++b) {
    for (int i = 0; i < K; ++i) sums[i] += ranks[b][i];
    std::vector<int> order(ranks[b]);
    std::sort(order.begin(), order.end());
    std::vector<std::vector<int>> orders;
    do orders.push_back(order);
    while (std::next_permutation(order.begin(), order.end()));
    std::map<std::vector<int>, long double> next;
    for (const auto& [v, p] : dist)
      for (const auto& o : orders) {
        std::vector<int> w(v);
        for (int i = 0; i < K; ++i) w[i] += o[i];
        next[w] += p / orders.size();
      }
    dist.swap(next);
  }
  const double observed = S(sums, K, N);
  Exact out;
  for (const auto& [v, p] : dist) {
    const double s = S(v, K, N);
    if (s >= observed - 1e-7) out.p += double(p);
    if (std::fabs(s - observed) <= 1e-7) out.point += double(p);
  }
  return out;
}

HostCall Call(int64_t procedure, int64_t method, std::vector<double> values, int64_t k) {
  HostCall c(procedure, method);
  c.values = std::move(values);
  c.case_rows = k;
  return c;
}

// A random data set without constant blocks; values 0/1 for levels 2,
// else 1..levels.
std::vector<double> RandomBlocks(std::mt19937_64& rng, int K, int N, int levels) {
  std::uniform_int_distribution<int> value(levels == 2 ? 0 : 1, levels == 2 ? 1 : levels);
  std::vector<double> v;
  while (v.size() < size_t(K * N)) {
    std::vector<double> block(K);
    for (double& x : block) x = value(rng);
    if (std::count(block.begin(), block.end(), block[0]) < K)
      v.insert(v.end(), block.begin(), block.end());
  }
  return v;
}

// Small designs with every procedure (Kendall's W is Friedman's statistic
// over N (K - 1), Cochran's Q Friedman's statistic on 0/1 data; all three
// have the same p), then larger designs with Friedman's.
TEST(RelatedSamples, ExactMatchesTheConvolutionOfAllWithinBlockOrders) {
  std::mt19937_64 rng(24);
  auto check = [](const std::vector<double>& data, int K, int N, std::vector<int64_t> procedures) {
    const Exact ref = Convolve(data, K, N);
    SCOPED_TRACE("K " + std::to_string(K) + " N " + std::to_string(N) + ": " + testing::PrintToString(data));
    double friedman = 0.0;
    for (int64_t proc : procedures) {
      HostCall c = Call(proc, TQ_METHOD_EXACT, data, K);
      const double* r = c.RunCases();
      ASSERT_EQ(r[48], 0.0) << proc;
      if (proc == TQ_PROC_FRIEDMAN) friedman = r[0];
      const double stat = proc == TQ_PROC_KENDALL_W ? friedman / (N * (K - 1.0)) : friedman;
      EXPECT_NEAR(r[0], stat, 1e-12 * stat) << proc;
      EXPECT_NEAR(r[16], ref.p, 1e-9 * ref.p) << proc;
      EXPECT_NEAR(r[17], ref.point, 1e-9 * ref.point) << proc;
    }
  };
  const int shapes[][2] = {{2, 13}, {3, 6}, {4, 4}, {5, 3}, {6, 2}};  // (K, largest N)
  for (int round = 0; round < 44; ++round) {
    for (const auto& shape : shapes) {
      const int K = shape[0], N = std::uniform_int_distribution<int>(2, shape[1])(rng);
      const int levels = round % 3 == 0 ? 2 : round % 3 == 1 ? 3 : K + 2;
      std::vector<int64_t> procedures = {TQ_PROC_FRIEDMAN, TQ_PROC_KENDALL_W};
      if (levels == 2) procedures.push_back(TQ_PROC_COCHRAN_Q);
      check(RandomBlocks(rng, K, N, levels), K, N, procedures);
    }
  }
  for (auto [K, N] : {std::pair{3, 14}, {4, 8}, {5, 5}, {3, 25}})
    for (int levels : {3, 6}) check(RandomBlocks(rng, K, N, levels), K, N, {TQ_PROC_FRIEDMAN});
}

TEST(RelatedSamples, AsymptoticMatchesR) {
  const auto refs = anvl::support::LoadCsv("related_refs.csv");  // see gen_related_refs.R
  ASSERT_EQ(refs.size(), 36u);
  for (const auto& ref : refs) {
    SCOPED_TRACE(ref.Text("id"));
    const int k = ref.Int("k"), n = ref.Int("n");
    const bool binary = ref.Int("binary") == 1;
    const std::vector<double> values = ref.Reals("values");
    ASSERT_EQ(values.size(), size_t(k * n));
    HostCall c = Call(binary ? TQ_PROC_COCHRAN_Q : TQ_PROC_FRIEDMAN, TQ_METHOD_ASYMPTOTIC, values, k);
    const double* r = c.RunCases();
    ASSERT_EQ(r[48], 0.0);
    EXPECT_EQ(c.Published(), std::vector<int>{0});
    const double p = anvl::Slot(anvl::slot::kAsymTwoSided).value;
    std::vector<std::pair<const char*, const char*>> peers = {{"friedman", "friedman_p"}, {"coin", "coin_p"}};
    if (binary) peers.insert(peers.end(), {{"cochran", nullptr}, {"symmetry", "symmetry_p"}});
    for (auto [stat, pv] : peers) {
      EXPECT_NEAR(r[0], ref.Real(stat), 1e-12 * ref.Real(stat)) << stat;
      if (pv) {
        EXPECT_NEAR(p, ref.Real(pv), 1e-12 * ref.Real(pv)) << pv;
      }
    }
    EXPECT_EQ(anvl::Word(anvl::word::kDegreesOfFreedom), k - 1);
    HostCall w = Call(TQ_PROC_KENDALL_W, TQ_METHOD_ASYMPTOTIC, values, k);
    const double W = w.RunCases()[0];
    EXPECT_NEAR(W, ref.Real("friedman") / (n * (k - 1.0)), 1e-12 * W);
  }
}

// By hand: blocks all in one order without ties are the most extreme of the
// K!^(N-1) equally likely orders that keep the first block, p = point =
// (1 / K!)^(N - 1).  Of three blocks, one constant, the test is on the other
// two, which move forward in the caller's array; the slot behind them keeps
// its values.
TEST(RelatedSamples, OneOrderByHandAndConstantBlocks) {
  for (auto [K, N, fact] : {std::tuple{3, 5, 6.0}, {4, 4, 24.0}, {5, 3, 120.0}, {4, 9, 24.0}}) {
    std::vector<double> data;
    for (int b = 0; b < N; ++b)
      for (int i = 0; i < K; ++i) data.push_back(10.0 * i + b);
    HostCall c = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, data, K);
    const double* r = c.RunCases();
    const double p = std::pow(1.0 / fact, N - 1);
    EXPECT_NEAR(r[16], p, 1e-12 * p) << K << " x " << N;
    EXPECT_NEAR(r[17], p, 1e-12 * p) << K << " x " << N;
  }
  const std::vector<double> two = {1, 3, 2, 2, 1, 3};
  HostCall plain = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, two, 3);
  const double* a = plain.RunCases();
  HostCall with_constant = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, {4, 4, 4, 1, 3, 2, 2, 1, 3}, 3);
  const double* b = with_constant.RunCases();
  for (int f : {0, 16, 17}) EXPECT_EQ(a[f], b[f]) << "field " << f;
  EXPECT_EQ(with_constant.values, (std::vector<double>{1, 3, 2, 2, 1, 3, 2, 1, 3}));
  EXPECT_EQ(plain.values, two);
}

TEST(RelatedSamples, HostStopAndExactLimits) {
  // A stop asked by the host ends the exact run with its code.
  HostCall stopped = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, {1, 2, 3, 3, 1, 2, 2, 2, 1}, 3);
  stopped.poll = [](int64_t* flag) { *flag = *flag == -1 ? -1 : 1; };
  EXPECT_EQ(stopped.RunCases()[48], -1006.0);
  // Exact limits: K!^(N-1) beyond 1e300 paths, and a budget of 2 MiB
  // that leaves no more than 5000 nodes of 22 rank sums.
  std::mt19937_64 rng(26);
  HostCall paths = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, RandomBlocks(rng, 5, 146, 4), 5);
  EXPECT_EQ(paths.RunCases()[48], -1001.0);
  HostCall nodes = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, RandomBlocks(rng, 22, 2, 30), 22);
  nodes.ip[TQ_INT_MEMORY] = 100;
  EXPECT_EQ(nodes.RunCases()[48], -994.0);
}

}  // namespace
