// Cohen's kappa, procedure 43: the agreement of two raters on a square
// table beyond what their margins give by chance, with its standard error
// (ASE1) and the null standard error (ASE0) of the normal test z = kappa /
// ASE0.  Under fixed margins kappa is a rising linear function of the
// diagonal sum W, so the exact route adds up W on the network with rows and
// columns as given (the weights tie a stage to its column) and decides
// against W and its mirror image about the null mean, as the two-cut form.
// Empty rows and columns are allowed; an empty table is FailureCode 151.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "association/family.h"
#include "frame/driver.h"

namespace anvl::assoc {

// The network member: the edge into stage s (column s) adds its diagonal
// cell d_s.  Past values merge within 1e-7 of their own size.
struct KappaMember {
  static constexpr bool kCanonical = false;
  static constexpr bool kPValueBelow = false;
  static constexpr bool kInnerStopTests = true;
  static constexpr bool kStopOnNoNewEntry = false;
  static constexpr bool kStageMessages = true;
  static constexpr bool kTwoCut = true;
  static constexpr bool kClosedFormBounds = false;
  static constexpr bool kRelativeMerge = true;
  static constexpr double kMergeTolerance = 1e-7;
  static constexpr double kStopMargin = MemberOf(43).stop_margin;
  static constexpr double kTolerance = MemberOf(43).tolerance;

  double EdgeStatistic(int line, const int64_t* d, double) const {
    return static_cast<double>(d[line]);
  }
  double Tolerance(double high_bound) const { return kTolerance * std::fabs(high_bound); }
  double StartValue(double) const { return 0.0; }
};

class KappaRun {
 public:
  int Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols, const double* lf);
  bool Degenerate() const { return false; }
  void PublishAsymptotic() const;
  bool HighSide() const { return kappa_ > 0.0; }
  double Statistic() const { return kappa_; }
  double TableProbability() const { return table_probability_; }
  const std::vector<int64_t>& RowTotals() const { return row_totals_; }
  const std::vector<int64_t>& ColTotals() const { return col_totals_; }
  int Exact(const double* lf, net::PassResult& pass) const;

  // W of a drawn table against the bounds, with a margin of 5e-5.
  struct Hit {
    const KappaRun* run;
    net::TwoCounts operator()(const int64_t* table) const;
  };
  Hit HitRule() const { return Hit{this}; }

  double Kappa() const { return kappa_; }
  double Ase1() const { return ase1_; }
  double Ase0() const { return ase0_; }

 private:
  int64_t k_ = 0, N_ = 0;
  std::vector<int64_t> row_totals_, col_totals_;
  double w_ = 0.0, mean_ = 0.0, high_bound_ = 0.0, low_bound_ = 0.0;
  double kappa_ = 0.0, ase0_ = 0.0, ase1_ = 0.0, z_ = 0.0, p_upper_ = 1.0;
  double table_probability_ = 0.0;
};

// Driver of procedure 43.
void KappaDriver(const CallArgs& args);

}  // namespace anvl::assoc
