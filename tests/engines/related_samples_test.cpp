// Procedures 24, 26 and 51 from the host's side: exact p-values against
// enumeration of every within-block permutation, statistics and asymptotic
// p-values against R, the Monte Carlo route against the exact value, the
// compaction of the caller's data and the failure codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "frame/run_store.h"
#include "support/host_call.h"
#include "support/ref_data.h"

namespace {

using anvl::support::HostCall;

// Mid-ranks of one block by counting: rank = #smaller + (#equal + 1) / 2.
std::vector<double> MidRanks(const double* v, int k) {
  std::vector<double> r(k);
  for (int i = 0; i < k; ++i) {
    int less = 0, equal = 0;
    for (int j = 0; j < k; ++j) {
      less += v[j] < v[i];
      equal += v[j] == v[i];
    }
    r[i] = less + (equal + 1) / 2.0;
  }
  return r;
}

// Everything the brute force knows of one data set (K rows, N blocks,
// block after block).
struct Enumerated {
  double chi2 = 0.0;   // Friedman's statistic with the tie correction
  double p = 0.0;      // P(S >= S_obs) over all K!^(N-1) orders of blocks 2..N
  double point = 0.0;  // P(S = S_obs)
};

Enumerated Enumerate(const std::vector<double>& values, int K, int N) {
  std::vector<std::vector<double>> ranks(N);
  double ties = 0.0;
  for (int b = 0; b < N; ++b) {
    ranks[b] = MidRanks(values.data() + b * K, K);
    for (int i = 0; i < K; ++i) {
      int equal = 0;
      for (int j = 0; j < K; ++j) equal += ranks[b][j] == ranks[b][i];
      ties += double(equal) * equal - 1.0;  // t^2 - 1 per member: sum t^3 - t per group
    }
  }
  const double mean = N * (K + 1) / 2.0;
  auto S = [&](const std::vector<double>& sums) {
    double s = 0.0;
    for (double R : sums) s += (R - mean) * (R - mean);
    return s;
  };
  std::vector<double> sums(ranks[0]);
  for (int b = 1; b < N; ++b)
    for (int i = 0; i < K; ++i) sums[i] += ranks[b][i];
  const double observed = S(sums);
  Enumerated out;
  out.chi2 = 12.0 * observed / (N * K * (K + 1.0) - ties / (K - 1.0));

  std::vector<std::vector<int>> orders;
  std::vector<int> perm(K);
  std::iota(perm.begin(), perm.end(), 0);
  do orders.push_back(perm);
  while (std::next_permutation(perm.begin(), perm.end()));
  uint64_t total = 0, above = 0, equal = 0;
  const double tol = 1e-7;
  std::fill(sums.begin(), sums.end(), 0.0);
  for (int i = 0; i < K; ++i) sums[i] = ranks[0][i];
  auto walk = [&](auto&& self, int b) -> void {
    if (b == N) {
      const double s = S(sums);
      ++total;
      above += s >= observed - tol;
      equal += std::fabs(s - observed) <= tol;
      return;
    }
    for (const std::vector<int>& o : orders) {
      for (int i = 0; i < K; ++i) sums[i] += ranks[b][o[i]];
      self(self, b + 1);
      for (int i = 0; i < K; ++i) sums[i] -= ranks[b][o[i]];
    }
  };
  walk(walk, 1);
  out.p = double(above) / double(total);
  out.point = double(equal) / double(total);
  return out;
}

HostCall Call(int64_t procedure, int64_t method, std::vector<double> values, int64_t k) {
  HostCall c(procedure, method);
  c.values = std::move(values);
  c.case_rows = k;
  return c;
}

std::string Show(const std::vector<double>& v, int k) {
  std::ostringstream s;
  for (size_t i = 0; i < v.size(); ++i) s << (i % k == 0 && i ? " | " : " ") << v[i];
  return s.str();
}

// A random data set without constant blocks, values drawn from 1..levels.
std::vector<double> RandomBlocks(std::mt19937_64& rng, int K, int N, int levels) {
  std::uniform_int_distribution<int> value(1, levels);
  std::vector<double> v;
  for (int b = 0; b < N; ++b) {
    std::vector<double> block(K);
    do
      for (double& x : block) x = levels == 2 ? value(rng) - 1 : value(rng);
    while (std::all_of(block.begin(), block.end(), [&](double x) { return x == block[0]; }));
    v.insert(v.end(), block.begin(), block.end());
  }
  return v;
}

TEST(RelatedSamples, ExactMatchesEnumerationOfAllWithinBlockOrders) {
  std::mt19937_64 rng(24);
  // (K, largest N): K!^(N-1) stays at or below about 2 x 10^4.
  const int shapes[][2] = {{2, 13}, {3, 6}, {4, 4}, {5, 3}, {6, 2}};
  int cases = 0;
  for (int round = 0; round < 44; ++round) {
    for (const auto& shape : shapes) {
      const int K = shape[0];
      const int N = std::uniform_int_distribution<int>(2, shape[1])(rng);
      const int levels = round % 3 == 0 ? 2 : round % 3 == 1 ? 3 : K + 2;
      const std::vector<double> data = RandomBlocks(rng, K, N, levels);
      const Enumerated ref = Enumerate(data, K, N);
      SCOPED_TRACE("K " + std::to_string(K) + " N " + std::to_string(N) + ":" + Show(data, K));
      HostCall friedman = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, data, K);
      const double* f = friedman.RunCases();
      ASSERT_EQ(f[48], 0.0);
      EXPECT_NEAR(f[0], ref.chi2, 1e-12 * ref.chi2 + 1e-14);
      EXPECT_NEAR(f[16], ref.p, 1e-9 * ref.p);
      EXPECT_NEAR(f[17], ref.point, 1e-9 * ref.point);
      // Kendall's W is Friedman's statistic over N (K - 1), with the same p.
      HostCall kendall = Call(TQ_PROC_KENDALL_W, TQ_METHOD_EXACT, data, K);
      const double* w = kendall.RunCases();
      EXPECT_NEAR(w[0], ref.chi2 / (N * (K - 1.0)), 1e-12);
      EXPECT_NEAR(w[16], ref.p, 1e-9 * ref.p);
      if (levels == 2) {  // Cochran's Q is Friedman's statistic on 0/1 data
        HostCall cochran = Call(TQ_PROC_COCHRAN_Q, TQ_METHOD_EXACT, data, K);
        const double* q = cochran.RunCases();
        EXPECT_NEAR(q[0], ref.chi2, 1e-12 * ref.chi2 + 1e-14);
        EXPECT_NEAR(q[16], ref.p, 1e-9 * ref.p);
        EXPECT_NEAR(q[17], ref.point, 1e-9 * ref.point);
      }
      ++cases;
    }
  }
  EXPECT_GE(cases, 200);
}

