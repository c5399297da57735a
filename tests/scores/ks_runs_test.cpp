// The two-sample Kolmogorov-Smirnov test (18) and the runs tests (11, 19)
// from the host's side: exact values against enumeration of every
// arrangement of the samples, against R (tests/data/gen_ks2_refs.R:
// ks.test; gen_runs_refs.R: the Swed-Eisenhart distribution and
// tseries::runs.test), and the cut points (failures and Monte Carlo:
// engines/failures_test.cpp, engines/sampling_routes_test.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "frame/run_store.h"
#include "support/host_call.h"
#include "support/ref_data.h"

namespace {

using anvl::Slot;
using anvl::support::HostCall;
using anvl::support::MakeTable;
using Row = std::vector<int64_t>;
namespace slot = anvl::slot;

double Rel(double a, double b) { return std::fabs(a - b) / std::max(std::fabs(b), 1e-300); }

// Every first row x (0 <= x[k] <= a[k] + b[k], sum n) with its
// hypergeometric probability, handed to `visit`.
template <class Visit>
void Arrangements(const Row& a, const Row& b, Visit&& visit) {
  const size_t K = a.size();
  Row c(K), x(K);
  int64_t n = 0, N = 0;
  for (size_t k = 0; k < K; ++k) n += a[k], N += c[k] = a[k] + b[k];
  auto lc = [](double m, double k) { return std::lgamma(m + 1) - std::lgamma(k + 1) - std::lgamma(m - k + 1); };
  auto walk = [&](auto&& self, size_t k, int64_t left, double lw) -> void {
    for (int64_t t = k + 1 == K ? left : 0; t <= std::min(c[k], left); ++t) {
      x[k] = t;
      const double l = lw + lc(c[k], t);
      if (k + 1 == K) visit(x, c, std::exp(l - lc(N, n)));
      else self(self, k + 1, left - t, l);
    }
  };
  walk(walk, 0, n, 0.0);
}

// D+, D- and D of a first row x over level totals c.
void KsStats(const Row& x, const Row& c, int64_t out[3]) {
  int64_t n = 0, N = 0, A = 0, C = 0, top = 0, bottom = 0;
  for (size_t k = 0; k < c.size(); ++k) n += x[k], N += c[k];
  for (size_t k = 0; k < c.size(); ++k) {
    A += x[k], C += c[k];
    top = std::max(top, A * N - C * n), bottom = std::min(bottom, A * N - C * n);
  }
  out[0] = top, out[1] = -bottom, out[2] = std::max(top, -bottom);
}

const int kKsTail[3] = {86, 93, 100};

TEST(KsTwoSample, ExactTailsMatchEnumerationWithTies) {
  std::mt19937_64 rng(17);
  std::vector<std::pair<Row, Row>> cases = {{{2, 1, 2}, {4, 2, 4}}, {{3, 0}, {0, 2}}};  // D = 0; two levels
  while (cases.size() < 330) {
    Row a(2 + rng() % 6), b(a.size());
    for (size_t k = 0; k < a.size(); ++k) a[k] = rng() % 4, b[k] = rng() % 4;
    cases.push_back({a, b});
  }
  int run = 0;
  for (const auto& [a, b] : cases) {
    int64_t n = 0, m = 0, levels = 0;
    Row c(a.size());
    for (size_t k = 0; k < a.size(); ++k) n += a[k], m += b[k], levels += (c[k] = a[k] + b[k]) > 0;
    if (n == 0 || m == 0 || levels < 2) continue;
    ++run;
    int64_t obs[3];
    KsStats(a, c, obs);
    double tail[3] = {}, point[3] = {};
    Arrangements(a, b, [&](const Row& x, const Row& cx, double p) {
      int64_t s[3];
      KsStats(x, cx, s);
      for (int i = 0; i < 3; ++i) tail[i] += s[i] >= obs[i] ? p : 0.0, point[i] += s[i] == obs[i] ? p : 0.0;
    });
    HostCall call(TQ_PROC_KS_TWO_SAMPLE, TQ_METHOD_EXACT);
    const double* f = call.Run(MakeTable({a, b}));
    SCOPED_TRACE(anvl::support::Describe(MakeTable({a, b})));
    ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
    for (int i = 0; i < 3; ++i) {
      EXPECT_LE(Rel(Slot(kKsTail[i]).value, std::min(tail[i], 1.0)), 1e-9) << i;
      EXPECT_LE(Rel(Slot(kKsTail[i] + 1).value, point[i]), 1e-9) << i;
    }
    EXPECT_EQ(f[TQ_REC_EXACT_TWO], Slot(100).value);
    EXPECT_EQ(f[TQ_REC_POINT], Slot(101).value);
    EXPECT_EQ(f[TQ_REC_TOTAL], static_cast<double>(n + m));
    EXPECT_EQ(f[TQ_REC_STATISTIC], std::max(Slot(84).value, Slot(91).value));
  }
  EXPECT_GE(run, 300);
}

TEST(KsTwoSample, MatchesRKsTestWithAndWithoutTies) {
  const auto refs = anvl::support::LoadCsv("ks2_refs.csv");
  ASSERT_EQ(refs.size(), 62u);
  for (const auto& r : refs) {
    SCOPED_TRACE(r.Text("id"));
    // The two-row table of the samples over their pooled distinct values.
    const std::vector<double> x = r.Reals("x"), y = r.Reals("y");
    std::vector<double> v = x;
    v.insert(v.end(), y.begin(), y.end());
    std::sort(v.begin(), v.end());
    v.erase(std::unique(v.begin(), v.end()), v.end());
    Row a(v.size()), b(v.size());
    for (double d : x) ++a[std::lower_bound(v.begin(), v.end(), d) - v.begin()];
    for (double d : y) ++b[std::lower_bound(v.begin(), v.end(), d) - v.begin()];
    for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_ASYMPTOTIC}) {
      HostCall call(TQ_PROC_KS_TWO_SAMPLE, method);
      const double* f = call.Run(MakeTable({a, b}));
      ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
      // d in single precision on these routes; R gives a d of 0 as -1e-16.
      EXPECT_NEAR(f[TQ_REC_STATISTIC], r.Real("d"), 1e-7);
      EXPECT_NEAR(Slot(84).value, r.Real("d_plus"), 1e-7);
      EXPECT_NEAR(Slot(91).value, r.Real("d_minus"), 1e-7);
      if (method == TQ_METHOD_EXACT) {
        EXPECT_LE(Rel(f[TQ_REC_EXACT_TWO], r.Real("exact_two")), 1e-9);
        EXPECT_LE(Rel(Slot(86).value, r.Real("exact_plus")), 1e-9);
        EXPECT_LE(Rel(Slot(93).value, r.Real("exact_minus")), 1e-9);
      }
      // Ours stops after the first term of the series at most 5e-5, which
      // leaves out less than 5e-6.  ks.test sums it to a tolerance of 1e-6
      // (three terms of its small-l form), which leaves R up to 3.4e-5 off
      // the full series in these rows.
      EXPECT_NEAR(Slot(99).value, r.Real("limit_two"), 5e-6);
      EXPECT_NEAR(Slot(99).value, r.Real("asym_two"), 5e-5);
      EXPECT_LE(Rel(Slot(85).value, r.Real("asym_plus")), 1e-12);
      EXPECT_LE(Rel(Slot(92).value, r.Real("asym_minus")), 1e-12);
    }
  }
}

