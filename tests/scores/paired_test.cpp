// The paired-sample score tests (one-row tables) against brute force: every
// assignment of signs to the non-zero differences, summed by level.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <vector>

#include "anvlwtq.h"
#include "support/host_call.h"

namespace anvl::support {
namespace {

struct PairedCase {
  std::vector<int64_t> counts;
  std::vector<double> diffs;
};

// The exact distribution of T = sum over levels of (positives x score),
// each difference positive with probability 1/2.  Levels: distinct |d|
// with their totals; scores midranks of |d| (signed rank) or, for the sign
// test, one level of all non-zero differences with score 1.
std::map<long double, long double> Distribution(const PairedCase& c, bool signed_rank,
                                                long double* tobs) {
  std::map<double, std::pair<int64_t, int64_t>> by_abs;  // |d| -> (positives, negatives)
  for (size_t j = 0; j < c.counts.size(); ++j) {
    if (c.diffs[j] == 0) continue;
    auto& e = by_abs[std::fabs(c.diffs[j])];
    (c.diffs[j] > 0 ? e.first : e.second) += c.counts[j];
  }
  std::vector<std::pair<int64_t, long double>> levels;  // (total, score)
  *tobs = 0;
  long double rank = 0;
  int64_t pos = 0, n = 0;
  for (auto& [d, pn] : by_abs) {
    const int64_t t = pn.first + pn.second;
    const long double score = signed_rank ? rank + (t + 1) / 2.0L : 1.0L;
    rank += t;
    levels.push_back({t, score});
    *tobs += pn.first * score;
    pos += pn.first;
    n += t;
  }
  if (!signed_rank) {
    levels = {{n, 1.0L}};
    *tobs = pos;
  }
  std::map<long double, long double> dist = {{0.0L, 1.0L}};
  for (auto [t, score] : levels) {
    std::map<long double, long double> next;
    for (auto [v, p] : dist)
      for (int64_t k = 0; k <= t; ++k)
        next[v + k * score] +=
            p * std::exp(std::lgammal(t + 1.0L) - std::lgammal(k + 1.0L) -
                         std::lgammal(t - k + 1.0L) - t * std::log(2.0L));
    dist.swap(next);
  }
  return dist;
}

TEST(PairedScores, ExactMatchesAllSignAssignments) {
  std::mt19937_64 rng(7150);
  const double values[] = {-3, -2, -1.5, -1, -0.5, 0, 0.5, 1, 1.5, 2, 3, 4};
  int checked = 0;
  for (int trial = 0; trial < 300; ++trial) {
    PairedCase c;
    const int K = 1 + static_cast<int>(rng() % 6);
    for (int j = 0; j < K; ++j) {
      c.counts.push_back(static_cast<int64_t>(rng() % 5));
      c.diffs.push_back(values[rng() % 12]);
    }
    int64_t nonzero = 0;
    for (int j = 0; j < K; ++j) nonzero += c.diffs[j] != 0 ? c.counts[j] : 0;
    if (nonzero == 0) continue;
    for (int64_t procedure : {TQ_PROC_WILCOXON, TQ_PROC_SCORES_EQUAL}) {
      long double tobs;
      const auto dist = Distribution(c, procedure == TQ_PROC_WILCOXON, &tobs);
      long double mean = 0, above = 0, below = 0, point = 0;
      for (auto [v, p] : dist) {
        mean += v * p;
        if (v >= tobs - 1e-9L) above += p;
        if (v <= tobs + 1e-9L) below += p;
        if (std::fabs(v - tobs) <= 1e-9L) point += p;
      }
      HostCall call(procedure, TQ_METHOD_EXACT);
      call.scores = c.diffs;
      const double* f = call.Run(Table{1, K, c.counts});
      SCOPED_TRACE("trial " + std::to_string(trial) + " procedure " + std::to_string(procedure));
      ASSERT_EQ(f[48], 0.0);
      const bool upper = tobs > mean + 1e-9L;
      const long double one = upper ? above : below;
      EXPECT_EQ(f[12], upper ? 2.0 : 1.0);
      EXPECT_NEAR(f[0], (double)tobs, 1e-9);
      EXPECT_NEAR(f[2], (double)mean, 1e-9);
      EXPECT_LE(std::fabs(f[15] - (double)one), 1e-9 * (double)one);
      EXPECT_LE(std::fabs(f[16] - (double)std::min(1.0L, 2 * one)), 1e-9 * (double)one);
      EXPECT_LE(std::fabs(f[17] - (double)point), 1e-9 * (double)point);
      ++checked;
    }
  }
  EXPECT_GE(checked, 400);
}

TEST(PairedScores, MonteCarloWithinFourStandardErrors) {
  const PairedCase c{{3, 2, 4, 1, 2, 5, 3}, {-2, -1, 0, 0.5, 1, 2, 3}};
  for (int64_t procedure : {TQ_PROC_WILCOXON, TQ_PROC_SCORES_EQUAL}) {
    HostCall exact(procedure, TQ_METHOD_EXACT);
    exact.scores = c.diffs;
    const double* e = exact.Run(Table{1, 7, c.counts});
    const double one = e[15], two = e[16];
    HostCall mc(procedure, TQ_METHOD_EXACT);
    mc.scores = c.diffs;
    mc.MonteCarlo(20000, 99, 0.95);
    const double* f = mc.Run(Table{1, 7, c.counts});
    ASSERT_EQ(f[48], 0.0);
    EXPECT_LE(std::fabs(f[18] - one), 4 * std::sqrt(one * (1 - one) / 20000));
    EXPECT_LE(std::fabs(f[21] - two), 4 * std::sqrt(two * (1 - two) / 20000) + 1e-12);
  }
}

TEST(PairedScores, BadDifferencesGiveTheCodeAndNothingElse) {
  struct Case {
    const char* what;
    std::vector<int64_t> counts;
    std::vector<double> diffs;
    double field48;
  };
  const Case cases[] = {
      {"all zero", {3, 2}, {0, 0}, -1004.0},
      {"negative count", {3, -2}, {1, 2}, -1001.0},
      {"non-finite difference", {3, 2}, {1, NAN}, -1003.0},
      {"no differences", {3, 2}, {}, -1003.0},
  };
  for (const Case& c : cases)
    for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_ASYMPTOTIC}) {
      SCOPED_TRACE(c.what);
      HostCall call(TQ_PROC_WILCOXON, method);
      call.scores = c.diffs;
      call.Run(Table{1, static_cast<int>(c.counts.size()), c.counts});
      EXPECT_EQ(call.f[48], c.field48);
      EXPECT_TRUE(call.Published().empty());
    }
}

}  // namespace
}  // namespace anvl::support
