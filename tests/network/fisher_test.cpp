// Fisher's exact test on r x c tables: the canonical network against the
// worked table, enumeration of every table, and the host's record.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "anvlwtq.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/log_factorial.h"
#include "network/fisher.h"
#include "network/passes.h"
#include "support/enumerate.h"
#include "support/host_call.h"

namespace anvl::net {
namespace {

constexpr double kMissing = support::kTestFiller;

struct Record {
  double f[TQ_RECORD_LENGTH];
};

Record RunFisher(const support::Table& t, int64_t method = TQ_METHOD_EXACT) {
  support::HostCall call(TQ_PROC_FISHER, method);
  call.Run(t);
  Record r;
  std::copy(call.f, call.f + TQ_RECORD_LENGTH, r.f);
  return r;
}

TEST(FisherNetwork, WorkedTableHasFewerCanonicalNodes) {
  ResetStore();
  SetSetting(setting::kMemoryLimit, int64_t{-1});
  Host() = HostContact{};
  StartTimeLimit();
  StartTicks();
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  Network net;
  net.SetMargins({4, 5, 5}, {3, 4, 7}, lf.data(), true);
  int64_t limit = 0;
  ASSERT_EQ(EstimateCanonicalStageNodes(net.A, net.B, &limit), 0);
  net.SetCapacity(limit);
  NodeFileGuard guard;
  ASSERT_EQ(OpenNodeFile(8 * net.codec.n_words + 16), 0);
  const FisherMember member;
  ASSERT_EQ(BackwardInduction(net, member), 0);
  EXPECT_EQ(net.stage_end[2], 1);
  EXPECT_EQ(net.stage_end[1] - net.stage_end[2], 6);
  EXPECT_EQ(net.stage_end[0] - net.stage_end[1], 4);
  // ObservedLog of rows 2 1 1 / 0 3 2 / 1 0 4 over its columns, less L0.
  const support::Table t = support::MakeTable({{2, 1, 1}, {0, 3, 2}, {1, 0, 4}});
  const double obs = static_cast<double>(support::LogTableProbability(t));
  EXPECT_NEAR(obs, -5.299316867, 1e-9);
  PassResult pass;
  ASSERT_EQ(ForwardPass(net, member, obs, pass), 0);
  EXPECT_NEAR(pass.tail_high, 0.084249084, 1e-9);
  EXPECT_NEAR(pass.point, 0.069930070, 1e-9);
}

TEST(FisherRecord, WorkedTableFromTheHost) {
  const support::Table t = support::MakeTable({{2, 1, 1}, {0, 3, 2}, {1, 0, 4}});
  Record r = RunFisher(t);
  ASSERT_EQ(r.f[48], 0.0);
  EXPECT_NEAR(r.f[16], 0.154179154, 1e-9);
  // Only the statistic and the two-sided values reach the record.
  for (int f = 0; f < 42; ++f)
    if (f != 0 && f != 16) {
      EXPECT_EQ(r.f[f], kMissing) << "field " << f;
    }
  r = RunFisher(t, TQ_METHOD_ASYMPTOTIC);
  EXPECT_EQ(r.f[16], kMissing);
  EXPECT_GT(r.f[0], 0.0);
}

TEST(FisherExact, DegenerateAndExtremeTables) {
  // The most probable table of its margins has p = 1 up to rounding.
  Record r = RunFisher(support::MakeTable({{2, 2, 2}, {2, 2, 2}, {2, 2, 2}}));
  EXPECT_NEAR(r.f[16], 1.0, 1e-12);
  // One row: a single arrangement.
  r = RunFisher(support::MakeTable({{2, 5, 1, 4}}));
  EXPECT_EQ(r.f[48], 0.0);
  EXPECT_EQ(r.f[16], 1.0);
  // An empty column is a failure, as is an empty table.
  r = RunFisher(support::MakeTable({{2, 0, 1}, {3, 0, 4}}));
  EXPECT_EQ(r.f[48], -1001.0);
  // Equal key margins fold more nodes together than unequal ones, with
  // the same answer as the transposed table.
  const support::Table t = support::MakeTable({{3, 1, 2, 0}, {0, 2, 2, 2}, {1, 1, 0, 4}});
  support::Table tt;
  tt.rows = t.cols;
  tt.cols = t.rows;
  for (int j = 0; j < t.cols; ++j)
    for (int i = 0; i < t.rows; ++i) tt.cells.push_back(t.at(i, j));
  EXPECT_NEAR(RunFisher(t).f[16], RunFisher(tt).f[16], 1e-12);
  EXPECT_NEAR(RunFisher(t).f[16], (double)support::FisherPValue(t), 1e-9);
}

}  // namespace
}  // namespace anvl::net
