// The log factorial table, the two routes above it and log binomial
// coefficients.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "kernel/log_factorial.h"
#include "kernel_refs.h"

namespace anvl {
namespace {

constexpr double kEps = std::numeric_limits<double>::epsilon();

TEST(LogFactorial, TableIsTheRunningSumOfLogs) {
  LogFactorialTable table;
  BuildLogFactorials(table);
  EXPECT_EQ(table[0], 0.0);
  EXPECT_EQ(table[1], 0.0);
  double running = 0.0;
  long double exact = 0.0L;
  for (int k = 1; k <= 500; ++k) {
    running += std::log(static_cast<double>(k));
    exact += std::log(static_cast<long double>(k));
    // The order of summation is part of the contract: bit for bit.
    EXPECT_EQ(table[k], running) << "k = " << k;
    // 500 roundings of a growing sum: well inside 500 eps relative.
    EXPECT_NEAR(table[k], static_cast<double>(exact), 500 * kEps * static_cast<double>(exact)) << "k = " << k;
  }
  // Table's end against R: log 500! = lgamma(501).
  for (const auto& r : testing_refs::LoadRefs("lgamma"))
    if (r.a[0] == 501) { EXPECT_NEAR(table[500], r.value, 1e-13 * r.value) << "source: R lgamma(501)"; }
}

TEST(LogFactorial, ReadsTheTableUpTo500AndComputesAbove) {
  // A table of markers shows which index was read, and that it was read.
  double markers[kLogFactorialEntries];
  for (int k = 0; k < kLogFactorialEntries; ++k) markers[k] = -1000.0 - k;
  for (int64_t n : {0, 1, 2, 250, 499, 500}) {
    EXPECT_EQ(LogFactorial(n, markers), markers[n]) << n;
    EXPECT_EQ(LogFactorialS(n, markers), markers[n]) << n;
  }
  EXPECT_EQ(LogFactorialBy(FactorialRoute::kTableBelow500LogGamma, 499, markers), markers[499]);
  EXPECT_EQ(LogFactorialBy(FactorialRoute::kTableBelow500LogGamma, 500, markers), DNLGAM(501.0));
  EXPECT_EQ(LogFactorial(501, markers), DNLGAM(502.0));
  EXPECT_EQ(LogFactorialS(501, markers), LogFactorialStirling(501));
}

TEST(LogFactorial, BothRoutesContinueTheTable) {
  LogFactorialTable table;
  BuildLogFactorials(table);
  // The step from 500 to 501 is log 501, to the rounding of numbers near 2611.
  const double step_tol = 8 * kEps * table[500];
  EXPECT_NEAR(LogFactorial(501, table.data()) - table[500], std::log(501.0), step_tol);
  EXPECT_NEAR(LogFactorialS(501, table.data()) - table[500], std::log(501.0), step_tol);
  // Stirling's series against R's log gamma above the table.
  for (const auto& r : testing_refs::LoadRefs("lgamma")) {
    const double n = r.a[0] - 1;
    if (n <= 500 || n != std::floor(n)) continue;
    EXPECT_NEAR(LogFactorialStirling(static_cast<int64_t>(n)), r.value, 1e-14 * r.value)
        << "n = " << n << ", source: R lgamma(n + 1)";
  }
}

// log C(n, k) as a sum of log((n - k + i) / i) in long double.
double LogChoose(int64_t n, int64_t k) {
  long double s = 0;
  for (int64_t i = 1; i <= k; ++i) s += std::log(static_cast<long double>(n - k + i) / i);
  return static_cast<double>(s);
}

TEST(LogBinomial, EndsNeedNoTable) {
  for (int64_t n : {0, 1, 7, 500, 501, 100000}) {
    EXPECT_EQ(LogBinomial(n, 0, nullptr), 0.0) << n;
    EXPECT_EQ(LogBinomial(n, n, nullptr), 0.0) << n;
    EXPECT_EQ(LogBinomial(n, n, nullptr, FactorialRoute::kTableTo500Stirling), 0.0) << n;
  }
}

TEST(LogBinomial, AgreesWithProductsOnEveryRoute) {
  LogFactorialTable table;
  BuildLogFactorials(table);
  struct Case {
    int64_t n, k;
    const char* source;
  } cases[] = {{10, 3, "small"},      {500, 250, "n at the table's end"},  {501, 1, "just above"},
               {1200, 37, "far above"}, {1200, 600, "middle, far above"}, {800, 799, "k = n - 1"}};
  for (auto route : {FactorialRoute::kTableTo500LogGamma, FactorialRoute::kTableBelow500LogGamma,
                     FactorialRoute::kTableTo500Stirling}) {
    for (const auto& c : cases) {
      const double want = LogChoose(c.n, c.k);
      // Differences of log factorials of size up to ~7300 lose their ulps.
      const double tol = 16 * kEps * LogFactorial(c.n, table.data()) + 1e-14;
      EXPECT_NEAR(LogBinomial(c.n, c.k, table.data(), route), want, tol)
          << "C(" << c.n << ", " << c.k << ") route " << static_cast<int>(route) << " (" << c.source
          << ": long double products)";
    }
  }
}

}  // namespace
}  // namespace anvl
