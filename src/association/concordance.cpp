#include "association/concordance.h"

#include <algorithm>
#include <cmath>

#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "kernel/distributions.h"
#include "kernel/host_library.h"
#include "network/pearson.h"

namespace anvl::assoc {
namespace {

// Table, spill file not used, MethodCode 0 left at 0 (the runs treat it as 1).
constexpr DriverTraits kConcordanceTraits{true, false, false, 0};
// How near p must come to -1 to be the mark of no test.
constexpr double kNoTestReach = 0.0005;
constexpr double kNoTestZ = 999.0;

// For every cell, the counts of the cells concordant (A) and discordant
// (D) with it, by a table of cumulative sums; P = sum x A, Q = sum x D.
struct CellPairs {
  std::vector<double> A, D;
  double P = 0.0, Q = 0.0;
};

CellPairs PairsOfCells(const std::vector<int64_t>& x, int64_t rows, int64_t cols) {
  // S(i, j) = sum of x_kl over k <= i, l <= j, with S(-1, .) = S(., -1) = 0.
  std::vector<double> cum(static_cast<size_t>((rows + 1) * (cols + 1)), 0.0);
  auto S = [&](int64_t i, int64_t j) -> double& { return cum[(i + 1) + (j + 1) * (rows + 1)]; };
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i)
      S(i, j) = static_cast<double>(x[i + j * rows]) + S(i - 1, j) + S(i, j - 1) - S(i - 1, j - 1);
  CellPairs out;
  out.A.resize(x.size());
  out.D.resize(x.size());
  const double n = S(rows - 1, cols - 1);
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const double below_left = S(i - 1, j - 1);
      const double above_right = n - S(i, cols - 1) - S(rows - 1, j) + S(i, j);
      const double below_right = S(i - 1, cols - 1) - S(i - 1, j);
      const double above_left = S(rows - 1, j - 1) - S(i, j - 1);
      const size_t k = static_cast<size_t>(i + j * rows);
      out.A[k] = below_left + above_right;
      out.D[k] = below_right + above_left;
      out.P += static_cast<double>(x[k]) * out.A[k];
      out.Q += static_cast<double>(x[k]) * out.D[k];
    }
  return out;
}

// The network of a concordance member: the shorter dimension is the key,
// both in the input's order.
void ConcordanceNetwork(const std::vector<int64_t>& R, const std::vector<int64_t>& C,
                        const double* lf, net::Network& net) {
  const bool rows_key = R.size() <= C.size();
  net.SetMargins(rows_key ? R : C, rows_key ? C : R, lf, false);
}

double Root(double v) { return v > 0.0 ? std::sqrt(v) : 0.0; }

// An interval of measure m with standard error e into two slots, as
// PublishInterval forms it.
void PublishIntervalInto(int low_slot, double m, double e) {
  const double z = NormalQuantile((1.0 + Setting(setting::kIntervalConfidence)) / 2.0);
  Publish(low_slot, std::clamp(m - z * e, -1.0, 1.0));
  Publish(low_slot + 1, std::clamp(m + z * e, -1.0, 1.0));
}

// The asymptotic p-values from p = Phi(z), or 0.0 under the mark of no test.
void PublishNormalTest(double p, bool high_side) {
  if (std::fabs(p + 1.0) <= kNoTestReach) {
    Publish(slot::kAsymOneSided, 0.0);
    Publish(slot::kAsymTwoSided, 0.0);
  } else {
    PublishTwoCutAsymptotic(high_side ? 1.0 - p : p);
  }
}

template <class Run>
void ConcordanceDriver(const CallArgs& args) {
  TableDriver(args, kConcordanceTraits, {.zero_runs_exact = true}, [](const RunStore&) { return Run(); });
}

}  // namespace

void ConcordantPairs(const int64_t* x, int64_t rows, int64_t cols, int64_t& C, int64_t& D) {
  C = 0;
  D = 0;
  for (int64_t i = 0; i < rows; ++i)
    for (int64_t k = i + 1; k < rows; ++k) {
      int64_t before_i = 0, before_k = 0;  // row i and row k in the columns passed
      for (int64_t j = 0; j < cols; ++j) {
        const int64_t xi = x[i + j * rows], xk = x[k + j * rows];
        C += xk * before_i;
        D += xi * before_k;
        before_i += xi;
        before_k += xk;
      }
    }
}

// ---------------------------------------------------------------------------
// Gamma.
// ---------------------------------------------------------------------------