// The published exact values of an observed run count R with null mean
// `mean`, from the distribution f of the count: the tail on the lower side
// (the upper side for a cut series above its mean), the point, and the
// mass at or beyond R and its mirror image rounded away from the mean.
struct Expected { double one, point, two; };
Expected RunsExpected(const std::vector<double>& f, int R, double mean, bool upper) {
  double M = 2.0 * mean - R;
  M = M > mean ? std::ceil(M) : std::trunc(M);
  const double hi = std::max<double>(R, M), lo = std::min<double>(R, M);
  Expected e{0.0, f[R], hi == lo ? 1.0 : 0.0};
  for (size_t r = 0; r < f.size(); ++r) {
    e.one += (upper ? r >= static_cast<size_t>(R) : r <= static_cast<size_t>(R)) ? f[r] : 0.0;
    e.two += hi != lo && (r >= hi || r <= lo) ? f[r] : 0.0;
  }
  return e;
}

TEST(RunsTest, TiedLevelsArrangeAsStatedAndExactValuesMatchEnumeration) {
  // By hand (f first sample, s second; levels in order), fewest and most:
  // (2, 2) f f s s, f s f s; (1, 1) (1, 0) f s | f both ways (the
  // fewest-runs walk starts from f, though s f | f has 2); (3, 1) (0, 2)
  // (1, 0) f f f s | s s | f, f s f f | s s | f; (0, 1) (2, 1) (1, 1)
  // s | s f f | f s, s | f s f | s f.
  const struct {
    Row a, b;
    double fewest, most;
  } hand[] = {{{2}, {2}, 2, 4}, {{1, 1}, {1, 0}, 3, 3}, {{3, 0, 1}, {1, 2, 0}, 3, 5}, {{0, 2, 1}, {1, 1, 1}, 3, 6}};
  for (const auto& h : hand) {
    HostCall call(TQ_PROC_WALD_WOLFOWITZ, TQ_METHOD_ASYMPTOTIC);
    const double* f = call.Run(MakeTable({h.a, h.b}));
    EXPECT_EQ(f[6], h.fewest);
    EXPECT_EQ(f[0], h.most);
  }
  std::mt19937_64 rng(11);
  int run = 0, tied = 0;
  while (run < 300) {
    Row a(1 + rng() % 6), b(a.size());
    int64_t n = 0, m = 0;
    for (size_t k = 0; k < a.size(); ++k) n += a[k] = rng() % 3, m += b[k] = rng() % 3;
    if (n == 0 || m == 0 || n + m > 14) continue;
    ++run;
    std::vector<double> dist(n + m + 1, 0.0);  // runs of every order: the table of unit levels
    Row order(n + m, 0);
    std::fill(order.begin(), order.begin() + n, 1);
    std::sort(order.begin(), order.end());
    double orders = 0;
    do {
      int r = 1;
      for (size_t i = 1; i < order.size(); ++i) r += order[i] != order[i - 1];
      dist[r] += 1, orders += 1;
    } while (std::next_permutation(order.begin(), order.end()));
    for (double& p : dist) p /= orders;
    HostCall call(TQ_PROC_WALD_WOLFOWITZ, TQ_METHOD_EXACT);
    const double* f = call.Run(MakeTable({a, b}));
    SCOPED_TRACE(anvl::support::Describe(MakeTable({a, b})));
    ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
    const double mean = 2.0 * n * m / (n + m) + 1.0;
    EXPECT_DOUBLE_EQ(f[2], mean);
    const bool ties = Slot(slot::kStatistic).status == anvl::kStatusPublished;
    tied += ties;
    for (int i = ties ? 0 : 1; i < 2; ++i) {
      const Expected e = RunsExpected(dist, static_cast<int>(Slot(i == 0 ? 0 : 8).value), mean, false);
      EXPECT_LE(Rel(Slot(i == 0 ? slot::kExactOneSided : slot::kExactOneSided2).value, e.one), 1e-9) << i;
      EXPECT_LE(Rel(Slot(i == 0 ? slot::kPointProbability : slot::kPointProbability2).value, e.point), 1e-9);
      EXPECT_LE(Rel(Slot(i == 0 ? slot::kExactTwoSided : slot::kExactTwoSided2).value, e.two), 1e-9) << i;
    }
    EXPECT_EQ(f[15], Slot(slot::kExactOneSided2).value);
    EXPECT_EQ(f[17], Slot(slot::kPointProbability2).value);
  }
  EXPECT_GE(tied, 100);
}

