// Numeric services that the engine takes from the host's numeric library,
// provided here by our own layer over Boost.Math and the standard library.
// Names and argument orders are those the call sites use; integers are
// 64-bit, reals doubles.  Accurate to about 1e-14 relative wherever the
// value is above 1e-300; tails are computed directly, never as 1 - x.
#pragma once

#include <cstdint>

namespace anvl {

// Statuses of the distribution services.  A point below the support is no
// failure (the distribution function is 0 there); only these are.
inline constexpr int64_t kHostOk = 0;
inline constexpr int64_t kHostBadArgument = 1;   // an argument is not a number
inline constexpr int64_t kHostBadParameter = 2;  // a parameter outside its domain (shape, df, sd,
                                                 // mean, n, p); the result is then NaN

// log Gamma(x), x > 0; called with n + 1 to give log n!.
double DNLGAM(double x);
// Gamma distribution with shape p >= 0 at x: the upper tail when `upper`,
// else the lower, each computed directly.  Shape 0 is the point mass at 0.
// status kHostBadArgument for NaN, kHostBadParameter for p < 0.
double GAMMAD(double x, double p, bool upper, int64_t* status);
// Standard normal: lower tail P(Z <= z) and upper tail P(Z > z), by the
// complementary error function in extended precision (to 1e-300 at |z| 37).
double PRBNRM(double z);
double SIGNRM(double z);
// Upper tail of the F distribution with df1, df2 > 0 degrees of freedom,
// by the incomplete beta function; 1.0 for f <= 0.
double SIGF(double f, double df1, double df2, int64_t* status);
// Distribution functions (lower tail, P(X <= x)): chi-square (df >= 0),
// normal (sd > 0), Poisson (mean >= 0; x truncated to a whole number),
// binomial (whole n >= 0, 0 <= p <= 1; x truncated).  Statuses as above.
double CDFCHI(double x, double df, int64_t* status);
double CDFNOR(double x, double mean, double sd, int64_t* status);
double CDFPSN(double x, double mean, int64_t* status);
double CDFBIN(double x, double n, double p, int64_t* status);
// x is a whole number to within 4 units in the last place of max(1, |x|).
bool FUZZYINTEGER(double x);
// x and y agree to within `tolerance` units in the last place.
bool QLRALMOSTEQUAL(double x, double y, int64_t tolerance);
// Marks x as "no result" (a quiet NaN); IsNoResult tells the mark.
void PCINMS(double* x);
bool IsNoResult(double x);
// BLAS-like helpers.
double ANVL_DDOT(int64_t n, const double* x, int64_t incx, const double* y, int64_t incy);
void ANVL_DSCAL(int64_t n, double a, double* x, int64_t incx);
void LRZERO(double* x, int64_t n);
void LRMOVE(const double* source, double* destination, int64_t n);
void IMOVE(const int64_t* source, int64_t* destination, int64_t n);
// Reports a failed condition as one line on standard error, and returns.
void ASSERT(const char* routine, const char* condition);
// A message handle for BP_ERROR, and the report itself: one line on
// standard error (the host's error output).
struct MessageHandle {
  const char* text;
  int64_t length;
};
MessageHandle BP_CSTRING(const char* text, int64_t length);
void BP_ERROR(const MessageHandle& handle, int64_t a, int64_t b);

}  // namespace anvl
