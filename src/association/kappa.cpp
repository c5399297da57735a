#include "association/kappa.h"

#include <algorithm>
#include <cmath>

#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/host_library.h"
#include "network/node_store.h"

namespace anvl::assoc {
namespace {

constexpr DriverTraits kKappaTraits{true, true, true, 0};
constexpr int64_t kKappaCode = 43;
// The standardised value of a kappa without null variance.
constexpr double kNoVarianceZ = 1e30;
// Margins of the Monte Carlo hit rules around the bounds.
constexpr double kHitLow = 1.00005, kHitHigh = 0.99995;

double DiagonalSum(const int64_t* x, int64_t k) {
  double d = 0.0;
  for (int64_t i = 0; i < k; ++i) d += static_cast<double>(x[i + i * k]);
  return d;
}

}  // namespace

int KappaRun::Observed(const std::vector<int64_t>& table, int64_t rows, int64_t, const double* lf) {
  k_ = rows;
  row_totals_.assign(k_, 0);
  col_totals_.assign(k_, 0);
  int64_t total = 0;
  for (int64_t i = 0; i < k_; ++i)  // row by row, as the totals are checked
    for (int64_t j = 0; j < k_; ++j) {
      const int64_t x = table[i + j * k_];
      if (x < 0) return -1;  // a count below 0 has no probability
      if (__builtin_add_overflow(total, x, &total)) return -1;
      row_totals_[i] += x;
      col_totals_[j] += x;
    }
  if (total == 0) return static_cast<int>(fail::kEmptyTable);
  N_ = total;
  const double n = static_cast<double>(N_);

  double d = 0.0, sg = 0.0, t3 = 0.0, t4 = 0.0, t5 = 0.0;
  for (int64_t i = 0; i < k_; ++i) {
    const double R = static_cast<double>(row_totals_[i]), C = static_cast<double>(col_totals_[i]);
    const double x = static_cast<double>(table[i + i * k_]);
    d += x;
    sg += R * C;
    t3 += x * (R + C);
    t5 += R * C * (R + C);
  }
  for (int64_t j = 0; j < k_; ++j)
    for (int64_t i = 0; i < k_; ++i) {
      const double s = static_cast<double>(row_totals_[j] + col_totals_[i]);
      t4 += static_cast<double>(table[i + j * k_]) * s * s;
    }
  w_ = d;
  mean_ = sg / n;
  if (w_ > mean_) {
    high_bound_ = w_;
    low_bound_ = 2.0 * mean_ - w_;
  } else {
    high_bound_ = 2.0 * mean_ - w_;
    low_bound_ = w_;
  }
  const double p1 = d / n, p2 = sg / (n * n), p3 = t3 / (n * n), p4 = t4 / (n * n * n);
  kappa_ = (n * d - sg) / (n * n - sg);
  const double q = 1.0 - p2;
  const double var1 = (p1 * (1.0 - p1) / (q * q) + 2.0 * (1.0 - p1) * (2.0 * p1 * p2 - p3) / (q * q * q) +
                       (1.0 - p1) * (1.0 - p1) * (p4 - 4.0 * p2 * p2) / (q * q * q * q)) /
                      n;
  const double sg2 = p2 * n * n;
  const double var0 = ((n * n + sg2) * sg2 - n * t5) / (n * (n * n - sg2) * (n * n - sg2));
  ase0_ = std::sqrt(std::max(0.0, var0));
  ase1_ = std::sqrt(std::max(0.0, var1));
  if (ase0_ > 0.0) {
    z_ = kappa_ / ase0_;
    p_upper_ = 1.0 - PRBNRM(z_);
  } else {
    z_ = kNoVarianceZ;
    p_upper_ = 1.0;
  }
  table_probability_ = std::exp(TableLogProbability(table, row_totals_, col_totals_, N_, lf));
  return 0;
}

void KappaRun::PublishAsymptotic() const {
  PublishRunWords(kKappaCode);
  Publish(slot::kStatistic, kappa_);
  Publish(slot::kNullSd, ase1_);
  Publish(slot::kStandardized, z_);
  SetWord(word::kSampleTotal, N_);
  PublishInterval(kappa_, ase1_, -1.0, 1.0);
  PublishSide(z_ > 0.0);
  PublishTwoCutAsymptotic(z_ > 0.0 ? p_upper_ : 1.0 - p_upper_);
}

int KappaRun::Exact(const double* lf, net::PassResult& pass) const {
  if (k_ > net::kMaxStages) return -1;
  net::Network net;
  net.SetMargins(row_totals_, col_totals_, lf, false);  // rows and columns as given
  int64_t limit = 0;
  if (net::EstimateStageNodes(net.A, net.B, &limit) != 0) return -1;
  net.SetCapacity(limit);
  NodeFileGuard spill;
  return net::RunPasses(net, KappaMember{}, high_bound_, pass, low_bound_);
}

net::TwoCounts KappaRun::Hit::operator()(const int64_t* table) const {
  const KappaRun& r = *run;
  const double w = DiagonalSum(table, r.k_);
  net::TwoCounts hit;
  hit.one_sided = r.z_ < 0.0 ? w <= kHitLow * r.low_bound_ : w >= kHitHigh * r.high_bound_;
  hit.two_sided = std::fabs(w - r.mean_) >= kHitHigh * std::fabs(r.low_bound_ - r.mean_);
  return hit;
}

void KappaDriver(const CallArgs& args) {
  TableDriver(args, kKappaTraits, {.square = true}, [](const RunStore&) { return KappaRun(); });
}

}  // namespace anvl::assoc
