// Addition in log space, used by every exact engine.
#pragma once

#include <cmath>

namespace anvl {

// Below this difference of the arguments exp(-d) is under half an ulp of
// 1.0, so 1.0 + exp(-d) rounds to 1.0 and the sum is the larger argument.
inline constexpr double kLogSumNegligible = 37.5;

// log(exp(a) + exp(b)), shifted by the larger argument m so that the larger
// exponential is exactly 1.0: log(exp(b - m) + exp(a - m)) + m.  The term
// exp(0) = 1.0 is not computed, and a negligible smaller term is skipped;
// both give the same bits as the full formula.  No special case for
// -infinity.
inline double LogSum(double a, double b) {
  const double m = a > b ? a : b;
  const double d = a > b ? b - a : a - b;  // the smaller less the larger, <= 0
  if (d < -kLogSumNegligible) return m;
  return std::log(1.0 + std::exp(d)) + m;
}

}  // namespace anvl