// The distribution of the ordered vector of rank sums, block by block,
// over every order of each block: a map from doubled sums to
// probabilities, with neither bounds nor the sorting of the engine.
Enumerated Convolve(const std::vector<double>& values, int K, int N) {
  std::map<std::vector<int>, long double> dist;
  std::vector<std::vector<int>> ranks(N);
  for (int b = 0; b < N; ++b)
    for (double r : MidRanks(values.data() + b * K, K)) ranks[b].push_back(int(2 * r));
  dist[ranks[0]] = 1.0L;
  std::vector<int> sums(ranks[0]);
  for (int b = 1; b < N; ++b) {
    for (int i = 0; i < K; ++i) sums[i] += ranks[b][i];
    std::vector<int> order(ranks[b]);
    std::sort(order.begin(), order.end());
    std::vector<std::vector<int>> orders;  // the distinct orders of the block
    do orders.push_back(order);
    while (std::next_permutation(order.begin(), order.end()));
    // Each distinct order stands for the same number of the K! orders.
    const long double share = 1.0L / orders.size();
    std::map<std::vector<int>, long double> next;
    for (const auto& [v, p] : dist)
      for (const auto& o : orders) {
        std::vector<int> w(v);
        for (int i = 0; i < K; ++i) w[i] += o[i];
        next[w] += p * share;
      }
    dist.swap(next);
  }
  const double mean2 = N * (K + 1.0);  // doubled
  auto S = [&](const std::vector<int>& v) {
    double s = 0;
    for (int x : v) s += (x - mean2) * (x - mean2) / 4.0;
    return s;
  };
  const double observed = S(sums);
  Enumerated out;
  for (const auto& [v, p] : dist) {
    const double s = S(v);
    if (s >= observed - 1e-7) out.p += double(p);
    if (std::fabs(s - observed) <= 1e-7) out.point += double(p);
  }
  return out;
}

