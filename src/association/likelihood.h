// The likelihood family: procedure 40 (the likelihood-ratio test of
// independence, G^2) and 45 (the uncertainty coefficients U(C|R), U(R|C)
// and the symmetric U, each with its asymptotic standard error).  Both have
// the same test.  Under fixed margins G^2 differs from H = sum x log x by a
// constant, so the network adds up H; H doesn't change when key columns
// with equal totals are exchanged, so the exact route runs on the network
// of sorted canonical nodes that Fisher's test uses, with the one-cut
// decision of Pearson's test.  A 2 x 2 table under procedure 40 takes the
// direct walk of its first cell instead (network/two_by_two.h).
//
// The chi-square tail routine gives 0 at a statistic of 0; a table of
// exactly independent proportions (G^2 = 0, or a rounding below it) is no
// evidence of association, so its asymptotic p-value is published as 1.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "association/family.h"
#include "frame/driver.h"

namespace anvl::assoc {

// RunSelector of the family.
inline constexpr int kUncertainty = 1;      // procedure 45
inline constexpr int kLikelihoodRatio = 2;  // procedure 40

// n log n for n = 0 .. N (0 log 0 = 0): the cell terms of H, looked up.
std::vector<double> XLogXTable(int64_t N);

// The network member: the edge of line d adds sum_j d_j log d_j.  Nodes
// are named by their sorted complements; past values merge within 1e-9 of
// their own size, and the pass ends when 1e-12 of the mass is undecided.
struct LikelihoodMember {
  static constexpr bool kCanonical = true;
  static constexpr bool kPValueBelow = false;
  static constexpr bool kInnerStopTests = true;
  static constexpr bool kStopOnNoNewEntry = false;
  static constexpr bool kStageMessages = false;
  static constexpr bool kTwoCut = false;
  static constexpr bool kClosedFormBounds = false;
  static constexpr bool kRelativeMerge = true;
  static constexpr double kMergeTolerance = 1e-9;
  static constexpr double kStopMargin = MemberOf(40).stop_margin;
  static constexpr double kTolerance = MemberOf(40).tolerance;  // 2^-23 of |H|

  int K = 0;
  const double* xlogx = nullptr;  // XLogXTable of the run

  double EdgeStatistic(int, const int64_t* d, double) const {
    double sum = 0.0;
    for (int j = 0; j < K; ++j) sum += xlogx[d[j]];
    return sum;
  }
  double Tolerance(double obs) const { return kTolerance * std::fabs(obs); }
  double StartValue(double) const { return 0.0; }
};

// The run of one table under procedure 40 or 45 on the network.
class LikelihoodRun {
 public:
  static constexpr Form kForm = Form::kOneCut;

  explicit LikelihoodRun(int selector) : selector_(selector) {}

  int Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols, const double* lf);
  bool Degenerate() const { return false; }
  void PublishAsymptotic() const;
  double Statistic() const { return g2_; }
  double TableProbability() const { return table_probability_; }
  const std::vector<int64_t>& RowTotals() const { return row_totals_; }
  const std::vector<int64_t>& ColTotals() const { return col_totals_; }
  int Exact(const double* lf, net::PassResult& pass) const;

  // A drawn table hits when its H reaches the observed H less 2^-23 of it.
  struct Hit {
    const LikelihoodRun* run;
    bool operator()(const int64_t* table) const;
  };
  Hit HitRule() const { return Hit{this}; }

  double H() const { return h_; }
  // U(C|R), U(R|C) and the symmetric U, with their standard errors.
  struct Measure {
    double value = 0.0, ase = 0.0;
  };
  Measure UC() const { return uc_; }
  Measure UR() const { return ur_; }
  Measure US() const { return us_; }

 private:
  int selector_;
  int64_t rows_ = 0, cols_ = 0, N_ = 0, df_ = 0;
  std::vector<int64_t> row_totals_, col_totals_;
  std::vector<double> xlogx_;
  double h_ = 0.0, g2_ = 0.0, p_ = 1.0, table_probability_ = 0.0;
  Measure uc_, ur_, us_;
};

// Driver of procedures 40 and 45.
void LikelihoodDriver(const CallArgs& args);

}  // namespace anvl::assoc
