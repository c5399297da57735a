#include "kernel/distributions.h"

#include <cmath>

#include "kernel/host_library.h"
#include "kernel/log_factorial.h"

namespace anvl {
namespace {

constexpr double kSqrtTwoPi = 2.5066282746310007;
// Below this |z| the series of the normal distribution function is used,
// above it the continued fraction; each is accurate to rounding on its side.
constexpr double kSeriesLimit = 2.8;
// Terms of the series and depth of the continued fraction.
constexpr int kSeriesTerms = 25;
constexpr int kFractionDepth = 25;
// Newton stops when a step is no more than this fraction of |z|.
constexpr double kNewtonRelativeStep = 1e-10;

// Tails below this are beyond the rational approximation: the deviate
// is the mark -99999.0.
constexpr double kDeviateSmallestTail = 1e-20;
constexpr double kDeviateOutOfRange = -99999.0;
// A tail within this of 0.5 gives the deviate 0.0 exactly.
constexpr double kDeviateHalfTolerance = 1e-20;

// Phi(z) by the series z phi(z) sum z^2k / (1 3 5 ... (2k+1)) + 1/2 for
// small |z|, and by the continued fraction of Mills' ratio beyond.
double NormalDistribution(double z) {
  if (std::fabs(z) < kSeriesLimit) {
    double t = 1.0, f = 1.0;
    for (int k = 1; k <= kSeriesTerms; ++k) {
      t = t * z * z / (1 + 2 * k);
      f = f + t;
    }
    return f * z * std::exp(-z * z / 2.0) / kSqrtTwoPi + 0.5;
  }
  double c = 0.0;
  for (int k = kFractionDepth; k >= 1; --k) c = k / (c + z);
  c = c + z;
  const double q = std::exp(-z * z / 2.0) / c / kSqrtTwoPi;
  return z > 0.0 ? 1.0 - q : -q;
}

// log k! from the table up to 500 and log Gamma(k + 1) above.
double LogFact(int64_t k, const double* table) { return LogFactorial(k, table); }

// n log n, 0 for n = 0.
double NLogN(double n) { return n == 0.0 ? 0.0 : n * std::log(n); }

}  // namespace

double NormalQuantile(double p) {
  double z = 0.0;
  for (;;) {
    const double f = NormalDistribution(z);
    const double next = z - (f - p) / (std::exp(-z * z / 2.0) / kSqrtTwoPi);
    // A step that isn't a number fails the comparison and ends the loop.
    if (!(std::fabs(z - next) > std::fabs(z) * kNewtonRelativeStep)) return next;
    z = next;
  }
}

double UpperNormalDeviate(double p) {
  const double x = p > 0.5 ? 1.0 - p : p;
  if (x < kDeviateSmallestTail) return kDeviateOutOfRange;
  if (std::fabs(x - 0.5) <= kDeviateHalfTolerance) return 0.0;
  const double y = std::sqrt(-2.0 * std::log(x));
  const double d =
      y + ((((-4.53642210148e-5 * y - 0.0204231210245) * y - 0.342242088547) * y - 1.0) * y - 0.322232431088) /
              ((((0.0038560700634 * y + 0.10353775285) * y + 0.531103462366) * y + 0.588581570495) * y +
               0.099348462606);
  return p > 0.5 ? -d : d;
}

double ChiSquareTail(double x, int64_t df) {
  if (df < 1) ASSERT("CHISQR", "IDF .GT. 0");
  if (x <= 0.0) return 0.0;
  int64_t status = 0;
  return GAMMAD(x / 2.0, static_cast<double>(df) / 2.0, true, &status);
}

double TableLogWeight(int64_t a, int64_t b, int64_t c, int64_t x, const double* table) {
  return LogFact(a, table) - LogFact(x, table) - LogFact(a - x, table) + LogFact(b, table) -
         LogFact(c - x, table) - LogFact(b - (c - x), table);
}

double TablePearson(int64_t a, int64_t b, int64_t c, int64_t x, const double expected[4], double cells[4]) {
  const double cell[4] = {static_cast<double>(x), static_cast<double>(a - x), static_cast<double>(c - x),
                          static_cast<double>(b - (c - x))};
  double sum = 0.0;
  for (int i = 0; i < 4; ++i) {
    const double d = cell[i] - expected[i];
    sum += d * d / expected[i];
    if (cells) cells[i] = cell[i];
  }
  return sum;
}

double TableEntropy(int64_t a, int64_t b, int64_t c, int64_t x) {
  return NLogN(static_cast<double>(x)) + NLogN(static_cast<double>(a - x)) + NLogN(static_cast<double>(c - x)) +
         NLogN(static_cast<double>(b - (c - x)));
}

}  // namespace anvl
