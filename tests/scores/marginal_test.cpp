// Marginal homogeneity (procedures 10, 510) against brute force: every
// up/down assignment of the subjects who moved between two categories.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <vector>

#include "anvlwtq.h"
#include "support/host_call.h"

namespace anvl::support {
namespace {

long double LogHalfBinomial(int64_t n, int64_t k) {
  return std::lgammal(n + 1.0L) - std::lgammal(k + 1.0L) - std::lgammal(n - k + 1.0L) -
         n * std::log(2.0L);
}

TEST(MarginalHomogeneity, ExactMatchesAllMoves) {
  std::mt19937_64 rng(510);
  int checked = 0;
  for (int trial = 0; trial < 300; ++trial) {
    const int r = 3 + static_cast<int>(rng() % 2);
    Table t{r, r, std::vector<int64_t>(r * r)};
    for (auto& x : t.cells) x = static_cast<int64_t>(rng() % 5);
    std::vector<double> s(r);
    for (int i = 0; i < r; ++i) s[i] = static_cast<double>(rng() % 4) + (rng() % 2 ? 0.5 : 0.0);
    // Statistic: the sum over off-diagonal cells of count x row score.
    // Under the null each pair {i, j} splits its movers binomially.
    long double tobs = 0, base = 0;
    std::map<long double, long double> dist = {{0.0L, 1.0L}};
    for (int i = 0; i < r; ++i)
      for (int j = i + 1; j < r; ++j) {
        const int64_t a = t.at(i, j), b = t.at(j, i), n = a + b;
        tobs += a * (long double)s[i] + b * (long double)s[j];
        base += n * (long double)s[j];
        const long double d = (long double)s[i] - s[j];
        std::map<long double, long double> next;
        for (auto [v, p] : dist)
          for (int64_t k = 0; k <= n; ++k) next[v + k * d] += p * std::exp(LogHalfBinomial(n, k));
        dist.swap(next);
      }
    tobs -= base;
    long double mean = 0;
    for (auto [v, p] : dist) mean += v * p;
    long double above = 0, below = 0, point = 0, two = 0;
    const long double hi = std::max(tobs, 2 * mean - tobs), lo = std::min(tobs, 2 * mean - tobs);
    for (auto [v, p] : dist) {
      if (v >= tobs - 1e-9L) above += p;
      if (v <= tobs + 1e-9L) below += p;
      if (std::fabs(v - tobs) <= 1e-9L) point += p;
      if (v >= hi - 1e-9L) two += p;
      if (v <= lo + 1e-9L) two += p;
    }
    HostCall call(TQ_PROC_MARGINAL_HOMOG_LONG, TQ_METHOD_EXACT);
    call.scores = s;
    const double* f = call.Run(t);
    SCOPED_TRACE(Describe(t));
    if (std::fabs(dist.rbegin()->first - dist.begin()->first) < 1e-12L) {
      EXPECT_EQ(f[48], -1004.0);  // no one moved between categories of different scores
      continue;
    }
    ASSERT_EQ(f[48], 0.0);
    const bool upper = tobs > mean + 1e-9L;
    EXPECT_EQ(f[12], upper ? 2.0 : 1.0);
    EXPECT_NEAR(f[0] - f[2], (double)(tobs - mean), 1e-9);
    const long double one = upper ? above : below;
    EXPECT_LE(std::fabs(f[15] - (double)one), 1e-9 * (double)one);
    EXPECT_LE(std::fabs(f[16] - (double)std::min(1.0L, two)), 1e-9 * (double)two);
    EXPECT_LE(std::fabs(f[17] - (double)point), 1e-9 * (double)point);
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

TEST(MarginalHomogeneity, MonteCarloWithinFourStandardErrors) {
  const Table t = MakeTable({{5, 3, 1, 0}, {7, 6, 2, 1}, {2, 6, 8, 3}, {1, 0, 5, 9}});
  const std::vector<double> s = {1, 2, 3, 5};
  HostCall exact(TQ_PROC_MARGINAL_HOMOG_LONG, TQ_METHOD_EXACT);
  exact.scores = s;
  const double* e = exact.Run(t);
  ASSERT_EQ(e[48], 0.0);
  const double one = e[15], two = e[16];
  HostCall mc(TQ_PROC_MARGINAL_HOMOG_LONG, TQ_METHOD_EXACT);
  mc.scores = s;
  mc.MonteCarlo(20000, 4321, 0.99);
  const double* f = mc.Run(t);
  ASSERT_EQ(f[48], 0.0);
  EXPECT_LE(std::fabs(f[18] - one), 4 * std::sqrt(one * (1 - one) / 20000) + 1e-12);
  EXPECT_LE(std::fabs(f[21] - two), 4 * std::sqrt(two * (1 - two) / 20000) + 1e-12);
}

TEST(MarginalHomogeneity, BadTablesGiveTheCodeAndNothingElse) {
  struct Case {
    const char* what;
    Table table;
    std::vector<double> scores;
    double field48;
  };
  const Case cases[] = {
      {"not square", MakeTable({{1, 2, 3}, {3, 4, 5}}), {1, 2, 3}, 88 - 1000.0},
      {"one row", MakeTable({{4}}), {1}, -1016.0},
      {"nobody moved", MakeTable({{4, 0, 0}, {0, 3, 0}, {0, 0, 2}}), {1, 2, 3}, -1004.0},
      {"equal scores", MakeTable({{4, 2, 0}, {1, 3, 0}, {0, 0, 2}}), {1, 1, 3}, -1004.0},
      {"negative count", MakeTable({{4, -2, 0}, {1, 3, 1}, {0, 2, 2}}), {1, 2, 3}, -1001.0},
      {"negative 2 x 2", MakeTable({{4, -2}, {1, 3}}), {1, 2}, -1001.0},
      {"no moves 2 x 2", MakeTable({{4, 0}, {0, 3}}), {1, 2}, -1004.0},
      {"non-finite score", MakeTable({{4, 2, 0}, {1, 3, 1}, {0, 2, 2}}), {1, NAN, 3}, -1003.0},
  };
  for (const Case& c : cases)
    for (int64_t procedure : {TQ_PROC_MARGINAL_HOMOG, TQ_PROC_MARGINAL_HOMOG_LONG}) {
      SCOPED_TRACE(c.what);
      HostCall call(procedure, TQ_METHOD_EXACT);
      call.scores = c.scores;
      call.Run(c.table);
      EXPECT_EQ(call.f[48], c.field48);
      EXPECT_TRUE(call.Published().empty());
    }
}

}  // namespace
}  // namespace anvl::support