int GammaRun::Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols,
                       const double* lf) {
  rows_ = rows;
  cols_ = cols;
  if (net::TableTotals(table, rows, cols, row_totals_, col_totals_, N_) != 0) return -1;
  int64_t C, D;
  ConcordantPairs(table.data(), rows, cols, C, D);
  rho_ = static_cast<double>(C) / static_cast<double>(C + D);
  high_bound_ = std::max(rho_, 1.0 - rho_);
  low_bound_ = std::min(rho_, 1.0 - rho_);
  table_probability_ = TableProbabilityOf(table, row_totals_, col_totals_, N_, lf);

  const CellPairs cp = PairsOfCells(table, rows, cols);
  const double P = cp.P, Q = cp.Q, n = static_cast<double>(N_);
  gamma_ = (P - Q) / (P + Q);
  double s1 = 0.0, s0 = 0.0;
  for (size_t k = 0; k < table.size(); ++k) {
    const double x = static_cast<double>(table[k]);
    const double e = Q * cp.A[k] - P * cp.D[k], a = cp.A[k] - cp.D[k];
    s1 += x * e * e;
    s0 += x * a * a;
  }
  const double pq2 = (P + Q) * (P + Q);
  ase1_ = Root(16.0 * s1 / (pq2 * pq2));
  double v = s0 - (P - Q) * (P - Q) / n;
  v = 2.0 * v / (P + Q);
  ase0_ = Root(2.0 * v / (P + Q));
  if (ase0_ == 0.0) {
    p_ = -1.0;
    z_ = kNoTestZ;
  } else {
    z_ = gamma_ / ase0_;
    p_ = PRBNRM(z_);
  }
  return 0;
}

void GammaRun::PublishAsymptotic() const {
  PublishRunWords(50);
  PublishSide(HighSide());
  Publish(slot::kStatistic, gamma_);
  Publish(slot::kNullSd, ase1_);
  PublishInterval(gamma_, ase1_, -1.0, 1.0);
  SetWord(word::kSampleTotal, N_);
  const bool mark = std::fabs(p_ + 1.0) <= kNoTestReach;
  Publish(slot::kStandardized, z_, mark ? kStatusNoValue : kStatusPublished);
  PublishNormalTest(p_, HighSide());
}

int GammaRun::Exact(const double* lf, net::PassResult& pass) const {
  if (std::max(rows_, cols_) > net::kMaxStages) return -1;
  net::Network net;
  ConcordanceNetwork(row_totals_, col_totals_, lf, net);
  const GammaMember member{net.K};
  return RunFlatPasses(net, member, high_bound_, low_bound_,
                       MemberOf(50).tolerance * std::fabs(high_bound_), pass);
}

GammaRun::Hit GammaRun::HitRule() const {
  return Hit{rows_, cols_, gamma_ < 0.0, 1.00005 * std::max(5e-6, 1.00005 * low_bound_),
             0.99995 * 0.99995 * high_bound_};
}

net::TwoCounts GammaRun::Hit::operator()(const int64_t* table) const {
  int64_t C, D;
  ConcordantPairs(table, rows, cols, C, D);
  const double rho = static_cast<double>(C) / static_cast<double>(C + D);
  net::TwoCounts hit;
  hit.one_sided = low_side ? rho <= low_cut : rho >= high_cut;
  hit.two_sided = rho <= low_cut || rho >= high_cut;
  return hit;
}

// ---------------------------------------------------------------------------
// Kendall's family.
// ---------------------------------------------------------------------------

