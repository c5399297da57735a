// Normal quantiles, the upper normal deviate, the chi-square tail and the
// 2 x 2 helpers, against R (kernel_refs.csv) and hand computations.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "kernel/distributions.h"
#include "kernel/log_factorial.h"
#include "kernel_refs.h"

namespace anvl {
namespace {

using testing_refs::LoadRefs;

constexpr double kEps = std::numeric_limits<double>::epsilon();
// Published accuracy of the rational approximation AS 70 (Odeh and Evans
// 1974): the deviate is within 1.5e-8 for tails from 1e-20 to 0.5.
constexpr double kAs70Accuracy = 1.5e-8;

double NormalDensity(double z) { return std::exp(-z * z / 2) / std::sqrt(2 * M_PI); }

// What Newton's iteration can promise: it stops on a step below |z| 1e-10,
// after which the error is of the order of the step squared; what remains
// is the rounding of the distribution function F, a few units of 2^-53
// absolute in the body and above (F = 0.5 + ... or 1 - q), a few units
// relative below -2.8 (F = -q).  An error dF moves z by dF / phi(z).
double QuantileTolerance(double p, double z) {
  const double dF = 4 * kEps * (z <= -2.8 ? p : 1.0);
  return dF / NormalDensity(z) + 1e-14 * std::fabs(z);
}

TEST(NormalQuantile, AgreesWithRQnorm) {
  const auto rows = LoadRefs("qnorm");
  ASSERT_GE(rows.size(), 8u);
  for (const auto& r : rows) {
    const double p = r.a[0];
    const double z = NormalQuantile(p);
    EXPECT_NEAR(z, r.value, QuantileTolerance(p, r.value)) << "NormalQuantile(" << p << "), source: R qnorm";
  }
}

TEST(NormalQuantile, FixedPoints) {
  EXPECT_EQ(NormalQuantile(0.5), 0.0);
  EXPECT_NEAR(NormalQuantile(0.975), 1.959963984540, 1e-12) << "source: R qnorm(0.975)";
}

TEST(UpperNormalDeviate, AgreesWithRToTheApproximationsAccuracy) {
  const auto rows = LoadRefs("qnorm_upper");
  ASSERT_GE(rows.size(), 20u);
  for (const auto& r : rows) {
    EXPECT_NEAR(UpperNormalDeviate(r.a[0]), r.value, kAs70Accuracy)
        << "UpperNormalDeviate(" << r.a[0] << "), source: R qnorm(p, lower.tail = FALSE)";
  }
  EXPECT_EQ(UpperNormalDeviate(0.5), 0.0);
  EXPECT_EQ(UpperNormalDeviate(1e-30), -99999.0);
  EXPECT_EQ(UpperNormalDeviate(1.0), -99999.0);
}

TEST(ChiSquareTail, AgreesWithRAndKeepsItsEdges) {
  const auto rows = LoadRefs("pchisq_upper");
  ASSERT_GE(rows.size(), 8u);
  for (const auto& r : rows) {
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
  testing::internal::CaptureStderr();
  ChiSquareTail(2.0, 1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// log C(n, k) as a sum of log((n - k + i) / i) in long double.
long double LogChoose(int64_t n, int64_t k) {
  long double s = 0;
  for (int64_t i = 1; i <= k; ++i) s += std::log(static_cast<long double>(n - k + i) / i);
  return s;
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
    const long double want = LogChoose(c.a, c.x) + LogChoose(c.b, c.c - c.x);
    EXPECT_NEAR(TableLogWeight(c.a, c.b, c.c, c.x, table.data()), static_cast<double>(want),
                1e-13 * std::fabs(static_cast<double>(want)) + 1e-13)
        << c.a << " " << c.b << " " << c.c << " " << c.x << " (" << c.source << ": long double log products)";
  }

  // Rows 10, 20, columns 12, 18: cells 7, 3, 5, 15 against expected 4, 6,
  // 8, 12 give 9/4 + 9/6 + 9/8 + 9/12 = 5.625 (by hand).
  const double expected[4] = {4, 6, 8, 12};
  double cells[4] = {};
  EXPECT_DOUBLE_EQ(TablePearson(10, 20, 12, 7, expected, cells), 5.625);
  EXPECT_EQ(cells[0], 7.0);
  EXPECT_EQ(cells[1], 3.0);
  EXPECT_EQ(cells[2], 5.0);
  EXPECT_EQ(cells[3], 15.0);

  // Cells 5, 0, 0, 5: 2 * 5 log 5, the empty cells adding nothing (by hand).
  EXPECT_DOUBLE_EQ(TableEntropy(5, 5, 5, 5), 10 * std::log(5.0));
  EXPECT_DOUBLE_EQ(TableEntropy(10, 20, 12, 7),
                   7 * std::log(7.0) + 3 * std::log(3.0) + 5 * std::log(5.0) + 15 * std::log(15.0));
}

}  // namespace
}  // namespace anvl
