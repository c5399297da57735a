#include "network/two_by_two.h"

#include <algorithm>
#include <cmath>

#include "frame/progress.h"
#include "frame/run_store.h"
#include "kernel/distributions.h"
#include "kernel/log_factorial.h"
#include "kernel/log_sum.h"

namespace anvl::net {
namespace {

// Start of every log-space accumulator: exp of it less any den is 0.
constexpr double kLogZero = -1e30;
// Relative tolerance of the comparisons with the observed value.
constexpr double kRelativeTolerance = 1e-7;
// The constant of the Freeman-Halton statistic: log sqrt(2 pi) in the
// digits this statistic is published with (the true value differs from the
// 11th digit on); changing it would change every published statistic.
constexpr double kLogRootTwoPi = 0.9189385332699592;
constexpr int64_t kPearsonCode = 7;
constexpr int64_t kFisherCode = 32;
constexpr int64_t kLikelihoodCode = 40;

// The margins of the table, the range of the first cell, the log factorials
// and the normalising log den = log C(N, c) of P(x) = exp(w(x) - den).
struct Walk {
  int64_t x11 = 0, a = 0, b = 0, c = 0, N = 0, lo = 0, hi = 0;
  double den = 0.0, mean = 0.0, sd = 0.0;
  LogFactorialTable lf;

