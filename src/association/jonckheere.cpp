#include "association/jonckheere.h"

#include <algorithm>
#include <cmath>

#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "kernel/host_library.h"
#include "network/pearson.h"

namespace anvl::assoc {
namespace {

// Table, no spill file, MethodCode 0 runs as asymptotic.
constexpr DriverTraits kJonckheereTraits{true, false, true, 0};

}  // namespace

int64_t TwiceRankSum(const int64_t* x, int64_t rows, int64_t cols) {
  int64_t twice = 0;
  for (int64_t i = 0; i < rows; ++i)
    for (int64_t k = i + 1; k < rows; ++k) {
      int64_t cum = 0;
      for (int64_t j = 0; j < cols; ++j) {
        const int64_t xi = x[i + j * rows], xk = x[k + j * rows];
        twice += xk * (1 + xi + xk + 2 * cum);
        cum += xi + xk;
      }
    }
  return twice;
}

int JonckheereRun::Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols,
                            const double* lf) {
  rows_ = rows;
  cols_ = cols;
  if (net::TableTotals(table, rows, cols, row_totals_, col_totals_, N_) != 0) return -1;
  table_probability_ = TableProbabilityOf(table, row_totals_, col_totals_, N_, lf);
  const double sw = static_cast<double>(TwiceRankSum(table.data(), rows, cols)) / 2.0;
  double corr = 0.0;
  for (int64_t i = 1; i < rows; ++i) {
    const double r = static_cast<double>(row_totals_[i]);
    corr += static_cast<double>(i) * r * (r + 1.0) / 2.0;
  }
  const double n = static_cast<double>(N_);
  jt_ = sw - corr;
  double r2 = 0.0;
  for (int64_t r : row_totals_) r2 += static_cast<double>(r) * static_cast<double>(r);
  mean_ = (n * n - r2) / 4.0;
  const double es = corr + mean_;
  high_bound_ = sw >= es ? sw : 2.0 * es - sw;
  low_bound_ = sw >= es ? 2.0 * es - sw : sw;

  // The variance with ties.
  auto a = [](double t) { return t * (t - 1.0) * (2.0 * t + 5.0); };
  double var = a(n), rr2 = 0.0, rr3 = 0.0, cc2 = 0.0, cc3 = 0.0;
  for (int64_t r : row_totals_) {
    const double t = static_cast<double>(r);
    var -= a(t);
    rr2 += t * (t - 1.0);
    rr3 += t * (t - 1.0) * (t - 2.0);
  }
  for (int64_t c : col_totals_) {
    const double t = static_cast<double>(c);
    var -= a(t);
    cc2 += t * (t - 1.0);
    cc3 += t * (t - 1.0) * (t - 2.0);
  }
  var /= 72.0;
  if (N_ > 2) {
    var += rr3 * cc3 / (36.0 * n * (n - 1.0) * (n - 2.0));
    var += rr2 * cc2 / (8.0 * n * (n - 1.0));
  }
  sd_ = std::sqrt(std::max(0.0, var));
  if (sd_ > 0.0) {
    z_ = (jt_ - mean_) / sd_;
    p_ = PRBNRM(z_);
  }
  return 0;
}

void JonckheereRun::PublishAsymptotic() const {
  PublishRunWords(20);
  PublishSide(HighSide());
  Publish(slot::kStatistic, jt_);
  Publish(slot::kNullMean, mean_);
  Publish(slot::kNullSd, sd_);
  Publish(slot::kStandardized, z_);
  PublishTwoCutAsymptotic(HighSide() ? 1.0 - p_ : p_);
  SetWord(word::kSampleTotal, N_);
}

int JonckheereRun::Exact(const double* lf, net::PassResult& pass) const {
  if (cols_ > net::kMaxStages || rows_ > net::kMaxDigits) return -1;
  net::Network net;
  net.SetMargins(row_totals_, col_totals_, lf, false);
  JonckheereMember member;
  member.K = net.K;
  return RunFlatPasses(net, member, high_bound_, low_bound_,
                       MemberOf(20).tolerance * std::fabs(high_bound_), pass);
}

JonckheereRun::Hit JonckheereRun::HitRule() const {
  return Hit{rows_, cols_, z_ < 0.0, 1.000001 * low_bound_, 0.999999 * high_bound_};
}

net::TwoCounts JonckheereRun::Hit::operator()(const int64_t* table) const {
  const double sw = static_cast<double>(TwiceRankSum(table, rows, cols)) / 2.0;
  net::TwoCounts hit;
  hit.one_sided = low_side ? sw <= low_cut : sw >= high_cut;
  hit.two_sided = sw >= high_cut || sw <= low_cut;
  return hit;
}

void JonckheereDriver(const CallArgs& args) {
  TableDriver(args, kJonckheereTraits, {}, [](const RunStore&) { return JonckheereRun(); });
}

}  // namespace anvl::assoc
