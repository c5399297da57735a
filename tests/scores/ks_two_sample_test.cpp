// The two-sample Kolmogorov-Smirnov test (procedure 18) from the host's
// side: exact tails against brute-force enumeration of all arrangements
// of the two samples, R's ks.test (tests/data/gen_ks2_refs.R) with and
// without ties,
// the Monte Carlo route against the exact values, and the failure codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
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
using anvl::support::MakeTable;
using anvl::support::Table;

double Rel(double a, double b) { return std::fabs(a - b) / std::max(std::fabs(b), 1e-300); }

// P(stat >= observed) and P(stat = observed) of D+, D- and D over every
// first row x with 0 <= x[k] <= c[k] and sum n, weighted by the product of
// C(c[k], x[k]) over C(N, n).
struct Brute {
  double tail[3] = {}, point[3] = {};
};
Brute Enumerate(const std::vector<int64_t>& a, const std::vector<int64_t>& b) {
  const size_t K = a.size();
  std::vector<int64_t> c(K);
  int64_t n = 0, N = 0;
  for (size_t k = 0; k < K; ++k) {
    c[k] = a[k] + b[k];
    n += a[k];
    N += c[k];
  }
  auto stats = [&](const std::vector<int64_t>& x, int64_t out[3]) {
    int64_t A = 0, C = 0, top = 0, bottom = 0;
    for (size_t k = 0; k < K; ++k) {
      A += x[k];
      C += c[k];
      top = std::max(top, A * N - C * n);
      bottom = std::min(bottom, A * N - C * n);
    }
    out[0] = top;
    out[1] = -bottom;
    out[2] = std::max(top, -bottom);
  };
  int64_t obs[3];
  stats(a, obs);
  auto lchoose = [](int64_t m, int64_t k) {
    return std::lgamma(m + 1.0) - std::lgamma(k + 1.0) - std::lgamma(m - k + 1.0);
  };
  Brute r;
  std::vector<int64_t> x(K, 0);
  const double norm = lchoose(N, n);
  auto visit = [&](auto&& self, size_t k, int64_t left, double lw) -> void {
    if (k + 1 == K) {
      if (left > c[k]) return;
      x[k] = left;
      int64_t s[3];
      stats(x, s);
      const double p = std::exp(lw + lchoose(c[k], left) - norm);
      for (int i = 0; i < 3; ++i) {
        if (s[i] >= obs[i]) r.tail[i] += p;
        if (s[i] == obs[i]) r.point[i] += p;
      }
      return;
    }
    for (int64_t t = 0; t <= std::min(c[k], left); ++t) {
      x[k] = t;
      self(self, k + 1, left - t, lw + lchoose(c[k], t));
    }
  };
  visit(visit, 0, n, 0.0);
  return r;
}

const int kTail[3] = {86, 93, 100}, kPoint[3] = {87, 94, 101}, kMc[3] = {88, 95, 102};

