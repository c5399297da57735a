// The binomial test of a single proportion (procedure 9): exact tail and
// point probability under the null proportion, with Clopper-Pearson limits.
#pragma once

#include <cstdint>

#include "frame/driver.h"

namespace anvl {

// Driver of procedure 9.  The case data must be one row; its columns hold
// at most two distinct values.  The group of the larger value (truncated
// to an integer) gives the successes.  Data with a single value count as
// successes when that value, truncated, is at least 1, else as failures.
// A null weight array weighs every column 1.  A value that isn't a finite
// number within the 64-bit range fails with -3, weights whose sums overflow
// with -1.
void BinomialDriver(const CallArgs& args);

// P(X <= k | p) for X ~ Bin(n, p), 0 < p < 1, summed in logs from the
// nearer end of the distribution.
double BinomialCumulative(int64_t n, int64_t k, double p);

// Root p of P(X <= k | p) = target by bisection on (0, 1), stopping when
// the cumulative is within 1e-7 of the target.
double BinomialBisect(int64_t n, int64_t k, double target);

struct BinomialTail {
  double tail;     // the tail probability (doubled in the symmetric case)
  double point;    // P(X = x)
  int tail_code;   // -1 lower, 1 upper, 2 symmetric (doubled)
};
// The exact tail of x successes in n trials under p0.
BinomialTail BinomialExactTail(int64_t n, int64_t x, double p0);

}  // namespace anvl
