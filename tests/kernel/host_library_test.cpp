// The numeric services against R's stats package (tests/data/kernel_refs.csv,
// written by gen_kernel_refs.R), their statuses, and the small helpers.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "kernel/host_library.h"
#include "kernel/quad.h"
#include "support/ref_data.h"

namespace anvl {
namespace {

// Relative agreement with R: in the body of a distribution both sides are
// good to a few ulp; in the far tails the argument's rounding is magnified.
constexpr double kBodyTolerance = 1e-12;
constexpr double kTailTolerance = 1e-10;
// References below this count as the far tail.
constexpr double kTailBelow = 1e-6;

struct Service {
  const char* routine;  // rows of the reference file
  std::function<double(const double*, int64_t*)> call;
};

const Service kServices[] = {
    {"lgamma", [](const double* a, int64_t* s) { *s = 0; return DNLGAM(a[0]); }},
    {"pgamma_lower", [](const double* a, int64_t* s) { return GAMMAD(a[0], a[1], false, s); }},
    {"pgamma_upper", [](const double* a, int64_t* s) { return GAMMAD(a[0], a[1], true, s); }},
    {"pf_upper", [](const double* a, int64_t* s) { return SIGF(a[0], a[1], a[2], s); }},
    {"pchisq_lower", [](const double* a, int64_t* s) { return CDFCHI(a[0], a[1], s); }},
    {"pnorm_lower", [](const double* a, int64_t* s) { *s = 0; return PRBNRM(a[0]); }},
    {"pnorm_upper", [](const double* a, int64_t* s) { *s = 0; return SIGNRM(a[0]); }},
    {"pnorm_general", [](const double* a, int64_t* s) { return CDFNOR(a[0], a[1], a[2], s); }},
    {"ppois", [](const double* a, int64_t* s) { return CDFPSN(a[0], a[1], s); }},
    {"pbinom", [](const double* a, int64_t* s) { return CDFBIN(a[0], a[1], a[2], s); }},
};

TEST(HostLibrary, DistributionServicesAgreeWithR) {
  for (const Service& service : kServices) {
    for (const auto& row : support::LoadKernelRefs(service.routine)) {
      int64_t status = -1;
      const double got = service.call(row.a, &status);
      const double tol = std::fabs(row.value) < kTailBelow ? kTailTolerance : kBodyTolerance;
      EXPECT_EQ(status, kHostOk) << service.routine;
      EXPECT_LE(std::fabs(got - row.value), tol * std::fabs(row.value))
          << service.routine << "(" << row.a[0] << ", " << row.a[1] << ", " << row.a[2] << ") = " << got
          << ", R gives " << row.value << " (source: R " << service.routine << ")";
    }
  }
}

TEST(HostLibrary, StatusesAndEdgesOfTheSupport) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    const char* what;
    std::function<double(int64_t*)> call;
    int64_t status;
    double value;  // NaN: the result must be NaN
    const char* source;
  };
  const Case cases[] = {
      {"GAMMAD(NaN, 2)", [&](int64_t* s) { return GAMMAD(nan, 2, true, s); }, kHostBadArgument, nan, "NaN argument"},
      {"GAMMAD(1, -1)", [](int64_t* s) { return GAMMAD(1, -1, true, s); }, kHostBadParameter, nan, "negative shape"},
      {"GAMMAD(-1, 2) upper", [](int64_t* s) { return GAMMAD(-1, 2, true, s); }, kHostOk, 1.0, "below support"},
      {"GAMMAD(0, 2) lower", [](int64_t* s) { return GAMMAD(0, 2, false, s); }, kHostOk, 0.0, "edge of support"},
      {"GAMMAD(3, 0) upper", [](int64_t* s) { return GAMMAD(3, 0, true, s); }, kHostOk, 0.0, "point mass at 0"},
      {"GAMMAD(inf, 2) upper", [&](int64_t* s) { return GAMMAD(inf, 2, true, s); }, kHostOk, 0.0, "limit"},
      {"SIGF(1, 0, 3)", [](int64_t* s) { return SIGF(1, 0, 3, s); }, kHostBadParameter, nan, "df1 = 0"},
      {"SIGF(-2, 3, 3)", [](int64_t* s) { return SIGF(-2, 3, 3, s); }, kHostOk, 1.0, "below support"},
      {"CDFCHI(1, -1)", [](int64_t* s) { return CDFCHI(1, -1, s); }, kHostBadParameter, nan, "negative df"},
      {"CDFCHI(2, 0)", [](int64_t* s) { return CDFCHI(2, 0, s); }, kHostOk, 1.0, "R: pchisq(2, 0) = 1"},
      {"CDFNOR(1, 0, 0)", [](int64_t* s) { return CDFNOR(1, 0, 0, s); }, kHostBadParameter, nan, "sd = 0"},
      {"CDFPSN(3, -1)", [](int64_t* s) { return CDFPSN(3, -1, s); }, kHostBadParameter, nan, "negative mean"},
      {"CDFPSN(-0.5, 2)", [](int64_t* s) { return CDFPSN(-0.5, 2, s); }, kHostOk, 0.0, "below support"},
      {"CDFPSN(4, 0)", [](int64_t* s) { return CDFPSN(4, 0, s); }, kHostOk, 1.0, "R: ppois(4, 0) = 1"},
      {"CDFBIN(2, 10.5, 0.3)", [](int64_t* s) { return CDFBIN(2, 10.5, 0.3, s); }, kHostBadParameter, nan, "n not whole"},
      {"CDFBIN(2, 10, 1.5)", [](int64_t* s) { return CDFBIN(2, 10, 1.5, s); }, kHostBadParameter, nan, "p above 1"},
      {"CDFBIN(10, 10, 0.3)", [](int64_t* s) { return CDFBIN(10, 10, 0.3, s); }, kHostOk, 1.0, "k = n"},
      {"CDFBIN(3, 10, 0)", [](int64_t* s) { return CDFBIN(3, 10, 0, s); }, kHostOk, 1.0, "R: pbinom(3, 10, 0) = 1"},
      {"CDFBIN(3, 10, 1)", [](int64_t* s) { return CDFBIN(3, 10, 1, s); }, kHostOk, 0.0, "R: pbinom(3, 10, 1) = 0"},
  };
  for (const auto& c : cases) {
    int64_t status = -7;
    const double got = c.call(&status);
    EXPECT_EQ(status, c.status) << c.what << " (" << c.source << ")";
    if (std::isnan(c.value)) {
      EXPECT_TRUE(std::isnan(got)) << c.what << " gives " << got;
    } else {
      EXPECT_EQ(got, c.value) << c.what << " (" << c.source << ")";
    }
  }
}

