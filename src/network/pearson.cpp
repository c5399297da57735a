#include "network/pearson.h"

#include <algorithm>
#include <cmath>

#include "frame/failure_codes.h"
#include "frame/run_store.h"
#include "kernel/distributions.h"
#include "kernel/log_factorial.h"

namespace anvl::net {
namespace {

constexpr int64_t kPublishedCodes[] = {0, 7, 31, 42};

// The collapse of the median test: row i keeps the count above the cut
// (strictly) and the count at or below it.
int CollapseAtCut(std::vector<int64_t>& table, int64_t rows, int64_t& cols, const double* scores,
                  AsymptoticResult& out) {
  const double cut = ModelOption(13);
  out.cut = cut;
  std::vector<int64_t> collapsed(static_cast<size_t>(rows * 2), 0);
  int64_t above_total = 0;
  for (int64_t i = 0; i < rows; ++i) {
    int64_t above = 0;
    for (int64_t j = 0; j < cols; ++j) {
      const double score = scores ? scores[j] : static_cast<double>(j + 1);
      if (score > cut) above += table[i + j * rows];
    }
    collapsed[i] = above;
    collapsed[i + rows] = out.row_totals[i] - above;
    above_total += above;
  }
  table.swap(collapsed);
  cols = 2;
  out.col_totals = {above_total, out.N - above_total};
  if (above_total == 0 || out.N - above_total == 0) return static_cast<int>(fail::kMedianCutEmpty);
  return 0;
}

// Large-sample variance of phi^2 by the delta method.
double VarPhi2(const std::vector<int64_t>& x, int64_t rows, int64_t cols,
               const AsymptoticResult& t) {
  const double n = static_cast<double>(t.N);
  std::vector<double> U(rows, 0.0), W(cols, 0.0), a(rows), b(cols);
  for (int64_t i = 0; i < rows; ++i) a[i] = static_cast<double>(t.row_totals[i]) / n;
  for (int64_t j = 0; j < cols; ++j) b[j] = static_cast<double>(t.col_totals[j]) / n;
  double A = 0.0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const double p = static_cast<double>(x[i + j * rows]) / n;
      const double q = p * p / (a[i] * b[j]);
      U[i] += q;
      W[j] += q;
      A += p * p * p / (a[i] * a[i] * b[j] * b[j]);
    }
  double C = 0.0, S1 = 0.0, S2 = 0.0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const double p = static_cast<double>(x[i + j * rows]) / n;
      C += p * U[i] * W[j] / (a[i] * b[j]);
    }
  for (int64_t i = 0; i < rows; ++i) S1 += U[i] * U[i] / a[i];
  for (int64_t j = 0; j < cols; ++j) S2 += W[j] * W[j] / b[j];
  return (4.0 * A - 3.0 * S1 - 3.0 * S2 + 2.0 * C) / n;
}

double Root(double x) { return std::sqrt(std::max(0.0, x)); }

// The five measures of procedure 42 with their standard errors and
// asymptotic intervals.
void PublishMeasures(const AsymptoticResult& a) {
  const RunStore& st = Store();
  const double phi2 = a.x2 / static_cast<double>(a.N);
  const double k = static_cast<double>(std::min(st.row_count, st.column_count));
  const double m = static_cast<double>((st.row_count - 1) * (st.column_count - 1));
  const double v2 = std::fabs(a.var_phi2);
  const double one = 1.0 + phi2;
  const bool zero = phi2 == 0.0;
  struct Measure {
    int value_slot;
    double value, se;
  };
  const Measure measures[] = {
      {slot::kPhi, Root(phi2), Root(v2)},
      {slot::kContingencyCoefficient, Root(phi2 / one),
       zero ? 0.0 : Root(v2 / (4.0 * phi2 * one * one * one))},
      {slot::kAdjustedContingency, Root(k * phi2 / ((k - 1.0) * one)),
       zero ? 0.0 : Root(k * v2 / (4.0 * (k - 1.0) * phi2 * one * one * one))},
      {slot::kTschuprowT, Root(phi2 / std::sqrt(m)),
       zero ? 0.0 : Root(v2 / (4.0 * (phi2 / std::sqrt(m)) * m * m))},
      {slot::kCramersV, Root(phi2 / (k - 1.0)),
       zero ? 0.0 : Root(v2 / (4.0 * (phi2 / (k - 1.0)) * (k - 1.0)))},
  };
  const double c = Setting(setting::kIntervalConfidence);
  const double z = NormalQuantile((1.0 - c) / 2.0 + c);
  Publish(slot::kIntervalPercent, 100.0 * c);
  const bool phi_zero = measures[0].value == 0.0;
  for (int i = 0; i < 5; ++i) {
    const Measure& me = measures[i];
    int64_t status = me.se != 0.0 ? kStatusPublished : kStatusNoInterval;
    if (i > 0 && phi_zero) status = kStatusZeroStatistic;
    const double half = z * me.se;
    Publish(me.value_slot, me.value);
    Publish(me.value_slot + 1, me.se, status);
    Publish(slot::kIntervalLow + 2 * i, std::clamp(me.value - half, -1.0, 1.0), status);
    Publish(slot::kIntervalHigh + 2 * i, std::clamp(me.value + half, -1.0, 1.0), status);
  }
}

}  // namespace

