// The binomial test from the host's side, against an independent exact
// computation of binomial tails in long double.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "anvlwtq.h"
#include "kernel/binomial.h"
#include "kernel/log_sum.h"
#include "support/host_call.h"

namespace {

using anvl::support::HostCall;

long double Pmf(int64_t n, int64_t k, long double p) {
  return std::exp(std::lgamma((long double)n + 1) - std::lgamma((long double)k + 1) -
                  std::lgamma((long double)(n - k) + 1) + k * std::log(p) + (n - k) * std::log1p(-p));
}
// P(lo <= X <= hi) by direct summation.
long double Sum(int64_t n, int64_t lo, int64_t hi, long double p) {
  long double s = 0;
  for (int64_t k = lo; k <= hi; ++k) s += Pmf(n, k, p);
  return s;
}

// The engine's rule: the symmetric case doubles the tail nearer to x;
// otherwise the lower tail when p0 >= x / n, else the upper, doubled for
// the two-sided value.
void ExpectAgreesWithDirectSums(int64_t x, int64_t n, double p0) {
  SCOPED_TRACE(testing::Message() << "x=" << x << " n=" << n << " p0=" << p0);
  HostCall c = HostCall::Binomial({1, 0}, {x, n - x}, p0);
  const double* f = c.RunCases();
  ASSERT_EQ(f[48], 0.0);
  EXPECT_EQ(f[0], static_cast<double>(x));
  EXPECT_EQ(f[47], static_cast<double>(n));
  EXPECT_DOUBLE_EQ(f[1], static_cast<double>(x) / n);
  const bool symmetric = std::fabs(p0 - 0.5) <= 1e-6;
  const bool lower = symmetric ? n >= 2 * x : p0 >= static_cast<double>(x) / n;
  const long double one = lower ? Sum(n, 0, x, p0) : Sum(n, x, n, p0), point = Pmf(n, x, p0);
  const long double two = std::min<long double>(1.0L, 2 * one);
  EXPECT_NEAR(f[15], (double)std::min<long double>(one, 1.0L), 1e-10 * (double)one);
  EXPECT_NEAR(f[16], (double)two, 1e-10 * (double)two);
  if (two == 1.0L) {
    EXPECT_EQ(f[16], 1.0) << "the doubled tail is clamped to 1";
  }
  EXPECT_NEAR(f[17], (double)point, 1e-10 * (double)point);
  EXPECT_EQ(f[12], symmetric || lower ? 1.0 : 2.0);
}

TEST(BinomialTest, AgreesWithDirectSumsOnManyCases) {
  struct Case { int64_t x, n; double p0; const char* what; };
  const Case cases[] = {
      {7, 12, 0.3, "upper tail"},          {2, 20, 0.4, "lower tail"},
      {10, 20, 0.5, "symmetric, x = n/2"}, {3, 20, 0.5, "symmetric, lower"},
      {17, 20, 0.5, "symmetric, upper"},   {5, 10, 0.5000005, "counts as symmetric"},
      {5, 10, 0.500002, "not symmetric"},  {6, 10, 0.500002, "not symmetric, upper"},
      {0, 15, 0.1, "no successes"},        {15, 15, 0.9, "all successes"},
      {3, 12, 0.25, "x / n = p0 exactly"}, {120, 400, 0.2, "large n"},
      {1, 1000, 0.01, "far tail"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ExpectAgreesWithDirectSums(c.x, c.n, c.p0);
  }
  std::mt19937_64 rng(20261123);
  for (int i = 0; i < 200; ++i) {
    const int64_t n = 1 + rng() % 300;
    const int64_t x = rng() % (n + 1);
    ExpectAgreesWithDirectSums(x, n, 0.01 + 0.98 * std::uniform_real_distribution<double>()(rng));
  }
}

// How case data become x of n, and the failures, whose record holds the
// filler everywhere but in the failure and time fields.
TEST(BinomialTest, CaseDataAndFailures) {
  struct Case {
    std::vector<double> v;
    std::vector<int64_t> w;
    double p0;
    int64_t rows;
    double field48, x, n;
    const char* source;
  };
  const Case cases[] = {
      {{1, 1, 0}, {3, 4, 5}, 0.5, 1, 0, 7, 12, "the larger value's weights are the successes"},
      {{0, 2, 0}, {3, 4, 5}, 0.5, 1, 0, 4, 12, "also when the first value is the smaller"},
      {{1, 0, 0}, {3, 4, 5}, 0.5, 1, -1035, 0, 0, "a second differing column"},
      {{1, 0, 2}, {3, 4, 5}, 0.5, 1, -1035, 0, 0, "a third value"},
      {{1, 0, 1, 0}, {3, 4, 5, 6}, 0.5, 2, -1043, 0, 0, "two case rows"},
      {{1, 0}, {7, 5}, 0.0, 1, -1308, 0, 0, "p0 at 0"},
      {{1, 0}, {7, 5}, 1.0, 1, -1308, 0, 0, "p0 at 1"},
      {{1, 0}, {0, 0}, 0.5, 1, -1309, 0, 0, "no trials"},
      {{1, 0}, {-7, 2}, 0.5, 1, -1001, 0, 0, "negative total"},
  };
  for (const Case& c : cases) {
    HostCall call = HostCall::Binomial(c.v, c.w, c.p0, c.rows);
    const double* f = call.RunCases();
    EXPECT_EQ(f[48], c.field48) << c.source;
    if (c.field48 != 0) {
      EXPECT_EQ(call.Published(), std::vector<int>{}) << c.source;
    } else {
      EXPECT_EQ(f[0], c.x) << c.source;
      EXPECT_EQ(f[47], c.n) << c.source;
    }
  }
}

TEST(BinomialTest, ClopperPearsonLimitsSolveTheirEquations) {
  for (auto [x, n] : {std::pair<int64_t, int64_t>{7, 12}, {0, 10}, {10, 10}, {1, 50}}) {
    const double low = x == 0 ? 0.0 : anvl::BinomialBisect(n, x - 1, 0.975);
    const double high = x == n ? 1.0 : anvl::BinomialBisect(n, x, 0.025);
    if (x > 0) {
      EXPECT_NEAR((double)Sum(n, 0, x - 1, low), 0.975, 1e-7) << x << " of " << n;
    }
    if (x < n) {
      EXPECT_NEAR((double)Sum(n, 0, x, high), 0.025, 1e-7) << x << " of " << n;
    }
    EXPECT_LT(low, high);
  }
  // LogSum, which the tails are summed with, adds in log space (by hand).
  EXPECT_NEAR(anvl::LogSum(1.5, 1.5), 1.5 + std::log(2.0), 1e-15);
  EXPECT_EQ(anvl::LogSum(0.0, -800.0), 0.0);
  EXPECT_NEAR(anvl::LogSum(std::log(0.25), std::log(0.5)), std::log(0.75), 1e-15);
}

}  // namespace