// Designs whose sum of squared rank sums stays below 10^4: there the step
// between two values of the sum (0.5 at least) is wider than the final
// margin of 5e-5 of the observed sum, so no value above it is missed.
TEST(RelatedSamples, ExactMatchesTheFullConvolutionOnLargerDesigns) {
  std::mt19937_64 rng(51);
  const int shapes[][2] = {{3, 14}, {4, 8}, {5, 5}, {3, 25}};
  for (const auto& shape : shapes) {
    for (int levels : {3, 6}) {
      const int K = shape[0], N = shape[1];
      const std::vector<double> data = RandomBlocks(rng, K, N, levels);
      const Enumerated ref = Convolve(data, K, N);
      SCOPED_TRACE("K " + std::to_string(K) + " N " + std::to_string(N) + ":" + Show(data, K));
      HostCall c = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, data, K);
      const double* r = c.RunCases();
      ASSERT_EQ(r[48], 0.0);
      EXPECT_NEAR(r[16], ref.p, 1e-9 * ref.p);
      EXPECT_NEAR(r[17], ref.point, 1e-9 * ref.point);
    }
  }
}

TEST(RelatedSamples, BlocksAllInOneOrderWithoutTies) {
  // The observed order is the most extreme of the K!^(N-1) equally likely
  // ones that keep the first block: p = point = (1 / K!)^(N - 1).
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
}

struct RelatedRef {
  std::string id;
  int k = 0, n = 0;
  bool binary = false;
  std::vector<double> values;
  double friedman = 0, friedman_p = 0, coin = 0, coin_p = 0, cochran = 0, symmetry = 0,
         symmetry_p = 0;
};

std::vector<RelatedRef> LoadRelatedRefs() {
  std::ifstream in(anvl::support::TestDataDir() + "/related_refs.csv");
  std::vector<RelatedRef> out;
  std::string line;
  std::getline(in, line);
  while (std::getline(in, line)) {
    std::vector<std::string> f;
    std::stringstream ss(line);
    for (std::string cell; std::getline(ss, cell, ',');) f.push_back(cell);
    if (f.size() != 12) continue;
    RelatedRef r;
    r.id = f[0];
    r.k = std::stoi(f[1]);
    r.n = std::stoi(f[2]);
    r.binary = f[3] == "1";
    std::stringstream vs(f[4]);
    for (double x; vs >> x;) r.values.push_back(x);
    auto num = [](const std::string& s) { return s == "NA" ? NAN : std::stod(s); };
    r.friedman = num(f[5]);
    r.friedman_p = num(f[6]);
    r.coin = num(f[7]);
    r.coin_p = num(f[8]);
    r.cochran = num(f[9]);
    r.symmetry = num(f[10]);
    r.symmetry_p = num(f[11]);
    out.push_back(r);
  }
  return out;
}

TEST(RelatedSamples, AsymptoticMatchesR) {
  const std::vector<RelatedRef> refs = LoadRelatedRefs();
  ASSERT_EQ(refs.size(), 36u);
  for (const RelatedRef& ref : refs) {
    SCOPED_TRACE(ref.id);
    ASSERT_EQ(ref.values.size(), size_t(ref.k * ref.n));
    const int64_t proc = ref.binary ? TQ_PROC_COCHRAN_Q : TQ_PROC_FRIEDMAN;
    HostCall c = Call(proc, TQ_METHOD_ASYMPTOTIC, ref.values, ref.k);
    const double* r = c.RunCases();
    ASSERT_EQ(r[48], 0.0);
    EXPECT_EQ(c.Published(), std::vector<int>{0});
    const double p = anvl::Slot(anvl::slot::kAsymTwoSided).value;
    for (auto [stat, pv] : {std::pair{ref.friedman, ref.friedman_p}, {ref.coin, ref.coin_p}}) {
      EXPECT_NEAR(r[0], stat, 1e-12 * stat);
      EXPECT_NEAR(p, pv, 1e-12 * pv);
    }
    if (ref.binary) {
      EXPECT_NEAR(r[0], ref.cochran, 1e-12 * ref.cochran);
      EXPECT_NEAR(r[0], ref.symmetry, 1e-12 * ref.symmetry);
      EXPECT_NEAR(p, ref.symmetry_p, 1e-12 * ref.symmetry_p);
    }
    EXPECT_EQ(anvl::Word(anvl::word::kDegreesOfFreedom), ref.k - 1);
    HostCall w = Call(TQ_PROC_KENDALL_W, TQ_METHOD_ASYMPTOTIC, ref.values, ref.k);
    const double W = w.RunCases()[0];
    EXPECT_NEAR(W, ref.friedman / (ref.n * (ref.k - 1.0)), 1e-12 * W);
  }
}

