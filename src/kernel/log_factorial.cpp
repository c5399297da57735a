#include "kernel/log_factorial.h"

#include <cmath>

namespace anvl {

void BuildLogFactorials(int count, double* table) {
  if (count <= 0) return;
  table[0] = 0.0;
  for (int k = 1; k < count; ++k) table[k] = table[k - 1] + std::log(static_cast<double>(k));
}

// Stirling's series for log Gamma(x), x = n + 1, to the term in x^-7:
// log sqrt(2 pi) - x + (x - 1/2) log x + (1/12 - v/360 + v^2/1260 - v^3/1680) / x,
// v = 1 / x^2, with the coefficients rounded to 15 decimals.  Above n = 500
// series and coefficient errors stay below 1e-17, under the rounding of the
// result itself.
double LogFactorialStirling(int64_t n) {
  const double x = static_cast<double>(n) + 1.0;
  const double v = 1.0 / x / x;
  return 0.918938533204673 - x + (x - 0.5) * std::log(x) +
         (((-0.000595238095238 * v + 0.000793650793651) * v - 0.002777777777778) * v + 0.083333333333333) / x;
}

double LogBinomial(int64_t n, int64_t k, const double* table) {
  return LogBinomial(n, k, table, FactorialRoute::kTableTo500LogGamma);
}

double LogBinomial(int64_t n, int64_t k, const double* table, FactorialRoute route) {
  if (n == 0 || k == 0 || k == n) return 0.0;
  return LogFactorialBy(route, n, table) - LogFactorialBy(route, k, table) - LogFactorialBy(route, n - k, table);
}

}  // namespace anvl
