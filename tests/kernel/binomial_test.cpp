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

constexpr double kMissing = anvl::support::kTestFiller;

long double Pmf(int64_t n, int64_t k, long double p) {
  return std::exp(std::lgamma((long double)n + 1) - std::lgamma((long double)k + 1) -
                  std::lgamma((long double)(n - k) + 1) + k * std::log(p) +
                  (n - k) * std::log1p(-p));
}
long double Lower(int64_t n, int64_t x, long double p) {
  long double s = 0;
  for (int64_t k = 0; k <= x; ++k) s += Pmf(n, k, p);
  return s;
}
long double Upper(int64_t n, int64_t x, long double p) {
  long double s = 0;
  for (int64_t k = x; k <= n; ++k) s += Pmf(n, k, p);
  return s;
}

struct Record {
  double f[TQ_RECORD_LENGTH];
};

Record RunBinomial(std::vector<double> values, std::vector<int64_t> weights, double p0,
                   int64_t case_rows = 1) {
  anvl::support::HostCall call(TQ_PROC_BINOMIAL, TQ_METHOD_EXACT);
  call.values = std::move(values);
  call.weights = std::move(weights);
  call.case_rows = case_rows;
  call.rp[TQ_REAL_P0] = p0;
  call.RunCases();
  Record r;
  std::copy(call.f, call.f + TQ_RECORD_LENGTH, r.f);
  return r;
}

// The engine's rule: the symmetric case doubles the tail nearer to x;
// otherwise the lower tail when p0 >= x / n, else the upper, doubled for
// the two-sided value.
void ExpectAgreesWithDirectSums(int64_t x, int64_t n, double p0) {
  SCOPED_TRACE(testing::Message() << "x=" << x << " n=" << n << " p0=" << p0);
  const Record r = RunBinomial({1, 0}, {x, n - x}, p0);
  ASSERT_EQ(r.f[48], 0.0);
  EXPECT_EQ(r.f[0], static_cast<double>(x));
  EXPECT_EQ(r.f[47], static_cast<double>(n));
  EXPECT_DOUBLE_EQ(r.f[1], static_cast<double>(x) / n);
  long double one, point = Pmf(n, x, p0);
  double side;
  const bool symmetric = std::fabs(p0 - 0.5) <= 1e-6;
  if (symmetric) {
    one = (n >= 2 * x) ? Lower(n, x, p0) : Upper(n, x, p0);
    side = 1.0;
  } else if (p0 >= static_cast<double>(x) / n) {
    one = Lower(n, x, p0);
    side = 1.0;
  } else {
    one = Upper(n, x, p0);
    side = 2.0;
  }
  const long double two = std::min<long double>(1.0L, 2 * one);
  EXPECT_NEAR(r.f[15], (double)std::min<long double>(one, 1.0L), 1e-10 * (double)one);
  EXPECT_NEAR(r.f[16], (double)two, 1e-10 * (double)two);
  EXPECT_NEAR(r.f[17], (double)point, 1e-10 * (double)point);
  EXPECT_EQ(r.f[12], side);
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
    const double p0 = 0.01 + 0.98 * std::uniform_real_distribution<double>()(rng);
    ExpectAgreesWithDirectSums(x, n, p0);
  }
}

TEST(BinomialTest, SymmetricHalfIsClampedToOne) {
  const Record r = RunBinomial({1, 0}, {10, 10}, 0.5);
  EXPECT_EQ(r.f[16], 1.0);  // the doubled lower tail passes 1
  EXPECT_EQ(r.f[12], 1.0);
}

TEST(BinomialTest, SplitsWeightsByTheLargerValue) {
  Record r = RunBinomial({1, 1, 0}, {3, 4, 5}, 0.5);
  EXPECT_EQ(r.f[48], 0.0);
  EXPECT_EQ(r.f[0], 7.0);
  EXPECT_EQ(r.f[47], 12.0);
  r = RunBinomial({0, 2, 0}, {3, 4, 5}, 0.5);  // first value is the smaller one
  EXPECT_EQ(r.f[0], 4.0);
  EXPECT_EQ(r.f[47], 12.0);
}

TEST(BinomialTest, FailuresReachTheRecordWithTheFiller) {
  struct Case { std::vector<double> v; std::vector<int64_t> w; double p0; int64_t rows; double field48; };
  const Case cases[] = {
      {{1, 0, 0}, {3, 4, 5}, 0.5, 1, -1035.0},           // second differing column
      {{1, 0, 2}, {3, 4, 5}, 0.5, 1, -1035.0},           // a third value
      {{1, 0, 1, 0}, {3, 4, 5, 6}, 0.5, 2, -1043.0},     // two case rows
      {{1, 0}, {7, 5}, 0.0, 1, -1308.0},                 // p0 at 0
      {{1, 0}, {7, 5}, 1.0, 1, -1308.0},                 // p0 at 1
      {{1, 0}, {0, 0}, 0.5, 1, -1309.0},                 // no trials
      {{1, 0}, {-7, 2}, 0.5, 1, -1001.0},                // negative total
  };
  for (const Case& c : cases) {
    const Record r = RunBinomial(c.v, c.w, c.p0, c.rows);
    EXPECT_EQ(r.f[48], c.field48);
    for (int f = 0; f <= 41; ++f) EXPECT_EQ(r.f[f], kMissing) << "field " << f;
    for (int f = 45; f <= 47; ++f) EXPECT_EQ(r.f[f], kMissing) << "field " << f;
  }
}

TEST(BinomialTest, ClopperPearsonLimitsSolveTheirEquations) {
  for (auto [x, n] : {std::pair<int64_t, int64_t>{7, 12}, {0, 10}, {10, 10}, {1, 50}}) {
    const double low = x == 0 ? 0.0 : anvl::BinomialBisect(n, x - 1, 0.975);
    const double high = x == n ? 1.0 : anvl::BinomialBisect(n, x, 0.025);
    if (x > 0) {
      EXPECT_NEAR((double)Lower(n, x - 1, low), 0.975, 1e-7);
    }
    if (x < n) {
      EXPECT_NEAR((double)Lower(n, x, high), 0.025, 1e-7);
    }
    EXPECT_LT(low, high);
  }
}

TEST(LogSum, AddsInLogSpace) {
  EXPECT_NEAR(anvl::LogSum(1.5, 1.5), 1.5 + std::log(2.0), 1e-15);
  EXPECT_EQ(anvl::LogSum(0.0, -800.0), 0.0);
  EXPECT_NEAR(anvl::LogSum(std::log(0.25), std::log(0.5)), std::log(0.75), 1e-15);
}

}  // namespace
