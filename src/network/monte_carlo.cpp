#include "network/monte_carlo.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "frame/progress.h"
#include "kernel/distributions.h"
#include "kernel/log_factorial.h"

namespace anvl::net {

int TableSampler::Init(int64_t rows, int64_t cols, const int64_t* row_totals,
                       const int64_t* col_totals, const double* lf) {
  rows_ = rows;
  cols_ = cols;
  lf_ = lf;
  n_ = 0;
  for (int64_t i = 0; i < rows; ++i) n_ += row_totals[i];
  const int64_t shorter = std::min(rows, cols);
  shuffle_ = n_ <= std::min(kShufflePerLine * shorter, kShuffleLimit);
  try {
    row_totals_.assign(row_totals, row_totals + rows);
    col_totals_.assign(col_totals, col_totals + cols);
    work_.assign(static_cast<size_t>(cols), 0);
    labels_.assign(shuffle_ ? static_cast<size_t>(n_) : 0, 0);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  return 0;
}

void TableSampler::Draw(RandomStream& stream, int64_t* table) {
  if (shuffle_)
    DrawByShuffle(stream, table);
  else
    DrawByColumns(stream, table);
}

// The N units carry their column as a label; an exchange shuffle puts the
// labels in random order, and row i takes the next r_i of them.  The index
// rule is that of the 1-based list: k = i + trunc(n u), n = N - i + 1.
void TableSampler::DrawByShuffle(RandomStream& stream, int64_t* table) {
  std::fill(table, table + rows_ * cols_, int64_t{0});
  int64_t* label = labels_.data() - 1;  // label[1..N]
  int64_t next = 1;
  for (int64_t j = 0; j < cols_; ++j)
    for (int64_t k = 0; k < col_totals_[j]; ++k) label[next++] = j;
  for (int64_t i = 1; i <= n_ - 1; ++i) {
    const int64_t n = n_ - i + 1;
    const double u = NextUniform(stream);
    int64_t k = i + static_cast<int64_t>(static_cast<double>(n) * u);
    // Cut to the list; a negative first seed can give u below 0.
    k = std::clamp<int64_t>(k, 1, n_);
    std::swap(label[i], label[k]);
  }
  next = 1;
  for (int64_t i = 0; i < rows_; ++i)
    for (int64_t k = 0; k < row_totals_[i]; ++k) ++table[i + label[next++] * rows_];
}

// Rows 1 .. r - 1 cell by cell, each cell drawn given the cells before it
// (its row's remainder out of the units still undealt, its column's
// remainder marked); the last row takes what the columns have left.
void TableSampler::DrawByColumns(RandomStream& stream, int64_t* table) {
  std::copy(col_totals_.begin(), col_totals_.end(), work_.begin());
  int64_t rest = n_;
  for (int64_t i = 0; i + 1 < rows_; ++i) {
    int64_t row = row_totals_[i];
    int64_t total = rest;
    rest -= row;
    for (int64_t j = 0; j < cols_; ++j) table[i + j * rows_] = 0;
    if (cols_ == 1) table[i] = row;  // one column: nothing to draw
    for (int64_t j = 0; j + 1 < cols_ && total > 0; ++j) {
      const int64_t col = work_[j];
      const int64_t x = DrawCell(stream, row, col, total);
      table[i + j * rows_] = x;
      row -= x;
      work_[j] -= x;
      total -= col;
      if (j + 2 == cols_) table[i + (cols_ - 1) * rows_] = row;
    }
  }
  const int64_t last = rows_ - 1;
  int64_t left = row_totals_[last];
  for (int64_t j = 0; j + 1 < cols_; ++j) {
    table[last + j * rows_] = work_[j];
    left -= work_[j];
  }
  table[last + (cols_ - 1) * rows_] = left;
}

// P(t) at the rounded mean t from log factorials, then cumulative
// probabilities outward, one step up and one down in turn, each side by
// the ratio of neighbouring terms, until the sum passes u.  Should both
// sides close first (only rounding can do that), u shrinks to sum x a new
// uniform and the search starts again at t.  Products of counts are
// formed in double: exact below 2^53, and no overflow for large totals.
int64_t TableSampler::DrawCell(RandomStream& stream, int64_t row, int64_t col,
                               int64_t total) const {
  return HypergeometricDraw(stream, row, col, total, lf_, FactorialRoute::kTableTo500Stirling);
}

int64_t HypergeometricDraw(RandomStream& stream, int64_t row, int64_t col, int64_t total,
                           const double* lf, FactorialRoute route) {
  double u = NextUniform(stream);
  const int64_t t = static_cast<int64_t>(
      static_cast<double>(row) * static_cast<double>(col) / static_cast<double>(total) + 0.5);
  const int64_t g = total - row - col;
  auto lfac = [&](int64_t n) { return LogFactorialBy(route, n, lf); };
  const double pt = std::exp(lfac(row) + lfac(total - row) + lfac(total - col) + lfac(col) -
                             lfac(total) - lfac(t) - lfac(col - t) - lfac(row - t) - lfac(g + t));
  for (;;) {
    if (pt >= u) return t;
    double sum = pt, p_up = pt, p_down = pt;
    int64_t up = t, down = t;
    bool up_closed = false, down_closed = false;
    while (!(up_closed && down_closed)) {
      if (!up_closed) {
        const double a = static_cast<double>(col - up) * static_cast<double>(row - up);
        if (a == 0.0) {
          up_closed = true;
        } else {
          p_up = p_up * a / (static_cast<double>(up + 1) * static_cast<double>(g + up + 1));
          ++up;
          sum += p_up;
          if (sum >= u) return up;
        }
      }
      if (!down_closed) {
        const double b = static_cast<double>(down) * static_cast<double>(g + down);
        if (b == 0.0) {
          down_closed = true;
        } else {
          p_down = p_down * b /
                   (static_cast<double>(col - down + 1) * static_cast<double>(row - down + 1));
          --down;
          sum += p_down;
          if (sum >= u) return down;
        }
      }
    }
    u = sum * NextUniform(stream);
  }
}

namespace detail {

McSetup ReadMcSetup() {
  McSetup s;
  s.stream.s1 = static_cast<int64_t>(Setting(setting::kMcSeed1));
  s.stream.s2 = static_cast<int64_t>(Setting(setting::kMcSeed2));
  s.stream.s3 = static_cast<int64_t>(Setting(setting::kMcSeed3));
  s.samples = static_cast<int64_t>(Setting(setting::kMcSamples));
  s.report_every = static_cast<int64_t>(Setting(setting::kMcReportEvery));
  s.z = NormalQuantile(Setting(setting::kMcQuantileLevel));
  s.confidence = Setting(setting::kMcConfidence);
  s.seed = Setting(setting::kMcSeed1);
  return s;
}

void McReport(int64_t hits, int64_t m, const McSetup& setup) {
  const double p = static_cast<double>(hits) / static_cast<double>(m);
  const double half = setup.z * std::sqrt((1.0 - p) * p / static_cast<double>(m));
  PollNow();
  SendMonteCarloLine(100.0 * setup.confidence, std::clamp(p - half, 0.0, 1.0),
                     std::clamp(p + half, 0.0, 1.0));
}

}  // namespace detail

void McEstimate(int64_t hits, int64_t samples, double z, double confidence, McResult& out) {
  const double M = static_cast<double>(samples);
  const double p = static_cast<double>(hits) / M;
  const double half = z * std::sqrt(p * (1.0 - p) / M);
  out.hits = hits;
  out.samples = samples;
  out.estimate = p;
  out.low = p - half;
  out.high = p + half;
  if (half == 0.0) {
    const double edge = std::pow(1.0 - confidence, 1.0 / M);
    if (p == 1.0) {
      out.low = edge;
      out.high = 1.0;
      out.estimate = 1.0;
    } else if (p == 0.0) {
      out.low = 0.0;
      out.high = 1.0 - edge;
      out.estimate = 0.0;
    }
  }
}

void PublishMonteCarlo(const McResult& r, double statistic) {
  Publish(slot::kStatistic, statistic);
  PublishClamped(slot::kMcTwoSided, r.estimate);
  PublishClamped(slot::kMcTwoSidedLow, r.low);
  PublishClamped(slot::kMcTwoSidedHigh, r.high);
  Publish(slot::kMcPercent, r.percent);
  Publish(slot::kMcCount, static_cast<double>(r.samples));
  Publish(slot::kMcSeed, r.seed);
  SetWord(word::kPublishedMethod, 2);
}

void PublishMonteCarloOneSided(const McResult& r) {
  PublishClamped(slot::kMcOneSided, r.estimate);
  PublishClamped(slot::kMcOneSidedLow, r.low);
  PublishClamped(slot::kMcOneSidedHigh, r.high);
}

double TablePearsonX2(const int64_t* table, int64_t rows, int64_t cols, const int64_t* row_totals,
                      const int64_t* col_totals, int64_t N) {
  const double n = static_cast<double>(N);
  double x2 = 0.0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const double e = static_cast<double>(row_totals[i]) * (static_cast<double>(col_totals[j]) / n);
      const double diff = static_cast<double>(table[i + j * rows]) - e;
      x2 += diff * diff / e;
    }
  return x2;
}

double FisherLineLogWeight(const int64_t* table, int64_t rows, int64_t cols,
                           const int64_t* row_totals, const int64_t* col_totals, const double* lf) {
  double sum = 0.0;
  if (rows > cols) {
    for (int64_t i = 0; i < rows; ++i) {
      double w = LogFactorial(row_totals[i], lf);
      for (int64_t j = 0; j < cols; ++j) w -= LogFactorial(table[i + j * rows], lf);
      sum += w;
    }
  } else {
    for (int64_t j = 0; j < cols; ++j) {
      double w = LogFactorial(col_totals[j], lf);
      for (int64_t i = 0; i < rows; ++i) w -= LogFactorial(table[i + j * rows], lf);
      sum += w;
    }
  }
  return sum;
}

}  // namespace anvl::net
