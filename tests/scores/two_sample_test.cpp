// The two-sample score tests against brute force: every first row with the
// table's margins, weighted by its hypergeometric probability.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "anvlwtq.h"
#include "support/host_call.h"

namespace anvl::support {
namespace {

// Exact distribution of T = sum x[j] s[j] over first rows x with column
// totals c and first-row total m, by listing every row.
struct BruteTails {
  long double at_or_above = 0, at_or_below = 0, point = 0;
  long double two_sided = 0;
};

long double LogChoose(int64_t n, int64_t k) {
  return std::lgammal(n + 1.0L) - std::lgammal(k + 1.0L) - std::lgammal(n - k + 1.0L);
}

void Walk(const std::vector<int64_t>& c, const std::vector<double>& s, size_t j, int64_t left,
          long double logw, long double t, std::vector<std::pair<long double, long double>>& out) {
  if (j + 1 == c.size()) {
    if (left > c[j]) return;
    out.emplace_back(t + left * (long double)s[j], logw + LogChoose(c[j], left));
    return;
  }
  for (int64_t x = 0; x <= std::min(c[j], left); ++x)
    Walk(c, s, j + 1, left - x, logw + LogChoose(c[j], x), t + x * (long double)s[j], out);
}

// Midrank or equally spaced scores of the levels, the observed T and its
// tails; ties within 1e-9 absolute (the scores are halves).
BruteTails Brute(const Table& t, bool midranks, long double* tobs_out, long double* mean_out) {
  std::vector<int64_t> c(t.cols);
  std::vector<double> s(t.cols);
  int64_t m = 0, N = 0;
  for (int j = 0; j < t.cols; ++j) {
    c[j] = t.at(0, j) + t.at(1, j);
    m += t.at(0, j);
    N += c[j];
  }
  double rank = 0;
  for (int j = 0; j < t.cols; ++j) {
    s[j] = midranks ? rank + (c[j] + 1) / 2.0 : j;
    rank += c[j];
  }
  long double tobs = 0, mean = 0;
  for (int j = 0; j < t.cols; ++j) {
    tobs += t.at(0, j) * (long double)s[j];
    mean += (long double)m / N * c[j] * s[j];
  }
  std::vector<std::pair<long double, long double>> rows;
  Walk(c, s, 0, m, -LogChoose(N, m), 0, rows);
  const long double mirror = 2 * mean - tobs, hi = std::max(tobs, mirror), lo = std::min(tobs, mirror);
  const long double eps = 1e-9L;
  BruteTails b;
  for (auto [v, lw] : rows) {
    const long double p = std::exp(lw);
    if (v >= tobs - eps) b.at_or_above += p;
    if (v <= tobs + eps) b.at_or_below += p;
    if (std::fabs(v - tobs) <= eps) b.point += p;
    if (v >= hi - eps) b.two_sided += p;
    if (v <= lo + eps) b.two_sided += p;
  }
  *tobs_out = tobs;
  *mean_out = mean;
  return b;
}

void ExpectRel(double got, long double want, double tol, const char* what) {
  EXPECT_LE(std::fabs(got - (double)want), tol * std::max(1e-300, std::fabs((double)want)))
      << what << ": got " << got << " want " << (double)want;
}

TEST(TwoSampleScores, ExactMatchesEnumerationWithHeavyTies) {
  std::mt19937_64 rng(20261123);
  int checked = 0;
  for (int trial = 0; trial < 400; ++trial) {
    const int K = 2 + static_cast<int>(rng() % 5);
    Table t{2, K, std::vector<int64_t>(2 * K)};
    for (auto& x : t.cells) x = static_cast<int64_t>(rng() % 5);
    int64_t first = 0, second = 0;
    for (int j = 0; j < K; ++j) first += t.at(0, j), second += t.at(1, j);
    if (second == 0 || first == 0) continue;
    for (int64_t procedure : {TQ_PROC_WILCOXON, TQ_PROC_SCORES_EQUAL}) {
      long double tobs, mean;
      const BruteTails b = Brute(t, procedure == TQ_PROC_WILCOXON, &tobs, &mean);
      HostCall call(procedure, TQ_METHOD_EXACT);
      const double* f = call.Run(t);
      SCOPED_TRACE(Describe(t) + " procedure " + std::to_string(procedure));
      ASSERT_EQ(f[48], 0.0);
      const bool upper = tobs > mean;
      EXPECT_EQ(f[12], upper ? 2.0 : 1.0);
      ExpectRel(f[15], upper ? b.at_or_above : b.at_or_below, 1e-9, "one-sided");
      ExpectRel(f[16], std::min<long double>(1, b.two_sided), 1e-9, "two-sided");
      ExpectRel(f[17], b.point, 1e-9, "point");
      ++checked;
    }
  }
  EXPECT_GE(checked, 600);
}

}  // namespace
}  // namespace anvl::support
