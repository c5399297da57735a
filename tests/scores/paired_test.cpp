// The paired-sample score tests (one-row tables) and marginal homogeneity
// (procedures 10, 510): exact values against brute force (every assignment
// of signs to the non-zero differences, of directions to the subjects who
// moved between two categories), the Monte Carlo route, and R's values
// (tests/data/gen_paired_refs.R).
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <vector>

#include "anvlwtq.h"
#include "support/host_call.h"
#include "support/ref_data.h"

namespace anvl::support {
namespace {

long double LogHalfBinomial(int64_t n, int64_t k) {
  return std::lgammal(n + 1.0L) - std::lgammal(k + 1.0L) - std::lgammal(n - k + 1.0L) -
         n * std::log(2.0L);
}

// The law of sum_l k_l d_l with independent k_l ~ binomial(n_l, 1/2), and
// its masses about tobs (ties within 1e-9: the scores are halves).
struct Law {
  long double mean = 0, above = 0, below = 0, point = 0, two = 0, low = 0, high = 0;
};
Law HalfBinomialLaw(const std::vector<std::pair<int64_t, long double>>& levels, long double tobs) {
  std::map<long double, long double> dist = {{0.0L, 1.0L}};
  for (auto [n, d] : levels) {
    std::map<long double, long double> next;
    for (auto [v, p] : dist)
      for (int64_t k = 0; k <= n; ++k) next[v + k * d] += p * std::exp(LogHalfBinomial(n, k));
    dist.swap(next);
  }
  Law w;
  w.low = dist.begin()->first, w.high = dist.rbegin()->first;
  for (auto [v, p] : dist) w.mean += v * p;
  const long double hi = std::max(tobs, 2 * w.mean - tobs), lo = std::min(tobs, 2 * w.mean - tobs);
  for (auto [v, p] : dist) {
    if (v >= tobs - 1e-9L) w.above += p;
    if (v <= tobs + 1e-9L) w.below += p;
    if (std::fabs(v - tobs) <= 1e-9L) w.point += p;
    if (v >= hi - 1e-9L) w.two += p;
    if (v <= lo + 1e-9L) w.two += p;
  }
  return w;
}

// The side, one-sided, two-sided and point values of record f against the law.
void ExpectRecord(const double* f, const Law& w, long double tobs) {
  const bool upper = tobs > w.mean + 1e-9L;
  const long double one = upper ? w.above : w.below;
  EXPECT_EQ(f[12], upper ? 2.0 : 1.0);
  EXPECT_LE(std::fabs(f[15] - (double)one), 1e-9 * (double)one);
  EXPECT_LE(std::fabs(f[16] - (double)std::min(1.0L, w.two)), 1e-9 * (double)w.two);
  EXPECT_LE(std::fabs(f[17] - (double)w.point), 1e-9 * (double)w.point);
}

// Levels: distinct |d| with their totals; scores midranks of |d| (signed
// rank) or, for the sign test, one level of all non-zero differences with
// score 1.  T = sum over levels of (positives x score).
TEST(PairedScores, ExactMatchesAllSignAssignments) {
  std::mt19937_64 rng(7150);
  const double values[] = {-3, -2, -1.5, -1, -0.5, 0, 0.5, 1, 1.5, 2, 3, 4};
  int checked = 0;
  for (int trial = 0; trial < 300; ++trial) {
    std::vector<int64_t> counts;
    std::vector<double> diffs;
    const int K = 1 + static_cast<int>(rng() % 6);
    std::map<double, std::pair<int64_t, int64_t>> by_abs;  // |d| -> (positives, negatives)
    for (int j = 0; j < K; ++j) {
      counts.push_back(static_cast<int64_t>(rng() % 5));
      diffs.push_back(values[rng() % 12]);
      if (diffs[j] != 0) (diffs[j] > 0 ? by_abs[diffs[j]].first : by_abs[-diffs[j]].second) += counts[j];
    }
    int64_t pos = 0, n = 0;
    for (auto& [d, pn] : by_abs) pos += pn.first, n += pn.first + pn.second;
    if (n == 0) continue;
    for (int64_t procedure : {TQ_PROC_WILCOXON, TQ_PROC_SCORES_EQUAL}) {
      std::vector<std::pair<int64_t, long double>> levels = {{n, 1.0L}};
      long double tobs = pos, rank = 0;
      if (procedure == TQ_PROC_WILCOXON) {
        levels.clear(), tobs = 0;
        for (auto& [d, pn] : by_abs) {
          const int64_t t = pn.first + pn.second;
          levels.push_back({t, rank + (t + 1) / 2.0L});
          tobs += pn.first * levels.back().second;
          rank += t;
        }
      }
      const Law w = HalfBinomialLaw(levels, tobs);
      HostCall call(procedure, TQ_METHOD_EXACT);
      call.scores = diffs;
      const double* f = call.Run(Table{1, K, counts});
      SCOPED_TRACE("trial " + std::to_string(trial) + " procedure " + std::to_string(procedure));
      ASSERT_EQ(f[48], 0.0);
      EXPECT_NEAR(f[0], (double)tobs, 1e-9);
      EXPECT_NEAR(f[2], (double)w.mean, 1e-9);
      ExpectRecord(f, w, tobs);
      ++checked;
    }
  }
  EXPECT_GE(checked, 400);
}

// Statistic: the sum over off-diagonal cells of count x row score.  Under
// the null each pair {i, j} splits its movers binomially.
TEST(MarginalHomogeneity, ExactMatchesAllMoves) {
  std::mt19937_64 rng(510);
  int checked = 0;
  for (int trial = 0; trial < 300; ++trial) {
    const int r = 3 + static_cast<int>(rng() % 2);
    Table t{r, r, std::vector<int64_t>(r * r)};
    for (auto& x : t.cells) x = static_cast<int64_t>(rng() % 5);
    std::vector<double> s(r);
    for (int i = 0; i < r; ++i) s[i] = static_cast<double>(rng() % 4) + (rng() % 2 ? 0.5 : 0.0);
    long double tobs = 0;
    std::vector<std::pair<int64_t, long double>> levels;
    for (int i = 0; i < r; ++i)
      for (int j = i + 1; j < r; ++j) {
        const int64_t a = t.at(i, j), b = t.at(j, i);
        tobs += a * ((long double)s[i] - s[j]);
        levels.push_back({a + b, (long double)s[i] - s[j]});
      }
    const Law w = HalfBinomialLaw(levels, tobs);
    HostCall call(TQ_PROC_MARGINAL_HOMOG_LONG, TQ_METHOD_EXACT);
    call.scores = s;
    const double* f = call.Run(t);
    SCOPED_TRACE(Describe(t));
    if (std::fabs(w.high - w.low) < 1e-12L) {
      EXPECT_EQ(f[48], -1004.0);  // no one moved between categories of different scores
      continue;
    }
    ASSERT_EQ(f[48], 0.0);
    EXPECT_NEAR(f[0] - f[2], (double)(tobs - w.mean), 1e-9);
    ExpectRecord(f, w, tobs);
    EXPECT_EQ(f[45], r);
    ++checked;
  }
  EXPECT_GE(checked, 250);
}

TEST(MarginalHomogeneity, McNemarIsTheBinomialTest) {
  for (auto [b, c] : {std::pair{3, 9}, std::pair{7, 2}, std::pair{5, 5}, std::pair{0, 4}}) {
    const int64_t n = b + c, x = std::min(b, c);
    long double tail = 0, point = std::exp(LogHalfBinomial(n, x));
    for (int64_t k = 0; k <= x; ++k) tail += std::exp(LogHalfBinomial(n, k));
    for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_MONTE_CARLO, TQ_METHOD_ASYMPTOTIC}) {
      HostCall call(TQ_PROC_MARGINAL_HOMOG_LONG, method);
      if (method == TQ_METHOD_MONTE_CARLO) call.MonteCarlo(1000, 1, 0.99);
      const double* f = call.Run(MakeTable({{4, c}, {b, 6}}));
      ASSERT_EQ(f[48], 0.0);
      EXPECT_EQ(f[0], c - b);
      EXPECT_EQ(f[12], c > b ? 2.0 : 1.0);
      EXPECT_NEAR(f[15], (double)tail, 1e-12);
      EXPECT_NEAR(f[16], std::min(1.0, 2.0 * (double)tail), 1e-12);
      EXPECT_NEAR(f[17], (double)point, 1e-12);
      EXPECT_EQ(f[47], n);
      EXPECT_EQ(f[18], kTestFiller);  // no sampling on a 2 x 2 table
    }
  }
}