TEST(RelatedSamples, MonteCarloEstimatesTheExactValue) {
  std::mt19937_64 rng(7);
  const std::vector<double> data = RandomBlocks(rng, 4, 4, 3);
  HostCall exact = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, data, 4);
  const double p = exact.RunCases()[16];
  ASSERT_GT(p, 0.02);
  ASSERT_LT(p, 0.98);
  constexpr int64_t M = 20000;
  // A false alarm at 4 standard errors: about 6e-5 per seed.
  for (int64_t seed : {1, 2024, 99991}) {
    HostCall mc = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, data, 4);
    mc.MonteCarlo(M, seed, 0.99);
    const double* r = mc.RunCases();
    ASSERT_EQ(r[48], 0.0);
    EXPECT_EQ(mc.Published(), (std::vector<int>{0, 21, 22, 23}));
    EXPECT_NEAR(r[21], p, 4.0 * std::sqrt(p * (1 - p) / M)) << "seed " << seed;
    EXPECT_LT(r[22], r[21]);
    EXPECT_GT(r[23], r[21]);
    HostCall again = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, data, 4);
    again.MonteCarlo(M, seed, 0.99);
    EXPECT_EQ(again.RunCases()[21], r[21]) << "same seed, same estimate";
  }
  // S = 0: every sample reaches it.
  HostCall all = Call(TQ_PROC_KENDALL_W, TQ_METHOD_EXACT, {1, 2, 2, 1}, 2);
  all.MonteCarlo(500, 3, 0.99);
  const double* r = all.RunCases();
  EXPECT_EQ(r[21], 1.0);
  EXPECT_NEAR(r[22], std::pow(0.01, 1.0 / 500), 1e-15);
  EXPECT_EQ(r[23], 1.0);
}

TEST(RelatedSamples, ConstantBlocksLeaveTheCallersData) {
  // Three blocks, one constant: the test on the other two, which move
  // forward in the caller's array; the slot behind them keeps its values.
  const std::vector<double> two = {1, 3, 2, 2, 1, 3};
  HostCall plain = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, two, 3);
  const double* a = plain.RunCases();
  HostCall with_constant = Call(TQ_PROC_FRIEDMAN, TQ_METHOD_EXACT, {4, 4, 4, 1, 3, 2, 2, 1, 3}, 3);
  const double* b = with_constant.RunCases();
  for (int f : {0, 16, 17}) EXPECT_EQ(a[f], b[f]) << "field " << f;
  EXPECT_EQ(with_constant.values, (std::vector<double>{1, 3, 2, 2, 1, 3, 2, 1, 3}));
  EXPECT_EQ(plain.values, two);
}

TEST(RelatedSamples, FailuresShowTheCodeAndLeaveDataAsPrescribed) {
  struct Case {
    const char* what;
    int64_t procedure;
    std::vector<double> data;
    int64_t k;
    double field48;
    std::vector<double> data_after;
  };
  const std::vector<Case> cases = {
      {"one block left",
       TQ_PROC_FRIEDMAN,
       {4, 4, 4, 1, 2, 3, 7, 7, 7},
       3,
       -849.0,
       {1, 2, 3, 1, 2, 3, 7, 7, 7}},
      {"one row", TQ_PROC_KENDALL_W, {1, 2, 3}, 1, -849.0, {1, 2, 3}},
      {"no blocks", TQ_PROC_FRIEDMAN, {}, 3, -849.0, {}},
      {"a 2 under Cochran's Q",
       TQ_PROC_COCHRAN_Q,
       {1, 1, 1, 0, 1, 2, 1, 0, 0},
       3,
       -1035.0,
       {0, 1, 2, 1, 0, 0, 1, 0, 0}},
      {"NaN",
       TQ_PROC_FRIEDMAN,
       {5, 5, 5, 1, NAN, 3, 2, 1, 3},
       3,
       -1003.0,
       {5, 5, 5, 1, NAN, 3, 2, 1, 3}},
      {"infinity",
       TQ_PROC_COCHRAN_Q,
       {1, 1, 0, 1, 0, INFINITY},
       3,
       -1003.0,
       {1, 1, 0, 1, 0, INFINITY}},
  };
  for (const Case& c : cases) {
    for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_MONTE_CARLO, TQ_METHOD_ASYMPTOTIC}) {
      HostCall call = Call(c.procedure, method, c.data, c.k);
      if (method == TQ_METHOD_MONTE_CARLO) call.MonteCarlo(100, 5, 0.99);
      const double* r = call.RunCases();
      SCOPED_TRACE(std::string(c.what) + ", method " + std::to_string(method));
      EXPECT_EQ(r[48], c.field48);
      EXPECT_TRUE(call.Published().empty());
      ASSERT_EQ(call.values.size(), c.data_after.size());
      for (size_t i = 0; i < c.data_after.size(); ++i)
        EXPECT_TRUE(call.values[i] == c.data_after[i] ||
                    (std::isnan(call.values[i]) && std::isnan(c.data_after[i])))
            << "value " << i;
    }
  }
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