TEST(HostLibrary, FuzzyIntegerAndAlmostEqual) {
  const double one = 1.0;
  double ulps4096 = one;
  for (int i = 0; i < 4096; ++i) ulps4096 = std::nextafter(ulps4096, 2.0);
  const double ulps4097 = std::nextafter(ulps4096, 2.0);
  const double tiny = std::numeric_limits<double>::denorm_min();
  struct Case {
    double x;
    bool whole;
    const char* source;
  } fuzzy[] = {{3.0, true, "whole"},
               {0.1 * 3 * 10, true, "3 after rounding of 0.1 * 3 * 10"},
               {3.0 + 1e-10, false, "off by 1e-10"},
               {1e12 + 0.5, false, "half at 1e12"},
               {-7.0, true, "negative whole"},
               {std::numeric_limits<double>::quiet_NaN(), false, "NaN"}};
  for (const auto& c : fuzzy) EXPECT_EQ(FUZZYINTEGER(c.x), c.whole) << c.x << " (" << c.source << ")";

  EXPECT_TRUE(QLRALMOSTEQUAL(one, ulps4096, 4096));
  EXPECT_FALSE(QLRALMOSTEQUAL(one, ulps4097, 4096));
  EXPECT_TRUE(QLRALMOSTEQUAL(ulps4096, one, 4096));
  EXPECT_TRUE(QLRALMOSTEQUAL(0.0, -0.0, 0));
  EXPECT_TRUE(QLRALMOSTEQUAL(tiny, -tiny, 2)) << "two steps across zero";
  EXPECT_FALSE(QLRALMOSTEQUAL(tiny, -tiny, 1));
  EXPECT_FALSE(QLRALMOSTEQUAL(1.0, -1.0, 4096));
  EXPECT_FALSE(QLRALMOSTEQUAL(std::nan(""), std::nan(""), 4096));

  double mark = 0.0;
  PCINMS(&mark);
  EXPECT_TRUE(IsNoResult(mark));
  EXPECT_FALSE(IsNoResult(0.0));
}

