// The linear family: procedures 41 (linear-by-linear association), 47
// (Pearson's correlation) and 48 (Spearman's correlation).  All three test
// the distribution, under fixed margins, of T = sum x_ij u_i v_j with row
// scores u and column scores v; they differ in the scores (Spearman's are
// the mid-ranks of the margins) and in the asymptotic route.  Because T is
// linear, the least and greatest sum still to come from a node have a
// closed form once both dimensions are in ascending score order, so the
// exact route has no backward pass and no spill file: nodes are created
// as the forward pass first meets them.
//
// Scores: the host's RowScores (Rows long) and Scores (Cols long).  A null
// array gives the equally spaced scores 1, 2, ... of that side.  A score
// that isn't finite is refused with FailureCode -3.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "association/family.h"
#include "frame/driver.h"

namespace anvl::assoc {

// RunSelector of the family.
inline constexpr int kPearsonCorrelation = 1;   // procedure 47
inline constexpr int kSpearmanCorrelation = 2;  // procedure 48
inline constexpr int kLinearByLinear = 3;       // procedure 41

// The network member: the edge into stage s with line d adds
// g_s x sum_j d_j h_j (g the stage scores, h the key scores, both
// ascending).  Past values merge within 1e-7 of their own size.
struct LinearMember {
  static constexpr bool kCanonical = false;
  static constexpr bool kPValueBelow = false;
  static constexpr bool kInnerStopTests = true;
  static constexpr bool kStopOnNoNewEntry = false;
  static constexpr bool kStageMessages = true;
  static constexpr bool kTwoCut = true;
  static constexpr bool kClosedFormBounds = true;
  static constexpr bool kRelativeMerge = true;
  static constexpr double kMergeTolerance = 1e-7;
  static constexpr double kStopMargin = MemberOf(41).stop_margin;
  static constexpr double kTolerance = MemberOf(41).tolerance;

  int K = 0, S = 0;
  const double* h = nullptr;   // key scores, ascending
  const double* g = nullptr;   // stage scores, ascending
  const int64_t* A = nullptr;  // key margins
  const int64_t* B = nullptr;  // stage margins

  double EdgeStatistic(int line, const int64_t* d, double) const {
    double sum = 0.0;
    for (int j = 0; j < K; ++j) sum += static_cast<double>(d[j]) * h[j];
    return g[line] * sum;
  }
  double Tolerance(double high_bound) const { return kTolerance * std::fabs(high_bound); }
  double StartValue(double) const { return 0.0; }
  // The least and greatest sum that the lines after stage t can add to a
  // node m of stage t: the remaining table filled greedily, stages from
  // the last one down, key columns in ascending order for the least sum
  // (the antitone filling) and descending for the greatest (monotone).
  void NodeBounds(int t, const int64_t* m, double& shortest, double& longest) const;
  // The least and greatest sum that the lines before stage t can have
  // given to a node m of stage t (m the key column counts so far), by the
  // same fillings.
  void PastBounds(int t, const int64_t* m, double& least, double& greatest) const;
};

// Which form of the forward pass the exact route takes.  kAny: the lattice
// form where the working scores allow it (net/lattice_pass.h), else the
// tree form; kTree: the tree form always (for comparisons).
enum class ExactForm { kAny, kTree };

// The run of one table: its observed route, publishers and exact route.
class LinearRun {
 public:
  // selector: kPearsonCorrelation, kSpearmanCorrelation or kLinearByLinear.
  // Null score arrays give 1, 2, ...
  LinearRun(int selector, const double* row_scores, const double* col_scores)
      : selector_(selector), row_scores_(row_scores), col_scores_(col_scores) {}

  int Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols, const double* lf);
  bool Degenerate() const { return degenerate_; }
  void PublishAsymptotic() const;
  bool HighSide() const { return high_side_; }
  double Statistic() const { return statistic_; }
  double TableProbability() const { return table_probability_; }
  const std::vector<int64_t>& RowTotals() const { return row_totals_; }
  const std::vector<int64_t>& ColTotals() const { return col_totals_; }
  // The exact route.  `lattice`, when given, tells whether the lattice
  // form gave the result.
  int Exact(const double* lf, net::PassResult& pass, ExactForm form = ExactForm::kAny,
            bool* lattice = nullptr) const;

  // T on the working scores of a drawn table, against the bounds.
  struct Hit {
    const LinearRun* run;
    net::TwoCounts operator()(const int64_t* table) const;
  };
  Hit HitRule() const { return Hit{this}; }

  double HighBound() const { return high_bound_; }
  double LowBound() const { return low_bound_; }
  double WorkStatistic() const { return t_; }

 private:
  int selector_;
  const double* row_scores_;
  const double* col_scores_;
  int64_t rows_ = 0, cols_ = 0, N_ = 0;
  std::vector<int64_t> row_totals_, col_totals_;
  std::vector<double> wu_, wv_;  // working scores: shifted and rounded
  bool degenerate_ = false, high_side_ = false;
  double t0_ = 0.0, t0_mean_ = 0.0, t0_var_ = 0.0;
  double statistic_ = 0.0, standardized_ = 0.0, ase_ = 0.0;
  double p_ = 1.0;  // lower tail of the asymptotic test
  double t_ = 0.0, high_bound_ = 0.0, low_bound_ = 0.0, table_probability_ = 0.0;
};

// The distribution function of Student's t with f (whole) degrees of
// freedom, by the finite series; f <= 0 gives 0.
double StudentLowerTail(double t, int64_t f);

// Driver of procedures 41, 47 and 48.
void LinearDriver(const CallArgs& args);

}  // namespace anvl::assoc
