// Addition in log space, used by every exact engine.
#pragma once

#include <cmath>

namespace anvl {

// log(exp(a) + exp(b)), shifted by the larger argument so that the larger
// exponential is 1.0.  No special case for -infinity.
inline double LogSum(double a, double b) {
  const double m = a > b ? a : b;
  return std::log(std::exp(b - m) + std::exp(a - m)) + m;
}

}  // namespace anvl