int KendallRun::Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols,
                         const double* lf) {
  rows_ = rows;
  cols_ = cols;
  if (net::TableTotals(table, rows, cols, row_totals_, col_totals_, N_) != 0) return -1;
  int64_t C, D;
  ConcordantPairs(table.data(), rows, cols, C, D);
  const double dd = static_cast<double>(C - D);
  high_bound_ = std::fabs(dd);
  low_bound_ = -std::fabs(dd);
  table_probability_ = TableProbabilityOf(table, row_totals_, col_totals_, N_, lf);

  const CellPairs cp = PairsOfCells(table, rows, cols);
  const double n = static_cast<double>(N_), dp = cp.P - cp.Q;
  double wr = n * n, wc = n * n;
  for (int64_t r : row_totals_) wr -= static_cast<double>(r) * static_cast<double>(r);
  for (int64_t c : col_totals_) wc -= static_cast<double>(c) * static_cast<double>(c);
  const double w = wr * wc > 0.0 ? std::sqrt(wr * wc) : 0.0;
  KendallMeasures& k = k_;
  k.tau_b = dp / w;
  double sb = 0.0, sd2 = 0.0, src = 0.0, scr = 0.0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const size_t c = static_cast<size_t>(i + j * rows);
      const double x = static_cast<double>(table[c]), d = cp.A[c] - cp.D[c];
      const double Ri = static_cast<double>(row_totals_[i]), Cj = static_cast<double>(col_totals_[j]);
      const double b = (Cj * wr + Ri * wc) * k.tau_b + 2.0 * w * d;
      const double erc = d * wc - (n - Cj) * dp, ecr = d * wr - (n - Ri) * dp;
      sb += x * b * b;
      sd2 += x * d * d;
      src += x * erc * erc;
      scr += x * ecr * ecr;
    }
  const double w2 = w * w;
  k.tau_b_ase = Root((sb - k.tau_b * k.tau_b * (wr + wc) * (wr + wc) * n * n * n) / (w2 * w2));
  const double m = static_cast<double>(std::min(rows, cols));
  k.tau_c = dp / (n * n * (m - 1.0) / m);
  k.tau_c_ase = Root(4.0 * m * m * (sd2 - dp * dp / n) / ((m - 1.0) * (m - 1.0) * n * n * n * n));
  k.d_rc = dp / wc;
  k.d_rc_ase = Root(4.0 * src / (wc * wc * wc * wc));
  k.d_cr = dp / wr;
  k.d_cr_ase = Root(4.0 * scr / (wr * wr * wr * wr));
  k.d_sym = 2.0 * dp / (wr + wc);
  k.d_sym_ase = wr * wc <= 0.0 ? 0.0 : 2.0 * w * k.tau_b_ase / (wr + wc);
  k.tau_a = dp / (n * (n - 1.0));
  k.tau_a_ase = w * k.tau_b_ase / (n * (n - 1.0));
  const double v = 4.0 * (sd2 - dp * dp / n) / (wr * wc);
  if (v > 0.0) {
    k.z = k.tau_b / std::sqrt(v);
    k.p = PRBNRM(k.z);
  } else {
    k.z = kNoTestZ;
    k.p = -1.0;
  }
  return 0;
}

void KendallRun::PublishAsymptotic() const {
  const KendallMeasures& k = k_;
  PublishRunWords(49);
  PublishSide(HighSide());
  Publish(slot::kStatistic, k.tau_a);
  const struct {
    int slot;
    double value, ase;
  } measures[] = {{62, k.tau_a, k.tau_a_ase}, {65, k.tau_b, k.tau_b_ase},
                  {67, k.tau_c, k.tau_c_ase}, {69, k.d_rc, k.d_rc_ase},
                  {71, k.d_cr, k.d_cr_ase},   {73, k.d_sym, k.d_sym_ase}};
  for (const auto& m : measures) {
    Publish(m.slot, m.value);
    Publish(m.slot + 1, m.ase);
  }
  const bool mark = std::fabs(k.p + 1.0) <= kNoTestReach;
  Publish(64, k.z, mark ? kStatusNoValue : kStatusPublished);
  PublishInterval(k.tau_a, k.tau_a_ase, -1.0, 1.0);
  for (int i = 1; i < 6; ++i)  // slots 134 to 143
    PublishIntervalInto(134 + 2 * (i - 1), measures[i].value, measures[i].ase);
  PublishNormalTest(k.p, HighSide());
  SetWord(word::kSampleTotal, N_);
}

int KendallRun::Exact(const double* lf, net::PassResult& pass) const {
  if (std::max(rows_, cols_) > net::kMaxStages) return -1;
  net::Network net;
  ConcordanceNetwork(row_totals_, col_totals_, lf, net);
  KendallMember member;
  member.K = net.K;
  return RunFlatPasses(net, member, high_bound_, low_bound_,
                       MemberOf(49).tolerance * std::fabs(high_bound_), pass);
}

KendallRun::Hit KendallRun::HitRule() const {
  return Hit{rows_, cols_, k_.z < 0.0, 0.99995 * low_bound_, 0.99995 * high_bound_,
             0.99995 * std::fabs(low_bound_)};
}

net::TwoCounts KendallRun::Hit::operator()(const int64_t* table) const {
  int64_t C, D;
  ConcordantPairs(table, rows, cols, C, D);
  const double dd = static_cast<double>(C - D);
  net::TwoCounts hit;
  hit.one_sided = low_side ? dd <= low_cut : dd >= high_cut;
  hit.two_sided = std::fabs(dd) >= abs_cut;
  return hit;
}

void GammaDriver(const CallArgs& args) { ConcordanceDriver<GammaRun>(args); }
void KendallDriver(const CallArgs& args) { ConcordanceDriver<KendallRun>(args); }

}  // namespace anvl::assoc
