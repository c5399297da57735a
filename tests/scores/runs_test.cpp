// The runs tests (procedures 11 and 19) from the host's side: exact
// p-values against enumeration of every order of the labels, the exact
// null distribution and tseries::runs.test in R
// (tests/data/gen_runs_refs.R), the arrangements of tied levels and the cut
// points by hand, the Monte Carlo route against the exact values, and the
// failure codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
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
using anvl::Slot;
namespace slot = anvl::slot;

double Rel(double a, double b) { return std::fabs(a - b) / std::max(std::fabs(b), 1e-300); }

// P(R' = r) for every r, over all orders of n ones and m zeros.
std::vector<double> RunsDistribution(int n, int m) {
  std::vector<double> f(static_cast<size_t>(n + m + 2), 0.0);
  std::vector<int> s(static_cast<size_t>(n + m), 0);
  std::fill(s.begin(), s.begin() + n, 1);
  std::sort(s.begin(), s.end());
  double count = 0.0;
  do {
    int r = 1;
    for (size_t i = 1; i < s.size(); ++i) r += s[i] != s[i - 1];
    f[r] += 1.0;
    count += 1.0;
  } while (std::next_permutation(s.begin(), s.end()));
  for (double& p : f) p /= count;
  return f;
}

struct Expected {
  double one, point, two;
};
// The published exact values of an observed count R with null mean `mean`:
// the lower tail (upper for a cut series above its mean), and the mass at
// or beyond R and its mirror image rounded away from the mean.
Expected ExpectedOf(const std::vector<double>& f, int R, double mean, bool upper_side) {
  double M = 2.0 * mean - R;
  M = M > mean ? std::ceil(M) : std::trunc(M);
  const double hi = std::max<double>(R, M), lo = std::min<double>(R, M);
  Expected e{0.0, f[R], 0.0};
  for (size_t r = 0; r < f.size(); ++r) {
    const double x = static_cast<double>(r);
    if (upper_side ? x >= R : x <= R) e.one += f[r];
    if (x >= hi || x <= lo) e.two += f[r];
  }
  if (hi == lo) e.two = 1.0;
  return e;
}

TEST(RunsTest, TiedLevelsArrangeAsStatedAndExactValuesMatchEnumeration) {
  // Arrangements by hand (f first sample, s second; levels in order): a
  // lone (2, 2) gives blocks f f s s and pairs f s f s; (1, 1) (1, 0)
  // gives f s | f both ways (the fewest-runs walk starts from f, though
  // s f | f has 2); (3, 1) (0, 2) (1, 0): f f f s | s s | f and
  // f s f f | s s | f; (0, 1) (2, 1) (1, 1): s | s f f | f s and
  // s | f s f | s f.
  const struct {
    std::vector<int64_t> a, b;
    double fewest, most;
  } hand[] = {{{2}, {2}, 2, 4}, {{1, 1}, {1, 0}, 3, 3}, {{3, 0, 1}, {1, 2, 0}, 3, 5},
              {{0, 2, 1}, {1, 1, 1}, 3, 6}};
  for (const auto& h : hand) {
    HostCall call(TQ_PROC_WALD_WOLFOWITZ, TQ_METHOD_ASYMPTOTIC);
    const double* f = call.Run(MakeTable({h.a, h.b}));
    ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
    EXPECT_EQ(f[6], h.fewest);
    EXPECT_EQ(f[0], h.most);
  }

  std::mt19937_64 rng(11);
  int run = 0, tied = 0;
  while (run < 300) {
    const int K = 1 + static_cast<int>(rng() % 6);
    std::vector<int64_t> a(K), b(K);
    int n = 0, m = 0;
    for (int k = 0; k < K; ++k) {
      a[k] = static_cast<int64_t>(rng() % 3);
      b[k] = static_cast<int64_t>(rng() % 3);
      n += static_cast<int>(a[k]);
      m += static_cast<int>(b[k]);
    }
    if (n == 0 || m == 0 || n + m > 14) continue;
    ++run;
    HostCall call(TQ_PROC_WALD_WOLFOWITZ, TQ_METHOD_EXACT);
    const double* f = call.Run(MakeTable({a, b}));
    SCOPED_TRACE(anvl::support::Describe(MakeTable({a, b})));
    ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
    const std::vector<double> dist = RunsDistribution(n, m);
    const double mean = 2.0 * n * m / (n + m) + 1.0;
    EXPECT_DOUBLE_EQ(f[2], mean);
    const bool ties = Slot(slot::kStatistic).status == anvl::kStatusPublished;
    tied += ties;
    for (int i = ties ? 0 : 1; i < 2; ++i) {
      const int R = static_cast<int>(Slot(i == 0 ? slot::kStatistic : slot::kStatistic2).value);
      const Expected e = ExpectedOf(dist, R, mean, false);
      const int one = i == 0 ? slot::kExactOneSided : slot::kExactOneSided2;
      const int point = i == 0 ? slot::kPointProbability : slot::kPointProbability2;
      const int two = i == 0 ? slot::kExactTwoSided : slot::kExactTwoSided2;
      EXPECT_LE(Rel(Slot(one).value, e.one), 1e-9) << i;
      EXPECT_LE(Rel(Slot(point).value, e.point), 1e-9) << i;
      EXPECT_LE(Rel(Slot(two).value, e.two), 1e-9) << i;
    }
    EXPECT_EQ(f[15], Slot(slot::kExactOneSided2).value);
    EXPECT_EQ(f[17], Slot(slot::kPointProbability2).value);
  }
  EXPECT_GE(tied, 100);
}

