// The two-sample score tests against R (stats, exactRankTests, coin): the
// committed values of tests/data/gen_score_refs.R; the failures of the score
// family, with those of marginal homogeneity and the two-sample
// Kolmogorov-Smirnov test (Monte Carlo: engines/sampling_routes_test.cpp).
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "frame/record.h"
#include "frame/run_store.h"
#include "scores/score_rules.h"
#include "support/host_call.h"
#include "support/ref_data.h"

namespace anvl::support {
namespace {

void ExpectNear(double got, double want, double rel, const std::string& what) {
  EXPECT_LE(std::fabs(got - want), rel * std::fabs(want)) << what << ": " << got << " vs " << want;
}

int64_t Procedure(const CsvRow& r) { return r.Int("rule") == 1 ? TQ_PROC_WILCOXON : TQ_PROC_SCORES_EQUAL; }
Table RefTable(const CsvRow& r) { return FromColumnMajor(2, r.Int("cols"), r.Ints("cells")); }

TEST(ScorePeers, ExactAndAsymptoticMatchR) {
  const auto refs = LoadCsv("score_refs.csv");
  ASSERT_EQ(refs.size(), 32u);
  for (const CsvRow& r : refs) {
    SCOPED_TRACE(r.Text("id") + " rule " + r.Text("rule"));
    HostCall exact(Procedure(r), TQ_METHOD_EXACT);
    const double* f = exact.Run(RefTable(r));
    ASSERT_EQ(f[48], 0.0);
    ExpectNear(f[15], r.Real(f[12] == 2.0 ? "exact_greater" : "exact_less"), 1e-9, "one-sided");
    ExpectNear(f[16], std::min(1.0, r.Real("exact_two")), 1e-9, "two-sided");
    ExpectNear(f[1], r.Real("z"), 1e-12, "z");

    HostCall asym(Procedure(r), TQ_METHOD_ASYMPTOTIC);
    f = asym.Run(RefTable(r));
    ASSERT_EQ(f[48], 0.0);
    ExpectNear(f[1], r.Real("z"), 1e-12, "z");
    ExpectNear(PrivateBlock().slots[slot::kAsymTwoSided].value, r.Real("asym_two"), 1e-12, "asymptotic");
    EXPECT_TRUE(f[15] == kTestFiller && f[16] == kTestFiller && f[21] == kTestFiller);
    if (r.Int("rule") == 1) {
      EXPECT_EQ(f[0], r.Real("u"));  // the Mann-Whitney form
      HostCall mw(TQ_PROC_MANN_WHITNEY, TQ_METHOD_EXACT);
      f = mw.Run(RefTable(r));
      ASSERT_EQ(f[48], 0.0);
      EXPECT_EQ(f[3], r.Real("u"));
      ExpectNear(f[16], std::min(1.0, r.Real("exact_two")), 1e-9, "502 two-sided");
    }
  }
}

// Bad input ends with its failure value and nothing else: the two-sample
// and paired score tests, marginal homogeneity and the two-sample
// Kolmogorov-Smirnov test, by every method (the memory budget: exact only).
TEST(ScoreFailures, BadInputGivesTheCodeAndNothingElse) {
  constexpr int64_t kScores = TQ_PROC_SCORES_EQUAL, kWilcoxon = TQ_PROC_WILCOXON,
                    kMannWhitney = TQ_PROC_MANN_WHITNEY, kKs = TQ_PROC_KS_TWO_SAMPLE;
  constexpr int64_t kMarginal[] = {TQ_PROC_MARGINAL_HOMOG, TQ_PROC_MARGINAL_HOMOG_LONG};
  struct Case {
    const char* what;
    std::vector<int64_t> procedures;
    Table table;
    double field48;
    std::vector<double> scores = {};
    int64_t memory_kb = -1;
  };
  Table big{2, 10, {}};  // 200 + 200 on ten levels: more nodes than a 2 MiB grid holds
  for (int64_t x : {19, 22, 18, 21, 20, 23, 17, 20, 22, 18, 21, 18, 20, 22, 19, 17, 23, 21, 18, 21})
    big.cells.push_back(x);
  const std::vector<int64_t> two_sample = {kScores, kWilcoxon, kMannWhitney};
  const std::vector<int64_t> marginal(std::begin(kMarginal), std::end(kMarginal));
  const Case cases[] = {
      {"three rows", two_sample, MakeTable({{1, 2}, {3, 4}, {5, 6}}), 216 - 1000.0},
      {"negative count", two_sample, MakeTable({{1, -2, 3}, {3, 4, 5}}), -1001.0},
      {"empty second sample", two_sample, MakeTable({{1, 2, 3}, {0, 0, 0}}), -1001.0},
      {"no levels", two_sample, Table{2, 0, {}}, 216 - 1000.0},
      {"one row without differences", two_sample, MakeTable({{1, 2, 3}}), -1003.0},
      {"grid too small", {kWilcoxon, kMannWhitney}, big, -1001.0, {}, 2048},
      {"paired: all zero", {kWilcoxon}, Table{1, 2, {3, 2}}, -1004.0, {0, 0}},
      {"paired: negative count", {kWilcoxon}, Table{1, 2, {3, -2}}, -1001.0, {1, 2}},
      {"paired: non-finite difference", {kWilcoxon}, Table{1, 2, {3, 2}}, -1003.0, {1, NAN}},
      {"not square", marginal, MakeTable({{1, 2, 3}, {3, 4, 5}}), 88 - 1000.0, {1, 2, 3}},
      {"one row", marginal, MakeTable({{4}}), -1016.0, {1}},
      {"nobody moved", marginal, MakeTable({{4, 0, 0}, {0, 3, 0}, {0, 0, 2}}), -1004.0, {1, 2, 3}},
      {"equal scores", marginal, MakeTable({{4, 2, 0}, {1, 3, 0}, {0, 0, 2}}), -1004.0, {1, 1, 3}},
      {"negative count", marginal, MakeTable({{4, -2, 0}, {1, 3, 1}, {0, 2, 2}}), -1001.0, {1, 2, 3}},
      {"negative 2 x 2", marginal, MakeTable({{4, -2}, {1, 3}}), -1001.0, {1, 2}},
      {"no moves 2 x 2", marginal, MakeTable({{4, 0}, {0, 3}}), -1004.0, {1, 2}},
      {"non-finite score", marginal, MakeTable({{4, 2, 0}, {1, 3, 1}, {0, 2, 2}}), -1003.0, {1, NAN, 3}},
      {"ks: three rows", {kKs}, MakeTable({{1, 2}, {2, 1}, {1, 1}}), -784},
      {"ks: one level (216)", {kKs}, MakeTable({{3}, {2}}), -784},
      {"ks: one non-empty level (4)", {kKs}, MakeTable({{2, 0, 0}, {3, 0, 0}}), -996},
      {"ks: empty first sample (902)", {kKs}, MakeTable({{0, 0, 0}, {1, 2, 3}}), -98},
      {"ks: empty second sample (902)", {kKs}, MakeTable({{1, 2, 3}, {0, 0, 0}}), -98},
      {"ks: negative count", {kKs}, MakeTable({{1, -1, 3}, {2, 2, 2}}), -1001},
  };
  for (const Case& c : cases)
    for (int64_t procedure : c.procedures)
      for (int64_t method : {TQ_METHOD_EXACT, TQ_METHOD_MONTE_CARLO, TQ_METHOD_ASYMPTOTIC}) {
        if (c.memory_kb > 0 && method != TQ_METHOD_EXACT) continue;
        SCOPED_TRACE(std::string(c.what) + " procedure " + std::to_string(procedure) + " method " +
                     std::to_string(method));
        HostCall call(procedure, method);
        if (method == TQ_METHOD_MONTE_CARLO) call.MonteCarlo(100, 5, 0.99);
        call.ip[TQ_INT_MEMORY] = c.memory_kb;
        call.scores = c.scores;
        EXPECT_EQ(call.Run(c.table)[48], c.field48);
        EXPECT_TRUE(call.Published().empty());
      }
  HostCall call(kKs, TQ_METHOD_MONTE_CARLO);
  call.MonteCarlo(100, 5, 1.5);  // a confidence level outside (0, 1)
  EXPECT_EQ(call.Run(MakeTable({{1, 2, 0}, {0, 1, 3}}))[48], -1003.0);
}

TEST(ScoreFailures, EmptyFirstSampleAndOneLevelHaveNothingToTest) {
  for (const Table& t : {MakeTable({{0, 0, 0}, {3, 1, 2}}), MakeTable({{4, 0}, {3, 0}})}) {
    HostCall call(TQ_PROC_WILCOXON, TQ_METHOD_EXACT);
    const double* f = call.Run(t);
    ASSERT_EQ(f[48], 0.0);
    EXPECT_EQ(f[3], 0.0);  // no variance
    EXPECT_EQ(f[15], 1.0);
    EXPECT_EQ(f[16], 1.0);
    EXPECT_EQ(f[17], 1.0);
  }
}

// The two-row form reads no scores under midranks or equally spaced
// scores; the caller's-score rule refuses a score that isn't finite.
TEST(ScoreFailures, ScoresAreReadOnlyByTheRuleThatTakesThem) {
  const Table t = MakeTable({{3, 1, 4, 1}, {0, 5, 2, 6}});
  HostCall plain(TQ_PROC_WILCOXON, TQ_METHOD_EXACT);
  const std::vector<double> clean(plain.Run(t), plain.Run(t) + 42);
  HostCall nan(TQ_PROC_WILCOXON, TQ_METHOD_EXACT);
  nan.scores = {1.0, std::nan(""), INFINITY, 2.0};
  nan.Run(t);
  for (int i = 0; i < 42; ++i) EXPECT_EQ(nan.f[i], clean[i]) << i;

  std::vector<scores::LevelCounts> levels = {{3, 0}, {1, 5}, {4, 2}, {1, 6}};
  std::vector<double> s, c;
  const double bad[] = {1.0, std::nan(""), 2.0, 3.0};
  EXPECT_EQ(scores::TwoSampleScores(levels, bad, scores::kCallerScores, s, c), -3);
  const double good[] = {1.0, 2.5, 2.5, -3.0};
  EXPECT_EQ(scores::TwoSampleScores(levels, good, scores::kCallerScores, s, c), 0);
  EXPECT_EQ(s, std::vector<double>(good, good + 4));
}

}  // namespace
}  // namespace anvl::support