TEST(KsTwoSample, ExactTailsMatchEnumerationWithTies) {
  std::mt19937_64 rng(17);
  std::vector<std::pair<std::vector<int64_t>, std::vector<int64_t>>> cases = {
      {{2, 1, 2}, {4, 2, 4}},      // equal proportions: every tail is 1
      {{3, 0}, {0, 2}},            // two levels: D = |D[1]|
      {{1, 1, 1, 1}, {1, 1, 1, 1}},
  };
  while (cases.size() < 320) {
    const int K = 2 + static_cast<int>(rng() % 6);
    std::vector<int64_t> a(K), b(K);
    for (int k = 0; k < K; ++k) {
      a[k] = static_cast<int64_t>(rng() % 4);
      b[k] = static_cast<int64_t>(rng() % 4);
    }
    cases.push_back({a, b});
  }
  int run = 0;
  for (const auto& [a, b] : cases) {
    int64_t n = 0, m = 0, levels = 0;
    for (size_t k = 0; k < a.size(); ++k) {
      n += a[k];
      m += b[k];
      levels += a[k] + b[k] > 0 ? 1 : 0;
    }
    if (n == 0 || m == 0 || levels < 2) continue;
    ++run;
    HostCall call(TQ_PROC_KS_TWO_SAMPLE, TQ_METHOD_EXACT);
    const double* f = call.Run(MakeTable({a, b}));
    SCOPED_TRACE(anvl::support::Describe(MakeTable({a, b})));
    ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
    const Brute want = Enumerate(a, b);
    for (int i = 0; i < 3; ++i) {
      EXPECT_LE(Rel(anvl::Slot(kTail[i]).value, std::min(want.tail[i], 1.0)), 1e-9) << i;
      EXPECT_LE(Rel(anvl::Slot(kPoint[i]).value, want.point[i]), 1e-9) << i;
    }
    EXPECT_EQ(f[TQ_REC_EXACT_TWO], anvl::Slot(100).value);
    EXPECT_EQ(f[TQ_REC_POINT], anvl::Slot(101).value);
    EXPECT_EQ(f[TQ_REC_TOTAL], static_cast<double>(n + m));
    EXPECT_EQ(f[TQ_REC_STATISTIC], std::max(anvl::Slot(84).value, anvl::Slot(91).value));
  }
  EXPECT_GE(run, 300);
}

std::vector<std::string> Split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::stringstream in(s);
  std::string item;
  while (std::getline(in, item, sep)) out.push_back(item);
  return out;
}

// The two-row table of two raw samples over their pooled distinct values.
Table TableOf(const std::vector<double>& x, const std::vector<double>& y) {
  std::vector<double> v = x;
  v.insert(v.end(), y.begin(), y.end());
  std::sort(v.begin(), v.end());
  v.erase(std::unique(v.begin(), v.end()), v.end());
  std::vector<int64_t> a(v.size()), b(v.size());
  for (double d : x) ++a[std::lower_bound(v.begin(), v.end(), d) - v.begin()];
  for (double d : y) ++b[std::lower_bound(v.begin(), v.end(), d) - v.begin()];
  return MakeTable({a, b});
}

TEST(KsTwoSample, MatchesRKsTestWithAndWithoutTies) {
  std::ifstream in(anvl::support::TestDataDir() + "/ks2_refs.csv");
  ASSERT_TRUE(in.good());
  std::string line;
  std::getline(in, line);
  int rows = 0;
  while (std::getline(in, line)) {
    const std::vector<std::string> r = Split(line, ',');
    ASSERT_EQ(r.size(), 13u);
    SCOPED_TRACE(r[0]);
    std::vector<double> x, y;
    for (const std::string& s : Split(r[1], ' ')) x.push_back(std::stod(s));
    for (const std::string& s : Split(r[2], ' ')) y.push_back(std::stod(s));
    const Table t = TableOf(x, y);
    for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_ASYMPTOTIC}) {
      HostCall call(TQ_PROC_KS_TWO_SAMPLE, method);
      const double* f = call.Run(t);
      ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
      // The asymptotic and exact routes publish d in single precision (R
      // gives a d of 0 as -1e-16).
      EXPECT_NEAR(f[TQ_REC_STATISTIC], std::stod(r[3]), 1e-7);
      EXPECT_NEAR(anvl::Slot(84).value, std::stod(r[4]), 1e-7);
      EXPECT_NEAR(anvl::Slot(91).value, std::stod(r[5]), 1e-7);
      if (method == TQ_METHOD_EXACT) {
        EXPECT_LE(Rel(f[TQ_REC_EXACT_TWO], std::stod(r[6])), 1e-9);
        EXPECT_LE(Rel(anvl::Slot(86).value, std::stod(r[11])), 1e-9);
        EXPECT_LE(Rel(anvl::Slot(93).value, std::stod(r[12])), 1e-9);
      }
      // Ours stops after the first term of the series at most 5e-5, which
      // leaves out less than 5e-6.  ks.test sums it to a tolerance of 1e-6
      // (three terms of its small-l form), which leaves R up to 3.4e-5 off
      // the full series in these rows.
      EXPECT_NEAR(anvl::Slot(99).value, std::stod(r[10]), 5e-6);
      EXPECT_NEAR(anvl::Slot(99).value, std::stod(r[7]), 5e-5);
      EXPECT_LE(Rel(anvl::Slot(85).value, std::stod(r[8])), 1e-12);
      EXPECT_LE(Rel(anvl::Slot(92).value, std::stod(r[9])), 1e-12);
    }
    ++rows;
  }
  EXPECT_EQ(rows, 62);
}

