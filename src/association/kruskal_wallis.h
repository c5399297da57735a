// The Kruskal-Wallis test (procedure 21): whether r groups, the rows, come
// from one distribution, when the data are counts in ordered categories,
// the columns.  Each column scores the mid-rank of its observations in the
// pooled sample; the statistic is the between-group sum of squares of the
// scores over their total variance, so ties are corrected for.  Under fixed
// margins the variance is fixed, and the network adds up the between-group
// sum of squares Z alone: a one-cut member on the tree form of past values,
// columns as the key (in their order, with their scores), rows as the
// stages in ascending order of their totals.
//
// Left open by the test's definition and chosen here: a row with no
// observations, or a negative count, is FailureCode -1 (a group must have
// cases); a table of one row is -16 (there is no test on 0 degrees of
// freedom).  A column with no observations keeps its place in the mid-ranks
// and weighs nothing; the exact route leaves it out of the network.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

#include "association/family.h"
#include "frame/driver.h"

namespace anvl::assoc {

// The network member: the edge into a stage with total B_s and line d adds
// (sum_j d_j s_j - B_s sbar)^2 / B_s.  Past values merge within 1e-7 (single
// precision) of their size.
struct KruskalWallisMember {
  static constexpr bool kCanonical = false;
  static constexpr bool kPValueBelow = false;
  static constexpr bool kInnerStopTests = true;
  static constexpr bool kStopOnNoNewEntry = false;
  static constexpr bool kStageMessages = true;
  static constexpr bool kTwoCut = false;
  static constexpr bool kClosedFormBounds = false;
  static constexpr bool kRelativeMerge = true;
  static constexpr double kMergeTolerance = 1.0000000116860974e-07;
  static constexpr double kStopMargin = MemberOf(21).stop_margin;

  int K = 0;
  const double* s = nullptr;   // the key columns' mid-ranks
  const int64_t* B = nullptr;  // stage totals
  double sbar = 0.0;

  double EdgeStatistic(int line, const int64_t* d, double) const {
    double sum = 0.0;
    for (int j = 0; j < K; ++j) sum += static_cast<double>(d[j]) * s[j];
    const double b = static_cast<double>(B[line]), x = sum - b * sbar;
    return x * x / b;
  }
  double Tolerance(double obs) const { return MemberOf(21).tolerance * std::fabs(obs); }
  double StartValue(double) const { return 0.0; }
};

// What the observed route forms.
struct KruskalWallisObserved {
  std::vector<int64_t> row_totals, col_totals;
  int64_t N = 0;
  std::vector<double> midranks;
  double sbar = 0.0, s2 = 0.0, Z = 0.0, T = 0.0, p = 0.0, table_probability = 0.0;
};

// Totals, mid-ranks, Z, T and its chi-square p-value.  Returns 0, -1 (a
// negative count, a row without observations) or -33 (fewer than two
// observations, or all in one column).
int KruskalWallisObservedRoute(const std::vector<int64_t>& table, int64_t rows, int64_t cols,
                               const double* lf, KruskalWallisObserved& out);
// Z of a column-major table on the given mid-ranks.
double BetweenGroupSum(const int64_t* x, int64_t rows, int64_t cols, const double* midranks,
                       const int64_t* row_totals, double sbar);
// The exact route: TailHigh and PointProb of Z (pass.tail_high, pass.point).
int KruskalWallisExact(const KruskalWallisObserved& o, const double* lf, net::PassResult& pass);

void KruskalWallisDriver(const CallArgs& args);

}  // namespace anvl::assoc
