// Goodman and Kruskal's tau, procedure 46: how much knowing the row
// reduces the error of predicting the column by the Gini concentration
// (tau of the column given the row, with its asymptotic standard error),
// the symmetric tau, and the test that the reduction is zero.  Under fixed
// margins tau rises with Q = sum_i (sum_j x_ij^2) / R_i, so the exact route
// adds up Q on the network with the rows as the key, in their own order,
// and the columns, which may be exchanged freely, as ascending stages; one
// tail counts.  The asymptotic test is the chi-square approximation of the
// categorical analysis of variance, (N - 1)(c - 1) tau on (r - 1)(c - 1)
// degrees of freedom (p = 1 at tau = 0).  MethodCode 0 runs the exact route.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "association/family.h"
#include "frame/driver.h"

namespace anvl::assoc {

// The network member: the edge of line d adds sum_i d_i^2 / A_i.
struct GkTauMember {
  static constexpr bool kCanonical = false;
  static constexpr bool kPValueBelow = false;
  static constexpr bool kInnerStopTests = true;
  static constexpr bool kStopOnNoNewEntry = false;
  static constexpr bool kStageMessages = true;
  static constexpr bool kTwoCut = false;
  static constexpr bool kClosedFormBounds = false;
  static constexpr bool kRelativeMerge = false;
  // Past values closer than this merge (1e-7 in single precision).
  static constexpr double kMergeTolerance = 1.0000000116860974e-07;
  static constexpr double kStopMargin = MemberOf(46).stop_margin;
  static constexpr double kTolerance = MemberOf(46).tolerance;  // 5e-5 of |Q|

  int K = 0;
  const double* inverse_a = nullptr;  // 1 / A_i

  double EdgeStatistic(int, const int64_t* d, double) const {
    double sum = 0.0;
    for (int i = 0; i < K; ++i) {
      const double x = static_cast<double>(d[i]);
      sum += x * x * inverse_a[i];
    }
    return sum;
  }
  double Tolerance(double obs) const { return kTolerance * std::fabs(obs); }
  double StartValue(double) const { return 0.0; }
};

class GkTauRun {
 public:
  static constexpr Form kForm = Form::kOneCut;

  int Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols, const double* lf);
  bool Degenerate() const { return false; }
  void PublishAsymptotic() const;
  double Statistic() const { return tau_; }
  double TableProbability() const { return table_probability_; }
  const std::vector<int64_t>& RowTotals() const { return row_totals_; }
  const std::vector<int64_t>& ColTotals() const { return col_totals_; }
  int Exact(const double* lf, net::PassResult& pass) const;

  // A drawn table hits when its Q reaches 0.99995 of the observed Q.
  struct Hit {
    const GkTauRun* run;
    bool operator()(const int64_t* table) const;
  };
  Hit HitRule() const { return Hit{this}; }

  double Q() const { return q_; }

 private:
  int64_t rows_ = 0, cols_ = 0, N_ = 0, df_ = 0;
  std::vector<int64_t> row_totals_, col_totals_;
  std::vector<double> inverse_r_;
  double q_ = 0.0, tau_ = 0.0, tau_s_ = 0.0, ase_ = 0.0, p_ = 1.0, table_probability_ = 0.0;
};

// Driver of procedure 46.
void GkTauDriver(const CallArgs& args);

}  // namespace anvl::assoc
