// The two network passes for Pearson's statistic, called inside the engine,
// against the worked 3 x 3 table and brute-force enumeration.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "anvlwtq.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/log_factorial.h"
#include "network/passes.h"
#include "network/pearson.h"
#include "support/enumerate.h"
#include "support/host_call.h"

namespace anvl::net {
namespace {

struct NetworkRun {
  int code = 0;
  double x2 = 0.0, table_probability = 0.0;
  PassResult pass;
  std::vector<int64_t> stage_end;
  int K = 0;
};

// The exact route of Pearson's test, step by step, on a table.
NetworkRun RunPearsonNetwork(const support::Table& t) {
  ResetStore();
  SetSetting(setting::kMemoryLimit, int64_t{-1});
  SetSetting(setting::kTimeLimit, int64_t{0});
  Host() = HostContact{};
  StartTimeLimit();
  StartTicks();
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  NetworkRun run;
  std::vector<int64_t> cells = support::ColumnMajor(t);
  int64_t cols = t.cols;
  AsymptoticResult a;
  run.code = AsymptoticRoute(cells, t.rows, cols, kPearsonChiSquare, nullptr, lf.data(), a);
  if (run.code != 0) return run;
  run.x2 = a.x2;
  run.table_probability = a.table_probability;
  std::vector<int64_t> A = t.rows <= t.cols ? a.row_totals : a.col_totals;
  std::vector<int64_t> B = t.rows <= t.cols ? a.col_totals : a.row_totals;
  std::sort(A.begin(), A.end());
  std::sort(B.begin(), B.end());
  Network net;
  net.SetMargins(A, B, lf.data(), false);
  run.K = net.K;
  const std::vector<double> expected = ExpectedTable(net.A, net.B, net.N);
  int64_t limit = 0;
  run.code = EstimateStageNodes(net.A, net.B, &limit);
  if (run.code != 0) return run;
  net.SetCapacity(limit);
  NodeFileGuard guard;
  run.code = OpenNodeFile(8 * net.codec.n_words + 17);
  PearsonMember member{net.K, expected.data()};
  if (run.code == 0) run.code = BackwardInduction(net, member);
  if (run.code == 0) run.code = ForwardPass(net, member, a.x2, run.pass);
  run.stage_end = net.stage_end;
  return run;
}

TEST(PearsonNetwork, WorkedThreeByThreeTable) {
  const support::Table t = support::MakeTable({{2, 1, 1}, {0, 3, 2}, {1, 0, 4}});
  const NetworkRun run = RunPearsonNetwork(t);
  ASSERT_EQ(run.code, 0);
  EXPECT_NEAR(run.x2, 7.275, 1e-12);
  ASSERT_EQ(run.stage_end.size(), 3u);
  // Records are written from the root down: stage 3, 2, 1.
  EXPECT_EQ(run.stage_end[2], 1);
  EXPECT_EQ(run.stage_end[1] - run.stage_end[2], 24);
  EXPECT_EQ(run.stage_end[0] - run.stage_end[1], 10);
  EXPECT_NEAR(run.pass.tail_high, 0.134199134, 1e-9);
  EXPECT_NEAR(run.pass.point, 0.023310023, 1e-9);
  EXPECT_FALSE(run.pass.stopped_early);
}

// Both members of the network against the sums over every table with the
// margins, on 500 random tables up to 5 x 6 and N = 30 (plain and skewed
// cells): Pearson's tail above and point mass, and Fisher's two-sided
// p-value through the host.  The passes sum probabilities in their own
// order; the sums must agree with the enumeration's long double sums.
TEST(NetworkExact, BothMembersAgreeWithEnumerationOn500Tables) {
  std::mt19937_64 rng(20261123);
  // Margins with more tables than this are passed over to keep the
  // enumeration quick.
  constexpr uint64_t kMaxTables = 100000;
  constexpr double kRelative = 1e-12;
  int checked = 0;
  for (int i = 0; checked < 500 && i < 5000; ++i) {
    const int rows = 2 + static_cast<int>(rng() % 4);
    const int cols = 2 + static_cast<int>(rng() % 5);
    const int64_t n = std::max(rows, cols) + static_cast<int64_t>(rng() % (31 - std::max(rows, cols)));
    const support::Table t = (i % 2) ? support::RandomSkewedTable(rng, rows, cols, n)
                                     : support::RandomTable(rng, rows, cols, n);
    if (support::CountTables(support::RowTotals(t), support::ColTotals(t), kMaxTables) >
        kMaxTables)
      continue;
    const NetworkRun run = RunPearsonNetwork(t);
    ASSERT_EQ(run.code, 0) << support::Describe(t);
    const double rel = run.K == 2 ? PearsonMember::kTwoColumnTolerance
                                  : PearsonMember::kManyColumnTolerance;
    const support::TailResult ref = support::PearsonTails(t, rel, 0.0);
    const double point = run.pass.stopped_early ? run.table_probability : run.pass.point;
    EXPECT_NEAR(run.pass.tail_high, (double)ref.above, kRelative * (double)ref.above + 1e-300)
        << support::Describe(t);
    EXPECT_NEAR(point, (double)ref.equal, kRelative * (double)ref.equal) << support::Describe(t);
    if (rows * cols > 4) {  // 2 x 2 tables take the direct walk
      support::HostCall fisher(TQ_PROC_FISHER, TQ_METHOD_EXACT);
      const double* r = fisher.Run(t);
      ASSERT_EQ(r[48], 0.0) << support::Describe(t);
      const double p = (double)support::FisherExact(t).pValue;
      EXPECT_NEAR(r[16], p, kRelative * p) << support::Describe(t);
    }
    ++checked;
  }
  EXPECT_GE(checked, 500);
}

TEST(PearsonNetwork, ObservedMaximumHasNoUpperTail) {
  // A diagonal table is the most extreme of its margins.
  const support::Table t = support::MakeTable({{4, 0, 0}, {0, 3, 0}, {0, 0, 5}});
  const NetworkRun run = RunPearsonNetwork(t);
  ASSERT_EQ(run.code, 0);
  EXPECT_EQ(run.pass.tail_high, 0.0);
  EXPECT_NEAR(run.pass.point, (double)support::FisherExact(t).pointProb, 1e-12);
}

}  // namespace
}  // namespace anvl::net
