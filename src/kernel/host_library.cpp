#include "kernel/host_library.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include <boost/math/constants/constants.hpp>
#include <boost/math/policies/policy.hpp>
#include <boost/math/special_functions/beta.hpp>
#include <boost/math/special_functions/erf.hpp>
#include <boost/math/special_functions/gamma.hpp>

namespace anvl {
namespace {

// Every error of Boost.Math comes back as a value (NaN, infinity or the best
// estimate) and never as an exception or an errno side effect.  Arguments
// are checked here before they reach Boost, so the policy only guards.
using QuietPolicy = boost::math::policies::policy<
    boost::math::policies::domain_error<boost::math::policies::ignore_error>,
    boost::math::policies::pole_error<boost::math::policies::ignore_error>,
    boost::math::policies::overflow_error<boost::math::policies::ignore_error>,
    boost::math::policies::underflow_error<boost::math::policies::ignore_error>,
    boost::math::policies::denorm_error<boost::math::policies::ignore_error>,
    boost::math::policies::evaluation_error<boost::math::policies::ignore_error>,
    boost::math::policies::rounding_error<boost::math::policies::ignore_error>,
    boost::math::policies::indeterminate_result_error<boost::math::policies::ignore_error>>;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// A whole number to within this many units of the last place, relative to
// max(1, |x|): absorbs the rounding of a few arithmetic steps on data.
constexpr double kFuzzyIntegerUlps = 4.0;

// Lower and upper tails of the gamma distribution with shape p >= 0 at x.
// Shape 0 is the point mass at 0 (the chi-square with 0 degrees of freedom).
double GammaTail(double x, double p, bool upper) {
  if (x < 0.0) return upper ? 1.0 : 0.0;  // below the support
  if (p == 0.0) return upper ? 0.0 : 1.0;
  if (x == 0.0) return upper ? 1.0 : 0.0;
  if (x == kInf) return upper ? 0.0 : 1.0;
  return upper ? boost::math::gamma_q(p, x, QuietPolicy()) : boost::math::gamma_p(p, x, QuietPolicy());
}

// Lower tail of the standard normal at z in extended precision, so that
// the scaling by 1/sqrt(2) adds no error that the far tail would magnify.
double NormalLower(long double z) {
  const long double arg = -z / boost::math::constants::root_two<long double>();
  return static_cast<double>(boost::math::erfc(arg, QuietPolicy()) / 2.0L);
}

}  // namespace

double DNLGAM(double x) { return boost::math::lgamma(x, QuietPolicy()); }

double GAMMAD(double x, double p, bool upper, int64_t* status) {
  if (std::isnan(x) || std::isnan(p)) {
    *status = kHostBadArgument;
    return kNaN;
  }
  if (p < 0.0 || p == kInf) {
    *status = kHostBadParameter;
    return kNaN;
  }
  *status = kHostOk;
  return GammaTail(x, p, upper);
}

double PRBNRM(double z) { return NormalLower(z); }
double SIGNRM(double z) { return NormalLower(-static_cast<long double>(z)); }

double SIGF(double f, double df1, double df2, int64_t* status) {
  if (std::isnan(f) || std::isnan(df1) || std::isnan(df2)) {
    *status = kHostBadArgument;
    return kNaN;
  }
  if (!(df1 > 0.0) || !(df2 > 0.0) || df1 == kInf || df2 == kInf) {
    *status = kHostBadParameter;
    return kNaN;
  }
  *status = kHostOk;
  if (f <= 0.0) return 1.0;
  if (f == kInf) return 0.0;
  // P(F > f) = I_y(df2/2, df1/2) with y = df2 / (df2 + df1 f); for large
  // df1 f the complement of the other form keeps the small tail accurate.
  const double v1 = df1 * f;
  if (v1 > df2) {
    const double y = df2 / (df2 + v1);
    return boost::math::ibeta(df2 / 2.0, df1 / 2.0, y, QuietPolicy());
  }
  const double x = v1 / (df2 + v1);
  return boost::math::ibetac(df1 / 2.0, df2 / 2.0, x, QuietPolicy());
}

double CDFCHI(double x, double df, int64_t* status) {
  if (std::isnan(x) || std::isnan(df)) {
    *status = kHostBadArgument;
    return kNaN;
  }
  if (df < 0.0 || df == kInf) {
    *status = kHostBadParameter;
    return kNaN;
  }
  *status = kHostOk;
  return GammaTail(x / 2.0, df / 2.0, false);
}

double CDFNOR(double x, double mean, double sd, int64_t* status) {
  if (std::isnan(x) || std::isnan(mean) || std::isnan(sd)) {
    *status = kHostBadArgument;
    return kNaN;
  }
  if (!(sd > 0.0) || sd == kInf || !std::isfinite(mean)) {
    *status = kHostBadParameter;
    return kNaN;
  }
  *status = kHostOk;
  return NormalLower((static_cast<long double>(x) - mean) / sd);
}

double CDFPSN(double x, double mean, int64_t* status) {
  if (std::isnan(x) || std::isnan(mean)) {
    *status = kHostBadArgument;
    return kNaN;
  }
  if (mean < 0.0 || mean == kInf) {
    *status = kHostBadParameter;
    return kNaN;
  }
  *status = kHostOk;
  const double k = std::floor(x);
  if (k < 0.0) return 0.0;
  if (mean == 0.0 || k == kInf) return 1.0;
  // P(X <= k) = Q(k + 1, mean), the upper regularised incomplete gamma.
  return boost::math::gamma_q(k + 1.0, mean, QuietPolicy());
}

double CDFBIN(double x, double n, double p, int64_t* status) {
  if (std::isnan(x) || std::isnan(n) || std::isnan(p)) {
    *status = kHostBadArgument;
    return kNaN;
  }
  if (n < 0.0 || n != std::floor(n) || n == kInf || p < 0.0 || p > 1.0) {
    *status = kHostBadParameter;
    return kNaN;
  }
  *status = kHostOk;
  const double k = std::floor(x);
  if (k < 0.0) return 0.0;
  if (k >= n) return 1.0;
  // P(X <= k) = 1 - I_p(k + 1, n - k), taken as the complement directly.
  return boost::math::ibetac(k + 1.0, n - k, p, QuietPolicy());
}

bool FUZZYINTEGER(double x) {
  if (!std::isfinite(x)) return false;
  const double scale = std::fabs(x) > 1.0 ? std::fabs(x) : 1.0;
  return std::fabs(x - std::nearbyint(x)) <= kFuzzyIntegerUlps * std::numeric_limits<double>::epsilon() * scale;
}

bool QLRALMOSTEQUAL(double x, double y, int64_t tolerance) {
  if (std::isnan(x) || std::isnan(y)) return false;
  if (x == y) return true;  // also +0 against -0 and equal infinities
  // Map each double to an integer that orders like the double, so that
  // neighbouring doubles differ by 1; the distance is then in units of the
  // last place, also across zero.
  auto ordered = [](double v) {
    int64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits < 0 ? std::numeric_limits<int64_t>::min() - bits : bits;
  };
  const int64_t a = ordered(x), b = ordered(y);
  const uint64_t distance = a > b ? static_cast<uint64_t>(a) - static_cast<uint64_t>(b)
                                  : static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
  return tolerance >= 0 && distance <= static_cast<uint64_t>(tolerance);
}

void PCINMS(double* x) { *x = kNaN; }
bool IsNoResult(double x) { return std::isnan(x); }

double ANVL_DDOT(int64_t n, const double* x, int64_t incx, const double* y, int64_t incy) {
  if (n <= 0) return 0.0;
  int64_t ix = incx < 0 ? (1 - n) * incx : 0;
  int64_t iy = incy < 0 ? (1 - n) * incy : 0;
  double sum = 0.0;
  for (int64_t i = 0; i < n; ++i, ix += incx, iy += incy) sum += x[ix] * y[iy];
  return sum;
}

void ANVL_DSCAL(int64_t n, double a, double* x, int64_t incx) {
  if (n <= 0 || incx <= 0) return;
  for (int64_t i = 0; i < n; ++i) x[i * incx] *= a;
}

void LRZERO(double* x, int64_t n) {
  for (int64_t i = 0; i < n; ++i) x[i] = 0.0;
}

void LRMOVE(const double* source, double* destination, int64_t n) {
  if (n > 0) std::memmove(destination, source, static_cast<size_t>(n) * sizeof(double));
}

void IMOVE(const int64_t* source, int64_t* destination, int64_t n) {
  if (n > 0) std::memmove(destination, source, static_cast<size_t>(n) * sizeof(int64_t));
}

void ASSERT(const char* routine, const char* condition) {
  std::fprintf(stderr, "ASSERT failed in %s: %s\n", routine ? routine : "?", condition ? condition : "?");
}

MessageHandle BP_CSTRING(const char* text, int64_t length) {
  if (text == nullptr) return {"", 0};
  if (length < 0) length = static_cast<int64_t>(std::strlen(text));
  return {text, length};
}

void BP_ERROR(const MessageHandle& handle, int64_t a, int64_t b) {
  // One call, so that the line reaches the stream whole.
  std::fprintf(stderr, "%.*s\n", static_cast<int>(handle.length), handle.text ? handle.text : "");
}

}  // namespace anvl
