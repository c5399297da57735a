// Pearson's X^2 on an r x c table: the asymptotic route (totals, the
// collapse of the median test, X^2, its p-value, the probability of the
// table and the variance of phi^2), the network member, and the
// publishers of procedures 7, 31 and 42.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace anvl::net {

// StatSelector of the contingency procedures.
inline constexpr int kPearsonChiSquare = 1;  // procedures 7 and 507
inline constexpr int kMedianTest = 2;        // procedure 31
inline constexpr int kNominalMeasures = 3;   // procedure 42

struct AsymptoticResult {
  std::vector<int64_t> row_totals, col_totals;
  int64_t N = 0;
  double x2 = 0.0, p = 0.0, table_probability = 0.0, var_phi2 = 0.0;
  int64_t df = 0;
  double cut = 0.0;  // the median cut, StatSelector 2
};

// Row and column totals and the grand total of a column-major table.  A
// negative cell, a row or column total below 1, or a grand total that
// overflows is -1.
int TableTotals(const std::vector<int64_t>& table, int64_t rows, int64_t cols,
                std::vector<int64_t>& row_totals, std::vector<int64_t>& col_totals, int64_t& N);

// Totals (a row or column total below 1, or a grand total that overflows,
// is -1), the collapse of the median test at ModelOption(13) when
// selector is 2 (`cols` becomes 2; an empty side is -32), X^2 with
// e_ij = r_i (c_j / N), its chi-square p-value, the probability of the
// table and the delta-method variance of phi^2.  `table` is column-major
// (row index fastest) and may be overwritten.  `scores` may be null for
// the median test: the levels are then scored 1, 2, ..., cols.
int AsymptoticRoute(std::vector<int64_t>& table, int64_t rows, int64_t& cols, int selector,
                    const double* scores, const double* lf, AsymptoticResult& out);

// Publish the asymptotic results (and the measures of procedure 42), then
// the exact p-value TailHigh + PointProb and the point probability.
void PublishAsymptotic(const AsymptoticResult& a, int selector);
void PublishExact(const AsymptoticResult& a, int selector, double tail_high, double point);

// The network member of Pearson's statistic: the edge into a line adds
// sum_j (d_j - E_j)^2 / E_j against the expected line E_j = (A_j / N) B.
struct PearsonMember {
  static constexpr bool kCanonical = false;
  static constexpr bool kPValueBelow = false;
  static constexpr bool kInnerStopTests = true;
  static constexpr bool kStopOnNoNewEntry = false;
  static constexpr bool kStageMessages = true;
  static constexpr bool kTwoCut = false;
  static constexpr bool kClosedFormBounds = false;
  static constexpr bool kRelativeMerge = false;
  // Past values closer than this merge in the trees (1e-7 in single precision).
  static constexpr double kMergeTolerance = 1.0000000116860974e-07;
  static constexpr double kStopMargin = 0.0;
  // Relative tolerance around the observed value: 2^-20 with two key
  // columns, else 5e-5 in single precision.
  static constexpr double kTwoColumnTolerance = 9.5367431640625e-07;
  static constexpr double kManyColumnTolerance = 4.999999873689376e-05;

  int K = 0;
  const double* expected = nullptr;  // E[line * K + j]

  double EdgeStatistic(int line, const int64_t* d, double) const {
    const double* e = expected + static_cast<int64_t>(line) * K;
    double inc = 0.0;
    for (int j = 0; j < K; ++j) {
      const double diff = static_cast<double>(d[j]) - e[j];
      inc += diff * diff / e[j];
    }
    return inc;
  }
  double Tolerance(double obs) const {
    return (K == 2 ? kTwoColumnTolerance : kManyColumnTolerance) * std::fabs(obs);
  }
  double StartValue(double) const { return 0.0; }
};

// The expected lines of the network: E[s * K + j] = (A_j / N) x B_s.
std::vector<double> ExpectedTable(const std::vector<int64_t>& A, const std::vector<int64_t>& B,
                                  int64_t N);

}  // namespace anvl::net
