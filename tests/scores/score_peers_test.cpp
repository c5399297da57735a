// The two-sample score tests against R (stats, exactRankTests, coin): the
// committed values of tests/data/gen_score_refs.R; what the family makes of
// tables with nothing to test and of scores (failures and Monte Carlo:
// engines/failures_test.cpp, engines/sampling_routes_test.cpp).
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