TEST(RunsTest, MatchesTheNullDistributionAndTseries) {
  const auto refs = anvl::support::LoadCsv("runs_refs.csv");
  ASSERT_EQ(refs.size(), 40u);
  for (const auto& r : refs) {
    SCOPED_TRACE(r.Text("id"));
    const std::vector<double> s = r.Reals("sequence");
    const double R = r.Real("runs"), lower = r.Real("lower"), upper = r.Real("upper"), point = r.Real("point");
    Row a, b;  // Wald-Wolfowitz on unit levels: the lower tail
    for (double v : s) a.push_back(v == 1.0), b.push_back(v == 0.0);
    HostCall ww(TQ_PROC_WALD_WOLFOWITZ, TQ_METHOD_EXACT);
    const double* f = ww.Run(MakeTable({a, b}));
    ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
    EXPECT_EQ(f[0], R);
    EXPECT_EQ(f[TQ_REC_SIDE], 1.0);
    EXPECT_LE(Rel(f[15], lower), 1e-9);
    EXPECT_LE(Rel(f[17], point), 1e-9);
    EXPECT_LE(Rel(Slot(slot::kExactTwoSided2).value, r.Real("two")), 1e-9);
    HostCall cut(TQ_PROC_RUNS, TQ_METHOD_EXACT);  // the series cut at 0.5: the tail on the observed side
    cut.values = s, cut.ip[TQ_INT_OPTION11] = 13, cut.rp[TQ_REAL_OPTION11] = 0.5;
    f = cut.RunCases();
    ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
    const double z = f[1], mean = f[2], sd = f[3];
    EXPECT_EQ(Slot(slot::kOption11Value).value, 0.5);
    EXPECT_LE(Rel(Slot(slot::kExactOneSided2).value, mean > R ? lower : upper), 1e-9);
    EXPECT_LE(Rel(f[17], point), 1e-9);
    EXPECT_LE(Rel(f[16], r.Real("two")), 1e-9);
    // tseries has no continuity correction; below 50 observations ours
    // moves R half a run towards the mean.
    const double correction = s.size() >= 50 || R == mean ? 0.0 : R < mean ? 0.5 : -0.5;
    EXPECT_NEAR((z - r.Real("z")) * sd, correction, 1e-9);
    if (correction == 0.0) {
      EXPECT_LE(Rel(Slot(slot::kAsymTwoSided2).value, r.Real("p_asym")), 1e-9);
    }
  }
}

