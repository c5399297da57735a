// The Monte Carlo route of every family against its exact route: seeded
// estimates within four standard errors of the exact values (a false alarm
// about once in 16000 per estimate), inside their intervals, the count of
// samples, no exact value beside them, the same seed repeating the record;
// and the intervals when every draw or none reaches the observed value.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "frame/run_store.h"
#include "support/host_call.h"
#include "support/ref_data.h"

namespace anvl {
namespace {

using support::HostCall;
using support::MakeTable;
using support::Table;

// A value of a run: a field of the record or a slot of the store; its
// interval follows it (the next two fields or slots).
struct Source {
  int field = -1, slot = -1;
  double Value(const double* f, int offset = 0) const {
    return slot >= 0 ? Slot(slot + offset).value : f[field + offset];
  }
};
constexpr Source F(int field) { return {field, -1}; }
constexpr Source S(int slot) { return {-1, slot}; }

struct Case {
  std::string what;
  HostCall call;  // the exact route
  bool table;     // runs on `t`, else on the call's case data
  Table t;
  std::vector<std::pair<Source, Source>> values;  // an exact value and its estimate
  std::vector<std::pair<int, int>> record = {};   // a record field that shows a slot
  std::vector<int> published = {};               // the Monte Carlo record's fields, where checked
};

HostCall Call(int64_t procedure, std::vector<double> u = {}, std::vector<double> v = {}) {
  HostCall c(procedure, TQ_METHOD_EXACT);
  c.row_scores = std::move(u);
  c.scores = std::move(v);
  return c;
}

HostCall Cases(int64_t procedure, std::vector<double> values, std::vector<int64_t> weights, int64_t rows) {
  HostCall c(procedure, TQ_METHOD_EXACT);
  c.values = std::move(values);
  c.weights = std::move(weights);
  c.case_rows = rows;
  return c;
}

// The one-sample Kolmogorov-Smirnov test of a model (1 uniform, 3 Poisson,
// 4 normal, 6 exponential).
HostCall Ks1(int64_t model, double p1, double p2, std::vector<double> x, std::vector<int64_t> w = {}) {
  HostCall c = Cases(TQ_PROC_KS_ONE_SAMPLE, std::move(x), std::move(w), 1);
  c.ip[TQ_INT_MODEL] = model;
  c.rp[model == 1 ? TQ_REAL_PARAM1 : TQ_REAL_PARAM3] = p1;
  c.rp[model == 1 ? TQ_REAL_PARAM2 : TQ_REAL_PARAM4] = p2;
  return c;
}

TEST(MonteCarloRoutes, EstimatesMatchTheExactValuesAndRepeat) {
  const std::pair<Source, Source> one{F(15), F(18)}, two{F(16), F(21)};
  std::vector<Case> cases;
  // Every association procedure on one table.
  const Table t4 = MakeTable({{4, 2, 1, 0}, {2, 3, 3, 1}, {0, 1, 3, 5}, {1, 0, 2, 2}});
  for (int proc : {41, 47, 48, 50, 49, 20, 21, 40, 45, 43, 46}) {
    HostCall c = proc == 41 || proc == 47 ? Call(proc, {-1, 0.5, 4, 6}, {0, 1, 3, 7}) : Call(proc);
    cases.push_back({"procedure " + std::to_string(proc), c, true, t4, {two}});
    if (proc == 41 || proc == 20) cases.back().values.push_back(one);
  }
  // The two-sample score tests of score_refs.csv, paired differences (a
  // one-row table) and marginal homogeneity.
  for (const support::CsvRow& r : support::LoadCsv("score_refs.csv"))
    cases.push_back({r.Text("id") + " rule " + r.Text("rule"), Call(r.Int("rule") == 1 ? 2 : 1), true,
                     support::FromColumnMajor(2, r.Int("cols"), r.Ints("cells")), {one, two}});
  const Table paired{1, 7, {3, 2, 4, 1, 2, 5, 3}};
  for (int64_t proc : {TQ_PROC_WILCOXON, TQ_PROC_SCORES_EQUAL})
    cases.push_back({"paired", Call(proc, {}, {-2, -1, 0, 0.5, 1, 2, 3}), true, paired, {one, two}});
  cases.push_back({"marginal homogeneity", Call(TQ_PROC_MARGINAL_HOMOG_LONG, {}, {1, 2, 3, 5}), true,
                   MakeTable({{5, 3, 1, 0}, {7, 6, 2, 1}, {2, 6, 8, 3}, {1, 0, 5, 9}}), {one, two}});
  // The three tails of the Kolmogorov-Smirnov tests (D+, D-, D), and both
  // statistics of Wald-Wolfowitz on both sides on a tied table.
  const std::vector<std::pair<Source, Source>> ks = {{S(86), S(88)}, {S(93), S(95)}, {S(100), S(102)}};
  cases.push_back({"ks2", Call(TQ_PROC_KS_TWO_SAMPLE), true,
                   MakeTable({{3, 0, 2, 4, 1, 0}, {1, 3, 2, 0, 3, 4}}), ks, {{21, 102}}});
  cases.push_back({"wald-wolfowitz", Call(TQ_PROC_WALD_WOLFOWITZ), true,
                   MakeTable({{2, 1, 0, 3, 1, 2}, {1, 2, 2, 0, 1, 3}}),
                   {{S(slot::kExactOneSided), S(slot::kMcOneSided)},
                    {S(slot::kExactTwoSided), S(slot::kMcTwoSided)},
                    {S(slot::kExactOneSided2), S(slot::kMcOneSided2)},
                    {S(slot::kExactTwoSided2), S(slot::kMcTwoSided2)}},
                   {{18, slot::kMcOneSided2}, {39, slot::kMcOneSided}}});
  cases.push_back({"ks1 normal",
                   Ks1(4, 0.0, 1.0, {0.35, -0.04, -1.63, -0.09, 0.98, 1.7, 0.2, -0.6, 2.1, 0.05, 1.1, 0.44}),
                   false, {}, {{S(86), S(88)}, {S(93), S(95)}, two}});
  cases.push_back({"ks1 exponential", Ks1(6, 2.5, 0.0, {0.3, 1.1, 4.2, 0.7, 2.2, 6.9, 0.05, 1.6}), false, {},
                   {{S(86), S(88)}, {S(93), S(95)}, two}});
  // The Poisson's exact two-sided value adds both tails: only its one-sided
  // tails are the estimates' (the sum bounds the estimate, below).
  cases.push_back({"ks1 Poisson", Ks1(3, 2.5, 0.0, {0, 1, 2, 3, 5, 7}, {1, 4, 3, 2, 2, 1}), false, {},
                   {{S(86), S(88)}, {S(93), S(95)}}});
  cases.push_back({"friedman", Cases(TQ_PROC_FRIEDMAN, {1, 2, 3, 2, 2, 1, 3, 3, 1, 1, 2, 3, 3, 2, 1, 2}, {}, 4),
                   false, {}, {two}, {}, {0, 21, 22, 23}});
  // One-way tables: small counts draw by inversion; of a total of 1000 most
  // categories take the normal approximation.
  cases.push_back({"one-way", Cases(TQ_PROC_CHISQ, {4.5, 4.5, 6, 3}, {3, 9, 4, 2}, 1), false, {}, {two}, {},
                   {0, 21, 22, 23}});
  cases.push_back({"one-way, N 1000", Cases(TQ_PROC_CHISQ_SHORT, {250, 250, 250, 250}, {260, 240, 270, 230}, 1),
                   false, {}, {two}, {}, {0, 21, 22, 23}});
  constexpr int64_t M = 20000;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    HostCall exact = c.call;
    const double* e = c.table ? exact.Run(c.t) : exact.RunCases();
    ASSERT_EQ(e[48], 0.0);
    std::vector<double> p;
    for (const auto& [ex, est] : c.values) p.push_back(ex.Value(e));
    const std::vector<double> e_record(e, e + TQ_RECORD_LENGTH);
    HostCall mc = c.call;
    mc.MonteCarlo(M, 4711, 0.99);
    HostCall again = mc;
    const double* f = c.table ? mc.Run(c.t) : mc.RunCases();
    ASSERT_EQ(f[48], 0.0);
    for (size_t i = 0; i < p.size(); ++i) {
      const Source est = c.values[i].second;
      const double se = std::sqrt(p[i] * (1 - p[i]) / M);
      EXPECT_LE(std::fabs(est.Value(f) - p[i]), 4 * se + 1e-12) << "value " << i << ": " << est.Value(f)
                                                               << " vs " << p[i];
      // Strictly inside the interval, but at an end of [0, 1].
      const double v = est.Value(f), low = est.Value(f, 1), high = est.Value(f, 2);
      EXPECT_TRUE(v > 0 ? low < v : low == 0) << "value " << i << ": " << low << " " << v;
      EXPECT_TRUE(v < 1 ? high > v : high == 1) << "value " << i << ": " << v << " " << high;
    }
    for (auto [field, s] : c.record) EXPECT_EQ(f[field], Slot(s).value) << "field " << field;
    EXPECT_EQ(Slot(slot::kMcCount).value, static_cast<double>(M));
    if (c.what.rfind("procedure ", 0) == 0) {
      EXPECT_EQ(f[0], e_record[0]);  // the association procedures show their statistic alike
    }
    EXPECT_EQ(f[12], e_record[12]);
    EXPECT_EQ(f[15], support::kTestFiller);
    EXPECT_EQ(f[16], support::kTestFiller);
    if (c.what == "ks1 Poisson") {
      const double sum = e_record[16];
      EXPECT_LE(f[21], sum + 4.0 * std::sqrt(sum * (1.0 - std::min(sum, 1.0)) / M));
    }
    if (!c.published.empty()) {
      EXPECT_GT(p[0], 0.02);
      EXPECT_LT(p[0], 0.98);
      EXPECT_EQ(mc.Published(), c.published);
    }
    const std::vector<double> first(f, f + TQ_RECORD_LENGTH);
    const double* g = c.table ? again.Run(c.t) : again.RunCases();
    for (int i = 0; i < TQ_RECORD_LENGTH; ++i)
      if (i < 42 || i > 44) {
        EXPECT_EQ(g[i], first[i]) << "the same seed, field " << i;
      }
  }
}

// Every draw reaches the observed value (at its mean; S = 0) or none does
// (the most extreme table of a large sample): the estimate 1 or 0 and the
// exact binomial interval at 99%.
TEST(MonteCarloRoutes, AllOrNoDrawsReachTheObservedValue) {
  const double edge = std::pow(0.01, 1.0 / 500);
  HostCall linear(41, TQ_METHOD_MONTE_CARLO), kendall_w = Cases(TQ_PROC_KENDALL_W, {1, 2, 2, 1}, {}, 2);
  linear.MonteCarlo(500, 7, 0.99);
  kendall_w.MonteCarlo(500, 3, 0.99);
  for (const double* f : {linear.Run(MakeTable({{1, 2, 1}, {2, 4, 2}})), kendall_w.RunCases()}) {
    ASSERT_EQ(f[48], 0.0);
    EXPECT_EQ(f[21], 1.0);
    EXPECT_DOUBLE_EQ(f[22], edge);
    EXPECT_EQ(f[23], 1.0);
  }
  HostCall none(41, TQ_METHOD_MONTE_CARLO);
  none.MonteCarlo(500, 7, 0.99);
  const double* f = none.Run(MakeTable({{12, 0, 0}, {0, 12, 0}, {0, 0, 12}}));
  ASSERT_EQ(f[48], 0.0);
  EXPECT_EQ(f[18], 0.0);
  EXPECT_EQ(f[19], 0.0);
  EXPECT_DOUBLE_EQ(f[20], 1.0 - edge);
  EXPECT_EQ(f[21], 0.0);
  // 40 on a 2 x 2 table walks its cell whatever the method asks.
  HostCall walk(40, TQ_METHOD_MONTE_CARLO);
  walk.MonteCarlo(100, 1, 0.99);
  f = walk.Run(MakeTable({{3, 1}, {1, 3}}));
  EXPECT_NEAR(f[16], 34.0 / 70, 1e-14);  // the law 1 16 36 16 1 over 70: H ties at 0 and 4
  EXPECT_NEAR(f[15], 17.0 / 70, 1e-14);  // the cell's upper tail
  EXPECT_EQ(f[12], 2.0);
  EXPECT_EQ(f[6], 3.0);
  EXPECT_EQ(f[8], 2.0);
  EXPECT_EQ(f[21], support::kTestFiller);
}

}  // namespace
}  // namespace anvl