int TableTotals(const std::vector<int64_t>& table, int64_t rows, int64_t cols,
                std::vector<int64_t>& row_totals, std::vector<int64_t>& col_totals, int64_t& N) {
  row_totals.assign(rows, 0);
  col_totals.assign(cols, 0);
  int64_t total = 0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const int64_t x = table[i + j * rows];
      if (x < 0) return -1;  // a count below 0 has no probability
      // Row and column totals never pass the grand total, checked first.
      if (__builtin_add_overflow(total, x, &total)) return -1;
      row_totals[i] += x;
      col_totals[j] += x;
    }
  for (int64_t r : row_totals)
    if (r < 1) return -1;
  for (int64_t c : col_totals)
    if (c < 1) return -1;
  N = total;
  return N < 1 ? -1 : 0;
}

int AsymptoticRoute(std::vector<int64_t>& table, int64_t rows, int64_t& cols, int selector,
                    const double* scores, const double* lf, AsymptoticResult& out) {
  if (TableTotals(table, rows, cols, out.row_totals, out.col_totals, out.N) != 0) return -1;
  if (selector == kMedianTest) {
    const int code = CollapseAtCut(table, rows, cols, scores, out);
    if (code != 0) return code;
  }
  const double n = static_cast<double>(out.N);
  double x2 = 0.0;
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) {
      const double e = static_cast<double>(out.row_totals[i]) *
                       (static_cast<double>(out.col_totals[j]) / n);
      const double diff = static_cast<double>(table[i + j * rows]) - e;
      x2 += diff * diff / e;
    }
  out.x2 = x2;
  out.df = (rows - 1) * (cols - 1);
  out.p = ChiSquareTail(x2, out.df);
  double lp = 0.0;
  for (int64_t r : out.row_totals) lp += LogFactorial(r, lf);
  for (int64_t c : out.col_totals) lp += LogFactorial(c, lf);
  lp -= LogFactorial(out.N, lf);
  for (int64_t j = 0; j < cols; ++j)
    for (int64_t i = 0; i < rows; ++i) lp -= LogFactorial(table[i + j * rows], lf);
  out.table_probability = std::exp(lp);
  out.var_phi2 = VarPhi2(table, rows, cols, out);
  return 0;
}

void PublishAsymptotic(const AsymptoticResult& a, int selector) {
  SetWord(word::kPublishedCode, kPublishedCodes[selector]);
  if (selector == kMedianTest) Publish(slot::kMedianCut, a.cut);
  if (selector == kNominalMeasures) PublishMeasures(a);
  Publish(slot::kStatistic, a.x2);
  SetWord(word::kDegreesOfFreedom, a.df);
  PublishClamped(slot::kAsymTwoSided, a.p);
  SetWord(word::kPublishedMethod, 3);
}

void PublishExact(const AsymptoticResult& a, int selector, double tail_high, double point) {
  PublishAsymptotic(a, selector);
  PublishClamped(slot::kExactTwoSided, tail_high + point);
  PublishClamped(slot::kPointProbability, point);
  SetWord(word::kPublishedMethod, 1);
}

std::vector<double> ExpectedTable(const std::vector<int64_t>& A, const std::vector<int64_t>& B,
                                  int64_t N) {
  const size_t K = A.size();
  std::vector<double> e(K * B.size());
  for (size_t s = 0; s < B.size(); ++s)
    for (size_t j = 0; j < K; ++j)
      e[s * K + j] = (static_cast<double>(A[j]) / static_cast<double>(N)) *
                     static_cast<double>(B[s]);
  return e;
}

}  // namespace anvl::net
