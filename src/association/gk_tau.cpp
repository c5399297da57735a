#include "association/gk_tau.h"

#include <algorithm>
#include <cmath>

#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "frame/spill.h"
#include "kernel/distributions.h"
#include "network/node_store.h"
#include "network/pearson.h"

namespace anvl::assoc {
namespace {

constexpr DriverTraits kGkTauTraits{true, true, false, 0};
constexpr int64_t kGkTauCode = 46;
constexpr int kSymmetricTauSlot = 75, kAseSlot = 76;
constexpr double kHitFactor = 0.99995;

// sum over the rows of (sum over the row of x^2) / R_i.
double Concentration(const int64_t* x, int64_t rows, int64_t cols, const double* inverse_r) {
  double q = 0.0;
  for (int64_t i = 0; i < rows; ++i) {
    double s = 0.0;
    for (int64_t j = 0; j < cols; ++j) {
      const double v = static_cast<double>(x[i + j * rows]);
      s += v * v;
    }
    q += s * inverse_r[i];
  }
  return q;
}

}  // namespace

int GkTauRun::Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols,
                       const double* lf) {
  rows_ = rows;
  cols_ = cols;
  if (net::TableTotals(table, rows, cols, row_totals_, col_totals_, N_) != 0) return -1;
  const double n = static_cast<double>(N_);
  inverse_r_.resize(rows);
  for (int64_t i = 0; i < rows; ++i) inverse_r_[i] = 1.0 / static_cast<double>(row_totals_[i]);
  q_ = Concentration(table.data(), rows, cols, inverse_r_.data());
  table_probability_ = std::exp(TableLogProbability(table, row_totals_, col_totals_, N_, lf));

  double sc = 0.0, sr = 0.0;
  for (int64_t c : col_totals_) sc += (static_cast<double>(c) / n) * (static_cast<double>(c) / n);
  for (int64_t r : row_totals_) sr += (static_cast<double>(r) / n) * (static_cast<double>(r) / n);
  const double delta = 1.0 - sc, nu = 1.0 - q_ / n;
  tau_ = 1.0 - nu / delta;
  df_ = (rows - 1) * (cols - 1);
  const double x = static_cast<double>(N_ - 1) * static_cast<double>(cols - 1) * tau_;
  p_ = ChiSquareTail(x, df_);  // 0 at x = 0, as for every chi-square test of the engine

  const double e = delta - 2.0 * nu + delta * nu;
  double sum = 0.0;
  for (int64_t i = 0; i < rows; ++i) {
    double g = 0.0;
    for (int64_t j = 0; j < cols; ++j) {
      const double share = static_cast<double>(table[i + j * rows]) * inverse_r_[i];
      g += share * share;
    }
    for (int64_t j = 0; j < cols; ++j) {
      const double xij = static_cast<double>(table[i + j * rows]);
      const double f = 2.0 * delta * xij * inverse_r_[i] - delta * g -
                       2.0 * nu * static_cast<double>(col_totals_[j]) / n - e;
      sum += xij * f * f;
    }
  }
  ase_ = std::sqrt(sum) / (n * delta * delta);

  const double delta_r = 1.0 - sr;
  double q_cols = 0.0;
  for (int64_t j = 0; j < cols; ++j) {
    double s = 0.0;
    for (int64_t i = 0; i < rows; ++i) {
      const double v = static_cast<double>(table[i + j * rows]);
      s += v * v;
    }
    q_cols += s / static_cast<double>(col_totals_[j]);
  }
  const double tau_r = 1.0 - (1.0 - q_cols / n) / delta_r;
  tau_s_ = (tau_r * delta_r + tau_ * delta) / (delta + delta_r);
  return 0;
}

void GkTauRun::PublishAsymptotic() const {
  PublishRunWords(kGkTauCode);
  Publish(slot::kStatistic, tau_);
  Publish(kSymmetricTauSlot, tau_s_);
  Publish(kAseSlot, ase_);
  PublishInterval(tau_, ase_, 0.0, 1.0);
  PublishClamped(slot::kAsymTwoSided, p_);
  SetWord(word::kSampleTotal, N_);
  SetWord(word::kDegreesOfFreedom, df_);
  PublishSide(true);
}

int GkTauRun::Exact(const double* lf, net::PassResult& pass) const {
  if (cols_ > net::kMaxStages || rows_ > net::kMaxDigits) return -1;
  std::vector<int64_t> B = col_totals_;
  std::sort(B.begin(), B.end());
  net::Network net;
  net.SetMargins(row_totals_, std::move(B), lf, false);  // the rows as given
  int64_t limit = 0;
  if (net::EstimateStageNodes(net.A, net.B, &limit) != 0) return -1;
  net.SetCapacity(limit);
  NodeFileGuard spill;
  return net::RunPasses(net, GkTauMember{net.K, inverse_r_.data()}, q_, pass);
}

bool GkTauRun::Hit::operator()(const int64_t* table) const {
  const GkTauRun& r = *run;
  return Concentration(table, r.rows_, r.cols_, r.inverse_r_.data()) >= kHitFactor * r.q_;
}

void GkTauDriver(const CallArgs& args) {
  TableDriver(args, kGkTauTraits, {.zero_runs_exact = true}, [](const RunStore&) { return GkTauRun(); });
}

}  // namespace anvl::assoc
