// The two-sample score tests against R (stats, exactRankTests, coin): the
// committed values of tests/data/gen_score_refs.R; the Monte Carlo route
// against the exact p-values; the failures of the family.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>
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

struct ScoreRef {
  std::string id;
  int rule = 0, cols = 0;
  std::vector<int64_t> cells;  // column-major, 2 x cols
  double greater = 0, less = 0, two = 0, z = 0, asym_two = 0, u = 0;
  Table table() const { return FromColumnMajor(2, cols, cells); }
};

std::vector<ScoreRef> LoadScoreRefs() {
  std::ifstream in(TestDataDir() + "/score_refs.csv");
  std::vector<ScoreRef> out;
  std::string line;
  std::getline(in, line);
  while (std::getline(in, line)) {
    std::vector<std::string> f;
    std::stringstream ss(line);
    for (std::string item; std::getline(ss, item, ',');) f.push_back(item);
    if (f.size() != 11) continue;
    ScoreRef r;
    r.id = f[0];
    r.rule = std::stoi(f[1]);
    r.cols = std::stoi(f[2]);
    std::stringstream cells(f[3]);
    for (int64_t v; cells >> v;) r.cells.push_back(v);
    r.greater = std::stod(f[4]);
    r.less = std::stod(f[5]);
    r.two = std::stod(f[6]);
    r.z = std::stod(f[7]);
    r.asym_two = std::stod(f[8]);
    r.u = f[9] == "NA" ? std::numeric_limits<double>::quiet_NaN() : std::stod(f[9]);
    out.push_back(r);
  }
  return out;
}

void ExpectNear(double got, double want, double rel, const std::string& what) {
  EXPECT_LE(std::fabs(got - want), rel * std::fabs(want)) << what << ": " << got << " vs " << want;
}

TEST(ScorePeers, ExactAndAsymptoticMatchR) {
  const std::vector<ScoreRef> refs = LoadScoreRefs();
  ASSERT_EQ(refs.size(), 32u);
  for (const ScoreRef& r : refs) {
    SCOPED_TRACE(r.id + " rule " + std::to_string(r.rule));
    const int64_t procedure = r.rule == 1 ? TQ_PROC_WILCOXON : TQ_PROC_SCORES_EQUAL;
    HostCall exact(procedure, TQ_METHOD_EXACT);
    const double* f = exact.Run(r.table());
    ASSERT_EQ(f[48], 0.0);
    ExpectNear(f[15], f[12] == 2.0 ? r.greater : r.less, 1e-9, "one-sided");
    ExpectNear(f[16], std::min(1.0, r.two), 1e-9, "two-sided");
    ExpectNear(f[1], r.z, 1e-12, "z");

    HostCall asym(procedure, TQ_METHOD_ASYMPTOTIC);
    f = asym.Run(r.table());
    ASSERT_EQ(f[48], 0.0);
    ExpectNear(f[1], r.z, 1e-12, "z");
    ExpectNear(PrivateBlock().slots[slot::kAsymTwoSided].value, r.asym_two, 1e-12, "asymptotic");
    EXPECT_TRUE(f[15] == kTestFiller && f[16] == kTestFiller && f[21] == kTestFiller);
    if (r.rule == 1) {
      EXPECT_EQ(f[0], r.u);  // the Mann-Whitney form
      HostCall mw(TQ_PROC_MANN_WHITNEY, TQ_METHOD_EXACT);
      f = mw.Run(r.table());
      ASSERT_EQ(f[48], 0.0);
      EXPECT_EQ(f[3], r.u);
      ExpectNear(f[16], std::min(1.0, r.two), 1e-9, "502 two-sided");
    }
  }
}

// Seeded Monte Carlo estimates lie within 4 standard errors of the exact
// values, and the same seed gives the same estimates.
TEST(ScorePeers, MonteCarloWithinFourStandardErrors) {
  const std::vector<ScoreRef> refs = LoadScoreRefs();
  const int64_t samples = 20000;
  for (const ScoreRef& r : refs) {
    SCOPED_TRACE(r.id + " rule " + std::to_string(r.rule));
    const int64_t procedure = r.rule == 1 ? TQ_PROC_WILCOXON : TQ_PROC_SCORES_EQUAL;
    HostCall exact(procedure, TQ_METHOD_EXACT);
    const double* e = exact.Run(r.table());
    const double one = e[15], two = e[16], side = e[12];
    HostCall mc(procedure, TQ_METHOD_EXACT);
    mc.MonteCarlo(samples, 2000 + r.cols, 0.99);
    const double* f = mc.Run(r.table());
    ASSERT_EQ(f[48], 0.0);
    EXPECT_EQ(f[12], side);
    for (auto [est, p] : {std::pair{f[18], one}, std::pair{f[21], two}}) {
      const double se = std::sqrt(p * (1 - p) / samples);
      EXPECT_LE(std::fabs(est - p), 4 * se + 1e-12) << est << " vs " << p;
    }
    EXPECT_LE(f[19], f[18]);
    EXPECT_GE(f[20], f[18]);
    EXPECT_EQ(f[15], kTestFiller);
    const std::vector<double> first(f, f + 24);
    HostCall again(procedure, TQ_METHOD_EXACT);
    again.MonteCarlo(samples, 2000 + r.cols, 0.99);
    const double* g = again.Run(r.table());
    for (int i = 18; i < 24; ++i) EXPECT_EQ(g[i], first[i]);
  }
}

// Bad input ends with its failure value and nothing else.
TEST(ScoreFailures, BadInputGivesTheCodeAndNothingElse) {
  struct Case {
    const char* what;
    Table table;
    int64_t memory_kb;
    double field48;
  };
  Table big{2, 10, {}};  // 200 + 200 on ten levels: more nodes than a 2 MiB grid holds
  const int64_t a[10] = {19, 22, 18, 21, 20, 23, 17, 20, 22, 18};
  const int64_t b[10] = {21, 18, 20, 22, 19, 17, 23, 21, 18, 21};
  for (int j = 0; j < 10; ++j) big.cells.push_back(a[j]);
  for (int j = 0; j < 10; ++j) big.cells.push_back(b[j]);
  const Case cases[] = {
      {"three rows", MakeTable({{1, 2}, {3, 4}, {5, 6}}), -1, 216 - 1000.0},
      {"negative count", MakeTable({{1, -2, 3}, {3, 4, 5}}), -1, -1001.0},
      {"empty second sample", MakeTable({{1, 2, 3}, {0, 0, 0}}), -1, -1001.0},
      {"no levels", Table{2, 0, {}}, -1, 216 - 1000.0},
      {"one row without differences", MakeTable({{1, 2, 3}}), -1, -1003.0},
      {"grid too small", big, 2048, -1001.0},
  };
  for (const Case& c : cases)
    for (int64_t procedure : {TQ_PROC_SCORES_EQUAL, TQ_PROC_WILCOXON, TQ_PROC_MANN_WHITNEY}) {
      if (c.memory_kb > 0 && procedure == TQ_PROC_SCORES_EQUAL) continue;
      SCOPED_TRACE(std::string(c.what) + " procedure " + std::to_string(procedure));
      HostCall call(procedure, TQ_METHOD_EXACT);
      call.ip[TQ_INT_MEMORY] = c.memory_kb;
      call.Run(c.table);
      EXPECT_EQ(call.f[48], c.field48);
      EXPECT_TRUE(call.Published().empty());
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