TEST(PairedPeers, SignedRankSignTestAndMarginalHomogeneityMatchR) {
  const auto rows = LoadCsv("paired_refs.csv");
  ASSERT_EQ(rows.size(), 18u);
  for (const CsvRow& r : rows) {
    SCOPED_TRACE(r.Text("id") + " rule " + r.Text("rule"));
    const std::vector<int64_t> counts = r.Ints("counts");
    HostCall call(r.Int("rule") == 1 ? TQ_PROC_WILCOXON : TQ_PROC_SCORES_EQUAL, TQ_METHOD_EXACT);
    call.scores = r.Reals("diffs");
    const double* f = call.Run(Table{1, static_cast<int>(counts.size()), counts});
    ASSERT_EQ(f[48], 0.0);
    const double one = r.Real(f[12] == 2.0 ? "exact_greater" : "exact_less"), two = std::min(1.0, r.Real("exact_two"));
    EXPECT_NEAR(f[15], one, 1e-9 * one);
    EXPECT_NEAR(f[16], two, 1e-9 * two);
    EXPECT_NEAR(f[1], r.Real("z"), 1e-12 * std::fabs(r.Real("z")));
  }
  // Marginal homogeneity: coin's standardised statistic and McNemar's test.
  const auto marginal = LoadCsv("marginal_refs.csv");
  ASSERT_EQ(marginal.size(), 5u);
  for (const CsvRow& r : marginal) {
    SCOPED_TRACE(r.Text("id"));
    HostCall call(TQ_PROC_MARGINAL_HOMOG_LONG, TQ_METHOD_ASYMPTOTIC);
    call.scores = r.Reals("scores");
    const double* f = call.Run(FromColumnMajor(r.Int("r"), r.Int("r"), r.Ints("cells")));
    ASSERT_EQ(f[48], 0.0);
    EXPECT_NEAR(std::fabs(f[1]), std::fabs(r.Real("z")), 1e-12 * std::fabs(r.Real("z")));
    EXPECT_NEAR(f[14], r.Real("asym_two"), 1e-12 * r.Real("asym_two"));
  }
}

}  // namespace
}  // namespace anvl::support
