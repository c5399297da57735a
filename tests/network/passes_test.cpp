// The network members (Pearson's statistic, Fisher's canonical network)
// inside the engine and from the host, against the worked 3 x 3 table and
// brute-force enumeration of every table with the margins.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "anvlwtq.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/log_factorial.h"
#include "network/fisher.h"
#include "network/passes.h"
#include "network/pearson.h"
#include "support/enumerate.h"
#include "support/host_call.h"

namespace anvl::net {
namespace {

using support::HostCall;
using support::Table;

struct NetworkRun {
  int code = 0;
  double x2 = 0.0, table_probability = 0.0;
  PassResult pass;
  std::vector<int64_t> stage_end;
  int K = 0;
};

void StartRun(LogFactorialTable& lf) {
  ResetStore();
  SetSetting(setting::kMemoryLimit, int64_t{-1});
  SetSetting(setting::kTimeLimit, int64_t{0});
  Host() = HostContact{};
  StartTimeLimit();
  StartTicks();
  BuildLogFactorials(lf);
}

// The exact route of Pearson's test, or Fisher's on the canonical network,
// step by step on a table.
NetworkRun RunNetwork(const Table& t, bool fisher = false) {
  LogFactorialTable lf;
  StartRun(lf);
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
  net.SetMargins(A, B, lf.data(), fisher);
  run.K = net.K;
  int64_t limit = 0;
  run.code = fisher ? EstimateCanonicalStageNodes(net.A, net.B, &limit)
                    : EstimateStageNodes(net.A, net.B, &limit);
  if (run.code != 0) return run;
  net.SetCapacity(limit);
  NodeFileGuard guard;
  run.code = OpenNodeFile(8 * net.codec.n_words + (fisher ? 16 : 17));
  const std::vector<double> expected = ExpectedTable(net.A, net.B, net.N);
  auto passes = [&](const auto& member, double obs) {
    if (run.code == 0) run.code = BackwardInduction(net, member);
    if (run.code == 0) run.code = ForwardPass(net, member, obs, run.pass);
  };
  if (fisher) {
    passes(FisherMember{}, static_cast<double>(support::LogTableProbability(t)));
  } else {
    passes(PearsonMember{net.K, expected.data()}, a.x2);
  }
  run.stage_end = net.stage_end;
  return run;
}

// Rows 2 1 1 / 0 3 2 / 1 0 4 (published to 9 decimals): the nodes per stage
// of both networks (records are written from the root down: stage 3, 2,
// 1), the passes, and the host's records of 7 and 32.
TEST(NetworkExact, WorkedThreeByThreeTable) {
  const Table t = support::MakeTable({{2, 1, 1}, {0, 3, 2}, {1, 0, 4}});
  const NetworkRun run = RunNetwork(t);
  ASSERT_EQ(run.code, 0);
  EXPECT_NEAR(run.x2, 7.275, 1e-12);
  EXPECT_EQ(run.stage_end, (std::vector<int64_t>{35, 25, 1}));
  EXPECT_NEAR(run.pass.tail_high, 0.134199134, 1e-9);
  EXPECT_NEAR(run.pass.point, 0.023310023, 1e-9);
  EXPECT_FALSE(run.pass.stopped_early);
  const NetworkRun fisher_run = RunNetwork(t, true);
  ASSERT_EQ(fisher_run.code, 0);
  EXPECT_EQ(fisher_run.stage_end, (std::vector<int64_t>{11, 7, 1})) << "canonical nodes fold together";
  EXPECT_NEAR(static_cast<double>(support::LogTableProbability(t)), -5.299316867, 1e-9);
  EXPECT_NEAR(fisher_run.pass.tail_high, 0.084249084, 1e-9);
  EXPECT_NEAR(fisher_run.pass.point, 0.069930070, 1e-9);

  HostCall chisq(TQ_PROC_CHISQ, TQ_METHOD_EXACT), fisher(TQ_PROC_FISHER, TQ_METHOD_EXACT);
  const double* r = chisq.Run(t);
  EXPECT_NEAR(r[0], 7.275, 1e-12);
  EXPECT_NEAR(r[16], 0.157509158, 1e-9);
  EXPECT_NEAR(r[17], 0.023310023, 1e-9);
  r = fisher.Run(t);
  ASSERT_EQ(r[48], 0.0);
  EXPECT_NEAR(r[16], 0.154179154, 1e-9);

  // A diagonal table is the most extreme of its margins.
  const Table diagonal = support::MakeTable({{4, 0, 0}, {0, 3, 0}, {0, 0, 5}});
  const NetworkRun top = RunNetwork(diagonal);
  ASSERT_EQ(top.code, 0);
  EXPECT_EQ(top.pass.tail_high, 0.0);
  EXPECT_NEAR(top.pass.point, (double)support::FisherExact(diagonal).pointProb, 1e-12);
}

// Both members against the sums over every table with the margins, on 500
// random tables up to 5 x 6 and N = 30 (plain and skewed cells): Pearson's
// tail above and point mass, and Fisher's two-sided p-value through the
// host; on every fourth table also the host's records of 7 and 42 and the
// median test (31) at a random cut, on its collapsed table.  The passes sum
// probabilities in their own order; the sums must agree with the
// enumeration's long double sums.
TEST(NetworkExact, AllMembersAgreeWithEnumerationOn500Tables) {
  std::mt19937_64 rng(20261123), cuts(42);
  // Margins with more tables than this are passed over to keep the
  // enumeration quick.
  constexpr uint64_t kMaxTables = 100000;
  constexpr double kRelative = 1e-12, kHostRelative = 1e-9;
  int checked = 0, medians = 0;
  for (int i = 0; checked < 500 && i < 5000; ++i) {
    const int rows = 2 + static_cast<int>(rng() % 4);
    const int cols = 2 + static_cast<int>(rng() % 5);
    const int64_t n = std::max(rows, cols) + static_cast<int64_t>(rng() % (31 - std::max(rows, cols)));
    const Table t = (i % 2) ? support::RandomSkewedTable(rng, rows, cols, n) : support::RandomTable(rng, rows, cols, n);
    if (support::CountTables(support::RowTotals(t), support::ColTotals(t), kMaxTables) > kMaxTables) continue;
    SCOPED_TRACE(support::Describe(t));
    const NetworkRun run = RunNetwork(t);
    ASSERT_EQ(run.code, 0);
    const double rel = run.K == 2 ? PearsonMember::kTwoColumnTolerance : PearsonMember::kManyColumnTolerance;
    const support::TailResult ref = support::PearsonTails(t, rel, 0.0);
    const double point = run.pass.stopped_early ? run.table_probability : run.pass.point;
    EXPECT_NEAR(run.pass.tail_high, (double)ref.above, kRelative * (double)ref.above + 1e-300);
    EXPECT_NEAR(point, (double)ref.equal, kRelative * (double)ref.equal);
    ++checked;
    if (rows * cols == 4) continue;  // 2 x 2 tables take the direct walk
    HostCall fisher(TQ_PROC_FISHER, TQ_METHOD_EXACT);
    const double* r = fisher.Run(t);
    ASSERT_EQ(r[48], 0.0);
    const double p = (double)support::FisherExact(t).pValue;
    EXPECT_NEAR(r[16], p, kRelative * p);
    if (checked % 4 != 0) continue;
    const double pearson = (double)(ref.above + ref.equal);
    for (int64_t procedure : {TQ_PROC_CHISQ, TQ_PROC_NOMINAL}) {
      HostCall call(procedure, TQ_METHOD_EXACT);
      r = call.Run(t);
      ASSERT_EQ(r[48], 0.0) << procedure;
      EXPECT_NEAR(r[16], pearson, kHostRelative * pearson) << procedure;
      if (procedure == TQ_PROC_CHISQ) {
        EXPECT_NEAR(r[17], (double)ref.equal, kHostRelative * (double)ref.equal);
      }
    }
    // The median test at a cut between the levels: X^2 of the collapsed table.
    HostCall median(TQ_PROC_MEDIAN, TQ_METHOD_EXACT);
    std::vector<double> levels;
    for (int j = 0; j < cols; ++j) levels.push_back(j + 1);
    const double cut = 1.0 + static_cast<double>(cuts() % (cols - 1));
    median.MedianCut(levels, cut);
    std::vector<std::vector<int64_t>> collapsed(rows, std::vector<int64_t>(2, 0));
    for (int a = 0; a < rows; ++a)
      for (int b = 0; b < cols; ++b) collapsed[a][b + 1 > cut ? 0 : 1] += t.at(a, b);
    const Table c = support::MakeTable(collapsed);
    r = median.Run(t);
    if (r[48] == -1032.0) continue;  // one side of the cut is empty
    ASSERT_EQ(r[48], 0.0);
    const auto cref = support::PearsonTails(c, PearsonMember::kTwoColumnTolerance, 0.0);
    EXPECT_NEAR(r[0], support::PearsonX2(c), kHostRelative * r[0] + 1e-12);
    const double cp = (double)(cref.above + cref.equal);
    EXPECT_NEAR(r[16], cp, kHostRelative * cp) << "median";
    EXPECT_NEAR(r[17], (double)cref.equal, kHostRelative * (double)cref.equal) << "median";
    ++medians;
  }
  EXPECT_GE(checked, 500);
  EXPECT_GE(medians, 60);
}

// A stage with many past values goes to several threads, each taking the
// edges into its own successors, so each successor's tree is built as one
// thread builds it: every field of the record is the one that one thread
// gives, and the budget runs out at the same point.  The smallest budget
// that holds the peak of one thread's run suffices with three threads,
// and the budget one kilobyte below fails with three as with one.
TEST(NetworkExact, SharedStagesGiveTheRecordAndTheBudgetOfOneThread) {
  struct Unset {
    ~Unset() { unsetenv("ANVLWTQ_THREADS"); }
  } unset;
  auto run = [](const Table& t, const char* threads, int64_t kb = -1) {
    EXPECT_EQ(setenv("ANVLWTQ_THREADS", threads, 1), 0);
    HostCall call(TQ_PROC_FISHER, TQ_METHOD_EXACT);
    call.ip[TQ_INT_MEMORY] = kb;
    const double* r = call.Run(t);
    return std::vector<double>(r, r + TQ_RECORD_LENGTH);
  };
  std::mt19937_64 rng(20261124);
  for (int i = 0; i < 8; ++i) {
    const Table t = support::RandomTable(rng, 5, 5 + i % 2, 54 + 2 * i);
    SCOPED_TRACE(support::Describe(t));
    const std::vector<double> one = run(t, "1"), three = run(t, "3");
    ASSERT_EQ(one[TQ_REC_FAILURE], 0.0);
    for (int f = 0; f < TQ_RECORD_LENGTH; ++f) {
      if (f < TQ_REC_HOURS || f > TQ_REC_SECONDS) {
        EXPECT_EQ(one[f], three[f]) << "field " << f;
      }
    }
  }

  const Table t = support::MakeTable({{2, 1, 1, 4, 0, 3}, {2, 1, 3, 1, 1, 4}, {0, 1, 2, 2, 2, 1},
                                      {2, 3, 0, 4, 4, 0}, {3, 3, 6, 1, 0, 4}});
  setenv("ANVLWTQ_THREADS", "1", 1);
  const NetworkRun full = RunNetwork(t, true);
  ASSERT_EQ(full.code, 0);
  const int64_t peak = full.pass.peak_values;
  ASSERT_GE(peak, 8 * kSharedStageEntries);  // its large stages are shared
  int64_t kb = 2048;
  while (PastPool::EntryLimit(kb * 1024) < peak) ++kb;
  ASSERT_GT(kb, 2048);  // the budget below is above the lower clamp
  ASSERT_LE(kb, 16384);
  const double p = run(t, "1")[TQ_REC_EXACT_TWO];
  for (const char* threads : {"1", "3"}) {
    SCOPED_TRACE(threads);
    const std::vector<double> enough = run(t, threads, kb), short_by_one = run(t, threads, kb - 1);
    EXPECT_EQ(enough[TQ_REC_FAILURE], 0.0);
    EXPECT_EQ(enough[TQ_REC_EXACT_TWO], p);
    EXPECT_EQ(short_by_one[TQ_REC_FAILURE], -1001.0);
  }
}

// The canonical listing of a stage is the full listing with every node
// whose class (the same complements in another order) came earlier
// dropped, in the same order; it fails as the full one does when the
// stage has more nodes in all than the limit.
TEST(StageEnumerator, CanonicalListingKeepsTheFirstNodeOfEachClass) {
  std::mt19937_64 rng(20261124);
  for (int trial = 0; trial < 300; ++trial) {
    const int K = 1 + static_cast<int>(rng() % 6);
    std::vector<int64_t> A(K);
    int64_t N = 0;
    for (int64_t& a : A) N += a = 1 + static_cast<int64_t>(rng() % 7);
    std::sort(A.begin(), A.end());
    const int64_t T = static_cast<int64_t>(rng() % (N + 1));
    const int width = std::max(K - 1, 1);
    std::vector<int64_t> all(static_cast<size_t>(width) * 300000);
    const int64_t raw = StageEnumerator(K, A.data(), T, N, 300000, all.data());
    ASSERT_GT(raw, 0) << trial;
    std::set<std::vector<int64_t>> seen;
    std::vector<std::vector<int64_t>> expected;
    for (int64_t i = 0; i < raw && K > 1; ++i) {
      std::vector<int64_t> node(all.begin() + i * width, all.begin() + (i + 1) * width);
      std::vector<int64_t> u(K);
      int64_t used = 0;
      for (int j = 0; j < K - 1; ++j) used += node[j];
      for (int j = 0; j < K; ++j) u[j] = A[j] - (j < K - 1 ? node[j] : T - used);
      std::sort(u.begin(), u.end());
      if (seen.insert(u).second) expected.push_back(node);
    }
    std::vector<int64_t> listed(all.size());
    ASSERT_EQ(CanonicalStageEnumerator(K, A.data(), T, N, raw - 1, listed.data()), -1) << trial;
    const int64_t count = CanonicalStageEnumerator(K, A.data(), T, N, raw, listed.data());
    if (K == 1) {
      EXPECT_EQ(count, 1);
      continue;
    }
    ASSERT_EQ(count, static_cast<int64_t>(expected.size())) << trial;
    for (int64_t i = 0; i < count; ++i) {
      ASSERT_EQ(std::vector<int64_t>(listed.begin() + i * width, listed.begin() + (i + 1) * width),
                expected[i])
          << trial << " node " << i;
    }
  }
}

// Under tie constraints the successor enumerator lists, of the lines that
// differ by an exchange of cells between columns of equal capacity, exactly
// the one whose cells don't rise (or, rising, don't fall) within each
// group, once each and in order; the successor and FirstChanged agree with
// each line, and TiedLineCount gives the number of lines of its exchange.
TEST(SuccessorEnumerator, TiedColumnsListOneLineOfEachExchange) {
  std::mt19937_64 rng(20261123);
  for (int trial = 0; trial < 800; ++trial) {
    const bool rising = trial % 2 == 1;
    const int K = 2 + static_cast<int>(rng() % 5);
    std::vector<int64_t> cap(K), m(K, 0);
    int64_t total = 0;
    for (int64_t& a : cap) total += a = static_cast<int64_t>(rng() % 5);
    const int64_t line = static_cast<int64_t>(rng() % (total + 1));
    std::vector<int> tie(K, -1), pos(K), run(K);
    for (int j = 0; j < K; ++j)
      for (int i = 0; i < j; ++i)
        if (cap[i] == cap[j]) tie[j] = i;
    // Every line by brute force, counted under its group's representative.
    std::map<std::vector<int64_t>, int64_t> expected;
    std::vector<int64_t> d(K);
    std::function<void(int, int64_t)> all = [&](int j, int64_t left) {
      if (j == K - 1) {
        if (left > cap[j]) return;
        d[j] = left;
        std::vector<int64_t> rep = d;
        for (int a = 0; a < K; ++a) {
          std::vector<int> at;
          for (int b = 0; b < K; ++b)
            if (cap[b] == cap[a]) at.push_back(b);
          std::vector<int64_t> v;
          for (int b : at) v.push_back(d[b]);
          if (rising) std::sort(v.begin(), v.end());
          else std::sort(v.rbegin(), v.rend());
          for (size_t k = 0; k < at.size(); ++k) rep[at[k]] = v[k];
        }
        ++expected[rep];
        return;
      }
      for (d[j] = 0; d[j] <= std::min(cap[j], left); ++d[j]) all(j + 1, left - d[j]);
    };
    all(0, line);
    SuccessorEnumerator e;
    e.Reserve(K);
    std::vector<int64_t> next(K), got(K);
    std::map<std::vector<int64_t>, int64_t> listed;
    std::vector<int64_t> before;
    bool more =
        e.Start(K, cap.data(), m.data(), line, total - line, next.data(), tie.data(), rising);
    while (more) {
      e.Line(got.data());
      for (int j = 0; j < K - 1; ++j) {
        ASSERT_EQ(next[j], got[j]) << trial;
      }
      if (!before.empty()) {
        ASSERT_LT(before, got) << trial;
        for (int j = 0; j < e.FirstChanged(); ++j) {
          ASSERT_EQ(got[j], before[j]) << trial;
        }
      }
      if (rising) listed[got] = TiedLineCount(K, got.data(), tie.data(), pos.data(), run.data());
      else listed[got] = expected.count(got) ? expected[got] : 0;
      before = got;
      more = e.Next(next.data());
    }
    EXPECT_EQ(listed, expected) << trial;
  }
}

}  // namespace
}  // namespace anvl::net