  double Weight(int64_t x) const { return TableLogWeight(a, b, c, x, lf.data()); }
  double Probability(double log_sum) const { return std::exp(log_sum - den); }
};

// Margins and the checks shared by both runs: a negative cell, a row or
// column total below 1, or a total that overflows is -1.
int SetUp(const int64_t* t, Walk& w) {
  const int64_t x11 = t[0], x21 = t[1], x12 = t[2], x22 = t[3];
  if (x11 < 0 || x21 < 0 || x12 < 0 || x22 < 0) return -1;
  int64_t a, b, c, N;
  if (__builtin_add_overflow(x11, x12, &a) || __builtin_add_overflow(x21, x22, &b) ||
      __builtin_add_overflow(x11, x21, &c) || __builtin_add_overflow(a, b, &N))
    return -1;
  if (a < 1 || b < 1 || c < 1 || N < 1 || N - c < 1) return -1;
  w.x11 = x11;
  w.a = a;
  w.b = b;
  w.c = c;
  w.N = N;
  w.lo = std::max<int64_t>(0, c - b);
  w.hi = std::min(a, c);
  BuildLogFactorials(static_cast<int>(std::min(N, kLogFactorialTop)) + 1, w.lf.data());
  w.den = LogFactorial(N, w.lf.data()) - LogFactorial(c, w.lf.data()) -
          LogFactorial(N - c, w.lf.data());
  const double n = static_cast<double>(N);
  w.mean = static_cast<double>(a) * static_cast<double>(c) / n;
  w.sd = std::sqrt(static_cast<double>(N - c) * static_cast<double>(b) * (w.mean / n) / (n - 1.0));
  return 0;
}

// What both runs publish about the first cell: its value, range, moments,
// point probability and one-sided tail on the side of the observed value.
void PublishCell(const Walk& w, double own, double left, double right) {
  Publish(slot::kCellObserved, static_cast<double>(w.x11));
  Publish(slot::kCellMin, static_cast<double>(w.lo));
  Publish(slot::kCellMax, static_cast<double>(w.hi));
  Publish(slot::kCellMean, w.mean);
  Publish(slot::kCellSd, w.sd);
  const bool high = static_cast<double>(w.x11) > w.mean;
  PublishClamped(slot::kCellPoint, own);
  PublishClamped(slot::kCellOneSided, own + (high ? right : left));
  SetWord(word::kTailSide, high ? 2 : 1);
  SetWord(word::kRowsPublished, 2);
  SetWord(word::kColumnsPublished, 2);
  SetWord(word::kDegreesOfFreedom, 1);
  SetWord(word::kPublishedMethod, 1);
}

void RestartClocks() {
  ZeroElapsed();
  StartClock();
  StartTicks();
}

// The cell's own weight and the log-sums of the values below and above it.
void AddToCellTails(const Walk& w, int64_t x, double lw, double& left, double& own,
                    double& right) {
  if (x < w.x11)
    left = LogSum(left, lw);
  else if (x == w.x11)
    own = lw;
  else
    right = LogSum(right, lw);
}

}  // namespace

int TwoByTwoPearsonRun(const int64_t* table) {
  RestartClocks();
  Walk w;
  if (SetUp(table, w) != 0) return -1;
  const double n = static_cast<double>(w.N);
  const double e1 = static_cast<double>(w.c) * static_cast<double>(w.a) / n;
  const double e2 = static_cast<double>(w.a) - e1;
  const double e3 = static_cast<double>(w.c) - e1;
  const double e4 = static_cast<double>(w.b) - e3;
  const double expected[4] = {e1, e2, e3, e4};
  const double obs = TablePearson(w.a, w.b, w.c, w.x11, expected, nullptr);
  const double tol = std::fabs(kRelativeTolerance * obs);

  double two = kLogZero, point = kLogZero, left = kLogZero, right = kLogZero, own = kLogZero;
  for (int64_t x = w.lo; x <= w.hi; ++x) {
    const double chi = TablePearson(w.a, w.b, w.c, x, expected, nullptr);
    const double lw = w.Weight(x);
    if (chi >= obs - tol) two = LogSum(two, lw);
    if (std::fabs(chi - obs) <= tol) point = LogSum(point, lw);
    AddToCellTails(w, x, lw, left, own, right);
  }
  const double p = ChiSquareTail(obs, 1);
  UpdateElapsed();

  Publish(slot::kStatistic, obs);
  Publish(slot::kAsymOneSided, std::min(p / 2.0, 1.0));
  Publish(slot::kAsymTwoSided, std::min(p, 1.0));
  Publish(slot::kExactTwoSided, std::min(w.Probability(two), 1.0));
  Publish(slot::kPointProbability, std::min(w.Probability(point), 1.0));
  PublishCell(w, w.Probability(own), w.Probability(left), w.Probability(right));
  SetWord(word::kPublishedCode, kPearsonCode);
  return 0;
}

int TwoByTwoFisherRun(const int64_t* table) {
  RestartClocks();
  Walk w;
  if (SetUp(table, w) != 0) return -1;
  const double w0 = w.Weight(w.x11);
  const double tol = std::fabs(kRelativeTolerance * w0);

  // The p-value's tables fall in two tails of the probability order, below
  // and above the observed cell; both are summed separately.
  double two = kLogZero, two_upper = kLogZero, point = kLogZero, left = kLogZero,
         right = kLogZero, own = kLogZero;
  for (int64_t x = w.lo; x <= w.hi; ++x) {
    if (Tick()) SendProcessingLine();
    const double lw = w.Weight(x);
    if (lw <= w0 + tol) {
      if (x <= w.x11)
        two = LogSum(two, lw);
      else
        two_upper = LogSum(two_upper, lw);
    }
    if (std::fabs(lw - w0) <= tol) point = LogSum(point, lw);
    AddToCellTails(w, x, lw, left, own, right);
  }
  const double exact = w.Probability(two) + w.Probability(two_upper);

  const double n = static_cast<double>(w.N);
  const double fh =
      -2.0 * ((std::log(static_cast<double>(w.a)) + std::log(static_cast<double>(w.b)) +
               std::log(static_cast<double>(w.c)) + std::log(static_cast<double>(w.N - w.c))) /
                  2.0 +
              kLogRootTwoPi - 1.5 * std::log(n) + w0 - w.den);
  const double p = fh > 0.0 ? ChiSquareTail(fh, 1) : 1.0;
  UpdateElapsed();

  Publish(slot::kStatistic, fh);
  PublishClamped(slot::kAsymOneSided, p / 2.0);
  PublishClamped(slot::kAsymTwoSided, p);
  PublishClamped(slot::kExactTwoSided, exact);
  PublishClamped(slot::kPointProbability, w.Probability(point));
  PublishClamped(slot::kTableProbability, w.Probability(w0));
  PublishCell(w, w.Probability(own), w.Probability(left), w.Probability(right));
  SetWord(word::kPublishedCode, kFisherCode);
  return 0;
}

int TwoByTwoLikelihoodRun(const int64_t* table) {
  RestartClocks();
  Walk w;
  if (SetUp(table, w) != 0) return -1;
  const double obs = TableEntropy(w.a, w.b, w.c, w.x11);
  const double tol = std::fabs(kRelativeTolerance * obs);

  double two = kLogZero, point = kLogZero, left = kLogZero, right = kLogZero, own = kLogZero;
  const auto walk = [&](int64_t x) {
    const double h = TableEntropy(w.a, w.b, w.c, x);
    const double lw = w.Weight(x);
    if (h >= obs - tol) two = LogSum(two, lw);
    if (std::fabs(h - obs) <= tol) point = LogSum(point, lw);
    AddToCellTails(w, x, lw, left, own, right);
  };
  // Below the observed cell, the cell itself, then above it.
  for (int64_t x = w.lo; x < w.x11; ++x) walk(x);
  walk(w.x11);
  for (int64_t x = w.x11 + 1; x <= w.hi; ++x) walk(x);

  const auto xlogx = [](int64_t n) {
    return n > 0 ? static_cast<double>(n) * std::log(static_cast<double>(n)) : 0.0;
  };
  const double row_sum = xlogx(w.a) + xlogx(w.b), col_sum = xlogx(w.N - w.c) + xlogx(w.c);
  const double g2 = 2.0 * (obs - row_sum + xlogx(w.N) - col_sum);
  const double p = ChiSquareTail(g2, 1);  // 0 at G² = 0, as for every chi-square test
  UpdateElapsed();

  Publish(slot::kStatistic, g2);
  PublishClamped(slot::kAsymOneSided, p / 2.0);
  PublishClamped(slot::kAsymTwoSided, p);
  PublishClamped(slot::kExactTwoSided, w.Probability(two));
  PublishClamped(slot::kPointProbability, w.Probability(point));
  PublishCell(w, w.Probability(own), w.Probability(left), w.Probability(right));
  SetWord(word::kPublishedCode, kLikelihoodCode);
  return 0;
}

}  // namespace anvl::net
