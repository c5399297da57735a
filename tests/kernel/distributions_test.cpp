// Normal quantiles, the upper normal deviate, the chi-square tail, log
// factorials and the 2 x 2 helpers, against R (kernel_refs.csv) and hand
// computations.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "kernel/distributions.h"
#include "kernel/log_factorial.h"
#include "support/ref_data.h"

namespace anvl {
namespace {

using support::LoadKernelRefs;

constexpr double kEps = std::numeric_limits<double>::epsilon();
// Published accuracy of the rational approximation AS 70 (Odeh and Evans
// 1974): the deviate is within 1.5e-8 for tails from 1e-20 to 0.5.
constexpr double kAs70Accuracy = 1.5e-8;

// What Newton's iteration can promise: it stops on a step below |z| 1e-10,
// after which the error is of the order of the step squared; what remains
// is the rounding of the distribution function F, a few units of 2^-53
// absolute in the body and above (F = 0.5 + ... or 1 - q), a few units
// relative below -2.8 (F = -q).  An error dF moves z by dF / phi(z).
double QuantileTolerance(double p, double z) {
  const double dF = 4 * kEps * (z <= -2.8 ? p : 1.0);
  return dF / (std::exp(-z * z / 2) / std::sqrt(2 * M_PI)) + 1e-14 * std::fabs(z);
}

// log C(n, k) as a sum of log((n - k + i) / i) in long double.
long double LogChoose(int64_t n, int64_t k) {
  long double s = 0;
  for (int64_t i = 1; i <= k; ++i) s += std::log(static_cast<long double>(n - k + i) / i);
  return s;
}

TEST(Distributions, AgreeWithRAndKeepTheirEdges) {
  for (const auto& r : LoadKernelRefs("qnorm"))
    EXPECT_NEAR(NormalQuantile(r.a[0]), r.value, QuantileTolerance(r.a[0], r.value))
        << "NormalQuantile(" << r.a[0] << "), source: R qnorm";
  EXPECT_EQ(NormalQuantile(0.5), 0.0);

  const auto upper = LoadKernelRefs("qnorm_upper");
  ASSERT_GE(upper.size(), 20u);
  for (const auto& r : upper)
    EXPECT_NEAR(UpperNormalDeviate(r.a[0]), r.value, kAs70Accuracy)
        << "UpperNormalDeviate(" << r.a[0] << "), source: R qnorm(p, lower.tail = FALSE)";
  EXPECT_EQ(UpperNormalDeviate(0.5), 0.0);
  EXPECT_EQ(UpperNormalDeviate(1e-30), -99999.0);
  EXPECT_EQ(UpperNormalDeviate(1.0), -99999.0);

  for (const auto& r : LoadKernelRefs("pchisq_upper")) {
    const double tol = r.value < 1e-6 ? 1e-10 : 1e-12;
    EXPECT_NEAR(ChiSquareTail(r.a[0], static_cast<int64_t>(r.a[1])), r.value, tol * r.value)
        << "ChiSquareTail(" << r.a[0] << ", " << r.a[1] << "), source: R pchisq(lower.tail = FALSE)";
  }
  EXPECT_EQ(ChiSquareTail(0.0, 3), 0.0);
  EXPECT_EQ(ChiSquareTail(-1.0, 3), 0.0);
  testing::internal::CaptureStderr();
  ChiSquareTail(2.0, 0);
  const std::string line = testing::internal::GetCapturedStderr();
  EXPECT_NE(line.find("CHISQR"), std::string::npos) << line;
  EXPECT_NE(line.find("IDF .GT. 0"), std::string::npos) << line;
  EXPECT_EQ(line.find('\n'), line.size() - 1) << "one line: " << line;
  testing::internal::CaptureStderr();
  ChiSquareTail(2.0, 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(LogFactorial, TableRoutesAndBinomials) {
  LogFactorialTable table;
  BuildLogFactorials(table);
  EXPECT_EQ(table[0], 0.0);
  double running = 0.0;
  long double exact = 0.0L;
  for (int k = 1; k <= 500; ++k) {
    running += std::log(static_cast<double>(k));
    exact += std::log(static_cast<long double>(k));
    // The order of summation is part of the contract: bit for bit.
    EXPECT_EQ(table[k], running) << "k = " << k;
    // 500 roundings of a growing sum: well inside 500 eps relative.
    EXPECT_NEAR(table[k], static_cast<double>(exact), 500 * kEps * static_cast<double>(exact)) << k;
  }
  for (const auto& r : LoadKernelRefs("lgamma")) {
    const double n = r.a[0] - 1;
    if (n == 500) {
      EXPECT_NEAR(table[500], r.value, 1e-13 * r.value) << "source: R lgamma(501)";
    }
    if (n <= 500 || n != std::floor(n)) continue;
    EXPECT_NEAR(LogFactorialStirling(static_cast<int64_t>(n)), r.value, 1e-14 * r.value)
        << "n = " << n << ", source: R lgamma(n + 1)";
  }

  // Which route serves which n: a table of markers shows the index read.
  double m[kLogFactorialEntries];
  for (int k = 0; k < kLogFactorialEntries; ++k) m[k] = -1000.0 - k;
  for (int64_t n : {0, 1, 2, 250, 499, 500}) {
    EXPECT_EQ(LogFactorial(n, m), m[n]) << n;
    EXPECT_EQ(LogFactorialS(n, m), m[n]) << n;
  }
  EXPECT_EQ(LogFactorialBy(FactorialRoute::kTableBelow500LogGamma, 499, m), m[499]);
  EXPECT_EQ(LogFactorialBy(FactorialRoute::kTableBelow500LogGamma, 500, m), DNLGAM(501.0));
  EXPECT_EQ(LogFactorial(501, m), DNLGAM(502.0));
  EXPECT_EQ(LogFactorialS(501, m), LogFactorialStirling(501));

  // The ends need no table.
  for (int64_t n : {0, 1, 7, 500, 501, 100000}) {
    EXPECT_EQ(LogBinomial(n, 0, nullptr), 0.0) << n;
    EXPECT_EQ(LogBinomial(n, n, nullptr), 0.0) << n;
    EXPECT_EQ(LogBinomial(n, n, nullptr, FactorialRoute::kTableTo500Stirling), 0.0) << n;
  }
  struct Case {
    int64_t n, k;
    const char* source;
  } cases[] = {{10, 3, "small"},       {500, 250, "n at the table's end"}, {501, 1, "just above"},
               {1200, 37, "far above"}, {1200, 600, "middle, far above"},  {800, 799, "k = n - 1"}};
  for (auto route : {FactorialRoute::kTableTo500LogGamma, FactorialRoute::kTableBelow500LogGamma,
                     FactorialRoute::kTableTo500Stirling}) {
    for (const auto& c : cases) {
      // Differences of log factorials of size up to ~7300 lose their ulps.
      const double tol = 16 * kEps * LogFactorial(c.n, table.data()) + 1e-14;
      EXPECT_NEAR(LogBinomial(c.n, c.k, table.data(), route), static_cast<double>(LogChoose(c.n, c.k)), tol)
          << "C(" << c.n << ", " << c.k << ") route " << static_cast<int>(route) << " (" << c.source
          << ": long double products)";
    }
  }
}

TEST(TwoByTwo, LogWeightPearsonAndEntropy) {
  LogFactorialTable table;
  BuildLogFactorials(table);
  struct Case {
    int64_t a, b, c, x;
    const char* source;
  } weights[] = {{10, 20, 12, 7, "small table"},
                 {600, 300, 450, 320, "rows above 500: log gamma route"},
                 {250, 260, 500, 245, "column total 500"},
                 {5, 5, 5, 5, "zero cells"}};
  for (const auto& c : weights) {
    const double want = static_cast<double>(LogChoose(c.a, c.x) + LogChoose(c.b, c.c - c.x));
    EXPECT_NEAR(TableLogWeight(c.a, c.b, c.c, c.x, table.data()), want, 1e-13 * std::fabs(want) + 1e-13)
        << c.a << " " << c.b << " " << c.c << " " << c.x << " (" << c.source << ": long double log products)";
  }

  // Rows 10, 20, columns 12, 18: cells 7, 3, 5, 15 against expected 4, 6,
  // 8, 12 give 9/4 + 9/6 + 9/8 + 9/12 = 5.625 (by hand).
  const double expected[4] = {4, 6, 8, 12};
  double cells[4] = {};
  EXPECT_DOUBLE_EQ(TablePearson(10, 20, 12, 7, expected, cells), 5.625);
  EXPECT_EQ(std::vector<double>(cells, cells + 4), (std::vector<double>{7, 3, 5, 15}));

  // Cells 5, 0, 0, 5: 2 * 5 log 5, the empty cells adding nothing (by hand).
  EXPECT_DOUBLE_EQ(TableEntropy(5, 5, 5, 5), 10 * std::log(5.0));
  EXPECT_DOUBLE_EQ(TableEntropy(10, 20, 12, 7),
                   7 * std::log(7.0) + 3 * std::log(3.0) + 5 * std::log(5.0) + 15 * std::log(15.0));
}

}  // namespace
}  // namespace anvl
