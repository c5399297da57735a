// The one-sample Kolmogorov-Smirnov test (procedure 6) from the host's
// side: continuous models against R's ks.test (tests/data/gen_ks1_refs.R),
// the Poisson against exact rational sums (tests/data/gen_ks1_poisson.py),
// the Monte Carlo route against the exact values, and the failure codes.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
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

std::vector<std::string> Split(const std::string& s, char sep) {
  std::vector<std::string> out;
  std::stringstream in(s);
  std::string item;
  while (std::getline(in, item, sep)) out.push_back(item);
  return out;
}

std::vector<double> Reals(const std::string& s) {
  std::vector<double> out;
  for (const std::string& x : Split(s, ' '))
    if (!x.empty()) out.push_back(std::stod(x));
  return out;
}

// Lines of a committed reference file, split at commas, header dropped.
std::vector<std::vector<std::string>> ReadRefs(const std::string& name) {
  std::ifstream in(anvl::support::TestDataDir() + "/" + name);
  EXPECT_TRUE(in.good()) << name;
  std::vector<std::vector<std::string>> rows;
  std::string line;
  std::getline(in, line);
  while (std::getline(in, line))
    if (!line.empty()) rows.push_back(Split(line, ','));
  return rows;
}

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
  const auto refs = ReadRefs("ks1_refs.csv");
  ASSERT_GE(refs.size(), 100u);
  for (const auto& r : refs) {
    SCOPED_TRACE(r[0]);
    const int64_t model = std::stoll(r[1]);
    const double p1 = std::stod(r[2]), p2 = std::stod(r[3]);
    const std::vector<double> x = Reals(r[5]);
    ASSERT_EQ(x.size(), std::stoul(r[4]));
    const double d = std::stod(r[6]), dplus = std::stod(r[7]), dminus = std::stod(r[8]);

    HostCall exact = KsCall(model, p1, p2, x);
    const double* f = exact.RunCases();
    ASSERT_EQ(f[48], 0.0);
    EXPECT_LE(Rel(f[0], d), 1e-13);
    EXPECT_LE(Rel(f[6], std::sqrt(static_cast<double>(x.size())) * d), 1e-13);
    EXPECT_EQ(f[47], static_cast<double>(x.size()));
    EXPECT_LE(Rel(f[16], std::stod(r[9])), 1e-9) << f[16] << " vs " << r[9];
    EXPECT_EQ(f[17], 0.0);
    EXPECT_LE(Rel(anvl::Slot(84).value, dplus), 1e-13);
    EXPECT_LE(Rel(anvl::Slot(91).value, dminus), 1e-13);
    EXPECT_LE(Rel(anvl::Slot(86).value, std::stod(r[10])), 1e-9) << "P(D+ >= d+)";
    EXPECT_LE(Rel(anvl::Slot(93).value, std::stod(r[11])), 1e-9) << "P(D- >= d-)";
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
    EXPECT_LE(std::fabs(asym - std::stod(r[12])), 1.000001 * r_missed + 2e-12);
    EXPECT_LE(std::fabs(asym - ThetaTail(z)), 2e-12);
    EXPECT_LE(Rel(anvl::Slot(85).value, std::stod(r[13])), 1e-12);
    EXPECT_LE(Rel(anvl::Slot(92).value, std::stod(r[14])), 1e-12);
  }
}

std::vector<int64_t> Counts(const std::string& s) {
  std::vector<int64_t> out;
  for (double x : Reals(s)) out.push_back(static_cast<int64_t>(x));
  return out;
}

TEST(KsOneSample, PoissonAgreesWithExactRationalSums) {
  const auto refs = ReadRefs("ks1_poisson_refs.csv");
  ASSERT_GE(refs.size(), 40u);
  for (const auto& r : refs) {
    SCOPED_TRACE(r[0]);
    HostCall c = KsCall(3, std::stod(r[1]), 0.0, Reals(r[3]), Counts(r[4]));
    const double* f = c.RunCases();
    ASSERT_EQ(f[48], 0.0);
    EXPECT_EQ(f[47], std::stod(r[2]));
    EXPECT_LE(Rel(f[0], std::stod(r[5])), 1e-13);
    EXPECT_LE(Rel(f[16], std::stod(r[10])), 1e-12) << f[16] << " vs " << r[10];
    const double point = std::stod(r[11]);
    EXPECT_LE(std::fabs(f[17] - point), 1e-12 * point) << f[17] << " vs " << r[11];
    EXPECT_EQ(anvl::Word(anvl::word::kPublishedVariant), 3);
    // The one-sided tails; at d = 0 the recursion leaves out its last term.
    if (std::stod(r[6]) > 0.0) {
      EXPECT_LE(Rel(anvl::Slot(86).value, std::stod(r[8])), 1e-12);
    }
    if (std::stod(r[7]) > 0.0) {
      EXPECT_LE(Rel(anvl::Slot(93).value, std::stod(r[9])), 1e-12);
    }
  }
}

}  // namespace