std::vector<std::string> Split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::stringstream in(s);
  std::string item;
  while (std::getline(in, item, sep)) out.push_back(item);
  return out;
}

// A series of ones and zeros as the one-sample test sees it: the values
// themselves, cut at 0.5 (ones above).
HostCall SeriesCall(const std::vector<double>& s, int64_t method) {
  HostCall c(TQ_PROC_RUNS, method);
  c.values = s;
  c.ip[TQ_INT_OPTION11] = 13;
  c.rp[TQ_REAL_OPTION11] = 0.5;
  return c;
}

TEST(RunsTest, MatchesTheNullDistributionAndTseries) {
  std::ifstream in(anvl::support::TestDataDir() + "/runs_refs.csv");
  ASSERT_TRUE(in.good());
  std::string line;
  std::getline(in, line);
  int rows = 0;
  while (std::getline(in, line)) {
    const std::vector<std::string> r = Split(line, ',');
    ASSERT_EQ(r.size(), 11u);
    SCOPED_TRACE(r[0]);
    std::vector<double> s;
    for (const std::string& v : Split(r[1], ' ')) s.push_back(std::stod(v));
    const double R = std::stod(r[4]), N = static_cast<double>(s.size());
    const double lower = std::stod(r[5]), upper = std::stod(r[6]), point = std::stod(r[7]);
    // Wald-Wolfowitz on the table of unit levels: the lower tail.
    std::vector<int64_t> a, b;
    for (double v : s) {
      a.push_back(v == 1.0);
      b.push_back(v == 0.0);
    }
    HostCall ww(TQ_PROC_WALD_WOLFOWITZ, TQ_METHOD_EXACT);
    const double* f = ww.Run(MakeTable({a, b}));
    ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
    EXPECT_EQ(f[0], R);
    EXPECT_EQ(f[TQ_REC_SIDE], 1.0);
    EXPECT_LE(Rel(f[15], lower), 1e-9);
    EXPECT_LE(Rel(f[17], point), 1e-9);
    EXPECT_LE(Rel(Slot(slot::kExactTwoSided2).value, std::stod(r[8])), 1e-9);
    // The same series cut at 0.5: the tail on the side of the observed count.
    HostCall cut = SeriesCall(s, TQ_METHOD_EXACT);
    f = cut.RunCases();
    ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
    const double mean = f[2], sd = f[3], z = f[1];
    EXPECT_EQ(Slot(slot::kOption11Value).value, 0.5);
    EXPECT_LE(Rel(Slot(slot::kExactOneSided2).value, mean > R ? lower : upper), 1e-9);
    EXPECT_LE(Rel(f[17], point), 1e-9);
    EXPECT_LE(Rel(f[16], std::stod(r[8])), 1e-9);
    // tseries has no continuity correction; below 50 observations ours
    // moves R half a run towards the mean.
    const double correction = N >= 50 || R == mean ? 0.0 : R < mean ? 0.5 : -0.5;
    EXPECT_NEAR((z - std::stod(r[9])) * sd, correction, 1e-9);
    if (correction == 0.0) {
      EXPECT_LE(Rel(Slot(slot::kAsymTwoSided2).value, std::stod(r[10])), 1e-9);
    }
    ++rows;
  }
  EXPECT_EQ(rows, 40);
}

