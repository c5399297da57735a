#include "network/fisher.h"

#include <algorithm>
#include <cmath>

#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/distributions.h"
#include "kernel/log_factorial.h"
#include "network/monte_carlo.h"
#include "network/passes.h"
#include "network/pearson.h"
#include "network/two_by_two.h"

namespace anvl::net {
namespace {

constexpr DriverTraits kFisherTraits{true, true, true, 0};
// log of the square root of 2 pi, in the Freeman-Halton statistic.
constexpr double kLogRootTwoPi = 0.9189385332046728;

struct Observed {
  std::vector<int64_t> row_totals, col_totals;
  int64_t N = 0;
  double observed_log = 0.0, L0 = 0.0, table_probability = 0.0, fh = 0.0, p = 1.0;
  int64_t df = 0;
};

void PublishFisherAsymptotic(const Observed& o, int64_t rows, int64_t cols) {
  Publish(slot::kStatistic, o.fh);
  PublishClamped(slot::kTableProbability, o.table_probability);
  PublishClamped(slot::kAsymTwoSided, o.p);
  SetWord(word::kRowsPublished, rows);
  SetWord(word::kColumnsPublished, cols);
  SetWord(word::kDegreesOfFreedom, o.df);
  SetWord(word::kPublishedCode, 32);
  SetWord(word::kPublishedMethod, 3);
}

// ObservedLog over the lines of the longer dimension, L0 from the shorter,
// the probability of the table and the Freeman-Halton statistic.
void ObservedRoute(const std::vector<int64_t>& x, int64_t rows, int64_t cols, const double* lf,
                   Observed& o) {
  const bool lines_are_rows = rows > cols;  // else the lines are the columns
  o.L0 = LogFactorial(o.N, lf);
  for (int64_t a : lines_are_rows ? o.col_totals : o.row_totals) o.L0 -= LogFactorial(a, lf);
  o.observed_log = FisherLineLogWeight(x.data(), rows, cols, o.row_totals.data(),
                                       o.col_totals.data(), lf);
  o.table_probability = std::exp(o.observed_log - o.L0);
  double lr = 0.0, lc = 0.0;
  for (int64_t r : o.row_totals) lr += std::log(static_cast<double>(r));
  for (int64_t c : o.col_totals) lc += std::log(static_cast<double>(c));
  const double r1 = static_cast<double>(rows - 1), c1 = static_cast<double>(cols - 1);
  o.df = (rows - 1) * (cols - 1);
  o.fh = -2.0 * ((c1 * lr + r1 * lc - static_cast<double>(rows * cols - 1) *
                                          std::log(static_cast<double>(o.N))) /
                     2.0 +
                 (o.observed_log - o.L0) + kLogRootTwoPi * r1 * c1);
  // A table with one row or column has a single arrangement: nothing to test.
  o.p = (o.fh > 0.0 && o.df > 0) ? ChiSquareTail(o.fh, o.df) : 1.0;
}

int ExactRoute(const Observed& o, int64_t rows, int64_t cols, const double* lf, PassResult& pass) {
  std::vector<int64_t> A = rows > cols ? o.col_totals : o.row_totals;
  std::vector<int64_t> B = rows > cols ? o.row_totals : o.col_totals;
  std::sort(A.begin(), A.end());
  std::sort(B.begin(), B.end());
  if (A.size() < 2) {  // one arrangement only: it is the observed table
    pass.point = o.table_probability;
    return 0;
  }
  Network net;
  net.SetMargins(std::move(A), std::move(B), lf, true);
  int64_t limit = 0;
  if (EstimateCanonicalStageNodes(net.A, net.B, &limit) != 0) return -1;
  net.SetCapacity(limit);
  return RunPasses(net, FisherMember{}, o.observed_log - o.L0, pass);
}

}  // namespace

int FisherRun(std::vector<int64_t>& table, int64_t rows, int64_t cols, int64_t method) {
  NodeFileGuard spill;
  ZeroElapsed();
  StartClock();
  StartTicks();
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  Observed o;
  if (TableTotals(table, rows, cols, o.row_totals, o.col_totals, o.N) != 0) return -1;
  ObservedRoute(table, rows, cols, lf.data(), o);
  PublishFisherAsymptotic(o, rows, cols);
  if (method == 2) {
    const FisherHitRule hit{rows, cols, o.row_totals.data(), o.col_totals.data(), lf.data(),
                            o.observed_log};
    McResult mc;
    const int code = McRoute(table, rows, cols, o.row_totals, o.col_totals, lf.data(), hit, mc);
    if (code != 0) return code;
    PublishFisherAsymptotic(o, rows, cols);
    PublishMonteCarlo(mc, o.fh);
    return 0;
  }
  if (method != 1) {
    UpdateElapsed();
    return 0;
  }
  PassResult pass;
  const int code = ExactRoute(o, rows, cols, lf.data(), pass);
  if (code != 0) return code;
  UpdateElapsed();
  const double point = std::max(o.table_probability, pass.point);
  PublishFisherAsymptotic(o, rows, cols);
  PublishClamped(slot::kExactTwoSided, pass.tail_high + point);
  PublishClamped(slot::kPointProbability, point);
  SetWord(word::kPublishedMethod, 1);
  return 0;
}

void FisherDriver(const CallArgs& args) {
  std::vector<int64_t> work;
  int64_t code = BeginDriver(args, kFisherTraits, work);
  const RunStore& st = Store();
  if (code == 0) {
    if (st.row_count == 2 && st.column_count == 2)
      code = TwoByTwoFisherRun(work.data());
    else
      code = FisherRun(work, st.row_count, st.column_count, st.run_method);
  }
  EndDriver(code);
}

}  // namespace anvl::net