TEST(RunsTest, CutPoints) {
  // 3 1 4 1 5 9 2 6 5 5: median (4 + 5) / 2, mode 5, mean 4.1, or as given;
  // no option is the median.
  const struct {
    int64_t option;
    double cut, published;
  } cuts[] = {{1, 4.5, 1}, {2, 5.0, 2}, {3, 4.1, 3}, {13, 4.0, 13}, {0, 4.5, 1}};
  for (const auto& c : cuts) {
    HostCall call(TQ_PROC_RUNS, TQ_METHOD_ASYMPTOTIC);
    call.values = {3, 1, 4, 1, 5, 9, 2, 6, 5, 5};
    call.ip[TQ_INT_OPTION11] = c.option;
    call.rp[TQ_REAL_OPTION11] = 4.0;
    ASSERT_EQ(call.RunCases()[TQ_REC_FAILURE], 0.0) << c.option;
    EXPECT_EQ(Slot(slot::kOption11Value).value, c.cut) << c.option;
    EXPECT_EQ(anvl::Word(anvl::word::kPublishedOption), c.published) << c.option;
  }
  HostCall weighted(TQ_PROC_RUNS, TQ_METHOD_ASYMPTOTIC);  // 1 1 2 2 2 cut at 2: two runs
  weighted.values = {1, 2};
  weighted.weights = {2, 3};
  EXPECT_EQ(weighted.RunCases()[0], 2.0);
}

}  // namespace