TEST(KsTwoSample, MonteCarloWithinFourStandardErrorsOfExact) {
  const Table t = MakeTable({{3, 0, 2, 4, 1, 0}, {1, 3, 2, 0, 3, 4}});
  HostCall exact(TQ_PROC_KS_TWO_SAMPLE, TQ_METHOD_EXACT);
  ASSERT_EQ(exact.Run(t)[TQ_REC_FAILURE], 0.0);
  double p[3];
  for (int i = 0; i < 3; ++i) p[i] = anvl::Slot(kTail[i]).value;
  const int64_t M = 20000;
  for (int64_t seed : {1, 77, 4242}) {
    HostCall mc(TQ_PROC_KS_TWO_SAMPLE, TQ_METHOD_EXACT);
    mc.MonteCarlo(M, seed, 0.99);
    const double* f = mc.Run(t);
    ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
    double est[3];
    for (int i = 0; i < 3; ++i) {
      est[i] = anvl::Slot(kMc[i]).value;
      EXPECT_LE(std::fabs(est[i] - p[i]), 4.0 * std::sqrt(p[i] * (1 - p[i]) / M)) << i << " " << seed;
      EXPECT_LT(anvl::Slot(kMc[i] + 1).value, est[i]);
      EXPECT_GT(anvl::Slot(kMc[i] + 2).value, est[i]);
    }
    EXPECT_EQ(f[21], est[2]);
    EXPECT_EQ(anvl::Slot(anvl::slot::kMcCount).value, static_cast<double>(M));
    // The same seed gives the same estimates.
    HostCall again(TQ_PROC_KS_TWO_SAMPLE, TQ_METHOD_EXACT);
    again.MonteCarlo(M, seed, 0.99);
    EXPECT_EQ(again.Run(t)[21], f[21]);
  }
}

TEST(KsTwoSample, BadInputGivesItsFailureCodeAndNothingElse) {
  const struct {
    std::vector<std::vector<int64_t>> rows;
    double field48;
  } cases[] = {
      {{{1, 2}, {2, 1}, {1, 1}}, 216 - 1000.0},  // three rows
      {{{3}, {2}}, 216 - 1000.0},               // one level
      {{{2, 0, 0}, {3, 0, 0}}, 4 - 1000.0},     // one non-empty level
      {{{0, 0, 0}, {1, 2, 3}}, 902 - 1000.0},   // empty first sample
      {{{1, 2, 3}, {0, 0, 0}}, 902 - 1000.0},   // empty second sample
      {{{1, -1, 3}, {2, 2, 2}}, -1 - 1000.0},   // negative count
  };
  for (const auto& c : cases) {
    for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_MONTE_CARLO, TQ_METHOD_ASYMPTOTIC}) {
      HostCall call(TQ_PROC_KS_TWO_SAMPLE, method);
      if (method == TQ_METHOD_MONTE_CARLO) call.MonteCarlo(100, 5, 0.99);
      SCOPED_TRACE(anvl::support::Describe(MakeTable(c.rows)));
      const double* f = call.Run(MakeTable(c.rows));
      EXPECT_EQ(f[TQ_REC_FAILURE], c.field48);
      EXPECT_TRUE(call.Published().empty());
    }
  }
  // A Monte Carlo confidence level outside (0, 1).
  HostCall call(TQ_PROC_KS_TWO_SAMPLE, TQ_METHOD_MONTE_CARLO);
  call.MonteCarlo(100, 5, 1.5);
  EXPECT_EQ(call.Run(MakeTable({{1, 2, 0}, {0, 1, 3}}))[TQ_REC_FAILURE], -1003.0);
}

}  // namespace
