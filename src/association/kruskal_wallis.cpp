#include "association/kruskal_wallis.h"

#include <algorithm>

#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/distributions.h"
#include "network/monte_carlo.h"
#include "network/passes.h"

namespace anvl::assoc {
namespace {

// Table, the spill file of the network, MethodCode 0 runs as asymptotic.
constexpr DriverTraits kKruskalWallisTraits{true, true, true, 0};
constexpr double kHitFactor = 0.99995;

void PublishAsymptotic(const KruskalWallisObserved& o, int64_t rows) {
  PublishRunWords(21);
  Publish(slot::kStatistic, o.T);
  SetWord(word::kDegreesOfFreedom, rows - 1);
  PublishClamped(slot::kAsymTwoSided, o.p);
}

struct Hit {
  int64_t rows, cols;
  const KruskalWallisObserved* o;
  bool operator()(const int64_t* table) const {
    return BetweenGroupSum(table, rows, cols, o->midranks.data(), o->row_totals.data(), o->sbar) >=
           kHitFactor * o->Z;
  }
};

int Run(std::vector<int64_t>& table, int64_t rows, int64_t cols, int64_t method) {
  NodeFileGuard spill;
  ZeroElapsed();
  StartClock();
  StartTicks();
  LogFactorialTable lf;
  BuildLogFactorials(lf);
  KruskalWallisObserved o;
  int code = KruskalWallisObservedRoute(table, rows, cols, lf.data(), o);
  if (code != 0) return code;
  if (method == 2) {
    net::McResult mc;
    code = net::McRoute(table, rows, cols, o.row_totals, o.col_totals, lf.data(),
                        Hit{rows, cols, &o}, mc);
    if (code != 0) return code;
    PublishAsymptotic(o, rows);
    net::PublishMonteCarlo(mc, o.T);
    return 0;
  }
  if (method == 1) {
    PublishAsymptotic(o, rows);  // stands whatever follows
    net::PassResult pass;
    code = KruskalWallisExact(o, lf.data(), pass);
    if (code != 0) return code;
    UpdateElapsed();
    const double point = std::max(pass.point, o.table_probability);
    PublishAsymptotic(o, rows);
    PublishClamped(slot::kExactTwoSided, pass.tail_high + point);
    PublishClamped(slot::kPointProbability, point);
    SetWord(word::kPublishedMethod, 1);
    return 0;
  }
  UpdateElapsed();
  PublishAsymptotic(o, rows);
  return 0;
}

}  // namespace

double BetweenGroupSum(const int64_t* x, int64_t rows, int64_t cols, const double* midranks,
                       const int64_t* row_totals, double sbar) {
  double z = 0.0;
  for (int64_t i = 0; i < rows; ++i) {
    double sum = 0.0;
    for (int64_t j = 0; j < cols; ++j) sum += static_cast<double>(x[i + j * rows]) * midranks[j];
    const double r = static_cast<double>(row_totals[i]), d = sum - r * sbar;
    z += d * d / r;
  }
  return z;
}

int KruskalWallisObservedRoute(const std::vector<int64_t>& table, int64_t rows, int64_t cols,
                               const double* lf, KruskalWallisObserved& o) {
  o.row_totals.assign(rows, 0);
  o.col_totals.assign(cols, 0);
  o.N = 0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const int64_t x = table[i + j * rows];
      if (x < 0 || __builtin_add_overflow(o.N, x, &o.N)) return -1;
      o.row_totals[i] += x;
      o.col_totals[j] += x;
    }
  o.midranks.assign(cols, 0.0);
  o.midranks[0] = (static_cast<double>(o.col_totals[0]) + 1.0) / 2.0;
  for (int64_t j = 1; j < cols; ++j)
    o.midranks[j] =
        o.midranks[j - 1] + static_cast<double>(o.col_totals[j - 1] + o.col_totals[j]) / 2.0;
  const double n = static_cast<double>(o.N);
  double sum = 0.0;
  for (int64_t j = 0; j < cols; ++j) sum += static_cast<double>(o.col_totals[j]) * o.midranks[j];
  o.sbar = sum / n;
  if (o.N < 2) return static_cast<int>(fail::kKruskalWallisDegenerate);
  double ss = 0.0;
  for (int64_t j = 0; j < cols; ++j) {
    const double e = o.midranks[j] - o.sbar;
    ss += static_cast<double>(o.col_totals[j]) * e * e;
  }
  o.s2 = ss / (n - 1.0);
  if (!(o.s2 > 0.0)) return static_cast<int>(fail::kKruskalWallisDegenerate);
  for (int64_t r : o.row_totals)
    if (r < 1) return -1;
  o.Z = BetweenGroupSum(table.data(), rows, cols, o.midranks.data(), o.row_totals.data(), o.sbar);
  o.T = o.Z / o.s2;
  o.p = ChiSquareTail(o.T, rows - 1);
  o.table_probability = TableProbabilityOf(table, o.row_totals, o.col_totals, o.N, lf);
  return 0;
}

int KruskalWallisExact(const KruskalWallisObserved& o, const double* lf, net::PassResult& pass) {
  // The key: the columns with observations, in order, with their scores.
  std::vector<int64_t> A;
  std::vector<double> s;
  for (size_t j = 0; j < o.col_totals.size(); ++j)
    if (o.col_totals[j] > 0) {
      A.push_back(o.col_totals[j]);
      s.push_back(o.midranks[j]);
    }
  // The stages: the row totals by exchange sort, ascending.
  std::vector<int64_t> B = o.row_totals;
  for (size_t i = 0; i < B.size(); ++i)
    for (size_t k = i + 1; k < B.size(); ++k)
      if (B[k] < B[i]) std::swap(B[i], B[k]);
  if (static_cast<int64_t>(B.size()) > net::kMaxStages || A.size() > net::kMaxDigits) return -1;
  net::Network net;
  net.SetMargins(std::move(A), std::move(B), lf, false);
  int64_t limit = 0;
  if (net::EstimateStageNodes(net.A, net.B, &limit) != 0) return -1;
  net.SetCapacity(limit);
  const KruskalWallisMember member{net.K, s.data(), net.B.data(), o.sbar};
  return net::RunPasses(net, member, o.Z, pass);
}

void KruskalWallisDriver(const CallArgs& args) {
  std::vector<int64_t> work;
  int64_t code = BeginDriver(args, kKruskalWallisTraits, work);
  const RunStore& st = Store();
  if (code == 0) {
    if (st.data_form != 1)
      code = fail::kEmptyTable;
    else if (st.row_count < 2)
      code = fail::kTableTooSmall;
    else
      code = Run(work, st.row_count, st.column_count, st.run_method);
  }
  EndDriver(code);
}

}  // namespace anvl::assoc