TEST(RunsTest, CutPointsAndMonteCarlo) {
  // 3 1 4 1 5 9 2 6 5 5: median (4 + 5) / 2, mode 5, mean 4.1, or as given.
  const std::vector<double> series = {3, 1, 4, 1, 5, 9, 2, 6, 5, 5};
  const struct {
    int64_t option;
    double cut, published;
  } cuts[] = {{1, 4.5, 1}, {2, 5.0, 2}, {3, 4.1, 3}, {13, 4.0, 13}, {0, 4.5, 1}};
  for (const auto& c : cuts) {
    HostCall call(TQ_PROC_RUNS, TQ_METHOD_ASYMPTOTIC);
    call.values = series;
    call.ip[TQ_INT_OPTION11] = c.option;
    call.rp[TQ_REAL_OPTION11] = 4.0;
    ASSERT_EQ(call.RunCases()[TQ_REC_FAILURE], 0.0) << c.option;
    EXPECT_EQ(Slot(slot::kOption11Value).value, c.cut) << c.option;
    EXPECT_EQ(anvl::Word(anvl::word::kPublishedOption), c.published) << c.option;
  }
  // Weights repeat a value: the series 1 1 2 2 2 with the median 2 cuts
  // into 0 0 1 1 1, two runs.
  HostCall weighted(TQ_PROC_RUNS, TQ_METHOD_ASYMPTOTIC);
  weighted.values = {1, 2};
  weighted.weights = {2, 3};
  EXPECT_EQ(weighted.RunCases()[0], 2.0);

  // Monte Carlo against exact, a tied table: both statistics, both sides.
  const auto t = MakeTable({{2, 1, 0, 3, 1, 2}, {1, 2, 2, 0, 1, 3}});
  HostCall exact(TQ_PROC_WALD_WOLFOWITZ, TQ_METHOD_EXACT);
  ASSERT_EQ(exact.Run(t)[TQ_REC_FAILURE], 0.0);
  const int exact_slots[4] = {slot::kExactOneSided, slot::kExactTwoSided, slot::kExactOneSided2,
                              slot::kExactTwoSided2};
  const int mc_slots[4] = {slot::kMcOneSided, slot::kMcTwoSided, slot::kMcOneSided2, slot::kMcTwoSided2};
  double p[4];
  for (int i = 0; i < 4; ++i) p[i] = Slot(exact_slots[i]).value;
  const int64_t M = 20000;
  for (int64_t seed : {3, 99}) {
    HostCall mc(TQ_PROC_WALD_WOLFOWITZ, TQ_METHOD_EXACT);
    mc.MonteCarlo(M, seed, 0.99);
    const double* f = mc.Run(t);
    ASSERT_EQ(f[TQ_REC_FAILURE], 0.0);
    for (int i = 0; i < 4; ++i) {
      const double est = Slot(mc_slots[i]).value;
      EXPECT_LE(std::fabs(est - p[i]), 4.0 * std::sqrt(p[i] * (1 - p[i]) / M) + 1e-12) << i;
    }
    EXPECT_EQ(f[18], Slot(slot::kMcOneSided2).value);
    EXPECT_EQ(f[39], Slot(slot::kMcOneSided).value);
  }
}

TEST(RunsTest, BadInputGivesItsFailureCodeAndNothingElse) {
  const double inf = std::numeric_limits<double>::infinity();
  const struct {
    std::vector<double> values;
    std::vector<int64_t> weights;
    int64_t case_rows;
    double field48;
  } cases[] = {
      {{}, {}, 1, 901 - 1000.0},                     // no values
      {{2, 2, 2}, {}, 1, -190 - 1000.0},             // one distinct value
      {{1, inf, 3}, {}, 1, -3 - 1000.0},             // a value that isn't finite
      {{1, 2, 3}, {1, -1, 2}, 1, -1003 - 1000.0},    // a negative count
      {{1, 2, 3, 4}, {}, 2, 116 - 1000.0},           // two case rows
      {{1, 2, 3}, {0, 0, 0}, 1, 901 - 1000.0},       // no observations
  };
  for (const auto& c : cases) {
    for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_ASYMPTOTIC}) {
      HostCall call(TQ_PROC_RUNS, method);
      call.values = c.values;
      call.weights = c.weights;
      call.case_rows = c.case_rows;
      const double* f = call.RunCases();
      EXPECT_EQ(f[TQ_REC_FAILURE], c.field48) << c.field48;
      EXPECT_TRUE(call.Published().empty());
    }
  }
  const struct {
    std::vector<std::vector<int64_t>> rows;
    int64_t memory_kb;
    double field48;
  } tables[] = {
      {{{1, 2}, {2, 1}, {1, 1}}, -1, 216 - 1000.0},   // three rows
      {{{0, 0, 0}, {1, 2, 3}}, -1, 216 - 1000.0},     // an empty sample
      {{{1, -1, 2}, {1, 1, 1}}, -1, 216 - 1000.0},    // a negative count
      {{{1000}, {1000}}, 2048, -1002 - 1000.0},       // stage offsets beyond 2 MiB
  };
  for (const auto& t : tables) {
    HostCall call(TQ_PROC_WALD_WOLFOWITZ, TQ_METHOD_EXACT);
    call.ip[TQ_INT_MEMORY] = t.memory_kb;
    const double* f = call.Run(MakeTable(t.rows));
    EXPECT_EQ(f[TQ_REC_FAILURE], t.field48);
    EXPECT_TRUE(call.Published().empty());
  }
}

}  // namespace