TEST(HostLibrary, VectorHelpersFollowBlasStrides) {
  const double x[] = {1, 2, 3, 4, 5, 6};
  const double y[] = {10, 20, 30};
  // BLAS: a negative stride walks the vector from its far end.
  EXPECT_EQ(ANVL_DDOT(3, x, 2, y, 1), 1 * 10 + 3 * 20 + 5 * 30);
  EXPECT_EQ(ANVL_DDOT(3, x, 2, y, -1), 1 * 30 + 3 * 20 + 5 * 10);
  EXPECT_EQ(ANVL_DDOT(0, x, 1, y, 1), 0.0);
  std::vector<double> z = {1, 2, 3, 4};
  ANVL_DSCAL(2, -2.0, z.data(), 2);
  EXPECT_EQ(z, (std::vector<double>{-2, 2, -6, 4}));
  LRMOVE(z.data(), z.data() + 1, 3);  // overlapping copy
  EXPECT_EQ(z, (std::vector<double>{-2, -2, 2, -6}));
  LRZERO(z.data(), 4);
  EXPECT_EQ(z, std::vector<double>(4, 0.0));
  int64_t a[] = {5, -6, 7}, b[3] = {};
  IMOVE(a, b, 3);
  EXPECT_EQ(std::vector<int64_t>(b, b + 3), (std::vector<int64_t>{5, -6, 7}));
}

// The assertion line of ASSERT is held in distributions_test (ChiSquareTail
// with no degrees of freedom); BP_ERROR prints the given length.
TEST(HostLibrary, ErrorLineHasTheGivenLength) {
  testing::internal::CaptureStderr();
  BP_ERROR(BP_CSTRING("NSTACK must be made larger.xyz", 27), 1, 3);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "NSTACK must be made larger.\n");
}

TEST(Quad, PowersAndExponentialKeepTheirDigits) {
  // 3^40 = 12157665459056928801 needs 64 bits: exact in quadruple precision,
  // so the double is the correctly rounded integer (by hand).
  EXPECT_EQ(QuadToDouble(QuadPowInt(QuadFromDouble(3.0), 40)), static_cast<double>(12157665459056928801ULL));
  EXPECT_EQ(QuadToDouble(QuadPowInt(QuadFromDouble(2.0), -1074)), std::numeric_limits<double>::denorm_min());
  EXPECT_EQ(QuadToDouble(QuadPowInt(QuadFromDouble(-1.5), 0)), 1.0);
  // (1 + 2^-30)^(2^30) = e (1 - 2^-31 + ...): quad keeps what double loses.
  const Quad base = QuadAdd(QuadFromDouble(1.0), QuadFromDouble(std::ldexp(1.0, -30)));
  const double e_approx = QuadToDouble(QuadPowInt(base, int64_t{1} << 30));
  EXPECT_NEAR(e_approx, M_E * (1 - std::ldexp(1.0, -31)), 1e-15);
  EXPECT_EQ(QuadToDouble(QuadExp(QuadFromDouble(1.0))), M_E);
  EXPECT_EQ(QuadToDouble(QuadDiv(QuadMul(QuadFromDouble(0.1), QuadFromDouble(3.0)), QuadSub(QuadFromDouble(2.0), QuadFromDouble(1.0)))),
            static_cast<double>(static_cast<__float128>(0.1) * 3));
}

}  // namespace
}  // namespace anvl
