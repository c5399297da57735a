#include "network/contingency.h"

#include <algorithm>

#include "frame/failure_codes.h"
#include "frame/progress.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/log_factorial.h"
#include "network/monte_carlo.h"
#include "network/one_way.h"
#include "network/passes.h"
#include "network/pearson.h"
#include "network/two_by_two.h"

namespace anvl::net {
namespace {

constexpr DriverTraits kContingencyTraits{true, true, true, 1};

// The exact route: the network of the table, the two passes, the tails.
int ExactRoute(const AsymptoticResult& a, int64_t rows, int64_t cols, const double* lf,
               PassResult& pass) {
  std::vector<int64_t> key_margins = rows <= cols ? a.row_totals : a.col_totals;
  std::vector<int64_t> stage_margins = rows <= cols ? a.col_totals : a.row_totals;
  std::sort(key_margins.begin(), key_margins.end());
  std::sort(stage_margins.begin(), stage_margins.end());
  Network net;
  net.SetMargins(std::move(key_margins), std::move(stage_margins), lf, false);
  const std::vector<double> expected = ExpectedTable(net.A, net.B, net.N);
  int64_t limit = 0;
  if (EstimateStageNodes(net.A, net.B, &limit) != 0) return -1;
  net.SetCapacity(limit);
  return RunPasses(net, PearsonMember{net.K, expected.data()}, a.x2, pass);
}

}  // namespace

int ContingencyRun(std::vector<int64_t>& table, int64_t rows, int64_t cols, int selector,
                   int64_t method, const double* scores) {
  NodeFileGuard spill;
  ZeroElapsed();
  StartClock();
  StartTicks();
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  AsymptoticResult a;
  int code = AsymptoticRoute(table, rows, cols, selector, scores, lf.data(), a);
  if (code != 0) return code;
  if (method == 1) {
    PassResult pass;
    code = ExactRoute(a, rows, cols, lf.data(), pass);
    if (code != 0) return code;
    UpdateElapsed();
    PublishExact(a, selector, pass.tail_high, std::max(pass.point, a.table_probability));
    return 0;
  }
  if (method == 2) {
    const PearsonHitRule hit{rows, cols, a.row_totals.data(), a.col_totals.data(), a.N, a.x2};
    McResult mc;
    code = McRoute(table, rows, cols, a.row_totals, a.col_totals, lf.data(), hit, mc);
    if (code != 0) return code;
    PublishAsymptotic(a, selector);
    PublishMonteCarlo(mc, a.x2);
    return 0;
  }
  UpdateElapsed();
  PublishAsymptotic(a, selector);
  return 0;
}

void ContingencyDriver(const CallArgs& args) {
  std::vector<int64_t> work;
  int64_t code = BeginDriver(args, kContingencyTraits, work);
  const RunStore& st = Store();
  const int selector = static_cast<int>(st.run_selector);
  if (code == 0) {
    if (st.data_form == 1) {
      if (st.row_count <= 1 || st.column_count <= 1)
        code = fail::kOneRowOrColumn;
      else if (st.row_count == 2 && st.column_count == 2 && selector == kPearsonChiSquare)
        code = TwoByTwoPearsonRun(work.data());
      else
        code = ContingencyRun(work, st.row_count, st.column_count, selector, st.run_method,
                              args.scores);
    } else if (selector == kPearsonChiSquare && args.case_rows == 1) {
      code = GoodnessOfFitRun(st.run_method, args.case_data, args.case_weights, args.case_cols);
    } else {
      code = fail::kOneRowOrColumn;
    }
  }
  EndDriver(code);
}

}  // namespace anvl::net
