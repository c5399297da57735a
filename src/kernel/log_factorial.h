// Log factorials and log binomial coefficients: a table of log k! for
// k = 0..500 built by a running sum of logs, and two routes above it.
#pragma once

#include <array>
#include <cstdint>

namespace anvl {

inline constexpr int kLogFactorialEntries = 501;
inline constexpr int64_t kLogFactorialTop = 500;
using LogFactorialTable = std::array<double, kLogFactorialEntries>;

// Entry 0 is 0.0; entry k is entry k - 1 plus log(k), summed in this order.
void BuildLogFactorials(int count, double* table);
inline void BuildLogFactorials(LogFactorialTable& t) { BuildLogFactorials(kLogFactorialEntries, t.data()); }

// Stirling's series for log n!, used above the table:
// 0.918938533204673 - x + (x - 0.5) log x + series(1/x^2) / x, x = n + 1.
double LogFactorialStirling(int64_t n);

// log n!: a table read up to 500, log Gamma(n + 1) above.
inline double LogFactorial(int64_t n, const double* table);
// log n!: a table read up to 500, Stirling's series above.
inline double LogFactorialS(int64_t n, const double* table);

// Which computation serves log n! at and above the table's end.  Callers
// differ only at n = 500 (table or log Gamma) and above (log Gamma or
// Stirling's series).
enum class FactorialRoute {
  kTableTo500LogGamma,     // table for n <= 500, DNLGAM(n + 1) above
  kTableBelow500LogGamma,  // table for n < 500, DNLGAM(n + 1) from 500 on
  kTableTo500Stirling,     // table for n <= 500, LogFactorialStirling above
};
inline double LogFactorialBy(FactorialRoute route, int64_t n, const double* table);

// log C(n, k) = log n! - log k! - log (n - k)!, 0 <= k <= n: 0.0 without
// a table read when n = 0, k = 0 or k = n.  The first form takes the
// route kTableTo500LogGamma.
double LogBinomial(int64_t n, int64_t k, const double* table);
double LogBinomial(int64_t n, int64_t k, const double* table, FactorialRoute route);

}  // namespace anvl

#include "kernel/host_library.h"

namespace anvl {
inline double LogFactorial(int64_t n, const double* table) {
  return n <= kLogFactorialTop ? table[n] : DNLGAM(static_cast<double>(n) + 1.0);
}
inline double LogFactorialS(int64_t n, const double* table) {
  return n <= kLogFactorialTop ? table[n] : LogFactorialStirling(n);
}
inline double LogFactorialBy(FactorialRoute route, int64_t n, const double* table) {
  switch (route) {
    case FactorialRoute::kTableBelow500LogGamma:
      return n < kLogFactorialTop ? table[n] : DNLGAM(static_cast<double>(n) + 1.0);
    case FactorialRoute::kTableTo500Stirling:
      return LogFactorialS(n, table);
    case FactorialRoute::kTableTo500LogGamma:
      break;
  }
  return LogFactorial(n, table);
}
}  // namespace anvl
