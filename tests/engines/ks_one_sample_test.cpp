// The one-sample Kolmogorov-Smirnov test (procedure 6) from the host's
// side: continuous models against R's ks.test (tests/data/gen_ks1_refs.R),
// the Poisson against exact rational sums (tests/data/gen_ks1_poisson.py),
// the models and samples as a user gives them, empty and stopped runs
// (failures and Monte Carlo: failures_test.cpp, sampling_routes_test.cpp).
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "anvlwtq.h"
#include "engines/ks_exact.h"
#include "frame/run_store.h"
#include "support/host_call.h"
#include "support/ref_data.h"

namespace {

using anvl::support::HostCall;
constexpr double kMissing = anvl::support::kTestFiller;

double Rel(double a, double b) { return std::fabs(a - b) / std::max(std::fabs(b), 1e-300); }

// 1 - sqrt(2 pi) / z sum_{k >= 1} exp(-(2k - 1)^2 pi^2 / (8 z^2)): the
// limiting two-sided tail in the form that converges fast for small z.
double ThetaTail(double z) {
  long double s = 0.0L;
  for (int k = 1; k < 60; ++k) {
    const long double j = 2 * k - 1;
    s += std::exp(-j * j * static_cast<long double>(M_PI) * M_PI / (8.0L * z * z));
  }
  return static_cast<double>(1.0L - std::sqrt(2.0L * static_cast<long double>(M_PI)) / z * s);
}

// A call of procedure 6 with its model in the parameter blocks.
HostCall KsCall(int64_t model, double p1, double p2, std::vector<double> values,
                std::vector<int64_t> weights = {}, int64_t method = TQ_METHOD_EXACT) {
  HostCall c(TQ_PROC_KS_ONE_SAMPLE, method);
  c.ip[TQ_INT_MODEL] = model;
  if (model == 1) {
    c.rp[TQ_REAL_PARAM1] = p1;
    c.rp[TQ_REAL_PARAM2] = p2;
  } else {
    c.rp[TQ_REAL_PARAM3] = p1;
    c.rp[TQ_REAL_PARAM4] = p2;
  }
  c.values = std::move(values);
  c.weights = std::move(weights);
  return c;
}

TEST(KsOneSample, ContinuousModelsAgreeWithR) {
  const auto refs = anvl::support::LoadCsv("ks1_refs.csv");
  ASSERT_GE(refs.size(), 100u);
  for (const auto& r : refs) {
    SCOPED_TRACE(r.Text("id"));
    const int64_t model = r.Int("model");
    const double p1 = r.Real("param1"), p2 = r.Real("param2");
    const std::vector<double> x = r.Reals("values");
    ASSERT_EQ(x.size(), static_cast<size_t>(r.Int("n")));
    const double d = r.Real("d"), dplus = r.Real("d_plus"), dminus = r.Real("d_minus");

    HostCall exact = KsCall(model, p1, p2, x);
    const double* f = exact.RunCases();
    ASSERT_EQ(f[48], 0.0);
    EXPECT_LE(Rel(f[0], d), 1e-13);
    EXPECT_LE(Rel(f[6], std::sqrt(static_cast<double>(x.size())) * d), 1e-13);
    EXPECT_EQ(f[47], static_cast<double>(x.size()));
    EXPECT_LE(Rel(f[16], r.Real("exact_two")), 1e-9) << f[16] << " vs " << r.Text("exact_two");
    EXPECT_EQ(f[17], 0.0);
    EXPECT_LE(Rel(anvl::Slot(84).value, dplus), 1e-13);
    EXPECT_LE(Rel(anvl::Slot(91).value, dminus), 1e-13);
    EXPECT_LE(Rel(anvl::Slot(86).value, r.Real("exact_plus")), 1e-9) << "P(D+ >= d+)";
    EXPECT_LE(Rel(anvl::Slot(93).value, r.Real("exact_minus")), 1e-9) << "P(D- >= d-)";
    EXPECT_EQ(anvl::Word(anvl::word::kPublishedVariant), model == 1 ? 4 : (model == 4 ? 6 : 5));

    HostCall limit = KsCall(model, p1, p2, x, {}, TQ_METHOD_ASYMPTOTIC);
    f = limit.RunCases();
    ASSERT_EQ(f[48], 0.0);
    EXPECT_EQ(f[16], kMissing);
    // R sums the theta form of the limit with its first term only (below
    // z = 1), so it misses the second term; the limit itself must agree
    // with the full theta form, the same function by Jacobi's identity, to
    // within the first term left out of the series (at most 2e-12).
    const double z = std::sqrt(static_cast<double>(x.size())) * d;
    const double asym = anvl::Slot(anvl::slot::kAsymTwoSided).value;
    const double r_missed =
        z < 1.0 ? std::sqrt(2.0 * M_PI) / z * std::exp(-9.0 * M_PI * M_PI / (8.0 * z * z)) : 0.0;
    EXPECT_LE(std::fabs(asym - r.Real("asym_two")), 1.000001 * r_missed + 2e-12);
    EXPECT_LE(std::fabs(asym - ThetaTail(z)), 2e-12);
    EXPECT_LE(Rel(anvl::Slot(85).value, r.Real("asym_plus")), 1e-12);
    EXPECT_LE(Rel(anvl::Slot(92).value, r.Real("asym_minus")), 1e-12);
  }
}

TEST(KsOneSample, PoissonAgreesWithExactRationalSums) {
  const auto refs = anvl::support::LoadCsv("ks1_poisson_refs.csv");
  ASSERT_GE(refs.size(), 48u);
  for (const auto& r : refs) {
    SCOPED_TRACE(r.Text("id"));
    HostCall c = KsCall(3, r.Real("mean"), 0.0, r.Reals("values"), r.Ints("weights"));
    const double* f = c.RunCases();
    ASSERT_EQ(f[48], 0.0);
    EXPECT_EQ(f[47], r.Real("n"));
    EXPECT_LE(Rel(f[0], r.Real("d")), 1e-13);
    EXPECT_LE(Rel(f[16], r.Real("two_sided")), 1e-12) << f[16] << " vs " << r.Text("two_sided");
    const double point = r.Text("point") == "nan" ? NAN : r.Real("point");  // not formed for samples above 30
    if (!std::isnan(point)) {
      EXPECT_LE(std::fabs(f[17] - point), 1e-12 * point) << f[17] << " vs " << point;
    }
    EXPECT_EQ(anvl::Word(anvl::word::kPublishedVariant), 3);
    // The one-sided tails, also at d = 0 where Conover's sums leave out a term.
    EXPECT_LE(Rel(anvl::Slot(86).value, r.Real("p_plus")), 1e-12);
    EXPECT_LE(Rel(anvl::Slot(93).value, r.Real("p_minus")), 1e-12);
  }
}

TEST(KsOneSample, ModelsAndSamplesAsTheUserGivesThem) {
  // Weights count repeated values; values within 1e-5 of the kept one are it.
  HostCall spread = KsCall(4, 0.5, 2.0, {0.3, 0.3, -1.0, 2.0, 2.0, 2.0});
  const double d_spread = spread.RunCases()[0], p_spread = spread.f[16];
  HostCall weighted = KsCall(4, 0.5, 2.0, {2.0, 0.3, -1.0, 2.000001}, {2, 2, 1, 1});
  weighted.RunCases();
  EXPECT_EQ(weighted.f[48], 0.0);
  EXPECT_EQ(weighted.f[47], 6.0);
  EXPECT_EQ(weighted.f[0], d_spread);
  EXPECT_EQ(weighted.f[16], p_spread);

  // Parameters below 1e-5 take their defaults: uniform [0, 1], Poisson mean 1.
  HostCall defaults = KsCall(1, 0.0, 0.0, {0.1, 0.5, 0.9});
  HostCall explicit_ab = KsCall(1, 0.0, 1.0, {0.1, 0.5, 0.9});
  EXPECT_EQ(defaults.RunCases()[0], explicit_ab.RunCases()[0]);
  EXPECT_EQ(defaults.f[16], explicit_ab.f[16]);
  HostCall zeros = KsCall(3, 0.0, 0.0, {0.0}, {7});
  zeros.RunCases();
  EXPECT_EQ(zeros.f[48], 0.0);
  EXPECT_DOUBLE_EQ(anvl::Slot(84).value, 1.0 - std::exp(-1.0));  // D+ at s = 0
  EXPECT_EQ(anvl::Slot(91).value, 0.0);
  EXPECT_DOUBLE_EQ(anvl::Slot(86).value, std::pow(std::exp(-1.0), 7));  // all 7 at 0

  // Data at exactly a and b pass; D+ = 0 has the one-sided p-value 1.
  HostCall edges = KsCall(1, -1.0, 3.0, {-1.0, 3.0});
  edges.RunCases();
  EXPECT_EQ(edges.f[48], 0.0);
  HostCall low = KsCall(4, 0.0, 1.0, {9.0, 10.0, 11.0});
  low.RunCases();
  EXPECT_EQ(anvl::Slot(84).value, 0.0);
  EXPECT_EQ(anvl::Slot(86).value, 1.0);

  // A MethodCode outside 1..3 runs exact; a ModelSelector outside the four
  // tests against the uniform on [0, 1].
  HostCall other = KsCall(1, 0.0, 1.0, {0.1, 0.5, 0.9}, {}, 7);
  other.ip[TQ_INT_MODEL] = 5;
  other.RunCases();
  EXPECT_EQ(other.f[16], explicit_ab.f[16]);

  // The Poisson's two tails can add up past 1: the record shows the sum,
  // the clamped copy 1.
  HostCall past_one = KsCall(3, 0.7, 0.0, {0, 1, 2}, {3, 1, 1});
  past_one.RunCases();
  EXPECT_GT(past_one.f[16], 1.0);
  EXPECT_EQ(anvl::Slot(100).value, 1.0);
}

// Monte Carlo without samples and a host that stops a long run at once fail
// with nothing published; the large sample that the exact route refuses
// has its limiting answer.
TEST(KsOneSample, EmptyAndStoppedRunsAndTheLimit) {
  HostCall no_samples = KsCall(4, 0.0, 1.0, {0.1, 0.2});
  no_samples.MonteCarlo(0, 1, 0.99);
  HostCall stopped = KsCall(4, 0.0, 1.0, {0.1, -0.4, 1.3, 0.8, -2.0});
  stopped.MonteCarlo(100000000, 5, 0.99);
  stopped.poll = [](int64_t* flag) { *flag = 1; };
  for (auto [call, field48] : {std::pair{&no_samples, -1003.0}, std::pair{&stopped, -1006.0}}) {
    EXPECT_EQ(call->RunCases()[48], field48);
    EXPECT_TRUE(call->Published().empty());
  }
  HostCall limit = KsCall(1, 0.0, 1.0, {0.5}, {50000}, TQ_METHOD_ASYMPTOTIC);
  limit.RunCases();
  EXPECT_EQ(limit.f[48], 0.0);
  EXPECT_EQ(limit.f[0], 0.5);
}

}  // namespace
