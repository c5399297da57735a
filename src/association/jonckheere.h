// The Jonckheere-Terpstra test (procedure 20): a trend across ordered
// groups, the rows, in ordered response categories, the columns.  The
// statistic sums over all pairs of groups the Mann-Whitney count of the
// later group against the earlier one, ties counting one half.  The network
// adds up its rank-sum form SW = JT + sum_i (i - 1) R_i (R_i + 1) / 2 column
// by column, rows as the key, both in the order of the input, on the flat
// form of past values.
#pragma once

#include <cstdint>
#include <vector>

#include "association/concordance.h"
#include "association/family.h"
#include "association/flat_past.h"
#include "frame/driver.h"

namespace anvl::assoc {

// Twice SW of a column-major table: over pairs of rows i < k and columns
// j, x_kj (1 + s_j + 2 cum_j), s_j the two rows' count in column j and cum_j
// theirs in the columns before.
int64_t TwiceRankSum(const int64_t* x, int64_t rows, int64_t cols);

// The network member: the edge from node m with line d adds
// sum over key indices i < i' of d_i' ((d_i' + d_i + 1) / 2 + m_i' + m_i).
struct JonckheereMember : LineValueMember {
  static constexpr bool kStopInWalk = false;
  int K = 0;
  double Edge(const int64_t* m, const int64_t* d) const {
    int64_t twice = 0, m_below = 0, d_below = 0;
    for (int i = 0; i < K; ++i) {
      twice += d[i] * (i * (d[i] + 1) + d_below + 2 * i * m[i] + 2 * m_below);
      m_below += m[i];
      d_below += d[i];
    }
    return static_cast<double>(twice) / 2.0;
  }
};

// The run of procedure 20 (see FamilyRun).
class JonckheereRun {
 public:
  int Observed(const std::vector<int64_t>& table, int64_t rows, int64_t cols, const double* lf);
  bool Degenerate() const { return false; }
  void PublishAsymptotic() const;
  bool HighSide() const { return jt_ > mean_; }
  double Statistic() const { return jt_; }
  double TableProbability() const { return table_probability_; }
  const std::vector<int64_t>& RowTotals() const { return row_totals_; }
  const std::vector<int64_t>& ColTotals() const { return col_totals_; }
  int Exact(const double* lf, net::PassResult& pass) const;

  struct Hit {
    int64_t rows, cols;
    bool low_side;
    double low_cut, high_cut;
    net::TwoCounts operator()(const int64_t* table) const;
  };
  Hit HitRule() const;

  double Mean() const { return mean_; }
  double Sd() const { return sd_; }

 private:
  int64_t rows_ = 0, cols_ = 0, N_ = 0;
  std::vector<int64_t> row_totals_, col_totals_;
  double jt_ = 0.0, mean_ = 0.0, sd_ = 0.0, z_ = 0.0, p_ = 0.5;
  double high_bound_ = 0.0, low_bound_ = 0.0, table_probability_ = 0.0;
};

void JonckheereDriver(const CallArgs& args);

}  // namespace anvl::assoc
